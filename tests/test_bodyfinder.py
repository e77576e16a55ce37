"""Scope structure: scope def predicates, stack items and their free list,
and the division of a list of logicals into scope bodies."""

import gc
import textwrap
import weakref

import pytest

from basekit.destroyable import CDestroyable
from pysource import scopescanner as ss
from pysource.filellinecache import BuildLogicalLines
from pysource.logicalline import CreateLogical
from pysource.scopebodycache import GetFullNameForScopeDef


def make_logical(text, indent=0):
    """One statement as a logical, at `indent`."""
    (logical,) = BuildLogicalLines(" " * indent + text)
    return logical


def logicals(source):
    """The logical lines of `source` as a file's logical line cache makes them."""
    return BuildLogicalLines(textwrap.dedent(source))


def texts(logical_list):
    return [" ".join(logical.fToks) for logical in logical_list]


def run_finder(source, scope_def_i=-1, top_scope_only=False):
    lines = logicals(source)
    finder = ss._CScopeBodyFinder(lines, scope_def_i, top_scope_only)
    finder.ProcessUntilEnd()
    return lines, finder


def completed(finder):
    return [(item.scope_name, texts(item.body)) for item in finder.fCompletedScopeList]


@pytest.fixture(autouse=True)
def empty_free_list():
    del ss._gStackItemFreeList[:]
    yield
    del ss._gStackItemFreeList[:]


class TestScopeDefPredicates:
    @pytest.mark.parametrize("text, scope_def, async_def", [
        ("def f(x):", True, False), ("class C(B):", True, False), ("async def f():", True, True),
        ("def async_f():", True, False), ("async with x:", False, False), ("@deco", False, False),
        ("# def f():", False, False), ("f = lambda: 1", False, False),
        ("x = [i for i in y]", False, False)])
    def test_scope_def_and_async_def(self, text, scope_def, async_def):
        assert ss.IsScopeDef(make_logical(text)) is scope_def
        assert ss.IsAsyncDef(make_logical(text)) is async_def

    def test_bad_arguments(self):
        assert not ss.IsAsyncDef(None)
        with pytest.raises(TypeError):
            ss.IsScopeDef("def f():")

    def test_logical_contains_lineno(self):
        logical = CreateLogical(indent=0, start_line=10, line_count=2,
                                toks=["x", "=", "(", "1", ",", "2", ")"])
        assert [ss.LogicalContainsLineno(logical, n) for n in (9, 10, 11, 12)] == [
            False, True, True, False]
        with pytest.raises(AttributeError):
            ss.LogicalContainsLineno(None, 1)

    def test_full_name_for_scope_def(self):
        top, method = logicals("""
            class C:
                def m(self):
                    pass
        """)[:2]
        assert GetFullNameForScopeDef(top) == "C|0"
        assert GetFullNameForScopeDef(method) == "C.m|0"
        with pytest.raises(TypeError):
            GetFullNameForScopeDef(make_logical("x = 1"))  # defines no scope


class TestFindDecoratorLogicals:
    @pytest.mark.parametrize("texts, index, expected", [
        (["@a", "# note", "@b", "def f():"], 3, [0, 2]),  # comments keep the run
        (["@z", "x = 1", "@a", "def f():"], 3, [2]),      # a statement ends it
        (["@a", None, "def f():"], 2, [0]),               # empty logicals are passed over
        (["def f():"], 0, []),
        (["def f():"], -1, []),
    ])
    def test_runs(self, texts, index, expected):
        empty = CreateLogical(indent=0, start_line=2, line_count=1, toks=[], ttypes=[],
                              positions=[], spaces_in_indent=False, tabs_in_indent=False,
                              incomplete=False, line_text="")
        lines = [empty if text is None else make_logical(text) for text in texts]
        assert ss.FindDecoratorLogicals(index, lines) == [lines[i] for i in expected]

    def test_no_list(self):
        assert ss.FindDecoratorLogicals(0, None) == []
        with pytest.raises(TypeError):
            ss.FindDecoratorLogicals(1, None)


class Counted:
    """Any object with a destroy() can be a stack item's scanner."""

    def __init__(self):
        self.destroyed = 0

    def destroy(self):
        self.destroyed += 1


class TestStackItems:
    def test_free_list_returns_the_same_item_cleared(self):
        item = ss._NewStackItem()
        body, decorators, methods = item.body, item.decorator_logicals, item.child_method_list
        item.scope_name, item.scope_index, item.not_parsed_count = "C.m|0", 4, 2
        item.scope_def = item.containing_class_def = make_logical("def m(self):")
        item.is_async_def = True
        body.append(make_logical("x = 1"))
        decorators.append(make_logical("@a"))
        methods.append("info")
        ss._DelStackItem(item)
        assert ss._gStackItemFreeList == [item]
        again = ss._NewStackItem()
        assert again is item and ss._gStackItemFreeList == []
        assert again.body is body and again.decorator_logicals is decorators
        assert again.child_method_list is methods
        assert (body, decorators, methods) == ([], [], [])
        assert (again.scope_name, again.scope_def, again.containing_class_def) == ("", None, None)
        assert (again.is_async_def, again.not_parsed_count, again.scope_index) == (False, 0, -1)

    def test_clear_destroys_the_scanner_once(self):
        item = ss._CScopeStackItem()
        scanner = Counted()
        item.scanner = scanner
        item.Clear()
        item.Clear()
        assert scanner.destroyed == 1 and item.scanner is None

    def test_clear_destroys_a_destroyable_scanner(self):
        events = []

        class Scanner(CDestroyable):
            def _destroy_impl(self):
                events.append("impl")

        item = ss._CScopeStackItem()
        item.scanner = Scanner()
        ss._DelStackItem(item)
        assert events == ["impl"] and item.scanner is None

    def test_only_items_go_on_the_free_list(self):
        with pytest.raises(TypeError):
            ss._DelStackItem("item")
        assert ss._gStackItemFreeList == []

    def test_cycle_through_the_scanner_is_collected(self):
        class Holder:
            def destroy(self):
                pass

        item = ss._CScopeStackItem()
        holder = Holder()
        holder.item, item.scanner = item, holder
        alive = weakref.ref(holder)
        del item, holder
        gc.collect()
        assert alive() is None


NESTED = """
    import os
    class C:
        x = 1
        def m(self):
            return 1
        y = 2
    def f():
        def g():
            pass
    z = 3
"""


class TestWholeFile:
    def test_empty_list_completes_the_root_at_once(self):
        finder = ss._CScopeBodyFinder([], -1, False)
        assert finder.ProcessNextLogical() is None
        assert completed(finder) == [("", [])]
        assert finder.ProcessNextLogical() is None
        assert len(finder.fCompletedScopeList) == 1

    def test_bodies_in_order_of_completion(self):
        lines, finder = run_finder(NESTED)
        assert completed(finder) == [
            ("C.m|0", ["return 1"]),
            ("C|0", ["x = 1", "def m ( self ) :", "y = 2"]),
            ("f.g|0", ["pass"]),
            ("f|0", ["def g ( ) :"]),
            ("", ["import os", "class C :", "def f ( ) :", "z = 3"]),
        ]
        assert [item.scope_def for item in finder.fCompletedScopeList] == [
            lines[3], lines[1], lines[7], lines[6], None]
        assert finder._fScopeStack == [] and finder._fPendingCommentLogicals == []

    def test_each_logical_is_returned_once_then_none(self):
        lines = logicals(NESTED)
        finder = ss._CScopeBodyFinder(lines, -1, False)
        returned = []
        while (logical := finder.ProcessNextLogical()) is not None:
            returned.append(logical)
        assert returned == lines
        assert finder.ProcessNextLogical() is None

    def test_a_scope_is_complete_at_the_first_logical_past_it(self):
        lines = logicals(NESTED)
        finder = ss._CScopeBodyFinder(lines, -1, False)
        for _ in range(6):  # through "y = 2"
            finder.ProcessNextLogical()
        assert [item.scope_name for item in finder.fCompletedScopeList] == ["C.m|0"]
        assert [item.scope_name for item in finder._fScopeStack] == ["", "C|0"]
        assert ss._GetStackItemIndentLevel(finder._fScopeStack, -1) == 0

    def test_one_dedent_closes_two_scopes(self):
        lines = logicals("""
            def f():
                def g():
                    return 1
            x = 1
        """)
        finder = ss._CScopeBodyFinder(lines, -1, False)
        for _ in range(3):
            finder.ProcessNextLogical()
        assert finder.fCompletedScopeList == []
        assert finder.ProcessNextLogical() is lines[3]
        assert [item.scope_name for item in finder.fCompletedScopeList] == ["f.g|0", "f|0"]
        assert len(finder._fScopeStack) == 1

    def test_decorators_async_and_names_of_items(self):
        lines, finder = run_finder("""
            class C:
                @staticmethod
                # about m
                @cache
                async def m():
                    pass
        """)
        method = finder.fCompletedScopeList[0]
        assert method.scope_name == "C.m|0" and method.is_async_def
        assert method.decorator_logicals == [lines[1], lines[3]]
        assert texts(finder.fCompletedScopeList[1].body) == [
            "@ staticmethod", "# about m", "@ cache", "async def m ( ) :"]
        assert finder.fCompletedScopeList[1].decorator_logicals == []

    @pytest.mark.parametrize("source, expected", [
        # a comment deeper than the def closes its body with it
        ("def f():\n    x = 1\n    # end of f\n# top level\ny = 2\n",
         [("f|0", ["x = 1", "# end of f"]), ("", ["def f ( ) :", "# top level", "y = 2"])]),
        # a comment at the def's indent goes to the enclosing scope
        ("class C:\n    def m(self):\n        pass\n    # between methods\n"
         "    def n(self):\n        pass\n",
         [("C.m|0", ["pass"]), ("C.n|0", ["pass"]),
          ("C|0", ["def m ( self ) :", "# between methods", "def n ( self ) :"]),
          ("", ["class C :"])]),
        # a lesser comment ahead of a deeper one goes with it
        ("def f():\n    x = 1\n# shallow\n    # deep\ny = 2\n",
         [("f|0", ["x = 1", "# shallow", "# deep"]), ("", ["def f ( ) :", "y = 2"])]),
        # trailing comments at the end of the file
        ("def f():\n    x = 1\n    # inside\n# outside\n",
         [("f|0", ["x = 1", "# inside"]), ("", ["def f ( ) :", "# outside"])]),
        # a comment ahead of a statement belongs to its scope
        ("def f():\n        # oddly deep\n    x = 1\n",
         [("f|0", ["# oddly deep", "x = 1"]), ("", ["def f ( ) :"])]),
    ], ids=["deeper", "at-def-indent", "lesser-then-deeper", "trailing", "ahead-of-statement"])
    def test_comments_go_to_the_scope_they_close_or_open(self, source, expected):
        assert completed(run_finder(source)[1]) == expected

    def test_a_non_logical_in_the_list_is_a_type_error(self):
        finder = ss._CScopeBodyFinder([make_logical("x = 1"), "y = 2"], -1, False)
        finder.ProcessNextLogical()
        with pytest.raises(TypeError):
            finder.ProcessNextLogical()


CLASS_WITH_METHODS = """
    x = 0
    class C:
        a = 1
        # before m
        def m(self):
            # inside m
            return 1
        # between
        def n(self):
            def inner():
                pass
            # deep in n
        b = 2
    y = 3
"""


class TestOneScope:
    def test_top_scope_only_keeps_def_lines_and_between_comments(self):
        lines = logicals(CLASS_WITH_METHODS)
        finder = ss._CScopeBodyFinder(lines, 1, True)
        assert finder._fScanPos == 2
        finder.ProcessUntilEnd()
        assert completed(finder) == [
            ("C|0", ["a = 1", "# before m", "def m ( self ) :", "# between",
                   "def n ( self ) :", "b = 2"]),
        ]
        assert finder.PopCompletedScopeBody() == [lines[i] for i in (2, 3, 4, 7, 8, 12)]
        assert finder.PopCompletedScopeBody() is None

    @pytest.mark.parametrize("source, index, expected", [
        # comments trailing an ignored method are split by their indent
        ("class C:\n    def m(self):\n        pass\n        # deep, dropped with m\n"
         "    # shallow, kept\n    b = 2\n", 0,
         [("C|0", ["def m ( self ) :", "# shallow, kept", "b = 2"])]),
        # a scope at the end of the file completes at the end
        ("x = 0\ndef f():\n    # first\n    y = 1\n    # last\n", 1,
         [("f|0", ["# first", "y = 1", "# last"])]),
        # at the root, every def body is ignored
        (textwrap.dedent(CLASS_WITH_METHODS), -1, [("", ["x = 0", "class C :", "y = 3"])]),
    ], ids=["trailing-comments", "end-of-file", "root"])
    def test_top_scope_only_bodies(self, source, index, expected):
        assert completed(run_finder(source, index, True)[1]) == expected

    def test_early_stop_leaves_the_ending_statement_in_no_body(self):
        lines = logicals(CLASS_WITH_METHODS)
        finder = ss._CScopeBodyFinder(lines, 1, True)
        returned = []
        while (logical := finder.ProcessNextLogical()) is not None:
            returned.append(logical)
        assert lines[13] not in returned  # "y = 3" ended the class
        assert finder._fScanPos == 14
        assert finder._fScopeStack == [] and finder._fIgnoredIndent == -1
        assert all(lines[13] not in item.body for item in finder.fCompletedScopeList)
        assert finder.ProcessNextLogical() is None and finder._fScanPos == 14

    def test_all_sub_scopes_when_not_top_scope_only(self):
        lines = logicals(CLASS_WITH_METHODS)
        _, finder = lines, ss._CScopeBodyFinder(lines, 1, False)
        finder.ProcessUntilEnd()
        assert [name for name, _ in completed(finder)] == ["C.m|0", "C.n.inner|0", "C.n|0", "C|0"]
        assert completed(finder)[2] == ("C.n|0", ["def inner ( ) :", "# deep in n"])

    def test_index_that_is_not_a_scope_def(self):
        lines = logicals(CLASS_WITH_METHODS)
        with pytest.raises(ValueError) as info:
            ss._CScopeBodyFinder(lines, 0, True)
        assert str(info.value) == f"Logical at [0] does not start scope: {lines[0]!r}"

    @pytest.mark.parametrize("index", [-5, 14, 100])
    def test_index_outside_the_list_means_the_root(self, index):
        lines = logicals(CLASS_WITH_METHODS)
        assert len(lines) == 14
        finder = ss._CScopeBodyFinder(lines, index, False)
        assert finder._fScanPos == 0
        assert finder._fScopeStack[0].scope_def is None
        finder.ProcessUntilEnd()
        assert finder.fCompletedScopeList[-1].scope_name == ""


class TestRecycling:
    def test_popped_body_is_a_copy_and_the_item_is_recycled(self):
        _, finder = run_finder(NESTED)
        root = finder.fCompletedScopeList[-1]
        body = finder.PopCompletedScopeBody()
        assert texts(body) == ["import os", "class C :", "def f ( ) :", "z = 3"]
        assert body is not root.body and root.body == []
        assert ss._gStackItemFreeList == [root]

    def test_next_finder_reuses_recycled_items(self):
        _, finder = run_finder(NESTED)
        items = list(finder.fCompletedScopeList)
        while finder.PopCompletedScopeBody() is not None:
            pass
        assert len(ss._gStackItemFreeList) == 5
        _, again = run_finder(NESTED)
        assert {id(item) for item in again.fCompletedScopeList} == {id(item) for item in items}
        assert ss._gStackItemFreeList == []
        assert completed(again)[0] == ("C.m|0", ["return 1"])

    def test_destroy_returns_open_items_only(self):
        lines = logicals(NESTED)
        finder = ss._CScopeBodyFinder(lines, -1, False)
        for _ in range(5):  # inside C.m
            finder.ProcessNextLogical()
        open_items = list(finder._fScopeStack)
        assert [item.scope_name for item in open_items] == ["", "C|0", "C.m|0"]
        finder.destroy()
        assert ss._gStackItemFreeList == open_items
        assert all(item.body == [] for item in open_items)
        assert finder._fScopeStack == [] and finder.fCompletedScopeList == []
        assert finder.ProcessNextLogical() is None


class TestPriorScopeDef:
    def test_walks_back_to_the_nearest_def(self):
        lines = logicals(CLASS_WITH_METHODS)
        finder = ss._CScopeBodyFinder(lines, -1, False)
        assert finder._FindPriorScopeDefIndex(6) == 4  # "return 1" -> def m
        assert finder._FindPriorScopeDefIndex(4) == 1  # the def itself isn't a candidate
        assert finder._FindPriorScopeDefIndex(1) == -1  # indent 0
        assert finder._FindPriorScopeDefIndex(14) == -1
        assert finder._FindPriorScopeDefIndex(-1) == -1

"""The inference engine: the resolution context's contract, and what names,
imports, attributes, calls and hints resolve to over a small project's
records, the standard library's stubs included."""

import textwrap
import time

import pytest

from basekit.location import CLocalFileLocation
from pysource import (canonicalize, inferenceengine, inferencectx, inferenceiterators,
                      inferquery, inferreddetails, scopeinfo, symbolinfo)
from managerutil import installed_manager
from scanutil import SettableClock, counter_clock, replaced_clock

PROJECT = {
    "pkg/__init__.py": """
        from .shapes import Square, area
        __all__ = ["Square", "area"]
    """,
    "pkg/shapes.py": """
        import os.path
        from typing import Generic, List, Optional, TypeVar

        T = TypeVar("T")

        class Shape:
            sides: int = 0
            def name(self) -> str:
                return "shape"
            @classmethod
            def make(cls):
                return cls()
            @staticmethod
            def unit():
                return 1.0

        class Square(Shape):
            def __init__(self, side):
                self.side = side
                self.tags: List[str] = []
            @property
            def diagonal(self) -> float:
                return self.side * 1.4

        class Box(Generic[T]):
            def __init__(self, item: T):
                self.item = item
            def get(self) -> T:
                return self.item

        def area(s: Square, unit: "a note, not a type" = "m") -> Optional[float]:
            return None

        def first(items: List[T]) -> T:
            return items[0]

        def wrapped(item: T) -> "Optional[List[T]]":
            return [item]

        def untyped(n):
            if n:
                return n
            return "none"

        def flow():
            x = 1
            x = "text"
            y = x
            return y

        counter = 0
        def bump():
            global counter
            counter = "bumped"

        def outer():
            v = 1.5
            def inner():
                return v
            return inner

        class Cycle(Cycle2 if False else object):
            pass
        a = b
        b = a
    """,
    "app.py": """
        import pkg
        import pkg.shapes as shapes
        from pkg import *
        from pkg.shapes import Box, first, untyped, outer
        import collections

        sq = Square(2)
        box = Box(3)
        names = [s.name() for s in [sq]]
        pairs = {k: v for k, v in [("a", 1)]}
        p = os_path = shapes.os.path
        od = collections.OrderedDict()
    """,
}

# (file, scope, expression, what it resolves to)
CASES = [
    ("pkg/shapes.py", "", "Shape", {"type[Shape]"}),
    ("pkg/shapes.py", "", "Square(1)", {"Square"}),
    ("pkg/shapes.py", "", "Square(1).tags", {"list[str]"}),
    ("pkg/shapes.py", "", "Square(1).diagonal", {"float"}),
    ("pkg/shapes.py", "", "Square(1).name()", {"str"}),
    ("pkg/shapes.py", "", "Square(1).sides", {"int"}),
    ("pkg/shapes.py", "", "Square.make()", {"Square"}),
    ("pkg/shapes.py", "", "Shape.unit()", {"float"}),
    ("pkg/shapes.py", "", "Square(1).name", {"def Shape.name"}),
    ("pkg/shapes.py", "", "area(Square(1))", {"float", "None"}),
    ("pkg/shapes.py", "", "first([1, 2])", {"int"}),
    ("pkg/shapes.py", "", "wrapped('a')", {"list[str]", "None"}),  # a variable inside a string hint
    ("pkg/shapes.py", "", "Box('a').get()", {"str"}),
    ("pkg/shapes.py", "", "untyped(3)", {"int"}),  # 3 is true: the later return is never reached
    ("pkg/shapes.py", "flow", "y", {"str"}),
    ("pkg/shapes.py", "flow", "x:#1", {"int"}),
    ("pkg/shapes.py", "", "counter", {"int"}),
    ("pkg/shapes.py", "outer.inner", "v", {"float"}),
    ("pkg/shapes.py", "", "os.path", {"module os.path"}),
    ("pkg/shapes.py", "", "os.path.join('a', 'b')", {"str"}),
    ("pkg/shapes.py", "", "a", set()),
    ("app.py", "", "pkg", {"module pkg"}),
    ("app.py", "", "shapes", {"module pkg.shapes"}),
    ("app.py", "", "area", {"def area"}),
    ("app.py", "", "sq", {"Square"}),
    ("app.py", "", "box.get()", {"int"}),
    ("app.py", "", "names", {"list[str]"}),
    ("app.py", "", "pairs", {"dict[str, int]"}),
    ("app.py", "", "od", {"collections.OrderedDict"}),
    ("app.py", "", "'a,b'.split(',')", {"list[str]"}),
    ("app.py", "", "{'a': 1}.get('a')", {"int", "None"}),
    ("app.py", "", "len('x') + 1.5", {"float"}),
    ("app.py", "", "open('f').readline()", {"str"}),
]


def _describe(engine, single):
    """The short text of a single that the cases above use."""
    finder = engine.fModuleFinder
    name = single.scope.name
    module = finder.ModuleNameOf(single.loc) or ""
    qualified = name if module in ("builtins", "", "pkg.shapes", "app") else f"{module}.{name}"
    if single.IsModule():
        return "module " + single.ibytes[2:].decode()
    if single.IsClass():
        return f"type[{qualified}]"
    if single.IsDef():
        return "def " + name
    if single.IsInstance():
        text = single.GetTypeName()
        if single.IsLiteral():
            return text
        qualified = text if module in ("builtins", "", "pkg.shapes", "app") else f"{module}.{text}"
        if single.fTypeArgs:
            args = [" | ".join(sorted({_describe(engine, s) for s in arg})) for arg in single.fTypeArgs]
            return f"{qualified}[{', '.join(args)}]"
        return qualified
    return repr(single)


def _scan(mgr, locs):
    inferquery.RunPrimaryScans(mgr, list(locs))


def _resolve(mgr, loc, scope_name, text, end_time=None):
    """(singles, the context of the last try), running the primary scans the
    engine asks for."""
    engine = mgr.fInferenceEngine._fNativeEngine
    tries = []

    def resolve(ctx):
        tries.append(ctx)
        return engine.ResolveToResult(symbolinfo.Scope(loc, scope_name).ExprIn(text), ctx).resolved

    resolved, _complete = inferquery.ResolveWithScans(mgr, resolve, end_time or time.time() + 30)
    return resolved, tries[-1]


@pytest.fixture(scope="module")
def project(tmp_path_factory):
    root = tmp_path_factory.mktemp("proj")
    for rel, text in PROJECT.items():
        path = root / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(textwrap.dedent(text))
    with installed_manager(editor=False) as mgr:
        mgr.fInferenceEngine._fNativeEngine.fModuleFinder.AddRoot(str(root))
        locs = {rel: CLocalFileLocation(str(root / rel)) for rel in PROJECT}
        _scan(mgr, locs.values())
        yield mgr, locs


@pytest.mark.parametrize("rel, scope, text, expected", CASES)
def test_resolves(project, rel, scope, text, expected):
    mgr, locs = project
    engine = mgr.fInferenceEngine._fNativeEngine
    resolved, ctx = _resolve(mgr, locs[rel], scope, text)
    assert {_describe(engine, s) for s in resolved} == expected
    assert not ctx.fIncomplete or ctx.fIncompleteReason == ctx.kDepthLimit


def test_unscanned_module_asks_for_its_scan_then_answers(tmp_path):
    (tmp_path / "lib.py").write_text("VALUE = 1.5\n")
    (tmp_path / "use.py").write_text("from lib import VALUE\n")
    with installed_manager(editor=False) as mgr:
        engine = mgr.fInferenceEngine._fNativeEngine
        use = CLocalFileLocation(str(tmp_path / "use.py"))
        lib = CLocalFileLocation(str(tmp_path / "lib.py"))
        _scan(mgr, [use])
        ctx = engine.NewContext(None, True)
        result = engine.ResolveToResult(symbolinfo.Scope(use, "").ExprIn("VALUE"), ctx)
        assert ctx.fIncomplete and ctx.fIncompleteReason == ctx.kCannotScan
        assert (symbolinfo.Scope(lib, ""), mgr.fPrimaryScanName) in ctx.fNeedsScan
        assert result.resolved == frozenset()
        resolved, ctx = _resolve(mgr, use, "", "VALUE")
        assert {s.GetTypeName() for s in resolved} == {"float"}
        assert symbolinfo.Scope(lib, "") in ctx.GetScopesSeen()
        assert symbolinfo.Scope(lib, "") in ctx.GetResolvedImports()
        # A module that no file holds is simply nothing, not a scan to wait for.
        ctx = engine.NewContext(None, True)
        (tmp_path / "miss.py").write_text("import nowhere_at_all\n")
        miss = CLocalFileLocation(str(tmp_path / "miss.py"))
        _scan(mgr, [miss])
        engine.ResolveToResult(symbolinfo.Scope(miss, "").ExprIn("nowhere_at_all.x"), ctx)
        assert not ctx.fIncomplete and not ctx.fNeedsScan
        # Written and scanned later, it is found.  A new file's first records
        # leave the primary generation alone (nothing kept could depend on
        # their absence); a changed record moves it on.
        generation = mgr.fInfoCache.fPrimaryGeneration
        created = CLocalFileLocation(str(tmp_path / "nowhere_at_all.py"))
        (tmp_path / "nowhere_at_all.py").write_text("x = b''\n")
        _scan(mgr, [created])
        resolved, ctx = _resolve(mgr, miss, "", "nowhere_at_all.x")
        assert {s.GetTypeName() for s in resolved} == {"bytes"}
        assert mgr.fInfoCache.fPrimaryGeneration == generation
        (tmp_path / "nowhere_at_all.py").write_text("x = 1.5\n")
        _scan(mgr, [created])
        assert mgr.fInfoCache.fPrimaryGeneration > generation
        assert {s.GetTypeName() for s in _resolve(mgr, miss, "", "nowhere_at_all.x")[0]} == {"float"}


def test_repeated_resolves_agree_until_records_change(project, tmp_path):
    """Answers kept from one request to the next tell each context the same
    scopes read and modules imported, and go when a record changes."""
    mgr, locs = project
    engine = mgr.fInferenceEngine._fNativeEngine

    def answer(loc, text):
        ctx = engine.NewContext(None, True)
        resolved = engine.ResolveToResult(symbolinfo.Scope(loc, "").ExprIn(text), ctx).resolved
        return ({_describe(engine, s) for s in resolved}, set(ctx.GetScopesSeen()),
                set(ctx.GetResolvedImports()))

    _resolve(mgr, locs["app.py"], "", "box.get()")  # the scans it asks for
    first = answer(locs["app.py"], "box.get()")
    assert first[0] and len(first[1]) > 1 and first[2]
    assert answer(locs["app.py"], "box.get()") == first
    path = tmp_path / "edited.py"
    loc = CLocalFileLocation(str(path))
    numbers = ", ".join(map(str, range(5000)))  # a text kept apart for its length
    for body, expected in (("1", "int"), ("'text'", "str"), (f"[{numbers}]", "list"), (f"{{{numbers}}}", "set")):
        path.write_text(f"def f():\n    return {body}\nvalue = f()\n")
        _scan(mgr, [loc])
        assert {s.GetTypeName() for s in _resolve(mgr, loc, "", "value")[0]} == {expected}


def _replace_derived_record(mgr, callee, caller, passed):
    """Records that `caller`'s module passes `passed` (a builtin type name) as
    the first argument of `callee`, in place of what its derived scan said."""
    key = scopeinfo.CScopeInfoKey(callee, mgr.fDerivedScanName, symbolinfo.Scope(caller, ""))
    info = scopeinfo.CScopeInfo(key, b"", 100.0, False)
    info.type_equivs = {":a0": f":^{caller.fUrl},:<%,:l{passed}".encode()}
    info.FinishedBuilding()
    mgr.fInfoCache.AddScopeInfo(info)


@pytest.mark.parametrize("edited, expected_x, kept", [
    ("f", {"str"}, False),  # the record the kept value read
    ("g", {"int"}, True),   # another function's: the kept value stands
])
def test_kept_project_values_follow_the_derived_records_they_read(tmp_path, edited, expected_x, kept):
    """A kept value of the project goes when a derived record it read changes,
    and only then: the answer is what a fresh engine would give."""
    files = {"lib.py": "def f(x):\n    return x\n\ndef g(y):\n    return y\n",
             "a.py": "from lib import f\nf(1)\n", "b.py": "from lib import g\ng(1)\n"}
    for name, text in files.items():
        (tmp_path / name).write_text(text)
    locs = {name: CLocalFileLocation(str(tmp_path / name)) for name in files}
    with installed_manager(editor=False) as mgr:
        engine = mgr.fInferenceEngine._fNativeEngine
        inferquery.RunDerivedScans(mgr, list(locs.values()))

        def x_in_f():
            return {s.GetTypeName() for s in _resolve(mgr, locs["lib.py"], "f", "x")[0]}

        assert x_in_f() == {"int"}
        before = engine.KeptCounts()
        generations = (mgr.fInfoCache.fPrimaryGeneration, mgr.fInfoCache.fRecordGeneration)
        caller = locs["a.py" if edited == "f" else "b.py"]
        _replace_derived_record(mgr, symbolinfo.Scope(locs["lib.py"], edited), caller, "str")
        assert mgr.fInfoCache.fPrimaryGeneration == generations[0]
        assert mgr.fInfoCache.fRecordGeneration > generations[1]
        assert x_in_f() == expected_x
        after = engine.KeptCounts()
        assert (after["project_values_found"] > before["project_values_found"]) == kept
        assert (after["project_values_outdated"] > before["project_values_outdated"]) == (not kept)
    with installed_manager(editor=False) as fresh:
        inferquery.RunDerivedScans(fresh, list(locs.values()))
        _replace_derived_record(fresh, symbolinfo.Scope(locs["lib.py"], edited), caller, "str")
        assert {s.GetTypeName() for s in _resolve(fresh, locs["lib.py"], "f", "x")[0]} == expected_x


@pytest.mark.parametrize("scope_name, text, expected", [
    ("", "total", {"int"}),          # set only by a function that declares it global
    ("reader", "total", {"int"}),    # read in another function, without a declaration
    ("", "table", {"dict", "None"}),  # set at module level too
])
def test_a_name_set_through_global_in_a_function(tmp_path, scope_name, text, expected):
    path = tmp_path / "m.py"
    path.write_text("table = None\n\ndef setter():\n    global total, table\n    total = 3\n"
                    "    table = {}\n\ndef reader():\n    return total\n")
    with installed_manager(editor=False) as mgr:
        loc = CLocalFileLocation(str(path))
        inferquery.RunDerivedScans(mgr, [loc])
        assert {s.GetTypeName() for s in _resolve(mgr, loc, scope_name, text)[0]} == expected


def _answer_after(path, earlier, text):
    """The type names and scopes seen of `text` read in the module at `path`
    by a new manager, after the requests `earlier`."""
    with installed_manager(editor=False) as mgr:
        loc = CLocalFileLocation(str(path))
        _scan(mgr, [loc])
        for earlier_text in earlier:
            _resolve(mgr, loc, "", earlier_text)
        resolved, ctx = _resolve(mgr, loc, "", text)
        return {s.GetTypeName() for s in resolved}, set(ctx.GetScopesSeen())


SHARED_CALL = "def f(x):\n    return x\n\ndef h():\n    return f(1)\n\nc = h()\nd = h()\n"
GENERIC_BOX = """
from typing import Generic, TypeVar
T = TypeVar("T")

class Item: ...

class Base(Generic[T]):
    def first(self) -> T: ...

class Box(Base[T]):
    def get(self) -> "list[T]": ...

def make() -> "Box[Item]": ...

box = make()
"""


@pytest.mark.parametrize("module, warm, text", [
    ("a = 'x'\nb = [1]\n", ["a.upper()"], "a.lower()"),
    ("a = 'x'\nb = [1]\n", ["b.copy()"], "b.pop()"),
    ("a = 'x'\nb = [1]\n", ["a.upper()", "b.copy()"], "a.join(b)"),
    # d's value reuses what h's body gave for c in the same request.
    (SHARED_CALL, ["(c, d)"], "d"),
    # Hinted returns, and the order of a specialised class, kept from the first.
    (GENERIC_BOX, ["make().first()"], "box.first()"),
    (GENERIC_BOX, ["make().get()"], "box.first()"),
    # Whether a return hint names a type variable, kept from the first.
    ("from typing import TypeVar\nT = TypeVar('T')\ndef pick(x: T) -> T: ...\n", ["pick(1)"], "pick('s')"),
])
def test_facts_kept_from_earlier_requests_tell_the_scopes_they_read(tmp_path, module, warm, text):
    """Method orders, type variables and values worked out by earlier requests
    tell a later context the scopes they read, as working them out would."""
    (tmp_path / "m.py").write_text(module)
    assert _answer_after(tmp_path / "m.py", warm, text) == _answer_after(tmp_path / "m.py", [], text)


CALLS = """
from typing import Generic, TypeVar

T = TypeVar("T")

def ident(x):
    return x

def wrap(a):
    if isinstance(a, str):
        return a
    return [a]

def outer(y):
    def inner():
        return y
    return inner

def twice(z):
    return [ident(z), wrap(z)]

class Box(Generic[T]):
    def __init__(self, v: T):
        self.v = v
    def get(self):
        return ident(self.v)
"""


@pytest.mark.parametrize("warm, text, expected", [
    (["ident(1)"], "ident('s')", {"str"}),
    (["ident('s')", "wrap(1)"], "wrap('s')", {"str"}),
    (["wrap('s')"], "wrap(1.5)", {"list"}),
    (["outer(1)()"], "outer(b'')()", {"bytes"}),
    (["twice(1)", "ident(b'')"], "twice('s')[0]", {"str"}),
    (["Box(1).get()", "ident(1)"], "Box('s').get()", {"str"}),
])
def test_answers_under_a_calls_arguments_kept_from_earlier_requests(tmp_path, warm, text, expected):
    """What a body gives under one call's arguments, kept from an earlier
    request, never answers a call with other arguments."""
    (tmp_path / "m.py").write_text(CALLS)
    cold = _answer_after(tmp_path / "m.py", [], text)
    assert cold[0] == expected
    assert _answer_after(tmp_path / "m.py", warm, text) == cold


def test_kept_answers_follow_the_search_path(tmp_path):
    for rel, text in (("app/use.py", "import helper\nvalue = helper.X\n"), ("lib/helper.py", "X = 1\n")):
        (tmp_path / rel).parent.mkdir(exist_ok=True)
        (tmp_path / rel).write_text(text)
    with installed_manager(editor=False) as mgr:
        use = CLocalFileLocation(str(tmp_path / "app/use.py"))
        _scan(mgr, [use])
        assert _resolve(mgr, use, "", "value")[0] == frozenset()
        mgr.fInferenceEngine._fNativeEngine.fModuleFinder.AddRoot(str(tmp_path / "lib"))
        assert {s.GetTypeName() for s in _resolve(mgr, use, "", "value")[0]} == {"int"}


def test_deadline_stops_a_resolve(project):
    mgr, locs = project
    engine = mgr.fInferenceEngine._fNativeEngine
    ctx = engine.NewContext(time.time() - 1.0, True)
    assert ctx.OutOfTime()
    result = engine.ResolveToResult(symbolinfo.Scope(locs["app.py"], "").ExprIn("box.get()"), ctx)
    assert ctx.fIncomplete and ctx.fIncompleteReason == ctx.kOutOfTime
    assert result.resolved == frozenset()
    # A clock that moves on at every reading: a resolve stops within a few
    # readings of its deadline, however much work is left.
    with counter_clock() as clock:
        ctx = engine.NewContext(clock.slice_end(3), True)
        start = clock.now
        engine.ResolveToResult(symbolinfo.Scope(locs["app.py"], "").ExprIn("shapes.first(pairs.items())"), ctx)
        assert ctx.fIncomplete and ctx.fIncompleteReason == ctx.kOutOfTime
        assert clock.now - start <= 5


def test_long_text_parse_waits_for_a_request_with_time_for_it(project, tmp_path):
    """A request with too little time left for a long text's parse stops out
    of time before it; the next one parses it, however short."""
    mgr, _ = project
    engine = mgr.fInferenceEngine._fNativeEngine
    path = tmp_path / "table.py"
    path.write_text(f"table = [{', '.join(map(str, range(20000)))}]\nsmall = [1]\n")
    loc = CLocalFileLocation(str(path))
    _resolve(mgr, loc, "", "small")  # the scans it asks for
    with replaced_clock(SettableClock()):
        tries = []
        for _ in range(2):
            ctx = engine.NewContext(0.0005, True)
            resolved = engine.ResolveToResult(symbolinfo.Scope(loc, "").ExprIn("table"), ctx).resolved
            tries.append((ctx.fIncompleteReason, {s.GetTypeName() for s in resolved}))
    assert tries == [(inferencectx.kOutOfTime, set()), (None, {"list"})]


def test_context_contract():
    engine = None
    top = inferencectx.CInferContext(engine, float("inf"), True, None)
    sub = top.SubContext()
    assert sub.fParent is top and sub.fDepth == 1
    sub.AddNeedsScan("scope", "primary")
    sub.AddScopeToScopesSeen("seen")
    sub.MergeResolvedImports({"imported"})
    sub.SetWholeExpr("expr")
    sub.SetIncomplete(top.kOutOfTime)
    assert sub.fIncomplete and sub.fIncompleteReason == inferencectx.kOutOfTime
    sub.ClearIncomplete()
    assert not sub.fIncomplete and sub.fIncompleteReason is None
    assert top.fNeedsScan is None
    sub.Done()
    sub.Done()  # a second Done changes nothing
    assert top.fNeedsScan == {("scope", "primary")}
    assert "seen" in top.GetScopesSeen() and "imported" in top.GetResolvedImports()
    assert not top.OutOfTime()
    assert not top._CInferContext__Isolated(None)
    top._CInferContext__fIsolated = True
    assert top._CInferContext__Isolated(None)
    top._CInferContext__fIsolationReasons = {"a": 1}
    assert top._CInferContext__Isolated("a") and not top._CInferContext__Isolated("b")


def test_python_subclasses_are_honoured(project):
    mgr, locs = project
    engine = mgr.fInferenceEngine._fNativeEngine
    asked = []

    class Finder(inferenceengine.CModuleFinder):
        def FindModule(self, dotted_name, from_loc=None):
            asked.append(dotted_name)
            return super().FindModule(dotted_name, from_loc)

    class Context(inferencectx.CInferContext):
        def OutOfTime(self):
            asked.append("clock")
            return False

    previous = engine.fModuleFinder
    engine.fModuleFinder = Finder(roots=previous.fRoots, stub_dirs=previous.fStubDirs)
    try:
        ctx = Context(engine, float("inf"), True, None)
        result = engine.ResolveToResult(symbolinfo.Scope(locs["app.py"], "").ExprIn("collections"), ctx)
    finally:
        engine.fModuleFinder = previous
    assert "collections" in asked and "clock" in asked
    assert {s.ibytes for s in result.resolved} == {b":Mcollections"}

    class ComputedScope(symbolinfo.CScope):
        # A fresh string on every read: the engine must not keep views of it.
        @property
        def name(self):
            return "".join(["fl", "ow"])

    for _ in range(2):
        result = engine.ResolveToResult(ComputedScope(locs["pkg/shapes.py"], "flow").ExprIn("y"), engine.NewContext())
        assert {s.ibytes for s in result.resolved} == {b":lstr,text"}


def test_stub_conditions_follow_the_configured_version(tmp_path):
    stub = tmp_path / "vers.pyi"
    stub.write_text(textwrap.dedent("""
        import sys
        if sys.version_info >= (3, 10):
            def f() -> int: ...
        else:
            def f() -> str: ...
    """))
    evaluator = inferenceengine.CSimpleConditionEvaluator((3, 8), "linux")
    assert evaluator.Evaluate("sys.version_info >= (3, 10)") is False
    assert evaluator.Evaluate("not sys.version_info >= (3, 10)") is True
    assert evaluator.Evaluate("sys.platform.startswith('lin')") is True
    assert evaluator.Evaluate("hasattr(x, 'y')") is None
    with installed_manager(editor=False) as mgr:
        engine = mgr.fInferenceEngine._fNativeEngine
        loc = CLocalFileLocation(str(stub))
        _scan(mgr, [loc])
        for version, expected in (((3, 8), "str"), ((3, 12), "int")):
            engine.fConditionEvaluator = inferenceengine.CSimpleConditionEvaluator(version, "linux")
            resolved, _ = _resolve(mgr, loc, "", "f()")
            assert {s.GetTypeName() for s in resolved} == {expected}


def test_cycles_and_deep_bases_end(tmp_path):
    (tmp_path / "ca.py").write_text("from cb import y as x\nclass K(K): pass\n")
    (tmp_path / "cb.py").write_text("from ca import x as y\n")
    chain = "class C0: pass\n" + "".join(f"class C{i}(C{i - 1}): pass\n" for i in range(1, 120))
    (tmp_path / "deep.py").write_text(chain + "v = C119().missing\nw = C119()\n")
    with installed_manager(editor=False) as mgr:
        locs = [CLocalFileLocation(str(tmp_path / n)) for n in ("ca.py", "cb.py", "deep.py")]
        _scan(mgr, locs)
        assert _resolve(mgr, locs[0], "", "x")[0] == frozenset()
        assert _resolve(mgr, locs[0], "", "K().attr")[0] == frozenset()
        assert _resolve(mgr, locs[2], "", "v")[0] == frozenset()
        assert {s.GetTypeName() for s in _resolve(mgr, locs[2], "", "w")[0]} == {"C119"}


def test_services(project):
    mgr, locs = project
    engine = mgr.fInferenceEngine._fNativeEngine
    shapes = locs["pkg/shapes.py"]
    resolved, ctx = _resolve(mgr, shapes, "", "Box")
    details = engine._fDetailsStore.GetDetails(resolved, ctx)
    assert isinstance(details, inferreddetails.CClassDetails)
    assert details.GetOrderedTypeVars(shapes) == ["T"]
    resolved, ctx = _resolve(mgr, shapes, "", "area")
    (callable_details,) = engine._fDetailsStore.GetDetailsSet(resolved, ctx)
    assert callable_details.GetHintedArgIndexes() == frozenset({0})
    assert engine._fCallableSupport.GetUnpackedDefInfo(next(iter(resolved))).fReturnHint == "Optional[float]"
    typing_support = engine._fTypingGenericSupport
    assert typing_support.GetSpecialFormCanonicalName(symbolinfo.Scope(shapes, "").ExprIn("Optional"), ctx) == "Optional"
    assert typing_support.GetSpecialFormCanonicalName(symbolinfo.Scope(shapes, "").ExprIn("Shape"), ctx) is None
    assert typing_support.GetTypeVarInfo(symbolinfo.Scope(shapes, "").ExprIn("T"), ctx).fName == "T"
    hinted = engine.ResolveHint(symbolinfo.Scope(shapes, "").ExprIn("Optional[List[int]]"), ctx)
    assert sorted(s.GetTypeName() for s in hinted) == ["None", "list"]
    it = engine.SingleResolvedIter(b":lint,3;Square", symbolinfo.Scope(shapes, ""), ctx)
    items = [it.Next(), it.Next()]
    assert it.Next() is inferenceiterators.kExhaustedIterValue
    assert sorted(s.GetTypeName() for s in items) == ["int", "type"]
    reduced = engine.ReduceResolved(frozenset(items), False, False, ctx)
    assert b":lint" in {s.ibytes for s in reduced}
    assert isinstance(canonicalize.CResolvedReducer().Reduce(frozenset(), False, False), frozenset)

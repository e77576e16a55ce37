import ast
import gc
import io
import subprocess
import sys
import token
import tokenize
import weakref

import pytest
from hypothesis import given, settings, strategies as st

from pysource import logicalline as ll
from pysource.filellinecache import BuildLogicalLines, DecodeSource
from pysource.logicalline import CLogicalLine, CreateLogical

from corpusutil import ast_scope_names, corpus_paths

def logicals(src):
    return BuildLogicalLines(src)


def summary(src):
    return [(l.fType, l.fIndentLevel, l.fToks) for l in logicals(src)]


def full_name(logical):
    if logical.fScopeName:
        return logical.fScopeName + "." + logical.fLocalScopeName
    return logical.fLocalScopeName


class TestKinds:
    KINDS = {
        ll.kAssignment: ["x = 1", "a = b = c", "a, (b, *c) = d", "x[i:j] = y", "x = yield",
                         "type = 3", "match = 1"],
        ll.kAugAssignment: ["x += 1", "x @= m"],
        ll.kAnnAssignment: ["x: int", "x: dict[str, int] = {}", "match: int = 1"],
        ll.kExpression: ["f(a=1)", "lambda x=1: x", "await g()", "(y := 5)", "'a'.join(x)",
                         "type(x)", "match.group(1)", "match(x)", "print(x)"],
        ll.kFunctionDef: ["def f(): pass", "async def f(): pass"],
        ll.kClassDef: ["class C(B, metaclass=M): pass"],
        ll.kDecorator: ["@dec.x(1)"],
        ll.kImport: ["import a.b as c"],
        ll.kFromImport: ["from . import x"],
        ll.kIfBeginning: ["if x: pass"],
        ll.kForBeginning: ["for a in b: pass", "async for a in b: pass"],
        ll.kWhileBeginning: ["while x: pass"],
        ll.kWith: ["with a as b, c: pass", "async with a: pass"],
        ll.kTry: ["try: pass"],
        ll.kReturn: ["return x"],
        ll.kRaise: ["raise E from e"],
        ll.kDelete: ["del x[0]"],
        ll.kGlobal: ["global a, b"],
        ll.kNonlocal: ["nonlocal a"],
        ll.kPass: ["pass"],
        ll.kAssert: ["assert x, 'm'"],
        ll.kYield: ["yield x", "yield from g"],
        ll.kStringExpression: ["'''doc'''", "'a' 'b'"],
        ll.kComment: ["# just a comment"],
        ll.kTypeStatement: ["type X = int", "type X[T] = list[T]"],
        ll.kPrint: ["print 'x'", "print >>f, x"],
        ll.kUnknown: ["def (x): pass"],
    }

    @pytest.mark.parametrize("src, kind", [(src, kind) for kind, srcs in KINDS.items()
                                           for src in srcs])
    def test_statement_kind(self, src, kind):
        assert logicals(src + "\n")[0].fType == kind

    def test_clauses(self):
        src = ("try:\n    pass\nexcept* E:\n    pass\nelse:\n    pass\nfinally:\n    pass\n"
               "if a:\n    pass\nelif b:\n    pass\n"
               "match x:\n    case [1, *r] if r:\n        pass\n    case {'k': v}:\n        pass\n")
        kinds = [l.fType for l in logicals(src) if l.fType != ll.kPass]
        assert kinds == [ll.kTry, ll.kExcept, ll.kElseBeginning, ll.kFinally, ll.kIfBeginning,
                         ll.kElifBeginning, ll.kMatch, ll.kCase, ll.kCase]


class TestJoining:
    def test_brackets_and_continuations_join_lines(self):
        src = "x = (1,\n     2)\ny = 1 + \\\n    2\nz = '''a\nb\nc'''\nw = 0\n"
        got = [(l.fFirstLine, l.fLineCount, l.fTokenCount) for l in logicals(src)]
        assert got == [(1, 2, 7), (3, 2, 5), (5, 3, 3), (8, 1, 3)]

    def test_comments_are_logicals_only_on_their_own_line(self):
        src = "# top\nx = [1,  # inside\n  # own line inside brackets\n  2]  # behind\n  # deeper\n\n\n"
        assert summary(src) == [
            (ll.kComment, 0, ["# top"]),
            (ll.kAssignment, 0, ["x", "=", "[", "1", ",", "2", "]"]),
            (ll.kComment, 2, ["# deeper"]),
        ]

    def test_type_comments_stay_behind_the_statements_they_annotate(self):
        src = ("x = f(a,  # type: not here\n      b)  # type: List[int]\n"
               "for a in b:  #type: int\n    pass\n"
               "def g(a):  # type: (int) -> str\n    pass\n"
               "if c:  # type: int\n    y = 1  # a plain comment\n")
        last = [l.fToks[-1] for l in logicals(src)]
        assert last == ["# type: List[int]", "#type: int", "pass", "# type: (int) -> str", "pass",
                        ":", "1"]
        assert logicals(src)[0].fTokenTypes[-1] == 202

    def test_semicolons_split_statements(self):
        src = "if x:\n    a = 1; b = 2;\n    c = f(';'); d = [e; 0] if 0 else 1\n"
        got = [(l.fType, l.fIndentLevel, l.fFirstLine, l.fToks[0]) for l in logicals(src)]
        assert got == [(ll.kIfBeginning, 0, 1, "if"), (ll.kAssignment, 4, 2, "a"),
                       (ll.kAssignment, 4, 2, "b"), (ll.kAssignment, 4, 3, "c"),
                       (ll.kAssignment, 4, 3, "d")]

    def test_statements_of_one_line_hold_only_their_own_text(self):
        def stored_chars(n):
            line = "".join(f"v{i} = {i}; " for i in range(n)) + "\n"
            return sum(len(l.fText) for l in logicals(line)) / len(line)

        # Each statement keeps its own text, not the line up to it: the stored
        # text stays proportional to the source as the line grows.
        assert stored_chars(4000) < 1.5 and stored_chars(4000) < 1.1 * stored_chars(250)
        src = "if a: b = 'é'; c = (1,\n  2); d = 3  # type: int\n"
        got = [(l.fText, l.fPositions[0]) for l in logicals(src)]
        assert got == [("if a:", (1, 0)), ("b = 'é'", (1, 6)), ("c = (1,\n  2)", (1, 15)),
                       ("d = 3  # type: int", (2, 6))]

    def test_one_line_compound_statements_put_the_body_deeper(self):
        src = "def f(x): return x; pass\nclass C: pass\nif a: b = 1\nelse: c()\nx = 1\n"
        got = [(l.fType, l.fIndentLevel, l.fScopeName) for l in logicals(src)]
        assert got == [
            (ll.kFunctionDef, 0, ""), (ll.kReturn, 10, "f"), (ll.kPass, 10, "f"),
            (ll.kClassDef, 0, ""), (ll.kPass, 9, "C"),
            (ll.kIfBeginning, 0, ""), (ll.kAssignment, 6, ""),
            (ll.kElseBeginning, 0, ""), (ll.kExpression, 6, ""),
            (ll.kAssignment, 0, ""),
        ]

    def test_header_colon_skips_brackets_and_lambdas(self):
        src = "def f(a: int = {1: 2}) -> Dict[str, int]: return g(lambda: 1)\nwhile lambda: 0: pass\n"
        got = [l.fToks for l in logicals(src)]
        assert got[0][-1] == ":" and got[1] == ["return", "g", "(", "lambda", ":", "1", ")"]
        assert got[2] == ["while", "lambda", ":", "0", ":"] and got[3] == ["pass"]

    def test_body_after_continuation_is_still_deeper(self):
        got = [(l.fType, l.fIndentLevel) for l in logicals("    if x: \\\ny = 1\n")]
        assert got == [(ll.kIfBeginning, 4), (ll.kAssignment, 5)]

    def test_indent_tabs_and_form_feeds(self):
        src = "if x:\n\tif y:\n\t    a = 1\n  \tb = 2\n\f    c = 3\n"
        got = [(l.fIndentLevel, l.fSpacesInIndent, l.fTabsInIndent) for l in logicals(src)]
        assert got == [(0, False, False), (8, False, True), (12, True, True), (8, True, True),
                       (4, True, False)]

    def test_line_end_styles_give_the_same_logicals(self):
        src = "def f(a,\n      b):\n    return a\n# end\n"
        plain = [(l.fFirstLine, l.fLineCount, l.fToks) for l in logicals(src)]
        for eol in ("\r\n", "\r"):
            assert [(l.fFirstLine, l.fLineCount, l.fToks)
                    for l in logicals(src.replace("\n", eol))] == plain

    def test_incomplete_statements(self):
        got = logicals("x = foo(1,\n")
        assert len(got) == 1 and got[0].fIncomplete
        got = logicals("s = '''never closed\n\nx = 1\n")
        assert len(got) == 1 and got[0].fIncomplete
        got = logicals("x = 1 + \\")
        assert got[0].fIncomplete
        assert not logicals("x = 1")[0].fIncomplete

    def test_open_bracket_stops_at_def(self):
        src = "class C:\n    x = f(1,\n    def g(self):\n        return 2\n"
        got = [(l.fType, l.fIncomplete, l.fScopeName) for l in logicals(src)]
        assert got == [(ll.kClassDef, False, ""), (ll.kAssignment, True, "C"),
                       (ll.kFunctionDef, False, "C"), (ll.kReturn, False, "C.g")]

    def test_error_tokens_carry_the_prefix(self):
        l = logicals("x = 'abc\n")[0]
        assert l.fToks == ["x", "=", ll.kErrorTokenPrefix + "'abc"]
        assert l.fTokenTypes[-1] == 52


class TestScopeNames:
    SRC = """\
class C:
    def f(self): pass
    def f(self):
        def g(): pass
        x = 1
    # a comment at class level
        # a deeper comment
    class D:
        def f(self): pass
def f(): pass
if True:
    def f(): pass
    class C: pass
async def f():
    y = 2
"""

    def test_body_statements_and_comments(self):
        scope_of = {tuple(l.fToks[:2]): l.fScopeName for l in logicals(self.SRC)}
        assert scope_of[("x", "=")] == "C.f|1"
        assert scope_of[("y", "=")] == "f|2"
        assert scope_of[("# a comment at class level",)] == "C"
        assert scope_of[("# a deeper comment",)] == "C.f|1"
        assert all(l.fLocalScopeName is None for l in logicals(self.SRC)
                   if l.fType not in (ll.kClassDef, ll.kFunctionDef))


class TestNameFolding:
    """Name tokens carry the NFKC form Python reads; nothing else is folded."""

    @staticmethod
    def written_positions(src):
        skip = {token.NL, token.NEWLINE, token.INDENT, token.DEDENT, token.ENDMARKER}
        return [t.start for t in tokenize.generate_tokens(io.StringIO(src).readline)
                if t.type not in skip]

    @pytest.mark.parametrize("src, toks, text", [
        ("ｗｉｄｔｈ = µ * 2\n", ["width", "=", "\u03bc", "*", "2"], "width = \u03bc * 2"),
        # names already folded and ascii names stay
        ("café = μ + x_1\n", ["café", "=", "μ", "+", "x_1"], "café = μ + x_1"),
    ])
    def test_names_are_folded(self, src, toks, text):
        l = logicals(src)[0]
        assert l.fToks == toks and l.fText == text
        assert l.GetTokenString(0) == toks[0] and l.GetTokenString(-3) == toks[-3]

    def test_strings_and_comments_keep_their_characters(self):
        src = "s = 'ｗｉｄｔｈ µ' + ｗ  # type: str\n# ｗｉｄｔｈ µ\n"
        first, comment = logicals(src)
        assert first.fToks == ["s", "=", "'ｗｉｄｔｈ µ'", "+", "w", "# type: str"]
        assert comment.fToks == ["# ｗｉｄｔｈ µ"]

    def test_def_named_with_a_foldable_name(self):
        src = "class Ｃ:\n    def ﬁnd(self): pass\n    def find(self):\n        ｘ = 1\n"
        ls = logicals(src)
        assert [(l.fScopeName, l.fLocalScopeName) for l in ls
                if l.fType in (ll.kClassDef, ll.kFunctionDef)] == [
            ("", "C|0"), ("C", "find|0"), ("C", "find|1")]
        assert ls[-1].fScopeName == "C.find|1" and ls[-1].fToks[0] == "x"

    @pytest.mark.parametrize("src", [
        "ﬁ = (ﬁ,\n      ｙ + 'ﬁ')  # type: int\n",
        "def ﬁnd(ｘ, ℌ=1): return ｘ\n",
        "ｘ = 1\nif ｘ: ｙ = ｘ\n",
        "Ⅸ = \\\n  ｘ\n",
    ])
    def test_positions_point_into_the_written_source(self, src):
        got = [p for l in logicals(src) for p in l.fPositions]
        assert got == self.written_positions(src)

    def test_text_holds_the_folded_names_and_the_type_comment(self):
        src = "ｘ = [ﬁ,\n     µ]  # type: List[int]\n"
        l = logicals(src)[0]
        assert l.fToks == ["x", "=", "[", "fi", ",", "\u03bc", "]", "# type: List[int]"]
        assert l.fText == "x = [fi,\n     \u03bc]  # type: List[int]"


class TestDecoding:
    def test_bad_utf8_is_replaced_and_recorded(self):
        text, encoding, errors = DecodeSource(b"x = 1\ny = '\xff\xfe'\n")
        assert encoding == "utf-8" and "\ufffd\ufffd" in text
        assert [(line, offset) for line, offset, _ in errors] == [(2, 11), (2, 12)]
        assert [l.fType for l in BuildLogicalLines(b"x = 1\ny = '\xff'\n")] == [ll.kAssignment] * 2

    def test_coding_cookie(self):
        data = "# -*- coding: latin-1 -*-\ns = 'é'\n".encode("latin-1")
        text, encoding, errors = DecodeSource(data)
        assert encoding == "iso8859-1" and "s = 'é'" in text and errors == []
        second = "#!/usr/bin/env python\n# vim: set fileencoding=cp1252 :\nx = '€'\n"
        assert "'€'" in DecodeSource(second.encode("cp1252"))[0]
        # a cookie on line 2 counts only behind a comment or blank line 1
        late = "x = 1\n# coding: latin-1\ny = 'é'\n".encode("latin-1")
        assert DecodeSource(late)[1] == "utf-8" and DecodeSource(late)[2]

    def test_bom_and_its_conflicts(self):
        text, encoding, errors = DecodeSource(b"\xef\xbb\xbfx = 1\n")
        assert text == "x = 1\n" and errors == []
        text, encoding, errors = DecodeSource(b"\xef\xbb\xbf# coding: latin-1\nx = 1\n")
        assert encoding == "utf-8" and "byte order mark" in errors[0][2]

    def test_unknown_and_failing_encodings_are_recorded(self):
        text, encoding, errors = DecodeSource(b"# coding: no-such-codec\nx = 1\n")
        assert "unknown encoding" in errors[0][2] and text.endswith("x = 1\n")
        text, encoding, errors = DecodeSource(b"# coding: ascii\nx = '\xe9'\n")
        assert encoding == "ascii" and errors[0][:2] == (2, 21) and "\ufffd" in text

    def test_str_source_is_used_as_it_is(self):
        assert BuildLogicalLines("é = 1\n")[0].fToks == ["é", "=", "1"]
        with pytest.raises(TypeError):
            BuildLogicalLines(3)


class TestCreateLogical:
    def test_no_file_needed(self):
        l = CreateLogical(indent=4, start_line=10, line_count=2, toks=["def", "f", "(", ")", ":"],
                          ttypes=None, positions=None, spaces_in_indent=True, tabs_in_indent=False,
                          incomplete=False, line_text=None)
        assert (l.fType, l.fIndentLevel, l.fFirstLine, l.fLineCount) == (ll.kFunctionDef, 4, 10, 2)
        assert l.fLocalScopeName == "f|0" and l.fScopeName == "" and l.fTokenCount == 5
        assert l.GetTokenString(1) == "f" and l.GetTokenString(-1) == ":"
        with pytest.raises(IndexError):
            l.GetTokenString(5)
        assert (l.fParsed, l.fTypeEquivs, l.fArgTypeEquivs) == (None, None, None)

    def test_token_list_is_a_copy_and_arguments_are_checked(self):
        l = CreateLogical(toks=["a", "b", "c"])
        l.fToks.clear()
        assert l.GetTokenString(2) == "c" and l.fTokenCount == 3
        assert l.fToks == ["a", "b", "c"]
        empty = CreateLogical(toks=[])
        assert empty.fTokenCount == 0 and empty.fToks == [] and empty.fType == ll.kUnknown
        with pytest.raises(TypeError):
            CreateLogical(0, 1, 1, ["x"])

    def test_tokens_point_into_line_text(self):
        l = CreateLogical(toks=["x", "=", "'a b'"], line_text="    x = 'a b'  # c")
        assert l.fText == "    x = 'a b'  # c" and l.fPositions == [(1, 4), (1, 6), (1, 8)]
        l = CreateLogical(toks=["x", "=", "1"], line_text="something else")
        assert l.fText == "x = 1"

    def test_given_types_and_positions_are_kept(self):
        l = CreateLogical(toks=["@", "d"], ttypes=[50, 1], positions=[(3, 0), (3, 1)])
        assert l.fType == ll.kDecorator and l.fTokenTypes == [50, 1]
        assert l.fPositions == [(3, 0), (3, 1)]
        with pytest.raises(ValueError):
            CreateLogical(toks=["a", "b"], ttypes=[1])
        with pytest.raises(TypeError):
            CreateLogical(toks=["a", 3])
        l.fType = ll.kClassDef
        assert l.fType is ll.kClassDef
        with pytest.raises(ValueError):
            l.fType = "no such kind"

    def test_identity_hash_equality_and_repr(self):
        a = CreateLogical(toks=["x"])
        b = CreateLogical(toks=["x"])
        assert a != b and {a: 1, b: 2}[a] == 1
        assert "expression" in repr(a) and "x" in repr(a)
        long = CreateLogical(toks=["'" + "é" * 100 + "'"])
        assert repr(long).endswith("...>") and "é" * 20 in repr(long)

    def test_analyzer_fields_can_be_set_back_to_none(self):
        l = logicals("def f(a): pass\n")[0]
        for field in ("fParsed", "fTypeEquivs", "fArgTypeEquivs", "fLocalScopeName"):
            setattr(l, field, [])
            setattr(l, field, None)
            assert getattr(l, field) is None

    # Ways Python can lead a logical's fields back to the logical.
    CYCLES = {
        "stored field": lambda l: setattr(l, "fParsed", [l]),
        "stored name": lambda l: setattr(l, "fScopeName", [l]),
        "handed-out tokens": lambda l: l.fToks.append(l),
        "given positions": None,
    }

    @pytest.mark.parametrize("how", CYCLES)
    def test_cycles_through_a_logical_are_collected(self, how):
        if how == "given positions":
            l = CreateLogical(toks=["x"], positions=[[0, 0]])
            l.fPositions[0].append(l)
        else:
            l = logicals("x = 1\n")[0]
            self.CYCLES[how](l)
        ref = weakref.ref(l)
        del l
        gc.collect()
        assert ref() is None

    def test_built_logicals_stay_out_of_the_collector(self):
        # A file's logicals live through many young collections: tracked,
        # they would bring on full collections while a file is scanned.
        built = logicals("def f(a):\n    return a\n")
        assert [gc.is_tracked(l) for l in built] == [False, False]
        assert built[0].fType == ll.kFunctionDef and built[1].fScopeName == "f"
        assert not any(gc.is_tracked(l) for l in built)


def _expected_logical_count(text, tree):
    """Logicals of a valid file counted from its syntax tree: one per statement, one per
    decorator, one per else/except/finally/case clause, and one per comment on its own line."""
    lines = text.splitlines()
    count = 0
    for node in ast.walk(tree):
        if not isinstance(node, ast.stmt):
            continue
        count += 1 + len(getattr(node, "decorator_list", ()))
        orelse = getattr(node, "orelse", None)
        if orelse:
            first = orelse[0]
            is_elif = (isinstance(node, ast.If) and isinstance(first, ast.If)
                       and lines[first.lineno - 1][first.col_offset:].startswith("elif"))
            count += 0 if is_elif else 1
        count += len(getattr(node, "handlers", ())) + (1 if getattr(node, "finalbody", None) else 0)
        count += len(getattr(node, "cases", ()))
    depth = 0
    for tk in tokenize.generate_tokens(io.StringIO(text).readline):
        if tk.type == token.OP and tk.string in "([{":
            depth += 1
        elif tk.type == token.OP and tk.string in ")]}":
            depth -= 1
        elif tk.type == token.COMMENT and depth == 0 and not tk.line[:tk.start[1]].strip():
            count += 1
    return count


@pytest.fixture(scope="module")
def core_corpus():
    files = []
    for path in corpus_paths():
        with open(path, "rb") as fh:
            data = fh.read()
        files.append((path, data))
    return files


class TestCorpus:
    def test_counts_and_scope_names_agree_with_the_syntax_tree(self, core_corpus):
        assert len(core_corpus) > 600
        count_mismatch, name_mismatch = [], []
        for path, data in core_corpus:
            text, _encoding, errors = DecodeSource(data)
            assert errors == [], path
            built = BuildLogicalLines(data)
            tree = ast.parse(text)
            if len(built) != _expected_logical_count(text, tree):
                count_mismatch.append(path)
            got = sorted((l.fFirstLine, full_name(l)) for l in built
                         if l.fType in (ll.kClassDef, ll.kFunctionDef))
            if got != ast_scope_names(tree):
                name_mismatch.append(path)
        assert count_mismatch == [] and name_mismatch == []

    def test_full_corpus_never_crashes(self):
        # In a child process, so that a crash is a failure and not the end of the run.
        code = (
            "import sys\n"
            "from pysource.filellinecache import BuildLogicalLines, DecodeSource\n"
            "n = 0\n"
            "for path in sys.stdin.read().split():\n"
            "    data = open(path, 'rb').read()\n"
            "    text, enc, errors = DecodeSource(data)\n"
            "    n += len(BuildLogicalLines(data)) + len(errors)\n"
            "print(n)\n")
        paths = "\n".join(corpus_paths(full=True))
        out = subprocess.run([sys.executable, "-c", code], input=paths, capture_output=True,
                             text=True)
        assert out.returncode == 0, out.stderr[-2000:]
        assert int(out.stdout.split()[-1]) > 100000


class TestNeverCrashes:
    @settings(max_examples=200, deadline=None)
    @given(st.binary(max_size=400))
    def test_random_bytes(self, data):
        for l in BuildLogicalLines(data):
            assert l.fLineCount >= 1 and l.fFirstLine >= 1 and l.fIndentLevel >= 0
            assert len(l.fToks) == l.fTokenCount

    SOUP = ["def ", "class ", "f", "(", ")", ":", ";", "\n", "    ", "\t", "if ", "else", "x",
            "=", "'", '"""', "f'{", "}", "#c", "\\\n", "@", "match ", "case ", "lambda", "[",
            "]", "\r", "async ", "type ", "é"]

    @settings(max_examples=300, deadline=None)
    @given(st.lists(st.sampled_from(SOUP), max_size=80))
    def test_statement_soup(self, parts):
        built = BuildLogicalLines("".join(parts))
        last = 0
        for l in built:
            assert l.fFirstLine >= last
            last = l.fFirstLine
            if l.fLocalScopeName is not None:
                assert l.fType in (ll.kClassDef, ll.kFunctionDef) and "|" in l.fLocalScopeName

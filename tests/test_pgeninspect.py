"""The statement analyzer: what each statement form says about names."""
import pytest

from pysource.filellinecache import BuildLogicalLines
from pysource.logicalline import CreateLogical
from pysource.pgeninspect import CPGenAnalyzer, FinishedWithNode
from pysource.symbolinfo import packedops

SET, GET = b":S", b":g"


@pytest.fixture(scope="module")
def analyzer():
    return CPGenAnalyzer()


def logical_of(src):
    """The first logical of `src` (a compound statement's header)."""
    return [l for l in BuildLogicalLines(src) if l.fType != "comment"][0]


def pairs(analyzer, src, py3=True):
    logical = logical_of(src)
    errs = analyzer.AnalyzeSingleLogical(logical, py3)
    assert errs is None, errs
    return list(logical.fTypeEquivs)


def infos(analyzer, src, name):
    return [i for n, i in pairs(analyzer, src) if n == name.encode()]


def names_of_kind(analyzer, src, kind):
    return {n.decode() for n, i in pairs(analyzer, src) if i[:2] == kind}


def called(analyzer, src):
    out = []
    for name, info in pairs(analyzer, src):
        if info[:2] == b":c":
            trailer, args = packedops.UnpackCalled(info)
            out.append((name.decode(), trailer, args))
    return out


# (source, name, the name's infos in order)
INFO_CASES = [
    ("a, (b, *c), [d, e] = value\n", "b", [SET, b"value[1][0]"]),
    ("a, (b, *c), [d, e] = value\n", "c", [SET, b"list(value[1])"]),
    ("a, (b, *c), [d, e] = value\n", "e", [SET, b"value[2][1]"]),
    ("first, *middle, last = f(x)\n", "last", [SET, b"f(x)[-1]"]),
    ("first, *middle, last = f(x)\n", "middle", [SET, b"list(f(x))"]),
    ("x, y = foo(1), bar[2]\n", "y", [SET, b"bar[2]"]),
    ("a, b = p or q\n", "a", [SET, b"(p or q)[0]"]),
    ("a = b.c = d[0] = make()\n", "b.c", [SET, b"make()"]),
    ("a = b.c = d[0] = make()\n", "d[0]", [SET, b"make()"]),
    ("total += a * b\n", "total", [GET, SET, b"total+(a*b)"]),
    ("for k, (v, w) in d.items():\n    pass\n", "k", [SET, b"d.items()[*][0]"]),
    ("for k, (v, w) in d.items():\n    pass\n", "w", [SET, b"d.items()[*][1][1]"]),
    ("with open(p) as fh, lock, ctx() as (a, b):\n    pass\n", "fh", [SET, b"open(p).__enter__()"]),
    ("with open(p) as fh, lock, ctx() as (a, b):\n    pass\n", "a", [SET, b"ctx().__enter__()[0]"]),
    ("with open(p) as fh, lock, ctx() as (a, b):\n    pass\n", "lock", [GET]),
    ("async with session() as s:\n    pass\n", "s", [SET, b"(await session().__aenter__())"]),
    ("x: int = 0\n", "x", [SET, b"0", b":tint"]),
    ("self.x: Optional[str]\n", "self.x", [SET, b":tOptional[str]"]),
    ("y: 'Dict[str, Node]' = {}\n", "y", [SET, b"{}", b":tDict[str, Node]"]),
    ("return x + 1\n", "return", [b"x+1"]),
    ("return\n", "return", [b"None"]),
    ("x = yield item\n", "return", [b"item"]),
    ("x = yield\n", "return", [b"None"]),
    ("yield from parts(a)\n", "return", [b"parts(a)[*]"]),
    ("x = y + y + y\n", "y", [GET]),
    ("(x): int\n", "x", []),
    ("x = (yield).send\n", "x", [SET, b"(yield).send"]),
    # hint texts that would break an info string stand as quoted literals
    ("x: 'List[int' = 1\n", "x", [SET, b"1", b":t'List[int'"]),
    ("x: 'x; y' = 1\n", "x", [SET, b"1", b":t'x; y'"]),
    ("x = 1  # type: List[int\n", "x", [SET, b"1", b":t'List[int'"]),
    ("x = (yield y)[0]\n", "x", [SET, b"(yield y)[0]"]),
    ("x = (yield from it).value\n", "x", [SET, b"(yield from it).value"]),  # a parenthesized name without a value binds nothing
]


@pytest.mark.parametrize("src, name, expected", INFO_CASES)
def test_infos_of_a_name(analyzer, src, name, expected):
    assert infos(analyzer, src, name) == expected


# (source, kind, every name of that kind)
KIND_CASES = [
    ("with (open(a) as f, open(b) as g):\n    pass\n", SET, {"f", "g"}),
    ("x = a[b:c:d, e] if cond else f(*g, key=h, **i).attr\n", GET, set("abcdefghi") | {"cond"}),
    ("s = f'\\N{DASH}{a}' + f\"{'''it's'''}{b:{'}'}>{w}}\" + rf'\\N{c}'\n", GET, {"a", "b", "w", "c"}),
    ("y = x[1:n:, ::-2, ..., :m]\n", GET, {"x", "n", "m"}),
    ("msg = f\"{a!r:>{width}} {b[c]=} {f'{d}'} {{literal}}\"\n", GET, {"a", "width", "b", "c", "d"}),
    ("match command.split():\n    case _:\n        pass\n", GET, {"command"}),
    ("match(a, b)\n", GET, {"match", "a", "b"}),  # a failed match header is an expression
]


@pytest.mark.parametrize("src, kind, expected", KIND_CASES)
def test_names_of_a_kind(analyzer, src, kind, expected):
    assert names_of_kind(analyzer, src, kind) == expected


class TestTargets:
    def test_attribute_and_subscript_targets_keep_their_text_and_read_their_base(self, analyzer):
        got = pairs(analyzer, "o.a.b = 1; a[b[0]] = 2\n".split(";")[0] + "\n")
        assert (b"o.a.b", SET) in got and (b"o", GET) in got
        got = pairs(analyzer, "a[b[0]] = 2\n")
        assert (b"a[b[0]]", SET) in got and (b"a", GET) in got and (b"b", GET) in got

    def test_except_as_binds_an_instance_of_each_class(self, analyzer):
        src = "try:\n    pass\nexcept (KeyError, errors.Bad) as e:\n    pass\n"
        logical = [l for l in BuildLogicalLines(src) if l.fType == "except"][0]
        analyzer.AnalyzeSingleLogical(logical, True)
        got = [i for n, i in logical.fTypeEquivs if n == b"e"]
        assert got == [SET, b"KeyError()", b"errors.Bad()"]

    def test_global_and_nonlocal_have_their_own_kinds(self, analyzer):
        assert pairs(analyzer, "global a, b\n") == [(b"a", b":G"), (b"b", b":G")]
        assert pairs(analyzer, "nonlocal c\n") == [(b"c", b":N")]

    def test_type_statement_binds_an_alias(self, analyzer):
        got = pairs(analyzer, "type Pair[T] = tuple[T, T]\n")
        assert (b"Pair", SET) in got and (b"tuple", GET) in got
        assert (b"T", GET) not in got
        assert (b"Pair", b":APair,[T],tuple[T, T]") in got

    def test_assigning_to_a_call_is_an_error(self, analyzer):
        logical = logical_of("f() = 1\n")
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        assert errs and errs[0][0] == "cannot assign to expression" and errs[0][1] == 0
        assert logical.fParsed is False


class TestReads:
    def test_decorator_that_is_a_call(self, analyzer):
        src = "@app.route('/x', methods=allowed)\ndef f(): pass\n"
        logical = BuildLogicalLines(src)[0]
        analyzer.AnalyzeSingleLogical(logical, True)
        got = logical.fTypeEquivs
        assert (b"app", GET) in got and (b"allowed", GET) in got
        assert (b"app.route", packedops.PackCalled("", "'/x', methods=allowed")) in got

    def test_each_pair_once_in_a_long_logical(self, analyzer):
        names = [f"a{i}" for i in range(40)]
        got = pairs(analyzer, "x = f(%s)\n" % ", ".join(names + names[::-1]))
        reads = [n for n, i in got if i == GET]
        assert sorted(reads) == sorted(n.encode() for n in names + ["f"])


class TestInnerScopes:
    def test_walrus_in_a_comprehension_binds_in_the_enclosing_scope(self, analyzer):
        got = pairs(analyzer, "ok = any((hit := f(y)) for y in ys)\n")
        assert (b"hit", SET) in got and (b"hit", b"f(y)") in got
        assert (b"y", SET) not in got and (b"y", GET) not in got

    def test_walrus_in_a_lambda_stays_in_the_lambda(self, analyzer):
        got = pairs(analyzer, "g = lambda: (v := 1) + v\n")
        assert (b"v", SET) not in got and (b"v", GET) not in got


class TestCalls:
    def test_chained_and_nested_calls_with_trailers_and_arguments(self, analyzer):
        got = called(analyzer, "r = a.b[0].c(x, y=2)(z)\n")
        assert ("a.b", "[0].c", "x, y=2") in got
        assert ("a.b", "[0].c(x, y=2)", "z") in got

    @pytest.mark.parametrize("src, calls", [
        ("f()(y)\n", [("f", "", ""), ("f", "()", "y")]),
        ("super().__init__(z)\n", [("super", "", ""), ("super", "().__init__", "z")]),
        ("n = (num).bit_length()\n", [("num.bit_length", "", "")]),  # a parenthesized base leads
        ("(f)(x)\n", [("f", "", "x")]),
        ("', '.join(parts)\n", []),  # no leading name, no call
        ("(a or b)(c)\n", []),
    ])
    def test_callee_forms(self, analyzer, src, calls):
        assert sorted(called(analyzer, src)) == sorted(calls)

    def test_calls_in_arguments_are_found(self, analyzer):
        got = called(analyzer, "outer(inner(deep(1)), k=mid())\n")
        assert {c[0] for c in got} == {"outer", "inner", "deep", "mid"}
        assert ("outer", "", "inner(deep(1)), k=mid()") in got


class TestDefAndClass:
    def args_of(self, analyzer, src):
        logical = logical_of(src)
        assert analyzer.AnalyzeSingleLogical(logical, True) is None
        return logical

    def test_def_arguments_in_order_with_hints_and_defaults(self, analyzer):
        src = "def f(a, b: int = 1, /, c=g(), *args: str, d, e: 'List[T]' = None, **kw):\n    pass\n"
        logical = self.args_of(analyzer, src)
        ate = logical.fArgTypeEquivs
        assert isinstance(ate, tuple)
        assert [n for n, i in ate if i == SET] == [b"a", b"b", b"c", b"args", b"d", b"e", b"kw"]
        assert (b"b", b":tint") in ate and (b"b", b"1") in ate
        assert (b"c", b"g()") in ate
        assert (b"args", b":ttuple[str, ...]") in ate and (b"args", b"tuple()") in ate
        assert (b"e", b":tList[T]") in ate and (b"kw", b"dict()") in ate
        reads = {n for n, i in logical.fTypeEquivs if i == GET}
        assert reads == {b"g", b"int", b"str", b"List", b"T"}
        assert (b"a", SET) not in logical.fTypeEquivs

    def test_pep695_type_parameters(self, analyzer):
        logical = self.args_of(analyzer, "def first[T: Base, *Ts, **P](x: T) -> T:\n    pass\n")
        reads = {n for n, i in logical.fTypeEquivs if i == GET}
        assert reads == {b"Base"}
        kinds = [(n, i[:2]) for n, i in logical.fArgTypeEquivs]
        assert kinds == [(b"x", SET), (b"x", b":t"), (b"T", b":p"), (b"Ts", b":p"), (b"P", b":p")]

    def test_class_bases_and_metaclass(self, analyzer):
        logical = self.args_of(analyzer, "class C[T](Base[T], mixins.M, metaclass=Meta):\n    pass\n")
        assert logical.fArgTypeEquivs[:3] == (
            (b"__bases__", b"Base[T]"), (b"__bases__", b"mixins.M"), (b"__metaclass__", b"Meta"))
        reads = {n for n, i in logical.fTypeEquivs if i == GET}
        assert reads == {b"Base", b"mixins", b"Meta"}

    def test_other_logicals_have_no_argument_equivalents(self, analyzer):
        logical = logical_of("x = 1\n")
        analyzer.AnalyzeSingleLogical(logical, True)
        assert logical.fArgTypeEquivs is None


class TestHints:
    @pytest.mark.parametrize("toks, hints", [
        (["x", "=", "[", "]", "# type: List[int]"], [(b"x", b":tList[int]")]),
        (["a", ",", "b", "=", "f", "(", ")", "#type: int, str"], [(b"a", b":tint"), (b"b", b":tstr")]),
        (["for", "x", "in", "y", ":", "# type: Node"], [(b"x", b":tNode")]),
        (["x", "=", "1", "# type: ignore[assignment]"], []),
        (["# type: (int) -> bool"], []),  # a signature comment not first in a def
    ])
    def test_type_comments(self, analyzer, toks, hints):
        logical = CreateLogical(toks=toks)
        analyzer.AnalyzeSingleLogical(logical, True)
        assert [(n, i) for n, i in logical.fTypeEquivs if i.startswith(b":t")] == hints

    def test_signature_comment_first_in_def(self, analyzer):
        from pysource.symbolinfo import BuildArgInfo
        logical = CreateLogical(toks=["# type: (int, *str, **Dict[str, int]) -> bool"])
        analyzer.AnalyzeSingleLogical(logical, True, True)
        assert list(logical.fTypeEquivs) == [
            (BuildArgInfo(0, None), b":tint"), (BuildArgInfo(1, None), b":tstr"),
            (BuildArgInfo(2, None), b":tDict[str, int]"), (b"return", b":tbool")]

    def test_signature_comment_on_the_def_line(self, analyzer):
        toks = "def m ( self , a , b : int ) :".split() + ["# type: (str, float) -> bool"]
        logical = CreateLogical(toks=toks)
        analyzer.AnalyzeSingleLogical(logical, True)
        ate = logical.fArgTypeEquivs
        assert (b"a", b":tstr") in ate and (b"return", b":tbool") in ate
        assert (b"b", b":tfloat") not in ate and (b"b", b":tint") in ate  # written hint wins
        assert [n for n, i in ate if i == SET] == [b"self", b"a", b"b"]


class TestImports:
    def test_import_forms(self, analyzer):
        got = pairs(analyzer, "import os.path, xml.dom as dom_mod\n")
        assert got[0] == (b"os", SET) and got[1][1][:2] == b":I"
        assert (b"dom_mod", SET) in got and (b"os.path" in got[1][1])

    def test_relative_from_import_with_star(self, analyzer):
        got = pairs(analyzer, "from ..pkg.mod import (a as b, c)\n")
        assert [n for n, i in got if i == SET] == [b"b", b"c"]
        assert (b"b", b":F..pkg.mod,a") in got and (b"c", b":F..pkg.mod,c") in got
        assert pairs(analyzer, "from . import *\n") == [(b"*", SET), (b"*", b":F.,*")]


class TestMatch:
    def test_case_captures_and_values(self, analyzer):
        src = ("match p:\n    case Point(x=0, y=yy) | [1, *rest, _] | {'k': Color.RED, **kw} as q"
               " if q > lim:\n        pass\n")
        logical = [l for l in BuildLogicalLines(src) if l.fType == "case"][0]
        assert analyzer.AnalyzeSingleLogical(logical, True) is None
        got = logical.fTypeEquivs
        assert {n for n, i in got if i == SET} == {b"yy", b"rest", b"kw", b"q"}
        assert {n for n, i in got if i == GET} == {b"Point", b"Color", b"q", b"lim"}


class TestParseErrors:
    def test_error_message_and_position(self, analyzer):
        logical = logical_of("x = (1 +\n")
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        assert errs == [("unexpected end of statement", 5)]  # one past the last token
        assert logical.fParsed is False

    def test_broken_logical_still_gives_its_names(self, analyzer):
        logical = CreateLogical(toks=["total", "=", "f", "(", "a", "b", ")"])
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        assert errs and errs[0][1] == 5
        got = logical.fTypeEquivs
        assert (b"total", SET) in got and (b"a", GET) in got and (b"b", GET) in got

    def test_a_later_statement_after_a_broken_one_is_read(self, analyzer):
        logical = CreateLogical(toks=["x", "=", ")", ";", "y", "=", "2"])
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        assert [e[1] for e in errs] == [2]
        assert (b"y", SET) in logical.fTypeEquivs

    def test_failed_fstring_field_leaves_only_the_logicals_tokens(self, analyzer):
        field = "f'" + "{y:" * 300 + "}" * 300 + "'"
        logical = CreateLogical(toks=["x", "=", field])
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        assert errs == [("expression nested too deeply", 2)]
        assert logical.fTypeEquivs == ((b"x", SET),)

    def test_python2_forms_only_with_the_python2_grammar(self, analyzer):
        for toks in (["print", "x", ",", "y"], ["exec", "code", "in", "ns"],
                     ["a", "=", "`", "b", "`"], ["c", "=", "a", "<>", "b"]):
            logical = CreateLogical(toks=toks)
            assert analyzer.AnalyzeSingleLogical(logical, False) is None, toks
            logical = CreateLogical(toks=toks)
            assert analyzer.AnalyzeSingleLogical(logical, True), toks


class TestLogicalContract:
    def test_analysis_is_idempotent_through_fparsed(self, analyzer):
        logical = logical_of("x = y\n")
        assert analyzer.AnalyzeSingleLogical(logical, True) is None
        assert logical.fParsed is True and isinstance(logical.fTypeEquivs, tuple)
        assert all(type(n) is bytes and type(i) is bytes for n, i in logical.fTypeEquivs)
        logical.fTypeEquivs = "left alone"
        assert analyzer.AnalyzeSingleLogical(logical, True) is None
        assert logical.fTypeEquivs == "left alone"


class TestParseTokenListToNode:
    def test_expression_gives_a_node(self, analyzer):
        node = analyzer.ParseTokenListToNode(["sys", ".", "version_info", ">=", "(", "3", ",",
                                               "8", ")"], False)
        assert node and node.kind == "Compare" and node.text == "sys.version_info>=(3, 8)"
        FinishedWithNode(node)
        assert node.finished and node.text == ""
        FinishedWithNode(None)  # a logical never parsed has no node to free

    def test_statement_or_garbage_raises(self, analyzer):
        with pytest.raises(SyntaxError, match="at token 1"):
            analyzer.ParseTokenListToNode(["x", "=", "1"], True)
        with pytest.raises(SyntaxError):
            analyzer.ParseTokenListToNode([], True)
        with pytest.raises(TypeError):
            analyzer.ParseTokenListToNode([1, 2], True)


class TestParseDefArgs:
    def test_kinds_hints_and_defaults(self):
        from pysource.pycodeutils import (ParseDefArgs, kArgKeywordOnly, kArgNormal,
                                          kArgPositionalOnly, kArgStar, kArgStarStar)
        args = ParseDefArgs("self, a: int = 1, /, b=f(x, y), *rest: str, c: 'T', **kw")
        assert [(a.name, a.kind, a.type_hint, a.default) for a in args] == [
            ("self", kArgPositionalOnly, None, None), ("a", kArgPositionalOnly, "int", "1"),
            ("b", kArgNormal, None, "f(x, y)"), ("rest", kArgStar, "str", None),
            ("c", kArgKeywordOnly, "T", None), ("kw", kArgStarStar, None, None)]

    def test_parentheses_bare_star_and_bad_text(self):
        from pysource.pycodeutils import ParseDefArgs
        assert [a.name for a in ParseDefArgs("(a, *, b)")] == ["a", "b"]
        assert ParseDefArgs("") == []
        assert ParseDefArgs("a, (") == []
        with pytest.raises(TypeError):
            ParseDefArgs(None)

import ast
import math
import sys

import pytest
from hypothesis import example, given, settings, strategies as st

from pysource import symbolinfo as si

KIND_NAMES = [row[0] for row in si.KindTable()]
PREFIXED_NAMES = [name for name in KIND_NAMES if name != "PlainEquiv"]

# Texts that stress the payload encoding: separators, quotes, brackets,
# escapes and characters beyond ASCII.
nasty_text = st.text(
    alphabet=st.sampled_from(list("ab_.;,:|%#'\"()[]{}\\ \n\t=<>-0123456789") + ["é", "名", "\U0001f600"]),
    max_size=24,
)
opt_text = st.none() | nasty_text


class Loc:
    def __init__(self, url):
        self.fUrl = url


# ---------------------------------------------------------------- kinds


class TestKindsAndPrefixes:
    def test_every_prefix_is_colon_and_its_kind_byte(self):
        seen = set()
        for name in PREFIXED_NAMES:
            prefix = getattr(si, "k%sPrefix" % name)
            kind = getattr(si, "k%sKind" % name)
            assert len(prefix) == si.kPrefixLen == 2
            assert prefix[:1] == b":" and prefix[1:2] == kind
            assert 0x21 <= kind[0] <= 0x7E
            assert si.GetInfoBytesKind(prefix + b"payload") == kind
            seen.add(kind)
        assert len(seen) == len(PREFIXED_NAMES)
        assert si.kPlainEquivKind not in seen

    @pytest.mark.parametrize("ibytes", [b"", b":", b":\x00", b"abc", b"a:b", "x.y"])
    def test_plain_equivalents(self, ibytes):
        assert si.GetInfoBytesKind(ibytes) == si.kPlainEquivKind

    def test_def_and_class_kinds(self):
        defs = {si.kFunctionKind, si.kMethodKind, si.kUnboundMethodKind}
        for name in KIND_NAMES:
            kind = getattr(si, "k%sKind" % name)
            assert si.IsDefKind(kind) == (kind in defs)
            assert si.IsDefOrClassKind(kind) == (kind in defs or kind == si.kClassKind)
        assert si.IsDefKind(si.kFunctionKind[0])  # an int byte works too
        # Kinds are read as every one-byte argument is.
        with pytest.raises(TypeError):
            si.IsDefKind(b"ab")
        with pytest.raises(ValueError):
            si.IsDefKind(256)
        with pytest.raises(OverflowError):
            si.IsDefKind(1 << 80)

    def test_kind_filter(self):
        kind_filter = si.CKindFilter([si.kSetKind, si.kGetKind])
        assert kind_filter.KindMatches(si.kSetKind)
        assert kind_filter.KindMatches(si.kGetKind)
        assert not kind_filter.KindMatches(si.kClassKind)
        assert not kind_filter.KindMatches(0xFF)
        assert not si.CKindFilter().KindMatches(si.kSetKind)

    @pytest.mark.parametrize(
        "mtime, ok, expected",
        [(0.0, True, True), (0.0, False, False), (1.0, True, False), (1.5, False, True),
         (-1.0, True, False), (-1.0, False, False), (0.5, True, False), (math.nan, True, False)],
    )
    def test_valid_on_disk_mtime(self, mtime, ok, expected):
        assert si.ValidOnDiskMtime(mtime, ok) is expected

# ---------------------------------------------------------------- nesting


class TestNonNested:
    def test_next_index_steps_and_jumps(self):
        assert si.NextNonNestedUtf8PtrIndex("a]b", 1, 3) == 2
        assert si.NextNonNestedUtf8PtrIndex("[a,b]c", 0, 6) == 5
        assert si.NextNonNestedUtf8PtrIndex("x", 1, 1) == -1
        text = "fr'a]b'c"
        steps, pos = [], 0
        while pos != -1:
            steps.append(pos)
            pos = si.NextNonNestedUtf8PtrIndex(text, pos, len(text))
        assert steps == [0, 1, 2, 7, 8]

    def test_compound_with_separators_in_brackets_and_strings(self):
        compound = b":tDict[str, ';']" + b";" + b"f(a; b)" + b";" + b"'x;y'" + b";:S3"
        assert si.NonNestedSplit(compound, b";") == [b":tDict[str, ';']", b"f(a; b)", b"'x;y'", b":S3"]
        assert si.NonNestedSplit("a.b[c.d].e", ".") == ["a", "b[c.d]", "e"]
        assert si.NonNestedSplit("a;b;c", ";", 1) == ["a", "b;c"]

    def test_find(self):
        assert si.NonNestedFind("a(b,c),d", ",") == 6
        assert si.NonNestedFind("'a,b',c", ",") == 5
        assert si.NonNestedFind("abc", ",") == -1
        assert si.NonNestedFind("abc", "") == -1
        assert si.NonNestedFind("x[1][2]", "]", start=2) == 3
        # ")" at level 0 leaves the balance below zero: no second match until
        # an opening bracket has made up for it.
        assert si.NonNestedFind("a)b)", ")", start=2) == 3
        assert si.NonNestedFind("é(ü,ö),ä", ",") == 6  # characters, not bytes
        assert si.NonNestedFind("éé,é", ",", start=1) == 2
        assert si.NonNestedFindBytes(b"x.y", b".") == 1
        assert si.NonNestedFindBytes(b"x.y", b"ab") == -1
        with pytest.raises(TypeError):
            si.NonNestedFindBytes("x.y", b".")

# ---------------------------------------------------------------- builders


class TestBuildersRoundTrip:
    def test_def_info(self):
        ibytes = si.BuildDefInfoStr(si.kUnboundMethodPrefix, "C.f|1", "[T: int]", "(self, a=';')",
                                    "List[T]", ["staticmethod", "route('/a,b')"])
        assert si.GetInfoBytesKind(ibytes) == si.kUnboundMethodKind
        info = si.UnpackDefInfoStr(ibytes)
        assert (info.scope_name, info.type_params, info.arg_decl, info.fReturnHint) == (
            "C.f|1", "[T: int]", "(self, a=';')", "List[T]")
        assert info.decorators == ["staticmethod", "route('/a,b')"]
        assert info.signature == "(self, a=';') -> List[T]"
        assert si.SplitDefSignature(info.signature) == ("self, a=';'", "List[T]")
        assert info.kind == si.kUnboundMethodKind and info.IsMethod()

    def test_def_info_needs_a_def_prefix(self):
        with pytest.raises(ValueError):
            si.BuildDefInfoStr(si.kClassPrefix, "f", None, "()", None, [])
        with pytest.raises(ValueError):
            si.UnpackDefInfoStr(si.kTypeHintPrefix + b"int")

    def test_class_info_and_instance_payload(self):
        ibytes = si.packedops.PackClassInfo("A.B", "[T, *Ts, **P]", "(Base, metaclass=M)",
                                            decorators=["dataclass"])
        info = si.packedops.UnpackClassInfo(ibytes)
        assert (info.full_name, info.arg_decl, info.decorators) == ("A.B", "(Base, metaclass=M)", ["dataclass"])
        assert info.bases == ["Base", "metaclass=M"]
        params = [(p.name, p.kind, p.bound, p.default) for p in info.decl_type_params]
        assert params == [("T", "TypeVar", None, None), ("Ts", "TypeVarTuple", None, None),
                          ("P", "ParamSpec", None, None)]
        # An instance single is the class payload behind the instance prefix.
        inst = si.kInstancePrefix + ibytes[si.kPrefixLen:]
        assert si.UnpackClassInfo(inst).full_name == "A.B"
        with pytest.raises(ValueError):
            si.UnpackClassInfo(si.kInstancePrefix)
        assert si.UnpackClassInfo(si.PackClassInfo("C", None, None)).decorators == []

    def test_called(self):
        ibytes = si.PackCalled(".append", "x, (1; 2), 'a,b'")
        assert b"%" not in ibytes  # ordinary argument text stays readable
        assert si.packedops.UnpackCalled(ibytes) == (".append", "x, (1; 2), 'a,b'")
        assert si.SplitArguments(si.UnpackCalled(ibytes)[1]) == ["x", "(1; 2)", "'a,b'"]
        with pytest.raises(ValueError):
            si.UnpackCalled(si.kSetPrefix)

    def test_arg_info_is_also_a_name(self):
        ibytes = si.BuildArgInfo(2, None)
        assert si.GetInfoBytesKind(ibytes) == si.kArgKind
        assert si.UnpackArgInfo(ibytes) == (2, None)
        assert si.IsIndexedArgName(ibytes.decode()) and si.IsIndexedArgName(ibytes)
        assert si.UnpackArgInfo(si.BuildArgInfo(0, "a,b")) == (0, "a,b")
        for name in ["a", "", ":a", ":ax", ":S1", si.kArgPrefix.decode() + "1,x,y"]:
            assert not si.IsIndexedArgName(name)
        with pytest.raises(ValueError):
            si.UnpackArgInfo("self")
        with pytest.raises(TypeError):
            si.BuildArgInfo(1, 5)

    def test_decorator_literal_conditional(self):
        assert si.UnpackDecoratorInfo(si.BuildDecoratorInfo(3, "a.b")) == (3, "a.b")
        assert si.UnpackLiteralInfo(si.BuildLiteralInfo(b"int", 12)) == ("int", "12")
        inner = si.BuildLiteralInfo(b"int", None)
        cond = si.BuildConditionalInfo(b"sys.version_info >= (3, 8)", inner)
        assert si.UnpackConditionalInfo(cond) == ("sys.version_info >= (3, 8)", inner)
        nested = si.BuildConditionalInfo(b"not x", cond)
        assert si.UnpackConditionalInfo(si.UnpackConditionalInfo(nested)[1])[1] == inner

    def test_type_hint_and_logical_index_suffix(self):
        hint = si.kTypeHintPrefix + b"Dict[str, ':#1']"
        with_suffix = si.packedops.AppendLogicalIndexBytesSuffix(hint, b"12")
        assert si.packedops.UnpackTypeHint(with_suffix) == "Dict[str, ':#1']"
        assert si.SplitLogicalIndexSuffix(with_suffix) == (hint, 12)
        assert si.SplitLogicalIndexSuffix(hint) == (hint, None)
        assert si.AppendLogicalIndexBytesSuffix(hint, b"") == hint
        assert si.SplitLogicalIndexSuffix(si.AppendLogicalIndexBytesSuffix(b"x", -1)) == (b"x", -1)
        # Index-like bytes inside a string are text, not a suffix.
        quoted = si.kTypeHintPrefix + b"'a:#3'"
        assert si.SplitLogicalIndexSuffix(quoted) == (quoted, None)
        with pytest.raises(ValueError):
            si.AppendLogicalIndexBytesSuffix(hint, b"1x")

    def test_first_seen_indexes(self):
        assert si.UnpackLogicalIndex(si.kSetPrefix + b"-1") == -1
        assert si.UnpackLogicalIndex(si.kGetPrefix + b"7") == 7
        assert si.UnpackLogicalIndex(si.kSetPrefix) is None
        with pytest.raises(ValueError):
            si.UnpackLogicalIndex(si.kTypeHintPrefix + b"1")

    def test_type_parameter_and_field_kinds(self):
        single = si.BuildTypeParameterInfo("T", "TypeVar", "int | str", "str")
        param = si.UnpackTypeParameterInfo(single)
        assert (param.name, param.kind, param.bound, param.default) == ("T", "TypeVar", "int | str", "str")
        single = si.BuildFieldsInfo(si.kFromImportKind, ["..pkg.mod", "name", None])
        assert si.GetInfoBytesKind(single) == si.kFromImportKind
        assert si.UnpackFieldsInfo(single) == ["..pkg.mod", "name", None]

    def test_string_literal(self):
        for text in ["plain", "a\"b'c", "back\\slash", "line\nbreak", "é名", "\x00\x7f"]:
            encoded = si.EncodeStringLiteral(text)
            assert ast.literal_eval(encoded.decode()) == text
            assert si.NonNestedSplit(encoded + b";x", b";") == [encoded, b"x"]

    def test_wrong_kind_message_is_text_whatever_the_bytes(self):
        with pytest.raises(ValueError, match=r"\\xff"):
            si.UnpackCalled(b":S\xff\xfe")

    def test_malformed_escape_is_a_value_error(self):
        with pytest.raises(ValueError):
            si.UnpackDecoratorInfo(si.kDecoratorPrefix + b"1,%%zz")


@settings(max_examples=300, deadline=None)
@given(name=nasty_text, type_params=opt_text, args=opt_text, ret=opt_text,
       decorators=st.lists(nasty_text, max_size=3), literal=opt_text, condition=nasty_text,
       arg_name=opt_text, index=st.integers(-5, 10**6), url=nasty_text, scope=opt_text)
def test_every_layout_round_trips_in_a_compound(name, type_params, args, ret, decorators, literal,
                                                condition, arg_name, index, url, scope):
    def_single = si.BuildDefInfoStr(si.kFunctionPrefix, name, type_params, args, ret, decorators)
    class_single = si.PackClassInfo(name, type_params, args, decorators)
    literal_single = si.BuildLiteralInfo(name, literal)
    arg_single = si.BuildArgInfo(index, arg_name)
    decorator_single = si.BuildDecoratorInfo(index, name)
    called_single = si.PackCalled(name, condition)
    cond_single = si.BuildConditionalInfo(condition, def_single)
    marked = si.PrefixWithLocationAndScope(literal_single, Loc(url), scope)
    singles = [def_single, class_single, literal_single, arg_single, decorator_single,
               called_single, cond_single, marked]
    compound = b";".join(singles)
    assert si.NonNestedSplit(compound, b";") == singles
    assert si.NonNestedSplit(compound.decode("utf-8"), ";") == [s.decode() for s in singles]

    info = si.UnpackDefInfoStr(def_single)
    assert (info.scope_name, info.type_params, info.arg_decl, info.fReturnHint, info.decorators) == (
        name, type_params, args, ret, decorators)
    cls = si.UnpackClassInfo(class_single)
    assert (cls.full_name, cls.type_params, cls.arg_decl, cls.decorators) == (name, type_params, args, decorators)
    assert si.UnpackLiteralInfo(literal_single) == (name, literal)
    assert si.UnpackArgInfo(arg_single) == (index, arg_name)
    assert si.UnpackDecoratorInfo(decorator_single) == (index, name)
    assert si.UnpackCalled(called_single) == (name, condition)
    assert si.UnpackConditionalInfo(cond_single) == (condition, def_single)
    assert si.ScopeNameDefinedByInfo(cond_single) == name
    assert si.UnpackLocationAndScope(marked, False) == (url, scope, literal_single)
    suffixed = si.AppendLogicalIndexBytesSuffix(literal_single, str(index).encode())
    assert si.SplitLogicalIndexSuffix(suffixed) == (literal_single, index)
    assert si.UnpackLiteralInfo(suffixed) == (name, literal)
    assert isinstance(si.DescribeInfo(compound), str)


# ---------------------------------------------------------------- marks


class TestMarks:
    def test_module_scope_is_a_real_mark(self):
        marked = si.PrefixWithLocationAndScope(b"x", None, "")
        assert marked != b"x"
        assert si.UnpackLocationAndScope(marked) == (None, "", b"x")
        assert si.PopLeadingPrefixes(marked) == (marked[:-1], b"x")

    def test_closest_mark_wins(self):
        inner = si.PrefixWithLocationAndScope(b"x", None, "C.f")
        assert si.PrefixWithLocationAndScope(inner, None, "D") == inner
        outer = si.PrefixWithLocationAndScope(inner, Loc("file:///m.py"), "D")
        assert si.UnpackLocationAndScope(outer, False) == ("file:///m.py", "C.f", b"x")
        elsewhere = si.PrefixWithLocationAndScope(b"x", Loc("file:///a.py"), None)
        assert si.PrefixWithLocationAndScope(elsewhere, Loc("file:///b.py"), "E") == elsewhere
        builtin = si.kBuiltinModulePrefix + b"int"
        assert si.PrefixWithLocationAndScope(builtin, None, "C") == builtin

    def test_pop_leading_prefixes_through_every_mark(self):
        single = si.kTypeHintPrefix + b"int"
        marked = si.kTypingModulePrefix + si.PrefixWithLocationAndScope(single, Loc("u"), "S")
        prefixes, rest = si.PopLeadingPrefixes(marked)
        assert rest == single and prefixes + rest == marked
        assert si.PopLeadingPrefixes(single) == (b"", single)
        assert si.UnpackTypeHint(marked) == "int"

    def test_location_needs_a_url(self):
        with pytest.raises(TypeError):
            si.PrefixWithLocationAndScope(b"x", object(), "C")

    def test_a_location_survives_any_characters_of_its_path(self, tmp_path):
        from basekit.location import CLocalFileLocation

        loc = CLocalFileLocation(str(tmp_path / "a b;c'd(é).py"))
        marked = si.PrefixWithLocationAndScope(b":tint", loc, "C.f")
        assert si.NonNestedSplit(marked + b";:S1", b";") == [marked, b":S1"]
        assert si.UnpackLocationAndScope(marked) == (loc, "C.f", b":tint")
        assert si.UnpackLocationAndScope(marked)[0] is loc

    def test_url_stays_text_without_the_location_module(self, monkeypatch):
        monkeypatch.setitem(sys.modules, "basekit.location", None)
        marked = si.PrefixWithLocationAndScope(b"x", Loc("file:///p/a;b.py"), "C")
        assert si.UnpackLocationAndScope(marked) == ("file:///p/a;b.py", "C", b"x")
        assert si.LocationForUrl("file:///p") is None

# ---------------------------------------------------------------- scopes defined


def test_scope_defined_by_info():
    def_single = si.BuildDefInfoStr(si.kFunctionPrefix, "C.f|0", None, "()", None, [])
    class_single = si.PackClassInfo("C", None, None)
    assert si.ScopeNameDefinedByInfo(def_single) == "C.f|0"
    assert si.ScopeNameDefinedByInfo(class_single) == "C"
    assert si.ScopeNameDefinedByInfo(si.kSetPrefix + b"1") is None
    assert si.InfoDefinesScope(si.kSetPrefix + b"1;" + class_single)
    assert not si.InfoDefinesScope(si.kSetPrefix + b"1;" + si.kTypeHintPrefix + b"C")
    assert si.InfoDefinesScope(si.BuildConditionalInfo(b"x", def_single))


# ---------------------------------------------------------------- scope names


class TestScopeNames:
    @pytest.mark.parametrize("func, args, expected", [
        # the leaf keeps its scope index
        (si.LeafScopeName, ("C.f|1",), "f|1"),
        (si.ParentAndLeafScopeNames, ("C|2.f|1",), ("C|2", "f|1")),
        (si.ParentScopeName, ("f",), ""),
        (si.ParentAndLeafScopeNames, ("Dict[a.b, c].get",), ("Dict[a.b, c]", "get")),
        (si.SplitScopeNameFromSuffixes, ("f|1",), ("f", "|1")),
        (si.SplitScopeNameFromSuffixes, ("C|0.List[int]",), ("C|0.List", "[int]")),
        (si.SplitScopeNameFromSuffixes, ("C.f",), ("C.f", "")),
        (si.SplitScopeNameFromSuffixes, ("C" + si.kClassInstanceSuffix,), ("C", si.kClassInstanceSuffix)),
        (si.RemoveAllScopeNameSubscripts, ("List[int].append",), "List.append"),
        (si.RemoveAllScopeNameSubscripts, ("A[B[c]].d[']'].e",), "A.d.e"),
        (si.RemoveAllScopeNameSubscripts, ("plain.name|1",), "plain.name|1"),
        (si.AppendScopeIndex, ("C.f", 2), "C.f|2"),
        (si.AppendScopeIndex, ("C.f|1", 3), "C.f|3"),
        (si.AppendScopeIndex, ("C|1.f", 0), "C|1.f|0"),
        (si.LeafScopeIndex, ("C.f",), 0),
        (si.LeafScopeIndex, ("C.f|4",), 4),
        # normalising drops index 0 only
        (si.NormalizeScopeName, ("C.f|0",), "C.f"),
        (si.NormalizeScopeName, ("C|0.f|0",), "C.f"),
        (si.NormalizeScopeName, ("f|1",), "f|1"),
        (si.NormalizeScopeName, ("f|10",), "f|10"),
        (si.NormalizeScopeName, ("D[x|0]",), "D[x|0]"),
    ])
    def test_name_operations(self, func, args, expected):
        assert func(*args) == expected

    def test_instance_and_def_line_names(self):
        inst = si.GetInstanceNameForClass("C")
        assert inst == "C" + si.kClassInstanceSuffix and si.IsInstanceScope(inst)
        assert si.GetInstanceNameForClass(inst) == inst
        assert not si.IsInstanceScope("C")
        assert si.DefLineScope("C.f") != "C.f"
        assert si.ParentScopeName(si.DefLineScope("C.f")) == "C"
        assert si.DefLineScope(si.DefLineScope("C.f")) == si.DefLineScope("C.f")
        assert si.DefLineScope("") == ""

# ---------------------------------------------------------------- expressions


class TestExpressions:
    @pytest.mark.parametrize("text, parts", [
        ("a.b(c, d)[1] . e", ["a", ".b", "(c, d)", "[1]", ".e"]),
        ("x", ["x"]),
        ("'a.b'.join(x)", ["'a.b'", ".join", "(x)"]),
        ("(a + b).c", ["(a + b)", ".c"]),
        ("__typing__.Any", ["__typing__", ".Any"]),
        ("é.ü", ["é", ".ü"]),
    ])
    def test_split_trailers(self, text, parts):
        assert si.SplitTrailers(text) == parts

    @pytest.mark.parametrize("text", ["a + b", "", "a.", "a(", "not x", "a.1"])
    def test_split_trailers_refuses(self, text):
        assert si.SplitTrailers(text) is None

    def test_split_arguments(self):
        assert si.SplitArguments("a, b=(1, 2), *c, **d,") == ["a", "b=(1, 2)", "*c", "**d"]
        assert si.SplitArguments("  ") == []
        assert si.SplitArguments(b"x") == [b"x"]

    def test_atoms_names_floats(self):
        assert si.IsAtomExpr("a.b[0](1)") and si.IsAtomExpr("[1, 2]") and si.IsAtomExpr("...")
        assert not si.IsAtomExpr("a or b") and not si.IsAtomExpr("-1")
        assert si.IsSingleNameToken("_x1") and si.IsSingleNameToken("названия")
        assert not si.IsSingleNameToken("1x") and not si.IsSingleNameToken("a.b")
        assert not si.IsSingleNameToken("") and not si.IsSingleNameToken("a\u00a0")
        assert not si.IsSingleNameToken(b"\xff") and not si.IsSingleNameToken("\u0661a")
        for text in ["1.5", "1e3", ".5", "-2.", "1_000.0", "1E-3"]:
            assert si.IsFloat(text), text
        for text in ["1", "0x1F", "1j", "e3", ".", "1e", "abc"]:
            assert not si.IsFloat(text), text

    def test_tokens(self):
        toks = ["def", "f", "[", "T", "]", "(", "a", ",", "b", ")", "->", "int", ":"]
        assert si.FindNestingEnd(toks, 2) == 4
        assert si.FindNestingEnd(toks, 5) == 9
        assert si.FindNestingEnd(toks, 1) == -1
        assert si.FindNestingEnd(["(", "a"], 0) == -1
        assert si.FindNonNestedTokenInList(toks, 10, ":") == 12
        assert si.FindNonNestedTokenInList(["x", "[", ":", "]", ":"], 0, ":") == 4
        assert si.FindNonNestedTokenInList(toks, 0, "?") == -1
        assert si.JoinTokens(toks[5:10]) == b"(a, b)"
        assert si.JoinTokens(["not", "x", "in", "y"]) == b"not x in y"
        assert si.JoinTokens(["sys", ".", "version_info", ">=", "(", "3", ",", "8", ")"]) == \
            b"sys.version_info >= (3, 8)"
        assert si.JoinTokens(["r", "'x'"]) == b"r 'x'"

    def test_def_signature(self):
        assert si.SplitDefSignature("(a, b) -> int") == ("a, b", "int")
        assert si.SplitDefSignature("()") == ("", None)
        assert si.SplitDefSignature("") == (None, None)
        assert si.exprops.SplitDefSignature("(a=')') -> X") == ("a=')'", "X")


# ---------------------------------------------------------------- resolved singles


class TestResolvedSingles:
    loc = Loc("file:///m.py")

    def single(self, ibytes, name="C"):
        return si.CSingleResolvedInfo(ibytes, si.Scope(self.loc, name))

    def test_def_and_method(self):
        func = self.single(si.BuildDefInfoStr(si.kFunctionPrefix, "f", None, "()", None, []), "f")
        assert func.IsDef() and not func.IsMethod() and not func.IsBound() and not func.IsClass()
        assert func.GetTypeName() == "function"
        bound = self.single(si.BuildDefInfoStr(si.kMethodPrefix, "C.g|0", None, "(self)", None, []))
        assert bound.IsDef() and bound.IsMethod() and bound.IsBound()
        scope = bound.GetDefinedScope()
        assert scope.name == "C.g" and scope.loc is self.loc
        assert scope.Parent().name == "C"

    def test_class_instance_literal(self):
        cls = self.single(si.PackClassInfo("C", None, None))
        assert cls.IsClass() and not cls.IsInstance() and cls.GetClassName() == "C"
        assert cls.GetTypeName() == "type" and not cls.HasInstanceName()
        inst = self.single(si.kInstancePrefix + si.PackClassInfo("m.C", None, None)[si.kPrefixLen:])
        assert inst.IsInstance() and inst.IsInstance(False) and inst.HasInstanceName()
        assert inst.GetInstanceClassName() == "m.C" == inst.GetTypeName()
        literal = self.single(si.BuildLiteralInfo(b"int", "3"))
        assert literal.IsLiteral() and literal.IsLiteral(True) and literal.IsInstance()
        assert not literal.IsInstance(False)
        assert literal.GetTypeName() == "int"
        assert not self.single(si.BuildLiteralInfo(b"int", None)).IsLiteral(True)
        builtin = self.single(si.BuildFieldsInfo(si.kBuiltinClassKind, ["int"]))
        assert builtin.IsClass() and not builtin.IsClass(False) and builtin.GetClassName() == "int"

    def test_module_and_class_ref(self):
        module = self.single(si.BuildFieldsInfo(si.kModuleKind, ["os.path"]), "")
        assert module.IsModule() and module.GetTypeName() == "module"
        assert module.GetDefinedScope() is None
        ref = si.CSingleResolvedInfo(b"x", si.Scope(self.loc, ""), None, b"x.y")
        assert ref.IsClassRef() and ref.GetClassRefBytes() == b"x.y"
        assert not module.IsClassRef() and module.GetClassRefBytes() is None

    def test_marks_are_looked_through(self):
        marked = si.PrefixWithLocationAndScope(si.PackClassInfo("C", None, None), None, "")
        assert self.single(marked).IsClass()

    def test_create_for_class_both_ways(self):
        by_scope = si.CreateSingleResolvedForClass(si.Scope(self.loc, "A.B"))
        by_name = si.CreateSingleResolvedForClass(self.loc, "A.B|0")
        assert by_scope == by_name and hash(by_scope) == hash(by_name)
        assert by_name.IsClass() and by_name.loc is self.loc
        assert by_name.GetDefinedScope() == si.Scope(self.loc, "A.B")
        assert len({by_scope, by_name}) == 1
        with pytest.raises(TypeError):
            si.CreateSingleResolvedForClass("not a scope")

    def test_python_subclass_overrides(self):
        class Special(si.CSingleResolvedInfo):
            def IsModule(self):
                return True

        assert Special(b":S", si.Scope(self.loc, "")).IsModule()


# ---------------------------------------------------------------- decoder

DESCRIBED = [
    (b"", "nothing"),
    (b"os.path", "expression os.path"),
    (si.kSetPrefix, "set"),
    (si.kSetPrefix + b"4", "first set at logical 4"),
    (si.kGetPrefix + b"-1", "first read at logical -1"),
    (si.kTypeHintPrefix + b"int", "type hint int"),
    (si.kInferredTypeHintPrefix + b"list[int]", "inferred type hint list[int]"),
    (si.kSelfPrefix, "self"),
    (si.kInstancePrefix, "instance"),
    (si.BuildArgInfo(1, None), "argument 1"),
    (si.BuildDecoratorInfo(0, "staticmethod"), "decorator 0 @staticmethod"),
    (si.BuildLiteralInfo(b"str", None), "literal str"),
    (si.BuildLiteralInfo(b"int", "1"), "literal int 1"),
    (si.PackCalled("", "a, b"), "called with (a, b)"),
    (si.PackClassInfo("C", None, "(B)"), "class C(B)"),
    (si.BuildDefInfoStr(si.kFunctionPrefix, "f", None, "(a)", "int", ["d"]),
     "function f(a) -> int decorated by @d"),
    (si.BuildDefInfoStr(si.kMethodPrefix, "C.f", None, "(self)", None, []), "bound method C.f(self)"),
    (si.BuildDefInfoStr(si.kUnboundMethodPrefix, "C.f", None, "(self)", None, []),
     "unbound method C.f(self)"),
    (si.BuildConditionalInfo(b"x", si.kSetPrefix), "if x: set"),
    (si.AppendLogicalIndexBytesSuffix(si.kTypeHintPrefix + b"int", b"3"), "type hint int (logical 3)"),
    (si.kLogicalIndexPrefix + b"3", "from logical '3'"),
    (si.PrefixWithLocationAndScope(b"x", None, ""), "read in scope <module>: expression x"),
    (si.PrefixWithLocationAndScope(si.kSetPrefix, Loc("u"), None), "read in file 'u': set"),
    (si.kBuiltinModulePrefix + si.kSetPrefix, "read in the built-in module: set"),
    (si.kTypingModulePrefix + si.kSetPrefix, "read in the typing module: set"),
    (si.kDefLineScopePrefix + b"C.f," + si.kSetPrefix, "read at the def line of 'C.f': set"),
    (si.BuildFieldsInfo(si.kImportKind, ["os"]), "import 'os'"),
    (si.kGlobalPrefix, "global"),
    (si.BuildTypeParameterInfo("T", "TypeVar", "int", None), "TypeVar T: int"),
]


class TestDescribe:
    @pytest.mark.parametrize("ibytes, expected", DESCRIBED)
    def test_each_kind(self, ibytes, expected):
        assert si.DescribeInfo(ibytes) == expected

    def test_every_kind_is_described(self):
        # Kinds the table leaves out carry plain fields.
        tabled = {si.GetInfoBytesKind(ibytes) for ibytes, _ in DESCRIBED}
        for name, *_ in si.KindTable():
            kind = getattr(si, "k%sKind" % name)
            if kind not in tabled:
                text = si.DescribeInfo(si.BuildFieldsInfo(kind, ["x"]))
                assert "malformed" not in text and "unknown" not in text, (name, text)
                assert "x" in text, (name, text)

    def test_compound_and_malformed(self):
        assert si.DescribeInfo(si.kSetPrefix + b"1;" + si.kGetPrefix + b"2") == \
            "first set at logical 1; first read at logical 2"
        assert si.DescribeInfo(si.kFunctionPrefix).startswith("malformed function")
        assert si.DescribeInfo(b":\x01zz").startswith("unknown kind")
        assert si.DescribeInfo(si.kDecoratorPrefix + b"x,%q").startswith("malformed")


info_like = st.lists(
    st.sampled_from([b":", b";", b",", b"%", b"%2", b"(", b")", b"'", b'"', b"\\", b"\x00", b"\xff",
                     b"a", b"1", b"-", b"#"] + [getattr(si, "k%sPrefix" % n) for n in PREFIXED_NAMES]),
    max_size=20,
).map(b"".join)


@settings(max_examples=400, deadline=None)
@given(ibytes=info_like)
@example(ibytes=b":^\xff,")  # a URL that isn't UTF-8
def test_any_bytes_give_a_description_or_a_clear_error(ibytes):
    assert isinstance(si.DescribeInfo(ibytes), str)
    for unpack in (si.PopLeadingPrefixes, si.SplitLogicalIndexSuffix, si.InfoDefinesScope,
                   si.ScopeNameDefinedByInfo, si.UnpackDefInfoStr, si.UnpackClassInfo, si.UnpackCalled, si.UnpackDecoratorInfo,
                   si.UnpackLiteralInfo, si.UnpackConditionalInfo, si.UnpackTypeHint,
                   si.UnpackLocationAndScope, si.UnpackFieldsInfo, si.UnpackTypeParameterInfo):
        try:
            unpack(ibytes)
        except (ValueError, UnicodeDecodeError):
            pass


def test_a_field_that_looks_like_a_logical_index_suffix_round_trips():
    # A field ending the single with the suffix's own bytes must stay a field.
    for value in (":#0", "x:#12", "#"):
        single = si.BuildLiteralInfo(b"str", value)
        assert si.UnpackLiteralInfo(single) == ("str", value)

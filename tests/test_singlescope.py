"""The single-scope primary scanner: the standalone path of an editor, the
defining logical, body logicals folded into name maps, definition info, and
finishing the record."""

import pytest

from basekit.location import CLocalFileLocation
from pysource import scopeinfo, scopescanner as ss, symbolinfo as si

from managerutil import fresh_remote, installed_manager
from scanutil import counter_clock, local_file, record_of, scan_to_end, kForever


_made = []


@pytest.fixture
def mgr():
    with installed_manager(editor=True) as mgr:
        yield mgr
        while _made:
            _made.pop().destroy()


def open_file(mgr, tmp_path, text, name="mod.py"):
    loc = local_file(tmp_path, text, name)
    ana = mgr.fCacheMgr.OpenAnalysis(loc)
    return loc, ana


def new(loc, name, **kwargs):
    """A scanner of scope `name` of `loc`, destroyed with the test's manager."""
    _made.append(ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc, name), **kwargs))
    return _made[-1]


def scan(loc, name, **kwargs):
    scanner = new(loc, name, **kwargs)
    state, _ = scan_to_end(scanner)
    assert state is ss.kFinishedScanning
    return scanner


def names_of(scanner):
    return dict(scanner.fInfo.type_equivs)


def singles(entry):
    return si.NonNestedSplit(entry, b";")


class TestStandalone:
    def test_module_scope_is_scanned_with_no_definition(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "x = 1\n__name__ = 'm'\n")
        scanner = scan(loc, "")
        assert scanner.fScopeDef is None and not scanner._fNotFound
        assert scanner.fInfo.ibytes == b""
        info = names_of(scanner)
        # A module that sets a standard name keeps its own information.
        assert not any(s.startswith(si.kTypedLiteralPrefix) for s in singles(info["__name__"]))
        assert info["__builtins__"] == si.BuildLiteralInfo(b"dict", None) + b";" + si.kSetPrefix + b"-1"
        assert info["__file__"] == si.BuildLiteralInfo(b"str", None) + b";" + si.kSetPrefix + b"-1"
        assert scanner.fEntireScopeScanned

    def test_no_analysis_gives_a_not_found_record(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "def f():\n    pass\n")
        scanner = scan(loc, "f", ana=None)
        assert scanner._fNotFound and scanner.fEntireScopeScanned
        assert scanner.fInfo.ibytes == b"" and dict(scanner.fInfo.type_equivs) == {}
        assert scanner.fInfo.not_found
        assert scanner.SaveToInfoCache() == scopeinfo.kAddDiscarded

    def test_missing_file_has_no_analysis(self, mgr, tmp_path):
        loc = CLocalFileLocation(str(tmp_path / "absent.py"))
        scanner = scan(loc, "f")
        assert scanner.fFileDoesntExist and scanner._fNotFound
        assert scanner._CSingleScopePrimaryScanner__fAnalysis is None

    def test_unknown_scope_is_not_found(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "def f():\n    pass\n")
        scanner = scan(loc, "g")
        assert scanner._fNotFound and scanner.fScopeDef is None
        assert scanner.fDecoratorLogicals is None

    def test_waits_for_remote_content(self, mgr):
        loc = fresh_remote("single")
        scanner = new(loc, "f")
        assert scanner.Scan(kForever) is ss.kWaitingForData
        assert scanner.Scan(kForever) is ss.kWaitingForData
        loc.SetContent("def f(a):\n    return a\n", 9.0)
        assert scanner.fScanState is ss.kReadyToScan
        assert scanner.fPerFileInfo.fMatchedDiskMTime == 9.0
        assert scan_to_end(scanner)[0] is ss.kFinishedScanning
        assert scanner.fInfo.ibytes.startswith(si.kFunctionPrefix)
        assert scanner.fInfo.disk_mtime == 9.0

    def test_every_clock_reading_makes_progress(self, mgr, tmp_path):
        text = "def f(a, b):\n    x = a\n    y = b\n    z = x + y\n    return z\n"
        loc, _ = open_file(mgr, tmp_path, text)
        expected = record_of(scan(loc, "f").fInfo)
        with installed_manager(editor=True) as fresh, counter_clock() as clock:
            loc2, _ = open_file(fresh, tmp_path, text, "other.py")
            scanner = ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc2, "f"))
            state, calls = scan_to_end(scanner, 1, clock)
            assert state is ss.kFinishedScanning
            # analysis, definition, body, one call per body logical, the end
            assert calls == 3 + 4 + 1
            assert record_of(scanner.fInfo) == expected
            assert scanner.fScanState is ss.kFinishedScanning
            scanner.destroy()

    def test_save_before_the_end_is_discarded(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "x = 1\n")
        incomplete = {"x"}
        scanner = new(loc, "", incomplete_scope_set=incomplete)
        assert scanner.SaveToInfoCache(True) == scopeinfo.kAddDiscarded
        assert incomplete == {"x"}
        scan_to_end(scanner)
        assert scanner.SaveToInfoCache(True) != scopeinfo.kAddDiscarded
        assert mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(loc, "")) is not None


class TestDefiningLogical:
    SOURCE = (
        "def plain(a, b=1, *rest):\n    pass\n"
        "def none():\n    pass\n"
        "class C:\n"
        "    @staticmethod\n    def st(a):\n        a.x = 1\n"
        "    @classmethod\n    def cm(klass, a):\n        pass\n"
        "    def __new__(cls):\n        pass\n"
        "    @staticmethod\n    @classmethod\n    def both(a):\n        pass\n"
        "    @cache(3)\n    @util.wraps\n    def deco(self):\n        self.y = 2\n"
    )

    @pytest.fixture
    def loc(self, mgr, tmp_path):
        return open_file(mgr, tmp_path, self.SOURCE)[0]

    def test_plain_function_arguments(self, loc):
        scanner = scan(loc, "plain")
        info = names_of(scanner)
        assert scanner._CSingleScopePrimaryScanner__fSelfDotName is None
        assert singles(info["a"]) == [si.BuildArgInfo(0, None), si.kSetPrefix + b"-1"]
        assert si.BuildArgInfo(1, None) in singles(info["b"])
        assert si.BuildArgInfo(2, None) in singles(info["rest"])
        # A default is read in the scope around the def.
        default = [s for s in singles(info["b"]) if si.UnpackLocationAndScope(s, False)[2] == b"1"]
        assert default and si.UnpackLocationAndScope(default[0], False)[1] == ""
        assert scanner.fInfo._domains == {"a": b"argument", "b": b"argument", "rest": b"argument"}

    def test_static_method_has_no_self(self, loc):
        scanner = scan(loc, "C.st")
        info = names_of(scanner)
        assert si.kSelfPrefix not in singles(info["a"])
        assert scanner.fInfo.inst_type_equivs in (None, {})
        assert si.BuildDecoratorInfo(0, "staticmethod") in singles(info[""])

    def test_class_method_and_new_name_the_class(self, loc):
        for name, first in (("C.cm", "klass"), ("C.__new__", "cls")):
            scanner = scan(loc, name)
            assert b"C" in singles(names_of(scanner)[first])
            assert scanner._CSingleScopePrimaryScanner__fSelfDotName is None

    def test_static_wins_over_class(self, loc):
        info = names_of(scan(loc, "C.both"))
        assert b"C" not in singles(info["a"]) and si.kSelfPrefix not in singles(info["a"])

    def test_decorator_that_is_a_call_keeps_the_positions(self, loc):
        scanner = scan(loc, "C.deco")
        assert singles(names_of(scanner)[""]) == [si.BuildDecoratorInfo(1, "util.wraps")]
        assert si.kSelfPrefix in singles(names_of(scanner)["self"])
        assert "y" in scanner.fInfo.inst_type_equivs


class TestBody:
    def test_attributes_through_self(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "class C:\n    def f(self):\n        self.x = 1\n"
                                          "        self.x.y = 2\n        print(self.x)\n")
        scanner = scan(loc, "C.f")
        info = names_of(scanner)
        inst = dict(scanner.fInfo.inst_type_equivs)
        assert set(inst) == {"x"}
        assert inst["x"].endswith(b";" + si.kSetPrefix + b"0")
        assert si.UnpackLocationAndScope(inst["x"], False)[1] == "C.f"
        assert "x" not in info  # no first set of the bare name
        assert not any(s.startswith(si.kSetPrefix) for s in singles(info["self.x.y"]))

    def test_hinted_attribute_through_self(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "class C:\n    def f(self):\n        self.x: int = 1\n")
        scanner = scan(loc, "C.f")
        inst = singles(scanner.fInfo.inst_type_equivs["x"])
        assert inst[-2:] == [si.kSetPrefix + b"0", si.kSetTypeHintPrefix + b"0"]
        assert singles(names_of(scanner)["self.x"])[-1] == si.kSetTypeHintPrefix + b"0"

    def test_without_self_name_the_full_text_is_set(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "def f(self):\n    self.x = 1\n")
        info = names_of(scan(loc, "f"))
        assert singles(info["self.x"])[-1] == si.kSetPrefix + b"0"

    def test_subscript_under_its_base_directly(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "x = 1\n")
        scanner = new(loc, "")
        add = scanner._CSingleScopePrimaryScanner__AddPerName
        names = {}
        add(names, "a[b[0]]", b"v")
        add(names, "c[0].x", b"v")
        add(names, "d[]", b"v")
        add(names, "e[1]", b"v")
        add(names, "e[1]", b"v")
        assert names == {"a[b[0]]": b"v", "a[]": b"v", "c[0].x": b"v", "d[]": b"v",
                         "e[1]": {b"v"}, "e[]": {b"v"}}
        with pytest.raises(AssertionError, match="name is None for"):
            add(names, None, b"v")

    def test_two_defs_of_one_name(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "def f():\n    pass\ndef f(a):\n    pass\n")
        scanner = scan(loc, "")
        parts = singles(names_of(scanner)["f"])
        assert len([p for p in parts if p.startswith(si.kFunctionPrefix)]) == 2
        assert parts[-1] == si.kSetPrefix + b"0"
        # Counted by local name, which carries the scope index.
        assert scanner._fScopeNameSeenCount == {"f|0": 1, "f|1": 1}

    def test_imports_and_domains(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "import os\nfrom m import *\nfrom m import a as b\n")
        scanner = scan(loc, "")
        assert scanner.fInfo._domains == {"os": b"imported", "b": b"imported"}

    def test_active_edit_line_is_left_unparsed(self, mgr, tmp_path):
        loc, ana = open_file(mgr, tmp_path, "def f():\n    x = (1 +\n    y = 2\n")
        ana.SetActiveEditLineno(2)
        scanner = scan(loc, "f")
        body = scanner.fBody
        assert not body[0].fParsed
        assert scanner._CSingleScopePrimaryScanner__fNotParsedCount == 0
        assert scanner.fEntireScopeScanned and not scanner.fInfo.incomplete

    def test_unparsable_logical_makes_the_record_incomplete(self, mgr, tmp_path):
        loc, ana = open_file(mgr, tmp_path, "def f():\n    x = = 1\n")
        incomplete = set()
        scanner = scan(loc, "f", incomplete_scope_set=incomplete)
        assert scanner.fInfo.incomplete and not scanner.fEntireScopeScanned
        assert ana.GetParseErrors()
        scanner.SaveToInfoCache()
        assert incomplete == {"f"}


class FakeAnalyzer:
    """Gives each logical the pairs of a table keyed by its first token."""

    def __init__(self, table):
        self.table = table
        self.calls = []

    def AnalyzeSingleLogical(self, logical, py3, first_in_def=False):
        self.calls.append((logical.fToks[0] if logical.fToks else "", first_in_def))
        pairs, arg_pairs, parsed = self.table.get(logical.fToks[0] if logical.fToks else "",
                                                  ([], None, True))
        logical.fTypeEquivs = list(pairs)
        if arg_pairs is not None:
            logical.fArgTypeEquivs = arg_pairs
        logical.fParsed = parsed
        return None if parsed else [("bad", 0)]

    def ParseTokenListToNode(self, tok_list, py3):
        return True


class TestWithFakeAnalyzer:
    def test_argument_pairs_must_be_a_tuple(self, mgr, tmp_path):
        mgr.fLogicalAnalyzer = FakeAnalyzer({"def": ([], [(b"a", si.kSetPrefix)], True)})
        loc, _ = open_file(mgr, tmp_path, "def f(a):\n    pass\n")
        scanner = new(loc, "f")
        with pytest.raises(TypeError, match="tuple of pairs"):
            scan_to_end(scanner)

    def test_first_in_def_and_kinds_folded(self, mgr, tmp_path):
        hint = si.kTypeHintPrefix + b"int"
        mgr.fLogicalAnalyzer = FakeAnalyzer({
            "def": ([], ((b"a", si.kSetPrefix), (b"a", hint)), True),
            "x": ([(b"x", si.kSetPrefix), (b"x", hint), (b"y", si.kGetPrefix), (b"x", b"3")], None, True),
            "z": ([(b"z", b"4"), (b"y", si.kSetPrefix)], None, False),
        })
        loc, _ = open_file(mgr, tmp_path, "def f(a):\n    x = 1\n    z = 2\n")
        scanner = scan(loc, "f")
        calls = mgr.fLogicalAnalyzer.calls
        # The index is 0 for the defining logical as well.
        assert calls == [("def", True), ("x", True), ("z", False)]
        info = names_of(scanner)
        # sorted own singles, then first set, get, hint
        x_parts = singles(info["x"])
        assert x_parts[-2:] == [si.kSetPrefix + b"0", si.kSetTypeHintPrefix + b"0"]
        assert sorted(x_parts[:-2]) == x_parts[:-2] and len(x_parts) == 4
        assert info["y"] == si.kSetPrefix + b"1;" + si.kGetPrefix + b"0"
        assert scanner.fInfo.incomplete


class TestDefinitionInfo:
    def def_info(self, loc, name):
        scanner = scan(loc, name)
        return si.UnpackDefInfoStr(scanner.fInfo.ibytes), scanner

    def test_declaration_and_return(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "def f(a, b):\n    pass\ndef g(a) -> int:\n    pass\n")
        f, _ = self.def_info(loc, "f")
        assert f.arg_decl.replace(" ", "") == "(a,b)" and f.fReturnHint is None
        g, _ = self.def_info(loc, "g")
        assert g.fReturnHint == "int"

    def test_signature_comment(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path,
                           "def f(a):\n    # type: (int, str) -> str\n    return a\n")
        f, scanner = self.def_info(loc, "f")
        assert f.arg_decl.replace(" ", "") == "(a:int)"
        assert f.fReturnHint == "str"
        module = names_of(scan(loc, ""))
        assert si.UnpackDefInfoStr(singles(module["f"])[0]).arg_decl.replace(" ", "") == "(a:int)"

    def test_signature_comment_in_a_method_skips_self(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path,
                           "class C:\n    def m(self, a):\n        # type: (int) -> None\n        pass\n"
                           "    @staticmethod\n    def s(a):\n        # type: (int) -> None\n        pass\n")
        m, _ = self.def_info(loc, "C.m")
        assert m.arg_decl.replace(" ", "") == "(self,a:int)"
        assert m.kind == si.kUnboundMethodKind
        s, _ = self.def_info(loc, "C.s")
        assert s.arg_decl.replace(" ", "") == "(a:int)"

    def test_class_declarations(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "class A[T](Base):\n    pass\nclass B:\n    pass\n"
                                          "class D[T]:\n    pass\n@x.y\n@z()\nclass E:\n    pass\n")
        infos = {n: si.UnpackClassInfo(scan(loc, n).fInfo.ibytes) for n in "ABDE"}
        assert infos["A"].type_params == "[T]" and infos["A"].arg_decl == "(Base)"
        assert infos["B"].type_params is None and infos["B"].arg_decl == "()"
        assert infos["D"].type_params == "[T]" and infos["D"].arg_decl == "()"
        assert infos["E"].decorators == ["x.y"]

    def test_dotted_names_of_decorators(self, mgr, tmp_path):
        loc, ana = open_file(mgr, tmp_path,
                             "@a.b\n@c(1)\n@_\n@_cache\n@__x._SpecialForm\ndef f():\n    pass\n")
        assert ana.UpdateFromCache()
        scanner = new(loc, "f")
        logicals = ana.fLogicalCache._fLogicalList
        assert [scanner._FindDecoratorDottedName(l) for l in logicals[:5]] == [
            "a.b", None, "_", "_cache", "__x._SpecialForm"]
        assert si.UnpackDefInfoStr(scan(loc, "f").fInfo.ibytes).decorators == [
            "__x._SpecialForm", "_cache", "_", "a.b"]


class TestFinalize:
    @pytest.fixture
    def finalize(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "x = 1\n")
        scanner = new(loc, "")
        yield scanner._CSingleScopePrimaryScanner__FinalizeNameDict

    def test_single_string_without_first_seen_is_kept(self, finalize):
        value = b":x" + b"payload"
        names = {"a": value}
        finalize(names, {}, {}, {})
        assert names["a"] is value

    def test_set_of_singles_sorted_then_first_set(self, finalize):
        names = {"a": {b"b", b"a"}}
        sets = {"a": b"3"}
        finalize(names, sets, None, None)
        assert names == {"a": b"a;b;" + si.kSetPrefix + b"3"} and sets == {}

    def test_read_only_and_set_only_names(self, finalize):
        names = {}
        finalize(names, {"s": "-1", "both": b"2"}, {"g": b"4", "both": b"5"}, {})
        assert names == {"s": si.kSetPrefix + b"-1", "g": si.kGetPrefix + b"4",
                         "both": si.kSetPrefix + b"2;" + si.kGetPrefix + b"5"}

    def test_hint_left_over_for_a_known_name_is_an_error(self, finalize):
        names = {"a": b"x"}
        finalize(names, None, None, {"b": b"1"})
        assert names["b"] == si.kSetTypeHintPrefix + b"1"
        # A name only set and only hinted: the set loop enters it first.
        with pytest.raises(AssertionError):
            finalize({}, {"s": b"1"}, None, {"s": b"2"})

    def test_maps_that_are_not_dicts_are_type_errors(self, mgr, tmp_path):
        loc, _ = open_file(mgr, tmp_path, "x = 1\n")
        scanner = new(loc, "")
        with pytest.raises(TypeError, match="dict"):
            scanner._AddToFirstDict("x", "x")

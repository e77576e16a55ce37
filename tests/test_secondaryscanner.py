"""The derived scan: the item loop's protocol (time slices, final tries,
waits for primary scans), derived records, argument classification, called
names, attribute targets, and whole-file scans of small projects."""

import math

import pytest

from basekit.location import CLocalFileLocation
from pysource import _fastaccess, prefs, scopeinfo, scopescanner as ss, symbolinfo as si
from managerutil import installed_manager, scan_mgr as mgr  # noqa: F401 (a fixture)
from pysource.coordinator import CScanCoordinator, _CFileJob
from scanutil import counter_clock, primary_scan
from secondaryutil import (FakeDetails, FakeDetailsStore, add_record, called, def_single,
                           bare_name, install_engine, kForever, scan_until_final, write_project)

kPast = 0.0


@pytest.fixture
def locs(tmp_path):
    return {n: CLocalFileLocation(str(tmp_path / n)) for n in ("app.py", "lib.py")}


@pytest.fixture
def make_scanner(mgr):
    made = []

    def make(info, cls=ss.CSingleScopeSecondaryScanner, **kw):
        scanner = cls(info, **kw)
        made.append(scanner)
        return scanner

    yield make
    for scanner in made:
        scanner.destroy()


@pytest.fixture
def blank(mgr, locs, make_scanner):
    """A scanner of app.py's module with an empty record."""
    return make_scanner(add_record(mgr, locs["app.py"], "", {}))


@pytest.fixture
def ctx(mgr):
    return mgr.fInferenceEngine._fNativeEngine.NewContext(kForever, True)


@pytest.fixture
def lib_f(mgr, locs):
    """A module `lib` defining `f(a, b)`, and the single that `lib.f` resolves to."""
    ibytes = si.BuildDefInfoStr(si.kFunctionPrefix, "f", None, "(a, b)", None, [])
    add_record(mgr, locs["lib.py"], "", {"f": ibytes})
    add_record(mgr, locs["lib.py"], "f", {"a": si.BuildArgInfo(0, None)})
    return si.CSingleResolvedInfo(ibytes, si.Scope(locs["lib.py"], ""))


def derived_of(scanner, loc, name):
    info = scanner.fDerivedInfoDict.get(si.Scope(loc, name))
    return None if info is None else dict(info.type_equivs)


def arg_key(i):
    return si.BuildArgInfo(i, None).decode()


# ---------------------------------------------------------------------------
# The item loop


def test_empty_scope_finishes_without_reading_the_clock(mgr, locs, blank):
    with counter_clock() as clock:
        assert blank.Scan(5.0) is ss.kFinishedScanning
        assert clock.now == 0
        # Scan after finishing runs the empty loop and saves again.
        assert blank.Scan(5.0) is ss.kFinishedScanning
    assert blank.fScanState is ss.kFinishedScanning


def test_items_run_from_the_end_and_a_past_deadline_gives_one_final_try(mgr, locs, make_scanner,
                                                                         lib_f):
    engine = install_engine(mgr, script={"lib.f": [lib_f], "lib.g": []})
    info = add_record(mgr, locs["app.py"], "", {"lib.g": called("2"), "lib.f": called("1")})
    scanner = make_scanner(info)
    finals = []
    original = engine.ResolveToResult

    def resolve(expr, ctx=None):
        finals.append((expr.name, scanner._fFinalTry))
        return original(expr, ctx)

    engine.ResolveToResult = resolve
    # Each resolving item runs in full, is parked as past the deadline and
    # gets one final try (a memo hit), then the next item comes.
    assert scan_until_final(scanner, kPast) == [ss.kTimedOut] * 4 + [ss.kFinishedScanning]
    assert finals == [("lib.f", False), ("lib.g", False)]
    assert engine.calls == ["lib.f", "lib.g"]
    # The rerun of a finished item adds its arguments again; the saved
    # record says them once.
    int_arg = si.PrefixWithLocationAndScope(si.BuildLiteralInfo(b"int", None), locs["app.py"], "")
    assert derived_of(scanner, locs["lib.py"], "f") == {arg_key(0): int_arg}


def test_without_function_calls_only_attribute_sets_resolve(mgr, locs, make_scanner):
    mgr.fPrefMgr.SetValue(prefs.kAnalyzeFunctionCalls, False)
    engine = install_engine(mgr)
    set_ibytes = si.kSetPrefix + b"0"
    info = add_record(mgr, locs["app.py"], "", {"f": called("1"), "o.a": set_ibytes,
                                                  "x[0]": set_ibytes})
    scanner = make_scanner(info)
    assert scanner._fSharedObjects.fScanFunctionCalls is False
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    assert engine.calls == ["o"]


def test_an_item_needing_the_same_scan_waits_once_and_cannot_livelock(mgr, locs, make_scanner,
                                                                      lib_f):
    needed = (si.Scope(locs["lib.py"], ""), mgr.fPrimaryScanName)
    derived_pair = (si.Scope(locs["lib.py"], "x"), mgr.fDerivedScanName)
    engine = install_engine(mgr, script={"lib.f": [lib_f]},
                            needs={"lib.f": lambda n: [needed, derived_pair]})
    info = add_record(mgr, locs["app.py"], "", {"g": called(""), "lib.f": called("1")})
    scanner = make_scanner(info)
    assert scan_until_final(scanner) == [ss.kWaitingForScans, ss.kTimedOut, ss.kFinishedScanning]
    # Only the primary pair is waited on; the final try keeps its partial result.
    assert scanner.GetNeedsScanLocs() == {locs["lib.py"]}
    assert scanner._fCompletedNeedsScan == {needed}
    assert engine.calls == ["lib.f", "lib.f", "lib.f", "g"]
    assert arg_key(0) in derived_of(scanner, locs["lib.py"], "f")


def test_a_final_try_that_finds_new_scans_records_nothing_and_retries_normally(mgr, locs, make_scanner,
                                                                               lib_f):
    first = (si.Scope(locs["lib.py"], ""), mgr.fPrimaryScanName)
    second = (si.Scope(locs["app.py"], "other"), mgr.fPrimaryScanName)
    engine = install_engine(mgr, script={"lib.f": [lib_f]},
                            needs={"lib.f": lambda n: [first] if n < 3 else [second]})
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {"lib.f": called("1")}))
    tries = []
    original = engine.ResolveToResult
    engine.ResolveToResult = lambda expr, ctx=None: (tries.append(scanner._fFinalTry),
                                                     original(expr, ctx))[1]
    # A partial answer while scans are outstanding would be taken for the whole one: the final
    # try waits for them, and the item runs again from a normal try, which resolves again.
    assert scan_until_final(scanner) == [ss.kWaitingForScans, ss.kTimedOut, ss.kWaitingForScans,
                                         ss.kTimedOut, ss.kFinishedScanning]
    assert tries == [False, False, True, False, True]
    assert scanner.GetNeedsScanLocs() == {locs["app.py"]}
    assert arg_key(0) in derived_of(scanner, locs["lib.py"], "f")


def test_recursive_scan_is_refused(mgr, locs, make_scanner):
    class Reentrant(ss.CSingleScopeSecondaryScanner):
        def _ScanCalledName(self, name, called_ibytes, parent_ctx):
            self.inner = self.Scan(kForever)
            return False

    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {"f": called("")}), cls=Reentrant)
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    assert scanner.inner is ss.kTimedOut
    assert scanner._fScanCalled is False


@pytest.mark.parametrize("items, expanded", [
    ([("n", b"1;2;3")], [("n", b"1"), ("n", b"2"), ("n", b"3")]),
    ([("a", b"x"), ("n", b"1;2"), ("z", b"y")],
     [("a", b"x"), ("n", b"1"), ("n", b"2"), ("z", b"y")]),
    ([("n", b"f(a;b);c")], [("n", b"f(a;b)"), ("n", b"c")]),
])
def test_expand_info_pair_list(mgr, locs, blank, items, expanded):
    blank.ExpandInfoPairList(items)
    assert items == expanded


# ---------------------------------------------------------------------------
# Derived records


@pytest.mark.parametrize("count, made, lines", [
    (20, True, []),
    (21, False, ["Not adding more derived info for"]),
    (-1, False, ["Not adding more derived info for", "  no existing info"]),
])
def test_derived_record_bound(mgr, locs, make_scanner, count, made, lines):
    target = si.Scope(locs["app.py"], "f")

    class CountingCache(scopeinfo.CInfoCache):
        def CountScopeInfoRecords(self, scope):
            return count if scope == target else 0

    old = mgr.fInfoCache
    mgr.fInfoCache = CountingCache(old.fLocCache, None, mgr.fPrimaryScanName)
    old.destroy()
    logged = []
    log = _fastaccess.CLogger(lambda level, text: logged.append(text))
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {}), log=log)
    ctx = mgr.fInferenceEngine._fNativeEngine.NewContext(kForever, True)
    record = scanner._CSingleScopeSecondaryScanner__DerivedInfo(target.AsExpr(), ctx)
    assert (record is not None) == made
    messages = [text for text in logged if not text.startswith("Scan state")]
    assert [m.split(" CScope")[0] for m in messages] == lines


@pytest.mark.parametrize("bound, hinted, tail", [
    (False, frozenset({1}), (0, frozenset({1}))),
    (True, None, (1, None)),
    (True, frozenset({0}), (1, None)),
    (True, frozenset({1, 3}), (1, frozenset({0, 2}))),
])
def test_derived_entry_for_def(mgr, locs, blank, ctx, lib_f, bound, hinted, tail):
    entry = blank._DerivedEntryForDef(si.Scope(locs["lib.py"], "f"), hinted, bound, ctx)
    assert entry[0].key.for_scope == si.Scope(locs["lib.py"], "f")
    assert entry[1:] == tail


def test_global_and_nonlocal_items(mgr, tmp_path, make_scanner):
    text = ("def g():\n    global q, r\n    q = 1\n\n"
            "def outer():\n    x = 1\n    def inner():\n        nonlocal x, y\n        x = 2\n")
    loc = write_project(tmp_path, {"m.py": text})["m.py"]
    primary_scan(mgr, [loc])
    cache = mgr.fInfoCache
    for name in ("g", "outer.inner"):
        scanner = make_scanner(cache.GetScopeInfo(si.NormalizedScope(loc, name)))
        assert scanner.Scan(kForever) is ss.kFinishedScanning
    g_name = cache.GetScopeInfo(si.NormalizedScope(loc, "g")).key.for_scope.name
    module = cache.GetScopeInfo(si.Scope(loc, "")).type_equivs
    # The module's name is g's name, then what g sets; r is never set.
    plain_q, set_q = module["q"].split(b";")
    assert plain_q == si.PrefixWithLocationAndScope(b"q", None, g_name)
    assert set_q.startswith(si.PrefixWithLocationAndScope(si.kSetPrefix, None, g_name))
    assert module["r"] == si.PrefixWithLocationAndScope(b"r", None, g_name)
    outer = cache.GetScopeInfo(si.NormalizedScope(loc, "outer")).type_equivs
    assert outer["x"].endswith(b"x") and "y" not in outer


# ---------------------------------------------------------------------------
# Arguments


@pytest.mark.parametrize("arg, expected", [
    ("1", b"int"), ("-1.5", b"float"), ("+.5", b"float"), ("None", b"None"),
    ("True", b"bool"), ('b"x"', b"bytes"), ('rb"x"', b"bytes"), ('f"x"', b"str"),
    ('"x"', b"str"), ('u"x"', b"str"), ("[]", b"list"), ("()", b"tuple"), ("{}", b"dict"),
    ("{1: 2}", b"dict"), ("{1}", b"set"), ("k=1", None),
])
def test_argument_literal_classification(mgr, locs, blank, ctx, arg, expected):
    got = blank._GetArgInfoBytesList(called(arg), ctx)
    assert got == [None if expected is None else si.BuildLiteralInfo(expected, None)]


def test_unicode_literal_before_python_3(mgr, locs, make_scanner):
    mgr.fInfoCache.fLocCache.SetPythonMajorVersion(2)
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {}))
    assert scanner._GetInfoBytesForResolvedArgText('u"x"', None) == \
        si.BuildLiteralInfo(b"unicode", None)


def test_name_arguments_lazy_or_resolved(mgr, locs, make_scanner, lib_f):
    engine = install_engine(mgr, script={"x": [lib_f]})
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {}))
    ctx = engine.NewContext(kForever, True)
    lazy = si.PrefixWithLocationAndScope(b"x", locs["app.py"], "")
    assert scanner._GetArgInfoBytesList(called("x, 1, y"), ctx, skip_indexes={1}) == \
        [lazy, None, si.PrefixWithLocationAndScope(b"y", locs["app.py"], "")]
    # An expression of several terms is read like one in parentheses.
    assert scanner._GetArgInfoBytesList(called("x + 1, (1 + 2)"), ctx) == \
        [si.PrefixWithLocationAndScope(b"(x + 1)", locs["app.py"], ""),
         si.PrefixWithLocationAndScope(b"(1 + 2)", locs["app.py"], "")]
    assert engine.calls == []
    previous = ss.SetLazyCalledArgEvaluation(False)
    try:
        got = scanner._GetInfoBytesForResolvedArgText("x", ctx)
    finally:
        ss.SetLazyCalledArgEvaluation(previous)
    assert engine.calls == ["x"]
    assert got == si.PrefixWithLocationAndScope(lib_f.ibytes, locs["lib.py"], "")


def test_reduced_resolved_is_sorted_whatever_the_order(mgr, locs, blank):
    singles = [si.CSingleResolvedInfo(si.BuildLiteralInfo(name, None), si.Scope(locs["app.py"], ""))
               for name in (b"str", b"int")]
    both = blank._GetInfoBytesForReducedResolved(frozenset(singles))
    assert both == b";".join(sorted(s.ibytes for s in singles))
    assert blank._GetInfoBytesForReducedResolved(frozenset(reversed(singles))) == both


def test_used_args_shift_past_self_and_skip_hinted(mgr, locs, blank, ctx, lib_f):
    entry = blank._DerivedEntryForDef(si.Scope(locs["lib.py"], "f"), frozenset({2}), True, ctx)
    blank._AddInfoForUsedArgs([entry], [b"a", b"b", None], ctx)
    assert set(derived_of(blank, locs["lib.py"], "f")) == {arg_key(1)}
    assert ss._FullyHintedArgIndexes([entry, entry]) == frozenset({1})
    assert ss._FullyHintedArgIndexes([entry, (entry[0], 0, None)]) is None


# ---------------------------------------------------------------------------
# Called names and attribute targets


def test_called_name_memo_and_a_python_override(mgr, locs, make_scanner, lib_f):
    engine = install_engine(mgr, script={"lib.f": [lib_f]})

    class NoDerived(ss.CSingleScopeSecondaryScanner):
        def _AddDerivedFor(self, loc):
            return False

    info = add_record(mgr, locs["app.py"], "", {"lib.f": called("1")})
    scanner = make_scanner(info)
    ctx = engine.NewContext(kForever, True)
    for _ in range(2):
        assert scanner._ScanCalledName("lib.f", called("'s'"), ctx) is False
    assert engine.calls == ["lib.f"]
    assert derived_of(scanner, locs["lib.py"], "f")[arg_key(0)].count(b";") == 1
    quiet = make_scanner(info, cls=NoDerived)
    assert quiet.Scan(kForever) is ss.kFinishedScanning
    assert dict(quiet.fDerivedInfoDict) == {}


@pytest.mark.parametrize("text, plain", [
    ("a", True), ("a.b", True), ("a[0]", False), ("g()", False), ("x=1", False), ("", False),
])
def test_plain_dotted_names(mgr, locs, blank, text, plain):
    assert blank._IsPlainDottedName(text) is plain


def test_attribute_set_on_class_instance_and_module(mgr, locs, make_scanner):
    lib = locs["lib.py"]
    cls_ibytes = si.packedops.PackClassInfo("C", None, None)
    add_record(mgr, lib, "", {"C": cls_ibytes})
    for name in ("C", "C()"):
        add_record(mgr, lib, name, {"x": b"1"})
    cls = si.CSingleResolvedInfo(cls_ibytes, si.Scope(lib, ""))
    inst = si.CSingleResolvedInfo(si.kInstancePrefix + cls_ibytes[si.kPrefixLen:], si.Scope(lib, "C"))
    module = si.CSingleResolvedInfo(si.kModulePrefix + b"lib", si.Scope(lib, ""))
    install_engine(mgr, script={"k": [cls], "i": [inst], "m": [module]})
    value = b";".join([si.BuildLiteralInfo(b"int", None), si.BuildLiteralInfo(b"str", None),
                       si.kSetPrefix + b"0"])
    info = add_record(mgr, locs["app.py"], "", {"k.a": value, "i.b": value, "m.c": value})
    scanner = make_scanner(info)
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    records = {s.name: r for s, r in scanner.fDerivedInfoDict.items()}
    assert set(records["C"].type_equivs) == {"a"}
    assert set(records["C()"].type_equivs) == {"a"}      # seen on instances too
    assert set(records["C()"].inst_type_equivs) == {"b"}
    assert set(records[""].type_equivs) == {"c"}
    # The whole recorded value reaches the target, one single per alternative.
    assert records[""].type_equivs["c"].count(b";") == 2


# ---------------------------------------------------------------------------
# Whole files


def test_whole_file_scan_records_what_callers_pass_and_survives_reopening(tmp_path):
    files = {"lib.py": "def f(a, b):\n    return a\n",
             "app.py": "import lib\n\ndef main():\n    lib.f(1, 'x')\n"}
    db = str(tmp_path / "info.db")
    with installed_manager(editor=False, db_path=db) as mgr:
        locs = write_project(tmp_path, files)
        primary_scan(mgr, locs.values())
        install_engine(mgr, script={"lib.f": [def_single(mgr, locs["lib.py"], "f")]})
        scanner = ss.CWholeFileSecondaryScanner(locs["app.py"], mgr.fDerivedScanName, None)
        try:
            assert scan_until_final(scanner) == [ss.kFinishedScanning]
            assert scanner.fScanCompletedCount == {"": 1, "main|0": 1}
        finally:
            scanner.destroy()
        assert mgr.fInfoCache.IsScanDone(locs["app.py"], mgr.fDerivedScanName,
                                         scanner.fDiskMTime)
    with installed_manager(editor=False, db_path=db) as mgr:
        info = mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(locs["lib.py"], "f"))
        main = si.NormalizedScope(locs["app.py"], "main")
        assert info.type_equivs[arg_key(0)] == si.PrefixWithLocationAndScope(
            si.BuildLiteralInfo(b"int", None), locs["app.py"], main.name)
        assert info.type_equivs[arg_key(1)].endswith(si.BuildLiteralInfo(b"str", None))


def test_filter_needs_scan_takes_this_files_derived_pairs(mgr, locs):
    add_record(mgr, locs["app.py"], "", {})
    scanner = ss.CWholeFileSecondaryScanner(locs["app.py"], mgr.fDerivedScanName, None)
    try:
        other = {(si.Scope(locs["lib.py"], "x"), mgr.fDerivedScanName),
                 (si.Scope(locs["app.py"], "y"), mgr.fPrimaryScanName)}
        assert scanner.FilterNeedsScan(other) is other
        mine = (si.Scope(locs["app.py"], "f"), mgr.fDerivedScanName)
        assert scanner.FilterNeedsScan(other | {mine}) == other
        assert scanner.fToScan == ["", "f"]
        scanner.fScanCompletedCount["g"] = 21
        scanner.fScanCompletedCount["h"] = 20
        pairs = {(si.Scope(locs["app.py"], n), mgr.fDerivedScanName) for n in "gh"}
        assert scanner.FilterNeedsScan(pairs) == set()
        assert scanner.fToScan == ["", "f", "h"]
    finally:
        scanner.destroy()


def test_whole_file_without_module_info_is_incomplete(mgr, locs):
    scanner = ss.CWholeFileSecondaryScanner(locs["app.py"], mgr.fDerivedScanName, None)
    try:
        assert scanner.Scan(kForever) is ss.kFinishedScanning
        assert scanner.fIncompleteCount == 1
        assert not mgr.fInfoCache.IsScanDone(locs["app.py"], mgr.fDerivedScanName, 100.0)
    finally:
        scanner.destroy()


class _RecordingFlow:
    def __init__(self):
        self.read = []

    def ReadFile(self, loc):
        self.read.append(loc)


@pytest.mark.parametrize("time_left, put_off", [(1e-4, True), (math.inf, False)])
def test_whole_file_reads_the_flow_of_the_file_and_of_builtins_and_typing_before_its_scopes(
        mgr, locs, time_left, put_off):
    # A flow structure is read in one step; inside a scope's request it
    # would fall anywhere in a slice.  Each read is a step of its own, put
    # off once when the call has too little time left.
    add_record(mgr, locs["app.py"], "", {})
    flow = mgr.fInferenceEngine._fNativeEngine.fFlowProvider = _RecordingFlow()
    loc_cache = mgr.fInfoCache.fLocCache
    scanner = ss.CWholeFileSecondaryScanner(locs["app.py"], mgr.fDerivedScanName, None)
    try:
        got = [scanner.Scan(_fastaccess.GetNowTime() + time_left)]
        read_first = list(flow.read)
        if got[-1] is ss.kTimedOut:
            got.append(scanner.Scan(kForever))
        assert got == [ss.kTimedOut] * put_off + [ss.kFinishedScanning]
        assert flow.read == [locs["app.py"], loc_cache.GetBuiltinLoc(), loc_cache.GetTypingLoc()]
        assert read_first == ([] if put_off else flow.read)
    finally:
        scanner.destroy()


kStdlibFiles = ("textwrap.py", "json/encoder.py", "string.py")


def derived_records_of_run(stdlib, sliced):
    """Whole-file derived scans of a few standard library files, with an
    engine that resolves a called name to a def of the same module; the
    records of every scope afterwards."""
    locs = [CLocalFileLocation(str(stdlib / name)) for name in kStdlibFiles]
    with installed_manager(editor=False) as mgr:
        primary_scan(mgr, locs)
        for loc in locs:
            mgr.fInfoCache.fLocCache.SetWantDerivedInfo(loc, True)

        def same_module_def(expr, ctx):
            module = si.Scope(expr.scope.loc, "")
            info = mgr.fInfoCache.GetScopeInfo(module)
            ibytes = info.GetInfoBytes(bare_name(expr)) if info is not None else None
            parts = [] if ibytes is None else ibytes.split(b";")
            return [si.CSingleResolvedInfo(p, module) for p in parts
                    if si.IsDefKind(si.GetInfoBytesKind(p))]

        install_engine(mgr, script={"": same_module_def})
        mgr.fInferenceEngine._fNativeEngine.script = _AnyName(same_module_def)
        out = {}
        with counter_clock() as clock:
            for loc in locs:
                scanner = ss.CWholeFileSecondaryScanner(loc, mgr.fDerivedScanName, None)
                try:
                    while True:
                        end = clock.slice_end(2) if sliced else kForever
                        state = scanner.Scan(end)
                        if state is ss.kFinishedScanning:
                            break
                        assert state is ss.kTimedOut
                finally:
                    scanner.destroy()
            for loc in locs:
                for name in mgr.fInfoCache.GetScopesForLoc(loc):
                    for record in mgr.fInfoCache.GetScopeInfoRecords(si.Scope(loc, name)):
                        out[(loc.fPath, name, record.key.scanned_scope.name)] = (
                            dict(record.type_equivs), dict(record.inst_type_equivs or {}))
        return out


class _AnyName(dict):
    """A script that answers every name with the same callable."""

    def __init__(self, answer):
        super().__init__()
        self.answer = answer

    def get(self, name, default=None):
        return self.answer


def test_sliced_run_equals_unsliced_run():
    import sysconfig
    import pathlib
    stdlib = pathlib.Path(sysconfig.get_paths()["stdlib"])
    whole = derived_records_of_run(stdlib, sliced=False)
    assert any(key[2] != key[1] for key in whole), "no derived record was made"
    assert derived_records_of_run(stdlib, sliced=True) == whole


# ---------------------------------------------------------------------------
# The coordinator's derived pass


kProject = {"lib.py": "def f(a, b):\n    return a\n",
            "app.py": "import lib\n\ndef main():\n    lib.f(1, 'x')\n",
            "other.py": "def h():\n    pass\n"}


@pytest.fixture
def project(mgr, tmp_path):
    locs = write_project(tmp_path, kProject)
    coordinator = CScanCoordinator(mgr)
    yield mgr, locs, coordinator
    coordinator.destroy()


def lib_f_record(mgr, locs):
    return mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(locs["lib.py"], "f")).type_equivs


def test_derived_pass_runs_the_primary_scans_it_waits_for(project):
    mgr, locs, coordinator = project
    coordinator.AddLocations([locs["app.py"]])
    coordinator.RunUntilIdle()
    # lib.py has no primary record yet: the resolve asks for its scan.
    needs = (si.Scope(locs["lib.py"], ""), mgr.fPrimaryScanName)
    engine = install_engine(mgr, needs={"lib.f": lambda n: [needs] if n == 1 else []})
    engine.script["lib.f"] = lambda expr, ctx: (
        [def_single(mgr, locs["lib.py"], "f")] if engine.calls.count("lib.f") > 1 else [])
    coordinator.AddDerivedLocations([locs["app.py"]])
    coordinator.RunDerivedUntilIdle()
    assert coordinator.fScannedLocs == [locs["app.py"], locs["lib.py"]]
    assert coordinator.fCounts.derived_files == 1
    assert arg_key(0) in lib_f_record(mgr, locs)
    assert not coordinator.WantsDerivedScan(locs["app.py"])


def test_a_change_reruns_only_the_derived_scans_that_read_it(project):
    mgr, locs, coordinator = project
    coordinator.AddLocations(locs.values())
    coordinator.RunUntilIdle()
    install_engine(mgr, script={"lib.f": [def_single(mgr, locs["lib.py"], "f")]})
    coordinator.AddDerivedLocations(locs.values())
    coordinator.RunDerivedUntilIdle()
    assert coordinator.fCounts.derived_files == 3
    assert coordinator.DerivedScansAffectedBy([locs["lib.py"]]) == {locs["app.py"]}
    assert coordinator.DerivedScansAffectedBy([locs["other.py"]]) == set()
    coordinator.DerivedFilesChanged([locs["lib.py"]])
    assert set(coordinator._fDerived) == {locs["app.py"], locs["lib.py"]}


def test_scopes_needing_a_derived_scan_go_to_the_running_scanner(project):
    mgr, locs, coordinator = project
    coordinator.AddLocations(locs.values())
    coordinator.RunUntilIdle()
    job = _start_derived(coordinator, locs["app.py"])
    coordinator.AddNeedsScan({(si.Scope(locs["app.py"], "extra"), mgr.fDerivedScanName),
                              (si.Scope(locs["other.py"], ""), mgr.fDerivedScanName)})
    assert "extra" in job.scanner.fToScan
    assert locs["other.py"] in coordinator._fDerived


def test_derived_scanners_come_from_the_given_class(mgr, tmp_path):
    locs = write_project(tmp_path, kProject)
    made = []

    def make(loc, scan_name, shared_objects):
        made.append((loc, scan_name, shared_objects))
        return ss.CWholeFileSecondaryScanner(loc, scan_name, shared_objects)

    coordinator = CScanCoordinator(mgr, derived_scanner_class=make)
    try:
        coordinator.AddLocations(locs.values())
        coordinator.RunUntilIdle()
        install_engine(mgr, script={"lib.f": [def_single(mgr, locs["lib.py"], "f")]})
        coordinator.AddDerivedLocations([locs["app.py"]])
        coordinator.RunDerivedUntilIdle()
    finally:
        coordinator.destroy()
    assert made == [(locs["app.py"], mgr.fDerivedScanName, None)]
    assert arg_key(0) in lib_f_record(mgr, locs)


def _start_derived(coordinator, loc):
    """A derived job of `loc` with its scanner made and not yet run."""
    job = coordinator._fDerived.setdefault(loc, _CFileJob(loc))
    job.scanner = ss.CWholeFileSecondaryScanner(loc, coordinator.fDerivedScanName, None)
    return job


# ---------------------------------------------------------------------------
# Type guards and generic containers


class TypingNames:
    def GetSpecialFormCanonicalName(self, expr, ctx):
        return {"TG": "TypeGuard", "Other": "Optional"}.get(expr.name, "")


@pytest.mark.parametrize("return_hint, narrowed", [
    ("TG[int]", {"a", "b.c"}), ("TG", set()), ("Other[int]", set()), ("TG[ ]", set()),
])
def test_type_guard_narrows_each_sites_first_argument(mgr, locs, make_scanner, return_hint,
                                                      narrowed):
    lib = locs["lib.py"]
    guard = si.CSingleResolvedInfo(
        si.BuildDefInfoStr(si.kFunctionPrefix, "is_int", None, "(x)", return_hint, []),
        si.Scope(lib, ""))
    int_inst = si.CSingleResolvedInfo(si.BuildLiteralInfo(b"int", None), si.Scope(lib, ""))
    engine = install_engine(mgr, script={"is_int": [guard]}, hints={"int": [int_inst]})
    engine._fTypingGenericSupport = TypingNames()
    sites = b";".join(called(args) for args in ("a", "b.c", "g()", "x=1", ""))
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {"is_int": sites}))
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    assert engine.calls == ["is_int"]                 # the other sites hit the memo
    assert set(derived_of(scanner, locs["app.py"], "") or {}) == narrowed


@pytest.fixture
def generic_list(mgr, tmp_path):
    """A stub `list[_T]` with `append(self, item: _T)` and
    `__setitem__(self, key: SupportsIndex, value: _T)`, an instance of it as
    `x`, and the details store that knows the class."""
    stub = CLocalFileLocation(str(tmp_path / "stub.pyi"))
    cls = si.packedops.PackClassInfo("list", None, None)
    list_scope = si.Scope(stub, "list")

    def method(name, args):
        ibytes = si.BuildDefInfoStr(si.kUnboundMethodPrefix, "list." + name, None, args, None, [])
        return si.CSingleResolvedInfo(ibytes, list_scope)

    script = {"list": [si.CSingleResolvedInfo(cls, si.Scope(stub, ""))],
              "x": [si.CSingleResolvedInfo(si.kInstancePrefix + cls[si.kPrefixLen:], list_scope)],
              "x.append": [method("append", "(self, item: _T)")],
              "x.__setitem__": [method("__setitem__", "(self, key: SupportsIndex, value: _T)")]}
    engine = install_engine(mgr, script=script)
    engine._fDetailsStore = FakeDetailsStore(FakeDetails(list_scope, ["_T"]))
    previous = ss.SetSpecializeGenericsFromArgs(True)
    yield engine
    ss.SetSpecializeGenericsFromArgs(previous)


@pytest.mark.parametrize("name, ibytes, hint", [
    ("x.append", called("1"), b"list[int]"),
    ("x.append", called("1, 2"), None),                  # more arguments than the def has
    ("x[0]", si.BuildLiteralInfo(b"str", None), b"list[str]"),
    ("x[0:1]", si.BuildLiteralInfo(b"str", None), None),  # a slice
])
def test_generic_container_specialised_from_its_use(mgr, locs, make_scanner, generic_list, name,
                                                    ibytes, hint):
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {name: ibytes}))
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    got = (derived_of(scanner, locs["app.py"], "") or {}).get("x")
    assert got == (None if hint is None else si.kInferredTypeHintPrefix + hint)


def test_no_specialisation_with_the_switch_off(mgr, locs, make_scanner, generic_list):
    ss.SetSpecializeGenericsFromArgs(False)
    scanner = make_scanner(add_record(mgr, locs["app.py"], "", {"x.append": called("1"),
                                                                 "x[0]": b"1"}))
    assert scanner.Scan(kForever) is ss.kFinishedScanning
    # No resolve of the class (`x[0] = 1` only asks for a __setitem__ of the project).
    assert sorted(generic_list.calls) == ["x.__setitem__", "x.append"]
    assert dict(scanner.fDerivedInfoDict) == {}


def derived_pass_records(mgr, tmp_path, files, names):
    """The derived records, by scope name of lib.py (or app.py's module, ""),
    after the derived pass of app.py."""
    locs = write_project(tmp_path, files)
    coordinator = CScanCoordinator(mgr)
    try:
        coordinator.AddLocations(locs.values())
        coordinator.RunUntilIdle()
        coordinator.AddDerivedLocations([locs["app.py"]])
        coordinator.RunDerivedUntilIdle()
    finally:
        coordinator.destroy()
    records = {}
    for name in names:
        scope = si.Scope(locs["app.py" if name == "" else "lib.py"], name)
        (records[name],) = [r for r in mgr.fInfoCache.GetScopeInfoRecords(scope)
                            if r.key.scan_name == mgr.fDerivedScanName]
    return locs, records


def test_the_records_of_a_call_that_reaches_several_classes_read_the_same(mgr, tmp_path):
    # The classes come in no fixed order and each resolves its constructors in
    # turn: every record holds all that the call read, or runs would differ.
    _locs, records = derived_pass_records(mgr, tmp_path, {
        "lib.py": "class A:\n    def __init__(self, x):\n        pass\n\n\n"
                  "class B:\n    def __init__(self, x):\n        pass\n",
        "app.py": "from lib import A, B\n\n\ndef main(v):\n    cls = A if v else B\n    cls(1)\n"},
        ("A.__init__", "B.__init__"))
    assert all(arg_key(1) in record.type_equivs for record in records.values())
    assert records["A.__init__"].scopes_seen == records["B.__init__"].scopes_seen


def test_what_a_global_statement_records_reads_its_scope_alone(mgr, tmp_path):
    # Not what the items before it in the same slice read: how the work was
    # sliced would show in the record.
    locs, records = derived_pass_records(mgr, tmp_path, {
        "lib.py": "def f(a):\n    return a\n",
        "app.py": "import lib\n\n\ndef main():\n    global g\n    g = 1\n    lib.f(1)\n"},
        ("", "f"))
    assert arg_key(0) in records["f"].type_equivs
    assert records[""].scopes_seen == {si.Scope(locs["app.py"], "main")}

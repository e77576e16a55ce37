"""The whole-file primary scanner: one record per scope out of a file, in time
slices of any size, waiting for remote content, abandoned by a change, and the
file's end marks (checksum, done mark, database write)."""

import gc
import weakref

import pytest

from basekit.location import CLocalFileLocation
from pysource import filellinecache, scopeinfo, scopescanner as ss, symbolinfo as si

from managerutil import fresh_remote, installed_manager
from scanutil import (counter_clock, install_recording_cache, local_file, records_of_scan,
                      scan_to_end, kForever)

SOURCE = '''\
"""A module."""
import os
from helpers import *

x = 1

class Base:
    pass

# a comment between scopes
@decorate
class C(Base):
    """doc"""
    count = 0

    def __init__(self, a, b=2):
        self.a = a
        self.b.c = 3
        items[a] = self

    @staticmethod
    def helper(a):
        def inner():
            return a
        return inner

    def last(self):
        self.z = 1

def f(a: int, *args) -> str:
    y = a
    return y

class Outer:
    class Inner:
        def m(self):
            self.q = 1
'''

SCOPES = {"", "Base|0", "C|0", "C.__init__|0", "C.helper|0", "C.helper.inner|0",
          "C.last|0", "f|0", "Outer|0", "Outer.Inner|0", "Outer.Inner.m|0"}
INSTANCES = {"Base()", "C()", "Outer.Inner()", "Outer()"}


_made = []


def managed(editor):
    """A manager with a recording info cache; the scanners `whole` made
    are destroyed before it goes."""
    with installed_manager(editor=editor) as mgr:
        install_recording_cache(mgr)
        yield mgr
        while _made:
            _made.pop().destroy()


@pytest.fixture
def mgr():
    yield from managed(False)


@pytest.fixture
def editor_mgr():
    yield from managed(True)


def whole(loc, scan_name, incomplete=None, **kw):
    _made.append(ss.CWholeFilePrimaryScanner(loc, scan_name, incomplete, **kw))
    return _made[-1]


def full_scan(loc, scan_name, incomplete=None):
    scanner = whole(loc, scan_name, incomplete)
    state, _ = scan_to_end(scanner)
    return scanner, state


@pytest.fixture
def scanned(mgr, tmp_path):
    """SOURCE scanned whole: (its location, the finished scanner)."""
    loc = local_file(tmp_path, SOURCE)
    scanner, state = full_scan(loc, mgr.fPrimaryScanName)
    assert state is ss.kFinishedScanning
    return loc, scanner


class TestWholeFile:
    def test_one_record_per_scope_and_instance(self, mgr, scanned):
        loc, scanner = scanned
        assert scanner._fAllScopeNames == SCOPES | INSTANCES
        records = records_of_scan(mgr, loc, scanner._fAllScopeNames)
        assert all(record is not None for record in records.values())
        module = records[""]
        assert module[0] == b""
        assert set(module[1]) >= {"os", "x", "Base", "C", "f", "Outer", "__name__", "__doc__"}
        assert module[3] == {"os": b"imported"}  # nothing for "*"

    def test_record_maps_stay_out_of_the_collector(self, mgr, scanned):
        # Built through sets of singles, a kept record's maps would stay
        # tracked until a full collection and bring the next one on sooner.
        loc, scanner = scanned
        infos = [mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(loc, name))
                 for name in scanner._fAllScopeNames]
        maps = [m for info in infos for m in (info.type_equivs, info.inst_type_equivs, info._domains)
                if m]
        assert len(maps) > len(infos) and not any(gc.is_tracked(m) for m in maps)

    def test_module_without_scopes_is_scanned_at_the_end(self, mgr, tmp_path):
        loc = local_file(tmp_path, "x = 1\nprint(x)\n")
        scanner, state = full_scan(loc, mgr.fPrimaryScanName)
        assert state is ss.kFinishedScanning
        assert scanner._fAllScopeNames == {""}
        type_equivs = records_of_scan(mgr, loc, [""])[""][1]
        assert type_equivs["x"].startswith(b"1")
        assert type_equivs["x"].endswith(b";" + si.kSetPrefix + b"0;" + si.kGetPrefix + b"1")
        assert type_equivs["print"].endswith(b";" + si.kGetPrefix + b"1")

    @pytest.mark.parametrize("name", ["mod.py", "mod.pyi"])
    def test_async_def_keeps_its_signature(self, mgr, tmp_path, name):
        loc = local_file(tmp_path, "async def g(a: int) -> str: ...\n", name)
        scanner, _ = full_scan(loc, mgr.fPrimaryScanName)
        assert records_of_scan(mgr, loc, [""])[""][1]["g"].startswith(b":fg|0,,(a:int),str")

    def test_file_end_marks_one_batch_and_inner_scopes_first(self, mgr, scanned):
        _, scanner = scanned
        calls = mgr.fInfoCache.names()
        assert calls[0] == "Begin" and calls[-1] == "Flush"
        assert calls.count("Begin") == calls.count("Flush") == 1
        tail = [name for name in calls if name not in ("AddScopeInfo",)]
        assert tail == ["Begin", "SetEOLBlindChecksum", "ChangeScansDone", "WriteToDatabase", "Flush"]
        done = [call for call in mgr.fInfoCache.calls if call[0] == "ChangeScansDone"][0]
        assert done[1:3] == (mgr.fPrimaryScanName, True)
        assert done[3] == scanner.GetMatchedDiskMTime() > 1.0
        # Every scope was saved with writing allowed.
        saves = [call for call in mgr.fInfoCache.calls if call[0] == "AddScopeInfo"]
        assert all(call[2] is True for call in saves)
        assert len(saves) == len(SCOPES | INSTANCES)
        # Inner scopes are saved before the scopes that hold them.
        order = [call[1] for call in saves]
        assert order.index("C.helper.inner") < order.index("C.helper") < order.index("C")
        assert order.index("C") < order.index("C()")
        assert order[-1] == ""

    def test_missing_local_file_abandons(self, mgr, tmp_path):
        loc = CLocalFileLocation(str(tmp_path / "absent.py"))
        incomplete = set()
        scanner, state = full_scan(loc, mgr.fPrimaryScanName, incomplete)
        assert state is ss.kScanAbandoned and scanner.fScanAbandoned
        assert incomplete == {scanner.fScope.name}
        assert scanner.Scan(kForever) is ss.kScanAbandoned
        assert "WriteToDatabase" not in mgr.fInfoCache.names()

    def test_destroy_releases_the_per_file_info(self, mgr, tmp_path):
        loc = local_file(tmp_path, SOURCE)
        scanner = ss.CWholeFilePrimaryScanner(loc, mgr.fPrimaryScanName)
        per_file = scanner.fPerFileInfo
        scanner.Scan(kForever)
        destroyed = []
        per_file.connect("destroy", lambda *args: destroyed.append(True))
        scanner.destroy()
        assert destroyed == [True]


    def test_scope_scanners_log_through_the_file_scanner_log(self, mgr, tmp_path):
        from pysource._fastaccess import CLogger
        lines = []
        loc = local_file(tmp_path, "def f():\n    pass\n")
        scanner = whole(loc, mgr.fPrimaryScanName, log=CLogger(lambda level, text: lines.append(text)))
        scan_to_end(scanner)
        assert any(line.startswith("Scan state changed to finished for") and "'f'" in line
                   for line in lines)
        assert lines[-1].startswith("Scan state changed to finished for")
        assert "scope: '*'" in lines[-1]


class TestIncompleteScopes:
    def test_unparsable_scope_stops_the_done_mark(self, mgr, tmp_path):
        loc = local_file(tmp_path, "def f():\n    x = (1 +\n\ny = 2\n")
        incomplete = set()
        scanner, state = full_scan(loc, mgr.fPrimaryScanName, incomplete)
        assert state is ss.kFinishedScanning
        assert incomplete
        calls = mgr.fInfoCache.names()
        assert "ChangeScansDone" not in calls
        assert "SetEOLBlindChecksum" in calls and "WriteToDatabase" in calls

    def test_complete_rescan_takes_a_scope_out_of_the_set(self, mgr, tmp_path):
        loc = local_file(tmp_path, "def f():\n    return 1\n")
        # The single-scope scanner names its scope normalised.
        incomplete = {"f", "other"}
        scanner, _ = full_scan(loc, mgr.fPrimaryScanName, incomplete)
        assert incomplete == {"other"}
        assert "ChangeScansDone" not in mgr.fInfoCache.names()


    def test_discarded_record_stops_the_done_mark(self, mgr, tmp_path):
        loc = local_file(tmp_path, "def f():\n    return 1\n")
        cache = mgr.fInfoCache
        original = type(cache).AddScopeInfo

        def discard_f(info, can_write=False):
            if info.key.for_scope.name == "f":
                cache.calls.append(("Discarded",))
                return scopeinfo.kAddDiscarded
            return original(cache, info, can_write)

        cache.AddScopeInfo = discard_f
        incomplete = set()
        scanner, state = full_scan(loc, mgr.fPrimaryScanName, incomplete)
        assert state is ss.kFinishedScanning
        assert incomplete == {"f|0"}
        assert scanner._fAllScopeNames == {"", "f|0"}
        assert "ChangeScansDone" not in cache.names()
        assert "WriteToDatabase" in cache.names()

    def test_own_cache_saves_its_words_and_goes(self, mgr, tmp_path):
        stored = []
        previous = filellinecache.GetWordStore()
        filellinecache.SetWordStore(lambda loc, words: stored.append((loc, set(words))))
        try:
            loc = local_file(tmp_path, "alpha = beta\n")
            scanner, _ = full_scan(loc, mgr.fPrimaryScanName)
        finally:
            filellinecache.SetWordStore(previous)
        assert len(stored) == 1 and {"alpha", "beta"} <= stored[0][1]
        assert scanner._CWholeFilePrimaryScanner__fLogicalCache is None


class TestSlices:
    # Long enough for its logicals to be built over several slices.
    kLongSource = SOURCE * 30

    def unsliced(self, tmp_path):
        with installed_manager(editor=False) as mgr:
            loc = local_file(tmp_path, self.kLongSource, "whole.py")
            scanner, _ = full_scan(loc, mgr.fPrimaryScanName)
            records = records_of_scan(mgr, loc, scanner._fAllScopeNames)
            scanner.destroy()
            return records

    @pytest.mark.parametrize("readings", [1, 2, 3, 5, 8])
    def test_every_slice_size_gives_the_unsliced_records(self, tmp_path, readings):
        expected = self.unsliced(tmp_path)
        with installed_manager(editor=False) as mgr, counter_clock() as clock:
            install_recording_cache(mgr)
            loc = local_file(tmp_path, self.kLongSource, "sliced.py")
            scanner = ss.CWholeFilePrimaryScanner(loc, mgr.fPrimaryScanName)
            state, calls = scan_to_end(scanner, readings, clock)
            assert state is ss.kFinishedScanning
            assert records_of_scan(mgr, loc, scanner._fAllScopeNames) == expected
            if readings == 1:
                assert calls > SOURCE.count("\n")
            # Each slice is one batch of notifications, however it ended.
            names = mgr.fInfoCache.names()
            assert names.count("Begin") == names.count("Flush") == calls
            assert mgr.fInfoCache.depth == 0
            scanner.destroy()

    def test_time_out_at_entry_still_moves_on(self, mgr, tmp_path):
        loc = local_file(tmp_path, SOURCE)
        scanner = whole(loc, mgr.fPrimaryScanName)
        # Each call moves on: the cache, its logicals built, then taken.
        assert [scanner.Scan(0.0) for _ in range(3)] == [ss.kTimedOut] * 3
        assert scanner.fScanState is ss.kReadyToScan and scanner.GetMatchedDiskMTime() > 1.0
        assert scan_to_end(scanner)[0] is ss.kFinishedScanning

    def test_neighbour_error_still_flushes(self, mgr, tmp_path):
        loc = local_file(tmp_path, SOURCE)

        class Broken:
            def AnalyzeSingleLogical(self, logical, py3, first_in_def=False):
                raise RuntimeError("analyzer broke")

        mgr.fLogicalAnalyzer = Broken()
        broken_scanner = whole(loc, mgr.fPrimaryScanName)
        with pytest.raises(RuntimeError, match="analyzer broke"):
            broken_scanner.Scan(kForever)
        assert mgr.fInfoCache.depth == 0
        assert broken_scanner.fScanState is ss.kReadyToScan


class TestMethodsAndInstances:
    def scan_records(self, mgr, tmp_path, text, *names):
        loc = local_file(tmp_path, text)
        scanner, _ = full_scan(loc, mgr.fPrimaryScanName)
        return [records_of_scan(mgr, loc, [name])[name] for name in names]

    def test_methods_reach_the_class_open_on_the_stack(self, mgr, tmp_path):
        # __init__ ends at a statement of the class body: C is still open.
        inst, = self.scan_records(mgr, tmp_path, "class C:\n    def __init__(self):\n"
                                  "        self.a = 1\n    x = 2\n", "C()")
        assert "a" in inst[1] and "__class__" in inst[1]

    def test_methods_reach_the_class_completed_with_them(self, mgr, tmp_path):
        # The last method and its class end at the same logical.
        inst, = self.scan_records(mgr, tmp_path, "class C:\n    def g(self):\n        self.b = 1\n"
                                  "    def f(self):\n        self.a = 1\ny = 0\n", "C()")
        assert {"a", "b", "__class__"} <= set(inst[1])
        assert inst[0].startswith(si.kInstancePrefix)

    def test_nested_function_is_no_method(self, mgr, tmp_path):
        inst, g = self.scan_records(mgr, tmp_path, "class C:\n    def f(self):\n        def g(s):\n"
                                    "            s.x = 1\n        self.a = g\n", "C()", "C.f.g")
        assert "a" in inst[1] and "x" not in inst[1]
        assert g[0].startswith(si.kFunctionPrefix)

    def test_class_instance_info_alone(self, mgr, tmp_path):
        loc = local_file(tmp_path, "x = 1\n")
        key = scopeinfo.CScopeInfoKey(si.NormalizedScope(loc, "m.C"), "primary",
                                      si.NormalizedScope(loc, "m.C"))
        cls_info = scopeinfo.CScopeInfo(key, si.PackClassInfo("m.C", None, "()"), 5.0, False)
        inst = ss.CreateClassInstInfo(cls_info, [], "primary")
        assert inst.key.for_scope.name == "m.C()"
        assert inst.ibytes == si.kInstancePrefix + cls_info.ibytes[si.kPrefixLen:]
        class_entry = inst.type_equivs["__class__"]
        assert class_entry.startswith(si.kSetPrefix + b";")
        hint = si.PopLeadingPrefixes(class_entry[len(si.kSetPrefix) + 1:])
        assert b"__typing__.Type[m.C]" in hint[1]
        assert si.UnpackLocationAndScope(class_entry[len(si.kSetPrefix) + 1:], False)[1] == "m"
        assert inst.disk_mtime == 5.0 and not inst.incomplete


class TestRemoteContent:
    def test_waits_for_data_and_resumes_on_modified(self, editor_mgr):
        loc = fresh_remote("scanner")
        scanner = whole(loc, editor_mgr.fPrimaryScanName)
        states = []
        scanner.connect("scan-state-changed", lambda s: states.append(s.fScanState))
        assert scanner.Scan(kForever) is ss.kWaitingForData
        assert scanner.Scan(kForever) is ss.kWaitingForData
        assert scanner.GetMatchedDiskMTime() is None
        loc.SetContent("def f(a):\n    return a\n", 42.0)
        assert scanner.fScanState is ss.kReadyToScan
        assert states == [ss.kWaitingForData, ss.kReadyToScan]
        assert scanner.GetMatchedDiskMTime() == 42.0
        assert scan_to_end(scanner)[0] is ss.kFinishedScanning
        assert scanner._fAllScopeNames == {"", "f|0"}


class TestChangeUnderTheScan:
    def test_change_in_the_middle_abandons(self, editor_mgr, tmp_path):
        loc = local_file(tmp_path, SOURCE)
        ana = editor_mgr.fCacheMgr.OpenAnalysis(loc, SOURCE)
        incomplete = set()
        scanner = ss.CWholeFilePrimaryScanner(loc, editor_mgr.fPrimaryScanName, incomplete)
        with counter_clock() as clock:
            for _ in range(6):
                assert scanner.Scan(clock.slice_end(2)) is ss.kTimedOut
            saved = len([c for c in editor_mgr.fInfoCache.calls if c[0] == "AddScopeInfo"])
            ana.SetText(SOURCE.replace("x = 1", "x = 2\nz = 3"))
            assert scanner.fScanState is ss.kScanAbandoned
            assert scanner.Scan(clock.slice_end(100)) is ss.kScanAbandoned
        assert incomplete == {scanner.fScope.name}
        after = len([c for c in editor_mgr.fInfoCache.calls if c[0] == "AddScopeInfo"])
        assert after == saved
        assert "ChangeScansDone" not in editor_mgr.fInfoCache.names()
        # The analysis's cache isn't the scanner's to destroy.
        assert not scanner._CWholeFilePrimaryScanner__fDestroyLogicalCache
        scanner.destroy()
        assert ana.UpdateFromCache()

    def test_etherealized_analysis_abandons(self, editor_mgr, tmp_path):
        loc = local_file(tmp_path, SOURCE)
        ana = editor_mgr.fCacheMgr.OpenAnalysis(loc, SOURCE)
        scanner = whole(loc, editor_mgr.fPrimaryScanName)
        with counter_clock() as clock:
            assert scanner.Scan(clock.slice_end(3)) is ss.kTimedOut
        ana.Etherealize()
        assert scanner.fScanState is ss.kScanAbandoned

    def test_open_analysis_gives_the_buffer_text(self, editor_mgr, tmp_path):
        loc = local_file(tmp_path, "x = 1\n")
        editor_mgr.fCacheMgr.OpenAnalysis(loc, "def from_buffer():\n    pass\n")
        scanner, state = full_scan(loc, editor_mgr.fPrimaryScanName)
        assert state is ss.kFinishedScanning
        assert scanner._fAllScopeNames == {"", "from_buffer|0"}


class TestDroppedScanners:
    """A scanner dropped without destroy() must be freed, also after its Scan
    raised and also when it is part of a reference cycle."""

    @staticmethod
    def freed(make_and_drop):
        ref = make_and_drop()
        gc.collect()
        return ref() is None

    @pytest.mark.parametrize("make", [
        lambda loc: ss.CWholeFilePrimaryScanner(loc, "primary"),
        lambda loc: ss.CSingleScopePrimaryScanner(si.NormalizedScope(loc, "")),
    ], ids=["whole-file", "single-scope"])
    def test_scan_that_raised(self, editor_mgr, tmp_path, make):
        loc = local_file(tmp_path, "x = 1\n")
        ana = editor_mgr.fCacheMgr.OpenAnalysis(loc)

        def fail():
            raise RuntimeError("read failed")

        ana.UpdateFromCache = fail

        def make_and_drop():
            scanner = make(loc)
            with pytest.raises(RuntimeError):
                scanner.Scan(kForever)
            return weakref.ref(scanner)

        assert self.freed(make_and_drop)

    def test_cycles_through_the_log_scope_and_scan_name(self, mgr, tmp_path):
        loc = local_file(tmp_path, "x = 1\n")

        class Holder:
            pass

        def make_and_drop():
            scanner = ss.CWholeFilePrimaryScanner(loc, Holder())
            scanner.fScanName.scanner = scanner
            scanner._fLog.fReceiver = lambda *args, s=scanner: None
            return weakref.ref(scanner)

        assert self.freed(make_and_drop)


class TestOverriddenSteps:
    """A Python subclass that overrides a step of a scan is called for it, and
    can hand on to the scanner's own step under the same name."""

    def test_steps_of_both_scanners(self, editor_mgr, tmp_path):
        calls = []

        class Single(ss.CSingleScopePrimaryScanner):
            def _FindDecoratorDottedName(self, logical):
                calls.append("decorator")
                return super()._FindDecoratorDottedName(logical)

            def _CSingleScopePrimaryScanner__ScanBodyLogicals(self, end_time):
                calls.append("body")
                return super()._CSingleScopePrimaryScanner__ScanBodyLogicals(end_time)

        class Whole(ss.CWholeFilePrimaryScanner):
            def _CWholeFilePrimaryScanner__PrepareLogicalList(self, end_time):
                calls.append("prepare")
                return super()._CWholeFilePrimaryScanner__PrepareLogicalList(end_time)

            def _ScanSingleStackItem(self, item, end_time):
                calls.append(("item", item.scope_name))
                return super()._ScanSingleStackItem(item, end_time)

        loc = local_file(tmp_path, "@_cache\ndef f():\n    x = 1\n")
        scanner = Whole(loc, editor_mgr.fPrimaryScanName)
        assert scan_to_end(scanner)[0] is ss.kFinishedScanning
        scanner.destroy()
        assert calls == ["prepare", ("item", "f|0"), ("item", "")]
        calls.clear()
        single = Single(si.NormalizedScope(loc, "f"))
        assert scan_to_end(single)[0] is ss.kFinishedScanning
        single.destroy()
        assert "decorator" in calls and "body" in calls

"""The scan coordinator's own logic, driven through scripted scanners and a
clock that moves only when a scanner works."""

import os

import pytest

from basekit.location import CLocalFileLocation
from pysource import _fastaccess, filellinecache, manager
from pysource import scopescanner as ss
from pysource import symbolinfo
from pysource.coordinator import CScanCoordinator

from managerutil import fresh_remote
from scanutil import SettableClock, replaced_clock

SLICE = 0.020
UNIT = 0.006   # clock time one unit of scripted work takes


@pytest.fixture
def clock():
    with replaced_clock(SettableClock(5000.0)) as fake:
        yield fake


@pytest.fixture
def mgr():
    mgr = manager.CAnalysisMgr()
    previous = manager.SetAnalysisMgr(mgr)
    yield mgr
    manager.SetAnalysisMgr(previous)
    mgr.destroy()


class Script:
    """What the scanners of each file do: `units` of work per scan, whether
    the first scan waits for data, and how many scanners abandon first."""

    def __init__(self, clock, info_cache=None, scanner_type=None):
        self.clock = clock
        self.scanner_type = scanner_type or (lambda loc: ScriptedScanner)
        self.info_cache = info_cache
        self.units = {}
        self.waits = set()
        self.abandons = {}
        self.made = []        # every scanner made, in order
        self.log = []         # (loc, end_time) of every Scan call

    def scanner_class(self, loc, scan_name):
        scanner = self.scanner_type(loc)(self, loc, scan_name)
        self.made.append(scanner)
        return scanner


class ScriptedScanner(ss._CScannerBase):
    def __init__(self, script, loc, scan_name):
        super().__init__(symbolinfo.WildcardScope(loc), scan_name, None)
        self.script = script
        self.loc = loc
        self.remaining = script.units.get(loc, 1)
        self.wait = loc in script.waits
        script.waits.discard(loc)     # only the first scanner of a file waits
        self.destroyed = False
        if script.abandons.get(loc, 0) > 0:
            script.abandons[loc] -= 1
            self.abandon_now = True
        else:
            self.abandon_now = False
        self._fAllScopeNames = {"", "C", "C()"}

    def Scan(self, end_time):
        self.script.log.append((self.loc, end_time))
        if self.fScanState is not ss.kReadyToScan:
            return self.fScanState
        if self.wait:
            self.wait = False
            self._SetScanState(ss.kWaitingForData)
            return ss.kWaitingForData
        if self.abandon_now:
            self.AbandonScan()
            return self.fScanState
        while self.remaining:
            if _fastaccess.OutOfTime(end_time):
                return ss.kTimedOut
            self.script.clock.now += UNIT
            self.remaining -= 1
        self._SetScanState(ss.kFinishedScanning)
        if self.script.info_cache is not None:
            record_done(self.script.info_cache, self.loc, self.fScanName)
        return self.fScanState

    def Deliver(self):
        """The content has arrived."""
        self._SetScanState(ss.kReadyToScan)

    def AbandonScan(self):
        self._SetScanState(ss.kScanAbandoned)

    def _destroy_impl(self):
        self.destroyed = True


def record_done(info_cache, loc, scan_name):
    """What a finished whole-file scan leaves in the cache for a local file."""
    with open(loc.fPath, "rb") as f:
        checksum = filellinecache.EOLBlindChecksum(f.read())
    ns = os.stat(loc.fPath).st_mtime_ns
    mtime = ns // 1_000_000_000 + (ns % 1_000_000_000) / 1e9
    info_cache.SetEOLBlindChecksum(loc, checksum, mtime)
    info_cache.ChangeScansDone(loc, scan_name, True, mtime)


def remotes(n):
    return [fresh_remote("coord") for _ in range(n)]


def make_coordinator(mgr, script, **kw):
    return CScanCoordinator(mgr, scanner_class=script.scanner_class, slice_seconds=SLICE, **kw)


def started(clock, mgr, units, **kw):
    """A coordinator with one new file per entry of `units` (that many units
    of work each), queued in order."""
    script = Script(clock)
    locs = remotes(len(units))
    script.units.update(zip(locs, units))
    coord = make_coordinator(mgr, script, **kw)
    coord.AddLocations(locs)
    return script, coord, locs


class TestSlices:
    def test_each_scan_gets_the_end_of_its_slice(self, clock, mgr):
        # 6 ms units; a slice starts units until 20 ms are past: 4 + 4 + 2
        script, coord, (loc,) = started(clock, mgr, [10])
        starts = []
        while coord.HasWork():
            starts.append(clock.now)
            coord.RunSlice()
        assert [end for _, end in script.log] == [s + SLICE for s in starts]
        assert len(starts) == 3
        assert len(script.made) == 1 and script.made[0].destroyed
        assert coord.fCounts.files == 1 and coord.fCounts.abandoned == 0
        coord.destroy()

    def test_a_slice_with_time_left_goes_on_to_the_next_file(self, clock, mgr):
        script, coord, (a, b, c) = started(clock, mgr, [1, 1, 1])
        coord.RunSlice()
        # 6 ms each: a, b and c fit into one 20 ms slice, in queue order.
        assert [loc for loc, _ in script.log] == [a, b, c]
        assert not coord.HasWork()
        assert coord.fCounts.files == 3
        assert coord.fCounts.scopes == 9
        coord.destroy()

    def test_no_scan_starts_once_the_slice_is_over(self, clock, mgr):
        script, coord, (a, b) = started(clock, mgr, [5, 1])   # a: 30 ms, more than one slice
        coord.RunSlice()
        assert [loc for loc, _ in script.log] == [a]
        coord.RunSlice()
        assert [loc for loc, _ in script.log] == [a, a, b]
        coord.destroy()

    def test_seconds_count_the_time_spent_in_slices(self, clock, mgr):
        script, coord, _ = started(clock, mgr, [5])
        coord.RunUntilIdle()
        assert coord.fCounts.seconds == pytest.approx(5 * UNIT)
        coord.destroy()

    def test_invalid_settings_are_refused(self, mgr):
        with pytest.raises(ValueError):
            CScanCoordinator(mgr, slice_seconds=0)
        with pytest.raises(ValueError):
            CScanCoordinator(mgr, max_attempts=0)

    def test_a_result_that_is_no_state_is_an_error(self, clock, mgr):
        class Broken(ScriptedScanner):
            def Scan(self, end_time):
                return ss.CNamedConstant("finished")

        script = Script(clock, scanner_type=lambda loc: Broken)
        coord = CScanCoordinator(mgr, scanner_class=script.scanner_class)
        coord.AddLocations(remotes(1))
        with pytest.raises(TypeError, match="not a scan state"):
            coord.RunSlice()
        coord.destroy()


class TestWaitingForData:
    def test_parked_scanner_is_not_polled_until_its_signal(self, clock, mgr):
        script, coord, (remote, other) = started(clock, mgr, [1, 10])
        script.waits.add(remote)
        coord.RunSlice()
        assert coord.WaitingLocations() == [remote]
        assert coord.RunUntilIdle() is True      # only the parked file is left
        polls = [loc for loc, _ in script.log].count(remote)
        assert polls == 1
        for _ in range(3):
            coord.RunSlice()
        assert [loc for loc, _ in script.log].count(remote) == 1
        script.made[0].Deliver()
        assert coord.WaitingLocations() == [] and coord.HasReadyWork()
        assert coord.RunUntilIdle() is False
        assert coord.fCounts.files == 2

    def test_a_parked_scanner_abandoned_by_its_signal_is_retried(self, clock, mgr):
        script, coord, (remote,) = started(clock, mgr, [1])
        script.waits.add(remote)
        coord.RunSlice()
        first = script.made[0]
        first.AbandonScan()
        coord.RunUntilIdle()
        assert first.destroyed and len(script.made) == 2
        assert coord.fCounts.files == 1 and coord.fCounts.abandoned == 0

    def test_a_state_change_of_a_scanner_not_parked_is_ignored(self, clock, mgr):
        script, coord, (loc,) = started(clock, mgr, [10])
        coord.RunSlice()
        script.made[0].emit("scan-state-changed", script.made[0])
        assert coord.HasReadyWork() and coord.WaitingLocations() == []
        coord.destroy()


class NeedsOthers(ScriptedScanner):
    """Stops once for the primary scans of `script.needs[loc]`."""

    def Scan(self, end_time):
        needs = self.script.needs.pop(self.loc, None)
        if needs is not None:
            self.script.log.append((self.loc, end_time))
            self.needs = needs
            self._SetScanState(ss.kWaitingForScans)
            return ss.kWaitingForScans
        if self.fScanState is ss.kWaitingForScans:
            self._SetScanState(ss.kReadyToScan)
        return super().Scan(end_time)

    def GetNeedsScanLocs(self):
        return self.needs


class TestWaitingForScans:
    def make(self, clock, mgr, needs):
        script = Script(clock, scanner_type=lambda loc: NeedsOthers)
        script.needs = needs
        coord = make_coordinator(mgr, script, max_attempts=2)
        return script, coord

    def test_needed_files_run_first_new_or_queued(self, clock, mgr):
        a, b, c, d = remotes(4)
        script, coord = self.make(clock, mgr, {a: [c, b, a]})
        coord.AddLocations([a, d, c])
        coord.RunUntilIdle()
        assert [loc for loc, _ in script.log] == [a, c, b, a, d]
        assert coord.fCounts.files == 4
        coord.destroy()

    def test_needs_that_cant_run_now_abandon_the_scan(self, clock, mgr):
        a, b = remotes(2)
        script, coord = self.make(clock, mgr, {a: [b]})
        script.waits.add(b)
        coord.AddLocations([b, a])
        coord.RunSlice()
        assert coord.WaitingLocations() == [b]
        # the retry of `a` no longer needs anything and finishes
        assert coord.RunUntilIdle() is True
        assert [s.loc for s in script.made] == [b, a, a]
        assert script.made[1].fScanState is ss.kScanAbandoned
        assert coord.fCounts.files == 1
        coord.destroy()


class TestAbandon:
    def test_retried_until_it_finishes(self, clock, mgr):
        script, coord, (loc,) = started(clock, mgr, [1], max_attempts=3)
        script.abandons[loc] = 2
        coord.RunUntilIdle()
        assert len(script.made) == 3
        assert all(s.destroyed for s in script.made)
        assert coord.fCounts.files == 1 and coord.fCounts.abandoned == 0

    def test_given_up_after_the_last_attempt(self, clock, mgr):
        script, coord, (bad, good) = started(clock, mgr, [1, 1], max_attempts=2)
        script.abandons[bad] = 99
        coord.RunUntilIdle()
        assert [s.loc for s in script.made].count(bad) == 2
        assert coord.fCounts.abandoned == 1 and coord.fCounts.files == 1
        assert coord.fAbandonedLocs == [bad]
        assert not coord.HasWork()

    def test_a_scanner_that_raises_fails_its_file_alone(self, clock, mgr):
        class Raising(ScriptedScanner):
            def Scan(self, end_time):
                raise RuntimeError("neighbour broke")

        bad, good = remotes(2)
        script = Script(clock, scanner_type=lambda loc: Raising if loc is bad else ScriptedScanner)
        coord = make_coordinator(mgr, script)
        coord.AddLocations([bad, good])
        assert coord.RunUntilIdle() is False
        assert coord.fErrors == [(bad, "RuntimeError: neighbour broke")]
        assert coord.fAbandonedLocs == [bad] and coord.fCounts.files == 1
        assert [s.loc for s in script.made] == [bad, good]     # no retry
        assert script.made[0].destroyed

    def test_a_changed_file_abandons_the_running_scan_and_starts_again(self, clock, mgr):
        script, coord, (loc,) = started(clock, mgr, [10])
        coord.RunSlice()
        first = script.made[0]
        coord.FileChanged(loc)
        assert first.fScanState is ss.kScanAbandoned and first.destroyed
        coord.RunUntilIdle()
        assert len(script.made) == 2 and script.made[1].fScanState is ss.kFinishedScanning
        assert coord.fCounts.files == 1

    def test_destroy_abandons_the_scanners_in_hand(self, clock, mgr):
        script, coord, _ = started(clock, mgr, [10, 1])
        coord.RunSlice()
        coord.destroy()
        assert script.made[0].fScanState is ss.kScanAbandoned and script.made[0].destroyed
        assert not coord.HasWork()


class TestSkipAndRescan:
    @pytest.fixture
    def files(self, tmp_path):
        paths = []
        for name in ("a.py", "b.py"):
            path = tmp_path / name
            path.write_text(f"x_{name[0]} = 1\n")
            paths.append(path)
        return paths

    def run(self, clock, mgr, locs):
        script = Script(clock, mgr.fInfoCache)
        coord = make_coordinator(mgr, script)
        coord.AddLocations(locs)
        coord.RunUntilIdle()
        coord.destroy()
        return script, coord.fCounts

    def test_files_done_for_their_time_and_content_are_skipped(self, clock, mgr, files):
        locs = [CLocalFileLocation(str(p)) for p in files]
        script, counts = self.run(clock, mgr, locs)
        assert counts.files == 2 and counts.skipped == 0
        script, counts = self.run(clock, mgr, locs)
        assert script.made == [] and counts.skipped == 2 and counts.files == 0

    @staticmethod
    def touch(path):
        st = os.stat(path)
        os.utime(path, ns=(st.st_atime_ns, st.st_mtime_ns + 5_000_000_000))

    @staticmethod
    def rewrite_same_time(path):
        st = os.stat(path)
        path.write_text("y = 2\n")
        os.utime(path, ns=(st.st_atime_ns, st.st_mtime_ns))

    @pytest.mark.parametrize("change", [touch, rewrite_same_time])
    def test_a_file_with_a_new_time_or_content_is_scanned_again(self, clock, mgr, files, change):
        locs = [CLocalFileLocation(str(p)) for p in files]
        self.run(clock, mgr, locs)
        change.__func__(files[1])
        script, counts = self.run(clock, mgr, locs)
        assert [s.loc for s in script.made] == [locs[1]] and counts.skipped == 1

    def test_a_missing_or_remote_file_is_never_up_to_date(self, clock, mgr, tmp_path):
        coord = CScanCoordinator(mgr)
        assert not coord.IsUpToDate(CLocalFileLocation(str(tmp_path / "gone.py")))
        assert not coord.IsUpToDate(remotes(1)[0])
        coord.destroy()

    def test_a_change_of_a_file_not_in_hand_queues_it(self, clock, mgr):
        script = Script(clock)
        (loc,) = remotes(1)
        coord = make_coordinator(mgr, script)
        coord.FileChanged(loc)
        assert coord.HasReadyWork()
        coord.RunUntilIdle()
        assert coord.fCounts.files == 1

    def test_a_file_already_in_hand_is_not_queued_twice(self, clock, mgr):
        script = Script(clock)
        (loc,) = remotes(1)
        coord = make_coordinator(mgr, script)
        coord.AddLocations([loc, loc])
        coord.AddLocations([loc])
        coord.RunUntilIdle()
        assert len(script.made) == 1


class TestRegistrationAndProgress:
    def test_registered_as_the_managers_coordinator_until_destroyed(self, mgr):
        assert mgr.fScanCoordinator is None
        coord = CScanCoordinator(mgr)
        assert mgr.fScanCoordinator is coord
        coord.destroy()
        assert mgr.fScanCoordinator is None

    def test_progress_reports_each_start_and_the_end(self, clock, mgr):
        script = Script(clock)
        a, b = remotes(2)
        script.abandons[b] = 1
        calls = []
        coord = make_coordinator(mgr, script, progress=lambda *args: calls.append(args))
        coord.AddLocations([a, b])
        coord.RunUntilIdle()
        assert calls == [(0, 2, a), (1, 2, b), (1, 2, b), (2, 2, None)]
        coord.destroy()


class TestWithTheWholeFileScanner:
    """The coordinator driving the real primary scanner."""

    def test_remote_content_parks_the_scan_until_it_arrives(self):
        from managerutil import installed_manager

        with installed_manager() as mgr:
            class Requests:
                def __init__(self):
                    self.asked = []

                def RequestContent(self, loc, priority):
                    self.asked.append((loc, priority))

            remote = fresh_remote("coordinator")
            coord = CScanCoordinator(mgr)
            requests = Requests()
            mgr.fCacheMgr.RequestContent = requests.RequestContent
            coord.AddLocations([remote])
            assert coord.RunUntilIdle() is True
            assert coord.WaitingLocations() == [remote]
            assert requests.asked == [(remote, coord.fIdlePriority)]
            remote.SetContent("class K:\n    def m(self):\n        return 1\n", 12.0)
            assert coord.WaitingLocations() == []
            assert coord.RunUntilIdle() is False
            assert coord.fCounts.files == 1
            assert coord.fCounts.scopes == 4          # module, K, K(), K.m
            info = mgr.fInfoCache.GetScopeInfo(symbolinfo.Scope(remote, "K.m"))
            assert info is not None and info.disk_mtime == 12.0
            coord.destroy()

    def test_local_files_scanned_then_skipped(self, tmp_path):
        from managerutil import installed_manager

        good = tmp_path / "good.py"
        good.write_text("def f(a):\n    return a\n")
        broken = tmp_path / "broken.py"
        broken.write_text("x = (1 +\n")
        locs = [CLocalFileLocation(str(p)) for p in (good, broken, tmp_path / "absent.py")]
        with installed_manager(editor=False) as mgr:
            coord = CScanCoordinator(mgr, max_attempts=2)
            coord.AddLocations(locs)
            coord.RunUntilIdle()
            counts = coord.fCounts
            assert (counts.files, counts.scopes, counts.parse_errors, counts.abandoned) == \
                (2, 3, 1, 1)
            assert coord.fAbandonedLocs == [locs[2]]
            coord.destroy()
            again = CScanCoordinator(mgr)
            again.AddLocations(locs[:2])
            assert not again.HasWork() and again.fCounts.skipped == 2
            again.destroy()

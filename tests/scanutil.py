"""Helpers of the primary scanner tests: a counting clock, an info cache that
records the calls made on it, and the records of a file read back."""

import contextlib
import math
import os

import pysource._fastaccess as fastaccess
from basekit.location import CLocalFileLocation
from pysource import scopeinfo, scopescanner as ss, symbolinfo as si
from pysource.coordinator import CScanCoordinator

kForever = math.inf


def local_file(tmp_path, text, name="mod.py"):
    """A local file location holding `text`."""
    path = tmp_path / name
    path.write_text(text)
    return CLocalFileLocation(str(path))


class CounterClock:
    """A clock that moves on by `step` at every reading."""

    def __init__(self, step=1):
        self.now = 0
        self.step = step

    def __call__(self):
        self.now += self.step
        return float(self.now)

    def slice_end(self, readings):
        """The end time of a slice that lasts `readings` readings of the
        clock (the reading that reaches it counts)."""
        return float(self.now + readings)


class SlowedClock:
    """The real clock run at `rate` of its speed: slices last 1/rate times as
    long (a build that runs many times slower, as the sanitizer's does, gets
    the time a release build has)."""

    def __init__(self, rate):
        self.real = getattr(fastaccess, "__TimeFunc")
        self.start = self.real()
        self.rate = rate

    def __call__(self):
        return self.start + (self.real() - self.start) * self.rate


class SettableClock:
    """A clock that reads `now`, which the test moves."""

    def __init__(self, now=0.0):
        self.now = now

    def __call__(self):
        return self.now


@contextlib.contextmanager
def replaced_clock(clock):
    """`clock` stands for the module clock during the block."""
    previous = getattr(fastaccess, "__TimeFunc")
    setattr(fastaccess, "__TimeFunc", clock)
    try:
        yield clock
    finally:
        setattr(fastaccess, "__TimeFunc", previous)


def build_speed_clock():
    """A clock for tests whose answers depend on what fits in a slice: the
    real one, slowed down on a sanitizer build."""
    return SlowedClock(0.1) if os.environ.get("PYSOURCE_SANITIZED") else None


def counter_clock():
    return replaced_clock(CounterClock())


class RecordingInfoCache(scopeinfo.CInfoCache):
    """The real info cache, with a journal of the calls a scan makes."""

    def __init__(self, loc_cache, scan_name):
        super().__init__(loc_cache, None, scan_name)
        self.calls = []
        self.depth = 0

    def _note(self, *call):
        self.calls.append(call)

    def AddScopeInfo(self, info, can_write=False):
        self._note("AddScopeInfo", info.key.for_scope.name, can_write)
        return super().AddScopeInfo(info, can_write)

    def BeginDeferScopesModified(self):
        self.depth += 1
        self._note("Begin")
        super().BeginDeferScopesModified()

    def FlushScopesModified(self):
        self.depth -= 1
        self._note("Flush")
        super().FlushScopesModified()

    def ChangeScansDone(self, loc, scan_name, done, disk_mtime):
        self._note("ChangeScansDone", scan_name, done, disk_mtime)
        super().ChangeScansDone(loc, scan_name, done, disk_mtime)

    def SetEOLBlindChecksum(self, loc, checksum, mtime):
        self._note("SetEOLBlindChecksum", checksum, mtime)
        super().SetEOLBlindChecksum(loc, checksum, mtime)

    def WriteToDatabase(self, locs=None):
        self._note("WriteToDatabase", list(locs))
        return super().WriteToDatabase(locs)

    def names(self):
        return [call[0] for call in self.calls]


def install_recording_cache(mgr):
    """Puts a recording info cache into `mgr` (the old one is destroyed)."""
    old = mgr.fInfoCache
    mgr.fInfoCache = RecordingInfoCache(old.fLocCache, mgr.fPrimaryScanName)
    old.destroy()
    return mgr.fInfoCache


def record_of(info):
    """What a record says, as plain values."""
    return (
        bytes(info.ibytes),
        dict(info.type_equivs),
        None if info.inst_type_equivs is None else dict(info.inst_type_equivs),
        None if info._domains is None else dict(info._domains),
        info.incomplete,
    )


def records_of_scan(mgr, loc, scope_names):
    """The records that the info cache holds for these scopes of `loc`."""
    out = {}
    for name in scope_names:
        info = mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(loc, name))
        out[si.NormalizeScopeName(name)] = None if info is None else record_of(info)
    return out


def scan_to_end(scanner, slice_readings=None, clock=None, limit=100000):
    """Calls Scan until a final state (or a wait); returns (state, calls)."""
    calls = 0
    while True:
        calls += 1
        assert calls < limit, "the scan makes no progress"
        end = kForever if slice_readings is None else clock.slice_end(slice_readings)
        state = scanner.Scan(end)
        if state is not ss.kTimedOut:
            return state, calls


def primary_scan(mgr, locs, **kw):
    """Runs a coordinator's primary scan of `locs` to the end; gives the
    (destroyed) coordinator, whose counts and outcomes stay readable."""
    coordinator = CScanCoordinator(mgr, **kw)
    try:
        coordinator.AddLocations(locs)
        coordinator.RunUntilIdle()
    finally:
        coordinator.destroy()
    return coordinator

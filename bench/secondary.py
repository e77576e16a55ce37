"""The derived (secondary) scan over a copy of the corpus, driven by the scan
coordinator, side by side with the standard library's `symtable`.

    python bench/secondary.py [--quick] [--files N] [--repeat N] [--skip-full]
                              [--full-sample N] [--equal-files N] [--guard S]

Derived info is only recorded for project files, not for files under the
interpreter's library folders, so the corpus files are copied (relative paths
kept) to a temporary folder and that copy is indexed.  Standard library stubs
are scanned as the derived scans ask for them (each ask is a "wait").

Printed:
  derived pass    the primary index of the copy first (off the clock), then the
                  derived scan of every file in 20 ms coordinator slices: total
                  seconds, the share spent in the primary scans that waits
                  asked for, time per derived scope, the ratio to symtable
                  (symtable of every file, walking every symbol; rounds
                  interleaved, best of --repeat), waits (kWaitingForScans
                  returns) and files scanned because of them
  slice overrun   for every Scan(end_time) call of a derived scanner, how far
                  past end_time it returned: p50 / p99 / max (goal: max < 5 ms),
                  the garbage collector on; beside it the coordinator's whole
                  slices as its caller sees them
  growth          the same pass over the --full corpus (broken files included:
                  nothing may crash), or a fixed-seed sample of it
  memory          the derived pass's peak resident set growth (VmHWM, reset
                  before the pass) over the resident set after the primary index
  sliced=unsliced the derived records of a sample of files, scanned in 1 ms
                  slices and in one long slice, compared byte for byte

A derived scan that spends more than --guard seconds on one file is abandoned
and reported (file and the scope it was in); each file's start is written to
stderr, so a scan that never returns names its file there.
"""
import argparse
import gc
import os
import resource
import shutil
import sys
import sysconfig
import tempfile
import time

from basekit.location import CLocalFileLocation
from pysource import _fastaccess, coordinator, scopeinfo, scopescanner, symbolinfo

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from managerutil import installed_manager  # noqa: E402
from benchutil import (CCollectorWatch, corpus_paths, fixed_sample, kSampleSeed,  # noqa: E402
                       frozen_start_up, machine_load, peak_resident_bytes, quantile, read_bytes,
                       resident_bytes, use_thread_clock, walk_symtable)

kSliceSeconds = coordinator.kDefaultSliceSeconds
kTinySliceSeconds = 0.001
kLongSliceSeconds = 1e6
kOverrunGoalSeconds = 0.005
kTraceLateSeconds = 0.002
kQuickFiles = 40
ms = 1e3

now = _fastaccess.GetNowTime
gTraceScans = False
gClockWatch = None
gFreeze = True
gSlowest = 10


# ---------------------------------------------------------------------------
# The corpus, copied out of the library folders


def copy_corpus(paths, folder):
    """Copies each file to `folder` under its path relative to the standard
    library; gives the copies' paths in the same order."""
    stdlib = sysconfig.get_paths()["stdlib"]
    copies = []
    for path in paths:
        copy = os.path.join(folder, os.path.relpath(path, stdlib))
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copyfile(path, copy)
        copies.append(copy)
    return copies


# ---------------------------------------------------------------------------
# What the derived scanners do, seen from outside


class CScanLog:
    """What the derived scanners of one pass did: every Scan call's lateness,
    the waits, the scopes scanned, the files cut off by the guard."""

    def __init__(self, guard_seconds, trace=False):
        self.fGuardSeconds = guard_seconds
        self.fTrace = trace              # each Scan call's file and scope to stderr
        self.fCollections = CCollectorWatch()   # installed while the pass runs
        self.fOverruns = []              # seconds past end_time, one per Scan call
        self.fLatest = (float("-inf"), "", "")   # (lateness, file, scope)
        self.fScanSeconds = 0.0          # inside derived Scan calls
        self.fWaits = 0
        self.fScopes = 0                 # scopes derived-scanned
        self.fScopeScans = 0             # their scans, a scope scanned again counted again
        self.fGuarded = []               # (file, scope, seconds)
        self.fFileSeconds = {}           # file -> seconds inside its Scan calls
        self.fScopeSeconds = {}          # (file, scope a Scan call began in) -> seconds

    def Note(self, scanner, late, state):
        self.fOverruns.append(late)
        if state is scopescanner.kWaitingForScans:
            self.fWaits += 1
        if late > self.fLatest[0]:
            self.fLatest = (late, scanner.fLoc.fPath, ActiveScope(scanner.fScanner))


def ActiveScope(scanner):
    """The name of the scope a derived scanner is in, or '-' between scopes."""
    active = scanner._fActiveScopeScanner
    scope = getattr(active, "fScope", None) if active is not None else None
    return "-" if scope is None else str(getattr(scope, "name", scope))


class CClockWatch:
    """The scanners' clock, noting every read during one Scan call: the time
    and the Python function nearest the reader (a read from C++ shows as the
    Python caller that entered C++), with the garbage collections between."""

    def __init__(self, clock):
        self.fClock = clock
        self.fReads = []         # (time, "function:line")
        self.fOn = False         # reads are noted only inside derived Scan calls

    def __call__(self):
        t = self.fClock()
        if self.fOn:
            frame = sys._getframe(1)
            self.fReads.append((t, f"{frame.f_code.co_name}:{frame.f_lineno}"))
        return t

    def _NoteCollection(self, phase, info):
        if self.fOn:
            self.fReads.append((self.fClock(), f"gc-{phase} gen{info['generation']}"))

    def Install(self):
        setattr(_fastaccess, "__TimeFunc", self)
        gc.callbacks.append(self._NoteCollection)

    def Explain(self, end_time, done):
        """Where a late call's time past `end_time` went: the first clock read
        at or past it (the step before it never looked at the clock), and the
        longest stretch without a read after it (work after the deadline was
        seen)."""
        reads = [r for r in self.fReads if not r[1].startswith("gc-")]
        first = next((i for i, (t, _) in enumerate(reads) if t >= end_time), None)
        if first is None:
            return "no read past the deadline"
        before = reads[first - 1] if first else (float("nan"), "call start")
        after = reads[first:] + [(done, "return")]
        gap_at = max(range(len(after) - 1), key=lambda i: after[i + 1][0] - after[i][0], default=None)
        text = (f"first read past it {(reads[first][0] - end_time) * ms:.1f} ms late at {reads[first][1]} "
                f"(previous read {(end_time - before[0]) * ms:.1f} ms before the deadline at {before[1]})")
        if gap_at is not None:
            text += (f"; after it {len(after) - 1} reads, longest stretch "
                     f"{(after[gap_at + 1][0] - after[gap_at][0]) * ms:.1f} ms "
                     f"from {after[gap_at][1]} to {after[gap_at + 1][1]}")
        collections = [r[1] for r in self.fReads if r[1].startswith("gc-stop")]
        return text + (f"; collections {' '.join(collections)}" if collections else "")


class CTimedScanner:
    """A whole-file derived scanner whose Scan calls are timed into a log;
    everything else goes to the scanner itself."""

    def __init__(self, log, loc, scan_name, shared_objects):
        self.fScanner = scopescanner.CWholeFileSecondaryScanner(loc, scan_name, shared_objects)
        self.fLoc = loc
        self.fLog = log
        self.fSpent = 0.0

    def __getattr__(self, name):
        return getattr(self.fScanner, name)

    def Scan(self, end_time):
        trace = self.fLog.fTrace
        scope = ActiveScope(self.fScanner)
        if trace:
            sys.stderr.write(f"scan {self.fLoc.fPath} from scope {scope}\n")
            sys.stderr.flush()
            collections = len(self.fLog.fCollections.fPauses)
        start = now()
        if gClockWatch is not None:
            gClockWatch.fReads.clear()
            gClockWatch.fOn = True
        state = self.fScanner.Scan(end_time)
        done = now()
        if gClockWatch is not None:
            gClockWatch.fOn = False
        if gClockWatch is not None and done - end_time > kTraceLateSeconds:
            sys.stderr.write(f"STEPS {(done - end_time) * ms:.1f} ms late {self.fLoc.fPath} from scope "
                             f"{scope} to {ActiveScope(self.fScanner)}: "
                             f"{gClockWatch.Explain(end_time, done)}\n")
        if trace and done - end_time > kTraceLateSeconds:
            sys.stderr.write(f"LATE {(done - end_time) * ms:.1f} ms (call {(done - start) * ms:.1f} ms) "
                             f"{self.fLoc.fPath} from scope {scope} to {ActiveScope(self.fScanner)}; "
                             f"collections: {self.fLog.fCollections.Since(collections) or 'none'}\n")
            sys.stderr.flush()
        self.fSpent += done - start
        self.fLog.fScanSeconds += done - start
        path = self.fLoc.fPath
        self.fLog.fFileSeconds[path] = self.fLog.fFileSeconds.get(path, 0.0) + done - start
        self.fLog.fScopeSeconds[path, scope] = self.fLog.fScopeSeconds.get((path, scope), 0.0) + done - start
        self.fLog.Note(self, done - end_time, state)
        if state is scopescanner.kTimedOut and self.fSpent > self.fLog.fGuardSeconds:
            self.fLog.fGuarded.append((self.fLoc.fPath, ActiveScope(self.fScanner), self.fSpent))
            # The coordinator destroys a derived scanner that reports itself
            # abandoned; the scanner has no AbandonScan of its own.
            return scopescanner.kScanAbandoned
        return state

    def destroy(self):
        completed = self.fScanner.fScanCompletedCount    # scope name -> scans of it
        self.fLog.fScopes += len(completed)
        self.fLog.fScopeScans += sum(completed.values())
        self.fScanner.destroy()


def report_file_start(done, total, loc):
    if loc is not None:
        sys.stderr.write(f"derived {done + 1}/{total} {loc.fPath}\n")
        sys.stderr.flush()


# ---------------------------------------------------------------------------
# One derived pass


class CPass:
    """The figures of one derived pass."""

    def __init__(self, log):
        self.fLog = log
        self.fSeconds = 0.0            # the whole derived pass
        self.fWaitScanSeconds = 0.0    # primary slices run for the waits
        self.fSliceOverruns = []       # the coordinator's whole slices
        self.fPrimaryScopes = 0
        self.fNeededFiles = 0
        self.fDerivedFiles = 0
        self.fErrors = []
        self.fAbandoned = []
        self.fRssBefore = 0
        self.fRssPeak = 0
        self.fPeakReset = False
        self.fRecords = None


def run_derived_pass(paths, slice_seconds, guard_seconds, keep_records=False, memory=False):
    """Indexes `paths` (primary scans, off the clock), then runs their derived
    scans slice by slice as `RunDerivedUntilIdle` would, timing each slice."""
    log = CScanLog(guard_seconds, gTraceScans)
    result = CPass(log)
    with installed_manager(editor=False) as mgr, log.fCollections:
        coord = coordinator.CScanCoordinator(
            mgr, derived_progress=report_file_start,
            derived_scanner_class=lambda loc, name, shared: CTimedScanner(log, loc, name, shared))
        locs = [CLocalFileLocation(path) for path in paths]
        try:
            coord.AddLocations(locs)
            with frozen_start_up(gFreeze):
                coord.RunUntilIdle()
                result.fPrimaryScopes = coord.fCounts.scopes
                primary_failures = set(coord.fAbandonedLocs)
                coord.fSliceSeconds = slice_seconds
                gc.collect()
                if memory:
                    result.fRssBefore = resident_bytes()
                    result.fPeakReset = reset_peak_resident()
                coord.AddDerivedLocations([loc for loc in locs if loc not in primary_failures])
                start = now()
                while coord.HasReadyWork() or coord.HasDerivedWork():
                    slice_start = now()
                    for_waits = coord.HasReadyWork()
                    if coord.HasDerivedWork():
                        coord.RunDerivedSlice()
                    else:
                        coord.RunSlice()
                    slice_end = now()
                    result.fSliceOverruns.append(slice_end - slice_start - slice_seconds)
                    if for_waits:
                        result.fWaitScanSeconds += slice_end - slice_start
                result.fSeconds = now() - start
                if memory:
                    result.fRssPeak = peak_resident_bytes()
                result.fNeededFiles = coord.fCounts.needed_files
                result.fDerivedFiles = coord.fCounts.derived_files
                result.fErrors = [(loc.fPath, text) for loc, text in coord.fErrors]
                result.fAbandoned = [loc.fPath for loc in coord.fAbandonedLocs]
                if keep_records:
                    result.fRecords = derived_records(mgr)
        finally:
            coord.destroy()
    return result


def derived_records(mgr):
    """{key text: serialized record} of every derived record in the info cache."""
    info_cache = mgr.fInfoCache
    dumps = scopeinfo.CScopeInfoSerializer().Dumps
    out = {}
    for loc in info_cache.GetLocations():
        for name in info_cache.GetScopesForLoc(loc):
            for record in info_cache.GetScopeInfoRecords(symbolinfo.Scope(loc, name)):
                if record.key.scan_name == mgr.fDerivedScanName:
                    out[repr(record.key)] = bytes(dumps(record))
    return out


# ---------------------------------------------------------------------------
# Memory


def reset_peak_resident():
    """Sets the high-water mark of the resident set back to the current size;
    False when the system doesn't let it."""
    try:
        with open("/proc/self/clear_refs", "w") as fh:
            fh.write("5")
    except OSError:
        return False
    return True


# ---------------------------------------------------------------------------
# The reports


def print_findings(result):
    for path, text in result.fErrors:
        print(f"  ERROR {path}: {text}", flush=True)
    for path in result.fAbandoned:
        print(f"  abandoned (primary) {path}", flush=True)
    for path, scope, seconds in result.fLog.fGuarded:
        print(f"  GUARD {path} in scope {scope}: cut off after {seconds:.1f} s", flush=True)


def print_pass(label, paths, result):
    log = result.fLog
    derived = result.fSeconds - result.fWaitScanSeconds
    per_scope = result.fSeconds / max(1, log.fScopes)
    print(f"  {label}: {len(paths)} files, {result.fPrimaryScopes} primary scopes, "
          f"{log.fScopes} scopes derived-scanned ({log.fScopeScans} scans), "
          f"{result.fDerivedFiles} files finished", flush=True)
    print(f"    total {result.fSeconds:8.3f} s  (derived scans {derived:.3f} s, primary scans for "
          f"waits {result.fWaitScanSeconds:.3f} s)  per scope {per_scope * 1e6:8.1f} us", flush=True)
    print(f"    waits {log.fWaits}, files scanned because of waits {result.fNeededFiles}", flush=True)
    print_findings(result)
    print_slowest(log)


def print_slowest(log):
    """The files and scopes whose derived Scan calls took longest."""
    folder = os.path.commonpath(list(log.fFileSeconds)) if len(log.fFileSeconds) > 1 else ""
    for label, seconds in (("files", log.fFileSeconds), ("scopes", log.fScopeSeconds)):
        slowest = sorted(seconds.items(), key=lambda item: -item[1])[:gSlowest]
        if not slowest:
            continue
        print(f"    slowest {label}:", flush=True)
        for key, spent in slowest:
            path, scope = (key, "") if isinstance(key, str) else key
            print(f"      {spent:8.3f} s  {os.path.relpath(path, folder) if folder else path}"
                  f"{' ' + scope if scope else ''}", flush=True)


def print_overruns(results):
    overruns = [o for r in results for o in r.fLog.fOverruns]
    slices = [o for r in results for o in r.fSliceOverruns]
    latest = max(r.fLog.fLatest for r in results)
    print(f"slice overrun past end time, {kSliceSeconds * ms:.0f} ms slices, collector on "
          f"(goal: max < {kOverrunGoalSeconds * ms:.0f} ms)", flush=True)
    for label, values in (("derived Scan calls", overruns), ("coordinator slices", slices)):
        if not values:
            print(f"  {label}: none", flush=True)
            continue
        late = [max(0.0, o) for o in values]
        print(f"  {label:<19} {len(late)} calls, {sum(o > 0 for o in values)} late: "
              f"p50 {quantile(late, 0.5) * ms:7.3f} ms  p99 {quantile(late, 0.99) * ms:7.3f} ms  "
              f"max {max(late) * ms:8.3f} ms", flush=True)
    if overruns:
        verdict = "met" if latest[0] < kOverrunGoalSeconds else "MISSED"
        print(f"  latest Scan call: {latest[0] * ms:.3f} ms past, in {latest[1]} scope {latest[2]} "
              f"(goal {verdict})", flush=True)


def measure_core(paths, texts, repeat, guard, budget):
    """Derived pass and symtable in interleaved rounds; best of `repeat`, or
    of fewer when the rounds so far took more than `budget` seconds."""
    print(f"derived pass over {len(paths)} files, {sum(map(len, texts)) / 1e6:.1f} MB, "
          f"{kSliceSeconds * ms:.0f} ms slices, best of {repeat} (rounds interleaved)", flush=True)
    results, symtable_times = [], []
    started = time.perf_counter()
    for round_index in range(repeat):
        if round_index and time.perf_counter() - started > budget:
            print(f"  only {round_index} of {repeat} rounds: they took more than the "
                  f"{budget:.0f} s budget", flush=True)
            break
        result = run_derived_pass(paths, kSliceSeconds, guard, memory=round_index == 0)
        results.append(result)
        gc.collect()
        start = time.perf_counter()
        symbols = walk_symtable(None, texts)
        symtable_times.append(time.perf_counter() - start)
        print(f"  round {round_index + 1}: derived {result.fSeconds:.3f} s, "
              f"symtable {symtable_times[-1]:.3f} s", flush=True)
    best = min(results, key=lambda r: r.fSeconds)
    peer = min(symtable_times)
    print_pass("best round", paths, best)
    print(f"    symtable {peer:8.3f} s  ({symbols} symbols)  derived/symtable "
          f"{best.fSeconds / peer:6.2f}  (derived scans alone "
          f"{(best.fSeconds - best.fWaitScanSeconds) / peer:.2f})", flush=True)
    return results


def measure_growth(core_paths, core_result, full_sample, guard):
    """The same pass over the full corpus (or a fixed sample of it) in a copy
    of its own."""
    full = corpus_paths(full=True)
    label = f"full corpus ({len(full)} files)"
    if full_sample:
        full = fixed_sample(full, full_sample)
        label = f"fixed-seed sample of {len(full)} files of the full corpus (seed {kSampleSeed})"
    print(f"growth: {label}", flush=True)
    with tempfile.TemporaryDirectory(prefix="pysource-bench-full-") as folder:
        paths = copy_corpus(full, folder)
        result = run_derived_pass(paths, kSliceSeconds, guard)
    print_pass("one round", paths, result)
    per_scope = result.fSeconds / max(1, result.fLog.fScopes)
    if core_result is None:
        print_overruns([result])
        return result
    core_per_scope = core_result.fSeconds / max(1, core_result.fLog.fScopes)
    print(f"    core {len(core_paths)} files {core_result.fSeconds:.3f} s, {core_per_scope * 1e6:.1f} us"
          f"/scope -> {len(paths)} files {result.fSeconds:.3f} s, {per_scope * 1e6:.1f} us/scope "
          f"(per-scope growth x{per_scope / max(1e-12, core_per_scope):.2f})", flush=True)
    print_overruns([result])
    return result


def print_memory(result):
    mb = 1e6
    print(f"memory of the derived pass (core, first round): RSS after the primary index "
          f"{result.fRssBefore / mb:.1f} MB, peak during the derived pass {result.fRssPeak / mb:.1f} MB "
          f"(growth {(result.fRssPeak - result.fRssBefore) / mb:.1f} MB; VmHWM "
          f"{'reset before the pass' if result.fPeakReset else 'NOT reset: the whole process peak'}); "
          f"process ru_maxrss {resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024 / mb:.1f} MB",
          flush=True)


def compare_sliced(paths, count, guard):
    sample = fixed_sample(paths, count)
    print(f"sliced = unsliced: {len(sample)} files (seed {kSampleSeed}), derived records with "
          f"{kTinySliceSeconds * ms:.0f} ms slices vs one long slice", flush=True)
    tiny = run_derived_pass(sample, kTinySliceSeconds, guard, keep_records=True)
    long = run_derived_pass(sample, kLongSliceSeconds, guard, keep_records=True)
    control = run_derived_pass(sample, kLongSliceSeconds, guard, keep_records=True)
    for label, result in (("1 ms", tiny), ("long", long), ("long again", control)):
        print(f"  {label}: {len(result.fRecords)} derived records, {len(result.fLog.fOverruns)} "
              f"Scan calls, {result.fLog.fWaits} waits, {result.fSeconds:.3f} s (derived Scan calls "
              f"{result.fLog.fScanSeconds:.3f} s, primary slices for waits "
              f"{result.fWaitScanSeconds:.3f} s)", flush=True)
        print_findings(result)
    differing = differing_keys(tiny.fRecords, long.fRecords)
    print(f"  differing records, 1 ms vs long: {len(differing)} of "
          f"{len(set(tiny.fRecords) | set(long.fRecords))}", flush=True)
    if differing:
        print_first_difference(differing[0], tiny.fRecords.get(differing[0]),
                               long.fRecords.get(differing[0]))
        print_difference_kinds(differing, tiny.fRecords, long.fRecords, ("1 ms", "long"))
    control_differing = differing_keys(long.fRecords, control.fRecords)
    print(f"  control, long vs long again (same process, fresh manager): "
          f"{len(control_differing)} differing records", flush=True)
    if control_differing:
        print_difference_kinds(control_differing, long.fRecords, control.fRecords,
                               ("long", "long again"))
    return differing


def differing_keys(a, b):
    return [k for k in sorted(set(a) | set(b)) if a.get(k) != b.get(k)]


def print_first_difference(key, tiny, long):
    print(f"  first: {key}", flush=True)
    if tiny is None or long is None:
        print(f"    only in the {'long' if tiny is None else '1 ms'} run", flush=True)
        return
    at = next((i for i, (x, y) in enumerate(zip(tiny, long)) if x != y), min(len(tiny), len(long)))
    print(f"    {len(tiny)} vs {len(long)} bytes, first difference at byte {at}:\n"
          f"    1 ms {tiny[max(0, at - 16):at + 48]!r}\n    long {long[max(0, at - 16):at + 48]!r}",
          flush=True)


kRecordFields = ("ibytes", "type_equivs", "inst_type_equivs", "incomplete", "scopes_seen",
                 "resolved_imports", "_domains")


def print_difference_kinds(differing, first_records, second_records, labels):
    """The differing records decoded: which fields differ as values (a field
    that is a set compares as one), with the first record of each kind."""
    loads = scopeinfo.CScopeInfoSerializer().Loads
    kinds = {}
    for key in differing:
        first, second = first_records.get(key), second_records.get(key)
        if first is None or second is None:
            kind = (f"only in the {labels[first is None]} run",)
            detail = ""
        else:
            a, b = loads(first), loads(second)
            kind = tuple(f for f in kRecordFields if getattr(a, f) != getattr(b, f)) or \
                ("equal values, bytes in another order",)
            detail = difference_detail(a, b, kind, labels)
        kinds.setdefault(kind, []).append((key, detail))
    print("  differing records by the fields whose values differ:", flush=True)
    for kind, found in sorted(kinds.items(), key=lambda item: -len(item[1])):
        key, detail = found[0]
        print(f"    {', '.join(kind)}: {len(found)} records; first {key}{detail}", flush=True)


def difference_detail(a, b, kind, labels):
    if kind == ("scopes_seen",):
        only_first = set(a.scopes_seen or ()) - set(b.scopes_seen or ())
        only_second = set(b.scopes_seen or ()) - set(a.scopes_seen or ())
        return (f"\n      seen only in the {labels[0]} run: {sorted(map(repr, only_first))}"
                f"\n      seen only in the {labels[1]} run: {sorted(map(repr, only_second))}")
    return "".join(f"\n      {f}: {labels[0]} {getattr(a, f)!r:.300} | {labels[1]} {getattr(b, f)!r:.300}"
                   for f in kind if f in kRecordFields)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true",
                        help=f"the first {kQuickFiles} files, one round, a small growth sample")
    parser.add_argument("--files", type=int, default=0, help="only the first N core files")
    parser.add_argument("--repeat", type=int, default=3, help="rounds of the core pass (best is kept)")
    parser.add_argument("--skip-full", action="store_true", help="leave out the growth pass")
    parser.add_argument("--skip-core", action="store_true",
                        help="leave out the core rounds (timing, overrun, memory)")
    parser.add_argument("--full-sample", type=int, default=-1,
                        help="growth over a fixed-seed sample of N full-corpus files "
                             "(default: twice the core size; 0: the whole full corpus)")
    parser.add_argument("--equal-files", type=int, default=30,
                        help="files of the sliced=unsliced check (0 leaves it out)")
    parser.add_argument("--guard", type=float, default=120.0,
                        help="seconds one file's derived scan may take before it is cut off")
    parser.add_argument("--budget", type=float, default=400.0,
                        help="no further core round starts after this many seconds of rounds")
    parser.add_argument("--trace", action="store_true",
                        help="write each derived Scan call's file and scope to stderr (to name a crash), "
                             f"and each call more than {kTraceLateSeconds * ms:.0f} ms late with the "
                             "garbage collections inside it")
    parser.add_argument("--late-steps", action="store_true",
                        help=f"name, for each derived Scan call more than {kTraceLateSeconds * ms:.0f} ms "
                             "late, where its clock reads fell: the step that ran past the deadline "
                             "unchecked, or the work done after it was seen (slows the clock a little)")
    parser.add_argument("--cpu", action="store_true",
                        help="this thread's processor time as the scanners' clock (for a loaded machine)")
    parser.add_argument("--no-freeze", action="store_true",
                        help="leave out the gc.freeze() that the pysource command makes after its "
                             "start-up (a host that doesn't)")
    parser.add_argument("--slowest", type=int, default=10,
                        help="how many of the slowest files and scopes of each pass to name")
    args = parser.parse_args()
    global gTraceScans, gFreeze, gSlowest, gClockWatch
    gTraceScans = args.trace
    gSlowest = args.slowest
    gFreeze = not args.no_freeze
    if args.cpu:
        use_thread_clock()
    if args.late_steps:
        gClockWatch = CClockWatch(getattr(_fastaccess, "__TimeFunc"))
        gClockWatch.Install()
    limit = kQuickFiles if args.quick and not args.files else args.files
    repeat = 1 if args.quick else args.repeat
    print(machine_load(), flush=True)
    with tempfile.TemporaryDirectory(prefix="pysource-bench-core-") as folder:
        paths = copy_corpus(corpus_paths(limit or None), folder)
        results = None
        if not args.skip_core:
            results = measure_core(paths, read_bytes(paths), repeat, args.guard, args.budget)
            print_overruns(results)
            print_memory(results[0])
        if args.equal_files:
            compare_sliced(paths, args.equal_files, args.guard)
    if not args.skip_full:
        sample = 2 * len(paths) if args.full_sample < 0 else args.full_sample
        best = min(results, key=lambda r: r.fSeconds) if results else None
        measure_growth(paths, best, sample, args.guard)
    print(machine_load(), flush=True)


if __name__ == "__main__":
    main()

"""The primary scan over the core corpus, side by side with the standard
library's `symtable` and `ast.parse` over the same files held in memory.

    python bench/primary.py [--repeat N] [--limit N] [--skip throughput,memory,single,slices]
                            [--full-sample N] [--trace]

Figures, each the best of N runs:
  scan            whole-file primary scan of every file, records in memory
  scan+db         the same with the records written to a SQLite database in a
                  temporary folder as `pysource index` writes them (in batches
                  of files, a bounded set of records in memory)
  symtable        symtable of every file, walking every table's symbols
  ast.parse       parse of every file
then ratios to symtable (goals: scan <= 0.8, scan+db <= 1.1), each the best of
interleaved rounds.

Also measured:
  memory          in a fresh process, what the records of every file cost:
                  resident set (RSS) growth and the Python allocator's share
                  (tracemalloc); beside it, symtable's tables of every file kept
  single scope    median time to rescan one function of typical length through
                  the editor's standalone path (goal < 1 ms)
  slices          every file scanned in 5 ms slices: how far past its end time
                  a slice returns (goal: largest < 5 ms), p50 and p99, with the
                  garbage collector on and off, and its longest pause; with
                  --full-sample N also over a fixed-seed sample of the full
                  corpus; --trace names every slice more than 2 ms late

The files are given to the scanner as remote locations whose content is set
up front, under a manager with a cache manager (so the content is read from
its buffer): no contender reads the disk while timed.
"""
import argparse
import ast
import contextlib
import gc
import json
import math
import os
import statistics
import subprocess
import symtable
import sys
import tempfile
import time
import tracemalloc

import pysource._fastaccess as fastaccess
from basekit.location import CLocalFileLocation, CRemoteLocation
from pysource import cli, scopescanner, symbolinfo

# The helper that installs a manager for a block is shared with the tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from managerutil import installed_manager  # noqa: E402
from benchutil import (CCollectorWatch, corpus_paths, fixed_sample, frozen_start_up,  # noqa: E402
                       interleaved_best, kSampleSeed, machine_load, peak_resident_bytes, quantile,
                       read_bytes, resident_bytes, use_thread_clock, walk_symtable)

kSliceSeconds = 0.005
kTraceLateSeconds = 0.002
gFreeze = True
kSingleScopeSamples = 40
kSingleScopeRepeats = 15


# ---------------------------------------------------------------------------
# The corpus, in memory




def remote_locations(paths, texts):
    """One remote location per file, its content already delivered."""
    locs = []
    for path, text in zip(paths, texts):
        loc = CRemoteLocation("mem://corpus" + path)
        loc.SetContent(text, 1.0)
        locs.append(loc)
    return locs


def scan_file(loc, scan_name, slice_seconds=math.inf, overruns=None, before_slice=None):
    """Scans one file to its end; gives the number of records it made.  With
    `overruns`, each slice's lateness past its end time is appended;
    `before_slice` is called ahead of each slice."""
    clock = getattr(fastaccess, "__TimeFunc")
    scanner = scopescanner.CWholeFilePrimaryScanner(loc, scan_name)
    try:
        while True:
            if before_slice is not None:
                before_slice()
            end_time = clock() + slice_seconds
            state = scanner.Scan(end_time)
            if overruns is not None:
                overruns.append(clock() - end_time)
            if state is not scopescanner.kTimedOut:
                break
        if state is not scopescanner.kFinishedScanning:
            raise RuntimeError(f"scan of {loc.fUrl} ended in {state}")
        return len(scanner._fAllScopeNames)
    finally:
        scanner.destroy()


# ---------------------------------------------------------------------------
# The contenders


def scan_in_memory(locs, _texts):
    with installed_manager() as mgr:
        return sum(scan_file(loc, mgr.fPrimaryScanName) for loc in locs)


def scan_with_database(locs, _texts):
    with tempfile.TemporaryDirectory() as folder:
        with installed_manager(db_path=os.path.join(folder, "info.db")) as mgr:
            # Written as `pysource index` writes: in batches of files, with a
            # bounded set of records in memory.
            mgr.fInfoCache.fWriteBatchLocations = cli.kWriteBatchFiles
            mgr.fInfoCache.fMaxRecordsInMemory = cli.kRecordsInMemory
            records = sum(scan_file(loc, mgr.fPrimaryScanName) for loc in locs)
            mgr.fInfoCache.WriteToDatabase(None)
            return records


def parse_ast(_locs, texts):
    for text in texts:
        ast.parse(text)
    return len(texts)



def compare_throughput(locs, texts, repeat):
    size = sum(len(t) for t in texts)
    print(f"{len(texts)} files, {size / 1e6:.1f} MB, best of {repeat} interleaved rounds")
    contenders = [
        ("scan", scan_in_memory, "records"),
        ("scan+db", scan_with_database, "records"),
        ("symtable", walk_symtable, "symbols"),
        ("ast.parse", parse_ast, "files"),
    ]
    best = interleaved_best(repeat, {name: func for name, func, _ in contenders}, locs, texts)
    times = {}
    for name, _, unit in contenders:
        times[name], count = best[name]
        print(f"  {name:<12} {times[name]:8.3f} s  {count} {unit}")
    peer = times["symtable"]
    for name, goal in (("scan", 0.8), ("scan+db", 1.1), ("ast.parse", None)):
        goal_text = "" if goal is None else f"  (goal <= {goal})"
        print(f"  {name + '/symtable':<20} {times[name] / peer:6.2f}{goal_text}")


# ---------------------------------------------------------------------------
# Memory, measured in a child process so that nothing else is resident


@contextlib.contextmanager
def hold_records(locs, _texts):
    """Scans every file and keeps the manager, so its records stay until the
    block ends."""
    with installed_manager() as mgr:
        yield sum(scan_file(loc, mgr.fPrimaryScanName) for loc in locs)


@contextlib.contextmanager
def hold_symtables(_locs, texts):
    tables = [symtable.symtable(text, "<corpus>", "exec") for text in texts]
    yield len(tables)


kMemoryHolders = {"records": hold_records, "symtable": hold_symtables}


def memory_probe(holder_name, traced, limit):
    """Run in the child: prints what holding everything costs, as JSON.  The
    allocator is traced in a run of its own: tracing costs memory too."""
    paths = corpus_paths(limit)
    texts = read_bytes(paths)
    locs = remote_locations(paths, texts)
    # Warm up on one file so that one-time allocations (modules, the
    # analyzer's tables) don't count.
    with installed_manager() as mgr:
        scan_file(locs[0], mgr.fPrimaryScanName)
    gc.collect()
    before = resident_bytes()
    if traced:
        tracemalloc.start()
    with kMemoryHolders[holder_name](locs, texts) as count:
        gc.collect()
        figures = {"count": count, "rss_before": before, "rss_after": resident_bytes(),
                   "rss_peak": peak_resident_bytes()}
        if traced:
            figures["traced_now"], figures["traced_peak"] = tracemalloc.get_traced_memory()
            tracemalloc.stop()
    print(json.dumps(figures))


def run_probe(holder, traced, limit):
    command = [sys.executable, __file__, "--memory-probe", holder, "--limit", str(limit)]
    if traced:
        command.append("--traced")
    out = subprocess.run(command, check=True, capture_output=True, text=True)
    return json.loads(out.stdout.strip().splitlines()[-1])


def measure_memory(limit):
    mb = 1e6
    print("memory of every file's results, kept (fresh process each; RSS from /proc/self/statm,"
          " peak from VmHWM; traced = Python allocator via tracemalloc, separate run)")
    kept = {}
    for holder in kMemoryHolders:
        plain = run_probe(holder, False, limit)
        traced = run_probe(holder, True, limit)
        kept[holder] = plain["rss_after"] - plain["rss_before"]
        print(f"  {holder:<10} RSS kept {kept[holder] / mb:7.1f} MB  RSS peak growth "
              f"{(max(plain['rss_peak'], plain['rss_after']) - plain['rss_before']) / mb:7.1f} MB  traced kept "
              f"{traced['traced_now'] / mb:7.1f} MB  traced peak {traced['traced_peak'] / mb:7.1f} MB"
              f"  ({plain['count']})")
    print(f"  RSS kept records/symtable {kept['records'] / max(1, kept['symtable']):6.2f}")


# ---------------------------------------------------------------------------
# One function rescanned through the editor's standalone path


def function_scopes(text):
    """(full scope name, line count) of the module's functions and of its
    classes' methods, leaving out names defined twice in one scope (those
    carry an index in their scope name)."""
    out = []

    def collect(body, prefix):
        names = [n.name for n in body if isinstance(n, (ast.FunctionDef, ast.AsyncFunctionDef))]
        for node in body:
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)) and names.count(node.name) == 1:
                out.append((prefix + node.name, node.end_lineno - node.lineno + 1))

    tree = ast.parse(text)
    collect(tree.body, "")
    classes = [n.name for n in tree.body if isinstance(n, ast.ClassDef)]
    for node in tree.body:
        if isinstance(node, ast.ClassDef) and classes.count(node.name) == 1:
            collect(node.body, node.name + ".")
    return out


def typical_functions(paths, texts, samples):
    """`samples` functions of the corpus's median length, spread over it."""
    found = [(path, text, name, lines) for path, text in zip(paths, texts)
             for name, lines in function_scopes(text)]
    median = statistics.median_low(lines for *_, lines in found)
    typical = [f for f in found if f[3] == median]
    step = max(1, len(typical) // samples)
    return median, typical[::step][:samples]


def rescan(loc, name):
    scanner = scopescanner.CSingleScopePrimaryScanner(symbolinfo.NormalizedScope(loc, name))
    try:
        while (state := scanner.Scan(math.inf)) is scopescanner.kTimedOut:
            pass
        if state is not scopescanner.kFinishedScanning or scanner._fNotFound:
            raise RuntimeError(f"rescan of {name} in {loc.fUrl} ended in {state}")
        scanner.SaveToInfoCache()
    finally:
        scanner.destroy()


def measure_single_scope(paths, texts):
    median_lines, functions = typical_functions(paths, texts, kSingleScopeSamples)
    steady, after_edit, set_text = [], [], []
    clock = time.perf_counter
    with installed_manager() as mgr:
        for path, text, name, _lines in functions:
            loc = CLocalFileLocation(path)
            ana = mgr.fCacheMgr.OpenAnalysis(loc, text)
            rescan(loc, name)  # the first scan of the file builds its index
            for i in range(kSingleScopeRepeats):
                start = clock()
                rescan(loc, name)
                steady.append(clock() - start)
                # An edit elsewhere in the buffer: the text changes, then the
                # function is scanned again.
                start = clock()
                ana.SetText(text + b"\n" * (1 + i % 2))
                set_text.append(clock() - start)
                start = clock()
                rescan(loc, name)
                after_edit.append(clock() - start)
            mgr.fCacheMgr.CloseAnalysis(loc)
    ms = 1e3
    print(f"single-scope rescan of {len(functions)} functions of {median_lines} lines "
          f"(the median), {kSingleScopeRepeats} times each; goal < 1 ms")
    for label, times in (("unchanged buffer", steady), ("after a buffer edit", after_edit),
                         ("(the edit's SetText)", set_text)):
        print(f"  {label:<22} median {statistics.median(times) * ms:7.3f} ms  "
              f"p90 {quantile(times, 0.9) * ms:7.3f} ms")
    return statistics.median(steady)


# ---------------------------------------------------------------------------
# Slices


def sliced_overruns(locs, trace):
    """Scans every file in slices; gives each slice's lateness, the latest
    slice as (lateness, url, index in its file) and the processor time of
    each garbage collection.  With `trace`, a slice more than
    kTraceLateSeconds late is written to stderr with the collections inside
    it."""
    overruns = []
    latest = (-math.inf, "", 0)
    clock = getattr(fastaccess, "__TimeFunc")
    with installed_manager() as mgr, frozen_start_up(gFreeze), CCollectorWatch() as watch:
        for loc in locs:
            first = len(overruns)
            if not trace:
                scan_file(loc, mgr.fPrimaryScanName, kSliceSeconds, overruns)
            else:
                marks = []
                scan_file(loc, mgr.fPrimaryScanName, kSliceSeconds, overruns,
                          before_slice=lambda: marks.append((len(watch.fPauses), clock())))
                for index, ((mark, start), late) in enumerate(zip(marks, overruns[first:])):
                    if late > kTraceLateSeconds:
                        sys.stderr.write(f"LATE {late * 1e3:.1f} ms slice {index} of {loc.fUrl}; "
                                         f"collections: {watch.Since(mark) or 'none'}\n")
            late, index = max((o, i - first) for i, o in enumerate(overruns[first:], first))
            latest = max(latest, (late, loc.fUrl, index))
    return overruns, latest, watch.fPauses


def measure_slices(locs, label, trace):
    """Slices with the garbage collector on, then off: a full collection of
    the objects the records keep runs inside whichever slice triggers it."""
    ms = 1e3
    print(f"slices of {kSliceSeconds * ms:.0f} ms, {label}; overrun past end time (goal: max < 5 ms)")
    gc.collect()
    with_collector = sliced_overruns(locs, trace)
    gc.disable()
    try:
        without_collector = sliced_overruns(locs, False)
    finally:
        gc.enable()
    pauses = with_collector[2]
    for label, (overruns, latest, _) in (("collector on", with_collector),
                                         ("collector off", without_collector)):
        late = [max(0.0, o) for o in overruns]
        print(f"  {label:<14} {len(late)} slices, {sum(o > 0 for o in overruns)} late: "
              f"p50 {quantile(late, 0.5) * ms:6.3f} ms  p99 {quantile(late, 0.99) * ms:6.3f} ms  "
              f"max {max(late) * ms:6.3f} ms (slice {latest[2]} of "
              f"{latest[1].rsplit('/', 1)[-1]})")
    print(f"  garbage collections while on: {len(pauses)}, longest {max(pauses, default=0) * ms:.3f} ms")


# ---------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3, help="runs per contender (best is kept)")
    parser.add_argument("--limit", type=int, default=0, help="only the first N files")
    parser.add_argument("--skip", default="", help="comma-separated: throughput,memory,single,slices")
    parser.add_argument("--full-sample", type=int, default=0,
                        help="slices also over a fixed-seed sample of N files of the full corpus")
    parser.add_argument("--trace", action="store_true",
                        help=f"write each slice more than {kTraceLateSeconds * 1e3:.0f} ms late to stderr "
                             "with its file and the garbage collections inside it")
    parser.add_argument("--memory-probe", choices=sorted(kMemoryHolders), help=argparse.SUPPRESS)
    parser.add_argument("--traced", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--cpu", action="store_true",
                        help="this thread's processor time as the scanners' clock (for a loaded machine)")
    parser.add_argument("--no-freeze", action="store_true",
                        help="slices without the gc.freeze() that the pysource command makes after "
                             "its start-up (a host that doesn't)")
    args = parser.parse_args()
    global gFreeze
    gFreeze = not args.no_freeze
    if args.cpu:
        use_thread_clock()
    if args.memory_probe:
        memory_probe(args.memory_probe, args.traced, args.limit)
        return
    skip = set(filter(None, args.skip.split(",")))
    paths = corpus_paths(args.limit)
    texts = read_bytes(paths)
    locs = remote_locations(paths, texts)
    print(machine_load())
    if "throughput" not in skip:
        compare_throughput(locs, texts, args.repeat)
    if "memory" not in skip:
        measure_memory(args.limit)
    if "single" not in skip:
        measure_single_scope(paths, texts)
    if "slices" not in skip:
        measure_slices(locs, f"{len(locs)} core files", args.trace)
        if args.full_sample:
            sample = fixed_sample(corpus_paths(full=True), args.full_sample)
            measure_slices(remote_locations(sample, read_bytes(sample)),
                           f"fixed-seed sample of {len(sample)} full-corpus files (seed {kSampleSeed})",
                           args.trace)
    print(machine_load())


if __name__ == "__main__":
    main()

"""Editing an open buffer: one edit inside a function, then the edited
function rescanned through the editor's standalone path, over the core
corpus, by file size.

    python bench/edit.py [--edits N] [--limit N] [--seed S] [--split] [--no-gc] [--cpu]

Each file is opened as an editor buffer and scanned once (which builds its
index); then N random edits (an assignment inserted ahead of a statement of
a function, or put in its place) are made one after the other, each timed
from SetText to the end of the rescan of the edited function.  Reported:
p50, p99 and the largest time per bucket of file size (goal: p99 <= 1 ms in
every bucket); with --split, SetText and the rescan apart; with --no-gc,
the garbage collector is off, which leaves its pauses out; with --cpu, the
times are the thread's processor time, which leaves out the time other
processes of a loaded machine take.
"""

import argparse
import gc
import os
import random
import sys
import time

from basekit.location import CLocalFileLocation

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from benchutil import corpus_paths, machine_load, quantile  # noqa: E402
from editutil import random_edit, statements_in_functions  # noqa: E402
from managerutil import installed_manager  # noqa: E402
from primary import rescan  # noqa: E402

# Upper bounds of the size buckets, in lines.
kBuckets = (200, 500, 1000, 2000, 4000, float("inf"))


def bucket_label(i):
    low = 0 if i == 0 else kBuckets[i - 1]
    high = kBuckets[i]
    return f"{low}+ lines" if high == float("inf") else f"{low}-{high} lines"


def time_edits(path, text, edits, rng, mgr, clock):
    """(SetText, rescan) times of `edits` edits of one file; empty when the
    file has no function to edit."""
    loc = CLocalFileLocation(path)
    ana = mgr.fCacheMgr.OpenAnalysis(loc, text)
    times = []
    try:
        statements = statements_in_functions(ana.fLogicalCache._fLogicalList)
        if not statements:
            return times
        rescan(loc, statements[0].fScopeName)
        for _ in range(edits):
            text, name = random_edit(rng, text, statements)
            start = clock()
            ana.SetText(text)
            middle = clock()
            rescan(loc, name)
            times.append((middle - start, clock() - middle))
            statements = statements_in_functions(ana.fLogicalCache._fLogicalList)
    finally:
        mgr.fCacheMgr.CloseAnalysis(loc)
    return times


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--edits", type=int, default=10, help="edits per file")
    ap.add_argument("--limit", type=int, default=None, help="the first N files of the corpus")
    ap.add_argument("--seed", default="edit bench")
    ap.add_argument("--split", action="store_true", help="also SetText and the rescan apart")
    ap.add_argument("--cpu", action="store_true", help="processor time rather than wall time")
    ap.add_argument("--no-gc", action="store_true", help="the garbage collector off")
    args = ap.parse_args()
    if args.no_gc:
        gc.disable()
    rng = random.Random(args.seed)
    clock = time.thread_time if args.cpu else time.perf_counter
    buckets = [[] for _ in kBuckets]
    files = [0] * len(kBuckets)
    with installed_manager() as mgr:
        for path in corpus_paths(args.limit):
            with open(path, encoding="utf-8") as f:
                text = f.read()
            i = next(i for i, high in enumerate(kBuckets) if text.count("\n") < high)
            times = time_edits(path, text, args.edits, rng, mgr, clock)
            buckets[i] += times
            files[i] += bool(times)
    ms = 1e3
    print(f"edit + rescan of the edited function, {args.edits} edits per file, "
          f"{'processor' if args.cpu else 'wall'} time (goal p99 <= 1 ms)")
    for i, times in enumerate(buckets):
        if not times:
            continue
        total = [a + b for a, b in times]
        line = (f"  {bucket_label(i):<16} {files[i]:4d} files  p50 {quantile(total, 0.5) * ms:6.3f} ms"
                f"  p99 {quantile(total, 0.99) * ms:6.3f} ms  max {max(total) * ms:6.3f} ms")
        if args.split:
            line += "".join(f"  | {label} p50 {quantile(part, 0.5) * ms:6.3f} p99 "
                            f"{quantile(part, 0.99) * ms:6.3f}"
                            for label, part in (("SetText", [a for a, _ in times]),
                                                ("rescan", [b for _, b in times])))
        print(line)
    print(machine_load())


if __name__ == "__main__":
    main()

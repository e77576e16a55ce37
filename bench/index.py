"""`pysource index` and the queries on its index, each run in a fresh
process, as a user runs them.

    python bench/index.py [--repeat N] [--jobs N] [--derived] [--keep DIR]

Rows (wall time is the best of N runs, peak is the writer's resident high
water mark; the corpora are given as file lists):
  index core / full / 2x core   primary pass, one process; "2x core" is two
                                copies of the core corpus.  Goals: peak
                                <= 150 MB, and 2x core's peak / core's peak
                                about 1.0 (memory doesn't grow with the files)
  index core -j N / -j 1        the same with N scanning processes, as a
                                speed-up (goal >= 1.7 on two cores)
  show NAME, stats              on the full corpus's index (goals: <= 0.3 s,
                                <= 80 MB), and beyond the start-up that
                                `pysource --version` takes
With --derived the index rows run the derived pass too.

Interleaved: every round runs each contender once, so a change in the
machine's load hits them alike.
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from benchutil import corpus_paths, machine_load  # noqa: E402

kMB = 1024 * 1024


def run_measured(argv):
    """(wall seconds, peak resident bytes) of one run of `argv`."""
    start = time.perf_counter()
    proc = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    if proc.returncode != 0:
        raise RuntimeError(f"{' '.join(argv[:4])} ... failed ({proc.returncode}): {err[-2000:]}")
    return wall, usage.ru_maxrss * 1024


def pysource(*args):
    return [sys.executable, "-m", "pysource", *args]


def copy_twice(paths, into):
    """Two copies of the files of `paths` below `into`; gives their paths."""
    root = os.path.commonpath(paths)
    out = []
    for copy in ("a", "b"):
        for path in paths:
            target = os.path.join(into, copy, os.path.relpath(path, root))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copyfile(path, target)
            out.append(target)
    return out


def index_argv(db, files, jobs, derived):
    extra = [] if derived else ["--primary-only"]
    return pysource("index", "-j", str(jobs), "--db", db, *extra, *files)


def measure_index(work, corpora, jobs, repeat, derived):
    """{(corpus, jobs): (best wall, peak)} of fresh index runs."""
    best = {}
    contenders = [(name, 1) for name in corpora] + [("core", jobs)]
    for round_ in range(repeat):
        for name, j in contenders:
            db = os.path.join(work, f"{name}-{j}.db")
            for suffix in ("", "-wal", "-shm"):
                if os.path.exists(db + suffix):
                    os.remove(db + suffix)
            wall, peak = run_measured(index_argv(db, corpora[name], j, derived))
            old = best.get((name, j), (float("inf"), 0))
            best[(name, j)] = (min(old[0], wall), max(old[1], peak))
    return best


def measure_queries(db, repeat):
    # The start-up alone (interpreter, imports, and in a development install
    # the rebuild check) is what a query costs beyond its own work.
    queries = {"start-up": pysource("--version"),
               "show NAME": pysource("show", "--db", db, "request"),
               "stats": pysource("stats", "--db", db)}
    best = dict.fromkeys(queries, (float("inf"), 0))
    for _ in range(repeat):
        for name, argv in queries.items():
            wall, peak = run_measured(argv)
            best[name] = (min(best[name][0], wall), max(best[name][1], peak))
    return best


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--derived", action="store_true")
    parser.add_argument("--keep", metavar="DIR", help="work in DIR and leave it")
    args = parser.parse_args()
    print(machine_load())
    work = args.keep or tempfile.mkdtemp(prefix="pysource-bench-index-")
    try:
        core = corpus_paths()
        corpora = {"core": core, "full": corpus_paths(full=True),
                   "2x core": copy_twice(core, os.path.join(work, "twice"))}
        best = measure_index(work, corpora, args.jobs, args.repeat, args.derived)
        print(f"pysource index, best of {args.repeat} (peak: the writer's resident memory)")
        for name, files in corpora.items():
            wall, peak = best[(name, 1)]
            print(f"  {name:<8} {len(files):5} files  {wall:7.2f} s  peak {peak / kMB:6.1f} MB"
                  f"  (goal <= 150 MB)")
        flat = best[("2x core", 1)][1] / best[("core", 1)][1]
        print(f"  peak 2x core / core               {flat:6.2f}  (goal ~1.0: flat)")
        speedup = best[("core", 1)][0] / best[("core", args.jobs)][0]
        print(f"  core -j {args.jobs} speed-up over -j 1       {speedup:6.2f}  (goal >= 1.7 on 2 cores)")
        queries = measure_queries(os.path.join(work, "full-1.db"), args.repeat)
        print(f"queries on the full corpus's index, best of {args.repeat}")
        startup = queries.pop("start-up")[0]
        for name, (wall, peak) in queries.items():
            print(f"  {name:<10} {wall:7.2f} s  peak {peak / kMB:6.1f} MB  (goal <= 0.3 s, <= 80 MB)"
                  f"  beyond start-up {wall - startup:5.2f} s")
        print(f"  start-up   {startup:7.2f} s  (pysource --version)")
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()

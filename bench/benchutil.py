"""What the benchmarks share: the corpus, its files in memory, best-of timing."""
import gc
import os
import subprocess
import symtable
import sys
import time

CORPUS_SCRIPT = os.environ.get("PYSOURCE_CORPUS", "/work/shared/corpus.py")


def corpus_paths(limit=None, full=False):
    """The corpus files, in the corpus script's order (the first `limit` of them)."""
    args = [sys.executable, CORPUS_SCRIPT] + (["--full"] if full else [])
    paths = subprocess.run(args, check=True, capture_output=True, text=True).stdout.split()
    return paths[:limit] if limit else paths


def read_bytes(paths):
    """The files' contents as bytes, so that timed code never reads the disk."""
    out = []
    for path in paths:
        with open(path, "rb") as fh:
            out.append(fh.read())
    return out


def best_of(repeat, func, *args):
    """(best wall time of `repeat` calls, result of the last call); the
    collector runs before each call so earlier garbage isn't charged to it."""
    best = float("inf")
    result = None
    for _ in range(repeat):
        gc.collect()
        start = time.perf_counter()
        result = func(*args)
        best = min(best, time.perf_counter() - start)
    return best, result


def interleaved_best(repeat, contenders, *args):
    """{name: (best wall time, result of its last call)} of the callables in
    `contenders` (name -> callable), each called with `args` once per round:
    a change in the machine's load hits every contender alike."""
    best = {}
    for _ in range(repeat):
        for name, func in contenders.items():
            gc.collect()
            start = time.perf_counter()
            result = func(*args)
            elapsed = time.perf_counter() - start
            best[name] = (min(elapsed, best.get(name, (float("inf"),))[0]), result)
    return best


def walk_symtable(_locs, texts):
    """Every table of every file, every symbol asked what it is: the peer's
    equivalent of a record per scope."""
    symbols = 0
    for text in texts:
        pending = [symtable.symtable(text, "<corpus>", "exec")]
        while pending:
            table = pending.pop()
            for sym in table.get_symbols():
                sym.is_assigned()
                sym.is_referenced()
                sym.is_imported()
                sym.is_parameter()
                symbols += 1
            pending.extend(table.get_children())
    return symbols


def quantile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(q * len(ordered)))]


def machine_load():
    one, five, _ = os.getloadavg()
    return f"load average {one:.2f} (1 min) {five:.2f} (5 min) on {os.cpu_count()} cores"


def resident_bytes():
    with open("/proc/self/statm") as fh:
        return int(fh.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def peak_resident_bytes():
    # The high-water mark of this process's own memory (getrusage's would
    # carry the parent's over from before exec).
    with open("/proc/self/status") as fh:
        for line in fh:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    raise RuntimeError("/proc/self/status has no VmHWM")

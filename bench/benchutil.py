"""What the benchmarks share: the corpus, its files in memory, best-of timing."""
import contextlib
import gc
import os
import random
import subprocess
import symtable
import sys
import time

CORPUS_SCRIPT = os.environ.get("PYSOURCE_CORPUS", "/work/shared/corpus.py")
kSampleSeed = 20261123


def corpus_paths(limit=None, full=False):
    """The corpus files, in the corpus script's order (the first `limit` of them)."""
    args = [sys.executable, CORPUS_SCRIPT] + (["--full"] if full else [])
    paths = subprocess.run(args, check=True, capture_output=True, text=True).stdout.split()
    return paths[:limit] if limit else paths


def fixed_sample(paths, count):
    """`count` of `paths` chosen with a fixed seed, in corpus order."""
    if count >= len(paths):
        return list(paths)
    chosen = set(random.Random(kSampleSeed).sample(range(len(paths)), count))
    return [p for i, p in enumerate(paths) if i in chosen]


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


class CCollectorWatch:
    """Notes every garbage collection while installed (as a context
    manager): `fPauses` the processor time of each, `Since(mark)` a short
    text of those that ran after `mark = len(watch.fPauses)`."""

    def __init__(self):
        self.fPauses = []         # seconds of each collection
        self.fGenerations = []    # its generation
        self._fStarted = 0.0

    def __enter__(self):
        gc.callbacks.append(self._Note)
        return self

    def __exit__(self, *_exc):
        gc.callbacks.remove(self._Note)

    def _Note(self, phase, info):
        if phase == "start":
            self._fStarted = time.thread_time()
        else:
            self.fPauses.append(time.thread_time() - self._fStarted)
            self.fGenerations.append(info["generation"])

    def Since(self, mark):
        return " ".join(f"gen{g} {p * 1e3:.1f} ms"
                        for g, p in zip(self.fGenerations[mark:], self.fPauses[mark:]))


def use_thread_clock():
    """Makes this thread's processor time the scanners' clock: on a loaded
    machine, deadlines and lateness then leave out the time others ran."""
    from pysource import _fastaccess
    setattr(_fastaccess, "__TimeFunc", time.thread_time)


def frozen_start_up(enabled=True):
    """The block run as the `pysource` command runs its scans: what was made
    before it left out of the garbage collector's walks (or, not `enabled`,
    as a host that leaves the collector as it is)."""
    from pysource import cli
    frozen = getattr(cli, "StartUpFrozen", None)   # builds before it had none
    if enabled and frozen is None:
        sys.stderr.write("this build's pysource command freezes nothing: run unfrozen\n")
    return frozen() if enabled and frozen is not None else contextlib.nullcontext()

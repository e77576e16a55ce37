"""What the benchmarks share: the corpus, its files in memory, best-of timing."""
import gc
import os
import subprocess
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

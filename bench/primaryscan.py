"""Time of the whole-file primary scan of the core corpus (one record per
scope, into an in-memory info cache), side by side with the standard
library's ast.parse plus a walk that collects each scope's names, over the
same files.

    python bench/primaryscan.py [--repeat N] [--limit N]
"""
import argparse
import ast
import math
import os
import subprocess
import sys
import time

from basekit.location import CLocalFileLocation
from pysource import manager, scopescanner


def corpus_paths():
    script = os.environ.get("PYSOURCE_CORPUS", "/work/shared/corpus.py")
    out = subprocess.run([sys.executable, script], check=True, capture_output=True, text=True)
    return out.stdout.split()


def primary_scan(paths):
    """Scans every file with a fresh manager; gives the number of records."""
    mgr = manager.CAnalysisMgr()
    previous = manager.SetAnalysisMgr(mgr)
    records = 0
    try:
        for path in paths:
            scanner = scopescanner.CWholeFilePrimaryScanner(CLocalFileLocation(path),
                                                            mgr.fPrimaryScanName)
            while scanner.Scan(math.inf) is scopescanner.kTimedOut:
                pass
            records += len(scanner._fAllScopeNames)
            scanner.destroy()
    finally:
        manager.SetAnalysisMgr(previous)
        mgr.destroy()
    return records


class ScopeNames(ast.NodeVisitor):
    """Collects the names each scope binds and reads: the peer's equivalent
    of a primary record."""

    def __init__(self):
        self.scopes = [{}]
        self.count = 0

    def scoped(self, node):
        self.scopes[-1][node.name] = node
        self.scopes.append({})
        self.generic_visit(node)
        self.scopes.pop()
        self.count += 1

    visit_FunctionDef = visit_AsyncFunctionDef = visit_ClassDef = scoped

    def visit_Name(self, node):
        self.scopes[-1].setdefault(node.id, node)


def ast_scan(paths):
    count = 0
    for path in paths:
        with open(path, "rb") as fh:
            tree = ast.parse(fh.read())
        visitor = ScopeNames()
        visitor.visit(tree)
        count += visitor.count + 1
    return count


def best_of(repeat, func, *args):
    best = None
    result = None
    for _ in range(repeat):
        start = time.perf_counter()
        result = func(*args)
        elapsed = time.perf_counter() - start
        best = elapsed if best is None else min(best, elapsed)
    return best, result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3, help="runs per contender (best is kept)")
    parser.add_argument("--limit", type=int, default=0, help="scan only the first N files")
    args = parser.parse_args()

    paths = corpus_paths()
    if args.limit:
        paths = paths[: args.limit]
    size = sum(os.path.getsize(p) for p in paths)
    print(f"{len(paths)} files, {size / 1e6:.1f} MB")
    ours, records = best_of(args.repeat, primary_scan, paths)
    peer, scopes = best_of(args.repeat, ast_scan, paths)
    print(f"primary scan        {ours:8.3f} s  {records} records (scopes and instances)")
    print(f"ast.parse + walk    {peer:8.3f} s  {scopes} scopes")
    print(f"ratio primary/ast   {ours / peer:8.2f}")


if __name__ == "__main__":
    main()

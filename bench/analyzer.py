"""Statement analyzer speed: every logical of the core corpus, side by side with
`ast.parse` of the same files in memory.

    python bench/analyzer.py [--repeat N]

The logicals are built before the clock starts (the analyzer's job starts at a
logical); each run analyses fresh logicals, since analysis is kept on them.
Prints both times and their ratio (goal: the analyzer at most half of ast.parse).
"""
import argparse
import ast
import subprocess
import sys
import time

from pysource.filellinecache import BuildLogicalLines
from pysource.pgeninspect import CPGenAnalyzer
from benchutil import corpus_paths, read_bytes




def time_ast(sources):
    start = time.perf_counter()
    for src in sources:
        ast.parse(src)
    return time.perf_counter() - start


def time_analyzer(sources):
    logicals = [l for src in sources for l in BuildLogicalLines(src)]
    analyzer = CPGenAnalyzer()
    analyze = analyzer.AnalyzeSingleLogical
    start = time.perf_counter()
    for logical in logicals:
        analyze(logical, True)
    return time.perf_counter() - start, len(logicals)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    sources = [b.decode("utf-8") for b in read_bytes(corpus_paths())]
    ast_times, ana_times = [], []
    count = 0
    for _ in range(args.repeat):
        ast_times.append(time_ast(sources))
        t, count = time_analyzer(sources)
        ana_times.append(t)
    a, b = min(ast_times), min(ana_times)
    print(f"{len(sources)} files, {count} logicals, best of {args.repeat}")
    print(f"ast.parse           {a:8.3f} s")
    print(f"AnalyzeSingleLogical {b:7.3f} s")
    print(f"ratio analyzer/ast  {b / a:8.3f}")


if __name__ == "__main__":
    main()

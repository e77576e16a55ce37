"""Splitting a file into scope bodies, both from the source text: logical
lines and the body finder beside the standard library's parser collecting the
same bodies from a syntax tree (best of interleaved rounds).

Run by hand: python bench/bench_bodyfinder.py [repeats]
Prints logicals per second for both and their ratio; no pass/fail.
"""

import ast
import sys
import time

from pysource import scopescanner as ss
from pysource.filellinecache import BuildLogicalLines
from benchutil import interleaved_best


def make_source(classes=300, methods=8):
    parts = ["import os\n", "CONST = 1\n"]
    for c in range(classes):
        parts.append(f"class C{c}(object):\n    attr = {c}\n")
        for m in range(methods):
            parts.append(
                f"    # method {m}\n"
                f"    @property\n"
                f"    def m{m}(self, x=1):\n"
                f"        y = x + {m}\n"
                f"        def inner():\n"
                f"            return y\n"
                f"        return inner()\n"
            )
        parts.append(f"def f{c}(a, b):\n    return a + b\n")
    return "".join(parts)


def finder_bodies(source):
    logicals = BuildLogicalLines(source)
    finder = ss._CScopeBodyFinder(logicals, -1, False)
    finder.ProcessUntilEnd()
    count = 0
    while finder.PopCompletedScopeBody() is not None:
        count += 1
    finder.destroy()
    return count


def parser_bodies(source):
    tree = ast.parse(source)
    scopes = (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)
    return 1 + sum(isinstance(node, scopes) for node in ast.walk(tree))



def main():
    repeats = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    source = make_source()
    best = interleaved_best(repeats, {"finder": finder_bodies, "parser": parser_bodies}, source)
    (finder_time, finder_count), (parser_time, parser_count) = best["finder"], best["parser"]
    assert finder_count == parser_count, (finder_count, parser_count)
    logicals = BuildLogicalLines(source)
    n = len(logicals)
    print(f"{n} logicals, {finder_count} scopes")
    print(f"logicals + finder    {n / finder_time:12.0f} logicals/s")
    print(f"stdlib parse + walk  {n / parser_time:12.0f} logicals/s")
    print(f"ratio (finder/parser speed): {parser_time / finder_time:.1f}x")


if __name__ == "__main__":
    main()

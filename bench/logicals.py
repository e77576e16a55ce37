"""Time to build the logical lines of the core corpus, side by side with the
standard library's tokenize.generate_tokens and ast.parse over the same
files, all held in memory.

    python bench/logicals.py [--repeat N]
"""
import argparse
import ast
import io
import os
import subprocess
import sys
import time
import tokenize

from pysource.filellinecache import BuildLogicalLines, DecodeSource
from benchutil import best_of, corpus_paths




def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3, help="runs per contender (best is kept)")
    args = parser.parse_args()

    paths = corpus_paths()
    blobs = []
    for path in paths:
        with open(path, "rb") as fh:
            blobs.append(fh.read())
    texts = [DecodeSource(b)[0] for b in blobs]
    size = sum(len(b) for b in blobs)
    print(f"{len(blobs)} files, {size / 1e6:.1f} MB")

    count = [0]

    def logicals():
        count[0] = sum(len(BuildLogicalLines(b)) for b in blobs)

    def tokens():
        for t in texts:
            for _ in tokenize.generate_tokens(io.StringIO(t).readline):
                pass

    def parse():
        for t in texts:
            ast.parse(t)

    t_logicals, _ = best_of(args.repeat, logicals)
    t_tokenize, _ = best_of(args.repeat, tokens)
    t_ast, _ = best_of(args.repeat, parse)
    print(f"logicals (decode + tokenize + join + kinds + scopes): {t_logicals:7.3f} s "
          f"({count[0]} logicals)")
    print(f"tokenize.generate_tokens:                            {t_tokenize:7.3f} s")
    print(f"ast.parse:                                           {t_ast:7.3f} s")
    print(f"tokenize / logicals = {t_tokenize / t_logicals:5.1f}x   (goal >= 5x)")
    print(f"logicals / ast.parse = {t_logicals / t_ast:5.2f}    (goal <= 0.5)")


if __name__ == "__main__":
    main()

"""Time to split the argument lists of every call-like statement of the core
corpus at top-level commas with CNonNestedSearch, side by side with the
standard library's tokenize doing the same split (tracking bracket depth over
its tokens), over the same texts held in memory.  The counts differ a little: the search
doesn't skip comments, and tokenize gives up on lines that continue a
statement.

    python bench/nonnested.py [--repeat N] [--limit FILES]
"""
import argparse
import io
import os
import subprocess
import sys
import time
import tokenize

from pysource._fastaccess import CNonNestedSearch
from benchutil import best_of, corpus_paths




def split_with_search(lines):
    search = CNonNestedSearch()
    count = 0
    for line in lines:
        search.InitWith(line, b",", 0, len(line))
        while search.FindNext() != -1:
            count += 1
    return count


def split_with_tokenize(lines):
    count = 0
    for line in lines:
        depth = 0
        try:
            for tok in tokenize.generate_tokens(io.StringIO(line.decode()).readline):
                if tok.type == tokenize.OP:
                    if tok.string in "([{":
                        depth += 1
                    elif tok.string in ")]}":
                        depth -= 1
                    elif tok.string == "," and depth == 0:
                        count += 1
        except (tokenize.TokenError, SyntaxError, IndentationError):
            pass
    return count


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--limit", type=int, default=300, help="files of the corpus to use")
    args = parser.parse_args()

    lines = []
    for path in corpus_paths()[:args.limit]:
        try:
            with open(path, "rb") as f:
                data = f.read()
        except OSError:
            continue
        # one statement line at a time, with its indentation stripped
        lines.extend(l.strip() for l in data.splitlines() if l.strip() and b"," in l)
    total = sum(len(l) for l in lines)
    print(f"{len(lines)} lines with a comma, {total / 1e6:.1f} MB")

    fast, fast_count = best_of(args.repeat, lambda: split_with_search(lines))
    slow, slow_count = best_of(args.repeat, lambda: split_with_tokenize(lines))
    print(f"CNonNestedSearch   {fast:8.3f} s  {fast_count} top-level commas")
    print(f"tokenize + depth   {slow:8.3f} s  {slow_count} top-level commas")
    print(f"ratio tokenize / CNonNestedSearch: {slow / fast:.1f}x")


if __name__ == "__main__":
    main()

"""The `pysource` command."""

import argparse
import os
import sys


def _readable_token(tok):
    return tok.replace("\\", "\\\\").replace("\r", "\\r").replace("\n", "\\n")


def _cmd_logicals(args):
    from pysource.filellinecache import CFileLogicalLineCache

    path = args.file
    if not os.path.isfile(path):
        print(f"pysource: no such file: {path}", file=sys.stderr)
        return 2
    cache = CFileLogicalLineCache(os.path.abspath(path))
    try:
        if not cache.Update():
            print(f"pysource: cannot read {path}", file=sys.stderr)
            return 2
        out = sys.stdout
        for i, logical in enumerate(cache._fLogicalList):
            lines = f"{logical.fFirstLine}+{logical.fLineCount - 1}"
            local = logical.fLocalScopeName if logical.fLocalScopeName is not None else "-"
            scope = logical.fScopeName or "<module>"
            flags = " incomplete" if logical.fIncomplete else ""
            toks = " ".join(_readable_token(t) for t in logical.fToks)
            out.write(f"{i:5} {logical.fType:<20} line {lines:<7} indent {logical.fIndentLevel:<3} "
                      f"scope {scope} local {local}{flags}: {toks}\n")
        for line, offset, message in cache.fDecodeErrors:
            print(f"pysource: {path}:{line}: decode error at byte {offset}: {message}",
                  file=sys.stderr)
    finally:
        cache.destroy()
    return 0


def _build_parser():
    parser = argparse.ArgumentParser(prog="pysource",
                                     description="Scanning core of a Python code-analysis engine.")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    sub.required = True
    logicals = sub.add_parser("logicals", help="print the logical lines of a Python file")
    logicals.add_argument("file", metavar="FILE")
    logicals.set_defaults(run=_cmd_logicals)
    return parser


def main(argv=None):
    parser = _build_parser()
    args = parser.parse_args(argv)
    try:
        return args.run(args)
    except BrokenPipeError:
        return 1


if __name__ == "__main__":
    sys.exit(main())

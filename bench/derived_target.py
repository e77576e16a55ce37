"""One file's derived scan inside the full-corpus derived pass and alone: the
pass over every full-corpus file before it (in corpus order, or a fixed-seed
sample of them) followed by the file, then the file by itself, each in a
fresh manager, scanners timed by this thread's processor time.

    python bench/derived_target.py SUFFIX [--before N] [--only pass|alone]

SUFFIX     the end of the target file's path (`test/test_ssl.py`)
--before   a fixed-seed sample of N of the files before it (0: all of them)

Printed per run: files, the derived pass's seconds, the target's seconds
inside its Scan calls, derived scopes, and the slowest files.  A file much
slower in the pass than alone reads what the files before it recorded
(callers' values) or what the engine kept from them.
"""
import argparse
import os
import sys
import tempfile

import secondary
from benchutil import corpus_paths, fixed_sample, use_thread_clock


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("suffix")
    parser.add_argument("--before", type=int, default=0)
    parser.add_argument("--only", choices=("pass", "alone"))
    args = parser.parse_args()
    use_thread_clock()
    full = corpus_paths(full=True)
    at = next((i for i, path in enumerate(full) if path.endswith(args.suffix)), None)
    if at is None:
        sys.exit(f"no full-corpus file ends in {args.suffix}")
    before = fixed_sample(full[:at], args.before) if args.before else full[:at]
    runs = [("in pass", before + [full[at]]), ("alone", [full[at]])]
    for label, chosen in runs:
        if args.only and not label.endswith(args.only):
            continue
        with tempfile.TemporaryDirectory(prefix="pysource-bench-target-") as folder:
            paths = secondary.copy_corpus(chosen, folder)
            result = secondary.run_derived_pass(paths, secondary.kSliceSeconds, 300.0)
            seconds = result.fLog.fFileSeconds
            print(f"{label}: {len(paths)} files, pass {result.fSeconds:.2f} s, target "
                  f"{seconds.get(paths[-1], 0.0):.2f} s, {result.fLog.fScopes} scopes", flush=True)
            for path, spent in sorted(seconds.items(), key=lambda item: -item[1])[:5]:
                print(f"    {spent:7.2f} s  {os.path.relpath(path, folder)}", flush=True)


if __name__ == "__main__":
    main()

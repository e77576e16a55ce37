"""Agreement of the inference engine with the evaluation set in
tests/inference_eval/: per file the number of expectations, exact matches,
loose matches (type arguments ignored) and incomplete answers, then every
miss with what the engine said.

    python bench/infer_eval.py [FEATURE ...] [--seconds S] [--verify] [--jedi] [--quiet]
    python bench/infer_eval.py --cases DIR [--seconds S] [--quiet]
    python bench/infer_eval.py --peer-cases DIR [--seconds S] [--quiet]

FEATURE    only the expectations of these files (`flow`, `pkg/relative`, ...)

--verify   also run the files and say how many expectations the running
           program confirms (and list any it contradicts)
--jedi     also ask jedi at every expectation and list where it disagrees
           (a second opinion for reviewing the set; expectations follow
           Python's semantics and the stubs, not any tool)
--quiet    the table only, without the misses
--cases    instead of the set, score the `assert_type(EXPR, T)` lines of the
           Python files under DIR: per file exact / superset / wrong / empty
           answers by classes ("args ok": the type arguments the engine gives
           agree too), the cases left out (T is Any, Never, Callable, a type
           variable ...) and every miss
--peer-cases  instead of the set, score the `#? [COLUMN] T1 T2` expectation
           lines of the Python files under DIR (another analyser's test
           files, see tests/peercases.py): per file exact / superset / subset
           / wrong / empty answers by classes, the cases left out and why,
           then the misses grouped by verdict and kind of expectation
"""

import argparse
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))

import inferevalset  # noqa: E402
import peercases  # noqa: E402


def _rel(path):
    return os.path.relpath(path, inferevalset.kEvalDir)


def _Selected(args):
    exps = inferevalset.ReadExpectations()
    return [e for e in exps if not args.features or e.feature in args.features]


def ScoreExpectations(expectations, seconds, quiet, folder=inferevalset.kEvalDir,
                      feature_of=lambda exp: exp.feature):
    """Indexes `folder`, scores `expectations` (of its files) and prints the
    table by `feature_of(expectation)`, then unless `quiet` every miss
    ([loose] when the classes agree without type arguments)."""
    from pysource import manager
    mgr = manager.CAnalysisMgr(db_path=None)
    try:
        start = time.perf_counter()
        inferevalset.IndexFolder(mgr, folder)
        indexed = time.perf_counter()
        scores = inferevalset.ScoreAll(mgr, expectations, seconds)
        done = time.perf_counter()
    finally:
        mgr.destroy()
    print(inferevalset.FormatTable(inferevalset.Table(scores, feature_of)))
    print(f"\nindexed in {indexed - start:.2f}s, resolved {len(scores)} expressions "
          f"in {done - indexed:.2f}s")
    if quiet:
        return
    misses = [s for s in scores if not s.exact]
    print(f"\n{len(misses)} misses:")
    for s in misses:
        exp = s.expectation
        mark = "" if s.complete else " (incomplete)"
        verdict = "loose" if s.loose else "miss"
        print(f"  {os.path.relpath(exp.path, folder)}:{exp.line}: {exp.expr}  [{verdict}]\n"
              f"      expected {' | '.join(exp.expected)}\n"
              f"      got      {' | '.join(s.got) or '(nothing)'}{mark}")


def _Score(args):
    ScoreExpectations(_Selected(args), args.seconds, args.quiet)


def _Verify():
    exps = inferevalset.ReadExpectations()
    result = inferevalset.VerifyByRunning(exps)
    print(f"\nrunning the files: {len(result['verified'])} of {len(exps)} expectations "
          f"confirmed ({result['exact']} with the very text, the others by the class "
          f"without type arguments or a subclass), {len(result['refuted'])} contradicted, "
          f"{len(result['unreached'])} never reached")
    for exp, seen in result["refuted"]:
        print(f"  CONTRADICTED {_rel(exp.path)}:{exp.line}: {exp.expr}: expected "
              f"{' | '.join(exp.expected)}, ran as {', '.join(o[0] for o in seen)}")


def JediText(name):
    full = name.full_name or name.name
    if full.startswith("builtins."):
        full = full[len("builtins."):]
    if full == "NoneType":
        return "None"
    if name.type == "module":
        return f"module {full}"
    if name.type == "class":
        return f"type[{full}]"
    if name.type == "function":
        return f"def {full}"
    return full


def _Jedi():
    import jedi
    exps = inferevalset.ReadExpectations()
    project = jedi.Project(inferevalset.kEvalDir)
    agree = 0
    disagreements = []
    scripts = {}
    for exp in exps:
        script = scripts.get(exp.path)
        if script is None:
            script = scripts[exp.path] = jedi.Script(path=exp.path, project=project)
        with open(exp.path, encoding="utf-8") as f:
            line = f.read().splitlines()[exp.line - 1]
        column = line.index(exp.expr) + len(exp.expr)
        module = inferevalset._ModuleNameOf(exp.path)
        try:
            names = script.infer(exp.line, column)
        except Exception as err:  # noqa: BLE001 - jedi's own faults are only reported
            disagreements.append((exp, f"jedi failed: {err}"))
            continue
        got = sorted({inferevalset.Loose(JediText(n)).replace(f"{module}.", "")
                      .replace("__main__.", "") for n in names})
        want = sorted({inferevalset.Loose(t) for t in exp.expected})
        if got == want:
            agree += 1
        else:
            disagreements.append((exp, " | ".join(got) or "(nothing)"))
    print(f"\njedi {jedi.__version__}: agrees (type arguments ignored) on {agree} of {len(exps)}")
    for exp, got in disagreements:
        print(f"  {_rel(exp.path)}:{exp.line}: {exp.expr}: expected "
              f"{' | '.join(exp.expected)}, jedi {got}")


def _PrintVerdicts(scores, folder, columns, extra_counts):
    """Per file of `folder` and in total: cases, cases left out, the count of
    each verdict and of `extra_counts(score)` in `columns`, incomplete
    answers; then the share of exact ones and why cases were left out."""
    from collections import Counter
    rows = {}
    for s in scores:
        row = rows.setdefault(os.path.relpath(s.case.path, folder), Counter())
        row["cases"] += 1
        if s.left_out:
            row["left out"] += 1
            continue
        row[s.verdict] += 1
        row.update(extra_counts(s))
        row["incompl"] += not s.complete
    columns = ("cases", "left out", *columns, "incompl")
    print(f"{'file':<36}" + "".join(f"{c:>9}" for c in columns))
    total = Counter()
    for name, row in rows.items():
        total.update(row)
        print(f"{name:<36}" + "".join(f"{row[c]:>9}" for c in columns))
    print(f"{'total':<36}" + "".join(f"{total[c]:>9}" for c in columns))
    scored = total["cases"] - total["left out"]
    if scored:
        print(f"\nexact {100.0 * total['exact'] / scored:.1f}% of {scored} scored cases")
    reasons = Counter(s.left_out for s in scores if s.left_out)
    print("left out: " + ", ".join(f"{why} {n}" for why, n in reasons.most_common()))


def _ExpectedKind(expected):
    """What a peer case expects: nothing, instances, classes, functions,
    modules, or a mix."""
    kinds = {"class" if t.startswith("type[") else "function" if t.startswith("def ")
             else "module" if t.startswith("module ") else "instance" for t in expected}
    return "nothing" if not kinds else kinds.pop() if len(kinds) == 1 else "mixed"


def _ScorePeerCases(args):
    from pysource import manager
    folder = os.path.abspath(args.peer_cases)
    cases = peercases.ReadPeerCases(folder)
    mgr = manager.CAnalysisMgr(db_path=None)
    try:
        # The files import each other as top modules, as when run from DIR
        # (which is a package itself); they read parameters as what callers
        # pass: derived scans too.
        mgr.fInferenceEngine._fNativeEngine.fModuleFinder.AddRoot(folder)
        inferevalset.IndexFolder(mgr, folder, derived=True)
        scores = peercases.ScorePeerCases(mgr, cases, args.seconds)
    finally:
        mgr.destroy()
    _PrintVerdicts(scores, folder, ("exact", "superset", "subset", "wrong", "empty"),
                   lambda s: {})
    if args.quiet:
        return
    groups = {}
    for s in scores:
        if not s.left_out and s.verdict != "exact":
            key = (s.verdict, _ExpectedKind(s.expected))
            groups.setdefault(key, []).append(s)
    for (verdict, kind), group in sorted(groups.items(), key=lambda kv: -len(kv[1])):
        print(f"\n{verdict}, expecting {kind}: {len(group)}")
        for s in group:
            mark = "" if s.complete else " (incomplete)"
            target = " (target)" if s.case.target else ""
            print(f"  {os.path.relpath(s.case.path, folder)}:{s.case.line}:{s.case.column}: "
                  f"{s.case.expr}{target}\n      expected {' | '.join(s.expected) or '(nothing)'}\n"
                  f"      got      {' | '.join(s.got) or '(nothing)'}{mark}")


def _ScoreCases(args):
    from pysource import manager
    folder = os.path.abspath(args.cases)
    cases = inferevalset.ReadAssertTypes(folder)
    mgr = manager.CAnalysisMgr(db_path=None)
    try:
        inferevalset.IndexFolder(mgr, folder)
        scores = inferevalset.ScoreAssertTypes(mgr, cases, args.seconds)
    finally:
        mgr.destroy()
    _PrintVerdicts(scores, folder, ("exact", "args ok", "superset", "wrong", "empty"),
                   lambda s: {"args ok": s.arguments_agree})
    if not args.quiet:
        for s in scores:
            if s.left_out or s.verdict == "exact":
                continue
            mark = "" if s.complete else " (incomplete)"
            print(f"  {os.path.relpath(s.case.path, folder)}:{s.case.line}: {s.case.expr}  "
                  f"[{s.verdict}]\n      expected {' | '.join(s.expected)}\n"
                  f"      got      {' | '.join(s.got) or '(nothing)'}{mark}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("features", nargs="*", metavar="FEATURE")
    parser.add_argument("--seconds", type=float, default=2.0, help="time per resolve")
    parser.add_argument("--verify", action="store_true")
    parser.add_argument("--jedi", action="store_true")
    parser.add_argument("--quiet", action="store_true")
    parser.add_argument("--cases", metavar="DIR")
    parser.add_argument("--peer-cases", metavar="DIR")
    args = parser.parse_args()
    if args.peer_cases:
        _ScorePeerCases(args)
        return
    if args.cases:
        _ScoreCases(args)
        return
    _Score(args)
    if args.verify:
        _Verify()
    if args.jedi:
        _Jedi()


if __name__ == "__main__":
    main()

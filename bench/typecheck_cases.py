"""Agreement of the inference engine with the revealed types of a type
checker's published test data (`check-*.test` files of `[case NAME]` blocks,
each a program whose `reveal_type(EXPR)  # N: Revealed type is "T"` lines say
what the checker makes of EXPR).

    python bench/typecheck_cases.py SRC [--out DIR] [--seconds S] [--quiet]
    python bench/typecheck_cases.py SRC --out DIR --convert-only

SRC is the folder of the `check-*.test` files.  Each kept case becomes a
folder DIR/<test file>/<case>/ with `main.py` (the case's program, every kept
reveal line turned into `EXPR  # expect: T`) and the case's other `[file ...]`
modules beside it; the set is then scored like tests/inference_eval
(bench/infer_eval.py): per test file the expectations, exact and loose
matches (type arguments ignored) and incomplete answers, then the misses.

The checker states the declared or inferred type, the engine the values that
can reach the line: cases are kept only where the two can be compared.  Left
out, and counted by reason: cases the checker skips, cases that expect errors,
need flags, configuration or plugins, run in several steps or import the
checker's own modules; reveal lines not alone on their line or in stubs;
answers that are Any, Never, type variables, callable signatures, TypedDicts,
intersections and other forms without a class.  Literal types count as the
literal's class (`Literal[1]?` is `int`), `type[None]` as NoneType's class.
"""

import argparse
import collections
import dataclasses
import os
import re
import shutil
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))

import infer_eval  # noqa: E402
import inferevalset  # noqa: E402

_kSection = re.compile(r"^\[(case|file|out\d*|builtins|typing|stale\d*|rechecked\d*|targets\d*|"
                       r"delete|outfile|fixture|builtins_py2)\b ?(.*?)\]\s*$")
_kReveal = re.compile(r"^(\s*)reveal_type\((.*)\)\s*#\s*N:\s*Revealed type is \"(.*)\"(\s*(?:#.*|\\)?)$")
# Flags that only add or drop error reports: the types stay those of the
# default run.
_kHarmlessFlags = ("--warn-", "--no-warn-", "--strict-equality", "--enable-error-code",
                   "--disable-error-code", "--python-version", "--show-", "--hide-",
                   "--disallow-", "--extra-checks", "--strict", "--check-untyped-defs",
                   "--pretty", "--no-error-summary", "--fast-module-lookup",
                   "--strict-optional", "--no-implicit-reexport", "--namespace-packages")
# Modules only the checker's own runtime provides.
_kCheckerModules = re.compile(r"^\s*(from|import)\s+(mypy_extensions|mypy\b|native_internal)",
                              re.MULTILINE)


class CUnscored(Exception):
    """A revealed type the engine's answers can't be compared with."""


@dataclasses.dataclass
class CCase:
    test_file: str      # stem of the .test file
    name: str
    main: list          # lines of the program
    files: dict         # relative path -> lines
    sections: list      # names of the other sections ("out", "out2", ...)
    out: list           # lines of the [out] section


def ReadCases(path):
    """The cases of one `.test` file."""
    stem = os.path.splitext(os.path.basename(path))[0]
    cases = []
    current = lines = None
    with open(path, encoding="utf-8") as f:
        for raw in f.read().splitlines():
            match = _kSection.match(raw)
            if match is None:
                if lines is not None:
                    lines.append(raw)
                continue
            kind, arg = match.groups()
            if kind == "case":
                current = CCase(stem, arg.strip(), [], {}, [], [])
                cases.append(current)
                lines = current.main
            elif current is None:
                lines = None
            elif kind == "file":
                lines = current.files.setdefault(arg.strip(), [])
            elif kind == "out":
                current.sections.append(kind)
                lines = current.out
            else:
                current.sections.append(kind)
                lines = None
    return cases


def _CaseLeftOut(case):
    """Why the whole case is left out, or ""."""
    name = case.name
    if re.search(r"-(skip|xfail)\b", name):
        return "skipped by the checker"
    flags = next((line for line in case.main if line.startswith("# flags:")), None)
    if flags is not None:
        for flag in flags[len("# flags:"):].split():
            if flag.startswith("--") and not flag.startswith(_kHarmlessFlags):
                return "needs flags"
    everything = case.main + [line for lines in case.files.values() for line in lines]
    if any(re.search(r"#\s*[EW]:", line) for line in everything) or \
            any(": error:" in line for line in case.out):
        return "expects errors"
    if any(s not in ("out", "builtins", "typing") for s in case.sections) or \
            any(not p.endswith((".py", ".pyi")) for p in case.files):
        return "several steps, configuration or plugins"
    if any(line.startswith("# mypy:") for line in everything):
        return "needs flags"
    text = "\n".join(everything)
    if _kCheckerModules.search(text):
        return "imports the checker's own modules"
    return ""


# The checker's type spellings

_kTypeToken = re.compile(r"""\s*(?:
    (?P<str>b?'(?:\\.|[^'\\])*'|b?"(?:\\.|[^"\\])*")
  | (?P<num>-?\d[\d.e+-]*j?)
  | (?P<ellipsis>\.\.\.)
  | (?P<name>[A-Za-z_][\w.`-]*)
  | (?P<op>->|\*\*|[\[\],|()=?*:{}])
)""", re.VERBOSE)
_kBareUnscored = {"Any": "Any", "Never": "Never", "NoReturn": "Never", "Uninhabited": "Never"}
_kLiteralClasses = {"True": "bool", "False": "bool", "None": "None"}


class _CTypeParser:
    def __init__(self, text, home):
        self.home = home          # the module whose classes go unqualified
        self.tokens = []
        pos = 0
        text = text.strip()
        while pos < len(text):
            match = _kTypeToken.match(text, pos)
            if match is None or match.end() == pos:
                raise CUnscored("type of an unknown form")
            self.tokens.append((match.lastgroup, match.group(match.lastgroup).strip()))
            pos = match.end()
        self.i = 0

    def Peek(self):
        return self.tokens[self.i][1] if self.i < len(self.tokens) else ""

    def Take(self, text=None):
        if self.i >= len(self.tokens) or (text is not None and self.tokens[self.i][1] != text):
            raise CUnscored("type of an unknown form")
        self.i += 1
        return self.tokens[self.i - 1]

    def Whole(self):
        text = self.Union()
        if self.i != len(self.tokens):
            raise CUnscored("type of an unknown form")
        return text

    def Union(self):
        parts = [self.Atom()]
        while self.Peek() == "|":
            self.Take()
            parts.append(self.Atom())
        return inferevalset.Normalise(" | ".join(parts))

    def Args(self):
        """The items between brackets, as texts; keyword items by name."""
        self.Take("[")
        items = []
        while self.Peek() != "]":
            if self.i + 1 < len(self.tokens) and self.tokens[self.i + 1][1] == "=":
                key = self.Take()[1]
                self.Take("=")
                items.append((key, self.Union()))
            elif self.Peek() == "...":
                self.Take()
                items.append((None, "..."))
            elif self.Peek() == "(":              # an empty tuple of arguments
                self.Take()
                self.Take(")")
                items.append((None, "()"))
            elif self.Peek() == "[":
                raise CUnscored("ParamSpec")
            else:
                items.append((None, self.Union()))
            if self.Peek() == ",":
                self.Take()
        self.Take("]")
        return items

    def Literal(self):
        self.Take("[")
        classes = []
        while self.Peek() != "]":
            kind, text = self.Take()
            if kind == "str":
                classes.append("bytes" if text.startswith("b") else "str")
            elif kind == "num":
                classes.append("float" if "." in text else "int")
            elif kind == "name" and text in _kLiteralClasses:
                classes.append(_kLiteralClasses[text])
            elif kind == "name" and "." in text:
                classes.append(_ClassName(text.rsplit(".", 1)[0], self.home))  # an enum member
            else:
                raise CUnscored("type of an unknown form")
            if self.Peek() == ",":
                self.Take()
        self.Take("]")
        return " | ".join(classes)

    def Atom(self):
        kind, text = self.Take()
        if kind != "name":
            raise CUnscored("type of an unknown form")
        if text.startswith("def") or text == "Overload":
            raise CUnscored("callable")
        if text.startswith("TypedDict"):
            raise CUnscored("TypedDict")
        if text == "Literal":
            result = self.Literal()
        elif text in ("tuple", "Tuple", "builtins.tuple") and self.Peek() == "[":
            result = self.Tuple()
        elif text in ("type", "Type", "builtins.type") and self.Peek() == "[":
            args = self.Args()
            if len(args) != 1:
                raise CUnscored("type of an unknown form")
            # (the class of None is NoneType, which lives in `types`)
            result = inferevalset.Normalise(" | ".join(
                "type[types.NoneType]" if t == "None" else f"type[{t}]"
                for t in inferevalset.SplitTopLevel(args[0][1], "|")))
        elif text == "Union" and self.Peek() == "[":
            result = " | ".join(t for _key, t in self.Args())
        elif text == "None":
            result = "None"
        else:
            result = _ClassName(text, self.home)
            if self.Peek() == "[":
                args = [t for _key, t in self.Args() if t != "()"]
                if args:
                    result += "[" + ", ".join(args) + "]"
        while self.Peek() in ("?", "*"):
            self.Take()
        return result

    def Tuple(self):
        args = self.Args()
        fallback = [t for key, t in args if key == "fallback"]
        if fallback:                          # a named tuple: its class
            return fallback[0]
        items = [t for key, t in args if key is None]
        return f"tuple[{', '.join(items) if items else '()'}]"


def _ClassName(dotted, home):
    """Our text of a class the checker names `dotted`, seen from the module
    `home`; CUnscored for type variables and other bare names."""
    if dotted in _kBareUnscored:
        raise CUnscored(_kBareUnscored[dotted])
    if "`" in dotted or "." not in dotted:
        raise CUnscored("type variable")
    if dotted.endswith((".args", ".kwargs")) and dotted.count(".") == 1:
        raise CUnscored("type variable")
    for prefix in ("builtins.", f"{home}."):
        if prefix != "." and dotted.startswith(prefix):
            return dotted[len(prefix):]
    if dotted == "types.ModuleType":
        raise CUnscored("module")
    return dotted


def OurTypeText(revealed, home="__main__"):
    """The canonical text of the checker's spelling `revealed` in the module
    `home`; CUnscored when it has no class to compare."""
    if "<" in revealed:
        raise CUnscored("intersection or partial type")
    return _CTypeParser(revealed, home).Whole()


# Conversion

@dataclasses.dataclass
class CConversion:
    cases: int = 0
    kept_cases: int = 0
    reveals: int = 0
    kept_reveals: int = 0
    case_reasons: collections.Counter = dataclasses.field(default_factory=collections.Counter)
    reveal_reasons: collections.Counter = dataclasses.field(default_factory=collections.Counter)


def _ModuleOf(path):
    """The module name of a case's file whose classes go unqualified; a
    package's `__init__` names none (`pkg.m.C` may be a submodule's)."""
    parts = os.path.splitext(path)[0].split("/")
    return "" if parts[-1] == "__init__" else ".".join(parts)


def _ConvertLines(lines, stats, home):
    """`lines` of the module `home` with each comparable reveal line made an
    expectation; the number of those."""
    kept = 0
    out = []
    for line in lines:
        match = _kReveal.match(line)
        if match is None:
            if "reveal_type(" in line and "Revealed type" in line:
                stats.reveals += 1
                stats.reveal_reasons["reveal not alone on its line"] += 1
            out.append(line)
            continue
        stats.reveals += 1
        indent, expr, revealed, rest = match.groups()
        try:
            if "Revealed type is" in rest or expr.count("(") != expr.count(")"):
                raise CUnscored("reveal not alone on its line")
            expected = OurTypeText(revealed, home)
        except CUnscored as why:
            stats.reveal_reasons[str(why)] += 1
            out.append(line)
            continue
        kept += 1
        out.append(f"{indent}{expr}  # expect: {expected}")
    return out, kept


def Convert(src, dest):
    """Writes the comparable cases of the `check-*.test` files under `src`
    into `dest` (emptied first); a CConversion with the counts."""
    shutil.rmtree(dest, ignore_errors=True)
    stats = CConversion()
    for name in sorted(os.listdir(src)):
        if not (name.startswith("check-") and name.endswith(".test")):
            continue
        for case in ReadCases(os.path.join(src, name)):
            stats.cases += 1
            reveals_before = stats.reveals
            why = _CaseLeftOut(case)
            if why:
                stats.case_reasons[why] += 1
                stats.reveals += sum("Revealed type is" in line for line in case.main)
                continue
            # (stubs are modules read, not programs run: their lines stay)
            converted = {"main.py": _ConvertLines(case.main, stats, "__main__")}
            for path, lines in case.files.items():
                if path.endswith(".py"):
                    converted[path] = _ConvertLines(lines, stats, _ModuleOf(path))
                    continue
                converted[path] = (lines, 0)
                in_stub = sum("Revealed type is" in line for line in lines)
                stats.reveals += in_stub
                stats.reveal_reasons["in a stub"] += in_stub
            if not any(kept for _lines, kept in converted.values()):
                stats.case_reasons["no comparable reveal" if stats.reveals > reveals_before
                                   else "no reveal"] += 1
                continue
            stats.kept_cases += 1
            stats.kept_reveals += sum(kept for _lines, kept in converted.values())
            folder = os.path.join(dest, case.test_file[len("check-"):], case.name)
            for path, (lines, _kept) in converted.items():
                full = os.path.join(folder, path)
                os.makedirs(os.path.dirname(full), exist_ok=True)
                with open(full, "w", encoding="utf-8") as f:
                    f.write("\n".join(lines) + "\n")
    return stats


def _PrintConversion(stats):
    print(f"cases: {stats.cases}, kept {stats.kept_cases}")
    print("  left out: " + ", ".join(f"{why} {n}" for why, n in stats.case_reasons.most_common()))
    print(f"reveal lines: {stats.reveals}, kept {stats.kept_reveals}")
    print("  left out: " + ", ".join(f"{why} {n}" for why, n in stats.reveal_reasons.most_common()))


def _Score(folder, seconds, quiet):
    # (rows by test file: the first folder of a case)
    infer_eval.ScoreExpectations(inferevalset.ReadExpectations(folder), seconds, quiet, folder,
                                 lambda exp: os.path.relpath(exp.path, folder).split(os.sep)[0])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("src", help="folder of the check-*.test files")
    parser.add_argument("--out", default=os.path.join("/tmp", "typecheck_cases"),
                        help="folder to write the cases into (emptied first)")
    parser.add_argument("--seconds", type=float, default=2.0, help="time per resolve")
    parser.add_argument("--quiet", action="store_true")
    parser.add_argument("--convert-only", action="store_true")
    args = parser.parse_args()
    stats = Convert(args.src, args.out)
    _PrintConversion(stats)
    if not args.convert_only:
        print()
        _Score(os.path.abspath(args.out), args.seconds, args.quiet)


if __name__ == "__main__":
    main()

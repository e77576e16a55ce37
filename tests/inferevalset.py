"""The inference evaluation set: expectations written in the files of
tests/inference_eval/ as `EXPR  # expect: T1 | T2` on an expression
statement, scored against the engine, and checked against what running the
files gives.

Used by tests/test_inference_eval.py (a floor on the agreement) and by
bench/infer_eval.py (the table and the misses).  `python inferevalset.py
--verify` runs the files and prints, as JSON, what each expectation line
evaluated to; `VerifyByRunning` reads that and judges the expectations.
"""

import ast
import builtins
import dataclasses
import importlib
import importlib.machinery
import json
import os
import re
import subprocess
import sys
import types

from basekit.location import CLocalFileLocation
from pysource import inferquery, projectfiles, symbolinfo

kEvalDir = os.path.join(os.path.dirname(os.path.abspath(__file__)), "inference_eval")

_kExpectMark = re.compile(r"#\s*expect:(.*)$")


@dataclasses.dataclass
class CExpectation:
    path: str
    line: int
    expr: str
    expected: tuple    # canonical texts, normalised and sorted

    @property
    def feature(self):
        return os.path.splitext(os.path.relpath(self.path, kEvalDir))[0]


# Reading and normalising

def SplitTopLevel(text, sep):
    """`text` split at `sep` characters outside brackets."""
    return [part.strip() for part in symbolinfo.NonNestedSplit(text, sep)]


def Normalise(text):
    """One spelling of a canonical text (union members sorted, typing's
    aliases by their built-in names), the one the engine's answers get."""
    return inferquery.CanonicalTypeText(" ".join(text.split()))


def Loose(text):
    """The text without type arguments (`list[int]` -> `list`); the class of
    a class object keeps its name (`type[Box[int]]` -> `type[Box]`)."""
    if text.startswith("type[") and text.endswith("]"):
        return f"type[{Loose(text[5:-1])}]"
    open_i = text.find("[")
    return text if open_i < 0 else text[:open_i]


def ParseExpected(text):
    return tuple(sorted({Normalise(alt) for alt in SplitTopLevel(text, "|") if alt}))


def ReadExpectations(folder=kEvalDir):
    """Every expectation of the `.py` files under `folder`, in file order."""
    found = []
    for root, dirs, files in os.walk(folder):
        dirs.sort()
        for name in sorted(files):
            if not name.endswith(".py"):
                continue
            path = os.path.join(root, name)
            with open(path, encoding="utf-8") as f:
                for lineno, line in enumerate(f, 1):
                    match = _kExpectMark.search(line)
                    if match is None:
                        continue
                    expr = line[:match.start()].strip()
                    found.append(CExpectation(path, lineno, expr, ParseExpected(match.group(1))))
    return found


# Scoring against the engine

@dataclasses.dataclass
class CScore:
    expectation: CExpectation
    got: tuple
    complete: bool

    @property
    def exact(self):
        return self.got == self.expectation.expected

    @property
    def loose(self):
        return {Loose(t) for t in self.got} == {Loose(t) for t in self.expectation.expected}


def IndexFolder(mgr, folder=kEvalDir, derived=False):
    """Runs the primary scan of every file under `folder`, and with
    `derived` their derived scans (what callers pass) too."""
    locs = [CLocalFileLocation(p) for p in projectfiles.FindSourceFiles([folder])]
    (inferquery.RunDerivedScans if derived else inferquery.RunPrimaryScans)(mgr, locs)


def ScoreAll(mgr, expectations, seconds=inferquery.kDefaultSeconds):
    scores = []
    for exp in expectations:
        loc = CLocalFileLocation(exp.path)
        singles, complete = inferquery.ResolveAt(mgr, loc, exp.line, exp.expr, seconds)
        got = tuple(sorted({Normalise(t) for t in inferquery.DescribeResolved(singles, mgr, loc)}))
        scores.append(CScore(exp, got, complete))
    return scores


def Table(scores, feature_of=lambda exp: exp.feature):
    """[(feature, expectations, exact, loose, incomplete)] per feature
    (`feature_of(expectation)`, the file of the set by default), then the
    total as feature "total"."""
    rows = {}
    for score in scores:
        row = rows.setdefault(feature_of(score.expectation), [0, 0, 0, 0])
        row[0] += 1
        row[1] += score.exact
        row[2] += score.loose
        row[3] += not score.complete
    table = [(feature, *row) for feature, row in rows.items()]
    total = [sum(col) for col in zip(*(row[1:] for row in table))] if table else [0, 0, 0, 0]
    return table + [("total", *total)]


def FormatTable(table):
    lines = [f"{'feature':<22}{'expect':>8}{'exact':>8}{'loose':>8}{'incompl':>9}{'exact %':>9}"]
    for feature, count, exact, loose, incomplete in table:
        rate = 100.0 * exact / count if count else 0.0
        lines.append(f"{feature:<22}{count:>8}{exact:>8}{loose:>8}{incomplete:>9}{rate:>8.1f}%")
    return "\n".join(lines)


# Scoring the assert_type(EXPR, T) lines of any folder of Python files

class CUnscored(Exception):
    """A declared type the engine's answers can't be compared with (the
    message says why)."""


_kUnscoredForms = {
    "Any": "Any", "Never": "Never", "NoReturn": "Never", "TypeIs": "TypeIs/TypeGuard",
    "TypeGuard": "TypeIs/TypeGuard", "Callable": "Callable", "LiteralString": "LiteralString",
}
_kUnionForms = ("Union", "Optional")


@dataclasses.dataclass
class CAssertType:
    path: str
    line: int
    expr: str
    type_node: ast.expr


def ReadAssertTypes(folder):
    """Every `assert_type(EXPR, T)` call of the `.py` files under `folder`,
    in file order (files that don't parse are left out)."""
    found = []
    for path in projectfiles.FindSourceFiles([folder]):
        try:
            with open(path, encoding="utf-8") as f:
                tree = ast.parse(f.read(), path)
        except (SyntaxError, UnicodeDecodeError):
            continue
        for node in ast.walk(tree):
            if isinstance(node, ast.Call) and len(node.args) == 2 and \
                    _DottedName(node.func).split(".")[-1] == "assert_type":
                found.append(CAssertType(path, node.lineno, ast.unparse(node.args[0]), node.args[1]))
    return sorted(found, key=lambda a: (a.path, a.line))


def _DottedName(node):
    if isinstance(node, ast.Name):
        return node.id
    if isinstance(node, ast.Attribute):
        head = _DottedName(node.value)
        return f"{head}.{node.attr}" if head else ""
    return ""


def _LiteralClass(node, class_of):
    if isinstance(node, ast.Constant):
        return "None" if node.value is None else type(node.value).__name__
    if isinstance(node, ast.UnaryOp) and isinstance(node.operand, ast.Constant):
        return type(node.operand.value).__name__
    name = _DottedName(node)
    if "." in name:          # an enum member: its class
        return class_of(name.rsplit(".", 1)[0])
    raise CUnscored("Literal of an unknown form")


def DeclaredTypeText(node, class_of):
    """The canonical text of the type expression `node`; `class_of(dotted)`
    gives the canonical text of the class a name stands for.  CUnscored for
    forms the engine's answers can't be compared with."""
    if isinstance(node, ast.Constant) and isinstance(node.value, str):
        return DeclaredTypeText(ast.parse(node.value, mode="eval").body, class_of)
    if isinstance(node, ast.Constant) and node.value is None:
        return "None"
    if isinstance(node, ast.BinOp) and isinstance(node.op, ast.BitOr):
        return Normalise(f"{DeclaredTypeText(node.left, class_of)} | "
                         f"{DeclaredTypeText(node.right, class_of)}")
    if isinstance(node, ast.Tuple):
        return ", ".join(DeclaredTypeText(e, class_of) for e in node.elts) if node.elts else "()"
    if isinstance(node, ast.Constant) and node.value is Ellipsis:
        return "..."
    if isinstance(node, ast.Subscript):
        head = _DottedName(node.value)
        last = head.split(".")[-1]
        if last in _kUnscoredForms:
            raise CUnscored(_kUnscoredForms[last])
        items = node.slice.elts if isinstance(node.slice, ast.Tuple) and node.slice.elts \
            else [node.slice]
        if last == "Literal":
            return Normalise(" | ".join(_LiteralClass(item, class_of) for item in items))
        args = [DeclaredTypeText(item, class_of) for item in items]
        if last in _kUnionForms:
            return Normalise(" | ".join(args + (["None"] if last == "Optional" else [])))
        if last in ("type", "Type"):
            return f"type[{args[0]}]"
        return Normalise(f"{class_of(head)}[{', '.join(args)}]")
    name = _DottedName(node)
    if not name:
        raise CUnscored("type expression of an unknown form")
    if name.split(".")[-1] in _kUnscoredForms:
        raise CUnscored(_kUnscoredForms[name.split(".")[-1]])
    return Normalise(class_of(name))


def _EngineClassOf(mgr, loc, line, seconds):
    """`class_of` for DeclaredTypeText: the class the engine finds a name to
    stand for at the line; the name itself when the engine takes it for an
    instance (a class made by a call); CUnscored for a name that isn't one
    class (a type variable, an alias of a union)."""
    builtin_names = set(dir(builtins))

    def class_of(name):
        if name in builtin_names and isinstance(getattr(builtins, name), type):
            return name
        singles, _complete = inferquery.ResolveAt(mgr, loc, line, name, seconds)
        texts = inferquery.DescribeResolved(singles, mgr, loc)
        if len(texts) == 1 and texts[0].startswith("type["):
            return Loose(texts[0][5:-1])
        if texts and not any(t.startswith(("type[", "? ")) for t in texts):
            return name
        raise CUnscored("type variable or alias")
    return class_of


@dataclasses.dataclass
class CAssertScore:
    case: CAssertType
    expected: tuple      # canonical texts; () when left out
    got: tuple
    complete: bool
    left_out: str = ""   # why the case isn't scored

    @property
    def verdict(self):
        """exact / superset / wrong / empty, by classes (type arguments of
        the answer compared only where the engine gives them: `args ok`)."""
        want, have = {Loose(t) for t in self.expected}, {Loose(t) for t in self.got}
        if not have:
            return "empty"
        if have == want:
            return "exact"
        return "superset" if have > want else "wrong"

    @property
    def arguments_agree(self):
        if self.verdict != "exact":
            return False
        want = set(self.expected)
        return all(t in want or (t == Loose(t) and t in {Loose(w) for w in want})
                   for t in self.got)


def ScoreAssertTypes(mgr, cases, seconds=inferquery.kDefaultSeconds):
    scores = []
    for case in cases:
        loc = CLocalFileLocation(case.path)
        try:
            expected = DeclaredTypeText(case.type_node,
                                        _EngineClassOf(mgr, loc, case.line, seconds))
        except CUnscored as why:
            scores.append(CAssertScore(case, (), (), True, str(why)))
            continue
        singles, complete = inferquery.ResolveAt(mgr, loc, case.line, case.expr, seconds)
        got = tuple(sorted({Normalise(t) for t in inferquery.DescribeResolved(singles, mgr, loc)}))
        scores.append(CAssertScore(case, ParseExpected(expected), got, complete))
    return scores


# Checking the expectations by running the files

def _Qual(cls, home_module):
    name = cls.__qualname__.replace(".<locals>", "")
    module = cls.__module__
    if module in ("builtins", "__main__", home_module):
        return name
    return f"{module}.{name}"


def _ArgsText(value, home_module):
    """The type arguments the elements of a built-in container show, or ""."""
    def union(items):
        return " | ".join(sorted({RuntimeText(v, home_module) for v in items}))
    if type(value) is tuple:
        if not value:
            return "[()]"
        return "[" + ", ".join(RuntimeText(v, home_module) for v in value) + "]"
    if type(value) is dict and value:
        return f"[{union(value.keys())}, {union(value.values())}]"
    if type(value) in (list, set, frozenset) and value:
        return f"[{union(value)}]"
    return ""


def RuntimeText(value, home_module):
    """The canonical text of a runtime value (`home_module`: the module of
    the file being asked about, whose names are not qualified)."""
    if value is None:
        return "None"
    if isinstance(value, types.ModuleType):
        return f"module {value.__name__}"
    if isinstance(value, type):
        return f"type[{_Qual(value, home_module)}]"
    if isinstance(value, types.MethodType):
        value = value.__func__
    if isinstance(value, types.FunctionType):
        name = value.__qualname__.replace(".<locals>", "")
        module = value.__module__
        return f"def {name}" if module in ("builtins", "__main__", home_module) else \
            f"def {module}.{name}"
    if isinstance(value, (types.BuiltinFunctionType, types.MethodDescriptorType,
                          types.WrapperDescriptorType, types.MethodWrapperType)):
        owner = getattr(value, "__objclass__", None) or getattr(value, "__self__", None)
        if owner is None or isinstance(owner, types.ModuleType):
            module = getattr(value, "__module__", None) or "builtins"
            return f"def {value.__name__}" if module in ("builtins", home_module) else \
                f"def {module}.{value.__name__}"
        cls = owner if isinstance(owner, type) else type(owner)
        return f"def {_Qual(cls, home_module)}.{value.__name__}"
    return _Qual(type(value), home_module) + _ArgsText(value, home_module)


def _Kin(value, home_module):
    """Texts of what `value` also is: the classes of its MRO (as instances
    or class objects), without type arguments."""
    if isinstance(value, type):
        return [f"type[{_Qual(c, home_module)}]" for c in value.__mro__]
    if isinstance(value, types.ModuleType):
        # A module may stand under another name too (os.path is posixpath).
        return [f"module {name}" for name, module in list(sys.modules.items()) if module is value]
    if isinstance(value, (types.FunctionType, types.MethodType)) or value is None:
        return []
    return [_Qual(c, home_module) for c in type(value).__mro__]


class _CObservingLoader(importlib.machinery.SourceFileLoader):
    """Loads a module of the evaluation set with its expectation lines made
    to report their values."""

    def source_to_code(self, data, path, *, _optimize=-1):
        return _Instrument(data, path)


class _CObservingFinder:
    @classmethod
    def find_spec(cls, name, path=None, target=None):
        module_spec = importlib.machinery.PathFinder.find_spec(name, path)
        if module_spec is not None and module_spec.origin and module_spec.origin.startswith(kEvalDir + os.sep):
            module_spec.loader = _CObservingLoader(name, module_spec.origin)
        return module_spec


def _Instrument(source, path):
    """Code of `source` in which each expectation line's expression statement
    becomes `__observe__(path, line, value)`."""
    tree = ast.parse(source, path)
    lines = {e.line for e in ReadExpectations(os.path.dirname(path)) if e.path == path}

    class Wrap(ast.NodeTransformer):
        def visit_Expr(self, node):
            if node.lineno not in lines:
                return node
            call = ast.Call(ast.Name("__observe__", ast.Load()),
                            [ast.Constant(path), ast.Constant(node.lineno), node.value], [])
            return ast.copy_location(ast.Expr(ast.copy_location(call, node)), node)

    tree = ast.fix_missing_locations(Wrap().visit(tree))
    return compile(tree, path, "exec", dont_inherit=True)


def _ModuleNameOf(path):
    rel = os.path.splitext(os.path.relpath(path, kEvalDir))[0].split(os.sep)
    if rel[-1] == "__init__":
        rel = rel[:-1]
    return ".".join(rel)


def _RunAndObserve():
    """Runs every file of the set (top-level files as __main__, package
    modules by import); {"path:line": [[text, [kin...]], ...]}."""
    observed = {}

    def observe(path, line, value):
        home = _ModuleNameOf(path)
        entry = [RuntimeText(value, home), _Kin(value, home)]
        bucket = observed.setdefault(f"{path}:{line}", [])
        if entry not in bucket:
            bucket.append(entry)
        return value

    builtins.__observe__ = observe
    sys.path.insert(0, kEvalDir)
    sys.meta_path.insert(0, _CObservingFinder)
    paths = sorted({e.path for e in ReadExpectations()})
    for path in paths:
        if os.path.dirname(path) == kEvalDir:
            with open(path, "rb") as f:
                code = _Instrument(f.read(), path)
            exec(code, {"__name__": "__main__", "__file__": path, "__builtins__": builtins})
        else:
            importlib.import_module(_ModuleNameOf(path))
    return observed


def _Matches(observation, alternative):
    text, kin = observation
    if text == alternative:
        return True
    base = Loose(alternative)
    if alternative.startswith("tuple[") and alternative.endswith(", ...]") and \
            text.startswith("tuple["):
        element = alternative[6:-6]
        return text == "tuple[()]" or all(a == element for a in SplitTopLevel(text[6:-1], ","))
    # The runtime can't show arguments it has no elements for, and a value of
    # a subclass is a value of the class.
    return (text == Loose(text) and text == base) or base in kin


def VerifyByRunning(expectations):
    """{"verified": [...], "refuted": [(expectation, observations)], "unreached": [...],
    "exact": count of verified ones whose every observation is the text itself}."""
    out = subprocess.run([sys.executable, os.path.abspath(__file__), "--verify"],
                         capture_output=True, text=True, check=True)
    observed = json.loads(out.stdout)
    result = {"verified": [], "refuted": [], "unreached": [], "exact": 0}
    for exp in expectations:
        seen = observed.get(f"{exp.path}:{exp.line}")
        if not seen:
            result["unreached"].append(exp)
        elif all(any(_Matches(o, alt) for alt in exp.expected) for o in seen):
            result["verified"].append(exp)
            result["exact"] += all(o[0] in exp.expected for o in seen)
        else:
            result["refuted"].append((exp, seen))
    return result


if __name__ == "__main__" and sys.argv[1:] == ["--verify"]:
    import contextlib
    import io
    with contextlib.redirect_stdout(io.StringIO()):
        data = _RunAndObserve()
    json.dump(data, sys.stdout)

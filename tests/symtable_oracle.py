"""Primary scan records against Python's own `symtable`.

Each file is scanned into the info cache of a private manager, and its symbol
tables are walked: every class and function table must have a record of its
kind, every parameter the argument domain and its index in the parameter list
(the order `ast` gives), every imported name the imported domain, every name
declared global or nonlocal that declaration, every name the table assigns a
first set and every name it reads a first read; the other way round, every
name a record sets or reads is a symbol there.
Lambdas and comprehensions have no records of their own: what they read, and
what a walrus inside a comprehension binds, counts toward the enclosing scope.

The places where a record rightly differs from a symbol table are the
exception rules below (each one narrow, each one explained in
docs/analyzer.md).  Run as a script to print the rates over the core corpus,
or over the code of a few pinned third-party packages (their wheels fetched
once into FOLDER):

    python tests/symtable_oracle.py [--full] [--limit N] [--show N] [--third-party FOLDER]
"""
import argparse
import ast
import collections
import keyword
import math
import os
import subprocess
import sys
import zipfile
import _symtable

from basekit.location import CLocalFileLocation
from pysource import manager, scopescanner, symbolinfo as si

from corpusutil import corpus_paths

kRecordRule = "record"
kScopeKindRule = "scope kind"
kArgumentRule = "argument"
kArgumentIndexRule = "argument index"
kImportedRule = "imported"
kFirstSetRule = "first set"
kFirstReadRule = "first read"
kGlobalRule = "global"
kNonlocalRule = "nonlocal"
# The other way round: a name a record sets or reads is a symbol of its scope
# (or of a lambda or comprehension in it).
kKnownNameRule = "known name"
RULES = (kRecordRule, kScopeKindRule, kArgumentRule, kArgumentIndexRule, kImportedRule,
         kFirstSetRule, kFirstReadRule, kGlobalRule, kNonlocalRule, kKnownNameRule)

kInnerTableNames = frozenset(("lambda", "listcomp", "setcomp", "dictcomp", "genexpr"))
_kSetPrefix = si.kSetPrefix
_kGetPrefix = si.kGetPrefix


def _compiles(path):
    try:
        with open(path, "rb") as f:
            _symtable.symtable(f.read(), path, "exec")
    except (SyntaxError, ValueError, UnicodeError):
        return False
    return True


def corpus_files(full=False):
    """The core corpus; `full`: the full corpus without the files that Python
    itself rejects."""
    paths = corpus_paths(full)
    return [path for path in paths if _compiles(path)] if full else paths


# Pure-Python packages written by others, pinned so that a run reads the same
# code every time.
kThirdPartyWheels = ("attrs==23.2.0", "click==8.1.7", "idna==3.7", "jinja2==3.1.4",
                     "packaging==24.0", "pluggy==1.5.0", "requests==2.32.3", "urllib3==2.2.2")


def third_party_files(folder):
    """The source files of the pinned wheels, fetched into `folder` (kept
    there for the next run) and unpacked; None when they can't be fetched
    (no network)."""
    wheels = os.path.join(folder, "wheels")
    unpacked = os.path.join(folder, "src")
    if not os.path.isdir(unpacked):
        fetch = subprocess.run([sys.executable, "-m", "pip", "download", "-q", "--no-deps",
                                "--only-binary=:all:", "--dest", wheels, *kThirdPartyWheels],
                               capture_output=True, timeout=300)
        if fetch.returncode != 0:
            return None
        for name in sorted(os.listdir(wheels)):
            with zipfile.ZipFile(os.path.join(wheels, name)) as wheel:
                wheel.extractall(os.path.join(unpacked + ".part", name))
        os.rename(unpacked + ".part", unpacked)
    paths = [os.path.join(d, n) for d, _, names in os.walk(unpacked) for n in names
             if n.endswith(".py")]
    return [path for path in sorted(paths) if _compiles(path)]


# ---- the symbol table side ------------------------------------------------
# The raw tables of `_symtable` (what `symtable` wraps): a dict of flags per
# table instead of an object per symbol keeps this side cheap.

_kFunctionType = _symtable.TYPE_FUNCTION
_kClassType = _symtable.TYPE_CLASS
_kModuleType = _symtable.TYPE_MODULE
_kLocalScopes = (_symtable.LOCAL, _symtable.CELL)


def _scope_of(flags):
    return (flags >> _symtable.SCOPE_OFF) & _symtable.SCOPE_MASK


class CFact:
    """One thing a symbol table says that a record must show."""

    __slots__ = ("rule", "scope", "name", "table", "class_name", "index")

    def __init__(self, rule, scope, name, table, class_name=None, index=None):
        self.rule = rule
        self.scope = scope            # our normalised scope name
        self.name = name              # the symbol's name, or the scope's for a record
        self.table = table            # the raw table the fact comes from (the
        #                               file's CFileTables for a known name)
        self.class_name = class_name  # the innermost class around the table, if any
        self.index = index            # a parameter's place in its list

    def with_name(self, name):
        return CFact(self.rule, self.scope, name, self.table, self.class_name, self.index)

    def __repr__(self):
        return f"{self.rule}: {self.scope or '<module>'}: {self.name}"


def _is_inner_table(table):
    """A lambda, comprehension or other block of symtable's that is no scope
    of ours (a comprehension always has its hidden `.0` parameter; no def
    can)."""
    if table.type not in (_kFunctionType, _kClassType, _kModuleType):
        return True
    if table.type != _kFunctionType or table.name not in kInnerTableNames:
        return False
    return table.name == "lambda" or ".0" in table.symbols


def _child_scope_name(parent, leaf, counts):
    index = counts[leaf]
    counts[leaf] += 1
    local = leaf if index == 0 else f"{leaf}{si.kScopeIndexSep}{index}"
    return local if parent == "" else f"{parent}.{local}"


def _own_facts(table, scope, class_name, out):
    is_function = table.type == _kFunctionType
    for name, flags in table.symbols.items():
        if is_function and flags & _symtable.DEF_PARAM:
            out.append(CFact(kArgumentRule, scope, name, table, class_name))
        if flags & _symtable.DEF_IMPORT:
            out.append(CFact(kImportedRule, scope, name, table, class_name))
        if flags & _symtable.DEF_LOCAL:
            out.append(CFact(kFirstSetRule, scope, name, table, class_name))
        if flags & _symtable.USE:
            out.append(CFact(kFirstReadRule, scope, name, table, class_name))
        # (a global statement in a def marks the name in the module's table too)
        if flags & _symtable.DEF_GLOBAL and table.type != _kModuleType:
            out.append(CFact(kGlobalRule, scope, name, table, class_name))
        if flags & _symtable.DEF_NONLOCAL:
            out.append(CFact(kNonlocalRule, scope, name, table, class_name))


def _binds(flags):
    return _scope_of(flags) in _kLocalScopes or flags & _symtable.DEF_PARAM


def _inner_facts(table, scope, class_name, bound, out):
    """The names a lambda or comprehension takes from outside: reads, and
    walrus targets of a comprehension, count toward `scope`."""
    for name, flags in table.symbols.items():
        if _binds(flags) or name in bound:
            continue
        if flags & _symtable.DEF_LOCAL:
            out.append(CFact(kFirstSetRule, scope, name, table, class_name))
        if flags & _symtable.USE:
            out.append(CFact(kFirstReadRule, scope, name, table, class_name))


class CFileTables:
    """What the symbol tables of one file say: the facts, and per scope of
    ours the names its tables know and the class that mangles its names."""

    def __init__(self, source, path):
        self.facts = []
        self.known = collections.defaultdict(set)
        self.class_names = {}
        # Per scope: the names of its annotations, and those of string
        # annotations (a def's own annotations count in the def and around it).
        self.annotation_names = collections.defaultdict(set)
        self.string_annotation_names = collections.defaultdict(set)
        module = _symtable.symtable(source, path, "exec")
        # under this future import Python doesn't read annotations at all
        self.lazy_annotations = bool(module.symbols.get("annotations", 0)
                                     & _symtable.DEF_IMPORT)
        _walk(module, si.kModuleScopeName, None, None, collections.Counter(), self)
        _CAstScopes(self).visit(ast.parse(source, path))


def _walk(table, scope, class_name, bound, counts, tables):
    """`bound`: None in a scope of ours, else the names bound by the lambdas
    and comprehensions between `table` and `scope`; `counts`: the scope
    indexes given out so far in `scope`."""
    out = tables.facts
    if table.type == _kClassType:
        class_name = table.name
    tables.known[scope].update(table.symbols)
    if bound is None:
        tables.class_names[scope] = class_name
        _own_facts(table, scope, class_name, out)
    else:
        _inner_facts(table, scope, class_name, bound, out)
    # Source order, which is the order of our scope indexes: symtable visits
    # the `else` of a `try` before its handlers.
    for child in sorted(table.children, key=lambda child: child.lineno):
        if _is_inner_table(child):
            inner_bound = frozenset(bound or ()) | {
                name for name, flags in child.symbols.items() if _binds(flags)}
            _walk(child, scope, class_name, inner_bound, counts, tables)
        else:
            child_scope = _child_scope_name(scope, child.name, counts)
            out.append(CFact(kRecordRule, child_scope, child.name, child))
            out.append(CFact(kScopeKindRule, child_scope, child.name, child))
            _walk(child, child_scope, class_name, None, collections.Counter(), tables)


def _names_in(node):
    return {n.id for n in ast.walk(node) if isinstance(n, ast.Name)}


def _string_annotation_names(node):
    """The names read by the strings of an annotation, each parsed as one."""
    names = set()
    for n in ast.walk(node):
        if isinstance(n, ast.Constant) and isinstance(n.value, str):
            try:
                names |= _names_in(ast.parse(n.value.strip(), mode="eval"))
            except SyntaxError:
                pass
    return names


class _CAstScopes(ast.NodeVisitor):
    """What `ast` adds to the tables: the parameters of each def in the order
    of its parameter list, and the names of annotations.  Scopes are named
    as `_walk` names them: defs and classes in source order."""

    def __init__(self, tables):
        self.tables = tables
        self.scope = si.kModuleScopeName
        self.counts = collections.Counter()

    def _note_annotation(self, node, scopes):
        for scope in scopes:
            self.tables.annotation_names[scope] |= _names_in(node)
            self.tables.string_annotation_names[scope] |= _string_annotation_names(node)

    def _enter(self, node, own_parts):
        outer_scope, outer_counts = self.scope, self.counts
        self.scope = _child_scope_name(outer_scope, node.name, outer_counts)
        self.counts = collections.Counter()
        for part in own_parts:
            self.visit(part)
        self.scope, self.counts = outer_scope, outer_counts

    def _visit_def(self, node):
        args = node.args
        for part in node.decorator_list + args.defaults + [d for d in args.kw_defaults if d]:
            self.visit(part)
        params = args.posonlyargs + args.args + ([args.vararg] if args.vararg else [])
        params += args.kwonlyargs + ([args.kwarg] if args.kwarg else [])
        scope = _child_scope_name(self.scope, node.name, collections.Counter(self.counts))
        for index, param in enumerate(params):
            self.tables.facts.append(CFact(kArgumentIndexRule, scope, param.arg, None, index=index))
        for annotation in [p.annotation for p in params] + [node.returns]:
            if annotation is not None:
                self._note_annotation(annotation, (self.scope, scope))
                self.visit(annotation)
        self._enter(node, node.body)

    visit_FunctionDef = visit_AsyncFunctionDef = _visit_def

    def visit_ClassDef(self, node):
        for part in node.decorator_list + node.bases + node.keywords:
            self.visit(part)
        self._enter(node, node.body)

    def visit_AnnAssign(self, node):
        self._note_annotation(node.annotation, (self.scope,))
        self.generic_visit(node)


def symtable_facts(source, path):
    """Every fact the symbol tables of `source` give, in table order."""
    return CFileTables(source, path).facts


# ---- the record side ------------------------------------------------------

def scan_file(mgr, path):
    """Scans `path` with the whole-file primary scanner into `mgr`'s info
    cache; gives {normalised scope name: record}."""
    loc = CLocalFileLocation(path)
    scanner = scopescanner.CWholeFilePrimaryScanner(loc, mgr.fPrimaryScanName)
    try:
        while True:
            state = scanner.Scan(math.inf)
            if state is not scopescanner.kTimedOut:
                break
        if state is not scopescanner.kFinishedScanning:
            raise AssertionError(f"{path}: the scan ended in {state}")
        records = {}
        for name in scanner._fAllScopeNames:
            info = mgr.fInfoCache.GetScopeInfo(si.NormalizedScope(loc, name))
            if info is not None:
                records[si.NormalizeScopeName(name)] = info
        return records
    finally:
        scanner.destroy()


def _first_index(compound, prefix):
    """The logical index of a compound's first-seen single of this prefix
    (`prefix` + an index: `:S3`, `:S-1`, `:g0`), or None."""
    for single in si.NonNestedSplit(compound, b";"):
        if single.startswith(prefix):
            index = single[len(prefix):]
            if index.lstrip(b"-").isdigit():
                return int(index)
    return None


def _has_first(compound, prefix):
    return _first_index(compound, prefix) is not None


def _is_checked_name(name, compound):
    """A name of a record's own that the text reads or sets in the body (not
    only before it, as `__name__` or an argument)."""
    if not name.isidentifier() or keyword.iskeyword(name):
        return False
    first_set = _first_index(compound, _kSetPrefix)
    return _has_first(compound, _kGetPrefix) or (first_set is not None and first_set >= 0)


def known_name_facts(tables, records):
    """The facts of the other direction: every scope with a record is a
    scope of the tables (name None), every name it sets or reads a symbol."""
    out = []
    for scope, record in records.items():
        if scope.endswith(si.kClassInstanceSuffix):
            continue
        class_name = tables.class_names.get(scope)
        out.append(CFact(kKnownNameRule, scope, None, tables, class_name))
        for name, compound in record.type_equivs.items():
            if _is_checked_name(name, compound):
                out.append(CFact(kKnownNameRule, scope, name, tables, class_name))
    return out


def fact_holds(fact, records):
    if fact.rule == kKnownNameRule:
        if fact.name is None:
            return fact.scope in fact.table.class_names
        return fact.name in fact.table.known[fact.scope]
    record = records.get(fact.scope)
    if fact.rule == kRecordRule:
        return record is not None
    if record is None:
        return False
    if fact.rule == kScopeKindRule:
        kind = si.GetInfoBytesKind(record.ibytes)
        if fact.table.type == _kClassType:
            return kind == si.kClassKind
        return si.IsDefKind(kind)
    if fact.rule in (kArgumentRule, kImportedRule):
        domains = record._domains
        domain = None if domains is None else domains.get(fact.name)
        # A name may be in several domains (an argument re-imported).
        return domain is not None and fact.rule.encode() in domain.split(b";")
    compound = record.type_equivs.get(fact.name)
    if compound is None:
        return False
    if fact.rule == kArgumentIndexRule:
        own = b"%s%d" % (si.kArgPrefix, fact.index)
        return any(single == own or single.startswith(own + b",")
                   for single in si.NonNestedSplit(compound, b";"))
    if fact.rule in (kGlobalRule, kNonlocalRule):
        prefix = si.kGlobalPrefix if fact.rule == kGlobalRule else si.kNonlocalPrefix
        return any(single.startswith(prefix) for single in si.NonNestedSplit(compound, b";"))
    return _has_first(compound, _kSetPrefix if fact.rule == kFirstSetRule else _kGetPrefix)


# ---- where records rightly differ -----------------------------------------

def _reads(records, scope, name):
    record = records.get(scope)
    compound = None if record is None else record.type_equivs.get(name)
    return compound is not None and _has_first(compound, _kGetPrefix)


def _implicit_class_cell(fact, records):
    """Any read of the name `super` in a function (even of a parameter so
    named, even outside a class) makes Python read a hidden `__class__`; the
    record shows the read of `super` (the fact failed: the text itself never
    reads `__class__`)."""
    return (fact.rule == kFirstReadRule and fact.name == "__class__"
            and fact.table.type == _kFunctionType and _reads(records, fact.scope, "super"))


def _demangled(fact):
    """The private name as written, when symtable shows it mangled by the
    class around it (`__x` in class `_C` is `_C__x`), else None."""
    if fact.class_name is None or fact.rule == kRecordRule:
        return None
    prefix = "_" + fact.class_name.lstrip("_")
    if prefix == "_" or not fact.name.startswith(prefix + "__"):
        return None
    plain = fact.name[len(prefix):]
    return None if plain.endswith("__") else plain


def _mangled(fact):
    """The name as symtable shows it when it is private to a class."""
    if fact.class_name is None or not fact.name.startswith("__") or fact.name.endswith("__"):
        return None
    prefix = "_" + fact.class_name.lstrip("_")
    return None if prefix == "_" else prefix + fact.name


def _private_name(fact, records):
    """Records keep private names as written; symtable mangles them."""
    if fact.rule == kKnownNameRule:
        other = None if fact.name is None else _mangled(fact)
    else:
        other = _demangled(fact)
    return other is not None and fact_holds(fact.with_name(other), records)


def _only_read(fact, records):
    compound = records[fact.scope].type_equivs[fact.name]
    return not _has_first(compound, _kSetPrefix) and _has_first(compound, _kGetPrefix)


def _lazy_annotation(fact, records):
    """Under `from __future__ import annotations` Python never reads an
    annotation; records read the names in it.  Only names of an annotation
    of the scope (or of its def line), read and never set there, qualify."""
    return (fact.rule == kKnownNameRule and fact.name is not None
            and fact.table.lazy_annotations
            and fact.name in fact.table.annotation_names[fact.scope]
            and _only_read(fact, records))


def _string_annotation(fact, records):
    """Records read the names of a string annotation (`-> 'Node'`); for
    Python it is a constant.  Only names of a string annotation of the scope
    (or of its def line), read and never set there, qualify."""
    return (fact.rule == kKnownNameRule and fact.name is not None
            and fact.name in fact.table.string_annotation_names[fact.scope]
            and _only_read(fact, records))


EXCEPTIONS = (
    ("__class__ cell read by super()", _implicit_class_cell),
    ("private name mangled by symtable", _private_name),
    ("annotation never read by Python", _lazy_annotation),
    ("name read in a string annotation", _string_annotation),
)


def excuse_for(fact, records):
    """The name of the exception rule that explains a failed fact, or None."""
    for name, rule in EXCEPTIONS:
        if rule(fact, records):
            return name
    return None


# ---- the comparison -------------------------------------------------------

class COracleResult:
    """Counts per rule: facts checked, held, excused (per exception)."""

    def __init__(self):
        self.files = 0
        self.checked = collections.Counter()
        self.held = collections.Counter()
        self.excused = collections.Counter()            # (rule, exception) -> count
        self.unexplained = []                           # (path, fact)

    def add_file(self, path, facts, records):
        self.files += 1
        for fact in facts:
            self.checked[fact.rule] += 1
            if fact_holds(fact, records):
                self.held[fact.rule] += 1
                continue
            excuse = excuse_for(fact, records)
            if excuse is None:
                self.unexplained.append((path, fact))
            else:
                self.excused[(fact.rule, excuse)] += 1

    def rate(self, rule, with_exceptions):
        checked = self.checked[rule]
        if not checked:
            return 1.0
        agreed = self.held[rule]
        if with_exceptions:
            agreed += sum(n for (r, _), n in self.excused.items() if r == rule)
        return agreed / checked

    def report(self, show=0):
        lines = [f"primary records vs symtable: {self.files} files"]
        lines.append(f"  {'rule':<12}{'checked':>9}{'agree':>9}{'before':>10}{'after':>10}")
        for rule in RULES:
            lines.append(f"  {rule:<12}{self.checked[rule]:>9}{self.held[rule]:>9}"
                         f"{self.rate(rule, False):>10.4%}{self.rate(rule, True):>10.4%}")
        for (rule, excuse), n in sorted(self.excused.items()):
            lines.append(f"  excused ({rule}): {excuse}: {n}")
        lines.append(f"  unexplained: {len(self.unexplained)}")
        for path, fact in self.unexplained[:show]:
            lines.append(f"    {path}: {fact!r}")
        return "\n".join(lines)


def compare_files(paths, mgr=None):
    """Scans and compares every file; gives a `COracleResult`."""
    own = mgr is None
    if own:
        mgr = manager.CAnalysisMgr()
    previous = manager.SetAnalysisMgr(mgr)
    result = COracleResult()
    try:
        for path in paths:
            with open(path, "rb") as f:
                source = f.read()
            tables = CFileTables(source, path)
            records = scan_file(mgr, path)
            result.add_file(path, tables.facts + known_name_facts(tables, records), records)
    finally:
        manager.SetAnalysisMgr(previous)
        if own:
            mgr.destroy()
    return result


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--limit", type=int, default=0, help="only the first N files")
    parser.add_argument("--show", type=int, default=20, help="unexplained differences to list")
    parser.add_argument("--full", action="store_true",
                        help="the full corpus (tests included), files symtable accepts")
    parser.add_argument("--third-party", metavar="FOLDER",
                        help="the pinned third-party packages instead, fetched into FOLDER")
    args = parser.parse_args(argv)
    if args.third_party:
        paths = third_party_files(args.third_party)
        if paths is None:
            parser.error("the third-party wheels couldn't be fetched")
    else:
        paths = corpus_files(args.full)
    if args.limit:
        paths = paths[:args.limit]
    print(compare_files(paths).report(args.show))


if __name__ == "__main__":
    main()

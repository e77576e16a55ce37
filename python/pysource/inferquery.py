"""Asking the inference engine what an expression can be at a line of a file.

The engine resolves an expression read in a scope; the position inside the
scope is the logical index of the line in the scope's body, numbered as the
primary scan numbers it, carried as the expression's logical-index suffix.
This module finds that scope and index for a line, runs the primary scans a
resolve asks for and tries again, and turns the engine's singles into short
canonical text (`int`, `type[Foo]`, `def Foo.meth`, `module os.path`).
"""

import contextlib
import re

from pysource import _fastaccess, coordinator, manager, recordtext, scopescanner, symbolinfo
from pysource.filellinecache import CFileLogicalLineCache

kDefaultSeconds = 2.0
# A resolve that keeps asking for scans it was given stops after this many rounds.
kMaxScanRounds = 8

_kBuiltinsModule = "builtins"
_kNoneClassNames = ("NoneType", "None")
_kScopeIndex = re.compile(r"\|\d+")
_kTypingPrefixes = (symbolinfo.kTypingModuleSymbolDotStr, "typing.")
_kTypingAliases = {"List": "list", "Dict": "dict", "Set": "set", "FrozenSet": "frozenset",
                   "Tuple": "tuple", "Type": "type", "NoneType": "None"}


class CLineOutsideFile(LookupError):
    """The line number is not in the file, or the file can't be read."""


# Positions

def FileLogicals(loc):
    """The logical lines of the file at `loc` (a list, possibly empty), or
    None when the file can't be read."""
    cache = CFileLogicalLineCache(loc)
    try:
        if not cache.Update():
            return None
        return list(cache._fLogicalList)
    finally:
        cache.destroy()


def BodyPositions(logicals):
    """For each logical, (normalised scope name, index in that scope's body),
    the bodies divided as the whole-file primary scan divides them: a def or
    class line and its decorators count in the enclosing scope, nested bodies
    are left out, and a comment goes with the statements around it (a comment
    ahead of a dedent stays in the scope its indentation is inside)."""
    finder = scopescanner._CScopeBodyFinder(list(logicals), -1, False)
    try:
        finder.ProcessUntilEnd()
        return PositionsFound(finder, logicals)
    finally:
        finder.destroy()


def PositionsFound(finder, logicals):
    """BodyPositions of `logicals`, from a body finder that has processed
    every one of them."""
    where = {}
    for item in finder.fCompletedScopeList:
        NotePositions(item, where)
    return [where.get(id(logical)) for logical in logicals]


def NotePositions(item, where):
    """Notes in `where` (id of a logical -> (normalised scope name, index in
    that scope's body)) the body of one completed scope of a body finder;
    gives how many logicals it holds."""
    name = symbolinfo.NormalizedScope(None, item.scope_name).name
    body = item.body
    for index, logical in enumerate(body):
        where[id(logical)] = (name, index)
    return len(body)


def _LogicalAtLine(logicals, lineno):
    """The index of the logical holding `lineno`; on a line no logical holds
    (blank), the next logical; None past the last line of the file."""
    for i, logical in enumerate(logicals):
        last = logical.fFirstLine + logical.fLineCount - 1
        if lineno <= last:
            return i
    return None


def PositionAtLine(loc, lineno, logicals=None):
    """(scope name, logical index) of line `lineno` of `loc`; a line behind
    the last statement of the file is at the end of the module's body.
    CLineOutsideFile for a line outside the file or an unreadable file."""
    if logicals is None:
        logicals = FileLogicals(loc)
    if logicals is None:
        raise CLineOutsideFile(f"cannot read {getattr(loc, 'fPath', loc)}")
    line_count = _LineCount(loc, logicals)
    if lineno < 1 or lineno > line_count:
        raise CLineOutsideFile(f"line {lineno} is outside the file ({line_count} lines)")
    positions = BodyPositions(logicals)
    i = _LogicalAtLine(logicals, lineno)
    if i is None:
        module_count = sum(1 for pos in positions if pos and pos[0] == symbolinfo.kModuleScopeName)
        return symbolinfo.kModuleScopeName, module_count
    return positions[i]


def _LineCount(loc, logicals):
    path = getattr(loc, "fPath", None)
    if path is not None:
        try:
            with open(path, "rb") as f:
                data = f.read()
            return data.count(b"\n") + (0 if not data or data.endswith(b"\n") else 1)
        except OSError:
            pass
    if not logicals:
        return 0
    last = logicals[-1]
    return last.fFirstLine + last.fLineCount - 1


def ScopeAtLine(mgr, loc, lineno):
    """The CScope of the innermost scope whose body holds line `lineno`."""
    name, _ = PositionAtLine(loc, lineno)
    return symbolinfo.Scope(loc, name)


# Resolving

@contextlib.contextmanager
def _Coordinator(mgr):
    # Scanners hand their records to the process's manager: `mgr` is that
    # manager for the duration of the scans.
    previous = manager.SetAnalysisMgr(mgr)
    coord = coordinator.CScanCoordinator(mgr)
    try:
        yield coord
    finally:
        coord.destroy()
        manager.SetAnalysisMgr(previous)


def RunPrimaryScans(mgr, locs):
    """Runs the primary scans of `locs` (those not up to date) into `mgr`."""
    with _Coordinator(mgr) as coord:
        coord.AddLocations(locs)
        coord.RunUntilIdle()


def RunDerivedScans(mgr, locs):
    """Runs the primary scans of `locs`, then their derived scans (what
    callers pass, attributes set from outside) into `mgr`."""
    with _Coordinator(mgr) as coord:
        coord.AddLocations(locs)
        coord.RunUntilIdle()
        coord.AddDerivedLocations(locs)
        coord.RunDerivedUntilIdle()


def EnsureIndexed(mgr, loc):
    """Runs the primary scan of `loc` unless the info cache holds one of its
    current content (an index made before the file changed is scanned
    again, so that the records match the lines asked about)."""
    RunPrimaryScans(mgr, [loc])


def ResolveAt(mgr, loc, lineno, expr_text, seconds=kDefaultSeconds):
    """What `expr_text` can be at line `lineno` of `loc`: (frozenset of
    singles, complete).  Primary scans the resolve needs are run and the
    resolve is tried again, within `seconds` and a bounded number of rounds;
    `complete` is false when the engine still called its answer partial.
    `mgr` is the process's manager meanwhile, for the engine's own lookups."""
    name, index = PositionAtLine(loc, lineno)
    previous = manager.SetAnalysisMgr(mgr)
    try:
        EnsureIndexed(mgr, loc)
        expr = symbolinfo.Scope(loc, name).ExprIn(f"{expr_text}:#{index}")
        return _ResolveWithScans(mgr, expr, _fastaccess.GetNowTime() + seconds)
    finally:
        manager.SetAnalysisMgr(previous)


def _ResolveWithScans(mgr, expr, end_time):
    engine = mgr.fInferenceEngine._fNativeEngine
    return ResolveWithScans(mgr, lambda ctx: engine.ResolveToResult(expr, ctx).resolved,
                            end_time)


def ResolveWithScans(mgr, resolve, end_time):
    """(frozenset of singles, complete) of `resolve(ctx)`, run again after
    the primary scans a try asks for, until `end_time` or a bounded number
    of rounds."""
    engine = mgr.fInferenceEngine._fNativeEngine
    scanned = set()
    resolved = frozenset()
    for _ in range(kMaxScanRounds):
        ctx = engine.NewContext(end_time, False)
        resolved = frozenset(resolve(ctx))
        if not ctx.fIncomplete:
            return resolved, True
        needed = {scope.loc for scope, _scan in (ctx.fNeedsScan or ())} - scanned
        if not needed or _fastaccess.GetNowTime() >= end_time:
            break
        RunPrimaryScans(mgr, sorted(needed, key=lambda loc: loc.fUrl))
        scanned |= needed
    return resolved, False


# Describing

def _ModuleOf(single, mgr):
    return mgr.fInferenceEngine._fNativeEngine.fModuleFinder.ModuleNameOf(single.loc)


def _NamesBuiltinClass(single):
    """Literals and built-in class singles name built-in classes wherever
    they were found."""
    return single.IsLiteral() or \
        symbolinfo.GetInfoBytesKind(_BareSingle(single)) == symbolinfo.kBuiltinClassKind


def _Qualified(name, single, mgr, asked_loc):
    if _NamesBuiltinClass(single):
        return name
    module = _ModuleOf(single, mgr)
    if not module or module == _kBuiltinsModule or single.loc == asked_loc:
        return name
    return f"{module}.{name}"


def _CleanName(name, single, mgr):
    """A class or scope name of `single` without scope indexes and the
    instance mark, its type arguments in canonical form.  Only in builtins
    and typing does `List` stand for `list`: a class `List` of another module
    keeps its own name."""
    name = _kScopeIndex.sub("", name).strip()
    if name.endswith(symbolinfo.kClassInstanceSuffix):
        name = name[:-len(symbolinfo.kClassInstanceSuffix)]
    if _ModuleOf(single, mgr) in (None, "", _kBuiltinsModule, "typing", "typing_extensions"):
        return CanonicalTypeText(name)
    open_i = name.find("[")
    if open_i < 0 or not name.endswith("]"):
        return name
    return f"{name[:open_i]}[{', '.join(_CanonicalArgs(name[open_i + 1:-1]))}]"


def _SplitAt(text, sep):
    return [part.strip() for part in symbolinfo.NonNestedSplit(text, sep)]


def CanonicalTypeText(text):
    """`text` of a type in the form the canonical texts use: the typing
    module's aliases of built-in classes by their built-in names, Optional
    and Union as `|`, members of unions sorted."""
    text = text.strip()
    for prefix in _kTypingPrefixes:
        if text.startswith(prefix):
            text = text[len(prefix):]
    members = _SplitAt(text, "|")
    if len(members) > 1:
        return " | ".join(sorted({CanonicalTypeText(m) for m in members},
                                 key=lambda m: (m == "None", m)))
    open_i = text.find("[")
    if open_i < 0 or not text.endswith("]"):
        return _kTypingAliases.get(text, text)
    head = text[:open_i]
    args = _CanonicalArgs(text[open_i + 1:-1])
    if head == "Optional" and len(args) == 1:
        return CanonicalTypeText(f"{args[0]} | None")
    if head == "Union":
        return CanonicalTypeText(" | ".join(args))
    return f"{_kTypingAliases.get(head, head)}[{', '.join(args)}]"


def _CanonicalArgs(inner):
    """The type arguments between a generic's brackets, each in canonical form."""
    return [CanonicalTypeText(a) for a in _SplitAt(inner, ",")]


def _BareSingle(single):
    """The single's bytes without marks and logical-index suffix."""
    _marks, bare = symbolinfo.PopLeadingPrefixes(bytes(single.ibytes))
    return symbolinfo.SplitLogicalIndexSuffix(bare)[0]


def _BarePayload(single):
    return _BareSingle(single)[symbolinfo.kPrefixLen:].decode("utf-8", "replace")


def _ModuleName(single, mgr):
    """The module a module single stands for: named by a module single,
    an import-as (the whole dotted name) or an import (`import a.b` binds
    `a`); else the module of the single's location."""
    kind = symbolinfo.GetInfoBytesKind(_BareSingle(single))
    payload = _BarePayload(single)
    if payload and kind in (symbolinfo.kModuleKind, symbolinfo.kImportAsNameKind):
        return payload
    if payload and kind == symbolinfo.kImportKind:
        return payload.split(".")[0]
    return _ModuleOf(single, mgr) or "?"


def DescribeSingle(single, mgr, asked_loc=None):
    """The canonical text of one single; classes and functions defined
    outside `asked_loc` (and outside builtins) are qualified by module."""
    if single.IsModule():
        return f"module {_ModuleName(single, mgr)}"
    if single.IsClass():
        name = _CleanName(single.GetClassName() or "?", single, mgr)
        return f"type[{_Qualified(name, single, mgr, asked_loc)}]"
    if single.IsDef():
        scope = single.GetDefinedScope()
        name = _CleanName(scope.name, single, mgr) if scope is not None else "?"
        return f"def {_Qualified(name, single, mgr, asked_loc)}"
    if single.IsInstance():
        name = _CleanName(single.GetInstanceClassName() or single.GetTypeName() or "?", single, mgr)
        if name in _kNoneClassNames:
            return "None"
        return _Qualified(name, single, mgr, asked_loc) + _TypeArgsText(single, mgr, asked_loc)
    return "? " + symbolinfo.DescribeInfo(bytes(single.ibytes))


def _TypeArgsText(single, mgr, asked_loc):
    """`[A, B | C]` for the type arguments the engine knows of a generic
    instance; "" when it knows none.  An argument nothing is known of is
    `Any`."""
    args = getattr(single, "fTypeArgs", None)
    if not isinstance(args, tuple) or not any(args):
        return "[()]" if args == () and single.GetTypeName() == "tuple" else ""
    texts = []
    for arg in args:
        if len(arg) == 1 and next(iter(arg)).ibytes == b":lellipsis":
            texts.append("...")
            continue
        members = {DescribeSingle(s, mgr, asked_loc) for s in arg} if arg else {"Any"}
        texts.append(" | ".join(sorted(members, key=lambda m: (m == "None", m))))
    return "[" + ", ".join(texts) + "]"


def DescribeResolved(singles, mgr, asked_loc=None):
    """The sorted, de-duplicated canonical texts of `singles`."""
    return sorted({DescribeSingle(single, mgr, asked_loc) for single in singles})


def DefinitionOf(single, mgr, bodies_of=None):
    """(path, line) of where `single` is defined: the def or class line of a
    function, class or instance's class (a literal's class is a built-in
    one), the file of a module (found by its name); line None when unknown,
    path None for a location without a path.  `bodies_of` caches the divided files by path."""
    finder = mgr.fInferenceEngine._fNativeEngine.fModuleFinder
    loc = single.loc
    if single.IsModule():
        loc = finder.FindModule(_ModuleName(single, mgr), single.loc) or loc
        return getattr(loc, "fPath", None), None
    if _NamesBuiltinClass(single):
        loc = finder.FindModule(_kBuiltinsModule, None)
    path = getattr(loc, "fPath", None)
    if path is None:
        return path, None
    scope = single.GetDefinedScope()
    if scope is None:
        return path, None
    if bodies_of is None:
        bodies_of = {}
    bodies = bodies_of.get(path)
    if bodies is None:
        bodies = bodies_of[path] = recordtext.CFileBodies(path)
    name = symbolinfo.RemoveAllScopeNameSubscripts(scope.name)
    return path, bodies.fDefLines.get(symbolinfo.NormalizedScope(None, name).name)

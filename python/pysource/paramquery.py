"""What callers pass to a function, parameter by parameter.

A def's own parameters (names, hints, defaults) come from its def info in
the primary record.  What callers pass comes from the derived records on the
def's scope: one per calling scope, mapping `:a<i>` (the def-side position,
`self` counted) to the info bytes of the arguments passed there.  Each single
is resolved by the inference engine (running the primary scans it asks for)
and described as a canonical type text.  A type's call sites are the calls in
the calling scope whose called name ends with the def's leaf name (for
`__init__` and `__new__`, the class's), or the calling scope's own line when
none is found.
"""

import ast

from pysource import _fastaccess, inferquery, recordtext, symbolinfo
from pysource.pycodeutils import ParseDefArgs, kArgStar, kArgStarStar

kDefaultSeconds = 2.0
_kConstructorNames = ("__init__", "__new__")
kDefScopeKinds = (recordtext.kScopeKindFunction, recordtext.kScopeKindMethod)


class CParamTypes:
    """One parameter of a def: as declared, and the types callers pass with
    their call sites ({type text: sorted (path, line)}; line None unknown)."""

    def __init__(self, arg):
        self.fName = arg.name
        self.fKind = arg.kind
        self.fHint = arg.type_hint
        self.fDefault = arg.default
        self.fTypes = {}

    @property
    def fHinted(self):
        return self.fHint is not None

    def Declared(self):
        """The parameter as it stands in the def: `*rest`, `b: int = 1`."""
        text = {kArgStar: "*", kArgStarStar: "**"}.get(self.fKind, "") + self.fName
        if self.fHint is not None:
            text += f": {self.fHint}"
        if self.fDefault is not None:
            text += f" = {self.fDefault}" if self.fHint is not None else f"={self.fDefault}"
        return text

    def AsDict(self):
        return {"name": self.fName, "declared": self.Declared(), "hint": self.fHint,
                "default": self.fDefault, "hinted": self.fHinted,
                "types": [{"type": text, "sites": [{"file": path, "line": line}
                                                   for path, line in sites]}
                          for text, sites in sorted(self.fTypes.items())]}


class CDefParams:
    """The parameters of one def scope and what its callers pass."""

    def __init__(self, scope, line, params, complete, bound_first=False):
        self.fScope = scope
        self.fBoundFirst = bound_first   # the first parameter is `self` or `cls`
        self.fLine = line
        self.fParams = params
        self.fComplete = complete

    def AsDict(self):
        return {"file": getattr(self.fScope.loc, "fPath", None) or self.fScope.loc.fUrl,
                "scope": self.fScope.name, "line": self.fLine, "complete": self.fComplete,
                "bound_first": self.fBoundFirst,
                "params": [param.AsDict() for param in self.fParams]}


# Finding defs

def _DottedParts(name):
    return [part for part in symbolinfo.NormalizedScope(None, name).name.split(".") if part]


def IsDefScope(info_cache, scope):
    info = info_cache.GetScopeInfo(scope)
    return info is not None and \
        recordtext.ScopeKind(scope.name, bytes(info.ibytes)) in kDefScopeKinds


def FindDefScopes(mgr, dotted):
    """The def scopes of the index whose module-qualified dotted name ends
    with the components of `dotted` (`groupby`, `itertoolz.groupby`,
    `C.meth`).  The candidates come from the index's lookup by leaf name."""
    wanted = _DottedParts(dotted)
    if not wanted:
        return []
    finder = mgr.fInferenceEngine._fNativeEngine.fModuleFinder
    info_cache = mgr.fInfoCache
    found = []
    for loc, name in info_cache.FindScopesNamed(wanted[-1]):
        module = finder.ModuleNameOf(loc) or ""
        parts = module.split(".") + _DottedParts(name) if module else _DottedParts(name)
        if parts[-len(wanted):] == wanted:
            scope = symbolinfo.Scope(loc, name)
            if IsDefScope(info_cache, scope):
                found.append(scope)
    return sorted(found, key=lambda scope: (scope.loc.fUrl, scope.name))


# Call sites

class _CCallSites:
    """Lines of calls, per calling scope, read from the callers' primary
    records; the files are divided into bodies once each."""

    def __init__(self, info_cache):
        self.fInfoCache = info_cache
        self._fBodies = {}

    def Bodies(self, loc):
        path = getattr(loc, "fPath", None)
        if path is None:
            return None
        bodies = self._fBodies.get(path)
        if bodies is None:
            bodies = self._fBodies[path] = recordtext.CFileBodies(path)
        return bodies if bodies.fReadable else None

    def Sites(self, caller, leaf, positions, passed):
        """[(path, line)] of the calls in `caller` whose called name ends with
        `leaf`: those whose argument at one of `positions` is `passed(text)`,
        else those with an argument there, else all; the caller's def line
        when no call is found."""
        path = getattr(caller.loc, "fPath", None) or caller.loc.fUrl
        bodies = self.Bodies(caller.loc)
        if bodies is None:
            return [(path, None)]
        scope_name = symbolinfo.NormalizedScope(None, caller.name).name
        calls = self._Calls(caller, leaf)
        reaching = [(index, [args[p] for p in positions if 0 <= p < len(args)])
                    for index, args in calls]
        indexes = [index for index, texts in reaching
                   if any(passed(index, text) for text in texts)] or \
            [index for index, texts in reaching if texts] or [index for index, _ in calls]
        lines = sorted({bodies.LineOf(scope_name, i) for i in indexes} - {None})
        if not lines:
            return [(path, bodies.DefLine(scope_name))]
        return [(path, line) for line in lines]

    def _Calls(self, caller, leaf):
        """[(logical index, argument texts)] of the calls of `leaf` in `caller`."""
        info = self.fInfoCache.GetScopeInfo(caller)
        if info is None:
            return []
        calls = []
        for name, ibytes in info.type_equivs.items():
            for single in symbolinfo.NonNestedSplit(bytes(ibytes), b";"):
                if symbolinfo.GetInfoBytesKind(single) != symbolinfo.kCalledKind:
                    continue
                bare, index = symbolinfo.SplitLogicalIndexSuffix(single)
                suffix, arg_text = symbolinfo.UnpackCalled(bare)
                called = name + (suffix or "")
                if index is None or not (called == leaf or called.endswith("." + leaf)):
                    continue
                args = [str(arg).strip() for arg in symbolinfo.SplitArguments(arg_text or "")]
                calls.append((int(index), args))
        return calls


def _LiteralClassOf(text):
    """The class name of a literal written as `text`, or None."""
    try:
        value = ast.literal_eval(text)
    except (ValueError, SyntaxError, TypeError, MemoryError, RecursionError):
        return "str" if text[-1:] in ("'", '"') else None
    return "None" if value is None else type(value).__name__


def _PassedTest(single):
    """A test of a call's logical index and an argument's source text: could
    it be what `single` was made from (the same name, read at that call, or a
    literal of the same class)?"""
    _marks, bare = symbolinfo.PopLeadingPrefixes(single)
    bare, at = symbolinfo.SplitLogicalIndexSuffix(bare)
    kind = symbolinfo.GetInfoBytesKind(bare)
    if kind == symbolinfo.kPlainEquivKind:
        name = bare.decode("utf-8", "replace")
        return lambda index, text: text == name and at in (None, index)
    if kind == symbolinfo.kTypedLiteralKind:
        class_name = symbolinfo.UnpackLiteralInfo(bare)[0]
        return lambda index, text: _LiteralClassOf(text) == class_name
    return lambda index, text: False


# Resolving

def _DescribeArg(mgr, single, def_scope, seconds, asked_loc):
    """(type texts, complete) of one argument single read for `def_scope`;
    classes outside `asked_loc` are qualified by module."""
    engine = mgr.fInferenceEngine._fNativeEngine
    resolved, complete = inferquery.ResolveWithScans(
        mgr, lambda ctx: engine.SingleResolvedIter(single, def_scope, ctx),
        _fastaccess.GetNowTime() + seconds)
    texts = inferquery.DescribeResolved(resolved, mgr, asked_loc)
    if not texts:
        # Unresolved: the argument as written (a name read in the caller).
        _marks, bare = symbolinfo.PopLeadingPrefixes(single)
        texts = ["? " + symbolinfo.DescribeInfo(bare)]
    return texts, complete


def _ParamAt(params, arg_i):
    """The parameter that takes positional argument `arg_i`: past the
    positional parameters, the `*` one."""
    positional = [p for p in params if p.fKind < kArgStar]
    if arg_i < len(positional):
        return positional[arg_i]
    return next((p for p in params if p.fKind == kArgStar), None)


def _LeafName(def_scope):
    parts = _DottedParts(def_scope.name)
    if len(parts) > 1 and parts[-1] in _kConstructorNames:
        return parts[-2]
    return parts[-1]


def _DeclaredParams(def_scope, def_ibytes):
    """([CParamTypes] of the def as declared, whether its first parameter is
    bound: `self` or `cls` of a method, or of a class's constructor)."""
    definfo = symbolinfo.UnpackDefInfoStr(def_ibytes)
    args_text, _return_text = symbolinfo.SplitDefSignature(definfo.signature)
    params = [CParamTypes(arg) for arg in ParseDefArgs(args_text or "")]
    is_method = recordtext.ScopeKind(def_scope.name, def_ibytes) == recordtext.kScopeKindMethod
    bound_first = bool(params) and is_method and "staticmethod" not in definfo.decorators
    return params, bound_first


def ParamsOf(mgr, def_scope, seconds=kDefaultSeconds, qualify_all=False):
    """The CDefParams of `def_scope`, or None when it has no def record.
    Classes of the def's own file are named without their module unless
    `qualify_all`.  `mgr` should be the process's manager meanwhile (the
    engine's lookups)."""
    info_cache = mgr.fInfoCache
    info = info_cache.GetScopeInfo(def_scope)
    if info is None:
        return None
    params, bound_first = _DeclaredParams(def_scope, bytes(info.ibytes))
    sites = _CCallSites(info_cache)
    leaf = _LeafName(def_scope)

    def positions(arg_i):
        # A call through an instance or class doesn't write `self` (`cls`).
        return (arg_i, arg_i - 1) if bound_first else (arg_i,)

    asked_loc = None if qualify_all else def_scope.loc
    complete = True
    described = {}   # single -> (type texts, complete): callers pass the same names often
    for record in info_cache.GetScopeInfoRecords(def_scope):
        if record.key.scan_name != mgr.fDerivedScanName:
            continue
        caller = record.key.scanned_scope
        for key, ibytes in record.type_equivs.items():
            # Other keys: names of the def's body narrowed from outside.
            arg = symbolinfo.UnpackArgInfo(key) if symbolinfo.IsIndexedArgName(key) else None
            param = _ParamAt(params, arg[0]) if arg is not None else None
            if param is None:
                continue
            for single in symbolinfo.NonNestedSplit(bytes(ibytes), b";"):
                if single not in described:
                    described[single] = _DescribeArg(mgr, single, def_scope, seconds, asked_loc)
                texts, done = described[single]
                complete &= done
                where = sites.Sites(caller, leaf, positions(arg[0]), _PassedTest(single))
                for text in texts:
                    param.fTypes.setdefault(text, set()).update(where)
    for param in params:
        param.fTypes = {text: sorted(where, key=lambda s: (s[0], s[1] or 0))
                        for text, where in param.fTypes.items()}
    bodies = sites.Bodies(def_scope.loc)
    line = bodies.DefLine(symbolinfo.NormalizedScope(None, def_scope.name).name) \
        if bodies is not None else None
    return CDefParams(def_scope, line, params, complete, bound_first)

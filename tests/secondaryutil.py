"""Helpers of the derived scan tests: a scripted inference engine, records
made by hand, and small projects written out."""

import math
import re

from basekit.location import CLocalFileLocation
from pysource import inferenceengine as ie, scopeinfo, scopescanner as ss, symbolinfo as si

kForever = math.inf


class FakeEngine(ie.CInferenceEngine):
    """An engine whose answers are scripted by expression text.

    `script[name]` is a list of singles (a scope itself, an expression of
    no name, is scripted by the scope's name), or a callable (expr, ctx) giving
    one.  `needs[name]` is a callable (call number) giving the (scope, scan
    name) pairs that the resolve of `name` would need scanned, or nothing.
    Every resolve is noted in `calls` as the expression text."""

    def __init__(self, info_cache, script=None, needs=None, hints=None):
        super().__init__(info_cache)
        self.script = dict(script or {})
        self.needs = dict(needs or {})
        self.hints = dict(hints or {})
        self.calls = []

    def ResolveHint(self, expr, ctx=None):
        return list(self.hints.get(expr.name, ()))

    def SingleResolvedIter(self, ibytes, for_scope, ctx=None):
        return iter([si.CSingleResolvedInfo(ibytes, for_scope)])

    def ResolveToResult(self, expr, ctx=None):
        name = bare_name(expr) or expr.scope.name
        self.calls.append(name)
        answer = self.script.get(name, ())
        if callable(answer):
            answer = answer(expr, ctx)
        ctx.fIncomplete = False
        for single in answer:     # what the answer was read from
            ctx.AddScopeToScopesSeen(single.scope)
        pairs = self.needs[name](self.calls.count(name)) if name in self.needs else ()
        if pairs:
            ctx.SetIncomplete(ctx.kCannotScan)
            for scope, scan_name in pairs:
                ctx.AddNeedsScan(scope, scan_name)
        return ie.CResolveResult(frozenset(answer))


class FakeDetails:
    """Details of one generic class."""

    def __init__(self, defined_scope, type_vars):
        self.fDefinedScope = defined_scope
        self.fTypeVars = list(type_vars)

    def GetOrderedTypeVars(self, loc):
        return list(self.fTypeVars)


class FakeDetailsStore:
    """A details store that knows one class and no callables."""

    def __init__(self, details):
        self.details = details

    def GetDetailsSet(self, singles, ctx):
        return set()

    def GetCallableDetails(self, single, ctx):
        return None

    def GetDetails(self, singles, ctx):
        return self.details

    def GetDetailsForInstance(self, resolved, ctx):
        return self.details


def bare_name(expr):
    """The expression's text without the position it is read at (the
    logical-index suffix), which doesn't matter to a script."""
    return re.sub(r":#-?\d+$", "", expr.name)


def install_engine(mgr, **kw):
    engine = FakeEngine(mgr.fInfoCache, **kw)
    mgr.fInferenceEngine._fNativeEngine = engine
    return engine


def add_record(mgr, loc, name, type_equivs, scan_name=None, mtime=100.0):
    """A record of scope `name` of `loc` added to the info cache."""
    scope = si.Scope(loc, name)
    key = scopeinfo.CScopeInfoKey(scope, scan_name or mgr.fPrimaryScanName, scope)
    info = scopeinfo.CScopeInfo(key, b"", mtime, False)
    info.type_equivs = dict(type_equivs)
    info.FinishedBuilding()
    mgr.fInfoCache.AddScopeInfo(info)
    return info


def called(args, suffix=""):
    return si.packedops.PackCalled(suffix, args)


def def_single(mgr, loc, name):
    """The function single of `name` as the module record of `loc` has it."""
    module = si.Scope(loc, "")
    ibytes = mgr.fInfoCache.GetScopeInfo(module).GetInfoBytes(name)
    single = [part for part in ibytes.split(b";") if si.IsDefKind(si.GetInfoBytesKind(part))][0]
    return si.CSingleResolvedInfo(single, module)


def write_project(tmp_path, files):
    """Local file locations for {name: text}."""
    locs = {}
    for name, text in files.items():
        path = tmp_path / name
        path.write_text(text)
        locs[name] = CLocalFileLocation(str(path))
    return locs


def scan_until_final(scanner, end_time=kForever, limit=10000):
    """Calls Scan until a final state; returns the list of states seen."""
    states = []
    while not states or states[-1] in (ss.kTimedOut, ss.kWaitingForScans):
        assert len(states) < limit, "the scan makes no progress"
        states.append(scanner.Scan(end_time))
    return states

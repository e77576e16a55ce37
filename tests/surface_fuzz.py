"""Hostile calls on the Python surface of the extension modules of pysource and
basekit: every public class and function, every method of their instances
(also of destroyed ones) and every settable attribute, with wrong types, None,
huge integers, half-built lists and destroyed objects.  Any exception is a
fine answer; only a crash of the process is a fault.

Run as a script (the test suite does, in a child process, so that a crash is
reported instead of taking the run down):  python surface_fuzz.py SECONDS
With PYSOURCE_FUZZ_TRACE=1 every call is written to stderr before it is made.
"""

import faulthandler
import importlib
import importlib.util
import itertools
import math
import os
import pkgutil
import sys
import tempfile
import time

from hypothesis import HealthCheck, given, settings, strategies as st

import basekit
import pysource

TRACE = os.environ.get("PYSOURCE_FUZZ_TRACE") == "1"

# Whole-process switches that a fuzzed call must not turn: they would slow or
# silence everything after them, not find a fault.
SKIPPED = {"SetWordStore", "_DbgSetScanStats", "SetSpecializeGenericsFromArgs",
           "SetLazyCalledArgEvaluation", "destroy"}


def extension_modules():
    for package in (basekit, pysource):
        for info in pkgutil.iter_modules(package.__path__):
            name = f"{package.__name__}.{info.name}"
            module_spec = importlib.util.find_spec(name)
            if module_spec and module_spec.origin and module_spec.origin.endswith(".so") and not info.name.startswith("lib"):
                yield importlib.import_module(name)


class Samples:
    """Real objects of the system, so that calls get past the first type check."""

    def __init__(self, directory):
        from basekit.location import CLocalFileLocation
        from pysource import symbolinfo as si
        from pysource.filellinecache import BuildLogicalLines
        path = os.path.join(directory, "mod.py")
        with open(path, "w") as f:
            f.write("import os\n@_d\nclass C:\n    def f(self, a: 'int' = 1):\n        return a\n"
                    "x = (yield).send; y: int\n")
        self.loc = CLocalFileLocation(path)
        self.scope = si.CScope(self.loc, "C")
        self.logicals = BuildLogicalLines(open(path).read())
        self.destroyed = self._destroyed()
        self.factories = self._factories()

    @staticmethod
    def _destroyed():
        from basekit.destroyable import CDestroyable
        obj = CDestroyable()
        obj.destroy()
        return obj

    def _factories(self):
        """Makers of the objects that plausible arguments don't build."""
        from basekit.timeout import NoArgCallback
        from pysource import pgeninspect, scopeinfo, scopescanner, inferenceengine

        def info():
            key = scopeinfo.CScopeInfoKey(self.scope, "primary", self.scope)
            return scopeinfo.CScopeInfo(key, b"", None, False)

        def parse_node():
            logical = self.logicals[3]
            pgeninspect.CPGenAnalyzer().AnalyzeSingleLogical(logical, True)
            return logical.fParsed

        return {
            "CLogicalLine": lambda: self.logicals[3],
            "CScopeInfoKey": lambda: info().key,
            "CScopeInfo": info,
            "_CScopeBodyFinder": lambda: scopescanner._CScopeBodyFinder(list(self.logicals), 2,
                                                                        False),
            "CInferenceEngine": lambda: inferenceengine.CInferenceEngine(scopeinfo.CInfoCache()),
            "CParseNode": parse_node,
            "NoArgCallback": lambda: NoArgCallback(len),
        }

    def plausible(self):
        return [None, "C", 0, 1, self.loc, self.scope, self.logicals, self.logicals[1], b"",
                "primary"]

    def hostile(self):
        return [None, 0, -1, 2**63, -2**63 - 1, 2**1000, math.nan, math.inf, -math.inf, "", "x",
                "\udcff", "a;b(", b"", b"\x00\xff", [], [None], [1, None], (), (None,), (None, None),
                {}, {None: None}, {"x": 1}, set(), frozenset({None}), object(), self.loc,
                self.scope, self.logicals, self.logicals[0], [self.logicals[0], None],
                self.destroyed, len, type]


def describe(obj):
    name = getattr(obj, "__qualname__", None) or getattr(obj, "__name__", None)
    if name is None:
        return repr(obj)[:120]
    owner = getattr(obj, "__self__", None)
    if owner is not None and not isinstance(owner, type(sys)):
        return f"{type(owner).__name__}.{name}"
    return f"{getattr(obj, '__module__', '')}.{name}"


def trace(*what):
    if TRACE:
        print("CALL", *[describe(w) if callable(w) else repr(w)[:120] for w in what],
              file=sys.stderr, flush=True)


def attempt(func, *args):
    trace(func, *args)
    try:
        return func(*args)
    except BaseException as e:  # noqa: BLE001 - any Python error is an acceptable answer
        if isinstance(e, (SystemExit, KeyboardInterrupt)):
            raise AssertionError(f"{func!r} raised {type(e).__name__}") from e
        return None


def parameters(func):
    """The annotations of the parameters of a bound function (self left out),
    read from its signature; None when it has none to read."""
    signature = getattr(func, "__nb_signature__", None)
    if not signature:
        return None
    text = signature[0][0]
    inside = text[text.index("(") + 1:text.rindex(")")]
    params, depth, current = [], 0, ""
    for ch in inside + ",":
        if ch in "[(":
            depth += 1
        elif ch in "])":
            depth -= 1
        if ch == "," and depth == 0:
            current = current.strip()
            if current and current not in ("self", "*", "/") and not current.startswith("*"):
                params.append(current.partition(":")[2].partition("=")[0].strip())
            current = ""
        else:
            current += ch
    return params


TYPED_FILLERS = {"str": "x", "int": 0, "bool": False, "float": 0.0, "bytes": b"x", "list": [],
                 "dict": {}, "tuple": (), "set": set()}


def sweep(func, samples):
    """Every hostile value in every parameter position, the other parameters
    filled with values that pass their type checks."""
    params = parameters(func)
    if params is None:
        params = ["object"] * 2
    for filler in ("x", 0, samples.logicals[0]):
        base = [TYPED_FILLERS.get(kind.replace(" | None", ""), filler) for kind in params]
        attempt(func, *base)
        for position in range(len(base)):
            for value in samples.hostile():
                args = list(base)
                args[position] = value
                attempt(func, *args)


def make_instances(cls, samples):
    """Instances of `cls` from plausible arguments (several, where more than
    one set of arguments is accepted), and each again destroyed."""
    made = []
    factory = samples.factories.get(cls.__name__)
    if factory is not None:
        made.append(attempt(factory))
    for count in range(4 if not made else 0):
        for args in itertools.product(samples.plausible(), repeat=count):
            trace("new", cls, *args)
            try:
                made.append(cls(*args))
            except Exception:  # noqa: BLE001
                continue
            if len(made) >= 3:
                break
        if made:
            break
    made = [obj for obj in made if isinstance(obj, cls)]
    if made and hasattr(made[0], "destroy"):
        attempt(made[-1].destroy)
    return made


def members(cls):
    """(methods, settable attributes) by name."""
    methods, settable = [], []
    for name in dir(cls):
        if name.startswith("__") or name in SKIPPED:
            continue
        attr = getattr(cls, name, None)
        if isinstance(attr, property) or hasattr(type(attr), "__set__"):
            if getattr(attr, "fset", True) is not None:
                settable.append(name)
        elif callable(attr):
            methods.append(name)
    return methods, settable


def fuzz_class(cls, samples, examples):
    methods, settable = members(cls)
    values = st.sampled_from(samples.hostile())
    calls = st.tuples(st.just("call"), st.sampled_from(methods or ["__class__"]),
                      st.lists(values, max_size=5))
    sets = st.tuples(st.just("set"), st.sampled_from(settable or ["__class__"]), values)
    ops = st.lists(st.one_of(calls, sets) if settable else calls, min_size=1, max_size=6)
    instances = make_instances(cls, samples)
    if not instances:
        return

    @settings(max_examples=examples, deadline=None, database=None, derandomize=True,
              suppress_health_check=list(HealthCheck))
    @given(st.sampled_from(range(len(instances))), ops)
    def run(index, steps):
        obj = instances[index]
        for kind, name, arg in steps:
            if kind == "set":
                trace("set", cls, name, arg)
                try:
                    setattr(obj, name, arg)
                except BaseException:  # noqa: BLE001
                    pass
            elif name != "__class__":
                method = getattr(obj, name, None)
                if callable(method):
                    attempt(method, *arg)

    run()


def fuzz_function(func, samples, examples):
    @settings(max_examples=examples, deadline=None, database=None, derandomize=True,
              suppress_health_check=list(HealthCheck))
    @given(st.lists(st.sampled_from(samples.hostile()), max_size=5))
    def run(args):
        attempt(func, *args)

    run()


ATTRIBUTE_VALUES = 8  # the first hostile values, set into every settable attribute


def fuzz_attributes(cls, instances, samples):
    """Every settable attribute set to hostile values, each followed by a
    call of every method with arguments that pass their type checks."""
    methods, settable = members(cls)
    for obj in instances:
        for name in settable:
            for value in samples.hostile()[:ATTRIBUTE_VALUES] + [[samples.logicals[0], None]]:
                trace("set", cls, name, value)
                try:
                    setattr(obj, name, value)
                except BaseException:  # noqa: BLE001
                    continue
                for method in methods:
                    bound = getattr(obj, method, None)
                    if callable(bound):
                        params = parameters(bound) or []
                        attempt(bound, *[TYPED_FILLERS.get(k.replace(" | None", ""), "x")
                                         for k in params])


def main(seconds):
    faulthandler.enable()
    sys.setrecursionlimit(10000)
    deadline = time.monotonic() + seconds
    with tempfile.TemporaryDirectory() as directory:
        samples = Samples(directory)
        classes, functions = [], []
        for module in extension_modules():
            for name in sorted(dir(module)):
                obj = getattr(module, name)
                if name.startswith("__") or name in SKIPPED:
                    continue
                if isinstance(obj, type) and not issubclass(obj, BaseException):
                    classes.append(obj)
                elif callable(obj):
                    functions.append(obj)
        for func in functions:
            sweep(func, samples)
        for cls in classes:
            instances = make_instances(cls, samples)
            methods, _ = members(cls)
            for obj in instances:
                for name in methods:
                    bound = getattr(obj, name, None)
                    if callable(bound):
                        sweep(bound, samples)
            fuzz_attributes(cls, make_instances(cls, samples), samples)
        # Random sequences of calls and assignments for the time that is left.
        targets = [(fuzz_class, cls) for cls in classes] + [(fuzz_function, f) for f in functions]
        rounds = 0
        while time.monotonic() < deadline and rounds < 3:
            for fuzz, target in targets:
                if time.monotonic() > deadline:
                    break
                fuzz(target, samples, 40)
            rounds += 1
    print("fuzzed", len(classes), "classes and", len(functions), "functions")


if __name__ == "__main__":
    main(float(sys.argv[1]) if len(sys.argv) > 1 else 60.0)

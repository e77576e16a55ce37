"""Runtime oracle for what callers pass: the argument types the derived scan
records against a package's functions, checked against the types those
functions really receive while the package's own test suite runs.

    python bench/params_oracle.py [--package toolz] [--module NAME] [--with-tests] [--samples N]

The package's sdist is downloaded once into the cache folder and unpacked
there; its importable folder (`--module`, by default the package's name with
`_` for `-`) is found at the top or under `src/`, its tests inside it or
beside it.  The test suite runs in a child process under a profiling hook that
notes, per function of the package (the tests left out) and per parameter,
the runtime type of every argument a caller passed; a value that is the
parameter's own default object counts as not passed, though a type we report
is right when it is the default's.  The package's source is then indexed
(its tests left out unless --with-tests) and, per exercised parameter, the
types `pysource.paramquery` reports are compared with the runtime set:

- precision: of the types we report, the share the parameter really received;
- recall: of the parameters that received arguments at runtime, the share
  for which we report at least one type that it really received.

Types are compared by class: type arguments are dropped (`list[int]` is
`list`), a function is `function`, a class `type`, a module `module`; a type
we report is right too when it is a base class of a runtime argument's class
or an abstract class of `typing` the argument is an instance of.
"""

import argparse
import collections
import functools
import glob
import importlib
import json
import os
import re
import subprocess
import sys
import tarfile
import time

kDefaultPackage = "toolz"
kDefaultCache = os.path.join(os.path.expanduser("~"), ".cache", "pysource-oracle")
kTestsDirNames = ("tests", "test")
kAbstractClasses = ("Iterator", "Iterable", "Generator", "Mapping", "MutableMapping", "Sequence",
                    "MutableSequence", "Set", "Collection", "Container", "Callable", "Hashable",
                    "Sized", "Reversible")
kSelfNames = ("self", "cls")
# typing's other names of the abstract classes above.
kTypingAliases = {"typing.AbstractSet": "typing.Set"}
_kScopeIndex = re.compile(r"\|\d+")

# Runtime classes that stand for what our texts call a function, a class, a module.
kFunctionClasses = {"function", "builtin_function_or_method", "method", "method_descriptor",
                    "wrapper_descriptor", "method-wrapper"}
kClassMetaclasses = {"type", "abc.ABCMeta", "enum.EnumMeta", "enum.EnumType"}
# Our names of the runtime classes of functions and methods, which the runtime
# side counts as `function` too.
kFunctionTypeTexts = {"types.FunctionType", "types.LambdaType", "types.MethodType",
                      "types.BuiltinFunctionType", "types.BuiltinMethodType",
                      "types.MethodWrapperType", "types.WrapperDescriptorType",
                      "types.MethodDescriptorType"}


# The package

def UnpackedPackage(name, cache):
    """The folder of the unpacked sdist of `name` in `cache`, downloaded and
    unpacked when it isn't there yet."""
    os.makedirs(cache, exist_ok=True)
    patterns = {os.path.join(cache, f"{n}-*.tar.gz") for n in (name, name.replace("-", "_"))}
    archives = [a for pattern in patterns for a in glob.glob(pattern)]
    if not archives:
        subprocess.run([sys.executable, "-m", "pip", "download", "-q", "--no-binary", ":all:",
                        "--no-deps", name, "-d", cache], check=True)
        archives = [a for pattern in patterns for a in glob.glob(pattern)]
    archive = sorted(archives)[-1]
    root = archive[:-len(".tar.gz")]
    if not os.path.isdir(root):
        with tarfile.open(archive) as tar:
            tar.extractall(cache, filter="data")
    return root


# Tracing (runs in the child process)

class CArgTracer:
    """Notes the runtime type names of the arguments each function of the
    package receives, per (file, qualified name) and parameter."""

    def __init__(self, source_dir, tests_dir):
        self.fSourceDir = source_dir + os.sep
        self.fTestsDir = tests_dir + os.sep
        self.fSeen = collections.defaultdict(lambda: collections.defaultdict(set))
        self.fDefaulted = collections.defaultdict(lambda: collections.defaultdict(set))
        self.fSupertypes = collections.defaultdict(lambda: collections.defaultdict(set))
        self.fCalls = collections.Counter()
        self.fFailures = 0           # calls whose arguments could not be described
        self._fParamsOf = {}

    def _Params(self, code):
        """[(name, default object or a marker, is star)] of `code`, or None for
        code outside the package."""
        params = self._fParamsOf.get(code, False)
        if params is not False:
            return params
        path = code.co_filename
        params = None
        if path.startswith(self.fSourceDir) and not path.startswith(self.fTestsDir):
            params = self._DescribeParams(code)
        self._fParamsOf[code] = params
        return params

    @staticmethod
    def _DescribeParams(code):
        import gc
        import inspect
        func = next((f for f in gc.get_referrers(code)
                     if inspect.isfunction(f) and f.__code__ is code), None)
        positional = code.co_argcount
        names = code.co_varnames[:positional + code.co_kwonlyargcount]
        defaults = {}
        if func is not None:
            for name, value in zip(names[positional - len(func.__defaults__ or ()):positional],
                                   func.__defaults__ or ()):
                defaults[name] = value
            defaults.update(func.__kwdefaults__ or {})
        params = [(name, defaults.get(name, _kNoDefault), False) for name in names]
        if code.co_flags & inspect.CO_VARARGS:
            params.append((code.co_varnames[len(names)], _kNoDefault, True))
        return params

    def __call__(self, frame, event, _arg):
        if event != "call":
            return
        try:
            self._Note(frame)
        except Exception:  # an exception here would unset the hook for the rest of the run
            self.fFailures += 1

    def _Note(self, frame):
        code = frame.f_code
        params = self._Params(code)
        if not params:
            return
        key = (os.path.relpath(code.co_filename, self.fSourceDir), code.co_qualname,
               code.co_firstlineno)
        self.fCalls[key] += 1
        values = frame.f_locals
        seen = self.fSeen[key]
        for name, default, star in params:
            if name not in values:
                continue
            value = values[name]
            if value is default:
                # Not passed, or passed the default object itself.
                self.fDefaulted[key][name].add(RuntimeTypeName(value))
                continue
            for item in (value if star else (value,)):
                seen[name].add(RuntimeTypeName(item))
                self.fSupertypes[key][name].update(SupertypeNames(item))

    def Dump(self, path):
        data = [{"file": f, "qualname": q, "line": line, "calls": self.fCalls[(f, q, line)],
                 "params": {n: sorted(t) for n, t in params.items()},
                 "defaulted": {n: sorted(t) for n, t in self.fDefaulted[(f, q, line)].items()},
                 "supertypes": {n: sorted(t) for n, t in self.fSupertypes[(f, q, line)].items()}}
                for (f, q, line), params in sorted(self.fSeen.items())]
        with open(path, "w") as out:
            json.dump(data, out, indent=1)


_kNoDefault = object()


def _PublicNames():
    """{class: name} of the builtin classes that only `types` names
    (`frame` is `types.FrameType`)."""
    import types
    kept = kFunctionClasses | {"NoneType", "generator", "module", "type"}
    return {cls: f"types.{name}" for name, cls in sorted(vars(types).items())
            if isinstance(cls, type) and not name.startswith("_")
            and cls.__module__ == "builtins" and cls.__qualname__ not in kept}


_kPublicNames = None


def ClassName(cls):
    global _kPublicNames
    if _kPublicNames is None:
        _kPublicNames = _PublicNames()
    if cls in _kPublicNames:
        return _kPublicNames[cls]
    qualname = cls.__qualname__.replace(".<locals>", "")
    module = cls.__module__
    return qualname if module == "builtins" else f"{module}.{qualname}"


def RuntimeTypeName(value):
    return ClassName(type(value))


def SupertypeNames(value):
    """The names of the base classes of `value`'s class and of the abstract
    classes of `typing` it is an instance of (`typing.Iterator`)."""
    import collections.abc as abc
    names = {ClassName(cls) for cls in type(value).__mro__[1:]}
    for name in kAbstractClasses:
        if isinstance(value, getattr(abc, name)):
            names.add(f"typing.{name}")
    return names


def _TraceMain(source_dir, tests_dir, out_path):
    import threading

    import pytest
    sys.path.insert(0, os.path.dirname(source_dir))
    tracer = CArgTracer(source_dir, tests_dir)
    threading.setprofile(tracer)
    sys.setprofile(tracer)
    try:
        code = pytest.main(["-q", "-p", "no:cacheprovider", tests_dir])
    finally:
        sys.setprofile(None)
        threading.setprofile(None)
    tracer.Dump(out_path)
    return int(code)


def SourceAndTestsDirs(root, module):
    """(the module's folder, its tests' folder) in the unpacked sdist."""
    source_dir = next((d for d in (os.path.join(root, module), os.path.join(root, "src", module))
                       if os.path.isdir(d)), None)
    if source_dir is None:
        raise SystemExit(f"no folder {module} in {root}; name it with --module")
    tests_dir = next((os.path.join(parent, name) for parent in (source_dir, root)
                      for name in kTestsDirNames if os.path.isdir(os.path.join(parent, name))),
                     None)
    if tests_dir is None:
        raise SystemExit(f"no tests folder in {source_dir} or {root}")
    return source_dir, tests_dir


def RunTracedSuite(root, source_dir, tests_dir, out_path):
    started = time.time()
    result = subprocess.run([sys.executable, __file__, "--trace", source_dir, tests_dir, out_path],
                            cwd=root, capture_output=True, text=True)
    last = (result.stdout.strip().splitlines() or ["(no output)"])[-1]
    print(f"test suite under the profiling hook: {last} ({time.time() - started:.1f}s)")
    with open(out_path) as f:
        return json.load(f)


# Our side

def PythonFiles(folder):
    return {os.path.join(d, f) for d, _dirs, names in os.walk(folder)
            for f in names if f.endswith(".py")}


def IndexPackage(source_dir, tests_dir, db_path, with_tests):
    """`pysource index` of the package's source, its tests left out unless
    `with_tests`."""
    tests = PythonFiles(tests_dir)
    files = (PythonFiles(source_dir) - tests) | (tests if with_tests else set())
    if os.path.exists(db_path):
        os.remove(db_path)
    started = time.time()
    subprocess.run([sys.executable, "-m", "pysource", "index", "--db", db_path] + sorted(files),
                   check=True)
    print(f"indexed {len(files)} files in {time.time() - started:.1f}s")


def OurScopeName(qualname):
    return qualname.replace(".<locals>", "")


def Comparable(text):
    """A type text of ours as a runtime class name, or None for a text that
    names no class (an unresolved argument)."""
    if text.startswith("? "):
        return None
    if text.startswith("def "):
        return "function"
    if text.startswith("type["):
        return "type"
    if text.startswith("module "):
        return "module"
    if text == "None":
        return "NoneType"
    text = text.split("[", 1)[0]
    if text in kFunctionTypeTexts:
        return "function"
    if text.startswith("collections.abc."):
        text = "typing." + text[len("collections.abc."):]
    return _StandardAlias(kTypingAliases.get(text, text))


@functools.lru_cache(maxsize=None)
def _StandardAlias(text):
    """The runtime name of the class a dotted text names in the standard
    library, when the text is an alias of it (`_thread.LockType` is
    `_thread.lock`); the text itself otherwise."""
    module, _, name = text.rpartition(".")
    if module.split(".")[0] not in sys.stdlib_module_names or module == "typing":
        return text
    try:
        value = getattr(importlib.import_module(module), name)
    except (ImportError, AttributeError):
        return text
    return RuntimeComparable(ClassName(value)) if isinstance(value, type) else text


def RuntimeComparable(name):
    if name in kFunctionClasses:
        return "function"
    if name in kClassMetaclasses:
        return "type"
    return name


def OurParams(index, source_dir, path, qualname, seconds):
    """{parameter name: {our comparable type text: call sites "file:line"}}
    of the function, or None when the index has no def of that name in the
    file."""
    from basekit.location import CLocalFileLocation
    from pysource import paramquery, symbolinfo
    mgr = index.fMgr
    loc = CLocalFileLocation(os.path.join(source_dir, path))
    wanted = OurScopeName(qualname)
    scopes = [symbolinfo.Scope(loc, name) for name in mgr.fInfoCache.GetScopesForLoc(loc)
              if _kScopeIndex.sub("", name) == wanted]
    found = None
    for scope in scopes:
        def_params = paramquery.ParamsOf(mgr, scope, seconds, qualify_all=True)
        if def_params is None:
            continue
        found = found or {}
        for param in def_params.fParams:
            texts = found.setdefault(param.fName, {})
            for text, sites in param.fTypes.items():
                if Comparable(text) is not None:
                    texts.setdefault(Comparable(text), set()).update(
                        f"{os.path.relpath(site_path, source_dir)}:{line}" for site_path, line in sites)
    return found


# Comparing

class CTally:
    def __init__(self):
        self.fReported = 0           # type texts we report, over exercised parameters
        self.fCorrect = 0            # of those, ones the runtime saw (or a base of one)
        self.fExact = 0              # of those, ones the runtime saw exactly
        self.fExercised = 0          # parameters that received arguments at runtime
        self.fFound = 0              # of those, ones where we report a correct type
        self.fSilent = 0             # exercised parameters we report nothing for
        self.fWrong = collections.defaultdict(list)   # kind -> samples
        self.fMissed = collections.defaultdict(list)

    def Add(self, where, ours_sites, runtime, defaulted, supertypes):
        """`ours_sites`: {type we report: its call sites}; `runtime`: the
        classes of arguments passed; `defaulted`: of the default object,
        which a caller may have passed too; `supertypes`: base and abstract
        classes of the arguments passed."""
        ours = set(ours_sites)
        runtime = {RuntimeComparable(t) for t in runtime}
        self.fExercised += 1
        self.fReported += len(ours)
        right = ours & runtime
        self.fCorrect += len(ours & (runtime | defaulted | supertypes))
        self.fExact += len(ours & (runtime | defaulted))
        self.fFound += bool(right)
        self.fSilent += not ours
        for text in sorted(ours - runtime - defaulted - supertypes):
            sites = ", ".join(sorted(ours_sites[text])[:3])
            self.fWrong[_WrongKind(text, runtime)].append(
                (f"{where} from {sites}", text, sorted(runtime)))
        if ours and not right:
            self.fMissed["reported only wrong types"].append((where, sorted(ours), sorted(runtime)))
        elif not ours:
            self.fMissed["reported nothing"].append((where, [], sorted(runtime)))


def _WrongKind(text, runtime):
    if runtime and runtime <= {"tuple", "dict"}:
        return "we give items where the runtime saw a tuple or dict (*args, **kwargs passed on?)"
    short = {t.rsplit(".", 1)[-1] for t in runtime}
    if text.rsplit(".", 1)[-1] in short:
        return "same class name, other module"
    if text == "NoneType":
        return "None where runtime never saw None"
    if text in ("int", "float", "str", "bytes", "bool", "list", "tuple", "dict", "set"):
        return "built-in literal class the runtime never saw"
    if text in ("function", "type", "module"):
        return f"a {text} the runtime never saw"
    return "other class the runtime never saw"


def _Percent(part, whole):
    return f"{100.0 * part / whole:5.1f}%" if whole else "   n/a"


def Compare(trace, source_dir, db_path, seconds, samples):
    from pysource import cli
    index = cli._CIndex(db_path, read_only=True)
    total = CTally()
    per_file = collections.defaultdict(CTally)
    skipped = collections.Counter()
    started = time.time()
    try:
        for entry in trace:
            if "<lambda>" in entry["qualname"] or "<" in OurScopeName(entry["qualname"]):
                skipped["lambda or comprehension"] += 1
                continue
            ours = OurParams(index, source_dir, entry["file"], entry["qualname"], seconds)
            if ours is None:
                skipped["no def of that name in the index"] += 1
                continue
            where = f"{entry['file']}:{entry['line']} {entry['qualname']}"
            for name, runtime in sorted(entry["params"].items()):
                if name in kSelfNames or not runtime:
                    continue
                got = ours.get(name, {})
                defaulted = {RuntimeComparable(t) for t in entry["defaulted"].get(name, ())}
                supertypes = set(entry["supertypes"].get(name, ()))
                for tally in (total, per_file[entry["file"]]):
                    tally.Add(f"{where}({name})", got, runtime, defaulted, supertypes)
    finally:
        index.close()
    print(f"compared in {time.time() - started:.1f}s; functions skipped: "
          + (", ".join(f"{n} {k}" for k, n in skipped.items()) or "none"))
    print()
    header = f"{'file':<28} {'params':>6} {'found':>6} {'silent':>6} {'types':>6} " \
             f"{'right':>6} {'precision':>9} {'recall':>7}"
    print(header)
    print("-" * len(header))
    for name, tally in sorted(per_file.items()) + [("TOTAL", total)]:
        if name == "TOTAL":
            print("-" * len(header))
        print(f"{name:<28} {tally.fExercised:>6} {tally.fFound:>6} {tally.fSilent:>6} "
              f"{tally.fReported:>6} {tally.fCorrect:>6} "
              f"{_Percent(tally.fCorrect, tally.fReported):>9} "
              f"{_Percent(tally.fFound, tally.fExercised):>7}")
    print()
    print(f"precision {_Percent(total.fCorrect, total.fReported).strip()} (goal >= 95%; "
          f"{_Percent(total.fExact, total.fReported).strip()} without counting base and "
          "abstract classes), "
          f"recall {_Percent(total.fFound, total.fExercised).strip()} (goal >= 60%)")
    for title, groups in (("types we report that the runtime never saw", total.fWrong),
                          ("parameters where every type we report is wrong", total.fMissed)):
        if not groups:
            continue
        print(f"\n{title}:")
        for kind, items in sorted(groups.items(), key=lambda kv: -len(kv[1])):
            print(f"  {kind}: {len(items)}")
            for where, ours, runtime in items[:samples]:
                print(f"    {where}: we say {ours}, runtime saw {runtime}")
    return total


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--package", default=kDefaultPackage, help="the name of the sdist")
    parser.add_argument("--module", help="the importable folder, if not the package's name")
    parser.add_argument("--cache", default=kDefaultCache)
    parser.add_argument("--seconds", type=float, default=2.0, help="time for each resolve")
    parser.add_argument("--samples", type=int, default=4, help="samples per kind of disagreement")
    parser.add_argument("--with-tests", action="store_true",
                        help="index the tests too, so that their calls count as callers")
    parser.add_argument("--reuse-trace", action="store_true",
                        help="read the runtime types of the last run instead of running the suite")
    parser.add_argument("--trace", nargs=3, metavar=("SOURCE", "TESTS", "OUT"), help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.trace:
        return _TraceMain(*args.trace)
    root = UnpackedPackage(args.package, args.cache)
    source_dir, tests_dir = SourceAndTestsDirs(root, args.module or args.package.replace("-", "_"))
    print(f"package: {os.path.basename(root)} ({root}); callers in its tests are "
          + ("indexed too" if args.with_tests else "left out"))
    trace_path = os.path.join(root, "runtime-args.json")
    if args.reuse_trace and os.path.exists(trace_path):
        with open(trace_path) as f:
            trace = json.load(f)
    else:
        trace = RunTracedSuite(root, source_dir, tests_dir, trace_path)
    db_path = os.path.join(root, "oracle-index.db")
    IndexPackage(source_dir, tests_dir, db_path, args.with_tests)
    Compare(trace, source_dir, db_path, args.seconds, args.samples)
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""`pysource params`: what callers in other files pass to a function's
parameters, with their call sites, after `pysource index`."""

import contextlib
import json
import textwrap

import pytest

from pysource import cli
from scanutil import CounterClock, build_speed_clock, replaced_clock

LIB = textwrap.dedent('''\
    class Foo:
        def meth(self, x, y=None):
            return x


    def helper(a, b: int, c=3, *rest):
        return a
    ''')

APP = textwrap.dedent('''\
    from lib import helper, Foo


    def run(url):
        foo = Foo()
        helper(1, 2, "s")
        helper(url, 5)
        foo.meth([1, 2], foo)
        return helper(foo, 1, 2, 3.5)


    run("http://x")
    ''')


def run(capsys, *argv):
    code = cli.main(list(argv))
    out, err = capsys.readouterr()
    return code, out, err


@pytest.fixture
def project(tmp_path, monkeypatch, capsys):
    (tmp_path / "lib.py").write_text(LIB)
    (tmp_path / "app.py").write_text(APP)
    monkeypatch.chdir(tmp_path)
    assert run(capsys, "index")[0] == 0
    return tmp_path


def params_json(capsys, func):
    code, out, _err = run(capsys, "params", func, "--json")
    assert code == 0
    (found,) = json.loads(out)
    return found, {p["name"]: p for p in found["params"]}


def types_of(param):
    return {t["type"]: [f"{s['file'].rpartition('/')[2]}:{s['line']}" for s in t["sites"]]
            for t in param["types"]}


def test_callers_in_another_file_with_their_lines(project, capsys):
    found, params = params_json(capsys, "helper")
    assert (found["scope"], found["line"]) == ("helper", 6)
    # Each name passed is resolved where it was used, and placed on its call.
    assert types_of(params["a"]) == {"int": ["app.py:6"], "str": ["app.py:7"],
                                     "Foo": ["app.py:9"]}
    assert types_of(params["c"]) == {"str": ["app.py:6"], "int": ["app.py:9"]}
    assert types_of(params["rest"]) == {"float": ["app.py:9"]}
    # A hinted parameter keeps its hint; what callers pass isn't recorded for it.
    assert (params["b"]["hinted"], params["b"]["hint"], params["b"]["types"]) == \
        (True, "int", [])
    assert (params["c"]["default"], params["c"]["hinted"]) == ("3", False)


def test_text_form_and_a_method_by_its_dotted_name(project, capsys):
    code, out, _err = run(capsys, "params", "Foo.meth")
    assert code == 0
    assert out.splitlines()[0].startswith("Foo.meth  (lib.py:2)")
    assert "    list  <- app.py:8" in out
    assert "    Foo  <- app.py:8" in out
    code, out, _err = run(capsys, "params", "lib.py:helper")
    assert code == 0 and "  b: int  [hinted]\n" in out
    assert "  c=3\n    int  <- app.py:9\n    str  <- app.py:6\n" in out


# What callers passed from a scope that an edit removed or renamed is gone
# with it, after a restart as much as in the same process.
@pytest.mark.parametrize("edit, expected_a, expected_c", [
    (lambda text: text.replace('helper(1, 2, "s")', 'helper(b"x", 2)'),
     {"bytes": ["app.py:6"], "str": ["app.py:7"], "Foo": ["app.py:9"]}, {"int": ["app.py:9"]}),
    (lambda text: "from lib import helper\nhelper(b'x', 2, 1.5)\n",
     {"bytes": ["app.py:2"]}, {"float": ["app.py:2"]}),
    (lambda text: text.replace("run", "go"),
     {"int": ["app.py:6"], "str": ["app.py:7"], "Foo": ["app.py:9"]},
     {"str": ["app.py:6"], "int": ["app.py:9"]}),
])
def test_an_edited_caller_changes_the_answer(project, capsys, edit, expected_a, expected_c):
    (project / "app.py").write_text(edit(APP))
    assert run(capsys, "index")[0] == 0
    _found, params = params_json(capsys, "helper")
    assert types_of(params["a"]) == expected_a
    assert types_of(params["c"]) == expected_c


@pytest.mark.parametrize("func", ["nothing_here", "lib.py:Foo", "lib.py:absent"])
def test_names_that_name_no_function(project, capsys, func):
    code, out, err = run(capsys, "params", func)
    assert (code, out) == (cli.kExitFailed, "")
    assert err.startswith("pysource: ")


def test_show_of_a_function_lists_what_callers_pass(project, capsys):
    code, out, _err = run(capsys, "show", "lib.py:helper")
    assert code == 0
    section = out[out.index("  callers pass:\n"):]
    # Call sites are shown like the function's own file: relative to where the command runs.
    assert "      str  <- " in section and section.rstrip().endswith("float  <- app.py:9")
    code, out, _err = run(capsys, "show", "lib.py:Foo", "--json")
    assert "callers_pass" not in json.loads(out)[0]


# What a caller passes is what reaches its call, by Python's rules.
@pytest.mark.parametrize("body, param, expected", [
    # A setting after the call doesn't reach it.
    ("x = 1\n    target(x)\n    x = 's'", "a", {"int"}),
    ("x = b''\n    x = target(x)", "a", {"bytes"}),
    ("f = len\n    f(1.5)\n    f = target", "a", set()),
    # Keywords go to the parameter of that name, not to a position.
    ("target(1, k='s', b=1.5)", "b", {"float"}),
    ("target(1, k='s', b=1.5)", "rest", set()),
    ("target(k=1)", "a", set()),
    ("target(a == 1, 2)", "a", {"bool"}),
    # An expression of several terms means what it means in parentheses.
    ("target(v or '', v + 1)", "a", {"float", "str"}),
    ("target(v or '', v + 1)", "b", {"float"}),
    ("target(x == 1 for x, _ in [(1, '')])", "a", {"typing.Generator[bool, None, None]"}),
    ("target(x == 1 for x, _ in [(1, '')])", "b", set()),
    # A bracket that opens an expression, not a display filling the argument.
    ("target((x for x in [1]))", "a", {"typing.Generator[int, None, None]"}),
    ("target((v or ''))", "a", {"float", "str"}),
    ("target([1][0])", "a", {"int"}),
    ("target((1,))", "a", {"tuple"}),
    # A lambda is a function, whatever it does.
    ("target(lambda x: x, b=lambda: 1)", "b", {"function"}),
    ("target(lambda x, y: x, 's')", "b", {"str"}),
    ("def pick(f):\n        if not callable(f):\n            target(f)\n    pick(lambda: 1)\n    pick(2)", "a", {"int"}),
    # Past an unpacked argument, positions are unknown.
    ("target(*[1], 's')", "b", set()),
    # Tests of None around the call (v: None or float).
    ("target(v)", "a", {"None", "float"}),
    ("if v:\n        target(v)", "a", {"float"}),
    ("if isinstance(v, float) and v > 1:\n        target(v)", "a", {"float"}),
    ("if isinstance(v, (float, type(None))):\n        return\n    target(v)", "a",
     {"? expression v (logical 2)"}),
    ("if v is None:\n        return\n    target(v)", "a", {"float"}),
    ("if v is None:\n        v = []\n    target(v)", "a", {"float", "list"}),
    ("if v is None:\n        pass\n    target(v)", "a", {"None", "float"}),
    ("if v is None:\n        v = ''\n    if v == '':\n        v = 1\n    target(v)", "a", {"float", "str", "int"}),
    ("w = v or []\n    target(w)", "a", {"float", "list"}),
    ("w = v and []\n    target(w)", "a", {"None", "float", "list"}),
    ("if v is not None:\n        v = None\n        target(v)", "a", {"None"}),
    ("v = v or []\n    target(v)", "a", {"float", "list"}),
    ("if v is None:\n        pass\n    else:\n        target(v)", "a", {"float"}),
    ("if not v:\n        pass\n    elif v > 1:\n        target(v)", "a", {"float"}),
    ("for i in v:\n        pass\n    else:\n        target(v)", "a", {"None", "float"}),
    # callable() tells functions and classes from other values.
    ("w = len if v else v\n    if not callable(w):\n        target(w)", "a", {"None", "float"}),
    ("w = len if v else v\n    if callable(w):\n        target(w)", "a", {"def len"}),
    ("w = (lambda: 1) if v else 2\n    if not callable(w):\n        target(w)", "a", {"int"}),
    # A def binds its name once made: not in its own defaults or decorators, but on a later turn.
    ("def w(x=target(w)):\n        pass", "a", {"? expression w (logical 0)"}),
    ("for i in [1]:\n        if i:\n            target(w)\n        def w():\n            pass", "a", {"def app.run.w"}),
    # A comprehension's or a lambda's own names aren't the enclosing scope's: a target
    # holds the items of its iterable, a lambda's parameter nothing known.
    ("w = b''\n    x = [target(w, k=w) for w in ['']]\n    w = 1", "a", {"str"}),
    ("x = {target(k, w) for k, (_, w) in {1: ('', b'')}.items()}", "b", {"bytes"}),
    ("x = [target(w, i) for w in [[1]] for i in w]", "a", {"list[int]"}),
    ("x = [target(w, i) for w in [[1]] for i in w]", "b", set()),
    ("f = lambda v: target(v, 1)\n    f(b'')", "a", set()),
    ("f = lambda v: target(v, 1)\n    f(b'')", "b", {"int"}),
    # A class of another module keeps its own name, even one that typing uses for a built-in.
    ("import ast\n    target(ast.List(), ast.Tuple())", "a", {"ast.List"}),
    ("import ast\n    target(ast.List(), ast.Tuple())", "b", {"ast.Tuple"}),
    # A star import brings what the module binds, not what its __getattr__ makes up.
    ("target(int)", "a", {"type[int]"}),
    # `is` against an object of its own (a sentinel) tells it from the others.
    ("m = object()\n    w = m if v else 1\n    if w is not m:\n        target(w)", "a", {"int"}),
    ("m = object()\n    w = m if v else 1\n    if w is m:\n        w = ''\n    target(w)", "a",
     {"int", "str"}),
    ("m = object()\n    w = m if v else 1\n    if w is m:\n        w = 2\n    else:\n        target(w)", "a",
     {"int"}),
    ("m = object()\n    w = m if v else 1\n    if w is m:\n        w = ''\n    else:\n        v = 2\n    target(w)", "a",
     {"int", "str"}),
    ("if isinstance(v, float):\n        w = ()\n    else:\n        w = v\n        target(w)", "a", {"None"}),
    # What an if block sets is narrowed by its later ifs that leave.
    ("w = 1 if v else b''\n    if not isinstance(w, int):\n        w = w.decode()\n        if not isinstance(w, int):\n"
     "            raise TypeError()\n    target(w)", "a", {"int"}),
    # An if/else chain whose every block sets the name hides what was set before it.
    ("w = b''\n    if v:\n        w = 1\n    else:\n        w = ''\n    target(w)", "a", {"int", "str"}),
    ("w = b''\n    if v:\n        w = 1\n    elif v == 2:\n        pass\n    else:\n        w = ''\n    target(w)", "a",
     {"bytes", "int", "str"}),
    # Past an if/elif chain without an else, the earlier values are those none of its tests took.
    ("w = 1 if v else b''\n    if isinstance(w, int):\n        w = ()\n    elif isinstance(w, bytes):\n"
     "        w = []\n    target(w)", "a", {"tuple[()]", "list"}),
    ("w = 1 if v else b''\n    if isinstance(w, int):\n        w = ()\n    elif w:\n        pass\n    target(w)",
     "a", {"tuple[()]", "bytes"}),
    ("for i in [1, 2]:\n        if i == 1:\n            w = ()\n        else:\n            target(w)", "a",
     {"tuple[()]"}),
    # What a function returns from its `*args` is what this call passes there.
    ("def pick(*fs):\n        return fs[0]\n    pick('s')\n    w = pick(1)\n    target(w)", "a", {"int"}),
    # type(name) against classes: exact classes, so subclasses of them stay.
    ("w = 1 if v else ''\n    if type(w) in {int, float}:\n        return\n    target(w)", "a", {"str"}),
    ("w = 1 if v else ''\n    if type(w) is int:\n        return\n    target(w)", "a", {"str"}),
    ("w = 1 if v else ''\n    if type(w) is object:\n        return\n    target(w)", "a", {"int", "str"}),
    ("w = True if v else 1\n    if type(w) is int:\n        target(w)", "a", {"int"}),
    # A union with a member that says nothing (the values of an empty dict) says nothing.
    ("w = {}.get('k')\n    target(w)", "a", {"? expression w (logical 1)"}),
    # A term that holds unrelated callables: no call of it says what one of them gets.
    ("f = target if v else len\n    f(1)", "a", set()),
    ("f = target if v else int\n    f(1)", "a", set()),
    ("def other(a):\n        pass\n    f = target if v else other\n    f(1)", "a", set()),
    # A loop over a display calls each of its items: every one gets what the call passes.
    ("def other(a):\n        pass\n    for f in [other, target]:\n        f(1)", "a", {"int"}),
    ("def other(a):\n        pass\n    for f in (other, target):\n        f('')", "a", {"str"}),
    ("def other(a):\n        pass\n    fs = [other, target]\n    for f in fs or ():\n        f(1)", "a", set()),
    ("def other(a):\n        pass\n    for f in [other, target]:\n        f = f if v else len\n        f(1)", "a",
     set()),
    ("def other(a):\n        pass\n    for f in [" + "other, " * 16 + "target]:\n        f(1)", "a", {"int"}),
    # Names set together by the same statements: a test that rules out what one got at a
    # statement rules out what the other got there.
    ("w, ok = None, None\n    if v:\n        w, ok = 1, True\n    if ok:\n        target(w)", "a", {"int"}),
    ("w = None\n    ok = None\n    if v:\n        w, ok = 1, True\n    if ok:\n        target(w)", "a",
     {"None", "int"}),
    # hasattr(name, "attr") is false for no instance of a class that has it.
    ("w = {} if v else ''\n    if not hasattr(w, 'items'):\n        target(w)", "a", {"str"}),
    ("w = {} if v else ''\n    if hasattr(w, 'items'):\n        target(w)", "a", {"str", "dict"}),
    # A flag that saved a test tells what the test told, while the name stays as tested.
    ("ok = isinstance(v, float)\n    if ok:\n        target(v)", "a", {"float"}),
    ("ok = v is not None\n    if not v:\n        ok = False\n    if ok:\n        target(v)", "a", {"float"}),
    ("ok = isinstance(v, float)\n    v = None\n    if ok:\n        target(v)", "a", {"None"}),
    ("ok = isinstance(v, float)\n    if not ok:\n        target(v)", "a", {"None", "float"}),
    ("ok = isinstance(v, float)\n    if v:\n        ok = v\n    if ok:\n        target(v)", "a", {"None", "float"}),
    # `o[k] = v` calls the `__setitem__` of o's class with k and v.
    ("class C:\n        def __setitem__(self, k, v):\n            target(k, v)\n    C()['s'] = 1.5", "a", {"str"}),
    ("class C:\n        def __setitem__(self, k, v):\n            target(k, v)\n    c = C()\n    c[1] = v", "b",
     {"None", "float"}),
    # A nested def reads the name as the tests before its def line left it, unless set again later.
    ("if v is None:\n        return\n    def inner():\n        target(v)\n    inner()", "a", {"float"}),
    ("if v is None:\n        return\n    def inner():\n        target(v)\n    v = ''", "a",
     {"None", "float", "str"}),
    # A call's return is read with what the call passes: settings and tests of its parameters
    # in the body apply, and a return no value passed can reach doesn't count.
    ("def conv(x):\n        x = str(x)\n        return x\n    target(conv(1))", "a", {"str"}),
    ("def keep(s):\n        if isinstance(s, str):\n            return s\n        return None\n"
     "    target(keep(v or ''))", "a", {"str", "None"}),
    ("def strip(s):\n        if isinstance(s, str):\n            return ''\n        return b''\n"
     "    target(strip('x'))", "a", {"str"}),
    ("def pick(s, d=None):\n        if s is None:\n            return d\n        return 1\n"
     "    target(pick(None, ''))", "a", {"str"}),
    ("def pick(s):\n        if s is not None:\n            return 1\n        return ''\n    target(pick(len))", "a", {"int"}),
    ("def pick(s):\n        if isinstance(s, str):\n            return ''\n        return b''\n    target(pick(2))", "a",
     {"bytes"}),
    # A parameter the call leaves out holds its default; a def the call returns reads the
    # names around it as the call bound them.
    ("def pick(s, d=None):\n        if d is None:\n            return 1\n        return s\n    target(pick(''))",
     "a", {"int"}),
    ("def factory(info=None, lock=None):\n        def deco(f):\n            if info:\n                return 1\n"
     "            if lock is not None:\n                return ''\n            return f\n        return deco\n"
     "    target(factory(info=True)(len))", "a", {"int"}),
    # A def, a module, True or a non-zero number are never false; a test decides a conditional
    # expression when it can come out one way only.
    ("def first(f):\n        if not f:\n            return ''\n        return 1\n    target(first(len))", "a", {"int"}),
    ("w = 1 if len else ''\n    target(w)", "a", {"int"}),
    ("w = 1 if v else ''\n    target(w)", "a", {"int", "str"}),
    # `==` against a built-in value holds only of values of its kind (numbers alike).
    ("def pad(c):\n        if c == '-':\n            return '-'\n        return [c]\n    target(pad(()))", "a",
     {"list[tuple[()]]"}),
    ("def pad(c):\n        if c == 1:\n            return ''\n        return [c]\n    target(pad(1.5))", "a",
     {"str", "list[float]"}),
    ("w = [] if v else ''\n    if w == '':\n        target(w)", "a", {"str"}),
    ("w = v or ''\n    if w != 0:\n        return\n    target(w)", "a", {"float"}),
    # What instances are assigned, known or not, isn't asked of the class's __getattr__.
    ("class C:\n        def __init__(self):\n            self.f = v.nothing\n        def __getattr__(self, n):\n"
     "            return ''\n    target(C().f, C().g)", "a", {"? expression C().f (logical 1)"}),
    ("class C:\n        def __init__(self):\n            self.f = v.nothing\n        def __getattr__(self, n):\n"
     "            return ''\n    target(C().f, C().g)", "b", {"str"}),
    # A def of the project that makes a property of a method makes it read as one.
    ("class P(property):\n        pass\n    def prop(fget):\n        return P(fget)\n    class C:\n        @prop\n"
     "        def f(self):\n            return ''\n    target(C().f)", "a", {"str"}),
    # A caller whose arguments can't meet the tests around a use doesn't reach it: calling
    # itself with `sep` for `seq`, `join` passes a str, never the sentinel.
    ("m = object()\n    def join(sep, seq=m):\n        if seq is m:\n            return join('', sep)\n"
     "        target(seq)\n    join([1])", "a", {"list"}),
    ("m = object()\n    def join(sep, seq=m):\n        if seq is m:\n            return join(v, sep)\n"
     "        target(seq)\n    join([1])", "a", {"list"}),
    # A parameter a caller leaves out in its one call holds its default there; callers with
    # several calls, or a ** argument, may pass it too.
    ("def keep(f, seq=None):\n        if seq is None:\n            return f\n        target(f)\n"
     "    def one():\n        keep([1])\n    def two():\n        keep('', [2])", "a", {"str"}),
    ("def keep(f, seq=None):\n        if seq is None:\n            return f\n        target(f)\n"
     "    keep([1])\n    keep('', [2])", "a", {"list", "str"}),
    ("def keep(f, seq=None):\n        if seq is None:\n            return f\n        target(f)\n"
     "    def one():\n        keep([1], **{'seq': 2})\n    def two():\n        keep([1], *[2])", "a", {"list"}),
    # A caller that passes on what its own callers pass it is read apart for each of those:
    # only the callers whose arguments meet the tests get there.
    ("def keep(f, seq=None):\n        if seq is None:\n            return f\n        target(f)\n"
     "    def lkeep(f, seq=None):\n        return keep(f, seq)\n    def one():\n        lkeep([1])\n"
     "    def two():\n        lkeep('', [2])", "a", {"str"}),
    ("def deep(cache, cond=None):\n        if cond is not None:\n            return 1\n        target(cache)\n"
     "    def cached(cache, condition=None):\n        def decorator():\n            return deep(cache, condition)\n"
     "        return decorator\n    def one():\n        cached([1], condition=len)\n    def two():\n"
     "        cached('')", "a", {"str"}),
    ("def deep(cache, cond=None):\n        if cond is not None:\n            return 1\n        target(cache)\n"
     "    def cached(cache, condition=None):\n        def decorator():\n            return deep(cache, condition)\n"
     "        return decorator\n    cached([1], condition=len)\n    cached('')", "a", {"list", "str"}),
    # A def that ends in a raise never falls off its end to give None.
    ("def make():\n        raise NotImplementedError\n    target(make())", "a", {"? expression make() (logical 1)"}),
    ("def make():\n        if v:\n            raise ValueError()\n    target(make())", "a", {"None"}),
    # A default is what the name held when the def statement ran.
    ("w = v or ''\n    def inner(x=w):\n        target(x)\n    w = None\n    inner()", "a", {"float", "str"}),
])
def test_what_reaches_the_call(tmp_path, monkeypatch, capsys, body, param, expected):
    assert set(types_reaching_target(tmp_path, monkeypatch, capsys, body)[param]) == expected


def types_reaching_target(folder, monkeypatch, capsys, body, clock=None):
    """What `params` says of each parameter of `target` when `body` runs in
    `run(v=None)`, the project indexed with `clock` as the scan clock."""
    folder.mkdir(exist_ok=True)
    (folder / "lib.py").write_text("def target(a, b=None, *rest, k=None):\n    return a\n\n\n"
                                   "def __getattr__(name):\n    return ''\n")
    (folder / "app.py").write_text(f"from lib import *\n\n\ndef run(v=None):\n    {body}\n\n"
                                   "run(1.5)\n")
    monkeypatch.chdir(folder)
    clock = clock or build_speed_clock()
    with contextlib.nullcontext() if clock is None else replaced_clock(clock):
        assert run(capsys, "index")[0] == 0
    _found, params = params_json(capsys, "target")
    return {name: types_of(param) for name, param in params.items()}


# A module's own def is what a bare call of its name in the module reaches: a set of the
# module's attribute from another file (a test's monkeypatch) doesn't make the calls reach
# several callables; the module's own settings of the name still do.  The patching file is
# scanned first.
@pytest.mark.parametrize("lib, expected", [
    ("def f(x):\n    return x\n\n\ndef g():\n    return f(1)\n", {"int"}),
    ("def f(x):\n    return x\n\n\ndef g():\n    return f(1)\n\n\nif len:\n    f = len\n", set()),
])
def test_a_patch_from_another_file_leaves_the_module_s_own_calls(tmp_path, monkeypatch, capsys, lib,
                                                                  expected):
    (tmp_path / "zm.py").write_text(lib)
    (tmp_path / "a.py").write_text("import zm\n\n\ndef other(z):\n    return z\n\n\n"
                                   "def patch():\n    zm.f = other\n")
    monkeypatch.chdir(tmp_path)
    assert run(capsys, "index")[0] == 0
    _found, params = params_json(capsys, "zm.py:f")
    assert set(types_of(params["x"])) == expected


# A final try that finds scans to wait for takes no partial answer: on a machine so slow
# that a few readings of the clock fill a slice, the index says what it says here.
@pytest.mark.parametrize("body", [
    "class C:\n        def __init__(self, a):\n            target(a)\n    w = C(v)\n    target(w, k=w)",
])
def test_a_slow_machine_records_the_same(tmp_path, monkeypatch, capsys, body):
    here = types_reaching_target(tmp_path / "here", monkeypatch, capsys, body)
    assert here["a"], "nothing reached the call"
    slow = types_reaching_target(tmp_path / "slow", monkeypatch, capsys, body, CounterClock(step=0.004))
    assert slow == here


# Imports of the project's own packages find their source: below a `src` folder, and
# before a stub beside it.
@pytest.mark.parametrize("files", [
    {"src/pkg/__init__.py": "def target(a):\n    return a\n", "tests/__init__.py": "",
     "tests/test_it.py": "from pkg import target\ntarget(1)\n"},
    {"pkg/__init__.py": "from .mod import target\n", "pkg/__init__.pyi": "from .mod import target\n",
     "pkg/mod.py": "def target(a):\n    return a\n", "pkg/mod.pyi": "def target(a: int) -> int: ...\n",
     "app.py": "from pkg import target\nimport pkg.mod\ntarget(1)\npkg.mod.target(2)\n"},
])
def test_callers_reach_the_project_source(tmp_path, monkeypatch, capsys, files):
    for path, text in files.items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    monkeypatch.chdir(tmp_path)
    assert run(capsys, "index")[0] == 0
    (where,) = [path for path, text in files.items() if path.endswith(".py") and "def target" in text]
    found, params = params_json(capsys, f"{where}:target")
    assert set(types_of(params["a"])) == {"int"}


@pytest.mark.parametrize("lines_by_file, expected", [
    ({"a.py": [3, 9], "b.py": [None]}, "a.py:3, 9; b.py"),
    ({f"m{i}.py": [i] for i in range(6)}, "m0.py:0; m1.py:1; m2.py:2; m3.py:3 (+2 more in 2 files)"),
    ({"a.py": [1], "b.py": [2], "c.py": [3], "d.py": [4], "e.py": [5, 6]},
     "a.py:1; b.py:2; c.py:3; d.py:4 (+2 more in 1 file)"),
])
def test_call_sites_are_listed_per_file_and_counted_past_a_few(lines_by_file, expected):
    from pysource import recordtext
    sites = [{"file": path, "line": line} for path, lines in lines_by_file.items() for line in lines]
    data = {"bound_first": False, "params": [
        {"declared": "x", "hinted": False, "types": [{"type": "int", "sites": sites}]}]}
    assert recordtext.FormatParamLines(data) == ["  x", f"    int  <- {expected}"]

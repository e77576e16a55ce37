"""Primary scan records against Python's own `symtable` over every scope of
the core corpus, and the checks that the comparison itself sees faults."""
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))
import symtable_oracle as so  # noqa: E402

from pysource import symbolinfo as si  # noqa: E402

from managerutil import installed_manager  # noqa: E402

TRICKY = '''\
import os.path, sys as system
from .pkg import (a as b, c)
from m import *

class Outer:
    x = [y for y in range(3)]
    z = [x for _ in range(2)]
    __private = 1
    q = (w := 5) if x else 0

    def method(self, __p, *args, k=lambda v: v + free, **kw):
        __local = __p
        del __local
        pairs = [(n := i) for i in args]
        return super().method(n, pairs)

    class Inner:
        def m(self):
            def deep():
                nonlocal self
                self = 1
            return deep

    @staticmethod
    async def co(a, /, b):
        async with a as (c, d):
            async for e in b:
                await e
        return [f async for f in b]

def gen():
    global G1, G2
    G1 = yield
    del G2
    try:
        pass
    except Exception as exc:
        pass
    match system.argv:
        case [first, *rest] if rest:
            pass
        case {"k": val, **others}:
            pass
        case Point(x=px) | Point(y=px) as pt:
            pass
    with open(__file__) as fh, open(__file__) as (g1, g2):
        pass
    x: int
    y: "List[int]" = []
    lam = lambda: (inner := 1)
    return lambda a=default: [[b for b in a] for a in a2]

def f(): pass
class f: pass
try:
    def t(): pass
except ImportError:
    def t(): return 1
else:
    def t(): return 2

@decorator(arg)
def decorated(x: Ann = Default) -> Ret:
    import xml.dom as dom, json
    from os import path as p2
    print(x, f"{fval!r:{width}}")

def outer():
    v = 1
    def inner():
        nonlocal v
        v += 1
        return gg
    class K:
        v2 = v
        def m(self): return v
    return inner
'''


class CFakeRecord:
    """What a record shows to the comparison: its names and domains."""

    def __init__(self, type_equivs, domains=None):
        self.type_equivs = type_equivs
        self._domains = domains


@pytest.fixture
def source_file(tmp_path):
    def write(text, name="mod.py"):
        path = tmp_path / name
        path.write_text(text)
        return str(path)
    return write


def facts_by_rule(source):
    out = {}
    for fact in so.symtable_facts(source, "mod.py"):
        out.setdefault(fact.rule, set()).add((fact.scope, fact.name))
    return out


class TestSymtableSide:
    def test_scopes_are_named_as_the_scanner_names_them(self):
        records = facts_by_rule(TRICKY)[so.kRecordRule]
        assert {scope for scope, _ in records} == {
            "Outer", "Outer.method", "Outer.Inner", "Outer.Inner.m", "Outer.Inner.m.deep",
            "Outer.co", "gen", "f", "f|1", "t", "t|1", "t|2", "decorated", "outer",
            "outer.inner", "outer.K", "outer.K.m"}

    def test_try_else_definitions_keep_source_order(self):
        facts = so.symtable_facts("try:\n    def t(): a\nexcept E:\n    def t(): b\n"
                                  "else:\n    def t(): c\n", "mod.py")
        reads = {(f.scope, f.name) for f in facts if f.rule == so.kFirstReadRule}
        assert {("t", "a"), ("t|1", "b"), ("t|2", "c")} <= reads

    def test_lambdas_and_comprehensions_count_toward_the_enclosing_scope(self):
        facts = facts_by_rule(TRICKY)
        reads, sets = facts[so.kFirstReadRule], facts[so.kFirstSetRule]
        # read only inside a lambda (a default is read in the class) or a comprehension
        assert ("Outer", "free") in reads and ("gen", "a2") in reads and ("gen", "default") in reads
        # a walrus in a comprehension binds in the function, in a lambda not
        assert ("Outer.method", "n") in sets and ("gen", "inner") not in sets
        # names the inner scopes bind are theirs, at any depth
        assert ("gen", "b") not in reads and ("gen", "a") not in reads
        assert ("Outer", "y") not in sets and ("Outer", "v") not in reads

    def test_rules_read_the_right_symbols(self):
        facts = facts_by_rule(TRICKY)
        assert ("Outer.co", "a") in facts[so.kArgumentRule]
        assert ("Outer.method", "_Outer__p") in facts[so.kArgumentRule]
        assert {("", "os"), ("", "system"), ("", "b"), ("decorated", "p2")} <= \
            facts[so.kImportedRule]
        assert ("", "*") not in facts[so.kImportedRule]
        assert ("gen", "G2") in facts[so.kFirstSetRule]          # del binds
        assert ("gen", "x") in facts[so.kFirstSetRule]           # bare annotation binds
        assert facts[so.kGlobalRule] == {("gen", "G1"), ("gen", "G2")}  # not the module's
        assert facts[so.kNonlocalRule] == {("Outer.Inner.m.deep", "self"), ("outer.inner", "v")}

    def test_parameters_are_indexed_in_the_order_of_their_list(self):
        facts = so.symtable_facts("class C:\n    def m(self, a, /, b=1, *rest, k, **kw): pass\n"
                                  "    def m(self, __p): pass\n", "mod.py")
        indexes = [(f.scope, f.name, f.index) for f in facts if f.rule == so.kArgumentIndexRule]
        assert indexes == [("C.m", "self", 0), ("C.m", "a", 1), ("C.m", "b", 2),
                           ("C.m", "rest", 3), ("C.m", "k", 4), ("C.m", "kw", 5),
                           ("C.m|1", "self", 0), ("C.m|1", "__p", 1)]


class TestComparison:
    def test_missing_record_fails(self):
        fact = so.CFact(so.kRecordRule, "C.f", "f", None)
        assert not so.fact_holds(fact, {"C": CFakeRecord({})})
        assert so.fact_holds(fact, {"C.f": CFakeRecord({})})
        assert so.excuse_for(fact, {}) is None

    def test_first_set_and_first_read_need_their_own_single(self):
        set_fact = so.CFact(so.kFirstSetRule, "", "x", None)
        read_fact = so.CFact(so.kFirstReadRule, "", "x", None)
        only_set = {"": CFakeRecord({"x": b"1;" + si.kSetPrefix + b"3"})}
        assert so.fact_holds(set_fact, only_set) and not so.fact_holds(read_fact, only_set)
        # a set inside a payload or a conditional isn't a first set
        nested = {"": CFakeRecord({"x": b"f(:S1);:?c,:S"})}
        assert not so.fact_holds(set_fact, nested)
        bare = {"": CFakeRecord({"x": b":S;:g1"})}           # a set with no index
        assert not so.fact_holds(set_fact, bare) and so.fact_holds(read_fact, bare)
        argument = {"": CFakeRecord({"x": b":a0;:S-1;:g2"})}
        assert so.fact_holds(set_fact, argument) and so.fact_holds(read_fact, argument)

    def test_names_and_scopes_symtable_lacks_fail(self):
        tables = so.CFileTables("def f(a):\n    return a\n", "mod.py")
        records = {"": CFakeRecord({"f": b":ff,,(a),;:S0", "__name__": b":lstr;:S-1"}),
                   "f": CFakeRecord({"a": b":a0;:S-1;:g0", "b": b":g0", "a.x": b":S0"}),
                   "g": CFakeRecord({}), "f()": CFakeRecord({})}
        failed = {(f.scope, f.name) for f in so.known_name_facts(tables, records)
                  if not so.fact_holds(f, records)}
        # names set before the body only, dotted names and instance scopes
        # aren't checked
        assert failed == {("f", "b"), ("g", None)}
        assert all(so.excuse_for(f, records) is None
                   for f in so.known_name_facts(tables, records) if not so.fact_holds(f, records))

    @pytest.mark.parametrize("rule, compound, holds", [
        (so.kArgumentIndexRule, b":a1;:S-1", True),
        (so.kArgumentIndexRule, b":a1,x;:S-1", True),
        (so.kArgumentIndexRule, b":a2;:S-1", False),
        (so.kGlobalRule, b":G:#0;:S1", True),
        (so.kGlobalRule, b":N:#0;:S1", False),
        (so.kNonlocalRule, b"1:#1;:N:#0", True),
        (so.kNonlocalRule, b"f(:N);:S1", False),
    ])
    def test_declarations_and_argument_indexes_need_their_single(self, rule, compound, holds):
        fact = so.CFact(rule, "f", "n", None, index=1)
        assert so.fact_holds(fact, {"f": CFakeRecord({"n": compound})}) == holds

    def test_scope_kind_follows_the_table(self):
        module = so._symtable.symtable("class C:\n    def m(self): pass\n", "m", "exec")
        cls, method = module.children[0], module.children[0].children[0]
        records = {"C": CFakeRecord({}), "C.m": CFakeRecord({})}
        records["C"].ibytes, records["C.m"].ibytes = b":CC,,()", b":uC.m,,(self),"
        assert so.fact_holds(so.CFact(so.kScopeKindRule, "C", "C", cls), records)
        assert so.fact_holds(so.CFact(so.kScopeKindRule, "C.m", "m", method), records)
        assert not so.fact_holds(so.CFact(so.kScopeKindRule, "C.m", "m", cls), records)
        assert not so.fact_holds(so.CFact(so.kScopeKindRule, "C", "C", method), records)

    def test_domains_are_matched_one_by_one(self):
        arg = so.CFact(so.kArgumentRule, "f", "n", None)
        imported = so.CFact(so.kImportedRule, "f", "n", None)
        both = {"f": CFakeRecord({}, {"n": b"argument;imported"})}
        assert so.fact_holds(arg, both) and so.fact_holds(imported, both)
        only_arg = {"f": CFakeRecord({}, {"n": b"argument"})}
        assert not so.fact_holds(imported, only_arg)
        assert not so.fact_holds(arg, {"f": CFakeRecord({}, None)})


class TestExceptions:
    def test_class_cell_is_excused_only_beside_a_read_of_super(self):
        table = so._symtable.symtable("class C:\n    def m(self): super()\n", "m", "exec")
        method = table.children[0].children[0]
        fact = so.CFact(so.kFirstReadRule, "C.m", "__class__", method)
        with_super = {"C.m": CFakeRecord({"super": b":g0"})}
        assert so.excuse_for(fact, with_super) is not None
        assert so.excuse_for(fact, {"C.m": CFakeRecord({"self": b":g0"})}) is None
        other = so.CFact(so.kFirstReadRule, "C.m", "__dict__", method)
        assert so.excuse_for(other, with_super) is None
        # any read of the name super, a parameter outside a class too
        table = so._symtable.symtable("def f(super): return super\n", "m", "exec")
        fact = so.CFact(so.kFirstReadRule, "f", "__class__", table.children[0])
        assert so.excuse_for(fact, {"f": CFakeRecord({"super": b":a0;:S-1;:g0"})}) is not None

    def test_private_names_are_excused_only_under_their_written_name(self):
        fact = so.CFact(so.kFirstSetRule, "_C", "_C__x", None, class_name="__C")
        written = {"_C": CFakeRecord({"__x": b":S0"})}
        assert so.excuse_for(fact, written) is not None
        assert so.excuse_for(fact, {"_C": CFakeRecord({"__x": b":g0"})}) is None
        # dunder names and names outside a class aren't mangled
        assert so._demangled(so.CFact(so.kFirstSetRule, "C", "_C__x__", None,
                                      class_name="C")) is None
        assert so._demangled(so.CFact(so.kFirstSetRule, "", "_C__x", None)) is None
        assert so._demangled(so.CFact(so.kFirstSetRule, "_", "___x", None,
                                      class_name="__")) is None

    def test_folded_names_hold_without_an_excuse(self, source_file):
        path = source_file("ｗｉｄｔｈ = 1\nprint(width)\nµ = 2\ndef ﬁ(ｘ): return x\n")
        with installed_manager(editor=False) as mgr:
            records = so.scan_file(mgr, path)
        facts = so.symtable_facts(open(path, "rb").read(), path)
        assert {f.name for f in facts} >= {"width", "\u03bc", "fi", "x"}
        assert [f for f in facts if not so.fact_holds(f, records)] == []
        assert {"width", "\u03bc", "fi"} <= records[""].type_equivs.keys()
        assert not {"ｗｉｄｔｈ", "µ", "ﬁ"} & records[""].type_equivs.keys()

    def test_annotation_names_are_excused_only_where_python_never_reads_them(self):
        def excuse(source, name, records):
            fact = so.CFact(so.kKnownNameRule, "", name, so.CFileTables(source, "mod.py"))
            return so.excuse_for(fact, {"": CFakeRecord(records)})

        lazy = "from __future__ import annotations\nx: Ann = 1\n"
        read = {"Ann": b":g1", "Set": b":S1;:g1"}
        assert excuse(lazy, "Ann", read) == "annotation never read by Python"
        assert excuse(lazy, "Set", read) is None
        assert excuse(lazy + "y = Other\n", "Other", {"Other": b":g2"}) is None  # no annotation
        assert excuse("x: int = 1\n", "Ann", read) is None
        string = "def f() -> 'Node': pass\n"
        records = {"Node": b":g0", "Other": b":g0"}
        assert excuse(string, "Node", records) == "name read in a string annotation"
        assert excuse(string, "Other", records) is None
        # a name in a string that is no annotation
        assert excuse("x = 'Node'\n", "Node", records) is None


class TestAgainstScans:
    def test_tricky_source_agrees(self, source_file):
        with installed_manager(editor=False) as mgr:
            result = so.compare_files([source_file(TRICKY)], mgr)
        assert result.unexplained == []
        assert sum(result.checked.values()) == 247
        assert result.excused == {
            (so.kArgumentRule, "private name mangled by symtable"): 1,
            (so.kFirstReadRule, "private name mangled by symtable"): 1,
            (so.kFirstSetRule, "private name mangled by symtable"): 2,
            (so.kKnownNameRule, "private name mangled by symtable"): 3,
            (so.kKnownNameRule, "name read in a string annotation"): 1,
            (so.kFirstReadRule, "__class__ cell read by super()"): 1}

    def test_a_real_difference_is_reported(self, source_file):
        # The scanner records what the file says; symtable reads other text:
        # the comparison must see every fact of the other text that fails.
        path = source_file("def f(a):\n    return a\n")
        with installed_manager(editor=False) as mgr:
            records = so.scan_file(mgr, path)
        facts = so.symtable_facts("def f(a, b):\n    c = b\n    return a\n"
                                  "def g(): pass\n", path)
        failed = {(f.rule, f.scope, f.name) for f in facts if not so.fact_holds(f, records)}
        assert failed == {(so.kArgumentRule, "f", "b"), (so.kArgumentIndexRule, "f", "b"),
                          (so.kFirstSetRule, "f", "c"), (so.kFirstReadRule, "f", "b"),
                          (so.kRecordRule, "g", "g"), (so.kScopeKindRule, "g", "g"),
                          (so.kFirstSetRule, "", "g")}

    def test_third_party_code_agrees_with_symtable(self, request):
        paths = so.third_party_files(str(request.config.cache.mkdir("symtable-oracle-wheels")))
        if paths is None:
            pytest.skip("the third-party wheels can't be fetched (offline?)")
        result = so.compare_files(paths)
        print("\n" + result.report(show=20))
        assert result.files > 100 and result.unexplained == []

    @pytest.mark.skipif(not so.corpus_files(), reason="the shared corpus isn't there")
    def test_core_corpus_agrees_with_symtable(self):
        result = so.compare_files(so.corpus_files())
        print("\n" + result.report(show=20))
        assert result.files > 600 and result.checked[so.kFirstReadRule] > 50000
        assert result.unexplained == []
        for rule in so.RULES:
            assert result.rate(rule, with_exceptions=True) == 1.0

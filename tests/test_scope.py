import pytest

from pysource import symbolinfo as si
from pysource.symbolinfo import CScope, Scope, NormalizedScope


class Loc:
    def __init__(self, url="file:///m.py"):
        self.fUrl = url


class TestIdentityRules:
    def test_replace_loc_compares_by_identity_and_passes_the_cache(self):
        scope = Scope(Loc(), "List[int].append")
        assert scope.UnspecializedName() == "List.append"
        other_loc = Loc()  # equal in content, another object
        moved = scope.ReplaceLoc(other_loc)
        assert moved is not scope and moved.loc is other_loc
        assert moved.unspecialized_name == "List.append"
        assert moved != scope

    def test_replace_name_with_an_equal_but_distinct_text_is_the_same_object(self):
        scope = Scope(Loc(), "C.f")
        same_text = "".join(["C", ".", "f"])
        assert same_text is not scope.name
        assert scope.ReplaceName(same_text) is scope
        assert scope.ReplaceName(b"C.f") is scope
        assert scope.ReplaceName("C.f|0") is scope  # normalises to the same name

    def test_replace_name_normalises(self):
        loc = Loc()
        scope = Scope(loc, "C")
        other = scope.ReplaceName("C|0.g|0")
        assert other.name == "C.g" and other.loc is loc
        assert scope.ReplaceName("D|0", normalized=True).name == "D|0"

    def test_unspecialized_name_is_cached(self):
        scope = Scope(Loc(), "Dict[str, int].get")
        assert scope.unspecialized_name is None
        first = scope.UnspecializedName()
        assert first == "Dict.get"
        assert scope.UnspecializedName() is first
        assert scope.unspecialized_name is first

    def test_a_given_cache_is_trusted(self):
        scope = Scope(Loc(), "A[x]", "given")
        assert scope.UnspecializedName() == "given"
        with pytest.raises(TypeError):
            Scope(Loc(), "A", 5)

    def test_unspecialized_scope(self):
        scope = Scope(Loc(), "List[int].append")
        plain = scope.Unspecialized()
        assert plain.name == "List.append" and plain.loc is scope.loc
        assert plain.Unspecialized() is plain


class TestEqualityAndHashing:
    def test_by_location_identity_and_name_value(self):
        loc = Loc()
        a = Scope(loc, "C.f")
        b = Scope(loc, "".join(["C.", "f"]))
        assert a == b and hash(a) == hash(b) and not (a != b)
        assert len({a, b}) == 1
        assert Scope(Loc(), "C.f") != a  # same content, other location object
        assert Scope(loc, "C.g") != a
        assert (a == "C.f") is False

    def test_ordering_is_total_for_sorting(self):
        loc = Loc()
        names = ["b", "a.c", "", "a"]
        assert [s.name for s in sorted(Scope(loc, n) for n in names)] == sorted(names)

    def test_fully_scoped_names(self):
        loc = Loc()
        scope = Scope(loc, "C")
        expr = scope.ExprIn(b"x.y")
        assert expr.scope is scope and expr.name == "x.y" and expr.type_hint is False
        assert expr == si.FullyScopedNameWithScope(Scope(loc, "C"), "x.y")
        assert hash(expr) == hash(scope.ExprIn("x.y"))
        assert scope.ExprIn("x.y", True) != expr
        assert scope.AsExpr() == scope.ExprIn("")
        with pytest.raises(TypeError):
            scope.ExprIn(None)


class TestNavigation:
    def test_parent_child_module(self):
        loc = Loc()
        scope = Scope(loc, "C.f|1")
        assert scope.ParentName() == "C"
        assert scope.ParentAndLeaf() == ("C", "f|1")
        assert scope.Parent() == Scope(loc, "C")
        assert scope.Parent().Parent() == Scope(loc, "")
        assert Scope(loc, "").Parent() is None
        assert scope.ModuleScope() == Scope(loc, "") and scope.ModuleScope().IsTopLevelModule()
        module = Scope(loc, "")
        assert module.ModuleScope() is module
        assert module.ChildScope("C|0").name == "C"
        assert Scope(loc, "C").ChildScope("g").name == "C.g"

    def test_instance_and_def_line(self):
        loc = Loc()
        cls = Scope(loc, "m.C")
        inst = cls.InstanceForClass()
        assert si.IsInstanceScope(inst.name) and inst.loc is loc
        assert inst.InstanceForClass() is inst
        assert inst.ParentName() == "m"
        def_line = Scope(loc, "C.f").GetDefLineScope()
        assert def_line.name == si.DefLineScope("C.f") and def_line.ParentName() == "C"
        assert def_line.GetDefLineScope() is def_line
        assert Scope(loc, "").GetDefLineScope().name == ""

    def test_flags_follow_the_location_not_the_scan(self):
        scope = Scope(Loc(), "C")
        scope.fStableLoc = True
        scope.fPrimaryScanned = True
        child = scope.ChildScope("f")
        assert child.fStableLoc and not child.fPrimaryScanned


class TestConstruction:
    def test_normalized_and_plain(self):
        loc = Loc()
        assert Scope(loc, "C.f|0").name == "C.f|0"
        assert NormalizedScope(loc, "C.f|0").name == "C.f"
        assert NormalizedScope(loc, "f|1").name == "f|1"
        # A cache handed over with an unnormalised name is normalised too.
        assert NormalizedScope(loc, "A|0[x]", "A|0").UnspecializedName() == "A"

    def test_bad_names(self):
        with pytest.raises(TypeError):
            Scope(Loc(), None)
        with pytest.raises(TypeError):
            CScope(Loc(), 3)
        assert Scope(None, "x").loc is None

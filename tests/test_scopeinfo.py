"""Records of scans: keys, fields, name look-ups, dependency merges, instance merges."""

import gc

import pytest

from pysource import scopeinfo
from pysource.scopeinfo import CScopeInfo, CScopeInfoKey, MergeScopeInfoSeq
from pysource.symbolinfo import PrefixWithLocationAndScope

from cacheutil import PRIMARY, Scope, loc_of, primary_record


@pytest.fixture
def loc(tmp_path):
    return loc_of(tmp_path, "mod.py")


class TestKey:
    def test_equal_keys_hash_alike_and_find_each_other_in_dicts(self, loc):
        a = CScopeInfoKey(Scope(loc, "C"), PRIMARY, Scope(loc, "C"))
        b = CScopeInfoKey(Scope(loc, "C"), PRIMARY, Scope(loc, "C"))
        assert a == b and hash(a) == hash(b)
        assert {a: 1}[b] == 1

    def test_each_part_tells_keys_apart(self, loc, tmp_path):
        base = CScopeInfoKey(Scope(loc, "C"), PRIMARY, Scope(loc, "C"))
        other_loc = loc_of(tmp_path, "other.py")
        assert base != CScopeInfoKey(Scope(loc, "D"), PRIMARY, Scope(loc, "C"))
        assert base != CScopeInfoKey(Scope(loc, "C"), "derived", Scope(loc, "C"))
        assert base != CScopeInfoKey(Scope(loc, "C"), PRIMARY, Scope(other_loc, "C"))
        assert base != ("C", PRIMARY)

    def test_fields_and_bad_arguments(self, loc):
        s = Scope(loc, "f")
        with pytest.raises(TypeError):
            CScopeInfoKey(s, b"primary", s)
        with pytest.raises(TypeError):
            CScopeInfoKey(None, PRIMARY, s)
        with pytest.raises(TypeError):
            CScopeInfoKey("f", PRIMARY, s)


class TestRecord:
    def test_constructor_fields(self, loc):
        s = Scope(loc, "f")
        key = CScopeInfoKey(s, PRIMARY, s)
        info = CScopeInfo(key, b":fdef", 12.5, True)
        assert info.incomplete and not info.not_found and info.type_equivs == {}
        assert CScopeInfo(key, b"", None, False, True).not_found
        assert CScopeInfo(key, b"", None, False).disk_mtime == -1.0
        with pytest.raises(TypeError):
            CScopeInfo(key, "text", 1.0, False)
        with pytest.raises(TypeError):
            CScopeInfo(key, b"", "soon", False)

    def test_maps_can_be_replaced_by_dicts_only(self, loc):
        info = primary_record(Scope(loc, ""), {})
        info.type_equivs = {"n": b"1"}
        info._domains = {"n": b"d"}
        assert info.GetInfoBytes("n") == b"1" and info._domains == {"n": b"d"}
        with pytest.raises(TypeError):
            info.type_equivs = [("n", b"1")]
        with pytest.raises(TypeError):
            info._domains = "n"
        info._domains = {"n": 3}
        with pytest.raises(TypeError):
            info.FinishedBuilding()

    def test_get_info_bytes_paths(self, loc):
        info = primary_record(Scope(loc, "C"), {"x": b":s1"}, inst={"attr": b"str"})
        assert info.GetInfoBytes("x") == b":s1"
        assert info.GetInfoBytes(b"x") == b":s1"  # bytes names are read as UTF-8 text
        assert info.GetInfoBytes("\uff58") == b":s1"  # folded as Python reads names
        assert info.GetInfoBytes("missing") is None
        assert info.GetInfoBytes("missing", b"dflt") == b"dflt"
        assert info.GetInfoBytes("attr") is None
        assert info.GetInfoBytes("attr", inst=True) == b"str"
        assert info.GetInfoBytes("x", None, True) is None
        with pytest.raises(TypeError):
            info.GetInfoBytes(3)

    def test_non_bytes_value_is_a_type_error_naming_the_name(self, loc):
        info = primary_record(Scope(loc, ""), {})
        info.type_equivs["bad"] = "text"
        with pytest.raises(TypeError, match="bad"):
            info.GetInfoBytes("bad")
        with pytest.raises(TypeError, match="bad"):
            info.FinishedBuilding()

    def test_finished_building_checks_every_map(self, loc):
        info = CScopeInfo(CScopeInfoKey(Scope(loc, ""), PRIMARY, Scope(loc, "")), b"", 1.5, False)
        info.type_equivs[3] = b"x"
        with pytest.raises(TypeError):
            info.FinishedBuilding()
        del info.type_equivs[3]
        info.inst_type_equivs = {"a": 1}
        with pytest.raises(TypeError):
            info.FinishedBuilding()
        info.inst_type_equivs = None
        info.FinishedBuilding()
        assert info.finished
        with pytest.raises(TypeError):
            info.type_equivs = None

    def test_merge_scopes_seen_unions_and_marks_incomplete(self, loc, tmp_path):
        a, b = Scope(loc, "a"), Scope(loc_of(tmp_path, "b.py"), "")
        info = primary_record(Scope(loc, ""), {})
        info.MergeScopesSeen([a], False)
        assert info.scopes_seen == {a} and not info.incomplete
        info.MergeScopesSeen(frozenset([a, b]), False)
        assert info.scopes_seen == {a, b}
        info.MergeScopesSeen([], True)
        assert info.incomplete
        info.MergeScopesSeen(None, False)
        assert info.scopes_seen == {a, b}

    def test_merge_resolved_imports(self, loc):
        m = Scope(loc, "")
        info = primary_record(Scope(loc, "f"), {})
        info.MergeResolvedImports(None)
        assert info.resolved_imports is None
        info.MergeResolvedImports([m])
        info.MergeResolvedImports([m])
        assert info.resolved_imports == {m}

    def test_finalize_for_save_freezes_and_drops_empty_instance_map(self, loc):
        info = primary_record(Scope(loc, "f"), {"x": b"1"}, inst={})
        info.MergeScopesSeen([Scope(loc, "")], False)
        info.FinalizeForSave()
        assert isinstance(info.scopes_seen, frozenset)
        assert info.inst_type_equivs is None
        assert info.resolved_imports is scopeinfo.kEmptyFrozenset

    @pytest.mark.parametrize("holds_container", [False, True])
    def test_finalized_scope_sets_leave_the_collector_unless_they_hold_containers(
            self, loc, holds_container):
        # Kept records would otherwise bring on full collections and lengthen them.
        class Marker:
            pass
        info = primary_record(Scope(loc, "f"), {"x": b"1"})
        info.MergeScopesSeen([Scope(loc, ""), Scope(loc, "g")] + [Marker()] * holds_container, False)
        info.FinalizeForSave()
        assert gc.is_tracked(info.scopes_seen) == holds_container


class TestMergeScopeInfoSeq:
    def test_instance_attributes_of_class_and_methods_reach_the_instance_record(self, loc):
        cls = primary_record(Scope(loc, "C"), {"m": b":fdef"}, inst={"k": b"int"})
        init = primary_record(Scope(loc, "C.__init__"), {}, inst={"a": b"x", "k": b"str"})
        other = primary_record(Scope(loc, "C.run"), {}, inst={"b": b"y"}, incomplete=True)
        inst_scope = Scope(loc, "C#")
        inst = CScopeInfo(CScopeInfoKey(inst_scope, PRIMARY, inst_scope), b":i", 10.0, False)
        inst.type_equivs["__class__"] = b"hint"
        out = MergeScopeInfoSeq(inst, [cls], [init, other])
        assert out is inst
        te = inst.type_equivs
        assert te["__class__"] == b"hint"
        # Each value keeps the scope it is to be read in.
        assert te["a"] == PrefixWithLocationAndScope(b"x", None, "C.__init__")
        assert te["b"] == PrefixWithLocationAndScope(b"y", None, "C.run")
        # A name set in several records gets every record's info.
        assert te["k"] == (PrefixWithLocationAndScope(b"int", None, "C") + b";" +
                           PrefixWithLocationAndScope(b"str", None, "C.__init__"))
        assert "m" not in te  # class attributes are not instance attributes
        assert inst.incomplete  # one of the methods was incomplete

    def test_a_name_many_methods_set_gets_each_single_once_in_the_order_met(self, loc):
        def unique_singles(values):
            out = []
            for value in values:
                out += [single for single in value.split(b";") if single not in out]
            return b";".join(out)

        values = [(f"C.m{i}", b"int;" + (b"str" if i % 2 else b"bytes")) for i in range(40)]
        values += [("C.m", y) for y in (b"int", b"int;str", b"str;bytes;int")]
        methods = [primary_record(Scope(loc, name), {}, inst={"shared": value})
                   for name, value in values]
        inst_scope = Scope(loc, "C#")
        inst = CScopeInfo(CScopeInfoKey(inst_scope, PRIMARY, inst_scope), b":i", 10.0, False)
        inst.type_equivs["shared"] = b"float"
        MergeScopeInfoSeq(inst, [], methods)
        readable = [PrefixWithLocationAndScope(value, None, name) for name, value in values]
        assert inst.type_equivs["shared"] == unique_singles([b"float"] + readable)

    def test_empty_sequences_leave_the_record(self, loc):
        s = Scope(loc, "C#")
        inst = CScopeInfo(CScopeInfoKey(s, PRIMARY, s), b"", 1.5, False)
        inst.type_equivs["__class__"] = b"h"
        assert MergeScopeInfoSeq(inst, [], None) is inst
        assert dict(inst.type_equivs) == {"__class__": b"h"}

    def test_wrong_types(self, loc):
        with pytest.raises(TypeError):
            MergeScopeInfoSeq(None, [], [])
        s = Scope(loc, "C#")
        inst = CScopeInfo(CScopeInfoKey(s, PRIMARY, s), b"", 1.5, False)
        with pytest.raises(TypeError):
            MergeScopeInfoSeq(inst, ["not a record"], [])


class TestSerializer:
    def test_a_record_round_trips_with_everything_it_holds(self, loc, tmp_path):
        from pysource.scopeinfo import CScopeInfoSerializer

        from cacheutil import record_summary
        other = Scope(loc_of(tmp_path, "other.py"), "g")
        target = Scope(loc, "f")
        info = CScopeInfo(CScopeInfoKey(target, "derived", other), b":x", 12.25, True)
        info.type_equivs.update({"a": b"int", "b": b"str;(1;2)"})
        info.inst_type_equivs = {"attr": b"float"}
        info._domains = {"a": b"dom"}
        info.MergeScopesSeen([other, target], False)
        info.MergeResolvedImports([Scope(loc, "")])
        serializer = CScopeInfoSerializer()
        back = serializer.Loads(serializer.Dumps(info))
        assert record_summary(back) == record_summary(info)
        assert back._domains == {"a": b"dom"} and back.key == info.key
        assert back.key.for_scope.loc is loc  # locations come back interned

    def test_a_scope_not_found_keeps_its_flag_and_empty_parts_stay_empty(self, loc):
        from pysource.scopeinfo import CScopeInfoSerializer
        s = Scope(loc, "")
        serializer = CScopeInfoSerializer()
        back = serializer.Loads(serializer.Dumps(CScopeInfo(CScopeInfoKey(s, PRIMARY, s), b"", None, False, True)))
        assert back.not_found and back.disk_mtime == -1.0
        assert back.inst_type_equivs is None and back.scopes_seen is None

    def test_damaged_data_is_a_value_error(self, loc):
        from pysource.scopeinfo import CScopeInfoSerializer
        serializer = CScopeInfoSerializer()
        data = serializer.Dumps(primary_record(Scope(loc, "f"), {"x": b"1"}))
        for bad in (data[:-3], data + b"\x00", b"\x07" + data[1:], b""):
            with pytest.raises(ValueError):
                serializer.Loads(bad)
        with pytest.raises(TypeError):
            serializer.Loads("text")
        with pytest.raises(TypeError):
            serializer.Dumps({"x": b"1"})

"""The info cache in memory: add results, counts, merging, single-scan replacement,
disk times and done marks, the deferred-notification bracket, the scope dependant
cache and the location cache."""

import sys
import sysconfig

import pytest

from basekit.location import CLocalFileLocation
from pysource import scopeinfo
from pysource.locationcache import CLocationCache
from pysource.scopeinfo import CInfoCache, CScopeDependantCache, CScopeInfo, CScopeInfoKey

from cacheutil import DERIVED, PRIMARY, Scope, derived_record, loc_of, primary_record


@pytest.fixture
def loc(tmp_path):
    return loc_of(tmp_path, "mod.py")


@pytest.fixture
def cache():
    c = CInfoCache()
    yield c
    c.destroy()


def add_derived(cache, scanned, target, equivs, replace=True):
    """Adds the one record a derived scan of `scanned` gives for `target`."""
    return cache.AddScopeInfoListForSingleScan(
        scanned, DERIVED, [derived_record(target, scanned, equivs)], replace)


def batches_of(cache):
    seen = []
    cache.connect("scopes-modified", lambda emitter, scopes: seen.append((emitter, scopes)))
    return seen


class TestAddAndCount:
    def test_results_of_adding(self, cache, loc):
        s = Scope(loc, "f")
        assert cache.AddScopeInfo(primary_record(s, {"x": b"1"})) is scopeinfo.kAddChanged
        # A new record with the same content, even at a new disk time, changes nothing.
        again = primary_record(s, {"x": b"1"}, mtime=11.0)
        assert cache.AddScopeInfo(again, True) is scopeinfo.kAddUnchanged
        assert cache.GetScopeInfo(s) is again  # the newest record is kept all the same
        assert cache.AddScopeInfo(primary_record(s, {"x": b"2"})) is scopeinfo.kAddChanged
        assert cache.GetScopeInfo(s).GetInfoBytes("x") == b"2"

    def test_record_of_a_scope_not_found_is_discarded_and_drops_the_old_one(self, cache, loc):
        s = Scope(loc, "gone")
        cache.AddScopeInfo(primary_record(s, {"x": b"1"}))
        lost = CScopeInfo(CScopeInfoKey(s, PRIMARY, s), b"", 12.0, False, True)
        assert cache.AddScopeInfo(lost, True) is scopeinfo.kAddDiscarded
        assert cache.GetScopeInfo(s) is None
        assert cache.CountScopeInfoRecords(s) < 0
        assert cache.AddScopeInfo(lost) is scopeinfo.kAddDiscarded

    def test_counts(self, cache, loc, tmp_path):
        m, f = Scope(loc, ""), Scope(loc, "f")
        assert cache.CountScopeInfoRecords(m) < 0
        assert cache.CountScopeInfoRecords(Scope(loc_of(tmp_path, "never.py"), "")) < 0
        cache.AddScopeInfo(primary_record(m, {}))
        assert cache.CountScopeInfoRecords(m) == 1
        assert cache.CountScopeInfoRecords(f) < 0
        add_derived(cache, f, m, {"g": b"int"})
        add_derived(cache, Scope(loc, "h"), m, {"g": b"str"})
        assert cache.CountScopeInfoRecords(m) == 3

    def test_bad_arguments(self, cache, loc):
        with pytest.raises(TypeError):
            cache.AddScopeInfo("record")
        with pytest.raises(TypeError):
            cache.CountScopeInfoRecords(None)
        with pytest.raises(TypeError):
            cache.FinishedWithScans(Scope(loc, ""), 3)


class TestMerging:
    def test_primary_and_derived_records_merge_into_one_info(self, cache, loc, tmp_path):
        target = Scope(loc, "f")
        a, b = Scope(loc, "a"), Scope(loc_of(tmp_path, "b.py"), "b")
        primary = primary_record(target, {"x": b":s1", "y": b":g2"}, inst={"i": b"int"})
        cache.AddScopeInfo(primary)
        # The record from b's file is added first; merging does not depend on that order.
        add_derived(cache, b, target, {"x": b"str"})
        from_a = derived_record(target, a, {"x": b"int", "z": b"bytes"})
        from_a.inst_type_equivs = {"j": b"float"}
        cache.AddScopeInfoListForSingleScan(a, DERIVED, [from_a], True)

        merged = cache.GetScopeInfo(target)
        assert merged.key == primary.key
        # The primary record's info first, then the derived records' in the order of the
        # scanned scopes' URLs and names: b.py sorts before mod.py.
        assert dict(merged.type_equivs) == {"x": b":s1;str;int", "y": b":g2", "z": b"bytes"}
        assert dict(merged.inst_type_equivs) == {"i": b"int", "j": b"float"}
        assert merged.scopes_seen == {a, b}
        assert merged.disk_mtime == primary.disk_mtime
        # The records themselves are not changed by merging.
        assert dict(primary.type_equivs) == {"x": b":s1", "y": b":g2"}
        assert len(cache.GetScopeInfoRecords(target)) == 3

    @pytest.mark.parametrize("primary, derived, merged", [
        (b"1", b"3", b"1;3"),
        (b"int", b"int", b"int"),                        # identical singles once
        (b"a;b(1;2)", b"b(1;2);c", b"a;b(1;2);c"),       # singles already in a compound
    ])
    def test_merged_bytes(self, cache, loc, primary, derived, merged):
        target, a = Scope(loc, "f"), Scope(loc, "a")
        cache.AddScopeInfo(primary_record(target, {"x": primary}))
        add_derived(cache, a, target, {"x": b"0"})
        first = cache.GetScopeInfo(target)
        assert cache.GetScopeInfo(target) is first  # kept until a record changes
        add_derived(cache, a, target, {"x": derived})
        assert cache.GetScopeInfo(target) is not first
        assert cache.GetScopeInfo(target).GetInfoBytes("x") == merged

    def test_derived_records_alone_give_no_info(self, cache, loc):
        target, a = Scope(loc, "f"), Scope(loc, "a")
        add_derived(cache, a, target, {"x": b"2"})
        assert cache.CountScopeInfoRecords(target) == 1
        assert cache.GetScopeInfo(target) is None

    def test_trim_drops_merged_infos_above_the_bound(self, cache, loc):
        target, a = Scope(loc, "f"), Scope(loc, "a")
        cache.AddScopeInfo(primary_record(target, {"x": b"1"}))
        add_derived(cache, a, target, {"x": b"2"})
        first = cache.GetScopeInfo(target)
        cache.fMaxMergedInfos = 0
        cache.Trim()
        again = cache.GetScopeInfo(target)
        assert again is not first and dict(again.type_equivs) == dict(first.type_equivs)


class TestSingleScan:
    def test_replacing_a_scan_drops_what_it_no_longer_says(self, cache, loc):
        t1, t2, scanned = Scope(loc, "t1"), Scope(loc, "t2"), Scope(loc, "s")
        for t in (t1, t2):
            cache.AddScopeInfo(primary_record(t, {}))
        cache.AddScopeInfoListForSingleScan(
            scanned, DERIVED,
            [derived_record(t1, scanned, {"a": b"1"}), derived_record(t2, scanned, {"b": b"1"})], True)
        assert cache.CountScopeInfoRecords(t2) == 2
        changed = add_derived(cache, scanned, t1, {"a": b"2"})
        assert changed == 1
        assert cache.CountScopeInfoRecords(t2) == 1
        assert cache.GetScopeInfo(t1).GetInfoBytes("a") == b"2"
        # Without replacing, the earlier records stay.
        add_derived(cache, scanned, t2, {}, False)
        assert cache.CountScopeInfoRecords(t2) == 2 and cache.CountScopeInfoRecords(t1) == 2

    def test_other_scans_of_the_same_target_are_untouched(self, cache, loc):
        target, s1, s2 = Scope(loc, "t"), Scope(loc, "s1"), Scope(loc, "s2")
        cache.AddScopeInfo(primary_record(target, {}))
        add_derived(cache, s1, target, {"a": b"1"})
        add_derived(cache, s2, target, {"a": b"2"})
        add_derived(cache, s1, target, {"a": b"3"})
        assert cache.GetScopeInfo(target).GetInfoBytes("a") == b"3;2"

    def test_a_finished_scan_with_nothing_new_voids_its_old_records(self, cache, loc):
        target, scanned = Scope(loc, "t"), Scope(loc, "s")
        cache.AddScopeInfo(primary_record(target, {}))
        add_derived(cache, scanned, target, {})
        cache.FinishedWithScans(scanned, DERIVED)
        assert cache.CountScopeInfoRecords(target) == 2  # the list came in this scan
        cache.FinishedWithScans(scanned, DERIVED)  # the next scan said nothing
        assert cache.CountScopeInfoRecords(target) == 1

    def test_records_of_another_scan_are_refused(self, cache, loc):
        target, scanned = Scope(loc, "t"), Scope(loc, "s")
        with pytest.raises(ValueError):
            cache.AddScopeInfoListForSingleScan(
                Scope(loc, "other"), DERIVED, [derived_record(target, scanned, {})], True)
        with pytest.raises(ValueError):
            cache.AddScopeInfoListForSingleScan(
                scanned, PRIMARY, [derived_record(target, scanned, {})], True)


class TestLocationFacts:
    def test_disk_time(self, cache, loc, tmp_path):
        assert not cache.GetLocDiskMTime(loc) > 1.0
        cache.AddScopeInfo(primary_record(Scope(loc, ""), {}, mtime=50.0))
        assert cache.GetLocDiskMTime(loc) == 50.0
        cache.SetEOLBlindChecksum(loc, b"sum", 60.0)
        assert cache.GetLocDiskMTime(loc) == 60.0
        assert cache.GetEOLBlindChecksum(loc) == b"sum"
        assert cache.GetEOLBlindChecksum(loc_of(tmp_path, "x.py")) is None

    def test_scans_done(self, cache, loc):
        cache.ChangeScansDone(loc, PRIMARY, True, 70.0)
        assert cache.IsScanDone(loc, PRIMARY, 70.0)
        assert not cache.IsScanDone(loc, PRIMARY, 71.0)
        assert not cache.IsScanDone(loc, DERIVED, 70.0)
        assert cache.GetScansDone(loc) == {PRIMARY: 70.0}
        assert cache.GetLocDiskMTime(loc) == 70.0
        cache.ChangeScansDone(loc, PRIMARY, False, 70.0)
        assert cache.GetScansDone(loc) == {}
        with pytest.raises(TypeError):
            cache.ChangeScansDone(loc, PRIMARY, True, "yesterday")

    def test_words(self, cache, loc):
        assert cache.GetWords(loc) is None
        cache.SaveWords(loc, ["alpha", "beta", "alpha"])
        assert cache.GetWords(loc) == {"alpha", "beta"}
        with pytest.raises(TypeError):
            cache.SaveWords(loc, [b"bytes"])


class TestDeferredNotification:
    def test_outside_a_bracket_each_change_is_announced_at_once(self, cache, loc):
        seen = batches_of(cache)
        s = Scope(loc, "f")
        cache.AddScopeInfo(primary_record(s, {"x": b"1"}))
        cache.AddScopeInfo(primary_record(s, {"x": b"1"}))  # unchanged: nothing to say
        assert len(seen) == 1
        emitter, scopes = seen[0]
        assert emitter is cache and scopes == {s}

    def test_one_batch_per_flush(self, cache, loc):
        seen = batches_of(cache)
        a, b = Scope(loc, "a"), Scope(loc, "b")
        cache.BeginDeferScopesModified()
        cache.AddScopeInfo(primary_record(a, {}))
        cache.AddScopeInfo(primary_record(b, {}))
        cache.AddScopeInfo(primary_record(a, {"x": b"1"}))
        assert seen == []
        cache.FlushScopesModified()
        assert [scopes for _, scopes in seen] == [{a, b}]
        cache.BeginDeferScopesModified()
        cache.FlushScopesModified()  # nothing changed: no signal
        assert len(seen) == 1

    def test_nested_brackets_announce_once_at_the_outermost_flush(self, cache, loc):
        seen = batches_of(cache)
        a, b = Scope(loc, "a"), Scope(loc, "b")
        cache.BeginDeferScopesModified()
        cache.AddScopeInfo(primary_record(a, {}))
        cache.BeginDeferScopesModified()
        cache.AddScopeInfo(primary_record(b, {}))
        cache.FlushScopesModified()
        assert seen == [] and cache.fDeferDepth == 1
        cache.FlushScopesModified()
        assert [scopes for _, scopes in seen] == [{a, b}]
        assert cache.fDeferDepth == 0
        with pytest.raises(RuntimeError):  # a flush without its begin
            cache.FlushScopesModified()

    def test_removed_records_are_announced(self, cache, loc):
        target, scanned = Scope(loc, "t"), Scope(loc, "s")
        add_derived(cache, scanned, target, {})
        seen = batches_of(cache)
        cache.FinishedWithScans(scanned, DERIVED)
        cache.FinishedWithScans(scanned, DERIVED)
        assert [scopes for _, scopes in seen] == [{target}]


class TestScopeDependantCache:
    def test_lookup_gives_a_pair_and_the_least_recently_used_entry_goes_first(self):
        deps = CScopeDependantCache("bodies", 2)
        assert deps.LookupInCache("k") == (None, False)
        deps.AddToCache("none", None, ())
        assert deps.LookupInCache("none") == (None, True)
        deps.AddToCache("a", [1, 2], [])
        assert deps.LookupInCache("a") == ([1, 2], True)
        deps.AddToCache("b", 2, [])
        deps.LookupInCache("a")
        deps.AddToCache("c", 3, [])
        assert len(deps) == 2
        assert "a" in deps and "c" in deps and "b" not in deps
        deps.AddToCache("a", 10, [])  # replacing does not grow the cache
        assert len(deps) == 2 and deps.LookupInCache("a") == (10, True)
        deps.destroy()
        assert len(deps) == 0
        with pytest.raises(ValueError):
            CScopeDependantCache("bodies", 0)

    def test_a_changed_scope_drops_the_entries_that_depend_on_it(self, cache, loc):
        deps = CScopeDependantCache("bodies", 10)
        f, g = Scope(loc, "f"), Scope(loc, "g")
        deps.AddToCache(f, "body of f", [f])
        deps.AddToCache(g, "body of g", [g])
        deps.AddToCache("stable", "kept", [])
        cache.BeginDeferScopesModified()
        cache.AddScopeInfo(primary_record(f, {}))
        # Dropped at once, not only at the flush.
        assert deps.LookupInCache(f) == (None, False)
        cache.FlushScopesModified()
        assert deps.LookupInCache(g) == ("body of g", True)
        assert deps.LookupInCache("stable") == ("kept", True)
        assert deps.InvalidateScope(g) == 1 and g not in deps

    def test_replacing_an_entry_replaces_its_dependencies(self, cache, loc):
        deps = CScopeDependantCache("bodies", 10)
        f, g = Scope(loc, "f"), Scope(loc, "g")
        deps.AddToCache("k", 1, [f])
        deps.AddToCache("k", 2, [g])
        cache.AddScopeInfo(primary_record(f, {}))
        assert deps.LookupInCache("k") == (2, True)
        cache.AddScopeInfo(primary_record(g, {}))
        assert "k" not in deps


class TestLocationCache:
    def test_builtins_are_filled_together_by_the_initialiser(self, tmp_path):
        calls = []
        builtin_loc = CLocalFileLocation(str(tmp_path / "builtins.pyi"))

        class Counting(CLocationCache):
            def _InitBuiltinLoc(self):
                calls.append(1)
                self.fBuiltinLoc = builtin_loc
                self.fBuiltinScope = Scope(builtin_loc, "")

        locs = Counting()
        scope = locs.GetBuiltinScope()
        assert scope.loc is builtin_loc and scope.name == ""
        assert locs.GetBuiltinLoc() is builtin_loc
        assert calls == [1]

    def test_default_builtins_and_typing_locations(self, tmp_path):
        (tmp_path / "builtins.pyi").write_text("")
        with_stubs = CLocationCache(stub_dirs=[tmp_path])
        assert with_stubs.GetBuiltinLoc().fPath == str(tmp_path / "builtins.pyi")
        assert with_stubs.GetBuiltinScope().loc is with_stubs.GetBuiltinLoc()
        plain = CLocationCache()
        typing_loc = plain.GetTypingLoc()
        assert plain.IsTypingLoc(typing_loc)
        assert plain.IsTypingLoc(CLocalFileLocation(sysconfig.get_paths()["stdlib"] + "/typing.py"))
        assert not plain.IsTypingLoc(CLocalFileLocation(str(tmp_path / "pkg" / "typing.py")))
        assert not plain.IsTypingLoc(None)

    def test_python_version(self):
        assert CLocationCache().GetPythonMajorVersion() == sys.version_info.major
        assert CLocationCache(python_major_version=2).GetPythonMajorVersion() == 2
        with pytest.raises(ValueError):
            CLocationCache(python_major_version=4)

    def test_derived_info_is_wanted_for_project_files_only(self, tmp_path):
        locs = CLocationCache()
        project = loc_of(tmp_path, "app.py")
        assert locs.WantDerivedInfo(project)
        assert not locs.WantDerivedInfo(loc_of(tmp_path, "app.pyi"))
        stdlib = CLocalFileLocation(sysconfig.get_paths()["stdlib"] + "/json/decoder.py")
        assert not locs.WantDerivedInfo(stdlib)
        locs.SetWantDerivedInfo(project, False)
        assert not locs.WantDerivedInfo(project)
        locs.SetWantDerivedInfo(project, None)
        assert locs.WantDerivedInfo(project)
        lib = CLocationCache(library_dirs=[tmp_path / "lib"])
        assert not lib.WantDerivedInfo(CLocalFileLocation(str(tmp_path / "lib" / "x.py")))
        assert lib.WantDerivedInfo(CLocalFileLocation(str(tmp_path / "libx.py")))

    def test_primary_location(self, tmp_path):
        locs = CLocationCache()
        stub, source = loc_of(tmp_path, "m.pyi"), loc_of(tmp_path, "m.py")
        assert locs.IsPyiLocation(stub) and not locs.IsPyiLocation(source)
        assert locs.GetPrimaryLocation(stub) is stub
        locs.SetPrimaryLocation(stub, source)
        assert locs.GetPrimaryLocation(stub) is source
        locs.SetPrimaryLocation(stub, None)
        assert locs.GetPrimaryLocation(stub) is stub


class TestDerivedRefinementPolicy:
    def test_targets_need_a_record_and_room(self, cache, loc):
        from pysource.scopeinfo import CDerivedRefinementPolicy
        policy = CDerivedRefinementPolicy(cache, 2)
        target, s1, s2, s3 = Scope(loc, "t"), Scope(loc, "s1"), Scope(loc, "s2"), Scope(loc, "s3")
        assert not policy.AcceptsTarget(target, s1)  # no record: derived info makes nothing up
        cache.AddScopeInfo(primary_record(target, {}))
        assert policy.AcceptsTarget(target, s1)
        add_derived(cache, s1, target, {})
        assert policy.HasRoomFor(target)  # exactly at the bound
        add_derived(cache, s2, target, {})
        assert not policy.AcceptsTarget(target, s3)

    def test_files_that_want_no_derived_info(self, cache, tmp_path):
        from pysource.scopeinfo import CDerivedRefinementPolicy
        policy = CDerivedRefinementPolicy(cache)
        stub = Scope(loc_of(tmp_path, "lib.pyi"), "")
        cache.AddScopeInfo(primary_record(stub, {}))
        assert not policy.AcceptsTarget(stub, Scope(loc_of(tmp_path, "app.py"), "f"))
        # The stub's own scans still record into it.
        assert policy.AcceptsTarget(stub, Scope(stub.loc, "f"))

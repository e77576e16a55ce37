"""The scope body cache: bodies found through the open analysis of a file,
kept in a scope-dependant cache, dropped when their scope changes."""

import textwrap

import pytest

import pysource.utils
from basekit.location import CLocalFileLocation
from pysource import scopescanner as ss
from pysource.scopeinfo import CScopeDependantCache, CScopeInfo, CScopeInfoKey
from pysource.symbolinfo import CScope, NormalizedScope

from managerutil import fresh_remote, mgr

SOURCE = textwrap.dedent(
    """\
    import os

    class C:
        # about f
        def f(self):
            # inside f
            def inner():
                return 1
            return inner()

        def f(self):
            pass

    def only_comments():
        # one
        # two

    x = C()
    """
)


def texts(body):
    return [" ".join(logical.fToks) for logical in body]


@pytest.fixture
def loc(mgr, tmp_path):
    loc = CLocalFileLocation(str(tmp_path / "mod.py"))
    mgr.fCacheMgr.OpenAnalysis(loc, SOURCE)
    return loc


@pytest.fixture
def cache(mgr):
    return mgr.fScopeBodyCache


class CountingCache(ss.CScopeBodyCache):
    """Counts the searches the cache makes."""

    def __init__(self):
        super().__init__()
        self.found = []

    def _FindScope(self, scope):
        self.found.append(scope)
        return super()._FindScope(scope)


class TestFindingBodies:
    @pytest.mark.parametrize("name, comments, expected", [
        # a method's body keeps its comments and leaves nested bodies out
        ("C.f", True, ["# inside f", "def inner ( ) :", "return inner ( )"]),
        ("C.f", False, ["def inner ( ) :", "return inner ( )"]),
        ("C.f|1", True, ["pass"]),      # the index names the second definition
        ("", True, ["import os", "class C :", "def only_comments ( ) :", "x = C ( )"]),
        ("only_comments", True, ["# one", "# two"]),
        ("only_comments", False, []),
    ])
    def test_bodies(self, cache, loc, name, comments, expected):
        assert texts(cache.GetBody(CScope(loc, name), comments)) == expected

    def test_index_zero_and_the_normalised_scope_are_the_plain_name(self, cache, loc):
        assert texts(cache.GetBody(CScope(loc, "C.f|0"))) == texts(cache.GetBody(CScope(loc, "C.f")))
        # The normalised scope is the same cache key.
        assert cache.GetBody(NormalizedScope(loc, "C.f|0")) is cache.GetBody(CScope(loc, "C.f"))

    def test_stripped_body_is_a_new_list_and_the_cached_one_keeps_its_comments(self, cache, loc):
        scope = CScope(loc, "C.f")
        stripped = cache.GetBody(scope, include_comments=False)
        assert cache.GetBody(scope, False) is not stripped
        assert texts(cache.GetBody(scope))[0] == "# inside f"


class TestCaching:
    def test_second_call_does_not_touch_the_analysis(self, cache, loc, monkeypatch):
        scope = CScope(loc, "C.f")
        first = cache.GetBody(scope)

        def no_analysis(loc):
            raise AssertionError("the analysis was asked again")

        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", no_analysis)
        assert cache.GetBody(scope) is first
        assert cache.GetBody(CScope(loc, "C.f")) is first  # an equal scope object
        assert texts(cache.GetBody(scope, False)) == texts(first)[1:]

    def test_lookup_only_on_empty_cache_does_not_search(self, mgr, loc):
        cache = CountingCache()
        try:
            assert cache.GetBody(CScope(loc, "C.f"), True, False) is None
            assert cache.found == []
            assert cache.GetBody(CScope(loc, "C.f")) is not None
            assert len(cache.found) == 1
            assert cache.GetBody(CScope(loc, "C.f"), True, False) is not None
            assert len(cache.found) == 1
        finally:
            cache.destroy()

    def test_bound(self, cache, loc):
        assert ss.CScopeBodyCache.kCacheSize == 500
        scopes = [CScope(loc, f"s{i}") for i in range(501)]
        for scope in scopes:
            cache.SetScopeBodyInCache(scope, [])
        inner = cache._fScopeDependantCache
        assert isinstance(inner, CScopeDependantCache)
        assert len(inner) == 500
        assert scopes[0] not in inner and scopes[-1] in inner

    def test_destroy_destroys_the_inner_cache(self, mgr, loc):
        cache = ss.CScopeBodyCache()
        cache.GetBody(CScope(loc, "C.f"))
        inner = cache._fScopeDependantCache
        cache.destroy()
        assert inner.fDestroyed and len(inner) == 0


class TestNotFound:
    def test_missing_scope_gives_none_and_stores_nothing(self, cache, loc):
        scope = CScope(loc, "C.g")
        assert cache.GetBody(scope) is None
        assert len(cache._fScopeDependantCache) == 0

    def test_scope_that_went_away(self, mgr, cache, loc):
        mgr.fCacheMgr.OpenAnalysis(loc, "x = 1\n")
        assert cache.GetBody(CScope(loc, "C.f")) is None
        assert len(cache._fScopeDependantCache) == 0

    def test_file_without_analysis(self, cache, tmp_path):
        assert cache.GetBody(CScope(CLocalFileLocation(str(tmp_path / "other.py")), "")) is None

    def test_content_not_arrived(self, mgr, cache):
        loc = fresh_remote()
        mgr.fCacheMgr.OpenAnalysis(loc)
        assert cache.GetBody(CScope(loc, "")) is None
        assert len(cache._fScopeDependantCache) == 0
        loc.SetContent("def f():\n    pass\n")
        assert texts(cache.GetBody(CScope(loc, "f"))) == ["pass"]

    def test_analysis_disagreeing_with_its_logicals(self, mgr, cache, loc):
        # A def from another text: the right name, but not a logical of this list.
        ana = mgr.fCacheMgr.GetAnalysis(loc, False)
        other = mgr.fCacheMgr.OpenAnalysis(fresh_remote(), SOURCE)
        ana._GetScopeDefForFullName = other._GetScopeDefForFullName
        assert cache.GetBody(CScope(loc, "C.f")) is None
        assert len(cache._fScopeDependantCache) == 0


class TestInvalidation:
    @staticmethod
    def record_primary(mgr, scope):
        key = CScopeInfoKey(scope, mgr.fPrimaryScanName, scope)
        info = CScopeInfo(key, b"", 1.0, False)
        info.type_equivs = {"a": b"1"}
        info.FinishedBuilding()
        mgr.fInfoCache.AddScopeInfo(info)

    # A body of a stable, primary-scanned location outlives a new record of
    # its scope; any other body goes with it.
    @pytest.mark.parametrize("stable, scanned, kept", [
        (False, False, False), (True, False, False), (True, True, True)])
    def test_body_goes_when_its_scope_changes(self, mgr, cache, loc, stable, scanned, kept):
        scope = CScope(loc, "C.f")
        scope.fStableLoc, scope.fPrimaryScanned = stable, scanned
        body = cache.GetBody(scope)
        other = CScope(loc, "C.f|1")
        cache.GetBody(other)
        self.record_primary(mgr, CScope(loc, "C.f"))
        assert cache.GetBody(scope, True, False) is (body if kept else None)
        assert cache.GetBody(other, True, False) is not None


class TestBufferEdits:
    # A body depends on the text it was cut from: an edit of the buffer drops
    # the bodies of exactly the scopes whose logicals changed, whether or not
    # their records change.
    @pytest.mark.parametrize("stable", [False, True])
    def test_edit_reaches_the_bodies_of_changed_scopes(self, mgr, cache, loc, stable):
        scopes = {name: CScope(loc, name) for name in ("C.f", "C.f.inner", "C.f|1", "", "C")}
        for scope in scopes.values():
            scope.fStableLoc = scope.fPrimaryScanned = stable
        bodies = {name: cache.GetBody(scope) for name, scope in scopes.items()}
        mgr.fCacheMgr.GetAnalysis(loc, False).SetText(SOURCE.replace("pass", "return 2"))
        assert texts(cache.GetBody(scopes["C.f|1"])) == ["return 2"]
        kept = {name for name, scope in scopes.items() if cache.GetBody(scope, True, False) is bodies[name]}
        assert kept == {"C.f", "C.f.inner", "", "C"}

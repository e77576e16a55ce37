"""Open-buffer analyses, the cache manager that holds them, and the analysis
manager."""

import pytest

from basekit.location import CLocalFileLocation
from pysource import analysis, manager, utils
from pysource.llinecache import CLogicalLineCache

from managerutil import fresh_remote, installed_manager, loc, mgr

SOURCE = "class C:\n    def f(self):\n        def g():\n            pass\n    def f(self):\n        def g():\n            pass\nx = 1\n"


def texts(logical_list):
    return [" ".join(logical.fToks) for logical in logical_list]


class Recorder:
    """Records the emissions of one signal."""

    def __init__(self, emitter, signal):
        self.events = []
        emitter.connect(signal, self)

    def __call__(self, *args):
        self.events.append(args)


@pytest.fixture
def ana(mgr, loc):
    return mgr.fCacheMgr.OpenAnalysis(loc, SOURCE)


class TestText:
    def test_set_text_builds_logicals(self, ana):
        assert ana.UpdateFromCache()
        assert texts(ana.fLogicalCache._fLogicalList)[0] == "class C :"
        assert isinstance(ana.fLogicalCache, CLogicalLineCache)
        assert ana.fLogicalCache.fBuffer

    def test_change_emits_the_delta(self, ana):
        modified = Recorder(ana.fLogicalCache, "modified")
        kept = ana.fLogicalCache._fLogicalList[0]
        ana.SetText(SOURCE.replace("x = 1", "x = 2"))
        ((cache, delta),) = modified.events
        assert cache is ana.fLogicalCache
        assert texts(delta.removed) == ["x = 1"] and texts(delta.added) == ["x = 2"]
        # Unchanged leading logicals keep their objects.
        assert ana.fLogicalCache._fLogicalList[0] is kept

    def test_same_text_emits_an_empty_delta_and_keeps_the_time(self, ana):
        mtime = ana.fMatchedDiskMTime
        modified = Recorder(ana.fLogicalCache, "modified")
        ana.SetText(SOURCE)
        ((_, delta),) = modified.events
        assert list(delta.added) == [] and list(delta.removed) == []
        assert ana.fMatchedDiskMTime == mtime

    def test_buffer_text_wins_over_the_disk(self, mgr, tmp_path):
        path = tmp_path / "disk.py"
        path.write_text("on_disk = 1\n")
        loc = CLocalFileLocation(str(path))
        ana = mgr.fCacheMgr.GetAnalysis(loc, True)
        assert ana.UpdateFromCache()
        assert texts(ana.fLogicalCache._fLogicalList) == ["on_disk = 1"]
        ana.SetText("in_buffer = 2\n")
        path.write_text("changed_on_disk = 3\n")
        assert ana.UpdateFromCache()
        assert texts(ana.fLogicalCache._fLogicalList) == ["in_buffer = 2"]

    def test_missing_file_until_text_is_set(self, mgr, loc):
        ana = mgr.fCacheMgr.OpenAnalysis(loc)
        assert not ana.UpdateFromCache()
        ana.SetText("a = 1\n")
        assert ana.UpdateFromCache()

    def test_remote_location_waits_for_content(self, mgr):
        loc = fresh_remote()
        ana = mgr.fCacheMgr.OpenAnalysis(loc)
        modified = Recorder(ana.fLogicalCache, "modified")
        assert not ana.UpdateFromCache()
        ana.SetText("a = 1\n")
        assert ana.UpdateFromCache() and len(modified.events) == 1
        # Deliveries to the location no longer replace the buffer's text.
        loc.SetContent("b = 2\n")
        assert texts(ana.fLogicalCache._fLogicalList) == ["a = 1"]

    @pytest.mark.parametrize("bad", [None, 12, ["x = 1"]])
    def test_bad_text(self, ana, bad):
        with pytest.raises(TypeError):
            ana.SetText(bad)
        assert ana.UpdateFromCache()


class TestScopeDefs:
    @pytest.mark.parametrize("name, line", [
        ("C", 1), ("C.f", 2), ("C.f|0", 2), ("C.f|1", 5), ("C.f.g", 3), ("C|0.f|1.g|0", 6),
        ("C.h", None), ("C.f|2", None), ("x", None)])
    def test_lookup_by_full_name(self, ana, name, line):
        logical = ana._GetScopeDefForFullName(name)
        assert (logical and logical.fFirstLine) == line

    def test_lookup_follows_text_changes(self, ana):
        assert ana._GetScopeDefForFullName("D") is None
        ana.SetText("class D:\n    pass\n")
        assert ana._GetScopeDefForFullName("D").fFirstLine == 1
        assert ana._GetScopeDefForFullName("C") is None


class TestEditorState:
    def test_active_edit_line(self, ana):
        changed = Recorder(ana, "active-edit-lineno-changed")
        assert ana.fActiveEditLineno == -1
        ana.SetActiveEditLineno(4)
        assert ana.fActiveEditLineno == 4 and changed.events == [(ana, 4)]
        with pytest.raises(TypeError):
            ana.SetActiveEditLineno("4")

    def test_etherealize_once(self, ana):
        etherealized = Recorder(ana, "etherealized")
        assert not ana.fEthereal
        ana.Etherealize()
        ana.Etherealize()
        assert ana.fEthereal and etherealized.events == [(ana,)]

    def test_parse_errors(self, ana):
        lines = ana.fLogicalCache._fLogicalList
        ana.SaveParseErrors([(lines[-1], ["bad end"]), (lines[0], ["bad start"])])
        ana.SaveParseErrors([(lines[0], ["still bad"])])
        assert ana.GetParseErrors() == [(lines[0], ["still bad"]), (lines[-1], ["bad end"])]

    def test_parse_errors_of_removed_logicals_are_dropped(self, ana):
        lines = ana.fLogicalCache._fLogicalList
        ana.SaveParseErrors([(lines[0], ["a"]), (lines[-1], ["b"])])
        ana.SetText(SOURCE.replace("x = 1", "x = (1"))
        assert ana.GetParseErrors() == [(lines[0], ["a"])]


class TestCacheMgr:
    def test_open_get_close(self, mgr, loc):
        cache_mgr = mgr.fCacheMgr
        assert cache_mgr.GetAnalysis(loc, False) is None
        ana = cache_mgr.OpenAnalysis(loc, "a = 1\n")
        assert isinstance(ana, analysis.CPySourceAnalysis)
        assert cache_mgr.OpenAnalysis(loc) is ana
        assert cache_mgr.GetAnalysis(loc, False) is ana
        assert utils.GetAnalysisForLoc(loc) is ana and mgr.GetAnalysis(loc) is ana
        etherealized = Recorder(ana, "etherealized")
        assert cache_mgr.CloseAnalysis(loc)
        assert etherealized.events and ana.fDestroyed and ana.fLogicalCache.fDestroyed
        assert cache_mgr.GetAnalysis(loc, False) is None
        assert not cache_mgr.CloseAnalysis(loc)

    def test_create_needs_a_file_or_remote_content(self, mgr, loc, tmp_path):
        assert mgr.GetAnalysis(loc, create=True) is None
        assert mgr.GetAnalysis(fresh_remote(), create=True) is not None
        path = tmp_path / "there.py"
        path.write_text("a = 1\n")
        assert mgr.GetAnalysis(CLocalFileLocation(str(path)), create=True) is not None


class TestAnalysisMgr:
    def test_scanning_process_has_no_analyses(self, loc):
        with installed_manager(editor=False) as mgr:
            assert mgr.fCacheMgr is None
            assert mgr.GetAnalysis(loc) is None and utils.GetAnalysisForLoc(loc) is None

    def test_default_manager_and_replacement(self):
        previous = manager.SetAnalysisMgr(None)
        try:
            default = manager.GetAnalysisMgr()
            assert manager.GetAnalysisMgr() is default and default.fCacheMgr is None
            mine = manager.CAnalysisMgr()
            assert manager.SetAnalysisMgr(mine) is default
            assert manager.GetAnalysisMgr() is mine
            default.destroy()
            mine.destroy()
        finally:
            manager.SetAnalysisMgr(previous)

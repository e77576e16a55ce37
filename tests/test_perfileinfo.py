"""The per-file scan context: shared references taken from the analysis
manager, the file's grammar, and the lazily found analysis and active line."""

import gc
import weakref

import pytest

import pysource.utils
from basekit.destroyable import CDestroyable
from basekit.location import CLocalFileLocation
from pysource import scopescanner as ss

from managerutil import installed_manager, loc, mgr


@pytest.fixture
def stub_loc(tmp_path):
    return CLocalFileLocation(str(tmp_path / "mod.pyi"))


class CountingLookup:
    """Stands for utils.GetAnalysisForLoc and counts the calls."""

    def __init__(self, result=None):
        self.result = result
        self.calls = []

    def __call__(self, loc):
        self.calls.append(loc)
        return self.result


class FakeAnalysis(CDestroyable):
    """An analysis that counts the reads of its active line."""

    def __init__(self, lineno):
        super().__init__(["active-edit-lineno-changed"])
        self._lineno = lineno
        self.reads = 0

    @property
    def fActiveEditLineno(self):
        self.reads += 1
        return self._lineno


@pytest.fixture
def per_file(mgr, loc):
    info = ss._CPerFileInfo(loc)
    yield info
    info.destroy()


class TestConstruction:
    def test_pgen_analyzer_for_source_and_stub(self, mgr, loc, stub_loc):
        source, stub = ss._CPerFileInfo(loc), ss._CPerFileInfo(stub_loc)
        try:
            assert source.fPGenAnalyzer is mgr.fLogicalAnalyzer and source.fAstAnalyzer is None
            assert stub.fPGenAnalyzer is mgr.fPyiLogicalAnalyzer and stub.fAstAnalyzer is None
            assert stub.fPyiFile
        finally:
            source.destroy()
            stub.destroy()

    def test_other_analyzer_is_held_as_ast_analyzer(self, mgr, loc):
        other = object()
        mgr.fLogicalAnalyzer = other
        info = ss._CPerFileInfo(loc)
        assert info.fAstAnalyzer is other and info.fPGenAnalyzer is None
        info.destroy()

    def test_manager_without_an_info_cache(self, mgr, loc):
        mgr.fInfoCache, real = object(), mgr.fInfoCache
        try:
            with pytest.raises(TypeError, match="CInfoCache"):
                ss._CPerFileInfo(loc)
        finally:
            mgr.fInfoCache = real


class TestGrammar:
    @pytest.mark.parametrize("name, version, py3", [
        ("mod.py", 2, False), ("mod.py", 3, True), ("mod.pyi", 2, True), ("mod.pyi", 3, True)])
    def test_stub_file_is_always_python3(self, tmp_path, name, version, py3):
        with installed_manager(python_major_version=version):
            info = ss._CPerFileInfo(CLocalFileLocation(str(tmp_path / name)))
            assert info.fPy3Grammar is py3 and info.fPyiFile == name.endswith(".pyi")
            info.destroy()
class TestAnalysis:
    def test_missing_analysis_is_looked_up_once(self, per_file, monkeypatch):
        lookup = CountingLookup()
        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", lookup)
        assert per_file.GetAnalysis() is None
        assert per_file.GetAnalysis() is None
        assert per_file.GetActiveEditLineno() == -1
        assert lookup.calls == [per_file.fLocation]
        assert per_file._fAttemptedToGetAnalysis

    def test_open_analysis_found_through_the_manager(self, mgr, per_file, loc):
        ana = mgr.fCacheMgr.OpenAnalysis(loc, "x = 1\n")
        assert per_file.GetAnalysis() is ana


class TestActiveEditLine:
    def test_follows_the_signal_without_reading_the_analysis(self, per_file, monkeypatch):
        ana = FakeAnalysis(3)
        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", CountingLookup(ana))
        assert per_file.GetActiveEditLineno() == 3
        assert per_file._fConnectedToActiveLinenoSignal
        ana.emit("active-edit-lineno-changed", ana, 5)
        assert per_file.GetActiveEditLineno() == 5
        assert ana.reads == 1

    def test_not_connected_before_the_first_question(self, per_file, monkeypatch):
        ana = FakeAnalysis(3)
        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", CountingLookup(ana))
        ana.emit("active-edit-lineno-changed", ana, 9)
        assert ana.connection_count("active-edit-lineno-changed") == 0
        assert per_file._fActiveEditLineno == -1
        assert per_file.GetActiveEditLineno() == 3

    def test_real_analysis(self, mgr, per_file, loc):
        ana = mgr.fCacheMgr.OpenAnalysis(loc, "x = 1\n")
        ana.SetActiveEditLineno(2)
        assert per_file.GetActiveEditLineno() == 2
        ana.SetActiveEditLineno(7)
        assert per_file.GetActiveEditLineno() == 7

    def test_connection_ends_with_the_context(self, mgr, loc, monkeypatch):
        ana = FakeAnalysis(1)
        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", CountingLookup(ana))
        info = ss._CPerFileInfo(loc)
        info.GetActiveEditLineno()
        assert ana.connection_count("active-edit-lineno-changed") == 1
        info.destroy()
        assert ana.connection_count("active-edit-lineno-changed") == 0
        ana.emit("active-edit-lineno-changed", ana, 4)

    def test_context_and_analysis_are_collected(self, mgr, loc, monkeypatch):
        ana = FakeAnalysis(1)
        monkeypatch.setattr(pysource.utils, "GetAnalysisForLoc", CountingLookup(ana))
        info = ss._CPerFileInfo(loc)
        info.GetActiveEditLineno()
        refs = weakref.ref(info), weakref.ref(ana)
        monkeypatch.undo()
        del info, ana
        gc.collect()
        assert refs[0]() is None and refs[1]() is None


class TestSubstitutedManager:
    def test_any_object_with_the_fields_serves_as_manager(self, loc):
        from types import SimpleNamespace

        from pysource import manager
        from pysource.locationcache import CLocationCache
        from pysource.scopeinfo import CInfoCache

        info_cache = CInfoCache(CLocationCache(2))
        analyzer, body_cache = object(), object()
        fake = SimpleNamespace(fInfoCache=info_cache, fLogicalAnalyzer=analyzer,
                               fPyiLogicalAnalyzer=None, fPrimaryScanName="mine",
                               fScopeBodyCache=body_cache, fCacheMgr=None)
        previous = manager.SetAnalysisMgr(fake)
        try:
            info = ss._CPerFileInfo(loc)
            assert info.fInfoCache is info_cache and info.fAstAnalyzer is analyzer
            assert info.fPrimaryScanName == "mine" and info.fScopeBodyCache is body_cache
            assert not info.fPy3Grammar
            assert info.GetAnalysis() is None
            info.destroy()
        finally:
            manager.SetAnalysisMgr(previous)
            info_cache.destroy()

"""The analysis manager: the services one analysis process shares.

Scanners reach the manager through `GetAnalysisMgr()` and read its fields by
name, so an embedder (or a test) can install its own manager, or a subclass of
ours, with `SetAnalysisMgr`.
"""

import os

from basekit import location
from pysource import inferenceengine, pgeninspect, prefs, scopeinfo, scopescanner
from pysource.locationcache import CLocationCache

kPrimaryScanName = "primary"
kDerivedScanName = "derived"


class CAnalysisMgr:
    """Holds the info cache, the logical analyzers, the scope body cache, the
    preferences and, in an editor process, the cache manager of open buffers.

    `db_path`: the SQLite file behind the info cache; None keeps the records in
    memory only.  `loc_cache`: the location cache (a default one when None).
    `cache_mgr`: the holder of open analyses (None in a scanning process).
    `info_cache_class`: the info cache's class (CInfoCache or a subclass).
    """

    def __init__(self, db_path=None, loc_cache=None, cache_mgr=None, module_finder=None,
                 info_cache_class=scopeinfo.CInfoCache):
        if loc_cache is None:
            loc_cache = CLocationCache()
        self.fPrimaryScanName = kPrimaryScanName
        self.fDerivedScanName = kDerivedScanName
        self.fInfoCache = info_cache_class(loc_cache, db_path, self.fPrimaryScanName)
        # Stub files are read by an analyzer of their own, so that an embedder
        # can give them a different one.
        self.fLogicalAnalyzer = pgeninspect.CPGenAnalyzer()
        self.fPyiLogicalAnalyzer = pgeninspect.CPGenAnalyzer()
        self.fScopeBodyCache = scopescanner.CScopeBodyCache()
        self.fCacheMgr = cache_mgr
        self.fScanCoordinator = None
        self.fPrefMgr = prefs.CPrefMgr()
        self.fInferenceEngine = CInferenceService(self.fInfoCache, module_finder)

    def GetAnalysis(self, loc, create=True):
        """The analysis of `loc` from the cache manager (made when `create` is
        true and the file can be opened); None without a cache manager."""
        if self.fCacheMgr is None:
            return None
        return self.fCacheMgr.GetAnalysis(loc, create)

    def SetScanCoordinator(self, coordinator):
        """Called by a scan coordinator when it starts driving scans (None
        when it stops); returns the coordinator that was registered."""
        previous = self.fScanCoordinator
        self.fScanCoordinator = coordinator
        return previous

    def destroy(self):
        """Releases what the manager made: the body cache, the info cache and
        the cache manager's open analyses."""
        if self.fCacheMgr is not None:
            self.fCacheMgr.destroy()
            self.fCacheMgr = None
        self.fScopeBodyCache.destroy()
        self.fInfoCache.destroy()


class CInferenceService:
    """The inference engine as the manager offers it: `_fNativeEngine` is the
    engine itself (a CInferenceEngine, or an embedder's subclass)."""

    def __init__(self, info_cache, module_finder=None):
        from pysource import inferflow
        self._fNativeEngine = inferenceengine.CInferenceEngine(info_cache, module_finder)
        self._fNativeEngine.fFlowProvider = inferflow.CBlockStructure(info_cache)


class CCacheMgr:
    """The editor-side holder of open analyses, one per location."""

    def __init__(self):
        self._fAnalyses = {}

    def OpenAnalysis(self, loc, text=None):
        """The analysis of `loc`, made if it isn't open; `text`, when given,
        becomes its buffer's text."""
        ana = self._fAnalyses.get(loc)
        if ana is None:
            # Imported here: the analysis pulls in editor machinery that a
            # scanning process never needs.
            from pysource import analysis
            ana = analysis.CPySourceAnalysis(self, loc)
            self._fAnalyses[loc] = ana
        if text is not None:
            ana.SetText(text)
        return ana

    def GetAnalysis(self, loc, create=True):
        """The open analysis of `loc`, or None.  With `create`, an analysis is
        opened for a location that can have content: a remote location, or a
        local file that exists."""
        ana = self._fAnalyses.get(loc)
        if ana is not None or not create:
            return ana
        if isinstance(loc, location.CLocalFileLocation) and not os.path.isfile(loc.fPath):
            return None
        return self.OpenAnalysis(loc)

    def CloseAnalysis(self, loc):
        """Closes the analysis of `loc`: it goes ethereal (scans reading it
        stop) and is destroyed.  False when none was open."""
        ana = self._fAnalyses.pop(loc, None)
        if ana is None:
            return False
        ana.Etherealize()
        ana.destroy()
        return True

    def GetOpenLocations(self):
        return list(self._fAnalyses)

    def destroy(self):
        for loc in list(self._fAnalyses):
            self.CloseAnalysis(loc)


_gAnalysisMgr = None


def GetAnalysisMgr():
    """The process's analysis manager, made on first use (in memory, without
    a cache manager)."""
    global _gAnalysisMgr
    if _gAnalysisMgr is None:
        _gAnalysisMgr = CAnalysisMgr()
    return _gAnalysisMgr


def SetAnalysisMgr(mgr):
    """Installs `mgr` as the process's analysis manager (None: a default one
    is made on next use); returns the previous one, which the caller owns."""
    global _gAnalysisMgr
    previous = _gAnalysisMgr
    _gAnalysisMgr = mgr
    return previous

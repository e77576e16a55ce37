"""Small process-level look-ups shared by the scanners."""

from pysource import manager


def GetAnalysisForLoc(loc):
    """The open analysis of `loc`, or None when the file has none (always None
    in a scanning process without editor buffers)."""
    cache_mgr = manager.GetAnalysisMgr().fCacheMgr
    if cache_mgr is None:
        return None
    return cache_mgr.GetAnalysis(loc, False)

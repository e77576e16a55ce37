"""The analysis of an open editor buffer.

`CPySourceAnalysis` stands for one file that an editor holds open: the
embedder sets and changes its text, and the scanners read its logical lines,
find scope definitions by full name, follow the line being edited, and stop
when the analysis goes ethereal (the buffer no longer stands for the file).
"""

from basekit.destroyable import CDestroyable
from pysource import llinecache, manager, scopescanner, symbolinfo

kEtherealizedSignal = "etherealized"
kActiveEditLinenoChangedSignal = "active-edit-lineno-changed"


class CPySourceAnalysis(CDestroyable):
    """One open buffer of `loc`, held by the cache manager `cache_mgr`.

    Until the embedder sets the text, the logicals are those of the location
    (read from disk, or delivered for a remote location); after `SetText`
    they are the buffer's.
    """

    def __init__(self, cache_mgr, loc, text=None):
        super().__init__([kEtherealizedSignal, kActiveEditLinenoChangedSignal])
        self.fCacheMgr = cache_mgr
        self.fLocation = loc
        # The cache isn't handed the cache manager: the buffer's text comes
        # from SetText or the location's deliveries, never by request, and
        # the cache would hold the manager outside the garbage collector's
        # view (manager -> analysis -> cache -> manager).
        self.fLogicalCache = llinecache.CLogicalLineCache(None, loc, None)
        self.fEthereal = False
        self.fActiveEditLineno = -1
        self._fParseErrors = {}
        # Full normalised scope name -> defining logical, for the logical
        # list object it was built from.
        self._fScopeDefs = None
        self._fScopeDefsList = None
        self.fLogicalCache.connect_while_alive("modified", self._CB_LogicalCacheModified, self)
        if text is not None:
            self.SetText(text)

    # Content.

    def SetText(self, text, mtime=None):
        """Sets the buffer's text (str, or bytes decoded as a file's); the
        logical cache emits "modified" with what changed."""
        self.fLogicalCache.SetText(text, mtime)

    def UpdateFromCache(self):
        """True when the logicals are there: the buffer's text, or the
        location's content (false for a missing file or a remote location
        whose content hasn't arrived)."""
        return bool(self.fLogicalCache.Update())

    @property
    def fMatchedDiskMTime(self):
        return self.fLogicalCache.fMatchedDiskMTime

    def GetEOLBlindChecksum(self):
        return self.fLogicalCache.GetEOLBlindChecksum()

    def _CB_LogicalCacheModified(self, cache, delta):
        # Errors of logicals that are gone no longer describe the text.
        if self._fParseErrors:
            for logical in delta.removed:
                self._fParseErrors.pop(logical, None)
        # The logicals that stayed keep their scope names: the index of scope
        # definitions follows the change alone.
        if self._fScopeDefs is not None:
            self._UpdateScopeDefs(delta)
            self._fScopeDefsList = cache._fLogicalList
        manager.GetAnalysisMgr().fScopeBodyCache.DropChangedScopes(
            self.fLocation, delta.removed, delta.added)

    # Scope definitions.

    def _GetScopeDefForFullName(self, name):
        """The def or class logical whose full scope name is `name`, or None.
        Names are compared normalised, so "C.f" and "C.f|0" find the same def;
        "C.f|1" is the second def of f in C."""
        logical_list = self.fLogicalCache._fLogicalList
        if self._fScopeDefsList is not logical_list:
            self._fScopeDefs = self._IndexScopeDefs(logical_list)
            self._fScopeDefsList = logical_list
        return self._fScopeDefs.get(symbolinfo.NormalizeScopeName(name))

    @staticmethod
    def _IndexScopeDefs(logical_list):
        defs = {}
        for logical in logical_list:
            if scopescanner.IsScopeDef(logical):
                defs.setdefault(_NormalizedFullName(logical), logical)
        return defs

    def _UpdateScopeDefs(self, delta):
        defs = self._fScopeDefs
        for logical in delta.removed:
            if scopescanner.IsScopeDef(logical):
                name = _NormalizedFullName(logical)
                if defs.get(name) is logical:
                    del defs[name]
        for logical in delta.added:
            if scopescanner.IsScopeDef(logical):
                defs.setdefault(_NormalizedFullName(logical), logical)

    # Editing state.

    def SetActiveEditLineno(self, lineno):
        """Records the line being edited (-1: none) and tells the scanners."""
        if not isinstance(lineno, int):
            raise TypeError(f"the active edit line must be an int, not {type(lineno).__name__}")
        self.fActiveEditLineno = lineno
        self.emit(kActiveEditLinenoChangedSignal, self, lineno)

    def Etherealize(self):
        """The buffer no longer stands for the file: scans that read it stop."""
        if self.fEthereal:
            return
        self.fEthereal = True
        self.emit(kEtherealizedSignal, self)

    # Parse errors found by the scanners.

    def SaveParseErrors(self, errors):
        """Keeps the parse errors of logicals: a list of (logical, errors);
        a logical's new errors replace its old ones."""
        for logical, errs in errors:
            self._fParseErrors[logical] = errs

    def GetParseErrors(self):
        """The saved (logical, errors) pairs, in source order."""
        return sorted(self._fParseErrors.items(), key=lambda item: item[0].fFirstLine)

    def _destroy_impl(self):
        self._fParseErrors.clear()
        self._fScopeDefs = self._fScopeDefsList = None
        self.fLogicalCache.destroy()


def _NormalizedFullName(scope_def):
    return symbolinfo.NormalizeScopeName(scopescanner.GetFullNameForScopeDef(scope_def))

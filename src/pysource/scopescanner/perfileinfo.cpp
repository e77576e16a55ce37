#include "pysource/scopescanner/perfileinfo.h"

#include "pysource/infocache.h"
#include "pysource/pgeninspect.h"
#include "pysource/scopescanner/protocol.h"
#include "pysource/strutils.h"

namespace pysource {

CPerFileInfo_::CPerFileInfo_(nb::handle loc, nb::handle incomplete_scope_set)
    : basekit::CDestroyable(nb::none()),
      fLocation(nb::borrow(loc)),
      fInfoCache(nb::none()),
      fAstAnalyzer(nb::none()),
      fPGenAnalyzer(nb::none()),
      fPrimaryScanName(nb::none()),
      fScopeBodyCache(nb::none()),
      _fAnalysis(nb::none()),
      fMatchedDiskMTime(nb::none()),
      fEOLBlindChecksum(nb::none()),
      fIncompleteScopeSet(nb::none()) {
    if (!incomplete_scope_set.is_none() && !PySet_Check(incomplete_scope_set.ptr()))
        throw nb::type_error("_CPerFileInfo: incomplete_scope_set must be a set or None");

    nb::object ana_mgr = nb::module_::import_("pysource.manager").attr("GetAnalysisMgr")();
    fInfoCache = ana_mgr.attr("fInfoCache");
    if (!nb::isinstance<CInfoCache>(fInfoCache))
        throw nb::type_error("_CPerFileInfo: the analysis manager's fInfoCache must be a CInfoCache");

    nb::object loc_cache = fInfoCache.attr("fLocCache");
    fPyiFile = IsTrue(loc_cache.attr("IsPyiLocation")(loc));

    nb::object analyzer = ana_mgr.attr(fPyiFile ? "fPyiLogicalAnalyzer" : "fLogicalAnalyzer");
    if (nb::isinstance<CPGenAnalyzer>(analyzer))
        fPGenAnalyzer = analyzer;
    else
        fAstAnalyzer = analyzer;

    // Stub files are always read with the Python 3 grammar.
    fPy3Grammar = fPyiFile ||
                  nb::int_(3).equal(loc_cache.attr("GetPythonMajorVersion")());

    fPrimaryScanName = ana_mgr.attr("fPrimaryScanName");
    fScopeBodyCache = ana_mgr.attr("fScopeBodyCache");
    fIncompleteScopeSet = nb::borrow(incomplete_scope_set);
}

nb::object CPerFileInfo_::GetAnalysis() {
    if (!_fAttemptedToGetAnalysis) {
        // A failed attempt isn't repeated: the flag goes up before the call.
        _fAttemptedToGetAnalysis = true;
        _fAnalysis = nb::module_::import_("pysource.utils").attr("GetAnalysisForLoc")(fLocation);
    }
    return _fAnalysis;
}

Py_ssize_t CPerFileInfo_::GetActiveEditLineno() {
    if (_fConnectedToActiveLinenoSignal)
        return _fActiveEditLineno;
    nb::object ana = GetAnalysis();
    if (ana.is_none())
        return -1;
    // Most scans never ask for the active line, so the signal is followed
    // only from the first question on.
    nb::object self = SelfObject();
    ana.attr("connect_while_alive")("active-edit-lineno-changed",
                                    self.attr("_CB_ActiveEditLinenoChanged"), self);
    _fActiveEditLineno = nb::cast<Py_ssize_t>(ana.attr("fActiveEditLineno"));
    _fConnectedToActiveLinenoSignal = true;
    return _fActiveEditLineno;
}

void CPerFileInfo_::CB_ActiveEditLinenoChanged_(nb::handle, Py_ssize_t lineno) {
    _fActiveEditLineno = lineno;
}

nb::object CPerFileInfo_::NameText(nb::handle name) {
    if (!PyBytes_Check(name.ptr()))
        return AsStr(name);
    std::string_view spelling(PyBytes_AS_STRING(name.ptr()), (size_t) PyBytes_GET_SIZE(name.ptr()));
    auto found = fNameTexts_.find(spelling);
    if (found != fNameTexts_.end())
        return found->second;
    nb::object text = AsStr(name);
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (!utf8)
        throw nb::python_error();
    fNameTexts_.emplace(std::string_view(utf8, (size_t) size), text);
    return text;
}

int CPerFileInfo_::TraverseFields(visitproc visit, void *arg) {
    Py_VISIT(fLocation.ptr());
    Py_VISIT(fInfoCache.ptr());
    Py_VISIT(fAstAnalyzer.ptr());
    Py_VISIT(fPGenAnalyzer.ptr());
    Py_VISIT(fPrimaryScanName.ptr());
    Py_VISIT(fScopeBodyCache.ptr());
    Py_VISIT(fSubScopeBody0.ptr());
    Py_VISIT(fScopeDefInfoParts.ptr());
    Py_VISIT(_fAnalysis.ptr());
    Py_VISIT(fMatchedDiskMTime.ptr());
    Py_VISIT(fEOLBlindChecksum.ptr());
    Py_VISIT(fIncompleteScopeSet.ptr());
    return 0;
}

void CPerFileInfo_::DropReferences() {
    // Only the fields that can lead back to this object: services and the
    // analysis (whose signal connection holds us).
    fInfoCache = nb::none();
    fAstAnalyzer = nb::none();
    fPGenAnalyzer = nb::none();
    fScopeBodyCache = nb::none();
    _fAnalysis = nb::none();
    fSubScopeBody0 = nb::dict();
    fScopeDefInfoParts = nb::dict();
}

}  // namespace pysource

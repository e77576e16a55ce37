// Bindings of the per-file scan context.
#pragma once

#include "bindutil.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/perfileinfo.h"

namespace scopescanner_bind {

using namespace pysource;

struct PyCPerFileInfo_ : CPerFileInfo_ {
    NB_TRAMPOLINE(CPerFileInfo_, 5);
    BASEKIT_DESTROYABLE_OVERRIDES(CPerFileInfo_)
    nb::object GetAnalysis() override { NB_OVERRIDE(GetAnalysis); }
    Py_ssize_t GetActiveEditLineno() override { NB_OVERRIDE(GetActiveEditLineno); }
    void CB_ActiveEditLinenoChanged_(nb::handle ana, Py_ssize_t lineno) override {
        NB_OVERRIDE_NAME("_CB_ActiveEditLinenoChanged", CB_ActiveEditLinenoChanged_, ana, lineno);
    }
};

inline void BindPerFileInfo(nb::module_ &m) {
    nb::class_<CPerFileInfo_, basekit::CDestroyable, PyCPerFileInfo_>(
        m, "_CPerFileInfo", bindutil::IntrusiveHolder<CPerFileInfo_>(),
        nb::type_slots(kDestroyableFieldSlots<CPerFileInfo_>))
        .def(nb::init<nb::handle, nb::handle>(), nb::arg("loc").none(),
             nb::arg("incomplete_scope_set").none() = nb::none())
        .def("GetAnalysis", &CPerFileInfo_::GetAnalysis)
        .def("GetActiveEditLineno", &CPerFileInfo_::GetActiveEditLineno)
        .def("_CB_ActiveEditLinenoChanged", &CPerFileInfo_::CB_ActiveEditLinenoChanged_,
             nb::arg("ana").none(), nb::arg("lineno"))
        .def_ro("fLocation", &CPerFileInfo_::fLocation)
        .def_ro("fInfoCache", &CPerFileInfo_::fInfoCache)
        .def_ro("fAstAnalyzer", &CPerFileInfo_::fAstAnalyzer)
        .def_ro("fPGenAnalyzer", &CPerFileInfo_::fPGenAnalyzer)
        .def_ro("fPrimaryScanName", &CPerFileInfo_::fPrimaryScanName)
        .def_ro("fScopeBodyCache", &CPerFileInfo_::fScopeBodyCache)
        .def_ro("fSubScopeBody0", &CPerFileInfo_::fSubScopeBody0)
        .def_ro("_fAnalysis", &CPerFileInfo_::_fAnalysis)
        .def_ro("_fAttemptedToGetAnalysis", &CPerFileInfo_::_fAttemptedToGetAnalysis)
        .def_ro("_fConnectedToActiveLinenoSignal", &CPerFileInfo_::_fConnectedToActiveLinenoSignal)
        .def_ro("_fActiveEditLineno", &CPerFileInfo_::_fActiveEditLineno)
        .def_prop_rw(
            "fMatchedDiskMTime", [](CPerFileInfo_ &self) { return self.fMatchedDiskMTime; },
            [](CPerFileInfo_ &self, nb::handle value) { self.fMatchedDiskMTime = nb::borrow(value); },
            nb::arg("value").none())
        .def_prop_rw(
            "fEOLBlindChecksum", [](CPerFileInfo_ &self) { return self.fEOLBlindChecksum; },
            [](CPerFileInfo_ &self, nb::handle value) { self.fEOLBlindChecksum = nb::borrow(value); },
            nb::arg("value").none())
        .def_ro("fIncompleteScopeSet", &CPerFileInfo_::fIncompleteScopeSet)
        .def_ro("fPyiFile", &CPerFileInfo_::fPyiFile)
        .def_ro("fPy3Grammar", &CPerFileInfo_::fPy3Grammar);
}

}  // namespace scopescanner_bind

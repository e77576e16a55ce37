#include "bindutil.h"
#include "gcslots.h"

#include "pysource/infer/inferencectx.h"

using pysource::infer::CInferContext;

struct PyCInferContext : CInferContext {
    NB_TRAMPOLINE(CInferContext, 10);
    void Done() override { NB_OVERRIDE(Done); }
    nb::object SubContext(nb::handle unused) override { NB_OVERRIDE(SubContext, unused); }
    void SetWholeExpr(nb::handle expr) override { NB_OVERRIDE(SetWholeExpr, expr); }
    void ClearIncomplete() override { NB_OVERRIDE(ClearIncomplete); }
    bool OutOfTime() override { NB_OVERRIDE(OutOfTime); }
    nb::object GetScopesSeen() override { NB_OVERRIDE(GetScopesSeen); }
    nb::object GetResolvedImports() override { NB_OVERRIDE(GetResolvedImports); }
    void AddScopeToScopesSeen(nb::handle scope) override { NB_OVERRIDE(AddScopeToScopesSeen, scope); }
    void MergeScopesSeen(nb::handle scopes) override { NB_OVERRIDE(MergeScopesSeen, scopes); }
    void MergeResolvedImports(nb::handle imports) override { NB_OVERRIDE(MergeResolvedImports, imports); }
};

NB_MODULE(inferencectx, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo"});
    m.doc() = "Resolution contexts of the inference engine";
    namespace infer = pysource::infer;

    nb::class_<CInferContext, PyCInferContext>(m, "CInferContext",
                                                 bindutil::IntrusiveHolder<CInferContext>(),
                                                 nb::type_slots(gcslots::kSlots<CInferContext>))
        .def(nb::init<nb::object, double, bool, nb::object>(), nb::arg("engine").none() = nb::none(),
             nb::arg("end_time") = INFINITY, nb::arg("for_scan") = false,
             nb::arg("parent").none() = nb::none())
        .def_rw("fIncomplete", &CInferContext::fIncomplete)
        .def_rw("fIncompleteReason", &CInferContext::fIncompleteReason, nb::arg("value").none())
        .def_rw("fNeedsScan", &CInferContext::fNeedsScan, nb::arg("value").none())
        .def_rw("fEngine", &CInferContext::fEngine, nb::arg("value").none())
        .def_rw("fParent", &CInferContext::fParent, nb::arg("value").none())
        .def_rw("fWholeExpr", &CInferContext::fWholeExpr, nb::arg("value").none())
        .def_rw("fEndTime", &CInferContext::fEndTime)
        .def_rw("fForScan", &CInferContext::fForScan)
        .def_ro("fDone", &CInferContext::fDone)
        .def_ro("fDepth", &CInferContext::fDepth)
        .def_rw("_CInferContext__fIsolated", &CInferContext::fIsolated)
        .def_rw("_CInferContext__fIsolationReasons", &CInferContext::fIsolationReasons,
                nb::arg("value").none())
        .def("Done", [](CInferContext &self) { self.CInferContext::Done(); })
        .def("SubContext", [](CInferContext &self, nb::handle unused) { return self.CInferContext::SubContext(unused); },
             nb::arg("unused").none() = nb::none())
        .def("SetWholeExpr", [](CInferContext &self, nb::handle expr) { self.CInferContext::SetWholeExpr(expr); },
             nb::arg("expr").none())
        .def("ClearIncomplete", [](CInferContext &self) { self.CInferContext::ClearIncomplete(); })
        .def("OutOfTime", [](CInferContext &self) { return self.CInferContext::OutOfTime(); })
        .def("GetScopesSeen", [](CInferContext &self) { return self.CInferContext::GetScopesSeen(); })
        .def("GetResolvedImports", [](CInferContext &self) { return self.CInferContext::GetResolvedImports(); })
        .def("AddScopeToScopesSeen", [](CInferContext &self, nb::handle s) { self.CInferContext::AddScopeToScopesSeen(s); },
             nb::arg("scope"))
        .def("MergeScopesSeen", [](CInferContext &self, nb::handle s) { self.CInferContext::MergeScopesSeen(s); },
             nb::arg("scopes").none())
        .def("MergeResolvedImports", [](CInferContext &self, nb::handle s) { self.CInferContext::MergeResolvedImports(s); },
             nb::arg("imports").none())
        .def("_CInferContext__Isolated", &CInferContext::Isolated_, nb::arg("reason").none())
        .def("SetIncomplete", [](CInferContext &self, const char *reason) { self.SetIncomplete(reason); },
             nb::arg("reason"))
        .def("AddNeedsScan", &CInferContext::AddNeedsScan, nb::arg("scope"), nb::arg("scan_name"))
        .def_prop_ro_static("kCannotScan", [](nb::handle) { return nb::str(infer::kCannotScanReason); })
        .def_prop_ro_static("kOutOfTime", [](nb::handle) { return nb::str(infer::kOutOfTimeReason); })
        .def_prop_ro_static("kCycle", [](nb::handle) { return nb::str(infer::kCycleReason); })
        .def_prop_ro_static("kDepthLimit", [](nb::handle) { return nb::str(infer::kDepthReason); });

    m.attr("kCannotScan") = infer::kCannotScanReason;
    m.attr("kOutOfTime") = infer::kOutOfTimeReason;
    m.attr("kCycle") = infer::kCycleReason;
    m.attr("kDepthLimit") = infer::kDepthReason;
    m.attr("kLogIndent") = infer::kLogIndent;
    m.attr("kMaxTriplesToLookFor") = infer::kMaxTriplesToLookFor;
    m.attr("kMaxInferenceTime") = infer::kMaxInferenceTime;
    m.attr("_gUnusedInferContextImpl") = nb::none();
}

#include "bindutil.h"
#include "gcslots.h"

#include <nanobind/stl/string.h>

#include "pysource/infer/inferenceengine.h"
#include "pysource/infer/modulefinder.h"

using pysource::infer::CInferenceEngine;
using pysource::infer::CModuleFinder;
using pysource::infer::CResolveResult;
using pysource::infer::CSimpleConditionEvaluator;

struct PyCInferenceEngine : CInferenceEngine {
    NB_TRAMPOLINE(CInferenceEngine, 5);
    nb::object NewContext(nb::handle end_time, bool for_scan) override {
        NB_OVERRIDE(NewContext, end_time, for_scan);
    }
    nb::object ResolveToResult(nb::handle expr, nb::handle ctx) override {
        NB_OVERRIDE(ResolveToResult, expr, ctx);
    }
    nb::object ReduceResolved(nb::handle resolved, bool a, bool b, nb::handle ctx) override {
        NB_OVERRIDE(ReduceResolved, resolved, a, b, ctx);
    }
    nb::object ResolveHint(nb::handle expr, nb::handle ctx) override { NB_OVERRIDE(ResolveHint, expr, ctx); }
    nb::object SingleResolvedIter(nb::handle ibytes, nb::handle for_scope, nb::handle ctx) override {
        NB_OVERRIDE(SingleResolvedIter, ibytes, for_scope, ctx);
    }
};

struct PyCModuleFinder : CModuleFinder {
    NB_TRAMPOLINE(CModuleFinder, 3);
    nb::object FindModule(nb::handle name, nb::handle from_loc) override {
        NB_OVERRIDE(FindModule, name, from_loc);
    }
    nb::object FindRelativeModule(std::ptrdiff_t level, nb::handle name, nb::handle from_loc) override {
        NB_OVERRIDE(FindRelativeModule, level, name, from_loc);
    }
    nb::object ModuleNameOf(nb::handle loc) override { NB_OVERRIDE(ModuleNameOf, loc); }
};

struct PyCSimpleConditionEvaluator : CSimpleConditionEvaluator {
    NB_TRAMPOLINE(CSimpleConditionEvaluator, 1);
    nb::object Evaluate(nb::handle condition) override { NB_OVERRIDE(Evaluate, condition); }
};

NB_MODULE(inferenceengine, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo", "pysource.inferencectx",
                                  "pysource.inferreddetails", "pysource.infercalls",
                                  "pysource.infertyping", "pysource.inferenceiterators",
                                  "pysource.canonicalize"});
    m.doc() = "The inference engine: what an expression can be, from the records alone";

    nb::class_<CResolveResult>(m, "CResolveResult", bindutil::IntrusiveHolder<CResolveResult>())
        .def(nb::init<nb::object>(), nb::arg("resolved"))
        .def_rw("resolved", &CResolveResult::resolved);

    nb::class_<CInferenceEngine, PyCInferenceEngine>(
        m, "CInferenceEngine", bindutil::IntrusiveHolder<CInferenceEngine>(),
        nb::type_slots(gcslots::kSlots<CInferenceEngine>))
        .def(nb::init<nb::object, nb::object, nb::object>(), nb::arg("info_cache"),
             nb::arg("module_finder").none() = nb::none(),
             nb::arg("condition_evaluator").none() = nb::none())
        .def_rw("fInfoCache", &CInferenceEngine::fInfoCache)
        .def_rw("_fLocCache", &CInferenceEngine::_fLocCache)
        .def_rw("_fTypingGenericSupport", &CInferenceEngine::_fTypingGenericSupport)
        .def_rw("_fDetailsStore", &CInferenceEngine::_fDetailsStore)
        .def_rw("_fCallableSupport", &CInferenceEngine::_fCallableSupport)
        .def_rw("fModuleFinder", &CInferenceEngine::fModuleFinder)
        .def_rw("fConditionEvaluator", &CInferenceEngine::fConditionEvaluator)
        .def_rw("fFlowProvider", &CInferenceEngine::fFlowProvider, nb::arg("value").none())
        .def_rw("fPrimaryScanName", &CInferenceEngine::fPrimaryScanName)
        .def_rw("fMaxDepth", &CInferenceEngine::fMaxDepth)
        .def_rw("fMaxArgHops", &CInferenceEngine::fMaxArgHops)
        .def_rw("fMaxValues", &CInferenceEngine::fMaxValues)
        .def("NewContext",
             [](CInferenceEngine &self, nb::handle end_time, bool for_scan) {
                 return self.CInferenceEngine::NewContext(end_time, for_scan);
             },
             nb::arg("end_time").none() = nb::none(), nb::arg("for_scan") = false)
        .def("ResolveToResult",
             [](CInferenceEngine &self, nb::handle expr, nb::handle ctx) {
                 return self.CInferenceEngine::ResolveToResult(expr, ctx);
             },
             nb::arg("expr"), nb::arg("ctx").none() = nb::none())
        .def("ReduceResolved",
             [](CInferenceEngine &self, nb::handle resolved, bool a, bool b, nb::handle ctx) {
                 return self.CInferenceEngine::ReduceResolved(resolved, a, b, ctx);
             },
             nb::arg("resolved"), nb::arg("keep_literal_values") = false,
             nb::arg("keep_class_refs") = false, nb::arg("ctx").none() = nb::none())
        .def("ResolveHint",
             [](CInferenceEngine &self, nb::handle expr, nb::handle ctx) {
                 return self.CInferenceEngine::ResolveHint(expr, ctx);
             },
             nb::arg("expr"), nb::arg("ctx").none() = nb::none())
        .def("SingleResolvedIter",
             [](CInferenceEngine &self, nb::handle ibytes, nb::handle for_scope, nb::handle ctx) {
                 return self.CInferenceEngine::SingleResolvedIter(ibytes, for_scope, ctx);
             },
             nb::arg("ibytes"), nb::arg("for_scope"), nb::arg("ctx").none() = nb::none())
        .def("_OrderedTypeVars", &CInferenceEngine::OrderedTypeVars_, nb::arg("class_single"),
             nb::arg("ctx").none() = nb::none())
        .def("ForgetKeptAnswers", &CInferenceEngine::ForgetKeptAnswers)
        .def("KeptCounts", &CInferenceEngine::KeptCounts)
        .def("_SpecialFormName", &CInferenceEngine::SpecialFormName, nb::arg("expr"),
             nb::arg("ctx").none() = nb::none());

    nb::class_<CModuleFinder, PyCModuleFinder>(m, "CModuleFinder",
                                                bindutil::IntrusiveHolder<CModuleFinder>())
        .def(nb::init<nb::handle, nb::handle, nb::handle>(), nb::arg("roots").none() = nb::none(),
             nb::arg("stub_dirs").none() = nb::none(), nb::arg("library_dirs").none() = nb::none())
        .def("FindModule",
             [](CModuleFinder &self, nb::handle name, nb::handle from_loc) {
                 return self.CModuleFinder::FindModule(name, from_loc);
             },
             nb::arg("dotted_name"), nb::arg("from_loc").none() = nb::none())
        .def("FindRelativeModule",
             [](CModuleFinder &self, std::ptrdiff_t level, nb::handle name, nb::handle from_loc) {
                 return self.CModuleFinder::FindRelativeModule(level, name, from_loc);
             },
             nb::arg("level"), nb::arg("dotted_name"), nb::arg("from_loc"))
        .def("ModuleNameOf",
             [](CModuleFinder &self, nb::handle loc) { return self.CModuleFinder::ModuleNameOf(loc); },
             nb::arg("loc"))
        .def("AddRoot", &CModuleFinder::AddRoot, nb::arg("dir"))
        .def("NoteFile", &CModuleFinder::NoteFile, nb::arg("loc"))
        .def_static("PackageRootOf", &CModuleFinder::PackageRootOf, nb::arg("path"))
        .def_prop_ro("fRoots", &CModuleFinder::Roots)
        .def_prop_ro("fStubDirs", &CModuleFinder::StubDirs)
        .def_prop_ro("fLibraryDirs", &CModuleFinder::LibraryDirs);

    nb::class_<CSimpleConditionEvaluator, PyCSimpleConditionEvaluator>(
        m, "CSimpleConditionEvaluator", bindutil::IntrusiveHolder<CSimpleConditionEvaluator>())
        .def(nb::init<nb::handle, nb::handle>(), nb::arg("version").none() = nb::none(),
             nb::arg("platform").none() = nb::none())
        .def("Evaluate",
             [](CSimpleConditionEvaluator &self, nb::handle c) { return self.CSimpleConditionEvaluator::Evaluate(c); },
             nb::arg("condition"))
        .def_ro("fVersion", &CSimpleConditionEvaluator::fVersion)
        .def_ro("fPlatform", &CSimpleConditionEvaluator::fPlatform);
}

// Bindings of the secondary scanners and their shared objects.
#pragma once

#include "bindutil.h"
#include "gcslots.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/secondaryscanner.h"

namespace scopescanner_bind {

using namespace pysource;

// An override whose Python result is judged by its truth value.
#define SECONDARY_OVERRIDE_TRUTH(name, func, ...)                                   \
    constexpr uint64_t nb_hash = nanobind::detail::str_hash(name);                  \
    nanobind::detail::ticket nb_ticket(nb_trampoline, name, nb_hash, false);        \
    if (nb_ticket.key.is_valid())                                                   \
        return IsTrue(nb_trampoline.base().attr(nb_ticket.key)(__VA_ARGS__));       \
    return NBBase::func(__VA_ARGS__)

#define SECONDARY_PRIVATE(name) "_CSingleScopeSecondaryScanner__" name

struct PyCSingleScopeSecondaryScanner : CSingleScopeSecondaryScanner {
    NB_TRAMPOLINE(CSingleScopeSecondaryScanner, 36);
    BASEKIT_DESTROYABLE_OVERRIDES(CSingleScopeSecondaryScanner)
    using H = nb::handle;
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
    void SetScanState_(nb::ref<CNamedConstant> state) override {
        NB_OVERRIDE_NAME("_SetScanState", SetScanState_, state);
    }
    bool DependsOnLocs(H locs, H skip_loc) override {
        SECONDARY_OVERRIDE_TRUTH("DependsOnLocs", DependsOnLocs, locs, skip_loc);
    }
    void ExpandInfoPairList(H item_list) override { NB_OVERRIDE(ExpandInfoPairList, item_list); }
    bool AddDerivedFor_(H loc) override {
        SECONDARY_OVERRIDE_TRUTH("_AddDerivedFor", AddDerivedFor_, loc);
    }
    nb::object ProcessCalledResolved_(H resolved, bool specialize, H ctx) override {
        NB_OVERRIDE_NAME("_ProcessCalledResolved", ProcessCalledResolved_, resolved, specialize, ctx);
    }
    nb::object GuardTypesForResolved_(H resolved, H ctx) override {
        NB_OVERRIDE_NAME("_GuardTypesForResolved", GuardTypesForResolved_, resolved, ctx);
    }
    nb::object DerivedEntryForDef_(H def_scope, H hinted, bool bound, H ctx) override {
        NB_OVERRIDE_NAME("_DerivedEntryForDef", DerivedEntryForDef_, def_scope, hinted, bound, ctx);
    }
    nb::object DerivedInfo_(H term, H ctx) override {
        NB_OVERRIDE_NAME(SECONDARY_PRIVATE("DerivedInfo"), DerivedInfo_, term, ctx);
    }
    bool ScanForSetAttr_(H name, H set_ibytes, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_ScanForSetAttr", ScanForSetAttr_, name, set_ibytes, ctx);
    }
    void AddDerivedInfoForName_(H derived, bool inst, H name, H ibytes) override {
        NB_OVERRIDE_NAME("_AddDerivedInfoForName", AddDerivedInfoForName_, derived, inst, name, ibytes);
    }
    nb::object ResolveInThisScope_(H expr_text, bool reduce, H ctx) override {
        NB_OVERRIDE_NAME("_ResolveInThisScope", ResolveInThisScope_, expr_text, reduce, ctx);
    }
    bool ScanSubscriptTarget_(H name, H ibytes, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_ScanSubscriptTarget", ScanSubscriptTarget_, name, ibytes, ctx);
    }
    bool MethodWithTypeVariable_(H single, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_MethodWithTypeVariable", MethodWithTypeVariable_, single, ctx);
    }
    nb::object GetInfoBytesForResolvedArgText_(H arg_text, H ctx) override {
        NB_OVERRIDE_NAME("_GetInfoBytesForResolvedArgText", GetInfoBytesForResolvedArgText_,
                         arg_text, ctx);
    }
    nb::object GetInfoBytesForReducedResolved_(H resolved) override {
        NB_OVERRIDE_NAME("_GetInfoBytesForReducedResolved", GetInfoBytesForReducedResolved_,
                         resolved);
    }
    nb::list GetArgInfoBytesList_(H called_ibytes, H ctx, H skip) override {
        NB_OVERRIDE_NAME("_GetArgInfoBytesList", GetArgInfoBytesList_, called_ibytes, ctx, skip);
    }
    void AddInfoForUsedArgs_(H derived_list, H arg_list, H ctx) override {
        NB_OVERRIDE_NAME("_AddInfoForUsedArgs", AddInfoForUsedArgs_, derived_list, arg_list, ctx);
    }
    bool ScanCalledName_(H name, H called_ibytes, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_ScanCalledName", ScanCalledName_, name, called_ibytes, ctx);
    }
    void AddGuardNarrowing_(H called_ibytes, H guard_ibytes, H ctx) override {
        NB_OVERRIDE_NAME("_AddGuardNarrowing", AddGuardNarrowing_, called_ibytes, guard_ibytes, ctx);
    }
    bool IsPlainDottedName_(H text) override {
        SECONDARY_OVERRIDE_TRUTH("_IsPlainDottedName", IsPlainDottedName_, text);
    }
    bool IsPlainDottedNameParts_(H parts) override {
        SECONDARY_OVERRIDE_TRUTH("_IsPlainDottedNameParts", IsPlainDottedNameParts_, parts);
    }
    nb::list GetTypevarMethodList_(H resolved, H ctx) override {
        NB_OVERRIDE_NAME("_GetTypevarMethodList", GetTypevarMethodList_, resolved, ctx);
    }
    bool AddInfoForSpecializedGenerics_(H name, H callables, H arg_list, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_AddInfoForSpecializedGenerics", AddInfoForSpecializedGenerics_,
                                 name, callables, arg_list, ctx);
    }
    bool ProcessSingleCalledTypevarMethod_(H obj_name, H details, H method, H arg_list,
                                           H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_ProcessSingleCalledTypevarMethod",
                                 ProcessSingleCalledTypevarMethod_, obj_name, details, method,
                                 arg_list, ctx);
    }
    bool OneArgMatches_(H callable, H arg_def, H value_resolved, H ctx) override {
        SECONDARY_OVERRIDE_TRUTH("_OneArgMatches", OneArgMatches_, callable, arg_def,
                                 value_resolved, ctx);
    }
    nb::object GetHintFromResolved_(H resolved) override {
        NB_OVERRIDE_NAME("_GetHintFromResolved", GetHintFromResolved_, resolved);
    }
    nb::object PrefixInfoBytes_(H ibytes, H derived) override {
        NB_OVERRIDE_NAME("_PrefixInfoBytes", PrefixInfoBytes_, ibytes, derived);
    }
    void AddInfoForGlobal_(H name, H ctx) override {
        NB_OVERRIDE_NAME("_AddInfoForGlobal", AddInfoForGlobal_, name, ctx);
    }
    void AddInfoForNonlocal_(H name, H ctx) override {
        NB_OVERRIDE_NAME("_AddInfoForNonlocal", AddInfoForNonlocal_, name, ctx);
    }
    nb::object PrimaryScansNeeded_(H ctx) override {
        NB_OVERRIDE_NAME("_PrimaryScansNeeded", PrimaryScansNeeded_, ctx);
    }
    nb::object GetNeedsScanLocs() override { NB_OVERRIDE(GetNeedsScanLocs); }
    void SaveDerivedInfoDict_() override {
        NB_OVERRIDE_NAME("_SaveDerivedInfoDict", SaveDerivedInfoDict_);
    }
};

struct PyCWholeFileSecondaryScanner : CWholeFileSecondaryScanner {
    NB_TRAMPOLINE(CWholeFileSecondaryScanner, 8);
    BASEKIT_DESTROYABLE_OVERRIDES(CWholeFileSecondaryScanner)
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
    void SetScanState_(nb::ref<CNamedConstant> state) override {
        NB_OVERRIDE_NAME("_SetScanState", SetScanState_, state);
    }
    bool DependsOnLocs(nb::handle locs, nb::handle skip_loc) override {
        SECONDARY_OVERRIDE_TRUTH("DependsOnLocs", DependsOnLocs, locs, skip_loc);
    }
    nb::object GetNeedsScanLocs() override { NB_OVERRIDE(GetNeedsScanLocs); }
    nb::ref<CNamedConstant> ScanOneScope_(nb::handle scope_name, double end_time) override {
        NB_OVERRIDE_NAME("_CWholeFileSecondaryScanner__ScanOneScope", ScanOneScope_, scope_name,
                         end_time);
    }
    nb::object FilterNeedsScan(nb::handle needs_scan) override {
        NB_OVERRIDE(FilterNeedsScan, needs_scan);
    }
};

#undef SECONDARY_OVERRIDE_TRUTH

// An argument that may be None.
inline auto Opt(const char *name) { return nb::arg(name).none(); }

inline void BindSharedObjects(nb::module_ &m) {
    using O = CSharedObjectsForSecondaryScanners_;
    nb::class_<O>(m, "_CSharedObjectsForSecondaryScanners", bindutil::IntrusiveHolder<O>(),
                  nb::type_slots(gcslots::kSlots<O>))
        .def(nb::init<nb::handle>(), Opt("ana_mgr") = nb::none())
        .def_ro("fAnalysisMgr", &O::fAnalysisMgr)
        .def_ro("fInfoCache", &O::fInfoCache)
        .def_ro("fInferenceEngine", &O::fInferenceEngine)
        .def_ro("fTypingSupport", &O::fTypingSupport)
        .def_ro("fDetailsStore", &O::fDetailsStore)
        .def_ro("fLocCache", &O::fLocCache)
        .def_ro("fScanFunctionCalls", &O::fScanFunctionCalls)
        .def_ro("fDerivedScanName", &O::fDerivedScanName);
}

inline void BindSingleScopeSecondaryScanner(nb::module_ &m) {
    using S = CSingleScopeSecondaryScanner;
    using H = nb::handle;
    nb::class_<S, CScannerBase_, PyCSingleScopeSecondaryScanner>(
        m, "CSingleScopeSecondaryScanner", bindutil::IntrusiveHolder<S>(),
        nb::type_slots(kDestroyableFieldSlots<S>))
        .def(nb::init<H, H, H, H, bool>(), nb::arg("primary_info"), Opt("log") = nb::none(),
             Opt("shared_objects") = nb::none(), Opt("ana_mgr") = nb::none(),
             nb::arg("scanning_whole_file") = false)
        .def("Scan", [](S &s, double end_time) { return s.S::Scan(end_time); }, nb::arg("end_time"))
        .def("DependsOnLocs", [](S &s, H locs, H skip) { return s.S::DependsOnLocs(locs, skip); },
             nb::arg("locs"), Opt("skip_loc") = nb::none())
        .def("ExpandInfoPairList", [](S &s, H items) { s.S::ExpandInfoPairList(items); },
             nb::arg("item_list"))
        .def("_AddDerivedFor", [](S &s, H loc) { return s.S::AddDerivedFor_(loc); }, Opt("loc"))
        .def("_ProcessCalledResolved",
             [](S &s, H resolved, bool specialize, H ctx) {
                 return s.S::ProcessCalledResolved_(resolved, specialize, ctx);
             },
             nb::arg("resolved"), nb::arg("specialize_generics"), Opt("ctx"))
        .def("_GuardTypesForResolved",
             [](S &s, H resolved, H ctx) { return s.S::GuardTypesForResolved_(resolved, ctx); },
             nb::arg("resolved"), Opt("ctx"))
        .def("_DerivedEntryForDef",
             [](S &s, H def_scope, H hinted, bool bound, H ctx) {
                 return s.S::DerivedEntryForDef_(def_scope, hinted, bound, ctx);
             },
             nb::arg("def_scope"), Opt("hinted"), nb::arg("bound"), Opt("ctx"))
        .def(SECONDARY_PRIVATE("DerivedInfo"),
             [](S &s, H term, H ctx) { return s.S::DerivedInfo_(term, ctx); },
             nb::arg("for_scope_term"), Opt("ctx"))
        .def("_ScanForSetAttr",
             [](S &s, H name, H ibytes, H ctx) { return s.S::ScanForSetAttr_(name, ibytes, ctx); },
             nb::arg("name"), Opt("set_ibytes"), Opt("parent_ctx"))
        .def("_AddDerivedInfoForName",
             [](S &s, H derived, bool inst, H name, H ibytes) {
                 s.S::AddDerivedInfoForName_(derived, inst, name, ibytes);
             },
             nb::arg("derived"), nb::arg("inst"), Opt("name"), Opt("ibytes"))
        .def("_ResolveInThisScope",
             [](S &s, H text, bool reduce, H ctx) { return s.S::ResolveInThisScope_(text, reduce, ctx); },
             nb::arg("expr_text"), nb::arg("reduce_resolved"), Opt("ctx"))
        .def("_ScanSubscriptTarget",
             [](S &s, H name, H ibytes, H ctx) { return s.S::ScanSubscriptTarget_(name, ibytes, ctx); },
             nb::arg("name"), Opt("compound_ibytes"), Opt("parent_ctx"))
        .def("_MethodWithTypeVariable",
             [](S &s, H single, H ctx) { return s.S::MethodWithTypeVariable_(single, ctx); },
             nb::arg("single_method"), Opt("ctx"))
        .def("_GetInfoBytesForResolvedArgText",
             [](S &s, H text, H ctx) { return s.S::GetInfoBytesForResolvedArgText_(text, ctx); },
             nb::arg("arg_text"), Opt("ctx"))
        .def("_GetInfoBytesForReducedResolved",
             [](S &s, H resolved) { return s.S::GetInfoBytesForReducedResolved_(resolved); },
             nb::arg("resolved"))
        .def("_GetArgInfoBytesList",
             [](S &s, H called, H ctx, H skip) { return s.S::GetArgInfoBytesList_(called, ctx, skip); },
             nb::arg("called_ibytes"), Opt("ctx"), Opt("skip_indexes") = nb::none())
        .def("_AddInfoForUsedArgs",
             [](S &s, H derived_list, H arg_list, H ctx) {
                 s.S::AddInfoForUsedArgs_(derived_list, arg_list, ctx);
             },
             nb::arg("derived_list"), nb::arg("arg_ibytes_list"), Opt("ctx"))
        .def("_ScanCalledName",
             [](S &s, H name, H called, H ctx) { return s.S::ScanCalledName_(name, called, ctx); },
             nb::arg("name"), nb::arg("called_ibytes"), Opt("parent_ctx"))
        .def("_AddGuardNarrowing",
             [](S &s, H called, H guard, H ctx) { s.S::AddGuardNarrowing_(called, guard, ctx); },
             nb::arg("called_ibytes"), nb::arg("guard_ibytes"), Opt("ctx"))
        .def("_IsPlainDottedName", [](S &s, H text) { return s.S::IsPlainDottedName_(text); },
             nb::arg("text"))
        .def("_IsPlainDottedNameParts",
             [](S &s, H parts) { return s.S::IsPlainDottedNameParts_(parts); }, nb::arg("parts"))
        .def("_GetTypevarMethodList",
             [](S &s, H resolved, H ctx) { return s.S::GetTypevarMethodList_(resolved, ctx); },
             nb::arg("resolved"), Opt("ctx"))
        .def("_AddInfoForSpecializedGenerics",
             [](S &s, H name, H callables, H arg_list, H ctx) {
                 return s.S::AddInfoForSpecializedGenerics_(name, callables, arg_list, ctx);
             },
             nb::arg("name"), nb::arg("callable_resolved"), nb::arg("arg_ibytes_list"), Opt("ctx"))
        .def("_ProcessSingleCalledTypevarMethod",
             [](S &s, H obj_name, H details, H method, H arg_list, H ctx) {
                 return s.S::ProcessSingleCalledTypevarMethod_(obj_name, details, method, arg_list, ctx);
             },
             nb::arg("obj_name"), Opt("obj_cls_details"), nb::arg("single_method"),
             nb::arg("arg_ibytes_list"), Opt("ctx"))
        .def("_OneArgMatches",
             [](S &s, H callable, H arg_def, H values, H ctx) {
                 return s.S::OneArgMatches_(callable, arg_def, values, ctx);
             },
             nb::arg("callable_single"), nb::arg("arg_def"), Opt("value_resolved"), Opt("ctx"))
        .def("_GetHintFromResolved", [](S &s, H resolved) { return s.S::GetHintFromResolved_(resolved); },
             nb::arg("resolved"))
        .def("_PrefixInfoBytes", [](S &s, H ibytes, H derived) { return s.S::PrefixInfoBytes_(ibytes, derived); },
             nb::arg("ibytes"), nb::arg("derived"))
        .def("_AddInfoForGlobal", [](S &s, H name, H ctx) { s.S::AddInfoForGlobal_(name, ctx); },
             nb::arg("name"), Opt("ctx"))
        .def("_AddInfoForNonlocal", [](S &s, H name, H ctx) { s.S::AddInfoForNonlocal_(name, ctx); },
             nb::arg("name"), Opt("ctx"))
        .def("_PrimaryScansNeeded", [](S &s, H ctx) { return s.S::PrimaryScansNeeded_(ctx); },
             Opt("ctx"))
        .def("GetNeedsScanLocs", [](S &s) { return s.S::GetNeedsScanLocs(); })
        .def("_SaveDerivedInfoDict", [](S &s) { s.S::SaveDerivedInfoDict_(); })
        .def_prop_ro("fPrimaryInfo", [](S &s) { return s.fPrimaryInfo; })
        .def_ro("fDerivedInfoDict", &S::fDerivedInfoDict)
        .def_ro("fPossibleNamedTupleClasses", &S::fPossibleNamedTupleClasses)
        .def_rw("_fItemsToScan", &S::_fItemsToScan)
        .def_rw("_fInterruptedItem", &S::_fInterruptedItem, Opt("value"))
        .def_rw("_fCalledMemo", &S::_fCalledMemo)
        .def_rw("_fFinalTry", &S::_fFinalTry)
        .def_rw("_fInterruptedNeedsScan", &S::_fInterruptedNeedsScan)
        .def_rw("_fNeedsScanLocs", &S::_fNeedsScanLocs)
        .def_rw("_fCompletedNeedsScan", &S::_fCompletedNeedsScan)
        .def_prop_ro("_fSharedObjects", [](S &s) { return s._fSharedObjects; })
        .def_ro("_fScanningWholeFile", &S::_fScanningWholeFile);
}

inline void BindWholeFileSecondaryScanner(nb::module_ &m) {
    using W = CWholeFileSecondaryScanner;
    using H = nb::handle;
    nb::class_<W, CScannerBase_, PyCWholeFileSecondaryScanner>(
        m, "CWholeFileSecondaryScanner", bindutil::IntrusiveHolder<W>(),
        nb::type_slots(kDestroyableFieldSlots<W>))
        .def(nb::init<H, H, H>(), nb::arg("loc"), nb::arg("scan_name"), Opt("log"))
        .def("Scan", [](W &w, double end_time) { return w.W::Scan(end_time); }, nb::arg("end_time"))
        .def("DependsOnLocs", [](W &w, H locs, H skip) { return w.W::DependsOnLocs(locs, skip); },
             nb::arg("locs"), Opt("skip_loc") = nb::none())
        .def("GetNeedsScanLocs", [](W &w) { return w.W::GetNeedsScanLocs(); })
        .def("_CWholeFileSecondaryScanner__ScanOneScope",
             [](W &w, H name, double end_time) { return w.W::ScanOneScope_(name, end_time); },
             nb::arg("scope_name"), nb::arg("end_time"))
        .def("FilterNeedsScan", [](W &w, H needs_scan) { return w.W::FilterNeedsScan(needs_scan); },
             nb::arg("needs_scan"))
        .def_prop_ro("_fActiveScopeScanner",
                     [](W &w) {
                         return w._fActiveScopeScanner ? nb::cast(w._fActiveScopeScanner) : nb::none();
                     })
        .def_ro("fToScan", &W::fToScan)
        .def_ro("fToScanSet", &W::fToScanSet)
        .def_ro("fScanCompletedCount", &W::fScanCompletedCount)
        .def_prop_ro("_fSharedObjects", [](W &w) { return w._fSharedObjects; })
        .def_ro("fDiskMTime", &W::fDiskMTime)
        .def_rw("fIncompleteCount", &W::fIncompleteCount);
}

#undef SECONDARY_PRIVATE

inline void BindSecondaryScanner(nb::module_ &m) {
    BindSharedObjects(m);
    BindSingleScopeSecondaryScanner(m);
    BindWholeFileSecondaryScanner(m);
    m.def("_FullyHintedArgIndexes", &FullyHintedArgIndexes_, nb::arg("derived_list"));
}

}  // namespace scopescanner_bind

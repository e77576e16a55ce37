// Bindings of the primary scanners and CreateClassInstInfo.
#pragma once

#include "bindutil.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/primaryscanner.h"

namespace scopescanner_bind {

using namespace pysource;

// The steps of the scans that a Python subclass may override, under their
// Python names.  An instance of the class itself finds no override and runs
// the C++ step directly.
struct PyCSingleScopePrimaryScanner : CSingleScopePrimaryScanner {
    NB_TRAMPOLINE(CSingleScopePrimaryScanner, 16);
    BASEKIT_DESTROYABLE_OVERRIDES(CSingleScopePrimaryScanner)
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
    void SetScanState_(nb::ref<CNamedConstant> state) override {
        NB_OVERRIDE_NAME("_SetScanState", SetScanState_, state);
    }
    nb::object SaveToInfoCache(bool can_write) override { NB_OVERRIDE(SaveToInfoCache, can_write); }
    bool GetAnalysis_(double end_time) override {
        NB_OVERRIDE_NAME("_CSingleScopePrimaryScanner__GetAnalysis", GetAnalysis_, end_time);
    }
    bool GetScopeDef_(double end_time) override {
        NB_OVERRIDE_NAME("_CSingleScopePrimaryScanner__GetScopeDef", GetScopeDef_, end_time);
    }
    bool ScanDefiningScopeDef_(double end_time) override {
        NB_OVERRIDE_NAME("_CSingleScopePrimaryScanner__ScanDefiningScopeDef",
                         ScanDefiningScopeDef_, end_time);
    }
    bool ScanBodyLogicals_(double end_time) override {
        NB_OVERRIDE_NAME("_CSingleScopePrimaryScanner__ScanBodyLogicals", ScanBodyLogicals_,
                         end_time);
    }
    void ProcessSingleInfoStr_(nb::handle name, nb::handle istr,
                               nb::handle logical_i_bytes) override {
        NB_OVERRIDE_NAME("_CSingleScopePrimaryScanner__ProcessSingleInfoStr",
                         ProcessSingleInfoStr_, name, istr, logical_i_bytes);
    }
    void TryAnalyzeSingleLogical_(nb::handle logical) override {
        NB_OVERRIDE_NAME("_TryAnalyzeSingleLogical", TryAnalyzeSingleLogical_, logical);
    }
    void UpdateSimpleConditional_(nb::handle logical) override {
        NB_OVERRIDE_NAME("_UpdateSimpleConditional", UpdateSimpleConditional_, logical);
    }
    nb::object GetInstAttribName_(nb::handle name) override {
        NB_OVERRIDE_NAME("_GetInstAttribName", GetInstAttribName_, name);
    }
    void AddToFirstDict_(nb::handle name, nb::handle first_dict) override {
        NB_OVERRIDE_NAME("_AddToFirstDict", AddToFirstDict_, name, first_dict);
    }
    nb::object FindDecoratorDottedName_(nb::handle logical) override {
        NB_OVERRIDE_NAME("_FindDecoratorDottedName", FindDecoratorDottedName_, logical);
    }
};

struct PyCWholeFilePrimaryScanner : CWholeFilePrimaryScanner {
    NB_TRAMPOLINE(CWholeFilePrimaryScanner, 10);
    nb::ref<CNamedConstant> PrepareLogicalList_(double end_time) override {
        NB_OVERRIDE_NAME("_CWholeFilePrimaryScanner__PrepareLogicalList", PrepareLogicalList_,
                         end_time);
    }
    nb::object GetLogicalCache_() override {
        NB_OVERRIDE_NAME("_CWholeFilePrimaryScanner__GetLogicalCache", GetLogicalCache_);
    }
    bool ScanCompletedScopes_(double end_time) override {
        NB_OVERRIDE_NAME("_ScanCompletedScopes", ScanCompletedScopes_, end_time);
    }
    // Written out: the item goes to Python as the shared object it is.
    bool ScanSingleStackItem_(CScopeStackItem_ &item, double end_time) override {
        constexpr uint64_t hash = nb::detail::str_hash("_ScanSingleStackItem");
        nb::detail::ticket ticket(nb_trampoline, "_ScanSingleStackItem", hash, false);
        if (ticket.key.is_valid())
            return nb::cast<bool>(nb_trampoline.base().attr(ticket.key)(
                nb::ref<CScopeStackItem_>(&item), end_time));
        return CWholeFilePrimaryScanner::ScanSingleStackItem_(item, end_time);
    }
    BASEKIT_DESTROYABLE_OVERRIDES(CWholeFilePrimaryScanner)
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
    void SetScanState_(nb::ref<CNamedConstant> state) override {
        NB_OVERRIDE_NAME("_SetScanState", SetScanState_, state);
    }
    void AbandonScan() override { NB_OVERRIDE(AbandonScan); }
};

inline nb::object InfoOrNone(const nb::ref<CScopeInfo> &info) {
    return info ? nb::cast(info) : nb::none();
}

inline void BindPrimaryScanner(nb::module_ &m) {
    using S = CSingleScopePrimaryScanner;
    nb::class_<S, CScannerBase_, PyCSingleScopePrimaryScanner>(
        m, "CSingleScopePrimaryScanner", bindutil::IntrusiveHolder<S>(),
        nb::type_slots(kDestroyableFieldSlots<S>))
        .def(nb::init<nb::handle, nb::handle, nb::handle, nb::handle, nb::handle, nb::handle>(),
             nb::arg("scope"), nb::arg("ana").none() = kNoValue_.get(),
             nb::arg("per_file_info").none() = nb::none(),
             nb::arg("stack_item").none() = nb::none(), nb::kw_only(),
             nb::arg("incomplete_scope_set").none() = nb::none(),
             nb::arg("log").none() = nb::none())
        .def("Scan", &S::Scan, nb::arg("end_time"))
        .def("_CB_LogicalCacheModified", &S::CB_LogicalCacheModified_,
             nb::arg("logical_cache"), nb::arg("delta").none())
        .def("_FindDecoratorLogicals", &S::FindDecoratorLogicals_)
        .def("_GetBody", &S::GetBody_, nb::arg("end_time"))
        .def("_GetBodyOfNamedScope", &S::GetBodyOfNamedScope_, nb::arg("scope"))
        .def("_GetInstAttribName",
             [](S &self, nb::handle name) { return self.S::GetInstAttribName_(name); },
             nb::arg("name"))
        .def("_TryAnalyzeSingleLogical",
             [](S &self, nb::handle logical) { self.S::TryAnalyzeSingleLogical_(logical); },
             nb::arg("logical"))
        .def("_UpdateSimpleConditional",
             [](S &self, nb::handle logical) { self.S::UpdateSimpleConditional_(logical); },
             nb::arg("logical"))
        .def("_CSingleScopePrimaryScanner__GetAnalysis",
             [](S &self, double end_time) { return self.S::GetAnalysis_(end_time); },
             nb::arg("end_time"))
        .def("_CSingleScopePrimaryScanner__GetScopeDef",
             [](S &self, double end_time) { return self.S::GetScopeDef_(end_time); },
             nb::arg("end_time"))
        .def("_CSingleScopePrimaryScanner__ScanDefiningScopeDef",
             [](S &self, double end_time) { return self.S::ScanDefiningScopeDef_(end_time); },
             nb::arg("end_time"))
        .def("_CSingleScopePrimaryScanner__ScanBodyLogicals",
             [](S &self, double end_time) { return self.S::ScanBodyLogicals_(end_time); },
             nb::arg("end_time"))
        .def("_CSingleScopePrimaryScanner__ProcessSingleInfoStr",
             [](S &self, nb::handle name, nb::handle istr, nb::handle logical_i_bytes) {
                 self.S::ProcessSingleInfoStr_(name, istr, logical_i_bytes);
             },
             nb::arg("name"), nb::arg("istr"), nb::arg("logical_i_bytes"))
        .def("_IsSimpleConditionParsable", &S::IsSimpleConditionParsable_, nb::arg("tok_list"))
        .def("_IsSimpleCondition", &S::IsSimpleCondition_, nb::arg("tok_list"))
        .def("_ScanSingleScopeDefInBody", &S::ScanSingleScopeDefInBody_, nb::arg("logical"),
             nb::arg("logical_i"))
        .def("_GetFirstLogicalFromBodyOfLogical", &S::GetFirstLogicalFromBodyOfLogical_,
             nb::arg("logical"))
        .def("_GetInfoBytesForScopeDef", &S::GetInfoBytesForScopeDef_, nb::arg("logical"),
             nb::arg("full_name"), nb::arg("in_cls"), nb::arg("decorator_logicals").none(),
             nb::arg("body0").none())
        .def("_GetFunctionDefArgsDeclWithHints", &S::GetFunctionDefArgsDeclWithHints_,
             nb::arg("tok_seq"), nb::arg("lpar_i"), nb::arg("rpar_i"), nb::arg("hint_dict"))
        .def("_GetHintsFromFunctionDef", &S::GetHintsFromFunctionDef_, nb::arg("logical"),
             nb::arg("body0").none())
        .def("_GetScopeDefInfoBytes", &S::GetScopeDefInfoBytes_)
        .def("_RewriteCommentInfo", &S::RewriteCommentInfo_, nb::arg("logical"), nb::arg("name"),
             nb::arg("istr"))
        .def("_RewriteCommentInfoForMethod", &S::RewriteCommentInfoForMethod_,
             nb::arg("logical"), nb::arg("name"), nb::arg("istr"))
        .def("_AddStandardModuleNames", &S::AddStandardModuleNames_)
        .def("_AddToFirstDict",
             [](S &self, nb::handle name, nb::handle first_dict) {
                 self.S::AddToFirstDict_(name, first_dict);
             },
             nb::arg("name"), nb::arg("first_dict"))
        .def("_FindDecoratorDottedName",
             [](S &self, nb::handle logical) { return self.S::FindDecoratorDottedName_(logical); },
             nb::arg("logical"))
        .def("SaveToInfoCache", &S::SaveToInfoCache, nb::arg("can_write") = false)
        .def_prop_ro("fScopeDef", [](S &self) { return self.fScopeDef; })
        .def_prop_ro("fContainingClassDef", [](S &self) { return self.fContainingClassDef; })
        .def_ro("fFileDoesntExist", &S::fFileDoesntExist)
        .def_prop_ro("fInfo", [](S &self) { return InfoOrNone(self.fInfo); })
        .def_prop_ro("_fInSimpleConditional", [](S &self) { return self._fInSimpleConditional; })
        .def_prop_ro("fPerFileInfo", [](S &self) { return self.fPerFileInfo; })
        .def_prop_ro("fInfoCache", [](S &self) { return self.fInfoCache; })
        .def_prop_ro("fBody", [](S &self) { return self.fBody; })
        .def_prop_ro("fDecoratorLogicals", [](S &self) { return self.fDecoratorLogicals; })
        .def_ro("fIsAsyncDef", &S::fIsAsyncDef)
        .def_ro("fEntireScopeScanned", &S::fEntireScopeScanned)
        .def_ro("_fNotFound", &S::_fNotFound)
        .def_prop_ro("_fScopeNameSeenCount", [](S &self) { return self._fScopeNameSeenCount; })
        .def_prop_ro("_fStackItem",
                     [](S &self) {
                         return self._fStackItem ? nb::cast(self._fStackItem) : nb::none();
                     })
        // Progress of the steps, private to the class.
        .def_prop_ro("_CSingleScopePrimaryScanner__fAnalysis",
                     [](S &self) { return self.fAnalysis_; })
        .def_ro("_CSingleScopePrimaryScanner__fNotParsedCount", &S::fNotParsedCount_)
        .def_ro("_CSingleScopePrimaryScanner__fLogicalIndex", &S::fLogicalIndex_)
        .def_ro("_CSingleScopePrimaryScanner__fScopeDefScanned", &S::fScopeDefScanned_)
        .def_ro("_CSingleScopePrimaryScanner__fBodyLogicalsScanned", &S::fBodyLogicalsScanned_)
        .def_prop_ro("_CSingleScopePrimaryScanner__fSelfDotName",
                     [](S &self) { return self.fSelfDotName_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fTypeEquivs",
                     [](S &self) { return self.fTypeEquivs_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fInstTypeEquivs",
                     [](S &self) { return self.fInstTypeEquivs_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fDomains",
                     [](S &self) { return self.fDomains_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fFirstNameSet",
                     [](S &self) { return self.fFirstNameSet_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fFirstNameGet",
                     [](S &self) { return self.fFirstNameGet_; })
        .def_prop_ro("_CSingleScopePrimaryScanner__fFirstAttribSet",
                     [](S &self) { return self.fFirstAttribSet_; })
        .def("_CSingleScopePrimaryScanner__FinalizeNameDict", &S::FinalizeNameDict_,
             nb::arg("name_dict"), nb::arg("set_dict").none(), nb::arg("get_dict").none(),
             nb::arg("hint_dict").none())
        .def("_CSingleScopePrimaryScanner__AddPerName", &S::AddPerName_, nb::arg("name_dict"),
             nb::arg("name").none(), nb::arg("info"));

    using W = CWholeFilePrimaryScanner;
    nb::class_<W, CScannerBase_, PyCWholeFilePrimaryScanner>(
        m, "CWholeFilePrimaryScanner", bindutil::IntrusiveHolder<W>(),
        nb::type_slots(kDestroyableFieldSlots<W>))
        .def(nb::init<nb::handle, nb::handle, nb::handle, nb::handle>(), nb::arg("loc"),
             nb::arg("scan_name"), nb::arg("incomplete_scope_set").none() = nb::none(),
             nb::arg("log").none() = nb::none())
        .def("Scan", &W::Scan, nb::arg("end_time"))
        .def("AbandonScan", &W::AbandonScan)
        .def("_CWholeFilePrimaryScanner__PrepareLogicalList",
             [](W &self, double end_time) { return self.W::PrepareLogicalList_(end_time); },
             nb::arg("end_time"))
        .def("_CWholeFilePrimaryScanner__GetLogicalCache",
             [](W &self) { return self.W::GetLogicalCache_(); })
        .def("_ScanCompletedScopes",
             [](W &self, double end_time) { return self.W::ScanCompletedScopes_(end_time); },
             nb::arg("end_time"))
        .def("_ScanSingleStackItem",
             [](W &self, nb::handle item, double end_time) {
                 return self.W::ScanSingleStackItem_(AsStackItem(item), end_time);
             },
             nb::arg("item"), nb::arg("end_time"))
        .def("_CB_AnalysisEtherealized", &W::CB_AnalysisEtherealized_)
        .def("GetMatchedDiskMTime", &W::GetMatchedDiskMTime)
        .def("_CB_LogicalCacheModified", &W::CB_LogicalCacheModified_, nb::arg("lline_cache"),
             nb::arg("delta"))
        .def_prop_ro("fPerFileInfo", [](W &self) { return self.fPerFileInfo; })
        .def_ro("fScanAbandoned", &W::fScanAbandoned)
        .def_ro("fReady", &W::fReady)
        .def_prop_ro("_fBodyFinder",
                     [](W &self) { return self._fBodyFinder ? nb::cast(self._fBodyFinder) : nb::none(); })
        .def_prop_ro("_fAllScopeNames", [](W &self) { return self._fAllScopeNames; })
        .def_prop_ro("_CWholeFilePrimaryScanner__fLogicalCache",
                     [](W &self) { return self.fLogicalCache_; })
        .def_prop_ro("_CWholeFilePrimaryScanner__fAnalysis", [](W &self) { return self.fAnalysis_; })
        .def_ro("_CWholeFilePrimaryScanner__fUpdateFromCacheCalled", &W::fUpdateFromCacheCalled_)
        .def_ro("_CWholeFilePrimaryScanner__fDestroyLogicalCache", &W::fDestroyLogicalCache_);

    m.def("CreateClassInstInfo", &CreateClassInstInfo, nb::arg("cls_info"),
          nb::arg("method_info_list"), nb::arg("scan_name"));
    m.def("_MethodInfoSortKey", &MethodInfoSortKey_, nb::arg("method_info"));
}

}  // namespace scopescanner_bind

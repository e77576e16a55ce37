// The secondary (derived) scan: from the primary record of one scope to
// derived records of the scopes it reaches -- the argument types that this
// scope passes to functions defined elsewhere, attributes it sets on other
// objects, globals and nonlocals it assigns, narrowing by type guards and
// the item types of generic containers.
//
// Everything the scan learns comes from the inference engine, the details
// store, the typing support, the location cache and the info cache.  Those
// services are always called through their Python interface, so that an
// embedder or a test can stand in its own (a scripted engine, say).
//
// Operations that can be interrupted return true when the item they work on
// is not finished and must be taken up again.
#pragma once

#include <optional>
#include <string_view>

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include "pysource/scopeinfo.h"
#include "pysource/scopescanner/protocol.h"

namespace nb = nanobind;

namespace pysource {

// The singletons every secondary scanner needs, looked up once per file.
// Python: _CSharedObjectsForSecondaryScanners(ana_mgr=None).
class CSharedObjectsForSecondaryScanners_ : public nb::intrusive_base {
public:
    // `ana_mgr`: the analysis manager; None for manager.GetAnalysisMgr().
    explicit CSharedObjectsForSecondaryScanners_(nb::handle ana_mgr);

    nb::object fAnalysisMgr;
    nb::object fInfoCache;        // a CInfoCache
    nb::object fInferenceEngine;  // a CInferenceEngine
    nb::object fTypingSupport;
    nb::object fDetailsStore;
    nb::object fLocCache;
    bool fScanFunctionCalls = true;  // the kAnalyzeFunctionCalls preference, read once
    nb::object fDerivedScanName;

    int Traverse(visitproc visit, void *arg);
    void Clear();
};

// Derived scan of one scope.  Items of the primary record (name, single
// info bytes) are taken from the end of the work list; each is dispatched by
// its kind.  Derived records collect in fDerivedInfoDict, keyed by the
// unspecialised target scope, and go to the info cache when the scan ends.
class CSingleScopeSecondaryScanner : public CScannerBase_ {
public:
    // `primary_info`: a CScopeInfo.  `shared_objects`: the shared singletons,
    // or None to make them from `ana_mgr`.
    CSingleScopeSecondaryScanner(nb::handle primary_info, nb::handle log,
                                 nb::handle shared_objects, nb::handle ana_mgr,
                                 bool scanning_whole_file);

    // Returns kFinishedScanning, kTimedOut or kWaitingForScans.
    nb::ref<CNamedConstant> Scan(double end_time) override;

    // Whether a dependency gathered so far was read from one of `locs` (a
    // set, or a map whose keys are locations), `skip_loc` aside.
    virtual bool DependsOnLocs(nb::handle locs, nb::handle skip_loc);
    // Rewrites a list of (name, compound info) in place: one item per single.
    virtual void ExpandInfoPairList(nb::handle item_list);

    // Derived records.
    virtual bool AddDerivedFor_(nb::handle loc);
    // Scan of called names: (derived entries, type-variable methods, guard
    // singles), or None for an incomplete resolve to be retried.
    virtual nb::object ProcessCalledResolved_(nb::handle resolved, bool specialize_generics,
                                              nb::handle ctx);
    virtual nb::object GuardTypesForResolved_(nb::handle resolved, nb::handle ctx);
    // (record, arg offset, hinted call-side indexes or None), or None.
    virtual nb::object DerivedEntryForDef_(nb::handle def_scope, nb::handle hinted, bool bound,
                                           nb::handle ctx);
    // The derived record of the scope named by `for_scope_term` (a
    // CFullyScopedName), or None when no derived info is to be added to it.
    virtual nb::object DerivedInfo_(nb::handle for_scope_term, nb::handle ctx);
    // Merges into a derived record what `ctx` has read so far: the scopes
    // seen (whether each was scanned) and the imports resolved.
    void MergeSeen_(nb::handle record, nb::handle ctx);
    virtual bool ScanForSetAttr_(nb::handle name, nb::handle set_ibytes, nb::handle parent_ctx);
    virtual void AddDerivedInfoForName_(nb::handle derived, bool inst, nb::handle name,
                                        nb::handle ibytes);
    // The resolved set of `expr_text` read in this scope; None for an
    // incomplete resolve unless the item is on its final try.
    virtual nb::object ResolveInThisScope_(nb::handle expr_text, bool reduce_resolved,
                                           nb::handle ctx);
    virtual bool ScanSubscriptTarget_(nb::handle name, nb::handle compound_ibytes,
                                      nb::handle parent_ctx);
    virtual bool MethodWithTypeVariable_(nb::handle single_method, nb::handle ctx);
    // Arguments: info bytes or None.
    virtual nb::object GetInfoBytesForResolvedArgText_(nb::handle arg_text, nb::handle ctx);
    virtual nb::object GetInfoBytesForReducedResolved_(nb::handle resolved);
    virtual nb::list GetArgInfoBytesList_(nb::handle called_ibytes, nb::handle ctx,
                                          nb::handle skip_indexes);
    virtual void AddInfoForUsedArgs_(nb::handle derived_list, nb::handle arg_ibytes_list,
                                     nb::handle ctx);
    virtual bool ScanCalledName_(nb::handle name, nb::handle called_ibytes, nb::handle parent_ctx);
    virtual void AddGuardNarrowing_(nb::handle called_ibytes, nb::handle guard_ibytes,
                                    nb::handle ctx);
    virtual bool IsPlainDottedName_(nb::handle text);
    virtual bool IsPlainDottedNameParts_(nb::handle parts);
    // Generic specialisation.
    virtual nb::list GetTypevarMethodList_(nb::handle resolved, nb::handle ctx);
    virtual bool AddInfoForSpecializedGenerics_(nb::handle name, nb::handle callable_resolved,
                                                nb::handle arg_ibytes_list, nb::handle ctx);
    virtual bool ProcessSingleCalledTypevarMethod_(nb::handle obj_name,
                                                   nb::handle obj_cls_details,
                                                   nb::handle single_method,
                                                   nb::handle arg_ibytes_list, nb::handle ctx);
    virtual bool OneArgMatches_(nb::handle callable_single, nb::handle arg_def,
                                nb::handle value_resolved, nb::handle ctx);
    virtual nb::object GetHintFromResolved_(nb::handle resolved);
    virtual nb::object PrefixInfoBytes_(nb::handle ibytes, nb::handle derived);
    virtual void AddInfoForGlobal_(nb::handle name, nb::handle ctx);
    virtual void AddInfoForNonlocal_(nb::handle name, nb::handle ctx);
    // The (scope, primary scan name) pairs in ctx.fNeedsScan, as a set.
    virtual nb::object PrimaryScansNeeded_(nb::handle ctx);
    // Whether `ctx` needs primary scans that haven't run for this scanner yet.
    bool WaitsForScans_(nb::handle ctx);
    // The same for the pairs `needed` that PrimaryScansNeeded_ gave.
    bool WaitsFor_(nb::handle needed);
    // Whether a resolve that `ctx` marks incomplete is taken as it stands:
    // on an item's final try, once every primary scan it needs has run.
    bool TakesPartial_(nb::handle ctx);
    virtual nb::object GetNeedsScanLocs();
    virtual void SaveDerivedInfoDict_();

    nb::ref<CScopeInfo> fPrimaryInfo;
    nb::dict fDerivedInfoDict;
    nb::set fPossibleNamedTupleClasses;
    nb::list _fItemsToScan;
    nb::object _fInterruptedItem;  // (name, ibytes) or None
    nb::dict _fCalledMemo;
    bool _fFinalTry = false;
    bool _fInterruptedNeedsScan = false;
    nb::object _fNeedsScanLocs;  // set of locations
    nb::set _fCompletedNeedsScan;
    nb::ref<CSharedObjectsForSecondaryScanners_> _fSharedObjects;
    bool _fScanningWholeFile = false;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

    // Shortcuts to the scanned scope and the services.
    nb::object OurScope() const;
    const nb::object &Engine() const { return _fSharedObjects->fInferenceEngine; }
    const nb::object &InfoCache() const { return _fSharedObjects->fInfoCache; }
    const nb::object &DetailsStore() const { return _fSharedObjects->fDetailsStore; }
    const nb::object &LocCache() const { return _fSharedObjects->fLocCache; }

private:
    CSingleScopeSecondaryScanner(nb::ref<CScopeInfo> primary_info, nb::handle log,
                                 nb::ref<CSharedObjectsForSecondaryScanners_> shared,
                                 bool scanning_whole_file);
    nb::ref<CNamedConstant> RunItems(double end_time);
    // The dispatch of one item by its kind; true when it is incomplete.
    bool ScanOneItem(nb::handle name, nb::handle ibytes, nb::handle ctx, bool &scanned);
    // The info bytes of one argument's text read at the call's logical
    // index, or None for an expression that isn't resolved.
    nb::object ArgInfoBytesAt(std::string_view text, std::optional<long long> call_at, nb::handle ctx);
    // An argument's text as a reference to this scope, read at `read_at`
    // when the derived record is read.
    nb::object LazyArgInfoBytes(std::string_view text, std::optional<long long> read_at);
    // Keyword arguments recorded on the parameters of that name.
    void AddInfoForKeywordArgs(nb::handle derived_list, nb::handle called_ibytes, nb::handle ctx);
    // `o[k] = v` (`value` is v as the primary record holds it) recorded as
    // the call `o.__setitem__(k, v)`; true when the resolve is incomplete.
    bool AddInfoForSetItem(nb::handle object_text, std::string_view key_text, nb::handle value,
                           nb::handle ctx);
};

// Derived scan of a whole file: its scopes one at a time, breadth first from
// the module scope, following the scope definitions of each primary record.
class CWholeFileSecondaryScanner : public CScannerBase_ {
public:
    CWholeFileSecondaryScanner(nb::handle loc, nb::handle scan_name, nb::handle log);

    nb::ref<CNamedConstant> Scan(double end_time) override;
    void _destroy_impl() override;

    virtual bool DependsOnLocs(nb::handle locs, nb::handle skip_loc);
    virtual nb::object GetNeedsScanLocs();
    virtual nb::ref<CNamedConstant> ScanOneScope_(nb::handle scope_name, double end_time);
    // Takes the (scope, derived scan name) pairs of this file out of
    // `needs_scan` and queues their scopes; returns the rest.
    virtual nb::object FilterNeedsScan(nb::handle needs_scan);

    nb::ref<CSingleScopeSecondaryScanner> _fActiveScopeScanner;  // null for none
    nb::list fToScan;
    nb::set fToScanSet;
    nb::dict fScanCompletedCount;
    nb::ref<CSharedObjectsForSecondaryScanners_> _fSharedObjects;
    nb::object fDiskMTime;  // None until the first primary record is read
    Py_ssize_t fIncompleteCount = 0;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

private:
    nb::ref<CNamedConstant> ScanQueue(double end_time);
    // Whether this call must end before anything else: the flow structure
    // of the files nearly every request reads is read in steps of their own
    // (see the definition).
    bool ReadFlowAhead(double end_time);
    nb::object FlowFileAhead(int index);  // a location, or None
    int fFlowFilesRead = 0;
    bool fFlowPutOff = false;
    void Enqueue(nb::handle name);
};

// The call-side indexes that every derived entry (record, offset, hinted)
// of `derived_list` already has a hint for, or None.
nb::object FullyHintedArgIndexes_(nb::handle derived_list);

// The C++ objects behind Python handles, or a TypeError.
CSharedObjectsForSecondaryScanners_ &AsSharedObjects(nb::handle obj);

// Scope operations reached by name (a CScope subclass may refine them).
nb::object ExprIn(nb::handle scope, nb::handle text);

}  // namespace pysource

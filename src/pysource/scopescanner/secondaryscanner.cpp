// The secondary scanners' drivers: the shared singletons, the single-scope
// scanner's construction and item loop with its waiting and retrying, its
// dependency queries, and the whole-file scanner.  What each item does to
// the derived records is in secondaryderived.cpp (records, global,
// nonlocal), secondaryargs.cpp (arguments), secondarycalled.cpp (called
// names), secondarytargets.cpp (attribute and subscript targets) and
// secondarygenerics.cpp (generic specialisation).
#include "pysource/scopescanner/secondaryscanner.h"

#include <string>

#include "pysource/fastaccess.h"
#include "pysource/infer/inferenceengine.h"
#include "pysource/infocache.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

nb::object GlobalAnalysisMgr() {
    return nb::module_::import_("pysource.manager").attr("GetAnalysisMgr")();
}

// New shared objects, with their Python object made at once so that the
// garbage collector can follow the scanners' link to them.
nb::ref<CSharedObjectsForSecondaryScanners_> NewSharedObjects(nb::handle ana_mgr) {
    nb::ref<CSharedObjectsForSecondaryScanners_> shared =
        new CSharedObjectsForSecondaryScanners_(ana_mgr);
    (void) nb::cast(shared);
    return shared;
}

nb::ref<CSharedObjectsForSecondaryScanners_> SharedObjectsFor(nb::handle shared_objects,
                                                              nb::handle ana_mgr) {
    if (shared_objects.is_none())
        return NewSharedObjects(ana_mgr);
    return &AsSharedObjects(shared_objects);
}

bool IsFinalState(CNamedConstant *state) {
    return state == kFinishedScanning || state == kScanAbandoned;
}

// The shared objects hold the manager and through it the services, which a
// Python engine or cache may tie back to a scanner: the collector must see
// the link (once the shared objects have a Python object holding the count).
int VisitShared(const nb::ref<CSharedObjectsForSecondaryScanners_> &shared, visitproc visit,
                void *arg) {
    if (shared)
        Py_VISIT(shared->self_py());
    return 0;
}

void Print(nb::handle a, nb::handle b) { nb::module_::import_("builtins").attr("print")(a, b); }

}  // namespace

// ---------------------------------------------------------------------------
// Shared objects

CSharedObjectsForSecondaryScanners_::CSharedObjectsForSecondaryScanners_(nb::handle ana_mgr) {
    fAnalysisMgr = ana_mgr.is_none() ? GlobalAnalysisMgr() : nb::borrow(ana_mgr);
    fInfoCache = fAnalysisMgr.attr("fInfoCache");
    if (!nb::isinstance<CInfoCache>(fInfoCache))
        throw nb::type_error("the analysis manager's fInfoCache must be a CInfoCache");
    fInferenceEngine = fAnalysisMgr.attr("fInferenceEngine").attr("_fNativeEngine");
    if (!nb::isinstance<infer::CInferenceEngine>(fInferenceEngine))
        throw nb::type_error("the analysis manager's engine must be a CInferenceEngine");
    fTypingSupport = fInferenceEngine.attr("_fTypingGenericSupport");
    fDetailsStore = fInferenceEngine.attr("_fDetailsStore");
    fLocCache = fInferenceEngine.attr("_fLocCache");
    nb::object key = nb::module_::import_("pysource.prefs").attr("kAnalyzeFunctionCalls");
    fScanFunctionCalls = IsTrue(fAnalysisMgr.attr("fPrefMgr")[key]);
    fDerivedScanName = fAnalysisMgr.attr("fDerivedScanName");
}

int CSharedObjectsForSecondaryScanners_::Traverse(visitproc visit, void *arg) {
    for (nb::handle field : {fAnalysisMgr, fInfoCache, fInferenceEngine, fTypingSupport,
                             fDetailsStore, fLocCache, fDerivedScanName})
        Py_VISIT(field.ptr());
    return 0;
}

void CSharedObjectsForSecondaryScanners_::Clear() {
    fAnalysisMgr = fInfoCache = fInferenceEngine = nb::none();
    fTypingSupport = fDetailsStore = fLocCache = nb::none();
}

CSharedObjectsForSecondaryScanners_ &AsSharedObjects(nb::handle obj) {
    CSharedObjectsForSecondaryScanners_ *shared = nullptr;
    if (!nb::try_cast<CSharedObjectsForSecondaryScanners_ *>(obj, shared) || !shared)
        throw nb::type_error("shared_objects must be a _CSharedObjectsForSecondaryScanners or None");
    return *shared;
}

nb::object ExprIn(nb::handle scope, nb::handle text) {
    return nb::cast(ScopeOf(scope).ExprIn(text));
}

// ---------------------------------------------------------------------------
// CSingleScopeSecondaryScanner: construction

CSingleScopeSecondaryScanner::CSingleScopeSecondaryScanner(nb::handle primary_info,
                                                           nb::handle log,
                                                           nb::handle shared_objects,
                                                           nb::handle ana_mgr,
                                                           bool scanning_whole_file)
    : CSingleScopeSecondaryScanner(&AsScopeInfo(primary_info), log,
                                   SharedObjectsFor(shared_objects, ana_mgr),
                                   scanning_whole_file) {}

CSingleScopeSecondaryScanner::CSingleScopeSecondaryScanner(
    nb::ref<CScopeInfo> primary_info, nb::handle log,
    nb::ref<CSharedObjectsForSecondaryScanners_> shared, bool scanning_whole_file)
    : CScannerBase_(primary_info->key->for_scope, shared->fDerivedScanName, log) {
    if (kVerboseLogging)
        Print(nb::str("Start secondary scan of"), ScopeOf(primary_info->key->for_scope).name);
    fPrimaryInfo = std::move(primary_info);
    _fSharedObjects = std::move(shared);
    _fScanningWholeFile = scanning_whole_file;
    _fInterruptedItem = nb::none();
    _fNeedsScanLocs = nb::set();
    nb::object items = fPrimaryInfo->type_equivs.attr("items")();
    for (nb::handle pair : items)
        _fItemsToScan.append(nb::tuple(nb::borrow(pair)));
    ExpandInfoPairList(_fItemsToScan);
}

nb::object CSingleScopeSecondaryScanner::OurScope() const { return fPrimaryInfo->key->for_scope; }

// ---------------------------------------------------------------------------
// The item loop

nb::ref<CNamedConstant> CSingleScopeSecondaryScanner::Scan(double end_time) {
    if (_fScanCalled) {
        _fLog->Log1(nb::str("CSingleScopeSecondaryScanner Scan called recursively"), nb::tuple());
        return kTimedOut;
    }
    _fScanCalled = true;
    struct Leaving {
        CSingleScopeSecondaryScanner &self;
        ~Leaving() {
            self._fScanCalled = false;
            try {
                self._fLog->Log3(nb::str("Leaving CSingleScopeSecondaryScanner.Scan call"),
                                 nb::tuple());
            } catch (nb::python_error &err) {
                err.restore();
                PyErr_WriteUnraisable(nullptr);
            }
        }
    } leaving{*this};
    if (DbgStatsOn()) {
        _gDbgSeenCalled.get().attr("clear")();
        _gDbgSeenArgs.get().attr("clear")();
    }
    _fLog->Log3(nb::str("Entering CSingleScopeSecondaryScanner.Scan call"), nb::tuple());
    return RunItems(end_time);
}

namespace {

// The (name, ibytes) of a work item, checked.
std::pair<nb::object, nb::object> UnpackItem(nb::handle item) {
    if (!PyTuple_Check(item.ptr()) && !PyList_Check(item.ptr()))
        throw nb::type_error("a work item must be a (name, info bytes) pair");
    if (PyObject_Length(item.ptr()) != 2)
        throw nb::value_error("a work item must have exactly two elements");
    nb::object name = item[0];
    nb::object ibytes = item[1];
    RequireStr(name, "the name of a work item");
    RequireBytes(ibytes, "the info bytes of a work item");
    return {name, ibytes};
}

}  // namespace

nb::ref<CNamedConstant> CSingleScopeSecondaryScanner::RunItems(double end_time) {
    nb::object ctx = Engine().attr("NewContext")(end_time, true);
    int count = 0;
    bool scanned = false;
    for (;;) {
        if (_fItemsToScan.size() == 0 && _fInterruptedItem.is_none())
            break;
        ++count;
        nb::object item;
        if (!_fInterruptedItem.is_none()) {
            item = _fInterruptedItem;
            _fInterruptedItem = nb::none();
            _fFinalTry = !_fInterruptedNeedsScan;
            _fInterruptedNeedsScan = false;
        } else {
            item = _fItemsToScan.attr("pop")();
            _fFinalTry = false;
        }
        auto [name, ibytes] = UnpackItem(item);

        bool incomplete = ScanOneItem(name, ibytes, ctx, scanned);
        // The clock is read once per resolving item and once per 51 cheap
        // ones; from here on a time-out and an incomplete item are the same.
        if (!incomplete && (scanned || count > 50)) {
            incomplete = OutOfTime(end_time);
            scanned = false;
            count = 0;
        }

        nb::object needed = PrimaryScansNeeded_(ctx);
        if (WaitsFor_(needed)) {
            _fCompletedNeedsScan.attr("update")(needed);
            nb::set locs;
            for (nb::handle pair : needed)
                locs.add(LocOf(pair[0]));
            _fNeedsScanLocs = locs;
            _fInterruptedItem = nb::make_tuple(name, ibytes);
            _fInterruptedNeedsScan = true;
            return kWaitingForScans;
        }
        if (incomplete) {
            // An item on its final try is dropped, its partial result standing.
            if (!_fFinalTry)
                _fInterruptedItem = nb::make_tuple(name, ibytes);
            return kTimedOut;
        }
    }
    SaveDerivedInfoDict_();
    SetScanState_(kFinishedScanning);
    return kFinishedScanning;
}

bool CSingleScopeSecondaryScanner::ScanOneItem(nb::handle name, nb::handle ibytes, nb::handle ctx,
                                               bool &scanned) {
    si::Kind kind = si::GetInfoBytesKind(TextOf(ibytes));
    std::string_view name_text = TextOf(name);
    bool scan_calls = _fSharedObjects->fScanFunctionCalls;
    bool incomplete = false;
    if (kind == si::kGlobalKind || kind == si::kNonlocalKind) {
        // In a context of their own: the records they add to read this scope
        // alone, not what the items before them in the same slice read.
        CSubContext sub(ctx);
        if (kind == si::kGlobalKind)
            AddInfoForGlobal_(name, sub.get());
        else
            AddInfoForNonlocal_(name, sub.get());
        sub.Finish();
    }
    if (!incomplete && kind == si::kCalledKind && scan_calls) {
        incomplete = ScanCalledName_(name, ibytes, ctx);
        scanned = true;
    }
    if (!incomplete && kind == si::kSetKind && si::NonNestedFind(name_text, ".") >= 0) {
        incomplete = ScanForSetAttr_(name, ibytes, ctx);
        scanned = true;
    }
    if (!incomplete && scan_calls && EndsWith(name_text, "]") && !EndsWith(name_text, "[]")) {
        incomplete = ScanSubscriptTarget_(name, ibytes, ctx);
        scanned = true;
    }
    return incomplete;
}

nb::object CSingleScopeSecondaryScanner::PrimaryScansNeeded_(nb::handle ctx) {
    nb::set needed;
    nb::object needs_scan = ctx.attr("fNeedsScan");
    if (needs_scan.is_none())
        return needed;
    nb::object primary = _fSharedObjects->fAnalysisMgr.attr("fPrimaryScanName");
    for (nb::handle pair : needs_scan) {
        if (Equal(pair[1], primary))
            needed.add(pair);
    }
    return needed;
}

bool CSingleScopeSecondaryScanner::WaitsForScans_(nb::handle ctx) {
    return WaitsFor_(PrimaryScansNeeded_(ctx));
}

bool CSingleScopeSecondaryScanner::WaitsFor_(nb::handle needed) {
    return HasItems(needed) && !Truth(needed.attr("issubset")(_fCompletedNeedsScan));
}

bool CSingleScopeSecondaryScanner::TakesPartial_(nb::handle ctx) {
    // A partial answer while scans are outstanding would be recorded as if it
    // were the whole one; the item waits for them and runs again instead.
    return _fFinalTry && !WaitsForScans_(ctx);
}

nb::object CSingleScopeSecondaryScanner::GetNeedsScanLocs() { return _fNeedsScanLocs; }

namespace {

// Whether a scope of `scopes` lies in `locs` and not at `skip_loc`.
bool AnyScopeIn(nb::handle scopes, nb::handle locs, nb::handle skip_loc) {
    for (nb::handle scope : scopes) {
        nb::object loc = scope.attr("loc");
        if (Contains(locs, loc) && (skip_loc.is_none() || !Equal(loc, skip_loc)))
            return true;
    }
    return false;
}

}  // namespace

bool CSingleScopeSecondaryScanner::DependsOnLocs(nb::handle locs, nb::handle skip_loc) {
    for (nb::handle record : fDerivedInfoDict.values()) {
        nb::handle scopes_seen = AsScopeInfo(record).scopes_seen;
        if (!scopes_seen.is_none() && AnyScopeIn(scopes_seen, locs, skip_loc))
            return true;
    }
    // Only the resolved-imports snapshot of a memo entry is consulted.
    for (nb::handle entry : _fCalledMemo.values()) {
        nb::object imports = entry[3];
        if (!imports.is_none() && AnyScopeIn(imports, locs, skip_loc))
            return true;
    }
    return false;
}

int CSingleScopeSecondaryScanner::TraverseFields(visitproc visit, void *arg) {
    for (nb::handle field :
         {nb::handle(fDerivedInfoDict), nb::handle(fPossibleNamedTupleClasses),
          nb::handle(_fItemsToScan), nb::handle(_fInterruptedItem), nb::handle(_fCalledMemo),
          nb::handle(_fNeedsScanLocs), nb::handle(_fCompletedNeedsScan)})
        Py_VISIT(field.ptr());
    return VisitShared(_fSharedObjects, visit, arg);
}

void CSingleScopeSecondaryScanner::DropReferences() {
    _fSharedObjects = nullptr;
    fDerivedInfoDict = nb::dict();
    _fCalledMemo = nb::dict();
    _fInterruptedItem = nb::none();
}

// ---------------------------------------------------------------------------
// CWholeFileSecondaryScanner

CWholeFileSecondaryScanner::CWholeFileSecondaryScanner(nb::handle loc, nb::handle scan_name,
                                                       nb::handle log)
    : CScannerBase_(nb::cast(si::WildcardScope(nb::borrow(loc))), scan_name, log) {
    fDiskMTime = nb::none();
    fIncompleteCount = 0;
    fToScan.append(nb::str(si::kModuleScopeName.data(), si::kModuleScopeName.size()));
    fToScanSet = nb::set(fToScan);
    _fSharedObjects = NewSharedObjects(nb::none());
}

void CWholeFileSecondaryScanner::_destroy_impl() {
    CScannerBase_::_destroy_impl();
    if (_fActiveScopeScanner)
        _fActiveScopeScanner->destroy();
}

nb::ref<CNamedConstant> CWholeFileSecondaryScanner::Scan(double end_time) {
    return ScanWithDeferredNotifications(_fSharedObjects->fInfoCache,
                                         [&] { return ScanQueue(end_time); });
}

// The inference engine reads a file's flow structure (the block paths of
// its bodies) in one step, inside the first request that needs it, wherever
// that falls in a slice.  The files that nearly every request of this file
// reads -- the file itself, the builtins and the typing stubs -- are read
// here ahead of the requests, each as a step of its own, put off once to the
// next call when this one has less than kFlowReadSeconds left (a provider
// that reads in steps goes on over calls instead).  The provider
// keeps the stubs it read, so that for later files their steps cost nothing.
bool CWholeFileSecondaryScanner::ReadFlowAhead(double end_time) {
    constexpr double kFlowReadSeconds = 0.010;
    constexpr int kFlowFiles = 3;  // this file, the builtins, typing
    while (fFlowFilesRead < kFlowFiles) {
        nb::object provider = _fSharedObjects->fInferenceEngine.attr("fFlowProvider");
        if (provider.is_none() || !nb::hasattr(provider, "ReadFile")) {
            fFlowFilesRead = kFlowFiles;
            return false;
        }
        if (!fFlowPutOff && end_time - GetNowTime() < kFlowReadSeconds) {
            fFlowPutOff = true;
            return true;
        }
        fFlowPutOff = false;
        nb::object loc = FlowFileAhead(fFlowFilesRead);
        // A provider that reads in steps goes on with the same file next time.
        if (!loc.is_none() && nb::hasattr(provider, "ReadFileUntil")) {
            if (!nb::cast<bool>(provider.attr("ReadFileUntil")(loc, end_time)))
                return true;
        } else if (!loc.is_none()) {
            provider.attr("ReadFile")(loc);
        }
        ++fFlowFilesRead;
        if (OutOfTime(end_time))
            return true;
    }
    return false;
}

nb::object CWholeFileSecondaryScanner::FlowFileAhead(int index) {
    if (index == 0)
        return LocOf(fScope);
    nb::handle loc_cache = _fSharedObjects->fLocCache;
    const char *getter = index == 1 ? "GetBuiltinLoc" : "GetTypingLoc";
    if (loc_cache.is_none() || !nb::hasattr(loc_cache, getter))
        return nb::none();
    return loc_cache.attr(getter)();
}

nb::ref<CNamedConstant> CWholeFileSecondaryScanner::ScanQueue(double end_time) {
    if (ReadFlowAhead(end_time))
        return kTimedOut;
    if (_fActiveScopeScanner) {
        nb::object name = ScopeOf(_fActiveScopeScanner->OurScope()).name;
        nb::ref<CNamedConstant> state = ScanOneScope_(name, end_time);
        if (!IsFinalState(state.get()))
            return state;
    }
    while (fToScan.size() > 0) {
        nb::object scope_name = fToScan.attr("pop")(0);
        fToScanSet.discard(scope_name);
        nb::ref<CNamedConstant> state = ScanOneScope_(scope_name, end_time);
        if (!IsFinalState(state.get()))
            return state;
        if (OutOfTime(end_time))
            return kTimedOut;
    }
    SetScanState_(kFinishedScanning);
    if (fIncompleteCount == 0 && !fDiskMTime.is_none()) {
        nb::object info_cache = _fSharedObjects->fInfoCache;
        nb::object loc = LocOf(fScope);
        info_cache.attr("ChangeScansDone")(loc, fScanName, true, fDiskMTime);
        nb::list locs;
        locs.append(loc);
        info_cache.attr("WriteToDatabase")(locs);
    }
    return kFinishedScanning;
}

void CWholeFileSecondaryScanner::Enqueue(nb::handle name) {
    fToScan.append(name);
    fToScanSet.add(name);
}

nb::ref<CNamedConstant> CWholeFileSecondaryScanner::ScanOneScope_(nb::handle scope_name,
                                                                  double end_time) {
    if (!_fActiveScopeScanner) {
        nb::object scope = nb::cast(ScopeOf(fScope).ReplaceName(scope_name));
        nb::object info = _fSharedObjects->fInfoCache.attr("GetScopeInfo")(scope);
        if (info.is_none()) {
            ++fIncompleteCount;
            return kFinishedScanning;
        }
        nb::object disk_mtime = info.attr("disk_mtime");
        if (fDiskMTime.is_none())
            fDiskMTime = disk_mtime;
        else if (!Equal(disk_mtime, fDiskMTime))
            ++fIncompleteCount;  // scanned all the same; the file's done mark is lost
        _fActiveScopeScanner = new CSingleScopeSecondaryScanner(
            info, nb::cast(_fLog), nb::cast(_fSharedObjects), nb::none(), true);
    }
    nb::ref<CNamedConstant> state = _fActiveScopeScanner->Scan(end_time);
    if (!IsFinalState(state.get()))
        return state;

    // Breadth first: the scopes that this scope defines go to the back.
    nb::dict type_equivs = _fActiveScopeScanner->fPrimaryInfo->type_equivs;
    for (auto [name, ibytes] : type_equivs) {
        (void) name;
        if (!si::InfoDefinesScope(TextOf(ibytes)))
            continue;
        for (std::string_view item : si::NonNestedSplit(TextOf(ibytes), ";")) {
            std::optional<std::string> sub_name = si::ScopeNameDefinedByInfo(item);
            if (!sub_name)
                continue;
            nb::str sub(sub_name->data(), sub_name->size());
            if (!Contains(fToScanSet, sub))
                Enqueue(sub);
        }
    }
    nb::object prior = fScanCompletedCount.attr("get")(scope_name, 0);
    fScanCompletedCount[scope_name] = prior + nb::int_(1);
    _fActiveScopeScanner->destroy();
    _fActiveScopeScanner = nullptr;
    return kFinishedScanning;
}

nb::object CWholeFileSecondaryScanner::GetNeedsScanLocs() {
    if (_fActiveScopeScanner)
        return _fActiveScopeScanner->GetNeedsScanLocs();
    return nb::set();
}

bool CWholeFileSecondaryScanner::DependsOnLocs(nb::handle locs, nb::handle skip_loc) {
    if (!_fActiveScopeScanner)
        return false;
    return _fActiveScopeScanner->DependsOnLocs(locs, skip_loc);
}

nb::object CWholeFileSecondaryScanner::FilterNeedsScan(nb::handle needs_scan) {
    nb::object derived_name = GlobalAnalysisMgr().attr("fDerivedScanName");
    nb::object our_loc = LocOf(fScope);
    nb::list mine;
    for (nb::handle item : needs_scan) {
        if (Equal(item[0].attr("loc"), our_loc) && Equal(item[1], derived_name))
            mine.append(item);
    }
    if (mine.size() == 0)
        return nb::borrow(needs_scan);
    nb::object rest = needs_scan.attr("difference")(mine);
    nb::list names;
    for (nb::handle item : mine) {
        nb::object name = item[0].attr("name");
        if (!Contains(fToScanSet, name))
            names.append(name);
    }
    for (nb::handle name : names) {
        if (nb::cast<Py_ssize_t>(fScanCompletedCount.attr("get")(name, 0)) > 20) {
            nb::str url = nb::str(our_loc.attr("fUrl"));
            nb::object leaf = url.attr("split")("/")[-1];
            nb::module_::import_("builtins").attr("print")(nb::str("Too many scans in ") + leaf +
                                                           nb::str(": ") + nb::str(name));
        } else if (!Contains(fToScanSet, name)) {
            Enqueue(name);
        }
    }
    return rest;
}

int CWholeFileSecondaryScanner::TraverseFields(visitproc visit, void *arg) {
    for (nb::handle field : {nb::handle(fToScan), nb::handle(fToScanSet),
                             nb::handle(fScanCompletedCount), nb::handle(fDiskMTime)})
        Py_VISIT(field.ptr());
    return VisitShared(_fSharedObjects, visit, arg);
}

void CWholeFileSecondaryScanner::DropReferences() {
    _fActiveScopeScanner = nullptr;
    _fSharedObjects = nullptr;
}

}  // namespace pysource

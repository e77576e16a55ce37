// The single-scope scanner's driver (construction, the step machine, the
// standalone lookups, finishing the record and saving it) and the
// whole-file scanner.  The per-logical steps are in primarybody.cpp, the
// definition info in primarydefinfo.cpp.
#include "pysource/scopescanner/primaryscanner.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "pysource/fastaccess.h"
#include "pysource/llinecache.h"
#include "pysource/scopescanner/primaryutil.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace primaryutil;

namespace {

constexpr const char *kStandaloneNeedsCacheMgr =
    "CSingleScopePrimaryScanner standalone path requires fCacheMgr";

nb::object AnalysisMgr() {
    return nb::module_::import_("pysource.manager").attr("GetAnalysisMgr")();
}

// A new record key (for_scope, scan name, scanned scope).
nb::ref<CScopeInfoKey> NewKey(nb::handle scope, nb::handle scan_name) {
    return new CScopeInfoKey(scope, scan_name, scope);
}

}  // namespace

// ---------------------------------------------------------------------------
// CSingleScopePrimaryScanner: construction and lifecycle

namespace {

// The per-file context a scanner runs with: the one given, or a new one.
nb::ref<CPerFileInfo_> PerFileInfoFor(nb::handle scope, nb::handle per_file_info,
                                      nb::handle incomplete_scope_set) {
    if (!per_file_info.is_none()) {
        CPerFileInfo_ *info = nullptr;
        if (!nb::try_cast<CPerFileInfo_ *>(per_file_info, info) || !info)
            throw nb::type_error("per_file_info must be a _CPerFileInfo or None");
        return info;
    }
    return new CPerFileInfo_(ScopeOf(scope).loc, incomplete_scope_set);
}

}  // namespace

CSingleScopePrimaryScanner::CSingleScopePrimaryScanner(nb::handle scope, nb::handle ana,
                                                       nb::handle per_file_info,
                                                       nb::handle stack_item,
                                                       nb::handle incomplete_scope_set,
                                                       nb::handle log)
    : CSingleScopePrimaryScanner(scope, ana,
                                 PerFileInfoFor(scope, per_file_info, incomplete_scope_set),
                                 per_file_info.is_none(), stack_item, log) {}

CSingleScopePrimaryScanner::CSingleScopePrimaryScanner(nb::handle scope, nb::handle ana,
                                                       nb::ref<CPerFileInfo_> per_file_info,
                                                       bool owns_per_file_info,
                                                       nb::handle stack_item, nb::handle log)
    : CScannerBase_(scope, per_file_info->fPrimaryScanName, log),
      fPerFileInfo(std::move(per_file_info)),
      fOwnsPerFileInfo_(owns_per_file_info) {
    nb::handle name = ScopeOf(scope).name;
    if (kVerboseLogging)
        nb::module_::import_("builtins").attr("print")("Start primary scan of", name);

    _fInSimpleConditional = nb::none();
    fInfoCache = nb::none();
    // A leaf without a scope index counts as index 0; the name stays as the
    // caller gave it, the indexed form is only checked to be well formed.
    std::string_view name_view = TextOf(name);
    if (!name_view.empty() && si::LeafScopeName(name_view).find(si::kScopeIndexSep) ==
                                  std::string_view::npos)
        (void) si::AppendScopeIndex(name_view, 0);

    fAnalysis_ = nb::borrow(ana);
    fSelfDotName_ = nb::none();
    if (!stack_item.is_none()) {
        CScopeStackItem_ &item = AsStackItem(stack_item);
        _fStackItem = &item;
        fScopeDef = LogicalOrNone(item.scope_def);
        fBody = item.body;
        fContainingClassDef = LogicalOrNone(item.containing_class_def);
        fDecoratorLogicals = item.decorator_logicals;
        fIsAsyncDef = item.is_async_def;
    } else {
        fScopeDef = nb::borrow(kNoValueLogical_.get());
        fContainingClassDef = nb::borrow(kNoValueLogical_.get());
        fBody = nb::none();
        fDecoratorLogicals = nb::none();
    }
    fTypeEquivs_ = nb::dict();
    fInstTypeEquivs_ = nb::dict();
    fDomains_ = nb::dict();
}

void CSingleScopePrimaryScanner::_destroy_impl() {
    CScannerBase_::_destroy_impl();
    // The per-file info that this scanner made for itself goes with it.
    if (fOwnsPerFileInfo_ && fPerFileInfo && !fPerFileInfo->IsDestroyed())
        fPerFileInfo->destroy();
    // The item owns this scanner; the link back ends here.
    _fStackItem = nullptr;
}

// ---------------------------------------------------------------------------
// The step machine

nb::ref<CNamedConstant> CSingleScopePrimaryScanner::Scan(double end_time) {
    if (fScanState.get() != kReadyToScan)
        return fScanState;
    if (fAnalysis_.is(kNoValue_.get())) {
        if (GetAnalysis_(end_time))
            return kTimedOut;
        if (fScanState.get() != kReadyToScan)
            return fScanState;  // waiting for the content
    }
    if (IsNoValueLogical(fScopeDef) || IsNoValueLogical(fContainingClassDef) ||
        fDecoratorLogicals.is_none()) {
        if (GetScopeDef_(end_time))
            return kTimedOut;
    }
    if (!fScopeDefScanned_ && ScanDefiningScopeDef_(end_time))
        return kTimedOut;
    if (fBody.is_none() && GetBody_(end_time))
        return kTimedOut;
    if (!fBodyLogicalsScanned_ && ScanBodyLogicals_(end_time))
        return kTimedOut;

    // From here on the record is finished in one go.
    if (TextOf(ScopeName()).empty())
        AddStandardModuleNames_();
    nb::ref<CScopeInfoKey> key = NewKey(fScope, fPerFileInfo->fPrimaryScanName);
    if (_fNotFound) {
        fInfo = new CScopeInfo(key, nb::bytes("", 0), fPerFileInfo->fMatchedDiskMTime, false, true);
        fEntireScopeScanned = true;
        SetScanState_(kFinishedScanning);
        return fScanState;
    }
    nb::bytes ibytes = GetScopeDefInfoBytes_();
    fInfo = new CScopeInfo(key, ibytes, fPerFileInfo->fMatchedDiskMTime, fNotParsedCount_ != 0);

    FinalizeNameDict_(fTypeEquivs_, fFirstNameSet_, fFirstNameGet_, fFirstTypeHintSet_);
    fInfo->SetTypeEquivs(fTypeEquivs_);
    fTypeEquivs_ = nb::none();

    FinalizeNameDict_(fInstTypeEquivs_, fFirstAttribSet_, nb::none(), fInstFirstTypeHintSet_);
    fInfo->SetInstTypeEquivs(fInstTypeEquivs_);
    fInstTypeEquivs_ = nb::none();

    FinalizeNameDict_(fDomains_, nb::none(), nb::none(), nb::none());
    if (PyDict_GET_SIZE(fDomains_.ptr()) != 0)
        fInfo->SetDomains(fDomains_);
    fDomains_ = nb::none();

    fInfo->FinishedBuilding();
    fEntireScopeScanned = fNotParsedCount_ == 0;
    SetScanState_(kFinishedScanning);
    return fScanState;
}

// ---------------------------------------------------------------------------
// Standalone lookups

bool CSingleScopePrimaryScanner::GetAnalysis_(double end_time) {
    if (!fAnalysis_.is(kNoValue_.get()))
        return false;
    nb::object ana_mgr = AnalysisMgr();
    if (ana_mgr.attr("fCacheMgr").is_none())
        RaiseAssertion(kStandaloneNeedsCacheMgr);
    fAnalysis_ = ana_mgr.attr("GetAnalysis")(ScopeOf(fScope).loc, nb::arg("create") = true);
    if (fAnalysis_.is_none()) {
        fFileDoesntExist = true;
        return OutOfTime(end_time);
    }
    nb::object self = SelfObject();
    fAnalysis_.attr("fLogicalCache")
        .attr("connect_while_alive")("modified", self.attr("_CB_LogicalCacheModified"), self);
    if (!IsTrue(fAnalysis_.attr("UpdateFromCache")())) {
        SetScanState_(kWaitingForData);
        return false;
    }
    fPerFileInfo->fMatchedDiskMTime = fAnalysis_.attr("fMatchedDiskMTime");
    fPerFileInfo->fEOLBlindChecksum = fAnalysis_.attr("GetEOLBlindChecksum")();
    return OutOfTime(end_time);
}

void CSingleScopePrimaryScanner::CB_LogicalCacheModified_(nb::handle logical_cache, nb::handle) {
    if (fPerFileInfo->fMatchedDiskMTime.is_none()) {
        fPerFileInfo->fMatchedDiskMTime = logical_cache.attr("fMatchedDiskMTime");
        fPerFileInfo->fEOLBlindChecksum = logical_cache.attr("GetEOLBlindChecksum")();
    }
    if (fScanState.get() == kWaitingForData)
        SetScanState_(kReadyToScan);
}

bool CSingleScopePrimaryScanner::GetScopeDef_(double end_time) {
    if (_fStackItem)
        return false;
    auto not_found = [this]() {
        fContainingClassDef = nb::none();
        _fNotFound = true;
        return false;
    };
    if (fAnalysis_.is_none()) {
        fScopeDef = nb::none();
        return not_found();
    }
    nb::handle name = ScopeName();
    nb::object scope_def = nb::none();
    if (!TextOf(name).empty()) {
        scope_def = fAnalysis_.attr("_GetScopeDefForFullName")(name);
        if (!scope_def.is_none())
            (void) AsLogical(scope_def, "the defining logical of a scope");
        fScopeDef = scope_def;
        if (scope_def.is_none())
            return not_found();
    } else {
        fScopeDef = nb::none();
    }
    CLogicalLine *def = ScopeDefLogical();
    fIsAsyncDef = IsAsyncDef(def);

    fContainingClassDef = nb::none();
    if (def && def->fKind == LogicalKind::kFunctionDef && !def->fScopeName.is_none() &&
        !TextOf(def->fScopeName).empty()) {
        nb::object cls_def = fAnalysis_.attr("_GetScopeDefForFullName")(def->fScopeName);
        if (!cls_def.is_none() && AsLogical(cls_def)->fKind == LogicalKind::kClassDef)
            fContainingClassDef = cls_def;
    }
    fDecoratorLogicals = FindDecoratorLogicals_();
    return OutOfTime(end_time);
}

nb::list CSingleScopePrimaryScanner::FindDecoratorLogicals_() {
    CLogicalLine *def = ScopeDefLogical();
    if (!def || fAnalysis_.is_none())
        return nb::list();
    nb::object logical_cache = fAnalysis_.attr("fLogicalCache");
    nb::object scope_i = logical_cache.attr("_IndexForLineno")(def->fFirstLine);
    if (!PyLong_Check(scope_i.ptr()))
        throw nb::type_error("_IndexForLineno must give an int");
    return FindDecoratorLogicals(nb::cast<Py_ssize_t>(scope_i),
                                 logical_cache.attr("_fLogicalList"));
}

bool CSingleScopePrimaryScanner::GetBody_(double end_time) {
    if (!fBody.is_none())
        return false;
    if (fAnalysis_.is_none()) {
        fBody = nb::list();
        return false;
    }
    if (!IsTrue(fAnalysis_.attr("UpdateFromCache")()))
        return false;  // no body: the body step then ends at once
    nb::object mtime = fAnalysis_.attr("fLogicalCache").attr("fMatchedDiskMTime");
    if (!mtime.is_none() && mtime.equal(nb::int_(0)))
        fFileDoesntExist = true;
    nb::ref<si::CScope> scope = ScopeOf(fScope).ReplaceLoc(fPerFileInfo->fLocation);
    fBody = GetBodyOfNamedScope_(nb::cast(scope));
    return OutOfTime(end_time);
}

nb::object CSingleScopePrimaryScanner::GetBodyOfNamedScope_(nb::handle scope) {
    nb::handle body_cache = fPerFileInfo->fScopeBodyCache;
    if (body_cache.is_none())
        return nb::list();
    nb::object body = body_cache.attr("GetBody")(scope);
    if (!body.is_none() && !PyList_Check(body.ptr()))
        throw nb::type_error("the scope body cache must give a list or None");
    return body;
}

// ---------------------------------------------------------------------------
// Finishing and saving

void CSingleScopePrimaryScanner::FinalizeNameDict_(nb::handle name_dict, nb::handle set_dict,
                                                   nb::handle get_dict, nb::handle hint_dict) {
    RequireDict(name_dict, "name_dict");
    struct FirstSeen {
        nb::handle dict;
        std::string_view prefix;
    };
    const FirstSeen first_seen[3] = {{set_dict, si::kSetPrefix},
                                     {get_dict, si::kGetPrefix},
                                     {hint_dict, si::kSetTypeHintPrefix}};
    for (const FirstSeen &seen : first_seen)
        if (!seen.dict.is_none())
            RequireDict(seen.dict, "first-seen map");

    // Own singles sorted, then the first set, get and hint singles.
    PyObject *name_obj = nullptr;
    PyObject *info_obj = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(name_dict.ptr(), &pos, &name_obj, &info_obj)) {
        nb::handle name(name_obj);
        if (!PyUnicode_Check(name_obj))
            RaiseAssertion("a name of a scope's map must be text");
        bool changed = false;
        std::string info;
        if (PyBytes_CheckExact(info_obj)) {
            info.assign(TextOf(info_obj));
        } else {
            info = SortedJoin(info_obj);
            changed = true;
        }
        for (const FirstSeen &seen : first_seen) {
            if (seen.dict.is_none())
                continue;
            PyObject *index = PyDict_GetItemWithError(seen.dict.ptr(), name_obj);
            if (!index) {
                if (PyErr_Occurred())
                    throw nb::python_error();
                continue;
            }
            nb::object index_text = AsUtf8(index);
            info += ';';
            info += seen.prefix;
            info += TextOf(index_text);
            if (PyDict_DelItem(seen.dict.ptr(), name_obj) < 0)
                throw nb::python_error();
            changed = true;
        }
        // Same key, same size: storing back during the walk is safe.
        if (changed && PyDict_SetItem(name_dict.ptr(), name.ptr(), si::ToBytes(info).ptr()) < 0)
            throw nb::python_error();
    }

    // Names only set, then names only read (perhaps also set), then names
    // only hinted (none in a correct scan).
    if (!set_dict.is_none()) {
        for (auto [name, index] : nb::borrow<nb::dict>(set_dict))
            name_dict[AsStr(name)] = FirstSeenSingle(si::kSetPrefix, index);
    }
    if (!get_dict.is_none()) {
        for (auto [name, index] : nb::borrow<nb::dict>(get_dict)) {
            nb::object key = AsStr(name);
            nb::bytes single = FirstSeenSingle(si::kGetPrefix, index);
            PyObject *existing = PyDict_GetItemWithError(name_dict.ptr(), key.ptr());
            if (!existing && PyErr_Occurred())
                throw nb::python_error();
            if (!existing) {
                name_dict[key] = single;
            } else {
                std::string joined(TextOf(existing));
                joined += ';';
                joined += TextOf(single);
                name_dict[key] = si::ToBytes(joined);
            }
        }
    }
    if (!hint_dict.is_none()) {
        for (auto [name, index] : nb::borrow<nb::dict>(hint_dict)) {
            if (PyDict_Contains(name_dict.ptr(), name.ptr()) == 1)
                RaiseAssertion("a name with a first type hint already has an entry");
            name_dict[name] = FirstSeenSingle(si::kSetTypeHintPrefix, index);
        }
    }
}

void CSingleScopePrimaryScanner::AddStandardModuleNames_() {
    static const std::pair<const char *, const char *> kStandardNames[] = {
        {"__name__", "str"}, {"__builtins__", "dict"}, {"__doc__", "str"},
        {"__file__", "str"}, {"__package__", "str"}};
    for (const auto &[name_text, class_name] : kStandardNames) {
        nb::str name(name_text);
        if (PyDict_Contains(fFirstNameSet_.ptr(), name.ptr()) == 1)
            continue;  // the module sets it itself
        fFirstNameSet_[name] = nb::int_(-1);
        AddPerName_(fTypeEquivs_, name,
                    si::PyBuildLiteralInfo(nb::bytes(class_name), nb::none()));
    }
}

nb::object CSingleScopePrimaryScanner::SaveToInfoCache(bool can_write) {
    if (fScanState.get() != kFinishedScanning)
        return AddResultObject(AddResult::kDiscarded);
    nb::handle incomplete_set = fPerFileInfo->fIncompleteScopeSet;
    if (!incomplete_set.is_none()) {
        if (fInfo->incomplete)
            incomplete_set.attr("add")(ScopeName());
        else
            incomplete_set.attr("discard")(ScopeName());
    }
    return fPerFileInfo->fInfoCache.attr("AddScopeInfo")(nb::cast(fInfo),
                                                         nb::arg("can_write") = can_write);
}

// ---------------------------------------------------------------------------
// Small accessors

nb::handle CSingleScopePrimaryScanner::ScopeName() const { return ScopeOf(fScope).name; }

CLogicalLine *CSingleScopePrimaryScanner::ScopeDefLogical() const {
    return OptionalLogical(fScopeDef);
}

CLogicalLine *CSingleScopePrimaryScanner::ContainingClassLogical() const {
    return OptionalLogical(fContainingClassDef);
}

nb::object CSingleScopePrimaryScanner::Analyzer() const {
    // The logical analyzer of the file: a CPGenAnalyzer when it is one, or
    // whatever other analyzer the manager gave.
    if (!fPerFileInfo->fPGenAnalyzer.is_none())
        return fPerFileInfo->fPGenAnalyzer;
    return fPerFileInfo->fAstAnalyzer;
}

int CSingleScopePrimaryScanner::TraverseFields(visitproc visit, void *arg) {
    if (int result = CScannerBase_::TraverseFields(visit, arg))
        return result;
    if (int result = basekit::VisitRef(fPerFileInfo, visit, arg))
        return result;
    if (int result = basekit::VisitRef(_fStackItem, visit, arg))
        return result;
    for (nb::handle field :
         {nb::handle(fScopeDef), nb::handle(fContainingClassDef), nb::handle(_fInSimpleConditional),
          nb::handle(fInfoCache), nb::handle(fAnalysis_), nb::handle(fBody),
          nb::handle(fDecoratorLogicals), nb::handle(fSelfDotName_), nb::handle(fTypeEquivs_),
          nb::handle(fInstTypeEquivs_), nb::handle(fDomains_), nb::handle(fFirstNameSet_),
          nb::handle(fFirstNameGet_), nb::handle(fFirstAttribSet_), nb::handle(fFirstTypeHintSet_),
          nb::handle(fInstFirstTypeHintSet_), nb::handle(_fScopeNameSeenCount)})
        Py_VISIT(field.ptr());
    return 0;
}

void CSingleScopePrimaryScanner::DropReferences() {
    CScannerBase_::DropReferences();
    fAnalysis_ = nb::none();
    fBody = nb::none();
    _fStackItem = nullptr;
}

CSingleScopePrimaryScanner &AsSingleScopePrimaryScanner(nb::handle obj) {
    CSingleScopePrimaryScanner *scanner = nullptr;
    if (!nb::try_cast<CSingleScopePrimaryScanner *>(obj, scanner) || !scanner)
        throw nb::type_error("expected a CSingleScopePrimaryScanner");
    return *scanner;
}

// ---------------------------------------------------------------------------
// The instance pseudo-scope of a class

nb::object MethodInfoSortKey_(nb::handle method_info) {
    return nb::borrow(ScopeOf(AsScopeInfo(method_info).key->for_scope).name);
}

nb::object CreateClassInstInfo(nb::handle cls_info, nb::handle method_info_list,
                               nb::handle scan_name) {
    CScopeInfo &cls = AsScopeInfo(cls_info);
    si::CScope &cls_scope = ScopeOf(cls.key->for_scope);
    nb::ref<si::CScope> inst_scope = cls_scope.InstanceForClass();

    std::string inst_ibytes(si::kInstancePrefix);
    std::string_view cls_ibytes = TextOf(cls.ibytes);
    if ((std::ptrdiff_t) cls_ibytes.size() > si::kPrefixLen)
        inst_ibytes += cls_ibytes.substr((size_t) si::kPrefixLen);

    nb::object inst_scope_ref = nb::cast(inst_scope);
    nb::ref<CScopeInfoKey> key = new CScopeInfoKey(inst_scope_ref, scan_name, inst_scope_ref);
    nb::ref<CScopeInfo> inst =
        new CScopeInfo(key, si::ToBytes(inst_ibytes), nb::float_(cls.disk_mtime), cls.incomplete);

    // Every instance has __class__, set and hinted as the class's Type[...],
    // read where the class stands.
    std::string class_name(TextOf(cls_scope.name));
    std::string hint(si::kTypeHintPrefix);
    hint += si::kTypingModuleSymbolDotStr;
    hint += "Type[";
    hint += class_name;
    hint += "]";
    nb::bytes marked = si::PyPrefixWithLocationAndScope(si::ToBytes(hint), nb::none(),
                                                        si::PyParentScopeName(cls_scope.name));
    std::string class_entry(si::kSetPrefix);
    class_entry += ';';
    class_entry += TextOf(marked);
    inst->type_equivs["__class__"] = si::ToBytes(class_entry);

    // Methods in scope-name order, stable as list.sort is.
    if (!PyList_Check(method_info_list.ptr()))
        throw nb::type_error("method_info_list must be a list");
    nb::list methods = nb::borrow<nb::list>(method_info_list);
    std::vector<std::pair<std::string, nb::object>> keyed;
    for (nb::handle info : methods)
        keyed.emplace_back(std::string(TextOf(MethodInfoSortKey_(info))), nb::borrow(info));
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    for (size_t i = 0; i < keyed.size(); ++i)
        methods[i] = keyed[i].second;

    nb::list cls_list;
    cls_list.append(cls_info);
    nb::object merged = MergeScopeInfoSeq(nb::cast(inst), cls_list, methods);
    if (!merged.is_none())
        (void) AsScopeInfo(merged);
    return merged;
}

// ---------------------------------------------------------------------------
// CWholeFilePrimaryScanner

CWholeFilePrimaryScanner::CWholeFilePrimaryScanner(nb::handle loc, nb::handle scan_name,
                                                   nb::handle incomplete_scope_set,
                                                   nb::handle log)
    : CScannerBase_(nb::cast(si::WildcardScope(nb::borrow(loc))), scan_name, log) {
    nb::object incomplete = incomplete_scope_set.is_none() ? nb::object(nb::set())
                                                           : nb::borrow(incomplete_scope_set);
    fPerFileInfo = new CPerFileInfo_(loc, incomplete);
    fLogicalCache_ = nb::none();
    fAnalysis_ = nb::none();
}

void CWholeFilePrimaryScanner::_destroy_impl() {
    CScannerBase_::_destroy_impl();
    // The scanner owns its per-file info, its finder (whose open items go
    // back to the free list) and a logical cache that it made itself.
    if (_fBodyFinder && !_fBodyFinder->IsDestroyed()) {
        // Completed items not yet through their scanners are this scanner's
        // too: back to the free list (which also destroys their scanners).
        nb::list completed = _fBodyFinder->fCompletedScopeList;
        while (PyList_GET_SIZE(completed.ptr()) != 0) {
            nb::ref<CScopeStackItem_> item = &AsStackItem(completed[0]);
            if (PySequence_DelItem(completed.ptr(), 0) < 0)
                throw nb::python_error();
            DelStackItem_(*item);
        }
        _fBodyFinder->destroy();
    }
    if (fDestroyLogicalCache_ && !fLogicalCache_.is_none()) {
        nb::object cache = fLogicalCache_;
        fLogicalCache_ = nb::none();
        cache.attr("destroy")();
    }
    if (fPerFileInfo && !fPerFileInfo->IsDestroyed())
        fPerFileInfo->destroy();
}

nb::ref<CNamedConstant> CWholeFilePrimaryScanner::Scan(double end_time) {
    if (fScanState.get() != kReadyToScan)
        return fScanState;
    // Listeners get one batch of changed scopes per slice, however the
    // slice ends.
    return ScanWithDeferredNotifications(fPerFileInfo->fInfoCache, [&] {
        return ScanUnderDeferredNotifications(end_time);
    });
}

nb::ref<CNamedConstant> CWholeFilePrimaryScanner::ScanUnderDeferredNotifications(double end_time) {
    nb::ref<CNamedConstant> state = PrepareLogicalList_(end_time);
    if (state.get() != kReadyToScan)
        return state;
    if (!_fBodyFinder) {
        nb::object logical_list = fLogicalCache_.attr("_fLogicalList");
        if (!PyList_Check(logical_list.ptr()))
            throw nb::type_error("a logical line cache's _fLogicalList must be a list");
        _fBodyFinder = new CScopeBodyFinder_(nb::borrow<nb::list>(logical_list), -1, false);
    }
    // Scopes left over from the prior slice come before the finder moves on.
    if (ScanCompletedScopes_(end_time))
        return kTimedOut;
    bool at_end = false;
    while (!at_end) {
        at_end = _fBodyFinder->ProcessNextLogical().is_none();
        // Completed scopes wait for the next slice when time is up; but at
        // the end of the logicals there is no logical left to make progress
        // on, and a clock that is out at every reading would never let the
        // file finish.
        if (!at_end && OutOfTime(end_time))
            return kTimedOut;
        if (ScanCompletedScopes_(end_time))
            return kTimedOut;
    }
    SetScanState_(kFinishedScanning);
    FinishFile();
    return fScanState;
}

void CWholeFilePrimaryScanner::FinishFile() {
    if (fDestroyLogicalCache_ && !fLogicalCache_.is_none()) {
        nb::object cache = fLogicalCache_;
        fLogicalCache_ = nb::none();
        cache.attr("SaveWordsToDb")();
        cache.attr("destroy")();
    }
    nb::object info_cache = fPerFileInfo->fInfoCache;
    nb::handle loc = ScopeOf(fScope).loc;
    info_cache.attr("SetEOLBlindChecksum")(loc, fPerFileInfo->fEOLBlindChecksum,
                                           fPerFileInfo->fMatchedDiskMTime);
    // A file with any scope left incomplete isn't done, though its scan is.
    nb::handle incomplete = fPerFileInfo->fIncompleteScopeSet;
    if (incomplete.is_none() || PyObject_Size(incomplete.ptr()) == 0)
        info_cache.attr("ChangeScansDone")(loc, fScanName, true, fPerFileInfo->fMatchedDiskMTime);
    nb::list locs;
    locs.append(loc);
    info_cache.attr("WriteToDatabase")(locs);
}

void CWholeFilePrimaryScanner::TakeContentFacts(nb::handle cache) {
    fPerFileInfo->fMatchedDiskMTime = cache.attr("fMatchedDiskMTime");
    fPerFileInfo->fEOLBlindChecksum = cache.attr("GetEOLBlindChecksum")();
}

namespace {

// The cache behind `cache` when it is exactly one of our logical line caches
// (a Python subclass may change how it updates), else null.
CFileLogicalLineCache *OwnCache(nb::handle cache) {
    PyTypeObject *type = Py_TYPE(cache.ptr());
    if (type != (PyTypeObject *) nb::type<CFileLogicalLineCache>().ptr() &&
        type != (PyTypeObject *) nb::type<CLogicalLineCache>().ptr())
        return nullptr;
    return nb::inst_ptr<CFileLogicalLineCache>(cache);
}

}  // namespace

nb::ref<CNamedConstant> CWholeFilePrimaryScanner::PrepareLogicalList_(double end_time) {
    if (fLogicalCache_.is_none()) {
        fLogicalCache_ = GetLogicalCache_();
        nb::object self = SelfObject();
        fLogicalCache_.attr("connect_while_alive")("modified",
                                                   self.attr("_CB_LogicalCacheModified"), self);
        // Getting the cache may have been slow: the read waits for a slice.
        if (OutOfTime(end_time))
            return kTimedOut;
    }
    if (!fUpdateFromCacheCalled_) {
        nb::object updated;
        if (CFileLogicalLineCache *own = fAnalysis_.is_none() ? OwnCache(fLogicalCache_) : nullptr) {
            // A large file's logicals take more than a slice: built in steps.
            updated = own->UpdateUntil(end_time);
            if (updated.is_none())
                return kTimedOut;
        } else {
            updated = fAnalysis_.is_none() ? fLogicalCache_.attr("Update")()
                                           : fAnalysis_.attr("UpdateFromCache")();
        }
        fUpdateFromCacheCalled_ = true;  // one attempt only
        if (!IsTrue(updated)) {
            if (IsLocalFileLocation(ScopeOf(fScope).loc)) {
                // A local file that can't be read won't come later.
                AbandonScan();
                return kScanAbandoned;
            }
            // The remote read is under way; "modified" resumes the scan.
            SetScanState_(kWaitingForData);
            return kWaitingForData;
        }
        TakeContentFacts(fLogicalCache_);
        if (OutOfTime(end_time))
            return kTimedOut;
    }
    return fScanState;
}

nb::object CWholeFilePrimaryScanner::GetLogicalCache_() {
    nb::object ana_mgr = AnalysisMgr();
    nb::object cache_mgr = ana_mgr.attr("fCacheMgr");
    nb::handle loc = ScopeOf(fScope).loc;
    if (!cache_mgr.is_none()) {
        fAnalysis_ = cache_mgr.attr("GetAnalysis")(loc, false);
        nb::object analysis_class =
            nb::module_::import_("pysource.analysis").attr("CPySourceAnalysis");
        if (!fAnalysis_.is_none() &&
            (!PyObject_IsInstance(fAnalysis_.ptr(), analysis_class.ptr()) ||
             IsTrue(fAnalysis_.attr("fEthereal"))))
            fAnalysis_ = nb::none();
        if (PyErr_Occurred())
            throw nb::python_error();
    }
    if (!fAnalysis_.is_none()) {
        // The cache is the analysis's; an analysis going ethereal ends the scan.
        nb::object self = SelfObject();
        fAnalysis_.attr("connect_while_alive")("etherealized",
                                               self.attr("_CB_AnalysisEtherealized"), self);
        return fAnalysis_.attr("fLogicalCache");
    }
    fDestroyLogicalCache_ = true;
    if (!cache_mgr.is_none() && !IsLocalFileLocation(loc)) {
        // A buffer-backed cache, so that the remote read can complete and
        // the scan resume on "modified".
        nb::object coordinator = ana_mgr.attr("fScanCoordinator");
        nb::object idle_priority =
            coordinator.is_none() ? nb::none() : nb::object(coordinator.attr("fIdlePriority"));
        return nb::module_::import_("pysource.llinecache")
            .attr("CLogicalLineCache")(cache_mgr, loc, idle_priority);
    }
    return nb::module_::import_("pysource.filellinecache").attr("CFileLogicalLineCache")(loc);
}

void CWholeFilePrimaryScanner::CB_LogicalCacheModified_(nb::handle lline_cache, nb::handle delta) {
    if (fPerFileInfo->fMatchedDiskMTime.is_none()) {
        TakeContentFacts(lline_cache);
    } else {
        nb::object mtime = lline_cache.attr("fMatchedDiskMTime");
        bool changed = !mtime.equal(fPerFileInfo->fMatchedDiskMTime) ||
                       PyObject_Size(delta.attr("added").ptr()) != 0 ||
                       PyObject_Size(delta.attr("removed").ptr()) != 0;
        if (PyErr_Occurred())
            throw nb::python_error();
        // The logicals under the finder are no longer those of the file.
        if (changed)
            AbandonScan();
    }
    if (fScanState.get() == kWaitingForData) {
        TakeContentFacts(fLogicalCache_);
        SetScanState_(kReadyToScan);
    }
}

void CWholeFilePrimaryScanner::CB_AnalysisEtherealized_(nb::args) { AbandonScan(); }

void CWholeFilePrimaryScanner::AbandonScan() {
    fScanAbandoned = true;
    SetScanState_(kScanAbandoned);
    nb::handle incomplete = fPerFileInfo->fIncompleteScopeSet;
    if (!incomplete.is_none())
        incomplete.attr("add")(ScopeOf(fScope).name);
}

nb::object CWholeFilePrimaryScanner::GetMatchedDiskMTime() { return fPerFileInfo->fMatchedDiskMTime; }

bool CWholeFilePrimaryScanner::ScanCompletedScopes_(double end_time) {
    if (!_fBodyFinder)
        RaiseAssertion("no scopes are completed before the logical list is prepared");
    nb::list completed = _fBodyFinder->fCompletedScopeList;
    while (PyList_GET_SIZE(completed.ptr()) != 0) {
        // The item lives until its scanner is through, across slices.
        nb::ref<CScopeStackItem_> item = &AsStackItem(completed[0]);
        if (ScanSingleStackItem_(*item, end_time))
            return true;
        if (PySequence_DelItem(completed.ptr(), 0) < 0)
            throw nb::python_error();
        DelStackItem_(*item);
    }
    return false;
}

bool CWholeFilePrimaryScanner::ScanSingleStackItem_(CScopeStackItem_ &item, double end_time) {
    if (si::PyIsInstanceScope(item.scope_name))
        RaiseAssertion("a stack item never stands for an instance scope");
    nb::handle loc = ScopeOf(fScope).loc;
    if (item.scope_def) {
        nb::object body0 = PyList_GET_SIZE(item.body.ptr()) != 0 ? nb::object(item.body[0])
                                                                 : nb::object(nb::none());
        fPerFileInfo->fSubScopeBody0[nb::cast(item.scope_def)] = body0;
    }
    if (item.scanner.is_none()) {
        CScopeStackItem_ *cls_item = GetClsItemOfLeafMethod_(item.scope_def.get());
        item.containing_class_def = cls_item ? cls_item->scope_def : nullptr;
        nb::ref<si::CScope> scope = si::NormalizedScope(nb::borrow(loc), item.scope_name);
        nb::ref<CSingleScopePrimaryScanner> scanner = new CSingleScopePrimaryScanner(
            nb::cast(scope), fAnalysis_, nb::cast(fPerFileInfo), nb::cast(nb::ref(&item)),
            nb::none(), nb::cast(_fLog));
        item.scanner = nb::cast(scanner);
    }
    CSingleScopePrimaryScanner &scanner = AsSingleScopePrimaryScanner(item.scanner);
    nb::ref<CNamedConstant> state = scanner.Scan(end_time);
    if (state.get() != kFinishedScanning && state.get() != kScanAbandoned) {
        if (state.get() == kWaitingForData)
            RaiseAssertion("a scope of a whole-file scan never waits for data");
        return true;  // resumed in the next slice
    }
    if (scanner.fInfo && PyDict_Contains(scanner.fInfo->type_equivs.ptr(), Py_None) == 1)
        RaiseAssertion("None is never a name of a scope's map");

    nb::object res = scanner.SaveToInfoCache(true);
    nb::handle incomplete = fPerFileInfo->fIncompleteScopeSet;
    if (res.equal(AddResultObject(AddResult::kDiscarded)) && !incomplete.is_none())
        incomplete.attr("add")(item.scope_name);
    _fAllScopeNames.add(item.scope_name);
    if (state.get() == kScanAbandoned)
        return false;

    CScopeStackItem_ *cls_item = GetClsItemOfLeafMethod_(item.scope_def.get());
    if (cls_item)
        cls_item->child_method_list.append(nb::cast(scanner.fInfo));
    if (item.scope_def && item.scope_def->fKind == LogicalKind::kClassDef) {
        nb::object inst_info = CreateClassInstInfo(nb::cast(scanner.fInfo), item.child_method_list,
                                                   fPerFileInfo->fPrimaryScanName);
        if (!inst_info.is_none()) {
            fPerFileInfo->fInfoCache.attr("AddScopeInfo")(inst_info, nb::arg("can_write") = true);
            _fAllScopeNames.add(ScopeOf(AsScopeInfo(inst_info).key->for_scope).name);
        }
    }
    return false;
}

CScopeStackItem_ *CWholeFilePrimaryScanner::GetClsItemOfLeafMethod_(CLogicalLine *method_def) {
    if (!method_def || method_def->fKind != LogicalKind::kFunctionDef)
        return nullptr;
    nb::handle cls_name = method_def->fScopeName;
    if (cls_name.is_none() || TextOf(cls_name).empty())
        return nullptr;  // a def at module level
    // A method always completes before its class: the class is either
    // completed already or still open on the stack.
    for (nb::handle list : {nb::handle(_fBodyFinder->fCompletedScopeList),
                            nb::handle(_fBodyFinder->_fScopeStack)}) {
        for (nb::handle obj : list) {
            CScopeStackItem_ &item = AsStackItem(obj);
            if (IsScopeDefForClsName_(item.scope_def.get(), cls_name))
                return &item;
        }
    }
    return nullptr;
}

bool CWholeFilePrimaryScanner::IsScopeDefForClsName_(CLogicalLine *scope_def,
                                                     nb::handle maybe_cls_name) {
    if (!scope_def || scope_def->fKind != LogicalKind::kClassDef)
        return false;
    nb::handle leaf = scope_def->fLocalScopeName;
    if (leaf.is_none())
        return false;
    std::string_view leaf_view = TextOf(leaf);
    if (leaf_view.empty())
        return false;
    // A logical's fScopeName spells index 0 without it ("C"), while its
    // fLocalScopeName keeps it ("C|0"): both sides are compared normalised.
    std::string wanted = si::NormalizeScopeName(TextOf(maybe_cls_name));
    std::string leaf_normal = si::NormalizeScopeName(leaf_view);
    if (!std::string_view(wanted).ends_with(leaf_normal))
        return false;  // the cheap test first
    return si::NormalizeScopeName(si::JoinTwoScopeNames(TextOf(scope_def->fScopeName), leaf_view)) ==
           wanted;
}

int CWholeFilePrimaryScanner::TraverseFields(visitproc visit, void *arg) {
    if (int result = CScannerBase_::TraverseFields(visit, arg))
        return result;
    if (int result = basekit::VisitRef(fPerFileInfo, visit, arg))
        return result;
    if (int result = basekit::VisitRef(_fBodyFinder, visit, arg))
        return result;
    Py_VISIT(fLogicalCache_.ptr());
    Py_VISIT(fAnalysis_.ptr());
    Py_VISIT(_fAllScopeNames.ptr());
    return 0;
}

void CWholeFilePrimaryScanner::DropReferences() {
    CScannerBase_::DropReferences();
    fLogicalCache_ = nb::none();
    fAnalysis_ = nb::none();
}

}  // namespace pysource

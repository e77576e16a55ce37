#include "bindutil.h"

#include <nanobind/stl/string.h>

#include "pysource/derivedpolicy.h"
#include "pysource/infocache.h"
#include "pysource/infodatabase.h"
#include "pysource/recordcodec.h"
#include "pysource/scopedependantcache.h"
#include "pysource/scopeinfo.h"
#include "pysource/scopekind.h"
#include "pysource/symbolinfo.h"

using namespace pysource;

struct PyCScopeInfo : CScopeInfo {
    NB_TRAMPOLINE(CScopeInfo, 1);
    void FinalizeForSave() override { NB_OVERRIDE(FinalizeForSave); }
};

struct PyCInfoCache : CInfoCache {
    NB_TRAMPOLINE(CInfoCache, 14);
    BASEKIT_DESTROYABLE_OVERRIDES(CInfoCache)
    nb::object AddScopeInfo(nb::handle info, bool can_write) override {
        NB_OVERRIDE(AddScopeInfo, info, can_write);
    }
    nb::object AddScopeInfoListForSingleScan(nb::handle scope, nb::handle scan_name, nb::handle infos,
                                             bool replace_previous) override {
        NB_OVERRIDE(AddScopeInfoListForSingleScan, scope, scan_name, infos, replace_previous);
    }
    double GetLocDiskMTime(nb::handle loc) override { NB_OVERRIDE(GetLocDiskMTime, loc); }
    nb::object GetScopeInfo(nb::handle scope) override { NB_OVERRIDE(GetScopeInfo, scope); }
    Py_ssize_t CountScopeInfoRecords(nb::handle scope) override {
        NB_OVERRIDE(CountScopeInfoRecords, scope);
    }
    nb::object WriteToDatabase(nb::handle locs) override { NB_OVERRIDE(WriteToDatabase, locs); }
    void FinishedWithScans(nb::handle scope, nb::handle scan_name) override {
        NB_OVERRIDE(FinishedWithScans, scope, scan_name);
    }
    void Trim() override { NB_OVERRIDE(Trim); }
    void BeginDeferScopesModified() override { NB_OVERRIDE(BeginDeferScopesModified); }
    void FlushScopesModified() override { NB_OVERRIDE(FlushScopesModified); }
    void ChangeScansDone(nb::handle loc, nb::handle scan_name, bool done, nb::handle disk_mtime) override {
        NB_OVERRIDE(ChangeScansDone, loc, scan_name, done, disk_mtime);
    }
    void SetEOLBlindChecksum(nb::handle loc, nb::handle checksum, nb::handle mtime) override {
        NB_OVERRIDE(SetEOLBlindChecksum, loc, checksum, mtime);
    }
};

namespace {

template <typename T>
auto ObjectField(nb::object T::*field) {
    return [field](T &self) { return self.*field; };
}

}  // namespace

NB_MODULE(scopeinfo, m) {
    bindutil::ImportDependencies(
        {"basekit.destroyable", "basekit.location", "pysource.symbolinfo", "pysource.locationcache"});
    m.doc() = "Records of scans and the info cache that stores them";

    nb::exception<InfoDatabaseError>(m, "CInfoDatabaseError", PyExc_RuntimeError);

    m.attr("kAddDiscarded") = AddResultObject(AddResult::kDiscarded);
    m.attr("kAddUnchanged") = AddResultObject(AddResult::kUnchanged);
    m.attr("kAddChanged") = AddResultObject(AddResult::kChanged);
    m.attr("kEmptyFrozenset") = symbolinfo::EmptyFrozenset();
    m.attr("kSchemaVersion") = CInfoDatabase::kSchemaVersion;

    nb::class_<CScopeInfoKey>(m, "CScopeInfoKey", bindutil::IntrusiveHolder<CScopeInfoKey>())
        .def(nb::init<nb::handle, nb::handle, nb::handle>(), nb::arg("for_scope"),
             nb::arg("scan_name"), nb::arg("scanned_scope"))
        .def_prop_ro("for_scope", ObjectField(&CScopeInfoKey::for_scope))
        .def_prop_ro("scan_name", ObjectField(&CScopeInfoKey::scan_name))
        .def_prop_ro("scanned_scope", ObjectField(&CScopeInfoKey::scanned_scope))
        .def("__hash__", &CScopeInfoKey::Hash)
        .def("__eq__",
             [](const CScopeInfoKey &self, nb::handle other) -> nb::object {
                 CScopeInfoKey *o = nullptr;
                 if (!nb::try_cast<CScopeInfoKey *>(other, o) || !o)
                     return nb::borrow(Py_NotImplemented);
                 return nb::bool_(self.Equals(*o));
             })
        .def("__ne__",
             [](const CScopeInfoKey &self, nb::handle other) -> nb::object {
                 CScopeInfoKey *o = nullptr;
                 if (!nb::try_cast<CScopeInfoKey *>(other, o) || !o)
                     return nb::borrow(Py_NotImplemented);
                 return nb::bool_(!self.Equals(*o));
             })
        .def("__repr__", &CScopeInfoKey::Repr);

    nb::class_<CScopeInfo, PyCScopeInfo>(m, "CScopeInfo", bindutil::IntrusiveHolder<CScopeInfo>())
        .def(
            "__init__",
            [](CScopeInfo *self, CScopeInfoKey *key, nb::handle ibytes, nb::handle disk_mtime,
               bool incomplete, bool not_found) {
                new (self) PyCScopeInfo(nb::ref<CScopeInfoKey>(key), ibytes, disk_mtime, incomplete,
                                        not_found);
            },
            nb::arg("key"), nb::arg("ibytes"), nb::arg("disk_mtime").none(), nb::arg("incomplete"),
            nb::arg("not_found") = false)
        .def_prop_ro("key", [](CScopeInfo &self) { return self.key.get(); })
        .def_prop_ro("ibytes", ObjectField(&CScopeInfo::ibytes))
        .def_prop_rw(
            "disk_mtime", [](CScopeInfo &self) { return self.disk_mtime; },
            [](CScopeInfo &self, nb::handle v) { self.SetDiskMTime(v); }, nb::arg("value").none())
        .def_prop_rw(
            "type_equivs", [](CScopeInfo &self) { return self.type_equivs; },
            [](CScopeInfo &self, nb::handle v) { self.SetTypeEquivs(v); })
        .def_prop_rw("inst_type_equivs", ObjectField(&CScopeInfo::inst_type_equivs),
                     [](CScopeInfo &self, nb::handle v) { self.SetInstTypeEquivs(v); },
                     nb::arg("value").none())
        .def_rw("incomplete", &CScopeInfo::incomplete)
        .def_prop_rw("scopes_seen", ObjectField(&CScopeInfo::scopes_seen),
                     [](CScopeInfo &self, nb::handle v) { self.scopes_seen = nb::borrow(v); },
                     nb::arg("value").none())
        .def_prop_rw("resolved_imports", ObjectField(&CScopeInfo::resolved_imports),
                     [](CScopeInfo &self, nb::handle v) { self.resolved_imports = nb::borrow(v); },
                     nb::arg("value").none())
        .def_prop_rw("_domains", ObjectField(&CScopeInfo::domains),
                     [](CScopeInfo &self, nb::handle v) { self.SetDomains(v); }, nb::arg("value").none())
        .def_prop_ro("not_found", [](CScopeInfo &self) { return self.not_found; })
        .def_prop_ro("finished", [](CScopeInfo &self) { return self.finished; })
        .def("FinishedBuilding", &CScopeInfo::FinishedBuilding)
        .def("GetInfoBytes", &CScopeInfo::GetInfoBytes, nb::arg("name"),
             nb::arg("default") = nb::none(), nb::arg("inst") = false)
        .def("MergeScopesSeen", &CScopeInfo::MergeScopesSeen, nb::arg("scopes_seen").none(),
             nb::arg("incomplete"))
        .def("MergeResolvedImports", &CScopeInfo::MergeResolvedImports,
             nb::arg("resolved_imports").none())
        .def("FinalizeForSave", [](CScopeInfo &self) { self.CScopeInfo::FinalizeForSave(); })
        .def("__repr__", [](CScopeInfo &self) {
            return nb::str("<CScopeInfo {!r} names={}>").format(self.key.get(), nb::len(self.type_equivs));
        });

    m.def("ScopeKind", &PyScopeKind, nb::arg("scope_name"), nb::arg("ibytes"));
    m.def("MergeScopeInfoSeq", &MergeScopeInfoSeq, nb::arg("info"), nb::arg("a").none(),
          nb::arg("b").none());

    nb::class_<CInfoCache, basekit::CDestroyable, PyCInfoCache>(
        m, "CInfoCache", bindutil::IntrusiveHolder<CInfoCache>(), nb::is_weak_referenceable(),
        nb::type_slots(bindutil::kDestroyableSlots))
        .def(
            "__init__",
            [](CInfoCache *self, nb::handle loc_cache, nb::handle db_path, std::string primary) {
                new (self) PyCInfoCache(loc_cache, db_path, std::move(primary));
            },
            nb::arg("loc_cache").none() = nb::none(), nb::arg("db_path").none() = nb::none(),
            nb::arg("primary_scan_name") = "primary")
        .def("AddScopeInfo", [](CInfoCache &self, nb::handle info, bool can_write) { return self.CInfoCache::AddScopeInfo(info, can_write); }, nb::arg("info"), nb::arg("can_write") = false)
        .def("AddScopeInfoListForSingleScan", [](CInfoCache &self, nb::handle scope, nb::handle scan_name, nb::handle infos, bool replace) { return self.CInfoCache::AddScopeInfoListForSingleScan(scope, scan_name, infos, replace); },
             nb::arg("scope"), nb::arg("scan_name"), nb::arg("infos"),
             nb::arg("replace_previous") = false)
        .def("GetLocDiskMTime", [](CInfoCache &self, nb::handle loc) { return self.CInfoCache::GetLocDiskMTime(loc); }, nb::arg("loc"))
        .def("GetScopeInfo", [](CInfoCache &self, nb::handle scope) { return self.CInfoCache::GetScopeInfo(scope); }, nb::arg("scope"))
        .def("CountScopeInfoRecords", [](CInfoCache &self, nb::handle scope) { return self.CInfoCache::CountScopeInfoRecords(scope); }, nb::arg("scope"))
        .def("WriteToDatabase", [](CInfoCache &self, nb::handle locs) { return self.CInfoCache::WriteToDatabase(locs); }, nb::arg("locs").none() = nb::none())
        .def("FinishedWithScans", [](CInfoCache &self, nb::handle scope, nb::handle scan_name) { return self.CInfoCache::FinishedWithScans(scope, scan_name); }, nb::arg("scope"),
             nb::arg("scan_name"))
        .def("Trim", [](CInfoCache &self) { return self.CInfoCache::Trim(); })
        .def("BeginDeferScopesModified", [](CInfoCache &self) { return self.CInfoCache::BeginDeferScopesModified(); })
        .def("FlushScopesModified", [](CInfoCache &self) { return self.CInfoCache::FlushScopesModified(); })
        .def("ChangeScansDone", [](CInfoCache &self, nb::handle loc, nb::handle scan_name, bool done, nb::handle disk_mtime) { return self.CInfoCache::ChangeScansDone(loc, scan_name, done, disk_mtime); }, nb::arg("loc"), nb::arg("scan_name"),
             nb::arg("done"), nb::arg("disk_mtime").none())
        .def("SetEOLBlindChecksum", [](CInfoCache &self, nb::handle loc, nb::handle checksum, nb::handle mtime) { return self.CInfoCache::SetEOLBlindChecksum(loc, checksum, mtime); }, nb::arg("loc"),
             nb::arg("checksum").none(), nb::arg("mtime").none())
        .def("_destroy_impl", [](CInfoCache &self) { self.CInfoCache::_destroy_impl(); })
        .def("GetScansDone", &CInfoCache::GetScansDone, nb::arg("loc"))
        .def("IsScanDone", &CInfoCache::IsScanDone, nb::arg("loc"), nb::arg("scan_name"),
             nb::arg("disk_mtime").none())
        .def("GetEOLBlindChecksum", &CInfoCache::GetEOLBlindChecksum, nb::arg("loc"))
        .def("SaveWords", &CInfoCache::SaveWords, nb::arg("loc"), nb::arg("words"))
        .def("GetWords", &CInfoCache::GetWords, nb::arg("loc"))
        .def("GetScopeInfoRecords", &CInfoCache::GetScopeInfoRecords, nb::arg("scope"))
        .def("GetScopesForLoc", &CInfoCache::GetScopesForLoc, nb::arg("loc"))
        .def("GetLocations", &CInfoCache::GetLocations)
        .def("FindScopesNamed", &CInfoCache::FindScopesNamed, nb::arg("name"))
        .def("GetScopeCounts", &CInfoCache::GetScopeCounts)
        .def("OpenDatabase", &CInfoCache::OpenDatabase, nb::arg("path"), nb::arg("read_only") = false)
        .def("AddScopeInfoBlobs", &CInfoCache::AddScopeInfoBlobs, nb::arg("loc"), nb::arg("blobs"))
        .def("CountIncompleteScopes", &CInfoCache::CountIncompleteScopes, nb::arg("loc"))
        .def("ForgetLocation", &CInfoCache::ForgetLocation, nb::arg("loc"))
        .def("ForgetScopesOfLoc", &CInfoCache::ForgetScopesOfLoc, nb::arg("loc"),
             nb::arg("scan_name"), nb::arg("keep_names"))
        .def("CloseDatabase", &CInfoCache::CloseDatabase)
        .def_prop_ro("fDatabasePath", &CInfoCache::DatabasePath)
        .def_prop_ro("fDatabaseMessage", &CInfoCache::DatabaseMessage)
        .def_prop_ro("fDatabaseReadOnly", &CInfoCache::DatabaseReadOnly)
        .def_prop_ro("fRecordsInMemory", &CInfoCache::RecordsInMemory)
        .def_prop_ro("fLocationsInMemory", &CInfoCache::LocationsInMemory)
        .def_prop_ro("fDeferDepth", &CInfoCache::DeferDepth)
        .def_prop_ro("fPrimaryScanName", [](CInfoCache &self) { return self.fPrimaryScanName; })
        .def_rw("fMaxRecordsInMemory", &CInfoCache::fMaxRecordsInMemory)
        .def_rw("fMaxMergedInfos", &CInfoCache::fMaxMergedInfos)
        .def_rw("fWriteBatchLocations", &CInfoCache::fWriteBatchLocations)
        .def_ro("fPrimaryGeneration", &CInfoCache::fPrimaryGeneration)
        .def_ro("fRecordGeneration", &CInfoCache::fRecordGeneration)
        .def_rw("fKeepWritesInMemory", &CInfoCache::fKeepWritesInMemory)
        .def_prop_rw("fLocCache", ObjectField(&CInfoCache::fLocCache),
                     [](CInfoCache &self, nb::handle v) { self.fLocCache = nb::borrow(v); });

    nb::class_<CScopeDependantCache, basekit::CDestroyable>(
        m, "CScopeDependantCache", bindutil::IntrusiveHolder<CScopeDependantCache>(),
        nb::is_weak_referenceable(), nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::init<std::string, Py_ssize_t>(), nb::arg("name"), nb::arg("size"))
        .def("LookupInCache", &CScopeDependantCache::LookupInCache, nb::arg("key"))
        .def("AddToCache", &CScopeDependantCache::AddToCache, nb::arg("key"), nb::arg("value").none(),
             nb::arg("deps").none() = nb::tuple())
        .def("InvalidateScope", &CScopeDependantCache::InvalidateScope, nb::arg("scope"))
        .def("RemoveFromCache", &CScopeDependantCache::RemoveFromCache, nb::arg("key"))
        .def("Clear", &CScopeDependantCache::Clear)
        .def("_destroy_impl",
             [](CScopeDependantCache &self) { self.CScopeDependantCache::_destroy_impl(); })
        .def("__len__", &CScopeDependantCache::Count)
        .def("__contains__", &CScopeDependantCache::Contains)
        .def_ro("fName", &CScopeDependantCache::fName)
        .def_ro("fSize", &CScopeDependantCache::fSize);

    nb::class_<CScopeInfoSerializer>(m, "CScopeInfoSerializer",
                                     bindutil::IntrusiveHolder<CScopeInfoSerializer>())
        .def(nb::init<>())
        .def("Dumps", &CScopeInfoSerializer::Dumps, nb::arg("info"))
        .def("Loads", &CScopeInfoSerializer::Loads, nb::arg("data"));

    nb::class_<CDerivedRefinementPolicy>(m, "CDerivedRefinementPolicy",
                                         bindutil::IntrusiveHolder<CDerivedRefinementPolicy>())
        .def(nb::init<nb::handle, Py_ssize_t>(), nb::arg("info_cache"),
             nb::arg("max_merged_keys") = CDerivedRefinementPolicy::kDefaultMaxMergedKeys)
        .def("WantsDerivedFor", &CDerivedRefinementPolicy::WantsDerivedFor, nb::arg("target"),
             nb::arg("scanned"))
        .def("HasRoomFor", &CDerivedRefinementPolicy::HasRoomFor, nb::arg("target"))
        .def("AcceptsTarget", &CDerivedRefinementPolicy::AcceptsTarget, nb::arg("target"),
             nb::arg("scanned"))
        .def_prop_ro("fInfoCache", [](CDerivedRefinementPolicy &self) { return self.fInfoCache; })
        .def_rw("fMaxMergedKeys", &CDerivedRefinementPolicy::fMaxMergedKeys);

    m.def("_SetDatabaseWriteHook", &CInfoDatabase::SetWriteHook, nb::arg("hook").none(),
          "Calls hook(path) inside every database write, before its commit (for tests).");
}

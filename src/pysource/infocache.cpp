#include "pysource/infocache.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <deque>
#include <typeinfo>
#include <unordered_map>

#include "pysource/recordcodec.h"
#include "pysource/scope.h"
#include "pysource/scopekind.h"
#include "pysource/scopedependantcache.h"
#include "pysource/symbolinfo.h"
#include "pysource/untracked.h"

namespace pysource {

namespace {

// A disk time given as a number or None (no known time: -1.0).
double DiskTimeArg(nb::handle value, const char *what) {
    if (!value.is_valid() || value.is_none())
        return -1.0;
    double t = PyFloat_AsDouble(value.ptr());
    if (t == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        throw nb::type_error((std::string(what) + ": the disk time must be a number or None").c_str());
    }
    return t;
}

std::string ScanNameArg(nb::handle scan_name, const char *what) {
    if (!PyUnicode_Check(scan_name.ptr()))
        throw nb::type_error((std::string(what) + ": the scan name must be str").c_str());
    return nb::cast<std::string>(scan_name);
}

nb::object CopyDict(nb::handle map) {
    PyObject *copy = PyDict_Copy(map.ptr());
    if (!copy)
        throw nb::python_error();
    return nb::steal(copy);
}

// Folds `addition` (dict str -> bytes) into `target`, joining the info of
// names both hold.
void FoldNameMap(nb::handle target, nb::handle addition) {
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(addition.ptr(), &pos, &name, &value)) {
        PyObject *prior = PyDict_GetItemWithError(target.ptr(), name);
        if (!prior && PyErr_Occurred())
            throw nb::python_error();
        nb::object merged = prior ? JoinCompoundInfo(prior, value) : nb::borrow(value);
        if (PyDict_SetItem(target.ptr(), name, merged.ptr()) < 0)
            throw nb::python_error();
    }
}

// The union of the sets of `parts` (None entries left out) as a frozenset,
// or None when every part is None.  One frozen part is shared as it is.
nb::object UnionOfSets(const std::vector<nb::handle> &parts) {
    nb::handle only;
    std::size_t given = 0;
    for (nb::handle part : parts)
        if (!part.is_none() && PyObject_Length(part.ptr()) != 0) {
            only = part;
            ++given;
        }
    if (PyErr_Occurred())
        throw nb::python_error();
    if (given == 0) {
        for (nb::handle part : parts)
            if (!part.is_none())
                return nb::borrow(symbolinfo::EmptyFrozenset());
        return nb::none();
    }
    if (given == 1 && PyFrozenSet_CheckExact(only.ptr()))
        return nb::borrow(only);
    nb::object all = nb::steal(PySet_New(nullptr));
    for (nb::handle part : parts)
        if (!part.is_none())
            for (nb::handle item : part)
                if (PySet_Add(all.ptr(), item.ptr()) < 0)
                    throw nb::python_error();
    return AtomicFrozenSet(all);
}

}  // namespace

CInfoCache::CInfoCache(nb::handle loc_cache, nb::handle db_path, std::string primary_scan_name)
    : basekit::CDestroyable(nb::make_tuple("scopes-modified")),
      fPrimaryScanName(std::move(primary_scan_name)) {
    fLocCache = loc_cache.is_none()
                    ? nb::module_::import_("pysource.locationcache").attr("CLocationCache")()
                    : nb::borrow(loc_cache);
    fPendingScopes = nb::steal(PySet_New(nullptr));
    if (!db_path.is_none()) {
        if (!PyUnicode_Check(db_path.ptr()) && !PyObject_HasAttrString(db_path.ptr(), "__fspath__"))
            throw nb::type_error("CInfoCache: db_path must be a path or None");
        OpenDatabase(nb::cast<std::string>(nb::module_::import_("os").attr("fspath")(db_path)));
    }
}

CInfoCache::~CInfoCache() = default;

// ---------------------------------------------------------------------------
// Locations

CInfoCache::LocEntry *CInfoCache::FindEntry(const std::string &url) {
    auto it = fEntries.find(url);
    return it == fEntries.end() ? nullptr : it->second.get();
}

CInfoCache::LocEntry &CInfoCache::EntryForUrl(const std::string &url, nb::handle loc_or_null) {
    if (LocEntry *found = FindEntry(url))
        return *found;
    auto entry = std::make_unique<LocEntry>();
    entry->url = url;
    entry->loc = loc_or_null.is_valid() ? nb::borrow(loc_or_null) : LocationFromUrl(url);
    entry->checksum = nb::none();
    entry->words = nb::none();
    if (!fDatabase)
        entry->meta_loaded = entry->records_loaded = true;
    LocEntry &out = *entry;
    fEntries.emplace(url, std::move(entry));
    return out;
}

CInfoCache::LocEntry &CInfoCache::EntryFor(nb::handle loc) {
    auto it = fEntryByLoc.find(loc.ptr());
    if (it != fEntryByLoc.end())
        return *it->second.second;
    LocEntry &entry = EntryForUrl(LocationUrl(loc), loc);
    fEntryByLoc.emplace(loc.ptr(), std::make_pair(nb::borrow(loc), &entry));
    return entry;
}

const std::string &CInfoCache::UrlOf(nb::handle loc) { return EntryFor(loc).url; }

nb::object CInfoCache::LocationForUrl(std::string_view url) {
    return EntryForUrl(std::string(url), nb::handle()).loc;
}

nb::object CInfoCache::ScopeFromStore(std::string_view url, std::string_view name) {
    return MakeScope(LocationForUrl(url), name);
}

void CInfoCache::EnsureMeta(LocEntry &entry) {
    if (entry.meta_loaded)
        return;
    entry.meta_loaded = true;
    if (!fDatabase)
        return;
    ReadingRows([&] {
        nb::object row = fDatabase->LoadLocation(entry.url);
        if (row.is_none())
            return;
        entry.db_id = nb::cast<std::int64_t>(row[0]);
        entry.disk_mtime = nb::cast<double>(row[1]);
        nb::object checksum = row[2];
        if (nb::cast<std::int64_t>(row[3]) != 0)
            checksum = nb::int_(checksum);
        entry.checksum = checksum;
        nb::object words = row[4];
        entry.words = words.is_none() ? nb::none() : DecodeStrings(words, fDatabase->Origin());
        for (nb::handle scan_row : fDatabase->LoadScansDone(entry.db_id))
            entry.scans_done[nb::cast<std::string>(scan_row[0])] = nb::cast<double>(scan_row[1]);
    });
}

template <typename F>
void CInfoCache::ReadingRows(F &&body) {
    try {
        body();
    } catch (const std::bad_cast &) {
        throw InfoDatabaseError(fDatabase->Origin() +
                                " is damaged (a stored row can't be read); it was left as it is");
    } catch (nb::python_error &e) {
        // A value that doesn't convert (text where a number belongs).
        if (e.matches(PyExc_ValueError) || e.matches(PyExc_TypeError))
            throw InfoDatabaseError(fDatabase->Origin() + " is damaged (" +
                                    nb::cast<std::string>(nb::str(e.value())) +
                                    "); it was left as it is");
        throw;
    }
}

void CInfoCache::EnsureRecords(LocEntry &entry) {
    EnsureMeta(entry);
    MakeBlobRecords(entry);
    if (entry.records_loaded)
        return;
    entry.records_loaded = true;
    if (!fDatabase || entry.db_id == 0)
        return;
    try {
        ReadingRows([&] { LoadRecordRows(entry, nullptr); });
    } catch (...) {
        // Half a location would pass for all of it: drop what was read, so
        // that every later use meets the same error.
        EvictRecords(entry);
        throw;
    }
    entry.scopes_loaded.clear();
}

CInfoCache::ScopeEntry *CInfoCache::ScopeRecords(LocEntry &entry, std::string_view scope_name) {
    EnsureMeta(entry);
    // Past this many scopes read alone, the location is read whole: a caller
    // that walks a file's scopes pays one query, not one per scope.
    constexpr std::size_t kMaxScopesReadAlone = 64;
    bool alone = fDatabase && fDatabase->IsReadOnly() && !entry.records_loaded && entry.db_id != 0 &&
                 entry.scopes_loaded.size() < kMaxScopesReadAlone;
    if (!alone) {
        EnsureRecords(entry);
    } else if (!entry.scopes_loaded.count(scope_name)) {
        const std::string &name = *entry.scopes_loaded.emplace(scope_name).first;
        try {
            ReadingRows([&] { LoadRecordRows(entry, &name); });
        } catch (...) {
            EvictRecords(entry);
            throw;
        }
    }
    auto it = entry.scopes.find(scope_name);
    return it == entry.scopes.end() ? nullptr : &it->second;
}

void CInfoCache::LoadRecordRows(LocEntry &entry, const std::string *scope) {
    const std::string &path = fDatabase->Origin();
    // Records of one file name few scopes and scans many times: one object
    // each.
    std::map<std::pair<std::string, std::string>, nb::object, std::less<>> made;
    ScopeMaker make_scope = [&](std::string_view url, std::string_view name) {
        auto key = std::make_pair(std::string(url), std::string(name));
        auto it = made.find(key);
        if (it == made.end())
            it = made.emplace(std::move(key), ScopeFromStore(url, name)).first;
        return it->second;
    };
    std::map<std::string, nb::object, std::less<>> scan_names;
    auto add_row = [&](const StoredRecordView &row) {
        if (!scope && entry.scopes_loaded.count(row.scope))
            return;  // read before, alone, and in memory as it stands now
        ScanId scan_id(std::string(row.scanned_url), std::string(row.scanned_scope), std::string(row.scan_name));
        if (fReplacedScans.count(scan_id))
            return;  // replaced by a newer scan whose rows are not written yet
        const std::string &scan = std::get<2>(scan_id);
        auto named = scan_names.find(scan);
        if (named == scan_names.end())
            named = scan_names.emplace(scan, nb::str(scan.data(), scan.size())).first;
        std::string scope_name(row.scope);
        nb::object for_scope = make_scope(entry.url, scope_name);
        nb::object scanned = make_scope(row.scanned_url, row.scanned_scope);
        nb::ref<CScopeInfoKey> key(new CScopeInfoKey(for_scope, named->second, scanned));
        nb::ref<CScopeInfo> info(new CScopeInfo(key, nb::bytes(row.ibytes.data(), row.ibytes.size()),
                                                nb::float_(row.disk_mtime), (row.flags & 1) != 0));
        DecodeRecordParts(*info, row.parts, path, make_scope);

        RecordSlot slot;
        slot.scan_name = scan;
        slot.scanned_url = std::get<0>(scan_id);
        slot.scanned_name = std::get<1>(scan_id);
        slot.info = info;
        slot.persist = true;
        if (scan == fPrimaryScanName && info->disk_mtime > entry.latest_record_mtime)
            entry.latest_record_mtime = info->disk_mtime;
        entry.scopes[scope_name].records.push_back(std::move(slot));
        fRecordsOfScan[scan_id].emplace(entry.url, scope_name);
        ++entry.record_count;
        ++fRecordsInMemory;
    };
    if (scope)
        fDatabase->LoadScopeRecords(entry.db_id, *scope, add_row);
    else
        fDatabase->LoadRecords(entry.db_id, add_row);
}

Py_ssize_t CInfoCache::LocationsInMemory() const {
    Py_ssize_t n = 0;
    for (auto &[url, entry] : fEntries)
        if ((entry->records_loaded || !entry->scopes_loaded.empty()) && entry->record_count)
            ++n;
    return n;
}

// ---------------------------------------------------------------------------
// Records

AddResult CInfoCache::AddRecord(CScopeInfo &info, bool persist) {
    CScopeInfoKey &key = *info.key;
    LocEntry &entry = EntryFor(key.fForView.loc);
    EnsureRecords(entry);
    Touch(entry);
    std::string scope_name(key.fForView.name_view);
    std::string scanned_url = UrlOf(key.fScannedView.loc);
    std::string scanned_name(key.fScannedView.name_view);

    auto scope_it = entry.scopes.find(scope_name);
    std::size_t index = 0;
    bool found = false;
    if (scope_it != entry.scopes.end()) {
        auto &records = scope_it->second.records;
        for (; index < records.size(); ++index) {
            const RecordSlot &slot = records[index];
            if (slot.scan_name == key.fScanName && slot.scanned_name == scanned_name &&
                slot.scanned_url == scanned_url) {
                found = true;
                break;
            }
        }
    }

    if (info.not_found) {
        if (found) {
            RemoveSlot(entry, scope_name, index);
            NoteChanged(key.for_scope);
        }
        return AddResult::kDiscarded;
    }
    bool primary = key.fScanName == fPrimaryScanName;
    if (primary) {
        if (info.disk_mtime > entry.latest_record_mtime)
            entry.latest_record_mtime = info.disk_mtime;
        nb::cast<symbolinfo::CScope &>(key.for_scope).fPrimaryScanned = true;
    }

    if (found) {
        ScopeEntry &scope_entry = scope_it->second;
        RecordSlot &slot = scope_entry.records[index];
        bool same = slot.info.get() != &info && slot.info->SameContent(info);
        bool same_time = slot.info->disk_mtime == info.disk_mtime;
        bool was_written = slot.persist && !slot.dirty;
        slot.info = nb::ref<CScopeInfo>(&info);
        if (persist && !(same && same_time && was_written) && !slot.dirty) {
            slot.dirty = true;
            ++entry.dirty_records;
            MarkDirty(entry);
        } else if (!persist && slot.dirty) {
            slot.dirty = false;
            --entry.dirty_records;
        }
        slot.persist = persist;
        if (scope_entry.merged) {
            scope_entry.merged.reset();
            --fMergedCount;
        }
        if (same)
            return AddResult::kUnchanged;
        ++fRecordGeneration;
        if (primary)
            ++fPrimaryGeneration;
        NoteChanged(key.for_scope);
        return AddResult::kChanged;
    }

    RecordSlot slot;
    slot.scan_name = key.fScanName;
    slot.scanned_url = scanned_url;
    slot.scanned_name = scanned_name;
    slot.info = nb::ref<CScopeInfo>(&info);
    slot.persist = persist;
    slot.dirty = persist;
    if (persist) {
        ++entry.dirty_records;
        MarkDirty(entry);
    }
    ScopeEntry &scope_entry = entry.scopes[scope_name];
    scope_entry.records.push_back(std::move(slot));
    if (scope_entry.merged) {
        scope_entry.merged.reset();
        --fMergedCount;
    }
    fRecordsOfScan[ScanId(scanned_url, scanned_name, key.fScanName)].emplace(entry.url, scope_name);
    ++entry.record_count;
    ++fRecordsInMemory;
    ++fRecordGeneration;
    NoteChanged(key.for_scope);
    return AddResult::kChanged;
}

void CInfoCache::RemoveSlot(LocEntry &entry, const std::string &scope_name, std::size_t index) {
    auto scope_it = entry.scopes.find(scope_name);
    ScopeEntry &scope_entry = scope_it->second;
    RecordSlot &slot = scope_entry.records[index];
    ++fRecordGeneration;
    if (slot.scan_name == fPrimaryScanName)
        ++fPrimaryGeneration;
    if (slot.dirty)
        --entry.dirty_records;
    if (fDatabase && entry.db_id != 0) {
        entry.deleted.emplace_back(scope_name, slot.scan_name, slot.scanned_url, slot.scanned_name);
        MarkDirty(entry);
    }
    auto scan_it = fRecordsOfScan.find(ScanId(slot.scanned_url, slot.scanned_name, slot.scan_name));
    if (scan_it != fRecordsOfScan.end()) {
        scan_it->second.erase(RecordPlace(entry.url, scope_name));
        if (scan_it->second.empty())
            fRecordsOfScan.erase(scan_it);
    }
    scope_entry.records.erase(scope_entry.records.begin() + (std::ptrdiff_t) index);
    if (scope_entry.merged) {
        scope_entry.merged.reset();
        --fMergedCount;
    }
    if (scope_entry.records.empty())
        entry.scopes.erase(scope_it);
    --entry.record_count;
    --fRecordsInMemory;
}

void CInfoCache::RemoveRecordsOfScan(const ScanId &scan, const std::set<RecordPlace> *keep) {
    if (LocEntry *scanned = FindEntry(std::get<0>(scan)))
        MakeBlobRecords(*scanned);  // a file's own records are the only blob records
    auto scan_it = fRecordsOfScan.find(scan);
    if (scan_it == fRecordsOfScan.end())
        return;
    std::vector<RecordPlace> places(scan_it->second.begin(), scan_it->second.end());
    for (const RecordPlace &place : places) {
        if (keep && keep->count(place))
            continue;
        // Only records in memory are listed: of a location read whole or of
        // the scopes read alone.
        LocEntry *entry = FindEntry(place.first);
        if (!entry)
            continue;
        auto scope_it = entry->scopes.find(place.second);
        if (scope_it == entry->scopes.end())
            continue;
        auto &records = scope_it->second.records;
        for (std::size_t i = 0; i < records.size(); ++i) {
            const RecordSlot &slot = records[i];
            if (slot.scan_name == std::get<2>(scan) && slot.scanned_name == std::get<1>(scan) &&
                slot.scanned_url == std::get<0>(scan)) {
                nb::object scope = slot.info->key->for_scope;
                RemoveSlot(*entry, place.second, i);
                NoteChanged(scope);
                break;
            }
        }
    }
}

nb::object CInfoCache::AddScopeInfo(nb::handle info, bool can_write) {
    CScopeInfo &record = AsScopeInfo(info);
    return AddResultObject(AddRecord(record, can_write));
}

nb::object CInfoCache::AddScopeInfoListForSingleScan(nb::handle scope, nb::handle scan_name,
                                                     nb::handle infos, bool replace_previous) {
    ScopeView view = ViewScope(scope);
    std::string scan = ScanNameArg(scan_name, "AddScopeInfoListForSingleScan");
    ScanId scan_id(UrlOf(view.loc), std::string(view.name_view), scan);

    std::vector<std::pair<CScopeInfo *, nb::object>> records;  // the objects keep the records alive
    std::set<RecordPlace> places;
    for (nb::handle item : infos) {
        CScopeInfo &record = AsScopeInfo(item);
        const CScopeInfoKey &key = *record.key;
        if (key.fScanName != scan || key.fScannedView.name_view != view.name_view ||
            UrlOf(key.fScannedView.loc) != std::get<0>(scan_id))
            throw nb::value_error("AddScopeInfoListForSingleScan: a record's key names another scan");
        places.emplace(UrlOf(key.fForView.loc), std::string(key.fForView.name_view));
        records.emplace_back(&record, nb::borrow(item));
    }
    if (replace_previous) {
        RemoveRecordsOfScan(scan_id, &places);
        if (fDatabase)
            fReplacedScans.insert(scan_id);
    }
    Py_ssize_t changed = 0;
    for (auto &[record, obj] : records)
        if (AddRecord(*record, true) == AddResult::kChanged)
            ++changed;
    fScansWithNewRecords.insert(scan_id);
    return nb::int_(changed);
}

namespace {

const std::string kSerializedOrigin = "serialized record";

std::string_view BytesView(nb::handle bytes) {
    return std::string_view(PyBytes_AS_STRING(bytes.ptr()), (std::size_t) PyBytes_GET_SIZE(bytes.ptr()));
}

// The key of a blob record within its location, for finding a record of the
// same key among many.
struct BlobKey {
    std::string_view for_name, scan_name, scanned_url, scanned_name;
    explicit BlobKey(const RecordBlobView &view)
        : for_name(view.for_name), scan_name(view.scan_name), scanned_url(view.scanned_url),
          scanned_name(view.scanned_name) {}
    bool operator==(const BlobKey &) const = default;
};

struct BlobKeyHash {
    std::size_t operator()(const BlobKey &key) const {
        std::hash<std::string_view> hash;
        std::size_t h = hash(key.for_name);
        for (std::string_view part : {key.scan_name, key.scanned_url, key.scanned_name})
            h = h * 1000003u ^ hash(part);
        return h;
    }
};

}  // namespace

bool CInfoCache::AddScopeInfoBlobs(nb::handle loc, nb::handle blobs) {
    LocEntry &entry = EntryFor(loc);
    std::vector<BlobRecord> records;
    bool as_they_are = fDatabase && !fDatabase->IsReadOnly() && !fKeepWritesInMemory &&
                       fDeferDepth == 0 && ConnectionCount("scopes-modified") == 0 &&
                       !CScopeDependantCache::AnyDependants();
    for (nb::handle blob : blobs) {
        if (!PyBytes_Check(blob.ptr()))
            throw nb::type_error("AddScopeInfoBlobs: the records must be bytes");
        try {
            records.push_back({nb::borrow(blob), ViewRecordBlob(BytesView(blob), kSerializedOrigin)});
        } catch (const InfoDatabaseError &e) {
            throw nb::value_error(e.what());
        }
        as_they_are = as_they_are && records.back().view.for_url == entry.url;
    }
    if (as_they_are) {
        EnsureRecords(entry);
        as_they_are = entry.db_id == 0 && entry.record_count == 0 && entry.deleted.empty();
    }
    if (!as_they_are) {
        for (const BlobRecord &record : records) {
            nb::ref<CScopeInfo> info = DecodeBlob(record.blob);
            AddScopeInfo(nb::cast(info.get()), true);
        }
        return false;
    }
    // What the records say in the end: a later record of a key replaces the
    // earlier one in its place, a not-found one drops it.
    std::vector<BlobRecord> &kept = entry.blob_records;
    std::unordered_map<BlobKey, std::size_t, BlobKeyHash> place;  // key -> index in `kept`
    auto index_kept = [&]() {
        place.clear();
        for (std::size_t i = 0; i < kept.size(); ++i)
            place.emplace(BlobKey(kept[i].view), i);
    };
    index_kept();
    for (BlobRecord &record : records) {
        auto found = place.find(BlobKey(record.view));
        auto same = found == place.end() ? kept.end() : kept.begin() + (std::ptrdiff_t) found->second;
        if (record.view.not_found) {
            if (same != kept.end()) {
                if (record.view.scan_name == fPrimaryScanName)
                    ++fPrimaryGeneration;
                ++fRecordGeneration;
                entry.changed_at[std::string(record.view.for_name)] = fRecordGeneration;
                kept.erase(same);
                index_kept();  // the places after it moved
            }
            continue;
        }
        if (record.view.scan_name == fPrimaryScanName) {
            entry.latest_record_mtime = std::max(entry.latest_record_mtime, record.view.disk_mtime);
            if (same != kept.end())
                ++fPrimaryGeneration;
        }
        ++fRecordGeneration;
        entry.changed_at[std::string(record.view.for_name)] = fRecordGeneration;
        if (same != kept.end()) {
            // The key's views move to the new blob with it.
            std::size_t i = found->second;
            place.erase(found);
            *same = std::move(record);
            place.emplace(BlobKey(kept[i].view), i);
        } else {
            kept.push_back(std::move(record));
            place.emplace(BlobKey(kept.back().view), kept.size() - 1);
        }
    }
    entry.record_count = kept.size();
    fRecordsInMemory += kept.size();
    Touch(entry);
    MarkDirty(entry);
    return true;
}

void CInfoCache::MakeBlobRecords(LocEntry &entry) {
    if (entry.blob_records.empty())
        return;
    std::vector<BlobRecord> records = std::move(entry.blob_records);
    entry.blob_records.clear();
    fRecordsInMemory -= entry.record_count;
    entry.record_count = 0;
    for (const BlobRecord &record : records)
        AddRecord(*DecodeBlob(record.blob), true);
}

nb::ref<CScopeInfo> CInfoCache::DecodeBlob(nb::handle blob) {
    try {
        return DecodeRecord(BytesView(blob), kSerializedOrigin, [this](std::string_view url, std::string_view name) {
            return ScopeFromStore(url, name);
        });
    } catch (const InfoDatabaseError &e) {
        throw nb::value_error(e.what());
    }
}

void CInfoCache::MakeAllBlobRecords() {
    std::vector<LocEntry *> holding;
    for (LocEntry *entry : fDirtyEntries)
        if (!entry->blob_records.empty())
            holding.push_back(entry);
    for (LocEntry *entry : holding)
        MakeBlobRecords(*entry);
}

Py_ssize_t CInfoCache::CountIncompleteScopes(nb::handle loc) {
    LocEntry &entry = EntryFor(loc);
    // A scope's merged record is incomplete when its first primary record is.
    Py_ssize_t count = 0;
    if (!entry.blob_records.empty()) {
        std::set<std::string_view> seen;
        for (const BlobRecord &record : entry.blob_records)
            if (record.view.scan_name == fPrimaryScanName && seen.insert(record.view.for_name).second &&
                record.view.incomplete)
                ++count;
        return count;
    }
    EnsureRecords(entry);
    for (auto &[name, scope_entry] : entry.scopes)
        for (const RecordSlot &slot : scope_entry.records)
            if (slot.scan_name == fPrimaryScanName) {
                count += slot.info->incomplete ? 1 : 0;
                break;
            }
    return count;
}

void CInfoCache::FinishedWithScans(nb::handle scope, nb::handle scan_name) {
    ScopeView view = ViewScope(scope);
    std::string scan = ScanNameArg(scan_name, "FinishedWithScans");
    ScanId scan_id(UrlOf(view.loc), std::string(view.name_view), scan);
    if (fScansWithNewRecords.erase(scan_id))
        return;
    // The scan ended with nothing to say: what it said before is void.
    RemoveRecordsOfScan(scan_id, nullptr);
    if (fDatabase)
        fReplacedScans.insert(scan_id);
}

nb::ref<CScopeInfo> CInfoCache::BuildMerged(const ScopeEntry &scope_entry) {
    const RecordSlot *primary = nullptr;
    std::vector<const RecordSlot *> others;
    for (const RecordSlot &slot : scope_entry.records) {
        if (!primary && slot.scan_name == fPrimaryScanName)
            primary = &slot;
        else
            others.push_back(&slot);
    }
    if (!primary)
        return nb::ref<CScopeInfo>();
    if (others.empty())
        return primary->info;
    std::sort(others.begin(), others.end(), [](const RecordSlot *a, const RecordSlot *b) {
        return std::tie(a->scan_name, a->scanned_url, a->scanned_name) <
               std::tie(b->scan_name, b->scanned_url, b->scanned_name);
    });
    const CScopeInfo &base = *primary->info;
    nb::ref<CScopeInfo> merged(new CScopeInfo(base.key, base.ibytes, nb::float_(base.disk_mtime),
                                              base.incomplete));
    merged->type_equivs = nb::borrow<nb::dict>(CopyDict(base.type_equivs));
    if (!base.inst_type_equivs.is_none())
        merged->inst_type_equivs = CopyDict(base.inst_type_equivs);
    merged->domains = base.domains;
    std::vector<nb::handle> seen{base.scopes_seen}, imports{base.resolved_imports};
    for (const RecordSlot *slot : others) {
        const CScopeInfo &record = *slot->info;
        FoldNameMap(merged->type_equivs, record.type_equivs);
        if (!record.inst_type_equivs.is_none()) {
            if (merged->inst_type_equivs.is_none())
                merged->inst_type_equivs = nb::dict();
            FoldNameMap(merged->inst_type_equivs, record.inst_type_equivs);
        }
        seen.push_back(record.scopes_seen);
        imports.push_back(record.resolved_imports);
    }
    merged->scopes_seen = UnionOfSets(seen);
    merged->resolved_imports = UnionOfSets(imports);
    merged->finished = true;
    return merged;
}

nb::object CInfoCache::GetScopeInfo(nb::handle scope) {
    ScopeView view = ViewScope(scope);
    LocEntry &entry = EntryFor(view.loc);
    ScopeEntry *found = ScopeRecords(entry, view.name_view);
    Touch(entry);
    if (!found)
        return nb::none();
    ScopeEntry &scope_entry = *found;
    if (scope_entry.merged)
        return nb::cast(scope_entry.merged.get());
    nb::ref<CScopeInfo> merged = BuildMerged(scope_entry);
    if (!merged)
        return nb::none();
    if (scope_entry.records.size() > 1) {
        scope_entry.merged = merged;
        ++fMergedCount;
    }
    return nb::cast(merged.get());
}

Py_ssize_t CInfoCache::CountScopeInfoRecords(nb::handle scope) {
    ScopeView view = ViewScope(scope);
    ScopeEntry *found = ScopeRecords(EntryFor(view.loc), view.name_view);
    return found ? (Py_ssize_t) found->records.size() : -1;
}

nb::list CInfoCache::GetScopeInfoRecords(nb::handle scope) {
    ScopeView view = ViewScope(scope);
    nb::list out;
    if (ScopeEntry *found = ScopeRecords(EntryFor(view.loc), view.name_view))
        for (const RecordSlot &slot : found->records)
            out.append(nb::cast(slot.info.get()));
    return out;
}

nb::list CInfoCache::GetScopesForLoc(nb::handle loc) {
    LocEntry &entry = EntryFor(loc);
    if (StoredRowsStand(entry))
        return entry.db_id == 0 ? nb::list() : nb::borrow<nb::list>(fDatabase->LoadScopeNames(entry.db_id));
    EnsureRecords(entry);
    std::vector<std::string> names;
    for (auto &[name, scope_entry] : entry.scopes)
        names.push_back(name);
    std::sort(names.begin(), names.end());
    nb::list out;
    for (const std::string &name : names)
        out.append(nb::str(name.data(), name.size()));
    return out;
}

bool CInfoCache::StoredRowsStand(LocEntry &entry) {
    EnsureMeta(entry);
    return fDatabase && !entry.records_loaded && fReplacedScans.empty() && entry.deleted.empty();
}

nb::list CInfoCache::FindScopesNamed(nb::handle name) {
    if (!PyUnicode_Check(name.ptr()))
        throw nb::type_error("FindScopesNamed: the name must be str");
    std::string target = nb::cast<std::string>(name);
    auto matches = [&](std::string_view scope) {
        if (scope == target)
            return true;
        return scope.size() > target.size() && scope.ends_with(target) &&
               scope[scope.size() - target.size() - 1] == '.';
    };
    MakeAllBlobRecords();
    std::map<std::pair<std::string, std::string>, nb::object> found;
    std::set<std::string> read;  // locations answered from memory
    auto from_memory = [&](LocEntry &entry) {
        read.insert(entry.url);
        for (auto &[scope, scope_entry] : entry.scopes)
            if (matches(scope))
                found.emplace(std::make_pair(entry.url, scope), entry.loc);
    };
    for (auto &[url, entry] : fEntries)
        if (entry->records_loaded)
            from_memory(*entry);
    if (fDatabase) {
        std::size_t dot = target.rfind('.');
        std::string leaf = dot == std::string::npos ? target : target.substr(dot + 1);
        ReadingRows([&] {
            for (nb::handle row : fDatabase->FindScopesWithLeaf(leaf)) {
                std::string url = nb::cast<std::string>(row[0]);
                if (read.count(url))
                    continue;
                LocEntry &entry = EntryForUrl(url, nb::handle());
                if (!StoredRowsStand(entry)) {
                    EnsureRecords(entry);
                    from_memory(entry);
                    continue;
                }
                std::string scope = nb::cast<std::string>(row[1]);
                if (matches(scope))
                    found.emplace(std::make_pair(url, std::move(scope)), entry.loc);
            }
        });
    }
    nb::list out;
    for (auto &[place, loc] : found)
        out.append(nb::make_tuple(loc, nb::str(place.second.data(), place.second.size())));
    return out;
}

nb::list CInfoCache::GetScopeCounts() {
    // (URL, kind) -> (scopes, incomplete scopes)
    std::map<std::pair<std::string, std::string>, std::pair<std::int64_t, std::int64_t>> counts;
    std::set<std::string> in_memory;
    MakeAllBlobRecords();
    auto count_in_memory = [&](LocEntry &entry) {
        in_memory.insert(entry.url);
        for (auto &[name, scope_entry] : entry.scopes)
            for (const RecordSlot &slot : scope_entry.records) {
                if (slot.scan_name != fPrimaryScanName)
                    continue;
                std::string kind(ScopeKindName(name, symbolinfo::TextView(slot.info->ibytes, "ibytes")));
                auto &count = counts[{entry.url, std::move(kind)}];
                ++count.first;
                count.second += slot.info->incomplete ? 1 : 0;
            }
    };
    for (auto &[url, entry] : fEntries)
        if (entry->records_loaded)
            count_in_memory(*entry);
    if (fDatabase)
        ReadingRows([&] {
            for (nb::handle row : fDatabase->LoadScopeCounts(fPrimaryScanName)) {
                std::string url = nb::cast<std::string>(row[0]);
                if (in_memory.count(url))
                    continue;
                if (!fReplacedScans.empty()) {  // the stored rows may not stand
                    LocEntry &entry = EntryForUrl(url, nb::handle());
                    EnsureRecords(entry);
                    count_in_memory(entry);
                    continue;
                }
                counts[{url, nb::cast<std::string>(row[1])}] = {nb::cast<std::int64_t>(row[2]),
                                                                nb::cast<std::int64_t>(row[3])};
            }
        });
    nb::list out;
    nb::object loc;
    const std::string *loc_url = nullptr;
    for (auto &[place, count] : counts) {
        if (!loc_url || *loc_url != place.first) {
            LocEntry *entry = FindEntry(place.first);
            loc = entry ? entry->loc : LocationFromUrl(place.first);
            loc_url = &place.first;
        }
        out.append(nb::make_tuple(loc, nb::str(place.second.data(), place.second.size()),
                                  count.first, count.second));
    }
    return out;
}

bool CInfoCache::HoldsFacts(const LocEntry &entry) {
    return entry.record_count != 0 || entry.db_id != 0 || entry.disk_mtime != -1.0 ||
           !entry.scans_done.empty() || !entry.checksum.is_none() || !entry.words.is_none();
}

nb::list CInfoCache::GetLocations() {
    // Entries made by mere lookups hold nothing and are left out.
    std::map<std::string, nb::object> known;
    for (auto &[url, entry] : fEntries)
        if (HoldsFacts(*entry))
            known.emplace(url, entry->loc);
    if (fDatabase)
        for (nb::handle url : fDatabase->LoadLocationUrls()) {
            std::string text = nb::cast<std::string>(url);
            if (known.count(text))
                continue;
            LocEntry *entry = FindEntry(text);
            known.emplace(text, entry ? entry->loc : LocationFromUrl(text));
        }
    nb::list out;
    for (auto &[url, loc] : known)
        out.append(loc);
    return out;
}

Py_ssize_t CInfoCache::ForgetScopesOfLoc(nb::handle loc, nb::handle scan_name, nb::handle keep_names) {
    std::string scan = ScanNameArg(scan_name, "ForgetScopesOfLoc");
    std::set<std::string, std::less<>> keep;
    for (nb::handle name : keep_names) {
        if (!PyUnicode_Check(name.ptr()))
            throw nb::type_error("ForgetScopesOfLoc: scope names must be str");
        keep.insert(nb::cast<std::string>(name));
    }
    LocEntry &entry = EntryFor(loc);
    // Which scopes the file has is the primary scan's to say.
    Py_ssize_t dropped = scan == fPrimaryScanName ? ForgetScansOfGoneScopes(entry, scan, keep) : 0;
    auto kept = [&](const BlobRecord &record) {
        return record.view.scan_name != scan || record.view.scanned_url != entry.url ||
               keep.count(record.view.for_name);
    };
    if (!entry.blob_records.empty() &&
        std::all_of(entry.blob_records.begin(), entry.blob_records.end(), kept))
        return dropped;
    EnsureRecords(entry);
    std::vector<std::string> gone;
    for (auto &[name, scope_entry] : entry.scopes)
        if (!keep.count(name))
            gone.push_back(name);
    for (const std::string &name : gone) {
        // Each removal may erase the scope's entry: look it up afresh.
        for (;;) {
            auto scope_it = entry.scopes.find(name);
            if (scope_it == entry.scopes.end())
                break;
            auto &records = scope_it->second.records;
            std::size_t i = 0;
            while (i < records.size() &&
                   !(records[i].scan_name == scan && records[i].scanned_url == entry.url))
                ++i;
            if (i == records.size())
                break;
            nb::object scope = records[i].info->key->for_scope;
            RemoveSlot(entry, name, i);
            NoteChanged(scope);
            ++dropped;
        }
    }
    return dropped;
}

Py_ssize_t CInfoCache::ForgetScansOfGoneScopes(LocEntry &entry, const std::string &own_scan,
                                                const std::set<std::string, std::less<>> &keep) {
    std::set<ScanId> gone;
    auto is_gone = [&](const std::string &scanned_name, const std::string &scan) {
        return scan != own_scan && !keep.count(scanned_name);
    };
    for (auto it = fRecordsOfScan.lower_bound(ScanId(entry.url, std::string(), std::string()));
         it != fRecordsOfScan.end() && std::get<0>(it->first) == entry.url; ++it)
        if (is_gone(std::get<1>(it->first), std::get<2>(it->first)))
            gone.insert(it->first);
    EnsureMeta(entry);
    if (fDatabase && entry.db_id != 0)
        for (nb::handle row : fDatabase->LoadScansOfScannedLoc(entry.db_id)) {
            std::string scanned_name = nb::cast<std::string>(row[0]);
            std::string scan = nb::cast<std::string>(row[1]);
            if (is_gone(scanned_name, scan))
                gone.emplace(entry.url, std::move(scanned_name), std::move(scan));
        }
    for (const ScanId &scan : gone) {
        RemoveRecordsOfScan(scan, nullptr);
        fScansWithNewRecords.erase(scan);
        if (fDatabase)
            fReplacedScans.insert(scan);  // and their rows in files not read
    }
    return (Py_ssize_t) gone.size();
}

Py_ssize_t CInfoCache::ForgetLocation(nb::handle loc) {
    LocEntry &entry = EntryFor(loc);
    EnsureMeta(entry);
    MakeBlobRecords(entry);  // so that their scopes are told
    // The file first: when it fails, memory still agrees with it.
    std::int64_t stored = 0;
    if (fDatabase && entry.db_id != 0)
        stored = fDatabase->DeleteLocation(entry.db_id);
    Py_ssize_t dropped = (Py_ssize_t) entry.record_count;
    // Records the location's scans made for scopes elsewhere.
    std::vector<ScanId> its_scans;
    for (auto &[scan, places] : fRecordsOfScan)
        if (std::get<0>(scan) == entry.url)
            its_scans.push_back(scan);
    for (const ScanId &scan : its_scans) {
        RemoveRecordsOfScan(scan, nullptr);
        fReplacedScans.erase(scan);
        fScansWithNewRecords.erase(scan);
    }
    ++fRecordGeneration;  // the location's own records go below
    std::vector<nb::object> changed;
    for (auto &[name, scope_entry] : entry.scopes)
        if (!scope_entry.records.empty())
            changed.push_back(scope_entry.records.front().info->key->for_scope);
    EvictRecords(entry);
    for (nb::handle scope : changed)
        NoteChanged(scope);
    entry.records_loaded = entry.meta_loaded = true;
    entry.deleted.clear();
    entry.dirty_records = 0;
    entry.meta_dirty = false;
    fDirtyEntries.erase(&entry);
    entry.db_id = 0;
    entry.disk_mtime = entry.latest_record_mtime = -1.0;
    entry.checksum = nb::none();
    entry.words = nb::none();
    entry.scans_done.clear();
    return fDatabase ? (Py_ssize_t) stored : dropped;
}

// ---------------------------------------------------------------------------
// Per-location facts

double CInfoCache::GetLocDiskMTime(nb::handle loc) {
    LocEntry &entry = MetaOf(loc);
    if (entry.disk_mtime > 1.0)
        return entry.disk_mtime;
    if (entry.latest_record_mtime > 1.0)
        return entry.latest_record_mtime;
    return entry.disk_mtime;
}

void CInfoCache::ChangeScansDone(nb::handle loc, nb::handle scan_name, bool done, nb::handle disk_mtime) {
    std::string scan = ScanNameArg(scan_name, "ChangeScansDone");
    double t = DiskTimeArg(disk_mtime, "ChangeScansDone");
    LocEntry &entry = MetaOf(loc);
    if (done) {
        entry.scans_done[scan] = t;
        if (t > 1.0)
            entry.disk_mtime = t;
    } else {
        entry.scans_done.erase(scan);
    }
    MetaChanged(entry);
}

void CInfoCache::SetEOLBlindChecksum(nb::handle loc, nb::handle checksum, nb::handle mtime) {
    double t = DiskTimeArg(mtime, "SetEOLBlindChecksum");
    LocEntry &entry = MetaOf(loc);
    entry.checksum = nb::borrow(checksum);
    if (t > 1.0)
        entry.disk_mtime = t;
    MetaChanged(entry);
}

nb::object CInfoCache::GetScansDone(nb::handle loc) {
    LocEntry &entry = MetaOf(loc);
    nb::dict out;
    for (auto &[scan, t] : entry.scans_done)
        out[nb::str(scan.data(), scan.size())] = nb::float_(t);
    return out;
}

bool CInfoCache::IsScanDone(nb::handle loc, nb::handle scan_name, nb::handle disk_mtime) {
    std::string scan = ScanNameArg(scan_name, "IsScanDone");
    double t = DiskTimeArg(disk_mtime, "IsScanDone");
    LocEntry &entry = MetaOf(loc);
    auto it = entry.scans_done.find(scan);
    return it != entry.scans_done.end() && t > 1.0 && it->second == t;
}

nb::object CInfoCache::GetEOLBlindChecksum(nb::handle loc) {
    LocEntry &entry = MetaOf(loc);
    return entry.checksum;
}

void CInfoCache::SaveWords(nb::handle loc, nb::handle words) {
    nb::object frozen = AtomicFrozenSet(words);
    for (nb::handle word : frozen)
        if (!PyUnicode_Check(word.ptr()))
            throw nb::type_error("SaveWords: words must be str");
    LocEntry &entry = MetaOf(loc);
    entry.words = frozen;
    MetaChanged(entry);
}

nb::object CInfoCache::GetWords(nb::handle loc) {
    LocEntry &entry = MetaOf(loc);
    return entry.words;
}

// ---------------------------------------------------------------------------
// Notifications

void CInfoCache::NoteChanged(nb::handle scope) {
    ScopeView view = ViewScope(scope);
    EntryFor(view.loc).changed_at[std::string(view.name_view)] = fRecordGeneration;
    CScopeDependantCache::InvalidateScopeEverywhere(scope);
    if (fDeferDepth > 0) {
        if (PySet_Add(fPendingScopes.ptr(), scope.ptr()) < 0)
            throw nb::python_error();
        return;
    }
    if (ConnectionCount("scopes-modified") == 0)
        return;
    nb::object batch = nb::steal(PyFrozenSet_New(nb::make_tuple(scope).ptr()));
    emit("scopes-modified", nb::make_tuple(SelfObject(), batch));
}

std::uint64_t CInfoCache::ScopeChangedAt(nb::handle scope) {
    ScopeView view = ViewScope(scope);
    const auto &changed_at = EntryFor(view.loc).changed_at;
    auto it = changed_at.find(view.name_view);
    return it == changed_at.end() ? 0 : it->second;
}

void CInfoCache::BeginDeferScopesModified() { ++fDeferDepth; }

void CInfoCache::FlushScopesModified() {
    if (fDeferDepth == 0)
        throw std::runtime_error("FlushScopesModified without a matching BeginDeferScopesModified");
    if (--fDeferDepth > 0 || PySet_GET_SIZE(fPendingScopes.ptr()) == 0)
        return;
    nb::object batch = nb::steal(PyFrozenSet_New(fPendingScopes.ptr()));
    fPendingScopes = nb::steal(PySet_New(nullptr));
    if (ConnectionCount("scopes-modified") == 0)
        return;
    emit("scopes-modified", nb::make_tuple(SelfObject(), batch));
}

// ---------------------------------------------------------------------------
// Memory bound

bool CInfoCache::CanEvict(const LocEntry &entry) const {
    bool in_memory = entry.records_loaded || !entry.scopes_loaded.empty();
    if (!in_memory || entry.record_count == 0 || entry.dirty_records || !entry.deleted.empty() ||
        entry.meta_dirty || !entry.blob_records.empty())
        return false;
    for (auto &[name, scope_entry] : entry.scopes)
        for (const RecordSlot &slot : scope_entry.records)
            if (!slot.persist ||
                fReplacedScans.count(ScanId(slot.scanned_url, slot.scanned_name, slot.scan_name)))
                return false;
    return true;
}

void CInfoCache::EvictRecords(LocEntry &entry) {
    for (auto &[name, scope_entry] : entry.scopes) {
        if (scope_entry.merged)
            --fMergedCount;
        for (const RecordSlot &slot : scope_entry.records) {
            auto it = fRecordsOfScan.find(ScanId(slot.scanned_url, slot.scanned_name, slot.scan_name));
            if (it != fRecordsOfScan.end()) {
                it->second.erase(RecordPlace(entry.url, name));
                if (it->second.empty())
                    fRecordsOfScan.erase(it);
            }
        }
    }
    fRecordsInMemory -= entry.record_count;
    entry.scopes.clear();
    entry.scopes_loaded.clear();
    entry.record_count = 0;
    entry.records_loaded = false;
}

void CInfoCache::Trim() {
    if ((Py_ssize_t) fMergedCount > fMaxMergedInfos) {
        for (auto &[url, entry] : fEntries)
            for (auto &[name, scope_entry] : entry->scopes)
                scope_entry.merged.reset();
        fMergedCount = 0;
    }
    if (!fDatabase || (Py_ssize_t) fRecordsInMemory <= fMaxRecordsInMemory ||
        fRecordsInMemory < fNextEvictionAttempt)
        return;
    // Locations used since the last trim are the working set of the scan
    // under way: evicted, they would be read back at once, over and over
    // while unwritten records hold the count above the bound.
    std::vector<LocEntry *> candidates;
    for (auto &[url, entry] : fEntries)
        if (entry->last_use <= fLastTrimUse && CanEvict(*entry))
            candidates.push_back(entry.get());
    fLastTrimUse = fUseClock;
    std::sort(candidates.begin(), candidates.end(),
              [](const LocEntry *a, const LocEntry *b) { return a->last_use < b->last_use; });
    std::size_t goal = (std::size_t) (fMaxRecordsInMemory / 4 * 3);
    for (LocEntry *entry : candidates) {
        if (fRecordsInMemory <= goal)
            break;
        EvictRecords(*entry);
    }
    // Still above the bound: everything left waits to be written.  Don't
    // look again on every call, only after a write or real growth.
    fNextEvictionAttempt = (Py_ssize_t) fRecordsInMemory > fMaxRecordsInMemory
                               ? fRecordsInMemory + (std::size_t) fMaxRecordsInMemory / 10 + 1
                               : 0;
}

// ---------------------------------------------------------------------------
// The database

void CInfoCache::OpenDatabase(const std::string &path, bool read_only) {
    if (fDatabase)
        throw std::runtime_error("CInfoCache: a database is open already; close it first");
    if (!fEntries.empty())
        throw std::runtime_error("CInfoCache: a database can only be opened on an empty cache");
    fDatabase = std::make_unique<CInfoDatabase>(path, read_only);
    if (!fDatabase->OpenMessage().empty())
        nb::module_::import_("logging").attr("getLogger")("pysource.scopeinfo").attr("warning")(
            fDatabase->OpenMessage());
}

void CInfoCache::CloseDatabase() {
    if (!fDatabase)
        return;
    if (!fHeldWrites.empty() && !fDatabase->IsReadOnly()) {
        std::set<std::string> held = fHeldWrites;
        WriteLocations(&held);
    }
    MakeAllBlobRecords();  // memory is all there will be
    fDatabase->Close();  // refused while another thread uses it: then it stays
    fDatabase.reset();
    // What is in memory stays and is now all there is.
    for (auto &[url, entry] : fEntries) {
        entry->meta_loaded = entry->records_loaded = true;
        entry->scopes_loaded.clear();
        entry->deleted.clear();
    }
    fReplacedScans.clear();
}

nb::object CInfoCache::DatabasePath() const {
    if (!fDatabase)
        return nb::none();
    return nb::str(fDatabase->Path().c_str());
}

nb::object CInfoCache::DatabaseMessage() const {
    if (!fDatabase || fDatabase->OpenMessage().empty())
        return nb::none();
    return nb::str(fDatabase->OpenMessage().c_str());
}

StoredRecord CInfoCache::RowForSlot(const LocEntry &entry, const std::string &scope_name,
                                   const RecordSlot &slot, std::int64_t scanned_id, RowBlobs &blobs) {
    const CScopeInfo &info = *slot.info;
    StoredRecord row;
    row.loc_id = entry.db_id;
    row.scope = scope_name;
    row.scan_name = slot.scan_name;
    row.scanned_loc_id = scanned_id;
    row.scanned_scope = slot.scanned_name;
    row.ibytes = BytesView(info.ibytes);
    row.disk_mtime = info.disk_mtime;
    row.flags = info.incomplete ? 1 : 0;
    // The row's blobs one after the other in one string.
    std::string &scratch = blobs.scratch;
    scratch.clear();
    auto url_of = [this](nb::handle loc) { return UrlOf(loc); };
    std::size_t ends[5] = {};
    nb::handle parts[5] = {info.type_equivs, info.inst_type_equivs, info.domains, info.scopes_seen,
                           info.resolved_imports};
    for (std::size_t i = 0; i < 5; ++i) {
        if (i == 0 || !parts[i].is_none()) {
            if (i < 3)
                EncodeNameMapTo(scratch, parts[i]);
            else
                EncodeScopesTo(scratch, parts[i], url_of);
        }
        ends[i] = scratch.size();
    }
    std::string_view kept = blobs.kept.emplace_back(scratch);
    std::size_t start = 0;
    for (std::size_t i = 0; i < 5; ++i) {
        if (i == 0 || !parts[i].is_none())
            row.parts[i] = kept.substr(start, ends[i] - start);
        start = ends[i];
    }
    return row;
}

nb::object CInfoCache::WriteToDatabase(nb::handle locs) {
    if (!fDatabase)
        return nb::int_(0);
    // A reader with nothing to write stays quiet; anything to write raises,
    // unless the reader keeps what it learns in memory.
    if (fDatabase->IsReadOnly() && (fKeepWritesInMemory || (fDirtyEntries.empty() && fReplacedScans.empty())))
        return nb::int_(0);
    if (locs.is_none())
        return WriteLocations(nullptr);
    for (nb::handle loc : locs)
        fHeldWrites.insert(UrlOf(loc));
    if ((Py_ssize_t) fHeldWrites.size() < fWriteBatchLocations)
        return nb::int_(0);
    std::set<std::string> held = fHeldWrites;
    return WriteLocations(&held);
}

nb::object CInfoCache::WriteLocations(const std::set<std::string> *urls) {
    bool all = urls == nullptr;
    auto wanted = [&](const std::string &url) { return all || urls->count(url) != 0; };

    std::vector<std::pair<LocEntry *, RecordSlot *>> written;
    std::unordered_set<const RecordSlot *> written_set;
    std::vector<LocEntry *> meta_written, new_ids, partial_deletes, blobs_written;
    std::vector<ScanId> scans_replaced;
    std::vector<StoredRecord> upserts;
    std::vector<StoredRecordKey> deletes;
    RowBlobs encoded;  // the blobs of `upserts` made for the write
    std::set<std::int64_t> recount;  // locations whose primary records change
    auto db_id_of = [&](LocEntry &entry) {
        if (entry.db_id == 0) {
            entry.db_id = fDatabase->EnsureLocation(entry.url);
            new_ids.push_back(&entry);
        }
        return entry.db_id;
    };
    // The id of a location that may be in the file already, or 0.
    auto stored_id_of = [&](const std::string &url) -> std::int64_t {
        LocEntry &entry = EntryForUrl(url, nb::handle());
        EnsureMeta(entry);
        return entry.db_id;
    };
    auto write_slot = [&](LocEntry &entry, const std::string &scope_name, RecordSlot &slot) {
        if (!written_set.insert(&slot).second)
            return;
        db_id_of(entry);
        std::int64_t scanned_id = db_id_of(EntryForUrl(slot.scanned_url, nb::handle()));
        upserts.push_back(RowForSlot(entry, scope_name, slot, scanned_id, encoded));
        written.emplace_back(&entry, &slot);
        if (slot.scan_name == fPrimaryScanName)
            recount.insert(entry.db_id);
    };

    auto write_blobs = [&](LocEntry &entry) {
        std::int64_t id = db_id_of(entry);
        for (const BlobRecord &record : entry.blob_records) {
            const RecordBlobView &view = record.view;
            StoredRecord &row = upserts.emplace_back();
            row.loc_id = id;
            row.scope = view.for_name;
            row.scan_name = view.scan_name;
            row.scanned_loc_id = view.scanned_url == entry.url
                                     ? id
                                     : db_id_of(EntryForUrl(std::string(view.scanned_url), nb::handle()));
            row.scanned_scope = view.scanned_name;
            row.ibytes = view.ibytes;
            row.disk_mtime = view.disk_mtime;
            row.flags = view.incomplete ? 1 : 0;
            row.parts = view.parts;
            if (view.scan_name == fPrimaryScanName)
                recount.insert(id);
        }
        blobs_written.push_back(&entry);
    };
    // Blob records of a location not written whole, which the write wants
    // some of, are made into records first.
    if (!all) {
        std::vector<LocEntry *> partly;
        for (LocEntry *entry : fDirtyEntries)
            if (!wanted(entry->url) &&
                std::any_of(entry->blob_records.begin(), entry->blob_records.end(),
                            [&](const BlobRecord &record) { return wanted(std::string(record.view.scanned_url)); }))
                partly.push_back(entry);
        for (LocEntry *entry : partly)
            MakeBlobRecords(*entry);
    }

    fDatabase->Begin();
    try {
        std::vector<StoredScanKey> replaced_rows;
        for (const ScanId &scan : fReplacedScans)
            if (wanted(std::get<0>(scan)))
                if (std::int64_t id = stored_id_of(std::get<0>(scan))) {
                    replaced_rows.push_back({id, std::get<1>(scan), std::get<2>(scan)});
                    if (std::get<2>(scan) == fPrimaryScanName)  // a scope's own scan
                        recount.insert(id);
                }
        fDatabase->DeleteRecordsOfScans(replaced_rows);
        for (const ScanId &scan : fReplacedScans) {
            if (!wanted(std::get<0>(scan)))
                continue;
            scans_replaced.push_back(scan);
            auto it = fRecordsOfScan.find(scan);
            if (it == fRecordsOfScan.end())
                continue;
            for (const RecordPlace &place : it->second) {
                LocEntry *entry = FindEntry(place.first);
                auto scope_it = entry->scopes.find(place.second);
                for (RecordSlot &slot : scope_it->second.records)
                    if (slot.persist && slot.scan_name == std::get<2>(scan) &&
                        slot.scanned_name == std::get<1>(scan) && slot.scanned_url == std::get<0>(scan))
                        write_slot(*entry, place.second, slot);
            }
        }
        // In URL order, so that new locations get the same ids in every run.
        std::vector<LocEntry *> dirty(fDirtyEntries.begin(), fDirtyEntries.end());
        std::sort(dirty.begin(), dirty.end(),
                  [](const LocEntry *a, const LocEntry *b) { return a->url < b->url; });
        for (LocEntry *entry : dirty) {
            bool whole = wanted(entry->url);
            if (whole && entry->meta_dirty) {
                std::int64_t id = db_id_of(*entry);
                fDatabase->WriteLocationMeta(
                    id, entry->disk_mtime, entry->checksum,
                    entry->words.is_none() ? nb::object(nb::none()) : nb::object(EncodeStrings(entry->words)));
                fDatabase->ReplaceScansDone(id, entry->scans_done);
                meta_written.push_back(entry);
            }
            if (!entry->deleted.empty() && entry->db_id != 0) {
                for (auto &[scope, scan, scanned_url, scanned_name] : entry->deleted)
                    if (whole || wanted(scanned_url))
                        if (std::int64_t scanned_id = stored_id_of(scanned_url)) {
                            deletes.push_back({entry->db_id, scope, scan, scanned_id, scanned_name});
                            if (scan == fPrimaryScanName)
                                recount.insert(entry->db_id);
                        }
                partial_deletes.push_back(entry);
            }
            if (whole && !entry->blob_records.empty())
                write_blobs(*entry);
            if (entry->dirty_records == 0)
                continue;
            for (auto &[scope_name, scope_entry] : entry->scopes)
                for (RecordSlot &slot : scope_entry.records)
                    if (slot.dirty && (whole || wanted(slot.scanned_url)))
                        write_slot(*entry, scope_name, slot);
        }
        fDatabase->DeleteRecords(deletes);
        // In key order the B-tree fills page by page instead of at random.
        std::stable_sort(upserts.begin(), upserts.end(), &StoredRecord::KeyLess);
        fDatabase->UpsertRecords(upserts);
        fDatabase->RecountScopes(recount, fPrimaryScanName);
        CInfoDatabase::CallWriteHook(fDatabase->Path());
        fDatabase->Commit();
    } catch (...) {
        fDatabase->Rollback();
        for (LocEntry *entry : new_ids)
            entry->db_id = 0;
        throw;
    }

    for (auto &[entry, slot] : written)
        if (slot->dirty) {
            slot->dirty = false;
            --entry->dirty_records;
        }
    for (LocEntry *entry : meta_written)
        entry->meta_dirty = false;
    // Written blob records are read back from the file when wanted.
    std::size_t blob_count = 0;
    for (LocEntry *entry : blobs_written) {
        blob_count += entry->blob_records.size();
        fRecordsInMemory -= entry->record_count;
        entry->record_count = 0;
        entry->blob_records.clear();
        entry->records_loaded = false;
    }
    for (LocEntry *entry : partial_deletes) {
        bool whole = wanted(entry->url);
        auto &rows = entry->deleted;
        rows.erase(std::remove_if(rows.begin(), rows.end(),
                                  [&](const auto &row) { return whole || wanted(std::get<2>(row)); }),
                   rows.end());
    }
    for (const ScanId &scan : scans_replaced)
        fReplacedScans.erase(scan);
    fHeldWrites.clear();
    fNextEvictionAttempt = 0;
    for (auto it = fDirtyEntries.begin(); it != fDirtyEntries.end();) {
        LocEntry *entry = *it;
        if (entry->dirty_records == 0 && entry->deleted.empty() && !entry->meta_dirty &&
            entry->blob_records.empty())
            it = fDirtyEntries.erase(it);
        else
            ++it;
    }
    // What was written may now leave memory.
    CInfoCache::Trim();
    return nb::int_((Py_ssize_t) (written.size() + blob_count));
}

void CInfoCache::_destroy_impl() {
    try {
        CloseDatabase();
    } catch (const InfoDatabaseError &) {
        // The held writes failed: they are lost, as in a killed writer.
        fHeldWrites.clear();
        CloseDatabase();
    }
    fEntryByLoc.clear();
    fEntries.clear();
    fRecordsOfScan.clear();
    fScansWithNewRecords.clear();
    fDirtyEntries.clear();
    fHeldWrites.clear();
    fRecordsInMemory = fMergedCount = 0;
    fPendingScopes = nb::steal(PySet_New(nullptr));
}

}  // namespace pysource

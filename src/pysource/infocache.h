// CInfoCache: the store of all scan records.
//
// Records are kept per location and per scope.  One scope may hold several
// records: its primary record and derived records made by scans of many
// other scopes; GetScopeInfo merges them into one info (kept until one of
// them changes).  Besides records the cache keeps, per location, the disk
// time and line-end blind checksum of the last finished scan, the scans-done
// marks and the words of the file.
//
// With a database attached (infodatabase.h) the store is backed by an SQLite
// file: a location's records are read on first use (a read-only cache's
// lookups read only the scope they ask for), written back by
// WriteToDatabase, and Trim may drop clean locations from memory to stay
// under a bound.  Changed scopes are announced on the "scopes-modified"
// signal, one batch per outermost BeginDeferScopesModified /
// FlushScopesModified bracket; CScopeDependantCache entries that depend on a
// changed scope are dropped at once.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "basekit/destroyable.h"
#include "pysource/infodatabase.h"
#include "pysource/recordcodec.h"
#include "pysource/scopeinfo.h"

namespace nb = nanobind;

namespace pysource {

class CInfoCache : public basekit::CDestroyable {
public:
    // `loc_cache`: the CLocationCache (a default one when None).  `db_path`:
    // an SQLite file to open (None: memory only).  `primary_scan_name`: the
    // scan name of primary records, the base of a merged info.
    CInfoCache(nb::handle loc_cache, nb::handle db_path, std::string primary_scan_name);
    ~CInfoCache() override;

    // Operations in slot order.
    virtual nb::object AddScopeInfo(nb::handle info, bool can_write);
    virtual nb::object AddScopeInfoListForSingleScan(nb::handle scope, nb::handle scan_name,
                                                     nb::handle infos, bool replace_previous);
    virtual double GetLocDiskMTime(nb::handle loc);
    virtual nb::object GetScopeInfo(nb::handle scope);
    virtual Py_ssize_t CountScopeInfoRecords(nb::handle scope);
    virtual nb::object WriteToDatabase(nb::handle locs);
    virtual void FinishedWithScans(nb::handle scope, nb::handle scan_name);
    virtual void Trim();
    virtual void BeginDeferScopesModified();
    virtual void FlushScopesModified();
    virtual void ChangeScansDone(nb::handle loc, nb::handle scan_name, bool done, nb::handle disk_mtime);
    virtual void SetEOLBlindChecksum(nb::handle loc, nb::handle checksum, nb::handle mtime);
    void _destroy_impl() override;

    // Queries beside the contract.
    nb::object GetScansDone(nb::handle loc);           // dict scan name -> disk time
    bool IsScanDone(nb::handle loc, nb::handle scan_name, nb::handle disk_mtime);
    nb::object GetEOLBlindChecksum(nb::handle loc);    // the object given, or None
    void SaveWords(nb::handle loc, nb::handle words);  // the word store of logical caches
    nb::object GetWords(nb::handle loc);               // frozenset of str, or None
    nb::list GetScopeInfoRecords(nb::handle scope);    // the records behind a merged info
    nb::list GetScopesForLoc(nb::handle loc);          // scope names with records
    // (loc, scope name) of every scope with records named `name` or ending in
    // "." + `name`, ordered by URL and name; the database answers through its
    // index on last components, so no location is read.
    nb::list FindScopesNamed(nb::handle name);
    // (loc, scope kind, scopes, incomplete scopes) for every location and kind
    // of scope (scopekind.h) with primary records, ordered by URL and kind.
    // The database keeps these counts as it is written, so no record is read
    // unless it was changed in memory.
    nb::list GetScopeCounts();
    // Every location with records or facts, in memory or in the database,
    // ordered by URL; nothing of theirs is read.
    nb::list GetLocations();
    // Drops the records that the file's own `scan_name` scan made for scopes
    // not named in `keep_names` (normalized names): scopes the file no longer
    // has.  So that a removed or renamed caller no longer speaks for what it
    // called, a primary `scan_name` also takes the records that the other
    // scans of those scopes made anywhere, in the database as well.  Gives the number of records and
    // scans dropped.
    Py_ssize_t ForgetScopesOfLoc(nb::handle loc, nb::handle scan_name, nb::handle keep_names);

    // The records of `loc` that one scan made, as CScopeInfoSerializer blobs
    // in the order it made them: the same as AddScopeInfo(Loads(blob), True)
    // of each.  When the cache has a database and holds nothing of `loc`, and
    // nothing listens for changed scopes, the blobs are kept as they are and
    // written from them: their records are made only if something reads them
    // before the write (the writer of scans made in other processes).  Gives
    // whether they were kept so.
    bool AddScopeInfoBlobs(nb::handle loc, nb::handle blobs);
    // The scopes of `loc` whose merged record is incomplete.
    Py_ssize_t CountIncompleteScopes(nb::handle loc);

    // Drops everything known of `loc` (a file that is gone): its records, the
    // records its scopes' scans made for other scopes, its disk time,
    // checksum, scans-done marks and words, in the database and in memory.
    // Gives the number of records dropped.
    Py_ssize_t ForgetLocation(nb::handle loc);

    // The database.
    // `read_only`: never make, change or rebuild the file; writes raise.
    void OpenDatabase(const std::string &path, bool read_only = false);
    void CloseDatabase();
    nb::object DatabasePath() const;
    nb::object DatabaseMessage() const;
    bool DatabaseReadOnly() const { return fDatabase && fDatabase->IsReadOnly(); }

    // Sizes, for Trim and for reports.
    Py_ssize_t RecordsInMemory() const { return (Py_ssize_t) fRecordsInMemory; }
    Py_ssize_t LocationsInMemory() const;
    int DeferDepth() const { return fDeferDepth; }

    nb::object fLocCache;
    std::string fPrimaryScanName;
    // Trim drops clean locations (database only) above this many records,
    // down to three quarters of it, and merged infos above fMaxMergedInfos.
    Py_ssize_t fMaxRecordsInMemory = 1000000;
    Py_ssize_t fMaxMergedInfos = 50000;
    // Counts the changes of primary records (changed, dropped): what is
    // derived from primary records alone stays good while it stands.  A
    // record added where there was none doesn't count: nothing derived while
    // a scanned file's record was missing is kept (it was a scan to ask for).
    std::uint64_t fPrimaryGeneration = 0;
    // Counts the changes of any record, derived ones included.
    std::uint64_t fRecordGeneration = 0;
    // The record generation at which the records of `scope` last changed (0:
    // not since the cache began): what was worked out from them at a later
    // generation still stands.
    std::uint64_t ScopeChangedAt(nb::handle scope);
    // WriteToDatabase(locs) holds the given locations back until this many
    // wait, then writes them all in one transaction (a killed writer loses at
    // most that batch); WriteToDatabase(None) writes whatever waits.
    Py_ssize_t fWriteBatchLocations = 1;
    // With a read-only database: records scanned meanwhile stay in memory
    // instead of raising on their write (a query that scans what the index
    // lacks).
    bool fKeepWritesInMemory = false;

private:
    // Lets maps keyed by std::string be searched with a string_view.
    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    // One record of a scope, named by the scan that made it.
    struct RecordSlot {
        std::string scan_name;
        std::string scanned_url;
        std::string scanned_name;
        nb::ref<CScopeInfo> info;
        bool persist = false;  // may be written to the database
        bool dirty = false;    // not yet in the database as it stands
    };
    // A record kept as the blob it came in (AddScopeInfoBlobs).
    struct BlobRecord {
        nb::object blob;       // bytes
        RecordBlobView view;   // into `blob`
    };
    struct ScopeEntry {
        std::vector<RecordSlot> records;
        nb::ref<CScopeInfo> merged;
    };
    struct LocEntry {
        nb::object loc;
        std::string url;
        std::unordered_map<std::string, ScopeEntry, TextHash, std::equal_to<>> scopes;
        double disk_mtime = -1.0;           // of the last finished scan
        double latest_record_mtime = -1.0;  // of primary records added
        nb::object checksum;
        std::map<std::string, double> scans_done;
        nb::object words;
        std::int64_t db_id = 0;             // 0: not in the database yet
        bool meta_loaded = false;
        bool records_loaded = false;
        // While records_loaded is false: the scopes whose rows were read
        // alone (a query's lookups), each once, whether it had rows or not.
        // Reading the whole location then skips their rows.
        std::unordered_set<std::string, TextHash, std::equal_to<>> scopes_loaded;
        bool meta_dirty = false;
        std::size_t dirty_records = 0;
        std::size_t record_count = 0;
        std::uint64_t last_use = 0;
        // Records of a location that held nothing else, still as blobs; the
        // entry is then otherwise empty, and record_count counts them.
        std::vector<BlobRecord> blob_records;
        // The record generation of each scope's last change, by scope name;
        // kept when the scope's records go (removed or evicted).
        std::unordered_map<std::string, std::uint64_t, TextHash, std::equal_to<>> changed_at;
        // Rows to delete: (scope, scan name, scanned URL, scanned scope).
        std::vector<std::tuple<std::string, std::string, std::string, std::string>> deleted;
    };
    // One scan of one scope: (scanned URL, scanned scope name, scan name).
    using ScanId = std::tuple<std::string, std::string, std::string>;
    // A record's place: (target URL, target scope name).
    using RecordPlace = std::pair<std::string, std::string>;

    LocEntry &EntryFor(nb::handle loc);
    LocEntry &EntryForUrl(const std::string &url, nb::handle loc_or_null);
    const std::string &UrlOf(nb::handle loc);
    void EnsureMeta(LocEntry &entry);
    void EnsureRecords(LocEntry &entry);
    // The rows of the whole location (`scope` null) or of one scope.
    void LoadRecordRows(LocEntry &entry, const std::string *scope);
    // The entry of `scope_name` with its records in memory, or null when it
    // has none.  A read-only cache reads that scope's rows alone while the
    // location is otherwise unread, since a query touches a few scopes each
    // of many large files; everything that needs a whole location
    // (EnsureRecords) reads the rest then.
    ScopeEntry *ScopeRecords(LocEntry &entry, std::string_view scope_name);
    // Makes the records of `entry`'s blobs (of every entry's).
    void MakeBlobRecords(LocEntry &entry);
    nb::ref<CScopeInfo> DecodeBlob(nb::handle blob);
    void MakeAllBlobRecords();
    nb::object ScopeFromStore(std::string_view url, std::string_view name);
    nb::object LocationForUrl(std::string_view url);
    LocEntry *FindEntry(const std::string &url);

    AddResult AddRecord(CScopeInfo &info, bool persist);
    void RemoveSlot(LocEntry &entry, const std::string &scope_name, std::size_t index);
    void RemoveRecordsOfScan(const ScanId &scan, const std::set<RecordPlace> *keep);
    Py_ssize_t ForgetScansOfGoneScopes(LocEntry &entry, const std::string &own_scan,
                                       const std::set<std::string, std::less<>> &keep);
    // Stamps the change of `scope`'s records with the record generation and
    // tells whoever listens.
    void NoteChanged(nb::handle scope);
    nb::ref<CScopeInfo> BuildMerged(const ScopeEntry &scopes);
    void Touch(LocEntry &entry) { entry.last_use = ++fUseClock; }
    void EvictRecords(LocEntry &entry);
    // Runs `body`, which reads stored rows: a row of a form the readers can't
    // take means a damaged file.
    template <typename F>
    void ReadingRows(F &&body);

    // Writes the given locations (nullptr: everything) in one transaction.
    nb::object WriteLocations(const std::set<std::string> *urls);
    // The blobs a write encodes for its rows: each row's in one string of
    // `kept`, which stays where it is while more are added (encoded in
    // `scratch` first, so that each is allocated once, at its size).
    struct RowBlobs {
        std::deque<std::string> kept;
        std::string scratch;
    };
    // The row of a record, its blobs encoded into `blobs`.
    StoredRecord RowForSlot(const LocEntry &entry, const std::string &scope_name, const RecordSlot &slot,
                            std::int64_t scanned_id, RowBlobs &blobs);
    void MarkDirty(LocEntry &entry) { fDirtyEntries.insert(&entry); }
    // The entry of `loc` with its stored facts read.
    LocEntry &MetaOf(nb::handle loc) {
        LocEntry &entry = EntryFor(loc);
        EnsureMeta(entry);
        return entry;
    }
    void MetaChanged(LocEntry &entry) {
        entry.meta_dirty = true;
        MarkDirty(entry);
    }
    bool CanEvict(const LocEntry &entry) const;
    // True when the database's rows of `entry` are what memory would hold
    // once they were read: the records can be summed up from the file.
    bool StoredRowsStand(LocEntry &entry);
    static bool HoldsFacts(const LocEntry &entry);

    std::unique_ptr<CInfoDatabase> fDatabase;
    std::unordered_map<std::string, std::unique_ptr<LocEntry>> fEntries;  // by URL
    // Location objects seen, by identity, with the entry of their URL.
    std::unordered_map<PyObject *, std::pair<nb::object, LocEntry *>> fEntryByLoc;
    std::map<ScanId, std::set<RecordPlace>> fRecordsOfScan;
    std::set<ScanId> fScansWithNewRecords;  // listed since their last FinishedWithScans
    std::set<ScanId> fReplacedScans;        // whose rows the next write replaces wholesale
    std::unordered_set<LocEntry *> fDirtyEntries;  // with anything not yet written
    std::set<std::string> fHeldWrites;  // URLs of locations waiting for their batch
    std::size_t fRecordsInMemory = 0;
    std::size_t fMergedCount = 0;
    std::size_t fNextEvictionAttempt = 0;  // Trim waits for this many records
    std::uint64_t fUseClock = 0;
    std::uint64_t fLastTrimUse = 0;  // fUseClock when Trim last looked
    int fDeferDepth = 0;
    nb::object fPendingScopes;  // set of scopes changed while deferred
};

}  // namespace pysource

// The SQLite file behind CInfoCache, reached through SQLite's C interface.
//
// One file holds the records of every scanned scope, the scans-done marks,
// the line-end blind checksums and disk times of locations, and the words
// that logical line caches hand over.  The file runs in WAL mode, so a reader
// in another process can query while a scan writes; every write is one
// transaction, so a crash loses at most the write under way (a writer may
// gather the records of many files into one write).  The schema
// carries a version (PRAGMA user_version) and an application id.  Before use
// every open runs PRAGMA quick_check and checks the tables, their columns and
// the types of stored values: a file that is not ours, damaged, of a newer
// schema version (the message names the version it needs) or not readable
// raises InfoDatabaseError naming the file and is never written.  A file of an
// older schema version is rebuilt empty when opened for writing, with a
// message saying so.  A read-only open (for readers that must never make or
// change an index) also refuses a missing file, an empty one and one of an
// older version, and every write raises; when the file or its directory
// can't be written it reads the file as immutable.
//
// Records go in and come out as views of their columns, bound and read
// without a Python object in between; the statements are prepared once for
// the connection's life.  The rare queries give Python rows (tuples of int,
// float, str, bytes and None).  Encoding records into blobs is
// recordcodec.h's job.
//
// The GIL is let go while opening (the checks read the whole file), while a
// write waits for another writer's lock, and while closing (which folds the
// write-ahead log back into the file): none of these touches a Python object
// or memory that the caller holds.  Another thread that uses the database
// meanwhile gets InfoDatabaseError.  Rows and commits keep the GIL: the rows
// are views of the caller's records, which another thread could change.
#pragma once

#include <nanobind/nanobind.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace nb = nanobind;

namespace pysource {

// Raised for a database that can't be used: not SQLite, of another program,
// damaged, or failing in the middle of a query.  The message names the file.
class InfoDatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The blobs of a record's columns type_equivs, inst_type_equivs, domains,
// scopes_seen and resolved_imports, in that order; an absent one is NULL.
using StoredRecordParts = std::array<std::optional<std::string_view>, 5>;

// One row of the records table.  Every view points into memory that the
// caller keeps until the call that takes the row returns.
struct StoredRecord {
    std::int64_t loc_id = 0;
    std::string_view scope, scan_name;
    std::int64_t scanned_loc_id = 0;
    std::string_view scanned_scope;
    std::string_view ibytes;
    double disk_mtime = -1.0;
    std::int64_t flags = 0;
    StoredRecordParts parts;

    // The table's order: (loc_id, scope, scan_name, scanned_loc_id,
    // scanned_scope), the text byte by byte.
    static bool KeyLess(const StoredRecord &a, const StoredRecord &b);
};

// A record as it is read back: the scanned scope's location comes as its URL.
// The views last until the reader's callback returns.
struct StoredRecordView {
    std::string_view scope, scan_name, scanned_url, scanned_scope, ibytes;
    double disk_mtime = -1.0;
    std::int64_t flags = 0;
    StoredRecordParts parts;
};

// The key of a record row.
struct StoredRecordKey {
    std::int64_t loc_id = 0;
    std::string_view scope, scan_name;
    std::int64_t scanned_loc_id = 0;
    std::string_view scanned_scope;
};

// Every record one scan of one scope made.
struct StoredScanKey {
    std::int64_t scanned_loc_id = 0;
    std::string_view scanned_scope, scan_name;
};

class CInfoDatabase {
public:
    // Moves on when the tables change, and when what a scan records does
    // (records written by an older build are not read as this one's): a
    // file of an older version is rebuilt empty.
    static constexpr int kSchemaVersion = 4;
    static constexpr std::int32_t kApplicationId = 0x50795372;  // "PySr"

    // Opens (creating if need be, unless `read_only`) the database at `path`.
    // Throws InfoDatabaseError when the file can't be used.
    explicit CInfoDatabase(std::string path, bool read_only = false);
    ~CInfoDatabase();
    CInfoDatabase(const CInfoDatabase &) = delete;
    CInfoDatabase &operator=(const CInfoDatabase &) = delete;

    const std::string &Path() const { return fPath; }
    // How messages name the file: "pysource index database PATH".
    const std::string &Origin() const { return fOrigin; }
    // Set when opening had to rebuild the file; empty otherwise.
    const std::string &OpenMessage() const { return fOpenMessage; }
    // Throws InfoDatabaseError while another thread uses the database.
    void Close();
    bool IsOpen() const { return fDb != nullptr; }
    bool IsReadOnly() const { return fReadOnly; }

    // Transactions: each write is one.
    void Begin();
    void Commit();
    void Rollback() noexcept;

    // Location rows: (id, disk_mtime, checksum, checksum_is_text_int, words)
    // for a URL, or None.
    nb::object LoadLocation(const std::string &url);
    // The URL of every location row, in order (a list of str).
    nb::object LoadLocationUrls();
    std::int64_t EnsureLocation(const std::string &url);
    // `checksum`: int, float, str, bytes or None; `words`: bytes or None.
    void WriteLocationMeta(std::int64_t id, double disk_mtime, nb::handle checksum, nb::handle words);
    // (scan_name, disk_mtime) rows of a location.
    nb::object LoadScansDone(std::int64_t loc_id);
    void ReplaceScansDone(std::int64_t loc_id, const std::map<std::string, double> &scans_done);

    // The records of one target location, each handed to `each`.
    void LoadRecords(std::int64_t loc_id, const std::function<void(const StoredRecordView &)> &each);
    // The records of one scope of a target location (all its scans).
    void LoadScopeRecords(std::int64_t loc_id, std::string_view scope,
                          const std::function<void(const StoredRecordView &)> &each);
    // Writes the rows over any of the same keys.
    void UpsertRecords(const std::vector<StoredRecord> &rows);
    void DeleteRecords(const std::vector<StoredRecordKey> &keys);
    // Every row written by the given scans.
    void DeleteRecordsOfScans(const std::vector<StoredScanKey> &scans);

    // Deletes the location row `loc_id`, its scans-done marks, its records and
    // the records its scopes' scans made elsewhere, in one transaction.  Gives
    // the number of records deleted.
    std::int64_t DeleteLocation(std::int64_t loc_id);

    // (scanned scope, scan name) of every scan of a scope of `loc_id` that
    // made records, each once: an index makes this a lookup.
    nb::object LoadScansOfScannedLoc(std::int64_t loc_id);
    // The scope names of a location's records, sorted, each once (a list of
    // str).
    nb::object LoadScopeNames(std::int64_t loc_id);
    // (URL, scope name) of every scope with records whose last dotted
    // component is `leaf`, each once; an index makes this a lookup.
    nb::object FindScopesWithLeaf(const std::string &leaf);
    // Counts again, per kind of scope (scopekind.h), the records of
    // `scan_name` of each location: a write that changes them calls it.
    void RecountScopes(const std::set<std::int64_t> &loc_ids, const std::string &scan_name);
    // (URL, scope kind, scopes, incomplete scopes) for every location and
    // kind of scope with records of `scan_name`, ordered by URL and kind: the
    // counts RecountScopes kept, so no record is read.
    nb::object LoadScopeCounts(const std::string &scan_name);

    // Number of rows in the records table (for tests and reports).
    std::int64_t CountRecords();

    // Called between the rows and the commit of every write (tests use it to
    // stop a writer part-way).  None to clear.
    static void SetWriteHook(nb::handle hook);
    static void CallWriteHook(const std::string &path);

private:
    class Query;
    // The statement of `sql` (a string that outlives the connection),
    // prepared on first use.
    sqlite3_stmt *Prepared(const char *sql, const char *doing);
    // Hands each row of a query of record columns to `each`.
    void EachRecordRow(Query &query, const std::function<void(const StoredRecordView &)> &each);
    // Runs statements without results (DDL, pragmas that set).
    void Exec(const char *sql, const char *doing);
    // The first column of the one row of `sql`, as an integer.
    std::int64_t QueryInt(const char *sql, const char *doing);
    // Every row of a query with one text parameter or one integer one (or
    // none), as a list of tuples.
    nb::list Rows(const char *sql, const char *doing, std::optional<std::string_view> text,
                  std::optional<std::int64_t> number = std::nullopt);
    // Runs `body` with the GIL let go and the database marked in use.
    template <typename F>
    void WithoutGil(F &&body);
    // Throws InfoDatabaseError when the database is closed or in use by
    // another thread.
    void CheckUsable(const char *doing) const;

    void Connect();
    void ConnectReadOnly();
    void Open();
    [[noreturn]] void Damaged(const std::string &detail) const;
    void CheckIntegrity();
    // The columns of every table, and with `scan_rows` each table's rows for
    // values of the wrong kind.
    void CheckTables(bool scan_rows);
    // A whole check reads the whole file.  A reader skips it when the file
    // is as it was last found sound or left by a writer of ours: same size,
    // change time and inode, and no write-ahead log pending.
    std::string FileStamp() const;  // "" when it can't be told
    bool VerifiedAsItIs() const;
    void NoteVerified() const;
    void CheckVersion(std::int64_t version);
    void SetCacheSize();
    void CreateSchema();
    void DropSchema();
    void CreateLookupIndexes();
    void FinalizeStatements() noexcept;
    [[noreturn]] void Fail(const char *doing, const std::string &detail) const;
    // Fails with SQLite's message for the connection's last error.
    [[noreturn]] void FailWithSqlite(const char *doing) const;

    std::string fPath;
    std::string fOrigin;
    std::string fOpenMessage;
    sqlite3 *fDb = nullptr;
    std::map<const char *, sqlite3_stmt *> fStatements;  // by the text's address
    bool fReadOnly = false;
    bool fInTransaction = false;
    bool fFoundSound = false;  // the open's checks passed
    bool fInUse = false;       // a call runs with the GIL let go, on thread fUser
    std::thread::id fUser;
};

}  // namespace pysource

// The SQLite file behind CInfoCache, reached through Python's built-in
// sqlite3 module.
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
// Rows travel as Python tuples, the form sqlite3 takes and gives; encoding
// records into rows is recordcodec.h's job.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

namespace nb = nanobind;

namespace pysource {

// Raised for a database that can't be used: not SQLite, of another program,
// damaged, or failing in the middle of a query.  The message names the file.
class InfoDatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
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
    void Close();
    bool IsOpen() const { return fConn.is_valid() && !fConn.is_none(); }
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
    void WriteLocationMeta(std::int64_t id, double disk_mtime, nb::handle checksum, nb::handle words);
    // (scan_name, disk_mtime) rows of a location.
    nb::object LoadScansDone(std::int64_t loc_id);
    void ReplaceScansDone(std::int64_t loc_id, nb::handle rows);

    // Record rows of one target location: (scope, scan_name, scanned URL,
    // scanned_scope, ibytes, disk_mtime, flags, type_equivs, inst_type_equivs,
    // domains, scopes_seen, resolved_imports).
    nb::object LoadRecords(std::int64_t loc_id);
    // Each row: a tuple in the column order of the records table (loc_id,
    // scope, scan_name, scanned_loc_id, scanned_scope, then as above).  An
    // optional BLOB column (inst_type_equivs to resolved_imports) given
    // kNoBlob is stored as NULL: the sqlite3 module binds an integer as it
    // is, but offers None to its adapters first, which costs more than the
    // row's own write.
    static constexpr int kNoBlob = 0;
    void UpsertRecords(nb::handle rows);
    // Each key: (loc_id, scope, scan_name, scanned_loc_id, scanned_scope).
    void DeleteRecords(nb::handle keys);
    // Every row written by the given scans, each (scanned_loc_id,
    // scanned_scope, scan_name).
    void DeleteRecordsOfScans(nb::handle scans);

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
    nb::object Execute(const char *sql, nb::handle params = nb::handle());
    void ExecuteMany(const char *sql, nb::handle rows);
    nb::object Connect();
    void Open();
    nb::object ConnectReadOnly();
    [[noreturn]] void Damaged(const std::string &detail);
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
    // Runs `body`, turning sqlite3 errors into InfoDatabaseError.
    template <typename F>
    auto Guarded(const char *doing, F &&body) -> decltype(body());
    [[noreturn]] void Fail(const char *doing, const std::string &detail);

    std::string fPath;
    std::string fOrigin;
    std::string fOpenMessage;
    nb::object fSqlite3;  // the module
    nb::object fConn;
    bool fReadOnly = false;
    bool fInTransaction = false;
    bool fFoundSound = false;  // the open's checks passed
};

}  // namespace pysource

#include "pysource/infodatabase.h"

#include <nanobind/stl/string.h>

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <utility>

#include "pysource/scopekind.h"

namespace pysource {

namespace {

// Record rows: target location id, scope name, scan name, location id and
// name of the scanned scope (the key), then ibytes, disk_mtime, flags, type_equivs,
// inst_type_equivs, _domains, scopes_seen, resolved_imports.
const char *const kSchema[] = {
    "CREATE TABLE locations ("
    " id INTEGER PRIMARY KEY,"
    " url TEXT NOT NULL UNIQUE,"
    " disk_mtime REAL NOT NULL DEFAULT -1.0,"
    " checksum,"
    " checksum_is_text_int INTEGER NOT NULL DEFAULT 0,"
    " words BLOB)",
    "CREATE TABLE scans_done ("
    " loc_id INTEGER NOT NULL REFERENCES locations(id),"
    " scan_name TEXT NOT NULL,"
    " disk_mtime REAL NOT NULL,"
    " PRIMARY KEY (loc_id, scan_name))",
    "CREATE TABLE records ("
    " loc_id INTEGER NOT NULL REFERENCES locations(id),"
    " scope TEXT NOT NULL,"
    " scan_name TEXT NOT NULL,"
    " scanned_loc_id INTEGER NOT NULL REFERENCES locations(id),"
    " scanned_scope TEXT NOT NULL,"
    " ibytes BLOB NOT NULL,"
    " disk_mtime REAL NOT NULL,"
    " flags INTEGER NOT NULL,"
    " type_equivs BLOB NOT NULL,"
    " inst_type_equivs BLOB,"
    " domains BLOB,"
    " scopes_seen BLOB,"
    " resolved_imports BLOB,"
    " PRIMARY KEY (loc_id, scope, scan_name, scanned_loc_id, scanned_scope)) WITHOUT ROWID",
    "CREATE INDEX records_by_scan ON records (scanned_loc_id, scanned_scope, scan_name)",
    // Per location and scan, how many scopes of each kind hold a record and
    // how many of those are incomplete, counted again in each write that
    // changes the location's records of the scan (RecountScopes), so that a
    // summary of the index reads a few rows per file.  (Triggers on `records`
    // would do the same, but make every write of a record twice as slow.)
    "CREATE TABLE scope_counts ("
    " loc_id INTEGER NOT NULL,"
    " scan_name TEXT NOT NULL,"
    " kind TEXT NOT NULL,"
    " scopes INTEGER NOT NULL,"
    " incomplete INTEGER NOT NULL,"
    " PRIMARY KEY (loc_id, scan_name, kind)) WITHOUT ROWID",
};

// The last dotted component of a record's scope name, in SQL: rtrim strips
// from the right every character of the name but the dot, which leaves the
// part up to its last dot.  Queries repeat the expression word for word, so
// that SQLite serves them from the index on it.
#define PYSOURCE_SCOPE_LEAF "substr(scope, length(rtrim(scope, replace(scope, '.', ''))) + 1)"
const char *const kLookupIndexes[] = {
    "CREATE INDEX IF NOT EXISTS records_by_leaf ON records (" PYSOURCE_SCOPE_LEAF ")",
};

const char *const kOurTables[] = {"scope_counts", "records", "scans_done", "locations"};

// What a sound file holds: each table's columns, and a query that finds a row
// whose values the readers could not take.
struct TableShape {
    const char *name;
    const char *columns;
    const char *bad_row_query;
};
const TableShape kTableShapes[] = {
    {"locations", "id,url,disk_mtime,checksum,checksum_is_text_int,words",
     "SELECT 1 FROM locations WHERE typeof(url) != 'text' OR typeof(disk_mtime) NOT IN "
     "('real', 'integer') OR typeof(checksum_is_text_int) != 'integer' OR typeof(words) NOT IN "
     "('blob', 'null') LIMIT 1"},
    {"scans_done", "loc_id,scan_name,disk_mtime",
     "SELECT 1 FROM scans_done WHERE typeof(scan_name) != 'text' OR typeof(disk_mtime) NOT IN "
     "('real', 'integer') OR loc_id NOT IN (SELECT id FROM locations) LIMIT 1"},
    {"records",
     "loc_id,scope,scan_name,scanned_loc_id,scanned_scope,ibytes,disk_mtime,flags,type_equivs,"
     "inst_type_equivs,domains,scopes_seen,resolved_imports",
     "SELECT 1 FROM records WHERE typeof(scope) != 'text' OR typeof(scan_name) != 'text' OR "
     "typeof(scanned_scope) != 'text' OR typeof(ibytes) != 'blob' OR typeof(disk_mtime) NOT IN "
     "('real', 'integer') OR typeof(flags) != 'integer' OR typeof(type_equivs) != 'blob' OR "
     "typeof(inst_type_equivs) NOT IN ('blob', 'null') OR typeof(domains) NOT IN ('blob', "
     "'null') OR typeof(scopes_seen) NOT IN ('blob', 'null') OR typeof(resolved_imports) NOT IN "
     "('blob', 'null') OR loc_id NOT IN (SELECT id FROM locations) OR scanned_loc_id NOT IN "
     "(SELECT id FROM locations) LIMIT 1"},
    {"scope_counts", "loc_id,scan_name,kind,scopes,incomplete",
     "SELECT 1 FROM scope_counts WHERE typeof(scan_name) != 'text' OR typeof(kind) != 'text' OR "
     "typeof(scopes) != 'integer' OR typeof(incomplete) != 'integer' LIMIT 1"},
};

// A callable or nullptr; a plain reference so that nothing is released
// after the interpreter has gone.
PyObject *gWriteHook = nullptr;

}  // namespace

template <typename F>
auto CInfoDatabase::Guarded(const char *doing, F &&body) -> decltype(body()) {
    try {
        return body();
    } catch (nb::python_error &e) {
        if (fSqlite3.is_valid() && e.matches(fSqlite3.attr("Error")))
            Fail(doing, nb::cast<std::string>(nb::str(e.value())));
        throw;
    }
}

void CInfoDatabase::Fail(const char *doing, const std::string &detail) {
    throw InfoDatabaseError(fOrigin + ": " + doing + " failed: " + detail);
}

nb::object CInfoDatabase::Connect() {
    if (fReadOnly)
        return ConnectReadOnly();
    return fSqlite3.attr("connect")(fPath, nb::arg("timeout") = 5.0,
                                    nb::arg("isolation_level") = nb::none());
}

nb::object CInfoDatabase::ConnectReadOnly() {
    // Only a URI can ask SQLite for read-only access, which also keeps it
    // from making the file when it is missing.
    nb::object os_path = nb::module_::import_("os.path");
    nb::object quoted = nb::module_::import_("urllib.parse").attr("quote")(
        os_path.attr("abspath")(fPath));
    std::string base = "file:" + nb::cast<std::string>(quoted);
    auto connect = [&](const char *query) {
        nb::str uri((base + query).c_str());
        nb::object conn = fSqlite3.attr("connect")(uri, nb::arg("timeout") = 5.0,
                                                   nb::arg("isolation_level") = nb::none(),
                                                   nb::arg("uri") = true);
        // The first read is where a WAL file that can't be opened shows.
        conn.attr("execute")("SELECT count(*) FROM sqlite_master").attr("fetchone")();
        return conn;
    };
    try {
        return connect("?mode=ro");
    } catch (nb::python_error &e) {
        if (!e.matches(fSqlite3.attr("OperationalError")) || !nb::cast<bool>(os_path.attr("isfile")(fPath)))
            throw;
    }
    // A file (or directory) we may not write: a WAL reader needs to make
    // its shared-memory file beside it, an immutable reader doesn't.
    return connect("?mode=ro&immutable=1");
}

void CInfoDatabase::Damaged(const std::string &detail) {
    throw InfoDatabaseError(fOrigin + " is damaged (" + detail +
                            "); it was left as it is");
}

void CInfoDatabase::CheckIntegrity() {
    nb::list problems = nb::list(Execute("PRAGMA quick_check(3)").attr("fetchall")());
    if (nb::len(problems) == 1 && nb::cast<std::string>(nb::str(problems[0][0])) == "ok")
        return;
    std::string detail;
    for (nb::handle row : problems) {
        if (!detail.empty())
            detail += "; ";
        detail += nb::cast<std::string>(nb::str(row[0]));
    }
    Damaged("integrity check: " + detail);
}

void CInfoDatabase::CheckTables(bool scan_rows) {
    for (const TableShape &table : kTableShapes) {
        std::string columns;
        std::string query = "PRAGMA table_info(";
        query.append(table.name).append(")");
        for (nb::handle row : Execute(query.c_str())) {
            if (!columns.empty())
                columns += ',';
            columns += nb::cast<std::string>(nb::str(row[1]));
        }
        if (columns.empty())
            Damaged(std::string("the table '") + table.name + "' is missing");
        if (columns != table.columns)
            Damaged(std::string("the table '") + table.name + "' has the columns " + columns +
                    " instead of " + table.columns);
        if (!scan_rows)
            continue;
        nb::object bad = Execute(table.bad_row_query).attr("fetchone")();
        if (!bad.is_none())
            Damaged(std::string("a row of the table '") + table.name +
                    "' holds values of the wrong kind");
    }
}

void CInfoDatabase::CheckVersion(std::int64_t version) {
    if (version > kSchemaVersion)
        Fail("opening", "the file has schema version " + std::to_string(version) +
                            ", newer than this build's version " + std::to_string(kSchemaVersion) +
                            "; it needs a pysource that reads schema version " +
                            std::to_string(version) + " and was left as it is");
    if (version < kSchemaVersion && fReadOnly)
        Fail("opening", "the file has schema version " + std::to_string(version) +
                            ", older than this build's version " + std::to_string(kSchemaVersion) +
                            "; run 'pysource index' to rebuild it");
}

CInfoDatabase::CInfoDatabase(std::string path, bool read_only)
    : fPath(std::move(path)), fOrigin("pysource index database " + fPath), fReadOnly(read_only) {
    fSqlite3 = nb::module_::import_("sqlite3");
    try {
        Guarded("opening", [&] { Open(); });
    } catch (...) {
        try {
            Close();
        } catch (...) {
        }
        throw;
    }
}

void CInfoDatabase::Open() {
    fConn = Connect();
    // A file that is not a database fails here, before anything is written.
    bool trusted = fReadOnly && VerifiedAsItIs();
    if (!trusted)
        CheckIntegrity();
    std::int64_t app = nb::cast<std::int64_t>(Execute("PRAGMA application_id").attr("fetchone")()[0]);
    std::int64_t ver = nb::cast<std::int64_t>(Execute("PRAGMA user_version").attr("fetchone")()[0]);
    std::int64_t tables =
        nb::cast<std::int64_t>(Execute("SELECT count(*) FROM sqlite_master").attr("fetchone")()[0]);
    if (app != kApplicationId && tables != 0)
        Fail("opening", "the file is an SQLite database of another program; it was left as it is");
    if (app == kApplicationId)
        CheckVersion(ver);
    else if (fReadOnly)
        Fail("opening", "the file holds no pysource index");
    if (ver == kSchemaVersion || fReadOnly) {
        SetCacheSize();
        CheckTables(!trusted);
        fFoundSound = true;
        if (fReadOnly && !trusted)
            NoteVerified();
        if (!fReadOnly) {
            Execute("PRAGMA journal_mode=WAL");
            Execute("PRAGMA synchronous=NORMAL");
            CreateLookupIndexes();
        }
        return;
    }
    if (app == kApplicationId)
        fOpenMessage = fOrigin + " had schema version " + std::to_string(ver) +
                       ", older than this build's version " + std::to_string(kSchemaVersion) +
                       ": it was rebuilt empty";
    // Records run to about a kilobyte: on bigger pages the B-tree of a table
    // without rowids splits less and writes about twice as fast.  Only a new
    // file takes it (before WAL mode is set).
    if (tables == 0)
        Execute("PRAGMA page_size=16384");
    SetCacheSize();
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=NORMAL");
    Begin();
    try {
        DropSchema();
        CreateSchema();
        Commit();
        fFoundSound = true;
    } catch (...) {
        Rollback();
        throw;
    }
}

CInfoDatabase::~CInfoDatabase() {
    if (!Py_IsInitialized())
        return;
    // The owner may go while an exception is on its way out: keep it.
    nb::error_scope pending_error;
    try {
        Close();
    } catch (...) {
    }
}

void CInfoDatabase::Close() {
    if (!IsOpen())
        return;
    nb::object conn = std::move(fConn);
    fConn = nb::none();
    if (fInTransaction) {
        fInTransaction = false;
        try {
            conn.attr("rollback")();
        } catch (nb::python_error &) {
        }
    }
    Guarded("closing", [&] { conn.attr("close")(); });
    if (!fReadOnly && fFoundSound)
        NoteVerified();  // what is there now is what we wrote over a sound file
}

std::string CInfoDatabase::FileStamp() const {
    struct stat st {};
    if (::stat(fPath.c_str(), &st) != 0)
        return "";
    std::ostringstream stamp;
    stamp << st.st_size << ' ' << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec << ' ' << st.st_ino;
    return stamp.str();
}

bool CInfoDatabase::VerifiedAsItIs() const {
    struct stat wal {};
    if (::stat((fPath + "-wal").c_str(), &wal) == 0 && wal.st_size > 0)
        return false;  // a writer is at work, or one was stopped
    std::string stamp = FileStamp();
    std::ifstream in(fPath + "-verified");
    std::string noted;
    return !stamp.empty() && std::getline(in, noted) && noted == stamp;
}

void CInfoDatabase::NoteVerified() const {
    struct stat wal {};
    if (::stat((fPath + "-wal").c_str(), &wal) == 0 && wal.st_size > 0)
        return;
    std::string stamp = FileStamp();
    if (stamp.empty())
        return;
    // Best effort: a folder we may not write keeps every open checking.
    std::ofstream out(fPath + "-verified", std::ios::trunc);
    out << stamp << '\n';
}

// A batch of writes stays off the disk until its commit.  The size is given
// in KiB, which SQLite turns into a number of pages of the page size it has
// then: so it is set once the page size is settled, or a new file's bigger
// pages would make the cache four times the size.
void CInfoDatabase::SetCacheSize() {
    Execute("PRAGMA cache_size=-8192");
}

nb::object CInfoDatabase::Execute(const char *sql, nb::handle params) {
    if (!IsOpen())
        Fail("a query", "the database is closed");
    if (params.is_valid())
        return fConn.attr("execute")(sql, params);
    return fConn.attr("execute")(sql);
}

void CInfoDatabase::ExecuteMany(const char *sql, nb::handle rows) {
    if (!IsOpen())
        Fail("a query", "the database is closed");
    fConn.attr("executemany")(sql, rows);
}

void CInfoDatabase::CreateSchema() {
    for (const char *statement : kSchema)
        Execute(statement);
    CreateLookupIndexes();
    Execute(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    Execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

// Indexes that only speed up lookups: a file made before them gets them on
// its first writable open.
void CInfoDatabase::CreateLookupIndexes() {
    for (const char *statement : kLookupIndexes)
        Execute(statement);
}

void CInfoDatabase::DropSchema() {
    Execute("DROP INDEX IF EXISTS records_by_scan");
    Execute("DROP INDEX IF EXISTS records_by_leaf");
    Execute("DROP INDEX IF EXISTS records_heads");
    for (const char *table : kOurTables)
        Execute((std::string("DROP TABLE IF EXISTS ") + table).c_str());
}

void CInfoDatabase::Begin() {
    if (fReadOnly)
        Fail("starting a write", "the database was opened read-only");
    Guarded("starting a write", [&] {
        Execute("BEGIN IMMEDIATE");
        fInTransaction = true;
    });
}

void CInfoDatabase::Commit() {
    Guarded("committing a write", [&] {
        Execute("COMMIT");
        fInTransaction = false;
    });
}

void CInfoDatabase::Rollback() noexcept {
    if (!fInTransaction || !IsOpen())
        return;
    fInTransaction = false;
    try {
        Execute("ROLLBACK");
    } catch (...) {
    }
}

nb::object CInfoDatabase::LoadLocation(const std::string &url) {
    return Guarded("reading a location", [&] {
        return Execute("SELECT id, disk_mtime, checksum, checksum_is_text_int, words "
                       "FROM locations WHERE url = ?",
                       nb::make_tuple(url))
            .attr("fetchone")();
    });
}

nb::object CInfoDatabase::LoadLocationUrls() {
    return Guarded("listing locations", [&] {
        nb::list urls;
        for (nb::handle row : Execute("SELECT url FROM locations ORDER BY url"))
            urls.append(row[0]);
        return nb::object(urls);
    });
}

std::int64_t CInfoDatabase::EnsureLocation(const std::string &url) {
    return Guarded("adding a location", [&] {
        Execute("INSERT OR IGNORE INTO locations (url) VALUES (?)", nb::make_tuple(url));
        nb::object row =
            Execute("SELECT id FROM locations WHERE url = ?", nb::make_tuple(url)).attr("fetchone")();
        return nb::cast<std::int64_t>(row[0]);
    });
}

void CInfoDatabase::WriteLocationMeta(std::int64_t id, double disk_mtime, nb::handle checksum,
                                      nb::handle words) {
    Guarded("writing a location", [&] {
        // Integers beyond SQLite's 64 bits are kept as their decimal text.
        nb::object stored = nb::borrow(checksum);
        bool text_int = false;
        if (PyLong_Check(checksum.ptr())) {
            int overflow = 0;
            PyLong_AsLongLongAndOverflow(checksum.ptr(), &overflow);
            if (overflow) {
                stored = nb::str(checksum);
                text_int = true;
            }
        }
        Execute("UPDATE locations SET disk_mtime = ?, checksum = ?, checksum_is_text_int = ?, "
                "words = ? WHERE id = ?",
                nb::make_tuple(disk_mtime, stored, text_int ? 1 : 0, words, id));
    });
}

nb::object CInfoDatabase::LoadScansDone(std::int64_t loc_id) {
    return Guarded("reading scans done", [&] {
        return Execute("SELECT scan_name, disk_mtime FROM scans_done WHERE loc_id = ?",
                       nb::make_tuple(loc_id))
            .attr("fetchall")();
    });
}

void CInfoDatabase::ReplaceScansDone(std::int64_t loc_id, nb::handle rows) {
    Guarded("writing scans done", [&] {
        Execute("DELETE FROM scans_done WHERE loc_id = ?", nb::make_tuple(loc_id));
        ExecuteMany("INSERT INTO scans_done (loc_id, scan_name, disk_mtime) VALUES (?, ?, ?)", rows);
    });
}

nb::object CInfoDatabase::LoadRecords(std::int64_t loc_id) {
    return Guarded("reading records", [&] {
        return Execute("SELECT r.scope, r.scan_name, l.url, r.scanned_scope, r.ibytes, "
                       "r.disk_mtime, r.flags, r.type_equivs, r.inst_type_equivs, r.domains, "
                       "r.scopes_seen, r.resolved_imports FROM records r "
                       "JOIN locations l ON l.id = r.scanned_loc_id WHERE r.loc_id = ?",
                       nb::make_tuple(loc_id))
            .attr("fetchall")();
    });
}

void CInfoDatabase::UpsertRecords(nb::handle rows) {
    static const std::string no_value = "nullif(?, " + std::to_string(kNoBlob) + ")";
    static const std::string upsert =
        "INSERT OR REPLACE INTO records (loc_id, scope, scan_name, scanned_loc_id, scanned_scope, "
        "ibytes, disk_mtime, flags, type_equivs, inst_type_equivs, domains, scopes_seen, "
        "resolved_imports) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, " +
        no_value + ", " + no_value + ", " + no_value + ", " + no_value + ")";
    Guarded("writing records", [&] { ExecuteMany(upsert.c_str(), rows); });
}

void CInfoDatabase::DeleteRecords(nb::handle keys) {
    Guarded("deleting records", [&] {
        ExecuteMany("DELETE FROM records WHERE loc_id = ? AND scope = ? AND scan_name = ? "
                    "AND scanned_loc_id = ? AND scanned_scope = ?",
                    keys);
    });
}

void CInfoDatabase::DeleteRecordsOfScans(nb::handle scans) {
    Guarded("deleting records of scans", [&] {
        ExecuteMany("DELETE FROM records WHERE scanned_loc_id = ? AND scanned_scope = ? "
                    "AND scan_name = ?",
                    scans);
    });
}

std::int64_t CInfoDatabase::DeleteLocation(std::int64_t loc_id) {
    Begin();
    try {
        std::int64_t deleted = Guarded("deleting a location", [&] {
            nb::tuple id = nb::make_tuple(loc_id);
            std::int64_t count = nb::cast<std::int64_t>(
                Execute("DELETE FROM records WHERE loc_id = ?1 OR scanned_loc_id = ?1", id)
                    .attr("rowcount"));
            Execute("DELETE FROM scans_done WHERE loc_id = ?", id);
            Execute("DELETE FROM scope_counts WHERE loc_id = ?", id);
            Execute("DELETE FROM locations WHERE id = ?", id);
            return count;
        });
        Commit();
        return deleted;
    } catch (...) {
        Rollback();
        throw;
    }
}

nb::object CInfoDatabase::LoadScopeNames(std::int64_t loc_id) {
    return Guarded("reading scope names", [&] {
        nb::list names;
        for (nb::handle row : Execute("SELECT DISTINCT scope FROM records WHERE loc_id = ? "
                                      "ORDER BY scope",
                                      nb::make_tuple(loc_id)))
            names.append(row[0]);
        return nb::object(names);
    });
}

nb::object CInfoDatabase::LoadScansOfScannedLoc(std::int64_t loc_id) {
    return Guarded("reading scans", [&] {
        return Execute("SELECT DISTINCT scanned_scope, scan_name FROM records "
                       "WHERE scanned_loc_id = ?",
                       nb::make_tuple(loc_id))
            .attr("fetchall")();
    });
}

nb::object CInfoDatabase::FindScopesWithLeaf(const std::string &leaf) {
    return Guarded("finding scopes", [&] {
        return Execute("SELECT DISTINCT l.url, r.scope FROM records r "
                       "JOIN locations l ON l.id = r.loc_id WHERE " PYSOURCE_SCOPE_LEAF " = ?",
                       nb::make_tuple(leaf))
            .attr("fetchall")();
    });
}

void CInfoDatabase::RecountScopes(const std::set<std::int64_t> &loc_ids,
                                  const std::string &scan_name) {
    Guarded("counting scopes", [&] {
        nb::list keys;
        for (std::int64_t id : loc_ids)
            keys.append(nb::make_tuple(id, scan_name));
        ExecuteMany("DELETE FROM scope_counts WHERE loc_id = ? AND scan_name = ?", keys);
        static const std::string recount =
            "INSERT INTO scope_counts SELECT loc_id, scan_name, " + ScopeKindSql("records") +
            ", count(*), sum(flags & 1) FROM records WHERE loc_id = ? AND scan_name = ? GROUP BY 3";
        ExecuteMany(recount.c_str(), keys);
    });
}

nb::object CInfoDatabase::LoadScopeCounts(const std::string &scan_name) {
    return Guarded("counting scopes", [&] {
        return Execute("SELECT l.url, c.kind, c.scopes, c.incomplete FROM scope_counts c "
                       "JOIN locations l ON l.id = c.loc_id WHERE c.scan_name = ? AND c.scopes > 0 "
                       "ORDER BY l.url, c.kind",
                       nb::make_tuple(scan_name))
            .attr("fetchall")();
    });
}

std::int64_t CInfoDatabase::CountRecords() {
    return Guarded("counting records", [&] {
        return nb::cast<std::int64_t>(
            Execute("SELECT count(*) FROM records").attr("fetchone")()[0]);
    });
}

void CInfoDatabase::SetWriteHook(nb::handle hook) {
    if (!hook.is_none() && !PyCallable_Check(hook.ptr()))
        throw nb::type_error("the write hook must be callable or None");
    PyObject *old = gWriteHook;
    gWriteHook = hook.is_none() ? nullptr : Py_NewRef(hook.ptr());
    Py_XDECREF(old);
}

void CInfoDatabase::CallWriteHook(const std::string &path) {
    if (gWriteHook) {
        nb::handle hook(gWriteHook);
        hook(path);
    }
}

}  // namespace pysource

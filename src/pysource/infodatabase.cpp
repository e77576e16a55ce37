#include "pysource/infodatabase.h"

#include <nanobind/stl/string.h>

#include <utility>

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
};

const char *const kOurTables[] = {"records", "scans_done", "locations"};

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
    if (!fReadOnly)
        return fSqlite3.attr("connect")(fPath, nb::arg("timeout") = 5.0,
                                        nb::arg("isolation_level") = nb::none());
    // Only a URI can ask SQLite for read-only access, which also keeps it
    // from making the file when it is missing.
    nb::object os_path = nb::module_::import_("os.path");
    nb::object quoted = nb::module_::import_("urllib.parse").attr("quote")(
        os_path.attr("abspath")(fPath));
    nb::str uri(("file:" + nb::cast<std::string>(quoted) + "?mode=ro").c_str());
    return fSqlite3.attr("connect")(uri, nb::arg("timeout") = 5.0,
                                    nb::arg("isolation_level") = nb::none(), nb::arg("uri") = true);
}

void CInfoDatabase::CheckReadableSchema(std::int64_t app, std::int64_t version) {
    if (app != kApplicationId) {
        Close();
        Fail("opening", "the file holds no pysource index");
    }
    if (version != kSchemaVersion) {
        Close();
        Fail("opening", "the file has schema version " + std::to_string(version) +
                            ", this build uses version " + std::to_string(kSchemaVersion));
    }
}

CInfoDatabase::CInfoDatabase(std::string path, bool read_only)
    : fPath(std::move(path)), fOrigin("pysource index database " + fPath), fReadOnly(read_only) {
    fSqlite3 = nb::module_::import_("sqlite3");
    Guarded("opening", [&] {
        fConn = Connect();
        // A file that is not a database fails here, before anything is written.
        nb::object app_id = Execute("PRAGMA application_id").attr("fetchone")()[0];
        nb::object version = Execute("PRAGMA user_version").attr("fetchone")()[0];
        nb::object table_count =
            Execute("SELECT count(*) FROM sqlite_master").attr("fetchone")()[0];
        std::int64_t app = nb::cast<std::int64_t>(app_id);
        std::int64_t ver = nb::cast<std::int64_t>(version);
        std::int64_t tables = nb::cast<std::int64_t>(table_count);
        if (app != kApplicationId && tables != 0) {
            Close();
            Fail("opening", "the file is an SQLite database of another program; it was left as it is");
        }
        Execute("PRAGMA cache_size=-32768");  // KiB: big writes stay off the disk until commit
        if (fReadOnly) {
            CheckReadableSchema(app, ver);
            return;
        }
        if (app == kApplicationId && ver == kSchemaVersion) {
            Execute("PRAGMA journal_mode=WAL");
            Execute("PRAGMA synchronous=NORMAL");
            return;
        }
        if (app == kApplicationId) {
            fOpenMessage = fOrigin + " had schema version " +
                           std::to_string(ver) + ", this build uses version " +
                           std::to_string(kSchemaVersion) + ": it was rebuilt empty";
        }
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=NORMAL");
        Begin();
        try {
            DropSchema();
            CreateSchema();
            Commit();
        } catch (...) {
            Rollback();
            throw;
        }
    });
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
    Execute(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    Execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

void CInfoDatabase::DropSchema() {
    Execute("DROP INDEX IF EXISTS records_by_scan");
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
    Guarded("writing records", [&] {
        ExecuteMany("INSERT OR REPLACE INTO records (loc_id, scope, scan_name, scanned_loc_id, "
                    "scanned_scope, ibytes, disk_mtime, flags, type_equivs, inst_type_equivs, "
                    "domains, scopes_seen, resolved_imports) "
                    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                    rows);
    });
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

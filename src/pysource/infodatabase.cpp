#include "pysource/infodatabase.h"

#include <nanobind/stl/string.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>
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

// How long a write waits for another writer's lock before it fails.
constexpr int kBusyTimeoutMs = 5000;

// A path as the path part of an SQLite URI: every byte but letters, digits,
// "-._~" and "/" percent-encoded, so that "?", "#" and "%" in a name stay
// part of it.
std::string UriPath(const std::string &path) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
            out.push_back((char) c);
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    return out;
}

// A zero-length text or blob needs a pointer that isn't null: a null one
// binds NULL.
const char *NonNull(std::string_view data) { return data.data() ? data.data() : ""; }

}  // namespace

// One run of a statement: binds, steps, reads columns, and resets the
// statement on every way out (an unreset statement would keep its read
// transaction open).
class CInfoDatabase::Query {
public:
    // A statement kept for the connection's life (`sql` must outlive it);
    // while a run of it is under way (a caller reached from a reader's
    // callback), a statement of its own.
    Query(CInfoDatabase &db, const char *sql, const char *doing)
        : fDb(db), fDoing(doing), fStmt(db.Prepared(sql, doing)) {
        if (sqlite3_stmt_busy(fStmt))
            Own(sql);
    }
    // A statement made for this run only.
    Query(CInfoDatabase &db, const std::string &sql, const char *doing) : fDb(db), fDoing(doing) {
        db.CheckUsable(doing);
        Own(sql.c_str());
    }
    ~Query() {
        if (fOwned) {
            sqlite3_finalize(fStmt);
        } else {
            sqlite3_reset(fStmt);
            sqlite3_clear_bindings(fStmt);
        }
    }
    Query(const Query &) = delete;
    Query &operator=(const Query &) = delete;

    Query &Int(int i, std::int64_t value) { return Check(sqlite3_bind_int64(fStmt, i, value)); }
    Query &Double(int i, double value) { return Check(sqlite3_bind_double(fStmt, i, value)); }
    // Text and blobs are bound where they lie: they must outlive the run.
    Query &Text(int i, std::string_view text) {
        return Check(sqlite3_bind_text64(fStmt, i, NonNull(text), text.size(), SQLITE_STATIC, SQLITE_UTF8));
    }
    Query &Blob(int i, const std::optional<std::string_view> &blob) {
        if (!blob)
            return Check(sqlite3_bind_null(fStmt, i));
        return Check(sqlite3_bind_blob64(fStmt, i, NonNull(*blob), blob->size(), SQLITE_STATIC));
    }
    // A Python value as the sqlite3 module would store it: int, float, str,
    // a buffer (bytes and the like) or None.  The value must outlive the run.
    Query &Value(int i, nb::handle value) {
        PyObject *obj = value.ptr();
        if (obj == Py_None)
            return Check(sqlite3_bind_null(fStmt, i));
        if (PyLong_Check(obj)) {
            long long number = PyLong_AsLongLong(obj);
            if (number == -1 && PyErr_Occurred())
                throw nb::python_error();
            return Int(i, number);
        }
        if (PyFloat_Check(obj))
            return Double(i, PyFloat_AS_DOUBLE(obj));
        if (PyUnicode_Check(obj)) {
            Py_ssize_t size = 0;
            const char *data = PyUnicode_AsUTF8AndSize(obj, &size);
            if (!data)
                throw nb::python_error();
            return Text(i, std::string_view(data, (std::size_t) size));
        }
        if (PyBytes_Check(obj))
            return Blob(i, std::string_view(PyBytes_AS_STRING(obj), (std::size_t) PyBytes_GET_SIZE(obj)));
        if (PyObject_CheckBuffer(obj)) {  // bytearray, memoryview, ...: copied
            Py_buffer view;
            if (PyObject_GetBuffer(obj, &view, PyBUF_SIMPLE) < 0)
                throw nb::python_error();
            std::string_view data((const char *) view.buf, (std::size_t) view.len);
            int rc = sqlite3_bind_blob64(fStmt, i, NonNull(data), data.size(), SQLITE_TRANSIENT);
            PyBuffer_Release(&view);
            return Check(rc);
        }
        fDb.Fail(fDoing, std::string("a value of type '") + Py_TYPE(obj)->tp_name + "' can't be stored");
    }

    // True for a row, false at the end.
    bool Step() {
        int rc = sqlite3_step(fStmt);
        if (rc == SQLITE_ROW)
            return true;
        if (rc == SQLITE_DONE)
            return false;
        fDb.FailWithSqlite(fDoing);
    }
    // Steps to the end, and leaves the statement ready for the next run.
    void Run() {
        while (Step()) {
        }
        sqlite3_reset(fStmt);
    }

    int Type(int i) const { return sqlite3_column_type(fStmt, i); }
    std::int64_t ColumnInt(int i) const { return sqlite3_column_int64(fStmt, i); }
    double ColumnDouble(int i) const { return sqlite3_column_double(fStmt, i); }
    std::string_view ColumnText(int i) const {
        const unsigned char *text = sqlite3_column_text(fStmt, i);
        return std::string_view(text ? (const char *) text : "", (std::size_t) sqlite3_column_bytes(fStmt, i));
    }
    std::string_view ColumnBlob(int i) const {
        const void *blob = sqlite3_column_blob(fStmt, i);
        return std::string_view(blob ? (const char *) blob : "", (std::size_t) sqlite3_column_bytes(fStmt, i));
    }
    // A column as the sqlite3 module gives it.
    nb::object Column(int i) const {
        switch (Type(i)) {
        case SQLITE_INTEGER:
            return nb::steal(PyLong_FromLongLong(ColumnInt(i)));
        case SQLITE_FLOAT:
            return nb::steal(PyFloat_FromDouble(ColumnDouble(i)));
        case SQLITE_TEXT: {
            std::string_view text = ColumnText(i);
            PyObject *str = PyUnicode_DecodeUTF8(text.data(), (Py_ssize_t) text.size(), "strict");
            if (!str) {
                PyErr_Clear();
                fDb.Damaged("a stored text is not UTF-8");
            }
            return nb::steal(str);
        }
        case SQLITE_BLOB: {
            std::string_view blob = ColumnBlob(i);
            return nb::steal(PyBytes_FromStringAndSize(blob.data(), (Py_ssize_t) blob.size()));
        }
        default:
            return nb::none();
        }
    }
    nb::tuple Row() const {
        int n = sqlite3_column_count(fStmt);
        nb::object row = nb::steal(PyTuple_New(n));
        for (int i = 0; i < n; ++i)
            PyTuple_SET_ITEM(row.ptr(), i, Column(i).release().ptr());
        return nb::borrow<nb::tuple>(row);
    }

private:
    void Own(const char *sql) {
        fStmt = nullptr;
        if (sqlite3_prepare_v2(fDb.fDb, sql, -1, &fStmt, nullptr) != SQLITE_OK) {
            sqlite3_finalize(fStmt);
            fDb.FailWithSqlite(fDoing);
        }
        fOwned = true;
    }
    Query &Check(int rc) {
        if (rc != SQLITE_OK)
            fDb.FailWithSqlite(fDoing);
        return *this;
    }

    CInfoDatabase &fDb;
    const char *fDoing;
    sqlite3_stmt *fStmt = nullptr;
    bool fOwned = false;
};

bool StoredRecord::KeyLess(const StoredRecord &a, const StoredRecord &b) {
    return std::tie(a.loc_id, a.scope, a.scan_name, a.scanned_loc_id, a.scanned_scope) <
           std::tie(b.loc_id, b.scope, b.scan_name, b.scanned_loc_id, b.scanned_scope);
}

void CInfoDatabase::Fail(const char *doing, const std::string &detail) const {
    throw InfoDatabaseError(fOrigin + ": " + doing + " failed: " + detail);
}

void CInfoDatabase::FailWithSqlite(const char *doing) const {
    Fail(doing, fDb ? sqlite3_errmsg(fDb) : "out of memory");
}

void CInfoDatabase::CheckUsable(const char *doing) const {
    if (!fDb)
        Fail(doing, "the database is closed");
    if (fInUse && fUser != std::this_thread::get_id())
        Fail(doing, "the database is in use by another thread");
}

template <typename F>
void CInfoDatabase::WithoutGil(F &&body) {
    if (fInUse) {  // let go already, by this thread (another is refused)
        CheckUsable("a query");
        body();
        return;
    }
    struct InUse {
        CInfoDatabase &db;
        explicit InUse(CInfoDatabase &db) : db(db) {
            db.fInUse = true;
            db.fUser = std::this_thread::get_id();
        }
        ~InUse() { db.fInUse = false; }
    } in_use(*this);
    if (!PyGILState_Check()) {
        body();
        return;
    }
    nb::gil_scoped_release released;
    body();
}

sqlite3_stmt *CInfoDatabase::Prepared(const char *sql, const char *doing) {
    CheckUsable(doing);
    auto found = fStatements.find(sql);
    if (found != fStatements.end())
        return found->second;
    sqlite3_stmt *stmt = nullptr;
    if (sqlite3_prepare_v3(fDb, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        FailWithSqlite(doing);
    }
    fStatements.emplace(sql, stmt);
    return stmt;
}

void CInfoDatabase::Exec(const char *sql, const char *doing) {
    CheckUsable(doing);
    char *message = nullptr;
    if (sqlite3_exec(fDb, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string detail = message ? message : sqlite3_errmsg(fDb);
        sqlite3_free(message);
        Fail(doing, detail);
    }
}

std::int64_t CInfoDatabase::QueryInt(const char *sql, const char *doing) {
    Query query(*this, std::string(sql), doing);
    if (!query.Step())
        Fail(doing, "the query gave no row");
    return query.ColumnInt(0);
}

nb::list CInfoDatabase::Rows(const char *sql, const char *doing, std::optional<std::string_view> text,
                             std::optional<std::int64_t> number) {
    Query query(*this, sql, doing);
    if (text)
        query.Text(1, *text);
    else if (number)
        query.Int(1, *number);
    nb::list rows;
    while (query.Step())
        rows.append(query.Row());
    return rows;
}

void CInfoDatabase::Connect() {
    if (fReadOnly)
        return ConnectReadOnly();
    int rc = sqlite3_open_v2(fPath.c_str(), &fDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK)
        FailWithSqlite("opening");
    sqlite3_busy_timeout(fDb, kBusyTimeoutMs);
}

void CInfoDatabase::ConnectReadOnly() {
    auto connect = [&](const std::string &name, int flags) {
        if (fDb) {
            sqlite3_close_v2(fDb);
            fDb = nullptr;
        }
        if (sqlite3_open_v2(name.c_str(), &fDb, flags, nullptr) != SQLITE_OK)
            return false;
        sqlite3_busy_timeout(fDb, kBusyTimeoutMs);
        // The first read is where a WAL file that can't be opened shows.
        return sqlite3_exec(fDb, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) == SQLITE_OK;
    };
    if (connect(fPath, SQLITE_OPEN_READONLY))
        return;
    // What can't be opened or read as it stands, not a file that is no
    // database or a damaged one.
    int failure = fDb ? sqlite3_errcode(fDb) & 0xff : SQLITE_NOMEM;
    struct stat st {};
    bool is_file = ::stat(fPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    if (!is_file || failure == SQLITE_NOTADB || failure == SQLITE_CORRUPT || failure == SQLITE_NOMEM)
        FailWithSqlite("opening");
    // A file (or directory) we may not write: a WAL reader needs to make
    // its shared-memory file beside it, an immutable reader doesn't.  Only
    // a URI can ask for that.
    std::error_code error;
    std::string absolute = std::filesystem::absolute(fPath, error).lexically_normal().string();
    if (error)
        absolute = fPath;
    if (!connect("file:" + UriPath(absolute) + "?immutable=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI))
        FailWithSqlite("opening");
}

void CInfoDatabase::Damaged(const std::string &detail) const {
    throw InfoDatabaseError(fOrigin + " is damaged (" + detail +
                            "); it was left as it is");
}

void CInfoDatabase::CheckIntegrity() {
    Query query(*this, std::string("PRAGMA quick_check(3)"), "opening");
    std::string detail;
    while (query.Step()) {
        if (!detail.empty())
            detail += "; ";
        detail += query.ColumnText(0);
    }
    if (detail != "ok")
        Damaged("integrity check: " + detail);
}

void CInfoDatabase::CheckTables(bool scan_rows) {
    for (const TableShape &table : kTableShapes) {
        std::string columns;
        Query info(*this, std::string("PRAGMA table_info(") + table.name + ")", "opening");
        while (info.Step()) {
            if (!columns.empty())
                columns += ',';
            columns += info.ColumnText(1);
        }
        if (columns.empty())
            Damaged(std::string("the table '") + table.name + "' is missing");
        if (columns != table.columns)
            Damaged(std::string("the table '") + table.name + "' has the columns " + columns +
                    " instead of " + table.columns);
        if (!scan_rows)
            continue;
        if (Query(*this, std::string(table.bad_row_query), "opening").Step())
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
    try {
        // Nothing of Python is touched: the checks may read the whole file.
        WithoutGil([&] { Open(); });
    } catch (...) {
        try {
            Close();
        } catch (...) {
        }
        throw;
    }
}

void CInfoDatabase::Open() {
    Connect();
    // A file that is not a database fails here, before anything is written.
    bool trusted = fReadOnly && VerifiedAsItIs();
    if (!trusted)
        CheckIntegrity();
    std::int64_t app = QueryInt("PRAGMA application_id", "opening");
    std::int64_t ver = QueryInt("PRAGMA user_version", "opening");
    std::int64_t tables = QueryInt("SELECT count(*) FROM sqlite_master", "opening");
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
            Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", "opening");
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
        Exec("PRAGMA page_size=16384", "opening");
    SetCacheSize();
    Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", "opening");
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
    // Closing is all C: nothing needs the interpreter, but the GIL is let go
    // only while it runs.
    try {
        Close();
    } catch (...) {
    }
}

void CInfoDatabase::FinalizeStatements() noexcept {
    for (auto &[sql, stmt] : fStatements)
        sqlite3_finalize(stmt);
    fStatements.clear();
}

void CInfoDatabase::Close() {
    if (!fDb)
        return;
    CheckUsable("closing");
    if (fInTransaction) {
        fInTransaction = false;
        sqlite3_exec(fDb, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    FinalizeStatements();
    sqlite3 *db = fDb;
    fDb = nullptr;
    // The last connection folds the write-ahead log back into the file.
    auto close = [&] { sqlite3_close_v2(db); };
    if (Py_IsInitialized() && PyGILState_Check()) {
        nb::gil_scoped_release released;
        close();
    } else {
        close();
    }
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
    Exec("PRAGMA cache_size=-8192", "opening");
}

void CInfoDatabase::CreateSchema() {
    for (const char *statement : kSchema)
        Exec(statement, "making the tables");
    CreateLookupIndexes();
    Exec(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str(), "making the tables");
    Exec(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str(), "making the tables");
}

// Indexes that only speed up lookups: a file made before them gets them on
// its first writable open.
void CInfoDatabase::CreateLookupIndexes() {
    for (const char *statement : kLookupIndexes)
        Exec(statement, "making the indexes");
}

void CInfoDatabase::DropSchema() {
    Exec("DROP INDEX IF EXISTS records_by_scan; DROP INDEX IF EXISTS records_by_leaf; "
         "DROP INDEX IF EXISTS records_heads",
         "rebuilding the file");
    for (const char *table : kOurTables)
        Exec((std::string("DROP TABLE IF EXISTS ") + table).c_str(), "rebuilding the file");
}

void CInfoDatabase::Begin() {
    if (fReadOnly)
        Fail("starting a write", "the database was opened read-only");
    CheckUsable("starting a write");
    // The wait for another writer's lock runs without the GIL.
    WithoutGil([&] { Exec("BEGIN IMMEDIATE", "starting a write"); });
    fInTransaction = true;
}

void CInfoDatabase::Commit() {
    Exec("COMMIT", "committing a write");
    fInTransaction = false;
}

void CInfoDatabase::Rollback() noexcept {
    if (!fInTransaction || !fDb || (fInUse && fUser != std::this_thread::get_id()))
        return;
    fInTransaction = false;
    sqlite3_exec(fDb, "ROLLBACK", nullptr, nullptr, nullptr);
}

nb::object CInfoDatabase::LoadLocation(const std::string &url) {
    nb::list rows = Rows("SELECT id, disk_mtime, checksum, checksum_is_text_int, words "
                         "FROM locations WHERE url = ?",
                         "reading a location", url);
    return nb::len(rows) == 0 ? nb::object(nb::none()) : nb::object(rows[0]);
}

nb::object CInfoDatabase::LoadLocationUrls() {
    Query query(*this, "SELECT url FROM locations ORDER BY url", "listing locations");
    nb::list urls;
    while (query.Step())
        urls.append(query.Column(0));
    return urls;
}

std::int64_t CInfoDatabase::EnsureLocation(const std::string &url) {
    const char *doing = "adding a location";
    Query(*this, "INSERT OR IGNORE INTO locations (url) VALUES (?)", doing).Text(1, url).Run();
    Query query(*this, "SELECT id FROM locations WHERE url = ?", doing);
    if (!query.Text(1, url).Step())
        Fail(doing, "the new row is missing");
    return query.ColumnInt(0);
}

void CInfoDatabase::WriteLocationMeta(std::int64_t id, double disk_mtime, nb::handle checksum,
                                      nb::handle words) {
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
    Query(*this,
          "UPDATE locations SET disk_mtime = ?, checksum = ?, checksum_is_text_int = ?, "
          "words = ? WHERE id = ?",
          "writing a location")
        .Double(1, disk_mtime)
        .Value(2, stored)
        .Int(3, text_int ? 1 : 0)
        .Value(4, words)
        .Int(5, id)
        .Run();
}

nb::object CInfoDatabase::LoadScansDone(std::int64_t loc_id) {
    return Rows("SELECT scan_name, disk_mtime FROM scans_done WHERE loc_id = ?", "reading scans done",
                std::nullopt, loc_id);
}

void CInfoDatabase::ReplaceScansDone(std::int64_t loc_id, const std::map<std::string, double> &scans_done) {
    const char *doing = "writing scans done";
    Query(*this, "DELETE FROM scans_done WHERE loc_id = ?", doing).Int(1, loc_id).Run();
    Query insert(*this, "INSERT INTO scans_done (loc_id, scan_name, disk_mtime) VALUES (?, ?, ?)", doing);
    for (const auto &[scan, disk_mtime] : scans_done) {
        insert.Int(1, loc_id).Text(2, scan).Double(3, disk_mtime).Run();
    }
}

// The columns that EachRecordRow reads, in its order.
#define PYSOURCE_RECORD_COLUMNS                                                    \
    "SELECT r.scope, r.scan_name, l.url, r.scanned_scope, r.ibytes, "              \
    "r.disk_mtime, r.flags, r.type_equivs, r.inst_type_equivs, r.domains, "        \
    "r.scopes_seen, r.resolved_imports FROM records r "                           \
    "JOIN locations l ON l.id = r.scanned_loc_id "

void CInfoDatabase::LoadRecords(std::int64_t loc_id, const std::function<void(const StoredRecordView &)> &each) {
    Query query(*this, PYSOURCE_RECORD_COLUMNS "WHERE r.loc_id = ?", "reading records");
    query.Int(1, loc_id);
    EachRecordRow(query, each);
}

void CInfoDatabase::LoadScopeRecords(std::int64_t loc_id, std::string_view scope,
                                     const std::function<void(const StoredRecordView &)> &each) {
    // A prefix of the table's key: a lookup.
    Query query(*this, PYSOURCE_RECORD_COLUMNS "WHERE r.loc_id = ? AND r.scope = ?", "reading records");
    query.Int(1, loc_id).Text(2, scope);
    EachRecordRow(query, each);
}

void CInfoDatabase::EachRecordRow(Query &query, const std::function<void(const StoredRecordView &)> &each) {
    // A value of another kind than its column's is a damaged file, even one
    // that a reader trusted without looking at every row.
    auto wrong_kind = [&] { Damaged("a stored row can't be read"); };
    auto text = [&](int i) {
        if (query.Type(i) != SQLITE_TEXT)
            wrong_kind();
        return query.ColumnText(i);
    };
    auto blob = [&](int i) {
        if (query.Type(i) != SQLITE_BLOB)
            wrong_kind();
        return query.ColumnBlob(i);
    };
    StoredRecordView row;
    while (query.Step()) {
        row.scope = text(0);
        row.scan_name = text(1);
        row.scanned_url = text(2);
        row.scanned_scope = text(3);
        row.ibytes = blob(4);
        int time_type = query.Type(5);
        if (time_type != SQLITE_FLOAT && time_type != SQLITE_INTEGER)
            wrong_kind();
        row.disk_mtime = query.ColumnDouble(5);
        if (query.Type(6) != SQLITE_INTEGER)
            wrong_kind();
        row.flags = query.ColumnInt(6);
        row.parts[0] = blob(7);
        for (int i = 1; i < 5; ++i)
            row.parts[(std::size_t) i] =
                query.Type(7 + i) == SQLITE_NULL ? std::nullopt : std::optional<std::string_view>(blob(7 + i));
        each(row);
    }
}

void CInfoDatabase::UpsertRecords(const std::vector<StoredRecord> &rows) {
    Query upsert(*this,
                 "INSERT OR REPLACE INTO records (loc_id, scope, scan_name, scanned_loc_id, "
                 "scanned_scope, ibytes, disk_mtime, flags, type_equivs, inst_type_equivs, domains, "
                 "scopes_seen, resolved_imports) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                 "writing records");
    for (const StoredRecord &row : rows) {
        upsert.Int(1, row.loc_id).Text(2, row.scope).Text(3, row.scan_name).Int(4, row.scanned_loc_id);
        upsert.Text(5, row.scanned_scope).Blob(6, row.ibytes).Double(7, row.disk_mtime).Int(8, row.flags);
        for (int i = 0; i < 5; ++i)
            upsert.Blob(9 + i, row.parts[(std::size_t) i]);
        upsert.Run();
    }
}

void CInfoDatabase::DeleteRecords(const std::vector<StoredRecordKey> &keys) {
    Query query(*this,
                "DELETE FROM records WHERE loc_id = ? AND scope = ? AND scan_name = ? "
                "AND scanned_loc_id = ? AND scanned_scope = ?",
                "deleting records");
    for (const StoredRecordKey &key : keys) {
        query.Int(1, key.loc_id).Text(2, key.scope).Text(3, key.scan_name).Int(4, key.scanned_loc_id);
        query.Text(5, key.scanned_scope).Run();
    }
}

void CInfoDatabase::DeleteRecordsOfScans(const std::vector<StoredScanKey> &scans) {
    Query query(*this,
                "DELETE FROM records WHERE scanned_loc_id = ? AND scanned_scope = ? "
                "AND scan_name = ?",
                "deleting records of scans");
    for (const StoredScanKey &scan : scans) {
        query.Int(1, scan.scanned_loc_id).Text(2, scan.scanned_scope).Text(3, scan.scan_name).Run();
    }
}

std::int64_t CInfoDatabase::DeleteLocation(std::int64_t loc_id) {
    const char *doing = "deleting a location";
    Begin();
    try {
        Query(*this, "DELETE FROM records WHERE loc_id = ?1 OR scanned_loc_id = ?1", doing).Int(1, loc_id).Run();
        std::int64_t deleted = sqlite3_changes(fDb);
        Query(*this, "DELETE FROM scans_done WHERE loc_id = ?", doing).Int(1, loc_id).Run();
        Query(*this, "DELETE FROM scope_counts WHERE loc_id = ?", doing).Int(1, loc_id).Run();
        Query(*this, "DELETE FROM locations WHERE id = ?", doing).Int(1, loc_id).Run();
        Commit();
        return deleted;
    } catch (...) {
        Rollback();
        throw;
    }
}

nb::object CInfoDatabase::LoadScopeNames(std::int64_t loc_id) {
    Query query(*this, "SELECT DISTINCT scope FROM records WHERE loc_id = ? ORDER BY scope",
                "reading scope names");
    query.Int(1, loc_id);
    nb::list names;
    while (query.Step())
        names.append(query.Column(0));
    return names;
}

nb::object CInfoDatabase::LoadScansOfScannedLoc(std::int64_t loc_id) {
    return Rows("SELECT DISTINCT scanned_scope, scan_name FROM records WHERE scanned_loc_id = ?",
                "reading scans", std::nullopt, loc_id);
}

nb::object CInfoDatabase::FindScopesWithLeaf(const std::string &leaf) {
    return Rows("SELECT DISTINCT l.url, r.scope FROM records r "
                "JOIN locations l ON l.id = r.loc_id WHERE " PYSOURCE_SCOPE_LEAF " = ?",
                "finding scopes", leaf);
}

void CInfoDatabase::RecountScopes(const std::set<std::int64_t> &loc_ids,
                                  const std::string &scan_name) {
    const char *doing = "counting scopes";
    static const std::string recount =
        "INSERT INTO scope_counts SELECT loc_id, scan_name, " + ScopeKindSql("records") +
        ", count(*), sum(flags & 1) FROM records WHERE loc_id = ? AND scan_name = ? GROUP BY 3";
    Query clear(*this, "DELETE FROM scope_counts WHERE loc_id = ? AND scan_name = ?", doing);
    Query count(*this, recount.c_str(), doing);
    for (std::int64_t id : loc_ids) {
        clear.Int(1, id).Text(2, scan_name).Run();
        count.Int(1, id).Text(2, scan_name).Run();
    }
}

nb::object CInfoDatabase::LoadScopeCounts(const std::string &scan_name) {
    return Rows("SELECT l.url, c.kind, c.scopes, c.incomplete FROM scope_counts c "
                "JOIN locations l ON l.id = c.loc_id WHERE c.scan_name = ? AND c.scopes > 0 "
                "ORDER BY l.url, c.kind",
                "counting scopes", scan_name);
}

std::int64_t CInfoDatabase::CountRecords() {
    return QueryInt("SELECT count(*) FROM records", "counting records");
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

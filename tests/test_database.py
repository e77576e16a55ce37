"""The info cache's SQLite database: records outlive the process, a reader reads while a
writer writes, a killed writer loses only its own transaction, another schema version
is rebuilt, and a damaged or foreign file is reported and left alone."""

import contextlib
import json
import logging
import os
import signal
import sqlite3
import subprocess
import sys
import textwrap
import threading
import time

import pytest

from pysource.scopeinfo import (CInfoCache, CInfoDatabaseError, CScopeInfo, CScopeInfoKey,
                               CScopeInfoSerializer, kSchemaVersion)

from cacheutil import DERIVED, PRIMARY, Scope, derived_record, loc_of, primary_record, record_summary

TESTS_DIR = os.path.dirname(os.path.abspath(__file__))


def run_child(tmp_path, body, **popen):
    """Runs `body` in a fresh interpreter; `db` and `work` are set for it."""
    script = tmp_path / "child.py"
    script.write_text(
        "import json, pathlib, sys\n"
        "from cacheutil import *\n"
        "from pysource.scopeinfo import CInfoCache, _SetDatabaseWriteHook\n"
        f"work = pathlib.Path({str(tmp_path)!r})\n"
        f"db = {str(tmp_path / 'index.db')!r}\n" + textwrap.dedent(body))
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([TESTS_DIR, os.environ.get("PYTHONPATH", "")]))
    if popen:
        return subprocess.Popen([sys.executable, str(script)], env=env, text=True, **popen)
    done = subprocess.run([sys.executable, str(script)], env=env, text=True, capture_output=True)
    assert done.returncode == 0, done.stderr
    return done.stdout


def as_json(value):
    """record_summary values with bytes made printable, as the child prints them."""
    return json.loads(json.dumps(value, default=lambda b: b.decode("latin-1")))


def one_record_db(tmp_path, equivs=None):
    """A closed database holding one module record of a.py; gives (db path, a.py)."""
    db, a = tmp_path / "index.db", loc_of(tmp_path, "a.py")
    cache = CInfoCache(db_path=db)
    cache.AddScopeInfo(primary_record(Scope(a, ""), equivs or {}), True)
    cache.WriteToDatabase()
    cache.CloseDatabase()
    return db, a


WRITE_PROJECT = """
a, b = loc_of(work, "a.py"), loc_of(work, "b.py")
cache = CInfoCache(db_path=db)
mod, f, g = Scope(a, ""), Scope(a, "f"), Scope(b, "g")
cache.AddScopeInfo(primary_record(mod, {"f": b":fdef", "x": b":s1"}), True)
cache.AddScopeInfo(primary_record(f, {"y": b":s0"}, inst={"attr": b"int"}), True)
with_domains = primary_record(g, {"z": b":g3"})
with_domains._domains = {"z": b"dom"}
cache.AddScopeInfo(with_domains, True)
derived = derived_record(f, g, {"arg": b"str"}, seen=[mod])
derived.MergeResolvedImports([mod])
cache.AddScopeInfoListForSingleScan(g, DERIVED, [derived], True)
cache.ChangeScansDone(a, PRIMARY, True, 10.0)
cache.SetEOLBlindChecksum(a, 2**80 + 7, 10.0)
cache.SaveWords(a, ["alpha", "beta"])
cache.WriteToDatabase()
out = {name: record_summary(cache.GetScopeInfo(s)) for name, s in [("mod", mod), ("f", f), ("g", g)]}
print("RESULT", json.dumps(out, default=lambda b: b.decode("latin-1")))
"""


@pytest.fixture
def project_db(tmp_path):
    """The database a finished process wrote for a.py and b.py; gives (path, its output)."""
    return tmp_path / "index.db", run_child(tmp_path, WRITE_PROJECT)


class TestSurvivesTheProcess:
    def test_a_new_cache_serves_the_records_of_a_finished_process(self, tmp_path, project_db):
        db, output = project_db
        written = json.loads(output.split("RESULT ", 1)[1])
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        cache = CInfoCache(db_path=db)
        assert cache.fDatabaseMessage is None
        for name, scope in [("mod", Scope(a, "")), ("f", Scope(a, "f")), ("g", Scope(b, "g"))]:
            assert as_json(record_summary(cache.GetScopeInfo(scope))) == written[name]
        assert cache.CountScopeInfoRecords(Scope(a, "f")) == 2
        assert cache.CountScopeInfoRecords(Scope(a, "nothing")) < 0
        assert cache.GetScopesForLoc(a) == ["", "f"]
        assert cache.GetScopeInfo(Scope(b, "g"))._domains == {"z": b"dom"}
        merged = cache.GetScopeInfo(Scope(a, "f"))
        assert merged.GetInfoBytes("arg") == b"str"
        assert merged.scopes_seen == {Scope(a, ""), Scope(b, "g")}
        # Loaded scopes carry the interned locations again.
        assert next(iter(merged.scopes_seen)).loc in (a, b)
        # The facts of an unchanged file tell it is scanned.
        assert cache.IsScanDone(a, PRIMARY, 10.0) and not cache.IsScanDone(a, PRIMARY, 11.0)
        assert cache.GetEOLBlindChecksum(a) == 2**80 + 7 and cache.GetLocDiskMTime(a) == 10.0
        assert cache.GetWords(a) == {"alpha", "beta"}

    def test_removals_reach_the_file(self, tmp_path, project_db):
        # A second process scans g again; it derives nothing this time.  The record it
        # voids lives in a.py, which that process never loaded.
        run_child(tmp_path, """
            cache = CInfoCache(db_path=db)
            g = Scope(loc_of(work, "b.py"), "g")
            cache.FinishedWithScans(g, DERIVED)
            cache.WriteToDatabase([g.loc])
        """)
        cache = CInfoCache(db_path=tmp_path / "index.db")
        f = Scope(loc_of(tmp_path, "a.py"), "f")
        assert cache.CountScopeInfoRecords(f) == 1
        assert cache.GetScopeInfo(f).GetInfoBytes("arg") is None

    def test_writing_one_location_leaves_the_others_for_later(self, tmp_path):
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        db = tmp_path / "index.db"
        cache = CInfoCache(db_path=db)
        cache.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"1"}), True)
        cache.AddScopeInfo(primary_record(Scope(b, ""), {"y": b"1"}), True)
        cache.AddScopeInfo(primary_record(Scope(a, "volatile"), {"v": b"1"}))  # memory only
        assert cache.WriteToDatabase([a]) == 1
        assert CInfoCache(db_path=db).CountScopeInfoRecords(Scope(b, "")) < 0
        assert cache.WriteToDatabase() == 1
        reader = CInfoCache(db_path=db)
        assert reader.CountScopeInfoRecords(Scope(b, "")) == 1
        assert reader.CountScopeInfoRecords(Scope(a, "volatile")) < 0
        assert cache.WriteToDatabase() == 0  # nothing left to write

    def test_trim_lets_clean_locations_go_and_reads_them_back(self, tmp_path):
        cache = CInfoCache(db_path=tmp_path / "index.db")
        locs = [loc_of(tmp_path, f"m{i}.py") for i in range(10)]
        for loc in locs:
            for j in range(5):
                cache.AddScopeInfo(primary_record(Scope(loc, f"f{j}"), {"n": str(j).encode()}), True)
        cache.fMaxRecordsInMemory = 20
        cache.Trim()
        assert cache.fRecordsInMemory == 50  # nothing written yet: nothing may go
        cache.WriteToDatabase()
        cache.Trim()
        assert cache.fRecordsInMemory <= 15
        # Trimmed locations stay listed.
        assert cache.fLocationsInMemory < len(locs)
        assert urls_of(cache.GetLocations()) == sorted(loc.fUrl for loc in locs)
        for loc in locs:
            assert cache.GetScopeInfo(Scope(loc, "f3")).GetInfoBytes("n") == b"3"

    def test_trim_keeps_what_was_used_since_it_last_looked(self, tmp_path):
        # Unwritten records hold the count above the bound: a trim must not
        # let go of the locations the scan under way reads, only to read them
        # back at once.
        cache = CInfoCache(db_path=tmp_path / "index.db")
        locs = [loc_of(tmp_path, f"m{i}.py") for i in range(4)]
        for loc in locs:
            for j in range(5):
                cache.AddScopeInfo(primary_record(Scope(loc, f"f{j}"), {"n": b"1"}), True)
        cache.fMaxRecordsInMemory = 8
        cache.WriteToDatabase()
        cache.GetScopeInfo(Scope(locs[0], "f0"))
        big = loc_of(tmp_path, "big.py")
        for j in range(10):
            cache.AddScopeInfo(primary_record(Scope(big, f"g{j}"), {"n": b"1"}), True)
        cache.Trim()
        assert cache.fRecordsInMemory == 15  # big.py's and m0.py's; m1-m3.py went


@contextlib.contextmanager
def killed_when_writing(writer):
    """Waits for the child's "writing" line, runs the block, then kills the child."""
    try:
        line = writer.stdout.readline()
        while line and line.strip() != "writing":  # skip build chatter
            line = writer.stdout.readline()
        assert line.strip() == "writing"
        yield
    finally:
        writer.send_signal(signal.SIGKILL)
        writer.wait()
    assert writer.returncode == -signal.SIGKILL


class TestConcurrentAndInterrupted:
    def test_reader_reads_while_a_writer_writes_and_a_killed_writer_loses_only_its_write(
            self, tmp_path):
        db, a = one_record_db(tmp_path, {"x": b"old"})

        writer = run_child(tmp_path, """
            cache = CInfoCache(db_path=db)
            a = loc_of(work, "a.py")
            cache.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"new"}), True)
            for i in range(2000):
                cache.AddScopeInfo(primary_record(Scope(a, f"f{i}"), {"n": b"1"}), True)
            def stop_inside_the_write(path):
                print("writing", flush=True)
                sys.stdin.readline()  # held here until the parent kills us
            _SetDatabaseWriteHook(stop_inside_the_write)
            cache.WriteToDatabase()
            print("committed", flush=True)
        """, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        with killed_when_writing(writer):
            reader = CInfoCache(db_path=db)
            assert reader.GetScopeInfo(Scope(a, "")).GetInfoBytes("x") == b"old"
            assert reader.CountScopeInfoRecords(Scope(a, "f5")) < 0
        after = CInfoCache(db_path=db)
        assert after.GetScopeInfo(Scope(a, "")).GetInfoBytes("x") == b"old"
        assert after.CountScopeInfoRecords(Scope(a, "f5")) < 0
        # The file is sound and takes the next write.
        after.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"newer"}), True)
        after.WriteToDatabase()
        assert CInfoCache(db_path=db).GetScopeInfo(Scope(a, "")).GetInfoBytes("x") == b"newer"

    def test_a_killed_batched_writer_loses_only_the_batch_under_way(self, tmp_path):
        writer = run_child(tmp_path, """
            cache = CInfoCache(db_path=db)
            cache.fWriteBatchLocations = 3
            writes = []
            def stop_in_the_second_write(path):
                writes.append(path)
                if len(writes) == 2:
                    print("writing", flush=True)
                    sys.stdin.readline()  # held here until the parent kills us
            _SetDatabaseWriteHook(stop_in_the_second_write)
            for i in range(7):
                loc = loc_of(work, f"m{i}.py")
                cache.AddScopeInfo(primary_record(Scope(loc, ""), {"n": b"1"}), True)
                cache.WriteToDatabase([loc])
        """, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        with killed_when_writing(writer):
            pass
        with sqlite3.connect(tmp_path / "index.db") as conn:
            assert conn.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        stored = CInfoCache(db_path=tmp_path / "index.db")
        assert urls_of(stored.GetLocations()) == [loc_of(tmp_path, f"m{i}.py").fUrl for i in range(3)]

    def test_a_write_waiting_for_a_lock_lets_other_threads_run_but_not_use_the_file(self, tmp_path):
        db, a = one_record_db(tmp_path, {"x": b"old"})
        cache = CInfoCache(db_path=db)
        cache.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"new"}), True)
        holder = sqlite3.connect(db, isolation_level=None)
        holder.execute("BEGIN IMMEDIATE")
        written = []
        writer = threading.Thread(target=lambda: written.append(cache.WriteToDatabase()))
        writer.start()
        try:
            # Lists the file's locations until the writer waits for the lock.
            deadline = time.monotonic() + 4
            with pytest.raises(CInfoDatabaseError, match="in use by another thread"):
                while time.monotonic() < deadline:
                    cache.GetLocations()
            for refused in (cache.WriteToDatabase, cache.CloseDatabase):
                with pytest.raises(CInfoDatabaseError, match="in use by another thread"):
                    refused()
        finally:
            holder.execute("COMMIT")
            holder.close()
            writer.join()
        assert written == [1]
        cache.CloseDatabase()
        assert CInfoCache(db_path=db).GetScopeInfo(Scope(a, "")).GetInfoBytes("x") == b"new"

    def test_a_failing_write_rolls_back_and_keeps_its_work_for_the_next(self, tmp_path):
        from pysource.scopeinfo import _SetDatabaseWriteHook
        a = loc_of(tmp_path, "a.py")
        db = tmp_path / "index.db"
        cache = CInfoCache(db_path=db)
        cache.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"1"}), True)

        def fail(path):
            raise OSError("disk went away")

        _SetDatabaseWriteHook(fail)
        try:
            with pytest.raises(OSError):
                cache.WriteToDatabase()
        finally:
            _SetDatabaseWriteHook(None)
        assert CInfoCache(db_path=db).CountScopeInfoRecords(Scope(a, "")) < 0
        assert cache.WriteToDatabase() == 1
        assert CInfoCache(db_path=db).CountScopeInfoRecords(Scope(a, "")) == 1


class TestUnusableFiles:
    def test_an_older_schema_is_rebuilt_with_a_message(self, tmp_path, caplog):
        db, a = one_record_db(tmp_path)
        with sqlite3.connect(db) as conn:
            conn.execute(f"PRAGMA user_version={kSchemaVersion - 1}")
        with caplog.at_level(logging.WARNING, logger="pysource.scopeinfo"):
            rebuilt = CInfoCache(db_path=db)
        message = rebuilt.fDatabaseMessage
        assert str(db) in message and "older" in message and "rebuilt" in message
        assert message in caplog.text
        assert rebuilt.CountScopeInfoRecords(Scope(a, "")) < 0
        assert CInfoCache(db_path=db).fDatabaseMessage is None  # the current version now

    def test_a_database_of_another_program_is_reported_and_kept(self, tmp_path):
        db = tmp_path / "other.db"
        with sqlite3.connect(db) as conn:
            conn.execute("CREATE TABLE notes (text TEXT)")
            conn.execute("INSERT INTO notes VALUES ('mine')")
        with pytest.raises(CInfoDatabaseError, match="another program"):
            CInfoCache(db_path=db)
        with sqlite3.connect(db) as conn:
            assert conn.execute("SELECT text FROM notes").fetchall() == [("mine",)]

    def test_a_damaged_record_is_reported_with_the_file(self, tmp_path):
        db, a = one_record_db(tmp_path, {"x": b"1"})
        with sqlite3.connect(db) as conn:
            conn.execute("UPDATE records SET type_equivs = x'05ff'")
        reader = CInfoCache(db_path=db)
        with pytest.raises(CInfoDatabaseError, match="damaged"):
            reader.GetScopeInfo(Scope(a, ""))
        # Nothing half-read stays behind to pass for the whole file.
        with pytest.raises(CInfoDatabaseError, match=str(db)):
            reader.CountScopeInfoRecords(Scope(a, ""))
        assert reader.fRecordsInMemory == 0


class TestWordsAndChecksums:
    def test_a_file_cache_hands_its_words_and_checksum_to_the_database(self, tmp_path):
        from basekit.location import CLocalFileLocation
        from pysource import filellinecache

        source = tmp_path / "m.py"
        source.write_text("def spam(eggs):\n    return eggs + ham\n")
        loc = CLocalFileLocation(str(source))
        db = tmp_path / "index.db"
        cache = CInfoCache(db_path=db)
        filellinecache.SetWordStore(cache.SaveWords)
        try:
            lines = filellinecache.CFileLogicalLineCache(loc)
            assert lines.Update()
            lines.SaveWordsToDb()
        finally:
            filellinecache.SetWordStore(None)
        checksum = lines.GetEOLBlindChecksum()
        cache.SetEOLBlindChecksum(loc, checksum, lines.fMatchedDiskMTime)
        cache.ChangeScansDone(loc, PRIMARY, True, lines.fMatchedDiskMTime)
        cache.WriteToDatabase([loc])

        reopened = CInfoCache(db_path=db)
        assert {"spam", "eggs", "ham"} <= reopened.GetWords(loc)
        assert "def" not in reopened.GetWords(loc)
        assert reopened.GetEOLBlindChecksum(loc) == checksum
        # Disk time and checksum tell that the file need not be scanned again.
        assert reopened.IsScanDone(loc, PRIMARY, source.stat().st_mtime)


def urls_of(locs):
    return [loc.fUrl for loc in locs]


class TestListingLocations:
    def test_locations_only_in_the_file_are_listed_without_reading_their_records(
            self, tmp_path, project_db):
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        cache = CInfoCache(db_path=tmp_path / "index.db")
        assert urls_of(cache.GetLocations()) == sorted([a.fUrl, b.fUrl])
        assert cache.fRecordsInMemory == 0 and cache.fLocationsInMemory == 0
        # The listed locations lead to their records.
        assert cache.GetScopesForLoc(cache.GetLocations()[0]) == ["", "f"]

    def test_unwritten_and_written_locations_are_listed_once_and_lookups_are_not(self, tmp_path):
        a, b, c = (loc_of(tmp_path, name) for name in ("a.py", "b.py", "c.py"))
        db = tmp_path / "index.db"
        cache = CInfoCache(db_path=db)
        cache.AddScopeInfo(primary_record(Scope(a, ""), {"x": b"1"}), True)
        cache.WriteToDatabase()
        cache.AddScopeInfo(primary_record(Scope(a, "g"), {"y": b"1"}), True)
        cache.ChangeScansDone(b, PRIMARY, True, 12.0)    # a fact without records
        assert cache.GetScopeInfo(Scope(c, "")) is None  # a lookup leaves nothing
        assert urls_of(cache.GetLocations()) == [a.fUrl, b.fUrl]
        assert urls_of(CInfoCache(db_path=db).GetLocations()) == [a.fUrl]
        cache.WriteToDatabase()
        assert urls_of(CInfoCache(db_path=db).GetLocations()) == [a.fUrl, b.fUrl]

    def test_scopes_by_name_come_from_the_file_and_from_memory(self, tmp_path, project_db):
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        cache = CInfoCache(db_path=tmp_path / "index.db")
        assert cache.FindScopesNamed("f") == [(a, "f")]
        assert cache.FindScopesNamed("a.f") == [] and cache.FindScopesNamed("") == [(a, "")]
        assert cache.fRecordsInMemory == 0
        cache.AddScopeInfo(primary_record(Scope(b, "C.f"), {}), True)  # not written
        assert cache.FindScopesNamed("f") == [(a, "f"), (b, "C.f")]
        assert cache.FindScopesNamed("C.f") == [(b, "C.f")]

    def test_scope_counts_follow_writes_replacements_and_removals(self, tmp_path):
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        db = tmp_path / "index.db"
        cache = CInfoCache(db_path=db)
        for scope, ibytes, incomplete in [(Scope(a, ""), b"", False), (Scope(a, "C"), b":Cx", False),
                                          (Scope(a, "C()"), b"", False),
                                          (Scope(a, "C.f"), b":u", True), (Scope(b, "g"), b":f", False)]:
            cache.AddScopeInfo(primary_record(scope, {}, ibytes=ibytes, incomplete=incomplete), True)
        cache.AddScopeInfoListForSingleScan(
            Scope(b, "g"), DERIVED, [derived_record(Scope(a, "C.f"), Scope(b, "g"), {"x": b"int"})], True)

        def counts(cache):
            return [(loc.fUrl == a.fUrl, kind, n, bad) for loc, kind, n, bad in cache.GetScopeCounts()]
        expected = [(True, "class", 1, 0), (True, "instance", 1, 0), (True, "method", 1, 1),
                    (True, "module", 1, 0), (False, "function", 1, 0)]
        assert counts(cache) == expected                     # from memory
        cache.WriteToDatabase()
        reader = CInfoCache(db_path=db)
        assert counts(reader) == expected and reader.fRecordsInMemory == 0
        cache.AddScopeInfo(primary_record(Scope(b, "g"), {}, ibytes=b":Cg"), True)   # replaced
        cache.ForgetScopesOfLoc(a, PRIMARY, ["", "C", "C()"])
        cache.WriteToDatabase()
        assert counts(CInfoCache(db_path=db)) == expected[:2] + expected[3:4] + [(False, "class", 1, 0)]
        cache.ForgetLocation(a)
        assert counts(CInfoCache(db_path=db)) == [(False, "class", 1, 0)]

    def test_without_a_database_the_locations_in_memory_and_no_writes(self, tmp_path):
        cache = CInfoCache()
        a, b = loc_of(tmp_path, "a.py"), loc_of(tmp_path, "b.py")
        assert cache.GetLocations() == []
        cache.AddScopeInfo(primary_record(Scope(b, ""), {}), True)
        cache.SaveWords(a, ["w"])
        assert cache.GetLocations() == [a, b]   # the location objects given
        assert cache.WriteToDatabase() == 0 and cache.fDatabasePath is None


class TestReadOnly:
    def test_reads_what_a_writer_stored_and_refuses_to_write(self, tmp_path, project_db):
        db, _ = project_db
        a = loc_of(tmp_path, "a.py")
        cache = CInfoCache()
        cache.OpenDatabase(str(db), read_only=True)
        assert cache.fDatabaseReadOnly
        assert cache.GetScopesForLoc(a) == ["", "f"]
        assert cache.GetScopeInfo(Scope(a, "f")).GetInfoBytes("arg") == b"str"
        assert cache.IsScanDone(a, PRIMARY, 10.0)
        assert cache.WriteToDatabase() == 0   # nothing to write: no complaint
        cache.AddScopeInfo(primary_record(Scope(loc_of(tmp_path, "new.py"), ""), {}), True)
        with pytest.raises(CInfoDatabaseError, match="read-only"):
            cache.WriteToDatabase()
        assert urls_of(CInfoCache(db_path=db).GetLocations()) == urls_of(
            [a, loc_of(tmp_path, "b.py")])

    @pytest.fixture
    def many_scopes(self, tmp_path):
        """A read-only cache over a.py's module and twenty functions, f1's
        derived record for f0 beside f0's own; gives (cache, a.py)."""
        db, a = tmp_path / "index.db", loc_of(tmp_path, "a.py")
        writer = CInfoCache(db_path=db)
        for name in ["", *(f"f{i}" for i in range(20))]:
            writer.AddScopeInfo(primary_record(Scope(a, name), {"x": b"own"}), True)
        writer.AddScopeInfoListForSingleScan(
            Scope(a, "f1"), DERIVED, [derived_record(Scope(a, "f0"), Scope(a, "f1"), {"arg": b"str"})], True)
        writer.WriteToDatabase()
        writer.CloseDatabase()
        reader = CInfoCache()
        reader.OpenDatabase(str(db), read_only=True)
        reader.fKeepWritesInMemory = True
        return reader, a

    def test_a_lookup_reads_only_its_scope_and_a_whole_file_use_the_rest(self, many_scopes):
        cache, a = many_scopes
        f0 = Scope(a, "f0")
        assert cache.GetScopeInfo(f0).GetInfoBytes("arg") == b"str"
        assert cache.CountScopeInfoRecords(Scope(a, "gone")) == -1
        assert len(cache.GetScopesForLoc(a)) == 21
        assert cache.fRecordsInMemory == 2   # f0's two records
        assert cache.CountIncompleteScopes(a) == 0   # reads the rest, f0's rows once
        assert cache.fRecordsInMemory == 22 and len(cache.GetScopeInfoRecords(f0)) == 2

    @pytest.mark.parametrize("change", ["rescan", "scan-ends-empty"])
    def test_a_change_to_a_scope_read_alone_holds_when_the_rest_is_read(self, many_scopes, change):
        cache, a = many_scopes
        f0 = Scope(a, "f0")
        cache.GetScopeInfo(f0)
        if change == "rescan":
            cache.AddScopeInfo(primary_record(f0, {"x": b"new"}), True)
            expected = {"x": b"new", "arg": b"str"}, 22
        else:
            cache.FinishedWithScans(Scope(a, "f1"), DERIVED)
            expected = {"x": b"own"}, 21
        cache.CountIncompleteScopes(a)
        assert (dict(cache.GetScopeInfo(f0).type_equivs), cache.fRecordsInMemory) == expected

    def test_a_missing_file_is_reported_and_not_made(self, tmp_path):
        db = tmp_path / "nothere.db"
        with pytest.raises(CInfoDatabaseError, match="nothere.db"):
            CInfoCache().OpenDatabase(str(db), read_only=True)
        assert not db.exists()

    def test_an_empty_file_is_reported(self, tmp_path):
        empty = tmp_path / "empty.db"
        empty.write_bytes(b"")
        with pytest.raises(CInfoDatabaseError, match="no pysource index"):
            CInfoCache().OpenDatabase(str(empty), read_only=True)
        assert empty.read_bytes() == b""


def blob_scan(loc):
    """The records one scan of `loc` makes, in order: a replaced record, one
    dropped again (not found) and an incomplete one."""
    mod, f, gone = Scope(loc, ""), Scope(loc, "f"), Scope(loc, "gone")
    missing = CScopeInfo(CScopeInfoKey(gone, PRIMARY, gone), b"", 10.0, False, True)
    return [primary_record(mod, {"f": b":fdef"}, inst={"a": b"int"}),
            primary_record(f, {"y": b":old"}), primary_record(gone, {"z": b"1"}),
            primary_record(f, {"y": b":s0"}, incomplete=True), missing]


READS_BEFORE_THE_WRITE = {
    "nothing": lambda cache, loc: None,
    "GetScopeInfo": lambda cache, loc: record_summary(cache.GetScopeInfo(Scope(loc, "f"))),
    "GetScopesForLoc": lambda cache, loc: cache.GetScopesForLoc(loc),
    "FindScopesNamed": lambda cache, loc: [s for _, s in cache.FindScopesNamed("f")],
    "GetScopeCounts": lambda cache, loc: [row[1:] for row in cache.GetScopeCounts()],
    "ForgetScopesOfLoc": lambda cache, loc: cache.ForgetScopesOfLoc(loc, PRIMARY, [""]),
}


class TestRecordsAsBlobs:
    """A scan's records handed over as serialized blobs give the file that
    adding the records gives, whether or not they are read before the write."""

    @pytest.mark.parametrize("read", READS_BEFORE_THE_WRITE)
    def test_blobs_make_the_same_file_as_the_records(self, tmp_path, read):
        results, files = [], []
        for name, as_blobs in (("records", False), ("blobs", True)):
            db = tmp_path / f"{name}.db"
            cache = CInfoCache(db_path=db)
            a = loc_of(tmp_path, "a.py")
            if as_blobs:
                dumps = CScopeInfoSerializer().Dumps
                assert cache.AddScopeInfoBlobs(a, [dumps(r) for r in blob_scan(a)])
            else:
                for record in blob_scan(a):
                    cache.AddScopeInfo(record, True)
            counts = (cache.CountIncompleteScopes(a), cache.fRecordsInMemory)
            results.append((counts, READS_BEFORE_THE_WRITE[read](cache, a)))
            assert cache.WriteToDatabase([a]) == 2 - (read == "ForgetScopesOfLoc")
            results.append(record_summary(cache.GetScopeInfo(Scope(a, "f"))))
            cache.CloseDatabase()
            files.append(db.read_bytes())
        assert results[0] == results[2] and results[1] == results[3]
        assert results[0][0] == (1, 2) and files[0] == files[1]

    def test_a_location_with_records_takes_them_one_by_one(self, tmp_path):
        db, a = one_record_db(tmp_path)
        blobs = [CScopeInfoSerializer().Dumps(r) for r in blob_scan(a)]
        cache = CInfoCache(db_path=db)
        assert not cache.AddScopeInfoBlobs(a, blobs)
        assert cache.GetScopesForLoc(a) == ["", "f"] and cache.CountIncompleteScopes(a) == 1
        assert not CInfoCache().AddScopeInfoBlobs(a, blobs)   # no database
        with pytest.raises(ValueError):
            cache.AddScopeInfoBlobs(a, [blobs[0][:-3]])

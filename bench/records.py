"""Throughput of the records and the info cache, beside a plain-Python baseline.

Builds the records of N scopes (default 100,000: 1,000 files of 100 scopes, 10 names
each, a quarter of the scopes with two derived records), then times adding,
counting, fetching (primary only and merged), writing the SQLite database and
loading it back in a fresh cache.  The baseline keeps the same records in a dict
of dicts and pickles them into SQLite, the obvious pure-Python way to do the same
job.  Prints records per second and the ratio ours / baseline.

    python bench/records.py [N]
"""

import os
import pickle
import sqlite3
import sys
import tempfile
import time

from basekit.location import CLocalFileLocation
from pysource.scopeinfo import CInfoCache, CScopeInfo, CScopeInfoKey
from pysource.symbolinfo import Scope

PRIMARY, DERIVED = "primary", "derived"
SCOPES_PER_FILE = 100


def timed(fn):
    start = time.perf_counter()
    result = fn()
    return time.perf_counter() - start, result


def make_scopes(root, n):
    scopes = []
    for i in range(n // SCOPES_PER_FILE):
        loc = CLocalFileLocation(os.path.join(root, f"pkg{i // 50}", f"mod{i}.py"))
        scopes.extend(Scope(loc, "" if j == 0 else f"C{j}.f") for j in range(SCOPES_PER_FILE))
    return scopes


NAME_MAPS = [{f"name{k}": b":s%d;:g%d" % (k, k + j) for k in range(10)} for j in range(64)]


def names_of(j):
    return NAME_MAPS[j % len(NAME_MAPS)]


def build_primary(scopes):
    infos = []
    for j, scope in enumerate(scopes):
        info = CScopeInfo(CScopeInfoKey(scope, PRIMARY, scope), b"", 100.0, False)
        info.type_equivs.update(names_of(j))
        info.FinishedBuilding()
        infos.append(info)
    return infos


def build_derived(scopes):
    """(scanned scope, [records]) for two scans of every fourth scope."""
    out = []
    for j in range(0, len(scopes), 4):
        target = scopes[j]
        for scanned in (scopes[(j + 1) % len(scopes)], scopes[(j + 2) % len(scopes)]):
            info = CScopeInfo(CScopeInfoKey(target, DERIVED, scanned), b"", 100.0, False)
            info.type_equivs["name0"] = b"int"
            info.MergeScopesSeen([scanned], False)
            info.FinalizeForSave()
            out.append((scanned, [info]))
    return out


class DictStore:
    """The baseline: records in a dict keyed by (url, scope name), pickled to SQLite."""

    def __init__(self):
        self.records = {}

    def add(self, info):
        scope = info.key.for_scope
        self.records.setdefault((scope.loc.fUrl, scope.name), {})[
            (info.key.scan_name, info.key.scanned_scope.loc.fUrl, info.key.scanned_scope.name)] = (
            info.ibytes, info.disk_mtime, info.incomplete, dict(info.type_equivs))

    def count(self, scope):
        return len(self.records.get((scope.loc.fUrl, scope.name), ()))

    def fetch(self, scope):
        records = self.records.get((scope.loc.fUrl, scope.name))
        merged = {}
        for _, _, _, names in records.values():
            for name, value in names.items():
                merged[name] = merged[name] + b";" + value if name in merged else value
        return merged

    def write(self, path):
        conn = sqlite3.connect(path)
        conn.execute("CREATE TABLE records (url TEXT, scope TEXT, data BLOB)")
        with conn:
            conn.executemany("INSERT INTO records VALUES (?, ?, ?)",
                             [(url, name, pickle.dumps(recs)) for (url, name), recs in self.records.items()])
        conn.close()

    @staticmethod
    def load(path):
        store = DictStore()
        conn = sqlite3.connect(path)
        for url, name, data in conn.execute("SELECT url, scope, data FROM records"):
            store.records[(url, name)] = pickle.loads(data)
        conn.close()
        return store


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    n -= n % SCOPES_PER_FILE
    rows = []

    def report(what, count, ours, theirs=None):
        rate = count / ours
        line = f"{what:<34} {count:>8} records  {ours:8.3f} s  {rate:>12,.0f} rec/s"
        if theirs:
            line += f"   baseline {count / theirs:>12,.0f} rec/s   ratio {theirs / ours:5.2f}x"
        rows.append(line)
        print(line, flush=True)

    with tempfile.TemporaryDirectory() as root:
        scopes = make_scopes(root, n)
        t, primary = timed(lambda: build_primary(scopes))
        report("build CScopeInfo records", n, t)
        derived = build_derived(scopes)
        n_derived = len(derived)

        cache = CInfoCache()
        base = DictStore()
        t_ours, _ = timed(lambda: [cache.AddScopeInfo(info, True) for info in primary])
        t_base, _ = timed(lambda: [base.add(info) for info in primary])
        report("AddScopeInfo (new)", n, t_ours, t_base)
        again = build_primary(scopes)
        t, _ = timed(lambda: [cache.AddScopeInfo(info, True) for info in again])
        report("AddScopeInfo (unchanged content)", n, t)
        t_ours, _ = timed(lambda: [cache.AddScopeInfoListForSingleScan(s, DERIVED, infos, True)
                                   for s, infos in derived])
        t_base, _ = timed(lambda: [base.add(infos[0]) for _, infos in derived])
        report("AddScopeInfoListForSingleScan", n_derived, t_ours, t_base)

        t_ours, _ = timed(lambda: [cache.CountScopeInfoRecords(s) for s in scopes])
        t_base, _ = timed(lambda: [base.count(s) for s in scopes])
        report("CountScopeInfoRecords", n, t_ours, t_base)
        t_ours, _ = timed(lambda: [cache.GetScopeInfo(s) for s in scopes])
        t_base, _ = timed(lambda: [base.fetch(s) for s in scopes])
        report("GetScopeInfo (first: merges)", n, t_ours, t_base)
        t, _ = timed(lambda: [cache.GetScopeInfo(s) for s in scopes])
        report("GetScopeInfo (again)", n, t)
        t, _ = timed(lambda: [info.GetInfoBytes("name5") for info in primary for _ in range(10)])
        report("GetInfoBytes", 10 * n, t)

        db = os.path.join(root, "index.db")
        writer = CInfoCache(db_path=db)
        for info in primary:
            writer.AddScopeInfo(info, True)
        for s, infos in derived:
            writer.AddScopeInfoListForSingleScan(s, DERIVED, infos, True)
        total = n + n_derived
        t_ours, written = timed(lambda: writer.WriteToDatabase())
        assert written == total, written
        t_base, _ = timed(lambda: base.write(os.path.join(root, "baseline.db")))
        report("WriteToDatabase", total, t_ours, t_base)
        writer.CloseDatabase()
        size = os.path.getsize(db) + (os.path.getsize(db + "-wal") if os.path.exists(db + "-wal") else 0)

        def load_all():
            reader = CInfoCache(db_path=db)
            for s in scopes:
                reader.CountScopeInfoRecords(s)
            return reader

        t_ours, reader = timed(load_all)
        assert reader.fRecordsInMemory == total
        t_base, _ = timed(lambda: DictStore.load(os.path.join(root, "baseline.db")))
        report("load from the database", total, t_ours, t_base)
        print(f"database size {size / 1e6:.1f} MB for {total} records", flush=True)


if __name__ == "__main__":
    main()

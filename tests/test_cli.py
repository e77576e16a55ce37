"""The `pysource` command end to end on a small project made for each test:
index (twice, after a change, with bad input), show, stats."""

import gc
import io
import json
import os
import subprocess
import sys
import sqlite3
import textwrap
import time

import pytest

from basekit.location import CLocalFileLocation
from pysource import cli, coordinator, manager, projectfiles, recordtext, scopeinfo, symbolinfo

SHAPES = textwrap.dedent('''\
    import sys


    class Shape:
        sides = 0

        def __init__(self, name: str, size: int = 1):
            self.name = name
            self.size = size

        def area(self) -> float:
            return scale(self.size, 2)


    def scale(value, factor=2):
        result = value * factor
        return result
    ''')

UTIL = textwrap.dedent('''\
    import sys
    def helper(x):
        return len(x)
    if sys.version_info >= (3, 8):
        def newer(x: int) -> int: ...
    ''')
BROKEN = "ok = 1\nbad = (1 +\n"


class Terminal(io.StringIO):
    def isatty(self):
        return True


def line_of(text, needle):
    """The line number of the first line of `text` that holds `needle`."""
    for number, line in enumerate(text.splitlines(), 1):
        if needle in line:
            return number
    raise AssertionError(f"{needle!r} not in the text")


@pytest.fixture
def project(tmp_path, monkeypatch):
    root = tmp_path / "proj"
    (root / "pkg").mkdir(parents=True)
    (root / "pkg" / "shapes.py").write_text(SHAPES)
    (root / "pkg" / "util.pyi").write_text(UTIL)
    # Places whose files are no part of the project.
    (root / ".hidden").mkdir()
    (root / ".hidden" / "secret.py").write_text("x = 1\n")
    (root / "pkg" / "__pycache__").mkdir()
    (root / "pkg" / "__pycache__" / "cached.py").write_text("x = 1\n")
    (root / "env").mkdir()
    (root / "env" / "pyvenv.cfg").write_text("home = /usr\n")
    (root / "env" / "lib.py").write_text("x = 1\n")
    (root / "notes.txt").write_text("not python\n")
    monkeypatch.chdir(root)
    return root


def run(capsys, *argv):
    code = cli.main(list(argv))
    out, err = capsys.readouterr()
    return code, out, err


class TestIndex:
    def test_first_run_makes_the_database_and_a_second_run_scans_nothing(self, project,
                                                                        capsys):
        (project / "broken.py").write_text(BROKEN)
        code, out, err = run(capsys, "index")
        assert code == 0 and err == ""
        assert out.startswith("Indexed 3 files: ") and "1 with parse errors" in out
        assert (project / ".pysource" / "index.db").is_file()
        code, out, _ = run(capsys, "index")
        assert code == 0 and out.startswith("Nothing to scan: 3 files unchanged")

    def test_a_changed_file_is_scanned_again_alone(self, project, capsys):
        run(capsys, "index")
        path = project / "pkg" / "util.pyi"
        path.write_text(UTIL + "def other():\n    pass\n")
        st = os.stat(path)
        os.utime(path, ns=(st.st_atime_ns, st.st_mtime_ns + 2_000_000_000))
        code, out, _ = run(capsys, "index")
        assert code == 0
        assert out.startswith("Indexed 1 files: ") and "1 files unchanged" in out
        assert "function other" in shown(capsys, "pkg/util.pyi:other")

    def test_only_the_paths_given_and_a_database_elsewhere(self, project, tmp_path, capsys):
        db = tmp_path / "other" / "idx.db"
        code, out, _ = run(capsys, "index", "pkg/util.pyi", "--db", str(db))
        assert code == 0 and out.startswith("Indexed 1 files: ")
        assert db.is_file() and not (project / ".pysource").exists()

    def test_a_missing_path_is_an_error_and_nothing_is_made(self, project, capsys):
        code, out, err = run(capsys, "index", "pkg", "nowhere")
        assert code == cli.kExitUsage
        assert "no such file or directory: nowhere" in err
        assert not (project / ".pysource").exists()

    def test_a_scan_that_fails_is_reported_and_the_run_goes_on(self, project, capsys,
                                                                monkeypatch):
        from pysource import scopescanner
        real = scopescanner.CWholeFilePrimaryScanner

        def scanner_class(loc, scan_name):
            if loc.fPath.endswith("util.pyi"):
                raise ValueError("no scanner today")
            return real(loc, scan_name)

        monkeypatch.setattr(scopescanner, "CWholeFilePrimaryScanner", scanner_class)
        code, out, err = run(capsys, "index")
        assert code == cli.kExitFailed
        assert "pkg/util.pyi: the scan failed: ValueError: no scanner today" in err
        assert out.startswith("Indexed 1 files: ") and "1 failed" in out

    @pytest.mark.skipif(os.geteuid() == 0, reason="permissions don't bind the superuser")
    def test_a_file_without_read_permission_is_reported(self, project, capsys):
        path = project / "pkg" / "private.py"
        path.write_text("x = 1\n")
        path.chmod(0)
        try:
            code, _, err = run(capsys, "index")
        finally:
            path.chmod(0o644)
        assert code == cli.kExitFailed and "cannot read pkg/private.py" in err

    def test_progress_line_on_a_terminal(self, project, capsys, monkeypatch):
        term = Terminal()
        monkeypatch.setattr(sys, "stderr", term)
        assert cli.main(["index"]) == 0
        shown = term.getvalue()
        assert "\r\x1b[K[0/2] pkg/shapes.py" in shown
        assert "\r\x1b[K[1/2] pkg/util.pyi" in shown
        assert shown.endswith("\r\x1b[K")     # the line is cleared before the summary

    def test_an_interrupted_run_keeps_what_it_scanned(self, project, capsys, monkeypatch):
        class InterruptedTerminal(Terminal):
            def write(self, text):
                if "[1/2]" in text:      # Ctrl-C as the second file starts
                    raise KeyboardInterrupt
                return super().write(text)

        monkeypatch.setattr(sys, "stderr", InterruptedTerminal())
        assert cli.main(["index"]) == cli.kExitInterrupted
        assert "interrupted" in sys.stderr.getvalue()
        monkeypatch.setattr(sys, "stderr", io.StringIO())
        assert cli.main(["index"]) == 0
        out = capsys.readouterr().out
        assert out.startswith("Indexed 1 files: ") and "1 files unchanged" in out

    def test_workers_make_the_same_database_as_one_process(self, project, capsys,
                                                            monkeypatch):
        from pysource import parallelscan
        for i in range(20):
            (project / "pkg" / f"mod{i}.py").write_text(SHAPES.replace("Shape", f"Shape{i}"))
        (project / "broken.py").write_text(BROKEN)
        replayed = []
        scan = parallelscan.CReplayScanner.Scan
        monkeypatch.setattr(parallelscan.CReplayScanner, "Scan",
                            lambda self, end: replayed.append(self.fScope.loc) or scan(self, end))

        def index_both(summary_start):
            outs = []
            for jobs, db in (("1", "one.db"), ("2", "two.db")):
                code, out, err = run(capsys, "index", "-j", jobs, "--db", db)
                assert code == 0 and err == "" and out.startswith(summary_start)
                outs.append(out.split(", in ")[0])
            assert outs[0] == outs[1]
            assert (project / "one.db").read_bytes() == (project / "two.db").read_bytes()

        index_both("Indexed 23 files: ")
        assert len(replayed) == 23
        # The workers start on every file before the writer knows which are
        # up to date; what it doesn't want of theirs is dropped.
        changed = project / "pkg" / "mod13.py"
        changed.write_text(SHAPES.replace("Shape", "Changed"))
        os.utime(changed, (1e9, 1e9))
        index_both("Indexed 1 files: ")

    def test_a_worker_that_dies_fails_only_the_file_it_was_scanning(self, project, capsys,
                                                                      monkeypatch):
        from pysource import parallelscan
        for i in range(20):
            (project / "pkg" / f"mod{i}.py").write_text(SHAPES.replace("Shape", f"Shape{i}"))
        scan = parallelscan._ScanInWorker
        monkeypatch.setattr(parallelscan, "_ScanInWorker", lambda path, name: os._exit(3)
                            if path.endswith("mod7.py") else scan(path, name))
        code, out, err = run(capsys, "index", "-j", "2")
        assert code == cli.kExitFailed
        assert "mod7.py: the scan failed: RuntimeError: the worker process ended (exit code 3)" in err
        assert out.startswith("Indexed 21 files: ") and "1 failed" in out

    def test_quiet_when_piped(self, project):
        env = dict(os.environ, SKBUILD_EDITABLE_VERBOSE="0")
        done = subprocess.run([sys.executable, "-m", "pysource", "index"], cwd=project,
                              capture_output=True, text=True, env=env, check=False)
        assert done.returncode == 0
        assert done.stderr == ""
        assert done.stdout.count("\n") == 1 and done.stdout.startswith("Indexed 2 files")


def shown(capsys, *target):
    """The output of a `show` that must succeed."""
    code, out, err = run(capsys, "show", *target)
    assert code == 0, err
    return out


class TestShow:
    @pytest.fixture
    def indexed(self, project, capsys):
        run(capsys, "index")
        return project

    def test_a_method_with_line_numbers(self, indexed, capsys):
        out = shown(capsys, "pkg/shapes.py:Shape.area")
        area = line_of(SHAPES, "def area")
        call = line_of(SHAPES, "return scale(")
        assert out.splitlines()[0].startswith("method Shape.area")
        assert out.splitlines()[0].endswith(f"shapes.py:{area})")
        assert out.startswith("method Shape.area(self) -> float  (")
        assert f"called with (self.size, 2) (line {call})" in out
        assert f"first read at line {call}" in out
        assert "logical" not in out

    def test_arguments_hints_and_the_def_line(self, indexed, capsys):
        out = shown(capsys, "pkg/shapes.py:Shape.__init__")
        init = line_of(SHAPES, "def __init__")
        assert "size       parameter 2, hint: int, default: 1" in out
        assert "|0" not in out and "<def>" not in out and "argument" not in out
        assert f"first set at line {init}" in out
        assert f"first read at line {line_of(SHAPES, 'self.size = size')}" in out
        # Instance attributes count lines in the method that sets them.
        out = shown(capsys, "Shape()")
        assert f"first set at line {line_of(SHAPES, 'self.name = name')}" in out

    def test_a_file_shows_every_scope_and_module_names_start_before_line_one(self, indexed,
                                                                              capsys):
        out = shown(capsys, "pkg/shapes.py")
        heads = [line for line in out.splitlines() if line and not line.startswith(" ")]
        assert [h.split("  (")[0] for h in heads] == [
            "module <module>", "class Shape", "instance Shape()",
            "method Shape.__init__(self, name: str, size: int = 1)",
            "method Shape.area(self) -> float", "function scale(value, factor=2)"]
        assert "first set at the module start" in out
        assert f"import 'sys' (line {line_of(SHAPES, 'import sys')})" in out

    def test_a_definition_under_a_version_test_in_a_stub(self, indexed, capsys):
        out = shown(capsys, "pkg/util.pyi:")
        assert "if sys.version_info >= (3, 8): def newer(x: int) -> int" in out
        assert f"first set at line {line_of(UTIL, 'def newer')}" in out

    def test_json_gives_the_same_as_data(self, indexed, capsys):
        out = shown(capsys, "scale", "--json")
        (record,) = json.loads(out)
        assert record["file"] == str(indexed / "pkg" / "shapes.py")
        assert record["kind"] == "function" and record["scope"] == "scale"
        assert record["line"] == line_of(SHAPES, "def scale")
        facts = {entry["name"]: entry["facts"] for entry in record["names"]}
        result_lines = {fact["kind"]: fact["line"] for fact in facts["result"]}
        assert result_lines["set"] == line_of(SHAPES, "result = value")
        assert result_lines["read"] == line_of(SHAPES, "return result")
        (param,) = [f for f in facts["factor"] if f["kind"] == "parameter"]
        assert (param["index"], param["hint"], param["default"]) == (1, None, "2")
        (call,) = json.loads(shown(capsys, "Shape.area", "--json"))[0]["names"][0]["facts"][:1]
        assert call["kind"] == "value" and call["value"] == "scale(self.size, 2)"
        assert record["definition"]["parameters"] == [
            {"name": "value", "kind": "normal", "hint": None, "default": None},
            {"name": "factor", "kind": "normal", "hint": None, "default": "2"}]

    def test_a_changed_file_is_flagged(self, indexed, capsys):
        path = indexed / "pkg" / "shapes.py"
        path.write_text("\n\n" + SHAPES)
        code, _, err = run(capsys, "show", "pkg/shapes.py:scale")
        assert code == 0 and "changed since it was indexed" in err

    def test_targets_that_name_nothing(self, indexed, capsys):
        code, _, err = run(capsys, "show", "pkg/shapes.py:Nope")
        assert code == cli.kExitFailed and "no record of scope 'Nope'" in err
        code, _, err = run(capsys, "show", "Nope.nothing")
        assert code == cli.kExitFailed and "no scope named 'Nope.nothing'" in err
        code, _, err = run(capsys, "show", "missing.py")
        assert code == cli.kExitFailed and "no such file: missing.py" in err
        code, _, err = run(capsys, "show", "notes.txt")
        assert code == cli.kExitFailed and "not in the index" in err

    def test_no_index_is_an_error_and_none_is_made(self, tmp_path, monkeypatch, capsys):
        monkeypatch.chdir(tmp_path)
        code, _, err = run(capsys, "show", "scale")
        assert code == cli.kExitUsage and "no index found" in err
        code, _, err = run(capsys, "stats", "--db", "nothere.db")
        assert code == cli.kExitUsage and "no such index database" in err
        assert not (tmp_path / "nothere.db").exists()


NESTED = textwrap.dedent('''\
    import functools
    # a comment between statements
    LIMIT = 3


    def outer(seq):
        """Docstring."""
        # a comment in a body
        count = 0

        def inner(item):
            # another comment
            found = item > LIMIT
            return found

        for element in seq:
            if inner(element):
                count += 1
        return count


    class Box:
        @functools.lru_cache
        def size(self):
            width = 2
            with open("f") as handle:
                data = handle.read()
            try:
                parsed = int(data)
            except ValueError:
                parsed = width
            return parsed

        class Inner:
            depth = 1
    ''')


class TestLinesAgainstTheSource:
    """Every line that `show` gives for a name set or read holds that name."""

    def test_sets_and_reads_land_on_lines_that_hold_the_name(self, tmp_path, monkeypatch,
                                                              capsys):
        monkeypatch.chdir(tmp_path)
        (tmp_path / "nested.py").write_text(NESTED)
        assert cli.main(["index"]) == 0
        capsys.readouterr()
        assert cli.main(["show", "nested.py", "--json"]) == 0
        records = json.loads(capsys.readouterr().out)
        lines = NESTED.splitlines()
        checked = 0
        for record in records:
            if record["kind"] == "instance":
                continue
            for entry in record["names"]:
                leaf = entry["name"].split(".")[-1]
                for fact in entry["facts"]:
                    if fact["kind"] in ("set", "read") and fact["line"] is not None:
                        text = lines[fact["line"] - 1]
                        assert leaf in text, (record["scope"], entry["name"], fact)
                        checked += 1
        assert checked >= 25
        scopes = {r["scope"]: r["line"] for r in records}
        assert scopes["outer.inner"] == line_of(NESTED, "def inner")
        assert scopes["Box.size"] == line_of(NESTED, "def size")
        assert scopes["Box.Inner"] == line_of(NESTED, "class Inner")


class TestStats:
    def test_counts_per_file_and_kind(self, project, capsys):
        (project / "broken.py").write_text(BROKEN)
        run(capsys, "index")
        os.chdir(project / "pkg")     # the index is found above the current directory
        code, out, _ = run(capsys, "stats")
        assert code == 0 and out.startswith("3 files, 10 scopes")
        assert "'pysource stats --files' lists the files" in out
        code, out, _ = run(capsys, "stats", "--files")
        assert code == 0
        rows = {line.split()[-1]: line.split()[:-1] for line in out.splitlines()[1:-1]}
        # scopes, module, class, instance, function, method, errors
        assert rows["shapes.py"] == ["6", "1", "1", "1", "1", "2", "0"]
        assert rows["util.pyi"] == ["3", "1", "0", "0", "2", "0", "0"]
        assert rows[str(project / "broken.py")][-1] == "1"   # outside the current directory
        last = out.splitlines()[-1]
        assert last.startswith("3 files, 10 scopes (module 3, class 1, instance 1, "
                               "function 3, method 2), 1 scopes with parse errors")
        assert "KiB" in last


class TestRecordText:
    """Singles the scanner seldom writes, through the same describer."""

    def test_conditional_and_marked_singles_get_lines_of_their_scopes(self, tmp_path):
        path = tmp_path / "m.py"
        path.write_text("import sys\nclass C:\n    x = 1\n    def f(self):\n        y = 2\n")
        loc = CLocalFileLocation(str(path))
        bodies = recordtext.CFileBodies(str(path))
        assert bodies.fReadable
        text, line = recordtext.DescribeSingle(
            b":?sys.version_info >= (3, 8),:S1", "", bodies)
        assert text == "if sys.version_info >= (3, 8): first set at line 2" and line == 2
        text, line = recordtext.DescribeSingle(b":<C.f,y:#0", "", bodies)
        assert line == 5 and "(line 5)" in text
        text, line = recordtext.DescribeSingle(b":S7", "C", bodies)
        assert line is None and "logical 7" in text    # no such logical: left as it is
        text, line = recordtext.DescribeSingle(b":^file:///elsewhere.py,:S0", "", bodies)
        assert line is None
        info = scopeinfo.CScopeInfo(
            scopeinfo.CScopeInfoKey(symbolinfo.Scope(loc, "C"), "primary",
                                    symbolinfo.Scope(loc, "C")), b":CC,,()", 1.0, True)
        info.type_equivs["x"] = b"1:#0;:S0"
        record = recordtext.DescribeRecord(loc, "C", info, bodies)
        assert record["kind"] == "class" and record["line"] == 2 and record["incomplete"]
        assert [f["line"] for f in record["names"][0]["facts"]] == [3, 3]
        assert "[incomplete" in recordtext.FormatRecord(record)

    def test_an_unreadable_file_gives_no_bodies(self, tmp_path):
        bodies = recordtext.CFileBodies(str(tmp_path / "absent.py"))
        assert not bodies.fReadable and bodies.LineOf("", 0) is None


class TestProjectFiles:
    def test_named_files_count_whatever_their_suffix(self, project):
        found = projectfiles.FindSourceFiles(["notes.txt", "pkg", str(project / "pkg")])
        assert found == sorted([str(project / "notes.txt"), str(project / "pkg" / "shapes.py"),
                                str(project / "pkg" / "util.pyi")])

    def test_default_index_path_and_search_upwards(self, project):
        assert projectfiles.DefaultIndexPath("pkg/shapes.py") == str(
            project / "pkg" / ".pysource" / "index.db")
        assert projectfiles.FindIndexFor(str(project / "pkg")) is None
        (project / ".pysource").mkdir()
        (project / ".pysource" / "index.db").write_bytes(b"")
        assert projectfiles.FindIndexFor(str(project / "pkg" / "shapes.py")) == str(
            project / ".pysource" / "index.db")


def test_the_process_manager_is_put_back_after_a_command(project, capsys):
    before = manager.GetAnalysisMgr()
    run(capsys, "index")
    assert manager.GetAnalysisMgr() is before
    assert before.fScanCoordinator is None


class TestDerivedPass:
    def test_index_runs_the_derived_pass_unless_primary_only(self, project, capsys):
        code, out, _ = run(capsys, "index", "--primary-only")
        assert code == 0 and "derived" not in out
        (project / "pkg" / "uses.py").write_text("G = 0\n\ndef f():\n    global G\n    G = 1\n")
        code, out, _ = run(capsys, "index")
        assert code == 0 and "derived info from 2 files" in out   # the stub wants none
        assert "in f: value: G" in shown(capsys, "pkg/uses.py")
        # With no file changed, a run after --primary-only still does the derived pass, and says so.
        assert run(capsys, "index", "--primary-only")[0] == 0
        (project / "pkg" / "more.py").write_text("def g(a):\n    return a\n\ng(1)\n")
        assert run(capsys, "index", "--primary-only")[0] == 0
        code, out, _ = run(capsys, "index")
        assert code == 0 and out.startswith("Derived info from 1 files")

    def test_index_scans_with_its_start_up_frozen_and_thaws_it_after(self, project, capsys,
                                                                      monkeypatch):
        frozen = []
        run_until_idle = coordinator.CScanCoordinator.RunUntilIdle
        monkeypatch.setattr(coordinator.CScanCoordinator, "RunUntilIdle",
                            lambda self: (frozen.append(gc.get_freeze_count()), run_until_idle(self)))
        assert run(capsys, "index")[0] == 0
        assert frozen[0] > 0 and gc.get_freeze_count() == 0


def damage(sql=None, page=None, flip_page=None):
    """A way to damage a sound index: SQL run on it, or bytes of the file
    changed (a page zeroed, or bytes flipped at the start of a page)."""
    def apply(db):
        if sql is not None:
            conn = sqlite3.connect(db)
            conn.executescript(sql)
            conn.close()
            return
        data = bytearray(db.read_bytes())
        size = int.from_bytes(data[16:18], "big")
        if page is not None:
            data[size * (page - 1):size * page] = bytes(size)
        else:
            start = size * (flip_page - 1)
            for i in range(start, start + 64):
                data[i] ^= 0x5A
        db.write_bytes(bytes(data))
    return apply


kDamages = {
    "dropped table": damage("DROP TABLE scans_done"),
    "wrong columns": damage("ALTER TABLE locations ADD COLUMN extra"),
    "text where a blob belongs": damage("UPDATE records SET type_equivs = 'text'"),
    "bad location row": damage("UPDATE locations SET disk_mtime = 'soon'"),
    "record of no location": damage("PRAGMA foreign_keys=OFF; UPDATE records SET loc_id = 999"),
    "zeroed page": damage(page=2),
    "flipped bytes": damage(flip_page=2),
    "not a database": lambda db: db.write_bytes(b"not an index\n" * 400),
    "newer schema": damage("PRAGMA user_version = 99"),
}


class TestUnsoundDatabases:
    @pytest.fixture
    def indexed_db(self, project, capsys):
        run(capsys, "index")
        db = project / ".pysource" / "index.db"
        assert not (project / ".pysource" / "index.db-wal").exists() or \
            (project / ".pysource" / "index.db-wal").stat().st_size == 0
        return db

    @pytest.mark.parametrize("case", sorted(kDamages))
    def test_every_command_stops_with_one_message_and_leaves_the_file(self, indexed_db,
                                                                       capsys, case):
        kDamages[case](indexed_db)
        before = indexed_db.read_bytes()
        (indexed_db.parent.parent / "pkg" / "new.py").write_text("x = 1\n")
        for argv in (["index"], ["stats"], ["show", "pkg/shapes.py"]):
            code, out, err = run(capsys, *argv)
            assert code == cli.kExitDatabase, (argv, err)
            assert err.count("\n") == 1 and "index.db" in err, (argv, err)
            assert "left as it is" in err, (argv, err)
            assert out == ""
        assert indexed_db.read_bytes() == before
        if case == "newer schema":
            assert "reads schema version 99" in err

    def test_a_reader_checks_the_whole_file_only_after_it_changed(self, indexed_db, capsys):
        """A reader trusts the file as a writer of ours left it (same size,
        change time and inode) with no write-ahead log beside it; any other
        change, or a log a writer at work or stopped left, makes it check
        every page and row again."""
        before = indexed_db.stat()
        damage("UPDATE records SET type_equivs = 'text'")(indexed_db)
        assert indexed_db.stat().st_size == before.st_size
        os.utime(indexed_db, ns=(before.st_atime_ns, before.st_mtime_ns))
        assert run(capsys, "stats")[0] == 0         # left as verified: not read whole
        writer = sqlite3.connect(indexed_db)        # its commit stays in the log while it is open
        writer.execute("UPDATE records SET type_equivs = 'still text'")
        writer.commit()
        try:
            assert indexed_db.stat().st_mtime_ns == before.st_mtime_ns
            code, _, err = run(capsys, "stats")
        finally:
            writer.close()
        assert code == cli.kExitDatabase and "wrong kind" in err
        os.utime(indexed_db)
        code, _, err = run(capsys, "stats")
        assert code == cli.kExitDatabase and "wrong kind" in err

    def test_a_bad_blob_is_found_when_read(self, indexed_db, capsys):
        damage("UPDATE records SET type_equivs = x'ff00ff'")(indexed_db)
        before = indexed_db.read_bytes()
        code, _, err = run(capsys, "show", "pkg/shapes.py")
        assert code == cli.kExitDatabase and "is damaged" in err
        (indexed_db.parent.parent / "pkg" / "shapes.py").write_text(SHAPES + "more = 1\n")
        code, _, err = run(capsys, "index")      # its records are read for the new scan
        assert code == cli.kExitDatabase and err.count("\n") == 1 and "is damaged" in err
        assert indexed_db.read_bytes() == before

    def test_an_older_schema_is_rebuilt_and_the_command_says_so(self, indexed_db, capsys):
        damage("PRAGMA user_version = 0")(indexed_db)
        code, out, err = run(capsys, "index")
        assert code == 0 and "older" in err and err.count("rebuilt empty") == 1
        assert out.startswith("Indexed 2 files")

    def test_a_read_only_database_stops_index_once(self, indexed_db, capsys, monkeypatch):
        real_access = os.access
        monkeypatch.setattr(os, "access", lambda path, mode: mode != os.W_OK and
                            real_access(path, mode))
        (indexed_db.parent.parent / "pkg" / "new.py").write_text("x = 1\n")
        code, out, err = run(capsys, "index")
        assert code == cli.kExitDatabase and err.count("\n") == 1
        assert "read-only" in err and "'pysource show' and 'pysource stats' can read it" in err

    def test_a_database_whose_shared_memory_file_cant_be_made_is_read(self, indexed_db,
                                                                       capsys):
        # What a read-only directory does to a WAL reader, whoever runs the test.
        (indexed_db.parent / "index.db-shm").mkdir()
        before = indexed_db.read_bytes()
        assert run(capsys, "stats")[0] == 0
        assert "function scale" in shown(capsys, "scale")
        (indexed_db.parent.parent / "pkg" / "new.py").write_text("x = 1\n")
        code, _, err = run(capsys, "index")
        assert code == cli.kExitDatabase and err.count("\n") == 1 and "readonly" in err
        assert indexed_db.read_bytes() == before

    @pytest.mark.skipif(os.geteuid() == 0, reason="permissions don't bind the superuser")
    def test_a_read_only_database_and_directory_can_be_read(self, indexed_db, capsys):
        directory = indexed_db.parent
        indexed_db.chmod(0o444)
        directory.chmod(0o555)
        try:
            assert run(capsys, "stats")[0] == 0
            assert "function scale" in shown(capsys, "scale")
            code, _, err = run(capsys, "index")
            assert code == cli.kExitDatabase and err.count("\n") == 1
        finally:
            directory.chmod(0o755)
            indexed_db.chmod(0o644)


SLOW_WRITER = '''
import pathlib, sys, time
from pysource import cli, scopeinfo
def slow(path):
    # The first write outlasts SQLite's own wait for a lock (5 s).
    marker = pathlib.Path("writing")
    if not marker.exists():
        marker.touch()
        time.sleep(6)
scopeinfo._SetDatabaseWriteHook(slow)
sys.exit(cli.main(["index"]))
'''


def test_a_second_indexer_waits_for_a_slow_first_one(project, capsys):
    env = dict(os.environ, SKBUILD_EDITABLE_VERBOSE="0")
    first = subprocess.Popen([sys.executable, "-c", SLOW_WRITER], cwd=project, env=env,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        deadline = time.monotonic() + 60
        while not (project / "writing").exists():
            assert first.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)
        (project / "pkg" / "later.py").write_text("y = 2\n")
        code, out, err = run(capsys, "index")
    finally:
        first_out, first_err = first.communicate(timeout=60)
    assert first.returncode == 0, first_err
    assert code == 0, err
    assert err.count("another 'pysource index' is writing") == 1
    assert out.startswith("Indexed 1 files") and "2 files unchanged" in out


class TestFilesThatComeAndGo:
    def test_deleted_and_renamed_files_leave_the_index(self, project, capsys):
        (project / "extra.py").write_text("def gone():\n    pass\n")
        run(capsys, "index")
        (project / "extra.py").unlink()
        (project / "pkg" / "util.pyi").rename(project / "pkg" / "tools.pyi")
        code, out, _ = run(capsys, "index")
        assert code == 0 and "2 gone files forgotten" in out
        code, _, err = run(capsys, "show", "gone")
        assert code == cli.kExitFailed and "no scope named 'gone'" in err
        assert "pkg/tools.pyi" in shown(capsys, "helper")     # one match: one record
        assert shown(capsys, "helper").count("function helper") == 1
        code, out, _ = run(capsys, "stats", "--files")
        assert "extra.py" not in out and "util.pyi" not in out and "2 files" in out

    def test_files_outside_the_indexed_paths_are_kept(self, project, capsys):
        run(capsys, "index")
        (project / "pkg" / "shapes.py").unlink()
        code, out, _ = run(capsys, "index", "pkg/util.pyi", "--db", ".pysource/index.db")
        assert code == 0 and "forgotten" not in out

    def test_every_file_met_is_indexed_or_named_with_a_reason(self, project, capsys,
                                                             monkeypatch):
        os.symlink("loop.py", project / "pkg" / "loop.py")
        (project / "locked").mkdir()
        (project / "locked" / "inside.py").write_text("x = 1\n")
        run(capsys, "index")
        (project / os.fsdecode(b"bad\xff.py")).write_text("x = 1\n")
        os.mkfifo(project / "pipe.py")
        real_scandir = os.scandir

        def scandir(path):
            if str(path).endswith("locked"):
                raise PermissionError(13, "Permission denied")
            return real_scandir(path)

        real_lexists = os.path.lexists
        monkeypatch.setattr(os, "scandir", scandir)
        monkeypatch.setattr(os.path, "lexists",
                            lambda path: "locked" not in str(path) and real_lexists(path))
        code, out, err = run(capsys, "index")
        assert code == cli.kExitFailed and "4 skipped" in out
        assert "forgotten" not in out      # what the unreadable directory held stays
        assert "skipped pipe.py: not a regular file" in err
        assert "skipped pkg/loop.py: a loop of symbolic links" in err
        assert "skipped locked: the directory can't be read (Permission denied)" in err
        assert "skipped bad\\xff.py: its name is not valid UTF-8" in err


class TestReadableAnswers:
    def test_a_bare_name_matches_the_last_components(self, project, capsys):
        (project / "other.py").write_text("class Other:\n    def __init__(self):\n"
                                          "        pass\n")
        run(capsys, "index")
        out = shown(capsys, "__init__")
        assert out.splitlines()[0] == "2 scopes match; show one with FILE:SCOPE"
        assert "  other.py:2  Other.__init__" in out
        assert f"  pkg/shapes.py:{line_of(SHAPES, 'def __init__')}  Shape.__init__" in out
        assert shown(capsys, "Other.__init__").startswith("method Other.__init__(self)")
        code, _, err = run(capsys, "show", "")
        assert code == cli.kExitUsage and "show needs" in err

    def test_decorators_by_name_and_escaped_file_names(self, project, capsys):
        name = "evil\x1b[2J.py"
        (project / name).write_text("import functools\n@functools.cache\n"
                                    "def cached(flag: bool = None):\n    pass\n"
                                    "def kinds(a, /, b, *, c: str = 'x  y', **kw): ...\n")
        run(capsys, "index")
        out = shown(capsys, "cached")
        assert out.startswith("function cached(flag: bool = None)  (evil\\x1b[2J.py:3)")
        assert "decorated by @functools.cache" in out
        assert "flag  parameter 0, hint: bool, default: None" in out
        assert "\x1b" not in out and "  :" not in out
        assert shown(capsys, "kinds").startswith(
            "function kinds(a, /, b, *, c: str = 'x  y', **kw)")

    def test_the_summary_names_files_with_parse_errors(self, project, capsys):
        for i in range(7):
            (project / f"broken{i}.py").write_text(BROKEN)
        code, out, _ = run(capsys, "index")
        last = out.splitlines()[-1]
        assert last.startswith("Parse errors in broken0.py, broken1.py")
        assert last.endswith("and 2 more ('pysource stats --files' lists them)")

    def test_version(self, capsys):
        with pytest.raises(SystemExit) as stop:
            cli.main(["--version"])
        assert stop.value.code == 0
        assert capsys.readouterr().out.startswith("pysource ")

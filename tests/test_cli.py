"""The `pysource` command end to end on a small project made for each test:
index (twice, after a change, with bad input), show, stats."""

import io
import json
import os
import subprocess
import sys
import textwrap

import pytest

from basekit.location import CLocalFileLocation
from pysource import cli, manager, projectfiles, recordtext, scopeinfo, symbolinfo

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

    def test_a_corrupt_database_is_reported_and_left_alone(self, project, capsys):
        db = project / "junk.db"
        db.write_bytes(b"this is not a database at all" * 10)
        before = db.read_bytes()
        code, _, err = run(capsys, "index", "--db", str(db))
        assert code == cli.kExitDatabase
        assert "junk.db" in err and "left as it is" in err
        assert db.read_bytes() == before
        code, _, err = run(capsys, "stats", "--db", str(db))
        assert code == cli.kExitDatabase and "junk.db" in err

    def test_an_unreadable_file_is_reported_and_the_run_goes_on(self, project, capsys):
        os.symlink(project / "gone.py", project / "pkg" / "dangling.py")
        code, out, err = run(capsys, "index")
        assert code == cli.kExitFailed
        assert "cannot read pkg/dangling.py" in err
        assert out.startswith("Indexed 2 files: ") and "1 failed" in out

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
        assert "unbound method Shape.area(self) -> float" in out
        assert f"called with (self.size, 2) (line {call})" in out
        assert f"first read at line {call}" in out
        assert "logical" not in out

    def test_arguments_hints_and_the_def_line(self, indexed, capsys):
        out = shown(capsys, "pkg/shapes.py:Shape.__init__")
        init = line_of(SHAPES, "def __init__")
        assert "type hint int" in out and "argument 2" in out
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
            "module <module>", "class Shape", "instance Shape()", "method Shape.__init__",
            "method Shape.area", "function scale"]
        assert "first set at the module start" in out
        assert f"import 'sys' (line {line_of(SHAPES, 'import sys')})" in out

    def test_a_definition_under_a_version_test_in_a_stub(self, indexed, capsys):
        out = shown(capsys, "pkg/util.pyi:")
        assert "if sys.version_info >= (3, 8): function newer|0(x:int) -> int" in out
        assert f"first set at line {line_of(UTIL, 'def newer')}" in out

    def test_json_gives_the_same_as_data(self, indexed, capsys):
        out = shown(capsys, "scale", "--json")
        (record,) = json.loads(out)
        assert record["file"] == str(indexed / "pkg" / "shapes.py")
        assert record["kind"] == "function" and record["scope"] == "scale"
        assert record["line"] == line_of(SHAPES, "def scale")
        facts = {entry["name"]: entry["facts"] for entry in record["names"]}
        result_lines = {fact["info"]: fact["line"] for fact in facts["result"]}
        assert result_lines[":S0"] == line_of(SHAPES, "result = value")
        assert result_lines[":g1"] == line_of(SHAPES, "return result")
        assert any(f["text"] == "argument 1" and f["line"] is None for f in facts["factor"])

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
                    if fact["info"][:2] in (":S", ":g") and fact["line"] is not None:
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

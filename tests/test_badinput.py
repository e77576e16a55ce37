"""Bad input through the whole primary scan: files that vanish or change
between two slices of their scan, files that can't be read, binary and
undecodable content, huge and deeply nested files, and the deliberately
broken files of the standard library through `pysource index`.  Each case
must end in a recorded outcome, and the other files' records must be intact."""

import os
import random
import subprocess
import sys
import sysconfig
import textwrap
import warnings

import pytest

from basekit.location import CLocalFileLocation
from pysource import cli, coordinator, filellinecache, scopescanner as ss, symbolinfo as si
from pysource.coordinator import CScanCoordinator

from managerutil import installed_manager, scan_mgr as mgr  # noqa: F401 (a fixture)
from scanutil import counter_clock, primary_scan, record_of

# With the counting clock, a slice lasts this many readings: every scan of a
# file takes several slices.
SLICE_READINGS = 2.5

FIRST = textwrap.dedent('''\
    import os

    class Config:
        level = 1

        def __init__(self, path):
            self.path = path

    def load(path):
        return Config(path)
    ''')

SECOND = textwrap.dedent('''\
    def helper(x):
        y = x + 1
        return y

    class Store:
        def put(self, key, value):
            self.items[key] = value
    ''')

CHANGED = textwrap.dedent('''\
    def replacement(a, b):
        return a * b

    class Other:
        def get(self):
            self.value = 2
    ''')


def write(path, data):
    """Writes `data` and moves the file's disk time on, so that a change is
    seen even within the resolution of the file system's clock."""
    if isinstance(data, str):
        data = data.encode()
    existed = os.path.exists(path)
    before = os.stat(path).st_mtime_ns if existed else 0
    with open(path, "wb") as f:
        f.write(data)
    if existed:
        os.utime(path, ns=(before + 2_000_000_000, before + 2_000_000_000))
    return CLocalFileLocation(str(path))


def records_of_loc(mgr, loc):
    """{scope name: record} of every scope the info cache holds for `loc`."""
    out = {}
    for name in mgr.fInfoCache.GetScopesForLoc(loc):
        info = mgr.fInfoCache.GetScopeInfo(si.Scope(loc, name))
        out[name] = None if info is None else record_of(info)
    return out


def reference_records(tmp_path, text, name="reference.py"):
    """The records an unsliced scan of `text` gives, in a manager of its own."""
    directory = tmp_path / "reference"
    directory.mkdir(exist_ok=True)
    loc = write(directory / name, text)
    with installed_manager(editor=False) as mgr:
        assert primary_scan(mgr, [loc]).fCounts.files == 1
        return records_of_loc(mgr, loc)


class HookedScanner(ss.CWholeFilePrimaryScanner):
    """The whole-file scanner, with a hook called after every slice."""

    after_slice = None

    def Scan(self, end_time):
        state = super().Scan(end_time)
        if HookedScanner.after_slice is not None:
            HookedScanner.after_slice(self, state)
        return state


@pytest.fixture
def hooked():
    yield HookedScanner
    HookedScanner.after_slice = None


def sliced_coordinator(mgr, **kw):
    """A coordinator whose slices end after a few readings of the counting
    clock, so that a scan times out again and again."""
    return CScanCoordinator(mgr, scanner_class=HookedScanner, slice_seconds=SLICE_READINGS, **kw)


def has_read(scanner):
    return scanner._CWholeFilePrimaryScanner__fUpdateFromCacheCalled


def run_all(coord):
    slices = 0
    while coord.RunSlice():
        slices += 1
        assert slices < 100000, "the coordinator makes no progress"
    return slices


class TestFileVanishesBetweenSlices:
    def test_gone_before_its_read_is_abandoned_and_reported(self, mgr, tmp_path, hooked):
        a = write(tmp_path / "a.py", FIRST)
        gone = write(tmp_path / "gone.py", SECOND)
        c = write(tmp_path / "c.py", SECOND)
        expected_first = reference_records(tmp_path, FIRST)
        expected_second = reference_records(tmp_path, SECOND)

        def delete_when_made(scanner, state):
            if scanner.fScope.loc == gone and state is ss.kTimedOut and not has_read(scanner):
                os.remove(gone.fPath)
                hooked.after_slice = None

        hooked.after_slice = delete_when_made
        with counter_clock():
            coord = sliced_coordinator(mgr)
            coord.AddLocations([a, gone, c])
            assert run_all(coord) > 3
        assert not os.path.exists(gone.fPath)
        assert coord.fAbandonedLocs == [gone] and coord.fErrors == []
        assert (coord.fCounts.files, coord.fCounts.abandoned) == (2, 1)
        assert mgr.fInfoCache.GetScopesForLoc(gone) == []
        assert mgr.fInfoCache.GetScansDone(gone) == {}
        assert records_of_loc(mgr, a) == expected_first
        assert records_of_loc(mgr, c) == expected_second
        coord.destroy()

    def test_gone_after_its_read_keeps_the_content_read(self, mgr, tmp_path, hooked):
        """The scan works on the snapshot it read; a second run finds the file
        gone and reports it instead of trusting the old records."""
        gone = write(tmp_path / "gone.py", SECOND)
        expected = reference_records(tmp_path, SECOND)

        def delete_after_read(scanner, state):
            if state is ss.kTimedOut and has_read(scanner):
                os.remove(gone.fPath)
                hooked.after_slice = None

        hooked.after_slice = delete_after_read
        with counter_clock():
            coord = sliced_coordinator(mgr)
            coord.AddLocations([gone])
            run_all(coord)
            assert coord.fCounts.files == 1 and coord.fAbandonedLocs == []
            assert records_of_loc(mgr, gone) == expected
            coord.destroy()
            again = sliced_coordinator(mgr, max_attempts=2)
            assert not again.IsUpToDate(gone)
            again.AddLocations([gone])
            run_all(again)
        assert again.fAbandonedLocs == [gone] and again.fCounts.skipped == 0
        again.destroy()


class TestFileChangesBetweenSlices:
    def scan_with_change(self, mgr, tmp_path, hooked, notify):
        other = write(tmp_path / "other.py", FIRST)
        loc = write(tmp_path / "mod.py", SECOND)
        coord = sliced_coordinator(mgr)
        slices_after_read = []

        def change_in_mid_scan(scanner, state):
            if scanner.fScope.loc != loc or state is not ss.kTimedOut or not has_read(scanner):
                return
            slices_after_read.append(state)
            if len(slices_after_read) == 3:
                write(loc.fPath, CHANGED)
                if notify:
                    coord.FileChanged(loc)
                hooked.after_slice = None

        hooked.after_slice = change_in_mid_scan
        with counter_clock():
            coord.AddLocations([other, loc])
            run_all(coord)
        assert len(slices_after_read) == 3   # the change came in mid-scan
        return coord, other, loc

    def test_notified_change_abandons_and_rescans_the_new_content(self, mgr, tmp_path, hooked):
        coord, other, loc = self.scan_with_change(mgr, tmp_path, hooked, notify=True)
        assert coord.fCounts.files == 2 and coord.fAbandonedLocs == []
        assert records_of_loc(mgr, loc) == reference_records(tmp_path, CHANGED)
        assert records_of_loc(mgr, other) == reference_records(tmp_path, FIRST, "first.py")
        assert coord.IsUpToDate(loc) and coord.IsUpToDate(other)
        coord.destroy()

    def test_unnoticed_change_is_rescanned_by_the_next_run(self, mgr, tmp_path, hooked):
        coord, other, loc = self.scan_with_change(mgr, tmp_path, hooked, notify=False)
        assert coord.fCounts.files == 2
        # The records are those of the content read, under its disk time.
        assert records_of_loc(mgr, loc) == reference_records(tmp_path, SECOND)
        assert not coord.IsUpToDate(loc) and coord.IsUpToDate(other)
        coord.destroy()
        again = primary_scan(mgr, [other, loc])
        assert (again.fCounts.files, again.fCounts.skipped) == (1, 1)
        # Scopes gone from the file leave the index.
        assert records_of_loc(mgr, loc) == reference_records(tmp_path, CHANGED)


class TestUnreadable:
    @pytest.mark.parametrize("kind", ["directory", "dangling link", "fifo", "link to a fifo"])
    def test_not_a_readable_file_is_abandoned(self, mgr, tmp_path, kind):
        path = tmp_path / "x.py"
        if kind == "directory":
            path.mkdir()
        elif kind == "dangling link":
            path.symlink_to(tmp_path / "nowhere.py")
        elif kind == "fifo":
            os.mkfifo(path)
        else:
            os.mkfifo(tmp_path / "pipe")
            path.symlink_to(tmp_path / "pipe")
        loc = CLocalFileLocation(str(path))
        coord = primary_scan(mgr, [loc], max_attempts=2)
        assert coord.fAbandonedLocs == [loc] and coord.fErrors == []
        assert coord.fCounts.files == 0 and not coord.IsUpToDate(loc)
        assert coordinator._ContentChecksum(str(path)) is None
        # The file cache refuses it too, without blocking on a pipe.
        cache = filellinecache.CFileLogicalLineCache(str(path))
        assert cache.Update() is False
        assert list(cache._fLogicalList) == [] and cache.GetEOLBlindChecksum() is None
        cache.destroy()

    def test_index_reports_them_and_keeps_the_rest(self, tmp_path, monkeypatch, capsys):
        root = tmp_path / "proj"
        root.mkdir()
        (root / "good.py").write_text(FIRST)
        (root / "dangling.py").symlink_to(root / "nowhere.py")
        os.mkfifo(root / "pipe")
        (root / "piped.py").symlink_to(root / "pipe")
        (root / "folder.py").mkdir()
        (root / "folder.py" / "inner.py").write_text(SECOND)
        monkeypatch.chdir(root)
        for _ in range(2):
            code = cli.main(["index"])
            out, err = capsys.readouterr()
            assert code == cli.kExitFailed
            assert "cannot read dangling.py" in err
            assert "skipped piped.py: a link to something that is not a file" in err
            assert "1 failed" in out and "1 skipped" in out
        # The second run scans nothing that was already good.
        assert out.startswith("Indexed 0 files: ") and "2 files unchanged" in out
        # A directory named like a source file is walked as a directory.
        assert cli.main(["show", "folder.py/inner.py:Store.put"]) == 0
        assert "Store.put" in capsys.readouterr().out


def random_bytes(size, seed):
    rng = random.Random(seed)
    return bytes(rng.randrange(256) for _ in range(size))


def parse_error_every_other_line(count):
    return "".join(f"name{i} = {i}\n" if i % 2 == 0 else f"def ){i}(:\n" for i in range(count))


def ten_megabytes():
    """About 10 MB of source with many classes and defs: long comment lines
    and docstrings make up the bulk, so that scanning stays quick."""
    filler = "# " + "x" * 4000 + "\n"
    doc = '    """' + "text " * 800 + '"""\n'
    parts, size, n = [], 0, 0
    while size < 10_000_000:
        part = (f"class K{n}(Base):\n{doc}    def m{n}(self, a):\n        self.v{n} = a\n"
                f"{filler}def g{n}(x):\n    return K{n}().m{n}(x)\n")
        parts.append(part)
        size += len(part)
        n += 1
    return "".join(parts), n


class TestBadContent:
    """Content that isn't good Python still gives a finished scan with
    its problems recorded; the neighbour file's records don't change."""

    def scan_bad(self, mgr, tmp_path, data):
        good = write(tmp_path / "good.py", FIRST)
        bad = write(tmp_path / "bad.py", data)
        coord = primary_scan(mgr, [good, bad])
        assert coord.fCounts.files == 2 and coord.fAbandonedLocs == [] and coord.fErrors == []
        assert records_of_loc(mgr, good) == reference_records(tmp_path, FIRST)
        return coord, bad

    @pytest.mark.parametrize("data", [
        random_bytes(20000, 1),
        b"\0" * 5000,
        b"x = 1\n\0\0\0def f(\0):\n    pass\n" * 50,
    ], ids=["random", "nul", "nul-in-code"])
    def test_binary_content(self, mgr, tmp_path, data):
        coord, bad = self.scan_bad(mgr, tmp_path, data)
        assert "" in mgr.fInfoCache.GetScopesForLoc(bad)
        if data != b"\0" * 5000:
            assert coordinator.CountIncompleteScopes(mgr.fInfoCache, bad) >= 1
            assert coord.fCounts.parse_errors >= 1

    def test_parse_error_in_every_other_line(self, mgr, tmp_path):
        coord, bad = self.scan_bad(mgr, tmp_path, parse_error_every_other_line(2000))
        info = mgr.fInfoCache.GetScopeInfo(si.Scope(bad, ""))
        assert info.incomplete and coord.fCounts.parse_errors == 1
        # The good lines between the bad ones still give their names.
        assert {"name0", "name1998"} <= set(info.type_equivs)

    @pytest.mark.parametrize("data, scopes, error_lines", [
        (b"x = '\xff\xfe'\ndef f():\n    return '\x80'\nclass C:\n    pass\n",
         {"", "f", "C"}, [1, 1, 3]),
    ] + [(b"# -*- coding: " + cookie + b" -*-\nx = 1\ndef g():\n    pass\n", {""}, None)
         for cookie in (b"no-such-codec", b"utf-16", b"\xff\xfe")],
        ids=["undecodable", "unknown-cookie", "utf-16-cookie", "undecodable-cookie"])
    def test_decoding_problems_are_replaced_and_recorded(self, mgr, tmp_path, data, scopes,
                                                         error_lines):
        coord, bad = self.scan_bad(mgr, tmp_path, data)
        assert set(mgr.fInfoCache.GetScopesForLoc(bad)) >= scopes
        cache = filellinecache.CFileLogicalLineCache(str(bad.fPath))
        assert cache.Update()
        lines = [e[0] for e in cache.fDecodeErrors]
        assert lines == error_lines if error_lines else lines != []
        cache.destroy()

    def test_ten_megabytes(self, mgr, tmp_path):
        text, count = ten_megabytes()
        coord, bad = self.scan_bad(mgr, tmp_path, text)
        names = set(mgr.fInfoCache.GetScopesForLoc(bad))
        assert coord.fCounts.parse_errors == 0
        assert {f"K{count - 1}", f"K{count - 1}.m{count - 1}", f"g{count - 1}"} <= names
        assert len(names) == 4 * count + 1      # class, instance, method, function; module


class TestDeepNesting:
    """Nesting far past what Python accepts must neither overflow the stack
    nor take the process down."""

    @pytest.mark.parametrize("text", [
        "x = " + "(" * 5000 + ")" * 5000 + "\ny = 1\n",
        "x = " + "[{(" * 5000 + "\ny = 1\n",
        "x = " + ")]}" * 5000 + "\ny = 1\n",
        "x = " + "-" * 100000 + "1\n",
        "x = " + "not " * 50000 + "1\n",
        "x = " + "a." * 50000 + "b\n",
        "x = " + "lambda: " * 20000 + "1\n",
        "x = " + "f(" * 3000 + ")" * 3000 + "\n",
        "x = " + "1 if 2 else " * 20000 + "3\n",
        "".join(" " * i + "if x:\n" for i in range(3000)) + " " * 3000 + "pass\n",
        # Long left-leaning chains: trees as deep as the chain is long.
        "x = " + "1 + " * 100000 + "1\n",
        "x = f" + "()" * 100000 + "\n",
        "a" + "[0]" * 100000 + " = 1\n",
        "a" + ".b" * 100000 + " += 1\n",
        "@d" + ".e" * 50000 + "\ndef f():\n    pass\n",
        "def f(a: T" + "[0]" * 50000 + "):\n    pass\n",
    ], ids=["parens", "unclosed", "unopened", "unary", "not", "attributes", "lambdas",
            "calls", "conditionals", "indents", "sum", "call-chain", "subscript-target",
            "attribute-target", "decorator", "hint"])
    def test_deep_expressions_and_blocks(self, mgr, tmp_path, text):
        loc = write(tmp_path / "deep.py", text)
        coord = primary_scan(mgr, [loc])
        assert coord.fCounts.files == 1 and coord.fErrors == []
        assert "" in mgr.fInfoCache.GetScopesForLoc(loc)

    @pytest.mark.parametrize("keyword", ["def", "class"])
    def test_three_hundred_nested_scopes(self, mgr, tmp_path, keyword):
        depth = 300
        text = "".join("    " * i + f"{keyword} s{i}():\n" for i in range(depth))
        text += "    " * depth + "v = 1\n"
        loc = write(tmp_path / "nested.py", text)
        coord = primary_scan(mgr, [loc])
        assert coord.fCounts.files == 1 and coord.fCounts.parse_errors == 0
        innermost = ".".join(f"s{i}" for i in range(depth))
        names = set(mgr.fInfoCache.GetScopesForLoc(loc))
        assert innermost in names
        assert len(names) == depth * (2 if keyword == "class" else 1) + 1


def broken_stdlib_files():
    """The standard library's files that don't compile or don't decode: the
    ones left broken on purpose, as test data."""
    root = sysconfig.get_paths()["stdlib"]
    broken = []
    for directory, dirs, names in os.walk(root):
        if os.path.relpath(directory, root).split(os.sep)[0] == "site-packages":
            dirs[:] = []
            continue
        for name in names:
            if not name.endswith(".py"):
                continue
            path = os.path.join(directory, name)
            try:
                with open(path, "rb") as f:
                    data = f.read()
                with warnings.catch_warnings():
                    warnings.simplefilter("ignore")
                    compile(data, path, "exec", dont_inherit=True)
            except (SyntaxError, ValueError, UnicodeDecodeError, RecursionError):
                broken.append(path)
    return sorted(broken)


class TestBrokenCorpus:
    def test_index_accounts_for_every_broken_file(self, tmp_path, capsys):
        files = broken_stdlib_files()
        if len(files) < 5:
            pytest.skip("this interpreter's library has no broken test files")
        db = tmp_path / "broken.db"
        code = cli.main(["index", "--db", str(db)] + files)
        out, err = capsys.readouterr()
        failed = [line for line in err.splitlines() if line.startswith("pysource: ")]
        assert code == (cli.kExitFailed if failed else 0)
        indexed = int(out.split()[1])
        assert indexed + len(failed) == len(files), out
        assert "with parse errors" in out and " 0 with parse errors" not in out
        code = cli.main(["index", "--db", str(db)] + files)
        out, _ = capsys.readouterr()
        assert f"{indexed} files unchanged" in out


def test_a_hang_is_guarded_in_a_child_process(tmp_path):
    """A FIFO named on the command line, with no writer: the index must not
    block on it."""
    os.mkfifo(tmp_path / "pipe.py")
    (tmp_path / "ok.py").write_text(FIRST)
    env = dict(os.environ, SKBUILD_EDITABLE_VERBOSE="0")
    done = subprocess.run([sys.executable, "-m", "pysource", "index", "pipe.py", "ok.py"],
                          cwd=tmp_path, env=env, capture_output=True, text=True, timeout=300)
    assert done.returncode == cli.kExitFailed
    assert "cannot read pipe.py" in done.stderr
    assert done.stdout.startswith("Indexed 1 files: ") and "1 failed" in done.stdout


class TestRemovedScopes:
    def test_a_second_index_run_drops_scopes_the_file_no_longer_has(self, tmp_path,
                                                                    monkeypatch, capsys):
        monkeypatch.chdir(tmp_path)
        path = tmp_path / "mod.py"
        write(path, SECOND)
        write(tmp_path / "other.py", FIRST)
        assert cli.main(["index"]) == 0
        write(path, CHANGED)
        assert cli.main(["index"]) == 0
        out = capsys.readouterr().out
        assert "1 files unchanged" in out
        # A new process reads the records from the database.
        assert cli.main(["show", "mod.py:Store.put"]) == cli.kExitFailed
        assert "no record of scope 'Store.put'" in capsys.readouterr().err
        assert cli.main(["show", "mod.py:Other.get"]) == 0
        assert cli.main(["show", "other.py:Config.__init__"]) == 0

    def test_forgetting_keeps_the_named_scopes_and_other_files(self, mgr, tmp_path):
        loc = write(tmp_path / "mod.py", SECOND)
        other = write(tmp_path / "other.py", SECOND)
        for each in (loc, other):
            primary_scan(mgr, [each])
        info_cache = mgr.fInfoCache
        before = records_of_loc(mgr, loc)
        assert info_cache.ForgetScopesOfLoc(loc, mgr.fPrimaryScanName, set(before)) == 0
        assert info_cache.ForgetScopesOfLoc(loc, "another scan", set()) == 0
        assert records_of_loc(mgr, loc) == before
        dropped = info_cache.ForgetScopesOfLoc(loc, mgr.fPrimaryScanName, {"", "helper"})
        assert dropped == len(before) - 2
        assert set(info_cache.GetScopesForLoc(loc)) == {"", "helper"}
        assert records_of_loc(mgr, other) == before
        with pytest.raises(TypeError):
            info_cache.ForgetScopesOfLoc(loc, mgr.fPrimaryScanName, [1])

import os
import subprocess
import sys
import urllib.parse

import pytest

from pysource import filellinecache as flc
from pysource import logicalline as ll
from pysource.filellinecache import CFileLogicalLineCache, EOLBlindChecksum
from pysource.llinecache import CLogicalLineCache

from managerutil import fresh_remote


class UrlLocation:
    def __init__(self, path):
        self.fUrl = "file://" + urllib.parse.quote(str(path))


def write(path, text, mtime=None):
    path.write_bytes(text.encode() if isinstance(text, str) else text)
    if mtime is not None:
        os.utime(path, (mtime, mtime))


@pytest.fixture
def events():
    return []


def make_cache(loc, events):
    cache = CFileLogicalLineCache(loc)
    cache.connect("modified", lambda c, delta: events.append((c, list(delta.added),
                                                              list(delta.removed))))
    return cache


def read_cache(tmp_path, text, events=None, mtime=None):
    """A cache of m.py holding `text`, read once; gives (cache, path)."""
    path = tmp_path / "m.py"
    write(path, text, mtime)
    cache = CFileLogicalLineCache(str(path)) if events is None else make_cache(str(path), events)
    cache.Update()
    return cache, path


class TestReading:
    def test_update_reads_and_builds(self, tmp_path, events):
        path = tmp_path / "m dir" / "mod.py"
        path.parent.mkdir()
        write(path, "import os\n\ndef f():\n    return 1\n", mtime=1_000_000.5)
        cache = make_cache(UrlLocation(path), events)
        assert cache.fMatchedDiskMTime is None and cache.GetEOLBlindChecksum() is None
        assert cache.Update() is True
        assert [l.fType for l in cache._fLogicalList] == [ll.kImport, ll.kFunctionDef, ll.kReturn]
        assert cache.fMatchedDiskMTime == pytest.approx(1_000_000.5)
        assert cache.fDecodeErrors == [] and cache.fEncoding == "utf-8"
        assert events == []  # the first read is no change
        cache.destroy()

    @pytest.mark.parametrize("make_loc", [str, os.fspath, lambda p: p, UrlLocation])
    def test_location_forms(self, tmp_path, make_loc):
        path = tmp_path / "a.py"
        write(path, "x = 1\n")
        cache = CFileLogicalLineCache(make_loc(path))
        assert cache.Update() and len(cache._fLogicalList) == 1

    def test_missing_or_foreign_location_is_false_not_an_error(self, tmp_path):
        missing = CFileLogicalLineCache(str(tmp_path / "nope.py"))
        assert missing.Update() is False and missing.fMatchedDiskMTime == 0.0
        assert missing._fLogicalList == []
        assert CFileLogicalLineCache(str(tmp_path)).Update() is False  # a directory
        remote = type("Remote", (), {"fUrl": "ssh://host/x.py"})()
        assert CFileLogicalLineCache(remote).Update() is False
        assert CFileLogicalLineCache(object()).Update() is False


def _facts(cache):
    return ([(l.fType, l.fFirstLine, l.fLineCount, l.fIndentLevel, l.fText, l.fScopeName,
              l.fLocalScopeName, l.fIncomplete) for l in cache._fLogicalList],
            cache.fEncoding, cache.fDecodeErrors, cache.fMatchedDiskMTime)


def _update_in_steps(cache):
    """UpdateUntil with a deadline long past, called until it answers; gives
    (its answer, the calls it took)."""
    calls = 1
    while (got := cache.UpdateUntil(0.0)) is None:
        calls += 1
    return got, calls


# A text long enough for several steps: folded names, strings across lines,
# a statement cut off at the end.
kLongSource = "".join(f"class C{i}:\n    def m(self, \u00e9{i}=1):\n        s = \"\"\"a\nb\"\"\"\n"
                      f"        return (s,\n                {i})\n" for i in range(300)) + "x = (1,\n"


class TestUpdateInSteps:
    @pytest.mark.parametrize("content", [
        kLongSource.encode(), kLongSource.encode("latin-1", "replace"),
        b"# -*- coding: latin-1 -*-\n" + b"x = '\xe9'\n" * 2000, b""])
    def test_the_same_logicals_as_one_update(self, tmp_path, content):
        path = tmp_path / "m.py"
        write(path, content, mtime=1_000.0)
        whole, stepped = CFileLogicalLineCache(str(path)), CFileLogicalLineCache(str(path))
        assert whole.Update() is True
        got, calls = _update_in_steps(stepped)
        assert got is True and _facts(stepped) == _facts(whole)
        assert (calls > 2) == (len(content) > 10_000)
        assert stepped.UpdateUntil(0.0) is True   # held: one step

    def test_a_text_changed_between_steps_is_read_as_it_is_at_the_end(self, tmp_path, events):
        path = tmp_path / "m.py"
        write(path, kLongSource)
        cache = make_cache(str(path), events)
        assert cache.UpdateUntil(0.0) is None
        write(path, "y = 2\n")
        assert _update_in_steps(cache)[0] is True
        assert [l.fText for l in cache._fLogicalList] == ["y = 2"] and events == []

    @pytest.mark.parametrize("content", [kLongSource, kLongSource.encode()])
    def test_remote_content(self, content):
        remote = fresh_remote()
        remote.SetContent(content, 5.0)
        whole, stepped = CLogicalLineCache(None, remote, None), CLogicalLineCache(None, remote, None)
        assert whole.Update() is True
        got, calls = _update_in_steps(stepped)
        assert got is True and calls > 2 and _facts(stepped) == _facts(whole)

    def test_no_content_is_false_at_once(self, tmp_path):
        assert CLogicalLineCache(None, fresh_remote(), None).UpdateUntil(0.0) is False
        assert CFileLogicalLineCache(str(tmp_path / "nope.py")).UpdateUntil(0.0) is False


class TestChanges:
    def test_modified_with_delta_and_kept_objects(self, tmp_path, events):
        cache, path = read_cache(tmp_path, "a = 1\nb = 2\nc = 3\n", events)
        first, second, third = cache._fLogicalList
        first.fTypeEquivs = [("a", b"x")]
        old_list = cache._fLogicalList
        write(path, "a = 1\nb = 22\nc = 3\nd = 4\n")
        assert cache.Update()
        new = cache._fLogicalList
        assert new is not old_list and old_list == [first, second, third]
        assert new[0] is first and first.fTypeEquivs == [("a", b"x")]
        [(emitter, added, removed)] = events
        assert emitter is cache
        assert removed == [second, third]
        assert added == new[1:] and [l.fToks[0] for l in added] == ["b", "c", "d"]

    def test_unchanged_content_emits_nothing_and_keeps_the_list(self, tmp_path, events):
        cache, path = read_cache(tmp_path, "a = 1\n", events, mtime=1000)
        before = cache._fLogicalList
        write(path, "a = 1\n", mtime=2000)
        assert cache.Update() and cache._fLogicalList is before and events == []
        assert cache.fMatchedDiskMTime == 2000

    def test_file_that_goes_away(self, tmp_path, events):
        cache, path = read_cache(tmp_path, "a = 1\n", events)
        old = list(cache._fLogicalList)
        path.unlink()
        assert cache.Update() is False
        assert cache._fLogicalList == [] and cache.fMatchedDiskMTime == 0.0
        assert events == [(cache, [], old)]

    def test_destroy_ends_connections(self, tmp_path, events):
        cache, path = read_cache(tmp_path, "a = 1\n", events)
        cache.destroy()
        write(path, "a = 2\n")
        cache.Update()
        assert events == []


class TestQueries:
    def test_eol_blind_checksum(self, tmp_path):
        sums = []
        for eol in ("\n", "\r\n", "\r"):
            cache, _ = read_cache(tmp_path, f"def f():{eol}    return 1{eol}")
            sums.append(cache.GetEOLBlindChecksum())
        assert sums[0] == sums[1] == sums[2]
        assert EOLBlindChecksum(b"a\nb") != EOLBlindChecksum(b"a\nc")
        assert EOLBlindChecksum(b"a\n\nb") != EOLBlindChecksum(b"a\nb")

    def test_index_for_lineno(self, tmp_path):
        cache, _ = read_cache(tmp_path, "x = (1,\n     2)\n\ndef f(): return 1\n# c\n")
        assert [cache._IndexForLineno(n) for n in range(0, 7)] == [-1, 0, 0, -1, 1, 3, -1]

    def test_save_words_to_db(self, tmp_path):
        cache, path = read_cache(
            tmp_path, "import os\nclass Cls:\n    def meth(self, arg): return arg or None\n")
        cache.SaveWordsToDb()  # without a store: nothing happens
        received = []
        flc.SetWordStore(lambda loc, words: received.append((loc, words)))
        try:
            cache.SaveWordsToDb()
        finally:
            flc.SetWordStore(None)
        assert received == [(str(path), {"os", "Cls", "meth", "self", "arg"})]
        cache.SaveWordsToDb()
        assert len(received) == 1
        with pytest.raises(TypeError):
            flc.SetWordStore(3)

    def test_a_list_holding_none_is_a_type_error(self, tmp_path):
        cache, path = read_cache(tmp_path, "a = 1\nb = 2\n")
        cache._fLogicalList = [cache._fLogicalList[0], None]
        write(path, "a = 1\nc = 3\n", mtime=2_000_000)
        flc.SetWordStore(lambda loc, words: None)
        try:
            for call in (lambda: cache._IndexForLineno(2), cache.SaveWordsToDb, cache.Update,
                         lambda: flc.CollectWords([None])):
                with pytest.raises(TypeError, match="CLogicalLine"):
                    call()
        finally:
            flc.SetWordStore(None)


class TestCommand:
    def run(self, *args):
        # (a development install may announce its rebuild; keep that out of the output)
        env = dict(os.environ, SKBUILD_EDITABLE_VERBOSE="0")
        return subprocess.run([sys.executable, "-m", "pysource", *args], capture_output=True,
                              text=True, env=env)

    def test_logicals_listing(self, tmp_path):
        path = tmp_path / "m.py"
        write(path, "class C:\n    def f(self): return 'a\\nb'\n")
        out = self.run("logicals", str(path))
        assert out.returncode == 0, out.stderr
        lines = out.stdout.splitlines()
        assert len(lines) == 3
        assert "class-def" in lines[0] and "local C|0" in lines[0]
        assert "function-def" in lines[1] and "scope C " in lines[1] and "local f|0" in lines[1]
        assert "return" in lines[2] and "scope C.f " in lines[2] and "'a\\\\nb'" in lines[2]

    def test_missing_file(self, tmp_path):
        out = self.run("logicals", str(tmp_path / "none.py"))
        assert out.returncode == 2 and "no such file" in out.stderr

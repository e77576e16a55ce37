import gc
import os
import weakref

import pytest

from basekit.destroyable import CDestroyable
from basekit.location import CLocalFileLocation
from pysource import filellinecache
from pysource.llinecache import CLogicalLineCache

from managerutil import fresh_remote
from scanutil import replaced_clock

SOURCE = "import os\n\ndef f(a):\n    return a\n\nx = f(1)\n"


class Recorder:
    def __init__(self, cache):
        self.events = []
        cache.connect("modified", self)

    def __call__(self, cache, delta):
        self.events.append((cache, list(delta.added), list(delta.removed)))


class CacheMgr:
    def __init__(self):
        self.requests = []

    def RequestContent(self, loc, idle_priority):
        self.requests.append((loc, idle_priority))


def texts(logicals):
    return [(l.fFirstLine, l.fType) for l in logicals]


class TestWaiting:
    def test_update_without_content_waits_and_asks_once(self):
        loc, mgr = fresh_remote(), CacheMgr()
        cache = CLogicalLineCache(mgr, loc, 7)
        rec = Recorder(cache)
        assert cache.fRemote
        assert cache.Update() is False
        assert cache.Update() is False
        assert cache.fWaiting
        assert mgr.requests == [(loc, 7)]
        assert cache.fMatchedDiskMTime is None
        assert cache.GetEOLBlindChecksum() is None
        assert list(cache._fLogicalList) == [] and cache._IndexForLineno(1) == -1
        assert rec.events == []

    def test_no_manager_or_manager_without_request_is_fine(self):
        for mgr in (None, object()):
            cache = CLogicalLineCache(mgr, fresh_remote(), None)
            assert cache.Update() is False and cache.fWaiting

    def test_content_before_update_is_no_signal(self):
        loc = fresh_remote()
        cache = CLogicalLineCache(None, loc, None)
        rec = Recorder(cache)
        loc.SetContent(SOURCE, 3.0)  # nobody asked yet: nothing to do
        assert rec.events == [] and list(cache._fLogicalList) == []
        assert cache.Update() is True
        assert not cache.fWaiting
        assert cache.fMatchedDiskMTime == 3.0
        assert len(cache._fLogicalList) == 4
        assert rec.events == []


class TestArrival:
    def test_arrival_builds_and_emits_everything_added(self):
        loc = fresh_remote()
        cache = CLogicalLineCache(CacheMgr(), loc, None)
        rec = Recorder(cache)
        assert not cache.Update()
        loc.SetContent(SOURCE, 12.5)
        assert len(rec.events) == 1
        sender, added, removed = rec.events[0]
        assert sender is cache and removed == []
        assert added == list(cache._fLogicalList)
        assert texts(cache._fLogicalList) == [(1, "import"), (3, "function-def"),
                                              (4, "return"), (6, "assignment")]
        assert cache.fMatchedDiskMTime == 12.5
        assert not cache.fWaiting
        assert cache.GetEOLBlindChecksum() == filellinecache.EOLBlindChecksum(SOURCE.encode())
        assert cache._IndexForLineno(4) == 2 and cache._IndexForLineno(5) == -1
        # the content is there now: Update is synchronous and quiet
        assert cache.Update() is True
        assert len(rec.events) == 1

    def test_same_logicals_as_the_file_cache(self, tmp_path):
        path = tmp_path / "m.py"
        path.write_text(SOURCE)
        file_cache = filellinecache.CFileLogicalLineCache(CLocalFileLocation(str(path)))
        assert file_cache.Update()
        loc = fresh_remote()
        loc.SetContent(SOURCE.encode())
        cache = CLogicalLineCache(None, loc, None)
        assert cache.Update()
        assert ([(l.fType, l.fFirstLine, l.fIndentLevel, l.fScopeName, l.fToks)
                 for l in cache._fLogicalList] ==
                [(l.fType, l.fFirstLine, l.fIndentLevel, l.fScopeName, l.fToks)
                 for l in file_cache._fLogicalList])

    def test_bytes_are_decoded_as_a_file_text_is_taken_as_is(self):
        declared = "# -*- coding: latin-1 -*-\nname = 'é'\n"
        loc = fresh_remote()
        loc.SetContent(declared.encode("latin-1"))
        cache = CLogicalLineCache(None, loc, None)
        assert cache.Update()
        assert cache._fLogicalList[-1].fToks[-1] == "'é'"
        assert cache.fEncoding == "iso8859-1"
        # as text the declaration must not make it decode a second time
        loc.SetContent(declared)
        assert cache._fLogicalList[-1].fToks[-1] == "'é'"
        assert cache.fEncoding == "utf-8"

    def test_time_comes_from_the_clock_when_the_location_has_none(self):
        class PlainRemote(CDestroyable):
            def __init__(self):
                super().__init__(["content-changed"])
                self.content = None

            def GetContent(self):
                return self.content

        with replaced_clock(lambda: 99.0):
            loc = PlainRemote()
            cache = CLogicalLineCache(None, loc, None)
            assert not cache.Update()
            loc.content = "x = 1\n"
            loc.emit("content-changed", loc)
            assert cache.fMatchedDiskMTime == 99.0
            assert texts(cache._fLogicalList) == [(1, "assignment")]


class TestChange:
    def make(self):
        loc = fresh_remote()
        loc.SetContent(SOURCE, 1.0)
        cache = CLogicalLineCache(None, loc, None)
        assert cache.Update()
        return loc, cache, Recorder(cache)

    def test_change_gives_the_delta_and_keeps_unchanged_leading_logicals(self):
        loc, cache, rec = self.make()
        before = list(cache._fLogicalList)
        loc.SetContent(SOURCE.replace("x = f(1)", "y = f(2)\nz = 3"), 2.0)
        assert len(rec.events) == 1
        _, added, removed = rec.events[0]
        assert removed == [before[3]]
        assert texts(added) == [(6, "assignment"), (7, "assignment")]
        assert list(cache._fLogicalList[:3]) == before[:3]  # the same objects
        assert cache._fLogicalList[0] is before[0]
        assert cache.fMatchedDiskMTime == 2.0

    def test_unchanged_redelivery_gives_an_empty_delta_and_the_same_time(self):
        loc, cache, rec = self.make()
        before = list(cache._fLogicalList)
        checksum = cache.GetEOLBlindChecksum()
        loc.SetContent(SOURCE)
        assert rec.events == [(cache, [], [])]
        assert cache.fMatchedDiskMTime == 1.0
        assert all(a is b for a, b in zip(cache._fLogicalList, before))
        assert cache.GetEOLBlindChecksum() == checksum

    def test_line_end_style_leaves_the_checksum(self):
        loc, cache, rec = self.make()
        checksum = cache.GetEOLBlindChecksum()
        loc.SetContent(SOURCE.replace("\n", "\r\n"), 5.0)
        assert cache.GetEOLBlindChecksum() == checksum
        assert cache.fMatchedDiskMTime == 5.0
        assert len(rec.events) == 1

    def test_emptied_content(self):
        loc, cache, rec = self.make()
        loc.SetContent(b"", 3.0)
        _, added, removed = rec.events[0]
        assert added == [] and len(removed) == 4
        assert list(cache._fLogicalList) == []

    def test_malformed_source_is_recorded_not_raised(self):
        loc, cache, rec = self.make()
        loc.SetContent(b"x = (1,\n\xff\xfe = 'open\n", 4.0)
        assert len(rec.events) == 1
        assert cache.fDecodeErrors  # the undecodable bytes are on record
        assert cache._fLogicalList[-1].fIncomplete


class TestLifetime:
    def test_destroyed_cache_no_longer_listens(self):
        loc = fresh_remote()
        cache = CLogicalLineCache(None, loc, None)
        rec = Recorder(cache)
        cache.Update()
        assert loc.connection_count("content-changed") == 1
        cache.destroy()
        assert loc.connection_count("content-changed") == 0
        loc.SetContent(SOURCE)
        assert rec.events == []

    def test_location_does_not_keep_the_cache_alive(self):
        loc = fresh_remote()
        cache = CLogicalLineCache(None, loc, None)
        cache.Update()
        ref = weakref.ref(cache)
        del cache
        gc.collect()
        assert ref() is None
        loc.SetContent(SOURCE)  # the dangling connection does nothing

    def test_words_reach_the_store(self):
        loc = fresh_remote()
        loc.SetContent(SOURCE)
        cache = CLogicalLineCache(None, loc, None)
        saved = []
        filellinecache.SetWordStore(lambda l, words: saved.append((l, words)))
        try:
            cache.Update()
            cache.SaveWordsToDb()
        finally:
            filellinecache.SetWordStore(None)
        assert saved == [(loc, {"os", "f", "a", "x"})]


class TestLocalLocation:
    def test_reads_the_file_like_the_file_cache(self, tmp_path):
        path = tmp_path / "local.py"
        path.write_text(SOURCE)
        loc = CLocalFileLocation(str(path))
        cache = CLogicalLineCache(CacheMgr(), loc, None)
        rec = Recorder(cache)
        assert not cache.fRemote
        assert cache.Update()
        assert cache.fMatchedDiskMTime == os.stat(path).st_mtime
        assert len(cache._fLogicalList) == 4
        path.write_text(SOURCE + "w = 4\n")
        assert cache.Update()
        assert len(rec.events) == 1 and texts(rec.events[0][1]) == [(7, "assignment")]

    def test_missing_file_is_false_not_waiting(self, tmp_path):
        cache = CLogicalLineCache(None, CLocalFileLocation(str(tmp_path / "nope.py")), None)
        assert cache.Update() is False
        assert not cache.fWaiting
        assert cache.fMatchedDiskMTime == 0.0


EDITED = (
    "import os\n"
    "\n"
    "class C:\n"
    "    def f(self, a):\n"
    "        x = a\n"
    "# a note at the margin\n"
    "        def g():\n"
    "            return 1\n"
    "        def g():\n"
    "            return 'é'\n"
    "        return x\n"
    "    # about h\n"
    "    def h(self): y = 1\n"
    "\n"
    "def k():\n"
    "    return (1,\n"
    "            2)\n"
    "z = C()\n"
)


def facts(logicals):
    return [(l.fType, l.fFirstLine, l.fLineCount, l.fIndentLevel, l.fTextColumn, l.fText,
             l.fScopeName, l.fLocalScopeName, l.fIncomplete, l.fPositions) for l in logicals]


class TestEdits:
    # Each edit gives the logicals of the new text built afresh, whichever
    # part of the text is read again, and reports what changed alone.
    @pytest.mark.parametrize("old, new, changed", [
        ("x = a\n", "x = a\n        w = 2\n\n", (0, 1)),       # lines added inside f
        ("        x = a\n", "", (1, 0)),                        # a line taken out
        # The first g goes: the second, of the same text, takes its place
        # and its body moves from g|1 to g.
        ("        def g():\n            return 1\n", "", (3, 1)),
        ("return x\n", "return x\n    def extra(self): pass\n", (0, 2)),  # after f's body
        ("x = a\n", "x = (a,\n", None),                         # a bracket left open
        # A statement leaves the class: h and its body with it.
        ("        return x\n", "return x\n", (4, 4)),
        ("# a note at the margin\n", "# another note\n", (1, 1)),  # a comment outside the body
        ("'é'", "e", (1, 1)),                                    # a folded name goes
        ("    return (1,\n", "    return [1,\n", None),          # in the last def, left open
        ("import os\n", "import sys\n", (1, 1)),                # outside any body
    ])
    @pytest.mark.parametrize("line_end", ["\n", "\r\n"])
    def test_edit_gives_the_logicals_of_the_new_text(self, old, new, changed, line_end):
        text = EDITED.replace("\n", line_end)
        loc = fresh_remote()
        loc.SetContent(text, 1.0)
        cache = CLogicalLineCache(None, loc, None)
        assert cache.Update()
        rec = Recorder(cache)
        new_text = text.replace(old.replace("\n", line_end), new.replace("\n", line_end), 1)
        cache.SetText(new_text, None)
        assert facts(cache._fLogicalList) == facts(filellinecache.BuildLogicalLines(new_text))
        _, added, removed = rec.events[0]
        if changed is not None:
            assert (len(removed), len(added)) == changed

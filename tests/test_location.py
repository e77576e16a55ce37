import gc
import os
import weakref

import pytest
from hypothesis import given, strategies as st

from basekit.destroyable import CDestroyable
from basekit.location import CLocalFileLocation, CRemoteLocation, LocationForUrl
from basekit.timeout import NoArgCallback


class TestLocalFileLocation:
    def test_same_place_is_the_same_object(self, tmp_path):
        path = str(tmp_path / "mod.py")
        a = CLocalFileLocation(path)
        assert CLocalFileLocation(path) is a
        assert CLocalFileLocation(str(tmp_path / "sub" / ".." / "mod.py")) is a
        assert CLocalFileLocation(tmp_path / "mod.py") is a  # os.PathLike
        assert CLocalFileLocation(os.fsencode(path)) is a   # bytes
        assert CLocalFileLocation(str(tmp_path / "other.py")) is not a

    def test_relative_path_is_made_absolute(self, tmp_path, monkeypatch):
        monkeypatch.chdir(tmp_path)
        loc = CLocalFileLocation("rel.py")
        assert loc.fPath == str(tmp_path / "rel.py")
        assert loc is CLocalFileLocation(str(tmp_path / "rel.py"))

    def test_url_form(self, tmp_path):
        loc = CLocalFileLocation("/srv/a b/c#d%e?f/é€.py")
        assert loc.fUrl == "file:///srv/a%20b/c%23d%25e%3Ff/%C3%A9%E2%82%AC.py"
        assert loc.fPath == "/srv/a b/c#d%e?f/é€.py"
        assert CLocalFileLocation("/a-b_c.d~e").fUrl == "file:///a-b_c.d~e"

    def test_undecodable_file_name_keeps_its_bytes(self):
        loc = CLocalFileLocation(b"/tmp/\xff.py")
        assert loc.fUrl == "file:///tmp/%FF.py"
        assert os.fsencode(loc.fPath) == b"/tmp/\xff.py"
        assert LocationForUrl(loc.fUrl) is loc

    def test_registry_does_not_keep_locations_alive(self, tmp_path):
        path = str(tmp_path / "gone.py")
        ref = weakref.ref(CLocalFileLocation(path))
        gc.collect()
        assert ref() is None
        assert CLocalFileLocation(path).fPath == path  # made afresh

    @pytest.mark.parametrize("bad,error", [("", ValueError), ("a\0b", ValueError),
                                           (None, TypeError), (3, TypeError)])
    def test_bad_paths(self, bad, error):
        with pytest.raises(error):
            CLocalFileLocation(bad)

    @given(st.text(alphabet=st.characters(blacklist_characters="\0/",
                                          blacklist_categories=("Cs",)),
                   min_size=1, max_size=12).filter(lambda s: s not in (".", "..")))
    def test_url_round_trip(self, name):
        loc = CLocalFileLocation("/tmp/" + name)
        url = loc.fUrl
        assert url.isascii() and " " not in url and "#" not in url[7:] and "?" not in url
        assert LocationForUrl(url) is loc


class TestLocationForUrl:
    def test_file_urls_and_paths(self, tmp_path):
        loc = CLocalFileLocation(str(tmp_path / "m.py"))
        assert LocationForUrl(loc.fUrl) is loc
        assert LocationForUrl(str(tmp_path / "m.py")) is loc
        assert LocationForUrl("file://localhost" + loc.fUrl[7:]) is loc
        assert LocationForUrl("FILE://" + loc.fUrl[7:]) is loc
        assert LocationForUrl(tmp_path / "m.py") is loc

    def test_other_schemes_are_remote(self):
        remote = LocationForUrl("untitled:Untitled-1")
        assert isinstance(remote, CRemoteLocation)
        assert remote is CRemoteLocation("untitled:Untitled-1")
        assert isinstance(LocationForUrl("file://otherhost/x.py"), CRemoteLocation)

    def test_drive_letter_is_not_a_scheme(self):
        assert isinstance(LocationForUrl("C:x.py"), CLocalFileLocation)

    def test_bad_escapes_are_kept(self):
        loc = LocationForUrl("file:///tmp/100%zz%4")
        assert loc.fPath == "/tmp/100%zz%4"


class TestRemoteLocation:
    def test_interned_by_url(self):
        a = CRemoteLocation("mem://a")
        assert CRemoteLocation("mem://a") is a
        assert CRemoteLocation("mem://b") is not a
        assert isinstance(a, CDestroyable)
        assert a.fUrl == "mem://a"

    def test_content_arrives_later(self):
        loc = CRemoteLocation("mem://later")
        seen = []
        loc.connect("content-changed", lambda l: seen.append((l, l.fContent)))
        assert loc.fContent is None and loc.GetContent() is None and loc.fModTime is None
        loc.SetContent("x = 1\n")
        assert seen == [(loc, "x = 1\n")]
        loc.SetContent(b"y = 2\n", 17)
        assert loc.fContent == b"y = 2\n" and loc.fModTime == 17.0
        assert len(seen) == 2

    def test_same_content_again_keeps_the_time_but_still_signals(self):
        loc = CRemoteLocation("mem://same")
        seen = []
        loc.connect("content-changed", NoArgCallback(lambda: seen.append(1)))
        loc.SetContent("a", 5.0)
        loc.SetContent("a")
        assert loc.fModTime == 5.0 and seen == [1, 1]
        loc.SetContent("b")
        assert loc.fModTime != 5.0

    def test_bad_content_and_url(self):
        loc = CRemoteLocation("mem://bad")
        with pytest.raises(TypeError):
            loc.SetContent(None)
        with pytest.raises(TypeError):
            loc.SetContent(["x"])
        assert loc.fContent is None
        with pytest.raises(TypeError):
            CRemoteLocation(b"mem://x")
        with pytest.raises(ValueError):
            CRemoteLocation("")

    def test_destroyed_location_is_no_longer_the_live_one(self):
        loc = CRemoteLocation("mem://destroyed")
        loc.destroy()
        fresh = CRemoteLocation("mem://destroyed")
        assert fresh is not loc and not fresh.fDestroyed


class TestNoArgCallback:
    def test_drops_arguments(self):
        calls = []
        cb = NoArgCallback(lambda: calls.append("called") or 42)
        assert cb(1, "two", three=3) == 42
        assert cb() == 42
        assert calls == ["called", "called"]

    def test_errors(self):
        with pytest.raises(TypeError):
            NoArgCallback(5)

        def boom():
            raise KeyError("x")
        with pytest.raises(KeyError):
            NoArgCallback(boom)("ignored")

    def test_cycle_through_the_callable_is_collected(self):
        class Owner:
            def on(self):
                pass

        owner = Owner()
        owner.cb = NoArgCallback(owner.on)
        ref = weakref.ref(owner)
        del owner
        gc.collect()
        assert ref() is None

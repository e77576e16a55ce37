"""An analysis manager with editor buffers, installed for one test."""

import contextlib
import itertools

import pytest

from basekit.location import CLocalFileLocation, CRemoteLocation
from pysource import manager
from pysource.locationcache import CLocationCache

_gRemoteCounter = itertools.count()


def fresh_remote(prefix="glue"):
    """A remote location nobody else uses."""
    return CRemoteLocation(f"mem://{prefix}/{next(_gRemoteCounter)}.py")


@contextlib.contextmanager
def installed_manager(python_major_version=3, editor=True, db_path=None):
    """Installs a manager (with a cache manager of open buffers when `editor`,
    its records in the database `db_path` when given) for the block, then puts
    the previous one back and destroys this one."""
    cache_mgr = manager.CCacheMgr() if editor else None
    mgr = manager.CAnalysisMgr(db_path=db_path, loc_cache=CLocationCache(python_major_version),
                               cache_mgr=cache_mgr)
    previous = manager.SetAnalysisMgr(mgr)
    try:
        yield mgr
    finally:
        manager.SetAnalysisMgr(previous)
        mgr.destroy()


@pytest.fixture
def mgr():
    """The installed manager of an editor process."""
    with installed_manager() as mgr:
        yield mgr


@pytest.fixture
def scan_mgr():
    """The installed manager of a scanning process: no editor buffers."""
    with installed_manager(editor=False) as mgr:
        yield mgr


@pytest.fixture
def loc(tmp_path):
    """A local file location that no file stands at yet."""
    return CLocalFileLocation(str(tmp_path / "mod.py"))

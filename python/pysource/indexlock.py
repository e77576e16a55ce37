"""One writer per index: `pysource index` holds an advisory lock on the
database file for the whole run, so that a second run waits for the first
instead of failing file by file on SQLite's short write lock.

The lock is `flock` on the database file itself (no extra file to make or to
leave behind, and it works on a file we may only read).  Readers never take
it: the database's WAL mode lets them read while a writer works.
"""

import os

try:
    import fcntl
except ImportError:     # no advisory locks: writers rely on SQLite's own lock
    fcntl = None


class CIndexWriterLock:
    """The writer lock of the index at `db_path`, made (as an empty file, which
    the database takes for a new index) if missing.  `Acquire(on_wait)` calls
    `on_wait()` once when another writer holds the lock, then waits for it."""

    def __init__(self, db_path):
        self.fPath = db_path
        self._fFd = None

    def Acquire(self, on_wait=None):
        if fcntl is None:
            return
        fd = os.open(self.fPath, os.O_RDONLY | os.O_CREAT, 0o644)
        try:
            try:
                fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                if on_wait is not None:
                    on_wait()
                fcntl.flock(fd, fcntl.LOCK_EX)
        except BaseException:
            os.close(fd)
            raise
        self._fFd = fd

    def Release(self):
        if self._fFd is not None:
            fd, self._fFd = self._fFd, None
            os.close(fd)    # closing the descriptor drops the lock

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.Release()

"""Primary scans in worker processes, with one writer.

The primary scan of a file depends on that file alone.  A worker process
scans files into an info cache of its own, in memory, and hands back what
the scan told that cache (its records as bytes, the checksum, the scans-done
mark, the names of the file's scopes).  The writer — the process that owns
the database — tells its own cache the same, in the same order, through
`CReplayScanner`, a scanner that the coordinator drives like any other: the
coordinator keeps its order, counts, retries and clean-up, and the database
gets the same rows as when the writer scans the files itself.  The records
reach the writer's cache as the blobs they came in (`AddScopeInfoBlobs`):
for a file the index doesn't hold yet the cache binds their parts as rows
without making the records, so the writer's share of the work stays small.

Workers are forked before the writer opens its database (no connection
crosses a fork), and results are asked for a bounded number of files ahead,
so the writer's memory doesn't grow with the project.
"""

import collections
import math
import multiprocessing
import multiprocessing.connection
import signal

from basekit import location
from basekit.destroyable import CDestroyable
from pysource import manager, scopeinfo, scopescanner, symbolinfo

kStateChangedSignal = "scan-state-changed"
kFilesAheadPerWorker = 8
# Files a worker holds at a time: the one it scans and the next, so that it
# never waits for the writer between two files, and a long file holds up
# only the one behind it.
kAskedPerWorker = 2
kWorkerEndSeconds = 0.5


# The worker's side.

class _CRecordingInfoCache(scopeinfo.CInfoCache):
    """An info cache that keeps, in order, what a scan tells it."""

    def __init__(self, *args):
        super().__init__(*args)
        self.fCalls = []

    def AddScopeInfo(self, info, can_write=False):
        self.fCalls.append(("AddScopeInfo", info, can_write))
        return super().AddScopeInfo(info, can_write)

    def SetEOLBlindChecksum(self, loc, checksum, mtime):
        self.fCalls.append(("SetEOLBlindChecksum", loc.fUrl, checksum, mtime))
        return super().SetEOLBlindChecksum(loc, checksum, mtime)

    def ChangeScansDone(self, loc, scan_name, done, disk_mtime):
        self.fCalls.append(("ChangeScansDone", loc.fUrl, scan_name, done, disk_mtime))
        return super().ChangeScansDone(loc, scan_name, done, disk_mtime)


# The workers' manager, made in the writer before the fork (no database), so
# that the workers inherit it ready instead of each making its own.
_gWorkerMgr = None


def _WorkerMain(conn, inherited, scan_name):
    """A worker: scans the files whose paths come through `conn` and sends
    each one's result back, until the writer closes its end."""
    # Ctrl-C is the writer's to handle: it ends the workers.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    for other in inherited:
        other.close()    # so that a worker sees the writer go
    manager.SetAnalysisMgr(_gWorkerMgr)
    try:
        while True:
            path = conn.recv()
            conn.send(_ScanInWorker(path, scan_name))
    except (EOFError, OSError):
        pass


def _ScanInWorker(path, scan_name):
    """Scans the file at `path` to its end; gives (whether the scan finished,
    the calls made on the cache with records as bytes, the file's scope names,
    error text)."""
    info_cache = _gWorkerMgr.fInfoCache
    loc = location.CLocalFileLocation(path)
    scanner = scopescanner.CWholeFilePrimaryScanner(loc, scan_name)
    error = names = None
    try:
        finished = scanner.Scan(math.inf) is scopescanner.kFinishedScanning
        names = getattr(scanner, "_fAllScopeNames", None)
        names = sorted(names) if names is not None else None
    except Exception as err:   # noqa: BLE001 - reported to the writer, which fails the file
        finished, error = False, f"{type(err).__name__}: {err}"
    finally:
        if scanner.fScanState is not scopescanner.kFinishedScanning and \
                scanner.fScanState is not scopescanner.kScanAbandoned:
            scanner.AbandonScan()
        scanner.destroy()
    serializer = scopeinfo.CScopeInfoSerializer()
    calls = [("AddScopeInfo", serializer.Dumps(call[1]), call[2])
             if call[0] == "AddScopeInfo" else call for call in info_cache.fCalls]
    info_cache.fCalls = []
    info_cache.ForgetLocation(loc)
    return finished, calls, names, error


# The writer's side.

class _CWorker:
    """One worker process and the files asked of it, oldest first."""

    def __init__(self, process, conn):
        self.fProcess = process
        self.fConn = conn
        self.fAsked = collections.deque()
        self.fAlive = True


class CParallelPrimaryScans:
    """A pool of `jobs` worker processes that scans files ahead of the
    coordinator; `ScannerClass` gives the coordinator's scanner class.  Make
    it before the database is opened; `close` ends the workers.

    Each worker has a pipe of its own, and answers in the order it was
    asked; while the writer waits for the file it needs, it reads whatever
    answers have come from any worker, so it runs no threads of its own."""

    def __init__(self, jobs, scan_name):
        global _gWorkerMgr
        self.fScanName = scan_name
        _gWorkerMgr = manager.CAnalysisMgr(info_cache_class=_CRecordingInfoCache)
        context = multiprocessing.get_context("fork")
        self._fWorkers = []
        for _ in range(jobs):
            ours, theirs = context.Pipe()
            inherited = [worker.fConn for worker in self._fWorkers] + [ours]
            process = context.Process(target=_WorkerMain, args=(theirs, inherited, scan_name),
                                      daemon=True)
            process.start()
            theirs.close()
            self._fWorkers.append(_CWorker(process, ours))
        self._fAhead = max(1, jobs * kFilesAheadPerWorker)
        self._fAskedOf = {}      # loc -> the worker asked for it
        self._fResults = {}      # loc -> result read before its turn
        self._fUnwanted = set()  # locs asked for whose answers are dropped
        self._fQueue = []        # locs to scan, in the coordinator's order
        self._fNext = 0

    def Expect(self, locs):
        """The files the coordinator will scan, in its order.  Given again,
        the new order replaces the old one: the workers can start on a
        likely order while the writer gets ready, and a file asked for that
        the new order leaves out is dropped, its answer too when it comes."""
        self._fQueue = list(locs)
        self._fNext = 0
        wanted = set(self._fQueue)
        for loc in [loc for loc in self._fResults if loc not in wanted]:
            del self._fResults[loc]
        self._fUnwanted = {loc for loc in self._fAskedOf if loc not in wanted}
        self._Submit()

    def _Submit(self):
        while len(self._fAskedOf) + len(self._fResults) < self._fAhead and \
                self._fNext < len(self._fQueue):
            alive = [worker for worker in self._fWorkers if worker.fAlive]
            if alive and all(len(worker.fAsked) >= kAskedPerWorker for worker in alive):
                break
            loc = self._fQueue[self._fNext]
            self._fNext += 1
            if loc not in self._fAskedOf and loc not in self._fResults:
                self._Ask(loc)

    def _Ask(self, loc):
        alive = [worker for worker in self._fWorkers if worker.fAlive]
        if not alive:
            self._fResults[loc] = (False, [], None, "the worker processes have ended")
            return
        worker = min(alive, key=lambda w: len(w.fAsked))
        try:
            worker.fConn.send(loc.fPath)
        except OSError:
            self._Lost(worker)
            self._Ask(loc)
            return
        worker.fAsked.append(loc)
        self._fAskedOf[loc] = worker

    def _ReadAnswer(self, worker):
        """Reads `worker`'s answer for the oldest file asked of it; False
        when the worker has ended."""
        try:
            result = worker.fConn.recv()
        except (EOFError, OSError):
            return False
        loc = worker.fAsked.popleft()
        del self._fAskedOf[loc]
        if loc in self._fUnwanted:
            self._fUnwanted.discard(loc)
        else:
            self._fResults[loc] = result
        return True

    def _Lost(self, worker):
        """A worker that ended: the answers it sent before still count, the
        file it was scanning fails, the others it had go to the workers
        left."""
        worker.fAlive = False
        while worker.fAsked and worker.fConn.poll() and self._ReadAnswer(worker):
            pass
        worker.fProcess.join()
        asked = list(worker.fAsked)
        worker.fAsked.clear()
        wanted = [loc for loc in asked if loc not in self._fUnwanted]
        for loc in asked:
            del self._fAskedOf[loc]
            self._fUnwanted.discard(loc)
        if wanted and wanted[0] is asked[0]:
            code = worker.fProcess.exitcode
            self._fResults[wanted.pop(0)] = (False, [], None,
                                             f"the worker process ended (exit code {code})")
        for loc in wanted:
            self._Ask(loc)

    def Take(self, loc):
        """The worker's result for `loc` (scanned now when it wasn't asked
        for ahead, as for a retry)."""
        self._fUnwanted.discard(loc)   # wanted after all
        if loc not in self._fResults and loc not in self._fAskedOf:
            self._Ask(loc)
        while loc not in self._fResults:
            self._ReadAnswers()
        result = self._fResults.pop(loc)
        self._Submit()
        return result

    def _ReadAnswers(self):
        """Waits for answers, reads those there are from any worker and asks
        for more files: a worker gets its next file as soon as it is done
        with one, whichever file the coordinator waits for."""
        busy = {worker.fConn: worker for worker in self._fWorkers
                if worker.fAlive and worker.fAsked}
        for conn in multiprocessing.connection.wait(list(busy)):
            if not self._ReadAnswer(busy[conn]):
                self._Lost(busy[conn])
        self._Submit()

    def ScannerClass(self):
        return lambda loc, scan_name: CReplayScanner(self, loc, scan_name)

    def close(self):
        global _gWorkerMgr
        # A worker waiting for work ends when its pipe closes; one in the
        # middle of a file is stopped.
        for worker in self._fWorkers:
            worker.fConn.close()
        for worker in self._fWorkers:
            worker.fProcess.join(kWorkerEndSeconds)
            if worker.fProcess.is_alive():
                worker.fProcess.terminate()
                worker.fProcess.join()
        self._fWorkers = []
        if _gWorkerMgr is not None:
            _gWorkerMgr.destroy()
            _gWorkerMgr = None


class CReplayScanner(CDestroyable):
    """Tells the writer's info cache what a worker's scan of one file told
    its own, as the scan itself would have, and ends in the worker's state."""

    def __init__(self, scans, loc, scan_name):
        super().__init__([kStateChangedSignal])
        self.fScope = symbolinfo.Scope(loc, "")
        self.fScanName = scan_name
        self.fScanState = scopescanner.kReadyToScan
        self.fIncompleteScopes = None   # counted here when the records came as blobs
        self._fScans = scans

    def Scan(self, end_time):
        finished, calls, names, error = self._fScans.Take(self.fScope.loc)
        if error is not None:
            raise RuntimeError(error)
        info_cache = manager.GetAnalysisMgr().fInfoCache
        loc = self.fScope.loc
        records = [call for call in calls if call[0] == "AddScopeInfo"]
        kept_as_blobs = False
        if all(call[2] for call in records):
            # Records to be written, as the blobs they came in: the cache
            # writes them as they are when it holds nothing else of the file.
            kept_as_blobs = info_cache.AddScopeInfoBlobs(loc, [call[1] for call in records])
            calls = [call for call in calls if call[0] != "AddScopeInfo"]
        serializer = scopeinfo.CScopeInfoSerializer()
        for call in calls:
            if call[0] == "AddScopeInfo":
                info_cache.AddScopeInfo(serializer.Loads(call[1]), call[2])
            else:
                getattr(info_cache, call[0])(location.LocationForUrl(call[1]), *call[2:])
        if kept_as_blobs:
            self.fIncompleteScopes = info_cache.CountIncompleteScopes(loc)
        if finished:
            info_cache.WriteToDatabase([self.fScope.loc])
            self._fAllScopeNames = set(names) if names is not None else None
            self.fScanState = scopescanner.kFinishedScanning
        else:
            self.fScanState = scopescanner.kScanAbandoned
        return self.fScanState

    def AbandonScan(self):
        self.fScanState = scopescanner.kScanAbandoned


"""The scan coordinator: drives whole-file primary scans in time slices, and
after them the derived (secondary) scans of the files that want derived info.

`CScanCoordinator` owns the order of work.  It keeps a queue of files, makes a
whole-file primary scanner for the file at the head and calls its
`Scan(end_time)` with the end of the current slice.  A scanner that times out
is called again in the next slice; one that waits for remote content is parked
and costs nothing until its "scan-state-changed" signal says it can go on; a
finished or abandoned one is final.  Files whose primary scan is already done
for their current disk time and content are skipped; an abandoned scan is
tried again a bounded number of times.

Derived scans run one whole-file secondary scanner per file, after the
primary queue is empty.  A derived scanner that needs primary scans of other
files (any file, standard library stubs too) waits: those files go to the
primary queue, which runs first, and the derived scan then resumes.  When
files change, only the derived scans whose inputs changed run again: those of
the changed files, and those whose saved derived records, or whose running
scan, read from a changed file.

All the scanning work is in the scanners (C++); this module only decides what
runs next and keeps the counts.
"""

import collections
import dataclasses
import os
import stat

from basekit import location
from pysource import _fastaccess, filellinecache, manager, scopeinfo, scopescanner, symbolinfo

kDefaultSliceSeconds = 0.020
kDefaultMaxAttempts = 3
# Opaque to the coordinator: handed by the scanners to the logical caches they
# make, which pass it on when they ask for a remote file's content.
kIdlePriority = "idle"

kStateChangedSignal = "scan-state-changed"


@dataclasses.dataclass
class CScanCounts:
    """What one coordinator has done so far."""

    files: int = 0          # files whose scan finished
    scopes: int = 0         # scopes recorded by those scans
    parse_errors: int = 0   # logicals that couldn't be parsed, or incomplete scopes
    skipped: int = 0        # files already scanned for their disk time and content
    abandoned: int = 0      # files given up after the last attempt
    seconds: float = 0.0    # time spent inside slices
    derived_files: int = 0  # files whose derived scan finished
    needed_files: int = 0   # files scanned because a derived scan needed them (stubs, libraries)


class _CFileJob:
    """One file in the coordinator's hands."""

    __slots__ = ("loc", "scanner", "connection", "attempts")

    def __init__(self, loc):
        self.loc = loc
        self.scanner = None
        self.connection = None
        self.attempts = 0


def _DiskMTime(path):
    """The modification time of `path` computed as the logical line caches
    compute it (whole seconds plus nanoseconds / 1e9), or None."""
    try:
        ns = os.stat(path).st_mtime_ns
    except OSError:
        return None
    return (ns // 1_000_000_000) + (ns % 1_000_000_000) / 1e9


def _ContentChecksum(path):
    """The line-end blind checksum of the regular file at `path`, or None.
    The file is opened without blocking and checked before it is read: a FIFO
    or a device at a source path must not stop the whole run."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    except OSError:
        return None
    try:
        with os.fdopen(fd, "rb") as f:
            if not stat.S_ISREG(os.fstat(f.fileno()).st_mode):
                return None
            return filellinecache.EOLBlindChecksum(f.read())
    except OSError:
        return None


class CScanCoordinator:
    """Runs the primary scans of a set of files, one time slice at a time.

    `analysis_mgr`: the manager whose info cache receives the records (the
    process's manager when None); the coordinator registers itself there as
    `fScanCoordinator` until `destroy`.
    `scanner_class`: called as `scanner_class(loc, scan_name)`; the whole-file
    primary scanner by default.
    `progress`: called as `progress(done, total, loc)` when a file starts
    (`loc` is that file) and when the last file is through (`loc` None).
    `derived_progress`: the same for the derived scans.
    `derived_scanner_class`: called as `derived_scanner_class(loc, scan_name,
    None)`; the whole-file secondary scanner by default.
    """

    def __init__(self, analysis_mgr=None, scanner_class=None,
                 slice_seconds=kDefaultSliceSeconds, max_attempts=kDefaultMaxAttempts,
                 progress=None, derived_progress=None, derived_scanner_class=None):
        if slice_seconds <= 0:
            raise ValueError("slice_seconds must be positive")
        if max_attempts < 1:
            raise ValueError("max_attempts must be at least 1")
        self.fAnalysisMgr = analysis_mgr if analysis_mgr is not None else manager.GetAnalysisMgr()
        self.fScannerClass = scanner_class
        self.fScanName = self.fAnalysisMgr.fPrimaryScanName
        self.fSliceSeconds = slice_seconds
        self.fMaxAttempts = max_attempts
        self.fIdlePriority = kIdlePriority
        self.fProgress = progress
        self.fCounts = CScanCounts()
        self.fAbandonedLocs = []
        self.fErrors = []                     # (loc, error text) of scanners that raised
        self.fScannedLocs = []                # files whose primary scan finished, in order
        self.fParseErrorLocs = []             # finished files with parse errors
        self._fReady = collections.deque()   # jobs that can run, head first
        self._fParked = {}                    # loc -> job waiting for its data
        self._fJobs = {}                      # loc -> job, ready or parked
        self._fNeededLocs = set()             # files queued for a derived scan's wait
        self._fTotal = 0
        self._fDone = 0
        self._fPreviousCoordinator = self.fAnalysisMgr.SetScanCoordinator(self)
        self.fDerivedScanName = self.fAnalysisMgr.fDerivedScanName
        self.fDerivedProgress = derived_progress
        self.fDerivedScannerClass = derived_scanner_class
        self._fDerived = collections.OrderedDict()   # loc -> derived job, head first
        self._fDerivedTotal = 0
        self._fDerivedDone = 0

    # Adding work.

    def AddLocations(self, locs):
        """Queues the files of `locs` that need a primary scan and counts the
        others as skipped.  A file already in hand is left where it is."""
        for loc in locs:
            if loc in self._fJobs:
                continue
            if self.IsUpToDate(loc):
                self.fCounts.skipped += 1
                continue
            self._NoteFileToFinder(loc)
            self._Enqueue(_CFileJob(loc))

    def FileChanged(self, loc):
        """The content of `loc` changed: a scan of it in progress is abandoned
        and the file goes to the back of the queue with its attempts reset."""
        job = self._fJobs.get(loc)
        if job is None:
            self.AddLocations([loc])
            return
        self._DropScanner(job)
        job.attempts = 0
        if self._fParked.pop(loc, None) is None:
            self._fReady.remove(job)
        self._fReady.append(job)

    def IsUpToDate(self, loc):
        """True when the info cache holds a finished primary scan of `loc` for
        its current disk time and line-end blind checksum.  Only local files
        can be told without reading through a scanner.

        A file with a scope that couldn't be parsed is never marked done, yet
        scanning the same text again gives the same records: the disk time of
        its last finished scan stands in for the mark."""
        if not isinstance(loc, location.CLocalFileLocation):
            return False
        info_cache = self.fAnalysisMgr.fInfoCache
        mtime = _DiskMTime(loc.fPath)
        if mtime is None:
            return False
        if not info_cache.IsScanDone(loc, self.fScanName, mtime) and \
                float(info_cache.GetLocDiskMTime(loc)) != mtime:
            return False
        stored = info_cache.GetEOLBlindChecksum(loc)
        return stored is not None and stored == _ContentChecksum(loc.fPath)

    # Running.

    def HasWork(self):
        """True while any file is queued or parked."""
        return bool(self._fJobs)

    def QueuedLocations(self):
        """The files that wait for their primary scan, head first."""
        return [job.loc for job in self._fReady]

    def HasReadyWork(self):
        return bool(self._fReady)

    def WaitingLocations(self):
        """The files parked until their content arrives."""
        return list(self._fParked)

    def RunSlice(self):
        """Runs one time slice: scans from the head of the queue until the
        slice is over or nothing can run.  True while work remains."""
        start = _fastaccess.GetNowTime()
        end_time = start + self.fSliceSeconds
        try:
            while self._fReady and not _fastaccess.OutOfTime(end_time):
                job = self._fReady[0]
                try:
                    if job.scanner is None:
                        self._StartScanner(job)
                    state = job.scanner.Scan(end_time)
                except scopeinfo.CInfoDatabaseError:
                    raise      # the index can't be used: no other file can be saved either
                except Exception as err:   # noqa: BLE001 - one file's fault stops only that file
                    self._Failed(job, err)
                    continue
                if state is scopescanner.kTimedOut:
                    break
                self._AfterScan(job, state)
        finally:
            self.fCounts.seconds += max(0.0, _fastaccess.GetNowTime() - start)
        return self.HasWork()

    def RunUntilIdle(self):
        """Runs slices until no file can run: all done, or only parked files
        left (their content arrives through the embedder's event loop).  True
        when files are still parked."""
        while self._fReady:
            self.RunSlice()
        return self.HasWork()

    # The states.

    def _AfterScan(self, job, state):
        if state is scopescanner.kFinishedScanning:
            self._Finish(job)
        elif state is scopescanner.kScanAbandoned:
            self._Abandoned(job)
        elif state is scopescanner.kWaitingForData:
            self._Park(job)
        elif state is scopescanner.kWaitingForScans:
            self._RunNeededScansFirst(job)
        elif state is not scopescanner.kReadyToScan:
            raise TypeError(f"scanner of {job.loc!r} returned {state!r}, not a scan state")

    def _Park(self, job):
        # The signal handler may already have moved the job back.
        if self._fReady and self._fReady[0] is job and \
                job.scanner.fScanState is scopescanner.kWaitingForData:
            self._fReady.popleft()
            self._fParked[job.loc] = job

    def _CB_ScanStateChanged(self, scanner):
        loc = scanner.fScope.loc
        job = self._fParked.get(loc)
        if job is None or job.scanner is not scanner:
            return
        if scanner.fScanState is not scopescanner.kWaitingForData:
            del self._fParked[loc]
            self._fReady.append(job)

    def _RunNeededScansFirst(self, job):
        """A scanner that needs other files' primary scans waits behind them:
        new files and queued ones move to the head of the queue.  When none of
        them can run now (all parked), the scan is abandoned, which gives it
        the bounded retries of any abandoned scan instead of a busy loop."""
        self._fReady.popleft()
        ahead = []
        for loc in job.scanner.GetNeedsScanLocs():
            if loc == job.loc or loc in self._fParked:
                continue
            needed = self._fJobs.get(loc)
            if needed is None:
                needed = _CFileJob(loc)
                self._Enqueue(needed)
            if needed not in ahead:
                ahead.append(needed)
        if not ahead:
            self._fReady.appendleft(job)
            job.scanner.AbandonScan()
            self._Abandoned(job)
            return
        for needed in ahead:
            self._fReady.remove(needed)
        self._fReady.extendleft(reversed(ahead + [job]))

    def _Finish(self, job):
        self._fReady.popleft()
        self._ForgetRemovedScopes(job)
        self.fScannedLocs.append(job.loc)
        if job.loc in self._fNeededLocs:
            self.fCounts.needed_files += 1
            self._Done(job)
            return
        self.fCounts.files += 1
        self.fCounts.scopes += self._CountScopes(job)
        parse_errors = self._CountParseErrors(job)
        self.fCounts.parse_errors += parse_errors
        if parse_errors:
            self.fParseErrorLocs.append(job.loc)
        self._Done(job)

    def _ForgetRemovedScopes(self, job):
        """Drops the records of scopes that an earlier scan of the file found
        and this one didn't: the file no longer has them."""
        names = getattr(job.scanner, "_fAllScopeNames", None)
        if names is None:
            return
        info_cache = self.fAnalysisMgr.fInfoCache
        keep = {symbolinfo.NormalizeScopeName(name) for name in names}
        if info_cache.ForgetScopesOfLoc(job.loc, self.fScanName, keep):
            info_cache.WriteToDatabase([job.loc])

    def _Abandoned(self, job):
        self._fReady.popleft()
        job.attempts += 1
        self._DropScanner(job)
        if job.attempts < self.fMaxAttempts:
            self._fReady.append(job)
            return
        self.fCounts.abandoned += 1
        self.fAbandonedLocs.append(job.loc)
        self._Done(job)

    def _Failed(self, job, err):
        """A scanner raised: the file is given up at once (the same text would
        fail the same way) and the error kept for the embedder to show."""
        self._fReady.popleft()
        self.fCounts.abandoned += 1
        self.fAbandonedLocs.append(job.loc)
        self.fErrors.append((job.loc, f"{type(err).__name__}: {err}"))
        self._Done(job)

    def _Done(self, job):
        self._DropScanner(job)
        del self._fJobs[job.loc]
        self._fDone += 1
        if not self._fJobs:
            self._ReportProgress(None)

    # Scanners.

    def _StartScanner(self, job):
        scanner_class = self.fScannerClass
        if scanner_class is None:
            scanner_class = scopescanner.CWholeFilePrimaryScanner
        job.scanner = scanner_class(job.loc, self.fScanName)
        job.connection = job.scanner.connect(kStateChangedSignal, self._CB_ScanStateChanged)
        self._ReportProgress(job.loc)

    def _DropScanner(self, job):
        scanner = job.scanner
        if scanner is None:
            return
        job.scanner = None
        scanner.disconnect(job.connection)
        job.connection = None
        if scanner.fScanState is not scopescanner.kFinishedScanning and \
                scanner.fScanState is not scopescanner.kScanAbandoned:
            scanner.AbandonScan()
        scanner.destroy()

    def _NoteFileToFinder(self, loc):
        """A file queued from outside may be new: imports that found nothing
        are looked up again."""
        finder = getattr(self._Engine(), "fModuleFinder", None)
        note = getattr(finder, "NoteFile", None)
        if note is not None:
            note(loc)

    def _Engine(self):
        return self.fAnalysisMgr.fInferenceEngine._fNativeEngine

    def _Enqueue(self, job):
        self._fJobs[job.loc] = job
        self._fTotal += 1
        self._fReady.append(job)

    # Counts.

    def _CountScopes(self, job):
        names = getattr(job.scanner, "_fAllScopeNames", None)
        if names is not None:
            return len(names)
        return len(self.fAnalysisMgr.fInfoCache.GetScopesForLoc(job.loc))

    def _CountParseErrors(self, job):
        """Parse errors of the file: those its open analysis collected, or,
        without one, the scopes whose records came out incomplete."""
        ana = self.fAnalysisMgr.GetAnalysis(job.loc, False)
        if ana is not None and hasattr(ana, "GetParseErrors"):
            return len(ana.GetParseErrors())
        counted = getattr(job.scanner, "fIncompleteScopes", None)
        if counted is not None:
            return counted
        return CountIncompleteScopes(self.fAnalysisMgr.fInfoCache, job.loc)

    def _ReportProgress(self, loc):
        if self.fProgress is not None:
            self.fProgress(self._fDone, self._fTotal, loc)

    # Clean-up.

    def destroy(self):
        """Abandons and destroys the scanners in hand and gives the manager
        back the coordinator it had before."""
        for job in list(self._fJobs.values()):
            self._DropScanner(job)
        for job in list(self._fDerived.values()):
            self._DropDerivedScanner(job)
        self._fDerived.clear()
        self._fJobs.clear()
        self._fReady.clear()
        self._fParked.clear()
        if self.fAnalysisMgr.fScanCoordinator is self:
            self.fAnalysisMgr.SetScanCoordinator(self._fPreviousCoordinator)
        self._fPreviousCoordinator = None

    # Derived scans.

    def WantsDerivedScan(self, loc):
        """True when `loc` wants derived info and its derived scan isn't done
        for its current disk time."""
        info_cache = self.fAnalysisMgr.fInfoCache
        if not info_cache.fLocCache.WantDerivedInfo(loc):
            return False
        mtime = _DiskMTime(loc.fPath) if isinstance(loc, location.CLocalFileLocation) else None
        return mtime is None or not info_cache.IsScanDone(loc, self.fDerivedScanName, mtime)

    def AddDerivedLocations(self, locs, force=False):
        """Queues derived scans of the files of `locs` that want derived info
        and (unless `force`) whose derived scan isn't done already.  A file
        already queued stays where it is."""
        for loc in locs:
            if loc in self._fDerived:
                continue
            if force:
                if not self.fAnalysisMgr.fInfoCache.fLocCache.WantDerivedInfo(loc):
                    continue
            elif not self.WantsDerivedScan(loc):
                continue
            self._fDerived[loc] = _CFileJob(loc)
            self._fDerivedTotal += 1

    def AddNeedsScan(self, needs_scan):
        """Scopes that need scanning, as (scope, scan name) pairs: derived
        pairs of a file whose derived scan is running are handed to that
        scanner; other derived pairs queue their file's derived scan, and
        primary pairs their file's primary scan.  Returns nothing."""
        rest = set(needs_scan)
        for job in self._fDerived.values():
            if job.scanner is not None and rest:
                rest = job.scanner.FilterNeedsScan(rest)
        derived = [scope.loc for scope, name in rest if name == self.fDerivedScanName]
        self.AddDerivedLocations(derived, force=True)
        self.AddLocations([scope.loc for scope, name in rest if name != self.fDerivedScanName])

    def DerivedScansAffectedBy(self, changed_locs):
        """The files whose derived scans read from one of `changed_locs`:
        those whose saved derived records depend on them, and those whose
        running derived scan has read from them."""
        changed = set(changed_locs)
        info_cache = self.fAnalysisMgr.fInfoCache
        affected = set()
        locs = info_cache.GetLocations()
        # Records of derived scans not done (none yet, or a run stopped
        # midway) need no look: those scans run anyway.
        if not any(self.fDerivedScanName in info_cache.GetScansDone(loc) for loc in locs):
            locs = ()
        for loc in locs:
            for name in info_cache.GetScopesForLoc(loc):
                for record in info_cache.GetScopeInfoRecords(symbolinfo.Scope(loc, name)):
                    if record.key.scan_name != self.fDerivedScanName:
                        continue
                    seen = record.scopes_seen or ()
                    if any(scope.loc in changed for scope in seen):
                        affected.add(record.key.scanned_scope.loc)
            # The records read back go again: the walk reads the whole index.
            info_cache.Trim()
        for loc, job in self._fDerived.items():
            if job.scanner is not None and job.scanner.DependsOnLocs(changed, loc):
                affected.add(loc)
        return affected

    def DerivedFilesChanged(self, changed_locs):
        """Files changed: their derived scans and those that read from them
        run again; a running scan among them starts over."""
        affected = self.DerivedScansAffectedBy(changed_locs) | set(changed_locs)
        for loc in affected:
            job = self._fDerived.get(loc)
            if job is not None:
                self._DropDerivedScanner(job)
        self.AddDerivedLocations(affected, force=True)

    def HasDerivedWork(self):
        return bool(self._fDerived)

    def RunDerivedSlice(self):
        """Runs one time slice of derived scans.  Primary scans that a derived
        scan waits on run first.  True while derived work remains."""
        if self._fReady:
            self.RunSlice()
            return bool(self._fDerived)
        start = _fastaccess.GetNowTime()
        end_time = start + self.fSliceSeconds
        try:
            while self._fDerived and not self._fReady and not _fastaccess.OutOfTime(end_time):
                job = next(iter(self._fDerived.values()))
                try:
                    if job.scanner is None:
                        job.scanner = self._MakeDerivedScanner(job.loc)
                        self._ReportDerivedProgress(job.loc)
                    state = job.scanner.Scan(end_time)
                except Exception as err:   # noqa: BLE001 - one file's fault stops only that file
                    self.fErrors.append((job.loc, f"{type(err).__name__}: {err}"))
                    self._DerivedDone(job)
                    continue
                if state is scopescanner.kTimedOut:
                    break
                if state is scopescanner.kWaitingForScans:
                    self._RunPrimaryScansFor(job)
                elif state is scopescanner.kFinishedScanning or state is scopescanner.kScanAbandoned:
                    self.fCounts.derived_files += state is scopescanner.kFinishedScanning
                    self._DerivedDone(job)
                else:
                    raise TypeError(f"derived scanner of {job.loc!r} returned {state!r}")
        finally:
            self.fCounts.seconds += max(0.0, _fastaccess.GetNowTime() - start)
        return bool(self._fDerived)

    def RunDerivedUntilIdle(self):
        """Runs the primary queue, then derived slices until no derived scan
        is left.  True when primary files are still parked."""
        while self._fReady or self._fDerived:
            if self._fDerived:
                self.RunDerivedSlice()
            else:
                self.RunSlice()
        return self.HasWork()

    def _MakeDerivedScanner(self, loc):
        scanner_class = self.fDerivedScannerClass
        if scanner_class is None:
            scanner_class = scopescanner.CWholeFileSecondaryScanner
        return scanner_class(loc, self.fDerivedScanName, None)

    def _RunPrimaryScansFor(self, job):
        """A derived scan waits for primary scans: those files are queued (a
        file already scanned for its disk time is skipped) and the scan
        resumes once the primary queue is through.  A scanner waits at most
        once for a scope, so this can't go on for ever."""
        needed = [loc for loc in job.scanner.GetNeedsScanLocs() if loc != job.loc]
        self._fNeededLocs.update(needed)
        self.AddLocations(needed)

    def _DerivedDone(self, job):
        self._DropDerivedScanner(job)
        del self._fDerived[job.loc]
        self._fDerivedDone += 1
        self._ForgetKeptAnswers()
        if not self._fDerived:
            self._ReportDerivedProgress(None)

    def _ForgetKeptAnswers(self):
        """What the engine kept from the requests of a finished derived scan
        goes: the next file's requests read mostly other scopes, and kept
        answers held from file to file grow with the project up to the
        engine's bound on entries (tens of megabytes) before any goes."""
        forget = getattr(self._Engine(), "ForgetKeptAnswers", None)
        if forget is not None:
            forget()

    def _DropDerivedScanner(self, job):
        if job.scanner is not None:
            scanner, job.scanner = job.scanner, None
            scanner.destroy()

    def _ReportDerivedProgress(self, loc):
        if self.fDerivedProgress is not None:
            self.fDerivedProgress(self._fDerivedDone, self._fDerivedTotal, loc)


def CountIncompleteScopes(info_cache, loc):
    """The scopes of `loc` whose merged record says the scan didn't reach a
    complete result (as when a logical of the scope couldn't be parsed)."""
    count = 0
    for name in info_cache.GetScopesForLoc(loc):
        info = info_cache.GetScopeInfo(symbolinfo.Scope(loc, name))
        if info is not None and info.incomplete:
            count += 1
    return count

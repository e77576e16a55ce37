"""The `pysource` command."""

import argparse
import contextlib
import ctypes
import gc
import json
import logging
import os
import shutil
import sys

kExitFailed = 1        # the run went on, but some files or records failed
kExitUsage = 2         # a path or target the command can't work with
kExitDatabase = 3      # the index database can't be opened or is damaged
kExitInterrupted = 130


def _readable_token(tok):
    return tok.replace("\\", "\\\\").replace("\r", "\\r").replace("\n", "\\n")


def _cmd_logicals(args):
    from pysource.filellinecache import CFileLogicalLineCache

    path = args.file
    if not os.path.isfile(path):
        print(f"pysource: no such file: {path}", file=sys.stderr)
        return 2
    cache = CFileLogicalLineCache(os.path.abspath(path))
    try:
        if not cache.Update():
            print(f"pysource: cannot read {path}", file=sys.stderr)
            return 2
        out = sys.stdout
        for i, logical in enumerate(cache._fLogicalList):
            lines = f"{logical.fFirstLine}+{logical.fLineCount - 1}"
            local = logical.fLocalScopeName if logical.fLocalScopeName is not None else "-"
            scope = logical.fScopeName or "<module>"
            flags = " incomplete" if logical.fIncomplete else ""
            toks = " ".join(_readable_token(t) for t in logical.fToks)
            out.write(f"{i:5} {logical.fType:<20} line {lines:<7} indent {logical.fIndentLevel:<3} "
                      f"scope {scope} local {local}{flags}: {toks}\n")
        for line, offset, message in cache.fDecodeErrors:
            print(f"pysource: {path}:{line}: decode error at byte {offset}: {message}",
                  file=sys.stderr)
    finally:
        cache.destroy()
    return 0


def _error(message):
    print(f"pysource: {message}", file=sys.stderr)


def _display_path(path):
    """`path` relative to the current directory when it lies below it, safe
    to print: control characters (terminal escapes among them) and bytes
    that aren't UTF-8 are written as escapes."""
    try:
        rel = os.path.relpath(path)
    except ValueError:
        rel = os.pardir
    return _printable(path if rel.startswith(os.pardir) else rel)


def _printable(text):
    raw = os.fsencode(text).decode("utf-8", "backslashreplace")
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode("ascii")
                   for c in raw)


def _version():
    from importlib import metadata
    try:
        return metadata.version("pysource")
    except metadata.PackageNotFoundError:
        return "unknown"


class _CVersionAction(argparse.Action):
    """`--version`, with the version looked up only when asked for: the
    package metadata costs every other command a good part of its start."""

    def __init__(self, option_strings, dest=argparse.SUPPRESS, default=argparse.SUPPRESS,
                 help="show the program's version number and exit"):
        super().__init__(option_strings, dest=dest, default=default, nargs=0, help=help)

    def __call__(self, parser, namespace, values, option_string=None):
        sys.stdout.write(f"pysource {_version()}\n")
        parser.exit()


class _CIndex:
    """The index database opened through an analysis manager installed as the
    process's manager for the duration of a command.  `read_only` for commands
    that only read: the file is then never made, changed or rebuilt."""

    def __init__(self, db_path, read_only=False):
        from pysource import manager, scopeinfo
        self.fPath = db_path
        try:
            if read_only:
                self.fMgr = manager.CAnalysisMgr()
                try:
                    self.fMgr.fInfoCache.OpenDatabase(db_path, read_only=True)
                    # What a query scans that the index lacks stays in memory.
                    self.fMgr.fInfoCache.fKeepWritesInMemory = True
                except BaseException:
                    self.fMgr.destroy()
                    raise
            else:
                self.fMgr = manager.CAnalysisMgr(db_path=db_path)
        except scopeinfo.CInfoDatabaseError as err:
            raise _CDatabaseProblem(_database_advice(str(err))) from None
        try:
            self.AddImportRoots(self._ProjectPaths())
        except BaseException:
            self.fMgr.destroy()
            raise
        self._fPrevious = manager.SetAnalysisMgr(self.fMgr)

    def _ProjectPaths(self):
        """The paths of the indexed files that are the project's own (not a
        library's or a stub folder's)."""
        loc_cache = self.fInfoCache.fLocCache
        return [loc.fPath for loc in self.Locations()
                if getattr(loc, "fPath", None) and loc_cache.WantDerivedInfo(loc)]

    def AddImportRoots(self, paths):
        """Has imports find the packages that hold the files at `paths`."""
        from pysource import projectfiles
        finder = self.fMgr.fInferenceEngine._fNativeEngine.fModuleFinder
        known = set(finder.fRoots)
        for root in projectfiles.ImportRoots(paths):
            if root not in known:
                finder.AddRoot(root)

    @property
    def fInfoCache(self):
        return self.fMgr.fInfoCache

    def close(self):
        from pysource import manager
        manager.SetAnalysisMgr(self._fPrevious)
        self.fMgr.destroy()

    def Locations(self):
        """Every file that the index has facts of, ordered by URL."""
        from pysource import scopeinfo
        try:
            return self.fInfoCache.GetLocations()
        except scopeinfo.CInfoDatabaseError as err:
            raise _CDatabaseProblem(_database_advice(str(err))) from None

    def SizeInBytes(self):
        return sum(os.path.getsize(self.fPath + suffix)
                   for suffix in ("", "-wal") if os.path.exists(self.fPath + suffix))


class _CDatabaseProblem(Exception):
    pass


def _database_advice(message):
    """A database error as the command reports it, with what to do."""
    if "database is locked" in message:
        return f"{message}; another program is writing the index, try again when it is done"
    if "readonly database" in message:
        return f"{message}; check the permissions of the file and its directory"
    if any(word in message for word in ("damaged", "malformed", "another program", "not a database")):
        if "left as it is" not in message:
            message += "; it was left as it is"
        return f"{message}: move it away or pass another --db to start a new index"
    return message


def _open_existing_index(db_arg, start):
    """The index named by --db, or the nearest one at or above `start`; a
    missing index is an error here (only `index` makes one)."""
    from pysource import projectfiles
    db_path = db_arg if db_arg is not None else projectfiles.FindIndexFor(start)
    if db_path is None:
        _error(f"no index found at or above {os.path.abspath(start)}; "
               "run 'pysource index' first or pass --db FILE")
        return None
    if not os.path.isfile(db_path):
        _error(f"no such index database: {db_path}")
        return None
    return _CIndex(db_path, read_only=True)


def _open_index_for_target(db_arg, target):
    """The index for a command on TARGET (FILE, FILE:SCOPE or a name): the
    nearest one at or above the file, else at or above the current directory."""
    start = target.rpartition(":")[0] if ":" in target else target
    return _open_existing_index(db_arg, start if os.path.exists(start) else os.curdir)


# index

class _CProgressLine:
    """One line on a terminal, rewritten as the files go by."""

    def __init__(self, stream, label=""):
        self.fStream = stream
        self.fLabel = label
        self.fShown = False

    def __call__(self, done, total, loc):
        if loc is None:
            return
        width = shutil.get_terminal_size((80, 24)).columns
        text = f"{self.fLabel}[{done}/{total}] {_display_path(loc.fPath)}"
        if len(text) >= width:
            text = text[:max(0, width - 4)] + "..."
        self.fStream.write("\r\x1b[K" + text)
        self.fStream.flush()
        self.fShown = True

    def Clear(self):
        if self.fShown:
            self.fStream.write("\r\x1b[K")
            self.fStream.flush()
            self.fShown = False


def _write_problem(db_path):
    """Why `index` can't write the database at `db_path`, or None."""
    directory = os.path.dirname(os.path.abspath(db_path))
    if os.path.exists(db_path) and not os.access(db_path, os.W_OK):
        return f"{_display_path(db_path)} is read-only"
    if not os.access(directory, os.W_OK):
        return f"the directory of {_display_path(db_path)} is read-only"
    return None


def _forget_gone_files(index, roots, walk):
    """Forgets the files of the index under `roots` that the walk didn't find
    and that no longer exist (files in a directory it couldn't read are
    kept); gives how many."""
    from pysource import projectfiles
    found = set(walk.fFiles)
    unread = [path for path, _ in walk.fSkipped]
    forgotten = 0
    for loc in index.Locations():
        path = getattr(loc, "fPath", None)
        if path is None or path in found or not projectfiles.IsUnder(path, roots) or \
                projectfiles.IsUnder(path, unread) or os.path.lexists(path):
            continue
        index.fInfoCache.ForgetLocation(loc)
        forgotten += 1
    return forgotten


def _report_index_run(counts, failed, errors, walk, forgotten, parse_error_locs, db_path):
    for loc in failed:
        path = _display_path(loc.fPath)
        if loc in errors:
            _error(f"{path}: the scan failed: {errors[loc]}")
        elif os.access(loc.fPath, os.R_OK) and os.path.isfile(loc.fPath):
            _error(f"{path}: scan abandoned (the file kept changing while it was read)")
        else:
            _error(f"cannot read {path}")
    for path, reason in walk.fSkipped:
        _error(f"skipped {_display_path(path)}: {reason}")
    nothing_done = counts.files == 0 and not failed and not counts.derived_files
    if nothing_done:
        line = f"Nothing to scan: {counts.skipped} files unchanged"
    else:
        if counts.files or failed:
            line = (f"Indexed {counts.files} files: {counts.scopes} scopes, "
                    f"{counts.parse_errors} with parse errors")
            if counts.derived_files:
                line += f", derived info from {counts.derived_files} files"
        else:  # the derived pass alone (after an index with --primary-only)
            line = f"Derived info from {counts.derived_files} files"
        if counts.needed_files:
            line += f" (and {counts.needed_files} library files it read)"
        if counts.skipped:
            line += f", {counts.skipped} files unchanged"
        if failed:
            line += f", {len(failed)} failed"
    if walk.fSkipped:
        line += f", {len(walk.fSkipped)} skipped"
    if forgotten:
        line += f", {forgotten} gone files forgotten"
    if nothing_done:
        print(f"{line} ({_display_path(db_path)})")
    else:
        print(f"{line}, in {counts.seconds:.2f}s ({_display_path(db_path)})")
    if parse_error_locs:
        shown = parse_error_locs[:kParseErrorFilesShown]
        names = ", ".join(_display_path(loc.fPath) for loc in shown)
        more = len(parse_error_locs) - len(shown)
        tail = f" and {more} more ('pysource stats --files' lists them)" if more > 0 else ""
        print(f"Parse errors in {names}{tail}")


kParseErrorFilesShown = 5
# An index run writes the records of this many files in one transaction (a
# killed run loses at most those), and keeps about this many records in
# memory: written ones leave and are read back when a scan asks for them.
kWriteBatchFiles = 64
kRecordsInMemory = 8000


# Fewer files than this are scanned in one process: workers cost more than
# they save.
kMinFilesPerWorker = 8


def _start_workers(jobs, file_count):
    """The worker processes of an index run, or None to scan in this one."""
    from pysource import manager, parallelscan
    jobs = min(jobs, file_count // kMinFilesPerWorker)
    if jobs <= 1:
        return None
    return parallelscan.CParallelPrimaryScans(jobs, manager.kPrimaryScanName)


def _default_jobs():
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:
        return os.cpu_count() or 1


def _jobs_arg(text):
    try:
        jobs = int(text)
    except ValueError:
        jobs = 0
    if jobs < 1:
        raise argparse.ArgumentTypeError(f"expected a number of processes (1 or more), got '{text}'")
    return jobs


def _bound_index_writes(info_cache):
    info_cache.fWriteBatchLocations = kWriteBatchFiles
    info_cache.fMaxRecordsInMemory = kRecordsInMemory


@contextlib.contextmanager
def CollectorOff():
    """A query's engine makes many short-lived containers in a run of a
    fraction of a second: the collector's walks of them cost it a tenth of
    its time and free next to nothing that its end doesn't.  The command
    owns its process; the collector goes back as it was for a caller of
    main() that goes on."""
    was_on = gc.isenabled()
    gc.disable()
    try:
        yield
    finally:
        if was_on:
            gc.enable()


@contextlib.contextmanager
def StartUpFrozen():
    """The modules, the index and the files to scan live for the whole run:
    left out of the garbage collector's walks, they neither lengthen a full
    collection (which runs inside whichever time slice triggers it) nor
    bring the next one on.  Likewise the allocator merges small blocks as
    they are freed (_SetAllocatorFastBlocks).  The command owns its process
    (a library leaves these choices to its host); both go back as they were
    when the run ends, for a caller of main() that goes on."""
    gc.collect()
    gc.freeze()
    fast_blocks_off = _SetAllocatorFastBlocks(0)
    try:
        yield
    finally:
        if fast_blocks_off:
            _SetAllocatorFastBlocks(kAllocatorFastBlockBytes)
        gc.unfreeze()


# The C library's allocator (glibc's) keeps freed blocks up to this size
# aside and merges them all when a large block is asked for next: after
# many frees (the engine's kept answers going), that merging takes
# milliseconds, in whichever time slice the next large request falls.
kAllocatorFastBlockBytes = 64 * ctypes.sizeof(ctypes.c_size_t) // 4  # its default
kMallocMaxFast = 1  # mallopt's M_MXFAST


def _SetAllocatorFastBlocks(size):
    """Sets the largest block the allocator keeps aside when freed; False
    where the C library has no such setting."""
    try:
        mallopt = ctypes.CDLL(None).mallopt
    except (OSError, AttributeError, TypeError):  # no such call, or no process-wide library handle
        return False
    mallopt.argtypes = (ctypes.c_int, ctypes.c_int)
    return bool(mallopt(kMallocMaxFast, size))


def _cmd_index(args):
    from basekit.location import CLocalFileLocation
    from pysource import coordinator, indexlock, projectfiles, scopeinfo

    paths = args.paths or [os.curdir]
    missing = [p for p in paths if not os.path.exists(p)]
    if missing:
        for path in missing:
            _error(f"no such file or directory: {path}")
        return kExitUsage
    db_path = args.db if args.db is not None else projectfiles.DefaultIndexPath(paths[0])
    try:
        os.makedirs(os.path.dirname(os.path.abspath(db_path)), exist_ok=True)
    except OSError as err:
        _error(f"cannot make the directory of {db_path}: {err.strerror}")
        return kExitDatabase
    problem = _write_problem(db_path)
    if problem is not None:
        raise _CDatabaseProblem(f"{problem}: 'pysource show' and 'pysource stats' can read it, "
                                "indexing needs write permission")
    walk = projectfiles.WalkSourceFiles(paths)
    files = walk.fFiles
    progress = _CProgressLine(sys.stderr) if sys.stderr.isatty() else None
    derived_progress = _CProgressLine(sys.stderr, "derived ") if progress is not None else None
    with indexlock.CIndexWriterLock(db_path) as lock:
        lock.Acquire(on_wait=lambda: _error(
            f"another 'pysource index' is writing {_display_path(db_path)}; "
            "waiting for it to finish"))
        # Workers are forked before the database is opened, and start on the
        # files in the walk's order (the coordinator's, unless some are up to
        # date) while this process gets ready.
        workers = _start_workers(args.jobs, len(files))
        if workers is not None:
            workers.Expect([CLocalFileLocation(path) for path in files])
        try:
            index = _CIndex(db_path)
        except BaseException:
            if workers is not None:
                workers.close()
            raise
        _bound_index_writes(index.fInfoCache)
        if index.fInfoCache.fDatabaseMessage:
            _error(index.fInfoCache.fDatabaseMessage)
        coord = None
        try:
            forgotten = _forget_gone_files(index, [os.path.abspath(p) for p in paths], walk)
            coord = coordinator.CScanCoordinator(
                index.fMgr, progress=progress, derived_progress=derived_progress,
                scanner_class=workers.ScannerClass() if workers is not None else None)
            index.AddImportRoots(files)
            locs = [CLocalFileLocation(path) for path in files]
            coord.AddLocations(locs)
            if workers is not None:
                workers.Expect(coord.QueuedLocations())
            with StartUpFrozen():
                coord.RunUntilIdle()
                if workers is not None:
                    # What the derived pass needs scanned is scanned here.
                    workers.close()
                    workers = coord.fScannerClass = None
                if progress is not None:
                    progress.Clear()
                if not args.primary_only:
                    _run_derived_pass(coord, locs)
                index.fInfoCache.WriteToDatabase(None)
        except scopeinfo.CInfoDatabaseError as err:
            raise _CDatabaseProblem(_database_advice(str(err))) from None
        finally:
            if workers is not None:
                workers.close()
            for line in (progress, derived_progress):
                if line is not None:
                    line.Clear()
            if coord is not None:
                counts = coord.fCounts
                failed = list(coord.fAbandonedLocs)
                errors = dict(coord.fErrors)
                parse_error_locs = list(coord.fParseErrorLocs)
                coord.destroy()
            index.close()
    _report_index_run(counts, failed, errors, walk, forgotten, parse_error_locs, db_path)
    return kExitFailed if failed or walk.fSkipped else 0


# show

def _run_derived_pass(coord, locs):
    """The derived scans of an index run: files whose primary scan ran now,
    those whose derived records read from them, and those whose derived scan
    isn't done for their disk time."""
    coord.DerivedFilesChanged(coord.fScannedLocs)
    failed = set(coord.fAbandonedLocs)
    coord.AddDerivedLocations([loc for loc in locs if loc not in failed])
    coord.RunDerivedUntilIdle()


def _records_for_target(index, target):
    """[(loc, scope name)] named by TARGET, or an error text."""
    from basekit.location import CLocalFileLocation
    file_part, scope = None, None
    if os.path.exists(target):
        file_part = target
    elif ":" in target:
        head, _, tail = target.rpartition(":")
        if not os.path.exists(head):
            return None, f"no such file: {head}"
        file_part, scope = head, tail
    elif target.endswith((".py", ".pyi")) or os.sep in target:
        return None, f"no such file: {target}"
    else:
        scope = target
    info_cache = index.fInfoCache
    if file_part is not None:
        loc = CLocalFileLocation(os.path.abspath(file_part))
        names = sorted(info_cache.GetScopesForLoc(loc))
        if not names:
            return None, f"{file_part} is not in the index; run 'pysource index' first"
        if scope is None:
            return [(loc, name) for name in names], None
        if scope not in names:
            return None, f"no record of scope '{scope}' in {file_part}"
        return [(loc, scope)], None
    found = [(loc, name) for loc, name in info_cache.FindScopesNamed(scope)]
    exact = [(loc, name) for loc, name in found if name == scope]
    found = exact or found
    if not found:
        return None, f"no scope named '{scope}' in the index"
    return found, None


def _list_matches(matches, as_json):
    """The scopes a bare name matched, one line each with file and line."""
    from pysource import recordtext
    rows = []
    bodies_of = {}
    for loc, name in matches:
        path = getattr(loc, "fPath", None) or loc.fUrl
        bodies = bodies_of.get(path)
        if bodies is None:
            bodies = bodies_of[path] = recordtext.CFileBodies(path)
        rows.append({"file": path, "scope": name, "line": bodies.DefLine(name)})
    if as_json:
        json.dump(rows, sys.stdout, indent=2)
        sys.stdout.write("\n")
        return
    print(f"{len(rows)} scopes match; show one with FILE:SCOPE")
    for row in rows:
        where = _display_path(row["file"]) + (f":{row['line']}" if row["line"] else "")
        print(f"  {where}  {_printable(row['scope'])}")


def _add_callers_pass(index, record, scope):
    """The types callers pass, per parameter, on the record of a function."""
    from pysource import paramquery
    if record["kind"] in paramquery.kDefScopeKinds:
        def_params = paramquery.ParamsOf(index.fMgr, scope)
        if def_params is not None:
            record["callers_pass"] = def_params.AsDict()


def _cmd_show(args):
    from pysource import recordtext, symbolinfo

    if not args.target.strip():
        _error("show needs a FILE, FILE:SCOPE or a scope name")
        return kExitUsage
    index = _open_index_for_target(args.db, args.target)
    if index is None:
        return kExitUsage
    try:
        targets, problem = _records_for_target(index, args.target)
        if problem is not None:
            _error(problem)
            return kExitFailed
        if len(targets) > 1 and all(name != args.target for _, name in targets) and \
                ":" not in args.target and not os.path.exists(args.target):
            _list_matches(targets, args.json)
            return 0
        info_cache = index.fInfoCache
        bodies_of = {}
        records = []
        for loc, name in targets:
            bodies = bodies_of.get(loc)
            if bodies is None:
                bodies = bodies_of[loc] = recordtext.CFileBodies(loc.fPath)
                if not bodies.fReadable:
                    _error(f"cannot read {_display_path(loc.fPath)}; lines are not shown")
                elif bodies.fDiskMTime != float(info_cache.GetLocDiskMTime(loc)):
                    _error(f"{_display_path(loc.fPath)} changed since it was indexed; "
                           "run 'pysource index' again (line numbers may be off)")
            info = info_cache.GetScopeInfo(symbolinfo.Scope(loc, name))
            if info is None:
                continue
            records.append(recordtext.DescribeRecord(
                loc, name, info, bodies if bodies.fReadable else None))
            _add_callers_pass(index, records[-1], symbolinfo.Scope(loc, name))
    finally:
        index.close()
    if args.json:
        json.dump(records, sys.stdout, indent=2)
        sys.stdout.write("\n")
    else:
        sys.stdout.write("\n\n".join(recordtext.FormatRecord(r, _display_path) for r in records) + "\n")
    return 0


# stats

def _cmd_stats(args):
    from pysource import recordtext

    index = _open_existing_index(args.db, os.curdir)
    if index is None:
        return kExitUsage
    kinds = [recordtext.kScopeKindModule, recordtext.kScopeKindClass,
             recordtext.kScopeKindInstance, recordtext.kScopeKindFunction,
             recordtext.kScopeKindMethod]
    rows = {}    # path -> [scopes, {kind: scopes}, incomplete scopes]
    try:
        for loc, kind, scopes, incomplete in index.fInfoCache.GetScopeCounts():
            path = getattr(loc, "fPath", None) or loc.fUrl
            row = rows.setdefault(path, [0, dict.fromkeys(kinds + [recordtext.kScopeKindOther], 0), 0])
            row[0] += scopes
            row[1][kind] += scopes
            row[2] += incomplete
        size = index.SizeInBytes()
    finally:
        index.close()
    rows = [(path, *row) for path, row in rows.items()]
    out = sys.stdout
    if args.files:
        header = ["scopes"] + kinds + ["errors", "file"]
        out.write("  ".join(f"{h:>8}" for h in header[:-1]) + "  file\n")
        for path, count, per_kind, errors in rows:
            cells = [count] + [per_kind[k] for k in kinds] + [errors]
            out.write("  ".join(f"{c:>8}" for c in cells) + f"  {_display_path(path)}\n")
    totals = {k: sum(row[2][k] for row in rows) for k in kinds}
    total_scopes = sum(row[1] for row in rows)
    total_errors = sum(row[3] for row in rows)
    summary = ", ".join(f"{k} {totals[k]}" for k in kinds)
    out.write(f"{len(rows)} files, {total_scopes} scopes ({summary}), "
              f"{total_errors} scopes with parse errors; database {_display_path(index.fPath)}, "
              f"{size / 1024:.1f} KiB\n")
    if total_errors and not args.files:
        out.write("'pysource stats --files' lists the files, with their parse errors\n")
    return 0


# infer

def _infer_target(target):
    """(path, line) of FILE:LINE, or an error text."""
    path, sep, line_text = target.rpartition(":")
    if not sep or not line_text.strip().isdigit():
        return None, f"expected FILE:LINE, got '{target}'"
    if not os.path.isfile(path):
        return None, f"no such file: {path}"
    return (path, int(line_text)), None


def _infer_manager(args, path):
    """The manager for `infer`: over the index (read only; what it lacks is
    scanned into memory) when there is one, else in memory alone."""
    from pysource import manager, projectfiles
    db_path = args.db if args.db is not None else projectfiles.FindIndexFor(path)
    if db_path is None:
        return None, manager.CAnalysisMgr()
    if not os.path.isfile(db_path):
        raise _CDatabaseProblem(f"no such index database: {db_path}")
    index = _CIndex(db_path, read_only=True)
    return index, index.fMgr


def _cmd_infer(args):
    from basekit.location import CLocalFileLocation
    from pysource import inferquery

    where, problem = _infer_target(args.target)
    if problem is not None:
        _error(problem)
        return kExitUsage
    path, lineno = where
    try:
        compile(args.expr, "<expression>", "eval")
    except SyntaxError as err:
        _error(f"cannot parse the expression '{args.expr}': {err.msg}")
        return kExitUsage
    loc = CLocalFileLocation(os.path.abspath(path))
    index, mgr = _infer_manager(args, path)
    try:
        try:
            scope_name, logical_index = inferquery.PositionAtLine(loc, lineno)
            singles, complete = inferquery.ResolveAt(mgr, loc, lineno, args.expr, args.seconds)
        except inferquery.CLineOutsideFile as err:
            _error(f"{path}: {err}")
            return kExitUsage
        bodies_of = {}
        values = []
        for single in singles:
            def_path, def_line = inferquery.DefinitionOf(single, mgr, bodies_of)
            values.append({"text": inferquery.DescribeSingle(single, mgr, loc),
                           "file": def_path, "line": def_line})
        values.sort(key=lambda v: (v["text"], v["file"] or "", v["line"] or 0))
    finally:
        if index is not None:
            index.close()
        else:
            mgr.destroy()
    if args.json:
        json.dump({"file": path, "line": lineno, "expr": args.expr, "scope": scope_name,
                   "logical": logical_index, "complete": complete, "values": values},
                  sys.stdout, indent=2)
        sys.stdout.write("\n")
    else:
        for value in values:
            place = ""
            if value["file"] is not None:
                place = _display_path(value["file"])
                if value["line"] is not None:
                    place += f":{value['line']}"
            print(f"{value['text']}" + (f"  ({place})" if place else ""))
        if not complete:
            _error("the answer may be partial: the engine could not finish the resolve")
    if not values:
        _error(f"nothing is known of '{args.expr}' at {path}:{lineno}")
        return kExitFailed
    return 0


# params

def _params_targets(index, target):
    """The def scopes named by FUNC (a dotted name, its last components
    matched) or FILE:SCOPE, or an error text."""
    from pysource import paramquery, symbolinfo
    if ":" in target and os.path.exists(target.rpartition(":")[0]):
        found, problem = _records_for_target(index, target)
        if problem is not None:
            return None, problem
        scopes = [symbolinfo.Scope(loc, name) for loc, name in found]
        scopes = [s for s in scopes if paramquery.IsDefScope(index.fInfoCache, s)]
        if not scopes:
            return None, f"'{target}' is not a function"
        return scopes, None
    scopes = paramquery.FindDefScopes(index.fMgr, target)
    if not scopes:
        return None, f"no function named '{target}' in the index"
    return scopes, None


def _cmd_params(args):
    from pysource import paramquery, recordtext

    index = _open_index_for_target(args.db, args.function)
    if index is None:
        return kExitUsage
    try:
        scopes, problem = _params_targets(index, args.function)
        if problem is not None:
            _error(problem)
            return kExitFailed
        found = [paramquery.ParamsOf(index.fMgr, scope, args.seconds) for scope in scopes]
        found = [def_params for def_params in found if def_params is not None]
    finally:
        index.close()
    if args.json:
        json.dump([def_params.AsDict() for def_params in found], sys.stdout, indent=2)
        sys.stdout.write("\n")
        return 0
    blocks = []
    for def_params in found:
        data = def_params.AsDict()
        where = _display_path(data["file"]) + (f":{data['line']}" if data["line"] else "")
        head = f"{data['scope']}  ({where})"
        if not def_params.fComplete:
            head += "  [partial: some resolves did not finish]"
        blocks.append("\n".join([head] + recordtext.FormatParamLines(data, _display_path)))
    sys.stdout.write("\n\n".join(blocks) + "\n")
    return 0


def _build_parser():
    parser = argparse.ArgumentParser(prog="pysource",
                                     description="Scanning core of a Python code-analysis engine.")
    parser.add_argument("--version", action=_CVersionAction)
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    sub.required = True
    logicals = sub.add_parser("logicals", help="print the logical lines of a Python file")
    logicals.add_argument("file", metavar="FILE")
    logicals.set_defaults(run=_cmd_logicals)

    index = sub.add_parser("index", help="index the Python files of a project")
    index.add_argument("paths", nargs="*", metavar="PATH",
                       help="files and directories to index (default: the current directory)")
    index.add_argument("--db", metavar="FILE",
                       help="index database (default: .pysource/index.db under the first PATH)")
    index.add_argument("--primary-only", action="store_true",
                       help="skip the derived pass (what callers pass, attributes set elsewhere)")
    index.add_argument("-j", "--jobs", type=_jobs_arg, default=_default_jobs(), metavar="N",
                       help="processes that scan files (default: the number of cores); "
                            "one writes the index")
    index.set_defaults(run=_cmd_index)

    show = sub.add_parser("show", help="print what the index knows of a file or scope")
    show.add_argument("target", metavar="TARGET",
                      help="FILE, FILE:SCOPE (a dotted scope name) or a scope name alone")
    show.add_argument("--db", metavar="FILE",
                      help="index database (default: the nearest .pysource/index.db)")
    show.add_argument("--json", action="store_true", help="print the records as JSON")
    show.set_defaults(run=_cmd_show, query=True)

    stats = sub.add_parser("stats", help="counts of the index: files, scopes, parse errors")
    stats.add_argument("--db", metavar="FILE",
                       help="index database (default: the nearest .pysource/index.db)")
    stats.add_argument("--files", action="store_true", help="a row of counts per file")
    stats.set_defaults(run=_cmd_stats)

    infer = sub.add_parser("infer", help="print what an expression can be at a line of a file")
    infer.add_argument("target", metavar="FILE:LINE")
    infer.add_argument("expr", metavar="EXPR", help="a Python expression")
    infer.add_argument("--db", metavar="FILE",
                       help="index database (default: the nearest .pysource/index.db; "
                            "without one, files are scanned into memory)")
    infer.add_argument("--json", action="store_true", help="print the answer as JSON")
    infer.add_argument("--seconds", type=float, default=2.0, help="time for the resolve")
    infer.set_defaults(run=_cmd_infer, query=True)

    params = sub.add_parser("params", help="print the types callers pass to a function's parameters")
    params.add_argument("function", metavar="FUNC",
                        help="a dotted name (its last components match) or FILE:SCOPE")
    params.add_argument("--db", metavar="FILE",
                        help="index database (default: the nearest .pysource/index.db)")
    params.add_argument("--json", action="store_true", help="print the answer as JSON")
    params.add_argument("--seconds", type=float, default=2.0,
                        help="time for the resolve of each argument")
    params.set_defaults(run=_cmd_params, query=True)
    return parser


def main(argv=None):
    parser = _build_parser()
    args = parser.parse_args(argv)
    from pysource import scopeinfo
    # What the library logs for an embedder (a rebuilt database) the
    # command tells in its own words: not twice.
    logging.getLogger("pysource").addHandler(logging.NullHandler())
    try:
        with CollectorOff() if getattr(args, "query", False) else contextlib.nullcontext():
            return args.run(args)
    except _CDatabaseProblem as problem:
        _error(str(problem))
        return kExitDatabase
    except scopeinfo.CInfoDatabaseError as err:
        # Met while reading records (a stored value that can't be decoded).
        _error(_database_advice(str(err)))
        return kExitDatabase
    except KeyboardInterrupt:
        # Files scanned before the interrupt stay in the index.
        _error("interrupted")
        return kExitInterrupted
    except BrokenPipeError:
        return 1


if __name__ == "__main__":
    sys.exit(main())

"""The inference engine over the core corpus: every name read in every scope
resolved, side by side with the standard library's `symtable`, and a sample
beside jedi's `infer`.

    python bench/infer.py [--quick] [--files N] [--jedi N] [--repeat N] [--seconds S] [--dump FILE]

Off the clock: the primary scans of the corpus (records in memory), then a
warm-up pass that resolves every read once and runs the primary scans of
whatever the resolves ask for (the stubs of the standard library, modules the
corpus imports), so that the timed passes find every record they need.

Figures:
  resolve    every name read in every scope (a name of a scope record whose
             singles hold a read, `:gN`), resolved in that scope at its first
             read (logical index N); resolves per second, how many came back
             non-empty and how many incomplete, the worst single resolve.  Each
             round starts without the answers the engine keeps between
             requests; a last pass shows the same reads with them
  symtable   symtable of every file, walking every table's symbols
             (interleaved with the resolve pass, best of --repeat each), and
             the ratio resolve / symtable (goal <= 2)
  memory     the resolve pass's growth of the resident set's peak (VmHWM, reset
             before the pass) and of the resident set; the entries of each table
             the engine keeps between requests after that pass and after the last
  jedi       a sample of the reads (fixed seed) asked of jedi's `infer` at the
             name's position and of the engine: time per resolve of each, and
             how often they agree on the type names (type arguments and module
             qualifiers left out)

--dump writes every read's answer (type names, and whether it came back
incomplete) in the first timed round and in the last pass, one read a line,
to compare the engine's answers before and after a change.

A resolve has --seconds before its context calls it off; while the resolve
passes run, the read being resolved is written to --progress, so that a crash
or hang names the file, scope and name.
"""
import argparse
import ast
import contextlib
import faulthandler
import gc
import mmap
import os
import random
import sys
import time

from basekit.location import CLocalFileLocation
from pysource import _fastaccess, inferquery, manager, symbolinfo

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from benchutil import corpus_paths, read_bytes, walk_symtable  # noqa: E402
import inferevalset  # noqa: E402

kQuickFiles = 5
kQuickJedi = 10
kSeed = 20261123
kGetKind = symbolinfo.GetInfoBytesKind(symbolinfo.kGetPrefix)
# The watchdog's allowance: a warm-up resolve may run this many rounds of
# scans, and anything may take this many seconds more than its deadline.
kScanRounds = inferquery.kMaxScanRounds
kSlack = 30.0


# ---------------------------------------------------------------------------
# The reads


class CRead:
    """A name read in a scope of a file, at its first read's logical index."""
    __slots__ = ("loc", "scope", "name", "index", "expr", "label")

    def __init__(self, loc, scope, name, index):
        self.loc, self.scope, self.name, self.index = loc, scope, name, index
        self.expr = symbolinfo.Scope(loc, scope).ExprIn(f"{name}:#{index}")
        self.label = CProgress.label(self)

    def __str__(self):
        return f"{self.loc.fPath}: scope '{self.scope}' name '{self.name}' (logical {self.index})"


def first_read_index(ibytes):
    """N of the `:gN` single among `ibytes`' singles, or None when it holds no read."""
    for single in symbolinfo.NonNestedSplit(bytes(ibytes), b";"):
        _marks, bare = symbolinfo.PopLeadingPrefixes(single)
        if symbolinfo.GetInfoBytesKind(bare) == kGetKind:
            payload = bare[symbolinfo.kPrefixLen:]
            return int(payload) if payload else symbolinfo.kUnknownLogicalIndex
    return None


def name_reads(mgr, locs):
    info_cache = mgr.fInfoCache
    reads = []
    for loc in locs:
        for scope in sorted(info_cache.GetScopesForLoc(loc)):
            info = info_cache.GetScopeInfo(symbolinfo.Scope(loc, scope))
            if info is None:
                continue
            for name, ibytes in sorted(info.type_equivs.items()):
                index = first_read_index(ibytes)
                if index is not None:
                    reads.append(CRead(loc, scope, name, index))
    return reads


# ---------------------------------------------------------------------------
# Resolving


class CProgress:
    """The read being resolved, kept in a file mapped into memory: a crash or
    hang leaves it there, at the cost of one short copy per resolve."""
    kSize = 512

    def __init__(self, path):
        self.path = path
        with open(path, "wb") as fh:
            fh.write(b" " * self.kSize)
        with open(path, "r+b") as fh:
            self.map = mmap.mmap(fh.fileno(), self.kSize)

    @classmethod
    def label(cls, read):
        return str(read).encode("utf-8", "replace")[:cls.kSize - 1].ljust(cls.kSize - 1) + b"\n"

    def note(self, label):
        self.map[:] = label

    @contextlib.contextmanager
    def watched(self, seconds):
        """Ends the process with a traceback when the block takes more than `seconds`."""
        faulthandler.dump_traceback_later(seconds, exit=True)
        try:
            yield
        finally:
            faulthandler.cancel_dump_traceback_later()


def warm_up(mgr, reads, seconds, progress):
    """Resolves every read, running the primary scans it asks for; returns
    the number of files scanned on the way."""
    before = len(mgr.fInfoCache.GetLocations())
    for read in reads:
        progress.note(read.label)
        with progress.watched(seconds * kScanRounds + kSlack):
            inferquery._ResolveWithScans(mgr, read.expr, _fastaccess.GetNowTime() + seconds)
    return len(mgr.fInfoCache.GetLocations()) - before


def resolve_all(mgr, reads, seconds, progress, answers=None):
    """Resolves every read once, without scans; returns (non-empty,
    incomplete, reads that ran to their deadline, (worst time, its read)).
    `answers`, when given, gets each read's (resolved, incomplete)."""
    engine = mgr.fInferenceEngine._fNativeEngine
    now, clock = _fastaccess.GetNowTime, time.perf_counter
    non_empty = incomplete = late = 0
    worst = (0.0, None)
    note = progress.note
    for read in reads:
        note(read.label)
        start = clock()
        ctx = engine.NewContext(now() + seconds, False)
        resolved = engine.ResolveToResult(read.expr, ctx).resolved
        took = clock() - start
        if answers is not None:
            answers.append((resolved, bool(ctx.fIncomplete)))
        non_empty += bool(resolved)
        incomplete += bool(ctx.fIncomplete)
        late += took >= seconds
        if took > worst[0]:
            worst = (took, read)
    return non_empty, incomplete, late, worst


def resolve_one(mgr, read, seconds):
    engine = mgr.fInferenceEngine._fNativeEngine
    ctx = engine.NewContext(_fastaccess.GetNowTime() + seconds, False)
    return engine.ResolveToResult(read.expr, ctx).resolved


def write_answers(mgr, reads, answers, out, label):
    """One line per read: the pass, the read, its answer's type names and
    whether it came back incomplete."""
    for read, (resolved, incomplete) in zip(reads, answers):
        names = sorted(inferquery.DescribeResolved(resolved, mgr, read.loc))
        out.write(f"{label}\t{read}\t{' | '.join(names)}\t{'incomplete' if incomplete else ''}\n")


# ---------------------------------------------------------------------------
# Memory


def resident_kb(field):
    with open("/proc/self/status") as fh:
        for line in fh:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise RuntimeError(f"/proc/self/status has no {field}")


def reset_peak_resident():
    # Writing 5 to clear_refs resets the process's VmHWM to its current RSS.
    with open("/proc/self/clear_refs", "w") as fh:
        fh.write("5")


# ---------------------------------------------------------------------------
# jedi on a sample


def read_positions(paths):
    """{(path, scope, logical index): (first line, last line)} of every logical of `paths`."""
    spans = {}
    for path in paths:
        logicals = inferquery.FileLogicals(CLocalFileLocation(path)) or []
        for logical, pos in zip(logicals, inferquery.BodyPositions(logicals)):
            if pos is not None:
                spans[(path, *pos)] = (logical.fFirstLine, logical.fFirstLine + logical.fLineCount - 1)
    return spans


def name_columns(text):
    """{(name, line): [1-based line, character column] of the first load} of every
    name read in `text`."""
    lines = text.splitlines()
    found = {}
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Load):
            key = (node.id, node.lineno)
            line = lines[node.lineno - 1]
            column = len(line.encode("utf-8")[:node.col_offset].decode("utf-8", "replace"))
            if key not in found or column < found[key][1]:
                found[key] = (node.lineno, column)
    return found


def sample_positions(reads, count):
    """`count` reads of plain names drawn with a fixed seed, each with the
    (line, column) where the name is read in its logical."""
    candidates = [r for r in reads if r.name.isidentifier()]
    random.Random(kSeed).shuffle(candidates)
    sample, spans, columns = [], {}, {}
    for read in candidates:
        path = read.loc.fPath
        if path not in columns:
            spans.update(read_positions([path]))
            with open(path, encoding="utf-8") as fh:
                columns[path] = name_columns(fh.read())
        span = spans.get((path, read.scope, read.index))
        if span is None:
            continue
        at = next((columns[path][(read.name, line)] for line in range(span[0], span[1] + 1)
                   if (read.name, line) in columns[path]), None)
        if at is not None:
            sample.append((read, at))
            if len(sample) == count:
                break
    return sample


def loose_name(text):
    """A canonical text without type arguments nor module qualifiers:
    `def os.path.join` -> `def join`, `type[collections.OrderedDict[int]]` -> `type[OrderedDict]`."""
    text = inferevalset.Loose(text)
    for head, tail in (("type[", "]"), ("def ", ""), ("", "")):
        if text.startswith(head) and text.endswith(tail) and not text.startswith("module "):
            inner = text[len(head):len(text) - len(tail)] if tail else text[len(head):]
            return head + inner.rsplit(".", 1)[-1] + tail
    return text


def compare_with_jedi(mgr, sample, seconds):
    import jedi
    from infer_eval import JediText
    scripts = {}
    engine_time = jedi_time = 0.0
    tally = dict.fromkeys(("agree", "overlap", "differ", "engine only", "jedi only", "both empty",
                           "jedi failed"), 0)
    clock = time.perf_counter
    for read, (line, column) in sample:
        start = clock()
        ours = resolve_one(mgr, read, seconds)
        engine_time += clock() - start
        path = read.loc.fPath
        start = clock()
        try:
            script = scripts.get(path)
            if script is None:
                script = scripts[path] = jedi.Script(path=path)
            theirs = script.infer(line, column)
        except Exception:  # noqa: BLE001 - jedi's own faults are only counted
            tally["jedi failed"] += 1
            continue
        finally:
            jedi_time += clock() - start
        ours = {loose_name(t) for t in inferquery.DescribeResolved(ours, mgr, read.loc)}
        theirs = {loose_name(JediText(n)) for n in theirs}
        if not ours and not theirs:
            tally["both empty"] += 1
        elif not theirs:
            tally["engine only"] += 1
        elif not ours:
            tally["jedi only"] += 1
        elif ours == theirs:
            tally["agree"] += 1
        else:
            tally["overlap" if ours & theirs else "differ"] += 1
    n = len(sample)
    ms = 1e3
    print(f"jedi {jedi.__version__} on {n} reads drawn with seed {kSeed} (jedi parses each file on "
          f"its first read: {len(scripts)} files)")
    print(f"  engine {engine_time / n * ms:8.3f} ms per resolve")
    print(f"  jedi   {jedi_time / n * ms:8.3f} ms per infer     jedi/engine {jedi_time / engine_time:7.1f}")
    print("  type names (loose): " + ", ".join(f"{k} {v}" for k, v in tally.items()))


# ---------------------------------------------------------------------------


def machine_load():
    one, five, _ = os.getloadavg()
    return f"load average {one:.2f} (1 min) {five:.2f} (5 min) on {os.cpu_count()} cores"


def print_kept_counts(label, counts):
    """The entries of the engine's kept tables, largest first (empty ones left out)."""
    tables = sorted(((n, c) for n, c in counts.items() if c), key=lambda item: -item[1])
    print(f"{label}: " + ", ".join(f"{name} {count}" for name, count in tables))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true",
                        help=f"the first {kQuickFiles} files, {kQuickJedi} jedi reads, one round")
    parser.add_argument("--files", type=int, default=0, help="only the first N files")
    parser.add_argument("--jedi", type=int, default=300, help="reads asked of jedi (0: none)")
    parser.add_argument("--repeat", type=int, default=3, help="timed rounds (best is kept)")
    parser.add_argument("--seconds", type=float, default=2.0, help="deadline of one resolve")
    parser.add_argument("--progress", default=f"/tmp/bench-infer-progress-{os.getpid()}.txt",
                        help="where the warm-up pass writes the read it is resolving (a file of this run's own: a run beside it must not rewrite it under this one's memory map)")
    parser.add_argument("--dump", help="write every read's answer, cold and warm, to this file")
    args = parser.parse_args()
    faulthandler.enable()
    if args.quick:
        args.files = args.files or kQuickFiles
        args.jedi = min(args.jedi, kQuickJedi)
        args.repeat = 1
    paths = corpus_paths(args.files)
    texts = read_bytes(paths)
    locs = [CLocalFileLocation(p) for p in paths]
    print(machine_load())
    print(f"{len(paths)} files, {sum(map(len, texts)) / 1e6:.1f} MB")

    mgr = manager.CAnalysisMgr(db_path=None)
    previous = manager.SetAnalysisMgr(mgr)
    try:
        start = time.perf_counter()
        inferquery.RunPrimaryScans(mgr, locs)
        reads = name_reads(mgr, locs)
        indexed = time.perf_counter()
        progress = CProgress(args.progress)
        print(f"(a crash or hang leaves the read being resolved in {progress.path})")
        scanned = warm_up(mgr, reads, args.seconds, progress)
        warmed = time.perf_counter()
        print(f"off the clock: primary scans {indexed - start:.1f} s; warm-up pass (every read "
              f"resolved once, with the scans it asks for: {scanned} more files) {warmed - indexed:.1f} s")

        engine_best = symtable_best = float("inf")
        worst = (0.0, None)
        engine = mgr.fInferenceEngine._fNativeEngine
        cold_answers, warm_answers = ([], []) if args.dump else (None, None)
        for round_index in range(args.repeat):
            engine.ForgetKeptAnswers()  # every round starts cold
            gc.collect()
            if round_index == 0:
                rss_before = resident_kb("VmRSS")
                reset_peak_resident()
            start = time.perf_counter()
            with progress.watched(kSlack + (warmed - indexed)):
                non_empty, incomplete, late, round_worst = resolve_all(
                    mgr, reads, args.seconds, progress, cold_answers if round_index == 0 else None)
            engine_best = min(engine_best, time.perf_counter() - start)
            worst = max(worst, round_worst, key=lambda w: w[0])
            if round_index == 0:
                peak_growth = resident_kb("VmHWM") - rss_before
                kept = resident_kb("VmRSS") - rss_before
                kept_counts = engine.KeptCounts()
            gc.collect()
            start = time.perf_counter()
            symbols = walk_symtable(None, texts)
            symtable_best = min(symtable_best, time.perf_counter() - start)
        start = time.perf_counter()
        resolve_all(mgr, reads, args.seconds, progress, warm_answers)
        warm = time.perf_counter() - start
        n = len(reads)
        print(f"resolve   {engine_best:8.3f} s  {n} reads, {n / engine_best:,.0f} per second; "
              f"{non_empty} non-empty, {n - non_empty} empty, {incomplete} incomplete, "
              f"{late} ran to their {args.seconds:g} s deadline "
              f"(best of {args.repeat}, interleaved with symtable)")
        print(f"  again, with the answers kept from the round before: {warm:.3f} s "
              f"({n / warm:,.0f} per second)")
        print(f"symtable  {symtable_best:8.3f} s  {symbols} symbols")
        print(f"  resolve/symtable {engine_best / symtable_best:6.2f}  (goal <= 2)")
        print(f"  worst single resolve {worst[0] * 1e3:.1f} ms: {worst[1]}")
        print(f"memory of the first resolve pass: peak RSS growth {peak_growth / 1e3:.1f} MB, "
              f"RSS kept {kept / 1e3:.1f} MB (VmHWM reset before it)")
        print_kept_counts("kept after the first resolve pass", kept_counts)
        print_kept_counts("kept after the last pass", engine.KeptCounts())
        if args.dump:
            with open(args.dump, "w", encoding="utf-8") as out:
                write_answers(mgr, reads, cold_answers, out, "cold")
                write_answers(mgr, reads, warm_answers, out, "warm")
        if args.jedi:
            compare_with_jedi(mgr, sample_positions(reads, args.jedi), args.seconds)
    finally:
        manager.SetAnalysisMgr(previous)
        mgr.destroy()
    print(machine_load())


if __name__ == "__main__":
    main()

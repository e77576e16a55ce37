"""The flow provider's conditions per body logical: the guards known there
and the earlier `if` blocks a value may have skipped."""

import collections

import pytest

from basekit.location import CLocalFileLocation
from pysource import inferflow, inferquery, logicalline as ll, symbolinfo

from managerutil import installed_manager
from scanutil import counter_clock

_L = collections.namedtuple("_L", "fType fIndentLevel fText fTokenCount GetTokenString")


def _Logical(kind, indent, text):
    toks = text.split()
    return _L(kind, indent, text, len(toks), toks.__getitem__)


BODY = [
    _Logical(ll.kIfBeginning, 4, "if x is None :"),        # 0
    _Logical(ll.kReturn, 8, "return 0"),                   # 1
    _Logical(ll.kIfBeginning, 4, "if isinstance ( y , int ) :"),  # 2
    _Logical(ll.kExpression, 8, "y"),                      # 3
    _Logical(ll.kElifBeginning, 4, "elif y :"),            # 4
    _Logical(ll.kExpression, 8, "y"),                      # 5
    _Logical(ll.kElseBeginning, 4, "else :"),              # 6
    _Logical(ll.kExpression, 8, "y"),                      # 7
    _Logical(ll.kIfBeginning, 4, "if z is None :"),        # 8
    _Logical(ll.kAssignment, 8, "z = 1"),                  # 9
    _Logical(ll.kExpression, 4, "z"),                      # 10
    _Logical(ll.kIfBeginning, 4, "if a :"),                # 11
    _Logical(ll.kReturn, 8, "return 1"),                   # 12
    _Logical(ll.kElifBeginning, 4, "elif b :"),            # 13
    _Logical(ll.kRaise, 8, "raise E"),                     # 14
    _Logical(ll.kExpression, 4, "x"),                      # 15
]


def test_guards_and_skipped_ifs_per_logical():
    guards, skips, _exits = inferflow._Conditions(BODY)
    left = (0, "x is None", False)
    is_int = "isinstance ( y , int )"
    assert guards[1] == ((0, "x is None", True),)
    assert guards[3] == (left, (2, is_int, True))
    assert guards[5] == (left, (2, is_int, False), (4, "y", True))
    assert guards[7] == (left, (2, is_int, False), (4, "y", False))
    assert guards[10] == (left,)
    # The first block of a chain: the later blocks run only when it didn't.
    assert skips[9] == ((2, is_int, 3),)
    assert skips[10] == ((2, is_int, 3), (8, "z is None", 9))
    # An if/elif chain whose every block leaves: none of its conditions held.
    assert guards[15] == (left, (11, "a", False), (13, "b", False))
    # Past a return directly in its block: a false guard, and the block still leaves.
    dead = [_Logical(ll.kIfBeginning, 4, "if a :"), _Logical(ll.kReturn, 8, "return 1"),
            _Logical(ll.kAssignment, 8, "b = 2"), _Logical(ll.kIfBeginning, 8, "if c :"),
            _Logical(ll.kExpression, 12, "b"), _Logical(ll.kExpression, 4, "a")]
    dead_guards = inferflow._Conditions(dead)[0]
    assert [(2, "False", True) in g for g in dead_guards] == [False, False, True, True, True, False]
    assert dead_guards[5] == ((0, "a", False),)
    # Chains that end with an else, at each of their headers.
    chains = inferflow._IfChains(BODY)
    assert (chains[4], chains[6], chains[8], chains[11]) == ((2, 4, 6), (2, 4, 6), (), ())


FILE = """\
def f(a):
    if a:
        x = 1
    return x

def g():
    yield 1
"""


class _CFixedTimes:
    def GetLocDiskMTime(self, _loc):
        return 1.0


@pytest.mark.parametrize("suffix, kept, files", [(".py", inferflow.kFilesKept, "_fFiles"),
                                                 (".pyi", inferflow.kStubFilesKept, "_fStubFiles")])
def test_a_scope_is_worked_out_when_asked_and_a_few_files_are_kept(tmp_path, suffix, kept, files):
    # Working out every scope of a large file at the first question would
    # hold up a scan's time slice; keeping every file read would keep its
    # logicals in memory.  Stubs, read by every file's requests, are kept
    # apart: project files read in between don't push them out.
    flow = inferflow.CBlockStructure(_CFixedTimes())
    locs = []
    for i in range(kept + 1):
        path = tmp_path / f"m{i}{suffix}"
        path.write_text(FILE)
        locs.append(CLocalFileLocation(str(path)))
    assert (flow.BlockPaths(locs[0], "f"), flow.LoopHeaders(locs[0], "f")) == (((), (0,), ()), ())
    assert "g" in getattr(flow, files)[locs[0].fUrl][2]  # not worked out yet
    assert (flow.IsGenerator(locs[0], "g"), flow.IsGenerator(locs[0], "f")) == (True, False)
    assert flow.BlockPaths(locs[0], "C()") is None  # no body of that name
    for loc in locs[1:]:
        flow.BlockPaths(loc, "f")
    assert locs[0].fUrl not in getattr(flow, files) and len(getattr(flow, files)) == kept
    assert len(flow._fFiles) + len(flow._fStubFiles) == kept
    # What was worked out outlasts the logicals: answered without reading the
    # file again (a read for a scope worked out is no read), until the file
    # changes.
    for name in ("f", "C()"):
        assert flow.ReadFileUntil(locs[0], 0.0, name)
    assert flow.BlockPaths(locs[0], "f") == ((), (0,), ()) and flow.BlockPaths(locs[0], "C()") is None
    assert locs[0].fUrl not in getattr(flow, files)
    assert flow.ReadFileUntil(locs[0], None, "h") and locs[0].fUrl in getattr(flow, files)
    (tmp_path / f"m0{suffix}").write_text("def f(a):\n    return a\n")
    flow._fInfoCache.GetLocDiskMTime = lambda _loc: 2.0
    assert flow.BlockPaths(locs[0], "f") == ((),)


def test_a_file_is_read_in_steps_that_end_at_the_deadline(tmp_path):
    # A large file's read would overrun a time slice: it goes on over calls,
    # each ending at its deadline, and gives what one read in one go gives.
    path = tmp_path / "big.py"
    path.write_text("".join(f"def f{i}(a):\n    if a:\n        a = {i}\n    return a\n\n" for i in range(300)))
    loc = CLocalFileLocation(str(path))
    whole = inferflow.CBlockStructure(_CFixedTimes())
    stepped = inferflow.CBlockStructure(_CFixedTimes())
    with counter_clock() as clock:
        calls = 1
        while not stepped.ReadFileUntil(loc, clock.slice_end(2)):
            calls += 1
    assert calls > 3 and not stepped._fPendingReads
    assert whole.ReadFileUntil(loc, None) and stepped.ReadFileUntil(loc, 0.0)
    for name in ("f0", "f150", "f299"):
        assert stepped.BlockPaths(loc, name) == whole.BlockPaths(loc, name) == ((), (0,), ())


def test_a_request_that_waits_for_a_file_read_is_out_of_time_then_answers(tmp_path):
    (tmp_path / "lib.py").write_text("".join(f"def f{i}():\n    return {i}\n\n" for i in range(1000)) +
                                     "def last(a):\n    b = 1\n    if a:\n        b = 'x'\n    return b\n")
    (tmp_path / "use.py").write_text("import lib\n\ndef g(x):\n    return lib.last(x)\n")
    with installed_manager(editor=False) as mgr:
        locs = [CLocalFileLocation(str(tmp_path / name)) for name in ("use.py", "lib.py")]
        inferquery.RunPrimaryScans(mgr, locs)
        engine = mgr.fInferenceEngine._fNativeEngine
        engine.fFlowProvider = inferflow.CBlockStructure(mgr.fInfoCache)
        expr = symbolinfo.Scope(locs[0], "g").ExprIn("lib.last(x)")
        read_under_way = False
        with counter_clock() as clock:
            for _ in range(100):
                ctx = engine.NewContext(clock.slice_end(6), True)
                resolved = engine.ResolveToResult(expr, ctx).resolved
                if not ctx.fIncomplete:
                    break
                assert ctx.fIncompleteReason == ctx.kOutOfTime
                read_under_way |= locs[1].fUrl in engine.fFlowProvider._fPendingReads
        assert read_under_way and not ctx.fIncomplete
        assert {s.GetTypeName() for s in resolved} == {"int", "str"}

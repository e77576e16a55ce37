"""The flow provider's conditions per body logical: the guards known there
and the earlier `if` blocks a value may have skipped."""

import collections

import pytest

from basekit.location import CLocalFileLocation
from pysource import inferflow, logicalline as ll

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
    for loc in locs[1:]:
        flow.BlockPaths(loc, "f")
    assert locs[0].fUrl not in getattr(flow, files) and len(getattr(flow, files)) == kept
    assert len(flow._fFiles) + len(flow._fStubFiles) == kept
    # What was worked out outlasts the logicals: answered without reading the
    # file again, until the file changes.
    assert flow.BlockPaths(locs[0], "f") == ((), (0,), ())
    assert locs[0].fUrl not in getattr(flow, files)
    (tmp_path / f"m0{suffix}").write_text("def f(a):\n    return a\n")
    flow._fInfoCache.GetLocDiskMTime = lambda _loc: 2.0
    assert flow.BlockPaths(locs[0], "f") == ((),)

"""The standard library through its stubs: functions, methods of the
built-in types, classes of well-known modules."""

import collections
import datetime
import functools
import io
import os
import operator
import os.path
import pathlib
import re
import shlex
import string
import sys
import tempfile
import textwrap
from collections import Counter, OrderedDict, defaultdict, deque

here = os.path.dirname(os.path.abspath(__file__))

os.path.join("a", "b")  # expect: str
os.path.basename("/a/b")  # expect: str
os.path.exists(here)  # expect: bool
os.path.isdir(here)  # expect: bool
os.path.splitext("a.py")  # expect: tuple[str, str]
os.path.split("/a/b")  # expect: tuple[str, str]
os.path.getsize(__file__)  # expect: int
os.listdir(here)  # expect: list[str]
os.getpid()  # expect: int
os.environ.get("HOME")  # expect: str | None
os.environ["PATH"]  # expect: str
os.getenv("HOME")  # expect: str | None
__file__  # expect: str
__name__  # expect: str

# The stubs' `X | Any` (an X callers needn't check for None) is an X.
sys.stdin.readline()  # expect: str

open(__file__)  # expect: _io.TextIOWrapper
open(__file__, "rb")  # expect: _io.BufferedReader
open(__file__).read()  # expect: str
open(__file__, "rb").read()  # expect: bytes
open(__file__).readlines()  # expect: list[str]
io.StringIO()  # expect: _io.StringIO
io.StringIO().getvalue()  # expect: str
io.BytesIO(b"x").read()  # expect: bytes

"a b".split()  # expect: list[str]
"a,b".split(",")[0]  # expect: str
"x".upper()  # expect: str
"x".startswith("x")  # expect: bool
"x".find("x")  # expect: int
",".join(["a"])  # expect: str
"x".encode()  # expect: bytes
b"x".decode()  # expect: str
"a=b".partition("=")  # expect: tuple[str, str, str]
"abc"[0]  # expect: str
"abc"[1:]  # expect: str
"{}".format(1)  # expect: str
"x".strip().lower().replace("a", "b")  # expect: str
b"ab".split()  # expect: list[bytes]

counts = {"a": 1}
counts.get("a")  # expect: int | None
counts.get("a", 0)  # expect: int
counts.pop("a")  # expect: int
counts.setdefault("b", 2)  # expect: int
counts.copy()  # expect: dict[str, int]
numbers = [3, 1]
numbers.pop()  # expect: int
numbers.index(3)  # expect: int
numbers.copy()  # expect: list[int]
numbers.append(2)  # expect: None
numbers.sort()  # expect: None
{1, 2}.union({3})  # expect: set[int]

re.compile("a+")  # expect: re.Pattern[str]
re.match("a", "a")  # expect: re.Match[str] | None
re.compile("a").match("a")  # expect: re.Match[str] | None
re.sub("a", "b", "a")  # expect: str
re.escape("a.b")  # expect: str

pathlib.Path(here)  # expect: pathlib.Path
pathlib.Path(here) / "x"  # expect: pathlib.Path
pathlib.Path(here).name  # expect: str
pathlib.Path(here).parent  # expect: pathlib.Path
pathlib.Path(here).exists()  # expect: bool
pathlib.Path(__file__).read_text()  # expect: str
pathlib.Path(here).suffix  # expect: str

datetime.datetime.now()  # expect: datetime.datetime
datetime.date.today()  # expect: datetime.date
datetime.timedelta(days=1)  # expect: datetime.timedelta
datetime.datetime.now() - datetime.datetime.now()  # expect: datetime.timedelta
datetime.datetime.now().year  # expect: int
datetime.datetime.now().isoformat()  # expect: str

Counter("aab")  # expect: collections.Counter[str]
Counter("aab").most_common(1)  # expect: list[tuple[str, int]]
deque([1])  # expect: collections.deque[int]
OrderedDict(a=1)  # expect: collections.OrderedDict[str, int]
shlex.split("a b")  # expect: list[str]
shlex.quote("a")  # expect: str
textwrap.dedent(" a")  # expect: str
string.ascii_letters  # expect: str
tempfile.gettempdir()  # expect: str


def Pair(first, second):
    return first, second


class Pairs:
    def Make(self, first, second):
        return first, second

    with_zero = functools.partialmethod(Make, 0)


functools.partial(Pair, 1)("s")  # expect: tuple[int, str]
functools.partial(Pair, second=1.5)(b"b")  # expect: tuple[bytes, float]
functools.partial(Pair, second=1.5)(1, second="s")  # expect: tuple[int, str]
Pairs().with_zero(2.5)  # expect: tuple[int, float]
operator.itemgetter(1)(["a", 2])  # expect: int
operator.itemgetter(0, 1)(("a", 2))  # expect: tuple[str, int]

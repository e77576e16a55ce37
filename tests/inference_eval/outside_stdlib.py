"""Well-known standard library modules through their stubs."""

import collections
import copy
import datetime
import enum
import hashlib
import heapq
import itertools
import json
import logging
import os
import os.path
import typing
import pathlib
import random
import re
import sys
import time
import urllib.parse
import uuid
from collections import ChainMap, Counter, defaultdict, deque, namedtuple
from decimal import Decimal
from fractions import Fraction

here = os.path.dirname(os.path.abspath(__file__))

os.path.abspath(".")  # expect: str
os.path.isfile(__file__)  # expect: bool
os.path.getmtime(__file__)  # expect: float
os.path.expanduser("~")  # expect: str
os.path.normpath("a//b")  # expect: str
os.path.relpath(here, "/")  # expect: str
os.path.join(here, "a", "b")  # expect: str
os.path.splitext(__file__)[1]  # expect: str
os.sep  # expect: str
os.getcwd()  # expect: str
os.cpu_count()  # expect: int | None
os.urandom(2)  # expect: bytes
os.stat(here).st_size  # expect: int
os.environ.copy()  # expect: dict[str, str]
os.environ.get("NOPE", "x")  # expect: str
for root, dirs, files in os.walk(here):
    root  # expect: str
    dirs  # expect: list[str]
    files  # expect: list[str]
    break
for entry in os.scandir(here):
    entry.name  # expect: str
    entry.is_dir()  # expect: bool
    break

match = re.search(r"(\d+)", "a12")
match  # expect: re.Match[str] | None
if match:
    match.start()  # expect: int
    match.span()  # expect: tuple[int, int]
    match.group(0)  # expect: str
for found in re.finditer("a", "aa"):
    found  # expect: re.Match[str]
pattern = re.compile(r"\w+", re.IGNORECASE)
pattern.pattern  # expect: str
pattern.sub("-", "a b")  # expect: str
pattern.fullmatch("ab")  # expect: re.Match[str] | None
re.compile(b"a").match(b"a")  # expect: re.Match[bytes] | None
re.split(",", "a,b")  # expect: list[str]
re.subn("a", "b", "aa")  # expect: tuple[str, int]

json.dumps({"a": 1})  # expect: str
json.dumps([1], indent=2).splitlines()  # expect: list[str]
json.JSONDecoder()  # expect: json.decoder.JSONDecoder

counter = Counter(["a", "b", "a"])
counter["a"]  # expect: int
counter.most_common(1)[0]  # expect: tuple[str, int]
counter + counter  # expect: collections.Counter[str]
counter.total()  # expect: int
groups: defaultdict[str, list[int]] = defaultdict(list)
groups["a"]  # expect: list[int]
groups["a"].append(1)  # expect: None
queue = deque([1, 2])
queue.popleft()  # expect: int
queue.appendleft(0)  # expect: None
queue[0]  # expect: int
ordered = collections.OrderedDict([("a", 1.5)])
ordered.popitem()  # expect: tuple[str, float]
ChainMap({"a": 1})["a"]  # expect: int
Pair = namedtuple("Pair", ["left", "right"])
Pair(1, 2)  # expect: Pair

list(itertools.chain([1], [2]))  # expect: list[int]
itertools.chain([1], [2])  # expect: itertools.chain[int]
list(itertools.islice("abc", 2))  # expect: list[str]
next(itertools.count())  # expect: int
for num, letter in itertools.product([1], "a"):
    num  # expect: int
    letter  # expect: str
for perm in itertools.permutations([1, 2]):
    perm  # expect: tuple[int, ...]
for combo in itertools.combinations([1, 2], 2):
    combo  # expect: tuple[int, int]
for key, grp in itertools.groupby("aab"):
    key  # expect: str
list(itertools.accumulate([1, 2]))  # expect: list[int]
list(itertools.repeat("a", 2))  # expect: list[str]
list(itertools.zip_longest([1], [2]))  # expect: list[tuple[int | None, int | None]]
list(itertools.takewhile(bool, [1]))  # expect: list[int]
list(itertools.starmap(pow, [(2, 3)]))  # expect: list[int]

cwd = pathlib.Path.cwd()
cwd  # expect: pathlib.Path
pathlib.Path.home()  # expect: pathlib.Path
cwd.stem  # expect: str
cwd.suffixes  # expect: list[str]
cwd.with_suffix(".x")  # expect: pathlib.Path
cwd.joinpath("a", "b")  # expect: pathlib.Path
cwd.resolve()  # expect: pathlib.Path
cwd.is_file()  # expect: bool
cwd.parts  # expect: tuple[str, ...]
cwd.as_posix()  # expect: str
cwd.stat().st_mtime  # expect: float
pathlib.Path(__file__).read_bytes()  # expect: bytes
pathlib.Path(__file__).open()  # expect: _io.TextIOWrapper
for child in cwd.iterdir():
    child  # expect: pathlib.Path
    break
for hit in pathlib.Path(here).glob("*.py"):
    hit  # expect: pathlib.Path
    break
str(cwd)  # expect: str
cwd.parents[0]  # expect: pathlib.Path
pathlib.PurePosixPath("a").name  # expect: str

now = datetime.datetime.now()
now.date()  # expect: datetime.date
now.time()  # expect: datetime.time
now.timestamp()  # expect: float
now + datetime.timedelta(hours=1)  # expect: datetime.datetime
now.replace(year=2000)  # expect: datetime.datetime
now.strftime("%Y")  # expect: str
now.weekday()  # expect: int
now.tzinfo  # expect: datetime.tzinfo | None
datetime.datetime.strptime("2020", "%Y")  # expect: datetime.datetime
datetime.datetime.fromtimestamp(0)  # expect: datetime.datetime
datetime.date(2020, 1, 2).isoformat()  # expect: str
datetime.date.fromisoformat("2020-01-02")  # expect: datetime.date
datetime.timedelta(days=1).total_seconds()  # expect: float
datetime.timedelta(days=1) * 2  # expect: datetime.timedelta
datetime.timedelta(days=1) / datetime.timedelta(hours=1)  # expect: float
datetime.timezone.utc  # expect: datetime.timezone
datetime.datetime.now(datetime.timezone.utc)  # expect: datetime.datetime

time.time()  # expect: float
time.monotonic()  # expect: float
time.perf_counter()  # expect: float
time.sleep(0)  # expect: None
time.strftime("%Y")  # expect: str
random.random()  # expect: float
random.randint(1, 2)  # expect: int
random.choice(["a"])  # expect: str
random.sample([1, 2], 1)  # expect: list[int]
random.shuffle([1])  # expect: None
random.uniform(1, 2)  # expect: float
sys.argv  # expect: list[str]
sys.platform  # expect: str
sys.maxsize  # expect: int
sys.path  # expect: list[str]
sys.version_info.major  # expect: int
sys.modules  # expect: dict[str, types.ModuleType]
hashlib.sha256(b"a").hexdigest()  # expect: str
hashlib.md5(b"a").digest()  # expect: bytes
uuid.uuid4()  # expect: uuid.UUID
uuid.uuid4().hex  # expect: str
urllib.parse.urlparse("http://x/y")  # expect: urllib.parse.ParseResult
urllib.parse.urlparse("http://x/y").netloc  # expect: str
urllib.parse.quote("a b")  # expect: str
urllib.parse.urlencode({"a": 1})  # expect: str
logging.getLogger("x")  # expect: logging.Logger
logging.getLogger("x").info("m")  # expect: None
copy.copy([1])  # expect: list[int]
copy.deepcopy({"a": [1]})  # expect: dict[str, list[int]]
heapq.heappop([3, 1])  # expect: int
heapq.nlargest(1, [1.5])  # expect: list[float]
Decimal("1.5") + 1  # expect: decimal.Decimal
Fraction(1, 2) * 2  # expect: fractions.Fraction

# Named tuples made by a call: fields by name and position, methods of
# typing's NamedTuple that give the same class, a class deriving from one.
Pair = collections.namedtuple("Pair", "left right")
Typed = typing.NamedTuple("Typed", [("code", int), ("label", str)])


class Span(collections.namedtuple("Span", ["start", "end"])):
    def Width(self):
        return 2.5


Pair(1, 2)  # expect: Pair
Pair(1, 2)._replace(left=3)  # expect: Pair
Typed(1, "a").label  # expect: str
Typed(1, "a")[0]  # expect: int
Typed._make([1, "a"])  # expect: Typed
Span(1, 2).Width()  # expect: float
Span(1, 2)._replace(end=3)  # expect: Span

# Enumerations made by a call: members by name, their values.
Shade = enum.Enum("Shade", "LIGHT DARK")
Mode = enum.Flag("Mode", ["READ", "WRITE"])
Level = enum.IntEnum("Level", [("LOW", 1), ("HIGH", 2)])
Shade.DARK  # expect: Shade
Shade.DARK.value  # expect: int
Mode.WRITE  # expect: Mode
Level["LOW"]  # expect: Level

"""Loops, unpacking, comprehensions, generators and with-statements."""

import contextlib
from typing import Generator, Iterator

ages = {"ann": 31, "bob": 42}
words = ["alpha", "beta"]
scores = [1.5, 2.5]

for name, age in ages.items():
    name  # expect: str
    age  # expect: int
for key in ages.keys():
    key  # expect: str
for age2 in ages.values():
    age2  # expect: int
for index, word in enumerate(words):
    index  # expect: int
    word  # expect: str
for index2, word2 in enumerate(words, start=1):
    word2  # expect: str
for word3, score in zip(words, scores):
    word3  # expect: str
    score  # expect: float
for score2 in reversed(scores):
    score2  # expect: float
for word4 in sorted(words, key=len):
    word4  # expect: str
for i in range(2):
    i  # expect: int
for (left, right), weight in [((1, "one"), 0.5)]:
    left  # expect: int
    right  # expect: str
    weight  # expect: float
for ch in "ab":
    ch  # expect: str
for byte in b"ab":
    byte  # expect: int
for line in open(__file__):
    line  # expect: str
    break
for item in {1.5, 2.5}:
    item  # expect: float
for pair in [(1, "a")]:
    pair  # expect: tuple[int, str]
for k, values in {"a": [1]}.items():
    values  # expect: list[int]
    for v in values:
        v  # expect: int

first, *rest = [1, 2, 3]
first  # expect: int
rest  # expect: list[int]
head, *middle, tail = "abc"
tail  # expect: str
a, b = 1, "x"
a  # expect: int
b  # expect: str
c, (d, e) = 1.5, (True, b"z")
d  # expect: bool
e  # expect: bytes
x, y = y_x = (3, 4)
y_x  # expect: tuple[int, int]
n1, n2 = divmod(9, 4)
n2  # expect: int

[w.upper() for w in words]  # expect: list[str]
[len(w) for w in words]  # expect: list[int]
[s * 2 for s in scores]  # expect: list[float]
{w: len(w) for w in words}  # expect: dict[str, int]
{len(w) for w in words}  # expect: set[int]
[(i, w) for i, w in enumerate(words)]  # expect: list[tuple[int, str]]
{k2: v2 for k2, v2 in ages.items()}  # expect: dict[str, int]
[c2 for w in words for c2 in w]  # expect: list[str]
[n for n in range(5) if n % 2]  # expect: list[int]
[[0] * 2 for _ in range(2)]  # expect: list[list[int]]
sum(len(w) for w in words)  # expect: int
list(s / 2 for s in scores)  # expect: list[float]
max(len(w) for w in words)  # expect: int
dict(zip(words, scores))  # expect: dict[str, float]
list(zip(words, scores))  # expect: list[tuple[str, float]]
list(enumerate(words))  # expect: list[tuple[int, str]]
list(map(len, words))  # expect: list[int]
list(filter(None, scores))  # expect: list[float]
next(iter(ages.items()))  # expect: tuple[str, int]
",".join(w for w in words)  # expect: str
any(w.startswith("a") for w in words)  # expect: bool


def Numbers():
    yield 1
    yield 2


def Countdown(n: int) -> Iterator[int]:
    while n > 0:
        yield n
        n -= 1


def Echo() -> Generator[str, int, bool]:
    got = yield "ready"
    got  # expect: int
    yield "again"
    return True


def Delegate():
    yield from Numbers()
    yield "done"


for number in Numbers():
    number  # expect: int
for count in Countdown(2):
    count  # expect: int
list(Numbers())  # expect: list[int]
next(Countdown(3))  # expect: int
echo = Echo()
next(echo)  # expect: str
echo.send(5)  # expect: str
for got2 in Delegate():
    got2  # expect: int | str


def Ticks():
    yield
    yield


def Relay():
    yield from Ticks()
    yield from [b"x"]
    return "finished"  # what it finishes with, not an item


next(Ticks())  # expect: None
for relayed in Relay():
    relayed  # expect: bytes | None


def Forward():
    outcome = yield from Relay()
    outcome  # expect: str
    yield outcome


class Ready:
    def __await__(self):
        yield
        return 3.5


async def Wait():
    waited = await Ready()
    waited  # expect: float


list(Forward())
pending = Wait()
pending.send(None)
try:
    pending.send(None)
except StopIteration:
    pass


class Session:
    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return False

    def Query(self) -> list[str]:
        return []


class Opened:
    def __enter__(self) -> int:
        return 7

    def __exit__(self, *exc) -> None:
        return None


@contextlib.contextmanager
def Managed() -> Iterator[str]:
    yield "resource"


with Session() as session:
    session  # expect: Session
    session.Query()  # expect: list[str]
with Opened() as fd:
    fd  # expect: int
with Managed() as res:
    res  # expect: str
with open(__file__) as fh:
    fh  # expect: _io.TextIOWrapper
    fh.readline()  # expect: str
with open(__file__, "rb") as fb:
    fb.read(1)  # expect: bytes
with Session() as s1, Opened() as s2:
    s1  # expect: Session
    s2  # expect: int
if (size := len(words)) > 1:
    size  # expect: int

"""Flow: the assignment that reaches a line, reassignment, augmented
assignment, tuple unpacking, with-as, for targets over hinted iterables,
the walrus operator and what an `assert` tells."""

import dataclasses
import io
import types
from typing import ClassVar, Iterable, Iterator, NamedTuple

value = 1
value  # expect: int
value = "now text"
value  # expect: str
value = [1.5]
value  # expect: list[float]
value = None
value  # expect: None

total = 1
total += 2
total  # expect: int
total = 1
total += 0.5
total  # expect: float
words = ["a"]
words += ["b"]
words  # expect: list[str]
text = "ab"
text *= 3
text  # expect: str
bits = 6
bits //= 4
bits  # expect: int
fraction = 7
fraction /= 2
fraction  # expect: float
joined = "x"
joined += "y"
joined  # expect: str

first, second = 1, "two"
first  # expect: int
second  # expect: str
(left, right) = ("l", 2.0)
left  # expect: str
right  # expect: float
[p, q] = [True, None]
p  # expect: bool
q  # expect: None
head, *rest = [1, 2, 3]
head  # expect: int
rest  # expect: list[int]
*init, last = "abc"
init  # expect: list[str]
last  # expect: str
(a1, (b1, c1)) = (1, ("b", 3.0))
a1  # expect: int
b1  # expect: str
c1  # expect: float
m = n = 4
m  # expect: int
n  # expect: int
swap_a, swap_b = "s", 5
swap_a, swap_b = swap_b, swap_a
swap_a  # expect: int
swap_b  # expect: str


def Pair() -> tuple[int, str]:
    return 1, "a"


num, name = Pair()
num  # expect: int
name  # expect: str

# A declaration holds past later settings of the name, loop targets too
# (not before it: `total` above).
total: float = 0
total = 2.5
total  # expect: float
label: str
for label in ["a", "b"]:
    label  # expect: str


def Constant():
    # A branch a constant test can't take never runs.
    if 0:
        return "never"
    elif True:
        result = 1.5
    else:
        result = b"never"
    return result


Constant()  # expect: float


def Pieces():
    yield 1
    yield 2.5


# Unpacking takes the items of any iterable, one by one: a generator's
# yields in the body itself come in their order.
low, high = Pieces()
low  # expect: int
high  # expect: float
x_pos, y_pos = map(int, "3 4".split())
y_pos  # expect: int
one, two = {b"a", b"b"}
two  # expect: bytes


class Resource:
    def __enter__(self) -> "Resource":
        return self

    def __exit__(self, *exc) -> None:
        return None


class Opener:
    def __enter__(self) -> int:
        return 42

    def __exit__(self, *exc) -> None:
        return None


with Resource() as res:
    res  # expect: Resource
with Opener() as got:
    got  # expect: int
with Resource() as r1, Opener() as r2:
    r1  # expect: Resource
    r2  # expect: int
with io.StringIO("data") as stream:
    stream  # expect: _io.StringIO
    stream.read()  # expect: str


def Loops(numbers: list[int], names: Iterable[str], pairs: dict[str, float],
          it: Iterator[bytes], grid: list[tuple[int, str]]):
    for item in numbers:
        item  # expect: int
    for nm in names:
        nm  # expect: str
    for key in pairs:
        key  # expect: str
    for key2, val in pairs.items():
        key2  # expect: str
        val  # expect: float
    for v2 in pairs.values():
        v2  # expect: float
    for chunk in it:
        chunk  # expect: bytes
    for x, y in grid:
        x  # expect: int
        y  # expect: str
    for i, nm2 in enumerate(names):
        i  # expect: int
        nm2  # expect: str
    for ch in "text":
        ch  # expect: str
    for k in range(3):
        k  # expect: int
    for b in b"xy":
        b  # expect: int


def Branches(flag: bool):
    if flag:
        result = 1
    else:
        result = "one"
    result  # expect: int | str
    maybe = None
    if flag:
        maybe = 2.0
    maybe  # expect: float | None
    while flag:
        looped = [1]
        break
    else:
        looped = (1,)
    looped  # expect: list[int] | tuple[int]
    try:
        attempt = int("3")
    except ValueError:
        attempt = None
    attempt  # expect: int | None
    chosen = 1
    if flag:
        chosen = "s"
    elif (seen := chosen):  # an elif tests after the earlier tests failed
        seen  # expect: int


def Reassigned():
    data = "first"
    data  # expect: str
    data = 2
    data  # expect: int
    data = data + 1.5
    data  # expect: float


def Walrus(values: list[int]):
    if (size := len(values)) > 1:
        size  # expect: int
    (w := "walrus")  # expect: str
    w  # expect: str
    [y := 5, y * 2]  # expect: list[int]
    y  # expect: int
    found = [z for v in values if (z := v * 2)]
    found  # expect: list[int]
    z  # expect: int


def Asserted(item: int | str, parts: list[bytes] | None):
    assert isinstance(item, str), "text only"
    item  # expect: str
    assert parts is not None
    parts  # expect: list[bytes]
    item = 3  # the hint still declares what it holds
    item  # expect: int | str


def Echo(text: str) -> str:
    return text


callback = Echo
assert isinstance(callback, types.FunctionType)
callback("a")  # expect: str
bound = io.StringIO().getvalue
assert isinstance(bound, (types.MethodType, types.BuiltinMethodType))
bound()  # expect: str


def Classified(value):
    """Nothing is known of `value` here (no hint, callers not read): the
    tests around a use still tell its class."""
    if isinstance(value, str):
        value  # expect: str
    elif isinstance(value, (int, bytes)):
        value  # expect: bytes | int


def Injected():
    """`injected` is set where no scan sees it (through globals()): the
    tests around a use still tell its class."""
    if isinstance(injected, str):  # noqa: F821
        injected  # expect: str
    assert isinstance(injected, (str, bytes))  # noqa: F821
    injected  # expect: bytes | str


def ConstantBranches():
    """A branch whose test is a constant that can't take it never runs: the
    other branches of its chain set the name surely."""
    kind = []
    if 0:
        kind = ""
    else:
        kind = 1.5
    kind  # expect: float
    mode = b""
    if 1:
        mode = 2
    else:
        mode = None
    mode  # expect: int
    level = b""
    if 2 == 3:
        level = ""
    elif "a" != "b" and not None:
        level = 1
    level  # expect: int


class Cached:
    slot = None

    def fill(self):
        if not self.slot:
            self.slot = b""
            self.slot  # expect: bytes
        self.count = 0
        self.count  # expect: int
        for _ in range(2):
            self.count = "n"
            self.count  # expect: str
        self.count  # expect: int | str
        self.items = []
        self.items.append(1.5)
        self.items  # expect: list[float]
        return self.slot


def Drained(queue: list[int], mode: int | str):
    """After a `while` that no `break` leaves, its condition is false."""
    item = queue.pop() if queue else None
    while item is not None:
        item = queue.pop() if queue else None
    item  # expect: None
    while isinstance(mode, int):
        if mode > 3:
            break
        mode = str(mode)
    mode  # expect: int | str


def Matched(shape: int | str | None):
    """A case's pattern tests the subject (class patterns, None, literals);
    a later case runs when the earlier ones failed."""
    match shape:
        case int():
            shape  # expect: int
        case None:
            shape  # expect: None
        case "square" if len(shape) > 3:
            shape  # expect: str
        case _:
            shape  # expect: str


class Box:
    def __init__(self, size: int):
        self.size = size


def Captured(point: tuple[int, str], record: dict[str, float], value: int | str | Box):
    """What a case's pattern binds: the subject, its items, its attributes."""
    match point:
        case (x, label):
            x  # expect: int
            label  # expect: str
    match record:
        case {"w": w}:
            w  # expect: float
    match record.get("w"):
        case found:
            found  # expect: float | None
    match value:
        case str(text):
            text  # expect: str
        case Box(size=size) as box:
            size  # expect: int
            box  # expect: Box
        case other:
            other  # expect: Box | int


@dataclasses.dataclass
class Span:
    start: int
    label: str
    unit: ClassVar[float] = 1.0


class Pair(NamedTuple):
    left: bytes
    right: float


class Sized:
    __match_args__ = ("size",)

    def __init__(self, size: complex):
        self.size = size


def ByPosition(value: Span | Pair | Sized):
    """A class pattern's positional parts match the attributes its
    __match_args__ names: a dataclass's and a NamedTuple's are their fields."""
    match value:
        case Span(first, name):
            first  # expect: int
            name  # expect: str
        case Pair(_, right):
            right  # expect: float
        case Sized(size):
            size  # expect: complex


def KnownValues(value):
    """A test that a known value can't meet rules its branch out, whichever
    side of an `or` it takes."""
    if isinstance(value, int) and value == 1 or value is True:
        return "one"
    return 0.5


KnownValues(2)  # expect: float
KnownValues(1.5)  # expect: float


def Unreachable():
    return ""
    return b""  # past a return: never runs


Unreachable()  # expect: str


def _main():
    for shape in (1, None, "square", "o"):
        Matched(shape)
    for value in ("t", Box(1), 3):
        Captured((1, "a"), {"w": 1.5}, value)
    for value in (Span(1, "s"), Pair(b"", 1.5), Sized(1j)):
        ByPosition(value)
    Drained([1, 2], 1)
    ConstantBranches()
    globals()["injected"] = "s"
    Injected()
    Classified("s")
    Classified(1)
    Loops([1, 2], ["a"], {"k": 1.0}, iter([b"c"]), [(1, "a")])
    Branches(True)
    Branches(False)
    Reassigned()
    Walrus([1, 2])
    Asserted("x", [b"a"])
    Cached().fill()


if __name__ == "__main__":
    _main()

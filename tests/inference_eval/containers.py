"""Subscripts and iteration of hinted containers, of containers built from
displays, and of empty containers that later use fills."""

import collections
from typing import Dict, Iterable, Iterator, List, Mapping, Optional, Sequence, Tuple


class Point:
    def __init__(self, x: int, y: int) -> None:
        self.x = x
        self.y = y


def Subscripts(ints: list[int], names: List[str], table: dict[str, Point],
               counts: Dict[str, int], pair: tuple[int, str], many: Tuple[float, ...],
               nested: list[list[int]], by_name: Mapping[str, list[Point]],
               seq: Sequence[bytes], maybe: Optional[list[int]], text: str, raw: bytes) -> None:
    ints[0]  # expect: int
    ints[-1]  # expect: int
    ints[1:]  # expect: list[int]
    names[0]  # expect: str
    names[0].upper()  # expect: str
    table["k"]  # expect: Point
    table["k"].x  # expect: int
    counts["k"]  # expect: int
    pair[0]  # expect: int
    pair[1]  # expect: str
    many[0]  # expect: float
    nested[0]  # expect: list[int]
    nested[0][0]  # expect: int
    by_name["k"]  # expect: list[Point]
    by_name["k"][0]  # expect: Point
    by_name["k"][0].y  # expect: int
    seq[0]  # expect: bytes
    text[0]  # expect: str
    raw[0]  # expect: int
    raw[0:1]  # expect: bytes
    if maybe:
        maybe[0]  # expect: int
    table.get("k")  # expect: Point | None
    len(ints)  # expect: int
    ints.count(1)  # expect: int
    sorted(names)  # expect: list[str]
    list(table)  # expect: list[str]
    dict(counts)  # expect: dict[str, int]
    set(names)  # expect: set[str]
    tuple(ints)  # expect: tuple[int, ...]
    max(ints)  # expect: int


def Iteration(points: list[Point], table: dict[str, Point], it: Iterator[int],
              src: Iterable[tuple[str, int]]) -> None:
    for point in points:
        point  # expect: Point
        point.x  # expect: int
    for name in table:
        name  # expect: str
    for point2 in table.values():
        point2.y  # expect: int
    numbers = [n * 2 for n in it]
    numbers  # expect: list[int]
    for row in [src]:
        for label, value in row:
            label  # expect: str
            value  # expect: int
    for index, (key3, point3) in enumerate(sorted(table.items())):
        key3  # expect: str
        point3  # expect: Point
    for a, b in zip(points, "ab"):
        a  # expect: Point
        b  # expect: str
    for point4 in reversed(points):
        point4  # expect: Point
    for point5 in sorted(points, key=lambda p: p.x):
        point5  # expect: Point
    [p.x for p in points]  # expect: list[int]
    {p.x: p for p in points}  # expect: dict[int, Point]
    next(iter(points))  # expect: Point


ints = [1, 2, 3]
words = ["a", "b"]
mixed = [1, "a"]
mapping = {"a": 1, "b": 2}
nested = {"k": [1.5]}
pairs = [(1, "a")]
empty_list = []
empty_dict = {}
coords = (1, 2.0, "z")

ints  # expect: list[int]
ints[0]  # expect: int
words[1]  # expect: str
mixed  # expect: list[int | str]
mixed[0]  # expect: int
mixed[-1]  # expect: str
mixed[len(words) - 1]  # expect: int | str
mapping  # expect: dict[str, int]
mapping["a"]  # expect: int
nested["k"]  # expect: list[float]
nested["k"][0]  # expect: float
pairs[0]  # expect: tuple[int, str]
pairs[0][1]  # expect: str
coords[0]  # expect: int
coords[1]  # expect: float
coords[2]  # expect: str
coords[0:2]  # expect: tuple[int, float]
empty_list  # expect: list
empty_dict  # expect: dict
{1: "a"}[1]  # expect: str
{"n": 1, "s": "a"}["s"]  # expect: str
{"n": 1, "s": "a"}["n".strip()]  # expect: int | str
{"n": 1, "n": "a"}["n"]  # expect: str
{"s": "a", **mapping}["s"]  # expect: int | str
{**mapping, "s": "a"}["s"]  # expect: str
at = 1
coords[at]  # expect: float
coords[3 - 2]  # expect: float
coords[-7 // 3]  # expect: int
coords[7 % -3]  # expect: float
[1.5][0]  # expect: float
"abc"[::-1]  # expect: str
for w in words:
    w  # expect: str
for key, count in mapping.items():
    key  # expect: str
    count  # expect: int
for one, letter in pairs:
    one  # expect: int
    letter  # expect: str


def GrownByUse():
    """An empty container holds what the scope later puts in it."""
    items = []
    items.append(1)
    items  # expect: list[int]
    table = {}
    table["k"] = 1.5
    table  # expect: dict[str, float]
    table["k"]  # expect: float
    seen = set()
    seen.add("a")
    seen  # expect: set[str]
    more = list()
    more.extend([b"x"])
    more.insert(0, b"y")
    more[0]  # expect: bytes
    counts = dict()
    counts.update({"a": 1})
    counts.setdefault("b", 2)
    counts  # expect: dict[str, int]
    squares = []
    for n in range(3):
        squares.append(n * n)
    squares  # expect: list[int]
    queue = collections.deque()
    queue.appendleft("q")
    queue  # expect: collections.deque[str]
    shown = [1]  # a display holds its items and what is put in later
    shown.append("a")
    shown.count(2.5)
    shown  # expect: list[int | str]
    shown[0]  # expect: int
    shown[1]  # expect: int | str
    placed = [1, "a"]
    placed[0] = "b"
    placed[0]  # expect: str
    moved = [1, "a"]
    moved.insert(0, "b")
    moved[1]  # expect: int | str
    keyed = {"n": 1}
    keyed["s"] = "a"
    keyed["s"]  # expect: str
    keyed["n"]  # expect: int
    held = {1.5}
    held.add(2)
    held  # expect: set[float | int]
    copied = list(held)  # a new list, grown as a display is
    copied.append("s")
    copied  # expect: list[float | int | str]
    named = dict({"n": 1, "s": ""}, n=2.5)  # keys told apart, as a display's
    named["n"]  # expect: float
    named["s"]  # expect: str
    # A comprehension over items known one by one keeps them apart.
    [n * 2 for n in (1, "a")][1]  # expect: str
    [(k, v) for k in (1,) for v in ("x", 2.5)][1]  # expect: tuple[int, float]
    start, end = (n for n in ("a", 1))
    end  # expect: int
    first_key, _second_key = {"k": 1, "j": 2.5}  # unpacking a dict gives its keys
    first_key  # expect: str
    {"ab": 1, "c": ""}[r"a" "b"]  # expect: int
    items = []  # set again: the earlier appends don't count
    items.append("s")
    items  # expect: list[str]
    return squares


def _main():
    GrownByUse()[0]  # expect: int
    Subscripts([1, 2], ["n"], {"k": Point(1, 2)}, {"k": 1}, (1, "s"), (1.0,), [[1]],
               {"k": [Point(0, 0)]}, [b"b"], [3], "t", b"r")
    Iteration([Point(1, 2)], {"k": Point(3, 4)}, iter([1]), [("s", 1)])


if __name__ == "__main__":
    _main()

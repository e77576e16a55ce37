"""Type hints: Optional, unions, generic containers, tuples, Callable,
string forward references, TypeVar through a generic class and function,
Self, aliases and annotated variables; the overload a call takes by the
bounds of type variables, class objects and literal values, the defaults
of type variables, and a protocol's method called with what the other
arguments bind."""

from __future__ import annotations

from typing import (Any, Callable, Dict, Generic, List, Literal, NewType, Optional, Protocol,
                    Sequence, Tuple, TypeVar, Union, overload)

from typing_extensions import TypeVar as TypeVarWithDefault

try:
    from typing import Self
except ImportError:  # older interpreters
    from typing_extensions import Self

T = TypeVar("T")
K = TypeVar("K")
V = TypeVar("V")


class Item:
    def __init__(self, weight: float = 1.0) -> None:
        self.weight = weight


class Box(Generic[T]):
    def __init__(self, content: T) -> None:
        self.content = content

    def Get(self) -> T:
        return self.content

    def Pair(self) -> tuple[T, T]:
        return self.content, self.content

    def Listed(self) -> list[T]:
        return [self.content]


class Table(Generic[K, V]):
    def __init__(self, key: K, value: V) -> None:
        self.key = key
        self.value = value

    def Key(self) -> K:
        return self.key

    def Value(self) -> V:
        return self.value


class Builder:
    def __init__(self) -> None:
        self.parts: list[str] = []

    def Add(self, part: str) -> Self:
        self.parts.append(part)
        return self


class FancyBuilder(Builder):
    def Fancy(self) -> int:
        return 1


def First(items: Sequence[T]) -> T:
    return items[0]


def Wrap(value: T) -> list[T]:
    return [value]


Number = Union[int, float]
Names = List[str]


def Hints(a: int, b: Optional[str], c: int | None, d: Union[int, str], e: list[int],
          f: List[Item], g: dict[str, Item], h: Dict[str, int], i: tuple[int, str],
          j: Tuple[float, ...], k: Callable[[int], str], m: "Item", n: Item | None,
          o: Number, p: Names, q: Any, r: Callable[..., Item], s: set[bytes],
          t: type[Item], u: tuple[()], v: "list[Item]") -> None:
    a  # expect: int
    b  # expect: str | None
    c  # expect: int | None
    d  # expect: int | str
    e  # expect: list[int]
    f  # expect: list[Item]
    g  # expect: dict[str, Item]
    h  # expect: dict[str, int]
    i  # expect: tuple[int, str]
    j  # expect: tuple[float, ...]
    k(1)  # expect: str
    m  # expect: Item
    m.weight  # expect: float
    n  # expect: Item | None
    o  # expect: int | float
    p  # expect: list[str]
    r()  # expect: Item
    s  # expect: set[bytes]
    t  # expect: type[Item]
    t()  # expect: Item
    u  # expect: tuple[()]
    v  # expect: list[Item]
    v[0]  # expect: Item
    if n is not None:
        n.weight  # expect: float


def Variables() -> None:
    counter: int = 0
    counter  # expect: int
    title: str
    title = "t"
    title  # expect: str
    maybe: Optional[Item] = None
    maybe  # expect: Item | None
    items: list[Item] = []
    items  # expect: list[Item]
    lookup: dict[str, list[int]] = {}
    lookup  # expect: dict[str, list[int]]
    later: "Forward" = Forward()
    later  # expect: Forward
    later.Value()  # expect: int
    # An annotation that can name no type declares nothing: the value tells.
    width: 3 * 2 = 1.5
    width  # expect: float
    note: "" = b"n"
    note  # expect: bytes
    label = b"x"  # type: bytes of the label
    label  # expect: bytes
    either: "int | str" = 1
    either  # expect: int | str


class Forward:
    def Value(self) -> int:
        return 1

    def Clone(self) -> "Forward":
        return Forward()

    def Peer(self) -> Forward:
        return self


def MakeForward() -> "Forward":
    return Forward()


def MakeForwardList() -> "list[Forward]":
    return [Forward()]


box = Box(1)
box  # expect: Box[int]
box.Get()  # expect: int
box.content  # expect: int
box.Pair()  # expect: tuple[int, int]
box.Listed()  # expect: list[int]
Box("s").Get()  # expect: str
Box(Item()).Get()  # expect: Item
Box(Item()).Get().weight  # expect: float
hinted_box: Box[str] = Box("x")
hinted_box.Get()  # expect: str
table = Table("k", 2.5)
table.Key()  # expect: str
table.Value()  # expect: float
First([1, 2])  # expect: int
First("ab")  # expect: str
First([Item()])  # expect: Item
Wrap(1.5)  # expect: list[float]
Builder().Add("a")  # expect: Builder
Builder().Add("a").Add("b")  # expect: Builder
Builder().Add("a").parts  # expect: list[str]
FancyBuilder().Add("a")  # expect: FancyBuilder
FancyBuilder().Add("a").Fancy()  # expect: int
MakeForward()  # expect: Forward
MakeForward().Clone()  # expect: Forward
MakeForward().Peer()  # expect: Forward
MakeForwardList()  # expect: list[Forward]
MakeForwardList()[0]  # expect: Forward


# Overloads: a type variable takes only what its bound takes, type[C] only C
# and its subclasses, Literal[True] only True.

class Shape:
    pass


class Circle(Shape):
    pass


ShapeT = TypeVar("ShapeT", bound=Shape)


@overload
def Pick(x: ShapeT) -> list[ShapeT]: ...
@overload
def Pick(x: str) -> int: ...
def Pick(x):
    return [x] if isinstance(x, Shape) else len(x)


@overload
def Make(kind: type[Circle] | tuple[type[Circle], ...]) -> Circle: ...
@overload
def Make(kind: type[Shape] | tuple[type[Shape], ...]) -> Shape: ...
def Make(kind):
    return (kind if isinstance(kind, type) else kind[0])()


class Token:
    pass


@overload
def Open(name: str, *, lock: Literal[True] | Token = True) -> Token: ...
@overload
def Open(name: str, *, lock: Literal[False]) -> None: ...
def Open(name, *, lock=True):
    return None if lock is False else Token()


@overload
def Count(items: Sequence[bool | Literal[0, 1]]) -> int: ...
@overload
def Count(items: Sequence[float]) -> float: ...
def Count(items):
    return sum(items)


Pick(Circle())  # expect: list[Circle]
Pick("circle")  # expect: int
Make(Circle)  # expect: Circle
Make(Shape)  # expect: Shape
Make((Shape,))  # expect: Shape
Make((Circle,))  # expect: Circle
Open("a")  # expect: Token
Open("a", lock=Token())  # expect: Token
Open("a", lock=False)  # expect: None
Count([True, 1])  # expect: int
Count([0.5, 1])  # expect: float

# A type variable nothing binds stands for its default.

PayloadT = TypeVarWithDefault("PayloadT", default=str)


class Envelope(Generic[PayloadT]):
    def __init__(self, payload=None) -> None:
        self.payload = payload

    def Open(self) -> PayloadT:
        return self.payload


def AnyEnvelope() -> Envelope:
    return Envelope("letter")


AnyEnvelope().Open()  # expect: str
Envelope[int](3).Open()  # expect: int
memoryview(b"ab").cast("b")[0]  # expect: int


# A protocol's method is called with the argument the other parameter binds.

FactorT = TypeVar("FactorT", contravariant=True)
ScaledT = TypeVar("ScaledT", covariant=True)


class SupportsScale(Protocol[FactorT, ScaledT]):
    def Scale(self, factor: FactorT, /) -> ScaledT: ...


def ScaleBy(value: SupportsScale[FactorT, ScaledT], factor: FactorT) -> ScaledT:
    return value.Scale(factor)


class Vector:
    @overload
    def Scale(self, factor: int, /) -> Vector: ...
    @overload
    def Scale(self, factor: str, /) -> str: ...
    def Scale(self, factor, /):
        return self if isinstance(factor, int) else factor


ScaleBy(Vector(), 2)  # expect: Vector
ScaleBy(Vector(), "x")  # expect: str


# Hints are read when used: a class the module makes after the def.
def Link(node: Later, label: "Later") -> Later:
    node  # expect: Later
    label  # expect: Later
    return node


class Later:
    pass


Link(Later(), Later())  # expect: Later


def Noted(count: "how many to make", label: 3 + 3):
    """Annotations that are notes, not types: the call's arguments tell."""
    return count, label


Noted(2, "x")  # expect: tuple[int, str]


UserId = NewType("UserId", int)  # a checker's subclass of int; an int at runtime


def Owner(user: UserId):
    return user


UserId(5)  # expect: int
Owner(UserId(3))  # expect: int


def _main():
    Hints(1, "b", None, "d", [1], [Item()], {"g": Item()}, {"h": 1}, (1, "i"), (1.0, 2.0), str,
          Item(), Item(), 2, ["p"], object(), Item, {b"s"}, Item, (), [Item()])
    Hints(1, None, 3, 4, [], [], {}, {}, (2, "x"), (), lambda x: "", Item(), None, 1.5, [], 1,
          Item, set(), Item, (), [Item()])
    Variables()


if __name__ == "__main__":
    _main()

"""Typing constructs: NamedTuple, TypedDict, dataclasses, Enum, generics
with TypeVar, Protocol, overload, narrowing by isinstance and None."""

import dataclasses
import enum
from dataclasses import dataclass, field
from typing import (Callable, ClassVar, Final, Generic, Iterable, NamedTuple, Optional, Protocol,
                    Sequence, TypedDict, TypeGuard, TypeVar, Union, cast, overload)

from typing_extensions import TypeIs

T = TypeVar("T")
K = TypeVar("K")
V = TypeVar("V")
N = TypeVar("N", int, float)


class Coord(NamedTuple):
    x: int
    y: float = 0.0
    label: str = ""


pt = Coord(1, 2.0)
pt.x  # expect: int
pt.y  # expect: float
pt[0]  # expect: int
pt[2]  # expect: str
pt._replace(x=3)  # expect: Coord
Coord._fields  # expect: tuple[str, ...]
px, py, plabel = pt
px  # expect: int
plabel  # expect: str
len(pt)  # expect: int


class Movie(TypedDict):
    title: str
    year: int


film: Movie = {"title": "Up", "year": 2009}
film["title"]  # expect: str
film["year"]  # expect: int


@dataclass
class Product:
    name: str
    price: float = 0.0
    tags: list[str] = field(default_factory=list)
    kind: ClassVar[str] = "product"

    def Total(self, count: int):
        return self.price * count


@dataclass(frozen=True)
class Pin:
    code: int


prod = Product("pen", 1.5)
prod  # expect: Product
prod.name  # expect: str
prod.price  # expect: float
prod.tags  # expect: list[str]
prod.Total(2)  # expect: float
Product.kind  # expect: str
Pin(3).code  # expect: int
dataclasses.replace(prod, name="ink")  # expect: Product
dataclasses.is_dataclass(prod)  # expect: bool
prod == Product("pen")  # expect: bool


class Color(enum.Enum):
    RED = 1
    GREEN = 2


class Level(enum.IntEnum):
    LOW = 1
    HIGH = 2


class Mode(str, enum.Enum):
    READ = "r"
    WRITE = "w"


class Step(enum.Enum):
    ONE = enum.auto()
    TWO = enum.auto()


Color.RED  # expect: Color
Color.RED.value  # expect: int
Color.RED.name  # expect: str
Color(1)  # expect: Color
Color["GREEN"]  # expect: Color
list(Color)  # expect: list[Color]
for col in Color:
    col  # expect: Color
Level.LOW + 1  # expect: int
Level.HIGH  # expect: Level
Mode.READ.upper()  # expect: str
Mode.WRITE.value  # expect: str
Step.ONE.value  # expect: int
Color.RED is Color.GREEN  # expect: bool


def FirstOf(items: Sequence[T]) -> T:
    return items[0]


def KeysOf(mapping: dict[K, V]) -> list[K]:
    return list(mapping)


def Swap(pair: tuple[K, V]) -> tuple[V, K]:
    return pair[1], pair[0]


def Twice(n: N) -> N:
    return n * 2


def Build(cls: type[T]) -> T:
    return cls()


class Stack(Generic[T]):
    def __init__(self) -> None:
        self.items: list[T] = []

    def Push(self, item: T) -> None:
        self.items.append(item)

    def Pop(self) -> T:
        return self.items.pop()

    def Peek(self) -> Optional[T]:
        return self.items[-1] if self.items else None


class Pairing(Generic[K, V]):
    def __init__(self, key: K, value: V) -> None:
        self.key = key
        self.value = value

    def Flip(self) -> "Pairing[V, K]":
        return Pairing(self.value, self.key)


FirstOf([1, 2])  # expect: int
FirstOf("ab")  # expect: str
FirstOf((1.5, 2.5))  # expect: float
KeysOf({"a": 1})  # expect: list[str]
Swap((1, "a"))  # expect: tuple[str, int]
Twice(2)  # expect: int
Twice(1.5)  # expect: float
Build(Stack)  # expect: Stack
Build(bytearray)  # expect: bytearray
ints = Stack[int]()
ints.Push(1)
ints.Pop()  # expect: int
ints.items  # expect: list[int]
ints.Peek()  # expect: int | None
pairing = Pairing("k", 1.5)
pairing.key  # expect: str
pairing.Flip().key  # expect: float


class SupportsArea(Protocol):
    def Area(self) -> float:
        ...


class HasName(Protocol):
    name: str


class Disc:
    def Area(self) -> float:
        return 3.14


def Sizes(shapes: Iterable[SupportsArea]):
    return [s.Area() for s in shapes]


def NameOf(thing: HasName):
    return thing.name


Sizes([Disc()])  # expect: list[float]
NameOf(prod)  # expect: str


@overload
def Parse(raw: int) -> int: ...
@overload
def Parse(raw: str) -> str: ...
@overload
def Parse(raw: bytes) -> bytes: ...
def Parse(raw):
    return raw


Parse(1)  # expect: int
Parse("a")  # expect: str
Parse(b"a")  # expect: bytes


def Narrow(value: Union[int, str, list[int]], maybe: Optional[str], other: object):
    if isinstance(value, str):
        value  # expect: str
    elif isinstance(value, int):
        value  # expect: int
    else:
        value  # expect: list[int]
    if isinstance(value, (int, str)):
        value  # expect: int | str
    if not isinstance(value, list):
        value  # expect: int | str
    if maybe is not None:
        maybe  # expect: str
    if maybe:
        maybe.upper()  # expect: str
    maybe or "default"  # expect: str
    if isinstance(other, float):
        other  # expect: float
    if callable(other):
        return None
    if type(value) is int:
        value  # expect: int
    return value


def Guarded(value: Optional[int]):
    if value is None:
        return 0
    value  # expect: int
    return value + 1


def IsText(value: object) -> TypeGuard[str]:
    return isinstance(value, str)


def IsNumber(value: object) -> TypeIs[int]:
    return isinstance(value, int)


def Tested(value: Union[int, str, None], kind: type, maybe: Optional[int]):
    """Type guards, issubclass, unions in isinstance, a class's identity,
    comparisons written the other way round or chained."""
    if IsText(value):
        value  # expect: str
    if IsNumber(value):
        value  # expect: int
    else:
        value  # expect: None | str
    if isinstance(value, int | str):
        value  # expect: int | str
    if value.__class__ is int:
        value  # expect: int
    if None is not value == "a":
        value  # expect: str
    if issubclass(kind, bytes):
        kind  # expect: type[bytes]
    if kind is float:
        kind(1)  # expect: float
    if None is not maybe:
        maybe  # expect: int
    if (found := maybe) is not None:
        found  # expect: int
    if value in ("a", "b"):
        value  # expect: str


def Measured(pair: Union[tuple[int, str], tuple[int]], many: tuple[float, ...]):
    """`len(x)` against a number tells tuples apart by their items."""
    if len(pair) == 2:
        pair  # expect: tuple[int, str]
    if 1 >= len(pair):
        pair  # expect: tuple[int]
    if len(many) == 2:
        many  # expect: tuple[float, float]


def Flagged(flag: Union[bool, str]):
    if flag is True:
        flag  # expect: bool
    else:
        flag  # expect: bool | str


def Felt(mood: Union[Color, int]):
    """Members of an enumeration are equal only to themselves."""
    if mood == Color.RED:
        mood  # expect: Color


Narrow("a", "m", 1.5)
Narrow(1, None, 2.5)
Narrow([1], "x", "o")
Guarded(3)  # expect: int
Guarded(None)
Tested("a", bytes, 3)
Tested(1, float, None)
Tested(None, bytes, 1)
Felt(Color.RED)
Flagged(True)
Measured((1, "a"), (1.0, 2.0))
Measured((1,), (1.0,))
Flagged(False)
Flagged("x")
Felt(3)

LIMIT: Final = 10
LIMIT  # expect: int
cast(str, "5")  # expect: str
cast("list[int]", [])  # expect: list[int]
converter: Callable[[str], int] = int
converter("3")  # expect: int

"""More of what analysers' suites ask: generic subclasses, alternative
constructors, dataclass and NamedTuple methods, unpacking displays, match
statements, narrowing of user classes and defaults."""

import dataclasses
import enum
from typing import Generic, Iterator, Literal, NamedTuple, Optional, TypeVar

T = TypeVar("T")
Num = TypeVar("Num", bound=float)


class Box(Generic[T]):
    def __init__(self, item: T) -> None:
        self.item = item

    def Get(self) -> T:
        return self.item


class IntBox(Box[int]):
    def Double(self):
        return self.Get() * 2


class Shape:
    def __init__(self, name: str) -> None:
        self.name = name

    @classmethod
    def Named(cls, name: str):
        return cls(name)

    def Rename(self, name: str):
        self.name = name
        return self


class Circle(Shape):
    def __init__(self, radius: float) -> None:
        super().__init__("circle")
        self.radius = radius


class Mixin:
    def Describe(self) -> str:
        return "mixin"


class Fancy(Mixin, Circle):
    pass


IntBox(3).Get()  # expect: int
IntBox(3).Double()  # expect: int
IntBox(3).item  # expect: int
Box([1.5]).Get()  # expect: list[float]
Shape.Named("s")  # expect: Shape
Circle.Named("c")  # expect: Circle
Circle(1.0).Rename("x")  # expect: Circle
Circle(1.0).name  # expect: str
Fancy(2.0).Describe()  # expect: str
Fancy(2.0).radius  # expect: float
Fancy(2.0).Rename("f")  # expect: Fancy


def Largest(values: list[Num]) -> Num:
    return max(values)


Largest([1.5, 2.5])  # expect: float


@dataclasses.dataclass
class Account:
    owner: str
    balance: float = 0.0
    history: list[float] = dataclasses.field(default_factory=list)

    def __post_init__(self) -> None:
        self.opened = True

    def Deposit(self, amount: float):
        self.balance += amount
        self.history.append(amount)
        return self.balance


@dataclasses.dataclass
class Savings(Account):
    rate: float = 0.01


acct = Account("ann")
acct.opened  # expect: bool
acct.Deposit(5.0)  # expect: float
acct.history[0]  # expect: float
Savings("bob").rate  # expect: float
Savings("bob").owner  # expect: str
dataclasses.asdict(acct)  # expect: dict[str, Any]


class Span(NamedTuple):
    start: int
    end: int

    def Length(self) -> int:
        return self.end - self.start


span = Span(1, 4)
span.Length()  # expect: int
span._asdict()  # expect: dict[str, Any]
Span._make([1, 2])  # expect: Span
start, end = span
end  # expect: int
for bound in span:
    bound  # expect: int


class Suit(enum.Enum):
    HEARTS = "h"
    SPADES = "s"

    def Label(self) -> str:
        return self.value.upper()

    @classmethod
    def Parse(cls, text: str):
        return cls(text)


class Perm(enum.IntFlag):
    READ = 4
    WRITE = 2


class Level(enum.Enum):  # each member keeps its own value
    LOW = 1
    HIGH = "high"


Suit.HEARTS.Label()  # expect: str
Suit.Parse("h")  # expect: Suit
Suit.HEARTS.value  # expect: str
Level.LOW.value  # expect: int
Perm.READ | Perm.WRITE  # expect: Perm
len(Suit)  # expect: int
Suit.SPADES in Suit  # expect: bool

first = [1, 2]
second = [3.5]
[*first, *second]  # expect: list[float | int]
{**{"a": 1}, **{"b": 2}}  # expect: dict[str, int]
(*first,)  # expect: tuple[int, ...]
dict(**{"a": 1})  # expect: dict[str, int]
matrix = [[1, 2], [3, 4]]
list(zip(*matrix))  # expect: list[tuple[int, ...]]
[cell for row in matrix for cell in row if cell > 1]  # expect: list[int]
sorted({"a": 2}.items(), key=lambda kv: kv[1])  # expect: list[tuple[str, int]]
min({"a": 2}, key=len)  # expect: str
next((n for n in first if n > 5), None)  # expect: int | None
list(map(str.upper, ["a"]))  # expect: list[str]
groups: dict[str, list[int]] = {}
groups.setdefault("k", []).append(1)  # expect: None
groups.setdefault("k", [])  # expect: list[int]
type(acct).__name__  # expect: str
1 < 2 < 3  # expect: bool
"a" if first else None  # expect: str | None
"a,b,c".split(",", 1)  # expect: list[str]


def Describe(value: object):
    match value:
        case int():
            return "int"
        case str() as text:
            text  # expect: str
            return text
        case [x, y]:
            return "pair"
        case _:
            return None


Describe(3)  # expect: str | None
Describe("t")


def Pick(kind: Literal["a", "b"], default: Optional[Shape] = None) -> Shape:
    if default is None:
        default = Shape(kind)
    default  # expect: Shape
    return default


Pick("a")  # expect: Shape


def Walk(root: Shape) -> Iterator[Shape]:
    yield root


for node in Walk(Circle(1.0)):
    node  # expect: Shape
    if isinstance(node, Circle):
        node.radius  # expect: float


def Counter():
    total = 0

    def Add(n: int):
        nonlocal total
        total += n
        return total
    return Add


Counter()(2)  # expect: int

try:
    value = int("4")
except ValueError:
    value = None
finally:
    done = True
value  # expect: int | None
done  # expect: bool

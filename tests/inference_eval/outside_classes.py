"""Classes: properties, class and static methods, inheritance and super(),
descriptors, dunder protocols and operators, class against instance
attributes."""

from abc import ABC, abstractmethod
from typing import Iterator


class Temperature:
    scale = "C"
    readings: int = 0

    def __init__(self, degrees: float) -> None:
        self._degrees = degrees
        self.history: list[float] = []

    @property
    def degrees(self) -> float:
        return self._degrees

    @degrees.setter
    def degrees(self, value: float) -> None:
        self._degrees = value

    @property
    def label(self):
        return f"{self._degrees}{self.scale}"

    @classmethod
    def Freezing(cls) -> "Temperature":
        return cls(0.0)

    @classmethod
    def Make(cls):
        return cls(1.0)

    @staticmethod
    def Convert(value: float) -> float:
        return value * 1.8 + 32

    @staticmethod
    def Parse(text):
        return float(text)


t = Temperature(20.0)
t.degrees  # expect: float
t.label  # expect: str
Temperature.Freezing()  # expect: Temperature
Temperature.Make()  # expect: Temperature
t.Make()  # expect: Temperature
Temperature.Convert(1.0)  # expect: float
t.Convert(2.0)  # expect: float
Temperature.Parse("1")  # expect: float
Temperature.scale  # expect: str
t.scale  # expect: str
t.readings  # expect: int
t.history  # expect: list[float]
t._degrees  # expect: float
Temperature.degrees  # expect: property
Temperature.Freezing  # expect: def Temperature.Freezing
t.degrees.hex()  # expect: str
t.__class__  # expect: type[Temperature]
Temperature.__name__  # expect: str


class Animal:
    kind = "animal"

    def __init__(self, name: str) -> None:
        self.name = name

    def Speak(self) -> str:
        return "..."

    def Itself(self):
        return self

    def Legs(self):
        return 4


class Dog(Animal):
    def __init__(self, name: str, breed: str) -> None:
        super().__init__(name)
        self.breed = breed

    def Speak(self):
        return super().Speak() + "!"

    def Parent(self):
        return super()


class Puppy(Dog):
    def Legs(self):
        return super().Legs() + 0


dog = Dog("rex", "lab")
dog.name  # expect: str
dog.breed  # expect: str
dog.kind  # expect: str
dog.Speak()  # expect: str
dog.Itself()  # expect: Dog
dog.Legs()  # expect: int
Puppy("p", "b").Legs()  # expect: int
Puppy("p", "b").Itself()  # expect: Puppy
Puppy("p", "b").breed  # expect: str
dog.Parent().Speak()  # expect: str
isinstance(dog, Animal)  # expect: bool
issubclass(Dog, Animal)  # expect: bool


class Shape(ABC):
    @abstractmethod
    def Area(self) -> float:
        ...

    def Describe(self) -> str:
        return type(self).__name__


class Square(Shape):
    def __init__(self, side: float) -> None:
        self.side = side

    def Area(self):
        return self.side ** 2


def TotalArea(shapes: list[Shape]):
    shapes[0]  # expect: Shape
    shapes[0].Area()  # expect: float
    shapes[0].Describe()  # expect: str
    return sum(s.Area() for s in shapes)


Square(2.0).Area()  # expect: float
TotalArea([Square(1.0)])  # expect: float


class Answer:
    def __get__(self, obj, owner=None) -> int:
        return 42


class Named:
    def __set_name__(self, owner, name):
        self.name = name

    def __get__(self, obj, owner=None):
        return "value"


class UsesDescriptors:
    answer = Answer()
    title = Named()


UsesDescriptors().answer  # expect: int
UsesDescriptors.answer  # expect: int
UsesDescriptors().title  # expect: str


class Vector:
    def __init__(self, x: float, y: float) -> None:
        self.x = x
        self.y = y

    def __add__(self, other: "Vector") -> "Vector":
        return Vector(self.x + other.x, self.y + other.y)

    def __sub__(self, other):
        return Vector(self.x - other.x, self.y - other.y)

    def __mul__(self, k: float) -> "Vector":
        return Vector(self.x * k, self.y * k)

    def __rmul__(self, k: float) -> "Vector":
        return self * k

    def __neg__(self) -> "Vector":
        return self * -1

    def __abs__(self) -> float:
        return (self.x ** 2 + self.y ** 2) ** 0.5

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Vector) and other.x == self.x

    def __lt__(self, other: "Vector") -> bool:
        return abs(self) < abs(other)

    def __len__(self) -> int:
        return 2

    def __getitem__(self, i: int) -> float:
        return (self.x, self.y)[i]

    def __iter__(self) -> Iterator[float]:
        yield self.x
        yield self.y

    def __contains__(self, value: float) -> bool:
        return value in (self.x, self.y)

    def __call__(self, scale: int) -> str:
        return str(scale)

    def __bool__(self) -> bool:
        return True

    def __str__(self) -> str:
        return "v"


v = Vector(1.0, 2.0)
v + v  # expect: Vector
v - v  # expect: Vector
v * 2.0  # expect: Vector
2.0 * v  # expect: Vector
-v  # expect: Vector
abs(v)  # expect: float
v == v  # expect: bool
v < v  # expect: bool
len(v)  # expect: int
v[0]  # expect: float
1.0 in v  # expect: bool
v(3)  # expect: str
str(v)  # expect: str
list(v)  # expect: list[float]
sorted([v, v])  # expect: list[Vector]
for comp in v:
    comp  # expect: float
acc = Vector(0.0, 0.0)
acc += v
acc  # expect: Vector
(v + v).x  # expect: float


class Registry:
    def __init__(self) -> None:
        self._data: dict[str, list[int]] = {}

    def __getitem__(self, key: str) -> list[int]:
        return self._data.setdefault(key, [])

    def __getattr__(self, name: str) -> int:
        return 0


reg = Registry()
reg["a"]  # expect: list[int]
reg["a"][0:1]  # expect: list[int]
reg.anything  # expect: int


class Ticker:
    def __init__(self) -> None:
        self.n = 0

    def __iter__(self):
        return self

    def __next__(self) -> int:
        self.n += 1
        if self.n > 2:
            raise StopIteration
        return self.n


for tick in Ticker():
    tick  # expect: int
next(Ticker())  # expect: int
iter(Ticker())  # expect: Ticker


class Outer:
    class Inner:
        def Value(self) -> bytes:
            return b""

    def MakeInner(self):
        return self.Inner()


Outer.Inner().Value()  # expect: bytes
Outer().MakeInner()  # expect: Outer.Inner


class Counter:
    instances = 0

    def __init__(self) -> None:
        Counter.instances += 1
        self.ident = Counter.instances

    @classmethod
    def Reset(cls) -> None:
        cls.instances = 0


Counter().ident  # expect: int
Counter.instances  # expect: int
Counter.Reset()  # expect: None

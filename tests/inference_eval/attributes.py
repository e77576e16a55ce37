"""Attributes of modules, classes, instances, self and cls; inheritance and
the method resolution order; properties; classmethod and staticmethod; bound
and unbound methods."""

import os
import sys


class Base:
    kind = "base"
    limit = 10

    def __init__(self, size: int) -> None:
        self.size = size
        self.tags: list[str] = []
        self.parent = None

    def Grow(self) -> int:
        self.size  # expect: int
        self.tags  # expect: list[str]
        self.limit  # expect: int
        self  # expect: Base
        self.Grow  # expect: def Base.Grow
        return self.size + 1

    def Describe(self) -> str:
        return str(self.kind)

    @property
    def Double(self) -> int:
        return self.size * 2

    @classmethod
    def Make(cls, size: int):
        cls  # expect: type[Base]
        cls.limit  # expect: int
        return cls(size)

    @classmethod
    def MakeHinted(cls) -> "Base":
        return cls(1)

    @staticmethod
    def Helper(x: int) -> str:
        return str(x)


class Derived(Base):
    kind = 3.5

    def __init__(self, size: int) -> None:
        super().__init__(size)
        self.extra = {"k": 1}

    def Describe(self) -> str:
        super()  # expect: super
        super().Describe()  # expect: str
        self.extra  # expect: dict[str, int]
        self.size  # expect: int
        return "derived"

    def OwnOnly(self) -> bytes:
        return b""


class Left(Base):
    side = "left"

    def Which(self) -> str:
        return "left"


class Right(Base):
    side = 1

    def Which(self) -> int:
        return 1


class Diamond(Left, Right):
    pass


b = Base(1)
d = Derived(2)
dm = Diamond(3)

b  # expect: Base
d  # expect: Derived
b.size  # expect: int
b.tags  # expect: list[str]
b.parent  # expect: None
b.kind  # expect: str
d.kind  # expect: float
d.limit  # expect: int
d.extra  # expect: dict[str, int]
d.size  # expect: int
Base.kind  # expect: str
Derived.kind  # expect: float
Derived.limit  # expect: int
dm.side  # expect: str
dm.Which()  # expect: str
dm.Which  # expect: def Left.Which
Diamond.Which  # expect: def Left.Which
dm.size  # expect: int
dm.kind  # expect: str

b.Grow  # expect: def Base.Grow
b.Grow()  # expect: int
Base.Grow  # expect: def Base.Grow
Base.Grow(b)  # expect: int
d.Grow  # expect: def Base.Grow
d.Describe  # expect: def Derived.Describe
d.Describe()  # expect: str
Derived.Describe  # expect: def Derived.Describe
b.Describe()  # expect: str
d.OwnOnly()  # expect: bytes

b.Double  # expect: int
Base.Double  # expect: property
d.Double  # expect: int

Base.Make  # expect: def Base.Make
Base.Make(1)  # expect: Base
Derived.Make(1)  # expect: Derived
b.Make(2)  # expect: Base
Base.MakeHinted()  # expect: Base
Base.Helper  # expect: def Base.Helper
Base.Helper(1)  # expect: str
b.Helper  # expect: def Base.Helper
b.Helper(2)  # expect: str
Derived.Helper(3)  # expect: str

Base.__name__  # expect: str
b.__class__  # expect: type[Base]

os.sep  # expect: str
os.environ  # expect: os._Environ[str]
sys.argv  # expect: list[str]
sys.path  # expect: list[str]
sys.maxsize  # expect: int
sys.platform  # expect: str
sys.version_info.major  # expect: int


class Node:
    count: int = 0
    label: str

    def __init__(self, label: str) -> None:
        self.label = label
        self.children: list["Node"] = []
        self.next: "Node | None" = None

    def Add(self, child: "Node") -> "Node":
        self.children.append(child)
        return self


n = Node("root")
n.label  # expect: str
n.count  # expect: int
n.children  # expect: list[Node]
n.next  # expect: Node | None
n.Add(Node("x"))  # expect: Node
n.Add(Node("x")).label  # expect: str
Node.count  # expect: int


class Outer:
    class Inner:
        value = 1.0

        def Get(self) -> "Outer.Inner":
            return self

    def MakeInner(self) -> "Outer.Inner":
        return Outer.Inner()


Outer.Inner  # expect: type[Outer.Inner]
Outer.Inner()  # expect: Outer.Inner
Outer().MakeInner()  # expect: Outer.Inner
Outer.Inner.value  # expect: float
Outer.Inner().Get()  # expect: Outer.Inner


class Holder:
    """Attributes set from the constructor's parameters, read per instance."""

    def __init__(self, item, label="none"):
        self.item = item
        self.label = label

    def Item(self):
        return self.item


Holder(1).item  # expect: int
Holder("a").Item()  # expect: str
Holder(1, label=2.5).label  # expect: float
Holder(1).label  # expect: str
either = Holder(1) if len(sys.argv) < 1000 else Holder("a")
either.item  # expect: int | str


class Wrapped:
    """property, staticmethod and classmethod called on a def in the body."""

    def __init__(self):
        self.size = 3

    def Size(self):
        return self.size

    def Double(x):
        return x * 2.0

    def Name(cls):
        return cls.__name__

    size_read = property(Size)
    double = staticmethod(Double)
    name = classmethod(Name)




class Rebound:
    """A name the body sets again: the class holds the last setting."""

    limit = "none"
    limit = 10

    def Twice(count):
        return "twice" * count

    Twice = staticmethod(Twice)


Rebound.limit  # expect: int
Rebound().Twice(2)  # expect: str
Wrapped().size_read  # expect: int
Wrapped.double(1)  # expect: float
Wrapped().double(1)  # expect: float
Wrapped.name()  # expect: str
Wrapped().name()  # expect: str


class Shape:
    @classmethod
    def make(cls):
        return cls()


class Square(Shape):
    pass


class Circle(Shape):
    pass


def Made(kind: type[Square] | type[Circle]):
    """A classmethod reached through either class binds each in turn."""
    kind.make()  # expect: Circle | Square


class Delegate:
    """Any other attribute is the wrapped object's, through getattr."""

    def __init__(self, wrapped):
        self.wrapped = wrapped

    def __getattr__(self, name):
        return getattr(self.wrapped, name)


def Delegated():
    Delegate(Rebound()).Twice(2)  # expect: str
    Delegate(Rebound()).limit  # expect: int


def _main():
    b.Grow()
    d.Grow()
    dm.Grow()
    Base.Make(1)
    Derived.Make(1)
    d.Describe()
    Made(Square)
    Made(Circle)
    Delegated()


if __name__ == "__main__":
    _main()

"""Calls: a class gives an instance, hinted returns, returns inferred from
`return` statements, calls through variables, decorators that keep the
function, chains of calls, calls of instances (their __call__, keyword
arguments included) and of overloads wrapped in decorators."""

import functools
from typing import overload


class Widget:
    def __init__(self, name: str) -> None:
        self.name = name

    def Copy(self) -> "Widget":
        return Widget(self.name)

    def Parts(self):
        return [self.name]

    def Size(self):
        return len(self.name)


def Hinted() -> int:
    return 1


def HintedText() -> str:
    return "x"


def HintedNone() -> None:
    pass


def HintedWidget() -> Widget:
    return Widget("w")


def HintedOptional(flag: bool) -> "Widget | None":
    return Widget("w") if flag else None


def InferredInt():
    return 42


def InferredStr():
    return "text"


def InferredFloat():
    return 1.5 * 2


def InferredList():
    return [1, 2]


def InferredDict():
    return {"a": 1.0}


def InferredTuple():
    return 1, "b"


def InferredWidget():
    return Widget("inferred")


def InferredEither(flag: bool):
    if flag:
        return 1
    return "one"


def InferredMaybe(flag: bool):
    if flag:
        return Widget("w")
    return None


def NoReturn():
    x = 1
    x += 1


def ReturnsArg(value: float):
    return value


def ReturnsCall():
    return Hinted()


def ReturnsOtherInferred():
    return InferredWidget()


def ReturnsClass():
    return Widget


def ReturnsFunction():
    return Hinted


def Keep(fn):
    @functools.wraps(fn)
    def Wrapper(*args, **kwargs):
        return fn(*args, **kwargs)
    return Wrapper


def Recursive(n: int):
    if n <= 0:
        return 0
    return Recursive(n - 1)


def Generator():
    yield 1


@Keep
def Decorated() -> int:
    return 1


Widget  # expect: type[Widget]
Widget("a")  # expect: Widget
Widget("a").name  # expect: str
Widget("a").Copy()  # expect: Widget
Widget("a").Copy().Copy().name  # expect: str
Widget("a").Parts()  # expect: list[str]
Widget("a").Size()  # expect: int
Hinted  # expect: def Hinted
Hinted()  # expect: int
HintedText()  # expect: str
HintedNone()  # expect: None
HintedWidget()  # expect: Widget
HintedWidget().name  # expect: str
HintedOptional(True)  # expect: Widget | None
InferredInt()  # expect: int
InferredStr()  # expect: str
InferredFloat()  # expect: float
InferredList()  # expect: list[int]
InferredDict()  # expect: dict[str, float]
InferredTuple()  # expect: tuple[int, str]
InferredWidget()  # expect: Widget
InferredWidget().name  # expect: str
InferredEither(True)  # expect: int | str
InferredMaybe(True)  # expect: Widget | None
NoReturn()  # expect: None
ReturnsArg(2.0)  # expect: float
ReturnsCall()  # expect: int
ReturnsOtherInferred()  # expect: Widget
ReturnsClass()  # expect: type[Widget]
ReturnsClass()("r")  # expect: Widget
ReturnsFunction()  # expect: def Hinted
ReturnsFunction()()  # expect: int
Recursive(3)  # expect: int
Decorated()  # expect: int
next(Generator())  # expect: int

alias = Hinted
alias  # expect: def Hinted
alias()  # expect: int
factory = Widget
factory("f")  # expect: Widget
maker = InferredWidget
maker().Size()  # expect: int
made = Widget("m")
copy_method = made.Copy
copy_method  # expect: def Widget.Copy
copy_method()  # expect: Widget
int("3")  # expect: int
str(3)  # expect: str
float("1.5")  # expect: float
bool(0)  # expect: bool
list("ab")  # expect: list[str]
dict(a=1)  # expect: dict[str, int]
set([1])  # expect: set[int]
tuple([1])  # expect: tuple[int, ...]
bytes(3)  # expect: bytes
object()  # expect: object
type(made)  # expect: type[Widget]
sorted([3, 1])  # expect: list[int]
max(1, 2)  # expect: int
min("a", "b")  # expect: str
sum([1, 2])  # expect: int
round(1.5)  # expect: int
round(1.25, 1)  # expect: float
divmod(7, 2)  # expect: tuple[int, int]
hash("x")  # expect: int
id(made)  # expect: int
chr(65)  # expect: str
ord("A")  # expect: int
input  # expect: def input
zip([1], ["a"])  # expect: zip[tuple[int, str]]
enumerate(["a"])  # expect: enumerate[str]
range(3)  # expect: range
map(str, [1])  # expect: map[str]
filter(None, [1])  # expect: filter[int]
next(iter([1]))  # expect: int
any([True])  # expect: bool
format(1.0, ".1f")  # expect: str
callable(made)  # expect: bool


class Dispatcher:
    @overload
    def __call__(self, name: str, value: int) -> int: ...
    @overload
    def __call__(self, name: str, *, label: str) -> str: ...
    def __call__(self, name, value=0, *, label=""):
        return label or value


dispatch = Dispatcher()
dispatch("a", 1)  # expect: int
dispatch("a", value=1)  # expect: int
dispatch("a", label="b")  # expect: str


# Overloads wrapped in a decorator are chosen by their own signatures.

@overload
@functools.cache
def Lookup(key: int) -> int: ...
@overload
@functools.cache
def Lookup(key: str) -> str: ...
@functools.cache
def Lookup(key):
    return key


Lookup(1)  # expect: int
Lookup("k")  # expect: str


# `*args` passed on gives the callee the positions the call passed.

def Pair(first, second):
    return first, second


def Forward(*args):
    return Pair(*args)


def ForwardAfter(head, *rest):
    return Pair(head, *rest)


Forward("a", 1)[0]  # expect: str
Forward("a", 1)[1]  # expect: int
ForwardAfter(1.5, b"x")[1]  # expect: bytes
Pair(*(1, "b"))[1]  # expect: str
PAIR_ARGS = (2.5, b"y")
Pair(*PAIR_ARGS)[1]  # expect: bytes
Pair(*[1, "c"])[1]  # expect: str


# `**kwargs` passed on gives the callee the keywords the call passed, by name;
# a parameter none of them names keeps its default.

def Labelled(value, label="", scale=1):
    return value, label, scale


def ForwardKeywords(**options):
    return Labelled(**options)


def ForwardBoth(*args, **options):
    return ForwardKeywords(*args, **options)


def Collect(**options):
    return options


ForwardKeywords(value=1.5, label=b"x")[0]  # expect: float
ForwardKeywords(value=1.5, label=b"x")[1]  # expect: bytes
ForwardKeywords(value=1.5)[2]  # expect: int
ForwardBoth(label=2, value="v")[1]  # expect: int
Collect(a=1, b=2)  # expect: dict[str, int]
Collect(a=1, b="s")["b"]  # expect: str
Collect(**{"a": 1, "b": "s"})["b"]  # expect: str


spread = lambda *items, **named: (items[1], named["k"])
spread(1, "s", k=2.5)  # expect: tuple[str, float]


class Lambdas:
    def __init__(self):
        self.size = 3

    size_of = lambda self: self.size


Lambdas().size_of()  # expect: int

"""Functions: defaults, *args and **kwargs, lambdas, closures, global and
nonlocal, decorators (functools among them), exceptions and async."""

import asyncio
import functools
from typing import Awaitable, Callable, Coroutine


def Add(a, b=2):
    return a + b


def Greet(name="world"):
    return name.upper()


def Collect(*args: int, **kwargs: str):
    args  # expect: tuple[int, ...]
    kwargs  # expect: dict[str, str]
    args[0]  # expect: int
    kwargs["k"]  # expect: str
    return len(args)


def Scale(value: float, factor: float = 2.0) -> float:
    return value * factor


def Apply(fn: Callable[[int], str], value: int):
    return fn(value)


Add(1)  # expect: int
Add(1.5, 2.5)  # expect: float
Greet()  # expect: str
Collect(1, 2, k="v")  # expect: int
Scale(3.0)  # expect: float
Apply(str, 3)  # expect: str

square = lambda n: n * n
square(3)  # expect: int
(lambda: "s")()  # expect: str
sorted(["bb", "a"], key=lambda s: len(s))  # expect: list[str]
list(map(lambda n: n / 2, [1, 2]))  # expect: list[float]
pick = lambda d, k: d[k]
pick({"a": 1.5}, "a")  # expect: float


def MakeCounter():
    count = 0

    def Increment():
        nonlocal count
        count += 1
        return count
    return Increment


def MakeMultiplier(k: float):
    def Multiply(x: float):
        return x * k
    return Multiply


def MakeGreeter(greeting: str):
    def Greeter(name: str):
        return f"{greeting}, {name}"
    return Greeter


MakeCounter()  # expect: def MakeCounter.Increment
MakeCounter()()  # expect: int
MakeMultiplier(2.0)(3.0)  # expect: float
MakeGreeter("hi")("bob")  # expect: str

TOTAL = 0
NAMES: list[str] = []


def Bump():
    global TOTAL
    TOTAL += 1
    return TOTAL


def Register(name: str):
    NAMES.append(name)
    return NAMES


Bump()  # expect: int
Register("x")  # expect: list[str]


def Plain(fn):
    def Wrapper(*args, **kwargs):
        return fn(*args, **kwargs)
    return Wrapper


def Logged(fn):
    @functools.wraps(fn)
    def Inner(*args, **kwargs):
        return fn(*args, **kwargs)
    return Inner


@Plain
def Shout(text: str) -> str:
    return text.upper()


@Logged
def Whisper(text: str) -> str:
    return text.lower()


@functools.lru_cache(maxsize=None)
def Fib(n: int) -> int:
    return n if n < 2 else Fib(n - 1) + Fib(n - 2)


@functools.cache
def Square(n: int) -> int:
    return n * n


Shout("a")  # expect: str
Shout  # expect: def Plain.Wrapper
Whisper("A")  # expect: str
Fib(10)  # expect: int
Square(3)  # expect: int
Fib.cache_info().hits  # expect: int
Fib.cache_clear()  # expect: None
double = functools.partial(Scale, factor=2.0)
double  # expect: functools.partial[float]
double(4.0)  # expect: float
functools.reduce(lambda x, y: x + y, [1, 2, 3])  # expect: int
functools.reduce(lambda x, y: x + y, ["a"], "")  # expect: str

try:
    int("x")
except ValueError as err:
    err  # expect: ValueError
    str(err)  # expect: str
try:
    {}["k"]
except (KeyError, IndexError) as lookup:
    lookup  # expect: KeyError | IndexError
try:
    [][1]
except Exception as exc:
    exc  # expect: Exception
try:
    raise RuntimeError("x")
except RuntimeError as rt:
    rt.with_traceback(None)  # expect: RuntimeError


class AppError(Exception):
    def __init__(self, code: int) -> None:
        super().__init__(code)
        self.code = code


try:
    raise AppError(3)
except AppError as app:
    app  # expect: AppError
    app.code  # expect: int


async def Fetch(n: int) -> int:
    await asyncio.sleep(0)
    return n


async def FetchText():
    return "text"


async def Ticks():
    yield 1
    yield 2


class AsyncResource:
    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc):
        return False

    async def Read(self) -> bytes:
        return b""


class Countdown:
    """An async iterator whose __anext__ is a plain def returning an awaitable."""

    def __init__(self):
        self.left = 2

    def __aiter__(self):
        return self

    def __anext__(self) -> Awaitable[int]:
        self.left -= 1
        if self.left < 0:
            raise StopAsyncIteration
        return Fetch(self.left)


async def Pending(job: Coroutine[None, None, str]):
    return await job


async def Main():
    async for left in Countdown():
        left  # expect: int
    await Pending(FetchText())  # expect: str
    value = await Fetch(1)
    value  # expect: int
    text = await FetchText()
    text  # expect: str
    await asyncio.sleep(0)  # expect: None
    async for tick in Ticks():
        tick  # expect: int
    async with AsyncResource() as ar:
        ar  # expect: AsyncResource
        await ar.Read()  # expect: bytes
    got = [await Fetch(i) for i in range(2)]
    got  # expect: list[int]
    task = asyncio.ensure_future(Fetch(2))
    await task  # expect: int
    return value


asyncio.run(Main())  # expect: int
asyncio.run(Fetch(5))  # expect: int

"""Standard library modules as the stubs' own test cases check them.

Converted from the typed test cases of the typeshed project
(https://github.com/python/typeshed, stdlib/@tests/test_cases/:
collections/check_counter.py,
itertools/check_itertools_recipes.py, check_functools.py, check_lru_cache.py,
check_re.py, check_os_path.py, check_dataclasses.py, check_enum.py,
check_contextlib.py, check_math.py, check_datetime.py, check_codecs.py,
check_hashlib.py, check_platform.py, check_subprocess.py,
check_concurrent_futures.py, check_operator.py): each `assert_type(EXPR, T)`
becomes the expression EXPR expecting T, a literal type written as its
class, in the version of the stubs the engine reads (its `datetime` takes
no type argument, its `Counter` one).  The recipes' annotated signatures are
called and expected to give their declared results.  Annotated parameters
get real values when the file runs, so that running it confirms every
expectation; expectations only a static checker can hold are left out.
"""

from __future__ import annotations

import codecs
import collections
import contextlib
import dataclasses as dc
import enum
import hashlib
import math
import operator
import os
import platform
import re
import subprocess
import sys
from collections import Counter
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import AbstractContextManager, ExitStack
from datetime import date, datetime, time, timedelta, timezone, tzinfo
from decimal import Decimal
from functools import cache, cached_property
from itertools import islice
from os.path import abspath, expanduser, expandvars
from typing import TYPE_CHECKING, Any, AnyStr, Callable, Iterable, Literal, Mapping, \
    Sequence, TypeVar, overload

if TYPE_CHECKING:
    from _typeshed import StrOrBytesPath

_T = TypeVar("_T")
_T1 = TypeVar("_T1")

# collections.Counter

word_counts: Counter[str] = Counter()
word_counts["foo"] += 3
word_counts  # expect: collections.Counter[str]
word_counts + Counter({"foo": 2, "baz": 1})  # expect: collections.Counter[str]
integer_key_counter = Counter({1: 2, 2: 3})
integer_key_counter  # expect: collections.Counter[int]
combined_word_and_integer_keys = word_counts + integer_key_counter
combined_word_and_integer_keys  # expect: collections.Counter[str | int]

# itertools recipes: their declared signatures


def take(n: int, iterable: Iterable[_T]) -> list[_T]:
    return list(islice(iterable, n))


@overload
def nth(iterable: Iterable[_T], n: int, default: None = None) -> _T | None: ...


@overload
def nth(iterable: Iterable[_T], n: int, default: _T1) -> _T | _T1: ...


def nth(iterable: Iterable[object], n: int, default: object = None) -> object:
    return next(islice(iterable, n, None), default)


def quantify(iterable: Iterable[object], pred: Callable[[Any], bool] = bool) -> int:
    return sum(map(pred, iterable))


def nth_combination(iterable: Iterable[_T], r: int, index: int) -> tuple[_T, ...]:
    pool = tuple(iterable)
    return tuple(pool[i] for i in range(r)) if index == 0 else ()


def polynomial_derivative(coefficients: Sequence[float]) -> list[float]:
    n = len(coefficients)
    return [c * p for c, p in zip(coefficients, reversed(range(1, n)))]


take(2, [1, 2, 3])  # expect: list[int]
take(1, "abc")  # expect: list[str]
take(1, {"k": 1.5})  # expect: list[str]
take(1, (b"x",))  # expect: list[bytes]
nth([1, 2, 3], 1)  # expect: int | None
nth(["a"], 5)  # expect: str | None
nth([1, 2, 3], 1, "none")  # expect: int | str
quantify([1, 0, 1])  # expect: int
nth_combination("abc", 2, 0)  # expect: tuple[str, ...]
nth_combination([1, 2, 3], 2, 0)  # expect: tuple[int, ...]
polynomial_derivative([1.0, -4.0, 60.0])  # expect: list[float]

# functools


class A:
    def __init__(self, x: int):
        self.x = x

    @cached_property
    def x(self) -> int:
        return 0


A(x=1).x  # expect: int


class B:
    @cached_property
    def x(self) -> int:
        return 0


b = B()
b.x  # expect: int


@cache
def fn(arg: int) -> int:
    return arg


fn(1)  # expect: int


class CFnCls:
    @cache
    def fn(self, arg: int) -> int:
        return arg

    @classmethod
    @cache
    def cls_fn(cls, arg: int) -> int:
        return arg

    @staticmethod
    @cache
    def st_fn(arg: int) -> int:
        return arg

    @property
    @cache
    def prp_fn(self) -> int:
        return 1


cfn_inst = CFnCls()
cfn_inst.fn(1)  # expect: int
CFnCls.st_fn(1)  # expect: int
CFnCls.cls_fn(1)  # expect: int
cfn_inst.prp_fn  # expect: int


@overload
def fn_overload(arg: int) -> int: ...
@overload
def fn_overload(arg: str) -> str: ...
@cache
def fn_overload(arg: int | str) -> int | str:
    return arg


fn_overload(1)  # expect: int
fn_overload("1")  # expect: str

# re


def check_search(str_pat: re.Pattern[str], bytes_pat: re.Pattern[bytes]) -> None:
    str_pat.search("x")  # expect: re.Match[str] | None
    bytes_pat.search(b"x")  # expect: re.Match[bytes] | None
    bytes_pat.search(bytearray(b"x"))  # expect: re.Match[bytes] | None


check_search(re.compile("x"), re.compile(b"y"))

# os.path


def test_str_path(str_path: StrOrBytesPath) -> None:
    abspath(str_path)  # expect: str | bytes
    expanduser(str_path)  # expect: str | bytes
    expandvars(str_path)  # expect: str | bytes


test_str_path("~/a")
test_str_path(b"~/b")


class MyPathStr(os.PathLike[str]):
    def __init__(self, path: str) -> None:
        super().__init__()
        self.path = path

    def __fspath__(self) -> str:
        return self.path


class MyPathGeneric(os.PathLike[AnyStr]):
    def __init__(self, path: AnyStr) -> None:
        super().__init__()
        self.path: AnyStr = path

    def __fspath__(self) -> AnyStr:
        return self.path


abspath(MyPathStr("."))  # expect: str
expanduser(MyPathStr("."))  # expect: str
expandvars(MyPathStr("."))  # expect: str
abspath(MyPathGeneric("."))  # expect: str
abspath(MyPathGeneric(b"."))  # expect: bytes

# dataclasses


@dc.dataclass
class Foo:
    attr: str


dc.fields(Foo)[0]  # expect: dataclasses.Field[Any]
f = Foo(attr="attr")
dc.fields(f)[0]  # expect: dataclasses.Field[Any]
dc.asdict(f)  # expect: dict[str, Any]
dc.replace(f, attr="new")  # expect: Foo
if dc.is_dataclass(f):
    f  # expect: Foo

# enum

Functional = enum.Enum("Functional", "spam eggs bacon")
Functional  # expect: type[Functional]
Listed = enum.Enum("Listed", ["spam", "eggs", "bacon"])
Listed  # expect: type[Listed]


class EnumOfTuples(enum.Enum):
    X = 1, 2, 3
    Y = 4, 5, 6


EnumOfTuples((1, 2, 3))  # expect: EnumOfTuples


class Letters(enum.StrEnum):
    X = enum.auto()


Letters.X  # expect: Letters
Letters.X.value  # expect: str

# contextlib


class CM1(AbstractContextManager):
    def __exit__(self, *args) -> None:
        return None


with CM1() as cm1:
    cm1  # expect: CM1


class Thing(ExitStack):
    pass


stack = ExitStack()
thing = Thing()
stack.enter_context(Thing())  # expect: Thing
thing.enter_context(ExitStack())  # expect: contextlib.ExitStack
with stack as cm:
    cm  # expect: contextlib.ExitStack
with thing as cm2:
    cm2  # expect: Thing
contextlib.suppress(KeyError)  # expect: contextlib.suppress

# math

math.prod([])  # expect: int
math.prod([1])  # expect: int
math.prod([34.34])  # expect: float | int
math.prod([34.34, 1])  # expect: float | int
math.prod([Decimal(1)], start=Decimal(1))  # expect: decimal.Decimal

# datetime

UTC: timezone = timezone.utc
datetime(2000, 1, 1)  # expect: datetime.datetime
datetime(2000, 1, 1, tzinfo=UTC)  # expect: datetime.datetime
datetime.fromtimestamp(0)  # expect: datetime.datetime
datetime.fromtimestamp(0, UTC)  # expect: datetime.datetime
datetime.now()  # expect: datetime.datetime
datetime.now(UTC)  # expect: datetime.datetime
datetime.today()  # expect: datetime.datetime
datetime.fromisoformat("2000-01-01")  # expect: datetime.datetime
dt_none = datetime(2000, 1, 1)
dt_none < dt_none  # expect: bool
dt_none - dt_none  # expect: datetime.timedelta
dt_none - timedelta(days=1)  # expect: datetime.datetime
datetime.combine(date(2000, 1, 1), time(12, 0))  # expect: datetime.datetime
datetime.combine(date(2000, 1, 1), time(12, 0), tzinfo=UTC)  # expect: datetime.datetime
dt_none.replace(year=2001)  # expect: datetime.datetime
dt_none.replace(year=2001, tzinfo=UTC)  # expect: datetime.datetime
dt_none.tzinfo  # expect: datetime.tzinfo | None

# codecs

codecs.decode("x", "unicode-escape")  # expect: str
codecs.decode(b"x", "unicode-escape")  # expect: str
codecs.decode(b"x", "utf-8")  # expect: str
codecs.lookup("UTF-8").decode(b"potato", errors="replace")  # expect: tuple[str, int]
codecs.decode("ab", "hex")  # expect: bytes
codecs.decode(b"ab", "hex")  # expect: bytes

# hashlib

fixed = hashlib.new("sha256")
fixed.digest()  # expect: bytes
fixed.hexdigest()  # expect: str
fixed.copy().hexdigest()  # expect: str
hashlib.sha256(b"data").digest()  # expect: bytes

# platform

uname = platform.uname()
myuname = platform.uname_result("Darwin", "local", "22.5.0", "Darwin Kernel Version 22.5.0", "arm64")
uname  # expect: platform.uname_result
myuname  # expect: platform.uname_result
uname[5]  # expect: str
myuname[5]  # expect: str
uname.system  # expect: str

# subprocess

command = [sys.executable, "-c", "print('x')"]
with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
    process  # expect: subprocess.Popen[bytes]
with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process_text:
    process_text  # expect: subprocess.Popen[str]
    if process_text.stdout is not None:
        process_text.stdout.read()  # expect: str
with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process_lines:
    if process_lines.stdout is not None:
        for line in process_lines.stdout:
            line  # expect: str

# concurrent.futures


class Parent: ...


class Child(Parent): ...


def check_as_completed_covariance() -> None:
    with ThreadPoolExecutor() as executor:
        executor  # expect: concurrent.futures.thread.ThreadPoolExecutor
        f1 = executor.submit(lambda: Parent())
        f1  # expect: concurrent.futures._base.Future[Parent]
        f1.result()  # expect: Parent
        fs: list[Future[Parent] | Future[Child]] = [f1, executor.submit(lambda: Child())]
        for future in fs:
            future.result()  # expect: Parent | Child


check_as_completed_covariance()

# operator


def supports_item_get_mapping(my_seq: Mapping[str, str], key: str) -> None:
    my_item = operator.getitem(my_seq, key)
    my_item  # expect: str


supports_item_get_mapping({"k": "v"}, "k")
collections.OrderedDict([("a", 1)])  # expect: collections.OrderedDict[str, int]

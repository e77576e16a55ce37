"""Built-in types as the stubs' own test cases check them.

Converted from the typed test cases of the typeshed project
(https://github.com/python/typeshed, stdlib/@tests/test_cases/builtins/
check_dict.py, check_list.py, check_set.py, check_tuple.py, check_zip.py,
check_pow.py, check_bool.py, check_iteration.py, and
stdlib/@tests/test_cases/typing/check_MutableMapping.py,
stdlib/@tests/test_cases/collections/check_defaultdict-py39.py,
stdlib/@tests/test_cases/check_types.py): each `assert_type(EXPR, T)`
becomes the expression EXPR expecting T, a literal type written as its
class.  The annotated parameters of the test functions get real values when
the file runs, so that running it confirms every expectation; expectations
only a static checker can hold (`Any`, `Never`, protocol types of
iterators) are left out.
"""

from __future__ import annotations

import os
import types
from collections import defaultdict
from decimal import Decimal
from fractions import Fraction
from typing import Generic, Iterable, Iterator, Literal, Mapping, Sequence, Tuple, TypeVar

_KT = TypeVar("_KT")
_VT = TypeVar("_VT")

# dict

good: dict[str, str] = dict()
good  # expect: dict[str, str]
dict(arg=1)  # expect: dict[str, int]


class KeysAndGetItem(Generic[_KT, _VT]):
    data: dict[_KT, _VT]

    def __init__(self, data: dict[_KT, _VT]) -> None:
        self.data = data

    def keys(self) -> Iterable[_KT]:
        return self.data.keys()

    def __getitem__(self, k: _KT) -> _VT:
        return self.data[k]


kt1: KeysAndGetItem[int, str] = KeysAndGetItem({0: ""})
dict(kt1)  # expect: dict[int, str]
kt2: KeysAndGetItem[str, int] = KeysAndGetItem({"": 0})
dict(kt2, arg=1)  # expect: dict[str, int]

i2: Iterable[tuple[str, int]] = [("a", 1), ("b", 2)]
dict(i2, arg=1)  # expect: dict[str, int]
i3: Iterable[str] = ["a.b"]
i4: Iterable[bytes] = [b"a.b"]
dict(string.split(".") for string in i3)  # expect: dict[str, str]
dict(string.split(b".") for string in i4)  # expect: dict[bytes, bytes]

d_str: dict[str, str] = {"key": "value"}
str_value = "value"
int_value = 1
d_str["key"]  # expect: str
d_str.get("key")  # expect: str | None
d_str.get("key", None)  # expect: str | None
d_str.get("key", str_value)  # expect: str
d_str.get("key", int_value)  # expect: str | int
d_str.get("nokey", int_value)  # expect: str | int


class CustomDictSubclass(dict[_KT, _VT]):
    pass


class CustomMappingWithDunderOr(Mapping[_KT, _VT]):
    def __getitem__(self, key: _KT) -> _VT:
        raise KeyError(key)

    def __iter__(self) -> Iterator[_KT]:
        return iter(())

    def __len__(self) -> int:
        return 0

    def __or__(self, other: Mapping[_KT, _VT]) -> dict[_KT, _VT]:
        return {}

    def __ror__(self, other: Mapping[_KT, _VT]) -> dict[_KT, _VT]:
        return {}


def test_dict_dot_or(
    a: dict[int, int],
    b: CustomDictSubclass[int, int],
    c: dict[str, str],
    e: CustomMappingWithDunderOr[str, str],
) -> None:
    a | b  # expect: dict[int, int]
    b | a  # expect: dict[int, int]
    a | c  # expect: dict[int | str, int | str]
    a | os.environ  # expect: dict[str | int, str | int]
    os.environ | a  # expect: dict[str | int, str | int]
    c | os.environ  # expect: dict[str, str]
    c | e  # expect: dict[str, str]
    os.environ | c  # expect: dict[str, str]
    e | c  # expect: dict[str, str]


test_dict_dot_or({1: 2}, CustomDictSubclass({3: 4}), {"x": "y"}, CustomMappingWithDunderOr())


# collections.defaultdict (its own test cases, check_defaultdict-py39.py)


class CustomDefaultDictSubclass(defaultdict[_KT, _VT]):
    pass


def test_defaultdict_dot_or(
    da: defaultdict[int, int],
    db: CustomDefaultDictSubclass[int, int],
    dc: defaultdict[str, str],
    de: CustomMappingWithDunderOr[str, str],
) -> None:
    da | db  # expect: collections.defaultdict[int, int]
    db | da  # expect: CustomDefaultDictSubclass[int, int]
    da | dc  # expect: collections.defaultdict[int | str, int | str]
    da | os.environ  # expect: dict[str | int, str | int]
    os.environ | da  # expect: dict[str | int, str | int]
    dc | os.environ  # expect: dict[str, str]
    dc | de  # expect: dict[str, str]
    os.environ | dc  # expect: dict[str, str]
    de | dc  # expect: dict[str, str]


test_defaultdict_dot_or(defaultdict(int, {1: 2}), CustomDefaultDictSubclass(int, {3: 4}),
                        defaultdict(str, {"x": "y"}), CustomMappingWithDunderOr())


def check_setdefault_method() -> None:
    d: dict[int, str] = {}
    d2: dict[int, str | None] = {}
    d.setdefault(1, "x")  # expect: str
    d2.setdefault(1)  # expect: str | None
    d2.setdefault(1, None)  # expect: str | None
    d2.setdefault(1, "x")  # expect: str | None


check_setdefault_method()

# list


class Foo:
    def asd(self) -> int:
        return 1


class Bar:
    def asd(self) -> int:
        return 2


combined = [Foo()] + [Bar()]
combined  # expect: list[Foo | Bar]
for item in combined:
    item.asd()  # expect: int

# set and frozenset


def test_set_difference(x: set[Literal["foo", "bar"]], y: set[str], z: set[int]) -> None:
    y - x  # expect: set[str]
    z - x  # expect: set[int]
    y - z  # expect: set[str]
    z - y  # expect: set[int]


test_set_difference({"foo"}, {"foo", "baz"}, {1})


def test_set_interfaces(s: set[str], y: set[str], f: frozenset[str], g: frozenset[str]) -> None:
    s.isdisjoint(y)  # expect: bool
    f.isdisjoint(g)  # expect: bool
    s.issubset(y)  # expect: bool
    f.issubset(g)  # expect: bool
    s.issuperset(y)  # expect: bool
    f.issuperset(g)  # expect: bool
    s.symmetric_difference(y)  # expect: set[str]
    f.symmetric_difference(g)  # expect: frozenset[str]
    s.union(y)  # expect: set[str]
    f.union(g)  # expect: frozenset[str]
    s.difference(y)  # expect: set[str]
    f.difference(g)  # expect: frozenset[str]
    s.intersection(y)  # expect: set[str]
    f.intersection(g)  # expect: frozenset[str]
    s - y  # expect: set[str]
    f - g  # expect: frozenset[str]
    s & y  # expect: set[str]
    f & g  # expect: frozenset[str]
    s | y  # expect: set[str]
    f | g  # expect: frozenset[str]
    s ^ y  # expect: set[str]
    f ^ g  # expect: frozenset[str]


test_set_interfaces({"foo", "bar"}, {"bar", "baz"}, frozenset({"foo", "bar"}), frozenset({"bar", "baz"}))

# tuple


class TupleSub(Tuple[int, ...]):
    pass


TupleSub()  # expect: TupleSub
TupleSub([1, 2, 3])  # expect: TupleSub

# zip

ints: Sequence[int] = [1, 2, 3]
strs: Sequence[str] = ["one", "two", "three"]
floats: Sequence[float] = [1.0, 2.0, 3.0]
str_tuples: Sequence[Tuple[str]] = [("one",), ("two",), ("three",)]

zip(ints)  # expect: zip[tuple[int]]
zip(ints, strs)  # expect: zip[tuple[int, str]]
zip(ints, strs, floats)  # expect: zip[tuple[int, str, float]]
zip(strs, ints, floats, ints)  # expect: zip[tuple[str, int, float, int]]
zip(strs, ints, floats, ints, str_tuples)  # expect: zip[tuple[str, int, float, int, tuple[str]]]

# pow and **

pow(1, 0)  # expect: int
1**0  # expect: int
pow(1, 0, None)  # expect: int
pow(2, 4)  # expect: int
2**4  # expect: int
pow(4, 6, None)  # expect: int
pow(5, -7)  # expect: float
5**-7  # expect: float
pow(2, 4, 5)  # expect: int
pow(2, 35, 3)  # expect: int
pow(2, 8.5)  # expect: float
2**8.6  # expect: float
pow(2, 8.6, None)  # expect: float
(-2) ** 0.5  # expect: complex
pow((-5), 8.42, None)  # expect: complex
pow(4.6, 8)  # expect: float
4.6**8  # expect: float
pow(5.1, 4, None)  # expect: float
pow(complex(6), 6.2)  # expect: complex
complex(6) ** 6.2  # expect: complex
pow(complex(9), 7.3, None)  # expect: complex
Fraction() ** 4  # expect: fractions.Fraction
pow(Fraction(3, 7), complex(1, 8))  # expect: complex
Fraction(3, 7) ** complex(1, 8)  # expect: complex
pow(complex(4, -8), Fraction(2, 3))  # expect: complex
complex(4, -8) ** Fraction(2, 3)  # expect: complex
pow(Decimal("1.0"), Decimal("1.6"))  # expect: decimal.Decimal
Decimal("1.0") ** Decimal("1.6")  # expect: decimal.Decimal
pow(Decimal("1.0"), Decimal("1.0"), Decimal("1.0"))  # expect: decimal.Decimal
pow(Decimal("4.6"), 7, None)  # expect: decimal.Decimal
Decimal("4.6") ** 7  # expect: decimal.Decimal

# bool

bool()  # expect: bool
bool(False)  # expect: bool
bool(True)  # expect: bool
bool(42)  # expect: bool


class Truthy:
    def __bool__(self) -> Literal[True]:
        return True


class Falsy:
    def __bool__(self) -> Literal[False]:
        return False


bool(Truthy())  # expect: bool
bool(Falsy())  # expect: bool

# complex

complex()  # expect: complex
complex(10)  # expect: complex
complex(4.0)  # expect: complex
complex(4.25 + 0j)  # expect: complex
complex(4.25 + 0j, 0)  # expect: complex
complex("1+2j")  # expect: complex

# iteration


class OldStyleIter:
    def __getitem__(self, index: int) -> str:
        if index > 2:
            raise IndexError(index)
        return str(index)


for x in iter(OldStyleIter()):
    x  # expect: str
next(iter(OldStyleIter()))  # expect: str

# bound methods and mapping proxies


class WithMethod:
    def bar(self, x: int) -> int:
        return x


bound_method = WithMethod().bar
bound_method(42)  # expect: int

mp = types.MappingProxyType({1: 2, 3: 4})
item = mp.get(1)
item  # expect: int | None
item_2 = mp.get(2, 0)
item_2  # expect: int
item_3 = mp.get(3, "default")
item_3  # expect: int | str

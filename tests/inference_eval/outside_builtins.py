"""Methods of the built-in types and arithmetic, the way analysers' own
suites ask about them."""

import math

text = "Hello, World"
raw = b"bytes here"
nums = [3, 1, 2]
ratios = [0.5, 1.5]
ages = {"ann": 31, "bob": 42}
tags = {"x", "y"}

text.lower()  # expect: str
text.title()  # expect: str
text.casefold()  # expect: str
text.swapcase()  # expect: str
text.center(20)  # expect: str
text.zfill(20)  # expect: str
text.lstrip("H")  # expect: str
text.rsplit(",", 1)  # expect: list[str]
text.splitlines()  # expect: list[str]
text.count("l")  # expect: int
text.index("W")  # expect: int
text.rfind("o")  # expect: int
text.isdigit()  # expect: bool
text.isalpha()  # expect: bool
text.endswith(("d", "x"))  # expect: bool
text.removeprefix("He")  # expect: str
text.translate({72: 74})  # expect: str
text.expandtabs()  # expect: str
text.rpartition(",")  # expect: tuple[str, str, str]
text.split(",")[-1].strip()  # expect: str
text * 2  # expect: str
text + "!"  # expect: str
"%s-%d" % ("a", 1)  # expect: str
f"{text}!"  # expect: str
str.upper(text)  # expect: str
text.encode("utf-8")  # expect: bytes
len(text)  # expect: int
"a" in text  # expect: bool

raw.upper()  # expect: bytes
raw.hex()  # expect: str
bytes.fromhex("6162")  # expect: bytes
raw.split(b" ")  # expect: list[bytes]
raw.find(b"h")  # expect: int
raw.startswith(b"b")  # expect: bool
b"-".join([raw, raw])  # expect: bytes
raw + b"!"  # expect: bytes
raw[0]  # expect: int
raw[:3]  # expect: bytes
bytearray(raw)  # expect: bytearray
bytearray(raw).decode()  # expect: str

nums.pop(0)  # expect: int
nums.reverse()  # expect: None
nums.extend([4])  # expect: None
nums.insert(0, 9)  # expect: None
nums.remove(9)  # expect: None
nums[::2]  # expect: list[int]
nums + [5]  # expect: list[int]
nums * 2  # expect: list[int]
ratios[-1]  # expect: float
list(reversed(nums))  # expect: list[int]
sorted(nums, reverse=True)  # expect: list[int]
sorted(ratios)[0]  # expect: float
sum(ratios)  # expect: float
min(nums)  # expect: int
max(ratios, key=abs)  # expect: float
nums.count(1)  # expect: int

ages.keys()  # expect: dict_keys[str, int]
ages.values()  # expect: dict_values[str, int]
ages.items()  # expect: dict_items[str, int]
ages.popitem()  # expect: tuple[str, int]
ages.update({"cy": 7})  # expect: None
ages.get("ann", 0)  # expect: int
ages.pop("cy", None)  # expect: int | None
dict.fromkeys(["a", "b"], 0)  # expect: dict[str, int]
ages | {"dee": 5}  # expect: dict[str, int]
list(ages.items())  # expect: list[tuple[str, int]]
list(ages.values())  # expect: list[int]
sorted(ages)  # expect: list[str]
"ann" in ages  # expect: bool

tags.add("z")  # expect: None
tags & {"x"}  # expect: set[str]
tags | {"w"}  # expect: set[str]
tags - {"x"}  # expect: set[str]
tags.intersection({"y"})  # expect: set[str]
tags.difference({"y"})  # expect: set[str]
tags.issubset({"x"})  # expect: bool
tags.copy()  # expect: set[str]
frozenset(tags)  # expect: frozenset[str]
frozenset(tags) | {"q"}  # expect: frozenset[str]

7 / 2  # expect: float
7 // 2  # expect: int
7 % 3  # expect: int
2 ** 8  # expect: int
2.0 ** 2  # expect: float
1 + 2.5  # expect: float
3 * 1.5  # expect: float
-4  # expect: int
abs(-4)  # expect: int
abs(-1.5)  # expect: float
True + 1  # expect: int
1 < 2  # expect: bool
not nums  # expect: bool
(255).bit_length()  # expect: int
(1.5).is_integer()  # expect: bool
(0.5).as_integer_ratio()  # expect: tuple[int, int]
(255).to_bytes(2, "big")  # expect: bytes
int.from_bytes(b"\x01", "big")  # expect: int
float.fromhex("0x1p0")  # expect: float
round(3.14159, 2)  # expect: float
pow(2, 3)  # expect: int
divmod(7.5, 2)  # expect: tuple[float, float]
1 + 2j  # expect: complex
complex(1, 2).real  # expect: float
int("7") + int("8")  # expect: int
math.floor(2.5)  # expect: int
math.sqrt(2)  # expect: float
math.pi  # expect: float
math.isclose(1.0, 1.0)  # expect: bool
hex(255)  # expect: str
bin(5)  # expect: str
repr(nums)  # expect: str
isinstance(text, str)  # expect: bool
type(text)  # expect: type[str]
print()  # expect: None
list(range(3))  # expect: list[int]


class Registry(type):
    loaded = 0

    def Known(cls) -> list[str]:
        return [cls.__name__]


class Plugin(metaclass=Registry):
    version = 2

    def Name(self) -> str:
        return "plugin"


type(Plugin)  # expect: type[Registry]
Plugin.loaded  # expect: int
Plugin.Known()  # expect: list[str]
type(int)  # expect: type[type]
getattr(Plugin, "version")  # expect: int
getattr(Plugin(), "Name")()  # expect: str
getattr(text, "upper", None)  # expect: def str.upper | None

"""Literals and the values of operators on them."""

1  # expect: int
-1  # expect: int
0x1F  # expect: int
1_000  # expect: int
1.5  # expect: float
1e3  # expect: float
2j  # expect: complex
"text"  # expect: str
'single'  # expect: str
"""triple"""  # expect: str
f"formatted {1}"  # expect: str
r"raw\n"  # expect: str
"implicit" "concatenation"  # expect: str
b"bytes"  # expect: bytes
rb"raw bytes"  # expect: bytes
True  # expect: bool
False  # expect: bool
None  # expect: None
[]  # expect: list
[1, 2]  # expect: list[int]
["a", "b"]  # expect: list[str]
[1.0, 2.0]  # expect: list[float]
[[1]]  # expect: list[list[int]]
()  # expect: tuple[()]
(1,)  # expect: tuple[int]
(1, "a")  # expect: tuple[int, str]
(1, "a", 2.0)  # expect: tuple[int, str, float]
{}  # expect: dict
{"a": 1}  # expect: dict[str, int]
{1: "a"}  # expect: dict[int, str]
{"k": [1]}  # expect: dict[str, list[int]]
{1, 2}  # expect: set[int]
{"a"}  # expect: set[str]
1 + 2  # expect: int
1 + 2.0  # expect: float
1 / 2  # expect: float
7 // 2  # expect: int
7 % 3  # expect: int
2 ** 3  # expect: int
2.0 ** 2  # expect: float
-3.5  # expect: float
~5  # expect: int
"a" + "b"  # expect: str
"a" * 3  # expect: str
"%d" % 3  # expect: str
b"a" + b"b"  # expect: bytes
[1] + [2]  # expect: list[int]
[0] * 3  # expect: list[int]
(1,) + ("a",)  # expect: tuple[int, str]
1 < 2  # expect: bool
1 == 1  # expect: bool
"a" in "abc"  # expect: bool
not 1  # expect: bool
None is None  # expect: bool
1 & 3  # expect: int
1 << 2  # expect: int
True + True  # expect: int
{1} | {2}  # expect: set[int]
{"a": 1} | {"b": 2}  # expect: dict[str, int]
abs(-2.5)  # expect: float
3.7.__floor__()  # expect: int
(1).bit_length()  # expect: int
"x".join  # expect: def str.join
[].append  # expect: def list.append

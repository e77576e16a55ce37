"""Names and scoping: local, enclosing, module and builtin names, global,
nonlocal, class bodies (which don't enclose), comprehensions and lambdas."""

count = 1
label = "module"
ratio = 2.5
flag = True
nothing = None
raw = b"bytes"

count  # expect: int
label  # expect: str
ratio  # expect: float
flag  # expect: bool
nothing  # expect: None
raw  # expect: bytes
len  # expect: def len
print  # expect: def print
int  # expect: type[int]
str  # expect: type[str]
object  # expect: type[object]
ValueError  # expect: type[ValueError]
len("abc")  # expect: int
repr(1)  # expect: str
abs(-3)  # expect: int
isinstance(1, int)  # expect: bool


def Local():
    count = "shadow"
    count  # expect: str
    label  # expect: str
    len  # expect: def len


def Enclosing():
    outer = 3

    def Inner():
        outer  # expect: int
        ratio  # expect: float
        return outer

    Inner  # expect: def Enclosing.Inner
    Inner()  # expect: int
    outer  # expect: int
    return Inner


def ShadowsBuiltin():
    len = 4.5
    len  # expect: float
    str = 3
    str  # expect: int


def UsesGlobal():
    global count
    count = 5
    count  # expect: int


def Rebinds():
    state = 0

    def Bump():
        nonlocal state
        state = "changed"
        state  # expect: str

    Bump()
    state  # expect: str


def ThreeLevels():
    a = 1

    def Middle():
        b = "b"

        def Innermost():
            a  # expect: int
            b  # expect: str
            count  # expect: int

        Innermost()

    Middle()


class Holder:
    attr = 10
    other = "text"
    attr  # expect: int
    other  # expect: str
    count  # expect: int
    doubled = attr * 2
    doubled  # expect: int

    def Method(self):
        # A class body doesn't enclose its methods: 'other' is the module's.
        other  # expect: float
        attr  # expect: list[int]
        self.attr  # expect: int


other = 1.5
attr = [1, 2]

Holder  # expect: type[Holder]
Holder.attr  # expect: int
Holder.doubled  # expect: int


def Shadowed(count: str):
    count  # expect: str


squares = [n * n for n in range(3)]
squares  # expect: list[int]
[n for n in range(3)][0]  # expect: int
{k: str(k) for k in range(3)}  # expect: dict[int, str]
{word for word in ("a", "b")}  # expect: set[str]
[label for _ in range(2)][0]  # expect: str

# The comprehension's variable doesn't leak out.
n = "outside"
[n for n in range(2)]  # expect: list[int]
n  # expect: str

double = lambda v: v * 2
double(4)  # expect: int
(lambda: label)()  # expect: str
(lambda: count)()  # expect: int
(lambda q=3: q)()  # expect: int

identity = lambda obj: obj
identity("s")  # expect: str

Local  # expect: def Local
Enclosing()  # expect: def Enclosing.Inner

# A def or class statement binds its name where it stands, as an
# assignment does: a read before it sees the earlier value.
Marker = 0.5
Marker  # expect: float


def Marker():
    return "m"


Marker  # expect: def Marker
Marker()  # expect: str
Kind = "plain"
Kind  # expect: str


class Kind:
    pass


Kind  # expect: type[Kind]


def Redefines():
    step = 1
    step  # expect: int

    def step():
        return b""

    step()  # expect: bytes


def _main():
    Local()
    Enclosing()
    ShadowsBuiltin()
    UsesGlobal()
    Rebinds()
    ThreeLevels()
    Holder().Method()
    Shadowed("x")
    Redefines()


if __name__ == "__main__":
    _main()

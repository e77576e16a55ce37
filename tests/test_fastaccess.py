import gc
import logging
import math
import weakref

import pytest
from hypothesis import given, settings, strategies as st

import pysource._fastaccess as fa
from pysource._fastaccess import CLogger

from scanutil import SettableClock, replaced_clock


# ---------------------------------------------------------------------------
# The clock


@pytest.fixture
def clock():
    with replaced_clock(SettableClock(100.0)) as c:
        yield c


class TestClock:
    def test_replaced_clock_takes_effect_at_once(self, clock):
        assert fa.GetNowTime() == 100.0
        clock.now = 5
        assert type(fa.GetNowTime()) is float and fa.GetNowTime() == 5.0

    @pytest.mark.parametrize("now, end, out", [
        (100.0, 100.0, True), (100.0, 99.0, True), (100.0, 100.5, False),
        (100.0, math.nan, False), (math.inf, math.nan, False), (math.inf, math.inf, True)])
    def test_out_of_time_counts_equal_as_past_and_nan_as_never(self, clock, now, end, out):
        clock.now = now
        assert fa.OutOfTime(end) is out

    @pytest.mark.parametrize("func, error", [
        (lambda: 1 / 0, ZeroDivisionError), (lambda: "noon", TypeError), (lambda: None, TypeError)])
    def test_clock_errors_pass_through(self, clock, func, error):
        setattr(fa, "__TimeFunc", func)
        with pytest.raises(error):
            fa.GetNowTime()
        with pytest.raises(error):
            fa.OutOfTime(1.0)


# ---------------------------------------------------------------------------
# The log front


class Unprintable:
    """Formatting this with %s or %r raises: proves no formatting happened."""

    def __str__(self):
        raise AssertionError("formatted")

    __repr__ = __str__


@pytest.fixture
def pylogger():
    logger = logging.getLogger("pysource.test.fastaccess")
    records = []

    class Handler(logging.Handler):
        def emit(self, record):
            records.append((record.levelno, record.getMessage()))

    handler = Handler()
    logger.addHandler(handler)
    logger.propagate = False
    yield logger, records
    logger.removeHandler(handler)
    logger.setLevel(logging.NOTSET)


class TestLogger:
    def test_no_receiver_is_off_and_formats_nothing(self):
        log = CLogger()
        assert log.fReceiver is None and not log.IsOn()
        log("%s", Unprintable())
        log.Log1("%s", (Unprintable(),))
        log.Log2("%s %s", ())  # would be a format error if formatted
        log.Log3("%s")

    def test_callable_receiver_gets_level_and_formatted_text(self):
        seen = []
        log = CLogger(lambda level, text: seen.append((level, text)))
        log.Log1("a %s", (1,))
        log.Log2("b %r", ("x",))
        log.Log3("c")
        log("d %s-%s", 1, 2)
        log("100%")  # no arguments: the format stands as it is
        assert seen == [(1, "a 1"), (2, "b 'x'"), (3, "c"), (1, "d 1-2"), (1, "100%")]

    def test_logging_levels(self, pylogger):
        logger, records = pylogger
        logger.setLevel(1)
        log = CLogger(logger)
        log.Log1("one %d", (1,))
        log.Log2("two")
        log.Log3("three %s", ("x",))
        log("direct %s", "y")
        assert records == [(logging.DEBUG, "one 1"), (9, "two"), (8, "three x"),
                           (logging.DEBUG, "direct y")]
        assert [CLogger.LoggingLevelFor(n) for n in (1, 2, 3)] == [10, 9, 8]

    def test_disabled_logging_level_formats_nothing(self, pylogger):
        logger, records = pylogger
        logger.setLevel(9)
        log = CLogger(logger)
        log.Log3("%s", (Unprintable(),))
        log.Log2("kept %s", ("x",))
        assert records == [(9, "kept x")]
        logger.setLevel(logging.INFO)
        log("%s", Unprintable())
        assert records == [(9, "kept x")]

    def test_args_that_do_not_fit_the_format_raise_for_a_callable(self):
        log = CLogger(lambda level, text: None)
        with pytest.raises(TypeError):
            log.Log1("%s %s", (1,))

    def test_bad_receiver_is_a_type_error(self):
        with pytest.raises(TypeError):
            CLogger(42)
        log = CLogger()
        with pytest.raises(TypeError):
            log.fReceiver = "not callable"
        log.fReceiver = print
        assert log.IsOn()
        log.fReceiver = None
        assert not log.IsOn()

    def test_python_subclass_gets_raw_format_and_args(self):
        class Raw(CLogger):
            def __init__(self):
                super().__init__(print)
                self.seen = []

            def Log(self, level, s, args=()):
                self.seen.append((level, s, tuple(args)))

        log = Raw()
        log.Log2("x %s", (Unprintable(),))
        log("y %s", 3)
        assert log.seen[0][:2] == (2, "x %s")
        assert log.seen[1] == (1, "y %s", (3,))

    def test_receiver_cycle_is_collected(self):
        class Owner:
            def sink(self, level, text):
                pass

        owner = Owner()
        owner.log = CLogger(owner.sink)  # owner -> logger -> bound method -> owner
        ref = weakref.ref(owner)
        del owner
        gc.collect()
        assert ref() is None


# ---------------------------------------------------------------------------
# Small helpers


class TestHelpers:
    def test_set_update(self):
        target = {1}
        fa.SetUpdate(target, [2, 3, 2])
        fa.SetUpdate(target, (x for x in [4]))
        assert target == {1, 2, 3, 4}
        fa.SetUpdate(None, [5])  # no target: nothing happens
        with pytest.raises(TypeError):
            fa.SetUpdate(target, [[1]])  # unhashable member
        with pytest.raises(TypeError):
            fa.SetUpdate([], [1])

    def test_str_in_str(self):
        assert fa.StrInStr(b"bc", b"abcd")
        assert not fa.StrInStr(b"bd", b"abcd")
        assert fa.StrInStr(b"", b"abc")
        assert fa.StrInStr(b"", b"")
        # a zero byte ends the text on either side
        assert not fa.StrInStr(b"d", b"abc\0d")
        assert fa.StrInStr(b"a\0zzz", b"abc")

    @pytest.mark.parametrize("sub,whole", [("a", b"abc"), (b"a", "abc"), (None, b"a"),
                                           (bytearray(b"a"), b"a")])
    def test_str_in_str_wants_bytes(self, sub, whole):
        with pytest.raises(TypeError, match="Both sub and whole must be strings"):
            fa.StrInStr(sub, whole)

    def test_char_classes_are_ascii_only(self):
        for b in range(-128, 256):
            ch = chr(b % 256)
            assert fa.IsDigit(b) == (0 <= b < 128 and ch.isdigit())
            assert fa.IsAlnum(b) == (0 <= b < 128 and ch.isalnum())
        assert fa.IsDigit(b"7") and fa.IsAlnum("x") and not fa.IsAlnum(" ")
        for ch in "٣०²½éΩ":
            assert not fa.IsDigit(ch) and not fa.IsAlnum(ch)
        with pytest.raises(ValueError):
            fa.IsDigit(256)

    def test_double_bits_round_trip(self):
        for f in (0.0, -0.0, 1.5, -2.25, math.inf, 1e-310):
            bits = fa.ULongLongValueForDoubleBits(f)
            back = fa.DoubleValueForULongLongBits(bits)
            assert math.copysign(1, back) == math.copysign(1, f) and back == f
        assert fa.ULongLongValueForDoubleBits(1.0) == 0x3FF0000000000000
        assert fa.ULongLongValueForDoubleBits(-0.0) == 1 << 63

    def test_double_from_negative_or_huge_bits(self):
        nan = fa.DoubleValueForPyIntBits(-1)
        assert math.isnan(nan)
        assert fa.ULongLongValueForDoubleBits(nan) == 2**64 - 1
        with pytest.raises(OverflowError):
            fa.DoubleValueForULongLongBits(-1)
        with pytest.raises(OverflowError):
            fa.DoubleValueForULongLongBits(2**64)
        # the low 64 bits, as by a mask
        assert fa.DoubleValueForPyIntBits((5 << 64) | 0x3FF0000000000000) == 1.0
        assert fa.DoubleValueForPyIntBits(-(1 << 63)) == -0.0
        with pytest.raises(TypeError):
            fa.DoubleValueForPyIntBits(1.0)

# ---------------------------------------------------------------------------
# The non-nested search


def find_all(text, find, start=0, end=None):
    """Every match of one search, in order; the search is idle afterwards."""
    search = fa.CNonNestedSearch()
    raw_len = len(text.encode()) if isinstance(text, str) else len(text)
    search.InitWith(text, find, start, raw_len if end is None else end)
    found = []
    while (hit := search.FindNext()) != -1:
        found.append(hit)
    assert search.fIsIdle
    return found


class TestNonNestedSearch:
    def test_closing_bracket_at_level_zero(self):
        text = b"a), b, (c), d"
        assert find_all(text, b")") == [1, 9]
        search = fa.CNonNestedSearch()
        search.InitWith(text, b")", 0, len(text))
        assert search.FindNext() == 1
        assert search.nesting == -1
        # ")" inside "(c)" comes back to level 0 only after "(" balanced the first one
        assert search.FindNext() == 9
        assert search.nesting == -1

    def test_brackets_inside_a_match_count(self):
        text = b"x = f(a + f(b))"
        search = fa.CNonNestedSearch()
        search.InitWith(text, b"f(", 0, len(text))
        assert search.FindNext() == 4
        assert search.nesting == 1
        assert search.FindNext() == -1  # the second "f(" is nested inside the first
        assert find_all(b"x = f(a) + f(b)", b"f(") == [4, 11]

    def test_range_must_lie_inside_the_text(self):
        search = fa.CNonNestedSearch()
        for start, end in ((0, 8), (-1, 3), (8, 8)):
            with pytest.raises(ValueError):
                search.InitWith(b"a,b,c,d", b",", start, end)

    def test_other_types_find_nothing(self):
        search = fa.CNonNestedSearch()
        for value in (None, 12, bytearray(b"a,b"), ["a", ","]):
            search.InitWith(value, b",", 0, 3)
            assert search.fIsIdle
            assert search.FindNext() == -1

    def test_find_must_be_bytes(self):
        search = fa.CNonNestedSearch()
        with pytest.raises(TypeError):
            search.InitWith(b"a,b", None, 0, 3)
        with pytest.raises(TypeError):
            search.InitWith(b"a,b", ",", 0, 3)

    def test_idle_search_and_reuse(self):
        search = fa.CNonNestedSearch()
        assert search.FindNext() == -1 and search.FindNext() == -1
        search.InitWith(b"a,b", b",", 0, 3)
        assert search.FindNext() == 1
        search.Clear()
        assert search.fIsIdle and search.FindNext() == -1
        search.InitWith("(,),", b",", 0, 4)
        assert search.FindNext() == 3
        assert search.FindNext() == -1
        assert search.FindNext() == -1
        search.InitWith(b",", b",", 0, 1)
        assert search.nesting == 0 and search.FindNext() == 0


class TestStringsInSearch:
    @pytest.mark.parametrize("text,expected", [
        (b"'a\\',b', c", [7]),                  # an escaped quote stays inside
        (b"r'a\\', b", []),                     # raw, but a backslash still hides the quote
        (b"r'a\\\\', b", [6]),
        (b"rb'\\', z", []),
        (b"'''a,'b\n,c''', d", [13]),           # triple quotes span lines and single quotes
        (b'"""x""", y', [7]),
        (b"f'{a, b}', c", [9]),
        (b"f'{d[\"k,\"]}', e", [12]),           # a field with quotes of its own
        (b"f\"{x['a,b']}\", y", [13]),
        (b"x['a'], y", [6]),
        (b'"(", d, e', [3, 6]),
        (b"a(b],c", [4]),                       # bracket kinds are not matched to each other
    ])
    def test_literal_forms(self, text, expected):
        assert find_all(text, b",") == expected

    def test_unterminated_literal_stops_at_the_end_of_its_line(self):
        assert find_all(b"'a,b\nc, d", b",") == [6]
        assert find_all(b"'''a,b\nc, d", b",") == []


# A slow reference built another way: first mark, for the whole text, which
# bytes are inside string literals and the bracket depth before every byte;
# then a match is an occurrence at depth 0 outside a literal that doesn't
# overlap the previous match.  Finds hold no quotes, so that a match never
# swallows the opening quote of a literal.
def reference_find_all(raw, find, start, end):
    if not find:
        return []
    in_literal = [False] * len(raw)
    depth_before = [0] * (len(raw) + 1)
    depth, i = 0, start
    while i < end:
        depth_before[i] = depth
        c = raw[i:i + 1]
        if c in (b"'", b'"'):
            j = reference_string_end(raw, i, end)
            for k in range(i + 1, j):
                in_literal[k] = True
                depth_before[k] = depth
            i = max(j, i + 1)
            continue
        depth += c in b"([{"
        depth -= c in b")]}"
        i += 1
    found, i = [], start
    while i < end:
        if (depth_before[i] == 0 and not in_literal[i] and raw.startswith(find, i)
                and i + len(find) <= end):
            found.append(i)
            i += len(find)
        else:
            i += 1
    return found


def reference_string_end(raw, q, end):
    quote = raw[q:q + 1]
    if raw[q:q + 3] == quote * 3 and q + 3 <= end:
        i = q + 3
        while i < end:
            if raw[i:i + 1] == b"\\":
                i += 2
            elif raw[i:i + 3] == quote * 3 and i + 3 <= end:
                return i + 3
            else:
                i += 1
        return end
    i = q + 1
    while i < end:
        c = raw[i:i + 1]
        if c == b"\\":
            i += 3 if raw[i + 1:i + 3] == b"\r\n" and i + 3 <= end else 2
        elif c == quote:
            return i + 1
        elif c in (b"\n", b"\r"):
            return i
        else:
            i += 1
    return min(i, end)


search_text = st.text(alphabet="ax,;()[]{}'\"\\\n é", max_size=40)
find_text = st.text(alphabet="ax,;()[]{} é", min_size=1, max_size=3)


@given(search_text, find_text, st.data())
@settings(max_examples=400, deadline=None)
def test_search_matches_reference(text, find, data):
    raw = text.encode()
    find_raw = find.encode()
    start = data.draw(st.integers(0, len(raw)))
    end = data.draw(st.integers(start, len(raw)))
    expected = reference_find_all(raw, find_raw, start, end)
    assert find_all(raw, find_raw, start, end) == expected
    assert find_all(text, find_raw, start, end) == expected

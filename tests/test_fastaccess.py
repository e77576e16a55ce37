import gc
import logging
import math
import weakref

import pytest

import pysource._fastaccess as fa
from pysource._fastaccess import CLogger


# ---------------------------------------------------------------------------
# The clock

@pytest.fixture
def clock():
    """Replace the module clock by a settable one; restore it afterwards."""
    saved = getattr(fa, "__TimeFunc")

    class Clock:
        now = 100.0

        def __call__(self):
            return self.now

    c = Clock()
    setattr(fa, "__TimeFunc", c)
    yield c
    setattr(fa, "__TimeFunc", saved)


class TestClock:
    def test_default_clock_is_wall_clock(self):
        import time
        assert getattr(fa, "__TimeFunc") is time.time
        before = time.time()
        now = fa.GetNowTime()
        assert before <= now <= time.time()

    def test_replaced_clock_takes_effect_at_once(self, clock):
        assert fa.GetNowTime() == 100.0
        clock.now = 5
        assert fa.GetNowTime() == 5.0
        assert type(fa.GetNowTime()) is float
        setattr(fa, "__TimeFunc", lambda: 7.5)
        assert fa.GetNowTime() == 7.5

    def test_out_of_time_counts_equal_as_past(self, clock):
        assert fa.OutOfTime(100.0)
        assert fa.OutOfTime(99.0)
        assert not fa.OutOfTime(100.5)

    def test_nan_is_never_out_of_time(self, clock):
        assert not fa.OutOfTime(math.nan)
        clock.now = math.inf
        assert not fa.OutOfTime(math.nan)
        assert fa.OutOfTime(math.inf)

    def test_clock_errors_pass_through(self, clock):
        def broken():
            raise ZeroDivisionError("clock broke")
        setattr(fa, "__TimeFunc", broken)
        with pytest.raises(ZeroDivisionError, match="clock broke"):
            fa.GetNowTime()
        with pytest.raises(ZeroDivisionError):
            fa.OutOfTime(1.0)

    def test_non_numeric_clock_result_is_type_error(self, clock):
        setattr(fa, "__TimeFunc", lambda: "noon")
        with pytest.raises(TypeError):
            fa.GetNowTime()
        setattr(fa, "__TimeFunc", lambda: None)
        with pytest.raises(TypeError):
            fa.OutOfTime(0.0)

    def test_clock_that_replaces_itself_while_running(self, clock):
        def once():
            setattr(fa, "__TimeFunc", lambda: 2.0)
            return 1.0
        setattr(fa, "__TimeFunc", once)
        assert fa.GetNowTime() == 1.0
        assert fa.GetNowTime() == 2.0

    def test_deleted_clock_is_a_clear_error(self, clock):
        delattr(fa, "__TimeFunc")
        try:
            with pytest.raises(AttributeError, match="__TimeFunc"):
                fa.GetNowTime()
        finally:
            setattr(fa, "__TimeFunc", clock)


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

"""The scan protocol: states, scanner base classes, switches, statistics."""

import types

import pytest

from basekit.destroyable import CDestroyable
from pysource import scopescanner as ss
from pysource._fastaccess import CLogger


class RawLogger(CLogger):
    """Keeps every message unformatted: (level, format, args)."""

    def __init__(self):
        super().__init__(lambda level, text: None)  # a receiver turns logging on
        self.records = []

    def Log(self, level, s, args=()):
        self.records.append((level, s, tuple(args)))


def make_scope(name="pkg.mod.f"):
    return types.SimpleNamespace(loc="/src/pkg/mod.py", name=name)


STATE_FORMAT = "Scan state changed to %s for %r scope: %r scan: %r"


class TestScannerBase:
    def test_constructor_fields_and_first_log_line(self):
        log = RawLogger()
        scope = make_scope()
        scanner = ss._CScannerBase(scope, "primary", log)
        assert scanner.fScanState is ss.kReadyToScan and scanner._fScanCalled is False
        assert log.records == [
            (1, STATE_FORMAT, (ss.kReadyToScan, "/src/pkg/mod.py", "pkg.mod.f", "primary"))
        ]

    def test_log_must_be_a_logger(self):
        with pytest.raises(TypeError, match="CLogger"):
            ss._CScannerBase(make_scope(), "primary", print)

    def test_state_change_logs_stores_then_emits_self(self):
        log = RawLogger()
        scanner = ss._CScannerBase(make_scope("m"), "derived", log)
        seen = []
        scanner.connect("scan-state-changed", lambda s: seen.append((s, s.fScanState)))
        scanner._SetScanState(ss.kWaitingForData)
        assert seen == [(scanner, ss.kWaitingForData)]
        assert log.records[-1] == (
            1, STATE_FORMAT, (ss.kWaitingForData, "/src/pkg/mod.py", "m", "derived"))

    def test_same_state_neither_logs_nor_emits(self):
        log = RawLogger()
        scanner = ss._CScannerBase(make_scope(), "primary", log)
        seen = []
        scanner.connect("scan-state-changed", seen.append)
        scanner._SetScanState(ss.kReadyToScan)
        assert seen == [] and len(log.records) == 1
        scanner._SetScanState(ss.kFinishedScanning)
        scanner._SetScanState(ss.kFinishedScanning)
        assert seen == [scanner] and len(log.records) == 2

    def test_state_message_formats_through_a_plain_receiver(self):
        lines = []
        scanner = ss._CScannerBase(make_scope("a.b"), "primary",
                                   CLogger(lambda level, text: lines.append(text)))
        scanner._SetScanState(ss.kScanAbandoned)
        assert lines == [
            "Scan state changed to ready-to-scan for '/src/pkg/mod.py' scope: 'a.b' scan: 'primary'",
            "Scan state changed to scan-abandoned for '/src/pkg/mod.py' scope: 'a.b' scan: 'primary'",
        ]

    def test_handler_error_surfaces_after_the_state_is_stored(self):
        scanner = ss._CScannerBase(make_scope(), "primary", None)

        def boom(s):
            raise KeyError("handler")

        scanner.connect("scan-state-changed", boom)
        with pytest.raises(KeyError):
            scanner._SetScanState(ss.kFinishedScanning)
        assert scanner.fScanState is ss.kFinishedScanning

    def test_only_states_are_accepted(self):
        scanner = ss._CScannerBase(make_scope(), "primary", None)
        with pytest.raises(TypeError):
            scanner._SetScanState("finished")
        assert scanner.fScanState is ss.kReadyToScan


class TestScannerSubclasses:
    def test_base_scan_is_not_implemented(self):
        with pytest.raises(NotImplementedError):
            ss.CScanner().Scan(0.0)
        with pytest.raises(NotImplementedError):
            ss._CScannerBase(make_scope(), "primary", None).Scan(1e300)

    def test_python_scanner_with_a_time_out_keeps_its_state(self):
        class Slow(ss._CScannerBase):
            def __init__(self):
                super().__init__(make_scope(), "primary", None)
                self.calls = 0

            def Scan(self, end_time):
                self.calls += 1
                if self.calls < 2:
                    return ss.kTimedOut
                self._SetScanState(ss.kFinishedScanning)
                return self.fScanState

        scanner = Slow()
        assert scanner.Scan(0.0) is ss.kTimedOut
        assert scanner.fScanState is ss.kReadyToScan
        assert scanner.Scan(0.0) is ss.kFinishedScanning
        assert isinstance(scanner, CDestroyable)


class TestSwitches:
    def test_setters_return_the_prior_value_and_the_module_follows(self):
        try:
            assert ss.SetLazyCalledArgEvaluation(False) is True
            assert ss.kLazyCalledArgEvaluation is False
            assert ss.SetLazyCalledArgEvaluation(False) is False
            assert ss.SetSpecializeGenericsFromArgs(True) is False
            assert ss.kSpecializeGenericsFromArgs is True
        finally:
            ss.SetLazyCalledArgEvaluation(True)
            ss.SetSpecializeGenericsFromArgs(False)
        assert ss.kLazyCalledArgEvaluation is True

    @pytest.mark.parametrize("name", ["kVerboseLogging", "kSaveLiteralText",
                                      "kMaxDerivedMergedKeys", "kSpecializeGenericsFromArgs",
                                      "kLazyCalledArgEvaluation", "_gDbgScanStats"])
    def test_switches_are_listed_and_read_only(self, name):
        assert name in dir(ss)
        before = getattr(ss, name)
        with pytest.raises(AttributeError, match="read-only"):
            setattr(ss, name, 12345)
        with pytest.raises(AttributeError):
            delattr(ss, name)
        assert getattr(ss, name) == before and name not in vars(ss)
        ss._note = 1  # other attributes are set as usual
        del ss._note

    def test_unknown_module_attribute_is_an_attribute_error(self):
        with pytest.raises(AttributeError, match="kNoSuchSwitch"):
            ss.kNoSuchSwitch


class TestStatistics:
    @pytest.fixture(autouse=True)
    def stats_off_afterwards(self):
        yield
        ss._DbgSetScanStats(None)

    def test_duplicate_keys_are_counted(self):
        stats = {}
        ss._DbgSetScanStats(stats)
        seen = ss._gDbgSeenCalled
        ss._DbgCountScanEvent("called-name", seen, "f")
        ss._DbgCountScanEvent("called-name", seen, "f")
        ss._DbgCountScanEvent("called-name", seen, "g")
        assert stats == {("scan-dup", "called-name"): 3, ("scan-dup", "called-name-dup"): 1}
        assert seen == {"f", "g"}

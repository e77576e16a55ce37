import gc
import sys
import weakref

import pytest

from basekit.destroyable import CDestroyable


class Recorder(CDestroyable):
    def __init__(self, signals=("changed",)):
        super().__init__(list(signals))
        self.events = []

    def _destroy_impl(self):
        self.events.append("impl")


def test_emit_is_synchronous_in_connection_order_with_arguments():
    obj = Recorder()
    seen = []
    obj.connect("changed", lambda *a: seen.append(("first",) + a))
    obj.connect("changed", lambda *a: seen.append(("second",) + a))
    obj.emit("changed", 1, "x")
    assert seen == [("first", 1, "x"), ("second", 1, "x")]


def test_unknown_signal_is_a_clear_error_everywhere():
    obj = CDestroyable(["a"])
    with pytest.raises(ValueError, match='unknown signal "b"'):
        obj.emit("b")
    with pytest.raises(ValueError, match='unknown signal "b"'):
        obj.connect("b", print)
    with pytest.raises(TypeError):
        CDestroyable("ab")  # a bare string is not a list of names


def test_destroy_runs_handlers_then_impl_once_and_drops_connections():
    obj = Recorder()
    obj.connect("destroy", lambda o: obj.events.append(("destroy-handler", o is obj)))
    fired = []
    obj.connect("changed", lambda: fired.append(1))
    obj.destroy()
    obj.destroy()  # harmless
    assert obj.events == [("destroy-handler", True), "impl"]
    assert obj.fDestroyed and obj._CDestroyable__fDestroyed
    obj.emit("changed")
    assert fired == []


def test_connect_while_alive_ends_with_the_owner():
    emitter, owner, other = Recorder(), CDestroyable(), CDestroyable()
    seen = []
    emitter.connect_while_alive("changed", lambda v: seen.append(("owned", v)), owner)
    emitter.connect("changed", lambda v: seen.append(("plain", v)), other)
    emitter.emit("changed", 1)
    owner.destroy()
    emitter.emit("changed", 2)
    other.destroy()  # a plain connection's owner does not end it
    emitter.emit("changed", 3)
    assert seen == [("owned", 1), ("plain", 1), ("plain", 2), ("plain", 3)]
    assert emitter.connection_count("changed") == 1


def test_connect_while_alive_needs_a_live_destroyable_owner():
    emitter = Recorder()
    with pytest.raises(TypeError):
        emitter.connect_while_alive("changed", print, object())
    dead = CDestroyable()
    dead.destroy()
    with pytest.raises(ValueError):
        emitter.connect_while_alive("changed", print, dead)


def test_owner_destroyed_after_emitter_is_harmless():
    emitter, owner = Recorder(), CDestroyable()
    emitter.connect_while_alive("changed", print, owner)
    emitter.destroy()
    del emitter
    gc.collect()
    owner.destroy()
    assert owner.fDestroyed


def test_handler_disconnecting_a_later_handler_during_emit():
    obj = Recorder()
    seen = []
    later = []

    def first():
        seen.append("first")
        obj.disconnect(later[0])

    obj.connect("changed", first)
    later.append(obj.connect("changed", lambda: seen.append("second")))
    obj.emit("changed")
    assert seen == ["first"]


def test_handler_exception_propagates_to_emitter():
    obj = Recorder()

    def boom():
        raise KeyError("x")

    obj.connect("changed", boom)
    with pytest.raises(KeyError):
        obj.emit("changed")


def test_cycles_through_connections_are_collected():
    a, b = Recorder(), Recorder()
    a.connect("changed", lambda: b)
    b.connect("changed", lambda: a)
    ref = weakref.ref(a)
    del a, b
    gc.collect()
    assert ref() is None


def test_subclass_overrides_can_call_the_base_operations():
    class Chained(CDestroyable):
        def __init__(self):
            super().__init__()
            self.calls = []

        def destroy(self):
            self.calls.append("destroy")
            super().destroy()

        def _destroy_impl(self):
            self.calls.append("impl")
            super()._destroy_impl()

    obj = Chained()
    obj.destroy()
    assert obj.calls == ["destroy", "impl"]
    assert obj.fDestroyed


def test_handler_that_emits_its_own_signal_raises_recursion_error():
    # A depth that plain Python code survives, far beyond what the native
    # stack holds for emit cycles.
    limit = sys.getrecursionlimit()
    sys.setrecursionlimit(100_000)
    try:
        d = CDestroyable(("ping",))
        d.connect("ping", lambda: d.emit("ping"))
        with pytest.raises(RecursionError):
            d.emit("ping")
    finally:
        sys.setrecursionlimit(limit)


def test_method_connected_while_alive_does_not_keep_its_owner():
    emitter = CDestroyable(("changed",))
    calls = []

    class Owner(CDestroyable):
        def on_changed(self, value):
            calls.append((self, value))

    owner = Owner()
    emitter.connect_while_alive("changed", owner.on_changed, owner)
    emitter.emit("changed", 1)
    assert calls == [(owner, 1)]
    calls.clear()
    ref = weakref.ref(owner)
    del owner
    gc.collect()
    assert ref() is None
    emitter.emit("changed", 2)
    assert calls == []

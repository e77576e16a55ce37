#include "bindutil.h"

#include <nanobind/stl/string.h>
#include <nanobind/stl/string_view.h>
#include <nanobind/stl/vector.h>

using basekit::CDestroyable;

struct PyCDestroyable : CDestroyable {
    NB_TRAMPOLINE(CDestroyable, 2);
    BASEKIT_DESTROYABLE_OVERRIDES(CDestroyable)
};

NB_MODULE(destroyable, m) {
    bindutil::ImportDependencies({});
    m.doc() = "Signals and explicit destruction";

    nb::class_<CDestroyable, PyCDestroyable>(
        m, "CDestroyable", bindutil::IntrusiveHolder<CDestroyable>(),
        nb::is_weak_referenceable(), nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::init<nb::handle>(), nb::arg("signals") = nb::none())
        // Qualified calls: a Python subclass's super().destroy() must reach
        // this class's own operation, not its own override again.
        .def("destroy", [](CDestroyable &self) { self.CDestroyable::destroy(); })
        .def("_destroy_impl", [](CDestroyable &self) { self.CDestroyable::_destroy_impl(); })
        .def("connect", &CDestroyable::connect, nb::arg("signal"), nb::arg("callback"),
             nb::arg("owner") = nb::none())
        .def("connect_while_alive", &CDestroyable::connect_while_alive, nb::arg("signal"),
             nb::arg("callback"), nb::arg("owner"))
        .def("disconnect", &CDestroyable::disconnect, nb::arg("connection_id"))
        .def("emit",
             [](CDestroyable &self, std::string_view signal, nb::args args) {
                 self.emit(signal, args);
             },
             nb::arg("signal"), nb::arg("args"))
        .def("has_signal", &CDestroyable::HasSignal)
        .def("signal_names", &CDestroyable::SignalNames)
        .def("connection_count", &CDestroyable::ConnectionCount)
        .def_prop_ro("_CDestroyable__fDestroyed",
                     [](const CDestroyable &self) { return self.fDestroyed; })
        .def_prop_ro("_CDestroyable__fSignalCatchers",
                     [](const CDestroyable &self) { return self.SignalNames(); })
        .def_rw("_CDestroyable__fAlwaysDestroyOnMainThread",
                &CDestroyable::fAlwaysDestroyOnMainThread)
        .def_prop_ro("fDestroyed", [](const CDestroyable &self) { return self.fDestroyed; });
}

// The one definition of nanobind's intrusive reference counter, shared by all
// extension modules through the core library.
#include <nanobind/intrusive/counter.inl>

#include "basekit/intrusive.h"

namespace basekit {

void InitCoreLibrary(nb::detail::nb_internals *module_internals) {
    if (!nb::detail::internals)
        nb::detail::internals = module_internals;
    nb::intrusive_init(
        [](PyObject *o) noexcept {
            nb::gil_scoped_acquire guard;
            Py_INCREF(o);
        },
        [](PyObject *o) noexcept {
            nb::gil_scoped_acquire guard;
            Py_DECREF(o);
        });
}

}  // namespace basekit

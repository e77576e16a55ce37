// How C++ objects shared with Python are held: every such class derives from
// nb::intrusive_base, is held in C++ as nb::ref<T>, and is bound with
// nb::intrusive_ptr<T> so that C++ and Python share one reference count.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

namespace nb = nanobind;

namespace basekit {

// Called by every extension module's init with that module's nanobind state;
// idempotent.  The core library is not an extension module itself, so it
// learns the shared nanobind state from the first module that loads it.
void InitCoreLibrary(nb::detail::nb_internals *module_internals);

// Garbage-collector visit of a shared object held by `ref`: its Python object,
// when it has one (the reference count then lives there, so `ref` holds a
// reference to it).
template <typename T>
int VisitRef(const nb::ref<T> &ref, visitproc visit, void *arg) {
    if (ref) {
        if (PyObject *self = ref->self_py())
            Py_VISIT(self);
    }
    return 0;
}

}  // namespace basekit

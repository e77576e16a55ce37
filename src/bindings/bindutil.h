// Shared binding helpers: intrusive holders, trampolines for the virtual
// operations that Python subclasses may override, GC slots for objects that
// hold Python callables.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/trampoline.h>

#include "basekit/destroyable.h"
#include "basekit/intrusive.h"

namespace nb = nanobind;

namespace bindutil {

template <typename T>
auto IntrusiveHolder() {
    return nb::intrusive_ptr<T>(
        [](T *o, PyObject *po) noexcept { o->set_self_py(po); });
}

// Import the modules whose types a binding module uses, so that their types
// are registered before this module binds subclasses or signatures of them.
inline void ImportDependencies(std::initializer_list<const char *> modules) {
    basekit::InitCoreLibrary(nb::detail::internals);
    for (const char *name : modules)
        nb::module_::import_(name);
}

int DestroyableTraverse(PyObject *self, visitproc visit, void *arg);
int DestroyableClear(PyObject *self);

inline PyType_Slot kDestroyableSlots[] = {
    {Py_tp_traverse, (void *) DestroyableTraverse},
    {Py_tp_clear, (void *) DestroyableClear},
    {0, nullptr}};

inline int DestroyableTraverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self))
        return 0;
    return nb::inst_ptr<basekit::CDestroyable>(self)->Traverse(visit, arg);
}

inline int DestroyableClear(PyObject *self) {
    if (nb::inst_ready(self))
        nb::inst_ptr<basekit::CDestroyable>(self)->ClearConnections();
    return 0;
}

}  // namespace bindutil

// Trampoline body for the virtual operations of CDestroyable; a class's own
// trampoline adds its operations after this.
#define BASEKIT_DESTROYABLE_OVERRIDES(Base)                     \
    void destroy() override { NB_OVERRIDE(destroy); }           \
    void _destroy_impl() override { NB_OVERRIDE(_destroy_impl); }

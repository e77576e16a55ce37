// Garbage-collector slots for bound classes (not destroyables) that hold
// Python objects: T provides Traverse(visit, arg) and Clear().
#pragma once

#include <nanobind/nanobind.h>

namespace gcslots {

template <typename T>
int Traverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nanobind::inst_ready(self))
        return 0;
    return nanobind::inst_ptr<T>(self)->Traverse(visit, arg);
}

template <typename T>
int Clear(PyObject *self) {
    if (nanobind::inst_ready(self))
        nanobind::inst_ptr<T>(self)->Clear();
    return 0;
}

template <typename T>
inline PyType_Slot kSlots[] = {{Py_tp_traverse, (void *) Traverse<T>},
                               {Py_tp_clear, (void *) Clear<T>},
                               {0, nullptr}};

}  // namespace gcslots

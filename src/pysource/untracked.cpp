#include "pysource/untracked.h"

namespace pysource {

void UntrackAtomicMap(nb::handle map) {
    PyObject *dict = map.ptr();
    if (!PyDict_CheckExact(dict) || !PyObject_GC_IsTracked(dict))
        return;
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(dict, &pos, &name, &value)) {
        if (PyObject_IS_GC(name) || PyObject_IS_GC(value))
            return;
    }
    PyObject_GC_UnTrack(dict);
}

nb::object AtomicFrozenSet(nb::handle items) {
    PyObject *made = PyFrozenSet_New(items.ptr());
    if (!made)
        throw nb::python_error();
    nb::object frozen = nb::steal(made);
    for (nb::handle item : frozen)
        if (PyObject_IS_GC(item.ptr()))
            return frozen;
    PyObject_GC_UnTrack(made);
    return frozen;
}

}  // namespace pysource

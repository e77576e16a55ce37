// Checked access to the C++ object behind a Python object that Python code
// may have replaced by anything (a field, a list item): the wrong type or None
// gives a TypeError, never a null pointer.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

namespace nb = nanobind;

namespace pysource {

[[noreturn]] inline void RaiseNotA(const char *what, nb::handle obj) {
    std::string message = std::string("expected ") + what + ", got " + Py_TYPE(obj.ptr())->tp_name;
    throw nb::type_error(message.c_str());
}

// The C++ object behind `obj` if it is a T, else nullptr (also for None).
// The exact type is checked first without a type-map lookup, since this runs
// once per logical on the scan paths.
template <typename T>
T *FastInstPtr(nb::handle obj) {
    static PyTypeObject *exact_type = nullptr;
    if (!exact_type) {
        nb::handle type = nb::type<T>();
        if (type.is_valid())
            exact_type = (PyTypeObject *) type.ptr();
    }
    if (exact_type && Py_TYPE(obj.ptr()) == exact_type && nb::inst_ready(obj))
        return nb::inst_ptr<T>(obj);
    T *out = nullptr;
    if (obj.is_none() || !nb::try_cast<T *>(obj, out))
        return nullptr;
    return out;
}

// The same, but a TypeError naming `what` instead of nullptr.
template <typename T>
T &InstRef(nb::handle obj, const char *what) {
    T *out = FastInstPtr<T>(obj);
    if (!out)
        RaiseNotA(what, obj);
    return *out;
}

}  // namespace pysource

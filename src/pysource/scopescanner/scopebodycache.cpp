#include "pysource/scopescanner/scopebodycache.h"

namespace pysource {

nb::str GetFullNameForScopeDef(const CLogicalLine &logical) {
    nb::handle scope_name = logical.fScopeName;
    nb::handle local_name = logical.fLocalScopeName;
    if (!local_name.is_valid() || !PyUnicode_Check(local_name.ptr()))
        throw nb::type_error("this logical defines no named scope (fLocalScopeName is not a str)");
    if (!scope_name.is_valid() || scope_name.is_none())
        return nb::borrow<nb::str>(local_name);
    if (!PyUnicode_Check(scope_name.ptr()))
        throw nb::type_error("the logical's fScopeName is not a str");
    if (PyUnicode_GET_LENGTH(scope_name.ptr()) == 0)
        return nb::borrow<nb::str>(local_name);
    nb::object dotted = nb::steal(PyUnicode_Concat(scope_name.ptr(), nb::str(".").ptr()));
    if (!dotted.is_valid())
        throw nb::python_error();
    PyObject *full = PyUnicode_Concat(dotted.ptr(), local_name.ptr());
    if (!full)
        throw nb::python_error();
    return nb::steal<nb::str>(full);
}

}  // namespace pysource

#include "pysource/namefold.h"

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace pysource {

std::optional<std::string> FoldedIdentifier(std::string_view name) {
    if (!HasNonAsciiByte(name))
        return std::nullopt;
    // Names come from decoded source, so they are valid UTF-8; "replace"
    // only guards against a caller that hands in anything else.
    PyObject *text = PyUnicode_DecodeUTF8(name.data(), (Py_ssize_t) name.size(), "replace");
    if (!text)
        throw nb::python_error();
    nb::object written = nb::steal(text);
    nb::object folded = nb::module_::import_("unicodedata").attr("normalize")("NFKC", written);
    int same = PyObject_RichCompareBool(folded.ptr(), written.ptr(), Py_EQ);
    if (same < 0)
        throw nb::python_error();
    if (same)
        return std::nullopt;
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(folded.ptr(), &size);
    if (!utf8)
        throw nb::python_error();
    return std::string(utf8, (size_t) size);
}

}  // namespace pysource

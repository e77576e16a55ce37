#include "pysource/infer/inferenceiterators.h"

namespace pysource::infer {

nb::handle ExhaustedIterValue() {
    // One plain object for the life of the process, never freed: iterators
    // of any module compare against it by identity.
    static PyObject *value = [] {
        nb::object sentinel = nb::module_::import_("builtins").attr("object")();
        return sentinel.release().ptr();
    }();
    return value;
}

CSingleResolvedIterator::CSingleResolvedIterator(nb::object items) {
    fItems = nb::steal(PySequence_List(items.ptr()));
    if (!fItems.is_valid())
        throw nb::python_error();
}

nb::object CSingleResolvedIterator::Next() {
    if (Exhausted())
        return nb::borrow(ExhaustedIterValue());
    return nb::borrow(PyList_GET_ITEM(fItems.ptr(), fPos++));
}

bool CSingleResolvedIterator::Exhausted() const { return fPos >= PyList_GET_SIZE(fItems.ptr()); }

}  // namespace pysource::infer

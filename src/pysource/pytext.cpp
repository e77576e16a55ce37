#include "pysource/pytext.h"

#include <string>

namespace pysource::symbolinfo {

namespace {

bool IsContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

}  // namespace

bool IsText(nb::handle obj) { return PyUnicode_Check(obj.ptr()) || PyBytes_Check(obj.ptr()); }

std::string_view TextView(nb::handle obj, const char *what) {
    if (PyBytes_Check(obj.ptr()))
        return {PyBytes_AS_STRING(obj.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(obj.ptr()))};
    if (PyUnicode_Check(obj.ptr())) {
        Py_ssize_t size = 0;
        const char *data = PyUnicode_AsUTF8AndSize(obj.ptr(), &size);
        if (!data)
            throw nb::python_error();
        return {data, static_cast<std::size_t>(size)};
    }
    std::string message(what);
    message.append(" must be str or bytes, not ").append(Py_TYPE(obj.ptr())->tp_name);
    throw nb::type_error(message.c_str());
}

nb::str ToStr(std::string_view utf8) {
    PyObject *str = PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()),
                                         "surrogateescape");
    if (!str)
        throw nb::python_error();
    return nb::steal<nb::str>(str);
}

nb::bytes ToBytes(std::string_view data) { return nb::bytes(data.data(), data.size()); }

nb::object ToSameType(std::string_view utf8, nb::handle like) {
    if (PyUnicode_Check(like.ptr()))
        return ToStr(utf8);
    return ToBytes(utf8);
}

nb::str AsStr(nb::handle obj, const char *what) {
    if (PyUnicode_Check(obj.ptr()))
        return nb::borrow<nb::str>(obj);
    return ToStr(TextView(obj, what));
}

std::ptrdiff_t CharToByteOffset(std::string_view utf8, std::ptrdiff_t char_offset) {
    std::ptrdiff_t chars = 0;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        if (IsContinuationByte(utf8[i]))
            continue;
        if (chars == char_offset)
            return static_cast<std::ptrdiff_t>(i);
        ++chars;
    }
    return static_cast<std::ptrdiff_t>(utf8.size());
}

std::ptrdiff_t ByteToCharOffset(std::string_view utf8, std::ptrdiff_t byte_offset) {
    std::ptrdiff_t chars = 0;
    for (std::ptrdiff_t i = 0; i < byte_offset && i < static_cast<std::ptrdiff_t>(utf8.size()); ++i)
        if (!IsContinuationByte(utf8[static_cast<std::size_t>(i)]))
            ++chars;
    return chars;
}

}  // namespace pysource::symbolinfo

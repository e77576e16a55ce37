#include "pysource/pytext.h"

#include "pysource/strutils.h"

#include <string>

namespace pysource::symbolinfo {

bool IsText(nb::handle obj) { return PyUnicode_Check(obj.ptr()) || PyBytes_Check(obj.ptr()); }

std::string_view TextView(nb::handle obj, const char *what) {
    // Bytes, and str of ASCII alone (whose text is its own data), are most
    // of what is read here: straight to their data.
    PyObject *o = obj.ptr();
    if (PyBytes_CheckExact(o))
        return {PyBytes_AS_STRING(o), static_cast<std::size_t>(PyBytes_GET_SIZE(o))};
    if (PyUnicode_CheckExact(o) && PyUnicode_IS_COMPACT_ASCII(o))
        return {static_cast<const char *>(PyUnicode_DATA(o)), static_cast<std::size_t>(PyUnicode_GET_LENGTH(o))};
    if (!IsText(obj)) {
        std::string message(what);
        message.append(" must be str or bytes, not ").append(Py_TYPE(obj.ptr())->tp_name);
        throw nb::type_error(message.c_str());
    }
    Utf8Buffer buffer = GetUtf8Buffer(obj);
    return {buffer.ptr, static_cast<std::size_t>(buffer.len)};
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
    TextView(obj, what);  // the type check, with the argument's name
    return nb::borrow<nb::str>(pysource::AsStr(obj));
}

std::ptrdiff_t CharToByteOffset(std::string_view utf8, std::ptrdiff_t char_offset) {
    const auto end = static_cast<std::ptrdiff_t>(utf8.size());
    if (char_offset <= 0 || end == 0)
        return 0;
    return AdjustUtf8Pos(utf8.data(), 0, char_offset, end);
}

std::ptrdiff_t ByteToCharOffset(std::string_view utf8, std::ptrdiff_t byte_offset) {
    std::ptrdiff_t chars = 0;
    for (std::ptrdiff_t i = 0; i < byte_offset && i < static_cast<std::ptrdiff_t>(utf8.size()); ++i)
        if (IsUtf8LeadByte(static_cast<unsigned char>(utf8[static_cast<std::size_t>(i)])))
            ++chars;
    return chars;
}

}  // namespace pysource::symbolinfo

#include "pysource/strutils.h"

#include "pysource/fastaccess.h"

#include <string>

namespace pysource {

namespace {

[[noreturn]] void RaiseTypeError(const char *what, nb::handle got) {
    throw nb::type_error(
        (std::string(what) + ", not " + Py_TYPE(got.ptr())->tp_name).c_str());
}

[[noreturn]] void RaiseMalformed(Py_ssize_t pos) {
    throw nb::value_error(
        ("invalid UTF-8 sequence at byte offset " + std::to_string(pos)).c_str());
}

}  // namespace

Utf8Buffer GetUtf8Buffer(nb::handle u) {
    PyObject *o = u.ptr();
    if (PyBytes_Check(o))
        return {PyBytes_AS_STRING(o), PyBytes_GET_SIZE(o)};
    if (PyUnicode_Check(o)) {
        Py_ssize_t len = 0;
        const char *p = PyUnicode_AsUTF8AndSize(o, &len);
        if (!p)
            throw nb::python_error();
        return {p, len};
    }
    if (PyByteArray_Check(o))
        return {PyByteArray_AS_STRING(o), PyByteArray_GET_SIZE(o)};
    if (!o || o == Py_None)
        throw nb::type_error("expected str, bytes or bytearray, not None");
    RaiseTypeError("expected str, bytes or bytearray", u);
}

std::uint32_t NonInlineUcs4CharAtUtf8Pos_(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    if (!InText(pos, end_pos))
        return 0;
    const unsigned char *s = (const unsigned char *) p + pos;
    unsigned char c0 = s[0];
    if (c0 < 0x80)
        return c0;
    int len;
    std::uint32_t value, min_value;
    if (c0 >= 0xC2 && c0 <= 0xDF) {
        len = 2, value = c0 & 0x1F, min_value = 0x80;
    } else if (c0 >= 0xE0 && c0 <= 0xEF) {
        len = 3, value = c0 & 0x0F, min_value = 0x800;
    } else if (c0 >= 0xF0 && c0 <= 0xF4) {
        len = 4, value = c0 & 0x07, min_value = 0x10000;
    } else {
        RaiseMalformed(pos);  // a continuation byte, an overlong lead or past U+10FFFF
    }
    if (end_pos - pos < len)
        RaiseMalformed(pos);
    for (int i = 1; i < len; ++i) {
        if ((s[i] & 0xC0) != 0x80)
            RaiseMalformed(pos);
        value = (value << 6) | (s[i] & 0x3F);
    }
    if (value < min_value || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        RaiseMalformed(pos);
    return value;
}

bool NonAsciiIsIdentifierChar(std::uint32_t u, bool initial) {
    nb::object one = nb::steal(PyUnicode_FromOrdinal((int) u));
    if (!one.is_valid())
        throw nb::python_error();
    if (PyUnicode_IsIdentifier(one.ptr()) == 1)
        return true;
    return !initial && Py_UNICODE_ISDIGIT(u);
}

void RaiseInvalidStart() { throw nb::value_error("Invalid start"); }

Py_ssize_t BytesFindByte(nb::handle b, signed char c, Py_ssize_t start) {
    if (!PyBytes_Check(b.ptr()))
        RaiseTypeError("BytesFindByte: expected bytes", b);
    return PtrFindByte(PyBytes_AS_STRING(b.ptr()), PyBytes_GET_SIZE(b.ptr()), c, start);
}

void RaiseStringIndex() { throw nb::index_error("string index out of range"); }

void RaiseOrdAtType() { throw nb::type_error("OrdAt: expected str or bytes"); }

nb::object AsStr(nb::handle x) {
    PyObject *o = x.ptr();
    if (PyUnicode_Check(o))
        return nb::borrow(x);
    if (PyBytes_Check(o) || PyByteArray_Check(o)) {
        Utf8Buffer buf = GetUtf8Buffer(x);
        PyObject *s = PyUnicode_DecodeUTF8(buf.ptr, buf.len, nullptr);
        if (!s)
            throw nb::python_error();
        return nb::steal(s);
    }
    RaiseTypeError("AsStr: expected str or bytes", x);
}

nb::object AsUtf8(nb::handle x) {
    PyObject *o = x.ptr();
    if (PyBytes_Check(o))
        return nb::borrow(x);
    if (PyUnicode_Check(o) || PyByteArray_Check(o)) {
        Utf8Buffer buf = GetUtf8Buffer(x);
        return nb::bytes(buf.ptr, (size_t) buf.len);
    }
    if (PyLong_Check(o)) {
        nb::object decimal = nb::steal(PyObject_Str(o));
        if (!decimal.is_valid())
            throw nb::python_error();
        Utf8Buffer buf = GetUtf8Buffer(decimal);
        return nb::bytes(buf.ptr, (size_t) buf.len);
    }
    RaiseTypeError("AsUtf8: expected str, bytes or int", x);
}

nb::bytes BytesForInteger(Py_ssize_t n) {
    std::string decimal = std::to_string(n);
    return nb::bytes(decimal.data(), decimal.size());
}

Py_ssize_t Utf8Len(nb::handle x) { return GetUtf8Buffer(x).len; }

nb::bytes Utf8Concat5(nb::handle s0, nb::handle s1, nb::handle s2, nb::handle s3, nb::handle s4) {
    nb::handle parts[5] = {s0, s1, s2, s3, s4};
    nb::object utf8[5];
    Py_ssize_t total = 0;
    for (int i = 0; i < 5; ++i) {
        if (!parts[i].is_valid() || parts[i].is_none())
            continue;
        utf8[i] = AsUtf8(parts[i]);
        total += PyBytes_GET_SIZE(utf8[i].ptr());
    }
    PyObject *result = PyBytes_FromStringAndSize(nullptr, total);
    if (!result)
        throw nb::python_error();
    char *out = PyBytes_AS_STRING(result);
    for (auto &part : utf8) {
        if (!part.is_valid())
            continue;
        Py_ssize_t n = PyBytes_GET_SIZE(part.ptr());
        std::memcpy(out, PyBytes_AS_STRING(part.ptr()), (size_t) n);
        out += n;
    }
    return nb::steal<nb::bytes>(result);
}

// ---------------------------------------------------------------------------
// Python-facing forms

namespace strutils_py {

namespace {

// The text's buffer, with `end_pos` checked to lie inside it.
Utf8Buffer CheckedBuffer(nb::handle text, Py_ssize_t end_pos) {
    Utf8Buffer buf = GetUtf8Buffer(text);
    if (end_pos < 0 || end_pos > buf.len)
        throw nb::value_error(("end_pos " + std::to_string(end_pos) +
                               " outside the text of length " + std::to_string(buf.len))
                                  .c_str());
    return buf;
}

}  // namespace

nb::bytes GetUtf8Ptr(nb::handle u) {
    Utf8Buffer buf = GetUtf8Buffer(u);
    return nb::bytes(buf.ptr, (size_t) buf.len);
}

Py_ssize_t AdjustUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t diff, Py_ssize_t end_pos) {
    return pysource::AdjustUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, diff, end_pos);
}

std::uint32_t Ucs4CharAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos) {
    return pysource::Ucs4CharAtUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, end_pos);
}

std::uint32_t NonInlineUcs4CharAtUtf8Pos_(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos) {
    return pysource::NonInlineUcs4CharAtUtf8Pos_(CheckedBuffer(text, end_pos).ptr, pos, end_pos);
}

bool IsSpaceAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos) {
    return pysource::IsSpaceAtUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, end_pos);
}

bool IsDigitAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos) {
    return pysource::IsDigitAtUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, end_pos);
}

bool IsAlnumAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos) {
    return pysource::IsAlnumAtUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, end_pos);
}

bool IsIdentifierCharAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos, bool initial) {
    return pysource::IsIdentifierCharAtUtf8Pos(CheckedBuffer(text, end_pos).ptr, pos, end_pos,
                                               initial);
}

Py_ssize_t PtrFindByte(nb::handle text, Py_ssize_t length, nb::handle c, Py_ssize_t start) {
    Utf8Buffer buf = GetUtf8Buffer(text);
    if (length > buf.len)
        throw nb::value_error(("length " + std::to_string(length) +
                               " past the end of the text of length " + std::to_string(buf.len))
                                  .c_str());
    return pysource::PtrFindByte(buf.ptr, length, fastaccess_py::CharArg(c), start);
}

Py_ssize_t BytesFindByte(nb::handle b, nb::handle c, Py_ssize_t start) {
    return pysource::BytesFindByte(b, fastaccess_py::CharArg(c), start);
}

bool IsUtf8LeadByte(nb::handle c) {
    return pysource::IsUtf8LeadByte((unsigned char) fastaccess_py::CharArg(c));
}

}  // namespace strutils_py

}  // namespace pysource

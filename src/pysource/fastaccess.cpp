#include "pysource/fastaccess.h"

#include "pysource/srctokenizer.h"

#include <algorithm>
#include <string>

namespace pysource {

// ---------------------------------------------------------------------------
// The clock

namespace clock_detail {

PyObject *gModuleDict = nullptr;
PyObject *gTimeFuncKey = nullptr;

void LoadFastAccessModule() {
    // Importing the module runs its init, which registers it here.
    nb::module_::import_("pysource._fastaccess");
    if (!gModuleDict)
        throw nb::import_error("pysource._fastaccess did not register its clock");
}

void RaiseNoTimeFunc() {
    throw nb::attribute_error("pysource._fastaccess has no clock: '__TimeFunc' was deleted");
}

}  // namespace clock_detail

void RegisterFastAccessModule(nb::module_ m) {
    using namespace clock_detail;
    if (!gTimeFuncKey)
        gTimeFuncKey = PyUnicode_InternFromString("__TimeFunc");
    PyObject *dict = PyModule_GetDict(m.ptr());  // borrowed
    Py_XINCREF(dict);
    Py_XDECREF(gModuleDict);
    gModuleDict = dict;
    m.attr("__TimeFunc") = nb::module_::import_("time").attr("time");
}

// ---------------------------------------------------------------------------
// The log front

CLogger::CLogger(nb::handle receiver) { SetReceiver(receiver); }

void CLogger::SetReceiver(nb::handle receiver) {
    if (!receiver.is_valid() || receiver.is_none()) {
        fReceiver = nb::none();
        fReceiverIsLogger = false;
        return;
    }
    bool is_logger = nb::hasattr(receiver, "isEnabledFor") && nb::hasattr(receiver, "log");
    if (!is_logger && !PyCallable_Check(receiver.ptr()))
        throw nb::type_error("CLogger: the receiver must be a logging.Logger, a callable or None");
    fReceiver = nb::borrow(receiver);
    fReceiverIsLogger = is_logger;
}

int CLogger::LoggingLevelFor(int level) { return std::max(1, 11 - level); }

void CLogger::Log(int level, nb::handle fmt, nb::handle args) {
    if (fReceiver.is_none())
        return;
    nb::object arg_tuple;
    if (!args.is_valid() || args.is_none())
        arg_tuple = nb::tuple();
    else if (PyTuple_Check(args.ptr()))
        arg_tuple = nb::borrow(args);
    else
        arg_tuple = nb::steal(PySequence_Tuple(args.ptr()));
    if (!arg_tuple.is_valid())
        throw nb::python_error();

    if (fReceiverIsLogger) {
        nb::object logging_level = nb::int_(LoggingLevelFor(level));
        if (!nb::cast<bool>(nb::bool_(fReceiver.attr("isEnabledFor")(logging_level))))
            return;
        // logging formats the message itself, and only when a handler emits it.
        nb::object call_args = nb::steal(PyTuple_New(2 + PyTuple_GET_SIZE(arg_tuple.ptr())));
        PyTuple_SET_ITEM(call_args.ptr(), 0, logging_level.release().ptr());
        PyTuple_SET_ITEM(call_args.ptr(), 1, nb::borrow(fmt).release().ptr());
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(arg_tuple.ptr()); ++i)
            PyTuple_SET_ITEM(call_args.ptr(), 2 + i,
                             nb::borrow(PyTuple_GET_ITEM(arg_tuple.ptr(), i)).release().ptr());
        nb::object log = fReceiver.attr("log");
        PyObject *result = PyObject_Call(log.ptr(), call_args.ptr(), nullptr);
        if (!result)
            throw nb::python_error();
        Py_DECREF(result);
        return;
    }

    nb::object text;
    if (PyTuple_GET_SIZE(arg_tuple.ptr()) == 0)
        text = nb::borrow(fmt);
    else
        text = nb::steal(PyNumber_Remainder(fmt.ptr(), arg_tuple.ptr()));
    if (!text.is_valid())
        throw nb::python_error();
    fReceiver(level, text);
}

int CLogger::Traverse(visitproc visit, void *arg) {
    Py_VISIT(fReceiver.ptr());
    return 0;
}

void CLogger::Clear() {
    fReceiver = nb::none();
    fReceiverIsLogger = false;
}

// ---------------------------------------------------------------------------
// Small helpers

void SetUpdate(nb::handle target, nb::handle other) {
    if (target.is_none())
        return;
    if (!PySet_Check(target.ptr()))
        throw nb::type_error("SetUpdate: the target must be a set or None");
    nb::object iter = nb::steal(PyObject_GetIter(other.ptr()));
    if (!iter.is_valid())
        throw nb::python_error();
    while (PyObject *item = PyIter_Next(iter.ptr())) {
        int rc = PySet_Add(target.ptr(), item);
        Py_DECREF(item);
        if (rc < 0)
            throw nb::python_error();
    }
    if (PyErr_Occurred())
        throw nb::python_error();
}

double DoubleValueForPyIntBits(nb::handle l) {
    if (!PyLong_Check(l.ptr()))
        throw nb::type_error("DoubleValueForPyIntBits: expected an int");
    unsigned long long bits = PyLong_AsUnsignedLongLongMask(l.ptr());
    if (bits == (unsigned long long) -1 && PyErr_Occurred())
        throw nb::python_error();
    return DoubleValueForULongLongBits(bits);
}

// ---------------------------------------------------------------------------
// The non-nested search

void CNonNestedSearch::InitWith(nb::handle to_search, nb::handle to_find_bytes, Py_ssize_t start,
                                Py_ssize_t end) {
    if (!PyBytes_Check(to_find_bytes.ptr()))
        throw nb::type_error("CNonNestedSearch.InitWith: to_find_bytes must be bytes");
    Utf8Buffer text{nullptr, 0};
    nb::object search_bytes, search_text;
    if (PyBytes_Check(to_search.ptr())) {
        search_bytes = nb::borrow(to_search);
        text = GetUtf8Buffer(to_search);
    } else if (PyUnicode_Check(to_search.ptr())) {
        search_text = nb::borrow(to_search);
        text = GetUtf8Buffer(to_search);
    }
    if (text.ptr && (start < 0 || start > text.len || end < 0 || end > text.len))
        throw nb::value_error(("CNonNestedSearch.InitWith: start " + std::to_string(start) +
                               " and end " + std::to_string(end) +
                               " must lie in the text of length " + std::to_string(text.len))
                                  .c_str());
    fSearchBytes = std::move(search_bytes);
    fSearchText = std::move(search_text);
    fFindBytes = nb::borrow(to_find_bytes);
    InitNonNestedStruct(fState, text.ptr, to_find_bytes, start, end);
}

Py_ssize_t FindStringEndNonNested_(const tNonNestedStruct &st, Py_ssize_t pos) {
    if (!st.search || pos < 0 || pos >= st.end) {
        PyErr_SetString(PyExc_ValueError, "no string literal starts at that offset of the search");
        return -2;
    }
    // An unterminated literal is no error here: the search skips to where the
    // scan stopped (the end of the line, or `end` for a triple-quoted one).
    bool unterminated = false;
    return FindStringLiteralEnd(st.search, pos, st.end, &unterminated);
}

void CNonNestedSearch::Clear() {
    fSearchBytes = nb::object();
    fSearchText = nb::object();
    fFindBytes = nb::object();
    InitNonNestedStruct(fState, nullptr, "", 0, 0, 0);
}

// ---------------------------------------------------------------------------
// Python-facing forms

namespace fastaccess_py {

signed char CharArg(nb::handle c) {
    PyObject *o = c.ptr();
    long value;
    if (PyLong_Check(o)) {
        value = PyLong_AsLong(o);
        if (value == -1 && PyErr_Occurred())
            throw nb::python_error();
    } else if (PyBytes_Check(o) && PyBytes_GET_SIZE(o) == 1) {
        value = (unsigned char) PyBytes_AS_STRING(o)[0];
    } else if (PyUnicode_Check(o) && PyUnicode_GET_LENGTH(o) == 1) {
        value = std::min<long>(PyUnicode_READ_CHAR(o, 0), 0xFF);
    } else {
        throw nb::type_error("expected a byte: an int, or a bytes or str of length 1");
    }
    if (value < -128 || value > 255)
        throw nb::value_error(("byte value out of range: " + std::to_string(value)).c_str());
    return (signed char) value;
}

bool IsAlnum(nb::handle c) { return pysource::IsAlnum(CharArg(c)); }
bool IsDigit(nb::handle c) { return pysource::IsDigit(CharArg(c)); }

double DoubleValueForULongLongBits(nb::handle l) {
    if (!PyLong_Check(l.ptr()))
        throw nb::type_error("DoubleValueForULongLongBits: expected an int");
    unsigned long long bits = PyLong_AsUnsignedLongLong(l.ptr());
    if (bits == (unsigned long long) -1 && PyErr_Occurred())
        throw nb::python_error();
    return pysource::DoubleValueForULongLongBits(bits);
}

Py_ssize_t FindStringEndNonNested_(const CNonNestedSearch &search, Py_ssize_t pos) {
    Py_ssize_t e = pysource::FindStringEndNonNested_(search.State(), pos);
    if (e == -2)
        throw nb::python_error();
    return e;
}

}  // namespace fastaccess_py

}  // namespace pysource

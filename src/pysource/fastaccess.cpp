#include "pysource/fastaccess.h"

#include <algorithm>

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

}  // namespace pysource

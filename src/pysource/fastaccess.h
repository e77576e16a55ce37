// pysource._fastaccess: the clock, the log front, and the small helpers that
// the scanners call from their inner loops.
//
// The clock is the module variable `__TimeFunc` of pysource._fastaccess.  It is
// read at every GetNowTime() call, so a test or an embedder replaces the clock
// as a whole by assigning a new callable to that module attribute.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <utility>

namespace nb = nanobind;

namespace pysource {

// ---------------------------------------------------------------------------
// The clock

namespace clock_detail {
// The dict of pysource._fastaccess and the interned key "__TimeFunc"; both
// are set once by RegisterFastAccessModule (or LoadFastAccessModule on first
// use from C++) and live for the process.
extern PyObject *gModuleDict;
extern PyObject *gTimeFuncKey;
void LoadFastAccessModule();
[[noreturn]] void RaiseNoTimeFunc();
}  // namespace clock_detail

// Called once by the module's init: remembers its dict and installs the
// default clock (time.time) as `__TimeFunc`.
void RegisterFastAccessModule(nb::module_ m);

// The callable currently installed as `__TimeFunc`.
inline nb::object TimeFunc_() {
    using namespace clock_detail;
    if (!gModuleDict)
        LoadFastAccessModule();
    PyObject *func = PyDict_GetItemWithError(gModuleDict, gTimeFuncKey);  // borrowed
    if (!func) {
        if (PyErr_Occurred())
            throw nb::python_error();
        RaiseNoTimeFunc();
    }
    return nb::borrow(func);
}

// The current time: `__TimeFunc()` converted to a double.  Errors of the clock
// pass through; a result that is not a number is a TypeError.
inline double GetNowTime() {
    nb::object func = TimeFunc_();  // a strong reference: the clock may replace itself
    PyObject *result = PyObject_CallNoArgs(func.ptr());
    if (!result)
        throw nb::python_error();
    double now = PyFloat_AsDouble(result);
    Py_DECREF(result);
    if (now == -1.0 && PyErr_Occurred())
        throw nb::python_error();
    return now;
}

// Whether the clock has reached `end_time`.  Equal counts as past; a NaN
// `end_time` is never reached.
inline bool OutOfTime(double end_time) { return GetNowTime() >= end_time; }

// ---------------------------------------------------------------------------
// The log front

// A logger front.  Its receiver is one of:
//   - None: logging is off, nothing is formatted or called;
//   - a logging.Logger (anything with `isEnabledFor` and `log`): levels 1, 2, 3
//     go out as the logging levels 10 (DEBUG), 9 and 8, level n in general as
//     max(1, 11 - n); the message is handed to `log` unformatted, so `%`
//     formatting happens only if a handler really emits it;
//   - any other callable: called as receiver(level, text) with `fmt % args`.
// A direct call logger(fmt, *args) logs at level 1.
class CLogger : public nb::intrusive_base {
public:
    static constexpr int kDirectCallLevel = 1;

    explicit CLogger(nb::handle receiver = nb::none());
    ~CLogger() override = default;

    // The leveled operation: `args` is a tuple for `fmt`.  Virtual so that a
    // Python subclass can take the raw format and arguments itself.
    virtual void Log(int level, nb::handle fmt, nb::handle args);

    void Log1(nb::handle fmt, nb::handle args) { LogIfOn(1, fmt, args); }
    void Log2(nb::handle fmt, nb::handle args) { LogIfOn(2, fmt, args); }
    void Log3(nb::handle fmt, nb::handle args) { LogIfOn(3, fmt, args); }
    // The direct call logger(fmt, *args).
    void Call(nb::handle fmt, nb::handle args) { LogIfOn(kDirectCallLevel, fmt, args); }

    // From C++: logger("format %s", a, b); the argument tuple is only built
    // when a receiver is set.
    template <typename... Args>
    void operator()(const char *fmt, Args &&...args) {
        if (fReceiver.is_none())
            return;
        Log(kDirectCallLevel, nb::str(fmt), nb::make_tuple(std::forward<Args>(args)...));
    }

    bool IsOn() const { return !fReceiver.is_none(); }
    nb::handle Receiver() const { return fReceiver; }
    void SetReceiver(nb::handle receiver);

    // The logging-module level that a level of this front maps to.
    static int LoggingLevelFor(int level);

    // Garbage-collector support for the receiver.
    int Traverse(visitproc visit, void *arg);
    void Clear();

private:
    void LogIfOn(int level, nb::handle fmt, nb::handle args) {
        if (!fReceiver.is_none())
            Log(level, fmt, args);
    }

    nb::object fReceiver;        // first field: where messages go, or None
    bool fReceiverIsLogger = false;
};

}  // namespace pysource

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

#include <cassert>
#include <cstdint>
#include <cstring>
#include <utility>

#include "pysource/strutils.h"

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

// ---------------------------------------------------------------------------
// Small helpers

// Adds every member of `other` to the set `target` (None: nothing to add to).
void SetUpdate(nb::handle target, nb::handle other);

// C strstr of `sub` in `whole`, both exactly bytes; a zero byte ends either.
// Anything else is a TypeError "Both sub and whole must be strings".
inline bool StrInStr(nb::handle sub, nb::handle whole) {
    if (!PyBytes_CheckExact(sub.ptr()) || !PyBytes_CheckExact(whole.ptr()))
        throw nb::type_error("Both sub and whole must be strings");
    return std::strstr(PyBytes_AS_STRING(whole.ptr()), PyBytes_AS_STRING(sub.ptr())) != nullptr;
}

// The C library's classes under the C locale: a byte at or above 0x80 (a
// negative signed char) is neither.
inline bool IsAlnum(signed char c) { return c >= 0 && AsciiIsAlnum((unsigned char) c); }
inline bool IsDigit(signed char c) { return c >= 0 && AsciiIsDigit((unsigned char) c); }

// Reinterpretation of the 64 bits of a double.
inline std::uint64_t ULongLongValueForDoubleBits(double f) {
    std::uint64_t l;
    std::memcpy(&l, &f, sizeof l);
    return l;
}
inline double DoubleValueForULongLongBits(std::uint64_t l) {
    double f;
    std::memcpy(&f, &l, sizeof f);
    return f;
}
// The double whose bits are the low 64 bits of the int `l` (negative ints
// included, as by a mask).
double DoubleValueForPyIntBits(nb::handle l);

// Locations are compared by identity, never by content.
inline bool LocationsEqual(nb::handle loc1, nb::handle loc2) { return loc1.ptr() == loc2.ptr(); }

// ---------------------------------------------------------------------------
// The non-nested search: finds a byte sequence at bracket level zero in
// source text, skipping string literals in one step.

// The search state.  It borrows both texts; its owner keeps them alive.
struct tNonNestedStruct {
    utf8_ptr search = nullptr;  // the text searched; null when cleared
    utf8_ptr find = nullptr;    // the byte sequence looked for
    Py_ssize_t find_len = 0;
    char first = 0;             // find[0]
    Py_ssize_t pos = 0;         // next offset to look at
    Py_ssize_t end = 0;         // offset at which the search stops
    Py_ssize_t nesting = 0;     // bracket balance so far
};

inline void InitNonNestedStruct(tNonNestedStruct &st, utf8_ptr search, utf8_ptr find,
                                Py_ssize_t find_len, Py_ssize_t start, Py_ssize_t end) {
    assert(!search || (start >= 0 && end >= 0 && (std::size_t) start <= std::strlen(search) &&
                       (std::size_t) end <= std::strlen(search)));
    st.search = search;
    st.find = find;
    st.find_len = find_len;
    st.pos = start;
    // An empty sequence finds nothing: the search ends before it starts.
    st.end = find_len != 0 ? end : 0;
    st.first = find_len != 0 ? find[0] : 0;
    st.nesting = 0;
}

// The same with the sequence given as a bytes object, which the caller keeps.
inline void InitNonNestedStruct(tNonNestedStruct &st, utf8_ptr search, nb::handle to_find_bytes,
                                Py_ssize_t start, Py_ssize_t end) {
    if (!PyBytes_Check(to_find_bytes.ptr()))
        throw nb::type_error("InitNonNestedStruct: the sequence to find must be bytes");
    InitNonNestedStruct(st, search, PyBytes_AS_STRING(to_find_bytes.ptr()),
                        PyBytes_GET_SIZE(to_find_bytes.ptr()), start, end);
}

// The offset just past the string literal whose opening quote is at `pos`,
// never past `st.end`; -2 with a Python error set on failure.
Py_ssize_t FindStringEndNonNested_(const tNonNestedStruct &st, Py_ssize_t pos);

inline bool IsOpeningBracket(char c) { return c == '(' || c == '[' || c == '{'; }
inline bool IsClosingBracket(char c) { return c == ')' || c == ']' || c == '}'; }

// The offset of the next match at level zero, or -1 when the search is
// exhausted.  An error of the string scan is thrown as nb::python_error.
inline Py_ssize_t FindNextNonNestedStruct(tNonNestedStruct &st) {
    if (!st.search || st.pos >= st.end)
        return -1;
    while (true) {
        Py_ssize_t at = st.pos;
        char c = st.search[st.pos++];
        if (st.nesting == 0 && c == st.first) {
            if (st.find_len == 1) {
                if (IsOpeningBracket(c))
                    st.nesting = 1;
                else if (IsClosingBracket(c))
                    st.nesting = -1;
                return at;
            }
            if (st.find_len <= st.end - at &&
                std::memcmp(st.search + at, st.find, (std::size_t) st.find_len) == 0) {
                for (Py_ssize_t i = 0; i < st.find_len; ++i) {
                    if (IsOpeningBracket(st.find[i]))
                        ++st.nesting;
                    else if (IsClosingBracket(st.find[i]))
                        --st.nesting;
                }
                st.pos = at + st.find_len;
                return at;
            }
        }
        if (c == '"' || c == '\'') {
            Py_ssize_t e = FindStringEndNonNested_(st, at);
            if (e == -2)
                throw nb::python_error();
            if (e > st.pos)
                st.pos = e;
        } else if (IsOpeningBracket(c)) {
            ++st.nesting;
        } else if (IsClosingBracket(c)) {
            --st.nesting;
        }
        if (st.pos >= st.end)
            return -1;
    }
}

// A reusable search that keeps the searched text (bytes or str) alive.  Idle
// after construction or Clear(), running after InitWith(), idle again by
// itself once exhausted.
class CNonNestedSearch {
public:
    // `start` and `end` are UTF-8 byte offsets into `to_search`, which is
    // bytes or str; any other value (None included) makes a search that
    // finds nothing.  `to_find_bytes` must be bytes.
    void InitWith(nb::handle to_search, nb::handle to_find_bytes, Py_ssize_t start,
                  Py_ssize_t end);
    // The next match's offset, or -1 (then the search is idle).
    Py_ssize_t FindNext() {
        if (IsIdle())
            return -1;
        Py_ssize_t found = FindNextNonNestedStruct(fState);
        if (found == -1)
            Clear();
        return found;
    }
    void Clear();

    const tNonNestedStruct &State() const { return fState; }
    bool IsIdle() const { return !fSearchBytes.is_valid() && !fSearchText.is_valid(); }

private:
    tNonNestedStruct fState;
    nb::object fSearchBytes;  // to_search when it is bytes
    nb::object fSearchText;   // to_search when it is str
    nb::object fFindBytes;    // keeps `find` valid even if the caller lets it go
};

// The forms Python calls, where a Python value needs checking before the
// inline operation sees it.
namespace fastaccess_py {

// A byte: an int in [-128, 255], or a one-character bytes or str (a
// non-ASCII character stands for a byte at or above 0x80).
signed char CharArg(nb::handle c);
bool IsAlnum(nb::handle c);
bool IsDigit(nb::handle c);
// A negative or too large int is an OverflowError.
double DoubleValueForULongLongBits(nb::handle l);
// FindStringEndNonNested_ on the state of a search; a failure is raised.
Py_ssize_t FindStringEndNonNested_(const CNonNestedSearch &search, Py_ssize_t pos);

}  // namespace fastaccess_py

}  // namespace pysource

#include "basekit/stackguard.h"

#include <nanobind/nanobind.h>

#include <pthread.h>

#include <cstdint>
#include <string>

namespace nb = nanobind;

namespace basekit {

namespace {

// What must stay free below the deepest guarded call: room for the Python
// code and the native calls between two guards (sanitizer builds use frames
// several times larger).
constexpr std::uintptr_t kStackMargin = 1024 * 1024;

// The lowest usable address of the current thread's stack (stacks grow down
// on every platform this builds for), or 0 when it can't be had.
std::uintptr_t StackLimit() {
    thread_local std::uintptr_t limit = 1;
    if (limit == 1) {
        limit = 0;
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            void *base = nullptr;
            size_t size = 0;
            if (pthread_attr_getstack(&attr, &base, &size) == 0 && size > kStackMargin)
                limit = (std::uintptr_t) base + kStackMargin;
            pthread_attr_destroy(&attr);
        }
    }
    return limit;
}

}  // namespace

bool NativeStackLow() {
    char probe = 0;
    std::uintptr_t here = (std::uintptr_t) &probe;
    std::uintptr_t limit = StackLimit();
    return limit != 0 && here < limit;
}

void CheckNativeStack(const char *where) {
    if (NativeStackLow()) {
        std::string message = std::string("maximum recursion depth exceeded ") + where;
        PyErr_SetString(PyExc_RecursionError, message.c_str());
        throw nb::python_error();
    }
}

}  // namespace basekit

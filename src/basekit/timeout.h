// basekit.timeout: adapters for callbacks.
#pragma once

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace basekit {

// Wraps a callable so that it can be connected to any signal: a call with
// whatever arguments calls the wrapped callable with none, and gives its result.
class NoArgCallback {
public:
    explicit NoArgCallback(nb::handle callable);

    nb::object operator()() const { return fCallable(); }
    const nb::object &Callable() const { return fCallable; }

    // Garbage-collector support: the wrapped callable often refers back to
    // the object whose signal holds this wrapper.
    int Traverse(visitproc visit, void *arg) const;
    void Clear();

private:
    nb::object fCallable;
};

}  // namespace basekit

// The engine's iterators: Python iterators over singles that also answer
// Next() with kExhaustedIterValue once they are done.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

namespace nb = nanobind;

namespace pysource::infer {

// The value by which the engine's iterators say that they are done.
nb::handle ExhaustedIterValue();

class CSingleResolvedIterator : public nb::intrusive_base {
public:
    explicit CSingleResolvedIterator(nb::object items);  // a list of singles
    nb::object Next();  // the next single, or kExhaustedIterValue
    bool Exhausted() const;

private:
    nb::object fItems;
    Py_ssize_t fPos = 0;
};

}  // namespace pysource::infer

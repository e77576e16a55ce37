// CCallableSupport: what a def single says about calling it.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

namespace nb = nanobind;

namespace pysource::infer {

class CCallableSupport : public nb::intrusive_base {
public:
    CCallableSupport() = default;
    ~CCallableSupport() override = default;

    // The unpacked def info (symbolinfo.CDefInfo) of a def single, or None
    // for anything that is not a def.
    virtual nb::object GetUnpackedDefInfo(nb::handle single);
};

}  // namespace pysource::infer

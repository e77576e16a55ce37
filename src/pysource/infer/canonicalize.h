// CResolvedReducer: reduces a resolved set to what a caller can record:
// duplicates folded, values the caller can't use dropped, literal values
// forgotten unless asked for.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

namespace nb = nanobind;

namespace pysource::infer {

class CResolvedReducer : public nb::intrusive_base {
public:
    CResolvedReducer() = default;
    ~CResolvedReducer() override = default;

    // `keep_literal_values`: a literal keeps its value (else `int 3` and
    // `int 4` fold into `int`).  `keep_class_refs`: singles that stand for
    // the class of an expression stay (else they are dropped).
    virtual nb::object Reduce(nb::handle resolved, bool keep_literal_values, bool keep_class_refs);
};

}  // namespace pysource::infer

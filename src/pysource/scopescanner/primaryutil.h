// Small helpers shared by the files of the primary scan.
#pragma once

#include <nanobind/nanobind.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pysource/logicalline.h"
#include "pysource/scope.h"

namespace nb = nanobind;

namespace pysource::primaryutil {

// The CScope behind `obj`, or a TypeError.
symbolinfo::CScope &ScopeOf(nb::handle obj);

// The UTF-8 text of a str or bytes object, or a TypeError.
std::string_view TextOf(nb::handle obj);

[[noreturn]] void RaiseAssertion(const char *message);

void RequireDict(nb::handle obj, const char *what);

// Whether `obj` is the "not looked up yet" logical.
bool IsNoValueLogical(nb::handle obj);
// The logical behind `obj`; nullptr for None and the not-looked-up marker.
CLogicalLine *OptionalLogical(nb::handle obj);
nb::object LogicalOrNone(const nb::ref<CLogicalLine> &logical);

// The pairs of a logical's fTypeEquivs; an empty tuple for None.
nb::handle PairsOrEmpty(nb::handle pairs);
// The pairs of a logical's fArgTypeEquivs, which must be a tuple of pairs
// (the order of the arguments is fixed) or None (no pairs); else a TypeError.
nb::handle ArgPairs(nb::handle pairs);

// The byte strings of a set, sorted and joined with ";".
std::string SortedJoin(nb::handle set_of_bytes);

// `prefix` + the decimal form of `index` (bytes, str or int, read as an
// integer).
nb::bytes FirstSeenSingle(std::string_view prefix, nb::handle index);

bool IsLocalFileLocation(nb::handle loc);

// The (parameter or "return", annotation text) pairs that a def's docstring
// gives, when `body0`, the first logical of its body, is one; else none.
std::vector<std::pair<std::string, std::string>> DocstringHintsOf(nb::handle body0);

}  // namespace pysource::primaryutil

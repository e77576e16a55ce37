// The cache of scope bodies, and how a scope's full dotted name is made from
// its defining logical.
#pragma once

#include <nanobind/nanobind.h>

#include "pysource/logicalline.h"

namespace nb = nanobind;

namespace pysource {

// The full dotted name of the scope that `logical` defines: its enclosing
// scope's name and its own name joined by "." (no dot at module level).
nb::str GetFullNameForScopeDef(const CLogicalLine &logical);

}  // namespace pysource

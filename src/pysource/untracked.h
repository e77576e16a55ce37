// Containers that the garbage collector needn't walk.
//
// A full collection walks every tracked object, inside whichever time slice
// triggers it, and containers that live long (records, the words of files)
// bring the next one on.  A dict or frozenset that holds only objects the
// collector doesn't know (str, bytes, numbers, scopes) can't be part of a
// cycle: it is untracked here.  The collector itself lets go of such a dict
// only in a full collection, and never of a frozenset.
#pragma once

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace pysource {

// Untracks `map` (an exact dict) when none of its names and values is a
// container the collector knows.  A container stored into it later tracks it
// again.
void UntrackAtomicMap(nb::handle map);

// A frozenset of the items of the iterable `items`, untracked when none of
// them is a container the collector knows.
nb::object AtomicFrozenSet(nb::handle items);

}  // namespace pysource

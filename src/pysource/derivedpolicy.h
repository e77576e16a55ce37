// CDerivedRefinementPolicy: whether derived info may be added to a target
// scope.  It may when the target's file wants derived info (or is the file
// of the scope being scanned), and when the cache already holds a record of
// the target but not more than a bound of them: derived info refines what is
// known and never makes a scope up, and one scope does not collect records
// from without end.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

namespace nb = nanobind;

namespace pysource {

class CDerivedRefinementPolicy : public nb::intrusive_base {
public:
    static constexpr Py_ssize_t kDefaultMaxMergedKeys = 20;

    // `info_cache`: the CInfoCache (or an object with its operations).
    CDerivedRefinementPolicy(nb::handle info_cache, Py_ssize_t max_merged_keys);

    // Whether the file of `target` takes derived info from a scan of `scanned`.
    bool WantsDerivedFor(nb::handle target, nb::handle scanned);
    // Whether `target` may get one more derived record: it has records, and
    // no more than fMaxMergedKeys of them.
    bool HasRoomFor(nb::handle target);
    bool AcceptsTarget(nb::handle target, nb::handle scanned) {
        return WantsDerivedFor(target, scanned) && HasRoomFor(target);
    }

    nb::object fInfoCache;
    Py_ssize_t fMaxMergedKeys;
};

}  // namespace pysource

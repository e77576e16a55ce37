#include "pysource/derivedpolicy.h"

#include "pysource/infocache.h"
#include "pysource/scoperef.h"

namespace pysource {

CDerivedRefinementPolicy::CDerivedRefinementPolicy(nb::handle info_cache, Py_ssize_t max_merged_keys)
    : fInfoCache(nb::borrow(info_cache)), fMaxMergedKeys(max_merged_keys) {
    if (info_cache.is_none())
        throw nb::type_error("CDerivedRefinementPolicy: an info cache is needed");
    if (max_merged_keys < 0)
        throw nb::value_error("CDerivedRefinementPolicy: the bound must not be negative");
}

bool CDerivedRefinementPolicy::WantsDerivedFor(nb::handle target, nb::handle scanned) {
    ScopeView target_view = ViewScope(target);
    if (target_view.loc.ptr() == ViewScope(scanned).loc.ptr())
        return true;  // a scope's own file always takes what its scan finds
    return nb::cast<bool>(fInfoCache.attr("fLocCache").attr("WantDerivedInfo")(target_view.loc));
}

bool CDerivedRefinementPolicy::HasRoomFor(nb::handle target) {
    Py_ssize_t count;
    CInfoCache *cache = nullptr;
    if (nb::try_cast<CInfoCache *>(fInfoCache, cache) && cache)
        count = cache->CountScopeInfoRecords(target);
    else
        count = nb::cast<Py_ssize_t>(fInfoCache.attr("CountScopeInfoRecords")(target));
    return count >= 0 && count <= fMaxMergedKeys;
}

}  // namespace pysource

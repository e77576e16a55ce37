#include "bindutil.h"

#include "pysource/llinecache.h"

using pysource::CFileLogicalLineCache;
using pysource::CLogicalLineCache;

struct PyCLogicalLineCache : CLogicalLineCache {
    NB_TRAMPOLINE(CLogicalLineCache, 2);
    BASEKIT_DESTROYABLE_OVERRIDES(CLogicalLineCache)
};

NB_MODULE(llinecache, m) {
    bindutil::ImportDependencies({"basekit.destroyable", "pysource.filellinecache"});
    m.doc() = "The logical lines of a location whose content may arrive later";

    nb::class_<CLogicalLineCache, CFileLogicalLineCache, PyCLogicalLineCache>(
        m, "CLogicalLineCache", bindutil::IntrusiveHolder<CLogicalLineCache>(),
        nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::init<nb::handle, nb::handle, nb::handle>(), nb::arg("cache_mgr").none(),
             nb::arg("loc"), nb::arg("idle_priority").none())
        .def("Update", &CLogicalLineCache::Update)
        .def("_CB_ContentChanged", &CLogicalLineCache::CB_ContentChanged_)
        .def("SetText", &CLogicalLineCache::SetText, nb::arg("text"),
             nb::arg("mtime").none() = nb::none())
        .def_prop_ro("fBuffer", &CLogicalLineCache::IsBuffer)
        .def_prop_ro("fRemote", &CLogicalLineCache::IsRemote)
        .def_prop_ro("fWaiting", &CLogicalLineCache::IsWaiting)
        .def_ro("fCacheMgr", &CLogicalLineCache::fCacheMgr)
        .def_ro("fIdlePriority", &CLogicalLineCache::fIdlePriority);
}

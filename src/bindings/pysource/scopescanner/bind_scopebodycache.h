// Bindings of the scope body cache.
#pragma once

#include "bindutil.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/scopebodycache.h"

namespace scopescanner_bind {

using namespace pysource;

struct PyCScopeBodyCache : CScopeBodyCache {
    NB_TRAMPOLINE(CScopeBodyCache, 6);
    BASEKIT_DESTROYABLE_OVERRIDES(CScopeBodyCache)
    nb::object GetBody(nb::handle scope, bool include_comments, bool create) override {
        NB_OVERRIDE(GetBody, scope, include_comments, create);
    }
    void SetScopeBodyInCache(nb::handle scope, nb::handle body) override {
        NB_OVERRIDE(SetScopeBodyInCache, scope, body);
    }
    nb::object FindScope_(nb::handle scope) override {
        NB_OVERRIDE_NAME("_FindScope", FindScope_, scope);
    }
    nb::list StripComments_(nb::handle logical_list) override {
        NB_OVERRIDE_NAME("_StripComments", StripComments_, logical_list);
    }
};

inline void BindScopeBodyCache(nb::module_ &m) {
    nb::class_<CScopeBodyCache, basekit::CDestroyable, PyCScopeBodyCache>(
        m, "CScopeBodyCache", bindutil::IntrusiveHolder<CScopeBodyCache>(),
        nb::type_slots(kDestroyableFieldSlots<CScopeBodyCache>))
        .def(nb::init<>())
        .def_ro_static("kCacheSize", &CScopeBodyCache::kCacheSize)
        .def("GetBody", &CScopeBodyCache::GetBody, nb::arg("scope"),
             nb::arg("include_comments") = true, nb::arg("create") = true)
        .def("SetScopeBodyInCache", &CScopeBodyCache::SetScopeBodyInCache, nb::arg("scope"),
             nb::arg("body"))
        .def("DropChangedScopes", &CScopeBodyCache::DropChangedScopes, nb::arg("loc"),
             nb::arg("removed"), nb::arg("added"))
        .def("_FindScope", &CScopeBodyCache::FindScope_, nb::arg("scope"))
        .def("_StripComments", &CScopeBodyCache::StripComments_, nb::arg("logical_list"))
        .def("_destroy_impl", [](CScopeBodyCache &self) { self.CScopeBodyCache::_destroy_impl(); })
        .def_ro("_fScopeDependantCache", &CScopeBodyCache::_fScopeDependantCache);
}

}  // namespace scopescanner_bind

#include "bindutil.h"
#include "gcslots.h"

#include <nanobind/stl/string_view.h>

#include "pysource/infer/infertyping.h"

using pysource::infer::CTypeVarInfo;
using pysource::infer::CTypingGenericSupport;

struct PyCTypingGenericSupport : CTypingGenericSupport {
    NB_TRAMPOLINE(CTypingGenericSupport, 2);
    nb::object GetSpecialFormCanonicalName(nb::handle expr, nb::handle ctx) override {
        NB_OVERRIDE(GetSpecialFormCanonicalName, expr, ctx);
    }
    nb::object GetTypeVarInfo(nb::handle expr, nb::handle ctx) override { NB_OVERRIDE(GetTypeVarInfo, expr, ctx); }
};

NB_MODULE(infertyping, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo", "pysource.inferencectx"});
    m.doc() = "Typing support: special forms and type variables";

    nb::class_<CTypeVarInfo>(m, "CTypeVarInfo", bindutil::IntrusiveHolder<CTypeVarInfo>())
        .def(nb::init<nb::handle, nb::handle, nb::handle, nb::handle, nb::handle, nb::handle>(),
             nb::arg("name"), nb::arg("kind") = "TypeVar", nb::arg("bound").none() = nb::none(),
             nb::arg("constraints").none() = nb::none(), nb::arg("default").none() = nb::none(),
             nb::arg("scope").none() = nb::none())
        .def_ro("fName", &CTypeVarInfo::fName)
        .def_ro("fKind", &CTypeVarInfo::fKind)
        .def_ro("fBound", &CTypeVarInfo::fBound)
        .def_ro("fConstraints", &CTypeVarInfo::fConstraints)
        .def_ro("fDefault", &CTypeVarInfo::fDefault)
        .def_ro("fScope", &CTypeVarInfo::fScope);

    nb::class_<CTypingGenericSupport, PyCTypingGenericSupport>(
        m, "CTypingGenericSupport", bindutil::IntrusiveHolder<CTypingGenericSupport>(),
        nb::type_slots(gcslots::kSlots<CTypingGenericSupport>))
        .def(nb::init<nb::object>(), nb::arg("engine").none())
        .def_rw("fEngine", &CTypingGenericSupport::fEngine)
        .def("GetSpecialFormCanonicalName",
             [](CTypingGenericSupport &self, nb::handle e, nb::handle ctx) {
                 return self.CTypingGenericSupport::GetSpecialFormCanonicalName(e, ctx);
             },
             nb::arg("expr"), nb::arg("ctx").none() = nb::none())
        .def("GetTypeVarInfo",
             [](CTypingGenericSupport &self, nb::handle e, nb::handle ctx) {
                 return self.CTypingGenericSupport::GetTypeVarInfo(e, ctx);
             },
             nb::arg("expr"), nb::arg("ctx").none() = nb::none());
    m.def("CanonicalSpecialForm", [](std::string_view name) -> nb::object {
        std::string_view canonical = pysource::infer::CanonicalSpecialForm(name);
        return canonical.empty() ? nb::none() : nb::object(nb::str(canonical.data(), canonical.size()));
    }, nb::arg("name"));
}

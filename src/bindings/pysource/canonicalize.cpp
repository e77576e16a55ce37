#include "bindutil.h"

#include "pysource/infer/canonicalize.h"

using pysource::infer::CResolvedReducer;

struct PyCResolvedReducer : CResolvedReducer {
    NB_TRAMPOLINE(CResolvedReducer, 1);
    nb::object Reduce(nb::handle resolved, bool a, bool b) override { NB_OVERRIDE(Reduce, resolved, a, b); }
};

NB_MODULE(canonicalize, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo"});
    m.doc() = "Reduction of resolved sets to what callers record";

    nb::class_<CResolvedReducer, PyCResolvedReducer>(m, "CResolvedReducer",
                                                      bindutil::IntrusiveHolder<CResolvedReducer>())
        .def(nb::init<>())
        .def("Reduce",
             [](CResolvedReducer &self, nb::handle r, bool a, bool b) { return self.CResolvedReducer::Reduce(r, a, b); },
             nb::arg("resolved"), nb::arg("keep_literal_values") = false, nb::arg("keep_class_refs") = false);
}

#include "bindutil.h"
#include "gcslots.h"

#include "pysource/infer/inferreddetails.h"

using pysource::infer::CCallableDetails;
using pysource::infer::CClassDetails;
using pysource::infer::CDetailsStore;

struct PyCCallableDetails : CCallableDetails {
    NB_TRAMPOLINE(CCallableDetails, 2);
    nb::object GetHintedArgIndexes() override { NB_OVERRIDE(GetHintedArgIndexes); }
    nb::object GetOrderedTypeVars(nb::handle loc) override { NB_OVERRIDE(GetOrderedTypeVars, loc); }
};

struct PyCClassDetails : CClassDetails {
    NB_TRAMPOLINE(CClassDetails, 2);
    nb::object GetHintedArgIndexes() override { NB_OVERRIDE(GetHintedArgIndexes); }
    nb::object GetOrderedTypeVars(nb::handle loc) override { NB_OVERRIDE(GetOrderedTypeVars, loc); }
};

struct PyCDetailsStore : CDetailsStore {
    NB_TRAMPOLINE(CDetailsStore, 4);
    nb::object GetDetailsSet(nb::handle singles, nb::handle ctx) override { NB_OVERRIDE(GetDetailsSet, singles, ctx); }
    nb::object GetCallableDetails(nb::handle single, nb::handle ctx) override { NB_OVERRIDE(GetCallableDetails, single, ctx); }
    nb::object GetDetails(nb::handle singles, nb::handle ctx) override { NB_OVERRIDE(GetDetails, singles, ctx); }
    nb::object GetDetailsForInstance(nb::handle resolved, nb::handle ctx) override {
        NB_OVERRIDE(GetDetailsForInstance, resolved, ctx);
    }
};

NB_MODULE(inferreddetails, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo", "pysource.inferencectx"});
    m.doc() = "Details of callables and classes: hinted parameters, type variables";

    nb::class_<CCallableDetails, PyCCallableDetails>(m, "CCallableDetails",
                                                      bindutil::IntrusiveHolder<CCallableDetails>())
        .def(nb::init<nb::object, nb::object>(), nb::arg("primary_single"), nb::arg("defined_scope"))
        .def_rw("fPrimarySingle", &CCallableDetails::fPrimarySingle)
        .def_rw("fDefinedScope", &CCallableDetails::fDefinedScope)
        .def("GetHintedArgIndexes", [](CCallableDetails &self) { return self.CCallableDetails::GetHintedArgIndexes(); })
        .def("GetOrderedTypeVars",
             [](CCallableDetails &self, nb::handle loc) { return self.CCallableDetails::GetOrderedTypeVars(loc); },
             nb::arg("loc").none() = nb::none());

    nb::class_<CClassDetails, PyCClassDetails>(m, "CClassDetails", bindutil::IntrusiveHolder<CClassDetails>())
        .def(nb::init<nb::object, nb::object, nb::object>(), nb::arg("primary_single"),
             nb::arg("defined_scope"), nb::arg("type_vars").none() = nb::none())
        .def_rw("fPrimarySingle", &CClassDetails::fPrimarySingle)
        .def_rw("fDefinedScope", &CClassDetails::fDefinedScope)
        .def_rw("fTypeVars", &CClassDetails::fTypeVars)
        .def("GetHintedArgIndexes", [](CClassDetails &self) { return self.CClassDetails::GetHintedArgIndexes(); })
        .def("GetOrderedTypeVars",
             [](CClassDetails &self, nb::handle loc) { return self.CClassDetails::GetOrderedTypeVars(loc); },
             nb::arg("loc").none() = nb::none());

    nb::class_<CDetailsStore, PyCDetailsStore>(m, "CDetailsStore", bindutil::IntrusiveHolder<CDetailsStore>(),
        nb::type_slots(gcslots::kSlots<CDetailsStore>))
        .def(nb::init<nb::object>(), nb::arg("engine").none())
        .def_rw("fEngine", &CDetailsStore::fEngine)
        .def("GetDetailsSet",
             [](CDetailsStore &self, nb::handle s, nb::handle ctx) { return self.CDetailsStore::GetDetailsSet(s, ctx); },
             nb::arg("singles"), nb::arg("ctx").none() = nb::none())
        .def("GetCallableDetails",
             [](CDetailsStore &self, nb::handle s, nb::handle ctx) { return self.CDetailsStore::GetCallableDetails(s, ctx); },
             nb::arg("single"), nb::arg("ctx").none() = nb::none())
        .def("GetDetails",
             [](CDetailsStore &self, nb::handle s, nb::handle ctx) { return self.CDetailsStore::GetDetails(s, ctx); },
             nb::arg("singles"), nb::arg("ctx").none() = nb::none())
        .def("GetDetailsForInstance",
             [](CDetailsStore &self, nb::handle s, nb::handle ctx) { return self.CDetailsStore::GetDetailsForInstance(s, ctx); },
             nb::arg("resolved"), nb::arg("ctx").none() = nb::none())
        .def("Forget", &CDetailsStore::Forget);
}

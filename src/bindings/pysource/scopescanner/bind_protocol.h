// Bindings of the scan protocol: states, scanner base classes, switches,
// statistics and markers.
#pragma once

#include "bindutil.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/module_values.h"
#include "pysource/scopescanner/protocol.h"

namespace scopescanner_bind {

using namespace pysource;

struct PyCScanner : CScanner {
    NB_TRAMPOLINE(CScanner);
    BASEKIT_DESTROYABLE_OVERRIDES(CScanner)
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
};

struct PyCScannerBase_ : CScannerBase_ {
    NB_TRAMPOLINE(CScannerBase_);
    BASEKIT_DESTROYABLE_OVERRIDES(CScannerBase_)
    nb::ref<CNamedConstant> Scan(double end_time) override { NB_OVERRIDE(Scan, end_time); }
    void SetScanState_(nb::ref<CNamedConstant> state) override {
        NB_OVERRIDE_NAME("_SetScanState", SetScanState_, state);
    }
};

// CNamedConstant and the six states, entered into the module in one step.
inline void BindScanStates(nb::module_ &m) {
    nb::class_<CNamedConstant>(m, "CNamedConstant", bindutil::IntrusiveHolder<CNamedConstant>())
        .def(nb::init<nb::str>(), nb::arg("name"))
        .def_ro("_fName", &CNamedConstant::_fName)
        .def("__repr__", [](const CNamedConstant &self) { return self._fName; });

    InitScanStates();
    nb::dict states;
    states["kReadyToScan"] = nb::ref<CNamedConstant>(kReadyToScan);
    states["kWaitingForData"] = nb::ref<CNamedConstant>(kWaitingForData);
    states["kFinishedScanning"] = nb::ref<CNamedConstant>(kFinishedScanning);
    states["kTimedOut"] = nb::ref<CNamedConstant>(kTimedOut);
    states["kScanAbandoned"] = nb::ref<CNamedConstant>(kScanAbandoned);
    states["kWaitingForScans"] = nb::ref<CNamedConstant>(kWaitingForScans);
    m.attr("__dict__").attr("update")(states);
}

inline void BindScanners(nb::module_ &m, CModuleValues &values) {
    m.attr("_kNoValue") = kNoValue_.get();
    m.attr("_kNoValueLogical") = kNoValueLogical_.get();
    values.Add(&ProtocolModuleValue,
               {"kVerboseLogging", "kSaveLiteralText", "kMaxDerivedMergedKeys",
                "kSpecializeGenericsFromArgs", "kLazyCalledArgEvaluation", "_gDbgScanStats",
                "_gDbgSeenCalled", "_gDbgSeenArgs"});

    m.def("SetSpecializeGenericsFromArgs", &SetSpecializeGenericsFromArgs, nb::arg("enable"));
    m.def("SetLazyCalledArgEvaluation", &SetLazyCalledArgEvaluation, nb::arg("enable"));
    m.def("_DbgSetScanStats", &DbgSetScanStats_, nb::arg("stats").none());
    m.def("_DbgCountScanEvent", &DbgCountScanEvent_, nb::arg("event"), nb::arg("seen"),
          nb::arg("key"));
    m.def("_DbgCountScanHit", &DbgCountScanHit_, nb::arg("event"));

    nb::class_<CScanner, basekit::CDestroyable, PyCScanner>(
        m, "CScanner", bindutil::IntrusiveHolder<CScanner>(),
        nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::init<nb::handle>(), nb::arg("signals") = nb::none())
        .def("Scan", &CScanner::Scan, nb::arg("end_time"));

    nb::class_<CScannerBase_, CScanner, PyCScannerBase_>(
        m, "_CScannerBase", bindutil::IntrusiveHolder<CScannerBase_>(),
        nb::type_slots(kDestroyableFieldSlots<CScannerBase_>))
        .def(nb::init<nb::handle, nb::handle, nb::handle>(), nb::arg("scope").none(),
             nb::arg("scan_name").none(), nb::arg("log").none() = nb::none())
        .def("_SetScanState", &CScannerBase_::SetScanState_, nb::arg("state"))
        .def_prop_ro("fScanState", [](const CScannerBase_ &self) { return self.fScanState; })
        .def_rw("_fScanCalled", &CScannerBase_::_fScanCalled)
        .def_ro("_fLog", &CScannerBase_::_fLog)
        .def_ro("fScope", &CScannerBase_::fScope)
        .def_ro("fScanName", &CScannerBase_::fScanName);
}

}  // namespace scopescanner_bind

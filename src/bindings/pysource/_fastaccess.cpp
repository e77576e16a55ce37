#include "bindutil.h"
#include "gcslots.h"

#include "pysource/fastaccess.h"

using pysource::CLogger;
using pysource::CNonNestedSearch;
namespace py = pysource::fastaccess_py;

namespace {

struct PyCLogger : CLogger {
    NB_TRAMPOLINE(CLogger, 1);
    void Log(int level, nb::handle fmt, nb::handle args) override {
        NB_OVERRIDE(Log, level, fmt, args);
    }
};

}  // namespace

NB_MODULE(_fastaccess, m) {
    bindutil::ImportDependencies({});
    m.doc() = "The clock, the log front and the fast helpers of the scanners";

    pysource::RegisterFastAccessModule(m);
    m.def("GetNowTime", &pysource::GetNowTime);
    m.def("OutOfTime", &pysource::OutOfTime, nb::arg("end_time"));

    nb::class_<CLogger, PyCLogger>(m, "CLogger", bindutil::IntrusiveHolder<CLogger>(),
                                   nb::type_slots(gcslots::kSlots<CLogger>))
        .def(nb::init<nb::handle>(), nb::arg("receiver") = nb::none())
        .def("Log", &CLogger::Log, nb::arg("level"), nb::arg("s"), nb::arg("args") = nb::tuple())
        .def("Log1", &CLogger::Log1, nb::arg("s"), nb::arg("args") = nb::tuple())
        .def("Log2", &CLogger::Log2, nb::arg("s"), nb::arg("args") = nb::tuple())
        .def("Log3", &CLogger::Log3, nb::arg("s"), nb::arg("args") = nb::tuple())
        .def("__call__", [](CLogger &self, nb::handle fmt, nb::args args) { self.Call(fmt, args); },
             nb::arg("fmt"), nb::arg("args"))
        .def_prop_rw("fReceiver", &CLogger::Receiver, &CLogger::SetReceiver,
                     nb::arg("receiver").none())
        .def("IsOn", &CLogger::IsOn)
        .def_static("LoggingLevelFor", &CLogger::LoggingLevelFor, nb::arg("level"));

    m.def("SetUpdate", &pysource::SetUpdate, nb::arg("target").none(), nb::arg("other"));
    m.def("StrInStr", &pysource::StrInStr, nb::arg("sub").none(), nb::arg("whole").none());
    m.def("IsAlnum", &py::IsAlnum, nb::arg("c"));
    m.def("IsDigit", &py::IsDigit, nb::arg("c"));
    m.def("ULongLongValueForDoubleBits", &pysource::ULongLongValueForDoubleBits, nb::arg("f"));
    m.def("DoubleValueForULongLongBits", &py::DoubleValueForULongLongBits, nb::arg("l"));
    m.def("DoubleValueForPyIntBits", &pysource::DoubleValueForPyIntBits, nb::arg("l"));
    m.def("LocationsEqual", &pysource::LocationsEqual, nb::arg("loc1").none(),
          nb::arg("loc2").none());

    nb::class_<CNonNestedSearch>(m, "CNonNestedSearch")
        .def(nb::init<>())
        .def("InitWith", &CNonNestedSearch::InitWith, nb::arg("to_search").none(),
             nb::arg("to_find_bytes").none(), nb::arg("start"), nb::arg("end"))
        .def("FindNext", &CNonNestedSearch::FindNext)
        .def("Clear", &CNonNestedSearch::Clear)
        .def_prop_ro("pos", [](const CNonNestedSearch &s) { return s.State().pos; })
        .def_prop_ro("end", [](const CNonNestedSearch &s) { return s.State().end; })
        .def_prop_ro("nesting", [](const CNonNestedSearch &s) { return s.State().nesting; })
        .def_prop_ro("find_len", [](const CNonNestedSearch &s) { return s.State().find_len; })
        .def_prop_ro("fIsIdle", &CNonNestedSearch::IsIdle);
    m.def("_FindStringEndNonNested", &py::FindStringEndNonNested_, nb::arg("search"),
          nb::arg("pos"));
}

#include "bindutil.h"

#include <nanobind/stl/string.h>

#include "pysource/locationcache.h"

using pysource::CLocationCache;

struct PyCLocationCache : CLocationCache {
    NB_TRAMPOLINE(CLocationCache, 7);
    void _InitBuiltinLoc() override { NB_OVERRIDE(_InitBuiltinLoc); }
    nb::object GetTypingLoc() override { NB_OVERRIDE(GetTypingLoc); }
    bool IsTypingLoc(nb::handle loc) override { NB_OVERRIDE(IsTypingLoc, loc); }
    bool IsPyiLocation(nb::handle loc) override { NB_OVERRIDE(IsPyiLocation, loc); }
    nb::object GetPrimaryLocation(nb::handle loc) override { NB_OVERRIDE(GetPrimaryLocation, loc); }
    int GetPythonMajorVersion() override { NB_OVERRIDE(GetPythonMajorVersion); }
    bool WantDerivedInfo(nb::handle loc) override { NB_OVERRIDE(WantDerivedInfo, loc); }
};

NB_MODULE(locationcache, m) {
    bindutil::ImportDependencies({"basekit.location", "pysource.symbolinfo"});
    m.doc() = "Facts about locations: built-in and typing locations, stubs, the Python version, "
              "where derived info is wanted";

    nb::class_<CLocationCache, PyCLocationCache>(m, "CLocationCache",
                                                  bindutil::IntrusiveHolder<CLocationCache>())
        .def(nb::init<nb::handle, nb::handle, nb::handle>(),
             nb::arg("python_major_version") = nb::none(), nb::arg("stub_dirs") = nb::none(),
             nb::arg("library_dirs") = nb::none())
        .def("GetBuiltinLoc", &CLocationCache::GetBuiltinLoc)
        .def("GetBuiltinScope", &CLocationCache::GetBuiltinScope)
        .def("_InitBuiltinLoc", [](CLocationCache &self) { return self.CLocationCache::_InitBuiltinLoc(); })
        .def("GetTypingLoc", [](CLocationCache &self) { return self.CLocationCache::GetTypingLoc(); })
        .def("IsTypingLoc", [](CLocationCache &self, nb::handle loc) { return self.CLocationCache::IsTypingLoc(loc); }, nb::arg("loc").none())
        .def("IsPyiLocation", [](CLocationCache &self, nb::handle loc) { return self.CLocationCache::IsPyiLocation(loc); }, nb::arg("loc"))
        .def("GetPrimaryLocation", [](CLocationCache &self, nb::handle loc) { return self.CLocationCache::GetPrimaryLocation(loc); }, nb::arg("loc"))
        .def("GetPythonMajorVersion", [](CLocationCache &self) { return self.CLocationCache::GetPythonMajorVersion(); })
        .def("WantDerivedInfo", [](CLocationCache &self, nb::handle loc) { return self.CLocationCache::WantDerivedInfo(loc); }, nb::arg("loc"))
        .def("SetPythonMajorVersion", &CLocationCache::SetPythonMajorVersion, nb::arg("version"))
        .def("SetPrimaryLocation", &CLocationCache::SetPrimaryLocation, nb::arg("loc"),
             nb::arg("primary").none())
        .def("SetWantDerivedInfo", &CLocationCache::SetWantDerivedInfo, nb::arg("loc"),
             nb::arg("want").none())
        .def_prop_ro("fStubDirs", &CLocationCache::StubDirs)
        .def_prop_ro("fLibraryDirs", &CLocationCache::LibraryDirs)
        .def_prop_rw(
            "fBuiltinLoc", [](CLocationCache &self) { return self.fBuiltinLoc; },
            [](CLocationCache &self, nb::handle v) { self.fBuiltinLoc = nb::borrow(v); },
            nb::arg("value").none())
        .def_prop_rw(
            "fBuiltinScope", [](CLocationCache &self) { return self.fBuiltinScope; },
            [](CLocationCache &self, nb::handle v) { self.fBuiltinScope = nb::borrow(v); },
            nb::arg("value").none());
}

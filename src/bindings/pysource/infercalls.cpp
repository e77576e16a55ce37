#include "bindutil.h"

#include "pysource/infer/infercalls.h"

using pysource::infer::CCallableSupport;

struct PyCCallableSupport : CCallableSupport {
    NB_TRAMPOLINE(CCallableSupport, 1);
    nb::object GetUnpackedDefInfo(nb::handle single) override { NB_OVERRIDE(GetUnpackedDefInfo, single); }
};

NB_MODULE(infercalls, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo"});
    m.doc() = "What a def says about calling it";

    nb::class_<CCallableSupport, PyCCallableSupport>(m, "CCallableSupport",
                                                      bindutil::IntrusiveHolder<CCallableSupport>())
        .def(nb::init<>())
        .def("GetUnpackedDefInfo",
             [](CCallableSupport &self, nb::handle s) { return self.CCallableSupport::GetUnpackedDefInfo(s); },
             nb::arg("single"));
    // The unpacked def info is symbolinfo's record.
    m.attr("CDefInfo") = nb::module_::import_("pysource.symbolinfo").attr("CDefInfo");
}

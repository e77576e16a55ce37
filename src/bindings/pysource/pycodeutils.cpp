#include "bindutil.h"

#include "pysource/pycodeutils.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/string_view.h>
#include <nanobind/stl/vector.h>

using pysource::CArgTextInfo;

NB_MODULE(pycodeutils, m) {
    bindutil::ImportDependencies({});
    m.doc() = "Helpers on Python source text";

    m.attr("kArgPositionalOnly") = (int) pysource::kArgPositionalOnly;
    m.attr("kArgNormal") = (int) pysource::kArgNormal;
    m.attr("kArgStar") = (int) pysource::kArgStar;
    m.attr("kArgKeywordOnly") = (int) pysource::kArgKeywordOnly;
    m.attr("kArgStarStar") = (int) pysource::kArgStarStar;

    nb::class_<CArgTextInfo>(m, "CArgTextInfo")
        .def(nb::init<>())
        .def_rw("name", &CArgTextInfo::name)
        .def_rw("kind", &CArgTextInfo::kind)
        .def_rw("type_hint", &CArgTextInfo::type_hint)
        .def_rw("default", &CArgTextInfo::default_text)
        .def("__repr__", [](const CArgTextInfo &a) {
            return nb::str("CArgTextInfo({!r}, {}, {!r}, {!r})")
                .format(a.name, a.kind, a.type_hint, a.default_text);
        });

    m.def("ParseDefArgs", &pysource::ParseDefArgs, nb::arg("text"));
}

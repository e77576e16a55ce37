#include "bindutil.h"

#include "pysource/strutils.h"

namespace py = pysource::strutils_py;

NB_MODULE(strutils, m) {
    bindutil::ImportDependencies({});
    m.doc() = "UTF-8 position helpers: walking text by byte offsets";

    m.def("GetUtf8Ptr", &py::GetUtf8Ptr, nb::arg("u").none());
    m.def("AdjustUtf8Pos", &py::AdjustUtf8Pos, nb::arg("utf8_ptr"), nb::arg("pos"),
          nb::arg("diff"), nb::arg("end_pos"));
    m.def("Ucs4CharAtUtf8Pos", &py::Ucs4CharAtUtf8Pos, nb::arg("utf8_ptr"), nb::arg("pos"),
          nb::arg("end_pos"));
    m.def("_NonInlineUcs4CharAtUtf8Pos", &py::NonInlineUcs4CharAtUtf8Pos_, nb::arg("utf8_ptr"),
          nb::arg("pos"), nb::arg("end_pos"));
    m.def("IsSpaceAtUtf8Pos", &py::IsSpaceAtUtf8Pos, nb::arg("utf8_ptr"), nb::arg("pos"),
          nb::arg("end_pos"));
    m.def("IsDigitAtUtf8Pos", &py::IsDigitAtUtf8Pos, nb::arg("utf8_ptr"), nb::arg("pos"),
          nb::arg("end_pos"));
    m.def("IsAlnumAtUtf8Pos", &py::IsAlnumAtUtf8Pos, nb::arg("utf8_ptr"), nb::arg("pos"),
          nb::arg("end_pos"));
    m.def("IsIdentifierChar", &pysource::IsIdentifierChar, nb::arg("u"), nb::arg("initial"));
    m.def("IsIdentifierCharAtUtf8Pos", &py::IsIdentifierCharAtUtf8Pos, nb::arg("utf8_ptr"),
          nb::arg("pos"), nb::arg("end_pos"), nb::arg("initial"));
    m.def("PtrFindByte", &py::PtrFindByte, nb::arg("ptr"), nb::arg("length"), nb::arg("c"),
          nb::arg("start"));
    m.def("BytesFindByte", &py::BytesFindByte, nb::arg("b"), nb::arg("c"), nb::arg("start"));
    m.def("AdjustPosArg", &pysource::AdjustPosArg, nb::arg("pos"), nb::arg("length"));
    m.def("OrdAt", &pysource::OrdAt, nb::arg("s"), nb::arg("i"));
    m.def("AsStr", &pysource::AsStr, nb::arg("x").none());
    m.def("AsUtf8", &pysource::AsUtf8, nb::arg("x").none());
    m.def("BytesForInteger", &pysource::BytesForInteger, nb::arg("n"));
    m.def("Utf8Len", &pysource::Utf8Len, nb::arg("x").none());
    m.def("IsUtf8LeadByte", &py::IsUtf8LeadByte, nb::arg("c"));
    m.def("Utf8Concat2", &pysource::Utf8Concat2, nb::arg("s0").none(), nb::arg("s1").none());
    m.def("Utf8Concat3", &pysource::Utf8Concat3, nb::arg("s0").none(), nb::arg("s1").none(),
          nb::arg("s2").none());
    m.def("Utf8Concat4", &pysource::Utf8Concat4, nb::arg("s0").none(), nb::arg("s1").none(),
          nb::arg("s2").none(), nb::arg("s3").none());
    m.def("Utf8Concat5", &pysource::Utf8Concat5, nb::arg("s0").none(), nb::arg("s1").none(),
          nb::arg("s2").none(), nb::arg("s3").none(), nb::arg("s4").none());
}

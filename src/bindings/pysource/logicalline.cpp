#include "bindutil.h"

#include "pysource/logicalline.h"
#include "pysource/srctokenizer.h"

#include <nanobind/stl/string.h>

using namespace pysource;

static int LogicalTraverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self))
        return 0;
    return nb::inst_ptr<CLogicalLine>(self)->Traverse(visit, arg);
}

static int LogicalClear(PyObject *self) {
    if (nb::inst_ready(self))
        nb::inst_ptr<CLogicalLine>(self)->Clear();
    return 0;
}

static PyType_Slot kLogicalSlots[] = {
    {Py_tp_traverse, (void *) LogicalTraverse},
    {Py_tp_clear, (void *) LogicalClear},
    {0, nullptr}};

NB_MODULE(logicalline, m) {
    bindutil::ImportDependencies({"pysource.srctokenizer"});
    m.doc() = "Logical lines of Python source: CLogicalLine, CreateLogical and the logical kinds.";
    InitLogicalKindTexts();

    for (int k = 0; k < (int) LogicalKind::kCount; k++)
        m.attr(LogicalKindConstantName((LogicalKind) k)) = LogicalKindText((LogicalKind) k);
    m.attr("kErrorTokenPrefix") = nb::str(kErrorTokenPrefix.data(), kErrorTokenPrefix.size());
    m.attr("kErrorTokenPrefixBytes") = nb::bytes(kErrorTokenPrefix.data(), kErrorTokenPrefix.size());
    m.attr("kStartKeywords") = StartKeywordsDict();
    m.attr("kTokenBytesById") = TokenBytesById();

    nb::class_<CLogicalLine>(m, "CLogicalLine",
                             nb::intrusive_ptr<CLogicalLine>([](CLogicalLine *o, PyObject *po) noexcept {
                                 o->SetPythonObject(po);
                             }),
                             nb::is_weak_referenceable(), nb::type_slots(kLogicalSlots))
        .def_prop_rw("fType", [](const CLogicalLine &l) { return l.fType; },
                     [](CLogicalLine &l, nb::handle kind) { l.SetKind(LogicalKindFromText(kind)); })
        .def_prop_ro("fToks", [](CLogicalLine &l) { return l.HandOut(l.GetToks()); })
        .def_prop_ro("fTokenCount", &CLogicalLine::TokenCount)
        .def_rw("fFirstLine", &CLogicalLine::fFirstLine)
        .def_rw("fLineCount", &CLogicalLine::fLineCount)
        .def_rw("fIndentLevel", &CLogicalLine::fIndentLevel)
        .def_rw("fSpacesInIndent", &CLogicalLine::fSpacesInIndent)
        .def_rw("fTabsInIndent", &CLogicalLine::fTabsInIndent)
        .def_rw("fIncomplete", &CLogicalLine::fIncomplete)
        .def_prop_rw("fScopeName", [](const CLogicalLine &l) { return l.fScopeName; },
                     [](CLogicalLine &l, nb::object v) { l.StoreFromPython(l.fScopeName, std::move(v)); })
        .def_prop_rw("fLocalScopeName", [](const CLogicalLine &l) { return l.fLocalScopeName; },
                     [](CLogicalLine &l, nb::object v) { l.StoreFromPython(l.fLocalScopeName, std::move(v)); },
                     nb::for_setter(nb::arg("value").none()))
        .def_prop_rw("fParsed", [](CLogicalLine &l) { return l.HandOut(l.fParsed); },
                     [](CLogicalLine &l, nb::object v) { l.StoreFromPython(l.fParsed, std::move(v)); },
                     nb::for_setter(nb::arg("value").none()))
        .def_prop_rw("fTypeEquivs", [](CLogicalLine &l) { return l.HandOut(l.fTypeEquivs); },
                     [](CLogicalLine &l, nb::object v) { l.StoreFromPython(l.fTypeEquivs, std::move(v)); },
                     nb::for_setter(nb::arg("value").none()))
        .def_prop_rw("fArgTypeEquivs", [](CLogicalLine &l) { return l.HandOut(l.fArgTypeEquivs); },
                     [](CLogicalLine &l, nb::object v) { l.StoreFromPython(l.fArgTypeEquivs, std::move(v)); },
                     nb::for_setter(nb::arg("value").none()))
        .def_prop_ro("fTokenTypes", &CLogicalLine::GetTokenTypes)
        .def_prop_ro("fPositions", [](CLogicalLine &l) { return l.HandOut(l.GetPositions()); })
        .def_ro("fTextColumn", &CLogicalLine::fTextColumn)
        .def_prop_ro("fText", [](const CLogicalLine &l) {
            return nb::str(l.fText.data(), l.fText.size());
        })
        .def("GetTokenString", &CLogicalLine::GetTokenString, nb::arg("i"))
        .def("__repr__", &CLogicalLine::Repr);

    m.def("CreateLogical", &CreateLogical, nb::kw_only(), nb::arg("indent") = 0,
          nb::arg("start_line") = 1, nb::arg("line_count") = 1, nb::arg("toks") = nb::tuple(),
          nb::arg("ttypes") = nb::none(), nb::arg("positions") = nb::none(),
          nb::arg("spaces_in_indent") = false, nb::arg("tabs_in_indent") = false,
          nb::arg("incomplete") = false, nb::arg("line_text") = nb::none(),
          "Makes a logical from its parts; the kind comes from the tokens.");
}

#include "bindutil.h"

#include "pysource/pgeninspect.h"

#include <nanobind/stl/string.h>

using pysource::CParseNode;
using pysource::CPGenAnalyzer;

NB_MODULE(pgeninspect, m) {
    bindutil::ImportDependencies({"pysource.logicalline"});
    m.doc() = "The statement analyzer: what one logical line says about names";

    nb::class_<CParseNode>(m, "CParseNode", bindutil::IntrusiveHolder<CParseNode>())
        .def_prop_ro("kind", &CParseNode::Kind)
        .def_prop_ro("text", &CParseNode::Text)
        .def_prop_ro("finished", &CParseNode::IsFinished)
        .def("__bool__", [](const CParseNode &) { return true; });

    nb::class_<CPGenAnalyzer>(m, "CPGenAnalyzer", bindutil::IntrusiveHolder<CPGenAnalyzer>())
        .def(nb::init<>())
        .def("AnalyzeSingleLogical", &CPGenAnalyzer::AnalyzeSingleLogical, nb::arg("logical"),
             nb::arg("py3_grammar"), nb::arg("first_in_def") = false)
        .def("AnalyzeTokenList", &CPGenAnalyzer::AnalyzeTokenList, nb::arg("tok_list"),
             nb::arg("py3_grammar"), nb::arg("first_in_def") = false)
        .def("ParseTokenListToNode", &CPGenAnalyzer::ParseTokenListToNode, nb::arg("tok_list"),
             nb::arg("flag"));

    m.def("FinishedWithNode", &pysource::FinishedWithNode, nb::arg("node").none());
}

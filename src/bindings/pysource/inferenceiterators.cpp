#include "bindutil.h"

#include "pysource/infer/inferenceiterators.h"

using pysource::infer::CSingleResolvedIterator;

NB_MODULE(inferenceiterators, m) {
    bindutil::ImportDependencies({"pysource.symbolinfo"});
    m.doc() = "The engine's iterators over singles";

    nb::class_<CSingleResolvedIterator>(m, "CSingleResolvedIterator",
                                        bindutil::IntrusiveHolder<CSingleResolvedIterator>())
        .def(nb::init<nb::object>(), nb::arg("items"))
        .def("Next", &CSingleResolvedIterator::Next)
        .def("__iter__", [](nb::handle self) { return nb::borrow(self); })
        .def("__next__", [](CSingleResolvedIterator &self) {
            nb::object item = self.Next();
            if (item.is(pysource::infer::ExhaustedIterValue()))
                throw nb::stop_iteration();
            return item;
        });
    m.attr("kExhaustedIterValue") = pysource::infer::ExhaustedIterValue();
}

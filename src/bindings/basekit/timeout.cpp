#include "bindutil.h"
#include "gcslots.h"

#include "basekit/timeout.h"

using basekit::NoArgCallback;

NB_MODULE(timeout, m) {
    bindutil::ImportDependencies({});
    m.doc() = "Callback adapters";

    nb::class_<NoArgCallback>(m, "NoArgCallback", nb::type_slots(gcslots::kSlots<NoArgCallback>))
        .def(nb::init<nb::handle>(), nb::arg("callable"))
        .def("__call__", [](const NoArgCallback &self, nb::args, nb::kwargs) { return self(); })
        .def_prop_ro("fCallable", &NoArgCallback::Callable);
}

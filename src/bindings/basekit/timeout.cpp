#include "bindutil.h"

#include "basekit/timeout.h"

using basekit::NoArgCallback;

namespace {

int CallbackTraverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self))
        return 0;
    return nb::inst_ptr<NoArgCallback>(self)->Traverse(visit, arg);
}

int CallbackClear(PyObject *self) {
    if (nb::inst_ready(self))
        nb::inst_ptr<NoArgCallback>(self)->Clear();
    return 0;
}

PyType_Slot kCallbackSlots[] = {{Py_tp_traverse, (void *) CallbackTraverse},
                                {Py_tp_clear, (void *) CallbackClear},
                                {0, nullptr}};

}  // namespace

NB_MODULE(timeout, m) {
    bindutil::ImportDependencies({});
    m.doc() = "Callback adapters";

    nb::class_<NoArgCallback>(m, "NoArgCallback", nb::type_slots(kCallbackSlots))
        .def(nb::init<nb::handle>(), nb::arg("callable"))
        .def("__call__", [](const NoArgCallback &self, nb::args, nb::kwargs) { return self(); })
        .def_prop_ro("fCallable", &NoArgCallback::Callable);
}

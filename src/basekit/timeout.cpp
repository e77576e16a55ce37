#include "basekit/timeout.h"

namespace basekit {

NoArgCallback::NoArgCallback(nb::handle callable) {
    if (!PyCallable_Check(callable.ptr()))
        throw nb::type_error("NoArgCallback: the argument must be callable");
    fCallable = nb::borrow(callable);
}

int NoArgCallback::Traverse(visitproc visit, void *arg) const {
    Py_VISIT(fCallable.ptr());
    return 0;
}

void NoArgCallback::Clear() { fCallable = nb::none(); }

}  // namespace basekit

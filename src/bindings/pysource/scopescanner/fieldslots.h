// Garbage-collector slots of the module's destroyables that hold Python
// objects in fields: the connections of the destroyable plus T's fields
// (T provides TraverseFields(visit, arg) and DropReferences()).
#pragma once

#include "bindutil.h"

namespace scopescanner_bind {

template <typename T>
int FieldsTraverse(PyObject *self, visitproc visit, void *arg) {
    if (int result = bindutil::DestroyableTraverse(self, visit, arg))
        return result;
    if (!nb::inst_ready(self))
        return 0;
    return nb::inst_ptr<T>(self)->TraverseFields(visit, arg);
}

template <typename T>
int FieldsClear(PyObject *self) {
    bindutil::DestroyableClear(self);
    if (nb::inst_ready(self))
        nb::inst_ptr<T>(self)->DropReferences();
    return 0;
}

template <typename T>
inline PyType_Slot kDestroyableFieldSlots[] = {{Py_tp_traverse, (void *) FieldsTraverse<T>},
                                               {Py_tp_clear, (void *) FieldsClear<T>},
                                               {0, nullptr}};

}  // namespace scopescanner_bind

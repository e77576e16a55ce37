// Bindings of scope structure: the scope def predicates, stack items and
// their free list, and the scope body finder.
#pragma once

#include <nanobind/stl/string.h>

#include "bindutil.h"
#include "pysource/scopescanner/fieldslots.h"
#include "pysource/scopescanner/module_values.h"
#include "pysource/scopescanner/scopebodycache.h"
#include "pysource/scopescanner/scopebodyfinder.h"

namespace scopescanner_bind {

using namespace pysource;

using ItemRef = nb::ref<CScopeStackItem_>;

// None, or the stack item behind `obj`.
inline CScopeStackItem_ *OptionalItem(nb::handle obj) {
    return obj.is_none() ? nullptr : &AsStackItem(obj);
}

inline nb::object ItemOrNone(CScopeStackItem_ *item) {
    return item ? nb::cast(ItemRef(item)) : nb::none();
}

inline nb::object LogicalOrNone(const nb::ref<CLogicalLine> &logical) {
    return logical ? nb::cast(logical) : nb::none();
}

inline nb::ref<CLogicalLine> OptionalLogical(nb::handle obj) {
    return obj.is_none() ? nullptr : AsLogical(obj);
}

// Garbage-collector slots: the connections of the destroyable plus the lists.
inline int StackItemTraverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self))
        return 0;
    return nb::inst_ptr<CScopeStackItem_>(self)->Traverse(visit, arg);
}

inline int StackItemClear(PyObject *self) {
    if (nb::inst_ready(self))
        nb::inst_ptr<CScopeStackItem_>(self)->DropReferences();
    return 0;
}

inline PyType_Slot kStackItemSlots[] = {{Py_tp_traverse, (void *) StackItemTraverse},
                                        {Py_tp_clear, (void *) StackItemClear},
                                        {0, nullptr}};

struct PyCScopeBodyFinder_ : CScopeBodyFinder_ {
    NB_TRAMPOLINE(CScopeBodyFinder_);
    BASEKIT_DESTROYABLE_OVERRIDES(CScopeBodyFinder_)
};

inline void BindScopeBodyFinder(nb::module_ &m, CModuleValues &) {
    m.attr("_gStackItemFreeList") = StackItemFreeList();

    m.def("IsScopeDef",
          [](nb::handle logical) { return IsScopeDef(*RequireLogical(logical, "fType")); },
          nb::arg("logical").none());
    m.def("IsAsyncDef",
          [](nb::handle scope_def) {
              return IsAsyncDef(scope_def.is_none() ? nullptr : AsLogical(scope_def));
          },
          nb::arg("scope_def").none());
    m.def("FindDecoratorLogicals", &FindDecoratorLogicals, nb::arg("scope_i"),
          nb::arg("logical_list").none());
    m.def("LogicalContainsLineno",
          [](nb::handle logical, Py_ssize_t lineno) {
              return LogicalContainsLineno(*RequireLogical(logical, "fFirstLine"), lineno);
          },
          nb::arg("logical").none(), nb::arg("lineno"));
    m.def("ParentScope", &ParentScope, nb::arg("name"));
    m.def("GetFullNameForScopeDef",
          [](nb::handle logical) { return GetFullNameForScopeDef(*AsLogical(logical)); },
          nb::arg("logical"));

    nb::class_<CScopeStackItem_>(m, "_CScopeStackItem", bindutil::IntrusiveHolder<CScopeStackItem_>(),
                                 nb::type_slots(kStackItemSlots))
        .def(nb::init<>())
        .def("Clear", &CScopeStackItem_::Clear)
        .def_rw("scope_name", &CScopeStackItem_::scope_name)
        .def_prop_rw("scope_def",
                     [](const CScopeStackItem_ &self) { return LogicalOrNone(self.scope_def); },
                     [](CScopeStackItem_ &self, nb::handle value) {
                         self.scope_def = OptionalLogical(value);
                     },
                     nb::arg("value").none())
        .def_rw("decorator_logicals", &CScopeStackItem_::decorator_logicals)
        .def_rw("body", &CScopeStackItem_::body)
        .def_rw("scanner", &CScopeStackItem_::scanner, nb::arg("value").none())
        .def_rw("child_method_list", &CScopeStackItem_::child_method_list)
        .def_rw("is_async_def", &CScopeStackItem_::is_async_def)
        .def_rw("not_parsed_count", &CScopeStackItem_::not_parsed_count)
        .def_prop_rw("containing_class_def",
                     [](const CScopeStackItem_ &self) {
                         return LogicalOrNone(self.containing_class_def);
                     },
                     [](CScopeStackItem_ &self, nb::handle value) {
                         self.containing_class_def = OptionalLogical(value);
                     },
                     nb::arg("value").none())
        .def_rw("scope_index", &CScopeStackItem_::scope_index);

    m.def("_NewStackItem", &NewStackItem_);
    m.def("_DelStackItem", [](nb::handle item) { DelStackItem_(AsStackItem(item)); },
          nb::arg("item"));
    m.def("_GetStackItem",
          [](nb::handle stack, Py_ssize_t i) { return ItemRef(&GetStackItem_(stack, i)); },
          nb::arg("stack"), nb::arg("i"));
    m.def("_GetStackItemIndentLevel", &GetStackItemIndentLevel_, nb::arg("stack"), nb::arg("i"));

    nb::class_<CScopeBodyFinder_, basekit::CDestroyable, PyCScopeBodyFinder_>(
        m, "_CScopeBodyFinder", bindutil::IntrusiveHolder<CScopeBodyFinder_>(),
        nb::type_slots(kDestroyableFieldSlots<CScopeBodyFinder_>))
        .def(nb::init<nb::list, Py_ssize_t, bool>(), nb::arg("logical_list"),
             nb::arg("scope_def_i"), nb::arg("top_scope_only"))
        .def("PopCompletedScopeBody", &CScopeBodyFinder_::PopCompletedScopeBody)
        .def("ProcessNextLogical", &CScopeBodyFinder_::ProcessNextLogical)
        .def("ProcessUntilEnd", &CScopeBodyFinder_::ProcessUntilEnd)
        .def("_MaybeEndNestedScope",
             [](CScopeBodyFinder_ &self, nb::handle current, nb::handle logical) {
                 return ItemOrNone(
                     self.MaybeEndNestedScope_(OptionalItem(current), *AsLogical(logical)));
             },
             nb::arg("current").none(), nb::arg("logical"))
        .def("_MaybeStartNestedScope",
             [](CScopeBodyFinder_ &self, nb::handle current, nb::handle logical) {
                 self.MaybeStartNestedScope_(OptionalItem(current), logical);
             },
             nb::arg("current").none(), nb::arg("logical"))
        .def("_DiscardIgnoredComments", &CScopeBodyFinder_::DiscardIgnoredComments_)
        .def("_FindLastPendingCommentForIndent",
             &CScopeBodyFinder_::FindLastPendingCommentForIndent_, nb::arg("split_level"))
        .def("_CompleteScope",
             [](CScopeBodyFinder_ &self) { return ItemOrNone(self.CompleteScope_()); })
        .def("_FindPriorScopeDefIndex", &CScopeBodyFinder_::FindPriorScopeDefIndex_,
             nb::arg("pos"))
        .def("_NewStackItemForScopeDef",
             [](CScopeBodyFinder_ &self, nb::handle parent, nb::handle logical,
                Py_ssize_t logical_i) {
                 return self.NewStackItemForScopeDef_(OptionalItem(parent), logical, logical_i);
             },
             nb::arg("parent").none(), nb::arg("logical").none(), nb::arg("logical_i"))
        .def_ro("fCompletedScopeList", &CScopeBodyFinder_::fCompletedScopeList)
        .def_ro("_fLogicalList", &CScopeBodyFinder_::_fLogicalList)
        .def_ro("_fScanPos", &CScopeBodyFinder_::_fScanPos)
        .def_ro("_fScopeStack", &CScopeBodyFinder_::_fScopeStack)
        .def_ro("_fIgnoreSubScopes", &CScopeBodyFinder_::_fIgnoreSubScopes)
        .def_rw("_fIgnoredIndent", &CScopeBodyFinder_::_fIgnoredIndent)
        .def_ro("_fPendingCommentLogicals", &CScopeBodyFinder_::_fPendingCommentLogicals);
}

}  // namespace scopescanner_bind

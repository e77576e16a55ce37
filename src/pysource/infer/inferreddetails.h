// Details of callables and classes, computed from their singles and cached:
// the hinted parameter positions of a def, the ordered type variables of a
// generic class.  CDetailsStore makes and keeps them.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string>
#include <vector>

namespace nb = nanobind;

namespace pysource::infer {

class CCallableDetails : public nb::intrusive_base {
public:
    // `primary_single`: the def's CSingleResolvedInfo.  `defined_scope`:
    // the def's own CScope.
    CCallableDetails(nb::object primary_single, nb::object defined_scope);
    ~CCallableDetails() override = default;

    nb::object fPrimarySingle;
    nb::object fDefinedScope;

    // Def-side positions (self included) of the parameters with a hint.
    virtual nb::object GetHintedArgIndexes();
    // Type variables of a callable: none (a generic def binds its own).
    virtual nb::object GetOrderedTypeVars(nb::handle loc);

protected:
    nb::object fHinted;  // cached frozenset, or None
};

class CClassDetails : public nb::intrusive_base {
public:
    // `type_vars`: the class's type variable names in order (from
    // Generic[...] / Protocol[...] bases, PEP 695 parameters, or generic
    // bases), as the store computed them.
    CClassDetails(nb::object primary_single, nb::object defined_scope, nb::object type_vars);
    ~CClassDetails() override = default;

    nb::object fPrimarySingle;
    nb::object fDefinedScope;
    nb::object fTypeVars;  // list of str

    virtual nb::object GetHintedArgIndexes();
    virtual nb::object GetOrderedTypeVars(nb::handle loc);
};

class CDetailsStore : public nb::intrusive_base {
public:
    explicit CDetailsStore(nb::object engine);
    ~CDetailsStore() override = default;

    nb::object fEngine;  // the CInferenceEngine, reached by name

    // A set of details for the defs and classes among `singles`.
    virtual nb::object GetDetailsSet(nb::handle singles, nb::handle ctx);
    // Details of one def single, or None.
    virtual nb::object GetCallableDetails(nb::handle single, nb::handle ctx);
    // Details of the first class (else def) among `singles`, or None.
    virtual nb::object GetDetails(nb::handle singles, nb::handle ctx);
    // Class details of the first instance among `resolved`, or None.
    virtual nb::object GetDetailsForInstance(nb::handle resolved, nb::handle ctx);

    // The type variable names of the class of `class_single`, in order.
    nb::list OrderedTypeVarsOfClass(nb::handle class_single, nb::handle ctx);

    void Forget() { fCache = nb::dict(); }

    int Traverse(visitproc visit, void *arg) {
        Py_VISIT(fEngine.ptr());
        Py_VISIT(fCache.ptr());
        return 0;
    }
    void Clear() {
        fEngine = nb::none();
        fCache = nb::dict();
    }

private:
    nb::dict fCache;  // single -> details
};

}  // namespace pysource::infer

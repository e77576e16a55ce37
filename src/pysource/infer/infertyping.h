// Typing support: the canonical names of typing's special forms, reached
// through aliases and typing_extensions, and type variable records.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

#include <string>
#include <string_view>

namespace nb = nanobind;

namespace pysource::infer {

// The canonical name of a special form or generic alias of typing (and
// typing_extensions, collections.abc) by its name there: "Optional",
// "Union", "List" -> "list", ...; empty for a name that isn't one.
std::string_view CanonicalSpecialForm(std::string_view name);
// Whether `module` is typing, typing_extensions or another module that
// re-exports typing's special forms.
bool IsTypingModuleName(std::string_view module);

// A type variable: its name, kind (TypeVar, TypeVarTuple, ParamSpec),
// bound or constraints (hint texts) and default.
class CTypeVarInfo : public nb::intrusive_base {
public:
    CTypeVarInfo(nb::handle name, nb::handle kind, nb::handle bound, nb::handle constraints,
                 nb::handle default_text, nb::handle scope);
    nb::str fName;
    nb::str fKind;
    nb::object fBound;        // str or None
    nb::object fConstraints;  // tuple of str
    nb::object fDefault;      // str or None
    nb::object fScope;        // the CScope the variable was declared in, or None
};

class CTypingGenericSupport : public nb::intrusive_base {
public:
    explicit CTypingGenericSupport(nb::object engine);
    ~CTypingGenericSupport() override = default;

    nb::object fEngine;

    // The canonical name of the special form that `expr` (a
    // CFullyScopedName) resolves to, or None.
    virtual nb::object GetSpecialFormCanonicalName(nb::handle expr, nb::handle ctx);
    // The CTypeVarInfo that `expr` resolves to, or None.
    virtual nb::object GetTypeVarInfo(nb::handle expr, nb::handle ctx);

    int Traverse(visitproc visit, void *arg) {
        Py_VISIT(fEngine.ptr());
        return 0;
    }
    void Clear() { fEngine = nb::none(); }
};

}  // namespace pysource::infer

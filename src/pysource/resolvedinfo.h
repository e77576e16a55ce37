// CSingleResolvedInfo: one possible value of an expression, as the
// inference engine gives it: the info bytes that describe it, the scope it
// denotes or was found in, and its location.  The predicates and accessors
// read the info bytes; the engine may subclass and refine them.
#pragma once

#include "pysource/scope.h"

#include <nanobind/nanobind.h>

#include <string>
#include <string_view>

namespace nb = nanobind;

namespace pysource::symbolinfo {

class CSingleResolvedInfo : public nb::intrusive_base {
public:
    // `loc` None means the scope's location.  `class_ref` is the text of an
    // expression whose class this single stands for (a class that can't be
    // written down by name), or None.
    CSingleResolvedInfo(nb::handle ibytes, nb::ref<CScope> scope, nb::object loc = nb::none(),
                        nb::object class_ref = nb::none());
    virtual ~CSingleResolvedInfo() = default;

    nb::bytes ibytes;
    nb::ref<CScope> scope;
    nb::object loc;
    nb::object fClassRef;
    // The type arguments of a specialised generic instance or class: a tuple
    // with one frozenset of singles per type parameter, or None.  Part of the
    // value: list[int] and list[str] are different singles.
    nb::object fTypeArgs;
    // For an instance that a list, set or dict display with items made (or
    // a class call made from its arguments, as `set(items)`), what
    // the display holds where its items can be told apart: a list's items by
    // position (a tuple of frozensets of singles), a dict's values by
    // constant key (a tuple of (key single's bytes, frozenset of singles)
    // pairs), none (an empty tuple) for a set, a class call's instance or
    // past a change that moves them; None for any other value.  Part of the value: [1, ''] and
    // ['', 1] differ by item.
    nb::object fDisplayItems;
    // For an instance of a class whose instances act on the arguments they
    // were made with (a functools.partial, an operator.itemgetter; an
    // enumeration's member, made with its value): those arguments, as a tuple (positions: a tuple of frozensets of singles,
    // keywords: a tuple of (name, frozenset) pairs); None otherwise.  Part
    // of the value.
    nb::object fMadeWith;
    // For a bound method, the single it is bound to (an instance, or the
    // class of a classmethod); None otherwise.  Not part of the value.
    nb::object fBoundTo;
    // For a nested def that a call returned, what that call bound to the
    // names of the scopes around it: a tuple of (url, scope name, name,
    // frozenset of singles), or None.  Not part of the value.
    nb::object fClosure;

    virtual bool IsDef();
    virtual bool IsClass(bool include_builtin = true);
    virtual bool IsMethod();
    virtual bool IsBound();
    // Literals are instances of their class unless `include_literals` is false.
    virtual bool IsInstance(bool include_literals = true);
    virtual bool IsModule();
    // With `with_value`, only a literal whose value is known.
    virtual bool IsLiteral(bool with_value = false);
    virtual bool HasInstanceName();
    virtual bool IsClassRef();
    virtual nb::object GetTypeName();
    virtual nb::object GetClassName();
    virtual nb::object GetDefinedScope();
    virtual nb::object GetInstanceClassName();
    virtual nb::object GetClassRefBytes();

    bool Equals(const CSingleResolvedInfo &other) const;
    Py_hash_t Hash() const;
    nb::str Repr() const;
    // The single without marks and suffix, found at the first asking (the
    // bytes never change).
    std::string_view Bare() const;

protected:
    char BareKind() const;

private:
    mutable std::size_t fBareBegin = 0;
    mutable std::size_t fBareSize = 0;
    mutable bool fBareKnown = false;
};

// A single for the class `name` at `loc`; `scope_or_loc` may instead be the
// class's CScope, with `name` left out.
nb::ref<CSingleResolvedInfo> CreateSingleResolvedForClass(nb::handle scope_or_loc,
                                                          nb::handle name = nb::none());

}  // namespace pysource::symbolinfo

// CScope: a location and a dotted scope name in it; CFullyScopedName: an
// expression and the scope it is read in.  Both are values: scopes compare
// and hash by the identity of their location and the value of their name.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string_view>

namespace nb = nanobind;

namespace pysource::symbolinfo {

class CFullyScopedName;

class CScope : public nb::intrusive_base {
public:
    // `name` must be text (bytes are decoded); `unspecialized_name` is text
    // or None, a cache handed over from a scope with the same name.
    CScope(nb::object loc, nb::handle name, nb::object unspecialized_name = nb::none());
    virtual ~CScope() = default;

    nb::object loc;
    nb::str name;
    nb::object unspecialized_name;  // None until first asked for
    bool fStableLoc = false;        // the location outlives edits (not a transient buffer)
    bool fPrimaryScanned = false;   // a primary scan of this scope has been recorded

    std::string_view NameView() const;

    nb::str UnspecializedName();
    bool IsTopLevelModule() const { return NameView().empty(); }
    nb::str ParentName() const;
    nb::tuple ParentAndLeaf() const;
    nb::ref<CFullyScopedName> ExprIn(nb::handle expr, bool type_hint = false);
    nb::ref<CScope> ReplaceLoc(nb::handle new_loc);
    nb::ref<CScope> ReplaceName(nb::handle scope_name, bool normalized = false);

    virtual nb::ref<CScope> Unspecialized();
    virtual nb::object Parent();  // CScope, or None for the module
    virtual nb::ref<CScope> ChildScope(nb::handle child_name);
    virtual nb::ref<CScope> InstanceForClass();
    virtual nb::ref<CScope> ModuleScope();
    virtual nb::ref<CScope> GetDefLineScope();
    virtual nb::ref<CFullyScopedName> AsExpr();

    bool Equals(const CScope &other) const;
    bool Less(const CScope &other) const;
    Py_hash_t Hash() const;
    nb::str Repr() const;

private:
    // A scope with this location and `new_name`, which is normalised already.
    nb::ref<CScope> WithName(std::string_view new_name);
};

class CFullyScopedName : public nb::intrusive_base {
public:
    CFullyScopedName(nb::ref<CScope> scope, nb::handle name, bool type_hint = false);

    nb::ref<CScope> scope;
    nb::str name;
    bool type_hint;

    bool Equals(const CFullyScopedName &other) const;
    Py_hash_t Hash() const;
    nb::str Repr() const;
};

nb::ref<CScope> Scope(nb::object loc, nb::handle name, nb::object unspecialized_name = nb::none());
nb::ref<CScope> NormalizedScope(nb::object loc, nb::handle name,
                                nb::object unspecialized_name = nb::none());
nb::ref<CScope> WildcardScope(nb::object loc);
nb::ref<CFullyScopedName> FullyScopedNameWithScope(nb::ref<CScope> scope, nb::handle text,
                                                   bool type_hint = false);

}  // namespace pysource::symbolinfo

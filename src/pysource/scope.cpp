#include "pysource/scope.h"

#include "pysource/pytext.h"
#include "pysource/scopename.h"

#include <string>

namespace pysource::symbolinfo {

CScope::CScope(nb::object loc_, nb::handle name_, nb::object unspecialized_name_)
    : loc(std::move(loc_)), name(AsStr(name_, "scope name")) {
    if (!unspecialized_name_.is_none() && !PyUnicode_Check(unspecialized_name_.ptr()))
        throw nb::type_error("unspecialized_name must be str or None");
    unspecialized_name = std::move(unspecialized_name_);
}

std::string_view CScope::NameView() const { return TextView(name, "scope name"); }

nb::str CScope::UnspecializedName() {
    if (unspecialized_name.is_none())
        unspecialized_name = ToStr(RemoveAllScopeNameSubscripts(NameView()));
    return nb::borrow<nb::str>(unspecialized_name);
}

nb::str CScope::ParentName() const { return ToStr(ParentScopeName(NameView())); }

nb::tuple CScope::ParentAndLeaf() const {
    auto [parent, leaf] = ParentAndLeafScopeNames(NameView());
    return nb::make_tuple(ToStr(parent), ToStr(leaf));
}

nb::ref<CFullyScopedName> CScope::ExprIn(nb::handle expr, bool type_hint) {
    return new CFullyScopedName(nb::ref<CScope>(this), expr, type_hint);
}

nb::ref<CScope> CScope::ReplaceLoc(nb::handle new_loc) {
    if (new_loc.is(loc))
        return this;
    return NormalizedScope(nb::borrow(new_loc), name, unspecialized_name);
}

nb::ref<CScope> CScope::ReplaceName(nb::handle scope_name, bool normalized) {
    std::string_view new_name = TextView(scope_name, "scope name");
    if (new_name == NameView())
        return this;
    if (normalized)
        return WithName(new_name);
    std::string normal = NormalizeScopeName(new_name);
    if (normal == NameView())
        return this;
    return WithName(normal);
}

nb::ref<CScope> CScope::WithName(std::string_view new_name) {
    nb::ref<CScope> scope = new CScope(loc, ToStr(new_name));
    scope->fStableLoc = fStableLoc;
    return scope;
}

nb::ref<CScope> CScope::Unspecialized() {
    nb::str plain = UnspecializedName();
    return ReplaceName(plain, true);
}

nb::object CScope::Parent() {
    if (IsTopLevelModule())
        return nb::none();
    return nb::cast(WithName(ParentScopeName(NameView())));
}

nb::ref<CScope> CScope::ChildScope(nb::handle child_name) {
    std::string joined = JoinTwoScopeNames(NameView(), TextView(child_name, "scope name"));
    return WithName(NormalizeScopeName(joined));
}

nb::ref<CScope> CScope::InstanceForClass() {
    if (IsInstanceScope(NameView()))
        return this;
    return WithName(GetInstanceNameForClass(NameView()));
}

nb::ref<CScope> CScope::ModuleScope() {
    if (IsTopLevelModule())
        return this;
    return WithName(kModuleScopeName);
}

nb::ref<CScope> CScope::GetDefLineScope() {
    if (IsTopLevelModule() || IsDefLineScope(NameView()))
        return this;
    return WithName(DefLineScope(NameView()));
}

nb::ref<CFullyScopedName> CScope::AsExpr() { return ExprIn(nb::str("")); }

bool CScope::Equals(const CScope &other) const {
    return loc.is(other.loc) && NameView() == other.NameView();
}

bool CScope::Less(const CScope &other) const {
    if (NameView() != other.NameView())
        return NameView() < other.NameView();
    return reinterpret_cast<std::uintptr_t>(loc.ptr()) <
           reinterpret_cast<std::uintptr_t>(other.loc.ptr());
}

Py_hash_t CScope::Hash() const {
    Py_hash_t name_hash = PyObject_Hash(name.ptr());
    if (name_hash == -1)
        throw nb::python_error();
    auto loc_bits = static_cast<Py_hash_t>(reinterpret_cast<std::uintptr_t>(loc.ptr()) >> 4);
    Py_hash_t combined = name_hash ^ (loc_bits * 1000003);
    return combined == -1 ? -2 : combined;
}

nb::str CScope::Repr() const {
    return nb::str("CScope({!r}, {!r})").format(loc, name);
}

CFullyScopedName::CFullyScopedName(nb::ref<CScope> scope_, nb::handle name_, bool type_hint_)
    : scope(std::move(scope_)), name(AsStr(name_, "expression")), type_hint(type_hint_) {
    if (!scope)
        throw nb::type_error("a fully scoped name needs a scope");
}

bool CFullyScopedName::Equals(const CFullyScopedName &other) const {
    return type_hint == other.type_hint && scope->Equals(*other.scope) &&
           TextView(name, "expression") == TextView(other.name, "expression");
}

Py_hash_t CFullyScopedName::Hash() const {
    Py_hash_t name_hash = PyObject_Hash(name.ptr());
    if (name_hash == -1)
        throw nb::python_error();
    Py_hash_t combined = scope->Hash() * 31 + name_hash + (type_hint ? 7 : 0);
    return combined == -1 ? -2 : combined;
}

nb::str CFullyScopedName::Repr() const {
    return nb::str("CFullyScopedName({!r}, {!r}, type_hint={!r})")
        .format(nb::cast(scope), name, nb::bool_(type_hint));
}

nb::ref<CScope> Scope(nb::object loc, nb::handle name, nb::object unspecialized_name) {
    return new CScope(std::move(loc), name, std::move(unspecialized_name));
}

nb::ref<CScope> NormalizedScope(nb::object loc, nb::handle name, nb::object unspecialized_name) {
    std::string_view text = TextView(name, "scope name");
    std::string normal = NormalizeScopeName(text);
    if (normal == text)
        return new CScope(std::move(loc), name, std::move(unspecialized_name));
    // The cache was made from the name before normalising: normalise it too.
    if (PyUnicode_Check(unspecialized_name.ptr()))
        unspecialized_name = ToStr(NormalizeScopeName(TextView(unspecialized_name, "name")));
    return new CScope(std::move(loc), ToStr(normal), std::move(unspecialized_name));
}

nb::ref<CScope> WildcardScope(nb::object loc) {
    return new CScope(std::move(loc), ToStr(kWildcardScope));
}

nb::ref<CFullyScopedName> FullyScopedNameWithScope(nb::ref<CScope> scope, nb::handle text,
                                                   bool type_hint) {
    return new CFullyScopedName(std::move(scope), text, type_hint);
}

}  // namespace pysource::symbolinfo

// Enumerations and metaclasses: members of a class deriving from
// enum.Enum are instances of it, each keeping the value the body set it to
// (its `value`), and the class object iterates and subscripts through its
// metaclass.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include "pysource/infokinds.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;

bool CEvaluator::IsEnumClass(nb::handle cls) { return MroHolds(Mro(cls, {}), "enum", "Enum"); }

// A name the body of enumeration `owner` sets to a plain value (not a def,
// a class, a descriptor or a private name) is a member.
bool CEvaluator::IsEnumMember(nb::handle owner, std::string_view name, const ValueSet &found) {
    if (name.empty() || name.front() == '_' || found.Empty() || ModuleNameOfLoc(Single(owner)->loc) == "enum")
        return false;
    for (const nb::object &f : found.Items()) {
        si::CSingleResolvedInfo *s = Single(f);
        if (s->IsDef() || s->IsClass() || s->IsModule())
            return false;
    }
    return IsEnumClass(owner);
}

ValueSet CEvaluator::EnumMemberValues(nb::handle cls) {
    ValueSet out;
    si::CSingleResolvedInfo *c = Single(cls);
    nb::object scope = ScopeAt(c->loc, NameOf(c));
    nb::object record = RecordOf(scope);
    if (record.is_none())
        return out;
    nb::dict members = nb::borrow<nb::dict>(record.attr("type_equivs"));
    for (auto [key, ibytes] : members) {
        std::string name = nb::cast<std::string>(key);
        ValueSet found;
        int redirect = 0;
        if (!FindLocal(scope, name, -2, found, redirect) || !IsEnumMember(cls, name, found))
            continue;
        out.Merge(EnumValueOf(cls, found));
    }
    return out;
}

ValueSet CEvaluator::EnumValueOf(nb::handle cls, const ValueSet &found) {
    ValueSet out;
    for (const nb::object &v : found.Items()) {
        // auto() stands for the int the enumeration numbers it with, or
        // its text in an enumeration of strs (StrEnum).
        nb::object vc = ClassOfInstance(v);
        if (!vc.is_none() && NameOf(Single(vc)) == "auto" && ModuleNameOfLoc(Single(vc)->loc) == "enum")
            out.Add(LiteralSingle(MroHolds(Mro(cls, {}), "builtins", "str") ? "str" : "int", std::nullopt));
        else
            out.Add(v);
    }
    return out;
}

ValueSet CEvaluator::EnumMember(nb::handle cls, const ValueSet &found) {
    ValueSet member = InstanceOf(cls, nb::none());
    ValueSet value = EnumValueOf(cls, found);
    if (!value.Empty())
        Single(member.Items()[0])->fMadeWith = nb::make_tuple(nb::make_tuple(value.AsFrozenSet()), nb::tuple());
    return member;
}

nb::object CEvaluator::MetaclassOf(nb::handle cls) {
    for (const MroEntry &e : Mro(cls, {})) {
        si::CSingleResolvedInfo *k = Single(e.cls);
        std::string_view bare = k->Bare();
        if (si::GetInfoBytesKind(bare) != si::kClassKind)
            continue;
        const auto info_held = ClassInfoOf(bare);
        const si::ClassInfo &info = *info_held;
        for (const std::string &base : si::SplitDeclArguments(info.arg_decl)) {
            std::string_view text = si::StripSpaces(base);
            std::ptrdiff_t eq = si::NonNestedFind(text, "=");
            if (eq < 0 || si::StripSpaces(text.substr(0, (std::size_t) eq)) != "metaclass")
                continue;
            nb::object parent = ScopeAt(k->loc, si::ParentScopeName(NameOf(k)));
            for (const nb::object &m : ResolveText(parent, si::StripSpaces(text.substr((std::size_t) eq + 1)), -2).Items())
                if (Single(m)->IsClass())
                    return m;
        }
    }
    return nb::none();
}

ValueSet CEvaluator::CallMetaclassDunder(const ValueSet &receivers, std::string_view method,
                                         const std::vector<ValueSet> &args) {
    ValueSet out;
    for (const nb::object &r : receivers.Items()) {
        if (!Single(r)->IsClass() || !SpecialFormOf(r).empty())
            continue;
        nb::object meta = MetaclassOf(r);
        if (meta.is_none())
            continue;
        ValueSet methods = ClassAttribute(meta, method, r, {}, true);
        const Keywords none;
        for (const nb::object &m : SelectOverloads(methods, args, &none).Items())
            if (Single(m)->IsDef() && OverloadAccepts(m, args, &none))
                out.Merge(CallDef(m, args, {}));
    }
    return out;
}

}  // namespace pysource::infer

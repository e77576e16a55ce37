// Decorators: what a decorator of a library (a hinted def) makes of the
// def it decorates, and decorators that make a property.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include "pysource/infokinds.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;

bool CEvaluator::DecoratorMakesProperty(nb::handle loc, const std::string &def_scope_name,
                                        const std::string &decorator, nb::handle def_single) {
    std::string_view text = si::StripSpaces(decorator);
    if (text.empty() || text.find('(') != std::string_view::npos)
        return false;
    nb::object scope = ScopeAt(loc, si::ParentScopeName(si::NormalizeScopeName(def_scope_name)));
    nb::object property = BuiltinClass("property");
    if (property.is_none())
        return false;
    si::CSingleResolvedInfo *p = Single(property);
    auto is_property = [&](nb::handle cls) {
        for (const MroEntry &e : Mro(cls, {})) {
            si::CSingleResolvedInfo *k = Single(e.cls);
            if (k->loc.is(p->loc) && NameOf(k) == "property")
                return true;
        }
        return false;
    };
    for (const nb::object &v : ResolveText(scope, text, -2).Items()) {
        si::CSingleResolvedInfo *s = Single(v);
        if (s->IsClass() && is_property(v))
            return true;
        // A def of the project that makes a property of the def it gets.
        if (!s->IsDef() || IsLibraryScope(ScopeAt(s->loc, "")))
            continue;
        ValueSet def;
        def.Add(def_single);
        for (const nb::object &made : CallValue(v, {def}, {}, Frame{scope, -2, nullptr, nullptr}).Items()) {
            nb::object cls = Single(made)->IsInstance(false) ? ClassOfInstance(made) : nb::object();
            if (cls.is_valid() && !cls.is_none() && is_property(cls))
                return true;
        }
    }
    return false;
}

// Whether the def `d` of `parent` follows @overload defs of its name.
bool CEvaluator::ImplementsOverloads(nb::handle parent, si::CSingleResolvedInfo *d) {
    nb::object record = RecordOf(parent);
    if (record.is_none())
        return false;
    std::string_view leaf = si::LeafScopeName(si::SplitScopeNameFromSuffixes(NameOf(d)).first);
    nb::object entry = InfoBytesOf(record, leaf);
    if (entry.is_none())
        return false;
    for (std::string_view single : si::NonNestedSplit(si::TextView(entry, "ibytes"), ";")) {
        std::string_view bare = si::BareSingle(single);
        if (si::IsDefKind(si::GetInfoBytesKind(bare)) && HasDecorator(si::UnpackDefInfo(bare), "overload"))
            return true;
    }
    return false;
}

ValueSet CEvaluator::DecoratedDef(nb::handle loc, nb::handle def_single) {
    ValueSet out;
    out.Add(def_single);
    si::CSingleResolvedInfo *d = Single(def_single);
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    if (def.decorators.empty() || nb::cast<bool>(fLocCache.attr("IsPyiLocation")(loc)))
        return out;
    nb::object parent = ScopeAt(loc, si::ParentScopeName(NameOf(d)));
    if (ScopeKindOf(parent) == "class")
        return out;  // methods: bound as their class says
    // (Only a name defined again, `f|2`, can follow overloads.)
    if (si::LeafScopeName(NameOf(d)).find('|') != std::string_view::npos && ImplementsOverloads(parent, d))
        return out;  // callers see the overloads, whatever wraps the implementation
    if (HasDecorator(def, "overload"))
        return out;  // a call picks among the overloads by their signatures, whatever wraps each
    Frame frame{parent, -2, nullptr, nullptr};
    // Innermost first; a decorator of the project's own, unhinted, is taken
    // to keep the def it wraps.
    for (auto it = def.decorators.rbegin(); it != def.decorators.rend(); ++it) {
        ValueSet decorators;
        for (const nb::object &deco : ResolveText(parent, si::StripSpaces(*it), -2).Items()) {
            si::CSingleResolvedInfo *s = Single(deco);
            if (!s->IsDef() && !s->IsClass())
                continue;
            if (s->IsDef()) {
                const auto info_held = DefInfoOf(s->Bare());
                const si::DefInfo &info = *info_held;
                if (!info.return_hint || info.return_hint->find_first_not_of(" ") == std::string::npos)
                    continue;
            }
            if (IsLibraryScope(ScopeAt(s->loc, "")))
                decorators.Add(deco);
        }
        ValueSet made;
        std::vector<ValueSet> args{out};
        const Keywords none;
        for (const nb::object &callee : SelectOverloads(decorators, args, &none).Items())
            made.Merge(CallValue(callee, args, {}, frame));
        if (made.Empty())
            continue;
        out = made;
    }
    return out;
}

}  // namespace pysource::infer

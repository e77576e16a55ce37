#include "pysource/infer/inferreddetails.h"

#include "pysource/infer/evaluator.h"
#include "pysource/pgeninspect/parser.h"

#include "pysource/exprtext.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/untracked.h"

namespace pysource::infer {

namespace si = symbolinfo;

namespace {

nb::object FrozenSetOf(const std::vector<long long> &items) {
    nb::object out = nb::steal(PySet_New(nullptr));
    for (long long i : items) {
        nb::object value = nb::int_(i);
        if (PySet_Add(out.ptr(), value.ptr()) < 0)
            throw nb::python_error();
    }
    return AtomicFrozenSet(out);
}

si::CSingleResolvedInfo *AsSingle(nb::handle obj) {
    if (!nb::isinstance<si::CSingleResolvedInfo>(obj))
        return nullptr;
    return nb::inst_ptr<si::CSingleResolvedInfo>(obj);
}

}  // namespace

CCallableDetails::CCallableDetails(nb::object primary_single, nb::object defined_scope)
    : fPrimarySingle(std::move(primary_single)), fDefinedScope(std::move(defined_scope)),
      fHinted(nb::none()) {}

nb::object CCallableDetails::GetHintedArgIndexes() {
    if (!fHinted.is_none())
        return fHinted;
    std::vector<long long> hinted;
    nb::object ibytes = fPrimarySingle.attr("ibytes");
    si::DefInfo def = si::UnpackDefInfo(si::BareSingle(si::TextView(ibytes, "ibytes")));
    long long arg_i = 0;
    for (const std::string &arg : si::SplitDeclArguments(def.arg_decl)) {
        std::string_view text = si::StripSpaces(arg);
        if (text.empty() || text == "*" || text == "/")
            continue;
        std::ptrdiff_t colon = si::NonNestedFind(text, ":");
        std::ptrdiff_t equals = si::NonNestedFind(text, "=");
        // (An annotation that names no type, a note, leaves the parameter
        // to what callers pass.)
        if (colon >= 0 && (equals < 0 || colon < equals)) {
            std::string_view hint = text.substr((std::size_t) colon + 1,
                                                equals < 0 ? std::string_view::npos : (std::size_t) (equals - colon - 1));
            auto parse = [](std::string_view part) {
                auto parsed = std::make_shared<ParsedText>();
                parsed->root = pgen::ParseEmbeddedExpression(parsed->tree, parsed->tree.Keep(std::string(part)), 0, true);
                return std::shared_ptr<const ParsedText>(std::move(parsed));
            };
            if (!AnnotationNamesNoType(hint, parse))
                hinted.push_back(arg_i);
        }
        ++arg_i;
    }
    fHinted = FrozenSetOf(hinted);
    return fHinted;
}

nb::object CCallableDetails::GetOrderedTypeVars(nb::handle) { return nb::list(); }

CClassDetails::CClassDetails(nb::object primary_single, nb::object defined_scope, nb::object type_vars)
    : fPrimarySingle(std::move(primary_single)), fDefinedScope(std::move(defined_scope)),
      fTypeVars(type_vars.is_none() ? nb::object(nb::list()) : std::move(type_vars)) {}

nb::object CClassDetails::GetHintedArgIndexes() { return FrozenSetOf({}); }

nb::object CClassDetails::GetOrderedTypeVars(nb::handle) { return nb::list(fTypeVars); }

CDetailsStore::CDetailsStore(nb::object engine) : fEngine(std::move(engine)) {}

nb::object CDetailsStore::GetCallableDetails(nb::handle single, nb::handle) {
    si::CSingleResolvedInfo *s = AsSingle(single);
    if (!s || !s->IsDef())
        return nb::none();
    if (PyObject *hit = PyDict_GetItemWithError(fCache.ptr(), single.ptr()))
        return nb::borrow(hit);
    if (PyErr_Occurred())
        throw nb::python_error();
    nb::object details = nb::cast(nb::ref<CCallableDetails>(
        new CCallableDetails(nb::borrow(single), s->GetDefinedScope())));
    fCache[single] = details;
    return details;
}

nb::list CDetailsStore::OrderedTypeVarsOfClass(nb::handle class_single, nb::handle ctx) {
    // The engine knows how to read a class's type parameters (it resolves
    // the names in the bases); without one, only the declared forms count.
    if (!fEngine.is_none() && nb::hasattr(fEngine, "_OrderedTypeVars"))
        return nb::borrow<nb::list>(fEngine.attr("_OrderedTypeVars")(class_single, ctx));
    nb::list out;
    si::CSingleResolvedInfo *s = AsSingle(class_single);
    if (!s)
        return out;
    si::ClassInfo info = si::UnpackClassInfo(s->Bare());
    if (info.type_params)
        for (const si::DeclTypeParam &param : si::ParseDeclTypeParams(*info.type_params))
            out.append(nb::str(param.name.c_str()));
    return out;
}

nb::object CDetailsStore::GetDetailsSet(nb::handle singles, nb::handle ctx) {
    nb::object out = nb::steal(PySet_New(nullptr));
    for (nb::handle single : singles) {
        si::CSingleResolvedInfo *s = AsSingle(single);
        if (!s)
            continue;
        nb::object details;
        if (s->IsDef())
            details = GetCallableDetails(single, ctx);
        else if (s->IsClass())
            details = GetDetails(nb::make_tuple(single), ctx);
        if (details.is_valid() && !details.is_none() && PySet_Add(out.ptr(), details.ptr()) < 0)
            throw nb::python_error();
    }
    return out;
}

nb::object CDetailsStore::GetDetails(nb::handle singles, nb::handle ctx) {
    nb::object first_def = nb::none();
    for (nb::handle single : singles) {
        si::CSingleResolvedInfo *s = AsSingle(single);
        if (!s)
            continue;
        if (s->IsClass()) {
            if (PyObject *hit = PyDict_GetItemWithError(fCache.ptr(), single.ptr()))
                return nb::borrow(hit);
            if (PyErr_Occurred())
                throw nb::python_error();
            nb::object details = nb::cast(nb::ref<CClassDetails>(new CClassDetails(
                nb::borrow(single), s->GetDefinedScope(), OrderedTypeVarsOfClass(single, ctx))));
            fCache[single] = details;
            return details;
        }
        if (first_def.is_none() && s->IsDef())
            first_def = nb::borrow(single);
    }
    return first_def.is_none() ? nb::none() : GetCallableDetails(first_def, ctx);
}

nb::object CDetailsStore::GetDetailsForInstance(nb::handle resolved, nb::handle ctx) {
    for (nb::handle single : resolved) {
        si::CSingleResolvedInfo *s = AsSingle(single);
        if (!s || !s->IsInstance(true))
            continue;
        nb::object class_scope = s->GetDefinedScope();
        if (class_scope.is_none())
            continue;
        nb::ref<si::CSingleResolvedInfo> cls = si::CreateSingleResolvedForClass(class_scope);
        return GetDetails(nb::make_tuple(nb::cast(cls)), ctx);
    }
    return nb::none();
}

}  // namespace pysource::infer

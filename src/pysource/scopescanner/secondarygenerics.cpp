// Generic specialisation: after `x = []`, a call `x.append(1)` (or a
// subscript assignment `d["a"] = 1`) tells the type variables of the
// container's class, and `x` gets an inferred hint such as `list[int]`.
// Only with the switch kSpecializeGenericsFromArgs on.
#include <string>

#include "pysource/scopescanner/secondaryscanner.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

bool Calls(nb::handle obj, const char *predicate) { return Truth(obj.attr(predicate)()); }

nb::bytes Bytes(std::string_view data) { return nb::bytes(data.data(), data.size()); }

nb::bytes TypingAny() { return Bytes(si::kTypingModuleSymbolDotAnyStr); }

// The argument definitions of a method's signature without `self`, or None
// when the signature has no argument text.
nb::object MethodArgDefs(nb::handle single_method, nb::object &def_info) {
    def_info = nb::cast(si::PyUnpackDefInfoStr(single_method.attr("ibytes")));
    nb::tuple signature = si::PySplitDefSignature(def_info.attr("signature"));
    nb::object args_text = signature[0];
    if (args_text.is_none())
        return nb::none();
    return nb::module_::import_("pysource.pycodeutils").attr("ParseDefArgs")(args_text);
}

// The singles that info bytes stand for, read in `for_scope`.
nb::set SinglesOf(nb::handle engine, nb::handle ibytes, nb::handle for_scope) {
    nb::handle exhausted =
        nb::module_::import_("pysource.inferenceiterators").attr("kExhaustedIterValue");
    nb::set singles;
    for (nb::handle single : engine.attr("SingleResolvedIter")(ibytes, for_scope, nb::none())) {
        if (single.is(exhausted))
            break;
        singles.add(single);
    }
    return singles;
}

}  // namespace

bool CSingleScopeSecondaryScanner::MethodWithTypeVariable_(nb::handle single_method,
                                                           nb::handle ctx) {
    if (!Calls(single_method, "IsMethod"))
        return false;
    nb::object def_info;
    nb::object args = MethodArgDefs(single_method, def_info);
    if (args.is_none())
        return false;
    if (nb::len(args) > 0)
        args.attr("pop")(0);  // self
    nb::list hints;
    for (nb::handle arg : args) {
        nb::object hint = arg.attr("type_hint");
        if (!hint.is_none())
            hints.append(hint);
    }
    if (hints.size() == 0)
        return false;
    nb::object cls = single_method.attr("GetDefinedScope")().attr("Parent")();
    nb::object resolved = ResolvedOf(
        Engine().attr("ResolveToResult")(cls.attr("AsExpr")(), nb::arg("ctx") = ctx));
    if (!HasItems(resolved))
        return false;
    nb::object details = DetailsStore().attr("GetDetails")(resolved, ctx);
    if (details.is_none())
        return false;
    nb::object type_vars = details.attr("GetOrderedTypeVars")(single_method.attr("loc"));
    if (!HasItems(type_vars))
        return false;
    return !Truth(nb::set(type_vars).attr("isdisjoint")(hints));
}

nb::list CSingleScopeSecondaryScanner::GetTypevarMethodList_(nb::handle resolved, nb::handle ctx) {
    nb::list methods;
    for (nb::handle single : resolved) {
        if (MethodWithTypeVariable_(single, ctx))
            methods.append(single);
    }
    return methods;
}

bool CSingleScopeSecondaryScanner::AddInfoForSpecializedGenerics_(nb::handle name,
                                                                  nb::handle callable_resolved,
                                                                  nb::handle arg_ibytes_list,
                                                                  nb::handle ctx) {
    nb::object parts = si::PySplitTrailers(name);
    if (parts.is_none() || nb::len(parts) <= 1 ||
        !StartsWith(TextOf(parts[nb::int_(-1)]), "."))
        return false;
    if (!AddDerivedFor_(LocOf(OurScope())))
        return false;
    if (!HasItems(callable_resolved))
        return false;
    if (Truth(ctx.attr("OutOfTime")()))
        return true;
    nb::object obj_name = JoinAllButLast(parts, "");
    nb::object resolved = ResolveInThisScope_(obj_name, true, ctx);
    if (resolved.is_none())
        return true;
    nb::object details = DetailsStore().attr("GetDetailsForInstance")(resolved, ctx);
    if (details.is_none())
        return Truth(ctx.attr("OutOfTime")());
    for (nb::handle single_method : callable_resolved) {
        if (ProcessSingleCalledTypevarMethod_(obj_name, details, single_method, arg_ibytes_list,
                                              ctx))
            return true;
    }
    return false;
}

bool CSingleScopeSecondaryScanner::ProcessSingleCalledTypevarMethod_(
    nb::handle obj_name, nb::handle obj_cls_details, nb::handle single_method,
    nb::handle arg_ibytes_list, nb::handle ctx) {
    if (!Calls(single_method, "IsMethod"))
        return false;
    nb::object def_info = nb::cast(si::PyUnpackDefInfoStr(single_method.attr("ibytes")));
    nb::object method_loc = single_method.attr("loc");
    nb::object class_name = si::PyParentScopeName(def_info.attr("scope_name"));
    nb::object class_single = nb::cast(si::CreateSingleResolvedForClass(method_loc, class_name));
    nb::set class_set;
    class_set.add(class_single);
    nb::object class_details = DetailsStore().attr("GetDetails")(class_set, ctx);
    if (class_details.is_none())
        return false;
    nb::object type_vars = class_details.attr("GetOrderedTypeVars")(method_loc);
    if (!HasItems(type_vars))
        return false;
    if (Truth(ctx.attr("OutOfTime")()))
        return true;

    nb::object args = MethodArgDefs(single_method, def_info);
    if (args.is_none() || nb::len(args) == 0)
        return false;
    args.attr("pop")(0);  // self: the single is a method
    // Exactly as many positional arguments as the definition has.
    if (nb::len(args) != nb::len(arg_ibytes_list))
        return false;

    nb::object our_scope = OurScope();
    nb::dict typevar_map;
    nb::list ibytes_items = nb::list(arg_ibytes_list);
    size_t i = 0;
    for (nb::handle arg_def : args) {
        nb::object ibytes = ibytes_items[i++];
        nb::object type_hint = arg_def.attr("type_hint");
        if (type_hint.is_none() || ibytes.is_none())
            continue;
        nb::set value_resolved = SinglesOf(Engine(), ibytes, our_scope);
        if (Contains(type_vars, type_hint)) {
            typevar_map[type_hint] = GetHintFromResolved_(value_resolved);
        } else if (!OneArgMatches_(single_method, arg_def, value_resolved, ctx)) {
            return false;
        }
    }
    if (typevar_map.size() == 0)
        return false;

    nb::bytes any = TypingAny();
    nb::list entries;
    bool known = false;
    for (nb::handle type_var : type_vars) {
        if (typevar_map.contains(type_var)) {
            nb::object entry = AsUtf8(typevar_map[type_var]);
            entries.append(entry);
            if (!Equal(entry, any))
                known = true;
        } else {
            entries.append(any);
        }
    }
    if (!known)
        return false;
    nb::object type_args = nb::bytes("[") + nb::bytes(",").attr("join")(entries) + nb::bytes("]");
    nb::object defined_scope = obj_cls_details.attr("fDefinedScope");
    nb::object class_text = AsUtf8(ScopeOf(defined_scope).name) + type_args;
    if (Truth(LocCache().attr("IsTypingLoc")(LocOf(defined_scope))))
        class_text = Bytes(si::kTypingModuleSymbolDotStr) + class_text;

    nb::object derived = DerivedInfo_(nb::cast(ScopeOf(our_scope).AsExpr()), ctx);
    if (!derived.is_none()) {
        // The last call seen for an object wins.
        AsScopeInfo(derived).type_equivs[obj_name] = Bytes(si::kInferredTypeHintPrefix) + class_text;
    }
    return false;
}

bool CSingleScopeSecondaryScanner::OneArgMatches_(nb::handle callable_single, nb::handle arg_def,
                                                  nb::handle value_resolved, nb::handle ctx) {
    if (value_resolved.is_none())
        RaiseAssertion("_OneArgMatches needs the value's resolved set");
    nb::object hint_expr =
        callable_single.attr("scope").attr("Parent")().attr("ExprIn")(arg_def.attr("type_hint"));
    nb::object resolved =
        ResolvedOf(Engine().attr("ResolveToResult")(hint_expr, nb::arg("ctx") = ctx));
    if (!HasItems(resolved))
        return true;  // an unresolvable hint rejects nothing
    nb::object loc_cache = LocCache();
    nb::set accepted;
    nb::object type_single = nb::none();
    for (nb::handle single : resolved) {
        type_single = nb::borrow(single);
        nb::object location = loc_cache.attr("GetPrimaryLocation")(single.attr("loc"));
        if (Calls(single, "HasInstanceName"))
            accepted.add(nb::make_tuple(location, single.attr("GetInstanceClassName")()));
        if (Calls(single, "IsClass"))
            accepted.add(nb::make_tuple(location, single.attr("GetClassName")()));
    }
    // Values are compared by name within the location of the last hint
    // single, whatever their own location.
    bool failed = false;
    for (nb::handle value : value_resolved) {
        if (!Calls(value, "IsInstance"))
            continue;
        nb::object location = loc_cache.attr("GetPrimaryLocation")(type_single.attr("loc"));
        if (Contains(accepted, nb::make_tuple(location, value.attr("GetTypeName")())))
            return true;
        failed = true;
    }
    return !failed;
}

nb::object CSingleScopeSecondaryScanner::GetHintFromResolved_(nb::handle resolved) {
    nb::object loc_cache = LocCache();
    si::CScope &ours = ScopeOf(OurScope());
    nb::set hints;
    for (nb::handle single : resolved) {
        if (Calls(single, "IsLiteral")) {
            hints.add(AsUtf8(single.attr("GetTypeName")()));
        } else if (Truth(single.attr("IsInstance")(false))) {
            nb::tuple parent_leaf = si::PyParentAndLeafScopeNames(single.attr("GetTypeName")());
            nb::object location = loc_cache.attr("GetPrimaryLocation")(single.attr("loc"));
            nb::object marked =
                si::PyPrefixWithLocationAndScope(AsUtf8(parent_leaf[1]), location, parent_leaf[0]);
            hints.add(nb::bytes("(") + marked + nb::bytes(")"));
        } else if (Calls(single, "IsClassRef")) {
            nb::object marked = si::PyPrefixWithLocationAndScope(
                single.attr("GetClassRefBytes")(), ours.loc, ours.name);
            hints.add(nb::bytes("type(") + marked + nb::bytes(")"));
        }
    }
    // A union is never formed.
    if (hints.size() == 1)
        return nb::list(hints)[0];
    return TypingAny();
}

}  // namespace pysource

// Called names: a called term is resolved (once per scanner, through the
// called-name memo), the definitions it reaches become derived targets, the
// call's arguments are recorded on them, generic containers are
// specialised, and a call of a user-defined TypeGuard / TypeIs narrows its
// first argument in the calling scope.  A subscript assignment `o[k] = v`
// is the call `o.__setitem__(k, v)`.
#include <algorithm>
#include <optional>
#include <string>

#include "pysource/exprtext.h"
#include "pysource/infer/evaluator.h"
#include "pysource/infer/inferreddetails.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/scopescanner/secondaryscanner.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

bool Calls(nb::handle obj, const char *predicate) { return Truth(obj.attr(predicate)()); }

// Whether the context stopped for a reason that a retry can cure.
bool RetryableStop(nb::handle ctx) {
    nb::object reason = ctx.attr("fIncompleteReason");
    return Equal(reason, ctx.attr("kCannotScan")) || Equal(reason, ctx.attr("kOutOfTime"));
}

// Whether a called term may hold more than one callable: different defs
// (`f = g if c else h`, a callback parameter, what a factory returns, a method
// that receivers of several classes define), or a def and a class.  Each call
// reaches one of them, so what it passes says nothing sure of any one.
// Classes alone (`cls(...)`) construct alike.
// A def's scope name without the numbers that tell the defs of one name made
// again (`f|1`) apart: those are one def.
std::string UnnumberedDefName(nb::handle single) {
    nb::object name_obj = single.attr("GetDefinedScope")().attr("name");
    std::string_view name = TextOf(name_obj);  // a view into name_obj
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '|')
            while (i + 1 < name.size() && name[i + 1] >= '0' && name[i + 1] <= '9')
                ++i;
        else
            out.push_back(name[i]);
    }
    return out;
}

bool ReachesSeveralCallables(nb::handle resolved) {
    std::optional<std::string> def_key;
    bool classes = false;
    for (nb::handle single : resolved) {
        if (Calls(single, "IsDef")) {
            // A def by its place.
            std::string key = LocationUrl(single.attr("loc")) + ":" + UnnumberedDefName(single);
            if (def_key && *def_key != key)
                return true;
            def_key = std::move(key);
        } else if (Calls(single, "IsClass")) {
            classes = true;
        }
    }
    return def_key && classes;
}

// Whether a record entry (`compound`) holds a value, and what it holds are
// defs only.
bool HoldsDefsOnly(std::string_view compound) {
    std::vector<std::pair<std::string_view, si::Kind>> values = ValueSingles(compound);
    return !values.empty() &&
           std::all_of(values.begin(), values.end(), [](const auto &value) { return si::IsDefKind(value.second); });
}

// Whether a record binds `name`: it holds a value for it (a parameter, a
// setting, an import), not only reads or a `global` declaration.
bool BindsName(nb::handle record, nb::handle name) {
    if (record.is_none())
        return false;
    nb::object entry = record.attr("type_equivs").attr("get")(name);
    return !entry.is_none() && !ValueSingles(TextOf(entry)).empty();
}

// A bare name called in the module that binds it, where the module's own
// text binds it by `def` statements of one function only (its own scopes'
// `global` settings count as its text): the call reaches that def.  Other
// callables the name resolves to come from attribute sets in other files
// (`m.f = other`, a monkeypatch), which run at a time the call can't know
// and, for a test's patch, are undone.  Counting them would drop every call
// of `f` in its own module.  Gives `resolved` without those callables, or
// `resolved` itself when the rule doesn't apply.
nb::object WithoutPatchesFromOtherFiles(nb::handle info_cache, nb::handle our_scope,
                                        nb::handle name, nb::handle resolved) {
    if (!si::IsSingleNameToken(TextOf(name)))
        return nb::borrow(resolved);
    // The name must not be bound in the scopes between the call and its module.
    nb::object scope = nb::borrow(our_scope);
    while (!ScopeOf(scope).IsTopLevelModule()) {
        if (BindsName(info_cache.attr("GetScopeInfo")(scope), name))
            return nb::borrow(resolved);
        scope = ScopeOf(scope).Parent();
        if (scope.is_none())
            return nb::borrow(resolved);
    }
    std::string our_url = LocationUrl(LocOf(scope));
    bool own_defs = false;
    for (nb::handle record : info_cache.attr("GetScopeInfoRecords")(scope)) {
        if (LocationUrl(LocOf(record.attr("key").attr("scanned_scope"))) != our_url)
            continue;  // a record another file's scan made
        nb::object entry = record.attr("type_equivs").attr("get")(name);
        if (entry.is_none())
            continue;
        if (!HoldsDefsOnly(TextOf(entry)))
            return nb::borrow(resolved);
        own_defs = true;
    }
    if (!own_defs)
        return nb::borrow(resolved);
    nb::set kept;
    bool reaches_own = false;
    for (nb::handle single : resolved) {
        bool callable = Calls(single, "IsDef") || Calls(single, "IsClass");
        bool own = Calls(single, "IsDef") && LocationUrl(single.attr("loc")) == our_url &&
                   UnnumberedDefName(single) == TextOf(name);
        if (callable && !own)
            continue;
        reaches_own = reaches_own || own;
        kept.add(single);
    }
    return reaches_own ? nb::frozenset(kept) : nb::borrow(resolved);
}

// Whether `text` is a list, set or tuple display (`[a, b]`, `(a, b)`),
// parentheses around it aside.
bool IsDisplay(std::string_view text) {
    std::optional<std::vector<std::string>> parts = si::SplitTrailers(text);
    if (!parts || parts->size() != 1 || text.size() < 2)
        return false;
    if (text.front() == '[' || text.front() == '{')
        return true;
    std::string_view inner = si::StripSpaces(text.substr(1, text.size() - 2));
    return text.front() == '(' && (IsDisplay(inner) || si::NonNestedFind(inner, ",") >= 0);
}

// Whether every value of a name (its record entry `compound`) is an item of
// a display iterated over (`for f in [g, h]: f(x)`): the loop calls each
// item with the same arguments, so the call passes them to every callable
// it reaches.
bool IteratesDisplayOnly(std::string_view compound) {
    bool iterated = false;
    for (std::string_view single : si::NonNestedSplit(compound, ";")) {
        std::string_view bare = si::BareSingle(single);
        si::Kind kind = si::GetInfoBytesKind(bare);
        if (!infer::SaysValue(kind))
            continue;
        bool item = kind == si::kPlainEquivKind && bare.ends_with(si::kIterationSubscript) &&
                    IsDisplay(bare.substr(0, bare.size() - si::kIterationSubscript.size()));
        if (!item)
            return false;
        iterated = true;
    }
    return iterated;
}

}  // namespace

bool CSingleScopeSecondaryScanner::ScanCalledName_(nb::handle name_in, nb::handle called_ibytes,
                                                   nb::handle parent_ctx) {
    if (si::GetInfoBytesKind(TextOf(called_ibytes)) != si::kCalledKind)
        RaiseAssertion("_ScanCalledName needs a called record");
    // The call is remembered under its whole text, trailer included.
    nb::tuple called = si::PyUnpackCalled(called_ibytes);
    nb::object name = nb::borrow(name_in);
    if (!TextOf(called[0]).empty())
        name = name + nb::object(called[0]);
    // The called name is read where the call stands, and remembered so.
    nb::object name_at = name;
    if (std::optional<long long> at = si::SplitLogicalIndexSuffix(TextOf(called_ibytes)).logical_index) {
        std::string suffixed = si::AppendLogicalIndexBytesSuffix(TextOf(name), std::to_string(*at));
        name_at = nb::str(suffixed.data(), suffixed.size());
    }
    nb::object expr = ExprIn(OurScope(), name_at);

    CSubContext sub(parent_ctx);
    nb::handle ctx = sub.get();
    ctx.attr("SetWholeExpr")(expr);
    bool specialize_generics =
        kSpecializeGenericsFromArgs && si::NonNestedFind(TextOf(name), ".") >= 0;
    if (DbgStatsOn())
        DbgCountScanEvent_(nb::str("called-name"), _gDbgSeenCalled.get(), name);

    nb::object derived_list, typevar_method_list, guard_ibytes;
    if (_fCalledMemo.contains(name_at)) {
        if (DbgStatsOn())
            DbgCountScanHit_(nb::str("called-name-memo-hit"));
        nb::object entry = _fCalledMemo[name_at];
        derived_list = entry[0];
        typevar_method_list = entry[1];
        guard_ibytes = entry[4];
        nb::object scopes_seen = entry[2];
        if (!scopes_seen.is_none()) {
            ctx.attr("MergeScopesSeen")(scopes_seen);
            ctx.attr("MergeResolvedImports")(entry[3]);
        }
    } else {
        nb::object resolved =
            ResolvedOf(Engine().attr("ResolveToResult")(expr, nb::arg("ctx") = ctx));
        if (CtxIncomplete(ctx)) {
            if (RetryableStop(ctx)) {
                if (!TakesPartial_(ctx)) {
                    sub.Finish();
                    return true;
                }
            } else {
                ctx.attr("ClearIncomplete")();
            }
        }
        if (TextOf(called[0]).empty() && ReachesSeveralCallables(resolved))
            resolved = WithoutPatchesFromOtherFiles(InfoCache(), OurScope(), name, resolved);
        nb::object processed = ProcessCalledResolved_(resolved, specialize_generics, ctx);
        if (processed.is_none()) {
            sub.Finish();
            return true;
        }
        bool each_called = false;
        if (TextOf(called[0]).empty()) {
            nb::object entry = fPrimaryInfo->type_equivs.attr("get")(name);
            each_called = !entry.is_none() && IteratesDisplayOnly(TextOf(entry));
        }
        derived_list = ReachesSeveralCallables(resolved) && !each_called ? nb::list() : processed[0];
        typevar_method_list = processed[1];
        nb::object guard_singles = processed[2];
        guard_ibytes = HasItems(guard_singles) ? GetInfoBytesForReducedResolved_(guard_singles)
                                               : nb::none();
        if (HasItems(typevar_method_list))
            _fCalledMemo[name_at] = nb::make_tuple(derived_list, typevar_method_list,
                                                ctx.attr("GetScopesSeen")(),
                                                ctx.attr("GetResolvedImports")(), guard_ibytes);
        else
            _fCalledMemo[name_at] = nb::make_tuple(derived_list, typevar_method_list, nb::none(),
                                                nb::none(), guard_ibytes);
    }

    // Each call site narrows its own first argument, memo hit or not.
    if (!guard_ibytes.is_none())
        AddGuardNarrowing_(called_ibytes, guard_ibytes, ctx);
    bool has_derived = HasItems(derived_list);
    bool has_typevar_methods = HasItems(typevar_method_list);
    if (!has_derived && !has_typevar_methods) {
        sub.Finish();
        return false;
    }
    nb::object arg_ibytes_list = nb::none();
    if (has_derived) {
        nb::object skip_indexes =
            has_typevar_methods ? nb::object(nb::none()) : FullyHintedArgIndexes_(derived_list);
        arg_ibytes_list = GetArgInfoBytesList_(called_ibytes, ctx, skip_indexes);
        if (HasItems(arg_ibytes_list))
            AddInfoForUsedArgs_(derived_list, arg_ibytes_list, ctx);
        AddInfoForKeywordArgs(derived_list, called_ibytes, ctx);
    }
    if (has_typevar_methods) {
        if (arg_ibytes_list.is_none())
            arg_ibytes_list = GetArgInfoBytesList_(called_ibytes, ctx, nb::none());
        if (HasItems(arg_ibytes_list))
            AddInfoForSpecializedGenerics_(name, typevar_method_list, arg_ibytes_list, ctx);
    }
    sub.Finish();
    return Truth(parent_ctx.attr("OutOfTime")());
}

nb::object CSingleScopeSecondaryScanner::ProcessCalledResolved_(nb::handle resolved,
                                                                bool specialize_generics,
                                                                nb::handle ctx) {
    nb::list derived_list;
    nb::list typevar_method_list;
    nb::list method_singles;
    nb::set details_input;
    nb::set bound_scopes;
    // Defs where derived info isn't wanted pass only for specialisation,
    // which needs the generic methods of the standard library; classes never.
    for (nb::handle single : resolved) {
        if (Calls(single, "IsDef")) {
            if (!specialize_generics && !AddDerivedFor_(single.attr("loc")))
                continue;
            method_singles.append(single);
            details_input.add(single);
            if (Calls(single, "IsBound"))
                bound_scopes.add(single.attr("GetDefinedScope")());
        } else if (Calls(single, "IsClass") && AddDerivedFor_(single.attr("loc"))) {
            details_input.add(single);
        }
    }

    if (details_input.size() > 0) {
        nb::object details_set = DetailsStore().attr("GetDetailsSet")(details_input, ctx);
        for (nb::handle details : details_set) {
            if (nb::isinstance<infer::CCallableDetails>(details)) {
                nb::object defined_scope = details.attr("fDefinedScope");
                if (!AddDerivedFor_(LocOf(defined_scope)))
                    continue;
                nb::object def_scope = details.attr("fPrimarySingle").attr("GetDefinedScope")();
                nb::object hinted = details.attr("GetHintedArgIndexes")();
                bool bound = Contains(bound_scopes, defined_scope);
                nb::object entry = DerivedEntryForDef_(def_scope, hinted, bound, ctx);
                if (!entry.is_none())
                    derived_list.append(entry);
            } else if (nb::isinstance<infer::CClassDetails>(details)) {
                // Calling a class constructs an instance: the targets are its
                // constructor methods.
                nb::object inst = nb::cast(
                    ScopeOf(details.attr("fPrimarySingle").attr("GetDefinedScope")()).InstanceForClass());
                for (const char *suffix : {".__init__", ".__new__"}) {
                    nb::object expr = ExprIn(inst, nb::str(suffix));
                    nb::object methods =
                        ResolvedOf(Engine().attr("ResolveToResult")(expr, nb::arg("ctx") = ctx));
                    if (CtxIncomplete(ctx) && !TakesPartial_(ctx))
                        return nb::none();
                    for (nb::handle single : methods) {
                        if (!Calls(single, "IsDef") || !AddDerivedFor_(single.attr("loc")))
                            continue;
                        method_singles.append(single);
                        nb::object callable_details =
                            DetailsStore().attr("GetCallableDetails")(single, ctx);
                        nb::object hinted = callable_details.is_none()
                                                ? nb::object(nb::none())
                                                : callable_details.attr("GetHintedArgIndexes")();
                        nb::object entry =
                            DerivedEntryForDef_(single.attr("GetDefinedScope")(), hinted,
                                                Calls(single, "IsBound"), ctx);
                        if (!entry.is_none())
                            derived_list.append(entry);
                    }
                }
            }
        }
    }
    // Every record of the call depends on all that its resolves read, whether
    // it was made before or after the others (the classes come in no fixed
    // order, and each resolves its constructors in turn).
    for (nb::handle entry : derived_list)
        MergeSeen_(entry[0], ctx);
    nb::object methods_with_typevars = typevar_method_list;
    if (specialize_generics && method_singles.size() > 0)
        methods_with_typevars = GetTypevarMethodList_(method_singles, ctx);
    return nb::make_tuple(derived_list, methods_with_typevars, GuardTypesForResolved_(resolved, ctx));
}

nb::object CSingleScopeSecondaryScanner::GuardTypesForResolved_(nb::handle resolved,
                                                                nb::handle ctx) {
    nb::set result;
    CLazySubContext hint_ctx(ctx);  // made after the text tests have passed
    nb::object callable_support = Engine().attr("_fCallableSupport");
    for (nb::handle single : resolved) {
        if (!Calls(single, "IsDef"))
            continue;
        nb::object def_info = callable_support.attr("GetUnpackedDefInfo")(single);
        if (def_info.is_none())
            continue;
        nb::object return_hint = def_info.attr("fReturnHint");
        if (return_hint.is_none())
            continue;
        nb::object parts = si::PySplitTrailers(return_hint);
        if (parts.is_none() || nb::len(parts) < 2)
            continue;
        std::string_view last = TextOf(parts[nb::int_(-1)]);
        if (!StartsWith(last, "[") || !EndsWith(last, "]"))
            continue;
        nb::handle hctx = hint_ctx.get();
        // Annotations are read in the scope of the def line.
        nb::object def_line_scope = single.attr("GetDefinedScope")().attr("GetDefLineScope")();
        nb::object head = JoinAllButLast(parts, "");
        nb::object canonical = _fSharedObjects->fTypingSupport.attr("GetSpecialFormCanonicalName")(
            ExprIn(def_line_scope, head), hctx);
        if (!Equal(canonical, nb::str("TypeGuard")) && !Equal(canonical, nb::str("TypeIs")))
            continue;
        std::string_view inner = si::StripSpaces(last.substr(1, last.size() - 2));
        if (inner.empty())
            continue;
        nb::str inner_text(inner.data(), inner.size());
        nb::object hint_singles =
            Engine().attr("ResolveHint")(ExprIn(def_line_scope, inner_text), hctx);
        for (nb::handle guarded : hint_singles) {
            if (Calls(guarded, "IsInstance") || Calls(guarded, "IsLiteral"))
                result.add(guarded);
        }
    }
    hint_ctx.Finish();
    return result;
}

void CSingleScopeSecondaryScanner::AddGuardNarrowing_(nb::handle called_ibytes,
                                                      nb::handle guard_ibytes, nb::handle ctx) {
    nb::object scope = OurScope();
    if (!AddDerivedFor_(LocOf(scope)))
        return;
    nb::tuple called = si::PyUnpackCalled(called_ibytes);
    nb::list arguments = si::PySplitArguments(called[1]);
    if (arguments.size() == 0)
        return;
    std::string_view first_text = si::StripSpaces(TextOf(arguments[0]));
    nb::str first(first_text.data(), first_text.size());
    if (first_text.empty() || !IsPlainDottedName_(first))
        return;
    nb::object derived = DerivedInfo_(nb::cast(ScopeOf(scope).AsExpr()), ctx);
    if (derived.is_none())
        return;
    AddDerivedInfoForName_(derived, false, first, guard_ibytes);
}

bool CSingleScopeSecondaryScanner::IsPlainDottedName_(nb::handle text) {
    nb::object parts = si::PySplitTrailers(text);
    if (parts.is_none() || nb::len(parts) == 0)
        return false;
    return IsPlainDottedNameParts_(parts);
}

bool CSingleScopeSecondaryScanner::IsPlainDottedNameParts_(nb::handle parts) {
    for (nb::handle part : parts) {
        std::string_view text = TextOf(part);
        if (StartsWith(text, "."))
            text.remove_prefix(1);
        if (!si::IsSingleNameToken(text))
            return false;
    }
    return true;
}

}  // namespace pysource

namespace pysource {

bool CSingleScopeSecondaryScanner::AddInfoForSetItem(nb::handle object_text, std::string_view key_text,
                                                     nb::handle value, nb::handle ctx) {
    si::SuffixSplit split = si::SplitLogicalIndexSuffix(TextOf(value));
    if (si::GetInfoBytesKind(split.single) != si::kPlainEquivKind)
        return false;  // not what was assigned (where the name is set, say)
    nb::object resolved = ResolveInThisScope_(object_text + nb::str(".__setitem__"), false, ctx);
    if (resolved.is_none())
        return true;
    if (!HasItems(resolved) || ReachesSeveralCallables(resolved))
        return false;
    nb::object processed = ProcessCalledResolved_(resolved, false, ctx);
    if (processed.is_none())
        return true;
    nb::object derived_list = processed[0];
    if (!HasItems(derived_list))
        return false;
    nb::list arguments;
    arguments.append(ArgInfoBytesAt(si::StripSpaces(key_text), split.logical_index, ctx));
    arguments.append(ArgInfoBytesAt(si::StripSpaces(split.single), split.logical_index, ctx));
    AddInfoForUsedArgs_(derived_list, arguments, ctx);
    return false;
}

}  // namespace pysource

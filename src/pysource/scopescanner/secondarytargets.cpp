// Assignments whose target isn't a plain local name: `o.a = v` records `a`
// in whatever `o` denotes (class, instance or module), `o[k] = v` the
// arguments of a `__setitem__` of the project and the item type of the
// container `o` (through generic specialisation).
#include <string>

#include "pysource/scopescanner/secondaryscanner.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

bool Calls(nb::handle obj, const char *predicate) { return Truth(obj.attr(predicate)()); }

void AddAll(CSingleScopeSecondaryScanner &scanner, nb::handle derived, bool inst,
            nb::handle attribute, nb::handle ibytes_list) {
    if (derived.is_none())
        return;
    for (nb::handle ibytes : ibytes_list)
        scanner.AddDerivedInfoForName_(derived, inst, attribute, ibytes);
}

}  // namespace

bool CSingleScopeSecondaryScanner::ScanForSetAttr_(nb::handle name, nb::handle,
                                                   nb::handle parent_ctx) {
    std::string_view name_text = TextOf(name);
    if (si::PyIsIndexedArgName(name) || name_text.find('.') == std::string_view::npos)
        RaiseAssertion("_ScanForSetAttr needs a dotted name");
    nb::list parts = si::PyNonNestedSplit(name, nb::str("."));
    if (parts.size() == 1)
        return false;
    nb::object object_text = JoinAllButLast(parts, ".");
    nb::object attribute = parts[parts.size() - 1];
    if (!si::IsSingleNameToken(TextOf(attribute)))
        return false;

    CSubContext sub(parent_ctx);
    nb::handle ctx = sub.get();
    nb::object resolved = ResolveInThisScope_(object_text, true, ctx);
    if (resolved.is_none()) {
        sub.Finish();
        return true;
    }
    nb::list targets;
    for (nb::handle single : resolved) {
        bool kind_ok = Truth(single.attr("IsInstance")(false)) || Calls(single, "IsClass") ||
                       Calls(single, "IsModule");
        if (kind_ok && AddDerivedFor_(single.attr("loc")))
            targets.append(single);
    }
    if (targets.size() == 0) {
        sub.Finish();
        return false;
    }
    // The values come from the recorded equivalence of the whole target.
    nb::object value = fPrimaryInfo->type_equivs.attr("get")(name);
    if (value.is_none()) {
        sub.Finish();
        return false;
    }
    nb::list ibytes_list = si::PyNonNestedSplit(value, nb::str(";"));

    for (nb::handle single : targets) {
        nb::object term;
        bool inst = false;
        if (Calls(single, "IsInstance")) {
            term = nb::cast(ScopeOf(single.attr("scope")).InstanceForClass()->AsExpr());
            inst = true;
        } else if (Calls(single, "IsClass")) {
            term = nb::cast(ScopeOf(single.attr("GetDefinedScope")()).AsExpr());
        } else if (Calls(single, "IsModule")) {
            term = nb::cast(ScopeOf(single.attr("scope")).ModuleScope()->ExprIn(nb::str("")));
        } else {
            continue;
        }
        AddAll(*this, DerivedInfo_(term, ctx), inst, attribute, ibytes_list);
        if (Calls(single, "IsClass")) {
            // A class attribute is seen on the class's instances as well.
            nb::object inst_term = nb::cast(
                ScopeOf(single.attr("GetDefinedScope")()).InstanceForClass()->AsExpr());
            AddAll(*this, DerivedInfo_(inst_term, ctx), false, attribute, ibytes_list);
        }
    }
    sub.Finish();
    return false;
}

bool CSingleScopeSecondaryScanner::ScanSubscriptTarget_(nb::handle name,
                                                        nb::handle compound_ibytes,
                                                        nb::handle parent_ctx) {
    if (!EndsWith(TextOf(name), "]"))
        RaiseAssertion("_ScanSubscriptTarget needs a subscripted name");
    nb::object parts = si::PySplitTrailers(name);
    if (parts.is_none() || nb::len(parts) < 2)
        return false;
    nb::object subscript = parts[nb::int_(-1)];
    std::string_view sub_text = TextOf(subscript);
    if (sub_text.size() < 3 || !StartsWith(sub_text, "[") || !EndsWith(sub_text, "]"))
        return false;
    if (!AddDerivedFor_(LocOf(OurScope())))
        return false;
    if (si::NonNestedFind(sub_text, ":", 1, (std::ptrdiff_t) sub_text.size() - 1) >= 0)
        return false;  // a slice

    CSubContext sub(parent_ctx);
    nb::handle ctx = sub.get();
    nb::object object_text = JoinAllButLast(parts, "");
    std::string_view index_text = sub_text.substr(1, sub_text.size() - 2);
    if (AddInfoForSetItem(object_text, index_text, compound_ibytes, ctx)) {
        sub.Finish();
        return true;
    }
    if (!kSpecializeGenericsFromArgs) {
        sub.Finish();
        return false;
    }
    nb::object resolved = ResolveInThisScope_(object_text, true, ctx);
    if (resolved.is_none()) {
        sub.Finish();
        return true;
    }
    nb::object details = DetailsStore().attr("GetDetailsForInstance")(resolved, ctx);
    if (details.is_none()) {
        bool out_of_time = Truth(ctx.attr("OutOfTime")());
        sub.Finish();
        return out_of_time;
    }
    nb::object setitem_resolved =
        ResolveInThisScope_(object_text + nb::str(".__setitem__"), false, ctx);
    if (setitem_resolved.is_none()) {
        sub.Finish();
        return true;
    }
    if (!HasItems(setitem_resolved)) {
        sub.Finish();
        return false;
    }
    nb::object method_list = GetTypevarMethodList_(nb::list(setitem_resolved), ctx);
    if (!HasItems(method_list)) {
        sub.Finish();
        return false;
    }
    nb::object index_ibytes =
        GetInfoBytesForResolvedArgText_(nb::str(index_text.data(), index_text.size()), ctx);
    if (index_ibytes.is_none()) {
        sub.Finish();
        return true;
    }
    // __setitem__ gets the key and the value.
    nb::list arguments;
    arguments.append(index_ibytes);
    arguments.append(compound_ibytes);
    for (nb::handle single_method : setitem_resolved)
        ProcessSingleCalledTypevarMethod_(object_text, details, single_method, arguments, ctx);
    sub.Finish();
    return false;
}

}  // namespace pysource

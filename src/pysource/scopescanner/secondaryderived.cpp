// Derived records: finding or making the record of a target scope within
// its bounds, adding info to it so that it reads right in the target scope,
// saving the records, and the global and nonlocal items, which write into
// records without any resolve.
#include <string>

#include "pysource/scopescanner/secondaryscanner.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

nb::bytes Bytes(std::string_view data) { return nb::bytes(data.data(), data.size()); }

// A plain equivalent naming `name`.
nb::object PlainEquivFor(nb::handle name) {
    return Bytes(si::kPlainEquivSpec) + AsUtf8(name);
}

}  // namespace

void CSingleScopeSecondaryScanner::ExpandInfoPairList(nb::handle item_list) {
    nb::list items = nb::borrow<nb::list>(item_list);
    Py_ssize_t i = 0;
    while (i < (Py_ssize_t) items.size()) {
        nb::object item = items[i];
        nb::object name = item[0];
        nb::object compound = item[1];
        std::string_view text = TextOf(compound);
        if (si::NonNestedFind(text, ";") < 0) {
            ++i;
            continue;
        }
        bool first = true;
        for (std::string_view part : si::NonNestedSplit(text, ";")) {
            nb::object pair = nb::make_tuple(name, Bytes(part));
            if (first)
                items[i] = pair;
            else
                items.attr("insert")(i, pair);
            first = false;
            ++i;
        }
    }
}

bool CSingleScopeSecondaryScanner::AddDerivedFor_(nb::handle loc) {
    return Truth(InfoCache().attr("fLocCache").attr("WantDerivedInfo")(loc));
}

nb::object CSingleScopeSecondaryScanner::DerivedInfo_(nb::handle for_scope_term, nb::handle ctx) {
    nb::object our_scope = OurScope();
    nb::object our_loc = LocOf(our_scope);
    nb::object scope = nb::cast(ScopeOf(for_scope_term.attr("scope")).ChildScope(for_scope_term.attr("name")));
    nb::object unspec = nb::cast(ScopeOf(scope).Unspecialized());
    nb::object loc = LocOf(scope);
    // Callers filter by location; the scope's own file always qualifies.
    if (!AddDerivedFor_(loc) && !Equal(loc, our_loc))
        RaiseAssertion("derived info for a location that doesn't want it");

    nb::object info_cache = InfoCache();
    Py_ssize_t count = nb::cast<Py_ssize_t>(info_cache.attr("CountScopeInfoRecords")(unspec));
    if (count < 0 || count > kMaxDerivedMergedKeys) {
        (*_fLog)("Not adding more derived info for %r", scope);
        if (count < 0)
            (*_fLog)("  no existing info");
        return nb::none();
    }

    if (fDerivedInfoDict.contains(unspec)) {
        nb::object record = fDerivedInfoDict[unspec];
        MergeSeen_(record, ctx);
        return record;
    }

    nb::object disk_mtime = Equal(loc, our_loc) ? nb::cast(fPrimaryInfo->disk_mtime)
                                                : info_cache.attr("GetLocDiskMTime")(loc);
    nb::ref<CScopeInfoKey> key = new CScopeInfoKey(unspec, _fSharedObjects->fDerivedScanName, our_scope);
    nb::ref<CScopeInfo> info = new CScopeInfo(key, nb::bytes("", 0), disk_mtime, fPrimaryInfo->incomplete);
    nb::object record = nb::cast(info);
    MergeSeen_(record, ctx);
    fDerivedInfoDict[unspec] = record;
    return record;
}

void CSingleScopeSecondaryScanner::MergeSeen_(nb::handle record, nb::handle ctx) {
    ctx.attr("AddScopeToScopesSeen")(OurScope());
    nb::object scopes_seen = ctx.attr("GetScopesSeen")();
    bool incomplete = HasItems(ctx.attr("fNeedsScan"));
    nb::object info_cache = InfoCache();
    nb::set seen_locs;
    for (nb::handle seen : scopes_seen) {
        nb::object seen_loc = seen.attr("loc");
        if (Contains(seen_locs, seen_loc))
            continue;
        seen_locs.add(seen_loc);
        double mtime = nb::cast<double>(nb::float_(info_cache.attr("GetLocDiskMTime")(seen_loc)));
        if (!(mtime > 1.0))
            incomplete = true;
    }
    CScopeInfo &info = AsScopeInfo(record);
    info.MergeScopesSeen(scopes_seen, incomplete);
    info.MergeResolvedImports(ctx.attr("GetResolvedImports")());
}

nb::object CSingleScopeSecondaryScanner::DerivedEntryForDef_(nb::handle def_scope, nb::handle hinted,
                                                             bool bound, nb::handle ctx) {
    nb::object record = DerivedInfo_(nb::cast(ScopeOf(def_scope).AsExpr()), ctx);
    if (record.is_none())
        return nb::none();
    if (!bound)
        return nb::make_tuple(record, 0, hinted);
    if (hinted.is_none())
        return nb::make_tuple(record, 1, nb::none());
    // A bound call passes self implicitly: def-side positions move down one.
    nb::object call_side = nb::none();
    for (nb::handle def_idx : hinted) {
        Py_ssize_t call_idx = nb::cast<Py_ssize_t>(def_idx) - 1;
        if (call_idx < 0)
            continue;
        if (call_side.is_none())
            call_side = nb::set();
        nb::borrow<nb::set>(call_side).add(nb::int_(call_idx));
    }
    nb::object frozen = call_side.is_none() ? nb::object(nb::none()) : nb::object(nb::frozenset(call_side));
    return nb::make_tuple(record, 1, frozen);
}

void CSingleScopeSecondaryScanner::AddDerivedInfoForName_(nb::handle derived, bool inst,
                                                          nb::handle name, nb::handle ibytes) {
    if (!PyUnicode_Check(name.ptr()))
        RaiseAssertion("a derived name must be a str");
    CScopeInfo &record = AsScopeInfo(derived);
    nb::dict target;
    if (inst) {
        if (record.inst_type_equivs.is_none())
            record.inst_type_equivs = nb::dict();
        target = nb::borrow<nb::dict>(record.inst_type_equivs);
    } else {
        target = record.type_equivs;
    }
    nb::object prefixed = PrefixInfoBytes_(ibytes, derived);
    if (!target.contains(name)) {
        target[name] = prefixed;
        return;
    }
    nb::object prior = target[name];
    RequireBytes(prior, "derived info bytes");
    target[name] = si::PyJoinInfoBytes(prior, prefixed);
}

nb::object CSingleScopeSecondaryScanner::PrefixInfoBytes_(nb::handle ibytes, nb::handle derived) {
    si::CScope &target = ScopeOf(AsScopeInfo(derived).key->for_scope);
    nb::object our_scope = OurScope();
    si::CScope &ours = ScopeOf(our_scope);
    nb::object loc = nb::none();
    nb::object scope_name = nb::none();
    if (!Equal(target.loc, ours.loc)) {
        loc = ours.loc;
        scope_name = ours.name;
    } else if (!Equal(target.name, ours.name)) {
        scope_name = ours.name;
    }
    if (TextOf(ibytes).find(';') == std::string_view::npos)
        return si::PyPrefixWithLocationAndScope(ibytes, loc, scope_name);
    nb::list parts = si::PyNonNestedSplit(ibytes, nb::str(";"));
    nb::list prefixed;
    for (nb::handle part : parts)
        prefixed.append(si::PyPrefixWithLocationAndScope(part, loc, scope_name));
    return nb::bytes(";", 1).attr("join")(prefixed);
}

void CSingleScopeSecondaryScanner::SaveDerivedInfoDict_() {
    nb::list infos;
    for (nb::handle record : fDerivedInfoDict.values()) {
        CScopeInfo &info = AsScopeInfo(record);
        bool no_inst = info.inst_type_equivs.is_none() || !HasItems(info.inst_type_equivs);
        if (info.type_equivs.size() == 0 && no_inst)
            continue;
        record.attr("FinalizeForSave")();
        infos.append(record);
    }
    nb::object info_cache = InfoCache();
    nb::object scan_name = _fSharedObjects->fDerivedScanName;
    if (infos.size() > 0)
        info_cache.attr("AddScopeInfoListForSingleScan")(fScope, scan_name, infos, true);
    RequireStr(scan_name, "the derived scan name");
    info_cache.attr("FinishedWithScans")(fScope, scan_name);
    info_cache.attr("Trim")();
}

void CSingleScopeSecondaryScanner::AddInfoForGlobal_(nb::handle name, nb::handle ctx) {
    si::CScope &ours = ScopeOf(OurScope());
    if (ours.IsTopLevelModule())
        return;
    nb::object term = nb::cast(ours.ModuleScope()->ExprIn(nb::str("")));
    nb::object derived = DerivedInfo_(term, ctx);
    if (derived.is_none())
        return;
    // The module's name is this scope's name, and what this scope assigns
    // to it reaches the module too.
    AddDerivedInfoForName_(derived, false, name, PlainEquivFor(name));
    nb::object ibytes = fPrimaryInfo->GetInfoBytes(name, nb::none(), false);
    if (ibytes.is_none())
        return;
    for (std::string_view item : si::NonNestedSplit(TextOf(ibytes), ";")) {
        if (StartsWith(item, si::kSetPrefix) || StartsWith(item, si::kSetTypeHintPrefix))
            AddDerivedInfoForName_(derived, false, name, Bytes(item));
    }
}

void CSingleScopeSecondaryScanner::AddInfoForNonlocal_(nb::handle name, nb::handle ctx) {
    si::CScope &ours = ScopeOf(OurScope());
    if (ours.IsTopLevelModule())
        return;
    nb::object scope = ours.Parent();
    nb::object ibytes = nb::none();
    bool found = false;
    // The innermost enclosing function that sets the name owns it.
    while (!found && !scope.is_none() && !ScopeOf(scope).IsTopLevelModule()) {
        nb::object info = InfoCache().attr("GetScopeInfo")(scope);
        if (!info.is_none())
            ibytes = info.attr("GetInfoBytes")(name);
        if (!ibytes.is_none() && si::NonNestedFind(TextOf(ibytes), si::kSetPrefix) >= 0) {
            nb::object derived = DerivedInfo_(nb::cast(ScopeOf(scope).AsExpr()), ctx);
            if (!derived.is_none())
                AddDerivedInfoForName_(derived, false, name, PlainEquivFor(name));
            found = true;
        }
        scope = ScopeOf(scope).Parent();
    }
}

}  // namespace pysource

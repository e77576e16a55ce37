#include "pysource/scopeinfo.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "pysource/namefold.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/symbolinfo.h"
#include "pysource/untracked.h"

namespace pysource {

nb::object FoldedKeyName(nb::handle name) {
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(name.ptr(), &size);
    if (!utf8)
        throw nb::python_error();
    std::optional<std::string> folded = FoldedIdentifier(std::string_view(utf8, (size_t) size));
    if (!folded)
        return nb::borrow(name);
    return nb::str(folded->data(), folded->size());
}

// ---------------------------------------------------------------------------
// CScopeInfoKey

namespace {

Py_hash_t HashOf(nb::handle obj) {
    Py_hash_t h = PyObject_Hash(obj.ptr());
    if (h == -1)
        throw nb::python_error();
    return h;
}

bool SameValue(nb::handle a, nb::handle b) {
    if (a.ptr() == b.ptr())
        return true;
    int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ);
    if (r < 0)
        throw nb::python_error();
    return r == 1;
}

}  // namespace

CScopeInfoKey::CScopeInfoKey(nb::handle for_scope_, nb::handle scan_name_,
                             nb::handle scanned_scope_) {
    if (!PyUnicode_Check(scan_name_.ptr()))
        throw nb::type_error("CScopeInfoKey: the scan name must be str");
    fForView = ViewScope(for_scope_);
    fScannedView = ViewScope(scanned_scope_);
    for_scope = nb::borrow(for_scope_);
    scan_name = nb::borrow(scan_name_);
    scanned_scope = nb::borrow(scanned_scope_);
    fScanName = nb::cast<std::string>(scan_name);
    Py_uhash_t h = (Py_uhash_t) HashOf(for_scope);
    h = h * 1000003u ^ (Py_uhash_t) HashOf(scan_name);
    h = h * 1000003u ^ (Py_uhash_t) HashOf(scanned_scope);
    fHash = (Py_hash_t) h == -1 ? -2 : (Py_hash_t) h;
}

bool CScopeInfoKey::Equals(const CScopeInfoKey &other) const {
    if (this == &other)
        return true;
    return fHash == other.fHash && fScanName == other.fScanName &&
           SameValue(for_scope, other.for_scope) && SameValue(scanned_scope, other.scanned_scope);
}

nb::object CScopeInfoKey::Repr() const {
    return nb::str("CScopeInfoKey({!r}, {!r}, {!r})").format(for_scope, scan_name, scanned_scope);
}

// ---------------------------------------------------------------------------
// CScopeInfo

namespace {

// Checks that `map` is a dict of str -> bytes; `what` names it in errors.
void CheckNameMap(nb::handle map, const char *what) {
    if (!PyDict_Check(map.ptr()))
        throw nb::type_error((std::string(what) + " must be a dict").c_str());
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(map.ptr(), &pos, &name, &value)) {
        if (!PyUnicode_Check(name))
            throw nb::type_error((std::string(what) + ": a name must be str").c_str());
        if (!PyBytes_Check(value))
            CScopeInfo::ThrowNotBytes(name, value);
    }
}

bool MapIsEmpty(nb::handle map) {
    return map.is_none() || !map.is_valid() || (PyDict_Check(map.ptr()) && PyDict_GET_SIZE(map.ptr()) == 0);
}

// Two optional maps or sets, with None equal to empty.
bool SameOptionalContent(nb::handle a, nb::handle b) {
    bool a_empty = !a.is_valid() || a.is_none() || PyObject_Length(a.ptr()) == 0;
    bool b_empty = !b.is_valid() || b.is_none() || PyObject_Length(b.ptr()) == 0;
    if (PyErr_Occurred())
        throw nb::python_error();
    if (a_empty || b_empty)
        return a_empty == b_empty;
    return SameValue(a, b);
}

// Adds the items of `items` (an iterable, or None) into the set held in
// `field`, making a set first if the field holds None or a frozenset.
void MergeIntoSet(nb::object &field, nb::handle items) {
    if (items.is_none())
        return;
    if (field.is_none() || !PySet_CheckExact(field.ptr())) {
        PyObject *fresh = field.is_none() ? PySet_New(nullptr) : PySet_New(field.ptr());
        if (!fresh)
            throw nb::python_error();
        field = nb::steal(fresh);
    }
    for (nb::handle item : items)
        if (PySet_Add(field.ptr(), item.ptr()) < 0)
            throw nb::python_error();
}

nb::object FrozenOrEmpty(nb::handle items) {
    if (items.is_none() || PyObject_Length(items.ptr()) == 0) {
        if (PyErr_Occurred())
            throw nb::python_error();
        return nb::borrow(symbolinfo::EmptyFrozenset());
    }
    if (PyFrozenSet_CheckExact(items.ptr()))
        return nb::borrow(items);
    return AtomicFrozenSet(items);
}

}  // namespace

void CScopeInfo::ThrowNotBytes(PyObject *name, PyObject *value) {
    nb::str msg = nb::str("info for name {!r} must be bytes, not {}")
                      .format(nb::handle(name), nb::handle((PyObject *) Py_TYPE(value)).attr("__name__"));
    throw nb::type_error(msg.c_str());
}

CScopeInfo::CScopeInfo(nb::ref<CScopeInfoKey> key_, nb::handle ibytes_, nb::handle disk_mtime_,
                       bool incomplete_, bool not_found_)
    : key(std::move(key_)), incomplete(incomplete_), not_found(not_found_) {
    if (!key)
        throw nb::type_error("CScopeInfo: the key must be a CScopeInfoKey");
    if (!PyBytes_Check(ibytes_.ptr()))
        throw nb::type_error("CScopeInfo: the info bytes must be bytes");
    ibytes = nb::borrow(ibytes_);
    SetDiskMTime(disk_mtime_);
    inst_type_equivs = nb::none();
    scopes_seen = nb::none();
    resolved_imports = nb::none();
    domains = nb::none();
}

CScopeInfo::~CScopeInfo() = default;

void CScopeInfo::SetTypeEquivs(nb::handle value) {
    if (!PyDict_Check(value.ptr()))
        throw nb::type_error("type_equivs must be a dict of str to bytes");
    type_equivs = nb::borrow<nb::dict>(value);
}

void CScopeInfo::SetInstTypeEquivs(nb::handle value) {
    if (!value.is_none() && !PyDict_Check(value.ptr()))
        throw nb::type_error("inst_type_equivs must be a dict of str to bytes, or None");
    inst_type_equivs = nb::borrow(value);
}

void CScopeInfo::SetDomains(nb::handle value) {
    if (!value.is_none() && !PyDict_Check(value.ptr()))
        throw nb::type_error("_domains must be a dict of str to bytes, or None");
    domains = nb::borrow(value);
}

void CScopeInfo::SetDiskMTime(nb::handle value) {
    if (value.is_none()) {
        disk_mtime = -1.0;
        return;
    }
    double t = PyFloat_AsDouble(value.ptr());
    if (t == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        throw nb::type_error("disk_mtime must be a number or None");
    }
    disk_mtime = t;
}

void CScopeInfo::FinishedBuilding() {
    CheckNameMap(type_equivs, "type_equivs");
    if (!inst_type_equivs.is_none())
        CheckNameMap(inst_type_equivs, "inst_type_equivs");
    if (!domains.is_none())
        CheckNameMap(domains, "_domains");
    for (nb::handle map : {nb::handle(type_equivs), nb::handle(inst_type_equivs), nb::handle(domains)})
        UntrackAtomicMap(map);
    finished = true;
}

void CScopeInfo::MergeScopesSeen(nb::handle scopes, bool incomplete_flag) {
    MergeIntoSet(scopes_seen, scopes);
    if (incomplete_flag)
        incomplete = true;
}

void CScopeInfo::MergeResolvedImports(nb::handle resolved) { MergeIntoSet(resolved_imports, resolved); }

namespace {

// A compound without repeats of a single, first occurrences kept in order:
// a record built by a scan that read an item twice (a retried item) says
// each thing once, as the same scan in one go would.
void DropRepeatedSingles(nb::handle map) {
    if (map.is_none())
        return;
    nb::dict values = nb::borrow<nb::dict>(map);
    for (auto [name, value] : values) {
        if (!PyBytes_Check(value.ptr()))
            continue;
        std::string_view text(PyBytes_AS_STRING(value.ptr()), (size_t) PyBytes_GET_SIZE(value.ptr()));
        std::vector<std::string_view> singles = symbolinfo::NonNestedSplit(text, ";");
        std::vector<std::string_view> kept;
        for (std::string_view single : singles)
            if (std::find(kept.begin(), kept.end(), single) == kept.end())
                kept.push_back(single);
        if (kept.size() == singles.size())
            continue;
        std::string joined;
        for (std::string_view single : kept) {
            if (!joined.empty())
                joined.push_back(';');
            joined.append(single);
        }
        values[name] = symbolinfo::ToBytes(joined);
    }
}

}  // namespace

void CScopeInfo::FinalizeForSave() {
    FinishedBuilding();
    DropRepeatedSingles(type_equivs);
    DropRepeatedSingles(inst_type_equivs);
    if (MapIsEmpty(inst_type_equivs))
        inst_type_equivs = nb::none();
    scopes_seen = FrozenOrEmpty(scopes_seen);
    resolved_imports = FrozenOrEmpty(resolved_imports);
}

bool CScopeInfo::SameContent(const CScopeInfo &other) const {
    return incomplete == other.incomplete && not_found == other.not_found &&
           SameValue(ibytes, other.ibytes) && SameValue(type_equivs, other.type_equivs) &&
           SameOptionalContent(inst_type_equivs, other.inst_type_equivs) &&
           SameOptionalContent(domains, other.domains) &&
           SameOptionalContent(scopes_seen, other.scopes_seen) &&
           SameOptionalContent(resolved_imports, other.resolved_imports);
}

CScopeInfo &AsScopeInfo(nb::handle obj) {
    CScopeInfo *info = nullptr;
    if (!obj.is_valid() || obj.is_none() || !nb::try_cast<CScopeInfo *>(obj, info) || !info)
        throw nb::type_error("expected a CScopeInfo");
    return *info;
}

// ---------------------------------------------------------------------------
// Merging

nb::object JoinCompoundInfo(nb::handle existing, nb::handle addition) {
    if (!PyBytes_Check(existing.ptr()) || !PyBytes_Check(addition.ptr()))
        throw nb::type_error("info must be bytes");
    std::string_view have(PyBytes_AS_STRING(existing.ptr()), (size_t) PyBytes_GET_SIZE(existing.ptr()));
    std::string_view add(PyBytes_AS_STRING(addition.ptr()), (size_t) PyBytes_GET_SIZE(addition.ptr()));
    if (add.empty() || have == add)
        return nb::borrow(existing);
    if (have.empty())
        return nb::borrow(addition);
    std::vector<std::string_view> known = symbolinfo::NonNestedSplit(have, ";");
    std::string joined(have);
    bool grew = false;
    for (std::string_view single : symbolinfo::NonNestedSplit(add, ";")) {
        if (std::find(known.begin(), known.end(), single) != known.end())
            continue;
        joined = symbolinfo::JoinInfoBytes(joined, single);
        grew = true;
    }
    if (!grew)
        return nb::borrow(existing);
    return symbolinfo::ToBytes(joined);
}

namespace {

// `ibytes`, written in the terms of `scope`, marked so that it reads the same
// in another scope of the same file: each single gets the scope mark.
nb::object ReadInScope(nb::handle ibytes, const ScopeView &scope) {
    return symbolinfo::PyPrefixWithLocationAndScope(ibytes, nb::none(), scope.name);
}

std::string_view BytesView(nb::handle value) {
    if (!PyBytes_Check(value.ptr()))
        throw nb::type_error("info must be bytes");
    return {PyBytes_AS_STRING(value.ptr()), (size_t) PyBytes_GET_SIZE(value.ptr())};
}

// Joins additions into one compound exactly as a JoinCompoundInfo call per
// addition would, but keeps the compound's singles in a set instead of
// splitting the growing compound again for every addition: the info of a
// name that N methods set grows in O(N), not O(N^2).
class CCompoundJoiner {
public:
    explicit CCompoundJoiner(nb::handle first) : fValue(nb::borrow(first)) { BytesView(first); }

    void Add(nb::handle addition) {
        std::string_view have = Current(), add = BytesView(addition);
        if (add.empty() || have == add)
            return;
        if (have.empty()) {
            fValue = nb::borrow(addition);
            fJoined.reset();
            fKnownBuilt = false;
            return;
        }
        if (!fKnownBuilt) {
            fKnown.clear();
            for (std::string_view single : symbolinfo::NonNestedSplit(have, ";"))
                fKnown.emplace(single);
            fKnownBuilt = true;
        }
        // Singles are looked up among those known before this addition, as
        // the single join does.
        std::vector<std::string_view> fresh;
        for (std::string_view single : symbolinfo::NonNestedSplit(add, ";"))
            if (!fKnown.count(std::string(single)))
                fresh.push_back(single);
        if (fresh.empty())
            return;
        if (!fJoined)
            fJoined.emplace(have);
        for (std::string_view single : fresh) {
            if (single.empty())
                continue;
            fJoined->append(1, ';').append(single);
            // An unbalanced single would change how the whole splits.
            if (!symbolinfo::IsBalancedText(single))
                fKnownBuilt = false;
        }
        if (fKnownBuilt)
            for (std::string_view single : fresh)
                fKnown.emplace(single);
    }

    nb::object Result() const { return fJoined ? nb::object(symbolinfo::ToBytes(*fJoined)) : fValue; }

private:
    std::string_view Current() const { return fJoined ? std::string_view(*fJoined) : BytesView(fValue); }

    nb::object fValue;                   // the compound as given, until something is appended
    std::optional<std::string> fJoined;  // the compound once something is appended
    std::unordered_set<std::string> fKnown;
    bool fKnownBuilt = false;
};

// Folds the instance attributes of each record of each list of `lists` into
// `target`, in order.
void FoldInstanceAttributes(CScopeInfo &target, std::initializer_list<nb::handle> lists) {
    // Names in the order they first reach the target, each with its joiner.
    nb::dict slot_of;
    std::vector<std::pair<nb::object, CCompoundJoiner>> joined;
    for (nb::handle records : lists) {
        if (records.is_none())
            continue;
        for (nb::handle item : records) {
            CScopeInfo &record = AsScopeInfo(item);
            if (record.incomplete)
                target.incomplete = true;
            if (MapIsEmpty(record.inst_type_equivs))
                continue;
            PyObject *name, *value;
            Py_ssize_t pos = 0;
            while (PyDict_Next(record.inst_type_equivs.ptr(), &pos, &name, &value)) {
                if (!PyBytes_Check(value))
                    CScopeInfo::ThrowNotBytes(name, value);
                nb::object readable = ReadInScope(nb::handle(value), record.key->fForView);
                PyObject *slot = PyDict_GetItemWithError(slot_of.ptr(), name);
                if (!slot && PyErr_Occurred())
                    throw nb::python_error();
                if (slot) {
                    joined[PyLong_AsSize_t(slot)].second.Add(readable);
                    continue;
                }
                PyObject *prior = PyDict_GetItemWithError(target.type_equivs.ptr(), name);
                if (!prior && PyErr_Occurred())
                    throw nb::python_error();
                slot_of[name] = nb::int_(joined.size());
                joined.emplace_back(nb::borrow(name), CCompoundJoiner(prior ? prior : readable.ptr()));
                if (prior)
                    joined.back().second.Add(readable);
            }
        }
    }
    for (auto &[name, joiner] : joined)
        if (PyDict_SetItem(target.type_equivs.ptr(), name.ptr(), joiner.Result().ptr()) < 0)
            throw nb::python_error();
}

}  // namespace

nb::object MergeScopeInfoSeq(nb::handle info, nb::handle first, nb::handle second) {
    FoldInstanceAttributes(AsScopeInfo(info), {first, second});
    return nb::borrow(info);
}

}  // namespace pysource

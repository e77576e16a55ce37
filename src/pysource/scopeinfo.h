// Records of scans: `CScopeInfoKey` names one scan's record of one scope,
// `CScopeInfo` is that record, and `MergeScopeInfoSeq` folds the instance
// attributes of several records into one.  The store of records is
// `CInfoCache` (infocache.h).
//
// A record's name maps (`type_equivs`, `inst_type_equivs`) are Python dicts
// of str -> bytes held as handles: the scanners write straight into them and
// the hot readers look names up with the dict C API, never through Python
// attribute lookups.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string>
#include <string_view>

#include "pysource/pytext.h"
#include "pysource/scoperef.h"

namespace nb = nanobind;

namespace pysource {

// What CInfoCache.AddScopeInfo did with a record.  Python sees the module
// constants kAddDiscarded, kAddUnchanged, kAddChanged (small ints, so that
// callers may compare them by identity).
enum class AddResult : int { kDiscarded = 0, kUnchanged = 1, kChanged = 2 };
inline nb::object AddResultObject(AddResult r) { return nb::int_((int) r); }

class CScopeInfoKey : public nb::intrusive_base {
public:
    // (for_scope, scan_name, scanned_scope); both scopes must be scopes and
    // the scan name text.
    CScopeInfoKey(nb::handle for_scope, nb::handle scan_name, nb::handle scanned_scope);

    nb::object for_scope;      // the scope the record describes
    nb::object scan_name;      // str
    nb::object scanned_scope;  // the scope whose scan made the record

    // Parts read by the store without attribute lookups.
    ScopeView fForView;
    ScopeView fScannedView;
    std::string fScanName;

    Py_hash_t Hash() const { return fHash; }
    bool Equals(const CScopeInfoKey &other) const;
    nb::object Repr() const;

private:
    Py_hash_t fHash;
};

// The form of a non-ASCII name as the keys of a record hold it (NFKC, as
// Python reads identifiers).
nb::object FoldedKeyName(nb::handle name);

class CScopeInfo : public nb::intrusive_base {
public:
    // `ibytes`: what the scope itself is (bytes).  `disk_mtime`: a number,
    // or None for no known time (stored as -1.0).  `not_found`: the record of
    // a scope that could not be found; the cache never stores such a record.
    CScopeInfo(nb::ref<CScopeInfoKey> key, nb::handle ibytes, nb::handle disk_mtime,
               bool incomplete, bool not_found = false);
    ~CScopeInfo() override;

    // Fields in declared order.
    nb::ref<CScopeInfoKey> key;
    nb::object ibytes;              // bytes
    double disk_mtime = -1.0;
    nb::dict type_equivs;           // str -> bytes
    nb::object inst_type_equivs;    // dict str -> bytes, or None
    bool incomplete = false;
    nb::object scopes_seen;         // set or frozenset of scopes, or None
    nb::object resolved_imports;    // set or frozenset of scopes, or None
    nb::object domains;             // `_domains`: dict str -> bytes, or None
    bool not_found = false;
    bool finished = false;          // FinishedBuilding or FinalizeForSave ran

    // The primary scanner's end of building: the maps are checked (str keys,
    // bytes values) so that nothing malformed reaches the store.
    void FinishedBuilding();

    // `type_equivs` (or `inst_type_equivs` with `inst`) of `name`, which may
    // be str or bytes; `dflt` when absent.  A value that is not bytes is a
    // TypeError.
    inline nb::object GetInfoBytes(nb::handle name, nb::handle dflt, bool inst) const;
    // The same look-up for a str name, as a borrowed reference or nullptr.
    inline PyObject *LookupInfoBytes(PyObject *name_str, bool inst) const;

    // Adds `scopes` to scopes_seen; `incomplete_flag` true marks the record
    // incomplete (one of the scopes was not available in a valid state).
    void MergeScopesSeen(nb::handle scopes, bool incomplete_flag);
    void MergeResolvedImports(nb::handle resolved);

    // Readies a record for the store: maps checked, an empty instance map
    // dropped, dependency sets frozen.
    virtual void FinalizeForSave();

    // Same content as `other`, the disk time aside.
    bool SameContent(const CScopeInfo &other) const;

    void SetTypeEquivs(nb::handle value);
    void SetInstTypeEquivs(nb::handle value);
    void SetDiskMTime(nb::handle value);
    void SetDomains(nb::handle value);

    [[noreturn]] static void ThrowNotBytes(PyObject *name, PyObject *value);
};

inline PyObject *CScopeInfo::LookupInfoBytes(PyObject *name_str, bool inst) const {
    PyObject *map = inst ? inst_type_equivs.ptr() : type_equivs.ptr();
    if (!map || map == Py_None)
        return nullptr;
    PyObject *value = PyDict_GetItemWithError(map, name_str);  // borrowed
    if (!value) {
        if (PyErr_Occurred())
            throw nb::python_error();
        return nullptr;
    }
    if (!PyBytes_Check(value))
        ThrowNotBytes(name_str, value);
    return value;
}

inline nb::object CScopeInfo::GetInfoBytes(nb::handle name, nb::handle dflt, bool inst) const {
    nb::object key_text =
        PyUnicode_CheckExact(name.ptr()) ? nb::borrow(name) : nb::object(symbolinfo::AsStr(name, "name"));
    if (!PyUnicode_IS_ASCII(key_text.ptr()))
        key_text = FoldedKeyName(key_text);
    PyObject *value = LookupInfoBytes(key_text.ptr(), inst);
    return value ? nb::borrow(value) : nb::borrow(dflt);
}

// Folds into `info.type_equivs` the instance attributes (`inst_type_equivs`)
// of every record of `first` and then of `second` (iterables of CScopeInfo,
// or None), each record's values marked to be read in that record's scope.
// The result is `info`; it is incomplete when any record was.
nb::object MergeScopeInfoSeq(nb::handle info, nb::handle first, nb::handle second);

// The C++ form of a record held by Python; a TypeError for anything else.
CScopeInfo &AsScopeInfo(nb::handle obj);

// Joins two compound info strings, leaving out the singles of `addition`
// that `existing` already holds (so merging the same record twice, or the
// same fact from two scans, repeats nothing).
nb::object JoinCompoundInfo(nb::handle existing, nb::handle addition);

}  // namespace pysource

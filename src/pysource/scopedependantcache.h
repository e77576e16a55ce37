// CScopeDependantCache: a bounded, least-recently-used map of values that
// depend on scopes.  An entry is stored with the scopes it depends on; when
// the info cache reports a scope changed, every entry that depends on it is
// dropped, wherever it is.  An entry with no dependencies stays until the
// bound pushes it out.
#pragma once

#include <nanobind/nanobind.h>

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "basekit/destroyable.h"

namespace nb = nanobind;

namespace pysource {

// A Python object as a key of a C++ hash map: its hash, taken once, and
// Python equality.
struct PyKey {
    nb::object obj;
    Py_hash_t hash;
    explicit PyKey(nb::handle o);
    bool operator==(const PyKey &other) const;
};
struct PyKeyHash {
    std::size_t operator()(const PyKey &k) const { return (std::size_t) k.hash; }
};

class CScopeDependantCache : public basekit::CDestroyable {
public:
    CScopeDependantCache(std::string name, Py_ssize_t size);
    ~CScopeDependantCache() override;

    // (value, True) for a hit, which becomes the most recently used entry;
    // (None, False) for a miss.
    nb::tuple LookupInCache(nb::handle key);
    // Stores `value` under `key`, depending on each scope of `deps` (an
    // iterable, possibly empty).  Replaces an entry of the same key.
    void AddToCache(nb::handle key, nb::handle value, nb::handle deps);
    // Drops every entry that depends on `scope`; the number dropped.
    Py_ssize_t InvalidateScope(nb::handle scope);
    // Drops the entry stored under `key`; false when there is none.
    bool RemoveFromCache(nb::handle key);
    void Clear();
    Py_ssize_t Count() const { return (Py_ssize_t) fIndex.size(); }
    bool Contains(nb::handle key) const;
    void _destroy_impl() override;

    // Every live cache drops the entries that depend on `scope`.
    static void InvalidateScopeEverywhere(nb::handle scope);
    // True when some live cache holds an entry that depends on a scope.
    static bool AnyDependants();

    std::string fName;
    Py_ssize_t fSize;

private:
    struct Entry {
        PyKey key;
        nb::object value;
        std::vector<PyKey> deps;
    };
    using EntryList = std::list<Entry>;

    void Remove(EntryList::iterator it);

    EntryList fEntries;  // most recently used first
    std::unordered_map<PyKey, EntryList::iterator, PyKeyHash> fIndex;
    std::unordered_map<PyKey, std::unordered_set<const Entry *>, PyKeyHash> fDependants;
};

}  // namespace pysource

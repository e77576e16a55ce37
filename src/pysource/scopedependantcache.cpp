#include "pysource/scopedependantcache.h"

#include <algorithm>

namespace pysource {

namespace {

// Every live cache, so that a changed scope reaches all of them.
std::vector<CScopeDependantCache *> &LiveCaches() {
    static auto *caches = new std::vector<CScopeDependantCache *>();
    return *caches;
}

}  // namespace

PyKey::PyKey(nb::handle o) : obj(nb::borrow(o)) {
    hash = PyObject_Hash(o.ptr());
    if (hash == -1)
        throw nb::python_error();
}

bool PyKey::operator==(const PyKey &other) const {
    if (obj.ptr() == other.obj.ptr())
        return true;
    if (hash != other.hash)
        return false;
    int r = PyObject_RichCompareBool(obj.ptr(), other.obj.ptr(), Py_EQ);
    if (r < 0)
        throw nb::python_error();
    return r == 1;
}

CScopeDependantCache::CScopeDependantCache(std::string name, Py_ssize_t size)
    : basekit::CDestroyable(nb::none()), fName(std::move(name)), fSize(size) {
    if (size < 1)
        throw nb::value_error("CScopeDependantCache: the size must be at least 1");
    LiveCaches().push_back(this);
}

CScopeDependantCache::~CScopeDependantCache() {
    auto &caches = LiveCaches();
    caches.erase(std::remove(caches.begin(), caches.end(), this), caches.end());
}

void CScopeDependantCache::InvalidateScopeEverywhere(nb::handle scope) {
    auto &caches = LiveCaches();
    if (caches.empty())
        return;
    PyKey key(scope);
    for (CScopeDependantCache *cache : std::vector<CScopeDependantCache *>(caches))
        if (cache->fDependants.count(key))
            cache->InvalidateScope(scope);
}

bool CScopeDependantCache::AnyDependants() {
    for (const CScopeDependantCache *cache : LiveCaches())
        if (!cache->fDependants.empty())
            return true;
    return false;
}

nb::tuple CScopeDependantCache::LookupInCache(nb::handle key) {
    auto it = fIndex.find(PyKey(key));
    if (it == fIndex.end())
        return nb::make_tuple(nb::none(), false);
    fEntries.splice(fEntries.begin(), fEntries, it->second);
    return nb::make_tuple(it->second->value, true);
}

bool CScopeDependantCache::Contains(nb::handle key) const { return fIndex.count(PyKey(key)) != 0; }

void CScopeDependantCache::Remove(EntryList::iterator it) {
    for (const PyKey &dep : it->deps) {
        auto dep_it = fDependants.find(dep);
        if (dep_it == fDependants.end())
            continue;
        dep_it->second.erase(&*it);
        if (dep_it->second.empty())
            fDependants.erase(dep_it);
    }
    fIndex.erase(it->key);
    fEntries.erase(it);
}

void CScopeDependantCache::AddToCache(nb::handle key, nb::handle value, nb::handle deps) {
    if (IsDestroyed())
        throw std::runtime_error("CScopeDependantCache: the cache is destroyed");
    PyKey k(key);
    std::vector<PyKey> dep_keys;
    if (!deps.is_none())
        for (nb::handle dep : deps)
            dep_keys.emplace_back(dep);
    auto old = fIndex.find(k);
    if (old != fIndex.end())
        Remove(old->second);
    fEntries.push_front(Entry{k, nb::borrow(value), std::move(dep_keys)});
    auto it = fEntries.begin();
    fIndex.emplace(k, it);
    for (const PyKey &dep : it->deps)
        fDependants[dep].insert(&*it);
    while ((Py_ssize_t) fIndex.size() > fSize)
        Remove(std::prev(fEntries.end()));
}

Py_ssize_t CScopeDependantCache::InvalidateScope(nb::handle scope) {
    auto dep_it = fDependants.find(PyKey(scope));
    if (dep_it == fDependants.end())
        return 0;
    std::vector<PyKey> keys;
    for (const Entry *entry : dep_it->second)
        keys.push_back(entry->key);
    for (const PyKey &k : keys) {
        auto it = fIndex.find(k);
        if (it != fIndex.end())
            Remove(it->second);
    }
    return (Py_ssize_t) keys.size();
}

bool CScopeDependantCache::RemoveFromCache(nb::handle key) {
    auto it = fIndex.find(PyKey(key));
    if (it == fIndex.end())
        return false;
    Remove(it->second);
    return true;
}

void CScopeDependantCache::Clear() {
    // Release the Python values after the containers are consistent.
    EntryList gone;
    gone.swap(fEntries);
    fIndex.clear();
    fDependants.clear();
}

void CScopeDependantCache::_destroy_impl() { Clear(); }

}  // namespace pysource

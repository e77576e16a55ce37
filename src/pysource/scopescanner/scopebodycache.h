// The cache of scope bodies, and how a scope's full dotted name is made from
// its defining logical.
//
// A single-scope scan (what an editor asks for while the user types) needs
// only the body of one scope, and finding it means walking the file's
// logicals.  CScopeBodyCache keeps the bodies of recently used scopes in a
// scope-dependant cache, so that a body goes away when its scope changes.
#pragma once

#include <nanobind/nanobind.h>

#include "basekit/destroyable.h"
#include "pysource/logicalline.h"

namespace nb = nanobind;

namespace pysource {

// The full dotted name of the scope that `logical` defines: its enclosing
// scope's name and its own name joined by "." (no dot at module level).
nb::str GetFullNameForScopeDef(const CLogicalLine &logical);

// The normalised full names of the scopes whose text holds one of
// `logicals`: the scope each lies in and the scope each def or class defines.
nb::set ScopeNamesOfLogicals(nb::handle logicals);

class CScopeBodyCache : public basekit::CDestroyable {
public:
    // Bound on the number of bodies kept.
    static constexpr Py_ssize_t kCacheSize = 500;

    CScopeBodyCache();

    // The body of `scope` (a list of logicals, comments included unless
    // `include_comments` is false), from the cache or, unless `create` is
    // false, found in the file's open analysis.  None when the scope can't be
    // found, or on a miss with `create` false.  With comments, the list is
    // the one the cache holds: callers must not change it.
    virtual nb::object GetBody(nb::handle scope, bool include_comments, bool create);
    virtual void SetScopeBodyInCache(nb::handle scope, nb::handle body);
    // Finds the body of `scope` in its file; None when the file, its
    // content or the scope isn't there.  Stores nothing.
    virtual nb::object FindScope_(nb::handle scope);
    // A new list of the logicals of `logical_list` that aren't comments.
    virtual nb::list StripComments_(nb::handle logical_list);

    // A buffer of `loc` changed: `removed` logicals went, `added` came.  The
    // bodies of the scopes that held or hold them are dropped, and so is
    // every entry of a scope-dependant cache that depends on those scopes.
    void DropChangedScopes(nb::handle loc, nb::handle removed, nb::handle added);

    void _destroy_impl() override;

    // The scope-dependant cache of pysource.scopeinfo that holds the bodies;
    // reached through its Python interface.
    nb::object _fScopeDependantCache;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();
};

}  // namespace pysource

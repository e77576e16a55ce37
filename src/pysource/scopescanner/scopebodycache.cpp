#include "pysource/scopescanner/scopebodycache.h"

#include "pysource/scope.h"
#include "pysource/scopedependantcache.h"
#include "pysource/symbolinfo.h"
#include "pysource/scopescanner/scopebodyfinder.h"

namespace pysource {

nb::str GetFullNameForScopeDef(const CLogicalLine &logical) {
    nb::handle scope_name = logical.fScopeName;
    nb::handle local_name = logical.fLocalScopeName;
    if (!local_name.is_valid() || !PyUnicode_Check(local_name.ptr()))
        throw nb::type_error("this logical defines no named scope (fLocalScopeName is not a str)");
    if (!scope_name.is_valid() || scope_name.is_none())
        return nb::borrow<nb::str>(local_name);
    if (!PyUnicode_Check(scope_name.ptr()))
        throw nb::type_error("the logical's fScopeName is not a str");
    if (PyUnicode_GET_LENGTH(scope_name.ptr()) == 0)
        return nb::borrow<nb::str>(local_name);
    nb::object dotted = nb::steal(PyUnicode_Concat(scope_name.ptr(), nb::str(".").ptr()));
    if (!dotted.is_valid())
        throw nb::python_error();
    PyObject *full = PyUnicode_Concat(dotted.ptr(), local_name.ptr());
    if (!full)
        throw nb::python_error();
    return nb::steal<nb::str>(full);
}

nb::set ScopeNamesOfLogicals(nb::handle logicals) {
    nb::set names;
    for (nb::handle item : logicals) {
        const CLogicalLine *logical = AsLogical(item, "a CLogicalLine");
        if (PyUnicode_Check(logical->fScopeName.ptr()))
            names.add(logical->fScopeName);
        if (IsScopeDef(*logical))
            names.add(symbolinfo::PyNormalizeScopeName(GetFullNameForScopeDef(*logical)));
    }
    return names;
}

namespace {

// A body depends on nothing when its file doesn't change under us and the
// scope has been primary-scanned; any other body depends on its own scope.
bool BodyIsStable(nb::handle scope) {
    symbolinfo::CScope *own = nullptr;
    if (nb::try_cast<symbolinfo::CScope *>(scope, own) && own)
        return own->fStableLoc && own->fPrimaryScanned;
    return IsTrue(scope.attr("fStableLoc")) && IsTrue(scope.attr("fPrimaryScanned"));
}

}  // namespace

CScopeBodyCache::CScopeBodyCache() : basekit::CDestroyable(nb::none()) {
    nb::object cache_type = nb::module_::import_("pysource.scopeinfo").attr("CScopeDependantCache");
    _fScopeDependantCache = cache_type("_fScopeDependantCache", kCacheSize);
}

nb::object CScopeBodyCache::GetBody(nb::handle scope, bool include_comments, bool create) {
    nb::object found = _fScopeDependantCache.attr("LookupInCache")(scope);
    nb::object body = found[0];
    if (body.is_none()) {
        if (!create)
            return nb::none();
        body = FindScope_(scope);
        if (body.is_none())
            return nb::none();
        SetScopeBodyInCache(scope, body);
    }
    if (include_comments)
        return body;
    return StripComments_(body);
}

void CScopeBodyCache::SetScopeBodyInCache(nb::handle scope, nb::handle body) {
    nb::list deps;
    if (!BodyIsStable(scope))
        deps.append(scope);
    _fScopeDependantCache.attr("AddToCache")(scope, body, deps);
}

nb::object CScopeBodyCache::FindScope_(nb::handle scope) {
    nb::object ana = nb::module_::import_("pysource.utils").attr("GetAnalysisForLoc")(scope.attr("loc"));
    if (ana.is_none())
        return nb::none();
    // A remote file whose content hasn't arrived yet can't be split.
    if (!IsTrue(ana.attr("UpdateFromCache")()))
        return nb::none();
    nb::object logical_cache = ana.attr("fLogicalCache");
    nb::object logical_list = logical_cache.attr("_fLogicalList");
    if (!PyList_Check(logical_list.ptr()))
        throw nb::type_error("the logical cache's _fLogicalList must be a list");

    nb::object name = scope.attr("name");
    Py_ssize_t scope_def_i = -1;
    if (!nb::str(kModuleScopeName.data(), kModuleScopeName.size()).equal(name)) {
        nb::object scope_def = ana.attr("_GetScopeDefForFullName")(name);
        if (scope_def.is_none())
            return nb::none();
        scope_def_i = nb::cast<Py_ssize_t>(
            logical_cache.attr("_IndexForLineno")(scope_def.attr("fFirstLine")));
        // When the analysis and the logicals disagree, a wrong body would be
        // worse than none.
        Py_ssize_t count = PyList_GET_SIZE(logical_list.ptr());
        if (scope_def_i < 0 || scope_def_i >= count)
            return nb::none();
        int same = PyObject_RichCompareBool(PyList_GET_ITEM(logical_list.ptr(), scope_def_i),
                                            scope_def.ptr(), Py_EQ);
        if (same < 0)
            throw nb::python_error();
        if (!same)
            return nb::none();
    }

    nb::ref<CScopeBodyFinder_> finder(
        new CScopeBodyFinder_(nb::borrow<nb::list>(logical_list), scope_def_i, true));
    nb::object body;
    try {
        finder->ProcessUntilEnd();
        body = finder->PopCompletedScopeBody();
    } catch (...) {
        finder->destroy();
        throw;
    }
    finder->destroy();
    return body;
}

nb::list CScopeBodyCache::StripComments_(nb::handle logical_list) {
    nb::list stripped;
    for (nb::handle item : logical_list) {
        if (AsLogical(item, "a CLogicalLine")->fKind != LogicalKind::kComment)
            stripped.append(item);
    }
    return stripped;
}

void CScopeBodyCache::DropChangedScopes(nb::handle loc, nb::handle removed, nb::handle added) {
    nb::set names = ScopeNamesOfLogicals(removed);
    for (nb::handle name : ScopeNamesOfLogicals(added))
        names.add(name);
    nb::object remove = _fScopeDependantCache.attr("RemoveFromCache");
    for (nb::handle name : names) {
        nb::ref<symbolinfo::CScope> scope = symbolinfo::Scope(nb::borrow(loc), name);
        nb::object scope_obj = nb::cast(scope);
        remove(scope_obj);
        CScopeDependantCache::InvalidateScopeEverywhere(scope_obj);
    }
}

void CScopeBodyCache::_destroy_impl() {
    if (_fScopeDependantCache.is_valid() && !_fScopeDependantCache.is_none())
        _fScopeDependantCache.attr("destroy")();
}

int CScopeBodyCache::TraverseFields(visitproc visit, void *arg) {
    Py_VISIT(_fScopeDependantCache.ptr());
    return 0;
}

void CScopeBodyCache::DropReferences() { _fScopeDependantCache = nb::none(); }

}  // namespace pysource

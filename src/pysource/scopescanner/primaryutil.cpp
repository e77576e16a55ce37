#include "pysource/scopescanner/primaryutil.h"

#include <algorithm>
#include <vector>

#include "basekit/location.h"
#include "pysource/docstringhints.h"
#include "pysource/pytext.h"
#include "pysource/scopescanner/protocol.h"
#include "pysource/scopescanner/scopebodyfinder.h"
#include "pysource/strutils.h"

namespace pysource::primaryutil {

symbolinfo::CScope &ScopeOf(nb::handle obj) {
    symbolinfo::CScope *scope = nullptr;
    if (!nb::try_cast<symbolinfo::CScope *>(obj, scope) || !scope)
        throw nb::type_error("expected a CScope");
    return *scope;
}

std::string_view TextOf(nb::handle obj) { return symbolinfo::TextView(obj, "text"); }

void RaiseAssertion(const char *message) {
    PyErr_SetString(PyExc_AssertionError, message);
    throw nb::python_error();
}

void RequireDict(nb::handle obj, const char *what) {
    if (!PyDict_Check(obj.ptr()))
        throw nb::type_error((std::string(what) + " must be a dict").c_str());
}

nb::handle PairsOrEmpty(nb::handle pairs) {
    static nb::handle empty = nb::tuple().release();
    return pairs.is_none() ? empty : pairs;
}

nb::handle ArgPairs(nb::handle pairs) {
    if (!pairs.is_none() && !PyTuple_Check(pairs.ptr()))
        throw nb::type_error("fArgTypeEquivs must be a tuple of pairs or None");
    return PairsOrEmpty(pairs);
}

bool IsNoValueLogical(nb::handle obj) { return obj.ptr() == kNoValueLogical_.ptr(); }

CLogicalLine *OptionalLogical(nb::handle obj) {
    if (obj.is_none() || IsNoValueLogical(obj))
        return nullptr;
    return AsLogical(obj);
}

nb::object LogicalOrNone(const nb::ref<CLogicalLine> &logical) {
    return logical ? nb::cast(logical) : nb::none();
}

std::string SortedJoin(nb::handle set_of_bytes) {
    std::vector<std::string_view> singles;
    for (nb::handle single : set_of_bytes) {
        if (!PyBytes_Check(single.ptr()))
            throw nb::type_error("the singles of a name must be bytes");
        singles.push_back(TextOf(single));
    }
    std::sort(singles.begin(), singles.end());
    std::string joined;
    for (size_t i = 0; i < singles.size(); ++i) {
        if (i)
            joined += ';';
        joined += singles[i];
    }
    return joined;
}

nb::bytes FirstSeenSingle(std::string_view prefix, nb::handle index) {
    PyObject *as_int = PyNumber_Long(index.ptr());
    if (!as_int)
        throw nb::python_error();
    Py_ssize_t value = PyLong_AsSsize_t(as_int);
    Py_DECREF(as_int);
    if (value == -1 && PyErr_Occurred())
        throw nb::python_error();
    std::string single(prefix);
    single += TextOf(BytesForInteger(value));
    return symbolinfo::ToBytes(single);
}

bool IsLocalFileLocation(nb::handle loc) {
    basekit::CLocalFileLocation *local = nullptr;
    return nb::try_cast<basekit::CLocalFileLocation *>(loc, local) && local;
}

std::vector<std::pair<std::string, std::string>> DocstringHintsOf(nb::handle body0) {
    CLogicalLine *first = OptionalLogical(body0);
    if (!first || first->fKind != LogicalKind::kStringExpression || first->TokenCount() == 0)
        return {};
    return docstringhints::HintsFromDocstring(first->TokenText(0));
}

}  // namespace pysource::primaryutil

#include "pysource/scopescanner/secondaryutil.h"

#include <optional>
#include <string>

#include "pysource/infer/evaluator.h"
#include "pysource/scopescanner/protocol.h"
#include "pysource/symbolinfo.h"

namespace pysource::secondaryutil {

namespace {

// Calls ctx.Done() from a clean-up path: an exception already on its way
// out must not be replaced, so a failing Done is reported as unraisable.
void DoneQuietly(nb::handle ctx) {
    try {
        ctx.attr("Done")();
    } catch (nb::python_error &err) {
        err.restore();
        PyErr_WriteUnraisable(ctx.ptr());
    }
}

}  // namespace

CSubContext::CSubContext(nb::handle parent_ctx) : fCtx(parent_ctx.attr("SubContext")(nb::none())) {}

CSubContext::~CSubContext() {
    if (!fFinished)
        DoneQuietly(fCtx);
}

void CSubContext::Finish() {
    if (fFinished)
        return;
    fFinished = true;
    fCtx.attr("Done")();
}

CLazySubContext::~CLazySubContext() {
    if (!fFinished && fCtx.is_valid())
        DoneQuietly(fCtx);
}

nb::handle CLazySubContext::get() {
    if (!fCtx.is_valid())
        fCtx = fParent.attr("SubContext")(nb::none());
    return fCtx;
}

void CLazySubContext::Finish() {
    if (fFinished)
        return;
    fFinished = true;
    if (fCtx.is_valid())
        fCtx.attr("Done")();
}

void RequireStr(nb::handle obj, const char *what) {
    if (!PyUnicode_Check(obj.ptr()))
        throw nb::type_error((std::string(what) + " must be a str").c_str());
}

void RequireBytes(nb::handle obj, const char *what) {
    if (!PyBytes_Check(obj.ptr()))
        throw nb::type_error((std::string(what) + " must be a bytes object").c_str());
}

bool EndsWith(std::string_view text, std::string_view tail) {
    return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

bool StartsWith(std::string_view text, std::string_view head) {
    return text.substr(0, head.size()) == head;
}

nb::object LocOf(nb::handle scope) { return ScopeOf(scope).loc; }

bool Truth(nb::handle value) { return IsTrue(value); }

bool Equal(nb::handle a, nb::handle b) {
    int result = PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ);
    if (result < 0)
        throw nb::python_error();
    return result == 1;
}

bool Contains(nb::handle container, nb::handle item) {
    int result = PySequence_Contains(container.ptr(), item.ptr());
    if (result < 0)
        throw nb::python_error();
    return result == 1;
}

bool HasItems(nb::handle sized) {
    if (sized.is_none())
        return false;
    Py_ssize_t n = PyObject_Length(sized.ptr());
    if (n < 0)
        throw nb::python_error();
    return n > 0;
}

nb::object ResolvedOf(nb::handle result) { return result.attr("resolved"); }

bool CtxIncomplete(nb::handle ctx) { return Truth(ctx.attr("fIncomplete")); }

nb::str JoinAllButLast(nb::handle parts, std::string_view sep) {
    nb::list items = nb::list(parts);
    nb::list head;
    for (size_t i = 0; i + 1 < items.size(); ++i)
        head.append(items[i]);
    return nb::borrow<nb::str>(nb::str(sep.data(), sep.size()).attr("join")(head));
}

bool DbgStatsOn() { return !_gDbgScanStats.is_none(); }

std::vector<std::pair<std::string_view, symbolinfo::Kind>> ValueSingles(std::string_view compound) {
    std::vector<std::pair<std::string_view, symbolinfo::Kind>> out;
    for (std::string_view single : symbolinfo::NonNestedSplit(compound, ";")) {
        symbolinfo::Kind kind = symbolinfo::GetInfoBytesKind(symbolinfo::BareSingle(single));
        if (infer::SaysValue(kind))
            out.emplace_back(single, kind);
    }
    return out;
}

}  // namespace pysource::secondaryutil

#include "pysource/infer/inferencectx.h"

#include <cmath>

#include "pysource/fastaccess.h"

namespace pysource::infer {

namespace {

nb::object NewSet() { return nb::steal(PySet_New(nullptr)); }

void UpdateSet(nb::handle target, nb::handle items) {
    if (items.is_none())
        return;
    if (_PySet_Update(target.ptr(), items.ptr()) < 0)
        throw nb::python_error();
}

}  // namespace

CInferContext::CInferContext(nb::object engine, double end_time, bool for_scan, nb::object parent)
    : fIncompleteReason(nb::none()), fNeedsScan(nb::none()), fEngine(std::move(engine)),
      fParent(std::move(parent)), fWholeExpr(nb::none()), fEndTime(end_time), fForScan(for_scan),
      fIsolationReasons(nb::none()), fScopesSeen(NewSet()), fResolvedImports(NewSet()) {
    if (std::isnan(fEndTime))
        fEndTime = INFINITY;
    if (CInferContext *up = AsContext(fParent)) {
        fDepth = up->fDepth + 1;
        fIsolated = up->fIsolated;
        fIsolationReasons = up->fIsolationReasons;
    }
}

void CInferContext::Done() {
    if (fDone)
        return;
    fDone = true;
    if (fParent.is_none())
        return;
    // What this context learnt stands for its parent too: the scans a full
    // answer would need, and what the answer depended on.
    if (CInferContext *up = AsContext(fParent)) {
        if (!fNeedsScan.is_none()) {
            if (up->fNeedsScan.is_none())
                up->fNeedsScan = NewSet();
            UpdateSet(up->fNeedsScan, fNeedsScan);
        }
        UpdateSet(up->fScopesSeen, fScopesSeen);
        UpdateSet(up->fResolvedImports, fResolvedImports);
        return;
    }
    // A parent of another kind is reached through its Python interface.
    if (!fNeedsScan.is_none()) {
        nb::object theirs = fParent.attr("fNeedsScan");
        if (theirs.is_none()) {
            fParent.attr("fNeedsScan") = NewSet();
            theirs = fParent.attr("fNeedsScan");
        }
        UpdateSet(theirs, fNeedsScan);
    }
    fParent.attr("MergeScopesSeen")(fScopesSeen);
    fParent.attr("MergeResolvedImports")(fResolvedImports);
}

nb::object CInferContext::SubContext(nb::handle) {
    nb::object self = nb::find(this);
    return nb::cast(nb::ref<CInferContext>(new CInferContext(fEngine, fEndTime, fForScan, self)));
}

void CInferContext::SetWholeExpr(nb::handle expr) { fWholeExpr = nb::borrow(expr); }

void CInferContext::ClearIncomplete() {
    fIncomplete = false;
    fIncompleteReason = nb::none();
}

bool CInferContext::OutOfTime() { return PastDeadline(); }

bool CInferContext::PastDeadline() {
    if (std::isinf(fEndTime))
        return false;
    return GetNowTime() >= fEndTime;
}

nb::object CInferContext::GetScopesSeen() { return fScopesSeen; }

nb::object CInferContext::GetResolvedImports() { return fResolvedImports; }

void CInferContext::AddScopeToScopesSeen(nb::handle scope) {
    if (PySet_Add(fScopesSeen.ptr(), scope.ptr()) < 0)
        throw nb::python_error();
}

void CInferContext::MergeScopesSeen(nb::handle scopes) { UpdateSet(fScopesSeen, scopes); }

void CInferContext::MergeResolvedImports(nb::handle imports) { UpdateSet(fResolvedImports, imports); }

bool CInferContext::Isolated_(nb::handle reason) const {
    if (!fIsolated)
        return false;
    if (fIsolationReasons.is_none() || reason.is_none())
        return true;
    int found = PySequence_Contains(fIsolationReasons.ptr(), reason.ptr());
    if (found < 0)
        throw nb::python_error();
    return found == 1;
}

void CInferContext::StartResolve() { ClearIncomplete(); }

void CInferContext::SetIncomplete(const char *reason) {
    // The first reason of a resolve stands: a time-out after a missing scan
    // is still a missing scan.
    if (fIncomplete)
        return;
    fIncomplete = true;
    fIncompleteReason = nb::str(reason);
}

void CInferContext::AddNeedsScan(nb::handle scope, nb::handle scan_name) {
    if (fNeedsScan.is_none())
        fNeedsScan = NewSet();
    nb::object pair = nb::make_tuple(scope, scan_name);
    if (PySet_Add(fNeedsScan.ptr(), pair.ptr()) < 0)
        throw nb::python_error();
}

void CInferContext::AddResolvedImport(nb::handle module_scope) {
    if (PySet_Add(fResolvedImports.ptr(), module_scope.ptr()) < 0)
        throw nb::python_error();
}

int CInferContext::Traverse(visitproc visit, void *arg) {
    for (nb::handle h : {fIncompleteReason, fNeedsScan, fEngine, fParent, fWholeExpr,
                         fIsolationReasons, fScopesSeen, fResolvedImports})
        Py_VISIT(h.ptr());
    return 0;
}

void CInferContext::Clear() {
    fNeedsScan = nb::none();
    fEngine = nb::none();
    fParent = nb::none();
    fWholeExpr = nb::none();
    fIsolationReasons = nb::none();
}

CInferContext *AsContext(nb::handle ctx) {
    if (!IsExactly<CInferContext>(ctx))
        return nullptr;
    return nb::inst_ptr<CInferContext>(ctx);
}

}  // namespace pysource::infer

// CInferContext: the working state of one resolution.  The engine makes a
// top context per request (NewContext); each step that may be retried runs in
// a sub-context (SubContext ... Done).  A context carries the deadline, the
// incomplete mark of its last resolve with the reason, the primary scans a
// full answer would need, and what its resolves read (scopes seen, modules
// imported).  Done hands what a sub-context found to its parent.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

namespace nb = nanobind;

namespace pysource::infer {

// Reasons for an incomplete answer: text constants, compared by value.
inline constexpr const char *kCannotScanReason = "cannot-scan";
inline constexpr const char *kOutOfTimeReason = "out-of-time";
inline constexpr const char *kCycleReason = "cycle";
inline constexpr const char *kDepthReason = "depth-limit";
inline constexpr const char *kNeedsScanReason = "needs-scan";

// Module constants.
inline constexpr int kLogIndent = 2;
inline constexpr int kMaxTriplesToLookFor = 200;
inline constexpr double kMaxInferenceTime = 0.5;  // seconds: a context's default budget

class CInferContext : public nb::intrusive_base {
public:
    // `end_time`: the deadline in the scan clock; NaN or None-equivalent
    // (infinity) for none.  `for_scan`: the context serves a scanner, which
    // wants partial answers marked rather than waited for.
    CInferContext(nb::object engine, double end_time, bool for_scan, nb::object parent);
    ~CInferContext() override = default;

    // Fields read by the scanners.
    bool fIncomplete = false;
    nb::object fIncompleteReason;  // None, or one of the reason texts
    nb::object fNeedsScan;         // None, or a set of (CScope, scan name)

    // Fields of our own.
    nb::object fEngine;
    nb::object fParent;     // the context this one is under, or None
    nb::object fWholeExpr;  // the CFullyScopedName under resolution, or None
    double fEndTime;
    bool fForScan;
    bool fDone = false;
    int fDepth = 0;          // 0 for a top context
    bool fIsolated = false;  // see Isolated_
    nb::object fIsolationReasons;  // None, or a dict of reasons

    // Virtual operations in slot order.
    virtual void Done();
    virtual nb::object SubContext(nb::handle unused);
    virtual void SetWholeExpr(nb::handle expr);
    virtual void ClearIncomplete();
    virtual bool OutOfTime();
    virtual nb::object GetScopesSeen();
    virtual nb::object GetResolvedImports();
    virtual void AddScopeToScopesSeen(nb::handle scope);
    virtual void MergeScopesSeen(nb::handle scopes);
    virtual void MergeResolvedImports(nb::handle imports);

    // Whether this context is isolated for `reason`: false unless the
    // isolation flag is on; then true for no reason map or no reason, else
    // whether `reason` is in the map.
    bool Isolated_(nb::handle reason) const;

    // Engine side.
    void StartResolve();  // a new resolve: the incomplete mark is for it alone
    void SetIncomplete(const char *reason);
    void AddNeedsScan(nb::handle scope, nb::handle scan_name);
    void AddResolvedImport(nb::handle module_scope);
    // The deadline test without a Python call when the clock is ours.
    bool PastDeadline();

    int Traverse(visitproc visit, void *arg);
    void Clear();

private:
    nb::object fScopesSeen;       // set of CScope
    nb::object fResolvedImports;  // set of CScope (module scopes)
};

// Whether `obj` is exactly of our C++ class T, not of a Python subclass:
// only then may C++ skip the Python interface (a subclass may override it).
template <typename T>
bool IsExactly(nb::handle obj) {
    // The class is looked up once: it lives as long as its module.
    static const nb::handle type = nb::type<T>();
    return obj.is_valid() && type.is_valid() && obj.type().is(type);
}

// The context object behind a Python handle, or nullptr when it is not
// exactly ours.
CInferContext *AsContext(nb::handle ctx);

}  // namespace pysource::infer

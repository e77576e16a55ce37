// The scan protocol shared by every scanner: the state constants, the scanner
// base classes, the module switches, the optional scan statistics and the
// markers for "lookup still pending".
//
// A driver calls Scan(end_time) again and again until it returns a final
// state.  States are singletons compared by identity (pointer compare in C++).
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string_view>

#include "basekit/destroyable.h"
#include "basekit/intrusive.h"
#include "pysource/fastaccess.h"
#include "pysource/logicalline.h"

namespace nb = nanobind;

namespace pysource {

// A Python object held by the module.  It has a trivial destructor on
// purpose: static destructors run after the interpreter is gone, when
// releasing a Python object would touch freed memory.  The module releases
// its objects when it is torn down (Release).
class CProcessRef {
public:
    nb::handle get() const { return nb::handle(fObj); }
    PyObject *ptr() const { return fObj; }
    bool is_none() const { return fObj == Py_None; }
    void Set(nb::handle value) {
        PyObject *old = fObj;
        fObj = value.ptr();
        Py_XINCREF(fObj);
        Py_XDECREF(old);
    }
    void Release() {
        PyObject *old = fObj;
        fObj = nullptr;
        Py_XDECREF(old);
    }

private:
    PyObject *fObj = nullptr;
};

// A named singleton; its printed form is the name.
class CNamedConstant : public nb::intrusive_base {
public:
    explicit CNamedConstant(nb::str name) : _fName(std::move(name)) {}
    nb::str _fName;
};

// The six scan states, made by InitScanStates in this order and never freed.
extern CNamedConstant *kReadyToScan;
extern CNamedConstant *kWaitingForData;
extern CNamedConstant *kFinishedScanning;
extern CNamedConstant *kTimedOut;  // only ever returned, never stored
extern CNamedConstant *kScanAbandoned;
extern CNamedConstant *kWaitingForScans;

// Module switches, read directly by the scanners.
extern bool kVerboseLogging;
extern bool kSaveLiteralText;
extern Py_ssize_t kMaxDerivedMergedKeys;
extern bool kSpecializeGenericsFromArgs;
extern bool kLazyCalledArgEvaluation;

// Both return the prior value.
bool SetSpecializeGenericsFromArgs(bool enable);
bool SetLazyCalledArgEvaluation(bool enable);

// Markers for "not given / not looked up yet", distinct from None.
extern CProcessRef kNoValue_;         // a fresh plain object
extern CProcessRef kNoValueLogical_;  // a CLogicalLine standing for "not found"
CLogicalLine *NoValueLogical();

// Optional scan statistics.  Callers test _gDbgScanStats for None before they
// count, so the counting functions don't.
extern CProcessRef _gDbgScanStats;
extern CProcessRef _gDbgSeenCalled;
extern CProcessRef _gDbgSeenArgs;
void DbgSetScanStats_(nb::handle stats);
void DbgCountScanEvent_(nb::handle event, nb::handle seen, nb::handle key);
void DbgCountScanHit_(nb::handle event);

// Module start, in this order: the markers (needs pysource.logicalline), then
// (after the free list) the states (needs CNamedConstant bound).
void InitNoValueMarkers();
void InitScanStates();
// Module teardown: drops the module's references (the states stay usable by
// identity for whoever still holds one).
void ReleaseScanProtocolState();

// Current value of a module variable that may change at run time (switches,
// statistics); an invalid object for any other name.
nb::object ProtocolModuleValue(std::string_view name);

// The truth value of what a neighbour's Python interface returned (a
// service may be any object, so its answers are judged as Python would).
bool IsTrue(nb::handle value);

// Runs `scan` (returning a state) between the info cache's
// BeginDeferScopesModified and FlushScopesModified, the flush on every way
// out, so that listeners get one batch of changed scopes per slice.
template <typename ScanFn>
nb::ref<CNamedConstant> ScanWithDeferredNotifications(nb::handle info_cache, ScanFn &&scan) {
    info_cache.attr("BeginDeferScopesModified")();
    nb::ref<CNamedConstant> state;
    try {
        state = scan();
    } catch (...) {
        info_cache.attr("FlushScopesModified")();
        throw;
    }
    info_cache.attr("FlushScopesModified")();
    return state;
}

// The base of every scanner.  Scan runs until end_time at most and returns the
// state, or kTimedOut when the slice ended first.
class CScanner : public basekit::CDestroyable {
public:
    explicit CScanner(nb::handle extra_signals = nb::none()) : CDestroyable(extra_signals) {}
    virtual nb::ref<CNamedConstant> Scan(double end_time);
};

// The scanner with a state, a log front, a scope and a scan name.  State
// changes are logged and announced with "scan-state-changed".
class CScannerBase_ : public CScanner {
public:
    // `log`: a CLogger, or None for a new silent one.
    CScannerBase_(nb::handle scope, nb::handle scan_name, nb::handle log);

    virtual void SetScanState_(nb::ref<CNamedConstant> state);

    nb::ref<CNamedConstant> fScanState;
    bool _fScanCalled = false;
    nb::ref<CLogger> _fLog;
    nb::object fScope;
    nb::object fScanName;

    // Garbage-collector support for the fields above; the scanners' own
    // TraverseFields and DropReferences begin with these.
    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

protected:
    void LogScanState(CNamedConstant *state);
};

}  // namespace pysource

#include "pysource/scopescanner/protocol.h"

#include <nanobind/stl/string_view.h>

namespace pysource {

CNamedConstant *kReadyToScan = nullptr;
CNamedConstant *kWaitingForData = nullptr;
CNamedConstant *kFinishedScanning = nullptr;
CNamedConstant *kTimedOut = nullptr;
CNamedConstant *kScanAbandoned = nullptr;
CNamedConstant *kWaitingForScans = nullptr;

bool kVerboseLogging = false;
bool kSaveLiteralText = false;
Py_ssize_t kMaxDerivedMergedKeys = 20;
bool kSpecializeGenericsFromArgs = false;
bool kLazyCalledArgEvaluation = true;

CProcessRef kNoValue_;
CProcessRef kNoValueLogical_;

CProcessRef _gDbgScanStats;
CProcessRef _gDbgSeenCalled;
CProcessRef _gDbgSeenArgs;

namespace {

constexpr const char *kStateChangedFormat = "Scan state changed to %s for %r scope: %r scan: %r";

// The module's references to the six states, in creation order.
CProcessRef gStateObjects[6];

CNamedConstant *MakeState(CProcessRef &holder, const char *name) {
    nb::ref<CNamedConstant> state = new CNamedConstant(nb::str(name));
    holder.Set(nb::cast(state));
    return state.get();
}

// Adds one to the statistics entry ("scan-dup", event), starting from 0.
void AddOne(nb::handle event) {
    nb::object key = nb::make_tuple("scan-dup", event);
    nb::handle stats = _gDbgScanStats.get();
    nb::object count = stats.attr("get")(key, 0);
    stats[key] = count + nb::int_(1);
}

nb::object ScanStateSignals() {
    nb::list signals;
    signals.append("scan-state-changed");
    return signals;
}

}  // namespace

bool SetSpecializeGenericsFromArgs(bool enable) {
    bool prior = kSpecializeGenericsFromArgs;
    kSpecializeGenericsFromArgs = enable;
    return prior;
}

bool SetLazyCalledArgEvaluation(bool enable) {
    bool prior = kLazyCalledArgEvaluation;
    kLazyCalledArgEvaluation = enable;
    return prior;
}

CLogicalLine *NoValueLogical() {
    return nb::inst_ptr<CLogicalLine>(kNoValueLogical_.get());
}

void DbgSetScanStats_(nb::handle stats) {
    if (!stats.is_none() && !PyDict_Check(stats.ptr()))
        throw nb::type_error("scan statistics go into a dict, or None to turn them off");
    _gDbgScanStats.Set(stats);
    if (stats.is_none()) {
        _gDbgSeenCalled.Set(nb::none());
        _gDbgSeenArgs.Set(nb::none());
    } else {
        _gDbgSeenCalled.Set(nb::set());
        _gDbgSeenArgs.Set(nb::set());
    }
}

void DbgCountScanEvent_(nb::handle event, nb::handle seen, nb::handle key) {
    AddOne(event);
    int contained = PySequence_Contains(seen.ptr(), key.ptr());
    if (contained < 0)
        throw nb::python_error();
    if (contained) {
        AddOne(event + nb::str("-dup"));
    } else if (PySet_Check(seen.ptr())) {
        if (PySet_Add(seen.ptr(), key.ptr()) < 0)
            throw nb::python_error();
    } else {
        seen.attr("add")(key);
    }
}

void DbgCountScanHit_(nb::handle event) { AddOne(event); }

void InitNoValueMarkers() {
    kNoValue_.Set(nb::steal(PyObject_CallNoArgs((PyObject *) &PyBaseObject_Type)));
    nb::object create = nb::module_::import_("pysource.logicalline").attr("CreateLogical");
    nb::object logical = create(
        nb::arg("indent") = 0, nb::arg("start_line") = 0, nb::arg("line_count") = 1,
        nb::arg("toks") = nb::list(), nb::arg("ttypes") = nb::list(),
        nb::arg("positions") = nb::list(), nb::arg("spaces_in_indent") = false,
        nb::arg("tabs_in_indent") = false, nb::arg("incomplete") = false,
        nb::arg("line_text") = "");
    if (!nb::isinstance<CLogicalLine>(logical))
        throw nb::type_error("CreateLogical did not return a CLogicalLine");
    kNoValueLogical_.Set(logical);
    _gDbgScanStats.Set(nb::none());
    _gDbgSeenCalled.Set(nb::none());
    _gDbgSeenArgs.Set(nb::none());
}

void InitScanStates() {
    if (kReadyToScan)
        return;
    kReadyToScan = MakeState(gStateObjects[0], "ready-to-scan");
    kWaitingForData = MakeState(gStateObjects[1], "waiting-for-data");
    kFinishedScanning = MakeState(gStateObjects[2], "finished");
    kTimedOut = MakeState(gStateObjects[3], "timed-out");
    kScanAbandoned = MakeState(gStateObjects[4], "scan-abandoned");
    kWaitingForScans = MakeState(gStateObjects[5], "waiting-for-scans");
}

void ReleaseScanProtocolState() {
    kReadyToScan = kWaitingForData = kFinishedScanning = nullptr;
    kTimedOut = kScanAbandoned = kWaitingForScans = nullptr;
    for (CProcessRef &state : gStateObjects)
        state.Release();
    kNoValue_.Release();
    kNoValueLogical_.Release();
    _gDbgScanStats.Release();
    _gDbgSeenCalled.Release();
    _gDbgSeenArgs.Release();
}

nb::object ProtocolModuleValue(std::string_view name) {
    if (name == "kVerboseLogging")
        return nb::bool_(kVerboseLogging);
    if (name == "kSaveLiteralText")
        return nb::bool_(kSaveLiteralText);
    if (name == "kMaxDerivedMergedKeys")
        return nb::int_(kMaxDerivedMergedKeys);
    if (name == "kSpecializeGenericsFromArgs")
        return nb::bool_(kSpecializeGenericsFromArgs);
    if (name == "kLazyCalledArgEvaluation")
        return nb::bool_(kLazyCalledArgEvaluation);
    if (name == "_gDbgScanStats")
        return nb::borrow(_gDbgScanStats.get());
    if (name == "_gDbgSeenCalled")
        return nb::borrow(_gDbgSeenCalled.get());
    if (name == "_gDbgSeenArgs")
        return nb::borrow(_gDbgSeenArgs.get());
    return nb::object();
}

nb::ref<CNamedConstant> CScanner::Scan(double) {
    PyErr_SetString(PyExc_NotImplementedError, "Scan is not implemented by this scanner class");
    throw nb::python_error();
}

int CScannerBase_::TraverseFields(visitproc visit, void *arg) {
    if (int result = basekit::VisitRef(_fLog, visit, arg))
        return result;
    Py_VISIT(fScope.ptr());
    Py_VISIT(fScanName.ptr());
    return 0;
}

void CScannerBase_::DropReferences() {
    _fLog = new CLogger();
    fScope = nb::none();
    fScanName = nb::none();
}

CScannerBase_::CScannerBase_(nb::handle scope, nb::handle scan_name, nb::handle log)
    : CScanner(ScanStateSignals()) {
    fScanState = kReadyToScan;
    _fScanCalled = false;
    if (log.is_none()) {
        _fLog = new CLogger();
    } else {
        CLogger *logger = nullptr;
        if (!nb::try_cast<CLogger *>(log, logger) || !logger)
            throw nb::type_error("the log of a scanner must be a CLogger or None");
        _fLog = logger;
    }
    fScope = nb::borrow(scope);
    fScanName = nb::borrow(scan_name);
    LogScanState(kReadyToScan);
}

void CScannerBase_::LogScanState(CNamedConstant *state) {
    if (!_fLog->IsOn())
        return;  // nothing would be formatted or sent
    nb::handle scope = fScope;
    (*_fLog)(kStateChangedFormat, nb::ref<CNamedConstant>(state), scope.attr("loc"),
             scope.attr("name"), fScanName);
}

void CScannerBase_::SetScanState_(nb::ref<CNamedConstant> state) {
    if (state.get() == fScanState.get())
        return;
    LogScanState(state.get());
    fScanState = state;
    emit("scan-state-changed", nb::make_tuple(SelfObject()));
}

bool IsTrue(nb::handle value) {
    int result = PyObject_IsTrue(value.ptr());
    if (result < 0)
        throw nb::python_error();
    return result == 1;
}

}  // namespace pysource

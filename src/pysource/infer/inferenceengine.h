// CInferenceEngine: resolves an expression read in a scope to the set of
// values it can have ("singles", CSingleResolvedInfo), from the records of
// the info cache alone: primary records of every scope, and derived records
// where the secondary scan made them.  It never imports or runs the code it
// reads.  A resolve that needs a scope whose file has no primary record yet
// marks its context incomplete and names the (module scope, primary scan
// name) pair in fNeedsScan; the caller gets the scan run and asks again.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <memory>
#include <string>

namespace nb = nanobind;

namespace pysource::infer {

class CModuleFinder;
struct EngineMemo;

class CResolveResult : public nb::intrusive_base {
public:
    explicit CResolveResult(nb::object resolved_) : resolved(std::move(resolved_)) {}
    nb::object resolved;  // frozenset of CSingleResolvedInfo
};

class CInferenceEngine : public nb::intrusive_base {
public:
    // `info_cache`: the CInfoCache of records.  `module_finder`: the
    // CModuleFinder that maps module names to files (a default one when
    // None).  `condition_evaluator`: the CSimpleConditionEvaluator of stub
    // conditionals (one for the running interpreter when None).
    CInferenceEngine(nb::object info_cache, nb::object module_finder,
                     nb::object condition_evaluator);
    ~CInferenceEngine() override;

    // Fields.
    nb::object fInfoCache;
    nb::object _fLocCache;
    nb::object _fTypingGenericSupport;
    nb::object _fDetailsStore;
    nb::object _fCallableSupport;
    nb::object fModuleFinder;
    nb::object fConditionEvaluator;
    // Tells the branch structure of scope bodies (`BlockPaths(loc,
    // scope_name)`), so that a use sees every setting that may reach it;
    // None: the latest setting before a use is the one that reaches it.
    nb::object fFlowProvider;
    std::string fPrimaryScanName;
    // What requests learn that outlasts them (evaluator.h).
    std::unique_ptr<EngineMemo> fMemo;
    // Bounds on one resolve: nested evaluations, and values per expression.
    int fMaxDepth = 40;
    // How many calls deep an argument is followed into what callers passed.
    int fMaxArgHops = 3;
    std::size_t fMaxValues = 64;

    // Virtual operations in slot order.
    virtual nb::object NewContext(nb::handle end_time, bool for_scan);
    virtual nb::object ResolveToResult(nb::handle expr, nb::handle ctx);
    virtual nb::object ReduceResolved(nb::handle resolved, bool keep_literal_values,
                                      bool keep_class_refs, nb::handle ctx);
    virtual nb::object ResolveHint(nb::handle expr, nb::handle ctx);
    virtual nb::object SingleResolvedIter(nb::handle ibytes, nb::handle for_scope, nb::handle ctx);

    // A context for a resolve that came with none.
    nb::object ContextOrNew(nb::handle ctx);
    // The ordered type variable names of a class single (`_OrderedTypeVars`).
    nb::object OrderedTypeVars_(nb::handle class_single, nb::handle ctx);
    // The canonical name of the special form an expression resolves to, or
    // None (`_SpecialFormName`).
    nb::object SpecialFormName(nb::handle expr, nb::handle ctx);
    // Points the services made with the engine back at it.
    void Wire();
    // Drops what requests kept for later ones (they go by themselves when
    // records, the search path or the settings change).
    void ForgetKeptAnswers();
    // How many entries each table of what requests kept holds, by name
    // ("retired": entries dropped and not yet freed), and how often kept
    // project values were found again or found outdated.
    nb::dict KeptCounts() const;

    int Traverse(visitproc visit, void *arg);
    void Clear();
};

// Evaluates the conditions of stub conditionals ("sys.version_info >= (3,
// 8)", "sys.platform == 'linux'", "hasattr(x, 'y')") for one Python version
// and platform.
class CSimpleConditionEvaluator : public nb::intrusive_base {
public:
    // `version`: a tuple like (3, 11); None for the running interpreter's.
    // `platform`: text like "linux"; None for the running one's.
    CSimpleConditionEvaluator(nb::handle version, nb::handle platform);

    // True or False when the condition can be decided, None when not.
    virtual nb::object Evaluate(nb::handle condition);
    // The same as a C++ tri-state: 1 true, 0 false, -1 undecided.
    int EvaluateText(std::string_view condition);

    nb::object fVersion;   // tuple of ints
    std::string fPlatform;
};

}  // namespace pysource::infer

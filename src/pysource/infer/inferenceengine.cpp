#include "pysource/infer/inferenceengine.h"

#include <cmath>

#include "pysource/infer/canonicalize.h"
#include "pysource/infer/infercalls.h"
#include "pysource/infer/inferencectx.h"
#include "pysource/infer/inferenceiterators.h"
#include "pysource/infer/inferreddetails.h"
#include "pysource/infer/infertyping.h"
#include "pysource/infer/modulefinder.h"

namespace pysource::infer {

CInferenceEngine::CInferenceEngine(nb::object info_cache, nb::object module_finder,
                                   nb::object condition_evaluator)
    : fInfoCache(std::move(info_cache)) {
    _fLocCache = fInfoCache.attr("fLocCache");
    fPrimaryScanName = nb::cast<std::string>(fInfoCache.attr("fPrimaryScanName"));
    fModuleFinder = module_finder.is_none()
                        ? nb::cast(nb::ref<CModuleFinder>(new CModuleFinder(nb::none(), nb::none(), nb::none())))
                        : std::move(module_finder);
    fConditionEvaluator =
        condition_evaluator.is_none()
            ? nb::cast(nb::ref<CSimpleConditionEvaluator>(new CSimpleConditionEvaluator(nb::none(), nb::none())))
            : std::move(condition_evaluator);
    nb::object self = nb::find(this);
    _fCallableSupport = nb::cast(nb::ref<CCallableSupport>(new CCallableSupport()));
    _fDetailsStore = nb::cast(nb::ref<CDetailsStore>(new CDetailsStore(nb::none())));
    _fTypingGenericSupport = nb::cast(nb::ref<CTypingGenericSupport>(new CTypingGenericSupport(nb::none())));
}

CInferenceEngine::~CInferenceEngine() = default;

nb::object CInferenceEngine::NewContext(nb::handle end_time, bool for_scan) {
    double deadline = end_time.is_none() ? INFINITY : nb::cast<double>(end_time);
    return nb::cast(nb::ref<CInferContext>(new CInferContext(nb::find(this), deadline, for_scan, nb::none())));
}

nb::object CInferenceEngine::ContextOrNew(nb::handle ctx) {
    return ctx.is_none() ? NewContext(nb::none(), false) : nb::borrow(ctx);
}

nb::object CInferenceEngine::ResolveToResult(nb::handle expr, nb::handle ctx) {
    nb::object context = ContextOrNew(ctx);
    if (CInferContext *c = AsContext(context))
        c->StartResolve();
    return nb::cast(nb::ref<CResolveResult>(new CResolveResult(nb::steal(PyFrozenSet_New(nullptr)))));
}

nb::object CInferenceEngine::ReduceResolved(nb::handle resolved, bool keep_literal_values,
                                            bool keep_class_refs, nb::handle) {
    CResolvedReducer reducer;
    return reducer.Reduce(resolved, keep_literal_values, keep_class_refs);
}

nb::object CInferenceEngine::ResolveHint(nb::handle expr, nb::handle ctx) { return nb::list(); }

nb::object CInferenceEngine::SingleResolvedIter(nb::handle ibytes, nb::handle for_scope, nb::handle ctx) {
    return nb::cast(nb::ref<CSingleResolvedIterator>(new CSingleResolvedIterator(nb::list())));
}

int CInferenceEngine::Traverse(visitproc visit, void *arg) {
    for (nb::handle h : {fInfoCache, _fLocCache, _fTypingGenericSupport, _fDetailsStore, _fCallableSupport,
                         fModuleFinder, fConditionEvaluator})
        Py_VISIT(h.ptr());
    return 0;
}

void CInferenceEngine::Clear() {
    _fDetailsStore = nb::none();
    _fTypingGenericSupport = nb::none();
}

nb::object CTypingGenericSupport::GetSpecialFormCanonicalName(nb::handle expr, nb::handle ctx) {
    return nb::none();
}

nb::object CTypingGenericSupport::GetTypeVarInfo(nb::handle expr, nb::handle ctx) { return nb::none(); }

}  // namespace pysource::infer

#include "pysource/infer/inferenceengine.h"

#include <nanobind/stl/string.h>

#include <cmath>

#include "pysource/infer/canonicalize.h"
#include "pysource/infer/evaluator.h"
#include "pysource/infer/infercalls.h"
#include "pysource/infer/inferencectx.h"
#include "pysource/infer/inferenceiterators.h"
#include "pysource/infer/inferreddetails.h"
#include "pysource/infer/infertyping.h"
#include "pysource/infer/modulefinder.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scope.h"

namespace pysource::infer {

CInferenceEngine::CInferenceEngine(nb::object info_cache, nb::object module_finder,
                                   nb::object condition_evaluator)
    : fInfoCache(std::move(info_cache)), fFlowProvider(nb::none()), fMemo(new EngineMemo()) {
    _fLocCache = fInfoCache.attr("fLocCache");
    fPrimaryScanName = nb::cast<std::string>(fInfoCache.attr("fPrimaryScanName"));
    fModuleFinder = module_finder.is_none()
                        ? nb::cast(nb::ref<CModuleFinder>(new CModuleFinder(nb::none(), nb::none(), nb::none())))
                        : std::move(module_finder);
    fConditionEvaluator =
        condition_evaluator.is_none()
            ? nb::cast(nb::ref<CSimpleConditionEvaluator>(new CSimpleConditionEvaluator(nb::none(), nb::none())))
            : std::move(condition_evaluator);
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

namespace {

namespace si = symbolinfo;

// The scope and text of a CFullyScopedName, with the logical-index suffix
// of the text (the position the expression is read at) split off.
struct Term {
    nb::object scope;
    std::string text;
    long long use_index = -2;
    bool type_hint = false;
};

Term TermOf(nb::handle expr) {
    Term term;
    term.scope = expr.attr("scope");
    std::string_view text = si::TextView(expr.attr("name"), "expression");
    si::SuffixSplit split = si::SplitLogicalIndexSuffix(text);
    term.text = std::string(split.single);
    if (split.logical_index)
        term.use_index = *split.logical_index;
    term.type_hint = nb::cast<bool>(expr.attr("type_hint"));
    return term;
}

}  // namespace

void CInferenceEngine::Wire() {
    // The services made with the engine reach it back through Python, so
    // that a subclass of the engine is the one they call.
    nb::object self = nb::find(this);
    if (!self.is_valid() || self.is_none())
        return;
    for (nb::handle service : {_fDetailsStore, _fTypingGenericSupport})
        if (nb::hasattr(service, "fEngine") && service.attr("fEngine").is_none())
            service.attr("fEngine") = self;
}

nb::object CInferenceEngine::ResolveToResult(nb::handle expr, nb::handle ctx) {
    Wire();
    nb::object context = ContextOrNew(ctx);
    if (CInferContext *c = AsContext(context))
        c->StartResolve();
    else
        context.attr("ClearIncomplete")();
    Term term = TermOf(expr);
    CEvaluator evaluator(*this, context);
    ValueSet values = term.type_hint ? evaluator.ResolveHintText(term.scope, term.text, nullptr)
                                     : evaluator.ResolveText(term.scope, term.text, term.use_index);
    return nb::cast(nb::ref<CResolveResult>(new CResolveResult(values.AsFrozenSet())));
}

nb::object CInferenceEngine::ReduceResolved(nb::handle resolved, bool keep_literal_values,
                                            bool keep_class_refs, nb::handle) {
    CResolvedReducer reducer;
    return reducer.Reduce(resolved, keep_literal_values, keep_class_refs);
}

nb::object CInferenceEngine::ResolveHint(nb::handle expr, nb::handle ctx) {
    Wire();
    nb::object context = ContextOrNew(ctx);
    Term term = TermOf(expr);
    CEvaluator evaluator(*this, context);
    ValueSet values = evaluator.ResolveHintText(term.scope, term.text, nullptr);
    nb::list out;
    for (const nb::object &v : values.Items())
        out.append(v);
    return out;
}

nb::object CInferenceEngine::SingleResolvedIter(nb::handle ibytes, nb::handle for_scope, nb::handle ctx) {
    Wire();
    nb::object context = ContextOrNew(ctx);
    CEvaluator evaluator(*this, context);
    ValueSet values = evaluator.ValuesOfInfo(for_scope, si::TextView(ibytes, "ibytes"), -2);
    nb::list items;
    for (const nb::object &v : values.Items())
        items.append(v);
    return nb::cast(nb::ref<CSingleResolvedIterator>(new CSingleResolvedIterator(items)));
}

nb::object CInferenceEngine::OrderedTypeVars_(nb::handle class_single, nb::handle ctx) {
    nb::object context = ContextOrNew(ctx);
    CEvaluator evaluator(*this, context);
    nb::list out;
    for (const std::string &name : evaluator.OrderedTypeVars(class_single))
        out.append(nb::str(name.c_str()));
    return out;
}

nb::object CInferenceEngine::SpecialFormName(nb::handle expr, nb::handle ctx) {
    nb::object context = ContextOrNew(ctx);
    Term term = TermOf(expr);
    CEvaluator evaluator(*this, context);
    for (const nb::object &v : evaluator.ResolveText(term.scope, term.text, term.use_index).Items()) {
        std::string form = evaluator.SpecialFormOf(v);
        if (!form.empty())
            return nb::str(form.c_str());
    }
    return nb::none();
}

int CInferenceEngine::Traverse(visitproc visit, void *arg) {
    for (nb::handle h : {fInfoCache, _fLocCache, _fTypingGenericSupport, _fDetailsStore, _fCallableSupport,
                         fModuleFinder, fConditionEvaluator, fFlowProvider})
        Py_VISIT(h.ptr());
    return 0;
}

void CInferenceEngine::ForgetKeptAnswers() { fMemo->Forget(); }

nb::dict CInferenceEngine::KeptCounts() const {
    nb::dict counts;
    for (const auto &[name, count] : fMemo->Counts())
        counts[name.c_str()] = count;
    return counts;
}

void CInferenceEngine::Clear() {
    fMemo->Forget();
    fMemo->FreeRetired();
    fMemo->ForgetNames();
    fFlowProvider = nb::none();
    _fDetailsStore = nb::none();
    _fTypingGenericSupport = nb::none();
}

nb::object CTypingGenericSupport::GetSpecialFormCanonicalName(nb::handle expr, nb::handle ctx) {
    if (fEngine.is_none())
        return nb::none();
    if (IsExactly<CInferenceEngine>(fEngine))
        return nb::cast<CInferenceEngine *>(fEngine)->SpecialFormName(expr, ctx);
    return fEngine.attr("_SpecialFormName")(expr, ctx);
}

nb::object CTypingGenericSupport::GetTypeVarInfo(nb::handle expr, nb::handle ctx) {
    if (fEngine.is_none())
        return nb::none();
    nb::object result = fEngine.attr("ResolveToResult")(expr, ctx);
    for (nb::handle single : result.attr("resolved")) {
        std::string_view bare = si::BareSingle(si::TextView(single.attr("ibytes"), "ibytes"));
        if (si::GetInfoBytesKind(bare) != si::kTypeParameterKind)
            continue;
        si::DeclTypeParam param = si::UnpackTypeParameterInfo(bare);
        nb::object bound = param.bound ? nb::object(nb::str(param.bound->c_str())) : nb::none();
        nb::object dflt = param.default_text ? nb::object(nb::str(param.default_text->c_str())) : nb::none();
        return nb::cast(nb::ref<CTypeVarInfo>(new CTypeVarInfo(nb::str(param.name.c_str()),
            nb::str(param.param_kind.c_str()), bound, nb::none(), dflt, single.attr("scope"))));
    }
    return nb::none();
}

}  // namespace pysource::infer

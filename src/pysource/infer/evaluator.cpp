// Expressions: the parse tree of an expression text, evaluated to singles.
#include "pysource/infer/evaluator.h"
#include "pysource/infer/infertyping.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <functional>
#include <unordered_set>

#include "pysource/exprtext.h"
#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;
using pgen::Node;
using pgen::NodeKind;

std::string_view ForeignScopeName(nb::handle scope) {
    // Another object's `name` may be computed afresh on each read, so its
    // text is copied into a table whose entries never move or die: views
    // of it stay valid for as long as any caller keeps them. Only fakes and
    // subclasses get here, with few distinct names.
    static std::unordered_set<std::string> names;
    nb::object name = scope.attr("name");
    return *names.emplace(symbolinfo::TextView(name, "scope name")).first;
}

namespace {

// The records write the item of an iteration as the subscript "[*]", which
// isn't Python; it is read as a subscript by this name.
constexpr std::string_view kIterMarker = "__pysource_iter__";
// The name an expression that starts with "." is read on.
constexpr std::string_view kSelfMarker = "__pysource_self__";

// The sets of scopes whose bindings a text's reads have read that are
// looked for: a text read in many contexts reads a few.
constexpr std::size_t kMaxDepSets = 8;
// Signatures of binding sets kept at once (DepsSignature), over all versions.
constexpr std::size_t kMaxDepsSignaturesKept = 8192;

// Text read on a scope's own object depends on where it is asked from.
bool self_locals_free(std::string_view text) { return text.empty() || text.front() != '.'; }

std::string WithIterMarkers(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 16);
    std::size_t pos = 0;
    for (;;) {
        std::size_t hit = text.find("[*]", pos);
        if (hit == std::string_view::npos)
            break;
        out.append(text.substr(pos, hit - pos));
        out.push_back('[');
        out.append(kIterMarker);
        out.push_back(']');
        pos = hit + 3;
    }
    out.append(text.substr(pos));
    return out;
}

std::string_view TokText(const pgen::Tree &tree, std::int32_t tok) { return tree.toks[(std::size_t) tok].text; }

// `a.b.c` of an attribute chain on a plain name, as the records name what a
// body sets; empty for any other expression.
std::string DottedText(const pgen::Tree &tree, std::int32_t node) {
    std::vector<std::string_view> parts;
    while (node >= 0 && tree.nodes[(std::size_t) node].kind == pgen::NodeKind::kAttribute) {
        parts.push_back(TokText(tree, tree.nodes[(std::size_t) node].aux));
        node = tree.Kid(tree.nodes[(std::size_t) node], 0);
    }
    if (node < 0 || tree.nodes[(std::size_t) node].kind != pgen::NodeKind::kName)
        return {};
    std::string_view base = TokText(tree, tree.nodes[(std::size_t) node].aux);
    if (base == kSelfMarker || base == kIterMarker)
        return {};
    std::string out(base);
    for (auto it = parts.rbegin(); it != parts.rend(); ++it)
        out.append(".").append(*it);
    return out;
}

// What a generator finishes with (its third type argument), into `out`.
void MergeFinishedWith(nb::handle gen, ValueSet &out) {
    nb::handle args = Single(gen)->fTypeArgs;
    if (PyTuple_Check(args.ptr()) && PyTuple_GET_SIZE(args.ptr()) == 3)
        out.Merge(ValueSet::FromIterable(PyTuple_GET_ITEM(args.ptr(), 2)));
}

// The first token of a node written in parentheses, `(1.5)`, past them.
std::int32_t FirstTokInParens(const pgen::Tree &tree, const pgen::Node &n) {
    std::int32_t tok = n.tok_begin;
    while (tok + 1 < n.tok_end && TokText(tree, tok) == "(")
        ++tok;
    return tok;
}

// A one-line quoted literal without prefix, escapes or triple quotes.
bool IsPlainShortLiteral(std::string_view text) {
    if (text.size() < 2 || text.size() > 42)
        return false;
    char quote = text.front();
    if ((quote != '"' && quote != '\'') || text.back() != quote)
        return false;
    std::string_view inner = text.substr(1, text.size() - 2);
    return inner.find('\\') == std::string_view::npos && inner.find(quote) == std::string_view::npos;
}

}  // namespace

ValueSet CEvaluator::ResolveText(nb::handle scope, std::string_view text, long long use_index) {
    ValueSet out;
    if (Stop())
        return out;
    // The read's key, held by `free_key` (no copy of its texts).
    RequestKey free_key{{ReadKeyOf(ScopeLoc(scope)), std::string(ScopeName(scope)), std::string(text), use_index},
                        std::to_string(fArgHops)};
    const ActiveKey &key = free_key.first;
    if (CycleAt(key))
        return out;  // the value depends on itself: nothing more to learn here
    // Within a request every text is evaluated once per binding of the
    // names a call fixes: real code reaches the same values along many
    // paths, and evaluating each path anew is exponential.  A value stands
    // wherever the bindings it read (CutWatch::Deps) are the same: it is
    // kept under the signature of those alone, and looked for under each set
    // of scopes that reads of the text have read.  Values are also kept from
    // one request to the next: in library files while their primary records
    // stand, in the project's own while no record changes (derived ones hold
    // what callers pass).  Library values stand for any argument hops (their
    // files have no callers' records).
    bool memoable = self_locals_free(text);
    const BetweenRequests kept = memoable ? BetweenRequestsOf(scope) : BetweenRequests{};
    const std::string &hops = free_key.second;
    const std::size_t read_hash = ReadKeyHash{}(key);
    if (memoable) {
        auto look = [&](const BindingDeps &deps, const std::string &bindings) -> const ValueSet * {
            std::string signature = hops + bindings;
            if (const ValueSet *found = RequestValueOf(BoundReadView{key, signature, read_hash}))
                return found;
            return KeptBetweenRequests(kept, key, kept.library ? bindings : signature, read_hash, deps);
        };
        const ValueSet *hit = ForEachDepSet(key, look);
        if (hit)
            return *hit;
    }
    CutWatch watch(*this);
    std::optional<EffectsCollector> effects;
    if (kept.table)
        effects.emplace(*this);
    ActiveRead active(*this, key);
    struct Leave {
        CEvaluator &ev;
        ~Leave() { --ev.fDepth; }
    } leave{*this};
    ++fDepth;
    Locals self_locals;
    std::string source;
    if (!text.empty() && text.front() == '.') {
        // ".attr" read in a scope: an attribute of the scope's own object
        // (the instance of an instance scope, the class, the module).
        self_locals.emplace_back(std::string(kSelfMarker), ScopeObject(scope));
        source = std::string(kSelfMarker) + WithIterMarkers(text);
    } else {
        source = WithIterMarkers(text);
    }
    const auto parsed = ParseText(source);
    const Tree &tree = parsed->tree;
    std::int32_t root = parsed->root;
    if (root < 0)
        return out;
    Frame frame{nb::borrow(scope), use_index, nullptr, self_locals.empty() ? nullptr : &self_locals};
    out = Eval(tree, root, frame);
    // A request that gave up (out of time) unwinds past the deadline: what
    // it would keep here is cut (never kept between requests) and never read
    // again in this request (every later read stops at once), so the
    // bookkeeping, which sorts every effect noted below, is skipped.
    if (!memoable || fGaveUp)
        return out;
    std::string bindings = NoteDeps(key, watch);
    auto request_kept = Keep(out, watch);
    if (effects)
        request_kept.effects = effects->Taken();
    if (kept.table && watch.Whole())
        kept.table->emplace(RequestKey{key, kept.library ? bindings : hops + bindings},
                            EngineMemo::KeptAnswer{out, request_kept.effects, fMemo.record_generation});
    fRequestValues.emplace(RequestKey{key, hops + bindings}, std::move(request_kept));
    return out;
}

CEvaluator::BetweenRequests CEvaluator::BetweenRequestsOf(nb::handle scope) {
    if (IsLibraryScope(scope))
        return {&fMemo.library_values, true};
    return {fKeepProjectValues ? &fMemo.project_values : nullptr, false};
}

const ValueSet *CEvaluator::KeptBetweenRequests(const BetweenRequests &where, const ReadKey &key,
                                                std::string_view signature, std::size_t read_hash,
                                                const BindingDeps &deps) {
    if (!where.table)
        return nullptr;
    auto kept = where.table->find(BoundReadView{key, signature, read_hash});
    if (kept == where.table->end())
        return nullptr;
    if (!where.library) {
        if (!RecordsStand(kept->second)) {
            ++fMemo.project_values_outdated;
            where.table->erase(kept);  // worked out again
            return nullptr;
        }
        ++fMemo.project_values_found;
    }
    DependOnAll(deps);  // as bound here as where it was found
    Replay(kept->second.effects);
    return &kept->second.values;
}

bool CEvaluator::CycleAt(const ActiveKey &key) {
    auto hit = fActive.find(key);
    if (hit == fActive.end())
        return false;
    fCycleLow = std::min(fCycleLow, hit->second);
    return true;
}

std::string CEvaluator::BindingSignature(const TypeMap *map) {
    std::string signature = std::to_string(fArgHops);
    if (fSignatureVersion != fBindingVersion) {
        fBindingsSignature = BindingsSignature();
        fSignatureVersion = fBindingVersion;
    }
    signature.append(fBindingsSignature);
    if (map) {
        signature.push_back('@');
        AppendMapSignature(signature, *map);
    }
    if (PyErr_Occurred())
        throw nb::python_error();
    return signature;
}

namespace {

void AppendValuesSignature(std::string &signature, const ValueSet &values) {
    signature.push_back('[');
    for (const nb::object &value : values.Items()) {
        // Our own singles hash in C++ (-1 is -2, as Python has it).
        Py_hash_t hash;
        if (IsExactly<si::CSingleResolvedInfo>(value)) {
            // What a def is bound to, and the bindings it closes over, are
            // not part of its hash: values that differ only there differ here.
            const auto *single = nb::inst_ptr<si::CSingleResolvedInfo>(value);
            hash = single->Hash();
            hash = hash == -1 ? -2 : hash;
            for (const nb::object *part : {&single->fBoundTo, &single->fClosure})
                if (!part->is_none()) {
                    signature.push_back(part == &single->fBoundTo ? '^' : '&');
                    signature.append(std::to_string((long long) PyObject_Hash(part->ptr())));
                }
        } else {
            hash = PyObject_Hash(value.ptr());
        }
        signature.append(std::to_string((long long) hash));
        signature.push_back(',');
    }
    signature.push_back(']');
}

}  // namespace

void CEvaluator::AppendMapSignature(std::string &signature, const TypeMap &vars) {
    for (const auto &[var, values] : vars) {
        signature.append("|").append(var);
        AppendValuesSignature(signature, values);
    }
}

std::string CEvaluator::BindingsSignature() {
    std::string signature;
    for (const auto &[name, values] : fBoundNames) {
        signature.append("|").append(std::get<0>(name)).append("|").append(std::get<1>(name)).append("|").append(
            std::get<2>(name));
        AppendValuesSignature(signature, values);
    }
    AppendClassMapsSignature(signature);
    if (PyErr_Occurred())
        throw nb::python_error();
    return signature;
}

void CEvaluator::AppendClassMapsSignature(std::string &signature) const {
    for (const auto &[url, cls, class_map] : fClassMaps) {
        signature.append("#").append(url).append("|").append(cls);
        AppendMapSignature(signature, class_map);
    }
}

std::string CEvaluator::NoteDeps(const ReadKey &key, const CutWatch &watch) {
    // The bindings the work read are now as they were when it began.
    const BindingDeps &deps = watch.Deps();
    if (!deps.empty()) {
        std::vector<BindingDeps> &sets = fMemo.value_deps[key];
        if (sets.size() < kMaxDepSets && std::find(sets.begin(), sets.end(), deps) == sets.end())
            sets.push_back(deps);
    }
    return DepsSignature(deps);
}

BindingIds::BindingIds() {
    Id("#", "", "");  // kClassMapsDep, the first
}

std::size_t BindingIds::Hash::operator()(const View &v) const {
    const auto &[url, scope_name, name] = v;
    std::hash<std::string_view> hash;
    return (HashText(url) * 1000003 ^ hash(scope_name)) * 1000003 ^ hash(name);
}

BindingDep BindingIds::Id(std::string_view url, std::string_view scope_name, std::string_view name) {
    auto it = fIds.find(View(url, scope_name, name));
    if (it == fIds.end()) {
        it = fIds.emplace(Binding(url, scope_name, name), static_cast<BindingDep>(fBindings.size())).first;
        fBindings.push_back(&it->first);
    }
    return it->second;
}

void CEvaluator::DependOn(std::string_view url, std::string_view scope_name, std::string_view name) {
    if (!fDepFrames.empty())
        DependOn(fMemo.binding_ids.Id(url, scope_name, name));
}

void CEvaluator::DependOn(BindingDep dep) {
    if (fDepFrames.empty())
        return;
    BindingDeps &deps = fDepFrames.back();
    if (std::find(deps.begin(), deps.end(), dep) == deps.end())
        deps.push_back(dep);
}

void CEvaluator::DependOnScope(nb::handle scope, std::string_view name) {
    if (!fDepFrames.empty())
        DependOn(UrlOf(ScopeLoc(scope)), ScopeName(scope), name);
}

void CEvaluator::DependOnAll(const BindingDeps &deps) {
    for (BindingDep dep : deps)
        DependOn(dep);
}

const std::string &CEvaluator::DepsSignature(const BindingDeps &deps) {
    static const std::string kNoBindings;
    if (deps.empty())
        return kNoBindings;
    if (fDepsSignaturesKept >= kMaxDepsSignaturesKept) {
        fDepsSignatures.clear();
        fDepsSignaturesKept = 0;
    }
    auto &of_version = fDepsSignatures[fBindingVersion];
    auto kept = of_version.find(deps);
    if (kept == of_version.end()) {
        kept = of_version.emplace(deps, ComputeDepsSignature(deps)).first;
        ++fDepsSignaturesKept;
    }
    return kept->second;
}

std::string CEvaluator::ComputeDepsSignature(const BindingDeps &deps) {
    std::string signature;
    for (BindingDep dep : deps) {
        signature.push_back('|');
        signature.append(std::to_string(dep)).push_back(':');
        if (dep == kClassMapsDep) {
            AppendClassMapsSignature(signature);
            continue;
        }
        const auto &binding = fMemo.binding_ids.Of(dep);
        const auto &[url, scope_name, name] = binding;
        if (!name.empty()) {
            auto bound = fBoundNames.find(binding);
            if (bound != fBoundNames.end())
                AppendValuesSignature(signature, bound->second);
            continue;
        }
        using View = std::tuple<std::string_view, std::string_view, std::string_view>;
        for (auto it = fBoundNames.lower_bound(View(url, scope_name, std::string_view()));
             it != fBoundNames.end() && std::get<0>(it->first) == url && std::get<1>(it->first) == scope_name; ++it) {
            signature.append(std::get<2>(it->first));
            AppendValuesSignature(signature, it->second);
        }
    }
    if (PyErr_Occurred())
        throw nb::python_error();
    return signature;
}

ValueSet CEvaluator::ScopeObject(nb::handle scope) {
    ValueSet out;
    nb::object loc = ScopeLoc(scope);
    std::string_view name = ScopeName(scope);
    if (name.empty()) {
        out.Add(ModuleSingle(loc, ""));
        return out;
    }
    bool instance = si::IsInstanceScope(name);
    std::string owner = instance ? std::string(name.substr(0, name.size() - si::kClassInstanceSuffix.size()))
                                 : std::string(name);
    nb::object record = RecordOf(ScopeAt(loc, owner));
    if (record.is_none())
        return out;
    std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
    si::Kind kind = si::GetInfoBytesKind(own);
    if (kind == si::kClassKind) {
        nb::object cls = ClassSingle(loc, own);
        if (instance)
            return InstanceOf(cls, nb::none());
        out.Add(cls);
    } else if (si::IsDefKind(kind)) {
        out.Add(DefSingle(loc, own, kind));
    }
    return out;
}

ValueSet CEvaluator::Eval(const Tree &tree, std::int32_t node, const Frame &frame) {
    ValueSet out;
    if (node < 0 || Stop())
        return out;
    const Node &n = tree.nodes[(std::size_t) node];
    switch (n.kind) {
    case NodeKind::kName:
        return EvalName(TokText(tree, n.aux), frame);
    case NodeKind::kConstant:
        return EvalConstant(tree, n);
    case NodeKind::kString:
        return EvalString(tree, n);
    case NodeKind::kAttribute: {
        std::string_view attr = TokText(tree, n.aux);
        ValueSet base = Eval(tree, tree.Kid(n, 0), frame);
        // `self.x` read after the same body set it: what it set, as for a
        // name.  (The base is read first: its scope's record is then in hand.)
        if (std::string dotted = DottedText(tree, node); !dotted.empty() && frame.use_index >= 0 &&
                                                         AttributeSetBefore(frame.scope, dotted, frame.use_index, out))
            return out;
        for (const nb::object &single : base.Items())
            out.Merge(Attribute(single, attr));
        return out;
    }
    case NodeKind::kCall:
        return EvalCall(tree, n, frame);
    case NodeKind::kSubscript:
        return EvalSubscript(tree, n, frame);
    case NodeKind::kTuple:
    case NodeKind::kList:
    case NodeKind::kSet:
    case NodeKind::kDict:
        return EvalDisplay(tree, n, frame);
    case NodeKind::kListComp:
    case NodeKind::kSetComp:
    case NodeKind::kDictComp:
    case NodeKind::kGenExp:
        return EvalComprehension(tree, n, frame);
    case NodeKind::kBinOp:
        return EvalBinOp(tree, n, frame);
    case NodeKind::kUnaryOp:
        if (TokText(tree, FirstTokInParens(tree, n)) == "not") {
            out.Add(LiteralSingle("bool", std::nullopt));
            return out;
        }
        return EvalSignedLiteral(TokText(tree, FirstTokInParens(tree, n)), Eval(tree, tree.Kid(n, 0), frame));
    case NodeKind::kBoolOp: {
        // `a or b` gives a only when it is true: never a None.
        bool is_or = n.kids_count > 1 && TokText(tree, tree.nodes[(std::size_t) tree.Kid(n, 0)].tok_end) == "or";
        for (std::int32_t i = 0; i < n.kids_count; ++i)
            for (const nb::object &v : Eval(tree, tree.Kid(n, i), frame).Items())
                if (!(is_or && i + 1 < n.kids_count && IsNoneLiteral(v)))
                    out.Add(v);
        return out;
    }
    case NodeKind::kCompare:
        out.Add(LiteralSingle("bool", std::nullopt));
        return out;
    case NodeKind::kIfExp: {
        // A branch whose test can't come out that way for a name it tests gives nothing.
        std::int32_t test = tree.Kid(n, 1);
        if (TestCanBe(tree, test, frame, true))
            out.Merge(Eval(tree, tree.Kid(n, 0), frame));
        if (TestCanBe(tree, test, frame, false))
            out.Merge(Eval(tree, tree.Kid(n, 2), frame));
        return out;
    }
    case NodeKind::kNamedExpr:
        return Eval(tree, tree.Kid(n, 1), frame);
    case NodeKind::kAwait:
        return Awaited(Eval(tree, tree.Kid(n, 0), frame));
    case NodeKind::kYieldFrom:
        // `yield from g` gives what the generator g finishes with.
        for (const nb::object &v : Eval(tree, tree.Kid(n, 0), frame).Items()) {
            nb::object cls = Single(v)->IsInstance(false) ? ClassOfInstance(v) : nb::object();
            if (cls.is_valid() && !cls.is_none() && NameOf(Single(cls)) == "Generator")
                MergeFinishedWith(v, out);
        }
        return out;
    case NodeKind::kStarred:
        return Eval(tree, tree.Kid(n, 0), frame);
    case NodeKind::kLambda: {
        // A lambda is its text, read where it stands; calling it reads its
        // body with the parameters bound (CallLambda).
        std::string text = tree.NodeText(node);
        std::string ibytes = si::BuildFieldsInfo(si::kExpressionEquivKind, {si::OptView(text)});
        auto *scope = nb::cast<si::CScope *>(frame.scope);
        out.Add(nb::cast(nb::ref<si::CSingleResolvedInfo>(
            new si::CSingleResolvedInfo(si::ToBytes(ibytes), scope, scope->loc))));
        return out;
    }
    case NodeKind::kYield: {
        // What is sent in: the second type argument of the generator the
        // def's return hint names.
        nb::object record = RecordOf(frame.scope);
        if (record.is_none())
            return out;
        std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
        if (!si::IsDefKind(si::GetInfoBytesKind(own)))
            return out;
        const auto def_held = DefInfoOf(own);
        const si::DefInfo &def = *def_held;
        if (!def.return_hint)
            return out;
        nb::object def_line = ScopeAt(ScopeLoc(frame.scope), si::DefLineScope(ScopeName(frame.scope)));
        for (const nb::object &gen : ResolveHintText(def_line, *def.return_hint, nullptr).Items()) {
            si::CSingleResolvedInfo *g = Single(gen);
            nb::object cls = ClassOfInstance(gen);
            if (cls.is_none() || g->fTypeArgs.is_none() || PyTuple_GET_SIZE(g->fTypeArgs.ptr()) < 2)
                continue;
            std::string_view name = NameOf(Single(cls));
            if (name == "Generator" || name == "AsyncGenerator")
                out.Merge(ValueSet::FromIterable(PyTuple_GET_ITEM(g->fTypeArgs.ptr(), 1)));
        }
        return out;
    }
    default:
        return out;  // slices: nothing known
    }
}

ValueSet CEvaluator::CallLambda(nb::handle lambda, const std::vector<ValueSet> &args,
                                const std::vector<std::pair<std::string, ValueSet>> &kwargs) {
    ValueSet out;
    si::CSingleResolvedInfo *l = Single(lambda);
    si::UnpackedFields f = si::UnpackFields(si::TextView(l->ibytes, "ibytes"));
    if (f.fields.empty() || !f.fields[0])
        return out;
    const auto parsed = ParseText(*f.fields[0]);
    const Tree &tree = parsed->tree;
    std::int32_t root = parsed->root;
    if (root < 0 || tree.nodes[(std::size_t) root].kind != NodeKind::kLambda)
        return out;
    const Node &n = tree.nodes[(std::size_t) root];
    Locals locals;
    nb::object scope = nb::cast(l->scope);
    Frame outer{scope, -2, nullptr, nullptr};
    std::int32_t params = tree.Kid(n, 0);
    // A lambda read as a method gets what it is bound to first.
    std::vector<ValueSet> given;
    if (!l->fBoundTo.is_none()) {
        given.emplace_back();
        given.back().Add(l->fBoundTo);
    }
    given.insert(given.end(), args.begin(), args.end());
    std::size_t position = 0;
    if (params >= 0) {
        const Node &ps = tree.nodes[(std::size_t) params];
        std::set<std::string> named;
        for (std::int32_t i = 0; i < ps.kids_count; ++i)
            named.insert(std::string(TokText(tree, tree.nodes[(std::size_t) tree.Kid(ps, i)].aux)));
        for (std::int32_t i = 0; i < ps.kids_count; ++i) {
            const Node &p = tree.nodes[(std::size_t) tree.Kid(ps, i)];
            std::string name(TokText(tree, p.aux));
            ValueSet value;
            if (p.param_kind <= pgen::kNormal && position < given.size())
                value = given[position++];
            if (p.param_kind == pgen::kVarArgs) {
                // *args: a tuple of the positions left.
                nb::object tuple_cls = BuiltinClass("tuple");
                nb::list items;
                for (; position < given.size(); ++position)
                    items.append(given[position].AsFrozenSet());
                if (!tuple_cls.is_none())
                    value = InstanceOf(tuple_cls, nb::tuple(items));
            } else if (p.param_kind == pgen::kVarKeywords) {
                // **kwargs: a dict of the keywords no other parameter takes.
                Keywords rest;
                for (const auto &[kw, kw_value] : kwargs)
                    if (!named.count(kw))
                        rest.emplace_back(kw, kw_value);
                value = KeywordsDictByName(rest);
            }
            for (const auto &[kw, kw_value] : kwargs)
                if (kw == name && p.param_kind != pgen::kVarKeywords)
                    value = kw_value;
            if (value.Empty() && tree.Kid(p, 1) >= 0)
                value = Eval(tree, tree.Kid(p, 1), outer);
            locals.emplace_back(name, value);
        }
    }
    Frame inner{scope, -2, nullptr, &locals};
    ++fDepth;
    out = Eval(tree, tree.Kid(n, 1), inner);
    --fDepth;
    return out;
}

ValueSet CEvaluator::EvalName(std::string_view name, const Frame &frame) {
    if (name == si::kTypingModuleSymbolStr) {
        // Hints written by the scan name the typing module by this symbol.
        ValueSet out;
        nb::object typing = ImportModule("typing", nb::none());
        if (!typing.is_none())
            out.Add(ModuleSingle(typing, "typing"));
        return out;
    }
    if (frame.locals)
        for (auto it = frame.locals->rbegin(); it != frame.locals->rend(); ++it)
            if (it->first == name)
                return it->second;
    return LookupName(frame.scope, name, frame.use_index);
}

ValueSet CEvaluator::EvalConstant(const Tree &tree, const Node &n) {
    ValueSet out;
    std::string_view text = TokText(tree, FirstTokInParens(tree, n));
    if (text == "None")
        out.Add(LiteralSingle("None", std::nullopt));
    else if (text == "True" || text == "False")
        out.Add(LiteralSingle("bool", std::string(text)));
    else if (text == "...")
        out.Add(LiteralSingle("ellipsis", std::nullopt));
    else if (!text.empty() && (text.back() == 'j' || text.back() == 'J'))
        out.Add(LiteralSingle("complex", std::nullopt));
    else if (si::IsFloat(text))
        out.Add(LiteralSingle("float", std::nullopt));
    else if (!text.empty()) {
        // A plain decimal keeps its value, for Literal[...] parameters.
        bool decimal = text.size() <= 18 && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
        out.Add(LiteralSingle("int", decimal ? std::optional<std::string>(std::string(text)) : std::nullopt));
    }
    return out;
}

ValueSet CEvaluator::EvalSignedLiteral(std::string_view op, const ValueSet &operand) {
    ValueSet out;
    for (const nb::object &v : operand.Items()) {
        std::string_view bare = Single(v)->Bare();
        si::LiteralInfo lit;
        if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind)
            lit = si::UnpackLiteralInfo(bare);
        if (lit.class_name != "int" && lit.class_name != "bool") {
            out.Add(v);
            continue;
        }
        std::optional<std::string> value;
        if (lit.value && op != "~") {
            value = lit.class_name == "bool" ? std::string(*lit.value == "True" ? "1" : "0") : *lit.value;
            if (op == "-" && *value != "0")
                value = value->front() == '-' ? value->substr(1) : "-" + *value;
        }
        out.Add(LiteralSingle("int", value));
    }
    return out;
}

ValueSet CEvaluator::Awaited(const ValueSet &values) {
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        ValueSet one, awaited;
        one.Add(v);
        if (Single(v)->IsInstance(true))
            for (const nb::object &gen : CallDunder(one, "__await__", {}).Items())
                MergeFinishedWith(gen, awaited);
        out.Merge(awaited.Empty() ? one : awaited);
    }
    return out;
}

std::vector<std::string> CEvaluator::AttributeNamesOf(const Tree &tree, std::int32_t arg, const Frame &frame) {
    std::vector<std::string> names;
    std::string_view written;
    if (tree.nodes[(std::size_t) arg].kind == NodeKind::kString) {
        if (pgen::StringAnnotationText(tree, arg, written) && !written.empty())
            names.emplace_back(written);
        return names;
    }
    for (const nb::object &v : Eval(tree, arg, frame).Items()) {
        std::string_view bare = Single(v)->Bare();
        if (si::GetInfoBytesKind(bare) != si::kTypedLiteralKind)
            return {};
        si::LiteralInfo lit = si::UnpackLiteralInfo(bare);
        if (lit.class_name != "str" || !lit.value || !si::IsSingleNameToken(*lit.value))
            return {};
        names.push_back(*lit.value);
    }
    return names;
}

std::optional<long long> CEvaluator::ConstantInt(const ValueSet &values) {
    if (values.Size() != 1)
        return std::nullopt;
    std::string_view bare = Single(values.Items()[0])->Bare();
    if (si::GetInfoBytesKind(bare) != si::kTypedLiteralKind)
        return std::nullopt;
    si::LiteralInfo lit = si::UnpackLiteralInfo(bare);
    if (lit.class_name != "int" || !lit.value)
        return std::nullopt;
    return std::stoll(*lit.value);
}

ValueSet CEvaluator::JoinedTuples(const ValueSet &left, const ValueSet &right) {
    ValueSet out;
    nb::object tuple_cls = BuiltinClass("tuple");
    if (tuple_cls.is_none())
        return out;
    nb::object builtins = fLocCache.attr("GetBuiltinLoc")();
    auto plain_tuple = [&](const nb::object &v) {
        si::CSingleResolvedInfo *s = Single(v);
        return s->IsInstance(true) && NameOf(s) == "tuple" && s->loc.is(builtins);
    };
    for (const nb::object &l : left.Items())
        for (const nb::object &r : right.Items()) {
            std::vector<nb::object> first, second;
            if (!plain_tuple(l) || !plain_tuple(r) || !TuplePositions(l, first) || !TuplePositions(r, second))
                return ValueSet();
            nb::list positions;
            for (const std::vector<nb::object> *side : {&first, &second})
                for (const nb::object &p : *side)
                    positions.append(p);
            out.Merge(InstanceOf(tuple_cls, nb::tuple(positions)));
        }
    return out;
}

ValueSet CEvaluator::EvalString(const Tree &tree, const Node &n) {
    ValueSet out;
    std::int32_t first = FirstTokInParens(tree, n);
    std::string_view text = TokText(tree, first);
    bool is_bytes = false;
    for (char c : text) {
        if (c == '"' || c == '\'')
            break;
        is_bytes = is_bytes || c == 'b' || c == 'B';
    }
    // A short plain literal keeps its value, for Literal[...] parameters
    // and display keys: pieces written side by side join, and an `r` or `u`
    // prefix doesn't change a value without backslashes.
    std::optional<std::string> value;
    std::int32_t end = n.tok_end - (first - n.tok_begin);
    if (!is_bytes) {
        value = std::string();
        for (std::int32_t t = first; t < end && value; ++t) {
            std::string_view piece = TokText(tree, t);
            std::size_t quote = piece.find_first_of("\"'");
            bool plain_prefix = quote != std::string_view::npos &&
                                piece.substr(0, quote).find_first_not_of("rRuU") == std::string_view::npos;
            if (!plain_prefix || !IsPlainShortLiteral(piece.substr(quote)) ||
                value->size() + piece.size() > 42)
                value = std::nullopt;
            else
                *value += piece.substr(quote + 1, piece.size() - quote - 2);
        }
    }
    out.Add(LiteralSingle(is_bytes ? "bytes" : "str", value));
    return out;
}

ValueSet CEvaluator::EvalCall(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    std::int32_t callee_node = tree.Kid(n, 0);
    ValueSet callees = Eval(tree, callee_node, frame);
    if (callees.Empty())
        return out;
    std::vector<ValueSet> args;
    std::vector<std::pair<std::string, ValueSet>> kwargs;
    std::int32_t first_arg = -1;
    bool args_done = false;
    bool keywords_known = true;
    auto arguments = [&]() {
        if (args_done)
            return;
        args_done = true;
        keywords_known = CallArguments(
            tree, n, [&](std::int32_t kid) { return Eval(tree, kid, frame); }, args, kwargs, frame.scope);
    };
    if (n.kids_count > 1)
        first_arg = tree.Kid(n, 1);
    ValueSet calls;
    for (const nb::object &callee : callees.Items()) {
        si::CSingleResolvedInfo *c = Single(callee);
        if (ValueSet made = MadeClass(tree, n, frame, callee); !made.Empty()) {
            out.Merge(made);
            continue;
        }
        std::string form = c->IsClass() ? SpecialFormOf(callee) : std::string();
        // TypeVar("T"): a type variable named by its first argument.
        if ((form == "TypeVar" || form == "ParamSpec" || form == "TypeVarTuple") && first_arg >= 0 &&
            tree.nodes[(std::size_t) first_arg].kind == NodeKind::kString) {
            std::string_view literal;
            if (pgen::StringAnnotationText(tree, first_arg, literal)) {
                nb::object module_scope = ModuleScopeOf(ScopeLoc(frame.scope));
                std::string_view scope_name = ScopeName(frame.scope);
                // TypeVar("T", bound=B) or TypeVar("T", A, B): the bound, or
                // the constraints as a declaration writes them; default=D.
                std::optional<std::string> bound, default_text;
                std::vector<std::string> constraints;
                for (std::int32_t i = 2; i < n.kids_count; ++i) {
                    std::int32_t kid = tree.Kid(n, i);
                    if (kid < 0)
                        continue;
                    const Node &k = tree.nodes[(std::size_t) kid];
                    if (k.kind == NodeKind::kKeyword && k.aux >= 0 && TokText(tree, k.aux) == "bound")
                        bound = tree.NodeText(tree.Kid(k, 0));
                    else if (k.kind == NodeKind::kKeyword && k.aux >= 0 && TokText(tree, k.aux) == "default")
                        default_text = tree.NodeText(tree.Kid(k, 0));
                    else if (k.kind != NodeKind::kKeyword && k.kind != NodeKind::kStarred &&
                             k.kind != NodeKind::kDoubleStarred)
                        constraints.push_back(tree.NodeText(kid));
                }
                if (!constraints.empty()) {
                    bound = "(";
                    for (const std::string &c : constraints)
                        *bound += (bound->size() > 1 ? ", " : "") + c;
                    *bound += ")";
                }
                out.Add(TypeParamSingle(scope_name.empty() ? module_scope : frame.scope, literal, form, bound,
                                        default_text));
            }
            continue;
        }
        // NewType("N", T): a type that a checker takes for a subclass of T
        // with nothing added; read as T, its calls and hints give T's instances.
        if (form == "NewType" && n.kids_count >= 3 && tree.Kid(n, 2) >= 0 &&
            tree.nodes[(std::size_t) tree.Kid(n, 2)].kind != NodeKind::kKeyword) {
            for (const nb::object &base : Eval(tree, tree.Kid(n, 2), frame).Items())
                if (Single(base)->IsClass())
                    out.Add(base);
            continue;
        }
        if (c->IsClass() && !form.empty() && form != "Callable")
            continue;  // other forms are not called for values; a Callable[..., R] gives R
        if (c->IsClass()) {
            std::string_view name = si::TextView(c->scope->name, "name");
            nb::object builtins = BuiltinLoc();
            if (c->loc.is(builtins) && name == "type" && n.kids_count == 2) {
                // type(x): the class of x; of a class, its metaclass.
                arguments();
                if (!args.empty())
                    for (const nb::object &v : args[0].Items()) {
                        nb::object cls = Single(v)->IsClass() ? MetaclassOf(v) : ClassOfInstance(v);
                        if (!cls.is_none())
                            out.Add(cls);
                        else if (Single(v)->IsClass())
                            out.Add(callee);
                    }
                continue;
            }
            if (c->loc.is(builtins) && name == "super") {
                // super() in a method: the instance seen as its first base.
                std::string_view scope_name = ScopeName(frame.scope);
                nb::object cls_scope = ScopeAt(ScopeLoc(frame.scope), si::ParentScopeName(scope_name));
                if (ScopeKindOf(cls_scope) == "class") {
                    std::string_view own = si::BareSingle(si::TextView(RecordOf(cls_scope).attr("ibytes"), "ibytes"));
                    std::vector<MroEntry> mro = Mro(ClassSingle(ScopeLoc(frame.scope), own), {});
                    if (mro.size() > 1)
                        out.Merge(InstanceOf(mro[1].cls, nb::none()));
                }
                continue;
            }
        }
        if (c->IsDef() && form.empty()) {
            std::string_view def_name = si::TextView(c->scope->name, "name");
            // getattr(x, "name"[, default]): the attribute x.name (or the default).
            std::vector<std::string> attributes;
            if (def_name == "getattr" && c->loc.is(BuiltinLoc()) && (n.kids_count == 3 || n.kids_count == 4))
                attributes = AttributeNamesOf(tree, tree.Kid(n, 2), frame);
            if (!attributes.empty()) {
                ValueSet found;
                ValueSet objects = Eval(tree, first_arg, frame);
                for (const std::string &attribute : attributes)
                    for (const nb::object &v : objects.Items())
                        found.Merge(Attribute(v, attribute));
                if (!found.Empty()) {
                    out.Merge(found);
                    if (n.kids_count == 4)
                        out.Merge(Eval(tree, tree.Kid(n, 3), frame));
                    continue;
                }
            }
            // typing.cast(T, value): the type T.
            if (def_name == "cast" && first_arg >= 0 && !SpecialFormOf(callee).size() &&
                fLocCache.attr("IsTypingLoc")(c->loc).equal(nb::bool_(true))) {
                out.Merge(EvalType(tree, first_arg, frame));
                continue;
            }
        }
        calls.Add(callee);
    }
    // Arguments are read only when some callee's answer can depend on them:
    // a hinted def's return mostly says what it gives whatever it is passed.
    const auto &callables = calls.Items();
    if (std::any_of(callables.begin(), callables.end(), [&](const nb::object &callee) { return CallNeedsArguments(callee); }))
        arguments();
    const Keywords *known = keywords_known ? &kwargs : nullptr;
    bool fitted = true;
    ValueSet selected = SelectOverloads(calls, args, known, &fitted);
    // An argument that may be of several types no one overload takes: each
    // of its types picks its overload, as a type checker expands a union.
    auto split = std::find_if(args.begin(), args.end(), [](const ValueSet &a) { return a.Size() > 1; });
    if (!fitted && split != args.end()) {
        ValueSet expanded;
        std::vector<ValueSet> one_args = args;
        ValueSet &one = one_args[(std::size_t) (split - args.begin())];
        bool every_fitted = true;
        for (const nb::object &v : split->Items()) {
            one = ValueSet();
            one.Add(v);
            ValueSet chosen = SelectOverloads(calls, one_args, known, &every_fitted);
            if (!every_fitted)
                break;
            for (const nb::object &callee : chosen.Items())
                expanded.Merge(CallWithArguments(callee, one_args, kwargs, frame, keywords_known));
        }
        if (every_fitted) {
            out.Merge(expanded);
            return out;
        }
    }
    for (const nb::object &callee : selected.Items())
        out.Merge(CallWithArguments(callee, args, kwargs, frame, keywords_known));
    return out;
}

bool CEvaluator::CallArguments(const Tree &tree, const Node &n, const std::function<ValueSet(std::int32_t)> &value_of,
                               std::vector<ValueSet> &args, Keywords &kwargs, nb::handle scope) {
    bool keywords_known = true;
    for (std::int32_t i = 1; i < n.kids_count; ++i) {
        std::int32_t kid = tree.Kid(n, i);
        if (kid < 0)
            continue;
        const Node &k = tree.nodes[(std::size_t) kid];
        if (k.kind == NodeKind::kKeyword) {
            if (k.aux < 0)
                keywords_known = false;  // **mapping
            if (k.aux >= 0)
                kwargs.emplace_back(std::string(TokText(tree, k.aux)), value_of(tree.Kid(k, 0)));
        } else if (k.kind == NodeKind::kDoubleStarred && KeywordsPassedOn(tree, tree.Kid(k, 0), scope, kwargs)) {
            continue;
        } else if (k.kind == NodeKind::kDoubleStarred && KeywordsOfDisplay(value_of(tree.Kid(k, 0)), kwargs)) {
            continue;
        } else if (k.kind == NodeKind::kStarred || k.kind == NodeKind::kDoubleStarred) {
            // `*t` passes one by one the items of one tuple whose positions
            // are known (a display, a name set to one, `*args` passed on), or
            // of a list display written there; a list a name holds may have
            // grown since its display.
            std::vector<ValueSet> items;
            std::int32_t inner = k.kind == NodeKind::kStarred ? tree.Kid(k, 0) : -1;
            const Node *in = inner >= 0 ? &tree.nodes[(std::size_t) inner] : nullptr;
            if (in && (in->kind == NodeKind::kTuple || in->kind == NodeKind::kList || in->kind == NodeKind::kName)) {
                ValueSet star = value_of(inner);
                std::vector<nb::object> positions;
                if (star.Size() == 1 && (in->kind == NodeKind::kList ? ItemsByPosition(star.Items()[0], items)
                                                                       : TuplePositions(star.Items()[0], positions))) {
                    for (const nb::object &position : positions)
                        items.push_back(ValueSet::FromIterable(position));
                    args.insert(args.end(), items.begin(), items.end());
                    continue;
                }
            }
            keywords_known = false;
            break;  // positions after *args are unknown
        } else {
            args.push_back(value_of(kid));
        }
    }
    return keywords_known;
}

std::string CEvaluator::KeywordsBindingName(std::string_view param, std::string_view keyword) {
    std::string name("**");
    name.append(param);
    if (!keyword.empty())
        name.append(".").append(keyword);
    return name;
}

bool CEvaluator::KeywordsOfDisplay(const ValueSet &mapping, Keywords &kwargs) {
    if (mapping.Size() != 1)
        return false;
    nb::handle display = Single(mapping.Items()[0])->fDisplayItems;
    if (display.is_none() || !PyTuple_Check(display.ptr()) || PyTuple_GET_SIZE(display.ptr()) == 0)
        return false;
    Keywords found;
    for (nb::handle item : nb::borrow<nb::tuple>(display)) {
        if (!PyTuple_Check(item.ptr()))
            return false;  // a list's items
        std::string_view key = si::TextView(item[0], "display key");
        if (si::GetInfoBytesKind(key) != si::kTypedLiteralKind)
            return false;
        si::LiteralInfo lit = si::UnpackLiteralInfo(key);
        if (lit.class_name != "str" || !lit.value || !si::IsSingleNameToken(*lit.value))
            return false;
        found.emplace_back(*lit.value, ValueSet::FromIterable(item[1]));
    }
    kwargs.insert(kwargs.end(), found.begin(), found.end());
    return true;
}

bool CEvaluator::KeywordsPassedOn(const Tree &tree, std::int32_t node, nb::handle scope, Keywords &kwargs) {
    if (!scope.is_valid() || node < 0 || tree.nodes[(std::size_t) node].kind != NodeKind::kName)
        return false;
    std::string_view name = TokText(tree, tree.nodes[(std::size_t) node].aux);
    if (!BoundValuesOf(scope, KeywordsBindingName(name)))
        return false;
    // A mapping the body changes (`kwargs.pop(k)`, `kwargs[k] = v`, set
    // again) no longer holds just what the call passed.
    nb::object record = RecordOf(scope);
    nb::object entry = record.is_none() ? nb::object() : InfoBytesOf(record, name);
    if (!entry.is_valid() || entry.is_none() || !UsesOf(record, name).empty())
        return false;
    const auto &pieces = EntryOf(si::TextView(entry, "ibytes"))->pieces;
    if (std::any_of(pieces.begin(), pieces.end(),
                    [](const EntryPiece &p) { return p.index && *p.index >= 0 && SaysValue(p.bare_kind); }))
        return false;
    DependOnScope(scope);  // the keywords are bindings of the scope
    const std::string &url = UrlOf(ScopeLoc(scope));
    const std::string scope_name(ScopeName(scope));
    const std::string prefix = KeywordsBindingName(name, "") + ".";
    for (auto it = fBoundNames.lower_bound({url, scope_name, prefix}); it != fBoundNames.end(); ++it) {
        const auto &[bound_url, bound_scope, bound_name] = it->first;
        if (bound_url != url || bound_scope != scope_name || bound_name.compare(0, prefix.size(), prefix) != 0)
            break;
        kwargs.emplace_back(bound_name.substr(prefix.size()), it->second);
    }
    return true;
}

ValueSet CEvaluator::CallWithArguments(nb::handle callee, const std::vector<ValueSet> &args,
                                       const std::vector<std::pair<std::string, ValueSet>> &kwargs, const Frame &frame,
                                       bool whole) {
    fArgumentsWhole = whole;
    ValueSet out = CallValue(callee, args, kwargs, frame);
    fArgumentsWhole = false;
    return out;
}

ValueSet CEvaluator::EvalSubscript(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    ValueSet base = Eval(tree, tree.Kid(n, 0), frame);
    std::int32_t slice = tree.Kid(n, 1);
    if (slice < 0 || base.Empty())
        return out;
    const Node &s = tree.nodes[(std::size_t) slice];
    if (s.kind == NodeKind::kName && TokText(tree, s.aux) == kIterMarker)
        return IterItems(base);
    ValueSet index;
    bool index_done = false;
    for (const nb::object &value : base.Items()) {
        si::CSingleResolvedInfo *v = Single(value);
        if (v->IsClass() && SpecialFormOf(value).empty() && OrderedTypeVars(value).empty()) {
            // A class that isn't generic, subscripted: its metaclass's
            // __getitem__ (an enumeration's member by name).
            ValueSet one;
            one.Add(value);
            ValueSet got = CallDunder(one, "__getitem__", {Eval(tree, slice, frame)});
            if (!got.Empty()) {
                out.Merge(got);
                continue;
            }
        }
        if (v->IsClass()) {
            // A generic alias in an expression: list[int], Optional[X];
            // Literal[...] holds values, not types.
            std::vector<ValueSet> args;
            if (SpecialFormOf(value) == "Literal") {
                ValueSet literals;
                std::vector<std::int32_t> items;
                if (s.kind == NodeKind::kTuple)
                    for (std::int32_t i = 0; i < s.kids_count; ++i)
                        items.push_back(tree.Kid(s, i));
                else
                    items.push_back(slice);
                for (std::int32_t item : items)
                    literals.Merge(Eval(tree, item, frame));
                args.push_back(literals);
            } else {
                TypeArgsOf(tree, slice, frame, args);
            }
            out.Add(WithTypeArgs(value, args));
            continue;
        }
        // A tuple of known positions sliced by constants: the positions kept.
        if (s.kind == NodeKind::kSlice && s.kids_count == 3 && tree.Kid(s, 2) < 0) {
            // Bounds written as numbers only: anything else isn't evaluated.
            auto bound = [&](std::int32_t kid, long long absent) -> std::optional<long long> {
                if (kid < 0)
                    return absent;
                const Node &b = tree.nodes[(std::size_t) kid];
                if (b.kind != NodeKind::kConstant && b.kind != NodeKind::kUnaryOp)
                    return std::nullopt;
                return ConstantInt(Eval(tree, kid, frame));
            };
            std::optional<long long> lower = bound(tree.Kid(s, 0), 0);
            std::optional<long long> upper = bound(tree.Kid(s, 1), LLONG_MAX);
            nb::object tuple_cls = BuiltinClass("tuple");
            std::vector<nb::object> positions;
            if (lower && upper && !tuple_cls.is_none() && TuplePositions(value, positions)) {
                long long size = (long long) positions.size();
                auto clamp = [size](long long i) { return std::clamp(i < 0 ? i + size : i, 0LL, size); };
                nb::list kept;
                for (long long i = clamp(*lower); i < clamp(*upper); ++i)
                    kept.append(positions[(std::size_t) i]);
                out.Merge(InstanceOf(tuple_cls, nb::tuple(kept)));
                continue;
            }
        }
        // An index written as a number.
        bool constant_index = false;
        if (s.kind != NodeKind::kSlice) {
            std::string_view text = TokText(tree, s.tok_begin);
            bool negative = s.kind == NodeKind::kUnaryOp && text == "-";
            if (negative)
                text = TokText(tree, s.tok_begin + 1);
            constant_index = s.tok_end - s.tok_begin == (negative ? 2 : 1) && !text.empty() &&
                             std::all_of(text.begin(), text.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
        }
        if (!index_done) {
            index = Eval(tree, slice, frame);
            if (s.kind == NodeKind::kSlice) {
                nb::object slice_cls = BuiltinClass("slice");
                if (!slice_cls.is_none())
                    index = InstanceOf(slice_cls, nb::none());
            }
            index_done = true;
        }
        if (constant_index && v->IsInstance(false)) {
            // An item by position of a value that has none, as an unpacking
            // reads its targets (`a, b = gen()`): its items by iteration.
            // (A generator whose items are known one by one gives the one
            // at that position.)
            nb::object cls = ClassOfInstance(value);
            std::optional<ValueSet> item = DisplayItem(value, index);
            if (item) {
                out.Merge(*item);
                continue;
            }
            // A dict display that has no such key: an unpacking of its keys
            // (`a, b = {"k": 1, "j": 2}`), as a subscript would raise.
            if (HoldsDictDisplay(value) || (!cls.is_none() &&
                                 ClassAttribute(cls, "__getitem__", value, MapOfInstance(value), true).Empty())) {
                ValueSet one;
                one.Add(value);
                out.Merge(IterItems(one));
                continue;
            }
        }
        out.Merge(ItemOf(value, index));
    }
    return out;
}

ValueSet CEvaluator::ItemOf(nb::handle value, const ValueSet &index) {
    // A display's item by a constant position or key (`[1, ''][0]`,
    // `{'a': 1}[k]` with k = 'a'), and a tuple's by a constant position.
    std::optional<ValueSet> item = DisplayItem(value, index);
    std::optional<long long> at = ConstantInt(index);
    std::vector<nb::object> positions;
    if (!item && at && TuplePositions(value, positions)) {
        long long size = (long long) positions.size();
        long long i = *at < 0 ? *at + size : *at;
        if (i >= 0 && i < size)
            item = ValueSet::FromIterable(positions[(std::size_t) i]);
    }
    if (item)
        return *item;
    // A TypedDict's key written as a string.
    if (index.Size() == 1) {
        std::string_view bare = Single(index.Items()[0])->Bare();
        if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind) {
            si::LiteralInfo lit = si::UnpackLiteralInfo(bare);
            if (lit.class_name == "str" && lit.value) {
                ValueSet keyed = TypedDictItem(value, *lit.value);
                if (!keyed.Empty())
                    return keyed;
            }
        }
    }
    ValueSet one;
    one.Add(value);
    return CallDunder(one, "__getitem__", {index});
}

ValueSet CEvaluator::EvalBinOp(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    std::int32_t left_node = tree.Kid(n, 0);
    std::int32_t right_node = tree.Kid(n, 1);
    if (left_node < 0 || right_node < 0)
        return out;
    std::string_view op = TokText(tree, tree.nodes[(std::size_t) left_node].tok_end);
    static const std::pair<std::string_view, std::pair<std::string_view, std::string_view>> kDunders[] = {
        {"+", {"__add__", "__radd__"}},      {"-", {"__sub__", "__rsub__"}},
        {"*", {"__mul__", "__rmul__"}},      {"/", {"__truediv__", "__rtruediv__"}},
        {"//", {"__floordiv__", "__rfloordiv__"}}, {"%", {"__mod__", "__rmod__"}},
        {"**", {"__pow__", "__rpow__"}},     {"@", {"__matmul__", "__rmatmul__"}},
        {"&", {"__and__", "__rand__"}},      {"|", {"__or__", "__ror__"}},
        {"^", {"__xor__", "__rxor__"}},      {"<<", {"__lshift__", "__rlshift__"}},
        {">>", {"__rshift__", "__rrshift__"}},
    };
    const std::pair<std::string_view, std::string_view> *dunder = nullptr;
    for (const auto &row : kDunders)
        if (row.first == op)
            dunder = &row.second;
    if (!dunder)
        return out;
    ValueSet left = Eval(tree, left_node, frame);
    ValueSet right = Eval(tree, right_node, frame);
    if (std::optional<long long> folded = FoldedInt(ConstantInt(left), op, ConstantInt(right))) {
        out.Add(LiteralSingle("int", std::to_string(*folded)));
        return out;
    }
    if (op == "+") {
        // Tuples of known positions added: the positions of both, in order.
        ValueSet joined = JoinedTuples(left, right);
        if (!joined.Empty())
            return joined;
    }
    if (op == "|" && IsTypeOperand(left) && IsTypeOperand(right)) {
        // X | Y of classes: the union type, as typing's Union form.
        nb::object form = TypingClass("Union");
        if (form.is_none())
            return out;
        ValueSet members;
        for (const ValueSet *side : {&left, &right})
            for (const nb::object &v : side->Items())
                members.Merge(Single(v)->IsClass() ? TypeOfSingle(v, frame) : ValueSet());
        for (const ValueSet *side : {&left, &right})
            for (const nb::object &v : side->Items())
                if (!Single(v)->IsClass())
                    members.Add(v);
        si::CSingleResolvedInfo *f = Single(form);
        auto *u = new si::CSingleResolvedInfo(f->ibytes, f->scope, f->loc);
        u->fTypeArgs = nb::make_tuple(members.AsFrozenSet());
        out.Add(nb::cast(nb::ref<si::CSingleResolvedInfo>(u)));
        return out;
    }
    for (const nb::object &l : left.Items()) {
        ValueSet one;
        one.Add(l);
        ValueSet result = CallDunder(one, dunder->first, {right});
        if (result.Empty())
            for (const nb::object &r : right.Items()) {
                ValueSet other;
                other.Add(r);
                ValueSet lhs;
                lhs.Add(l);
                result.Merge(CallDunder(other, dunder->second, {lhs}));
            }
        out.Merge(result);
    }
    return out;
}

std::optional<long long> CEvaluator::FoldedInt(std::optional<long long> left, std::string_view op,
                                               std::optional<long long> right) {
    if (!left || !right)
        return std::nullopt;
    long long a = *left, b = *right, result = 0;
    bool overflow = false;
    if (op == "+")
        overflow = __builtin_add_overflow(a, b, &result);
    else if (op == "-")
        overflow = __builtin_sub_overflow(a, b, &result);
    else if (op == "*")
        overflow = __builtin_mul_overflow(a, b, &result);
    else if ((op == "//" || op == "%") && b != 0 && !(a == LLONG_MIN && b == -1)) {
        // Python's division floors, and its remainder takes the divisor's sign.
        long long quotient = a / b, remainder = a % b;
        if (remainder != 0 && ((remainder < 0) != (b < 0))) {
            quotient -= 1;
            remainder += b;
        }
        result = op == "//" ? quotient : remainder;
    } else
        return std::nullopt;
    if (overflow)
        return std::nullopt;
    return result;
}

nb::object CEvaluator::EllipsisArg() {
    ValueSet marker;
    marker.Add(LiteralSingle("ellipsis", std::nullopt));
    return marker.AsFrozenSet();
}

bool CEvaluator::IsEllipsisArg(nb::handle arg) {
    if (PySet_Size(arg.ptr()) != 1)
        return false;
    for (nb::handle single : arg) {
        std::string_view bare = Single(single)->Bare();
        return si::GetInfoBytesKind(bare) == si::kTypedLiteralKind && si::UnpackLiteralInfo(bare).class_name == "ellipsis";
    }
    return false;
}

bool CEvaluator::TuplePositions(nb::handle single, std::vector<nb::object> &positions) {
    si::CSingleResolvedInfo *s = Single(single);
    std::string_view bare = s->Bare();
    if (si::GetInfoBytesKind(bare) != si::kInstanceKind)
        return false;
    if (si::TextView(s->scope->name, "name") != "tuple" || !s->loc.is(BuiltinLoc())) {
        nb::object cls = ClassOfInstance(single);
        return !cls.is_none() && NamedTupleFields(cls, positions);
    }
    if (s->fTypeArgs.is_none() || !PyTuple_Check(s->fTypeArgs.ptr()))
        return false;
    Py_ssize_t size = PyTuple_GET_SIZE(s->fTypeArgs.ptr());
    if (size > 0 && IsEllipsisArg(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), size - 1)))
        return false;
    for (Py_ssize_t i = 0; i < size; ++i)
        positions.push_back(nb::borrow(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), i)));
    return true;
}

bool CEvaluator::MroHolds(const std::vector<MroEntry> &mro, std::string_view module, std::string_view name) {
    for (const MroEntry &e : mro) {
        si::CSingleResolvedInfo *k = Single(e.cls);
        if (NameOf(k) != name)
            continue;
        const std::string &found = ModuleNameOfLoc(k->loc);
        if (module == "typing" ? IsTypingModuleName(found) : found == module)
            return true;
    }
    return false;
}

bool CEvaluator::NamedTupleFields(nb::handle cls, std::vector<nb::object> &positions) {
    if (!MroHolds(Mro(cls, {}), "typing", "NamedTuple"))
        return false;
    std::vector<std::pair<std::string, nb::object>> fields;
    AnnotatedFields(cls, fields);
    for (auto &[name, values] : fields)
        positions.push_back(std::move(values));
    return !positions.empty();
}

namespace {

bool IsClassVarHint(std::string_view single) {
    std::string_view bare = si::BareSingle(single);
    if (si::GetInfoBytesKind(bare) != si::kTypeHintKind)
        return false;
    std::string_view text = si::StripSpaces(bare.substr(si::kPrefixLen));
    return text.starts_with("ClassVar") || text.find(".ClassVar") != std::string_view::npos;
}

}  // namespace

bool CEvaluator::AnnotatedFields(nb::handle cls, std::vector<std::pair<std::string, nb::object>> &fields) {
    std::vector<MroEntry> mro = Mro(cls, {});
    bool named_tuple = MroHolds(mro, "typing", "NamedTuple");
    // The fields are the names the class bodies annotate, base classes first.
    bool generates = named_tuple;
    for (auto it = mro.rbegin(); it != mro.rend(); ++it) {
        si::CSingleResolvedInfo *k = Single(it->cls);
        if (IsTypingModuleName(ModuleNameOfLoc(k->loc)) || k->loc.is(BuiltinLoc()))
            continue;  // NamedTuple itself, tuple, object
        nb::object scope = ScopeAt(k->loc, NameOf(k));
        nb::object record = RecordOf(scope);
        if (record.is_none())
            continue;
        if (!named_tuple) {
            std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
            if (si::GetInfoBytesKind(own) != si::kClassKind)
                continue;
            const auto info = ClassInfoOf(own);
            if (!NamesDecorator(info->decorators, "dataclass"))
                continue;  // (a base that isn't a dataclass adds no fields)
            generates = true;
        }
        for (auto [key, ibytes] : nb::borrow<nb::dict>(record.attr("type_equivs"))) {
            bool annotated = false, class_var = false;
            for (std::string_view single : si::NonNestedSplit(si::TextView(ibytes, "ibytes"), ";")) {
                annotated = annotated || si::GetInfoBytesKind(si::BareSingle(single)) == si::kTypeHintKind;
                class_var = class_var || IsClassVarHint(single);
            }
            if (!annotated || class_var)
                continue;
            std::string name = nb::cast<std::string>(key);
            nb::object values = EntryValues(scope, record, si::TextView(ibytes, "ibytes"), -2).AsFrozenSet();
            auto known = std::find_if(fields.begin(), fields.end(), [&](const auto &f) { return f.first == name; });
            if (known == fields.end())
                fields.emplace_back(std::move(name), std::move(values));
            else
                known->second = std::move(values);  // redeclared: keeps its place
        }
    }
    return generates;
}

ValueSet CEvaluator::GeneratedMatchArgs(nb::handle cls) {
    ValueSet out;
    std::vector<std::pair<std::string, nb::object>> fields;
    nb::object tuple_cls = BuiltinClass("tuple");
    if (tuple_cls.is_none() || !AnnotatedFields(cls, fields))
        return out;
    nb::list names;
    for (const auto &[name, _values] : fields) {
        ValueSet literal;
        literal.Add(LiteralSingle("str", name));
        names.append(literal.AsFrozenSet());
    }
    return InstanceOf(tuple_cls, nb::tuple(names));
}

ValueSet CEvaluator::TypedDictItem(nb::handle single, std::string_view key) {
    ValueSet out;
    nb::object cls = ClassOfInstance(single);
    if (cls.is_none() || !Single(single)->IsInstance(false))
        return out;
    std::vector<MroEntry> mro = Mro(cls, {});
    if (!MroHolds(mro, "typing", "TypedDict"))
        return out;
    for (const MroEntry &e : mro) {
        si::CSingleResolvedInfo *k = Single(e.cls);
        int redirect = 0;
        if (FindLocal(ScopeAt(k->loc, NameOf(k)), key, -2, out, redirect))
            return out;
    }
    return out;
}

nb::object CEvaluator::WithTypeArgs(nb::handle cls, const std::vector<ValueSet> &args) {
    si::CSingleResolvedInfo *c = Single(cls);
    nb::list items;
    for (const ValueSet &arg : args)
        items.append(arg.AsFrozenSet());
    auto *specialised = new si::CSingleResolvedInfo(c->ibytes, c->scope, c->loc, c->fClassRef);
    specialised->fTypeArgs = nb::tuple(items);
    return nb::cast(nb::ref<si::CSingleResolvedInfo>(specialised));
}

// Values that can stand on either side of `|` in a type: classes and None.
bool CEvaluator::IsTypeOperand(const ValueSet &values) {
    if (values.Empty())
        return false;
    for (const nb::object &v : values.Items()) {
        if (Single(v)->IsClass() || IsNoneLiteral(v))
            continue;
        return false;
    }
    return true;
}

ValueSet CEvaluator::EvalDisplay(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    const char *cls_name = n.kind == NodeKind::kTuple  ? "tuple"
                           : n.kind == NodeKind::kList ? "list"
                           : n.kind == NodeKind::kSet  ? "set"
                                                       : "dict";
    nb::object cls = BuiltinClass(cls_name);
    if (cls.is_none())
        return out;
    nb::list args;
    // The items told apart: a list's by position, a dict's by constant key.
    nb::list display_items;
    if (n.kind == NodeKind::kDict) {
        ValueSet keys, values;
        std::vector<std::pair<std::string, ValueSet>> by_key;
        // Every item counts for the key and value types; items are told apart
        // by key only in a display of a few.
        bool by_keys = (std::size_t) n.kids_count <= 2 * kMaxDisplayItems;
        for (std::int32_t i = 0; i + 1 < n.kids_count; i += 2) {
            std::int32_t key = tree.Kid(n, i);
            if (key >= 0 && tree.nodes[(std::size_t) key].kind == NodeKind::kDoubleStarred) {
                // {**other}: the keys other iterates, what they index.
                ValueSet other = Eval(tree, tree.Kid(tree.nodes[(std::size_t) key], 0), frame);
                ValueSet other_keys = IterItems(other);
                keys.Merge(other_keys);
                values.Merge(CallDunder(other, "__getitem__", {other_keys}));
                by_key.clear();  // other may set any key written before it
                continue;
            }
            if (key < 0)
                continue;
            ValueSet key_values = Eval(tree, key, frame);
            ValueSet value = Eval(tree, tree.Kid(n, i + 1), frame);
            keys.Merge(key_values);
            values.Merge(value);
            if (!by_keys)
                continue;
            std::optional<std::string> constant = ConstantKey(key_values);
            if (!constant)
                continue;
            // A key written again replaces what it held.
            std::erase_if(by_key, [&](const auto &item) { return item.first == *constant; });
            by_key.emplace_back(std::move(*constant), std::move(value));
        }
        if (by_keys)
            for (const auto &[key, value] : by_key)
                display_items.append(nb::make_tuple(nb::bytes(key.data(), key.size()), value.AsFrozenSet()));
        if (!keys.Empty() || !values.Empty()) {
            args.append(keys.AsFrozenSet());
            args.append(values.AsFrozenSet());
        }
    } else {
        // Every item counts for the item type; items are told apart by
        // position only in a display of a few.
        std::vector<ValueSet> items;
        bool starred = false;
        for (std::int32_t i = 0; i < n.kids_count; ++i) {
            std::int32_t kid = tree.Kid(n, i);
            if (kid < 0)
                continue;
            const Node &k = tree.nodes[(std::size_t) kid];
            if (k.kind == NodeKind::kStarred) {
                starred = true;
                items.push_back(IterItems(Eval(tree, tree.Kid(k, 0), frame)));
            } else {
                items.push_back(Eval(tree, kid, frame));
            }
        }
        bool positional = n.kind == NodeKind::kTuple && !starred && (std::size_t) n.kids_count <= kMaxDisplayItems;
        if (positional && items.empty())
            return InstanceOf(cls, nb::tuple());  // (): the tuple of no items
        if (positional) {
            for (const ValueSet &item : items)
                args.append(item.AsFrozenSet());
        } else if (!items.empty()) {
            ValueSet all;
            for (const ValueSet &item : items)
                all.Merge(item);
            args.append(all.AsFrozenSet());
            if (n.kind == NodeKind::kTuple)
                args.append(EllipsisArg());
        }
        if (n.kind == NodeKind::kList && !starred && (std::size_t) n.kids_count <= kMaxDisplayItems)
            for (const ValueSet &item : items)
                display_items.append(item.AsFrozenSet());
    }
    ValueSet out_instance = InstanceOf(cls, args.size() ? nb::object(nb::tuple(args)) : nb::object(nb::none()));
    // (A tuple's positions are its type arguments.)
    if (n.kind != NodeKind::kTuple && n.kids_count > 0 && out_instance.Size() == 1)
        Single(out_instance.Items()[0])->fDisplayItems = nb::tuple(display_items);
    return out_instance;
}

std::optional<std::string> CEvaluator::ConstantKey(const ValueSet &values) {
    if (values.Size() != 1 || !IsExactly<si::CSingleResolvedInfo>(values.Items()[0]))
        return std::nullopt;
    std::string_view bare = Single(values.Items()[0])->Bare();
    if (si::GetInfoBytesKind(bare) != si::kTypedLiteralKind || !si::UnpackLiteralInfo(bare).value)
        return std::nullopt;
    return std::string(bare);
}

bool HoldsDictDisplay(nb::handle single) {
    nb::handle display = Single(single)->fDisplayItems;
    return !display.is_none() && PyTuple_Check(display.ptr()) && PyTuple_GET_SIZE(display.ptr()) > 0 &&
           PyTuple_Check(PyTuple_GET_ITEM(display.ptr(), 0));
}

std::optional<ValueSet> CEvaluator::DisplayItem(nb::handle single, const ValueSet &index) {
    nb::handle items = Single(single)->fDisplayItems;
    if (items.is_none() || !PyTuple_Check(items.ptr()) || PyTuple_GET_SIZE(items.ptr()) == 0)
        return std::nullopt;
    Py_ssize_t size = PyTuple_GET_SIZE(items.ptr());
    if (!PyTuple_Check(PyTuple_GET_ITEM(items.ptr(), 0))) {
        // A list's item by position.
        std::optional<long long> i = ConstantInt(index);
        if (!i)
            return std::nullopt;
        long long at = *i < 0 ? *i + size : *i;
        if (at < 0 || at >= size)
            return std::nullopt;
        return ValueSet::FromIterable(PyTuple_GET_ITEM(items.ptr(), at));
    }
    // A dict's value by key.
    std::optional<std::string> key = ConstantKey(index);
    if (!key)
        return std::nullopt;
    for (nb::handle pair : nb::borrow<nb::tuple>(items))
        if (si::TextView(pair[0], "display key") == *key)
            return ValueSet::FromIterable(pair[1]);
    return std::nullopt;
}

// Binds the names of a comprehension's (or a for's) target.
static void BindTarget(const pgen::Tree &tree, std::int32_t target, const ValueSet &values,
                       std::vector<std::pair<std::string, ValueSet>> &locals,
                       const std::function<ValueSet(const ValueSet &, std::size_t, std::size_t)> &item_at) {
    if (target < 0)
        return;
    const Node &t = tree.nodes[(std::size_t) target];
    if (t.kind == NodeKind::kName) {
        locals.emplace_back(std::string(tree.toks[(std::size_t) t.aux].text), values);
    } else if (t.kind == NodeKind::kTuple || t.kind == NodeKind::kList) {
        for (std::int32_t i = 0; i < t.kids_count; ++i)
            BindTarget(tree, tree.Kid(t, i), item_at(values, (std::size_t) i, (std::size_t) t.kids_count),
                       locals, item_at);
    } else if (t.kind == NodeKind::kStarred) {
        BindTarget(tree, tree.Kid(t, 0), ValueSet(), locals, item_at);
    }
}

bool CEvaluator::ItemsByPosition(nb::handle single, std::vector<ValueSet> &items) {
    nb::handle display = Single(single)->fDisplayItems;
    if (!display.is_none() && PyTuple_Check(display.ptr()) && PyTuple_GET_SIZE(display.ptr()) > 0) {
        if (PyTuple_Check(PyTuple_GET_ITEM(display.ptr(), 0)))
            return false;  // a dict's (key, value) pairs
        for (nb::handle item : nb::borrow<nb::tuple>(display))
            items.push_back(ValueSet::FromIterable(item));
        return true;
    }
    std::vector<nb::object> positions;
    if (!TuplePositions(single, positions))
        return false;
    for (const nb::object &item : positions)
        items.push_back(ValueSet::FromIterable(item));
    return true;
}

std::optional<std::vector<ValueSet>> CEvaluator::ComprehensionPositions(const Tree &tree, const Node &n,
                                                                        const Frame &frame,
                                                                        const ValueSet &first_iterable,
                                                                        const ItemAt &item_at) {
    std::vector<ValueSet> out;
    // Each `for` in turn, over each position of what it runs over.
    std::function<bool(std::int32_t, Locals &)> walk = [&](std::int32_t i, Locals &locals) {
        Frame here{frame.scope, frame.use_index, frame.map, &locals};
        if (i == n.kids_count) {
            out.push_back(Eval(tree, tree.Kid(n, 0), here));
            return out.size() <= kMaxDisplayItems;
        }
        std::int32_t comp = tree.Kid(n, i);
        if (comp < 0)
            return false;
        const Node &c = tree.nodes[(std::size_t) comp];
        if (c.kids_count != 2)
            return false;  // an `if` may drop any item
        ValueSet iterable = i == 1 ? first_iterable : Eval(tree, tree.Kid(c, 1), here);
        std::vector<ValueSet> items;
        // (Nothing to run over may only mean that nothing more is known.)
        if (iterable.Size() != 1 || !ItemsByPosition(iterable.Items()[0], items) || items.empty())
            return false;
        for (const ValueSet &item : items) {
            Locals bound = locals;
            BindTarget(tree, tree.Kid(c, 0), item, bound, item_at);
            if (!walk(i + 1, bound))
                return false;
        }
        return true;
    };
    Locals locals = frame.locals ? *frame.locals : Locals();
    if (!walk(1, locals))
        return std::nullopt;
    return out;
}

ValueSet CEvaluator::EvalComprehension(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    Locals locals = frame.locals ? *frame.locals : Locals();
    Frame inner{frame.scope, frame.use_index, frame.map, &locals};
    std::int32_t first_comp = n.kind == NodeKind::kDictComp ? 2 : 1;
    ItemAt item_at = [this](const ValueSet &values, std::size_t i, std::size_t count) {
        ValueSet item;
        for (const nb::object &v : values.Items()) {
            si::CSingleResolvedInfo *s = Single(v);
            std::vector<nb::object> positions;
            (void) s;
            if (TuplePositions(v, positions) && positions.size() == count) {
                item.Merge(ValueSet::FromIterable(positions[i]));
                continue;
            }
            ValueSet one;
            one.Add(v);
            item.Merge(IterItems(one));
        }
        return item;
    };
    // What the first `for` runs over is read in the frame around.
    std::int32_t first = first_comp < n.kids_count ? tree.Kid(n, first_comp) : -1;
    ValueSet first_iterable = first < 0 ? ValueSet() : Eval(tree, tree.Kid(tree.nodes[(std::size_t) first], 1), inner);
    std::optional<std::vector<ValueSet>> positions;
    if (n.kind == NodeKind::kListComp || n.kind == NodeKind::kGenExp)
        positions = ComprehensionPositions(tree, n, frame, first_iterable, item_at);
    for (std::int32_t i = first_comp; i < n.kids_count && !positions; ++i) {
        std::int32_t comp = tree.Kid(n, i);
        if (comp < 0)
            continue;
        const Node &c = tree.nodes[(std::size_t) comp];
        ValueSet iterable = i == first_comp ? first_iterable : Eval(tree, tree.Kid(c, 1), inner);
        ValueSet items = IterItems(iterable);
        BindTarget(tree, tree.Kid(c, 0), items, locals, item_at);
        // `if (z := f(v))` in a condition binds z for what follows.
        for (std::int32_t k = 2; k < c.kids_count; ++k) {
            std::int32_t cond = tree.Kid(c, k);
            if (cond < 0 || tree.nodes[(std::size_t) cond].kind != NodeKind::kNamedExpr)
                continue;
            const Node &walrus = tree.nodes[(std::size_t) cond];
            std::int32_t target = tree.Kid(walrus, 0);
            if (target >= 0 && tree.nodes[(std::size_t) target].kind == NodeKind::kName)
                locals.emplace_back(std::string(TokText(tree, tree.nodes[(std::size_t) target].aux)),
                                    Eval(tree, tree.Kid(walrus, 1), inner));
        }
    }
    if (n.kind == NodeKind::kDictComp) {
        ValueSet keys = Eval(tree, tree.Kid(n, 0), inner);
        ValueSet values = Eval(tree, tree.Kid(n, 1), inner);
        nb::object cls = BuiltinClass("dict");
        if (cls.is_none())
            return out;
        return InstanceOf(cls, nb::make_tuple(keys.AsFrozenSet(), values.AsFrozenSet()));
    }
    ValueSet element;
    nb::list display_items;
    if (positions) {
        for (const ValueSet &item : *positions) {
            element.Merge(item);
            display_items.append(item.AsFrozenSet());
        }
    } else {
        element = Eval(tree, tree.Kid(n, 0), inner);
    }
    nb::object cls;
    if (n.kind == NodeKind::kGenExp) {
        cls = TypingClass("Generator");
        if (cls.is_none())
            return out;
        ValueSet none;
        none.Add(LiteralSingle("None", std::nullopt));
        out = InstanceOf(cls, nb::make_tuple(element.AsFrozenSet(), none.AsFrozenSet(), none.AsFrozenSet()));
    } else {
        cls = BuiltinClass(n.kind == NodeKind::kListComp ? "list" : "set");
        if (cls.is_none())
            return out;
        out = InstanceOf(cls, element.Empty() ? nb::object(nb::none()) : nb::object(nb::make_tuple(element.AsFrozenSet())));
    }
    // (Unpacking a generator, or indexing a list, tells its items apart.)
    if (positions && !positions->empty() && out.Size() == 1)
        Single(out.Items()[0])->fDisplayItems = nb::tuple(display_items);
    return out;
}

}  // namespace pysource::infer

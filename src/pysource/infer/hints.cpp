// Type hints: what instances a hint describes, typing's special forms, and
// the binding of type variables from what parameters receive.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include "pysource/exprtext.h"
#include "pysource/infer/infertyping.h"
#include "pysource/infokinds.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"

namespace pysource::infer {

namespace si = symbolinfo;
using pgen::Node;
using pgen::NodeKind;

namespace {

bool IsTypeParam(si::CSingleResolvedInfo *s) {
    return si::GetInfoBytesKind(s->Bare()) == si::kTypeParameterKind;
}

std::string TypeParamName(si::CSingleResolvedInfo *s) {
    return si::UnpackTypeParameterInfo(s->Bare()).name;
}

}  // namespace

std::string CEvaluator::SpecialFormOf(nb::handle single) {
    si::CSingleResolvedInfo *s = Single(single);
    if (!s->IsClass())
        return {};
    if (!IsTypingModuleName(ModuleNameOfLoc(s->loc)) && !nb::cast<bool>(fLocCache.attr("IsTypingLoc")(s->loc)))
        return {};
    std::string_view canonical = CanonicalSpecialForm(NameOf(s));
    // Only the forms: typing's abstract classes (Iterable, ...) are classes.
    static const char *kForms[] = {"Any", "Optional", "Union", "Literal", "Final", "ClassVar", "Annotated",
                                   "TypeGuard", "TypeIs", "Self", "Never", "NoReturn", "Generic", "Protocol",
                                   "Callable", "Concatenate", "Unpack", "Required", "NotRequired", "ReadOnly",
                                   "TypeAlias", "LiteralString", "TypeVar", "ParamSpec", "TypeVarTuple",
                                   "NewType"};
    for (const char *form : kForms)
        if (canonical == form)
            return std::string(canonical);
    return {};
}

// The type arguments a value gives a protocol it fits by structure: what
// the protocol's methods, called on the value, return for each of the
// protocol's type variables (SupportsAbs[T] of a float: T is what
// float.__abs__ gives).
TypeMap CEvaluator::ProtocolTypeArgs(nb::handle protocol, const std::vector<std::string> &vars, nb::handle value,
                                     const TypeMap &known) {
    TypeMap found;
    si::CSingleResolvedInfo *p = Single(protocol);
    nb::object record = RecordOf(ScopeAt(p->loc, NameOf(p)));
    if (record.is_none() || vars.empty())
        return found;
    // Matching a value against a protocol calls its members, whose hints
    // bind through protocols again: once per request for each pair, and a
    // pair met again while it is being matched is a cycle.
    std::string key = ClassKey(protocol);
    key.push_back('|');
    key.append(std::to_string((long long) PyObject_Hash(value.ptr())));
    if (PyErr_Occurred())
        throw nb::python_error();
    for (const std::string &var : vars) {
        key.push_back('|');
        key.append(var);
    }
    key.push_back('|');
    key.append(BindingSignature(known.empty() ? nullptr : &known));
    ActiveKey active_key{"", "protocol", key, 0};
    if (CycleAt(active_key))
        return found;  // a match under way
    if (const TypeMap *kept = KeptOf(fProtocolArgs, key))
        return *kept;
    CutWatch watch(*this);
    ActiveRead active(*this, active_key);
    ValueSet receiver;
    receiver.Add(value);
    nb::dict members = nb::borrow<nb::dict>(record.attr("type_equivs"));
    for (auto [member_name, ibytes] : members) {
        for (std::string_view single : si::NonNestedSplit(si::TextView(ibytes, "ibytes"), ";")) {
            std::string_view bare = si::BareSingle(single);
            if (!si::IsDefKind(si::GetInfoBytesKind(bare)))
                continue;
            const auto def_held = DefInfoOf(bare);
            const si::DefInfo &def = *def_held;
            if (!def.return_hint)
                continue;
            nb::object def_scope = ScopeAt(p->loc, si::DefLineScope(si::NormalizeScopeName(def.scope_name)));
            // Called with what the protocol's method wants (__round__(ndigits: int)).
            std::vector<ValueSet> args;
            std::vector<Param> params = ParamsOf(def);
            for (std::size_t i = 1; i < params.size(); ++i) {
                if (params[i].star || params[i].keyword_only || params[i].has_default)
                    break;
                args.push_back(ResolveHintText(def_scope, params[i].hint, &known));
            }
            ValueSet results = CallDunder(receiver, nb::cast<std::string>(member_name), args);
            BindTypeVars(def_scope, *def.return_hint, results, found);
            break;
        }
    }
    fProtocolArgs.insert_or_assign(key, Keep(found, watch));
    return found;
}

bool AnnotationNamesNoType(std::string_view text,
                           const std::function<std::shared_ptr<const ParsedText>(std::string_view)> &parse) {
    const auto parsed = parse(text);
    const pgen::Tree &tree = parsed->tree;
    std::function<bool(std::int32_t)> no_type = [&](std::int32_t node) {
        if (node < 0)
            return true;
        const Node &n = tree.nodes[(std::size_t) node];
        switch (n.kind) {
        case NodeKind::kConstant: {
            std::string_view value = tree.toks[(std::size_t) n.tok_begin].text;
            return value != "None" && value != "...";
        }
        case NodeKind::kString: {
            // A string holds the hint as text: one that holds no expression
            // names nothing.
            std::string_view inner;
            if (!pgen::StringAnnotationText(tree, node, inner))
                return false;
            return si::StripSpaces(inner).empty() || AnnotationNamesNoType(inner, parse);
        }
        case NodeKind::kBinOp: {
            // `A | B` is a union; other operators compute a value.
            std::int32_t left = tree.Kid(n, 0);
            if (left < 0 || tree.toks[(std::size_t) tree.nodes[(std::size_t) left].tok_end].text != "|")
                return true;
            return no_type(left) || no_type(tree.Kid(n, 1));
        }
        default:
            return false;
        }
    };
    return parsed->root < 0 || no_type(parsed->root);
}

bool CEvaluator::NamesNoType(std::string_view text) {
    return AnnotationNamesNoType(text, [this](std::string_view part) { return ParseText(part); });
}

ValueSet CEvaluator::ResolveHintText(nb::handle scope, std::string_view text, const TypeMap *map) {
    ValueSet out;
    if (Stop())
        return out;
    // Once per binding of what it reads, and per map given.
    const ReadKey key{ReadKeyOf(ScopeLoc(scope)), std::string(ScopeName(scope)), std::string(text),
                      map && map == fFitMap ? kFitHintUseIndex : kHintUseIndex};
    // Values read under a map carry its signature; those read in the
    // project's own files, the argument hops too (as ResolveText's do).
    const std::string hops = std::to_string(fArgHops);
    std::string mapped;
    if (map) {
        mapped.push_back('@');
        AppendMapSignature(mapped, *map);
        if (PyErr_Occurred())
            throw nb::python_error();
    }
    const std::string given = hops + mapped;
    const BetweenRequests kept = BetweenRequestsOf(scope);
    const std::size_t read_hash = ReadKeyHash{}(key);
    if (const ValueSet *hit = ForEachDepSet(key, [&](const BindingDeps &deps, const std::string &bindings) {
            std::string signature = given + bindings;
            if (const ValueSet *found = RequestValueOf(BoundReadView{key, signature, read_hash}))
                return found;
            return KeptBetweenRequests(kept, key, kept.library ? mapped + bindings : signature, read_hash, deps);
        }))
        return *hit;
    CutWatch watch(*this);
    std::optional<EffectsCollector> effects;
    if (kept.table)
        effects.emplace(*this);
    const auto parsed = ParseText(text);
    const Tree &tree = parsed->tree;
    std::int32_t root = parsed->root;
    if (root >= 0) {
        Frame frame{nb::borrow(scope), -2, map, nullptr};
        ++fDepth;
        out = EvalType(tree, root, frame);
        --fDepth;
    }
    std::string_view scope_name = ScopeName(scope);
    if (out.Empty() && root >= 0 && si::IsDefLineScope(scope_name)) {
        // A hint of a def that names nothing where the def stands is read
        // when used (a string, or under `from __future__ import
        // annotations`): in the scope around the def, as it finally is.
        std::string_view def_name = scope_name.substr(0, scope_name.size() - si::kDefLineScopeSuffix.size());
        nb::object owner = ScopeAt(ScopeLoc(scope), si::ParentScopeName(def_name));
        Frame frame{owner, -2, map, nullptr};
        ++fDepth;
        out = EvalType(tree, root, frame);
        --fDepth;
    }
    std::string bindings = NoteDeps(key, watch);
    auto request_kept = Keep(out, watch);
    if (effects)
        request_kept.effects = effects->Taken();
    if (kept.table && watch.Whole())
        kept.table->emplace(RequestKey{key, kept.library ? mapped + bindings : given + bindings},
                            EngineMemo::KeptAnswer{out, request_kept.effects, fMemo.record_generation});
    fRequestValues.emplace(RequestKey{key, given + bindings}, std::move(request_kept));
    return out;
}

// The members of a union together.  A member that says nothing (Any, a type
// variable nothing binds, a name that can't be read) leaves the whole union
// unknown: what the others name is then only part of what the value can be.
ValueSet CEvaluator::UnionOf(const std::vector<ValueSet> &members) {
    ValueSet out;
    for (const ValueSet &member : members) {
        if (member.Empty())
            return ValueSet();
        out.Merge(member);
    }
    return out;
}

ValueSet CEvaluator::UpperBoundOf(si::CSingleResolvedInfo *param) {
    si::DeclTypeParam decl = si::UnpackTypeParameterInfo(param->Bare());
    ValueSet out;
    if (decl.param_kind != "TypeVar")
        return out;
    if (!decl.bound) {
        nb::object object = BuiltinClass("object");
        return object.is_none() ? out : InstanceOf(object, nb::none());
    }
    nb::object scope = ScopeAt(param->loc, NameOf(param));
    // Constraints (AnyStr: str or bytes) decide, and so does a bound that
    // names classes (bound=Exception takes no KeyboardInterrupt); a bound
    // naming a protocol, costly to check, is taken to allow anything.
    if (!si::StripSpaces(*decl.bound).starts_with("(")) {
        ValueSet bound = ResolveHintText(scope, *decl.bound, nullptr);
        for (const nb::object &b : bound.Items()) {
            nb::object cls = ClassOfInstance(b);
            if (cls.is_none() || IsProtocolClass(cls))
                return out;
        }
        return bound;
    }
    std::string text;
    for (const std::string &constraint : si::SplitDeclArguments(si::OptView(*decl.bound)))
        text += (text.empty() ? "" : " | ") + constraint;
    return ResolveHintText(scope, text, nullptr);
}

bool CEvaluator::NamesAny(const Tree &tree, std::int32_t node, const Frame &frame) {
    const Node &n = tree.nodes[(std::size_t) node];
    if (n.kind != NodeKind::kName && n.kind != NodeKind::kAttribute)
        return false;
    ValueSet named = Eval(tree, node, frame);
    if (named.Empty())
        return false;
    for (const nb::object &single : named.Items())
        if (SpecialFormOf(single) != "Any")
            return false;
    return true;
}

ValueSet CEvaluator::EvalType(const Tree &tree, std::int32_t node, const Frame &frame) {
    ValueSet out;
    if (node < 0 || Stop())
        return out;
    const Node &n = tree.nodes[(std::size_t) node];
    switch (n.kind) {
    case NodeKind::kString: {
        std::string_view inner;
        if (!pgen::StringAnnotationText(tree, node, inner))
            return out;
        return ResolveHintText(frame.scope, inner, frame.map);
    }
    case NodeKind::kConstant:
        if (tree.toks[(std::size_t) n.tok_begin].text == "None")
            out.Add(LiteralSingle("None", std::nullopt));
        return out;
    case NodeKind::kBinOp:
        if (tree.toks[(std::size_t) tree.nodes[(std::size_t) tree.Kid(n, 0)].tok_end].text == "|") {
            // `X | Any` after a type (the stubs' `TextIO | MaybeNone`) is an X
            // that callers needn't check for None and the like: the value is
            // what X says.  `Any | X` (getattr's `Any | None`) stays unknown:
            // there X is only one of the things it can be.
            std::int32_t left = tree.Kid(n, 0), right = tree.Kid(n, 1);
            if (NamesAny(tree, right, frame) && !NamesAny(tree, left, frame))
                return EvalType(tree, left, frame);
            return UnionOf({EvalType(tree, left, frame), EvalType(tree, right, frame)});
        }
        return out;
    case NodeKind::kSubscript:
        return EvalTypeSubscript(tree, n, frame);
    case NodeKind::kName:
    case NodeKind::kAttribute:
        for (const nb::object &single : Eval(tree, node, frame).Items())
            out.Merge(TypeOfSingle(single, frame));
        return out;
    default:
        return out;
    }
}

void CEvaluator::TypeArgsOf(const Tree &tree, std::int32_t slice, const Frame &frame, std::vector<ValueSet> &args) {
    if (slice < 0)
        return;
    const Node &s = tree.nodes[(std::size_t) slice];
    if (s.kind == NodeKind::kTuple && !(s.flags & pgen::kFlagParenthesized)) {
        for (std::int32_t i = 0; i < s.kids_count; ++i) {
            std::int32_t kid = tree.Kid(s, i);
            if (kid >= 0 && tree.nodes[(std::size_t) kid].kind == NodeKind::kConstant &&
                tree.toks[(std::size_t) tree.nodes[(std::size_t) kid].tok_begin].text == "...") {
                args.push_back(ValueSet::FromIterable(EllipsisArg()));  // tuple[int, ...]
                continue;
            }
            args.push_back(EvalType(tree, kid, frame));
        }
        return;
    }
    args.push_back(EvalType(tree, slice, frame));
}

ValueSet CEvaluator::EvalTypeSubscript(const Tree &tree, const Node &n, const Frame &frame) {
    ValueSet out;
    ValueSet heads = Eval(tree, tree.Kid(n, 0), frame);
    std::int32_t slice = tree.Kid(n, 1);
    for (const nb::object &head : heads.Items()) {
        si::CSingleResolvedInfo *h = Single(head);
        if (!h->IsClass())
            continue;
        std::string form = SpecialFormOf(head);
        if (form == "Literal") {
            // The literals' own types.
            const Node &s = tree.nodes[(std::size_t) slice];
            std::vector<std::int32_t> items;
            if (s.kind == NodeKind::kTuple)
                for (std::int32_t i = 0; i < s.kids_count; ++i)
                    items.push_back(tree.Kid(s, i));
            else
                items.push_back(slice);
            for (std::int32_t item : items)
                out.Merge(Eval(tree, item, frame));
            continue;
        }
        if (form == "Annotated" || form == "Final" || form == "ClassVar" || form == "Required" ||
            form == "NotRequired" || form == "ReadOnly") {
            const Node &s = tree.nodes[(std::size_t) slice];
            std::int32_t first = s.kind == NodeKind::kTuple ? tree.Kid(s, 0) : slice;
            out.Merge(EvalType(tree, first, frame));
            continue;
        }
        std::vector<ValueSet> args;
        TypeArgsOf(tree, slice, frame, args);
        out.Merge(TypeOfSingle(WithTypeArgs(head, args), frame));
    }
    return out;
}

ValueSet CEvaluator::TypeOfSingle(nb::handle single, const Frame &frame) {
    ValueSet out;
    si::CSingleResolvedInfo *s = Single(single);
    if (IsTypeParam(s)) {
        std::string name = TypeParamName(s);
        if (frame.map) {
            auto it = frame.map->find(name);
            if (it != frame.map->end())
                return it->second;
        }
        // Inside a class whose type arguments are known (reading an
        // instance's attributes), its variables stand for them.
        DependOn(kClassMapsDep);
        const std::string &url = UrlOf(ScopeLoc(frame.scope));
        std::string_view scope_name = ScopeName(frame.scope);
        for (auto it = fClassMaps.rbegin(); it != fClassMaps.rend(); ++it) {
            const auto &[cls_url, cls_name, cls_map] = *it;
            if (cls_url != url || !scope_name.starts_with(cls_name))
                continue;
            auto var = cls_map.find(name);
            if (var != cls_map.end())
                return var->second;
        }
        if (frame.map && frame.map == fFitMap)
            return UpperBoundOf(s);
        // An unbound type variable says nothing, unless it declares a
        // default (memoryview without arguments is a memoryview[int]).
        si::DeclTypeParam decl = si::UnpackTypeParameterInfo(s->Bare());
        if (decl.default_text && decl.param_kind == "TypeVar")
            return ResolveHintText(ScopeAt(s->loc, NameOf(s)), *decl.default_text, nullptr);
        return out;
    }
    if (!s->IsClass()) {
        // A name that stands for a type through an alias is a class after
        // evaluation; anything else (instances of forms) says nothing.
        return out;
    }
    std::vector<ValueSet> args;
    if (!s->fTypeArgs.is_none())
        for (nb::handle arg : s->fTypeArgs)
            args.push_back(ValueSet::FromIterable(arg));
    std::string form = SpecialFormOf(single);
    if (!form.empty()) {
        if (form == "Optional") {
            ValueSet none;
            none.Add(LiteralSingle("None", std::nullopt));
            out = args.empty() ? none : UnionOf({args[0], none});
        } else if (form == "Union" && args.size() == 1 && !s->fTypeArgs.is_none() &&
                   PyTuple_GET_SIZE(s->fTypeArgs.ptr()) == 1) {
            out.Merge(args[0]);
        } else if (form == "Union") {
            out = UnionOf(args);
        } else if (form == "Literal") {
            for (const ValueSet &arg : args)
                out.Merge(arg);
        } else if (form == "TypeGuard" || form == "TypeIs") {
            out.Add(LiteralSingle("bool", std::nullopt));
        } else if (form == "Callable" && !s->fTypeArgs.is_none()) {
            out.Add(single);  // called, it gives its last type argument
        } else if (form == "LiteralString") {
            out.Add(LiteralSingle("str", std::nullopt));
        } else if (form == "Self") {
            if (frame.map) {
                auto it = frame.map->find("Self");
                if (it != frame.map->end())
                    return it->second;
            }
            // The class of the def whose hint this is.
            std::string_view scope_name = ScopeName(frame.scope);
            std::string owner(si::ParentScopeName(scope_name));
            while (!owner.empty()) {
                nb::object cls_scope = ScopeAt(ScopeLoc(frame.scope), owner);
                if (ScopeKindOf(cls_scope) == "class") {
                    std::string_view own = si::BareSingle(si::TextView(RecordOf(cls_scope).attr("ibytes"), "ibytes"));
                    return InstanceOf(ClassSingle(ScopeLoc(frame.scope), own), nb::none());
                }
                owner = std::string(si::ParentScopeName(owner));
            }
        }
        return out;  // Any, Callable, Generic, ...: nothing definite
    }
    std::string_view name = NameOf(s);
    if (name == "type" && s->loc.is(BuiltinLoc()) && !args.empty()) {
        // type[X]: the class X itself.
        for (const nb::object &inst : args[0].Items()) {
            nb::object cls = ClassOfInstance(inst);
            if (!cls.is_none())
                out.Add(cls);
        }
        return out;
    }
    return InstanceOf(single, s->fTypeArgs);
}

void CEvaluator::BindTypeVars(nb::handle scope, std::string_view hint, const ValueSet &received, TypeMap &map) {
    if (received.Empty() || Stop())
        return;
    const auto parsed = ParseText(hint);
    const Tree &tree = parsed->tree;
    std::int32_t root = parsed->root;
    if (root < 0)
        return;
    Frame frame{nb::borrow(scope), -2, nullptr, nullptr};
    BindNode(tree, root, frame, received, map);
}

void CEvaluator::BindNode(const Tree &tree, std::int32_t node, const Frame &frame, const ValueSet &received,
                          TypeMap &map) {
    if (node < 0 || received.Empty() || Stop())
        return;
    const Node &n = tree.nodes[(std::size_t) node];
    switch (n.kind) {
    case NodeKind::kString: {
        std::string_view inner;
        if (pgen::StringAnnotationText(tree, node, inner))
            BindTypeVars(frame.scope, inner, received, map);
        return;
    }
    case NodeKind::kBinOp:
        BindNode(tree, tree.Kid(n, 0), frame, received, map);
        BindNode(tree, tree.Kid(n, 1), frame, received, map);
        return;
    case NodeKind::kName:
    case NodeKind::kAttribute:
        for (const nb::object &v : Eval(tree, node, frame).Items()) {
            si::CSingleResolvedInfo *s = Single(v);
            if (IsTypeParam(s)) {
                ValueSet instances;
                for (const nb::object &r : received.Items()) {
                    std::string_view bare = Single(r)->Bare();
                    if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind &&
                        si::UnpackLiteralInfo(bare).class_name == "None" && received.Size() > 1)
                        continue;
                    instances.Add(r);
                }
                map[TypeParamName(s)].Merge(instances);
            }
        }
        return;
    case NodeKind::kSubscript: {
        std::vector<std::int32_t> arg_nodes;
        std::int32_t slice = tree.Kid(n, 1);
        const Node &s = tree.nodes[(std::size_t) slice];
        if (s.kind == NodeKind::kTuple && !(s.flags & pgen::kFlagParenthesized))
            for (std::int32_t i = 0; i < s.kids_count; ++i)
                arg_nodes.push_back(tree.Kid(s, i));
        else
            arg_nodes.push_back(slice);
        for (const nb::object &head : Eval(tree, tree.Kid(n, 0), frame).Items()) {
            si::CSingleResolvedInfo *h = Single(head);
            if (!h->IsClass())
                continue;
            std::string form = SpecialFormOf(head);
            if (form == "Optional" || form == "Union") {
                for (std::int32_t arg : arg_nodes)
                    BindNode(tree, arg, frame, received, map);
                continue;
            }
            if (form == "Callable" && arg_nodes.size() == 2) {
                // Callable[[A, B], R] receiving something callable: R is what
                // calling it with an A and a B gives.
                std::vector<ValueSet> call_args;
                const Node &params = tree.nodes[(std::size_t) arg_nodes[0]];
                Frame bound{frame.scope, -2, &map, nullptr};
                if (params.kind == NodeKind::kList)
                    for (std::int32_t i = 0; i < params.kids_count; ++i)
                        call_args.push_back(EvalType(tree, tree.Kid(params, i), bound));
                ValueSet results;
                for (const nb::object &r : received.Items())
                    results.Merge(CallValue(r, call_args, {}, frame));
                BindNode(tree, arg_nodes[1], frame, results, map);
                continue;
            }
            if (!form.empty())
                continue;
            if (NameOf(h) == "type" && h->loc.is(BuiltinLoc())) {
                // type[T] receiving classes binds T to their instances.
                ValueSet instances;
                for (const nb::object &r : received.Items())
                    if (Single(r)->IsClass())
                        instances.Merge(InstanceOf(r, Single(r)->fTypeArgs));
                if (!arg_nodes.empty())
                    BindNode(tree, arg_nodes[0], frame, instances, map);
                continue;
            }
            std::vector<std::string> vars = OrderedTypeVars(head);
            bool builtin_tuple = NameOf(h) == "tuple" && h->loc.is(BuiltinLoc()) &&
                                 tree.toks[(std::size_t) tree.nodes[(std::size_t) arg_nodes.back()].tok_begin].text != "...";
            // A call of an async def reads as what it returns: where an
            // awaitable is wanted, that is what awaiting it gives.
            std::string_view head_name = NameOf(h);
            bool awaitable = (head_name == "Coroutine" || head_name == "Awaitable") &&
                             IsTypingModuleName(ModuleNameOfLoc(h->loc));
            for (const nb::object &r : received.Items()) {
                nb::object rc = ClassOfInstance(r);
                if (awaitable && (rc.is_none() || ClassAttribute(rc, "__await__", r, {}, true).Empty())) {
                    ValueSet result;
                    result.Add(r);
                    BindNode(tree, arg_nodes.back(), frame, result, map);
                    continue;
                }
                if (rc.is_none() && Single(r)->IsClass() && IsProtocolClass(head)) {
                    // A class object fits a protocol through its metaclass
                    // (iterating an enumeration's class).
                    TypeMap found = ProtocolTypeArgs(head, vars, r);
                    for (std::size_t i = 0; i < vars.size() && i < arg_nodes.size(); ++i)
                        if (found.count(vars[i]))
                            BindNode(tree, arg_nodes[i], frame, found[vars[i]], map);
                    continue;
                }
                if (rc.is_none())
                    continue;
                // tuple[K, V] receiving a tuple of as many known positions:
                // item by item.
                std::vector<nb::object> positions;
                if (builtin_tuple && TuplePositions(r, positions) && positions.size() == arg_nodes.size()) {
                    for (std::size_t i = 0; i < positions.size(); ++i)
                        BindNode(tree, arg_nodes[i], frame, ValueSet::FromIterable(positions[i]), map);
                    continue;
                }
                bool nominal = false;
                for (const MroEntry &e : Mro(rc, MapOfInstance(r))) {
                    si::CSingleResolvedInfo *k = Single(e.cls);
                    if (!(k->loc.is(h->loc) && NameOf(k) == NameOf(h)))
                        continue;
                    nominal = true;
                    for (std::size_t i = 0; i < vars.size() && i < arg_nodes.size(); ++i) {
                        auto it = e.map.find(vars[i]);
                        if (it != e.map.end())
                            BindNode(tree, arg_nodes[i], frame, it->second, map);
                    }
                    break;
                }
                if (!nominal && IsProtocolClass(head)) {
                    // Protocol arguments naming variables the call bound
                    // already (a base's __pow__ takes the exponent given).
                    TypeMap known;
                    for (std::size_t i = 0; i < vars.size() && i < arg_nodes.size(); ++i) {
                        auto bound = map.find(std::string(si::StripSpaces(tree.NodeText(arg_nodes[i]))));
                        if (bound != map.end() && !bound->second.Empty())
                            known[vars[i]] = bound->second;
                    }
                    TypeMap found = ProtocolTypeArgs(head, vars, r, known);
                    for (std::size_t i = 0; i < vars.size() && i < arg_nodes.size(); ++i) {
                        auto it = found.find(vars[i]);
                        if (it != found.end())
                            BindNode(tree, arg_nodes[i], frame, it->second, map);
                    }
                }
            }
        }
        return;
    }
    default:
        return;
    }
}

}  // namespace pysource::infer

namespace pysource::infer {

std::optional<std::vector<std::string>> CEvaluator::ReturnHintTypeParams(nb::handle def_single) {
    si::CSingleResolvedInfo *d = Single(def_single);
    std::string memo_key = UrlOf(d->loc);
    memo_key.push_back('|');
    memo_key.append(d->Bare());
    auto hit = fMemo.return_type_params.find(memo_key);
    if (hit != fMemo.return_type_params.end()) {
        Replay(hit->second.effects);
        return hit->second.values;
    }
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    if (!def.return_hint)
        return std::vector<std::string>();
    CutWatch watch(*this);
    EffectsCollector effects(*this);
    const auto parsed = ParseText(*def.return_hint);
    Frame frame{ScopeAt(d->loc, si::DefLineScope(NameOf(d))), -2, nullptr, nullptr};
    std::set<std::string> names;
    if (!HintTypeParams(parsed->tree, parsed->root, frame, names))
        return std::nullopt;
    std::vector<std::string> vars(names.begin(), names.end());
    if (watch.Whole())
        fMemo.return_type_params.emplace(memo_key, EngineMemo::KeptFact<std::vector<std::string>>{vars, effects.Taken()});
    return vars;
}

bool CEvaluator::HintTypeParams(const Tree &tree, std::int32_t node, const Frame &frame,
                                std::set<std::string> &names) {
    if (node < 0)
        return true;
    if (Stop())
        return false;
    const Node &n = tree.nodes[(std::size_t) node];
    // A name's type variables; whether it names Literal.
    auto of_name = [&](std::int32_t name_node) {
        bool literal = false;
        for (const nb::object &v : Eval(tree, name_node, frame).Items()) {
            si::CSingleResolvedInfo *s = Single(v);
            if (IsTypeParam(s))
                names.insert(TypeParamName(s));
            literal = literal || (s->IsClass() && SpecialFormOf(v) == "Literal");
        }
        return literal;
    };
    switch (n.kind) {
    case NodeKind::kString: {
        std::string_view inner;
        if (!pgen::StringAnnotationText(tree, node, inner))
            return true;
        const auto parsed = ParseText(inner);
        return HintTypeParams(parsed->tree, parsed->root, frame, names);
    }
    case NodeKind::kName:
    case NodeKind::kAttribute:
        of_name(node);
        return !Stop();
    case NodeKind::kSubscript: {
        // Literal[...] holds values, not names of types.
        std::int32_t head = tree.Kid(n, 0);
        const Node &h = tree.nodes[(std::size_t) head];
        bool literal = false;
        if (h.kind == NodeKind::kName || h.kind == NodeKind::kAttribute)
            literal = of_name(head);
        else if (!HintTypeParams(tree, head, frame, names))
            return false;
        return literal ? !Stop() : HintTypeParams(tree, tree.Kid(n, 1), frame, names);
    }
    default:
        for (std::int32_t i = 0; i < n.kids_count; ++i)
            if (!HintTypeParams(tree, tree.Kid(n, i), frame, names))
                return false;
        return true;
    }
}

}  // namespace pysource::infer

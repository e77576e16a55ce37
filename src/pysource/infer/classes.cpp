// Classes, attributes and calls: method resolution orders with the type
// arguments each base receives, attribute look-up on modules, classes and
// instances, and what calling a class, a def or an instance gives.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <functional>

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

// Each positional argument with the hint of its parameter (from `first`):
// those whose hint is a plain name first, those that want a callable last.
// What a callable is called with comes from the type variables the others
// bind (map(fn, items)), and so does what a protocol's method is called with
// (pow(base, exp): base's __pow__ called with the exp given).
template <class Visit>
void ForEachHintedPositional(const std::vector<Param> &params, std::size_t first, const std::vector<ValueSet> &args,
                             Visit visit) {
    for (int pass : {0, 1, 2})
        for (std::size_t p = first, a = 0; p < params.size() && a < args.size(); ++p, ++a) {
            if (params[p].star == 2 || params[p].keyword_only)
                break;
            const std::string &hint = params[p].hint;
            int order = hint.find("Callable") != std::string::npos ? 2 : hint.find('[') != std::string::npos ? 1 : 0;
            if (hint.empty() || order != pass)
                continue;
            // *args: every remaining positional argument wants its hint.
            for (std::size_t last = params[p].star == 1 ? args.size() - 1 : a; a <= last; ++a)
                visit(params[p].hint, args[a]);
            --a;
            if (params[p].star == 1)
                break;
        }
}

// Decorators known not to make a property (or known to make one, by name).
bool IsPlainDecorator(std::string_view text) {
    std::size_t dot = text.rfind('.');
    std::string_view leaf = dot == std::string_view::npos ? text : text.substr(dot + 1);
    static const char *kKnown[] = {"overload", "abstractmethod", "final", "override", "staticmethod",
                                   "classmethod", "property", "cached_property", "setter", "getter",
                                   "deleter", "deprecated", "type_check_only", "wraps", "lru_cache", "cache"};
    for (const char *known : kKnown)
        if (leaf == known)
            return true;
    return false;
}

}  // namespace

bool NamesDecorator(const std::vector<std::string> &decorators, std::string_view name) {
    for (const std::string &d : decorators) {
        std::string_view text = si::StripSpaces(std::string_view(d).substr(0, d.find('(')));
        std::size_t dot = text.rfind('.');
        std::string_view leaf = dot == std::string_view::npos ? text : text.substr(dot + 1);
        if (leaf == name)
            return true;
    }
    return false;
}

namespace {

nb::object MapToTuple(const TypeMap &map) {
    nb::list items;
    for (const auto &[name, values] : map)
        items.append(nb::make_tuple(nb::str(name.c_str()), values.AsFrozenSet()));
    return nb::tuple(items);
}

TypeMap TupleToMap(nb::handle pairs) {
    TypeMap map;
    if (pairs.is_none() || !PyTuple_Check(pairs.ptr()))
        return map;
    for (nb::handle pair : pairs) {
        if (!PyTuple_Check(pair.ptr()) || PyTuple_GET_SIZE(pair.ptr()) != 2)
            continue;
        map[nb::cast<std::string>(pair[0])] = ValueSet::FromIterable(pair[1]);
    }
    return map;
}

}  // namespace

std::vector<Param> ParamsOf(const si::DefInfo &def) {
    std::vector<Param> out;
    bool keyword_only = false;
    for (const std::string &raw : si::SplitDeclArguments(def.arg_decl)) {
        std::string_view text = si::StripSpaces(raw);
        if (text.empty() || text == "/")
            continue;
        if (text == "*") {
            keyword_only = true;
            continue;
        }
        Param p;
        if (text.substr(0, 2) == "**") {
            p.star = 2;
            text.remove_prefix(2);
        } else if (text.front() == '*') {
            p.star = 1;
            text.remove_prefix(1);
            keyword_only = true;
        }
        std::ptrdiff_t eq = si::NonNestedFind(text, "=");
        if (eq >= 0) {
            p.has_default = true;
            text = text.substr(0, (std::size_t) eq);
        }
        std::ptrdiff_t colon = si::NonNestedFind(text, ":");
        if (colon >= 0) {
            p.hint = std::string(si::StripSpaces(text.substr((std::size_t) colon + 1)));
            text = text.substr(0, (std::size_t) colon);
        }
        p.name = std::string(si::StripSpaces(text));
        p.keyword_only = keyword_only && p.star == 0;
        out.push_back(std::move(p));
    }
    return out;
}

nb::object CEvaluator::ClassOfInstance(nb::handle single) {
    si::CSingleResolvedInfo *s = Single(single);
    std::string_view bare = s->Bare();
    si::Kind kind = si::GetInfoBytesKind(bare);
    if (kind == si::kInstanceKind && bare.size() > (std::size_t) si::kPrefixLen) {
        std::string cls(si::kClassPrefix);
        cls.append(bare.substr(si::kPrefixLen));
        return nb::cast(nb::ref<si::CSingleResolvedInfo>(new si::CSingleResolvedInfo(
            si::ToBytes(cls), s->scope, s->loc)));
    }
    if (kind == si::kTypedLiteralKind) {
        std::string name = si::UnpackLiteralInfo(bare).class_name;
        if (name == "None")
            name = "NoneType";
        if (name == "ellipsis")
            name = "EllipsisType";
        nb::object cls = BuiltinClass(name);
        if (cls.is_none() && name == "NoneType") {
            ValueSet types = ModuleNamed(BuiltinLoc(), "types");
            for (const nb::object &t : types.Items())
                for (const nb::object &c : ModuleAttribute(t, name).Items())
                    if (Single(c)->IsClass())
                        return c;
        }
        return cls;
    }
    return nb::none();
}

TypeMap CEvaluator::MapOfInstance(nb::handle single) {
    TypeMap map;
    si::CSingleResolvedInfo *s = Single(single);
    if (s->fTypeArgs.is_none() || !PyTuple_Check(s->fTypeArgs.ptr()))
        return map;
    nb::object cls = ClassOfInstance(single);
    if (cls.is_none())
        cls = nb::borrow(single);
    std::vector<std::string> vars = OrderedTypeVars(cls);
    Py_ssize_t size = PyTuple_GET_SIZE(s->fTypeArgs.ptr());
    bool is_tuple = NameOf(Single(cls)) == "tuple";
    if (is_tuple && !vars.empty()) {
        // A tuple of known positions is, item by item, the union of them.
        ValueSet all;
        for (Py_ssize_t i = 0; i < size; ++i)
            if (!IsEllipsisArg(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), i)))
                all.Merge(ValueSet::FromIterable(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), i)));
        map[vars[0]] = all;
        return map;
    }
    for (std::size_t i = 0; i < vars.size() && (Py_ssize_t) i < size; ++i)
        map[vars[i]] = ValueSet::FromIterable(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), (Py_ssize_t) i));
    return map;
}

std::vector<std::string> CEvaluator::OrderedTypeVars(nb::handle cls) {
    std::string memo_key = ClassKey(cls);
    auto hit = fMemo.type_vars.find(memo_key);
    if (hit != fMemo.type_vars.end()) {
        Replay(hit->second.effects);
        return hit->second.values;
    }
    CutWatch watch(*this);
    EffectsCollector effects(*this);
    std::vector<std::string> vars = ComputeOrderedTypeVars(cls);
    if (watch.Whole())
        fMemo.type_vars.emplace(memo_key, EngineMemo::KeptFact<std::vector<std::string>>{vars, effects.Taken()});
    return vars;
}

std::vector<std::string> CEvaluator::ComputeOrderedTypeVars(nb::handle cls) {
    std::vector<std::string> vars;
    if (Stop())
        return vars;
    si::CSingleResolvedInfo *c = Single(cls);
    std::string_view bare = c->Bare();
    if (si::GetInfoBytesKind(bare) != si::kClassKind && si::GetInfoBytesKind(bare) != si::kInstanceKind)
        return vars;
    const auto info_held = ClassInfoOf(bare);
    const si::ClassInfo &info = *info_held;
    if (info.type_params) {
        for (const si::DeclTypeParam &param : si::ParseDeclTypeParams(*info.type_params))
            vars.push_back(param.name);
        return vars;
    }
    nb::object parent = ScopeAt(c->loc, si::ParentScopeName(NameOf(c)));
    std::vector<std::string> found;
    bool declared = false;
    for (const std::string &base : si::SplitDeclArguments(info.arg_decl)) {
        std::string_view text = si::StripSpaces(base);
        if (text.find('[') == std::string_view::npos || si::NonNestedFind(text, "=") >= 0)
            continue;
        const auto parsed = ParseText(text);
        const Tree &tree = parsed->tree;
        std::int32_t root = parsed->root;
        if (root < 0 || tree.nodes[(std::size_t) root].kind != NodeKind::kSubscript)
            continue;
        const Node &sub = tree.nodes[(std::size_t) root];
        Frame frame{parent, -2, nullptr, nullptr};
        bool is_generic = false;
        for (const nb::object &head : Eval(tree, tree.Kid(sub, 0), frame).Items()) {
            std::string form = SpecialFormOf(head);
            is_generic = is_generic || form == "Generic" || form == "Protocol";
        }
        std::vector<std::string> here;
        // The type variables named in the subscript, in order.
        std::vector<std::int32_t> stack{tree.Kid(sub, 1)};
        std::vector<std::int32_t> names;
        std::function<void(std::int32_t)> walk = [&](std::int32_t node) {
            if (node < 0)
                return;
            const Node &n = tree.nodes[(std::size_t) node];
            if (n.kind == NodeKind::kName) {
                names.push_back(node);
                return;
            }
            for (std::int32_t i = 0; i < n.kids_count; ++i)
                walk(tree.Kid(n, i));
        };
        walk(tree.Kid(sub, 1));
        for (std::int32_t node : names) {
            std::string_view name = tree.toks[(std::size_t) tree.nodes[(std::size_t) node].aux].text;
            for (const nb::object &v : Eval(tree, node, frame).Items())
                if (si::GetInfoBytesKind(Single(v)->Bare()) ==
                    si::kTypeParameterKind) {
                    here.emplace_back(name);
                    break;
                }
        }
        if (is_generic) {
            vars = here;
            declared = true;
            break;
        }
        for (const std::string &name : here)
            if (std::find(found.begin(), found.end(), name) == found.end())
                found.push_back(name);
    }
    return declared ? vars : found;
}

std::vector<MroEntry> CEvaluator::Mro(nb::handle cls, const TypeMap &map) {
    if (!map.empty() || !Single(cls)->fTypeArgs.is_none()) {
        // A specialised class: once per request for its arguments.
        const ReadKey read{ClassKey(cls), "", std::to_string((long long) PyObject_Hash(cls.ptr())), kMroUseIndex};
        std::string key = std::get<0>(read) + "|" + std::get<2>(read) + "|" + std::to_string(fArgHops) + "@";
        AppendMapSignature(key, map);
        if (PyErr_Occurred())
            throw nb::python_error();
        auto look = [&](const BindingDeps &deps, const std::string &bindings) -> const std::vector<MroEntry> * {
            std::string bound_key = key + bindings;
            if (const std::vector<MroEntry> *kept = KeptOf(fRequestMros, bound_key))
                return kept;
            // Kept from an earlier request.
            auto kept = fMemo.specialised_mros.find(bound_key);
            if (kept == fMemo.specialised_mros.end() || !RecordsStand(kept->second))
                return nullptr;
            DependOnAll(deps);  // as bound here as where it was found
            Replay(kept->second.effects);
            return &kept->second.values;
        };
        if (const std::vector<MroEntry> *kept = ForEachDepSet(read, look))
            return *kept;
        CutWatch watch(*this);
        EffectsCollector effects(*this);
        std::vector<MroEntry> mro = ComputeMro(cls, map);
        std::string bound_key = key + NoteDeps(read, watch);
        auto request_kept = Keep(mro, watch);
        request_kept.effects = effects.Taken();
        if (watch.Whole())
            fMemo.specialised_mros.insert_or_assign(
                bound_key, EngineMemo::KeptFact<std::vector<MroEntry>>{mro, request_kept.effects, fMemo.record_generation});
        fRequestMros.insert_or_assign(std::move(bound_key), std::move(request_kept));
        return mro;
    }
    std::string memo_key = ClassKey(cls);
    auto hit = fMemo.mros.find(memo_key);
    if (hit != fMemo.mros.end()) {
        Replay(hit->second.effects);
        return hit->second.values;
    }
    CutWatch watch(*this);
    EffectsCollector effects(*this);
    std::vector<MroEntry> mro = ComputeMro(cls, map);
    if (watch.Whole())
        fMemo.mros.emplace(memo_key, EngineMemo::KeptFact<std::vector<MroEntry>>{mro, effects.Taken()});
    return mro;
}

std::vector<MroEntry> CEvaluator::ComputeMro(nb::handle cls, const TypeMap &map) {
    std::vector<MroEntry> out;
    if (Stop())
        return out;
    std::vector<std::pair<nb::object, TypeMap>> stack{{nb::borrow(cls), map}};
    std::set<std::pair<std::string, std::string>> seen;
    // Depth first, left to right, each class once: close to the C3 order
    // for the class trees found in practice.
    std::function<void(nb::handle, const TypeMap &, int)> visit = [&](nb::handle c, const TypeMap &m, int depth) {
        si::CSingleResolvedInfo *s = Single(c);
        std::pair<std::string, std::string> key{UrlOf(s->loc), std::string(NameOf(s))};
        if (seen.count(key) || depth > 30 || out.size() > 60 || Stop())
            return;
        seen.insert(key);
        out.push_back(MroEntry{nb::borrow(c), m});
        std::string_view bare = s->Bare();
        if (si::GetInfoBytesKind(bare) != si::kClassKind)
            return;
        if (IsMadeClassScopeName(NameOf(s))) {
            // A class a call made: its base is the one the call named,
            // whatever the module around the call imports.
            nb::object base = MadeClassBase(s->loc, NameOf(s));
            if (!base.is_none())
                visit(base, {}, depth + 1);
            return;
        }
        const auto info_held = ClassInfoOf(bare);
        const si::ClassInfo &info = *info_held;
        nb::object parent = ScopeAt(s->loc, si::ParentScopeName(NameOf(s)));
        for (const std::string &base : si::SplitDeclArguments(info.arg_decl)) {
            std::string_view text = si::StripSpaces(base);
            if (text.empty() || si::NonNestedFind(text, "=") >= 0 || text.front() == '*')
                continue;
            const auto parsed = ParseText(text);
            const Tree &tree = parsed->tree;
            std::int32_t root = parsed->root;
            if (root < 0)
                continue;
            Frame frame{parent, -2, &m, nullptr};
            const Node &n = tree.nodes[(std::size_t) root];
            std::int32_t head = n.kind == NodeKind::kSubscript ? tree.Kid(n, 0) : root;
            std::vector<ValueSet> args;
            if (n.kind == NodeKind::kSubscript)
                TypeArgsOf(tree, tree.Kid(n, 1), frame, args);
            for (const nb::object &b : Eval(tree, head, frame).Items()) {
                si::CSingleResolvedInfo *bs = Single(b);
                if (!bs->IsClass() || !SpecialFormOf(b).empty())
                    continue;
                TypeMap base_map;
                std::vector<std::string> vars = OrderedTypeVars(b);
                for (std::size_t i = 0; i < vars.size() && i < args.size(); ++i)
                    base_map[vars[i]] = args[i];
                if (bs->fTypeArgs.is_none() == false && args.empty())
                    base_map = MapOfInstance(b);
                visit(b, base_map, depth + 1);
            }
        }
    };
    visit(cls, map, 0);
    nb::object object = BuiltinClass("object");
    if (!object.is_none()) {
        si::CSingleResolvedInfo *o = Single(object);
        std::pair<std::string, std::string> key{UrlOf(o->loc), "object"};
        if (!seen.count(key))
            out.push_back(MroEntry{object, {}});
    }
    return out;
}

ValueSet CEvaluator::Attribute(nb::handle single, std::string_view name) {
    ValueSet out;
    if (Stop())
        return out;
    si::CSingleResolvedInfo *s = Single(single);
    if (s->IsModule())
        return ModuleAttribute(single, name);
    if (s->IsClass()) {
        if (!SpecialFormOf(single).empty())
            return out;
        return ClassAttribute(single, name, single, MapOfInstance(single), false);
    }
    if (s->IsInstance(true)) {
        nb::object cls = ClassOfInstance(single);
        if (cls.is_none())
            return out;
        if ((name == "value" || name == "_value_") && IsEnumClass(cls)) {
            // A member known keeps its own value; any member, any of theirs.
            nb::handle made_with = s->fMadeWith;
            if (!made_with.is_none() && PyTuple_GET_SIZE(PyTuple_GET_ITEM(made_with.ptr(), 0)) == 1)
                return ValueSet::FromIterable(PyTuple_GET_ITEM(PyTuple_GET_ITEM(made_with.ptr(), 0), 0));
            ValueSet values = EnumMemberValues(cls);
            if (!values.Empty())
                return values;
        }
        TypeMap map = MapOfInstance(single);
        // What instances get assigned (self.x = ...), class by class.
        bool assigned = false;
        for (const MroEntry &entry : Mro(cls, map)) {
            si::CSingleResolvedInfo *k = Single(entry.cls);
            nb::object inst_scope = ScopeAt(k->loc, si::GetInstanceNameForClass(NameOf(k)));
            nb::object record = RecordOf(inst_scope);
            if (record.is_none())
                continue;
            nb::object entry_bytes = InfoBytesOf(record, name);
            if (!entry_bytes.is_none()) {
                assigned = true;
                // What the instance's constructor was passed sets its attributes.
                std::optional<CBindingsScope> constructor_bound;
                if (!s->fClosure.is_none())
                    constructor_bound.emplace(*this, ClosureBindings(s->fClosure));
                fClassMaps.emplace_back(UrlOf(k->loc), std::string(NameOf(k)), entry.map);
                BindingChange class_mapped(*this);
                out.Merge(EntryValues(inst_scope, record, si::TextView(entry_bytes, "ibytes"), -2));
                fClassMaps.pop_back();
                class_mapped.Undone();
                if (name == "__class__")
                    break;  // every class's instances have one: the most derived decides
            }
        }
        out.Merge(ClassAttribute(cls, name, single, map, true));
        if (out.Empty() && !assigned && !name.starts_with("__")) {
            // Any other name: what the class's __getattr__ gives (a name the
            // instances get assigned is found, though its value is unknown).
            ValueSet one, attr_name;
            one.Add(single);
            attr_name.Add(LiteralSingle("str", std::string(name)));
            out.Merge(CallDunder(one, "__getattr__", {attr_name}));
        }
        return out;
    }
    return out;
}

ValueSet CEvaluator::ClassAttribute(nb::handle cls, std::string_view name, nb::handle receiver,
                                    const TypeMap &map, bool via_instance) {
    ValueSet out;
    if (Stop())
        return out;
    if (name == "__match_args__") {
        // A NamedTuple or a dataclass makes it of its fields, unless its
        // body sets its own.
        int redirect = 0;
        ValueSet own;
        if (!FindLocal(ScopeAt(Single(cls)->loc, NameOf(Single(cls))), name, -2, own, redirect))
            out = GeneratedMatchArgs(cls);
        if (!out.Empty())
            return out;
    }
    for (const MroEntry &entry : Mro(cls, map)) {
        si::CSingleResolvedInfo *k = Single(entry.cls);
        nb::object scope = ScopeAt(k->loc, NameOf(k));
        ValueSet found;
        int redirect = 0;
        // What the body left the name as, once it has run (`f = staticmethod(f)`
        // after `def f`); a stub's settings all stand, as overloads or under
        // their conditions.
        long long body_end = -2;
        if (!nb::cast<bool>(fLocCache.attr("IsPyiLocation")(k->loc)))
            if (const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope))
                body_end = (long long) paths->size();
        bool local = FindLocal(scope, name, body_end, found, redirect);
        // `@x.setter def x` keeps the property that the getter made.
        auto accessor = [&](const nb::object &f) {
            return Single(f)->IsDef() && (HasDecorator(*DefInfoOf(Single(f)->Bare()), "setter") ||
                                          HasDecorator(*DefInfoOf(Single(f)->Bare()), "deleter"));
        };
        if (body_end >= 0 && !found.Empty() && std::all_of(found.Items().begin(), found.Items().end(), accessor)) {
            body_end = -2;
            found = ValueSet();
            local = FindLocal(scope, name, body_end, found, redirect);
        }
        // A member that isn't a def (`items: list[T]`, `name: T`) is read again
        // with the class's type variables standing for the arguments this
        // entry got.
        bool plain = !entry.map.empty() && local &&
                     (found.Empty() || std::any_of(found.Items().begin(), found.Items().end(), [](const nb::object &f) {
                          return !Single(f)->IsDef() && !Single(f)->IsClass();
                      }));
        if (plain) {
            fClassMaps.emplace_back(UrlOf(k->loc), std::string(NameOf(k)), entry.map);
            BindingChange class_mapped(*this);
            found = ValueSet();
            local = FindLocal(scope, name, body_end, found, redirect);
            fClassMaps.pop_back();
            class_mapped.Undone();
        }
        // A member set only under conditions that don't hold (a newer
        // version's) leaves the bases' member in force.
        if (local && !found.Empty()) {
            if (IsEnumMember(entry.cls, name, found))
                return EnumMember(entry.cls, found);
            return BindFound(found, entry.cls, receiver, entry.map, via_instance);
        }
    }
    if (!via_instance) {
        // What the class doesn't have, from its metaclass (the one its order
        // declares, else `type`), bound to the class.
        nb::object meta = MetaclassOf(cls);
        if (meta.is_none())
            meta = BuiltinClass("type");
        if (!meta.is_none() && !SameClass(Single(meta), Single(cls)))
            return ClassAttribute(meta, name, receiver, {}, true);
    }
    return out;
}

ValueSet CEvaluator::BindFound(const ValueSet &found, nb::handle owner, nb::handle receiver, const TypeMap &map,
                               bool via_instance) {
    ValueSet out;
    for (const nb::object &f : found.Items()) {
        si::CSingleResolvedInfo *s = Single(f);
        if (!s->IsDef()) {
            // A descriptor in a class body: read through its __get__ (with
            // the instance, or None from the class, and the class).
            if (via_instance && IsExpressionText(f, true)) {
                // A lambda in a class body is a function: read on an
                // instance, a method bound to it.
                nb::ref<si::CSingleResolvedInfo> bound(new si::CSingleResolvedInfo(s->ibytes, s->scope, s->loc, s->fClassRef));
                bound->fBoundTo = nb::borrow(receiver);
                out.Add(nb::cast(bound));
                continue;
            }
            if (si::GetInfoBytesKind(s->Bare()) == si::kInstanceKind) {
                if (std::optional<ValueSet> read = ReadKeptDescriptor(f, receiver, via_instance)) {
                    out.Merge(*read);
                    continue;
                }
                ValueSet descriptor, instance, owner_cls;
                descriptor.Add(f);
                if (via_instance)
                    instance.Add(receiver);
                else
                    instance.Add(LiteralSingle("None", std::nullopt));
                nb::object cls = via_instance ? ClassOfInstance(receiver) : nb::borrow(receiver);
                if (!cls.is_none())
                    owner_cls.Add(cls);
                ValueSet got = CallDunder(descriptor, "__get__", {instance, owner_cls});
                if (!got.Empty()) {
                    out.Merge(got);
                    continue;
                }
            }
            out.Add(f);
            continue;
        }
        std::string_view bare = s->Bare();
        const auto def_held = DefInfoOf(bare);
        const si::DefInfo &def = *def_held;
        if (HasDecorator(def, "setter") || HasDecorator(def, "deleter"))
            continue;  // the same property as its getter
        bool is_static = HasDecorator(def, "staticmethod");
        // The leaf's name without the index an overload carries (__new__|2).
        std::string_view leaf = si::LeafScopeName(si::SplitScopeNameFromSuffixes(def.scope_name).first);
        bool is_class = HasDecorator(def, "classmethod") || leaf == "__new__" || leaf == "__init_subclass__" ||
                        leaf == "__class_getitem__";
        bool is_property = HasDecorator(def, "property") || HasDecorator(def, "cached_property") ||
                           HasDecorator(def, "getter");
        if (!is_property && !is_static && !is_class)
            for (const std::string &d : def.decorators)
                if (!IsPlainDecorator(d) && DecoratorMakesProperty(s->loc, def.scope_name, d, f)) {
                    is_property = true;
                    break;
                }
        char kind = si::kUnboundMethodKind;
        nb::object bound_to = nb::none();
        if (is_static)
            kind = si::kFunctionKind;
        else if (is_class) {
            kind = si::kMethodKind;
            bound_to = via_instance ? ClassOfInstance(receiver) : nb::borrow(receiver);
            if (bound_to.is_none())
                bound_to = nb::borrow(owner);
        } else if (via_instance) {
            kind = si::kMethodKind;
            bound_to = nb::borrow(receiver);
        }
        nb::object method = DefSingle(s->loc, bare, kind);
        si::CSingleResolvedInfo *m = Single(method);
        m->fBoundTo = bound_to;
        if (!map.empty())
            m->fTypeArgs = MapToTuple(map);
        if (is_property) {
            if (via_instance) {
                out.Merge(CallDef(method, {}, {}));
            } else {
                nb::object property = BuiltinClass("property");
                if (!property.is_none())
                    out.Merge(InstanceOf(property, nb::none()));
            }
            continue;
        }
        out.Add(method);
    }
    return out;
}

ValueSet CEvaluator::CallValue(nb::handle callee, const std::vector<ValueSet> &args,
                               const std::vector<std::pair<std::string, ValueSet>> &kwargs, const Frame &frame) {
    ValueSet out;
    if (Stop())
        return out;
    si::CSingleResolvedInfo *c = Single(callee);
    if (c->IsClass() && !c->fTypeArgs.is_none() && SpecialFormOf(callee) == "Callable") {
        Py_ssize_t size = PyTuple_GET_SIZE(c->fTypeArgs.ptr());
        if (size > 0)
            return ValueSet::FromIterable(PyTuple_GET_ITEM(c->fTypeArgs.ptr(), size - 1));
        return out;
    }
    if (c->IsClass()) {
        // A class makes an instance; its type arguments come from what its
        // constructor's parameters bind.
        // (Read first: what the constructor's hints call takes the mark.)
        const bool arguments_whole = fArgumentsWhole;
        std::vector<std::string> vars = OrderedTypeVars(callee);
        nb::object type_args = nb::none();
        bool args_bind_items = false;
        if (!c->fTypeArgs.is_none()) {
            type_args = c->fTypeArgs;
        } else if (!vars.empty() && (!args.empty() || !kwargs.empty())) {
            ValueSet blank = InstanceOf(callee, nb::none());
            ValueSet inits = ClassAttribute(callee, "__init__", blank.Items()[0], {}, true);
            inits.Merge(ClassAttribute(callee, "__new__", callee, {}, false));
            TypeMap bound;
            nb::object self_args = nb::none();
            for (const nb::object &init : AcceptingDefs(inits, args, kwargs).Items()) {
                si::CSingleResolvedInfo *i = Single(init);
                const auto def_held = DefInfoOf(i->Bare());
                const si::DefInfo &def = *def_held;
                const auto params_held = KeptParamsOf(def);
                const std::vector<Param> &params = *params_held;
                nb::object def_scope = ScopeAt(i->loc, si::DefLineScope(NameOf(i)));
                std::size_t first = params.empty() || params[0].star ? 0 : 1;
                BindArgumentTypeVars(def_scope, params, first, args, kwargs, bound);
                bool hinted_self = first == 1 && !params[0].hint.empty();
                if (bound.empty() && !hinted_self)
                    continue;
                // A hinted first parameter says what the instance is
                // (dict(a=1): `self: dict[str, _VT]`, Popen(text=True): `self: Popen[str]`).
                if (hinted_self)
                    for (const nb::object &made : ResolveHintText(def_scope, params[0].hint, &bound).Items()) {
                        si::CSingleResolvedInfo *m = Single(made);
                        nb::object made_cls = ClassOfInstance(made);
                        if (!m->fTypeArgs.is_none() && !made_cls.is_none() && SameClass(Single(made_cls), c))
                            self_args = m->fTypeArgs;
                    }
                break;
            }
            args_bind_items = !self_args.is_none() || !bound.empty();
            if (!self_args.is_none()) {
                type_args = self_args;
            } else if (!bound.empty()) {
                nb::list items;
                for (const std::string &var : vars)
                    items.append(bound.count(var) ? bound[var].AsFrozenSet() : ValueSet().AsFrozenSet());
                if (NameOf(c) == "tuple" && c->loc.is(BuiltinLoc()))
                    items.append(EllipsisArg());  // tuple(iterable): as many items as it gives
                type_args = nb::tuple(items);
            }
        }
        ValueSet news;
        for (const nb::object &nw : ClassAttribute(callee, "__new__", callee, {}, false).Items()) {
            si::CSingleResolvedInfo *n = Single(nw);
            if (!n->IsDef())
                continue;
            const auto def_held = DefInfoOf(n->Bare());
            const si::DefInfo &def = *def_held;
            std::string_view hint = def.return_hint ? si::StripSpaces(*def.return_hint) : std::string_view();
            if (hint.empty() || hint == "Self" || si::ParentScopeName(si::NormalizeScopeName(def.scope_name)) == "object")
                continue;
            news.Add(nw);
        }
        if (!news.Empty()) {
            ValueSet made;
            for (const nb::object &nw : SelectOverloads(news, args, &kwargs).Items())
                if (OverloadAccepts(nw, args, &kwargs))
                    made.Merge(CallDef(nw, args, kwargs));
            if (!made.Empty())
                return WithCallArguments(made, callee, args, kwargs);
        }
        ValueSet made = WithCallArguments(InstanceOf(callee, type_args), callee, args, kwargs);
        made = WithConstructorBindings(made, callee, args, kwargs, fArgumentsWhole);
        // A container made from what the call passed (`set(items)`) is a new
        // one, as a display is: what later puts items in adds to its items.
        // (It has no items told apart.)
        nb::object items = nb::none();
        if (args_bind_items && arguments_whole && NameOf(c) == "dict" && c->loc.is(BuiltinLoc()))
            items = DictCallItems(args, kwargs);
        if (args_bind_items)
            for (const nb::object &m : made.Items())
                if (Single(m)->IsInstance(false) && Single(m)->fDisplayItems.is_none())
                    Single(m)->fDisplayItems = items.is_none() ? nb::tuple() : items;
        return made;
    }
    if (c->IsDef())
        return CallDef(callee, args, kwargs);
    if (si::GetInfoBytesKind(si::TextView(c->ibytes, "ibytes")) == si::kExpressionEquivKind)
        return CallLambda(callee, args, kwargs);
    if (c->IsInstance(true)) {
        if (std::optional<ValueSet> kept = CallKept(callee, args, kwargs, frame))
            return *kept;
        ValueSet one;
        one.Add(callee);
        return CallDunder(one, "__call__", args, kwargs);
    }
    return out;
}

nb::object CEvaluator::DictCallItems(const std::vector<ValueSet> &args,
                                     const std::vector<std::pair<std::string, ValueSet>> &kwargs) {
    std::vector<std::pair<std::string, nb::object>> items;
    if (args.size() > 1)
        return nb::none();
    if (args.size() == 1) {
        if (args[0].Size() != 1)
            return nb::none();
        if (!HoldsDictDisplay(args[0].Items()[0]))
            return nb::none();
        for (nb::handle pair : Single(args[0].Items()[0])->fDisplayItems)
            items.emplace_back(std::string(si::TextView(pair[0], "display key")), nb::borrow(pair[1]));
    }
    for (const auto &[name, values] : kwargs) {
        std::string key(Single(LiteralSingle("str", name))->Bare());
        std::erase_if(items, [&](const auto &item) { return item.first == key; });
        items.emplace_back(key, values.AsFrozenSet());
    }
    if (items.empty() || items.size() > kMaxDisplayItems)
        return nb::none();
    nb::list out;
    for (const auto &[key, values] : items)
        out.append(nb::make_tuple(nb::bytes(key.data(), key.size()), values));
    return nb::tuple(out);
}

void CEvaluator::BindArgumentTypeVars(nb::handle def_scope, const std::vector<Param> &params, std::size_t first,
                                      const std::vector<ValueSet> &args, const Keywords &kwargs, TypeMap &bound) {
    ForEachHintedPositional(params, first, args, [&](const std::string &hint, const ValueSet &arg) {
        BindTypeVars(def_scope, hint, arg, bound);
    });
    // Keywords: their parameter's hint, or that of **kwargs.
    for (const auto &[name, values] : kwargs)
        for (std::size_t p = first; p < params.size(); ++p)
            if ((params[p].name == name && params[p].star == 0) || params[p].star == 2) {
                if (!params[p].hint.empty())
                    BindTypeVars(def_scope, params[p].hint, values, bound);
                break;
            }
}

ValueSet CEvaluator::CallDef(nb::handle def_single, const std::vector<ValueSet> &args,
                             const std::vector<std::pair<std::string, ValueSet>> &kwargs) {
    const bool arguments_whole = std::exchange(fArgumentsWhole, false);
    si::CSingleResolvedInfo *d = Single(def_single);
    TypeMap map = TupleToMap(d->fTypeArgs);
    if (!d->fBoundTo.is_none()) {
        si::CSingleResolvedInfo *recv = Single(d->fBoundTo);
        ValueSet self;
        self.Add(d->fBoundTo);
        map["Self"] = recv->IsClass() ? InstanceOf(d->fBoundTo, recv->fTypeArgs) : self;
    }
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    if (def.return_hint && def.return_hint->find_first_not_of(" ") != std::string::npos) {
        // Bind the def's own type variables from the arguments (and from the
        // receiver for a bound method's first parameter); those of its class
        // stay what the receiver says (setdefault(k, []) of a dict[str, list[int]]).
        TypeMap of_receiver = map;
        const auto params_held = KeptParamsOf(def);
        const std::vector<Param> &params = *params_held;
        nb::object def_scope = ScopeAt(d->loc, si::DefLineScope(NameOf(d)));
        std::size_t first = 0;
        if (!d->fBoundTo.is_none() && !params.empty()) {
            if (!params[0].hint.empty()) {
                // The first parameter receives what the method is bound to:
                // the class itself for a class method or a metaclass's method.
                ValueSet bound;
                bound.Add(d->fBoundTo);
                BindTypeVars(def_scope, params[0].hint, bound, map);
            }
            first = 1;
        }
        ForEachHintedPositional(params, first, args, [&](const std::string &hint, const ValueSet &arg) {
            BindTypeVars(def_scope, hint, arg, map);
        });
        for (const auto &[name, values] : kwargs)
            for (const Param &p : params)
                if (p.name == name && !p.hint.empty())
                    BindTypeVars(def_scope, p.hint, values, map);
        for (const auto &[var, values] : of_receiver)
            if (var != "Self" && !values.Empty())
                map[var] = values;
    }
    if (def.return_hint && def.return_hint->find_first_not_of(" ") != std::string::npos)
        return ReturnsOfDef(def_single, map);
    // The body answers: its parameters without a hint are what this call
    // passes them.
    return ReturnsOfDef(def_single, map, ArgumentBindings(def_single, args, kwargs, arguments_whole));
}

bool CEvaluator::CallNeedsArguments(nb::handle callee) {
    si::CSingleResolvedInfo *c = Single(callee);
    if (!c->IsDef())
        return true;
    const auto def_held = DefInfoOf(c->Bare());
    const si::DefInfo &def = *def_held;
    // Without a return hint the body answers, under what the call binds;
    // among overloads, the arguments choose.
    if (!def.return_hint || def.return_hint->find_first_not_of(" ") == std::string::npos ||
        HasDecorator(def, "overload"))
        return true;
    std::optional<std::vector<std::string>> vars = ReturnHintTypeParams(callee);
    if (!vars)
        return true;
    // Those the receiver binds stay what it says, whatever the arguments bind.
    TypeMap of_receiver = TupleToMap(c->fTypeArgs);
    return std::any_of(vars->begin(), vars->end(), [&](const std::string &var) {
        auto bound = of_receiver.find(var);
        return var == "Self" || bound == of_receiver.end() || bound->second.Empty();
    });
}

std::vector<std::pair<std::string, ValueSet>> CEvaluator::ArgumentBindings(nb::handle def_single,
                                                                          const std::vector<ValueSet> &args,
                                                                          const Keywords &kwargs,
                                                                          bool arguments_whole) {
    si::CSingleResolvedInfo *d = Single(def_single);
    const auto def_held = DefInfoOf(d->Bare());
    std::vector<Param> params = *KeptParamsOf(*def_held);
    // An annotation that names no type (a note in a string, `3 + 3`) leaves
    // its parameter to what the call passes.
    for (Param &param : params)
        if (!param.hint.empty() && NamesNoType(param.hint))
            param.hint.clear();
    std::vector<std::pair<std::string, ValueSet>> arguments;
    std::set<std::string> passed;
    std::size_t first = !d->fBoundTo.is_none() && !params.empty() && params[0].star == 0 ? 1 : 0;
    // (A call whose arguments are all known passes `*args` no positions
    // when none are left for it.)
    for (std::size_t p = first, a = 0;
         p < params.size() && (a < args.size() || (arguments_whole && params[p].star == 1)); ++p, ++a) {
        passed.insert(params[p].name);
        if (params[p].star == 1 && params[p].hint.empty()) {
            // `*args`: a tuple of the positions this call passes from there on.
            nb::object tuple_cls = BuiltinClass("tuple");
            nb::list items;
            for (; a < args.size(); ++a)
                items.append(args[a].AsFrozenSet());
            if (!tuple_cls.is_none())
                arguments.emplace_back(params[p].name, InstanceOf(tuple_cls, nb::tuple(items)));
            break;
        }
        if (params[p].star || params[p].keyword_only)
            break;
        if (params[p].hint.empty() && !args[a].Empty())
            arguments.emplace_back(params[p].name, args[a]);
    }
    for (const auto &[name, values] : kwargs) {
        passed.insert(name);
        for (std::size_t p = first; p < params.size(); ++p)
            if (params[p].name == name && params[p].star == 0 && params[p].hint.empty() && !values.Empty())
                arguments.emplace_back(name, values);
    }
    // `**kwargs`: a dict of the keywords no other parameter takes; when the
    // call's keywords are all known, each is bound by its name too, for the
    // body to pass them on.
    auto double_star = std::find_if(params.begin() + (std::ptrdiff_t) first, params.end(),
                                    [](const Param &p) { return p.star == 2 && p.hint.empty(); });
    if (arguments_whole && double_star != params.end()) {
        Keywords rest;
        for (const auto &[name, values] : kwargs) {
            if (std::any_of(params.begin() + (std::ptrdiff_t) first, params.end(),
                            [&](const Param &p) { return p.star == 0 && p.name == name; }))
                continue;
            rest.emplace_back(name, values);
            arguments.emplace_back(KeywordsBindingName(double_star->name, name), values);
        }
        ValueSet dict = KeywordsDictByName(rest);
        arguments.emplace_back(double_star->name, dict);
        arguments.emplace_back(KeywordsBindingName(double_star->name), dict);
    }
    nb::object body = arguments_whole ? ScopeAt(d->loc, NameOf(d)) : nb::object();
    nb::object record = arguments_whole ? RecordOf(body) : nb::object();
    for (std::size_t p = first; arguments_whole && !record.is_none() && p < params.size(); ++p) {
        // A parameter the call leaves out holds its default.
        if (params[p].star || !params[p].hint.empty() || !params[p].has_default || passed.count(params[p].name))
            continue;
        ValueSet defaults = DefaultOfParameter(body, record, params[p].name);
        if (!defaults.Empty())
            arguments.emplace_back(params[p].name, defaults);
    }
    return arguments;
}

ValueSet CEvaluator::WithConstructorBindings(const ValueSet &made, nb::handle cls, const std::vector<ValueSet> &args,
                                             const Keywords &kwargs, bool arguments_whole) {
    if (made.Size() != 1 || (args.empty() && kwargs.empty()))
        return made;
    const nb::object &instance = made.Items()[0];
    ValueSet inits = AcceptingDefs(ClassAttribute(cls, "__init__", instance, {}, true), args, kwargs);
    if (inits.Size() != 1)
        return made;
    const nb::object &init = inits.Items()[0];
    si::CSingleResolvedInfo *i = Single(init);
    // (A stub's or the builtins' __init__ has no body to read the arguments in.)
    if (!i->IsDef() || i->fBoundTo.is_none() || nb::cast<bool>(fLocCache.attr("IsPyiLocation")(i->loc)))
        return made;
    std::vector<std::pair<std::string, ValueSet>> arguments = ArgumentBindings(init, args, kwargs, arguments_whole);
    if (arguments.empty())
        return made;
    const std::string &url = UrlOf(i->loc);
    const std::string scope_name(NameOf(i));
    nb::list closure;
    for (const auto &[param, values] : arguments)
        closure.append(nb::make_tuple(url, scope_name, param, values.AsFrozenSet()));
    Single(instance)->fClosure = nb::tuple(closure);
    return made;
}

ValueSet CEvaluator::ReturnsOfDef(nb::handle def_single, const TypeMap &map,
                                  const std::vector<std::pair<std::string, ValueSet>> &arguments) {
    ValueSet out;
    if (Stop())
        return out;
    si::CSingleResolvedInfo *d = Single(def_single);
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    std::string_view name = NameOf(d);
    if (def.return_hint && def.return_hint->find_first_not_of(" ") != std::string::npos) {
        nb::object def_scope = ScopeAt(d->loc, si::DefLineScope(name));
        return ResolveHintText(def_scope, *def.return_hint, &map);
    }
    if (std::optional<std::string> hint = DocstringHint(ScopeAt(d->loc, name), "return")) {
        out = ResolveHintText(ScopeAt(d->loc, si::DefLineScope(name)), *hint, &map);
        if (!out.Empty())
            return out;
    }
    std::tuple<std::string, std::string, std::string, long long> key{UrlOf(d->loc), std::string(name),
                                                                    "return", -5};
    if (CycleAt(key))
        return out;  // a recursive def: its other returns tell
    ActiveRead active(*this, key);
    nb::object scope = ScopeAt(d->loc, name);
    nb::object record = RecordOf(scope);
    if (record.is_none()) {
        ModuleRecord(d->loc);
        return out;
    }
    nb::object returns = InfoBytesOf(record, "return");
    if (IsGeneratorDef(d->loc, name)) {
        // The scan records what a generator yields as what it returns.
        nb::object generator = TypingClass("Generator");
        if (generator.is_none())
            return out;
        ValueSet yielded, finished;
        std::optional<std::vector<ValueSet>> in_order;
        if (!returns.is_none()) {
            auto [yields, returned] = GeneratorEntries(scope, si::TextView(returns, "ibytes"));
            ++fDepth;
            in_order = YieldsInOrder(scope, record, yields);
            if (in_order)
                for (const ValueSet &item : *in_order)
                    yielded.Merge(item);
            else
                yielded = EntryValues(scope, record, yields, -2);
            if (!returned.empty())
                finished = EntryValues(scope, record, returned, -2);
            --fDepth;
        }
        ValueSet none;
        none.Add(LiteralSingle("None", std::nullopt));
        // What it finishes with: what its return statements give, None
        // without one.
        ValueSet made = InstanceOf(generator, nb::make_tuple(yielded.AsFrozenSet(), none.AsFrozenSet(),
                                                             (finished.Empty() ? none : finished).AsFrozenSet()));
        // (Unpacking it tells its items apart.)
        if (in_order && !in_order->empty() && made.Size() == 1) {
            nb::list items;
            for (const ValueSet &item : *in_order)
                items.append(item.AsFrozenSet());
            Single(made.Items()[0])->fDisplayItems = nb::tuple(items);
        }
        return made;
    }
    if (returns.is_none()) {
        // Falling off the end of a function gives None; a stub's body, or
        // one that always raises, gives nothing.
        if (!nb::cast<bool>(fLocCache.attr("IsPyiLocation")(d->loc)) && !AlwaysRaisesDef(d->loc, name))
            out.Add(LiteralSingle("None", std::nullopt));
        return out;
    }
    // The body of a bound method reads its first parameter as the object it
    // is bound to.
    std::tuple<std::string, std::string, std::string> self_key;
    std::optional<BindingChange> self_bound;
    if (!d->fBoundTo.is_none()) {
        const auto params_held = KeptParamsOf(def);
        const std::vector<Param> &params = *params_held;
        if (!params.empty() && params[0].star == 0) {
            self_key = {UrlOf(d->loc), std::string(name), params[0].name};
            if (!fBoundNames.count(self_key)) {
                ValueSet self;
                self.Add(d->fBoundTo);
                fBoundNames[self_key] = self;
                self_bound.emplace(*this);
            }
        }
    }
    // A def that a call returned reads the names around it as that call bound them.
    std::optional<CBindingsScope> closure_bound;
    if (!d->fClosure.is_none())
        closure_bound.emplace(*this, ClosureBindings(d->fClosure));
    std::vector<std::tuple<std::string, std::string, std::string>> bound_arguments;
    for (const auto &[param, values] : arguments) {
        std::tuple<std::string, std::string, std::string> key{UrlOf(d->loc), std::string(name), param};
        if (fBoundNames.emplace(key, values).second)
            bound_arguments.push_back(key);
    }
    std::optional<BindingChange> arguments_bound;
    if (!bound_arguments.empty())
        arguments_bound.emplace(*this);
    ++fDepth;
    std::string_view returned = si::TextView(returns, "ibytes");
    // A return under tests that nothing this call passes meets doesn't run.
    std::string reachable = ReachableEntry(scope, record, returned);
    returned = reachable;
    out = EntryValues(scope, record, returned, -2);
    out = WithClosures(out);
    --fDepth;
    // Undone in the reverse order (each puts back the version before it).
    for (const auto &key : bound_arguments)
        fBoundNames.erase(key);
    if (arguments_bound)
        arguments_bound->Undone();
    closure_bound.reset();
    if (self_bound) {
        fBoundNames.erase(self_key);
        self_bound->Undone();
    }
    return out;
}

CEvaluator::Bindings CEvaluator::ClosureBindings(nb::handle closure) {
    Bindings out;
    for (nb::handle item : closure) {
        nb::tuple t = nb::borrow<nb::tuple>(item);
        out.emplace_back(std::tuple<std::string, std::string, std::string>{nb::cast<std::string>(t[0]),
                                                                          nb::cast<std::string>(t[1]),
                                                                          nb::cast<std::string>(t[2])},
                         ValueSet::FromIterable(t[3]));
    }
    return out;
}

ValueSet CEvaluator::WithClosures(const ValueSet &values) {
    if (fBoundNames.empty())
        return values;
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        si::CSingleResolvedInfo *s = Single(v);
        if (!s->IsDef() || !s->fBoundTo.is_none() || !s->fClosure.is_none()) {
            out.Add(v);
            continue;
        }
        std::string_view name = NameOf(s);
        const std::string &url = UrlOf(s->loc);
        nb::list closure;
        for (const auto &[key, bound] : fBoundNames) {
            const auto &[bound_url, scope_name, bound_name] = key;
            if (bound_url == url && IsNestedScopeName(name, scope_name)) {
                DependOn(bound_url, scope_name);  // the def carries the bindings
                closure.append(nb::make_tuple(bound_url, scope_name, bound_name, bound.AsFrozenSet()));
            }
        }
        if (closure.size() == 0) {
            out.Add(v);
            continue;
        }
        nb::ref<si::CSingleResolvedInfo> copy(new si::CSingleResolvedInfo(s->ibytes, s->scope, s->loc, s->fClassRef));
        copy->fTypeArgs = s->fTypeArgs;
        copy->fClosure = nb::tuple(closure);
        out.Add(nb::cast(copy));
    }
    return out;
}

ValueSet CEvaluator::CallDunder(const ValueSet &receivers, std::string_view method, const std::vector<ValueSet> &args,
                                const Keywords &kwargs) {
    ValueSet out;
    if (Stop())
        return out;
    for (const nb::object &r : receivers.Items()) {
        si::CSingleResolvedInfo *s = Single(r);
        if (s->IsClass()) {
            // A class object's dunders are its metaclass's.
            ValueSet one;
            one.Add(r);
            out.Merge(CallMetaclassDunder(one, method, args));
            continue;
        }
        if (!s->IsInstance(true))
            continue;
        nb::object cls = ClassOfInstance(r);
        if (cls.is_none())
            continue;
        ValueSet methods = ClassAttribute(cls, method, r, MapOfInstance(r), true);
        std::vector<nb::object> defs;
        for (const nb::object &m : methods.Items())
            if (Single(m)->IsDef())
                defs.push_back(m);
        ValueSet candidates;
        for (const nb::object &m : defs)
            candidates.Add(m);
        for (const nb::object &m : SelectOverloads(candidates, args, &kwargs).Items())
            if (OverloadAccepts(m, args, &kwargs))
                out.Merge(CallDef(m, args, kwargs));
    }
    // An argument that may be of several types no method takes whole: what
    // it gives where one of them fits (str + (str | bytes) is a str).
    auto wide = std::find_if(args.begin(), args.end(), [](const ValueSet &a) { return a.Size() > 1; });
    if (out.Empty() && wide != args.end() && !fLenientFit) {
        LenientFit lenient(*this);
        return CallDunder(receivers, method, args, kwargs);
    }
    return out;
}

ValueSet CEvaluator::IterItems(const ValueSet &values) {
    ValueSet out;
    if (Stop())
        return out;
    for (const nb::object &v : values.Items()) {
        // A named tuple's items are its fields.
        std::vector<nb::object> positions;
        nb::object cls = ClassOfInstance(v);
        if (!cls.is_none() && NameOf(Single(cls)) != "tuple" && TuplePositions(v, positions)) {
            for (const nb::object &p : positions)
                out.Merge(ValueSet::FromIterable(p));
            continue;
        }
        ValueSet one;
        one.Add(v);
        ValueSet iterators = CallDunder(one, "__iter__", {});
        if (iterators.Empty())
            iterators = CallDunder(one, "__aiter__", {});
        ValueSet items = CallDunder(iterators, "__next__", {});
        if (items.Empty())
            items = Awaited(CallDunder(iterators, "__anext__", {}));
        out.Merge(items);
    }
    return out;
}

// Whether the positional arguments fit a def's parameter hints, as far as
// the hints name concrete classes.  Protocols and unresolved hints accept
// anything; an int is good where a float or a complex is wanted.
bool CEvaluator::OverloadAccepts(nb::handle def_single, const std::vector<ValueSet> &args, const Keywords *kwargs) {
    si::CSingleResolvedInfo *d = Single(def_single);
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    const auto params_held = KeptParamsOf(def);
    const std::vector<Param> &params = *params_held;
    std::size_t first = (d->IsBound() || (!d->fBoundTo.is_none())) && !params.empty() ? 1 : 0;
    std::size_t positional = 0;
    bool has_star = false, has_double_star = false;
    for (std::size_t p = first; p < params.size(); ++p) {
        if (!params[p].star && !params[p].keyword_only)
            ++positional;
        has_star = has_star || params[p].star == 1;
        has_double_star = has_double_star || params[p].star == 2;
    }
    if (args.size() > positional && !has_star)
        return false;
    auto given_by_keyword = [&](const std::string &name) {
        if (kwargs)
            for (const auto &[kw, values] : *kwargs)
                if (kw == name)
                    return true;
        return false;
    };
    std::size_t seen = 0;
    for (std::size_t p = first; p < params.size(); ++p) {
        const Param &param = params[p];
        if (param.star || param.has_default)
            continue;
        bool by_position = !param.keyword_only && seen < args.size();
        if (!param.keyword_only)
            ++seen;
        // A parameter nothing gives: when the keywords are known, no fit.
        if (!by_position && kwargs && !given_by_keyword(param.name))
            return false;
    }
    nb::object def_scope = ScopeAt(d->loc, si::DefLineScope(NameOf(d)));
    // The type variables of the receiver's class are what it says (pop(k,
    // None) of a dict[str, int] wants an int default).
    // Their values' literal values don't count: dict[str, int] of {"a": 1}
    // takes any str key.
    TypeMap bound;
    for (const auto &[var, values] : TupleToMap(d->fTypeArgs))
        for (const nb::object &v : values.Items()) {
            std::string_view bare = Single(v)->Bare();
            if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind)
                bound[var].Add(LiteralSingle(si::UnpackLiteralInfo(bare).class_name, std::nullopt));
            else
                bound[var].Add(v);
        }
    for (std::size_t p = first, a = 0; p < params.size() && a < args.size(); ++p, ++a) {
        const Param &param = params[p];
        if (param.star || param.keyword_only)
            break;
        if (!ValueFitsHint(def_scope, param.hint, args[a], bound))
            return false;
    }
    if (kwargs)
        for (const auto &[kw, values] : *kwargs) {
            const Param *named = nullptr;
            for (std::size_t p = first; p < params.size(); ++p)
                if (params[p].name == kw && params[p].star == 0)
                    named = &params[p];
            if (!named) {
                if (!has_double_star)
                    return false;
                continue;
            }
            if (!ValueFitsHint(def_scope, named->hint, values, bound))
                return false;
        }
    return true;
}

ValueSet CEvaluator::AcceptingDefs(const ValueSet &callees, const std::vector<ValueSet> &args,
                                   const Keywords &kwargs) {
    ValueSet out;
    for (int lenient_try = 0; lenient_try < 2 && out.Empty(); ++lenient_try) {
        std::optional<LenientFit> lenient;
        if (lenient_try)
            lenient.emplace(*this);
        for (const nb::object &callee : callees.Items())
            if (Single(callee)->IsDef() && OverloadAccepts(callee, args, &kwargs))
                out.Add(callee);
    }
    return out;
}

// Whether a value may be passed where `hint` (read in `def_scope`) is
// wanted, as far as the hint names classes, protocols or literal values.
bool CEvaluator::ValueFitsHint(nb::handle def_scope, const std::string &hint, const ValueSet &given,
                               const TypeMap &bound) {
    if (Stop())
        return true;
    if (hint.empty() || given.Empty())
        return true;
    // A type variable bound to nothing stands for its upper bound
    // (Iterable[tuple[K, V]] wants tuples, Iterable[T | None] anything).
    const TypeMap *fit_before = fFitMap;
    fFitMap = &bound;
    ValueSet wanted = ResolveHintText(def_scope, hint, &bound);
    fFitMap = fit_before;
    return ValuesFit(wanted, given);
}

bool CEvaluator::ValuesFit(const ValueSet &wanted, const ValueSet &given, bool check_args) {
    if (wanted.Empty() || given.Empty() || Stop())
        return true;
    if (std::optional<bool> literal_fit = LiteralsFit(wanted, given))
        return *literal_fit;
    // The classes of the instances wanted, each with the instance.
    std::vector<nb::object> wanted_classes, wanted_instances;
    // Classes themselves a type[C] hint wants: C and its subclasses.
    std::vector<nb::object> wanted_class_objects;
    for (const nb::object &w : wanted.Items()) {
        if (Single(w)->IsClass()) {
            if (NameOf(Single(w)) == "object" || IsProtocolClass(w))
                return true;
            wanted_class_objects.push_back(w);
            continue;
        }
        nb::object wc = ClassOfInstance(w);
        if (wc.is_none())
            return true;  // something the hint allows that isn't a class
        if (NameOf(Single(wc)) == "object" && Single(wc)->loc.is(fLocCache.attr("GetBuiltinLoc")()))
            return true;  // any object (a type variable bound to nothing)
        wanted_classes.push_back(wc);
        wanted_instances.push_back(w);
    }
    // A form of the typing module a hint names (Callable, ...) allows
    // anything; asked only when a value fits nothing else.
    std::optional<bool> form_wanted;
    auto form_allows = [&]() {
        if (!form_wanted) {
            form_wanted = false;
            for (const nb::object &w : wanted_class_objects)
                form_wanted = *form_wanted || !SpecialFormOf(w).empty();
        }
        return *form_wanted;
    };
    // Every value the argument may have must fit (a float | int is no int),
    // or in a lenient try one of them.
    auto fits_known = [&](const nb::object &v) {
        nb::object vc = ClassOfInstance(v);
        if (!wanted_class_objects.empty() && Single(v)->IsClass())
            for (const MroEntry &e : Mro(v, {}))
                for (const nb::object &w : wanted_class_objects)
                    if (SameClass(Single(e.cls), Single(w)))
                        return true;
        // Any class object may be what an instance of `type` stands for.
        if (!wanted_class_objects.empty() && !vc.is_none() && NameOf(Single(vc)) == "type")
            return true;
        if (vc.is_none()) {
            // A def or a class is no int, str, None, ... of the builtins.
            si::CSingleResolvedInfo *s = Single(v);
            bool plain_builtins = s->IsDef() || s->IsClass();
            for (const nb::object &wc : wanted_classes) {
                std::string_view wname = NameOf(Single(wc));
                plain_builtins = plain_builtins &&
                                 (Single(wc)->loc.is(BuiltinLoc()) || wname == "NoneType") &&
                                 wname != "object" && wname != "type" && !IsProtocolClass(wc);
            }
            return !plain_builtins;
        }
        for (std::size_t i = 0; i < wanted_classes.size(); ++i)
            if (IsProtocolClass(wanted_classes[i]) && ProtocolAccepts(wanted_classes[i], vc) &&
                (!check_args || TypeArgsFit(wanted_instances[i], v)))
                return true;
        std::string_view vname = NameOf(Single(vc));
        for (const MroEntry &e : Mro(vc, {}))
            for (std::size_t i = 0; i < wanted_classes.size(); ++i) {
                si::CSingleResolvedInfo *w = Single(wanted_classes[i]);
                std::string_view wname = NameOf(w);
                if (SameClass(Single(e.cls), w) && (!check_args || TypeArgsFit(wanted_instances[i], v)))
                    return true;
                // The numeric tower: an int is good for a float, both for a complex.
                bool builtin = w->loc.is(Single(vc)->loc);
                if (builtin && wname == "float" && (vname == "int" || vname == "bool"))
                    return true;
                if (builtin && wname == "complex" && (vname == "int" || vname == "float" || vname == "bool"))
                    return true;
            }
        return false;
    };
    auto fits = [&](const nb::object &v) {
        return fits_known(v) || (!wanted_class_objects.empty() && form_allows());
    };
    for (const nb::object &v : given.Items())
        if (fits(v) == fLenientFit)
            return fLenientFit;
    return !fLenientFit;
}

}  // namespace pysource::infer

namespace pysource::infer {

// Whether the type arguments `value` has for the class of `wanted` fit those
// `wanted` names (a list of floats is no Iterable[int]); what isn't known fits.
bool CEvaluator::TypeArgsFit(nb::handle wanted, nb::handle value) {
    si::CSingleResolvedInfo *w = Single(wanted);
    if (w->fTypeArgs.is_none() || !PyTuple_Check(w->fTypeArgs.ptr()) || fDepth > 8)
        return true;
    nb::object wc = ClassOfInstance(wanted);
    if (wc.is_none())
        return true;
    if (NameOf(Single(wc)) == "tuple") {
        // tuple[X, ...] wants every item an X.
        Py_ssize_t size = PyTuple_GET_SIZE(w->fTypeArgs.ptr());
        if (size != 2 || !IsEllipsisArg(PyTuple_GET_ITEM(w->fTypeArgs.ptr(), 1)))
            return true;
        ValueSet item = ValueSet::FromIterable(PyTuple_GET_ITEM(w->fTypeArgs.ptr(), 0));
        std::vector<nb::object> positions;
        if (!TuplePositions(value, positions))
            return true;
        ++fDepth;
        bool fits = true;
        for (const nb::object &p : positions)
            fits = fits && ValuesFit(item, ValueSet::FromIterable(p));
        --fDepth;
        return fits;
    }
    std::vector<std::string> vars = OrderedTypeVars(wc);
    if ((Py_ssize_t) vars.size() != PyTuple_GET_SIZE(w->fTypeArgs.ptr()))
        return true;
    // Arguments that want nothing in particular need no look at the value's.
    bool any_wanted = false;
    for (nb::handle arg : w->fTypeArgs)
        any_wanted = any_wanted || PySet_Size(arg.ptr()) > 0;
    if (!any_wanted)
        return true;
    nb::object vc = ClassOfInstance(value);
    if (vc.is_none())
        return true;
    TypeMap have;
    bool nominal = false;
    for (const MroEntry &e : Mro(vc, MapOfInstance(value)))
        if (SameClass(Single(e.cls), Single(wc))) {
            have = e.map;
            nominal = true;
            break;
        }
    if (!nominal && IsProtocolClass(wc))
        have = ProtocolTypeArgs(wc, vars, value);
    ++fDepth;
    bool fits = true;
    for (std::size_t i = 0; i < vars.size() && fits; ++i) {
        auto it = have.find(vars[i]);
        if (it != have.end())
            fits = ValuesFit(ValueSet::FromIterable(PyTuple_GET_ITEM(w->fTypeArgs.ptr(), (Py_ssize_t) i)), it->second);
    }
    --fDepth;
    return fits;
}

bool CEvaluator::IsProtocolClass(nb::handle cls) {
    std::string_view bare = Single(cls)->Bare();
    const auto info_held = ClassInfoOf(bare);
    const si::ClassInfo &info = *info_held;
    if (!info.arg_decl)
        return false;
    for (const std::string &base : si::SplitDeclArguments(info.arg_decl)) {
        std::string_view text = si::StripSpaces(base);
        std::size_t bracket = text.find('[');
        std::string_view head = bracket == std::string_view::npos ? text : text.substr(0, bracket);
        std::size_t dot = head.rfind('.');
        if ((dot == std::string_view::npos ? head : head.substr(dot + 1)) == "Protocol")
            return true;
    }
    return false;
}

// Structural fit: the class has every method the protocol declares.
bool CEvaluator::ProtocolAccepts(nb::handle protocol, nb::handle cls) {
    if (Stop())
        return true;
    si::CSingleResolvedInfo *p = Single(protocol);
    si::CSingleResolvedInfo *c = Single(cls);
    std::string key = UrlOf(p->loc) + "|" + std::string(NameOf(p)) + "|" + UrlOf(c->loc) + "|" +
                      std::string(NameOf(c));
    auto hit = fProtocolFits.find(key);
    if (hit != fProtocolFits.end())
        return hit->second;
    fProtocolFits[key] = true;  // a protocol met again while deciding counts as met
    bool fits = true;
    nb::object record = RecordOf(ScopeAt(p->loc, NameOf(p)));
    if (!record.is_none()) {
        nb::dict members = nb::borrow<nb::dict>(record.attr("type_equivs"));
        for (auto [name, value] : members) {
            std::string member = nb::cast<std::string>(name);
            if (member == "__init__" || member == "__new__" || member == "__class_getitem__" ||
                member == "__slots__" || member == "__hash__" || member == "__subclasshook__")
                continue;
            if (!si::IsDefKind(si::GetInfoBytesKind(si::BareSingle(si::TextView(value, "ibytes")))))
                continue;
            if (ClassAttribute(cls, member, cls, {}, false).Empty()) {
                fits = false;
                break;
            }
        }
    }
    fProtocolFits[key] = fits;
    return fits;
}

// Calls of overloaded defs take the first overload that fits the
// arguments, as a type checker does; the implementation behind the
// overloads of a source file is left out.
ValueSet CEvaluator::SelectOverloads(const ValueSet &callees, const std::vector<ValueSet> &args,
                                     const Keywords *kwargs, bool *fitted) {
    ValueSet out;
    std::map<std::string, std::vector<std::pair<long, nb::object>>> groups;
    std::vector<std::string> order;
    auto group_key = [this](si::CSingleResolvedInfo *s) {
        std::string name(NameOf(s));
        std::size_t bar = name.rfind('|');
        if (bar != std::string::npos && name.find('.', bar) == std::string::npos)
            name.resize(bar);
        return UrlOf(s->loc) + "|" + name;
    };
    for (const nb::object &callee : callees.Items()) {
        si::CSingleResolvedInfo *s = Single(callee);
        if (!s->IsDef())
            continue;
        const auto def_held = DefInfoOf(s->Bare());
        const si::DefInfo &def = *def_held;
        if (!HasDecorator(def, "overload"))
            continue;
        std::string key = group_key(s);
        if (!groups.count(key))
            order.push_back(key);
        groups[key].emplace_back(si::LeafScopeIndex(NameOf(s)), callee);
    }
    for (const nb::object &callee : callees.Items()) {
        si::CSingleResolvedInfo *s = Single(callee);
        if (!s->IsDef() || !groups.count(group_key(s)))
            out.Add(callee);
    }
    for (const std::string &key : order) {
        auto &group = groups[key];
        std::stable_sort(group.begin(), group.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        bool chosen = false;
        for (const auto &[index, def] : group)
            if (OverloadAccepts(def, args, kwargs)) {
                out.Add(def);
                chosen = true;
                break;
            }
        if (!chosen && fitted)
            *fitted = false;
        if (!chosen) {
            LenientFit lenient(*this);
            for (const auto &[index, def] : group)
                if (OverloadAccepts(def, args, kwargs)) {
                    out.Add(def);
                    chosen = true;
                    break;
                }
        }
        if (!chosen)
            for (const auto &[index, def] : group)
                out.Add(def);
    }
    return out;
}

}  // namespace pysource::infer

namespace pysource::infer {

// When a parameter wants literal values (Literal["r", "w"]): whether the
// argument's known values are among them; no value when the parameter wants
// types, or when the argument's value isn't known.
std::optional<bool> CEvaluator::LiteralsFit(const ValueSet &wanted, const ValueSet &given) {
    // Literal[True] | Lock wants the value True or a Lock: a literal member
    // takes its own value only, the other members what their classes take;
    // a value that isn't known fits by its class.
    std::set<std::pair<std::string, std::string>> values;
    ValueSet others;
    for (const nb::object &w : wanted.Items()) {
        std::string_view bare = Single(w)->Bare();
        std::optional<si::LiteralInfo> lit;
        if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind)
            lit = si::UnpackLiteralInfo(bare);
        if (lit && lit->value)
            values.emplace(lit->class_name, *lit->value);
        else
            others.Add(w);
    }
    if (values.empty())
        return std::nullopt;
    // The classes of the wanted values, with the other members: made only
    // when a value isn't known.
    std::optional<ValueSet> classes;
    auto classes_wanted = [&]() -> const ValueSet & {
        if (!classes) {
            classes = others;
            std::set<std::string> names;
            for (const auto &[class_name, value] : values)
                if (names.insert(class_name).second)
                    classes->Add(LiteralSingle(class_name, std::nullopt));
        }
        return *classes;
    };
    // Every value the argument may have must fit, or in a lenient try one.
    for (const nb::object &g : given.Items()) {
        std::string_view bare = Single(g)->Bare();
        std::optional<si::LiteralInfo> lit;
        if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind)
            lit = si::UnpackLiteralInfo(bare);
        ValueSet one;
        one.Add(g);
        bool fits = lit && lit->value ? values.count({lit->class_name, *lit->value}) ||
                                            (!others.Empty() && ValuesFit(others, one))
                                      : ValuesFit(classes_wanted(), one);
        if (fits == fLenientFit)
            return fLenientFit;
    }
    return !fLenientFit;
}

}  // namespace pysource::infer

namespace pysource::infer {

int CEvaluator::BodyTraits(nb::handle loc, std::string_view def_name) {
    nb::object provider = fEngine.fFlowProvider;
    if (provider.is_none())
        return 0;
    std::pair<std::string, std::string> key{UrlOf(loc), std::string(def_name)};
    auto it = fMemo.body_traits.find(key);
    if (it == fMemo.body_traits.end()) {
        nb::str name(def_name.data(), def_name.size());
        if (!FlowFileRead(provider, loc, name))
            return 0;
        int traits = 0;
        for (const auto &[method, trait] : {std::pair{"IsGenerator", kYields}, std::pair{"AlwaysRaises", kAlwaysRaises}}) {
            nb::object answer = nb::hasattr(provider, method) ? provider.attr(method)(loc, name) : nb::none();
            if (!answer.is_none() && nb::cast<bool>(answer))
                traits |= trait;
        }
        it = fMemo.body_traits.emplace(std::move(key), traits).first;
    }
    return it->second;
}

bool CEvaluator::IsGeneratorDef(nb::handle loc, std::string_view def_name) {
    return (BodyTraits(loc, def_name) & kYields) != 0;
}

bool CEvaluator::AlwaysRaisesDef(nb::handle loc, std::string_view def_name) {
    return (BodyTraits(loc, def_name) & kAlwaysRaises) != 0;
}

}  // namespace pysource::infer

// Containers grown by later use: `x = []` followed by `x.append(1)` makes x
// a `list[int]`.  The items a container gets are what the scope passes to
// its methods where a parameter's hint names a type variable of the
// container's class (append's `_T`, `__setitem__`'s `_KT` and `_VT` for
// `d[k] = v`), read from the stub's signatures.  A container a display made
// with items (`x = [1]`) holds those and what the methods that put items in
// add (`x.append('')` makes it a `list[int | str]`).
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include <functional>

#include "pysource/exprtext.h"
#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;
using pgen::Node;

const std::vector<std::string> &CEvaluator::UsesOf(nb::handle record, std::string_view name) {
    static const std::vector<std::string> kNone;
    auto it = fUsesOfNames.find(record.ptr());
    if (it == fUsesOfNames.end()) {
        // One walk of the record's entries finds the uses of all its names.
        std::map<std::string, std::vector<std::string>, std::less<>> uses;
        nb::object entries = record.attr("type_equivs");
        PyObject *key = nullptr, *value = nullptr;
        Py_ssize_t pos = 0;
        while (PyDict_Check(entries.ptr()) && PyDict_Next(entries.ptr(), &pos, &key, &value)) {
            Py_ssize_t size = 0;
            const char *data = PyUnicode_Check(key) ? PyUnicode_AsUTF8AndSize(key, &size) : nullptr;
            if (!data) {
                PyErr_Clear();
                continue;
            }
            std::string_view entry(data, (std::size_t) size);
            std::size_t cut = entry.find_first_of(".[");
            if (cut == 0 || cut == std::string_view::npos)
                continue;
            // Under what the last trailer follows: `self.items` for `self.items.append`.
            std::optional<std::vector<std::string>> parts = si::SplitTrailers(entry);
            if (parts && parts->size() >= 2)
                uses[std::string(entry.substr(0, entry.size() - parts->back().size()))].emplace_back(entry);
        }
        it = fUsesOfNames.emplace(record.ptr(), std::pair{nb::borrow(record), std::move(uses)}).first;
    }
    auto found = it->second.second.find(name);
    return found == it->second.second.end() ? kNone : found->second;
}

void CEvaluator::BindMethodTypeVars(nb::handle receiver, std::string_view method, const std::vector<ValueSet> &args,
                                    const Keywords &kwargs, TypeMap &bound) {
    ValueSet methods = Attribute(receiver, method);
    for (const nb::object &def : AcceptingDefs(methods, args, kwargs).Items()) {
        si::CSingleResolvedInfo *d = Single(def);
        const auto def_held = DefInfoOf(d->Bare());
        const auto params_held = KeptParamsOf(*def_held);
        const std::vector<Param> &params = *params_held;
        if (params.empty() || params[0].star)
            continue;
        TypeMap one;
        BindArgumentTypeVars(ScopeAt(d->loc, si::DefLineScope(NameOf(d))), params, 1, args, kwargs, one);
        if (one.empty())
            continue;
        for (auto &[var, values] : one)
            bound[var].Merge(values);
        return;  // the first overload that takes the arguments
    }
}

ValueSet CEvaluator::WithItemsFromUses(const ValueSet &values, const std::function<std::vector<UseSite>()> &sites_of) {
    if (Stop())
        return values;
    // The instances of generic classes some of whose type arguments are
    // unknown, and those a display made.
    std::vector<std::size_t> open;
    for (std::size_t i = 0; i < values.Items().size(); ++i) {
        const nb::object &v = values.Items()[i];
        si::CSingleResolvedInfo *s = Single(v);
        if (!s->IsInstance(false))
            continue;
        nb::object cls = ClassOfInstance(v);
        if (cls.is_none())
            continue;
        std::vector<std::string> vars = OrderedTypeVars(cls);
        // (Type arguments laid out otherwise, a tuple's by position, are left as they are.)
        bool laid_out = !s->fTypeArgs.is_none() && PyTuple_Check(s->fTypeArgs.ptr()) &&
                        PyTuple_GET_SIZE(s->fTypeArgs.ptr()) == (Py_ssize_t) vars.size();
        bool unknown = s->fTypeArgs.is_none();
        if (!vars.empty() && laid_out)
            for (nb::handle arg : s->fTypeArgs)
                unknown = unknown || PySet_GET_SIZE(arg.ptr()) == 0;
        if (!vars.empty() && (unknown || (laid_out && !s->fDisplayItems.is_none())))
            open.push_back(i);
    }
    if (open.empty())
        return values;
    const std::vector<UseSite> sites = sites_of();
    ValueSet out;
    std::size_t next_open = 0;
    for (std::size_t i = 0; i < values.Items().size(); ++i) {
        const nb::object &v = values.Items()[i];
        if (next_open >= open.size() || open[next_open] != i) {
            out.Add(v);
            continue;
        }
        ++next_open;
        TypeMap bound;
        // A display's container: only what puts items in adds to it, and
        // its items told apart stay so while they stay where they were.
        si::CSingleResolvedInfo *made = Single(v);
        const bool display = !made->fDisplayItems.is_none();
        std::vector<std::pair<std::string, nb::object>> display_items;
        bool keyed = false;
        if (display)
            for (nb::handle item : made->fDisplayItems) {
                keyed = PyTuple_Check(item.ptr());
                display_items.emplace_back(keyed ? si::TextView(item[0], "display key") : std::string_view(),
                                           nb::borrow(keyed ? item[1] : item));
            }
        bool items_kept = true, items_changed = false;
        // (What is put in is read against the class's own signatures: the
        // display's items don't limit it.)
        nb::object receiver = display ? InstanceOf(ClassOfInstance(v), nb::none()).Items()[0] : v;
        for (const UseSite &site : sites)
        for (const std::string &use : UsesOf(site.record, site.name)) {
            nb::object entry = InfoBytesOf(site.record, use);
            if (entry.is_none())
                continue;
            const nb::object &scope = site.scope;
            std::string trailer = use.substr(site.name.size());
            for (std::string_view single : si::NonNestedSplit(si::TextView(entry, "ibytes"), ";")) {
                si::SuffixSplit split = si::SplitLogicalIndexSuffix(single);
                long long index = split.logical_index.value_or(-1);
                if (index < 0 || index <= site.after || (site.until >= 0 && index >= site.until) || Stop())
                    continue;
                std::vector<ValueSet> args;
                Keywords kwargs;
                std::string_view bare = si::BareSingle(split.single);
                if (trailer.front() == '.' && si::GetInfoBytesKind(bare) == si::kCalledKind) {
                    // `x.method(...)`: each argument read where the call stands.
                    // (A call of what the method returns, `x.m()()`, says nothing of x.)
                    auto [called_suffix, called_args] = si::UnpackCalled(bare);
                    if (!called_suffix.empty())
                        continue;
                    std::string_view method = std::string_view(trailer).substr(1);
                    static const std::set<std::string_view> kPutsItems{"append", "extend", "insert",
                                                                       "add",    "update", "setdefault"};
                    if (display && !kPutsItems.count(method))
                        continue;
                    // (append and extend put theirs after the items there.)
                    items_kept = items_kept && (method == "append" || method == "extend");
                    std::string call("_(");
                    call.append(called_args).append(")");
                    const auto parsed = ParseText(call);
                    if (parsed->root < 0 || parsed->tree.nodes[(std::size_t) parsed->root].kind != pgen::NodeKind::kCall)
                        continue;
                    const pgen::Tree &tree = parsed->tree;
                    CallArguments(
                        tree, tree.nodes[(std::size_t) parsed->root],
                        [&](std::int32_t kid) { return ResolveText(scope, tree.NodeText(kid), index); }, args,
                        kwargs);
                    BindMethodTypeVars(receiver, method, args, kwargs, bound);
                } else if (trailer.front() == '[' && SaysValue(si::GetInfoBytesKind(bare))) {
                    // `x[k] = v`: __setitem__ gets the key and the value (a slice says nothing).
                    std::string_view key = std::string_view(trailer).substr(1, trailer.size() - 2);
                    if (key.empty() || si::NonNestedFind(key, ":") >= 0)
                        continue;
                    args.push_back(ResolveText(scope, key, index));
                    args.push_back(ValuesOfSingle(scope, single, index));
                    BindMethodTypeVars(receiver, "__setitem__", args, kwargs, bound);
                    // `d['k'] = v` of a dict's constant key, `x[0] = v` of a
                    // list's position it has: what that item holds now.
                    std::optional<std::string> constant = keyed ? ConstantKey(args[0]) : std::nullopt;
                    std::optional<long long> at = keyed ? std::nullopt : ConstantInt(args[0]);
                    long long size = (long long) display_items.size();
                    if (at && *at < 0)
                        *at += size;
                    if (constant) {
                        std::erase_if(display_items, [&](const auto &item) { return item.first == *constant; });
                        display_items.emplace_back(*constant, args[1].AsFrozenSet());
                        items_changed = true;
                    } else if (at && *at >= 0 && *at < size) {
                        display_items[(std::size_t) *at].second = args[1].AsFrozenSet();
                        items_changed = true;
                    } else {
                        items_kept = false;
                    }
                }
            }
        }
        nb::object cls = ClassOfInstance(v);
        std::vector<std::string> vars = OrderedTypeVars(cls);
        TypeMap known = MapOfInstance(v);
        nb::list type_args;
        bool grown = false;
        for (const std::string &var : vars) {
            auto had = known.find(var);
            auto got = bound.find(var);
            const bool has = had != known.end() && !had->second.Empty();
            const bool gets = got != bound.end() && !got->second.Empty();
            ValueSet arg = has ? had->second : ValueSet();
            if (gets && (display || !has)) {
                std::size_t before = arg.Size();
                arg.Merge(got->second);
                grown = grown || arg.Size() > before;
            }
            type_args.append(arg.AsFrozenSet());
        }
        if (!grown && !items_changed && (!display || items_kept)) {
            out.Add(v);
            continue;
        }
        ValueSet grown_instance = InstanceOf(cls, nb::tuple(type_args));
        if (display && grown_instance.Size() == 1) {
            nb::list items;
            for (const auto &[key, values] : display_items)
                if (items_kept)
                    items.append(keyed ? nb::object(nb::make_tuple(nb::bytes(key.data(), key.size()), values)) : values);
            Single(grown_instance.Items()[0])->fDisplayItems = nb::tuple(items);
        }
        out.Merge(grown_instance);
    }
    return out;
}

}  // namespace pysource::infer

// Instances that act on the arguments of the call that made them.  A
// functools.partial keeps the callable and the arguments it was made with,
// and calling it calls that callable with them before the call's own; a
// partialmethod in a class body gives such a partial when read, with the
// instance it is read on first; an operator.itemgetter keeps the keys it
// subscripts its argument with; property(f), staticmethod(f) and
// classmethod(f) in a class body read as the decorators of those names make
// f read.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;

namespace {

// The call-keeping classes, by module and name.
enum class KeptCall { kNone, kPartial, kPartialMethod, kItemGetter, kProperty, kStaticMethod, kClassMethod };

}  // namespace

int CEvaluator::KeptCallKind(nb::handle cls) {
    si::CSingleResolvedInfo *c = Single(cls);
    if (!c->IsClass())
        return (int) KeptCall::kNone;
    const std::string &module = ModuleNameOfLoc(c->loc);
    std::string_view name = NameOf(c);
    if (module == "functools" && name == "partial")
        return (int) KeptCall::kPartial;
    if (module == "functools" && name == "partialmethod")
        return (int) KeptCall::kPartialMethod;
    if ((module == "operator" || module == "_operator") && name == "itemgetter")
        return (int) KeptCall::kItemGetter;
    if (module == "builtins" && name == "property")
        return (int) KeptCall::kProperty;
    if (module == "builtins" && name == "staticmethod")
        return (int) KeptCall::kStaticMethod;
    if (module == "builtins" && name == "classmethod")
        return (int) KeptCall::kClassMethod;
    return (int) KeptCall::kNone;
}

std::optional<std::pair<int, nb::tuple>> CEvaluator::MadeWithOf(nb::handle value) {
    si::CSingleResolvedInfo *s = Single(value);
    if (s->fMadeWith.is_none() || !s->IsInstance(false))
        return std::nullopt;
    nb::object cls = ClassOfInstance(value);
    if (cls.is_none())
        return std::nullopt;
    return std::pair<int, nb::tuple>{KeptCallKind(cls), nb::borrow<nb::tuple>(s->fMadeWith)};
}

ValueSet CEvaluator::WithCallArguments(const ValueSet &made, nb::handle cls, const std::vector<ValueSet> &args,
                                       const Keywords &kwargs) {
    if (KeptCallKind(cls) == (int) KeptCall::kNone || args.empty())
        return made;
    nb::list positions, keywords;
    for (const ValueSet &arg : args)
        positions.append(arg.AsFrozenSet());
    for (const auto &[name, values] : kwargs)
        keywords.append(nb::make_tuple(name, values.AsFrozenSet()));
    nb::tuple kept = nb::make_tuple(nb::tuple(positions), nb::tuple(keywords));
    ValueSet out;
    for (const nb::object &instance : made.Items()) {
        si::CSingleResolvedInfo *s = Single(instance);
        nb::object instance_cls = s->IsInstance(false) ? ClassOfInstance(instance) : nb::object();
        if (!instance_cls.is_valid() || instance_cls.is_none() || !SameClass(Single(instance_cls), Single(cls))) {
            out.Add(instance);
            continue;
        }
        nb::ref<si::CSingleResolvedInfo> copy(new si::CSingleResolvedInfo(s->ibytes, s->scope, s->loc, s->fClassRef));
        copy->fTypeArgs = s->fTypeArgs;
        copy->fMadeWith = kept;
        out.Add(nb::cast(copy));
    }
    return out;
}

std::optional<ValueSet> CEvaluator::CallKept(nb::handle instance, const std::vector<ValueSet> &args,
                                             const Keywords &kwargs, const Frame &frame) {
    std::optional<std::pair<int, nb::tuple>> made_with = MadeWithOf(instance);
    if (!made_with)
        return std::nullopt;
    const auto &[kind, kept] = *made_with;
    nb::tuple positions = nb::borrow<nb::tuple>(kept[0]);
    const bool whole = std::exchange(fArgumentsWhole, false);
    if (kind == (int) KeptCall::kPartial && positions.size() > 0) {
        // partial(f, *fixed, **fixed_keywords)(*args, **keywords) is
        // f(*fixed, *args, **fixed_keywords, **keywords).
        std::vector<ValueSet> all_args;
        for (std::size_t i = 1; i < positions.size(); ++i)
            all_args.push_back(ValueSet::FromIterable(positions[i]));
        all_args.insert(all_args.end(), args.begin(), args.end());
        Keywords all_kwargs;
        for (nb::handle pair : nb::borrow<nb::tuple>(kept[1])) {
            std::string name = nb::cast<std::string>(pair[0]);
            if (std::none_of(kwargs.begin(), kwargs.end(), [&](const auto &given) { return given.first == name; }))
                all_kwargs.emplace_back(std::move(name), ValueSet::FromIterable(pair[1]));
        }
        all_kwargs.insert(all_kwargs.end(), kwargs.begin(), kwargs.end());
        ValueSet out;
        for (const nb::object &callee : ValueSet::FromIterable(positions[0]).Items())
            out.Merge(CallWithArguments(callee, all_args, all_kwargs, frame, whole));
        return out;
    }
    if (kind == (int) KeptCall::kItemGetter && args.size() == 1 && kwargs.empty()) {
        // itemgetter(k)(obj) is obj[k]; itemgetter(k1, k2, ...)(obj) the
        // tuple (obj[k1], obj[k2], ...).
        auto item = [&](nb::handle key) {
            ValueSet out;
            for (const nb::object &value : args[0].Items())
                out.Merge(ItemOf(value, ValueSet::FromIterable(key)));
            return out;
        };
        if (positions.size() == 1)
            return item(positions[0]);
        nb::object tuple_cls = BuiltinClass("tuple");
        if (tuple_cls.is_none())
            return std::nullopt;
        nb::list items;
        for (nb::handle key : positions)
            items.append(item(key).AsFrozenSet());
        return InstanceOf(tuple_cls, nb::tuple(items));
    }
    return std::nullopt;
}

std::optional<ValueSet> CEvaluator::ReadKeptDescriptor(nb::handle found, nb::handle receiver, bool via_instance) {
    std::optional<std::pair<int, nb::tuple>> made_with = MadeWithOf(found);
    if (!made_with)
        return std::nullopt;
    const auto &[kind, kept] = *made_with;
    nb::tuple positions = nb::borrow<nb::tuple>(kept[0]);
    if (positions.size() == 0)
        return std::nullopt;
    ValueSet wrapped = ValueSet::FromIterable(positions[0]);
    nb::object owner = via_instance ? ClassOfInstance(receiver) : nb::borrow(receiver);
    switch ((KeptCall) kind) {
    case KeptCall::kProperty: {
        // Read on an instance: what its getter gives for that instance.
        if (!via_instance)
            return std::nullopt;
        ValueSet self, out;
        self.Add(receiver);
        for (const nb::object &getter : wrapped.Items())
            out.Merge(CallValue(getter, {self}, {}, Frame{nb::none(), -2, nullptr, nullptr}));
        return out;
    }
    case KeptCall::kStaticMethod:
        return wrapped;  // the function itself, bound to nothing
    case KeptCall::kClassMethod: {
        // The function bound to the class.
        if (owner.is_none())
            return std::nullopt;
        ValueSet out;
        for (const nb::object &f : wrapped.Items()) {
            si::CSingleResolvedInfo *d = Single(f);
            if (!d->IsDef())
                continue;
            nb::object method = DefSingle(d->loc, d->Bare(), si::kMethodKind);
            Single(method)->fBoundTo = owner;
            out.Add(method);
        }
        return out;
    }
    case KeptCall::kPartialMethod: {
        nb::object partial;
        for (const nb::object &value : ModuleAttribute(ModuleSingle(Single(found)->loc, "functools"), "partial").Items())
            if (Single(value)->IsClass())
                partial = value;
        if (!partial.is_valid())
            return std::nullopt;
        // Read on an instance, the method's first argument is that instance.
        std::vector<ValueSet> args{wrapped};
        if (via_instance) {
            ValueSet self;
            self.Add(receiver);
            args.push_back(self);
        }
        for (std::size_t i = 1; i < positions.size(); ++i)
            args.push_back(ValueSet::FromIterable(positions[i]));
        Keywords kwargs;
        for (nb::handle pair : nb::borrow<nb::tuple>(kept[1]))
            kwargs.emplace_back(nb::cast<std::string>(pair[0]), ValueSet::FromIterable(pair[1]));
        return WithCallArguments(InstanceOf(partial, nb::none()), partial, args, kwargs);
    }
    default:
        return std::nullopt;
    }
}

}  // namespace pysource::infer

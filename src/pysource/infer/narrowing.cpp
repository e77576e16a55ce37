// Narrowing: what a local name can be where conditions on it are known
// (`if isinstance(x, str):`, `if x is not None:`, after `if x is None:
// return`), from the conditions the flow provider reports per body logical.
#include "pysource/infer/evaluator.h"

#include <algorithm>
#include <map>
#include <set>

#include <nanobind/stl/string.h>

#include "pysource/pgeninspect/parser.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/symbolinfo.h"

namespace pysource::infer {

namespace si = symbolinfo;
using pgen::Node;
using pgen::NodeKind;

namespace {

std::string_view TokAt(const pgen::Tree &tree, std::int32_t tok) { return tree.toks[(std::size_t) tok].text; }

bool IsNameNode(const pgen::Tree &tree, std::int32_t node, std::string_view name) {
    if (node < 0)
        return false;
    const Node &n = tree.nodes[(std::size_t) node];
    return n.kind == NodeKind::kName && TokAt(tree, n.aux) == name;
}

bool IsNoneNode(const pgen::Tree &tree, std::int32_t node) {
    const Node &n = tree.nodes[(std::size_t) node];
    return n.kind == NodeKind::kConstant && TokAt(tree, n.tok_begin) == "None";
}

// Whether a def or module value, of which the engine keeps no class, is an
// instance of the class `c` for an isinstance test: a function is of the
// function classes of `types`, a bound method of its method classes, a
// module a `ModuleType`, and every value an `object`.
bool ClasslessValueIsA(si::CSingleResolvedInfo *value, si::CSingleResolvedInfo *c) {
    std::string_view name = si::LeafScopeName(NameOf(c));
    name = name.substr(0, name.find(si::kScopeIndexSep));
    if (name == "object")
        return true;
    if (value->IsModule())
        return name == "ModuleType";
    static const std::set<std::string_view> kFunctionClasses{"FunctionType", "BuiltinFunctionType",
                                                             "MethodDescriptorType", "WrapperDescriptorType"};
    static const std::set<std::string_view> kMethodClasses{"MethodType", "BuiltinFunctionType", "MethodWrapperType"};
    bool bound = si::GetInfoBytesKind(value->Bare()) == si::kMethodKind;
    return (bound ? kMethodClasses : kFunctionClasses).count(name) > 0;
}

// The class of `name`: the call `type(name)` or `name.__class__`.
bool IsTypeOfName(const pgen::Tree &tree, std::int32_t node, std::string_view name) {
    if (node < 0)
        return false;
    const Node &n = tree.nodes[(std::size_t) node];
    if (n.kind == NodeKind::kAttribute)
        return TokAt(tree, n.aux) == "__class__" && IsNameNode(tree, tree.Kid(n, 0), name);
    return n.kind == NodeKind::kCall && n.kids_count == 2 && IsNameNode(tree, tree.Kid(n, 0), "type") &&
           IsNameNode(tree, tree.Kid(n, 1), name);
}

// The text of the operator between two operands of a comparison, its
// words joined by spaces and ended by one ("is not ", "== ").
std::string CompareOp(const pgen::Tree &tree, std::int32_t left, std::int32_t right) {
    std::string op;
    for (std::int32_t t = tree.nodes[(std::size_t) left].tok_end; t < tree.nodes[(std::size_t) right].tok_begin; ++t)
        op += std::string(TokAt(tree, t)) + " ";
    return op;
}

// The name itself, or a walrus that sets it (`(name := f()) is None`).
bool IsNameOrWalrus(const pgen::Tree &tree, std::int32_t node, std::string_view name) {
    if (node < 0)
        return false;
    const Node &n = tree.nodes[(std::size_t) node];
    return IsNameNode(tree, node, name) || (n.kind == NodeKind::kNamedExpr && IsNameNode(tree, tree.Kid(n, 0), name));
}

// Whether the operand `node` of a comparison is what tests `name`: the name
// itself (or a walrus that sets it) or its class.
bool TestsName(const pgen::Tree &tree, std::int32_t node, std::string_view name) {
    return IsNameOrWalrus(tree, node, name) || IsTypeOfName(tree, node, name);
}

// The call `len(name)`.
bool IsLenOfName(const pgen::Tree &tree, std::int32_t node, std::string_view name) {
    const Node &n = tree.nodes[(std::size_t) node];
    return n.kind == NodeKind::kCall && n.kids_count == 2 && IsNameNode(tree, tree.Kid(n, 0), "len") &&
           IsNameNode(tree, tree.Kid(n, 1), name);
}

// Whether `size op bound` holds for the comparison operator `op` ("< ",
// "== ", ...); nullopt for another operator.
std::optional<bool> SizeCompares(std::string_view op, long long size, long long bound) {
    if (op == "== ")
        return size == bound;
    if (op == "!= ")
        return size != bound;
    if (op == "< ")
        return size < bound;
    if (op == "<= ")
        return size <= bound;
    if (op == "> ")
        return size > bound;
    if (op == ">= ")
        return size >= bound;
    return std::nullopt;
}

// A homogeneous tuple's length past which `len(x) == n` doesn't spell out
// its items.
constexpr long long kMaxSpelledTupleLength = 8;

// The constant True or False: its text; "" for anything else.
std::string_view BoolConstant(const pgen::Tree &tree, std::int32_t node) {
    const Node &n = tree.nodes[(std::size_t) node];
    std::string_view text = TokAt(tree, n.tok_begin);
    return n.kind == NodeKind::kConstant && (text == "True" || text == "False") ? text : std::string_view();
}


// A name or dotted name, which `x is NAME` compares with an object of its own
// (a sentinel), not with a constant.
bool IsReference(const pgen::Tree &tree, std::int32_t node) {
    NodeKind kind = tree.nodes[(std::size_t) node].kind;
    return kind == NodeKind::kName || kind == NodeKind::kAttribute;
}

// Strict narrowing stays with the tested name: what else a test reads is
// evaluated as anywhere.
struct Loose {
    bool &flag;
    bool saved;
    explicit Loose(bool &f) : flag(f), saved(std::exchange(f, false)) {}
    ~Loose() { flag = saved; }
    Loose(const Loose &) = delete;
    Loose &operator=(const Loose &) = delete;
};

}  // namespace

namespace {

bool IsLiteralOfClass(nb::handle single, std::string_view class_name) {
    std::string_view bare = Single(single)->Bare();
    return si::GetInfoBytesKind(bare) == si::kTypedLiteralKind && si::UnpackLiteralInfo(bare).class_name == class_name;
}

// The number a literal int or bool stands for (True is 1), when its value
// is known.
std::optional<long long> KnownNumber(nb::handle single) {
    std::string_view bare = Single(single)->Bare();
    if (si::GetInfoBytesKind(bare) != si::kTypedLiteralKind)
        return std::nullopt;
    si::LiteralInfo lit = si::UnpackLiteralInfo(bare);
    if (!lit.value)
        return std::nullopt;
    if (lit.class_name == "bool")
        return *lit.value == "True" ? 1 : 0;
    std::string_view digits = *lit.value;
    if (digits.starts_with("-"))
        digits.remove_prefix(1);
    if (lit.class_name != "int" || digits.empty() || digits.size() > 18 ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return std::stoll(*lit.value);
}

// The values that can (`holds`) or can't equal `others`, one int or bool
// whose value is known: literals of other known values can't, literals of
// the same value always do.
ValueSet NarrowToKnownNumber(const ValueSet &values, const ValueSet &others, bool holds) {
    std::optional<long long> other = others.Size() == 1 ? KnownNumber(others.Items()[0]) : std::nullopt;
    if (!other)
        return values;
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        std::optional<long long> number = KnownNumber(v);
        if (!number || (*number == *other) == holds)
            out.Add(v);
    }
    return out;
}

}  // namespace

bool IsNoneLiteral(nb::handle single) { return IsLiteralOfClass(single, "None"); }

bool IsExpressionText(nb::handle single, bool lambda) {
    std::string_view ibytes = si::TextView(Single(single)->ibytes, "ibytes");
    if (si::GetInfoBytesKind(ibytes) != si::kExpressionEquivKind)
        return false;
    si::UnpackedFields f = si::UnpackFields(ibytes);
    std::string_view text = f.fields.empty() || !f.fields[0] ? std::string_view() : si::StripSpaces(*f.fields[0]);
    while (text.starts_with("("))
        text = si::StripSpaces(text.substr(1));
    return text.starts_with("lambda") == lambda;
}

namespace {

// The singles of a record entry numbered (by logical index) within [from, to],
// unnumbered ones with them when `with_unnumbered`, as an entry.
std::string EntryPart(std::string_view entry, long long from, long long to, bool with_unnumbered) {
    std::string out;
    for (std::string_view single : si::NonNestedSplit(entry, ";")) {
        si::SuffixSplit split = si::SplitLogicalIndexSuffix(single);
        bool in = split.logical_index ? *split.logical_index >= from && *split.logical_index <= to : with_unnumbered;
        if (!in)
            continue;
        if (!out.empty())
            out.push_back(';');
        out.append(single);
    }
    return out;
}

}  // namespace

ValueSet CEvaluator::Narrowed(nb::handle scope, nb::handle record, std::string_view name, std::string_view entry,
                              long long use_index, ValueSet values) {
    if (use_index < 0 || Stop())
        return values;
    const FlowGuardRows *guards = ConditionsOf(scope, "Guards");
    // The latest setting before the use: conditions read before it say
    // nothing of the value it sets.  A setting in a branch that the use's
    // guards rule out (`if x is S: x = ...` `else: use`) doesn't count.
    long long latest = -1;
    for (const EntryPiece &piece : EntryOf(entry)->pieces)
        if (piece.index && *piece.index < use_index && !BranchRuledOut(scope, *piece.index, use_index, true))
            latest = std::max(latest, *piece.index);
    auto parse = [&](const std::string &condition, long long header, auto &&narrow) {
        const auto parsed = ParseText(condition);
        const Tree &tree = parsed->tree;
        std::int32_t root = parsed->root;
        if (root >= 0)
            narrow(tree, root, Frame{nb::borrow(scope), header, nullptr, nullptr});
    };
    const FlowGuardRows *skips = ConditionsOf(scope, "SkippedIfs");
    if (skips && (std::size_t) use_index < skips->size())
        for (const auto &[header, condition, last] : (*skips)[(std::size_t) use_index]) {
            if (latest < header || latest > last)
                continue;
            // A setting there that surely ran (its tests are constants that
            // hold) hides the earlier ones, as the settings that reach say.
            const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
            if (paths && RunsSurely(scope, *paths, latest, use_index))
                break;
            // `if x is None: x = ...`: the earlier values only when x wasn't
            // None; those are what x is at the `if`, itself after earlier ones.
            std::string earlier = EntryPart(entry, -1, header - 1, true);
            Loose loose(fStrictNarrowing);
            ValueSet before =
                Narrowed(scope, record, name, earlier, header, EntryValues(scope, record, earlier, header, name));
            parse(condition, header, [&](const Tree &tree, std::int32_t root, const Frame &frame) {
                NarrowBy(tree, root, frame, name, false, before);
            });
            // What the block set, narrowed by its `if` blocks that leave
            // after those settings (`if not isinstance(x, int): raise`).
            ValueSet inside = EntryValues(scope, record, EntryPart(entry, header, last, false), use_index, name);
            const FlowGuardRows *ends = ConditionsOf(scope, "BlockExits");
            if (ends && (std::size_t) header < ends->size())
                for (const auto &[exit_header, exit_condition, held] : (*ends)[(std::size_t) header]) {
                    if (exit_header < latest)
                        continue;
                    parse(exit_condition, exit_header, [&](const Tree &tree, std::int32_t root, const Frame &frame) {
                        NarrowBy(tree, root, frame, name, held != 0, inside);
                    });
                }
            before.Merge(inside);
            values = before;
            break;
        }
    if (!guards || (std::size_t) use_index >= guards->size())
        return values;
    for (const auto &[header, condition, holds] : (*guards)[(std::size_t) use_index]) {
        if (header < latest)
            continue;
        parse(condition, header, [&](const Tree &tree, std::int32_t root, const Frame &frame) {
            NarrowBy(tree, root, frame, name, holds != 0, values);
            NarrowByPartners(tree, root, frame, record, name, entry, use_index, holds != 0, values);
        });
    }
    return values;
}

namespace {

// The logicals at which an entry sets its name, or nothing when a value of
// it comes from no one logical (a parameter, a setting of unknown place).
std::optional<std::set<long long>> SettingLogicals(const ParsedEntry &parsed) {
    std::set<long long> out;
    for (const EntryPiece &piece : parsed.pieces) {
        if (piece.malformed || !SaysValue(piece.bare_kind))
            continue;
        if (!piece.index || *piece.index < 0)
            return std::nullopt;
        out.insert(*piece.index);
    }
    return out;
}

}  // namespace

void CEvaluator::NarrowByPartners(const Tree &tree, std::int32_t root, const Frame &frame, nb::handle record,
                                  std::string_view name, std::string_view entry, long long use_index, bool holds,
                                  ValueSet &values) {
    if (values.Empty() || record.is_none())
        return;
    std::optional<std::set<long long>> own = SettingLogicals(*EntryOf(entry));
    if (!own || own->size() < 2)
        return;
    std::set<std::string_view> tried;
    for (const Node &n : tree.nodes) {
        if (n.kind != NodeKind::kName)
            continue;
        std::string_view partner = TokAt(tree, n.aux);
        if (partner == name || !tried.insert(partner).second)
            continue;
        nb::object partner_entry = InfoBytesOf(record, partner);
        if (partner_entry.is_none())
            continue;
        std::string_view partner_text = si::TextView(partner_entry, "ibytes");
        if (SettingLogicals(*EntryOf(partner_text)) != own)
            continue;
        std::string kept;
        bool dropped = false;
        for (long long at : *own) {
            ValueSet set_there = EntryValues(frame.scope, record, EntryPart(partner_text, at, at, false), use_index,
                                             partner);
            if (!set_there.Empty()) {
                NarrowBy(tree, root, frame, partner, holds, set_there);
                if (set_there.Empty()) {
                    dropped = true;
                    continue;
                }
            }
            if (!kept.empty())
                kept.push_back(';');
            kept.append(EntryPart(entry, at, at, false));
        }
        if (!dropped)
            continue;
        nb::object reachable = EntryValues(frame.scope, record, kept, use_index, name).AsFrozenSet();
        ValueSet narrowed;
        for (const nb::object &v : values.Items()) {
            int found = PySet_Contains(reachable.ptr(), v.ptr());
            if (found < 0)
                PyErr_Clear();  // can't be told: kept
            if (found != 0)
                narrowed.Add(v);
        }
        values = narrowed;
        if (values.Empty())
            return;
    }
}

std::string CEvaluator::ReachableEntry(nb::handle scope, nb::handle record, std::string_view entry) {
    std::string out;
    for (std::string_view single : si::NonNestedSplit(entry, ";")) {
        std::optional<long long> at = si::SplitLogicalIndexSuffix(single).logical_index;
        if (at && !LogicalReachable(scope, record, *at))
            continue;
        if (!out.empty())
            out.push_back(';');
        out.append(single);
    }
    return out;
}

std::vector<std::pair<std::string, const ValueSet *>> CEvaluator::BindingsAround(nb::handle scope) {
    std::vector<std::pair<std::string, const ValueSet *>> out;
    if (fBoundNames.empty())
        return out;
    const std::string &url = UrlOf(ScopeLoc(scope));
    std::string_view name = ScopeName(scope);
    std::map<std::string, std::size_t> depth;  // the innermost scope's binding of a name counts
    for (const auto &[key, values] : fBoundNames) {
        const auto &[bound_url, scope_name, bound_name] = key;
        if (bound_url != url || (scope_name != name && !IsNestedScopeName(name, scope_name)))
            continue;
        DependOn(bound_url, scope_name);  // the bindings around decide
        auto it = depth.find(bound_name);
        if (it != depth.end() && it->second > scope_name.size())
            continue;
        depth[bound_name] = scope_name.size();
        std::erase_if(out, [&](const auto &item) { return item.first == bound_name; });
        out.emplace_back(bound_name, &values);
    }
    return out;
}

void CEvaluator::NarrowBy(const Tree &tree, std::int32_t node, const Frame &frame, std::string_view name, bool holds,
                          ValueSet &values) {
    if (node < 0)
        return;
    const Node &n = tree.nodes[(std::size_t) node];
    switch (n.kind) {
    case NodeKind::kNamedExpr:
    case NodeKind::kName:
        // A true value is never None (None alone: nothing is known there).
        if (IsNameOrWalrus(tree, node, name)) {
            // A false value is none that is true whatever it holds.
            ValueSet kept;
            for (const nb::object &v : values.Items())
                if (holds ? !IsNoneLiteral(v) : !IsSurelyTrue(v))
                    kept.Add(v);
            values = kept;
        } else if (holds && n.kind == NodeKind::kName) {
            NarrowBySavedTest(frame, TokAt(tree, n.aux), name, values);
        }
        return;
    case NodeKind::kUnaryOp:
        if (TokAt(tree, n.tok_begin) == "not")
            NarrowBy(tree, tree.Kid(n, 0), frame, name, !holds, values);
        return;
    case NodeKind::kBoolOp: {
        // Each side of a true `and`, of a false `or`, holds alike.
        std::string_view op = TokAt(tree, tree.nodes[(std::size_t) tree.Kid(n, 0)].tok_end);
        if ((op == "and") == holds) {
            for (std::int32_t i = 0; i < n.kids_count; ++i)
                NarrowBy(tree, tree.Kid(n, i), frame, name, holds, values);
            return;
        }
        // Of a true `or`, a false `and`, one side at least holds alike:
        // where no side can, the test can't come out so.
        ValueSet any;
        for (std::int32_t i = 0; i < n.kids_count; ++i) {
            ValueSet side = values;
            NarrowBy(tree, tree.Kid(n, i), frame, name, holds, side);
            any.Merge(side);
        }
        values = any;
        return;
    }
    case NodeKind::kCall: {
        if (n.kids_count == 2 && IsNameNode(tree, tree.Kid(n, 0), "callable") &&
            IsNameNode(tree, tree.Kid(n, 1), name)) {
            ValueSet kept;
            for (const nb::object &v : values.Items())
                if (IsExpressionText(v, false) || IsCallableValue(v) == holds)
                    kept.Add(v);
            values = kept;
            return;
        }
        // hasattr(name, "attr") is false: not an instance whose class has it.
        std::string_view attribute;
        if (!holds && n.kids_count == 3 && IsNameNode(tree, tree.Kid(n, 0), "hasattr") &&
            IsNameNode(tree, tree.Kid(n, 1), name) &&
            tree.nodes[(std::size_t) tree.Kid(n, 2)].kind == NodeKind::kString &&
            pgen::StringAnnotationText(tree, tree.Kid(n, 2), attribute) && !attribute.empty()) {
            ValueSet kept;
            for (const nb::object &v : values.Items())
                if (!ClassHasAttribute(v, attribute))
                    kept.Add(v);
            values = kept;
            return;
        }
        if (n.kids_count < 2 || !IsNameNode(tree, tree.Kid(n, 1), name))
            return;
        // isinstance(name, C), issubclass(name, C); C may be a tuple or a
        // union (`int | str`) of classes.
        bool subclass = IsNameNode(tree, tree.Kid(n, 0), "issubclass");
        if (n.kids_count != 3 || !(subclass || IsNameNode(tree, tree.Kid(n, 0), "isinstance"))) {
            // A call of a def that returns TypeGuard[T] or TypeIs[T].
            NarrowByTypeGuard(tree, tree.Kid(n, 0), frame, holds, values);
            return;
        }
        ValueSet classes;
        {
            Loose loose(fStrictNarrowing);
            classes = TestedClasses(tree, tree.Kid(n, 2), frame);
        }
        values = subclass ? NarrowToSubclasses(values, classes, holds) : NarrowToClasses(values, classes, holds);
        return;
    }
    case NodeKind::kCompare:
        // A chain `a < b < c` holds when each of its comparisons does; false,
        // it says which one failed only when there is one.
        if (n.kids_count == 2 || holds)
            for (std::int32_t i = 0; i + 1 < n.kids_count; ++i)
                NarrowByComparison(tree, tree.Kid(n, i), tree.Kid(n, i + 1), frame, name, holds, values);
        return;
    default:
        return;
    }
}

void CEvaluator::NarrowByComparison(const Tree &tree, std::int32_t left, std::int32_t right, const Frame &frame,
                                    std::string_view name, bool holds, ValueSet &values) {
    // name is None, name is not None, type(name) is C (and == / !=),
    // type(name) in (C, D), name is SENTINEL, name == VALUE; written the
    // other way round too (`None is not x`, `C is type(x)`, `v == x`), but
    // for `SENTINEL is x`, which is as likely to test SENTINEL.
    if (left < 0 || right < 0)
        return;
    std::string op = CompareOp(tree, left, right);
    bool identity = op == "is " || op == "is not ";
    if (!TestsName(tree, left, name) && TestsName(tree, right, name) && (identity || op == "== " || op == "!= ") &&
        (!identity || IsNoneNode(tree, left) || IsTypeOfName(tree, right, name)))
        std::swap(left, right);
    if (IsLenOfName(tree, left, name) || IsLenOfName(tree, right, name)) {
        NarrowByLength(tree, left, right, op, frame, name, holds, values);
        return;
    }
    bool member = op == "in " || op == "not in ";
    bool equal = op == "is " || op == "== " || op == "in ";
    if (!equal && !member && op != "is not " && op != "!= ")
        return;
    bool positive = equal == holds;
    if (IsTypeOfName(tree, left, name)) {
        ValueSet classes;
        {
            Loose loose(fStrictNarrowing);
            classes = Eval(tree, right, frame);
        }
        if (member)
            classes = IterItems(classes);
        if (positive) {
            // Exactly those classes: instances of their subclasses go.
            ValueSet narrowed = NarrowToClasses(values, classes, true), exact;
            for (const nb::object &v : narrowed.Items())
                if (IsInstanceOfExactly(v, classes.Items(), true))
                    exact.Add(v);
            values = exact.Empty() ? narrowed : exact;
        } else {
            values = WithoutExactClasses(values, classes);
        }
    } else if (member) {
        // `name in (1, 2)`: equal to one of the items.
        if (!positive || !IsNameOrWalrus(tree, left, name))
            return;
        ValueSet items;
        {
            Loose loose(fStrictNarrowing);
            items = IterItems(Eval(tree, right, frame));
        }
        values = NarrowToEqual(values, items);
    } else if (IsNameOrWalrus(tree, left, name) && !BoolConstant(tree, right).empty() &&
               (op == "is " || op == "is not ")) {
        // `name is True`: a bool of that value (or of no known value).
        std::string_view constant = BoolConstant(tree, right);
        nb::object bool_class = BuiltinClass("bool");
        ValueSet kept;
        for (const nb::object &v : values.Items()) {
            bool is_bool = !bool_class.is_none() && IsInstanceOfExactly(v, {bool_class}, true);
            std::optional<std::string> value =
                IsLiteralOfClass(v, "bool") ? si::UnpackLiteralInfo(Single(v)->Bare()).value : std::nullopt;
            bool surely = is_bool && value && *value == constant;
            if (positive ? is_bool && (!value || surely) : !surely)
                kept.Add(v);
        }
        if (positive && kept.Empty() && !fStrictNarrowing)
            kept.Add(LiteralSingle("bool", std::string(constant)));
        values = kept;
    } else if (IsNameOrWalrus(tree, left, name) && IsNoneNode(tree, right)) {
        ValueSet kept;
        for (const nb::object &v : values.Items())
            if (IsNoneLiteral(v) == positive)
                kept.Add(v);
        if (positive && kept.Empty() && !fStrictNarrowing)
            kept.Add(LiteralSingle("None", std::nullopt));
        values = kept;
    } else if (IsNameOrWalrus(tree, left, name) && (op == "== " || op == "!= ")) {
        ValueSet others;
        {
            Loose loose(fStrictNarrowing);
            others = Eval(tree, right, frame);
        }
        if (positive)
            values = NarrowToEqual(values, others);
        ValueSet known = NarrowToKnownNumber(values, others, positive);
        values = known.Empty() && !fStrictNarrowing ? values : known;
    } else if (IsNameOrWalrus(tree, left, name) && (op == "is " || op == "is not ") &&
               IsReference(tree, right)) {
        ValueSet objects;
        {
            Loose loose(fStrictNarrowing);
            objects = Eval(tree, right, frame);
        }
        values = NarrowToObjects(values, objects, positive);
    }
}

// `len(name) < n` (either way round) of a constant n: the tuples whose
// number of items passes; a tuple of any length `tuple[T, ...]` whose length
// the test fixes becomes one of that many T's.  Other values stay.
void CEvaluator::NarrowByLength(const Tree &tree, std::int32_t left, std::int32_t right, const std::string &op,
                                const Frame &frame, std::string_view name, bool holds, ValueSet &values) {
    bool len_left = IsLenOfName(tree, left, name);
    static const std::map<std::string, std::string> kMirrored{{"< ", "> "},   {"> ", "< "},   {"<= ", ">= "},
                                                             {">= ", "<= "}, {"== ", "== "}, {"!= ", "!= "}};
    auto mirrored = kMirrored.find(op);
    if (mirrored == kMirrored.end())
        return;
    std::string_view len_op = len_left ? std::string_view(op) : std::string_view(mirrored->second);
    std::optional<long long> bound;
    {
        Loose loose(fStrictNarrowing);
        bound = ConstantInt(Eval(tree, len_left ? right : left, frame));
    }
    if (!bound)
        return;
    // The one length the test leaves, if it leaves one.
    bool exact_length = (len_op == "== ") == holds && (len_op == "== " || len_op == "!= ");
    ValueSet kept;
    for (const nb::object &v : values.Items()) {
        std::vector<nb::object> positions;
        if (TuplePositions(v, positions)) {
            if (*SizeCompares(len_op, (long long) positions.size(), *bound) == holds)
                kept.Add(v);
            continue;
        }
        si::CSingleResolvedInfo *s = Single(v);
        bool homogeneous = s->IsInstance(false) && NameOf(s) == "tuple" && s->loc.is(BuiltinLoc()) &&
                           !s->fTypeArgs.is_none() && PyTuple_GET_SIZE(s->fTypeArgs.ptr()) == 2 &&
                           IsEllipsisArg(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), 1));
        if (!homogeneous || !exact_length || *bound < 0 || *bound > kMaxSpelledTupleLength) {
            kept.Add(v);
            continue;
        }
        nb::list items;
        for (long long i = 0; i < *bound; ++i)
            items.append(nb::borrow(PyTuple_GET_ITEM(s->fTypeArgs.ptr(), 0)));
        auto *spelled = new si::CSingleResolvedInfo(s->ibytes, s->scope, s->loc, s->fClassRef);
        spelled->fTypeArgs = nb::tuple(items);
        kept.Add(nb::cast(nb::ref<si::CSingleResolvedInfo>(spelled)));
    }
    values = kept.Empty() && !fStrictNarrowing ? values : kept;
}

// What the return hint `TypeGuard[T]` or `TypeIs[T]` of the def `def_single`
// says its first argument is when it returns true (instances of T), with
// `form` set to the form's name; nothing for any other def.
ValueSet CEvaluator::GuardedType(nb::handle def_single, std::string &form) {
    ValueSet out;
    si::CSingleResolvedInfo *d = Single(def_single);
    if (!si::IsDefKind(si::GetInfoBytesKind(d->Bare())))
        return out;
    const auto def_held = DefInfoOf(d->Bare());
    const si::DefInfo &def = *def_held;
    if (!def.return_hint)
        return out;
    const auto parsed = ParseText(*def.return_hint);
    const Tree &tree = parsed->tree;
    std::int32_t root = parsed->root;
    if (root < 0 || tree.nodes[(std::size_t) root].kind != NodeKind::kSubscript)
        return out;
    const Node &n = tree.nodes[(std::size_t) root];
    Frame frame{ScopeAt(d->loc, si::DefLineScope(NameOf(d))), -2, nullptr, nullptr};
    for (const nb::object &head : Eval(tree, tree.Kid(n, 0), frame).Items()) {
        std::string found = SpecialFormOf(head);
        if (found == "TypeGuard" || found == "TypeIs") {
            form = found;
            return EvalType(tree, tree.Kid(n, 1), frame);
        }
    }
    return out;
}

// `guard(name)` where guard returns TypeGuard[T] (true: name is a T) or
// TypeIs[T] (true: name is a T of what it was; false: it is no T); nothing
// when the callee is no such def.
void CEvaluator::NarrowByTypeGuard(const Tree &tree, std::int32_t callee, const Frame &frame, bool holds,
                                   ValueSet &values) {
    ValueSet callees;
    {
        Loose loose(fStrictNarrowing);
        callees = Eval(tree, callee, frame);
    }
    ValueSet guarded;
    std::string form;
    for (const nb::object &c : callees.Items())
        guarded.Merge(GuardedType(c, form));
    if (form == "TypeGuard") {
        if (holds && !guarded.Empty())
            values = guarded;
        return;
    }
    if (form.empty())
        return;
    // A generic T (`list[int]`) tells apart the values of its very class by
    // their type arguments too: true, those of a subclass or with the same
    // arguments; false, all but those with the same arguments.
    bool generic = std::any_of(guarded.Items().begin(), guarded.Items().end(),
                               [](const nb::object &g) { return !Single(g)->fTypeArgs.is_none(); });
    if (generic) {
        auto is_guarded = [&](const nb::object &v, bool exactly) {
            nb::object cls = ClassOfInstance(v);
            return !cls.is_none() && std::any_of(guarded.Items().begin(), guarded.Items().end(), [&](const nb::object &g) {
                nb::object g_cls = ClassOfInstance(g);
                if (g_cls.is_none())
                    return false;
                if (SameClass(Single(g_cls), Single(cls)))
                    return Single(g)->fTypeArgs.equal(Single(v)->fTypeArgs);
                return !exactly && IsSubclassOfAny(cls, {g_cls});
            });
        };
        ValueSet kept;
        for (const nb::object &v : values.Items())
            if (is_guarded(v, !holds) == holds)
                kept.Add(v);
        values = kept.Empty() && holds ? guarded : kept;
        return;
    }
    ValueSet classes;
    for (const nb::object &g : guarded.Items()) {
        nb::object cls = ClassOfInstance(g);
        if (cls.is_none())
            return;  // a T isinstance can't test: nothing is learnt
        classes.Add(cls);
    }
    values = NarrowToClasses(values, classes, holds);
}

// The classes an isinstance or issubclass test names: a class, or a tuple or
// a union (`A | B`) of them, nested as far as written.
ValueSet CEvaluator::TestedClasses(const Tree &tree, std::int32_t node, const Frame &frame) {
    ValueSet classes;
    if (node < 0)
        return classes;
    const Node &k = tree.nodes[(std::size_t) node];
    bool union_of = k.kind == NodeKind::kBinOp && k.kids_count == 2 &&
                    TokAt(tree, tree.nodes[(std::size_t) tree.Kid(k, 0)].tok_end) == "|";
    if (k.kind == NodeKind::kTuple || union_of) {
        for (std::int32_t i = 0; i < k.kids_count; ++i)
            classes.Merge(TestedClasses(tree, tree.Kid(k, i), frame));
        return classes;
    }
    return Eval(tree, node, frame);
}

// `ok = isinstance(x, C)` ... `if ok:`: a true flag says its test held
// when that test is the flag's one setting that can be true (the others
// False, None or 0) and nothing set `name` between the test and the use.
void CEvaluator::NarrowBySavedTest(const Frame &frame, std::string_view flag, std::string_view name,
                                   ValueSet &values) {
    if (fInSavedTest || frame.use_index < 0)
        return;
    nb::object record = RecordOf(frame.scope);
    if (record.is_none())
        return;
    nb::object flag_entry = record.attr("GetInfoBytes")(nb::str(flag.data(), flag.size()));
    nb::object name_entry = record.attr("GetInfoBytes")(nb::str(name.data(), name.size()));
    if (flag_entry.is_none() || name_entry.is_none())
        return;
    std::string_view test;
    long long test_at = -1;
    for (const EntryPiece &piece : EntryOf(si::TextView(flag_entry, "ibytes"))->pieces) {
        if (!SaysValue(piece.bare_kind))
            continue;
        if (piece.malformed || !piece.index || piece.bare_kind != si::kPlainEquivKind)
            return;
        std::string_view text = si::StripSpaces(si::SplitLogicalIndexSuffix(piece.single).single);
        if (text == "False" || text == "None" || text == "0")
            continue;
        if (!test.empty())
            return;
        test = text;
        test_at = *piece.index;
    }
    if (test.empty() || test_at >= frame.use_index)
        return;
    for (const EntryPiece &piece : EntryOf(si::TextView(name_entry, "ibytes"))->pieces)
        if (piece.index && *piece.index >= test_at && *piece.index < frame.use_index && SaysValue(piece.bare_kind))
            return;
    const auto parsed = ParseText(test);
    if (parsed->root < 0 || parsed->tree.nodes[(std::size_t) parsed->root].kind == NodeKind::kName)
        return;
    fInSavedTest = true;
    NarrowBy(parsed->tree, parsed->root, Frame{frame.scope, test_at, nullptr, nullptr}, name, true, values);
    fInSavedTest = false;
}

bool CEvaluator::TestCanBe(const Tree &tree, std::int32_t test, const Frame &frame, bool holds) {
    // The one name the test reads, first through `not`.
    std::int32_t node = test;
    while (node >= 0 && tree.nodes[(std::size_t) node].kind == NodeKind::kUnaryOp &&
           TokAt(tree, tree.nodes[(std::size_t) node].tok_begin) == "not")
        node = tree.Kid(tree.nodes[(std::size_t) node], 0);
    if (node < 0)
        return true;
    const Node &n = tree.nodes[(std::size_t) node];
    std::int32_t name_node = n.kind == NodeKind::kName ? node
                             : n.kind == NodeKind::kCompare && n.kids_count == 2 ? tree.Kid(n, 0)
                             : n.kind == NodeKind::kCall && n.kids_count == 3 ? tree.Kid(n, 1)
                                                                              : -1;
    if (name_node < 0 || tree.nodes[(std::size_t) name_node].kind != NodeKind::kName)
        return true;
    ValueSet values = Eval(tree, name_node, frame);
    if (values.Empty())
        return true;
    NarrowBy(tree, test, frame, TokAt(tree, tree.nodes[(std::size_t) name_node].aux), holds, values);
    return !values.Empty();
}

bool CEvaluator::IsSurelyTrue(nb::handle value) {
    si::CSingleResolvedInfo *s = Single(value);
    // (A class may be false: its metaclass may define __len__, as enumerations' does.)
    if (s->IsDef() || s->IsModule())
        return true;
    std::string_view bare = s->Bare();
    if (si::GetInfoBytesKind(bare) == si::kTypedLiteralKind) {
        si::LiteralInfo lit = si::UnpackLiteralInfo(bare);
        if (!lit.value)
            return false;
        std::string_view text = si::StripSpaces(*lit.value);
        if (lit.class_name == "bool")
            return text == "True";
        if (lit.class_name == "int" || lit.class_name == "float")
            return !text.empty() && text.find_first_not_of("0._+-") != std::string_view::npos &&
                   text.find_first_of("eExXjJ") == std::string_view::npos;
        return false;
    }
    if (!s->IsInstance(false) || IsExpressionText(value, false) || IsExpressionText(value, true))
        return false;
    nb::object cls = ClassOfInstance(value);
    if (cls.is_none())
        return false;
    return ClassAttribute(cls, "__bool__", value, MapOfInstance(value), true).Empty() &&
           ClassAttribute(cls, "__len__", value, MapOfInstance(value), true).Empty();
}

bool CEvaluator::ClassHasAttribute(nb::handle value, std::string_view attribute) {
    if (!Single(value)->IsInstance(false) || IsExpressionText(value, false) || IsExpressionText(value, true))
        return false;
    nb::object cls = ClassOfInstance(value);
    return !cls.is_none() && !ClassAttribute(cls, attribute, value, MapOfInstance(value), true).Empty();
}

bool CEvaluator::IsCallableValue(nb::handle value) {
    si::CSingleResolvedInfo *s = Single(value);
    // A `function` (a lambda passed as an argument), though its stub has no __call__.
    if (s->IsDef() || s->IsClass() || IsExpressionText(value, true) || IsLiteralOfClass(value, "function"))
        return true;
    if (!s->IsInstance(true))
        return false;
    nb::object cls = ClassOfInstance(value);
    return !cls.is_none() && !ClassAttribute(cls, "__call__", value, MapOfInstance(value), true).Empty();
}

// Whether `value` is an instance (a literal too, with `literals`) whose class
// is one of `classes` exactly.
bool CEvaluator::IsInstanceOfExactly(nb::handle value, const std::vector<nb::object> &classes, bool literals) {
    nb::object cls = Single(value)->IsInstance(literals) ? ClassOfInstance(value) : nb::object();
    if (!cls.is_valid() || cls.is_none())
        return false;
    for (const nb::object &c : classes)
        if (SameClass(Single(c), Single(cls)))
            return true;
    return false;
}

// The kind of values a value can compare equal to, when its class is a
// built-in one whose `==` holds only within its kind (numbers of any class
// alike, a set and a frozenset alike); -1 for a value of any other class,
// whose `__eq__` may say anything.
int CEvaluator::EqualityKind(nb::handle value) {
    if (IsNoneLiteral(value))
        return 0;
    if (!Single(value)->IsInstance(true) || IsExpressionText(value, false))
        return -1;
    nb::object cls = ClassOfInstance(value);
    if (cls.is_none() || !Single(cls)->loc.is(BuiltinLoc()))
        return -1;
    static constexpr std::pair<std::string_view, int> kKinds[] = {
        {"bool", 1}, {"int", 1},   {"float", 1}, {"complex", 1}, {"str", 2},       {"bytes", 3},
        {"list", 4}, {"tuple", 5}, {"dict", 6},  {"set", 7},     {"frozenset", 7},
    };
    for (const auto &[class_name, kind] : kKinds)
        if (NameOf(Single(cls)) == class_name)
            return kind;
    return -1;
}

// The values that can compare equal to one of `others` (`x == ''` holds of no
// list); all of them when one of `others` is of a class whose `==` can't be told.
ValueSet CEvaluator::NarrowToEqual(const ValueSet &values, const ValueSet &others) {
    std::set<int> kinds;
    std::vector<nb::object> identity_classes;  // of the others that are equal only to themselves
    for (const nb::object &o : others.Items()) {
        int kind = EqualityKind(o);
        if (kind >= 0) {
            kinds.insert(kind);
            continue;
        }
        nb::object cls = IdentityComparedClass(o);
        if (cls.is_none())
            return values;
        identity_classes.push_back(cls);
    }
    if (kinds.empty() && identity_classes.empty())
        return values;
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        int kind = EqualityKind(v);
        if (kind >= 0) {
            if (kinds.count(kind))
                out.Add(v);
            continue;
        }
        // A value of a class with an `__eq__` of its own may say anything;
        // one compared by identity is equal only to itself.
        nb::object cls = IdentityComparedClass(v);
        if (cls.is_none() || IsSubclassOfAny(cls, identity_classes))
            out.Add(v);
    }
    return out.Empty() && !fStrictNarrowing ? values : out;
}

// The class of the instance `value` when the `__eq__` its order finds is
// object's (an enumeration's members, plain objects): equal only to
// itself; None for any other value.
nb::object CEvaluator::IdentityComparedClass(nb::handle value) {
    nb::object cls = Single(value)->IsInstance(false) ? ClassOfInstance(value) : nb::none();
    // (An `object` may be a value of any class.)
    if (cls.is_none() || (Single(cls)->loc.is(BuiltinLoc()) && NameOf(Single(cls)) == "object"))
        return nb::none();
    for (const MroEntry &e : Mro(cls, {})) {
        si::CSingleResolvedInfo *k = Single(e.cls);
        ValueSet found;
        int redirect = 0;
        if (FindLocal(ScopeAt(k->loc, NameOf(k)), "__eq__", -2, found, redirect) && !found.Empty())
            return k->loc.is(BuiltinLoc()) && NameOf(k) == "object" ? cls : nb::none();
    }
    return nb::none();
}

// The values whose class is none of `classes` (`type(x) is not C`: instances
// of subclasses stay); all of them when a class can't be read.
ValueSet CEvaluator::WithoutExactClasses(const ValueSet &values, const ValueSet &classes) {
    for (const nb::object &c : classes.Items())
        if (!Single(c)->IsClass())
            return values;
    ValueSet out;
    for (const nb::object &v : values.Items())
        if (!IsInstanceOfExactly(v, classes.Items(), true))
            out.Add(v);
    return out;
}

// The values that are (`holds`) or aren't one of `objects`, instances of
// classes (`x is _MISSING`), told apart by their classes.  Nothing is learnt
// from objects that aren't all such instances.
ValueSet CEvaluator::NarrowToObjects(const ValueSet &values, const ValueSet &objects, bool holds) {
    if (!objects.Empty() && std::all_of(objects.Items().begin(), objects.Items().end(),
                                        [&](const nb::object &o) { return IsPlainClass(o); }))
        return NarrowToClassObjects(values, objects, holds);
    std::vector<nb::object> classes;
    for (const nb::object &o : objects.Items()) {
        nb::object cls = Single(o)->IsInstance(false) ? ClassOfInstance(o) : nb::object();
        if (!cls.is_valid() || cls.is_none())
            return values;
        // Not one of an enumeration's members: any of its others.
        if (!holds && IsEnumClass(cls))
            return values;
        classes.push_back(cls);
    }
    if (classes.empty())
        return values;
    ValueSet out;
    for (const nb::object &v : values.Items())
        if (IsInstanceOfExactly(v, classes, false) == holds)
            out.Add(v);
    return out.Empty() && holds && !fStrictNarrowing ? objects : out;
}

// The values that are (`holds`) or aren't instances of one of `classes`; a
// value of a base of one of them, when it must be one, becomes an instance
// of that class.
bool CEvaluator::IsPlainClass(nb::handle single) {
    return Single(single)->IsClass() && SpecialFormOf(single).empty();
}

// `classes` in `wanted`, when there are some and isinstance and issubclass
// can test them all (no special form of typing).
bool CEvaluator::TestableClasses(const ValueSet &classes, std::vector<nb::object> &wanted) {
    for (const nb::object &c : classes.Items()) {
        if (!IsPlainClass(c))
            return false;
        wanted.push_back(c);
    }
    return !wanted.empty();
}

bool CEvaluator::IsSubclassOfAny(nb::handle cls, const std::vector<nb::object> &classes) {
    for (const MroEntry &e : Mro(cls, {}))
        for (const nb::object &c : classes)
            if (SameClass(Single(e.cls), Single(c)))
                return true;
    return false;
}

// Whether `value` is a class object of no known class: an instance of `type`.
bool CEvaluator::IsAnyClassObject(nb::handle value) {
    nb::object type_class = BuiltinClass("type");
    return !type_class.is_none() && IsInstanceOfExactly(value, {type_class}, false);
}

// The class objects that are (`holds`) or aren't one of the classes
// `objects` (`cls is C`); a class object of no known class, when it must be
// one, is that class.
ValueSet CEvaluator::NarrowToClassObjects(const ValueSet &values, const ValueSet &objects, bool holds) {
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        if (Single(v)->IsClass()) {
            bool is_one = std::any_of(objects.Items().begin(), objects.Items().end(),
                                      [&](const nb::object &o) { return SameClass(Single(o), Single(v)); });
            if (is_one == holds)
                out.Add(v);
        } else if (holds && IsAnyClassObject(v)) {
            out.Merge(objects);
        } else if (!holds) {
            out.Add(v);
        }
    }
    return out.Empty() && holds && !fStrictNarrowing ? objects : out;
}

// The class objects that are (`holds`) or aren't subclasses of one of
// `classes` (`issubclass(cls, C)`); a class object of no known class, or of
// a base of one of them, when it must be one, is that class.
ValueSet CEvaluator::NarrowToSubclasses(const ValueSet &values, const ValueSet &classes, bool holds) {
    std::vector<nb::object> wanted;
    if (!TestableClasses(classes, wanted))
        return values;
    ValueSet out;
    for (const nb::object &v : values.Items()) {
        if (!Single(v)->IsClass()) {
            if (holds && IsAnyClassObject(v))
                out.Merge(classes);
            else if (!holds)
                out.Add(v);
            continue;
        }
        if (IsSubclassOfAny(v, wanted) == holds) {
            out.Add(v);
            continue;
        }
        if (holds)
            for (const nb::object &w : wanted)
                if (IsSubclassOfAny(w, {v}))
                    out.Add(w);
    }
    return out.Empty() && holds && !fStrictNarrowing ? classes : out;
}

ValueSet CEvaluator::NarrowToClasses(const ValueSet &values, const ValueSet &classes, bool holds) {
    std::vector<nb::object> wanted;
    if (!TestableClasses(classes, wanted))
        return values;
    ValueSet out;
    // Of a name nothing is known of, the test still tells the class.
    if (values.Empty() && holds && !fStrictNarrowing)
        for (const nb::object &w : wanted)
            out.Merge(InstanceOf(w, nb::none()));
    for (const nb::object &v : values.Items()) {
        nb::object cls = ClassOfInstance(v);
        si::CSingleResolvedInfo *single = Single(v);
        if (cls.is_none() && (single->IsDef() || single->IsModule())) {
            bool is_one = std::any_of(wanted.begin(), wanted.end(),
                                      [&](const nb::object &w) { return ClasslessValueIsA(single, Single(w)); });
            if (is_one == holds)
                out.Add(v);
            continue;
        }
        if (cls.is_none()) {
            if (!holds || fStrictNarrowing)  // (strictly: a value of no readable class may be one)
                out.Add(v);
            continue;
        }
        if (IsSubclassOfAny(cls, wanted) == holds) {
            out.Add(v);
            continue;
        }
        if (holds)
            for (const nb::object &w : wanted)
                if (IsSubclassOfAny(w, {cls}))
                    out.Merge(InstanceOf(w, nb::none()));
    }
    if (fStrictNarrowing)
        return out;
    if (holds && out.Empty())
        for (const nb::object &w : wanted)
            out.Merge(InstanceOf(w, nb::none()));
    return out.Empty() && holds ? values : out;
}

}  // namespace pysource::infer

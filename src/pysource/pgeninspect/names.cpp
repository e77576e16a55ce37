#include "pysource/pgeninspect/names.h"

#include "pysource/infokinds.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/lexer.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/scopename.h"

#include <algorithm>
#include <optional>

namespace pysource::pgen {

namespace sym = pysource::symbolinfo;

namespace {

constexpr std::int32_t kMaxCalleeTokens = 1000;
constexpr size_t kScannedPairs = 24;

std::string PairKey(std::string_view name, std::string_view info) {
    std::string key;
    key.reserve(name.size() + info.size() + 1);
    key.append(name);
    key.push_back('\0');
    key.append(info);
    return key;
}

using OptText = std::optional<std::string>;

bool IsAtomic(const Node &n) {
    if (n.flags & kFlagParenthesized)
        return true;
    switch (n.kind) {
    case NodeKind::kName: case NodeKind::kConstant: case NodeKind::kString:
    case NodeKind::kAttribute: case NodeKind::kSubscript: case NodeKind::kCall:
    case NodeKind::kList: case NodeKind::kDict: case NodeKind::kSet: case NodeKind::kListComp:
    case NodeKind::kSetComp: case NodeKind::kDictComp: case NodeKind::kGenExp:
        return true;
    default:
        return false;
    }
}

// Concatenation by appending (GCC 12 warns falsely about "a" + string).
std::string Cat(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (std::string_view part : parts)
        out.append(part);
    return out;
}

class Collector {
public:
    Collector(Tree &tree, bool py3, LogicalNames &out) : t_(tree), py3_(py3), out_(out) {}

    void Statement(std::int32_t node);
    void SignatureComment();

private:
    Tree &t_;
    bool py3_;
    LogicalNames &out_;
    std::unordered_set<std::string> seen_;
    struct InnerScope {
        bool comprehension;
        std::vector<std::string_view> names;
        // What a comprehension's targets hold, where the enclosing scope
        // can read it: `k` of `for k in d.keys()` is `d.keys()[*]`.
        std::vector<std::pair<std::string_view, std::string>> values;
    };
    std::vector<InnerScope> inner_;
    bool bind_inner_ = false;  // binding the targets of a comprehension
    std::vector<std::int32_t> chain_;  // AddCall's walk down a callee

    // By value: walking may parse embedded text and grow the node array.
    Node N(std::int32_t i) const { return t_.nodes[(size_t) i]; }
    std::int32_t Kid(std::int32_t node, std::int32_t i) const { return t_.Kid(N(node), i); }
    std::string_view TokText(std::int32_t i) const { return t_.toks[(size_t) i].text; }
    std::string Text(std::int32_t node) const { return t_.NodeText(node); }

    void Add(std::string_view name, std::string info);
    void AddArg(std::string_view name, std::string info) {
        out_.arg_type_equivs.push_back(NamePair{std::string(name), std::move(info)});
    }
    bool IsInnerBound(std::string_view name) const;
    bool ReadsInnerBound(std::int32_t node) const;
    // A call's argument text as the enclosing scope reads it.
    std::string ArgumentText(std::int32_t arg) const;

    // Reads
    void Read(std::int32_t node);
    void ReadKids(std::int32_t node, std::int32_t from = 0);
    // The call pair of a call node: leading dotted name, trailer, arguments.
    void AddCall(std::int32_t node);
    void ReadComprehension(std::int32_t node, std::int32_t element_count);
    void ReadLambda(std::int32_t node);
    std::string ValueText(std::int32_t node) const;

    // Bindings
    void BindName(std::string_view name, const OptText &value);
    void Bind(std::int32_t target, std::int32_t value_node, const OptText &value);
    void Delete(std::int32_t target);
    void BindWalrus(std::int32_t node);

    // Hints
    std::string HintText(std::int32_t annotation);
    // Hint texts may come from string annotations and type comments, which
    // can hold anything: they are made payload-safe.
    static std::string HintInfo(std::string_view hint) {
        return Cat({sym::kTypeHintPrefix, sym::PayloadSafeText(hint)});
    }
    void Hint(std::string_view name, std::string_view hint) { Add(name, HintInfo(hint)); }
    std::int32_t ParseTypeComment();
    struct Signature {
        std::vector<std::string> args;  // a hint per argument, "" for none
        std::string return_hint;
    };
    bool SplitSignatureComment(Signature &out);
    void DefSignatureComment(std::int32_t params);
    void TypeCommentHints(std::int32_t target, std::int32_t comment_node);

    // Statement forms
    void Assign(std::int32_t node);
    void AugAssign(std::int32_t node);
    void AnnAssign(std::int32_t node);
    void For(std::int32_t node);
    void With(std::int32_t node);
    void Except(std::int32_t node);
    void Import(std::int32_t node);
    void FromImport(std::int32_t node);
    void Declared(std::int32_t node, std::string_view prefix);
    void Def(std::int32_t node);
    void Class(std::int32_t node);
    void TypeAlias(std::int32_t node);
    void Pattern(std::int32_t node);
    void Broken(std::int32_t node);
    void PushTypeParams(std::int32_t type_params);
    void ArgTypeParams(std::int32_t type_params);
};

// ---------------------------------------------------------------- basics

void Collector::Add(std::string_view name, std::string info) {
    std::vector<NamePair> &pairs = out_.type_equivs;
    // Most logicals give a handful of pairs: a scan finds a repeat faster
    // than a hash set can be built; a long logical indexes its pairs.
    if (pairs.size() < kScannedPairs) {
        for (const NamePair &pair : pairs)
            if (pair.name == name && pair.info == info)
                return;
    } else {
        if (seen_.empty())
            for (const NamePair &pair : pairs)
                seen_.insert(PairKey(pair.name, pair.info));
        if (!seen_.insert(PairKey(name, info)).second)
            return;
    }
    pairs.push_back(NamePair{std::string(name), std::move(info)});
}

bool Collector::IsInnerBound(std::string_view name) const {
    for (const InnerScope &scope : inner_)
        for (std::string_view bound : scope.names)
            if (bound == name)
                return true;
    return false;
}

// Whether any name token of the node is bound by an inner scope (an
// attribute of the same name counts too: that only loses a value).
bool Collector::ReadsInnerBound(std::int32_t node) const {
    const Node n = N(node);
    for (std::int32_t tok = n.tok_begin; tok < n.tok_end; ++tok)
        if (t_.toks[(size_t) tok].cls == TokClass::kName && IsInnerBound(TokText(tok)))
            return true;
    return false;
}

// A generator expression that is a call's one argument gets the parentheses
// it shares with the call, so that its commas don't read as the call's.
// A name an inner scope binds isn't the enclosing scope's: it reads as what
// a comprehension's target holds, or as nothing (an empty argument, which
// says no type) when that isn't known there, as for a lambda's parameters.
std::string Collector::ArgumentText(std::int32_t arg) const {
    const Node n = N(arg);
    if (n.kind == NodeKind::kGenExp && (n.flags & kFlagParenthesized) == 0)
        return Cat({"(", Text(arg), ")"});
    std::int32_t value = n.kind == NodeKind::kKeyword ? Kid(arg, 0) : arg;
    const Node v = N(value);
    if (v.kind != NodeKind::kName || (v.flags & kFlagParenthesized) != 0 ||
        !IsInnerBound(TokText(v.aux)))
        return Text(arg);
    std::string text = t_.Text(n.tok_begin, v.tok_begin);
    std::string_view name = TokText(v.aux);
    for (auto scope = inner_.rbegin(); scope != inner_.rend(); ++scope) {
        if (std::find(scope->names.begin(), scope->names.end(), name) == scope->names.end())
            continue;
        for (auto held = scope->values.rbegin(); held != scope->values.rend(); ++held) {
            if (held->first == name)
                return text + held->second;
        }
        break;
    }
    return text;
}

std::string Collector::ValueText(std::int32_t node) const {
    if (IsAtomic(N(node)))
        return Text(node);
    return Cat({"(", Text(node), ")"});
}

// ---------------------------------------------------------------- reads

void Collector::ReadKids(std::int32_t node, std::int32_t from) {
    const Node &n = N(node);
    for (std::int32_t i = from; i < n.kids_count; ++i) {
        std::int32_t kid = t_.kids[(size_t) (n.kids_begin + i)];
        if (kid >= 0)
            Read(kid);
    }
}

void Collector::Read(std::int32_t node) {
    // Chains (a+b+c..., a.b.c..., f()()...) nest to the left without bound:
    // their left operand is taken in this loop, not by recursion.
    while (node >= 0) {
        const Node n = N(node);
        switch (n.kind) {
        case NodeKind::kName: {
            std::string_view name = TokText(n.aux);
            if (!IsInnerBound(name))
                Add(name, std::string(sym::kGetPrefix));
            return;
        }
        case NodeKind::kConstant:
            return;
        case NodeKind::kBinOp:
            Read(Kid(node, 1));
            node = Kid(node, 0);
            continue;
        case NodeKind::kAttribute:
            node = Kid(node, 0);
            continue;
        case NodeKind::kSubscript:
            Read(Kid(node, 1));
            node = Kid(node, 0);
            continue;
        case NodeKind::kCall:
            ReadKids(node, 1);
            AddCall(node);
            node = Kid(node, 0);
            continue;
        case NodeKind::kLambda:
            ReadLambda(node);
            return;
        case NodeKind::kListComp: case NodeKind::kSetComp: case NodeKind::kGenExp:
            ReadComprehension(node, 1);
            return;
        case NodeKind::kDictComp:
            ReadComprehension(node, 2);
            return;
        case NodeKind::kNamedExpr:
            Read(Kid(node, 1));
            BindWalrus(node);
            return;
        case NodeKind::kYield:
            ReadKids(node);
            if (inner_.empty())  // a bare `yield` gives None
                Add("return", Kid(node, 0) >= 0 ? Text(Kid(node, 0)) : std::string("None"));
            return;
        case NodeKind::kYieldFrom:
            ReadKids(node);
            if (inner_.empty() && Kid(node, 0) >= 0)  // the items of what it delegates to
                Add("return", Cat({ValueText(Kid(node, 0)), sym::kIterationSubscript}));
            return;
        default:
            ReadKids(node);
            return;
        }
    }
}

void Collector::AddCall(std::int32_t node) {
    const Node call = N(node);
    const Node callee = N(Kid(node, 0));
    // Each call of a chain f()()()... carries the rest of the chain as its
    // trailer: past a sane length that would grow quadratically.
    if (callee.tok_end - callee.tok_begin > kMaxCalleeTokens)
        return;
    // Down the callee to its base; the attributes right above a base name
    // join it in the leading dotted name, the rest is the trailer.
    chain_.clear();
    std::int32_t base = Kid(node, 0);
    for (NodeKind kind = N(base).kind;
         kind == NodeKind::kAttribute || kind == NodeKind::kSubscript || kind == NodeKind::kCall;
         kind = N(base).kind) {
        chain_.push_back(base);
        base = Kid(base, 0);
    }
    const Node base_node = N(base);
    if (base_node.kind != NodeKind::kName || IsInnerBound(TokText(base_node.aux)))
        return;  // a literal, another expression or a name of an inner scope
    std::string name(TokText(base_node.aux));
    std::int32_t leading_end = base_node.tok_end;
    for (auto it = chain_.rbegin(); it != chain_.rend() && N(*it).kind == NodeKind::kAttribute;
         ++it) {
        name.push_back('.');
        name.append(TokText(N(*it).aux));
        leading_end = N(*it).aux + 1;
    }
    std::string trailer = t_.Text(leading_end, callee.tok_end);
    std::string args = t_.Text(call.aux + 1, call.tok_end - 1);
    bool rewritten = false;
    for (std::int32_t i = 1; !rewritten && i < call.kids_count; ++i) {
        const Node arg = N(Kid(node, i));
        rewritten = (arg.kind == NodeKind::kGenExp || !inner_.empty()) &&
                    ArgumentText(Kid(node, i)) != Text(Kid(node, i));
    }
    if (rewritten) {
        args.clear();
        for (std::int32_t i = 1; i < call.kids_count; ++i)
            args.append(i > 1 ? ", " : "").append(ArgumentText(Kid(node, i)));
    }
    Add(name, sym::PackCalled(trailer, args));
}

void Collector::ReadComprehension(std::int32_t node, std::int32_t element_count) {
    const Node &n = N(node);
    std::int32_t first_comp = Kid(node, element_count);
    // The first iterable is evaluated in the enclosing scope.
    if (first_comp >= 0)
        Read(Kid(first_comp, 1));
    // What a target holds is known to the enclosing scope while its iterable
    // reads none of the names of the scopes within.
    OptText first_items;
    if (first_comp >= 0 && !ReadsInnerBound(Kid(first_comp, 1)))
        first_items = Cat({ValueText(Kid(first_comp, 1)), sym::kIterationSubscript});
    inner_.push_back(InnerScope{true, {}, {}});
    for (std::int32_t c = element_count; c < n.kids_count; ++c) {
        std::int32_t comp = Kid(node, c);
        OptText items = first_items;
        if (c != element_count) {
            Read(Kid(comp, 1));
            items = ReadsInnerBound(Kid(comp, 1))
                        ? std::nullopt
                        : OptText(Cat({ValueText(Kid(comp, 1)), sym::kIterationSubscript}));
        }
        bool saved = bind_inner_;
        bind_inner_ = true;
        Bind(Kid(comp, 0), -1, items);
        bind_inner_ = saved;
        ReadKids(comp, 2);
    }
    for (std::int32_t i = 0; i < element_count; ++i)
        Read(Kid(node, i));
    inner_.pop_back();
}

void Collector::ReadLambda(std::int32_t node) {
    std::int32_t params = Kid(node, 0);
    InnerScope scope{false, {}, {}};
    const Node &p = N(params);
    for (std::int32_t i = 0; i < p.kids_count; ++i) {
        std::int32_t param = Kid(params, i);
        Read(Kid(param, 1));  // defaults are evaluated where the lambda stands
        scope.names.push_back(TokText(N(param).aux));
    }
    // A walrus in the body binds in the lambda, wherever it stands: the
    // lambda's nodes are those made since its first one.
    for (std::int32_t i = N(node).aux; i < node; ++i)
        if (N(i).kind == NodeKind::kNamedExpr)
            scope.names.push_back(TokText(N(Kid(i, 0)).aux));
    inner_.push_back(std::move(scope));
    Read(Kid(node, 1));
    inner_.pop_back();
}

// ---------------------------------------------------------------- bindings

void Collector::BindName(std::string_view name, const OptText &value) {
    if (bind_inner_ && !inner_.empty()) {
        inner_.back().names.push_back(name);
        if (value)
            inner_.back().values.emplace_back(name, *value);
        return;
    }
    Add(name, std::string(sym::kSetPrefix));
    if (value)
        Add(name, *value);
}

void Collector::BindWalrus(std::int32_t node) {
    std::string_view name = TokText(N(Kid(node, 0)).aux);
    // The target belongs to the nearest scope that isn't a comprehension.
    for (auto it = inner_.rbegin(); it != inner_.rend(); ++it) {
        if (!it->comprehension) {
            it->names.push_back(name);
            return;
        }
    }
    Add(name, std::string(sym::kSetPrefix));
    Add(name, Text(Kid(node, 1)));
}

void Collector::Bind(std::int32_t target, std::int32_t value_node, const OptText &value) {
    if (target < 0)
        return;
    const Node &n = N(target);
    switch (n.kind) {
    case NodeKind::kName:
        BindName(TokText(n.aux), value);
        return;
    case NodeKind::kAttribute:
    case NodeKind::kSubscript: {
        ReadKids(target);
        if (bind_inner_)
            return;
        std::string text = Text(target);
        Add(text, std::string(sym::kSetPrefix));
        if (value)
            Add(text, *value);
        return;
    }
    case NodeKind::kStarred:
        Bind(Kid(target, 0), -1,
             value ? OptText(Cat({"list(", *value, ")"})) : std::nullopt);
        return;
    case NodeKind::kTuple:
    case NodeKind::kList: {
        std::int32_t count = n.kids_count;
        std::int32_t star = -1;
        for (std::int32_t i = 0; i < count; ++i)
            if (N(Kid(target, i)).kind == NodeKind::kStarred)
                star = i;
        // A display of as many plain elements pairs element with element.
        if (value_node >= 0 && star < 0) {
            const Node &v = N(value_node);
            bool display = (v.kind == NodeKind::kTuple || v.kind == NodeKind::kList) &&
                           v.kids_count == count;
            for (std::int32_t i = 0; display && i < count; ++i)
                display = N(Kid(value_node, i)).kind != NodeKind::kStarred;
            if (display) {
                for (std::int32_t i = 0; i < count; ++i) {
                    std::int32_t element = Kid(value_node, i);
                    Bind(Kid(target, i), element, Text(element));
                }
                return;
            }
        }
        std::string base;
        if (value) {
            base = *value;
            if (value_node >= 0 && !IsAtomic(N(value_node)))
                base = Cat({"(", base, ")"});
        }
        for (std::int32_t i = 0; i < count; ++i) {
            OptText element;
            if (value && i != star) {
                std::int32_t index = (star >= 0 && i > star) ? i - count : i;
                element = Cat({base, "[", std::to_string(index), "]"});
            } else if (value) {
                element = base;  // the starred target wraps it in list()
            }
            Bind(Kid(target, i), -1, element);
        }
        return;
    }
    default:
        t_.errors.push_back(ParseError{"cannot assign to expression",
                                       t_.SourcePosition(n.tok_begin)});
        Read(target);
        return;
    }
}

void Collector::Delete(std::int32_t target) {
    const Node &n = N(target);
    switch (n.kind) {
    case NodeKind::kName:
        Add(TokText(n.aux), std::string(sym::kSetPrefix));
        return;
    case NodeKind::kTuple:
    case NodeKind::kList:
        for (std::int32_t i = 0; i < n.kids_count; ++i)
            Delete(Kid(target, i));
        return;
    case NodeKind::kAttribute:
    case NodeKind::kSubscript:
        ReadKids(target);
        return;
    default:
        t_.errors.push_back(ParseError{"cannot delete expression", t_.SourcePosition(n.tok_begin)});
        Read(target);
        return;
    }
}

// ---------------------------------------------------------------- hints

std::string Collector::HintText(std::int32_t annotation) {
    std::string_view inner;
    if (StringAnnotationText(t_, annotation, inner)) {
        std::int32_t origin = t_.toks[(size_t) N(annotation).tok_begin].source_index;
        std::int32_t parsed = ParseEmbeddedExpression(t_, inner, origin, py3_);
        if (parsed >= 0)
            Read(parsed);
        return std::string(inner);
    }
    Read(annotation);
    return Text(annotation);
}

std::int32_t Collector::ParseTypeComment() {
    if (t_.type_comment.empty())
        return -1;
    return ParseEmbeddedExpression(t_, t_.type_comment, t_.type_comment_source, py3_);
}

void Collector::TypeCommentHints(std::int32_t target, std::int32_t comment_node) {
    const Node &n = N(target);
    if (n.kind == NodeKind::kTuple || n.kind == NodeKind::kList) {
        if (comment_node < 0)
            return;
        const Node &c = N(comment_node);
        if (c.kind != NodeKind::kTuple || c.kids_count != n.kids_count)
            return;
        for (std::int32_t i = 0; i < n.kids_count; ++i)
            TypeCommentHints(Kid(target, i), Kid(comment_node, i));
        return;
    }
    if (n.kind == NodeKind::kStarred)
        return;
    std::string text = comment_node >= 0 ? Text(comment_node) : std::string(t_.type_comment);
    Hint(Text(target), text);
}

bool Collector::SplitSignatureComment(Signature &out) {
    std::string_view text = t_.type_comment;
    if (text.empty() || text.front() != '(')
        return false;
    std::int32_t first = (std::int32_t) t_.toks.size();
    if (!LexExpressionText(t_, text, t_.type_comment_source))
        return false;
    std::int32_t end = (std::int32_t) t_.toks.size();
    // Arguments: the pieces between level-zero commas inside the parentheses,
    // without a leading * or **; "..." stands for no hint.
    auto add_piece = [&](std::int32_t b, std::int32_t e) {
        while (b < e && (TokText(b) == "*" || TokText(b) == "**"))
            ++b;
        bool hint = b < e && !(e - b == 1 && TokText(b) == "...");
        out.args.push_back(hint ? t_.Text(b, e) : std::string());
    };
    int level = 0;
    std::int32_t piece = first + 1;
    std::int32_t i = first;
    for (; i < end; ++i) {
        std::string_view s = t_.toks[(size_t) i].text;
        if (t_.toks[(size_t) i].cls != TokClass::kOp)
            continue;
        if (s == "(" || s == "[" || s == "{") {
            ++level;
        } else if (s == ")" || s == "]" || s == "}") {
            if (--level == 0)
                break;
        } else if (s == "," && level == 1) {
            add_piece(piece, i);
            piece = i + 1;
        }
    }
    if (i >= end)
        return false;  // unbalanced
    if (piece < i)
        add_piece(piece, i);
    if (i + 2 < end && TokText(i + 1) == "->")
        out.return_hint = t_.Text(i + 2, end);
    return true;
}

void Collector::SignatureComment() {
    Signature signature;
    if (!SplitSignatureComment(signature))
        return;
    for (size_t i = 0; i < signature.args.size(); ++i)
        if (!signature.args[i].empty())
            Add(sym::BuildArgInfo((long long) i, std::nullopt),
                HintInfo(signature.args[i]));
    if (!signature.return_hint.empty())
        Add("return", HintInfo(signature.return_hint));
}

void Collector::DefSignatureComment(std::int32_t params) {
    // A signature comment on the def line itself: its hints go to the
    // arguments that have no annotation.  It may leave out the first
    // argument (self or cls of a method).
    Signature signature;
    if (!SplitSignatureComment(signature))
        return;
    const Node p = N(params);
    size_t skip = 0;
    if (signature.args.size() + 1 == (size_t) p.kids_count)
        skip = 1;
    else if (signature.args.size() != (size_t) p.kids_count)
        signature.args.clear();
    for (size_t i = 0; i < signature.args.size(); ++i) {
        std::int32_t param = Kid(params, (std::int32_t) (i + skip));
        if (Kid(param, 0) < 0 && !signature.args[i].empty())
            AddArg(TokText(N(param).aux), HintInfo(signature.args[i]));
    }
    if (!signature.return_hint.empty())
        AddArg("return", HintInfo(signature.return_hint));
}

// ---------------------------------------------------------------- statements

void Collector::Assign(std::int32_t node) {
    const Node &n = N(node);
    std::int32_t value = Kid(node, n.kids_count - 1);
    Read(value);
    OptText value_text = Text(value);
    std::int32_t comment = ParseTypeComment();
    for (std::int32_t i = 0; i + 1 < n.kids_count; ++i) {
        Bind(Kid(node, i), value, value_text);
        if (!t_.type_comment.empty())
            TypeCommentHints(Kid(node, i), comment);
    }
}

void Collector::AugAssign(std::int32_t node) {
    std::int32_t target = Kid(node, 0);
    std::int32_t value = Kid(node, 1);
    Read(target);
    Read(value);
    std::string_view op = TokText(N(node).aux);
    op.remove_suffix(1);
    std::string text = ValueText(target);
    text.append(op);
    text += ValueText(value);
    Bind(target, -1, text);
}

void Collector::AnnAssign(std::int32_t node) {
    std::int32_t target = Kid(node, 0);
    std::int32_t value = Kid(node, 2);
    std::string hint = HintText(Kid(node, 1));
    const Node &t = N(target);
    if (value < 0 && t.kind == NodeKind::kName && (t.flags & kFlagParenthesized) != 0) {
        // `(x): int` alone: a name in parentheses is no simple target, and
        // without a value Python neither binds nor records it.
        return;
    }
    if (value >= 0) {
        Read(value);
        Bind(target, value, Text(value));
    } else {
        Bind(target, -1, std::nullopt);
    }
    const Node &n = N(target);
    if (n.kind == NodeKind::kName || n.kind == NodeKind::kAttribute ||
        n.kind == NodeKind::kSubscript)
        Hint(n.kind == NodeKind::kName ? TokText(n.aux) : std::string_view(Text(target)), hint);
}

void Collector::For(std::int32_t node) {
    std::int32_t target = Kid(node, 0);
    std::int32_t iterable = Kid(node, 1);
    Read(iterable);
    Bind(target, -1, Cat({ValueText(iterable), sym::kIterationSubscript}));
    if (!t_.type_comment.empty())
        TypeCommentHints(target, ParseTypeComment());
}

void Collector::With(std::int32_t node) {
    const Node &n = N(node);
    bool async = (n.flags & kFlagAsync) != 0;
    std::vector<std::int32_t> targets;
    for (std::int32_t i = 0; i < n.kids_count; ++i) {
        std::int32_t item = Kid(node, i);
        std::int32_t expr = Kid(item, 0);
        Read(expr);
        std::int32_t target = Kid(item, 1);
        if (target < 0)
            continue;
        std::string value = async ? Cat({"(await ", ValueText(expr), ".__aenter__())"})
                                  : Cat({ValueText(expr), ".__enter__()"});
        Bind(target, -1, value);
        targets.push_back(target);
    }
    if (t_.type_comment.empty() || targets.empty())
        return;
    std::int32_t comment = ParseTypeComment();
    if (targets.size() == 1) {
        TypeCommentHints(targets[0], comment);
    } else if (comment >= 0 && N(comment).kind == NodeKind::kTuple &&
               N(comment).kids_count == (std::int32_t) targets.size()) {
        for (size_t i = 0; i < targets.size(); ++i)
            TypeCommentHints(targets[i], Kid(comment, (std::int32_t) i));
    }
}

void Collector::Except(std::int32_t node) {
    std::int32_t type = Kid(node, 0);
    Read(type);
    std::int32_t name_tok = N(node).aux;
    if (name_tok < 0)
        return;
    std::string_view name = TokText(name_tok);
    BindName(name, std::nullopt);
    if (type < 0)
        return;
    // The name holds an instance of the caught class (or of one of them).
    const Node &t = N(type);
    std::int32_t count = t.kind == NodeKind::kTuple ? t.kids_count : 1;
    for (std::int32_t i = 0; i < count; ++i) {
        std::int32_t cls = t.kind == NodeKind::kTuple ? Kid(type, i) : type;
        NodeKind kind = N(cls).kind;
        if (kind == NodeKind::kName || kind == NodeKind::kAttribute)
            Add(name, Cat({Text(cls), "()"}));
    }
}

void Collector::Import(std::int32_t node) {
    const Node &n = N(node);
    for (std::int32_t i = 0; i < n.kids_count; ++i) {
        const Node &alias = N(Kid(node, i));
        std::string module = t_.Text(alias.tok_begin, alias.tok_end);
        if (alias.aux >= 0) {
            std::string_view name = TokText(alias.aux);
            Add(name, std::string(sym::kSetPrefix));
            Add(name, sym::BuildFieldsInfo(sym::kImportAsNameKind, {module}));
        } else {
            std::string_view name = TokText(alias.tok_begin);
            Add(name, std::string(sym::kSetPrefix));
            Add(name, sym::BuildFieldsInfo(sym::kImportKind, {module}));
        }
    }
}

void Collector::FromImport(std::int32_t node) {
    const Node &n = N(node);
    std::int32_t module_node = Kid(node, 0);
    // The module as written, its leading dots telling the relative level.
    std::string module(n.aux, '.');
    if (module_node >= 0)
        t_.AppendText(module, N(module_node).tok_begin, N(module_node).tok_end);
    for (std::int32_t i = 1; i < n.kids_count; ++i) {
        const Node &alias = N(Kid(node, i));
        std::string_view imported = TokText(alias.tok_begin);
        std::string_view name = alias.aux >= 0 ? TokText(alias.aux) : imported;
        Add(name, std::string(sym::kSetPrefix));
        Add(name, sym::BuildFieldsInfo(sym::kFromImportKind, {module, imported}));
    }
}

void Collector::Declared(std::int32_t node, std::string_view prefix) {
    const Node &n = N(node);
    for (std::int32_t i = n.tok_begin + 1; i < n.tok_end; ++i)
        if (t_.toks[(size_t) i].cls == TokClass::kName)
            Add(TokText(i), std::string(prefix));
}

void Collector::PushTypeParams(std::int32_t type_params) {
    InnerScope scope{false, {}, {}};
    if (type_params >= 0) {
        const Node &tp = N(type_params);
        for (std::int32_t i = 0; i < tp.kids_count; ++i)
            scope.names.push_back(TokText(N(Kid(type_params, i)).aux));
    }
    inner_.push_back(std::move(scope));
    if (type_params >= 0) {
        const Node &tp = N(type_params);
        for (std::int32_t i = 0; i < tp.kids_count; ++i)
            ReadKids(Kid(type_params, i));
    }
}

void Collector::ArgTypeParams(std::int32_t type_params) {
    if (type_params < 0)
        return;
    static constexpr std::string_view kParamKinds[] = {"TypeVar", "TypeVarTuple", "ParamSpec"};
    const Node &tp = N(type_params);
    for (std::int32_t i = 0; i < tp.kids_count; ++i) {
        std::int32_t param = Kid(type_params, i);
        const Node &p = N(param);
        std::int32_t bound = Kid(param, 0);
        std::int32_t deflt = Kid(param, 1);
        std::string bound_text = bound >= 0 ? Text(bound) : std::string();
        std::string default_text = deflt >= 0 ? Text(deflt) : std::string();
        AddArg(TokText(p.aux),
               sym::BuildTypeParameterInfo(
                   TokText(p.aux), kParamKinds[p.param_kind],
                   bound >= 0 ? sym::OptView(bound_text) : std::nullopt,
                   deflt >= 0 ? sym::OptView(default_text) : std::nullopt));
    }
}

void Collector::Def(std::int32_t node) {
    out_.has_arg_type_equivs = true;
    std::int32_t type_params = Kid(node, 0);
    std::int32_t params = Kid(node, 1);
    std::int32_t returns = Kid(node, 2);
    const Node &p = N(params);
    // Defaults are evaluated where the def stands; annotations and bounds in
    // the scope of the type parameters.
    for (std::int32_t i = 0; i < p.kids_count; ++i)
        Read(Kid(Kid(params, i), 1));
    PushTypeParams(type_params);
    for (std::int32_t i = 0; i < p.kids_count; ++i) {
        std::int32_t param = Kid(params, i);
        const Node &pn = N(param);
        std::string_view name = TokText(pn.aux);
        std::int32_t annotation = Kid(param, 0);
        std::int32_t deflt = Kid(param, 1);
        AddArg(name, std::string(sym::kSetPrefix));
        if (annotation >= 0) {
            std::string hint = HintText(annotation);
            if (pn.param_kind == kVarArgs && N(annotation).kind != NodeKind::kStarred)
                hint = Cat({"tuple[", hint, ", ...]"});
            else if (pn.param_kind == kVarKeywords)
                hint = Cat({"dict[str, ", hint, "]"});
            AddArg(name, HintInfo(hint));
        }
        if (deflt >= 0)
            AddArg(name, Text(deflt));
        if (pn.param_kind == kVarArgs)
            AddArg(name, "tuple()");
        else if (pn.param_kind == kVarKeywords)
            AddArg(name, "dict()");
    }
    if (returns >= 0)
        HintText(returns);
    inner_.pop_back();
    DefSignatureComment(params);
    ArgTypeParams(type_params);
}

void Collector::Class(std::int32_t node) {
    out_.has_arg_type_equivs = true;
    std::int32_t type_params = Kid(node, 0);
    PushTypeParams(type_params);
    const Node &n = N(node);
    for (std::int32_t i = 1; i < n.kids_count; ++i) {
        std::int32_t arg = Kid(node, i);
        Read(arg);
        const Node &a = N(arg);
        if (a.kind == NodeKind::kKeyword) {
            if (a.aux >= 0 && TokText(a.aux) == "metaclass")
                AddArg("__metaclass__", Text(Kid(arg, 0)));
        } else if (a.kind != NodeKind::kStarred && a.kind != NodeKind::kDoubleStarred) {
            AddArg("__bases__", Text(arg));
        }
    }
    inner_.pop_back();
    ArgTypeParams(type_params);
}

void Collector::TypeAlias(std::int32_t node) {
    std::int32_t type_params = Kid(node, 0);
    std::int32_t value = Kid(node, 1);
    std::string_view name = TokText(N(node).aux);
    PushTypeParams(type_params);
    Read(value);
    inner_.pop_back();
    Add(name, std::string(sym::kSetPrefix));
    std::string params_text = type_params >= 0 ? Text(type_params) : std::string();
    std::string value_text = Text(value);
    Add(name, sym::BuildFieldsInfo(sym::kGenericTypeAliasKind,
                                   {name, type_params >= 0 ? sym::OptView(params_text) : std::nullopt,
                                    sym::OptView(value_text)}));
}

void Collector::Pattern(std::int32_t node) {
    if (node < 0)
        return;
    const Node &n = N(node);
    switch (n.kind) {
    case NodeKind::kPatCapture:
        BindName(TokText(n.aux), std::nullopt);
        return;
    case NodeKind::kPatGroup:
        for (std::int32_t i = 0; i < n.kids_count; ++i)
            Pattern(Kid(node, i));
        return;
    case NodeKind::kPatKeyword:
        Pattern(Kid(node, 0));
        return;
    default:
        Read(node);  // a value, a literal, a class or a mapping key
        return;
    }
}

void Collector::Broken(std::int32_t node) {
    // Only the names can be trusted: each one not behind a dot is a read,
    // and a leading "name =" a binding.
    const Node &n = N(node);
    for (std::int32_t i = n.tok_begin; i < n.tok_end; ++i) {
        const Tok &tok = t_.toks[(size_t) i];
        if (tok.cls != TokClass::kName || IsKeyword(tok.text, !py3_))
            continue;
        if (i > n.tok_begin && TokText(i - 1) == ".")
            continue;
        if (i == n.tok_begin && i + 1 < n.tok_end && TokText(i + 1) == "=")
            Add(tok.text, std::string(sym::kSetPrefix));
        else
            Add(tok.text, std::string(sym::kGetPrefix));
    }
}

void Collector::Statement(std::int32_t node) {
    switch (N(node).kind) {
    case NodeKind::kAssign: Assign(node); return;
    case NodeKind::kAugAssign: AugAssign(node); return;
    case NodeKind::kAnnAssign: AnnAssign(node); return;
    case NodeKind::kReturn: {
        std::int32_t value = Kid(node, 0);
        Read(value);
        Add("return", value >= 0 ? Text(value) : std::string("None"));
        return;
    }
    case NodeKind::kDelete: Delete(Kid(node, 0)); return;
    case NodeKind::kGlobal: Declared(node, sym::kGlobalPrefix); return;
    case NodeKind::kNonlocal: Declared(node, sym::kNonlocalPrefix); return;
    case NodeKind::kImport: Import(node); return;
    case NodeKind::kFromImport: FromImport(node); return;
    case NodeKind::kFor: For(node); return;
    case NodeKind::kWith: With(node); return;
    case NodeKind::kExcept: Except(node); return;
    case NodeKind::kDef: Def(node); return;
    case NodeKind::kClass: Class(node); return;
    case NodeKind::kTypeAlias: TypeAlias(node); return;
    case NodeKind::kCase:
        Pattern(Kid(node, 0));
        Read(Kid(node, 1));
        return;
    case NodeKind::kBroken: Broken(node); return;
    case NodeKind::kSimpleKeyword: case NodeKind::kCompoundKeyword: return;
    default:
        // expression statements, conditions, decorators, raise, assert,
        // match subjects, print and exec: everything in them is read
        ReadKids(node);
        return;
    }
}

}  // namespace

void CollectLogicalNames(Tree &tree, bool py3, bool first_in_def, LogicalNames &out) {
    out.Clear();
    Collector collector(tree, py3, out);
    // Statements are walked by index: walking may parse embedded text and
    // grow the node array.
    for (size_t i = 0; i < tree.statements.size(); ++i)
        collector.Statement(tree.statements[i]);
    if (tree.statements.empty() && first_in_def)
        collector.SignatureComment();
}

}  // namespace pysource::pgen

// Argument resolution: the text of a call's arguments turned into info
// bytes -- literals classified by their first token, plain names passed on
// as lazy references by default, the rest resolved -- and recorded against
// the called definitions' parameters.  Also the one way in which the scan
// resolves source text, where the final-try rule applies.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "pysource/scopescanner/secondaryscanner.h"
#include "pysource/scopescanner/secondaryutil.h"
#include "pysource/srctokenizer.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace secondaryutil;

namespace {

nb::bytes Bytes(std::string_view data) { return nb::bytes(data.data(), data.size()); }

nb::object Literal(const char *class_name, nb::handle literal) {
    return si::PyBuildLiteralInfo(nb::bytes(class_name), literal);
}

// A lambda expression: `lambda` followed by its parameters or its colon.
bool IsLambdaText(std::string_view text) {
    if (!text.starts_with("lambda") || text.size() == 6)
        return false;
    char next = text[6];
    return next == ' ' || next == ':' || next == '\t' || next == '\\';
}

bool IsDigitOrDot(char c) { return (c >= '0' && c <= '9') || c == '.'; }

// A signed number: "+" or "-" followed by a digit or ".".
bool IsSignedNumberText(std::string_view text) {
    return text.size() >= 2 && (text[0] == '+' || text[0] == '-') && IsDigitOrDot(text[1]);
}

// The class of a string literal from its prefix letters.
nb::object StringLiteral(std::string_view text, nb::handle literal, nb::handle loc_cache) {
    for (char c : text) {
        if (c == 'r' || c == 'R' || c == 'f' || c == 'F')
            continue;
        if (c == 'u' || c == 'U') {
            if (nb::cast<long>(loc_cache.attr("GetPythonMajorVersion")()) < 3)
                return Literal("unicode", literal);
        } else if (c == 'b' || c == 'B') {
            return Literal("bytes", literal);
        }
        break;
    }
    return Literal("str", literal);
}

// The class of a list, tuple, dict or set display; only the first display
// of the text is read.
nb::object CollectionLiteral(std::string_view text, int open_tok, nb::handle literal) {
    CStringTokenizer tokens{std::string(text)};
    Py_ssize_t count = 0;
    bool colon = false;
    while (!tokens.fDone) {
        if (count != 0 && tokens.fPriorNestingCount == 0)
            break;  // past the closing bracket
        if (tokens.fTokenID == kTokColon && tokens.fPriorNestingCount == 1)
            colon = true;
        ++count;
        tokens.Next();
    }
    if (open_tok == kTokLBrace)
        return Literal(count == 2 || colon ? "dict" : "set", literal);
    if (open_tok == kTokLSqb)
        return Literal("list", literal);
    return Literal("tuple", literal);
}

// Whether a text that opens with a bracket is one display that fills it: a
// list, set or dict (a comprehension too) or a tuple (`()` or a comma at its
// top level), rather than an expression such as `(a or b)`,
// `(x for x in y)` or `[a, b][0]`.
bool IsWholeDisplay(std::string_view text, int open_tok) {
    CStringTokenizer tokens{std::string(text)};
    Py_ssize_t count = 0;
    bool comma = false;
    for (; !tokens.fDone; tokens.Next(), ++count) {
        int tok = tokens.fTokenID;
        if (tok == kTokEndMarker || tok == kTokNewline || tok == kTokNL || tok == kTokComment)
            continue;
        if (count != 0 && tokens.fPriorNestingCount == 0)
            return false;  // something past the closing bracket
        if (tokens.fPriorNestingCount == 1) {
            comma = comma || tok == kTokComma;
            if (open_tok == kTokLPar && tok == kTokName && tokens.TokenText() == "for")
                return false;
        }
    }
    return open_tok != kTokLPar || comma || count == 2;
}

// A keyword argument `name=value` as (name, value); nullopt for any other
// argument (`a == b`, `a <= b`).
std::optional<std::pair<std::string_view, std::string_view>> SplitKeyword(std::string_view text) {
    std::ptrdiff_t equals = si::NonNestedFind(text, "=");
    if (equals <= 0 || text.substr((std::size_t) equals, 2) == "==")
        return std::nullopt;
    std::string_view name = si::StripSpaces(text.substr(0, (std::size_t) equals));
    if (!si::IsSingleNameToken(name))
        return std::nullopt;
    return std::make_pair(name, si::StripSpaces(text.substr((std::size_t) equals + 1)));
}

}  // namespace

nb::object CSingleScopeSecondaryScanner::ResolveInThisScope_(nb::handle expr_text,
                                                             bool reduce_resolved, nb::handle ctx) {
    nb::object expr = ExprIn(OurScope(), expr_text);
    nb::object resolved = ResolvedOf(Engine().attr("ResolveToResult")(expr, nb::arg("ctx") = ctx));
    if (reduce_resolved)
        resolved = Engine().attr("ReduceResolved")(resolved, false, false, ctx);
    if (CtxIncomplete(ctx) && !TakesPartial_(ctx))
        return nb::none();
    return resolved;
}

nb::list CSingleScopeSecondaryScanner::GetArgInfoBytesList_(nb::handle called_ibytes,
                                                            nb::handle ctx,
                                                            nb::handle skip_indexes) {
    nb::tuple called = si::PyUnpackCalled(called_ibytes);
    nb::object arg_text = called[1];
    RequireStr(arg_text, "the argument text of a call");
    std::optional<long long> call_at = si::SplitLogicalIndexSuffix(TextOf(called_ibytes)).logical_index;
    nb::list result;
    Py_ssize_t i = 0;
    bool unpacked = false;  // past a `*x`, positions are unknown
    for (nb::handle arg : si::PySplitArguments(arg_text)) {
        std::string_view text = TextOf(arg);
        unpacked = unpacked || StartsWith(text, "*");
        if (unpacked || (!skip_indexes.is_none() && Contains(skip_indexes, nb::int_(i))))
            result.append(nb::none());
        else
            result.append(ArgInfoBytesAt(text, call_at, ctx));
        ++i;
    }
    return result;
}

nb::object CSingleScopeSecondaryScanner::ArgInfoBytesAt(std::string_view text,
                                                        std::optional<long long> call_at,
                                                        nb::handle ctx) {
    if (IsLambdaText(text))
        return Literal("function", nb::none());  // what it does is left to a call of it
    if (!si::IsAtomExpr(text) && !IsSignedNumberText(text)) {
        // An expression of several terms means what it means in parentheses
        // (`n - 1`, `a or b`, a generator expression as the one argument):
        // read so where the call stands, like a name.
        // (A `;` in it, inside a string, would split the record's compound.)
        // An empty argument stands for a name of an inner scope: nothing known.
        if (!kLazyCalledArgEvaluation || text.empty() || SplitKeyword(text) ||
            text.find(';') != std::string_view::npos)
            return nb::none();
        std::string in_parentheses(1, '(');
        in_parentheses.append(text).push_back(')');
        return LazyArgInfoBytes(in_parentheses, call_at);
    }
    if (DbgStatsOn())
        DbgCountScanHit_(nb::str("called-arg-resolve"));
    // The argument is read where the call stands: its text carries the
    // call's logical index.
    std::string at_call(text);
    if (call_at)
        at_call = si::AppendLogicalIndexBytesSuffix(text, std::to_string(*call_at));
    return GetInfoBytesForResolvedArgText_(nb::str(at_call.data(), at_call.size()), ctx);
}

void CSingleScopeSecondaryScanner::AddInfoForKeywordArgs(nb::handle derived_list,
                                                         nb::handle called_ibytes, nb::handle ctx) {
    std::optional<long long> call_at = si::SplitLogicalIndexSuffix(TextOf(called_ibytes)).logical_index;
    nb::tuple called = si::PyUnpackCalled(called_ibytes);
    std::vector<std::pair<std::string, nb::object>> keywords;  // (name, info bytes)
    for (nb::handle arg : si::PySplitArguments(called[1])) {
        auto keyword = SplitKeyword(TextOf(arg));
        if (!keyword)
            continue;
        nb::object ibytes = ArgInfoBytesAt(keyword->second, call_at, ctx);
        if (!ibytes.is_none())
            keywords.emplace_back(std::string(keyword->first), ibytes);
    }
    if (keywords.empty())
        return;
    for (nb::handle entry : derived_list) {
        nb::object derived = entry[0];
        nb::object def_info = InfoCache().attr("GetScopeInfo")(AsScopeInfo(derived).key->for_scope);
        if (def_info.is_none())
            continue;
        std::string_view own = si::BareSingle(TextOf(def_info.attr("ibytes")));
        if (!si::IsDefKind(si::GetInfoBytesKind(own)))
            continue;
        std::vector<si::DeclParam> params = si::DeclParameters(si::UnpackDefInfo(own).arg_decl);
        for (const auto &[name, ibytes] : keywords) {
            for (std::size_t i = 0; i < params.size(); ++i) {
                const si::DeclParam &param = params[i];
                if (param.name != name || param.stars || param.positional_only)
                    continue;
                // A keyword-only parameter's position is also the place of
                // the positions that `*args` collects: left out.
                if (param.keyword_only)
                    break;
                // The def's own annotation outranks what call sites say.
                if (!param.hinted)
                    AddDerivedInfoForName_(derived, false, AsStr(si::PyBuildArgInfo((long long) i, nb::none())), ibytes);
                break;
            }
        }
    }
}

nb::object CSingleScopeSecondaryScanner::GetInfoBytesForResolvedArgText_(nb::handle arg_text,
                                                                         nb::handle ctx) {
    // The text may end with the logical index it is read at.
    si::SuffixSplit split = si::SplitLogicalIndexSuffix(TextOf(arg_text));
    std::string_view text = split.single;
    if (text != si::StripSpaces(text))
        RaiseAssertion("argument text must be stripped");
    nb::bytes utf8 = Bytes(text);
    int tok = GetTokenType(utf8, 0);
    Py_ssize_t end = GetTokenEnd(utf8, 0, false);
    if ((tok == kTokPlus || tok == kTokMinus) && IsSignedNumberText(text)) {
        // A signed number is classified by what follows the sign.
        tok = GetTokenType(utf8, 1);
        end = GetTokenEnd(utf8, 1, false);
    }
    nb::object literal = kSaveLiteralText ? nb::object(nb::str(text.data(), text.size())) : nb::none();
    // An expression that only opens with a bracket is read like one that
    // opens with a name.
    if ((tok == kTokLPar || tok == kTokLSqb || tok == kTokLBrace) && !IsWholeDisplay(text, tok))
        tok = kTokName;
    switch (tok) {
    case kTokName: {
        if (text == "None")
            return Literal("None", literal);
        if (text == "True" || text == "False")
            return Literal("bool", literal);
        if (DbgStatsOn())
            DbgCountScanEvent_(nb::str("arg-name"), _gDbgSeenArgs.get(), arg_text);
        if (kLazyCalledArgEvaluation)
            return LazyArgInfoBytes(text, split.logical_index);
        nb::object resolved = ResolveInThisScope_(arg_text, true, ctx);
        if (resolved.is_none() || !HasItems(resolved))
            return nb::none();
        if (!PyAnySet_Check(resolved.ptr()))
            throw nb::type_error("a reduced resolved set must be a set");
        return GetInfoBytesForReducedResolved_(resolved);
    }
    case kTokString:
        return StringLiteral(text, literal, LocCache());
    case kTokNumber:
        if (end != (Py_ssize_t) text.size())
            return nb::none();  // the number doesn't fill the argument
        return Literal(si::IsFloat(text) ? "float" : "int", literal);
    case kTokLPar:
    case kTokLSqb:
    case kTokLBrace:
        return CollectionLiteral(text, tok, literal);
    default:
        return nb::none();
    }
}

nb::object CSingleScopeSecondaryScanner::LazyArgInfoBytes(std::string_view text,
                                                          std::optional<long long> read_at) {
    // The text travels with the scope it was used in and is evaluated when
    // the derived record is read.
    si::CScope &ours = ScopeOf(OurScope());
    nb::object lazy = si::PyPrefixWithLocationAndScope(Bytes(text), ours.loc, ours.name);
    if (!read_at)
        return lazy;
    return Bytes(si::AppendLogicalIndexBytesSuffix(TextOf(lazy), std::to_string(*read_at)));
}

nb::object CSingleScopeSecondaryScanner::GetInfoBytesForReducedResolved_(nb::handle resolved) {
    if (!HasItems(resolved))
        return nb::none();
    nb::object loc_cache = LocCache();
    si::CScope &ours = ScopeOf(OurScope());
    std::vector<std::string> parts;
    for (nb::handle single : resolved) {
        nb::object ibytes = single.attr("ibytes");
        if (Truth(single.attr("IsLiteral")())) {
            parts.emplace_back(TextOf(ibytes));
        } else if (Truth(single.attr("IsInstance")())) {
            nb::object class_name = single.attr("GetInstanceClassName")();
            nb::object loc = loc_cache.attr("GetPrimaryLocation")(single.attr("loc"));
            nb::tuple parent_leaf = si::PyParentAndLeafScopeNames(class_name);
            nb::object inst_name = AsUtf8(si::PyGetInstanceNameForClass(parent_leaf[1]));
            parts.emplace_back(TextOf(si::PyPrefixWithLocationAndScope(inst_name, loc, parent_leaf[0])));
        } else if (Truth(single.attr("IsClassRef")())) {
            continue;  // can't be written down as info bytes
        } else {
            nb::object loc = single.attr("loc");
            if (loc.is_none())
                RaiseAssertion("a resolved single without a location");
            nb::object scope_name = single.attr("scope").attr("name");
            std::string_view bytes = TextOf(ibytes);
            if (Equal(loc, loc_cache.attr("GetBuiltinLoc")())) {
                parts.push_back(std::string(si::kBuiltinModulePrefix) + std::string(bytes));
            } else if (TextOf(scope_name).empty() && Equal(loc, loc_cache.attr("GetTypingLoc")())) {
                parts.push_back(std::string(si::kTypingModulePrefix) + std::string(bytes));
            } else if (Equal(loc, ours.loc)) {
                if (Equal(scope_name, ours.name))
                    parts.emplace_back(bytes);
                else
                    parts.emplace_back(TextOf(si::PyPrefixWithLocationAndScope(ibytes, nb::none(), scope_name)));
            } else {
                parts.emplace_back(TextOf(si::PyPrefixWithLocationAndScope(ibytes, loc, scope_name)));
            }
        }
    }
    if (parts.empty())
        return nb::none();
    if (parts.size() == 1)
        return Bytes(parts[0]);
    // Sorted, so that the compound doesn't depend on the set's order.
    std::sort(parts.begin(), parts.end());
    std::string joined;
    for (const std::string &part : parts) {
        if (!joined.empty())
            joined += ';';
        joined += part;
    }
    return Bytes(joined);
}

void CSingleScopeSecondaryScanner::AddInfoForUsedArgs_(nb::handle derived_list,
                                                       nb::handle arg_ibytes_list, nb::handle) {
    for (nb::handle entry : derived_list) {
        nb::object derived = entry[0];
        Py_ssize_t offset = nb::cast<Py_ssize_t>(entry[1]);
        nb::object hinted = entry[2];
        Py_ssize_t arg_i = 0;
        for (nb::handle ibytes : arg_ibytes_list) {
            Py_ssize_t i = arg_i++;
            if (ibytes.is_none())
                continue;
            // The def's own annotation outranks what call sites say.
            if (!hinted.is_none() && Contains(hinted, nb::int_(i)))
                continue;
            nb::object key = AsStr(si::PyBuildArgInfo(i + offset, nb::none()));
            RequireBytes(ibytes, "argument info bytes");
            AddDerivedInfoForName_(derived, false, key, ibytes);
        }
    }
}

nb::object FullyHintedArgIndexes_(nb::handle derived_list) {
    nb::object common = nb::none();
    for (nb::handle entry : derived_list) {
        nb::object hinted = entry[2];
        if (hinted.is_none())
            return nb::none();
        common = common.is_none() ? nb::set(hinted) : common.attr("intersection")(hinted);
    }
    if (!HasItems(common))
        return nb::none();
    return nb::frozenset(common);
}

}  // namespace pysource

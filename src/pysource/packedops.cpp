#include "pysource/packedops.h"

#include "pysource/exprtext.h"
#include "pysource/nesting.h"

#include <charconv>
#include <stdexcept>

namespace pysource::symbolinfo {

namespace {

bool NeedsEscape(char c) {
    switch (c) {
    case '%': case ',': case ';': case '(': case ')': case '[': case ']':
    case '{': case '}': case '"': case '\'':
    case '#':  // keeps a field from ever looking like a logical-index suffix
        return true;
    default:
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    }
}

bool HasNestingOrSeparator(std::string_view text) {
    for (char c : text) {
        switch (c) {
        case '#': case ',': case ';': case '(': case ')': case '[': case ']':
        case '{': case '}': case '"': case '\'':
            return true;
        default:
            break;
        }
    }
    return false;
}

// In the first field a leading quote is escaped too: the kind letter (such as
// "f" or "u") stands right before it and would read as a string prefix.
bool CanStandAsIs(std::string_view text, bool first_field) {
    if (text.empty() || text[0] == kFieldEscape || (first_field && IsQuote(text[0])))
        return false;
    // Most fields (names, dotted names) hold no bracket, quote, separator or
    // '#': they stand as they are without the walks below.
    if (!HasNestingOrSeparator(text))
        return true;
    return text.find('#') == std::string_view::npos && IsBalancedTextWithout(text, ",;");
}

int HexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// The message shows the start of the bytes with anything but printable ASCII
// escaped, so that it is valid text whatever the bytes hold.
std::invalid_argument NotOfKind(std::string_view single, const char *what) {
    static const char kHex[] = "0123456789abcdef";
    std::string message = "info bytes are not ";
    message.append(what).append(": ");
    for (char c : single.substr(0, 80)) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f)
            message.append(1, c);
        else
            message.append("\\x").append(1, kHex[byte >> 4]).append(1, kHex[byte & 15]);
    }
    return std::invalid_argument(message);
}

std::string RequireText(const OptText &field, std::string_view single, const char *what) {
    if (!field)
        throw NotOfKind(single, what);
    return *field;
}

long long ParseInteger(std::string_view digits, std::string_view single, const char *what) {
    auto value = ParseLogicalIndex(digits);
    if (!value)
        throw NotOfKind(single, what);
    return *value;
}

const OptText &FieldAt(const UnpackedFields &unpacked, std::size_t i) {
    static const OptText kNoText;
    return i < unpacked.fields.size() ? unpacked.fields[i] : kNoText;
}

std::vector<std::string> TextsFrom(const UnpackedFields &unpacked, std::size_t first) {
    std::vector<std::string> texts;
    for (std::size_t i = first; i < unpacked.fields.size(); ++i)
        texts.push_back(unpacked.fields[i].value_or(std::string()));
    return texts;
}

// Cut a leading conditional or scope mark off, or give no value.
std::optional<std::string_view> UnwrapOnce(std::string_view single) {
    Kind kind = GetInfoBytesKind(single);
    if (kind == kConditionalKind)
        return UnpackConditionalInfo(single).second;
    if (IsScopeMarkKind(kind))
        return UnpackScopeMark(single)->rest;
    return std::nullopt;
}

// `text` encoded as a field, appended to `out`.  `first_field`: the field
// follows the kind letter directly.
void AppendField(std::string &out, OptView text, bool first_field) {
    if (!text)
        return;
    if (CanStandAsIs(*text, first_field)) {
        out.append(*text);
        return;
    }
    static const char kHex[] = "0123456789ABCDEF";
    out.append(1, kFieldEscape);
    for (char c : *text) {
        if (NeedsEscape(c)) {
            auto byte = static_cast<unsigned char>(c);
            out.append(1, kFieldEscape).append(1, kHex[byte >> 4]).append(1, kHex[byte & 15]);
        } else {
            out.append(1, c);
        }
    }
}

}  // namespace

OptText DecodeField(std::string_view field) {
    if (field.empty())
        return std::nullopt;
    if (field[0] != kFieldEscape)
        return std::string(field);
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 1; i < field.size(); ++i) {
        if (field[i] != kFieldEscape) {
            out.append(1, field[i]);
            continue;
        }
        int high = i + 2 < field.size() ? HexValue(field[i + 1]) : -1;
        int low = high >= 0 ? HexValue(field[i + 2]) : -1;
        if (low < 0)
            throw std::invalid_argument("malformed escape in info field");
        out.append(1, static_cast<char>(high * 16 + low));
        i += 2;
    }
    return out;
}

std::string PackFields(std::string_view prefix, const std::vector<OptView> &fields) {
    std::size_t size = prefix.size() + fields.size();
    for (const OptView &field : fields)
        size += field ? field->size() : 0;
    std::string out;
    out.reserve(size);  // room for every field that stands as it is
    out.append(prefix);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i)
            out.append(1, kFieldSep);
        AppendField(out, fields[i], i == 0);
    }
    return out;
}

std::string PackWrapping(std::string_view prefix, const std::vector<OptView> &fields,
                         std::string_view wrapped) {
    std::string out = PackFields(prefix, fields);
    if (!fields.empty())
        out.append(1, kFieldSep);
    out.append(wrapped);
    return out;
}

UnpackedFields UnpackFields(std::string_view single, std::ptrdiff_t wrapped_after) {
    UnpackedFields unpacked;
    std::string_view payload =
        single.size() >= static_cast<std::size_t>(kPrefixLen) ? single.substr(kPrefixLen) : "";
    if (wrapped_after == 0) {
        unpacked.rest = payload;
        return unpacked;
    }
    if (payload.empty() && wrapped_after < 0)
        return unpacked;
    std::vector<std::string_view> parts =
        NonNestedSplit(payload, std::string_view(&kFieldSep, 1), wrapped_after);
    if (wrapped_after > 0) {
        if (static_cast<std::ptrdiff_t>(parts.size()) <= wrapped_after)
            throw NotOfKind(single, "a wrapping single");
        unpacked.rest = parts.back();
        parts.pop_back();
    }
    for (std::string_view part : parts)
        unpacked.fields.push_back(DecodeField(part));
    return unpacked;
}

std::string AppendLogicalIndexBytesSuffix(std::string_view istr, std::string_view logical_i_bytes) {
    std::string out(istr);
    if (logical_i_bytes.empty())
        return out;
    out.append(kLogicalIndexPrefix).append(logical_i_bytes);
    return out;
}

SuffixSplit SplitLogicalIndexSuffix(std::string_view istr) {
    std::size_t digits_start = istr.size();
    while (digits_start > 0 && istr[digits_start - 1] >= '0' && istr[digits_start - 1] <= '9')
        --digits_start;
    if (digits_start == istr.size())
        return {istr, std::nullopt};
    if (digits_start > 0 && istr[digits_start - 1] == '-')
        --digits_start;
    if (digits_start < static_cast<std::size_t>(kPrefixLen) ||
        istr.substr(digits_start - static_cast<std::size_t>(kPrefixLen), kPrefixLen) !=
            kLogicalIndexPrefix)
        return {istr, std::nullopt};
    const auto mark = static_cast<std::ptrdiff_t>(digits_start) - kPrefixLen;
    // Only a mark at nesting level zero is a suffix; inside a string or a
    // bracket the same bytes are text.
    // A plain expression has no prefix of its own to step over.
    const std::ptrdiff_t start = GetInfoBytesKind(istr) == kPlainEquivKind ? 0 : kPrefixLen;
    CNestLevelSearch search(istr, kLogicalIndexPrefix, start);
    std::ptrdiff_t at = search.FindNext();
    while (at >= 0 && at < mark)
        at = search.FindNext();
    if (at != mark)
        return {istr, std::nullopt};
    auto index = ParseLogicalIndex(istr.substr(digits_start));
    if (!index)
        return {istr, std::nullopt};
    return {istr.substr(0, static_cast<std::size_t>(mark)), index};
}

std::optional<long long> ParseLogicalIndex(std::string_view digits) {
    if (digits.empty())
        return std::nullopt;
    long long value = 0;
    auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (result.ec != std::errc() || result.ptr != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

std::string BuildDefInfoStr(std::string_view prefix, std::string_view full_name,
                            OptView type_params, OptView arg_decl, OptView return_text,
                            const std::vector<std::string_view> &decorators) {
    if (!IsDefKind(GetInfoBytesKind(prefix)) || prefix.size() != static_cast<std::size_t>(kPrefixLen))
        throw std::invalid_argument("a def single needs a function or method prefix");
    std::vector<OptView> fields{full_name, type_params, arg_decl, return_text};
    fields.insert(fields.end(), decorators.begin(), decorators.end());
    return PackFields(prefix, fields);
}

std::string PackClassInfo(std::string_view full_name, OptView type_params, OptView arg_decl,
                          const std::vector<std::string_view> &decorators) {
    std::vector<OptView> fields{full_name, type_params, arg_decl};
    fields.insert(fields.end(), decorators.begin(), decorators.end());
    return PackFields(kClassPrefix, fields);
}

// The argument text goes in parentheses: its commas are then nested, and
// the field stays readable.
std::string PackCalled(std::string_view suffix, std::string_view arg_text) {
    std::string call;
    call.reserve(arg_text.size() + 2);
    call.append(1, '(').append(arg_text).append(1, ')');
    return PackFields(kCalledPrefix, {suffix, call});
}

std::string BuildArgInfo(long long arg_i, OptView name) {
    std::string index = std::to_string(arg_i);
    if (!name)
        return PackFields(kArgPrefix, {index});
    return PackFields(kArgPrefix, {index, name});
}

std::string BuildDecoratorInfo(long long i, std::string_view dotted_name) {
    return PackFields(kDecoratorPrefix, {std::to_string(i), dotted_name});
}

std::string BuildLiteralInfo(std::string_view class_name, OptView value) {
    if (!value)
        return PackFields(kTypedLiteralPrefix, {class_name});
    return PackFields(kTypedLiteralPrefix, {class_name, value});
}

std::string BuildConditionalInfo(std::string_view condition, std::string_view info) {
    return PackWrapping(kConditionalPrefix, {condition}, info);
}

std::string BuildTypeParameterInfo(std::string_view name, std::string_view param_kind,
                                   OptView bound, OptView default_text) {
    return PackFields(kTypeParameterPrefix, {name, param_kind, bound, default_text});
}

std::string BuildFieldsInfo(Kind kind, const std::vector<OptView> &fields) {
    const char prefix[] = {kPrefixLead, kind};
    return PackFields(std::string_view(prefix, 2), fields);
}

std::string EncodeStringLiteral(std::string_view text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out(1, '"');
    for (char c : text) {
        switch (c) {
        case '\\': out.append("\\\\"); break;
        case '"': out.append("\\\""); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                auto byte = static_cast<unsigned char>(c);
                out.append("\\x").append(1, kHex[byte >> 4]).append(1, kHex[byte & 15]);
            } else {
                out.append(1, c);
            }
        }
    }
    out.append(1, '"');
    return out;
}

std::string DefInfo::Signature() const {
    std::string signature = arg_decl.value_or(std::string());
    if (return_hint)
        signature.append(" -> ").append(*return_hint);
    return signature;
}

std::string_view BareSingle(std::string_view single) {
    std::string_view current = single;
    while (auto inner = UnwrapOnce(current))
        current = *inner;
    return SplitLogicalIndexSuffix(current).single;
}

DefInfo UnpackDefInfo(std::string_view single) {
    std::string_view bare = BareSingle(single);
    Kind kind = GetInfoBytesKind(bare);
    if (!IsDefKind(kind))
        throw NotOfKind(single, "a function or method");
    UnpackedFields unpacked = UnpackFields(bare);
    DefInfo info;
    info.kind = kind;
    info.scope_name = RequireText(FieldAt(unpacked, 0), single, "a function or method");
    info.type_params = FieldAt(unpacked, 1);
    info.arg_decl = FieldAt(unpacked, 2);
    info.return_hint = FieldAt(unpacked, 3);
    info.decorators = TextsFrom(unpacked, 4);
    return info;
}

ClassInfo UnpackClassInfo(std::string_view single) {
    std::string_view bare = BareSingle(single);
    Kind kind = GetInfoBytesKind(bare);
    if (kind != kClassKind && !(kind == kInstanceKind && bare.size() > static_cast<std::size_t>(kPrefixLen)))
        throw NotOfKind(single, "a class");
    UnpackedFields unpacked = UnpackFields(bare);
    ClassInfo info;
    info.full_name = RequireText(FieldAt(unpacked, 0), single, "a class");
    info.type_params = FieldAt(unpacked, 1);
    info.arg_decl = FieldAt(unpacked, 2);
    info.decorators = TextsFrom(unpacked, 3);
    return info;
}

std::pair<std::string, std::string> UnpackCalled(std::string_view single) {
    std::string_view bare = BareSingle(single);
    if (GetInfoBytesKind(bare) != kCalledKind)
        throw NotOfKind(single, "a call");
    UnpackedFields unpacked = UnpackFields(bare);
    std::string call = FieldAt(unpacked, 1).value_or(std::string());
    if (call.size() < 2 || call.front() != '(' || call.back() != ')')
        throw NotOfKind(single, "a call");
    return {FieldAt(unpacked, 0).value_or(std::string()), call.substr(1, call.size() - 2)};
}

std::optional<ArgInfo> UnpackArgInfo(std::string_view single) {
    if (GetInfoBytesKind(single) != kArgKind)
        return std::nullopt;
    UnpackedFields unpacked = UnpackFields(single);
    const OptText &index = FieldAt(unpacked, 0);
    if (!index || unpacked.fields.size() > 2)
        return std::nullopt;
    auto value = ParseLogicalIndex(*index);
    if (!value)
        return std::nullopt;
    return ArgInfo{*value, FieldAt(unpacked, 1)};
}

bool IsIndexedArgName(std::string_view name) { return UnpackArgInfo(name).has_value(); }

std::pair<long long, std::string> UnpackDecoratorInfo(std::string_view single) {
    std::string_view bare = BareSingle(single);
    if (GetInfoBytesKind(bare) != kDecoratorKind)
        throw NotOfKind(single, "a decorator");
    UnpackedFields unpacked = UnpackFields(bare);
    std::string index = RequireText(FieldAt(unpacked, 0), single, "a decorator");
    return {ParseInteger(index, single, "a decorator"), FieldAt(unpacked, 1).value_or(std::string())};
}

LiteralInfo UnpackLiteralInfo(std::string_view single) {
    std::string_view bare = BareSingle(single);
    if (GetInfoBytesKind(bare) != kTypedLiteralKind)
        throw NotOfKind(single, "a literal");
    UnpackedFields unpacked = UnpackFields(bare);
    return {RequireText(FieldAt(unpacked, 0), single, "a literal"), FieldAt(unpacked, 1)};
}

std::pair<std::string, std::string_view> UnpackConditionalInfo(std::string_view single) {
    if (GetInfoBytesKind(single) != kConditionalKind)
        throw NotOfKind(single, "a conditional");
    UnpackedFields unpacked = UnpackFields(single, 1);
    return {FieldAt(unpacked, 0).value_or(std::string()), unpacked.rest};
}

std::string UnpackTypeHint(std::string_view single) {
    std::string_view bare = BareSingle(single);
    Kind kind = GetInfoBytesKind(bare);
    if (kind != kTypeHintKind && kind != kInferredTypeHintKind)
        throw NotOfKind(single, "a type hint");
    return std::string(bare.substr(kPrefixLen));
}

std::vector<DeclTypeParam> ParseDeclTypeParams(std::string_view type_params) {
    std::string_view inner = StripSpaces(type_params);
    if (inner.size() >= 2 && inner.front() == '[' && inner.back() == ']')
        inner = inner.substr(1, inner.size() - 2);
    std::vector<DeclTypeParam> params;
    for (std::string_view decl : SplitArguments(inner)) {
        DeclTypeParam param;
        param.param_kind = "TypeVar";
        if (decl.starts_with("**")) {
            param.param_kind = "ParamSpec";
            decl = StripSpaces(decl.substr(2));
        } else if (decl.starts_with("*")) {
            param.param_kind = "TypeVarTuple";
            decl = StripSpaces(decl.substr(1));
        }
        std::ptrdiff_t equals = NonNestedFind(decl, "=");
        if (equals >= 0) {
            param.default_text = std::string(StripSpaces(decl.substr(static_cast<std::size_t>(equals) + 1)));
            decl = decl.substr(0, static_cast<std::size_t>(equals));
        }
        std::ptrdiff_t colon = NonNestedFind(decl, ":");
        if (colon >= 0) {
            param.bound = std::string(StripSpaces(decl.substr(static_cast<std::size_t>(colon) + 1)));
            decl = decl.substr(0, static_cast<std::size_t>(colon));
        }
        param.name = std::string(StripSpaces(decl));
        params.push_back(std::move(param));
    }
    return params;
}

std::vector<std::string> SplitDeclArguments(OptView arg_decl) {
    std::vector<std::string> args;
    if (!arg_decl)
        return args;
    std::string_view inner = StripSpaces(*arg_decl);
    if (!inner.empty() && inner.front() == '(' && MatchingBracket(inner, 0) ==
                                                      static_cast<std::ptrdiff_t>(inner.size()) - 1)
        inner = inner.substr(1, inner.size() - 2);
    for (std::string_view arg : SplitArguments(inner))
        args.emplace_back(arg);
    return args;
}

std::vector<DeclParam> DeclParameters(OptView arg_decl) {
    std::vector<DeclParam> params;
    bool keyword_only = false;
    for (const std::string &arg : SplitDeclArguments(arg_decl)) {
        std::string_view text = StripSpaces(arg);
        if (text == "/") {
            for (DeclParam &param : params)
                param.positional_only = true;
            continue;
        }
        keyword_only = keyword_only || text == "*";
        if (text.empty() || text == "*")
            continue;
        DeclParam param;
        param.keyword_only = keyword_only;
        while (param.stars < 2 && text.substr(0, 1) == "*") {
            ++param.stars;
            text.remove_prefix(1);
        }
        std::ptrdiff_t colon = NonNestedFind(text, ":");
        std::ptrdiff_t equals = NonNestedFind(text, "=");
        param.hinted = colon >= 0 && (equals < 0 || colon < equals);
        std::ptrdiff_t end = param.hinted ? colon : equals;
        param.name = std::string(StripSpaces(end >= 0 ? text.substr(0, (std::size_t) end) : text));
        keyword_only = keyword_only || param.stars == 1;
        params.push_back(std::move(param));
    }
    return params;
}

DeclTypeParam UnpackTypeParameterInfo(std::string_view single) {
    std::string_view bare = BareSingle(single);
    if (GetInfoBytesKind(bare) != kTypeParameterKind)
        throw NotOfKind(single, "a type parameter");
    UnpackedFields unpacked = UnpackFields(bare);
    return {RequireText(FieldAt(unpacked, 0), single, "a type parameter"),
            FieldAt(unpacked, 1).value_or("TypeVar"), FieldAt(unpacked, 2), FieldAt(unpacked, 3)};
}

std::optional<ScopeMark> UnpackScopeMark(std::string_view single) {
    Kind kind = GetInfoBytesKind(single);
    if (!IsScopeMarkKind(kind))
        return std::nullopt;
    if (kind == kBuiltinModuleKind || kind == kTypingModuleKind)
        return ScopeMark{kind, std::nullopt, single.substr(kPrefixLen)};
    UnpackedFields unpacked = UnpackFields(single, 1);
    return ScopeMark{kind, FieldAt(unpacked, 0), unpacked.rest};
}

std::pair<std::string_view, std::string_view> PopLeadingPrefixes(std::string_view ibytes) {
    std::string_view rest = ibytes;
    while (auto mark = UnpackScopeMark(rest))
        rest = mark->rest;
    return {ibytes.substr(0, ibytes.size() - rest.size()), rest};
}

std::string PrefixWithUrlAndScope(std::string_view info, OptView url, OptView scope_name) {
    Kind kind = GetInfoBytesKind(info);
    const bool names_file =
        kind == kSpecificUrlKind || kind == kBuiltinModuleKind || kind == kTypingModuleKind;
    const bool names_scope = kind == kSpecificScopeKind || kind == kDefLineScopeKind;
    if (names_file || (!url && (!scope_name || names_scope)))
        return std::string(info);
    std::string_view body = info;
    std::string scoped;
    if (scope_name && !names_scope) {
        scoped = PackWrapping(kSpecificScopePrefix, {*scope_name}, info);
        body = scoped;
    }
    if (!url)
        return std::string(body);
    return PackWrapping(kSpecificUrlPrefix, {*url}, body);
}

std::string JoinInfoBytes(std::string_view a, std::string_view b) {
    if (a.empty())
        return std::string(b);
    if (b.empty())
        return std::string(a);
    std::string out;
    out.reserve(a.size() + 1 + b.size());
    out.append(a).append(1, ';').append(b);
    return out;
}

std::optional<std::string> ScopeNameDefinedByInfo(std::string_view ibytes) {
    std::string_view single = ibytes;
    while (GetInfoBytesKind(single) == kConditionalKind)
        single = UnpackConditionalInfo(single).second;
    Kind kind = GetInfoBytesKind(single);
    if (IsDefKind(kind))
        return UnpackDefInfo(single).scope_name;
    if (kind == kClassKind)
        return UnpackClassInfo(single).full_name;
    return std::nullopt;
}

bool InfoDefinesScope(std::string_view ibytes) {
    for (std::string_view single : NonNestedSplit(ibytes, ";"))
        if (ScopeNameDefinedByInfo(single))
            return true;
    return false;
}

}  // namespace pysource::symbolinfo

#include "pysource/exprtext.h"

#include "pysource/nesting.h"

#include "pysource/strutils.h"

namespace pysource::symbolinfo {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
// Bytes that can continue a name or number; non-ASCII bytes belong to names.
bool IsWordByte(char c) {
    return IsAsciiAlpha(c) || IsAsciiDigit(c) || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

std::size_t SkipSpaces(std::string_view text, std::size_t pos) {
    while (pos < text.size() && IsSpace(text[pos]))
        ++pos;
    return pos;
}

// End of the string literal (with prefix letters) starting at `pos`, or 0.
std::size_t StringAtomEnd(std::string_view text, std::size_t pos) {
    std::size_t quote = pos;
    while (quote < text.size() && quote - pos < 3 && IsAsciiAlpha(text[quote]))
        ++quote;
    if (quote >= text.size() || !IsQuote(text[quote]))
        return 0;
    bool terminated = false;
    std::ptrdiff_t end = StringLiteralEnd(text.data(), static_cast<std::ptrdiff_t>(quote),
                                          static_cast<std::ptrdiff_t>(text.size()), &terminated);
    return terminated ? static_cast<std::size_t>(end) : 0;
}

// End of the atom at `pos` (a name, number, string(s), bracket group or
// "..."), or 0 when there is none.
std::size_t AtomEnd(std::string_view text, std::size_t pos) {
    if (pos >= text.size())
        return 0;
    char c = text[pos];
    if (std::size_t end = StringAtomEnd(text, pos)) {
        // Adjacent literals form one atom.
        for (std::size_t next = SkipSpaces(text, end); next < text.size();
             next = SkipSpaces(text, end)) {
            std::size_t more = StringAtomEnd(text, next);
            if (!more)
                break;
            end = more;
        }
        return end;
    }
    if (IsOpeningBracket(c)) {
        std::ptrdiff_t close = MatchingBracket(text, static_cast<std::ptrdiff_t>(pos));
        return close < 0 ? 0 : static_cast<std::size_t>(close) + 1;
    }
    if (text.substr(pos, 3) == "...")
        return pos + 3;
    const bool number = IsAsciiDigit(c) || (c == '.' && pos + 1 < text.size() && IsAsciiDigit(text[pos + 1]));
    if (!number && !IsWordByte(c))
        return 0;
    std::size_t end = pos;
    bool seen_dot = false;
    while (end < text.size()) {
        char d = text[end];
        if (IsWordByte(d)) {
            ++end;
        } else if (number && d == '.' && !seen_dot) {
            seen_dot = true;
            ++end;
        } else if (number && (d == '+' || d == '-') && (text[end - 1] == 'e' || text[end - 1] == 'E')) {
            ++end;
        } else {
            break;
        }
    }
    return end;
}

bool IsOpenerToken(std::string_view tok) { return tok.size() == 1 && IsOpeningBracket(tok[0]); }
bool IsCloserToken(std::string_view tok) { return tok.size() == 1 && IsClosingBracket(tok[0]); }

bool NeedsSpaceBetween(std::string_view prev, std::string_view next) {
    if (prev.empty() || next.empty())
        return false;
    if (prev == ",")
        return true;
    static const std::string_view kSpacedOperators[] = {"==", "!=", ">=", "<=", "<", ">", "->",
                                                        "and", "or", "not", "in", "is"};
    for (std::string_view op : kSpacedOperators)
        if (prev == op || next == op)
            return true;
    const char last = prev.back();
    const char first = next.front();
    // A name followed by a quote would turn into a string prefix.
    return IsWordByte(last) && (IsWordByte(first) || IsQuote(first));
}

}  // namespace

std::string_view StripSpaces(std::string_view text) {
    std::size_t start = SkipSpaces(text, 0);
    std::size_t end = text.size();
    while (end > start && IsSpace(text[end - 1]))
        --end;
    return text.substr(start, end - start);
}

std::optional<std::vector<std::string>> SplitTrailers(std::string_view text) {
    text = StripSpaces(text);
    std::size_t base_end = AtomEnd(text, 0);
    if (base_end == 0)
        return std::nullopt;
    std::vector<std::string> parts{std::string(text.substr(0, base_end))};
    std::size_t pos = SkipSpaces(text, base_end);
    while (pos < text.size()) {
        char c = text[pos];
        std::size_t end = 0;
        if (c == '.') {
            std::size_t name = SkipSpaces(text, pos + 1);
            end = name;
            while (end < text.size() && IsWordByte(text[end]))
                ++end;
            if (end == name || IsAsciiDigit(text[name]))
                return std::nullopt;
            // "a . b" gives the part ".b": parts hold no inner spaces.
            parts.emplace_back(".").append(text.substr(name, end - name));
            pos = SkipSpaces(text, end);
            continue;
        } else if (c == '(' || c == '[') {
            std::ptrdiff_t close = MatchingBracket(text, static_cast<std::ptrdiff_t>(pos));
            if (close < 0)
                return std::nullopt;
            end = static_cast<std::size_t>(close) + 1;
        } else {
            return std::nullopt;
        }
        parts.emplace_back(text.substr(pos, end - pos));
        pos = SkipSpaces(text, end);
    }
    return parts;
}

namespace {

// Whether `part` holds a lambda whose parameters go on past it: the word
// `lambda` with no colon after it.
bool OpensLambdaParameters(std::string_view part) {
    std::size_t at = part.find("lambda");
    while (at != std::string_view::npos) {
        bool word = (at == 0 || !IsWordByte(part[at - 1])) &&
                    (at + 6 == part.size() || !IsWordByte(part[at + 6]));
        if (word && part.find(':', at + 6) == std::string_view::npos)
            return true;
        at = part.find("lambda", at + 6);
    }
    return false;
}

}  // namespace

std::vector<std::string_view> SplitArguments(std::string_view arg_text) {
    std::vector<std::string_view> args;
    if (StripSpaces(arg_text).empty())
        return args;
    // A lambda's own parameters (`lambda a, b: a`) stay in its argument.
    std::vector<std::string_view> parts = NonNestedSplit(arg_text, ",");
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const char *begin = parts[i].data();
        while (OpensLambdaParameters(parts[i]) && i + 1 < parts.size()) {
            ++i;
            parts[i] = std::string_view(begin, static_cast<std::size_t>(parts[i].data() + parts[i].size() - begin));
        }
        args.push_back(StripSpaces(parts[i]));
    }
    if (!args.empty() && args.back().empty())
        args.pop_back();
    return args;
}

bool IsAtomExpr(std::string_view text) { return SplitTrailers(text).has_value(); }

bool IsSingleNameToken(std::string_view text) {
    const auto end = static_cast<std::ptrdiff_t>(text.size());
    if (end == 0)
        return false;
    try {
        for (std::ptrdiff_t pos = 0; pos < end; pos = AdjustUtf8Pos(text.data(), pos, 1, end))
            if (!IsIdentifierCharAtUtf8Pos(text.data(), pos, end, pos == 0))
                return false;
    } catch (const std::exception &) {
        return false;  // malformed UTF-8 is no name
    }
    return true;
}

bool IsFloat(std::string_view text) {
    text = StripSpaces(text);
    std::size_t pos = 0;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-'))
        ++pos;
    auto digits = [&]() {
        std::size_t start = pos;
        while (pos < text.size() && (IsAsciiDigit(text[pos]) || (text[pos] == '_' && pos > start)))
            ++pos;
        return pos - start;
    };
    std::size_t mantissa = digits();
    bool point = false;
    if (pos < text.size() && text[pos] == '.') {
        point = true;
        ++pos;
        mantissa += digits();
    }
    if (mantissa == 0)
        return false;
    bool exponent = false;
    if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
        ++pos;
        if (pos < text.size() && (text[pos] == '+' || text[pos] == '-'))
            ++pos;
        if (digits() == 0)
            return false;
        exponent = true;
    }
    return pos == text.size() && (point || exponent);
}

std::string JoinTokens(const std::vector<std::string_view> &toks) {
    std::string out;
    std::string_view prev;
    for (std::string_view tok : toks) {
        if (NeedsSpaceBetween(prev, tok))
            out.append(1, ' ');
        out.append(tok);
        prev = tok;
    }
    return out;
}

std::ptrdiff_t FindNestingEnd(const std::vector<std::string_view> &toks, std::ptrdiff_t i) {
    const auto count = static_cast<std::ptrdiff_t>(toks.size());
    if (i < 0 || i >= count || !IsOpenerToken(toks[static_cast<std::size_t>(i)]))
        return -1;
    std::ptrdiff_t nesting = 0;
    for (std::ptrdiff_t j = i; j < count; ++j) {
        std::string_view tok = toks[static_cast<std::size_t>(j)];
        if (IsOpenerToken(tok))
            ++nesting;
        else if (IsCloserToken(tok) && --nesting == 0)
            return j;
    }
    return -1;
}

std::ptrdiff_t FindNonNestedTokenInList(const std::vector<std::string_view> &toks,
                                        std::ptrdiff_t start, std::string_view token) {
    std::ptrdiff_t nesting = 0;
    for (std::ptrdiff_t j = start < 0 ? 0 : start; j < static_cast<std::ptrdiff_t>(toks.size()); ++j) {
        std::string_view tok = toks[static_cast<std::size_t>(j)];
        if (nesting == 0 && tok == token)
            return j;
        if (IsOpenerToken(tok))
            ++nesting;
        else if (IsCloserToken(tok))
            --nesting;
    }
    return -1;
}

std::pair<std::optional<std::string_view>, std::optional<std::string_view>> SplitDefSignature(
    std::string_view signature) {
    signature = StripSpaces(signature);
    std::optional<std::string_view> args;
    std::string_view rest = signature;
    if (!signature.empty() && signature[0] == '(') {
        std::ptrdiff_t close = MatchingBracket(signature, 0);
        if (close > 0) {
            args = StripSpaces(signature.substr(1, static_cast<std::size_t>(close) - 1));
            rest = StripSpaces(signature.substr(static_cast<std::size_t>(close) + 1));
        }
    }
    std::optional<std::string_view> return_text;
    if (rest.starts_with("->"))
        return_text = StripSpaces(rest.substr(2));
    return {args, return_text};
}

}  // namespace pysource::symbolinfo

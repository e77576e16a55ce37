#include "pysource/pgeninspect/lexer.h"

#include <array>

namespace pysource::pgen {

namespace {

bool IsNameStart(unsigned char c) {
    return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80;
}

bool IsNameChar(unsigned char c) {
    return IsNameStart(c) || (c >= '0' && c <= '9');
}

bool IsDigit(unsigned char c) {
    return c >= '0' && c <= '9';
}

// Operators, longest first so that the first match is the longest.
constexpr std::array<std::string_view, 49> kOperators = {
    "**=", "//=", ">>=", "<<=", "...", "!=", "%=", "&=", "**", "*=", "+=", "-=", "->", "//",
    "/=", ":=", "<<", "<=", "<>", "==", ">=", ">>", "@=", "^=", "|=", "(", ")", "[", "]", "{",
    "}", ":", ",", ";", "+", "-", "*", "/", "|", "&", "<", ">", "=", ".", "%", "`", "~", "^",
    "@"};

// End of the string token starting at `pos` (at its prefix), or npos.
size_t StringEnd(std::string_view text, size_t pos) {
    int prefix = StringPrefixLength(text.substr(pos));
    if (prefix < 0)
        return std::string_view::npos;
    size_t i = pos + (size_t) prefix;
    char quote = text[i];
    bool triple = i + 2 < text.size() && text[i + 1] == quote && text[i + 2] == quote;
    size_t qlen = triple ? 3 : 1;
    i += qlen;
    while (i < text.size()) {
        char c = text[i];
        if (c == '\\') {
            i += 2;
            continue;
        }
        if (c == quote) {
            if (!triple)
                return i + 1;
            if (i + 2 < text.size() && text[i + 1] == quote && text[i + 2] == quote)
                return i + 3;
        } else if (c == '\n' && !triple) {
            return std::string_view::npos;
        }
        ++i;
    }
    return std::string_view::npos;
}

size_t NumberEnd(std::string_view text, size_t i) {
    bool based = text[i] == '0' && i + 1 < text.size() &&
                 std::string_view("xXoObB").find(text[i + 1]) != std::string_view::npos;
    while (i < text.size()) {
        unsigned char c = (unsigned char) text[i];
        if (IsNameChar(c) || c == '.') {
            // an exponent sign belongs to the number
            if ((c == 'e' || c == 'E') && i + 1 < text.size() &&
                (text[i + 1] == '+' || text[i + 1] == '-') && !based) {
                i += 2;
                continue;
            }
            ++i;
        } else {
            break;
        }
    }
    return i;
}

}  // namespace

int StringPrefixLength(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && i < 3) {
        char c = text[i];
        if (c == '\'' || c == '"')
            return (int) i;
        switch (c) {
        case 'r': case 'R': case 'b': case 'B': case 'u': case 'U': case 'f': case 'F':
        case 't': case 'T':
            ++i;
            break;
        default:
            return -1;
        }
    }
    return -1;
}

bool LexExpressionText(Tree &tree, std::string_view text, std::int32_t origin) {
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = (unsigned char) text[i];
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\\') {
            ++i;
            continue;
        }
        if (c == '#')
            break;
        size_t end;
        TokClass cls;
        if (IsNameStart(c)) {
            end = StringEnd(text, i);
            if (end != std::string_view::npos) {
                cls = TokClass::kString;
            } else if (StringPrefixLength(text.substr(i)) >= 0) {
                return false;  // a prefixed string that never ends
            } else {
                end = i;
                while (end < text.size() && IsNameChar((unsigned char) text[end]))
                    ++end;
                cls = TokClass::kName;
            }
        } else if (c == '\'' || c == '"') {
            end = StringEnd(text, i);
            if (end == std::string_view::npos)
                return false;
            cls = TokClass::kString;
        } else if (IsDigit(c) || (c == '.' && i + 1 < text.size() && IsDigit((unsigned char) text[i + 1]))) {
            end = NumberEnd(text, i);
            cls = TokClass::kNumber;
        } else {
            end = i;
            for (std::string_view op : kOperators) {
                if (text.substr(i, op.size()) == op) {
                    end = i + op.size();
                    break;
                }
            }
            if (end == i)
                return false;
            cls = TokClass::kOp;
        }
        tree.toks.push_back(Tok{text.substr(i, end - i), cls, origin});
        i = end;
    }
    return true;
}

}  // namespace pysource::pgen

#include "pysource/srctokenizer.h"

#include <string>
#include <unordered_map>

namespace pysource {

namespace {

// Nesting of f-string fields and strings inside them deeper than this is
// reported as an error token rather than followed (bounds the recursion).
constexpr int kMaxStringNesting = 200;

inline bool IsLineEndChar(char c) { return c == '\n' || c == '\r'; }
inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline bool IsHexDigit(char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
inline bool IsQuote(char c) { return c == '\'' || c == '"'; }

Py_ssize_t LineEndFrom(const char *t, Py_ssize_t i, Py_ssize_t end) {
    while (i < end && !IsLineEndChar(t[i]))
        i++;
    return i;
}

// Index behind a backslash escape starting at t[i] (the backslash); a
// backslash before CR LF takes both line-end bytes.
Py_ssize_t SkipEscape(const char *t, Py_ssize_t i, Py_ssize_t end) {
    if (i + 2 < end && t[i + 1] == '\r' && t[i + 2] == '\n')
        return i + 3;
    return i + 2 < end ? i + 2 : end;
}

bool IdentifierTest(std::uint32_t cp, bool start) {
    static std::unordered_map<std::uint32_t, std::uint8_t> cache;  // bit 0: start, bit 1: continue
    auto it = cache.find(cp);
    if (it == cache.end()) {
        std::uint8_t bits = 0;
        PyObject *s = PyUnicode_FromOrdinal((int) cp);
        if (s) {
            if (PyUnicode_IsIdentifier(s) == 1)
                bits |= 1;
            Py_DECREF(s);
        }
        PyObject *cont = PyUnicode_FromFormat("a%c", (int) cp);
        if (cont) {
            if (PyUnicode_IsIdentifier(cont) == 1)
                bits |= 2;
            Py_DECREF(cont);
        }
        if (PyErr_Occurred())
            PyErr_Clear();
        it = cache.emplace(cp, bits).first;
    }
    return (it->second & (start ? 1 : 2)) != 0;
}

// End of the name starting at pos, or pos when no name starts there.
Py_ssize_t ScanName(const char *t, Py_ssize_t end, Py_ssize_t pos) {
    Py_ssize_t i = pos;
    while (i < end) {
        unsigned char c = (unsigned char) t[i];
        if (c < 0x80) {
            if (i == pos ? !IsAsciiIdentStart(c) : !IsAsciiIdentChar(c))
                break;
            i++;
            continue;
        }
        int len = 1;
        std::uint32_t cp = DecodeUtf8At(t, i, end, &len);
        if (cp == 0xFFFD && len == 1)
            break;
        if (!IdentifierTest(cp, i == pos))
            break;
        i += len;
    }
    return i;
}

Py_ssize_t ScanDigits(const char *t, Py_ssize_t end, Py_ssize_t i) {
    while (i < end && (IsDigit(t[i]) || t[i] == '_'))
        i++;
    return i;
}

Py_ssize_t ScanNumber(const char *t, Py_ssize_t end, Py_ssize_t pos) {
    Py_ssize_t i = pos;
    if (t[i] == '0' && i + 1 < end) {
        char k = t[i + 1];
        if (k == 'x' || k == 'X') {
            i += 2;
            while (i < end && (IsHexDigit(t[i]) || t[i] == '_'))
                i++;
            if (i < end && (t[i] == 'l' || t[i] == 'L'))
                i++;
            return i;
        }
        if (k == 'o' || k == 'O' || k == 'b' || k == 'B') {
            i = ScanDigits(t, end, i + 2);
            if (i < end && (t[i] == 'l' || t[i] == 'L'))
                i++;
            return i;
        }
    }
    i = ScanDigits(t, end, i);
    if (i < end && t[i] == '.')
        i = ScanDigits(t, end, i + 1);
    if (i < end && (t[i] == 'e' || t[i] == 'E')) {
        Py_ssize_t j = i + 1;
        if (j < end && (t[j] == '+' || t[j] == '-'))
            j++;
        if (j < end && IsDigit(t[j]))
            i = ScanDigits(t, end, j);
    }
    if (i < end && (t[i] == 'j' || t[i] == 'J' || t[i] == 'l' || t[i] == 'L'))
        i++;
    return i;
}

// Type and length of the operator at pos; type 0 when there is none.
int ScanOperator(const char *t, Py_ssize_t end, Py_ssize_t pos, Py_ssize_t *len) {
    char c = t[pos];
    char c1 = pos + 1 < end ? t[pos + 1] : '\0';
    char c2 = pos + 2 < end ? t[pos + 2] : '\0';
    *len = 1;
    auto two = [&](int type) { *len = 2; return type; };
    auto three = [&](int type) { *len = 3; return type; };
    switch (c) {
    case '(': return kTokLPar;
    case ')': return kTokRPar;
    case '[': return kTokLSqb;
    case ']': return kTokRSqb;
    case '{': return kTokLBrace;
    case '}': return kTokRBrace;
    case ',': return kTokComma;
    case ';': return kTokSemi;
    case '~': return kTokTilde;
    case '`': return kTokBackQuote;
    case ':': return c1 == '=' ? two(kTokColonEqual) : kTokColon;
    case '+': return c1 == '=' ? two(kTokPlusEqual) : kTokPlus;
    case '-':
        if (c1 == '=') return two(kTokMinEqual);
        if (c1 == '>') return two(kTokRArrow);
        return kTokMinus;
    case '*':
        if (c1 == '*') return c2 == '=' ? three(kTokDoubleStarEqual) : two(kTokDoubleStar);
        return c1 == '=' ? two(kTokStarEqual) : kTokStar;
    case '/':
        if (c1 == '/') return c2 == '=' ? three(kTokDoubleSlashEqual) : two(kTokDoubleSlash);
        return c1 == '=' ? two(kTokSlashEqual) : kTokSlash;
    case '|': return c1 == '=' ? two(kTokVBarEqual) : kTokVBar;
    case '&': return c1 == '=' ? two(kTokAmperEqual) : kTokAmper;
    case '^': return c1 == '=' ? two(kTokCircumflexEqual) : kTokCircumflex;
    case '%': return c1 == '=' ? two(kTokPercentEqual) : kTokPercent;
    case '@': return c1 == '=' ? two(kTokAtEqual) : kTokAt;
    case '=': return c1 == '=' ? two(kTokEqEqual) : kTokEqual;
    case '!': return c1 == '=' ? two(kTokNotEqual) : 0;
    case '<':
        if (c1 == '<') return c2 == '=' ? three(kTokLeftShiftEqual) : two(kTokLeftShift);
        if (c1 == '=') return two(kTokLessEqual);
        if (c1 == '>') return two(kTokNotEqual);
        return kTokLess;
    case '>':
        if (c1 == '>') return c2 == '=' ? three(kTokRightShiftEqual) : two(kTokRightShift);
        return c1 == '=' ? two(kTokGreaterEqual) : kTokGreater;
    case '.':
        return (c1 == '.' && c2 == '.') ? three(kTokEllipsis) : kTokDot;
    default: return 0;
    }
}

// ---- strings ---------------------------------------------------------------

struct StringContext {
    const char *t;
    Py_ssize_t end;
};

Py_ssize_t ScanString(const StringContext &cx, Py_ssize_t q, const StringPrefix &prefix,
                      int nesting, bool *error);
Py_ssize_t ScanFField(const StringContext &cx, Py_ssize_t i, char quote, bool triple,
                      bool raw, int nesting, bool *error);

// True when a closing quote run of the string starts at t[i].
inline bool ClosesAt(const StringContext &cx, Py_ssize_t i, char quote, bool triple) {
    if (cx.t[i] != quote)
        return false;
    return !triple || (i + 2 < cx.end && cx.t[i + 1] == quote && cx.t[i + 2] == quote);
}

// The format specifier of an f-string field, from behind its ":" to behind the
// "}" that ends the field.
Py_ssize_t ScanFormatSpec(const StringContext &cx, Py_ssize_t i, char quote, bool triple,
                          bool raw, int nesting, bool *error) {
    const char *t = cx.t;
    while (i < cx.end) {
        char c = t[i];
        if (c == '{') {
            i = ScanFField(cx, i + 1, quote, triple, raw, nesting + 1, error);
            if (*error)
                return i;
            continue;
        }
        if (c == '}')
            return i + 1;
        if (ClosesAt(cx, i, quote, triple) || (!triple && IsLineEndChar(c))) {
            *error = true;
            return LineEndFrom(t, i, cx.end);
        }
        if (c == '\\' && !raw) {
            i = SkipEscape(t, i, cx.end);
            continue;
        }
        i++;
    }
    *error = true;
    return cx.end;
}

// A replacement field of an f-string, from behind its "{" to behind its "}".
Py_ssize_t ScanFField(const StringContext &cx, Py_ssize_t i, char quote, bool triple,
                      bool raw, int nesting, bool *error) {
    const char *t = cx.t;
    if (nesting > kMaxStringNesting) {
        *error = true;
        return LineEndFrom(t, i, cx.end);
    }
    int depth = 0;
    while (i < cx.end) {
        unsigned char c = (unsigned char) t[i];
        if (IsQuote((char) c)) {
            i = ScanString(cx, i, StringPrefix{true, false, false, false}, nesting + 1, error);
            if (*error)
                return i;
            continue;
        }
        if (IsAsciiIdentStart(c) || c >= 0x80) {
            Py_ssize_t name_end = ScanName(t, cx.end, i);
            if (name_end == i) {  // a character that can't start a name: pass over it
                i++;
                continue;
            }
            if (name_end < cx.end && IsQuote(t[name_end])) {
                StringPrefix prefix =
                    ParseStringPrefix(std::string_view(t + i, (size_t) (name_end - i)));
                if (prefix.valid) {
                    i = ScanString(cx, name_end, prefix, nesting + 1, error);
                    if (*error)
                        return i;
                    continue;
                }
            }
            i = name_end;
            continue;
        }
        switch (c) {
        case '(': case '[': case '{':
            depth++;
            i++;
            continue;
        case ')': case ']':
            if (depth > 0)
                depth--;
            i++;
            continue;
        case '}':
            if (depth == 0)
                return i + 1;
            depth--;
            i++;
            continue;
        case '#':
            i = LineEndFrom(t, i, cx.end);
            continue;
        case '\\':
            i = SkipEscape(t, i, cx.end);
            continue;
        case '\n': case '\r':
            if (!triple && depth == 0) {
                *error = true;
                return i;
            }
            i++;
            continue;
        case '!':  // "!=" or a conversion ("!r")
            i += (i + 1 < cx.end && t[i + 1] == '=') ? 2 : 1;
            continue;
        case ':':
            if (depth == 0)
                return ScanFormatSpec(cx, i + 1, quote, triple, raw, nesting, error);
            i++;
            continue;
        default:
            i++;
        }
    }
    *error = true;
    return cx.end;
}

Py_ssize_t ScanString(const StringContext &cx, Py_ssize_t q, const StringPrefix &prefix,
                      int nesting, bool *error) {
    const char *t = cx.t;
    char quote = t[q];
    bool triple = q + 2 < cx.end && t[q + 1] == quote && t[q + 2] == quote;
    Py_ssize_t i = q + (triple ? 3 : 1);
    if (nesting > kMaxStringNesting) {
        *error = true;
        return LineEndFrom(t, i, cx.end);
    }
    while (i < cx.end) {
        char c = t[i];
        if (c == '\\') {
            // In an f-string a backslash never hides the brace of a field, and
            // "\N{...}" is a named escape, not a field.
            if (prefix.format && i + 1 < cx.end && (t[i + 1] == '{' || t[i + 1] == '}')) {
                i++;
                continue;
            }
            if (prefix.format && !prefix.raw && i + 2 < cx.end && t[i + 1] == 'N' &&
                t[i + 2] == '{') {
                Py_ssize_t j = i + 3;
                while (j < cx.end && t[j] != '}' && t[j] != quote && !IsLineEndChar(t[j]))
                    j++;
                i = (j < cx.end && t[j] == '}') ? j + 1 : j;
                continue;
            }
            i = SkipEscape(t, i, cx.end);
            continue;
        }
        if (c == quote) {
            if (!triple)
                return i + 1;
            if (i + 2 < cx.end && t[i + 1] == quote && t[i + 2] == quote)
                return i + 3;
            i++;
            continue;
        }
        if (!triple && IsLineEndChar(c)) {
            *error = true;
            return i;
        }
        if (prefix.format && c == '{') {
            if (i + 1 < cx.end && t[i + 1] == '{') {
                i += 2;
                continue;
            }
            i = ScanFField(cx, i + 1, quote, triple, prefix.raw, nesting + 1, error);
            if (*error)
                return i;
            continue;
        }
        i++;
    }
    *error = true;
    return cx.end;
}

// The type of the token at pos (pos < end) and the index behind it.  Line ends
// come back as kTokNL; white space isn't skipped.
int ScanTokenAt(const char *t, Py_ssize_t end, Py_ssize_t pos, Py_ssize_t *tok_end) {
    unsigned char c = (unsigned char) t[pos];
    if (c == '\n' || c == '\r') {
        *tok_end = pos + ((c == '\r' && pos + 1 < end && t[pos + 1] == '\n') ? 2 : 1);
        return kTokNL;
    }
    if (c == '#') {
        *tok_end = LineEndFrom(t, pos, end);
        return kTokComment;
    }
    if (IsAsciiIdentStart(c) || c >= 0x80) {
        Py_ssize_t name_end = ScanName(t, end, pos);
        if (name_end == pos) {  // not an identifier character: one stray code point
            int len = 1;
            DecodeUtf8At(t, pos, end, &len);
            *tok_end = pos + len;
            return kTokError;
        }
        if (name_end < end && IsQuote(t[name_end]) && name_end - pos <= 3) {
            StringPrefix prefix =
                ParseStringPrefix(std::string_view(t + pos, (size_t) (name_end - pos)));
            if (prefix.valid) {
                bool error = false;
                *tok_end = ScanString(StringContext{t, end}, name_end, prefix, 0, &error);
                return error ? kTokError : kTokString;
            }
        }
        *tok_end = name_end;
        return kTokName;
    }
    if (IsDigit((char) c) || (c == '.' && pos + 1 < end && IsDigit(t[pos + 1]))) {
        *tok_end = ScanNumber(t, end, pos);
        return kTokNumber;
    }
    if (IsQuote((char) c)) {
        bool error = false;
        *tok_end = ScanString(StringContext{t, end}, pos, StringPrefix{true, false, false, false},
                              0, &error);
        return error ? kTokError : kTokString;
    }
    Py_ssize_t len = 1;
    int type = ScanOperator(t, end, pos, &len);
    *tok_end = pos + len;
    return type ? type : kTokError;
}

}  // namespace

// ---- public helpers ------------------------------------------------------------

std::string_view TokenIdText(int type) {
    switch (type) {
    case kTokLPar: return "(";
    case kTokRPar: return ")";
    case kTokLSqb: return "[";
    case kTokRSqb: return "]";
    case kTokColon: return ":";
    case kTokComma: return ",";
    case kTokSemi: return ";";
    case kTokPlus: return "+";
    case kTokMinus: return "-";
    case kTokStar: return "*";
    case kTokSlash: return "/";
    case kTokVBar: return "|";
    case kTokAmper: return "&";
    case kTokLess: return "<";
    case kTokGreater: return ">";
    case kTokEqual: return "=";
    case kTokDot: return ".";
    case kTokPercent: return "%";
    case kTokBackQuote: return "`";
    case kTokLBrace: return "{";
    case kTokRBrace: return "}";
    case kTokEqEqual: return "==";
    case kTokNotEqual: return "!=";
    case kTokLessEqual: return "<=";
    case kTokGreaterEqual: return ">=";
    case kTokTilde: return "~";
    case kTokCircumflex: return "^";
    case kTokLeftShift: return "<<";
    case kTokRightShift: return ">>";
    case kTokDoubleStar: return "**";
    case kTokPlusEqual: return "+=";
    case kTokMinEqual: return "-=";
    case kTokStarEqual: return "*=";
    case kTokSlashEqual: return "/=";
    case kTokPercentEqual: return "%=";
    case kTokAmperEqual: return "&=";
    case kTokVBarEqual: return "|=";
    case kTokCircumflexEqual: return "^=";
    case kTokLeftShiftEqual: return "<<=";
    case kTokRightShiftEqual: return ">>=";
    case kTokDoubleStarEqual: return "**=";
    case kTokDoubleSlash: return "//";
    case kTokDoubleSlashEqual: return "//=";
    case kTokAt: return "@";
    case kTokAtEqual: return "@=";
    case kTokRArrow: return "->";
    case kTokEllipsis: return "...";
    case kTokColonEqual: return ":=";
    default: return {};
    }
}

std::uint32_t DecodeUtf8At(const char *text, Py_ssize_t pos, Py_ssize_t end, int *len) {
    const unsigned char *s = (const unsigned char *) text + pos;
    Py_ssize_t avail = end - pos;
    unsigned char c = s[0];
    *len = 1;
    if (c < 0x80)
        return c;
    int need;
    std::uint32_t cp, min;
    if (c >= 0xC2 && c <= 0xDF) { need = 1; cp = c & 0x1F; min = 0x80; }
    else if (c >= 0xE0 && c <= 0xEF) { need = 2; cp = c & 0x0F; min = 0x800; }
    else if (c >= 0xF0 && c <= 0xF4) { need = 3; cp = c & 0x07; min = 0x10000; }
    else return 0xFFFD;
    if (avail <= need)
        return 0xFFFD;
    for (int k = 1; k <= need; k++) {
        if ((s[k] & 0xC0) != 0x80)
            return 0xFFFD;
        cp = (cp << 6) | (s[k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0xFFFD;
    *len = need + 1;
    return cp;
}

bool IsIdentifierStartCodePoint(std::uint32_t cp) {
    if (cp < 0x80)
        return IsAsciiIdentStart((unsigned char) cp);
    return IdentifierTest(cp, true);
}

bool IsIdentifierContinueCodePoint(std::uint32_t cp) {
    if (cp < 0x80)
        return IsAsciiIdentChar((unsigned char) cp);
    return IdentifierTest(cp, false);
}

StringPrefix ParseStringPrefix(std::string_view letters) {
    StringPrefix p;
    bool u = false;
    for (char ch : letters) {
        switch (ch) {
        case 'r': case 'R':
            if (p.raw) return {};
            p.raw = true;
            break;
        case 'b': case 'B':
            if (p.bytes || p.format || u) return {};
            p.bytes = true;
            break;
        case 'f': case 'F':
            if (p.bytes || p.format || u) return {};
            p.format = true;
            break;
        case 'u': case 'U':
            // "u" stands alone, apart from the old "ur" spelling.
            if (u || p.bytes || p.format || p.raw) return {};
            u = true;
            break;
        default:
            return {};
        }
    }
    p.valid = true;
    return p;
}

Py_ssize_t ScanStringBody(const char *text, Py_ssize_t quote_pos, Py_ssize_t end,
                          const StringPrefix &prefix, bool *error) {
    *error = false;
    if (quote_pos < 0 || quote_pos >= end || !IsQuote(text[quote_pos])) {
        *error = true;
        return quote_pos < end ? quote_pos : end;
    }
    return ScanString(StringContext{text, end}, quote_pos, prefix, 0, error);
}

Py_ssize_t FindStringLiteralEnd(const char *text, Py_ssize_t quote_pos, Py_ssize_t end,
                                bool *error) {
    Py_ssize_t start = quote_pos;
    while (start > 0 && quote_pos - start < 3 && IsAsciiIdentStart((unsigned char) text[start - 1]))
        start--;
    StringPrefix prefix{true, false, false, false};
    // The letters are a prefix only when they are a whole name of their own.
    bool whole = start == 0 || !(IsAsciiIdentChar((unsigned char) text[start - 1]) ||
                                 (unsigned char) text[start - 1] >= 0x80);
    if (start < quote_pos && whole) {
        StringPrefix found =
            ParseStringPrefix(std::string_view(text + start, (size_t) (quote_pos - start)));
        if (found.valid)
            prefix = found;
    }
    return ScanStringBody(text, quote_pos, end, prefix, error);
}

// ---- the scanner -----------------------------------------------------------------

CTokenScanner::CTokenScanner(const char *text, Py_ssize_t len) : fText(text), fEnd(len) {}

void CTokenScanner::AdvanceLines(Py_ssize_t from, Py_ssize_t to) {
    for (Py_ssize_t i = from; i < to; i++) {
        char c = fText[i];
        if (c == '\n' || (c == '\r' && !(i + 1 < fEnd && fText[i + 1] == '\n'))) {
            fLine++;
            fLineStart = i + 1;
        }
    }
}

bool CTokenScanner::Next(ScannedToken &tok) {
    if (fDone)
        return false;
    const char *t = fText;
    while (fPos < fEnd) {
        char c = t[fPos];
        if (c == ' ' || c == '\t' || c == '\f') {
            fPos++;
        } else if (c == '\\' && (fPos + 1 >= fEnd || IsLineEndChar(t[fPos + 1]))) {
            Py_ssize_t after = fPos + 1;
            if (after < fEnd)
                after += (t[after] == '\r' && after + 1 < fEnd && t[after + 1] == '\n') ? 2 : 1;
            AdvanceLines(fPos, after);
            fPos = after;
            fEndedInContinuation = fPos >= fEnd;
        } else {
            break;
        }
    }
    if (fPos >= fEnd) {
        if (!fLogicalHasTokens) {
            fDone = true;
            return false;
        }
        fLogicalHasTokens = false;
        tok.type = kTokNewline;
        tok.offset = fEnd;
        tok.length = 0;
        tok.line = tok.last_line = fLine;
        tok.col = fEnd - fLineStart;
        return true;
    }
    fEndedInContinuation = false;
    Py_ssize_t start = fPos;
    Py_ssize_t end = start;
    int type = ScanTokenAt(t, fEnd, start, &end);
    tok.offset = start;
    tok.length = end - start;
    tok.line = fLine;
    tok.col = start - fLineStart;
    if (type == kTokNL) {
        if (fDepth == 0 && fLogicalHasTokens) {
            type = kTokNewline;
            fLogicalHasTokens = false;
        }
        fLine++;
        fLineStart = end;
    } else if (type != kTokComment) {
        fLogicalHasTokens = true;
        if (type == kTokString || type == kTokError)
            AdvanceLines(start, end);
        else if (type == kTokLPar || type == kTokLSqb || type == kTokLBrace)
            fDepth++;
        else if ((type == kTokRPar || type == kTokRSqb || type == kTokRBrace) && fDepth > 0)
            fDepth--;
    }
    tok.type = type;
    tok.last_line = type == kTokNL || type == kTokNewline ? tok.line : fLine;
    fPos = end;
    return true;
}

int ScanOneToken(const char *text, Py_ssize_t len, Py_ssize_t pos, bool skip_space,
                 Py_ssize_t *tok_end) {
    if (skip_space) {
        while (pos < len) {
            char c = text[pos];
            if (c == ' ' || c == '\t' || c == '\f') {
                pos++;
            } else if (c == '\\' && pos + 1 < len && IsLineEndChar(text[pos + 1])) {
                pos += (text[pos + 1] == '\r' && pos + 2 < len && text[pos + 2] == '\n') ? 3 : 2;
            } else {
                break;
            }
        }
    }
    if (pos >= len) {
        *tok_end = pos;
        return kTokEndMarker;
    }
    return ScanTokenAt(text, len, pos, tok_end);
}

int ClassifyTokenText(std::string_view text) {
    if (text.empty())
        return kTokEndMarker;
    if (text.substr(0, kErrorTokenPrefix.size()) == kErrorTokenPrefix)
        return kTokError;
    Py_ssize_t end = 0;
    return ScanTokenAt(text.data(), (Py_ssize_t) text.size(), 0, &end);
}

// ---- CStringTokenizer ------------------------------------------------------------

CStringTokenizer::CStringTokenizer(std::string utf8)
    : fText(std::move(utf8)), fScanner(fText.data(), (Py_ssize_t) fText.size()) {
    Next();
}

void CStringTokenizer::Next() {
    if (fDone)
        return;
    ScannedToken tok;
    while (fScanner.Next(tok)) {
        if (tok.type == kTokNL || tok.type == kTokNewline)
            continue;
        fTokenID = tok.type;
        fTokenStart = tok.offset;
        fTokenEnd = tok.offset + tok.length;
        fLine = tok.line;
        fPriorNestingCount = fNestingCount;
        fNestingCount = NestingAfter(fNestingCount, TokenText());
        return;
    }
    fDone = true;
    fTokenID = kTokEndMarker;
    fTokenStart = fTokenEnd = (Py_ssize_t) fText.size();
    fPriorNestingCount = fNestingCount;
}

// ---- Python entry points -----------------------------------------------------------

std::string_view Utf8OfText(nb::handle text, const char *what) {
    if (PyUnicode_Check(text.ptr())) {
        Py_ssize_t size = 0;
        const char *data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
        if (!data)
            throw nb::python_error();
        return std::string_view(data, (size_t) size);
    }
    if (PyBytes_Check(text.ptr()))
        return std::string_view(PyBytes_AS_STRING(text.ptr()), (size_t) PyBytes_GET_SIZE(text.ptr()));
    throw nb::type_error((std::string(what) + " must be str or bytes, not " +
                          Py_TYPE(text.ptr())->tp_name).c_str());
}

const char *TokenIdName(int type) {
    static const char *const kNames[] = {
        "ENDMARKER", "NAME", "NUMBER", "STRING", "NEWLINE", "INDENT", "DEDENT", "LPAR", "RPAR",
        "LSQB", "RSQB", "COLON", "COMMA", "SEMI", "PLUS", "MINUS", "STAR", "SLASH", "VBAR",
        "AMPER", "LESS", "GREATER", "EQUAL", "DOT", "PERCENT", "BACKQUOTE", "LBRACE", "RBRACE",
        "EQEQUAL", "NOTEQUAL", "LESSEQUAL", "GREATEREQUAL", "TILDE", "CIRCUMFLEX", "LEFTSHIFT",
        "RIGHTSHIFT", "DOUBLESTAR", "PLUSEQUAL", "MINEQUAL", "STAREQUAL", "SLASHEQUAL",
        "PERCENTEQUAL", "AMPEREQUAL", "VBAREQUAL", "CIRCUMFLEXEQUAL", "LEFTSHIFTEQUAL",
        "RIGHTSHIFTEQUAL", "DOUBLESTAREQUAL", "DOUBLESLASH", "DOUBLESLASHEQUAL", "AT", "OP",
        "ERRORTOKEN", "ATEQUAL", "RARROW", "ELLIPSIS", "COLONEQUAL"};
    if (type >= 0 && type < (int) (sizeof(kNames) / sizeof(kNames[0])))
        return kNames[type];
    if (type == kTokNL)
        return "NL";
    if (type == kTokComment)
        return "COMMENT";
    return nullptr;
}

int GetTokenType(nb::handle tok, Py_ssize_t pos) {
    std::string_view text = Utf8OfText(tok, "token");
    if (pos < 0 || pos > (Py_ssize_t) text.size())
        throw nb::index_error("token position out of range");
    return ClassifyTokenText(text.substr((size_t) pos));
}

Py_ssize_t GetTokenEnd(nb::handle text, Py_ssize_t pos, bool skip_space) {
    std::string_view utf8 = Utf8OfText(text, "text");
    if (pos < 0 || pos > (Py_ssize_t) utf8.size())
        throw nb::index_error("text position out of range");
    Py_ssize_t end = pos;
    ScanOneToken(utf8.data(), (Py_ssize_t) utf8.size(), pos, skip_space, &end);
    return end;
}

Py_ssize_t UpdateNestingLevel(Py_ssize_t level, nb::handle tok) {
    return NestingAfter(level, Utf8OfText(tok, "token"));
}

nb::tuple FindStringLiteralEndOfText(nb::handle text, Py_ssize_t quote_pos) {
    std::string_view utf8 = Utf8OfText(text, "text");
    if (quote_pos < 0 || quote_pos >= (Py_ssize_t) utf8.size())
        throw nb::index_error("quote position out of range");
    bool error = false;
    Py_ssize_t end = FindStringLiteralEnd(utf8.data(), quote_pos, (Py_ssize_t) utf8.size(), &error);
    return nb::make_tuple(end, error);
}

nb::list TokenizeToList(nb::handle text) {
    std::string_view utf8 = Utf8OfText(text, "text");
    nb::list out;
    CTokenScanner scanner(utf8.data(), (Py_ssize_t) utf8.size());
    ScannedToken tok;
    while (scanner.Next(tok))
        out.append(nb::make_tuple(tok.type, tok.offset, tok.length, tok.line, tok.col));
    return out;
}

nb::dict TokenBytesById() {
    nb::dict table;
    for (int id = 0; id <= kMaxFixedTextTokenId; id++) {
        std::string_view text = TokenIdText(id);
        if (!text.empty())
            table[nb::int_(id)] = nb::bytes(text.data(), text.size());
    }
    return table;
}

}  // namespace pysource

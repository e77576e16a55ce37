// The Python tokenizer: token type numbers, the byte-level scanner that every
// other module builds on, and the small classifiers exposed to Python.
//
// The scanner works on UTF-8 bytes (a pointer and an explicit end) and never
// fails: whatever it cannot read becomes an error token.  It reads the source
// forms of Python 2.7 and 3.8 to 3.13: Unicode names, every number form, every
// string prefix (r, b, u, f in any case and valid combination, plus the old
// "ur"), triple quotes, f-strings with nested fields, nested strings of the same
// quote and nested format specs (an f-string is one string token), all
// operators including "<>", comments, backslash continuation, brackets spanning
// lines, tabs, form feeds and the three line-end styles.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace nb = nanobind;

namespace pysource {

// Token type numbers.  0 to 50 follow the historic numbering of Python's token
// module (with "{" at 26 and "@" at 50); forms added later take 53 and up;
// tokens that carry no grammar (line ends inside brackets, comments) take 200
// and up.  The table is also printed in the srctokenizer module docstring.
enum TokenId : int {
    kTokEndMarker = 0,
    kTokName = 1,
    kTokNumber = 2,
    kTokString = 3,
    kTokNewline = 4,  // end of a logical line
    kTokIndent = 5,   // reserved, the scanner doesn't produce indent tokens
    kTokDedent = 6,   // reserved
    kTokLPar = 7,
    kTokRPar = 8,
    kTokLSqb = 9,
    kTokRSqb = 10,
    kTokColon = 11,
    kTokComma = 12,
    kTokSemi = 13,
    kTokPlus = 14,
    kTokMinus = 15,
    kTokStar = 16,
    kTokSlash = 17,
    kTokVBar = 18,
    kTokAmper = 19,
    kTokLess = 20,
    kTokGreater = 21,
    kTokEqual = 22,
    kTokDot = 23,
    kTokPercent = 24,
    kTokBackQuote = 25,
    kTokLBrace = 26,
    kTokRBrace = 27,
    kTokEqEqual = 28,
    kTokNotEqual = 29,  // "!=" and "<>"
    kTokLessEqual = 30,
    kTokGreaterEqual = 31,
    kTokTilde = 32,
    kTokCircumflex = 33,
    kTokLeftShift = 34,
    kTokRightShift = 35,
    kTokDoubleStar = 36,
    kTokPlusEqual = 37,
    kTokMinEqual = 38,
    kTokStarEqual = 39,
    kTokSlashEqual = 40,
    kTokPercentEqual = 41,
    kTokAmperEqual = 42,
    kTokVBarEqual = 43,
    kTokCircumflexEqual = 44,
    kTokLeftShiftEqual = 45,
    kTokRightShiftEqual = 46,
    kTokDoubleStarEqual = 47,
    kTokDoubleSlash = 48,
    kTokDoubleSlashEqual = 49,
    kTokAt = 50,
    kTokOp = 51,     // reserved: generic operator
    kTokError = 52,  // unterminated string, stray character, lone backslash
    kTokAtEqual = 53,
    kTokRArrow = 54,
    kTokEllipsis = 55,
    kTokColonEqual = 56,
    kTokNL = 201,       // line end that doesn't end a logical line
    kTokComment = 202,
};

// Fixed text of an operator or delimiter token, or an empty view.
std::string_view TokenIdText(int type);
// Largest token id with a fixed text (for building tables).
constexpr int kMaxFixedTextTokenId = kTokColonEqual;
// The fixed texts of the token types as a dict of type -> bytes
// (kTokenBytesById).
nb::dict TokenBytesById();

// True for bytes of an identifier in the ASCII range.
inline bool IsAsciiIdentStart(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
inline bool IsAsciiIdentChar(unsigned char c) {
    return IsAsciiIdentStart(c) || (c >= '0' && c <= '9');
}

// Decodes one UTF-8 code point at text[pos] (pos < end).  Returns the code
// point and stores its byte length in *len; an invalid sequence gives
// 0xFFFD with a length of 1.
std::uint32_t DecodeUtf8At(const char *text, Py_ssize_t pos, Py_ssize_t end, int *len);

// Identifier classes of a non-ASCII code point (Python's rules).
bool IsIdentifierStartCodePoint(std::uint32_t cp);
bool IsIdentifierContinueCodePoint(std::uint32_t cp);

// What the letters ahead of a quote say about the string.
struct StringPrefix {
    bool valid = false;  // the letters form a string prefix
    bool raw = false;
    bool bytes = false;
    bool format = false;
};
StringPrefix ParseStringPrefix(std::string_view letters);

// The end of the string literal whose opening quote is at text[quote_pos]:
// the index just behind the closing quote.  The prefix letters right before
// the quote (if they form a prefix and aren't the tail of a longer name) tell
// raw strings and f-strings.  For an unterminated literal *error is set and
// the result is the end of the line (single quotes) or `end` (triple quotes).
Py_ssize_t FindStringLiteralEnd(const char *text, Py_ssize_t quote_pos, Py_ssize_t end,
                                bool *error);

// As FindStringLiteralEnd, with the prefix already known.
Py_ssize_t ScanStringBody(const char *text, Py_ssize_t quote_pos, Py_ssize_t end,
                          const StringPrefix &prefix, bool *error);

// One token of the scanner.
struct ScannedToken {
    int type = kTokEndMarker;
    Py_ssize_t offset = 0;     // byte offset of the first byte
    Py_ssize_t length = 0;     // byte length
    Py_ssize_t line = 1;       // 1-based line of the first byte
    Py_ssize_t last_line = 1;  // line of the last byte (tokens may span lines)
    Py_ssize_t col = 0;        // byte offset of the first byte from its line start
    Py_ssize_t LineStart() const { return offset - col; }
};

// Scans a text token by token.  Besides the tokens of the source it yields:
// kTokNewline at the end of a logical line (at its line end, or with length 0
// at the end of the text), kTokNL at other line ends (blank lines, comment
// lines, line ends inside brackets).  Backslash continuations and white space
// yield nothing.  Next() returns false once the text is exhausted.
class CTokenScanner {
public:
    CTokenScanner(const char *text, Py_ssize_t len);

    bool Next(ScannedToken &tok);

    // Bracket depth after the last token returned (never below 0).
    int Depth() const { return fDepth; }
    // True when the last kTokNewline was made up at the end of the text (the
    // text didn't end with a line end).
    bool AtEnd() const { return fPos >= fEnd; }
    // The last token ended the text inside a continuation (backslash at the end).
    bool EndedInContinuation() const { return fEndedInContinuation; }
    // Forget open brackets: the builder calls this when it cuts off a logical
    // that a missing closing bracket would otherwise run to the end of file.
    void ResetDepth() { fDepth = 0; }

private:
    void AdvanceLines(Py_ssize_t from, Py_ssize_t to);

    const char *fText;
    Py_ssize_t fEnd;
    Py_ssize_t fPos = 0;
    Py_ssize_t fLine = 1;
    Py_ssize_t fLineStart = 0;
    int fDepth = 0;
    bool fLogicalHasTokens = false;
    bool fDone = false;
    bool fEndedInContinuation = false;
};

// The token that starts at text[pos]: its type and the index behind it.
// With skip_space, white space (and continuations) ahead of pos are skipped
// first.  At the end of the text the type is kTokEndMarker and the end is pos.
int ScanOneToken(const char *text, Py_ssize_t len, Py_ssize_t pos, bool skip_space,
                 Py_ssize_t *tok_end);

// Token texts handed to Python for error tokens start with this prefix, so
// that a consumer of token texts never mistakes a broken string for a string.
constexpr std::string_view kErrorTokenPrefix = "<error>";

// Type of a token given by its text (an error token's text carries
// kErrorTokenPrefix).  Text that starts like a token but goes
// on past it is still typed by its start.
int ClassifyTokenText(std::string_view text);

// Bracket nesting level after a token with the given text.
inline Py_ssize_t NestingAfter(Py_ssize_t level, std::string_view tok) {
    if (tok.size() != 1)
        return level;
    switch (tok[0]) {
    case '(': case '[': case '{': return level + 1;
    case ')': case ']': case '}': return level - 1;
    default: return level;
    }
}

// ---- Python entry points (the functions of pysource.srctokenizer) ----

// UTF-8 bytes of a str or bytes object (borrowed from it); a type error names
// `what` otherwise.
std::string_view Utf8OfText(nb::handle text, const char *what);
// Name of a token type ("NAME", "LPAR", "COMMENT", ...) or nullptr.
const char *TokenIdName(int type);
// Type of the token starting at byte `pos` of `tok`.
int GetTokenType(nb::handle tok, Py_ssize_t pos);
// Byte index behind the token starting at byte `pos` of `text`; with
// `skip_space`, white space ahead of it is passed over first.
Py_ssize_t GetTokenEnd(nb::handle text, Py_ssize_t pos, bool skip_space);
// Bracket level after `tok`: +1 for an opening bracket, -1 for a closing one.
Py_ssize_t UpdateNestingLevel(Py_ssize_t level, nb::handle tok);
// FindStringLiteralEnd on a str or bytes: (end, error) in bytes.
nb::tuple FindStringLiteralEndOfText(nb::handle text, Py_ssize_t quote_pos);
// Every token of a text as (type, byte offset, byte length, line, byte column).
nb::list TokenizeToList(nb::handle text);

// Walks the tokens of one text, for callers that look at one token at a time
// (line ends are skipped; comments are tokens).  After construction it stands
// on the first token.
class CStringTokenizer {
public:
    explicit CStringTokenizer(std::string utf8);
    CStringTokenizer(const CStringTokenizer &) = delete;
    CStringTokenizer &operator=(const CStringTokenizer &) = delete;

    void Next();

    bool fDone = false;
    int fTokenID = kTokEndMarker;
    Py_ssize_t fPriorNestingCount = 0;  // bracket level ahead of the current token
    Py_ssize_t fNestingCount = 0;       // bracket level behind it
    Py_ssize_t fTokenStart = 0;         // byte offsets of the current token
    Py_ssize_t fTokenEnd = 0;
    Py_ssize_t fLine = 1;

    std::string_view TokenText() const {
        return std::string_view(fText).substr((size_t) fTokenStart,
                                              (size_t) (fTokenEnd - fTokenStart));
    }

private:
    std::string fText;
    CTokenScanner fScanner;
};

}  // namespace pysource

// One logical line of analysed Python source: a statement (physical lines
// joined by continuation and open brackets), its tokens, its kind, its indent
// and the scope it lies in.
//
// Tokens are kept natively (offset, length, type into one UTF-8 buffer); the
// Python-visible `fToks` list of token texts is made on first request and then
// cached, so that building the logicals of a file allocates one Python object
// per logical, not one per token.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include "pysource/srctokenizer.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nb = nanobind;

namespace pysource {

// The logical kinds.  `fType` holds the interned Python text of the kind
// (the module constants kClassDef, kFunctionDef, ...); C++ code compares the
// enum in `fKind`, which always agrees with `fType`.
enum class LogicalKind : std::uint8_t {
    kUnknown,
    kAssert,
    kAssignment,
    kAugAssignment,
    kAnnAssignment,
    kBreak,
    kCase,
    kClassDef,
    kComment,
    kCommentedTypeHint,
    kContinue,
    kDecorator,
    kDelete,
    kElifBeginning,
    kElseBeginning,
    kExcept,
    kExpression,
    kFinally,
    kForBeginning,
    kFromImport,
    kFstringFieldExp,
    kFunctionDef,
    kGlobal,
    kIfBeginning,
    kImport,
    kMatch,
    kNonlocal,
    kPass,
    kPrint,
    kRaise,
    kReturn,
    kStringExpression,
    kStringifiedTypeHint,
    kTry,
    kTypeStatement,
    kWhileBeginning,
    kWith,
    kYield,
    kCount  // number of kinds, not a kind
};

// The interned text constant of a kind (a borrowed reference, valid for the
// life of the process once logicalline is imported).
nb::handle LogicalKindText(LogicalKind kind);
// The C++ spelling of a kind's constant name, e.g. "kClassDef".
const char *LogicalKindConstantName(LogicalKind kind);
// The kind whose text equals `text`; a value error for any other text.
LogicalKind LogicalKindFromText(nb::handle text);
// Keywords that fix the kind of a statement they start, with that kind
// (the table behind kStartKeywords).  Ends with a null keyword.
struct StartKeyword {
    const char *keyword;
    LogicalKind kind;
};
extern const StartKeyword kStartKeywordTable[];
// The same table as a dict of keyword -> kind text (kStartKeywords).
nb::dict StartKeywordsDict();

struct Token {
    std::uint32_t offset;  // byte offset into CLogicalLine::fText
    std::uint32_t length;  // byte length
    std::int32_t type;     // srctokenizer token type number
};

// The tokens of one statement, as offsets into a text (used while
// classifying, before a logical is made).
struct TokenSpan {
    const char *base;
    const Token *toks;
    size_t count;
    std::string_view Text(size_t i) const {
        return std::string_view(base + toks[i].offset, toks[i].length);
    }
    int Type(size_t i) const { return toks[i].type; }
    bool Is(size_t i, std::string_view text) const { return i < count && Text(i) == text; }
};

inline bool IsOpening(int type) { return type == kTokLPar || type == kTokLSqb || type == kTokLBrace; }
inline bool IsClosing(int type) { return type == kTokRPar || type == kTokRSqb || type == kTokRBrace; }

// The index of the first token at bracket depth zero, from `start` on, for
// which `stop(i, type)` is true (brackets themselves are not offered), or -1.
// A closing bracket with none open is passed over.
template <typename Stop>
Py_ssize_t FindAtTopLevel(const TokenSpan &s, size_t start, Stop stop) {
    int depth = 0;
    for (size_t i = start; i < s.count; i++) {
        int type = s.Type(i);
        if (IsOpening(type)) {
            depth++;
        } else if (IsClosing(type)) {
            if (depth > 0)
                depth--;
        } else if (depth == 0 && stop(i, type)) {
            return (Py_ssize_t) i;
        }
    }
    return -1;
}

// The kind of a statement from its tokens.  Keywords at the start decide
// (soft keywords `match`, `case` and `type` only in their statement forms);
// otherwise the first `=`, augmented operator or `:` outside brackets (and
// ahead of any `lambda`) makes an assignment of that sort; a statement of
// string tokens only is a string expression; anything else an expression.
// A `def` or `class` without a name behind it is kUnknown.
LogicalKind ClassifyTokens(const TokenSpan &span);
// True for the kinds of compound statement headers (that end in a colon).
bool IsCompoundHeaderKind(LogicalKind kind);
// Index of the colon that ends a compound statement header, or -1.  Colons
// inside brackets and those that belong to a `lambda` don't count.
Py_ssize_t FindHeaderColon(const TokenSpan &span);
// Index of the name token of a def or class statement, or -1.
Py_ssize_t DefinedNameIndex(const TokenSpan &span);

// True for the reserved words of Python 3 (soft keywords excluded).
bool IsPythonKeyword(std::string_view word);

// A scope leaf with its scope index: "f|0", "f|1", ...
nb::str LeafWithScopeIndex(std::string_view leaf, Py_ssize_t index);

class CLogicalLine : public nb::intrusive_base {
public:
    CLogicalLine();

    // Read on every logical: plain fields.
    LogicalKind fKind = LogicalKind::kUnknown;
    nb::object fType;            // interned kind text, same as LogicalKindText(fKind)
    int fIndentLevel = 0;        // indent column (tabs expanded to multiples of 8)
    Py_ssize_t fFirstLine = 0;   // 1-based line of the first physical line
    Py_ssize_t fLineCount = 1;   // number of physical lines
    nb::object fScopeName;       // str: dotted name of the enclosing scope ("" at module level)
    nb::object fLocalScopeName;  // str or None: for def/class, own leaf name with scope index
    nb::object fParsed;          // analyzer's parse result or None
    nb::object fTypeEquivs;      // tuple of (name, info bytes) or None
    nb::object fArgTypeEquivs;   // tuple of (name, info bytes) or None

    bool fSpacesInIndent = false;
    bool fTabsInIndent = false;
    bool fIncomplete = false;    // the statement was cut off (end of file inside brackets, ...)

    // Token storage: token texts are slices of fText.
    std::string fText;           // UTF-8 text the tokens point into (the logical's source text)
    // Character column on fFirstLine where fText begins: 0 when it holds the
    // whole first line; a statement behind another on the same physical line
    // (after `;` or a header's colon) begins at its own first token, so that
    // a line of N statements costs memory linear in N.
    Py_ssize_t fTextColumn = 0;
    std::vector<Token> fTokens;

    Py_ssize_t TokenCount() const { return (Py_ssize_t) fTokens.size(); }
    std::string_view TokenText(Py_ssize_t i) const {
        const Token &t = fTokens[(size_t) i];
        return std::string_view(fText.data() + t.offset, t.length);
    }
    int TokenType(Py_ssize_t i) const { return fTokens[(size_t) i].type; }

    TokenSpan Span() const { return TokenSpan{fText.data(), fTokens.data(), fTokens.size()}; }

    // Sets the kind and its text together.
    void SetKind(LogicalKind kind);

    // Python views, made on demand and cached.  Error tokens are handed out
    // with kErrorTokenPrefix ahead of their text.
    nb::object GetToks();         // list of str
    nb::list GetTokenTypes() const;  // list of int
    nb::object GetTokenString(Py_ssize_t i);  // str; negative i counts from the end; IndexError outside
    // (line, column) of every token: as given to CreateLogical or kept by the
    // builder (for a logical whose names were folded), else worked out from
    // fText (columns in characters).
    nb::object GetPositions();
    std::string Repr() const;

    // Garbage-collector support for the Python objects held here.
    int Traverse(visitproc visit, void *arg);
    void Clear();

    // The collector is kept out of a logical while it holds only values this
    // system made for it (texts, token and position lists, the analyzer's
    // name lists), none of which can lead back to a logical: a file's
    // logicals live through many young collections, and tracked they would
    // fill the oldest generation and bring on full collections.
    // SetPythonObject is the holder's hook for the logical's Python object
    // (untracked there); a value stored from Python, or a container handed
    // out to Python, may come to lead anywhere and tracks it again for good.
    void SetPythonObject(PyObject *self) noexcept;
    void StoreFromPython(nb::object &field, nb::object value);
    nb::object HandOut(const nb::object &value);
    void MayReachForeignValues();

    nb::object fPositionsGiven;  // positions passed to CreateLogical or kept by the builder, or None

private:
    nb::object fToksCache;
    bool fMayReachForeign = false;  // tracked by the collector from now on
};

// The CLogicalLine behind `obj` (a list item or field Python may have set to
// anything), or a TypeError naming `what`.
CLogicalLine *AsLogical(nb::handle obj, const char *what = "a logical");

// Makes a logical from its parts, as CreateLogical of pysource.logicalline:
// `toks` is a sequence of token texts; `ttypes` their types or None (then they
// are classified from the texts); `positions` None or one entry per token;
// `line_text` None or a text holding the tokens in order (then the tokens
// point into it; otherwise the text is the tokens joined by spaces).  The kind
// comes from the tokens; a def or class gets its leaf name with index 0.
nb::ref<CLogicalLine> CreateLogical(int indent, Py_ssize_t start_line, Py_ssize_t line_count,
                                    nb::handle toks, nb::handle ttypes, nb::handle positions,
                                    bool spaces_in_indent, bool tabs_in_indent, bool incomplete,
                                    nb::handle line_text);

// Makes the interned kind texts; called once when logicalline is imported.
void InitLogicalKindTexts();

}  // namespace pysource

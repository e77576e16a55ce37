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

struct Token {
    std::uint32_t offset;  // byte offset into CLogicalLine::fText
    std::uint32_t length;  // byte length
    std::int32_t type;     // srctokenizer token type number
};

class CLogicalLine : public nb::intrusive_base {
public:
    // Read on every logical: plain fields.
    LogicalKind fKind = LogicalKind::kUnknown;
    nb::object fType;            // interned kind text, same as LogicalKindText(fKind)
    int fIndentLevel = 0;        // indent column (tabs expanded to multiples of 8)
    Py_ssize_t fFirstLine = 0;   // 1-based line of the first physical line
    Py_ssize_t fLineCount = 1;   // number of physical lines
    nb::object fScopeName;       // str: dotted name of the enclosing scope ("" at module level)
    nb::object fLocalScopeName;  // str or None: for def/class, own leaf name with scope index
    nb::object fParsed;          // analyzer's parse result or None
    nb::object fTypeEquivs;      // list of (name, info bytes) or None
    nb::object fArgTypeEquivs;   // list of (name, info bytes) or None

    bool fSpacesInIndent = false;
    bool fTabsInIndent = false;
    bool fIncomplete = false;    // the statement was cut off (end of file inside brackets, ...)

    // Token storage: token texts are slices of fText.
    std::string fText;           // UTF-8 text the tokens point into (the logical's source text)
    std::vector<Token> fTokens;

    Py_ssize_t TokenCount() const { return (Py_ssize_t) fTokens.size(); }
    std::string_view TokenText(Py_ssize_t i) const {
        const Token &t = fTokens[(size_t) i];
        return std::string_view(fText.data() + t.offset, t.length);
    }
    int TokenType(Py_ssize_t i) const { return fTokens[(size_t) i].type; }

    // Python views, made on demand and cached.
    nb::object GetToks();         // list of str
    nb::object GetTokenString(Py_ssize_t i);  // str; IndexError outside the range

private:
    nb::object fToksCache;
};

}  // namespace pysource

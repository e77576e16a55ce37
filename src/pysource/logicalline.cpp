#include "pysource/logicalline.h"

#include "pysource/instptr.h"
#include "pysource/srctokenizer.h"

#include <nanobind/stl/string.h>

#include <cstring>

namespace pysource {

namespace {

struct KindInfo {
    LogicalKind kind;
    const char *constant;
    const char *text;
};

// In the order of the enum.
const KindInfo kKindInfo[] = {
    {LogicalKind::kUnknown, "kUnknown", "unknown"},
    {LogicalKind::kAssert, "kAssert", "assert"},
    {LogicalKind::kAssignment, "kAssignment", "assignment"},
    {LogicalKind::kAugAssignment, "kAugAssignment", "aug-assignment"},
    {LogicalKind::kAnnAssignment, "kAnnAssignment", "ann-assignment"},
    {LogicalKind::kBreak, "kBreak", "break"},
    {LogicalKind::kCase, "kCase", "case"},
    {LogicalKind::kClassDef, "kClassDef", "class-def"},
    {LogicalKind::kComment, "kComment", "comment"},
    {LogicalKind::kCommentedTypeHint, "kCommentedTypeHint", "commented-type-hint"},
    {LogicalKind::kContinue, "kContinue", "continue"},
    {LogicalKind::kDecorator, "kDecorator", "decorator"},
    {LogicalKind::kDelete, "kDelete", "delete"},
    {LogicalKind::kElifBeginning, "kElifBeginning", "elif"},
    {LogicalKind::kElseBeginning, "kElseBeginning", "else"},
    {LogicalKind::kExcept, "kExcept", "except"},
    {LogicalKind::kExpression, "kExpression", "expression"},
    {LogicalKind::kFinally, "kFinally", "finally"},
    {LogicalKind::kForBeginning, "kForBeginning", "for"},
    {LogicalKind::kFromImport, "kFromImport", "from-import"},
    {LogicalKind::kFstringFieldExp, "kFstringFieldExp", "fstring-field-exp"},
    {LogicalKind::kFunctionDef, "kFunctionDef", "function-def"},
    {LogicalKind::kGlobal, "kGlobal", "global"},
    {LogicalKind::kIfBeginning, "kIfBeginning", "if"},
    {LogicalKind::kImport, "kImport", "import"},
    {LogicalKind::kMatch, "kMatch", "match"},
    {LogicalKind::kNonlocal, "kNonlocal", "nonlocal"},
    {LogicalKind::kPass, "kPass", "pass"},
    {LogicalKind::kPrint, "kPrint", "print"},
    {LogicalKind::kRaise, "kRaise", "raise"},
    {LogicalKind::kReturn, "kReturn", "return"},
    {LogicalKind::kStringExpression, "kStringExpression", "string-expression"},
    {LogicalKind::kStringifiedTypeHint, "kStringifiedTypeHint", "stringified-type-hint"},
    {LogicalKind::kTry, "kTry", "try"},
    {LogicalKind::kTypeStatement, "kTypeStatement", "type-statement"},
    {LogicalKind::kWhileBeginning, "kWhileBeginning", "while"},
    {LogicalKind::kWith, "kWith", "with"},
    {LogicalKind::kYield, "kYield", "yield"},
};
static_assert(sizeof(kKindInfo) / sizeof(kKindInfo[0]) == (size_t) LogicalKind::kCount,
              "one entry per logical kind");

// Interned kind texts; they live as long as the process (never released, so
// that no static destructor touches Python after it has gone).
PyObject *gKindTexts[(size_t) LogicalKind::kCount] = {};

bool IsKeywordText(std::string_view t) {
    static const char *const kKeywords[] = {
        "False", "None", "True", "and", "as", "assert", "async", "await", "break", "class",
        "continue", "def", "del", "elif", "else", "except", "finally", "for", "from", "global",
        "if", "import", "in", "is", "lambda", "nonlocal", "not", "or", "pass", "raise",
        "return", "try", "while", "with", "yield"};
    for (const char *k : kKeywords)
        if (t == k)
            return true;
    return false;
}


bool IsAugmentedAssign(int type) {
    switch (type) {
    case kTokPlusEqual: case kTokMinEqual: case kTokStarEqual: case kTokSlashEqual:
    case kTokPercentEqual: case kTokAmperEqual: case kTokVBarEqual: case kTokCircumflexEqual:
    case kTokLeftShiftEqual: case kTokRightShiftEqual: case kTokDoubleStarEqual:
    case kTokDoubleSlashEqual: case kTokAtEqual:
        return true;
    default:
        return false;
    }
}

// A token that can begin the subject of `match` or the pattern of `case`.
bool CanStartSoftKeywordOperand(const TokenSpan &s, size_t i) {
    if (i >= s.count)
        return false;
    int type = s.Type(i);
    if (type == kTokName)
        return !IsKeywordText(s.Text(i)) || s.Is(i, "None") || s.Is(i, "True") ||
               s.Is(i, "False") || s.Is(i, "not") || s.Is(i, "lambda") || s.Is(i, "await");
    return type == kTokNumber || type == kTokString || IsOpening(type) || type == kTokMinus ||
           type == kTokPlus || type == kTokStar || type == kTokTilde || type == kTokEllipsis;
}

// `match x:` / `case p:` against the same words used as names.
bool IsSoftKeywordHeader(const TokenSpan &s) {
    return CanStartSoftKeywordOperand(s, 1) && FindHeaderColon(s) > 0;
}

LogicalKind ClassifyByOperators(const TokenSpan &s) {
    LogicalKind kind = LogicalKind::kUnknown;
    FindAtTopLevel(s, 0, [&](size_t i, int type) {
        if (type == kTokEqual)
            kind = LogicalKind::kAssignment;
        else if (type == kTokColon)
            kind = LogicalKind::kAnnAssignment;
        else if (IsAugmentedAssign(type))
            kind = LogicalKind::kAugAssignment;
        else
            return type == kTokName && s.Text(i) == "lambda";  // the rest is its body
        return true;
    });
    if (kind != LogicalKind::kUnknown)
        return kind;
    for (size_t i = 0; i < s.count; i++)
        if (s.Type(i) != kTokString)
            return LogicalKind::kExpression;
    return LogicalKind::kStringExpression;
}

nb::str MakeStr(std::string_view text) { return nb::str(text.data(), text.size()); }

nb::list AsList(nb::handle seq, const char *what) {
    PyObject *list = PySequence_List(seq.ptr());
    if (!list) {
        PyErr_Clear();
        throw nb::type_error((std::string("CreateLogical: ") + what + " must be a sequence").c_str());
    }
    return nb::steal<nb::list>(list);
}

}  // namespace

bool IsPythonKeyword(std::string_view word) { return IsKeywordText(word); }

const StartKeyword kStartKeywordTable[] = {
    {"assert", LogicalKind::kAssert},
    {"break", LogicalKind::kBreak},
    {"continue", LogicalKind::kContinue},
    {"del", LogicalKind::kDelete},
    {"elif", LogicalKind::kElifBeginning},
    {"else", LogicalKind::kElseBeginning},
    {"except", LogicalKind::kExcept},
    {"finally", LogicalKind::kFinally},
    {"for", LogicalKind::kForBeginning},
    {"from", LogicalKind::kFromImport},
    {"global", LogicalKind::kGlobal},
    {"if", LogicalKind::kIfBeginning},
    {"import", LogicalKind::kImport},
    {"nonlocal", LogicalKind::kNonlocal},
    {"pass", LogicalKind::kPass},
    {"raise", LogicalKind::kRaise},
    {"return", LogicalKind::kReturn},
    {"try", LogicalKind::kTry},
    {"while", LogicalKind::kWhileBeginning},
    {"with", LogicalKind::kWith},
    {"yield", LogicalKind::kYield},
    {nullptr, LogicalKind::kUnknown},
};

// ---- kinds -------------------------------------------------------------------------

void InitLogicalKindTexts() {
    for (const KindInfo &info : kKindInfo) {
        PyObject *&slot = gKindTexts[(size_t) info.kind];
        if (!slot) {
            slot = PyUnicode_InternFromString(info.text);
            if (!slot)
                throw nb::python_error();
        }
    }
}

nb::handle LogicalKindText(LogicalKind kind) {
    if (!gKindTexts[0])
        InitLogicalKindTexts();
    return gKindTexts[(size_t) kind];
}

const char *LogicalKindConstantName(LogicalKind kind) {
    return kKindInfo[(size_t) kind].constant;
}

LogicalKind LogicalKindFromText(nb::handle text) {
    if (!gKindTexts[0])
        InitLogicalKindTexts();
    for (size_t i = 0; i < (size_t) LogicalKind::kCount; i++)
        if (gKindTexts[i] == text.ptr())
            return (LogicalKind) i;
    if (PyUnicode_Check(text.ptr())) {
        for (size_t i = 0; i < (size_t) LogicalKind::kCount; i++) {
            int eq = PyUnicode_Compare(gKindTexts[i], text.ptr());
            if (eq == 0)
                return (LogicalKind) i;
        }
    }
    throw nb::value_error(("not a logical kind: " + nb::cast<std::string>(nb::repr(text))).c_str());
}

bool IsCompoundHeaderKind(LogicalKind kind) {
    switch (kind) {
    case LogicalKind::kIfBeginning: case LogicalKind::kElifBeginning:
    case LogicalKind::kElseBeginning: case LogicalKind::kForBeginning:
    case LogicalKind::kWhileBeginning: case LogicalKind::kWith: case LogicalKind::kTry:
    case LogicalKind::kExcept: case LogicalKind::kFinally: case LogicalKind::kFunctionDef:
    case LogicalKind::kClassDef: case LogicalKind::kMatch: case LogicalKind::kCase:
        return true;
    default:
        return false;
    }
}

Py_ssize_t FindHeaderColon(const TokenSpan &s) {
    int open_lambdas = 0;  // each lambda's own colon comes before the header's
    bool at_semicolon = false;
    Py_ssize_t at = FindAtTopLevel(s, 1, [&](size_t i, int type) {
        if (type == kTokName && s.Text(i) == "lambda") {
            open_lambdas++;
        } else if (type == kTokColon) {
            if (open_lambdas == 0)
                return true;
            open_lambdas--;
        } else if (type == kTokSemi) {
            return at_semicolon = true;
        }
        return false;
    });
    return at_semicolon ? -1 : at;
}

Py_ssize_t DefinedNameIndex(const TokenSpan &s) {
    size_t i = s.Is(0, "async") ? 1 : 0;
    if (!(s.Is(i, "def") || s.Is(i, "class")))
        return -1;
    i++;
    if (i < s.count && s.Type(i) == kTokName && !IsKeywordText(s.Text(i)))
        return (Py_ssize_t) i;
    return -1;
}

LogicalKind ClassifyTokens(const TokenSpan &s) {
    if (s.count == 0)
        return LogicalKind::kUnknown;
    int first = s.Type(0);
    if (first == kTokComment)
        return LogicalKind::kComment;
    if (first == kTokAt)
        return LogicalKind::kDecorator;
    if (first != kTokName)
        return ClassifyByOperators(s);
    std::string_view word = s.Text(0);
    if (word == "def" || word == "class" || (word == "async" && s.Is(1, "def"))) {
        if (DefinedNameIndex(s) < 0)
            return LogicalKind::kUnknown;
        return word == "class" ? LogicalKind::kClassDef : LogicalKind::kFunctionDef;
    }
    if (word == "async") {
        if (s.Is(1, "for"))
            return LogicalKind::kForBeginning;
        if (s.Is(1, "with"))
            return LogicalKind::kWith;
        return ClassifyByOperators(s);
    }
    for (const StartKeyword *k = kStartKeywordTable; k->keyword; k++)
        if (word == k->keyword)
            return k->kind;
    if (word == "match" && IsSoftKeywordHeader(s))
        return LogicalKind::kMatch;
    if (word == "case" && IsSoftKeywordHeader(s))
        return LogicalKind::kCase;
    if (word == "type" && s.count >= 3 && s.Type(1) == kTokName && !IsKeywordText(s.Text(1)) &&
        (s.Type(2) == kTokEqual || s.Type(2) == kTokLSqb))
        return LogicalKind::kTypeStatement;
    if (word == "print" && s.count >= 2) {
        // The statement form of old code: `print x`, `print "a"`, `print >>f, x`.
        int second = s.Type(1);
        if (second == kTokString || second == kTokNumber || second == kTokRightShift ||
            (second == kTokName && !IsKeywordText(s.Text(1))))
            return LogicalKind::kPrint;
    }
    return ClassifyByOperators(s);
}

nb::str LeafWithScopeIndex(std::string_view leaf, Py_ssize_t index) {
    nb::str name = MakeStr(leaf);
    PyObject *joined = PyUnicode_FromFormat("%U|%zd", name.ptr(), index);
    if (!joined)
        throw nb::python_error();
    return nb::steal<nb::str>(joined);
}

// ---- CLogicalLine ----------------------------------------------------------------

CLogicalLine::CLogicalLine()
    : fType(nb::borrow(LogicalKindText(LogicalKind::kUnknown))),
      fScopeName(nb::str("")),
      fLocalScopeName(nb::none()),
      fParsed(nb::none()),
      fTypeEquivs(nb::none()),
      fArgTypeEquivs(nb::none()),
      fPositionsGiven(nb::none()) {}

void CLogicalLine::SetKind(LogicalKind kind) {
    fKind = kind;
    fType = nb::borrow(LogicalKindText(kind));
}

nb::object CLogicalLine::GetToks() {
    if (fToksCache.is_valid() && PyList_GET_SIZE(fToksCache.ptr()) == TokenCount())
        return fToksCache;
    fToksCache = nb::object();
    PyObject *list = PyList_New((Py_ssize_t) fTokens.size());
    if (!list)
        throw nb::python_error();
    nb::object result = nb::steal(list);
    for (Py_ssize_t i = 0; i < TokenCount(); i++) {
        nb::object s = GetTokenString(i);
        PyList_SET_ITEM(list, i, s.release().ptr());
    }
    fToksCache = result;
    return result;
}

nb::object CLogicalLine::GetTokenString(Py_ssize_t i) {
    Py_ssize_t n = TokenCount();
    if (i < 0)
        i += n;
    if (i < 0 || i >= n)
        throw nb::index_error("token index out of range");
    // The cached list is handed out, so a caller may have changed it: use it
    // only while it still has one entry per token.
    if (fToksCache.is_valid() && PyList_GET_SIZE(fToksCache.ptr()) == n)
        return nb::borrow(PyList_GET_ITEM(fToksCache.ptr(), i));
    std::string_view text = TokenText(i);
    if (TokenType(i) == kTokError) {
        std::string marked(kErrorTokenPrefix);
        marked.append(text);
        return MakeStr(marked);
    }
    return MakeStr(text);
}

nb::object CLogicalLine::GetPositions() {
    if (!fPositionsGiven.is_none())
        return fPositionsGiven;
    nb::list out;
    Py_ssize_t line = fFirstLine;
    Py_ssize_t col = fTextColumn;
    size_t pos = 0;
    for (const Token &t : fTokens) {
        for (; pos < t.offset && pos < fText.size(); pos++) {
            char c = fText[pos];
            if (c == '\n' || (c == '\r' && !(pos + 1 < fText.size() && fText[pos + 1] == '\n'))) {
                line++;
                col = 0;
            } else if (((unsigned char) c & 0xC0) != 0x80) {
                col++;
            }
        }
        out.append(nb::make_tuple(line, col));
    }
    return out;
}

std::string CLogicalLine::Repr() const {
    std::string out = "<CLogicalLine ";
    out += kKindInfo[(size_t) fKind].text;
    out += " line ";
    out += std::to_string(fFirstLine);
    if (fLineCount != 1) {
        out += '+';
        out += std::to_string(fLineCount - 1);
    }
    out += " indent ";
    out += std::to_string(fIndentLevel);
    std::string scope = PyUnicode_Check(fScopeName.ptr()) ? nb::cast<std::string>(fScopeName) : "?";
    if (!scope.empty()) {
        out += " in ";
        out += scope;
    }
    out += ": ";
    size_t budget = 60;
    for (Py_ssize_t i = 0; i < TokenCount() && budget > 0; i++) {
        std::string_view t = TokenText(i);
        if (i)
            out += ' ';
        if (t.size() > budget) {
            size_t cut = budget;  // not inside a UTF-8 sequence
            while (cut > 0 && ((unsigned char) t[cut] & 0xC0) == 0x80)
                cut--;
            out.append(t.substr(0, cut));
            out += "...";
            budget = 0;
            break;
        }
        out.append(t);
        budget -= t.size();
    }
    out += ">";
    return out;
}

int CLogicalLine::Traverse(visitproc visit, void *arg) {
    for (nb::object *o : {&fType, &fScopeName, &fLocalScopeName, &fParsed, &fTypeEquivs,
                          &fArgTypeEquivs, &fPositionsGiven, &fToksCache}) {
        if (o->is_valid())
            Py_VISIT(o->ptr());
    }
    return 0;
}

void CLogicalLine::Clear() {
    // Only what may hold arbitrary objects; the texts can't be part of a cycle.
    fParsed = nb::none();
    fTypeEquivs = nb::none();
    fArgTypeEquivs = nb::none();
    fPositionsGiven = nb::none();
}

void CLogicalLine::SetPythonObject(PyObject *self) noexcept {
    set_self_py(self);
    // A Python subclass may keep anything in its own attributes.
    if (!fMayReachForeign && Py_TYPE(self) == (PyTypeObject *) nb::type<CLogicalLine>().ptr() &&
        PyObject_GC_IsTracked(self))
        PyObject_GC_UnTrack(self);
}

void CLogicalLine::MayReachForeignValues() {
    fMayReachForeign = true;
    PyObject *self = self_py();
    if (self && !PyObject_GC_IsTracked(self))
        PyObject_GC_Track(self);
}

void CLogicalLine::StoreFromPython(nb::object &field, nb::object value) {
    if (PyObject_IS_GC(value.ptr()))
        MayReachForeignValues();
    field = std::move(value);
}

nb::object CLogicalLine::HandOut(const nb::object &value) {
    // A tuple the collector has let go of holds only values without references.
    bool closed = PyTuple_CheckExact(value.ptr()) && !PyObject_GC_IsTracked(value.ptr());
    if (!fMayReachForeign && PyObject_IS_GC(value.ptr()) && !closed)
        MayReachForeignValues();
    return value;
}

// ---- CreateLogical -----------------------------------------------------------------

nb::ref<CLogicalLine> CreateLogical(int indent, Py_ssize_t start_line, Py_ssize_t line_count,
                                    nb::handle toks, nb::handle ttypes, nb::handle positions,
                                    bool spaces_in_indent, bool tabs_in_indent, bool incomplete,
                                    nb::handle line_text) {
    nb::ref<CLogicalLine> logical = new CLogicalLine();
    CLogicalLine &l = *logical;
    l.fIndentLevel = indent;
    l.fFirstLine = start_line;
    l.fLineCount = line_count;
    l.fSpacesInIndent = spaces_in_indent;
    l.fTabsInIndent = tabs_in_indent;
    l.fIncomplete = incomplete;

    nb::list tok_list = AsList(toks, "toks");
    size_t n = nb::len(tok_list);
    std::vector<std::string_view> texts;
    std::vector<int> types;
    texts.reserve(n);
    types.reserve(n);
    nb::list type_list;
    bool have_types = !ttypes.is_none();
    if (have_types) {
        type_list = AsList(ttypes, "ttypes");
        if (nb::len(type_list) != n)
            throw nb::value_error("CreateLogical: ttypes and toks differ in length");
    }
    if (!positions.is_none()) {
        nb::list pos_list = AsList(positions, "positions");
        if (nb::len(pos_list) != n)
            throw nb::value_error("CreateLogical: positions and toks differ in length");
        l.fPositionsGiven = pos_list;
        l.MayReachForeignValues();  // the caller's items
    }
    for (size_t i = 0; i < n; i++) {
        nb::handle item = tok_list[i];
        if (!PyUnicode_Check(item.ptr()))
            throw nb::type_error("CreateLogical: every token must be a str");
        std::string_view text = Utf8OfText(item, "token");
        int type;
        if (have_types) {
            type = nb::cast<int>(type_list[i]);
        } else {
            type = ClassifyTokenText(text);
        }
        if (text.substr(0, kErrorTokenPrefix.size()) == kErrorTokenPrefix) {
            text.remove_prefix(kErrorTokenPrefix.size());
            type = kTokError;
        }
        texts.push_back(text);
        types.push_back(type);
    }

    // Tokens point into line_text when it holds them in order; otherwise into
    // the tokens joined by single spaces.
    bool placed = false;
    if (!line_text.is_none()) {
        std::string_view line = Utf8OfText(line_text, "line_text");
        size_t pos = 0;
        std::vector<Token> found;
        found.reserve(n);
        placed = true;
        for (size_t i = 0; i < n; i++) {
            size_t at = line.find(texts[i], pos);
            if (at == std::string_view::npos) {
                placed = false;
                break;
            }
            found.push_back(Token{(std::uint32_t) at, (std::uint32_t) texts[i].size(), types[i]});
            pos = at + texts[i].size();
        }
        if (placed) {
            l.fText.assign(line.data(), line.size());
            l.fTokens = std::move(found);
        }
    }
    if (!placed) {
        for (size_t i = 0; i < n; i++) {
            if (i)
                l.fText += ' ';
            l.fTokens.push_back(
                Token{(std::uint32_t) l.fText.size(), (std::uint32_t) texts[i].size(), types[i]});
            l.fText.append(texts[i]);
        }
    }

    l.SetKind(ClassifyTokens(l.Span()));
    if (l.fKind == LogicalKind::kClassDef || l.fKind == LogicalKind::kFunctionDef) {
        Py_ssize_t name_i = DefinedNameIndex(l.Span());
        l.fLocalScopeName = LeafWithScopeIndex(l.TokenText(name_i), 0);
    }
    return logical;
}

CLogicalLine *AsLogical(nb::handle obj, const char *what) {
    return &InstRef<CLogicalLine>(obj, what);
}

nb::dict StartKeywordsDict() {
    nb::dict table;
    for (const StartKeyword *k = kStartKeywordTable; k->keyword; k++)
        table[k->keyword] = LogicalKindText(k->kind);
    return table;
}

nb::list CLogicalLine::GetTokenTypes() const {
    nb::list out;
    for (const Token &t : fTokens)
        out.append(t.type);
    return out;
}

}  // namespace pysource

#include "pysource/logicalbuild.h"

#include "pysource/fastaccess.h"
#include "pysource/namefold.h"
#include "pysource/srctokenizer.h"

#include <nanobind/stl/string.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <unordered_map>

namespace pysource {

namespace {

constexpr size_t kMaxRecordedDecodeErrors = 100;
constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

// ---- decoding --------------------------------------------------------------

std::string_view LineAt(std::string_view text, size_t *pos) {
    size_t start = *pos;
    size_t i = start;
    while (i < text.size() && text[i] != '\n' && text[i] != '\r')
        i++;
    std::string_view line = text.substr(start, i - start);
    if (i < text.size())
        i += (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ? 2 : 1;
    *pos = i;
    return line;
}

bool IsCommentOrBlank(std::string_view line) {
    for (char c : line) {
        if (c == ' ' || c == '\t' || c == '\f')
            continue;
        return c == '#';
    }
    return true;
}

// The encoding named by `coding[:=]name` in a comment line, or empty.
std::string CookieInLine(std::string_view line) {
    size_t i = 0;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\f'))
        i++;
    if (i >= line.size() || line[i] != '#')
        return {};
    for (size_t at = line.find("coding", i); at != std::string_view::npos;
         at = line.find("coding", at + 1)) {
        size_t j = at + 6;
        if (j >= line.size() || (line[j] != ':' && line[j] != '='))
            continue;
        j++;
        while (j < line.size() && (line[j] == ' ' || line[j] == '\t'))
            j++;
        size_t k = j;
        while (k < line.size() && (IsAsciiIdentChar((unsigned char) line[k]) || line[k] == '-' ||
                                   line[k] == '.'))
            k++;
        if (k > j)
            return std::string(line.substr(j, k - j));
    }
    return {};
}

std::string FindCodingCookie(std::string_view text) {
    size_t pos = 0;
    std::string_view first = LineAt(text, &pos);
    std::string cookie = CookieInLine(first);
    if (!cookie.empty() || !IsCommentOrBlank(first))
        return cookie;
    return CookieInLine(LineAt(text, &pos));
}

Py_ssize_t LineOfOffset(std::string_view text, size_t offset) {
    Py_ssize_t line = 1;
    for (size_t i = 0; i < offset && i < text.size(); i++)
        if (text[i] == '\n' || (text[i] == '\r' && !(i + 1 < text.size() && text[i + 1] == '\n')))
            line++;
    return line;
}

void AddError(DecodedSource &out, Py_ssize_t line, Py_ssize_t offset, std::string message) {
    if (out.errors.size() < kMaxRecordedDecodeErrors)
        out.errors.push_back(DecodeError{line, offset, std::move(message)});
}

// UTF-8 with every invalid byte replaced by U+FFFD and recorded.  Lines are
// counted only up to an invalid byte, when one is found.
void DecodeUtf8Lenient(std::string_view data, Py_ssize_t base_offset, DecodedSource &out) {
    out.utf8.reserve(data.size());
    Py_ssize_t line = 1;
    size_t counted = 0;  // lines are counted up to here
    size_t i = 0;
    while (i < data.size()) {
        size_t run = AsciiRunEnd(data, i);
        out.utf8.append(data.data() + i, run - i);
        i = run;
        if (i >= data.size())
            break;
        int len = 1;
        std::uint32_t cp = DecodeUtf8At(data.data(), (Py_ssize_t) i, (Py_ssize_t) data.size(), &len);
        if (cp == 0xFFFD && len == 1) {
            line += LineOfOffset(data.substr(counted), i - counted) - 1;
            counted = i;
            char buf[64];
            std::snprintf(buf, sizeof buf, "invalid utf-8 byte 0x%02x", (unsigned char) data[i]);
            AddError(out, line, base_offset + (Py_ssize_t) i, buf);
            out.utf8.append("\xEF\xBF\xBD");
        } else {
            out.utf8.append(data.data() + i, (size_t) len);
        }
        i += (size_t) len;
    }
}

std::string CanonicalEncoding(const std::string &name) {
    std::string lower;
    for (char c : name)
        lower += (c == '_') ? '-' : (char) ((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c);
    if (lower == "utf-8" || lower.rfind("utf-8-", 0) == 0 || lower == "utf8")
        return "utf-8";
    PyObject *info = PyObject_CallMethod(nb::module_::import_("codecs").ptr(), "lookup", "s",
                                         name.c_str());
    if (!info) {
        PyErr_Clear();
        return {};
    }
    nb::object owner = nb::steal(info);
    nb::object canonical = nb::getattr(owner, "name", nb::none());
    if (!PyUnicode_Check(canonical.ptr()))
        return {};
    return nb::cast<std::string>(canonical);
}

// Decodes with a Python codec: strict first, so that the first bad spot can
// be recorded, then with replacement.
bool DecodeWithCodec(std::string_view data, const std::string &encoding, Py_ssize_t base_offset,
                     DecodedSource &out) {
    nb::bytes raw(data.data(), data.size());
    nb::object text;
    try {
        text = raw.attr("decode")(encoding.c_str(), "strict");
    } catch (nb::python_error &e) {
        if (!e.matches(PyExc_UnicodeDecodeError))
            return false;
        Py_ssize_t start = 0;
        std::string reason = "undecodable bytes";
        try {
            start = nb::cast<Py_ssize_t>(e.value().attr("start"));
            reason = nb::cast<std::string>(nb::str(e.value().attr("reason")));
        } catch (nb::python_error &) {
        } catch (nb::cast_error &) {
        }
        AddError(out, LineOfOffset(data, (size_t) start), base_offset + start,
                 encoding + ": " + reason);
        try {
            text = raw.attr("decode")(encoding.c_str(), "replace");
        } catch (nb::python_error &) {
            return false;
        }
    }
    if (!PyUnicode_Check(text.ptr()))
        return false;
    PyObject *utf8 = PyUnicode_AsEncodedString(text.ptr(), "utf-8", "replace");
    if (!utf8) {
        PyErr_Clear();
        return false;
    }
    nb::object utf8_owner = nb::steal(utf8);
    out.utf8.assign(PyBytes_AS_STRING(utf8), (size_t) PyBytes_GET_SIZE(utf8));
    out.encoding = encoding;
    return true;
}

// ---- building ----------------------------------------------------------------

nb::str MakeStr(std::string_view text) { return nb::str(text.data(), text.size()); }

// Gives every name token of a logical its NFKC spelling (the name Python
// reads).  The logical's text is rebuilt with the folded names spliced in and
// the later token offsets moved, so that tokens stay slices of it; since that
// text no longer matches the source character for character, the positions
// are worked out from the written text first and kept.  ASCII names are
// passed over without a look.
void FoldNameTokens(CLogicalLine &l) {
    std::vector<std::optional<std::string>> folded;
    for (size_t i = 0; i < l.fTokens.size(); i++) {
        if (l.fTokens[i].type != kTokName || !HasNonAsciiByte(l.TokenText((Py_ssize_t) i)))
            continue;
        std::optional<std::string> name = FoldedIdentifier(l.TokenText((Py_ssize_t) i));
        if (!name)
            continue;
        folded.resize(l.fTokens.size());
        folded[i] = std::move(name);
    }
    if (folded.empty())
        return;
    l.fPositionsGiven = l.GetPositions();
    std::string text;
    size_t copied = 0;  // end of what is taken over from the written text
    for (size_t i = 0; i < l.fTokens.size(); i++) {
        Token &t = l.fTokens[i];
        size_t written = t.offset;
        text.append(l.fText, copied, written - copied);
        copied = written + t.length;
        t.offset = (std::uint32_t) text.size();
        if (i < folded.size() && folded[i]) {
            text.append(*folded[i]);
            t.length = (std::uint32_t) folded[i]->size();
        } else {
            text.append(l.fText, written, t.length);
        }
    }
    text.append(l.fText, copied, std::string::npos);
    l.fText = std::move(text);
}

class LogicalBuilder {
public:
    LogicalBuilder(std::string_view text, const std::vector<OpenScope> &open_scopes)
        : fText(text),
          fScanner(text.data(), (Py_ssize_t) text.size()),
          fAsciiText(!HasNonAsciiByte(text)),
          fMayFoldNames(!fAsciiText) {
        fScopes.push_back(Scope{-1, nb::str(""), {}});
        for (const OpenScope &open : open_scopes)
            fScopes.push_back(Scope{open.indent, open.name, {}});
    }

    std::vector<nb::ref<CLogicalLine>> Run() {
        Step(kNoDeadline);
        return std::move(fOut);
    }
    // Goes on until the text is done (true) or the clock reaches `end_time`
    // (false); the clock is read every kTokensPerClockReading tokens.
    bool Step(double end_time);
    std::vector<nb::ref<CLogicalLine>> TakeLogicals() { return std::move(fOut); }

    static constexpr double kNoDeadline = std::numeric_limits<double>::infinity();

private:
    struct Scope {
        int indent;
        nb::object name;  // normalised full name
        std::unordered_map<std::string, Py_ssize_t> counts;
    };

    void Push(const ScannedToken &tok);
    void AttachTypeComment();
    void FlushStatement(bool incomplete);
    void EmitComment(const ScannedToken &tok);
    void Emit(size_t b, size_t e, int indent, LogicalKind kind);
    void PlaceInScope(CLogicalLine &l);
    int ExpandedColumn(const ScannedToken &tok) const;
    Py_ssize_t CharacterColumn(const ScannedToken &tok) const;
    Py_ssize_t CharacterCount(Py_ssize_t from, Py_ssize_t to) const;  // of fText[from:to]
    // The character column of `end`, for a text that begins at `start`, in
    // column `start_column` of its line.
    Py_ssize_t EndColumn(Py_ssize_t start, Py_ssize_t start_column, Py_ssize_t end) const;
    void IndentChars(const ScannedToken &tok, bool *spaces, bool *tabs) const;
    TokenSpan Span(size_t b, size_t e) const {
        return TokenSpan{fText.data(), fSpanToks.data() + b, e - b};
    }

    void HandleToken(const ScannedToken &tok);

    static constexpr int kTokensPerClockReading = 512;
    std::string_view fText;
    CTokenScanner fScanner;
    bool fDone = false;
    bool fAsciiText;     // every character one byte
    bool fMayFoldNames;  // only a text with non-ASCII bytes can hold names to fold
    std::vector<ScannedToken> fPending;  // tokens of the current statement line
    std::vector<Token> fSpanToks;        // the same, as offsets into fText
    std::vector<Scope> fScopes;
    std::vector<nb::ref<CLogicalLine>> fOut;
    bool fLineSpaces = false;
    bool fLineTabs = false;
    // Where the last logical ends in fText (its own text may hold folded
    // names), and the character column of that place.
    Py_ssize_t fLastEmitEnd = 0;
    Py_ssize_t fLastEmitEndColumn = 0;
    ScannedToken fTypeComment;      // a `# type:` comment behind the current statement
    bool fHaveTypeComment = false;
};

// `# type: ...` (white space allowed around "type").
bool IsTypeComment(std::string_view comment) {
    size_t i = 1;
    while (i < comment.size() && (comment[i] == ' ' || comment[i] == '\t'))
        i++;
    return comment.substr(i, 5) == "type:";
}

// The statement kinds that a trailing type comment annotates.
bool TakesTypeComment(LogicalKind kind) {
    switch (kind) {
    case LogicalKind::kAssignment: case LogicalKind::kAnnAssignment:
    case LogicalKind::kForBeginning: case LogicalKind::kWith: case LogicalKind::kFunctionDef:
        return true;
    default:
        return false;
    }
}

int LogicalBuilder::ExpandedColumn(const ScannedToken &tok) const {
    int col = 0;
    for (Py_ssize_t i = tok.LineStart(); i < tok.offset; i++) {
        unsigned char c = (unsigned char) fText[(size_t) i];
        if (c == '\t')
            col = (col / 8 + 1) * 8;
        else if (c == '\f')
            col = 0;
        else if ((c & 0xC0) != 0x80)
            col++;
    }
    return col;
}

Py_ssize_t LogicalBuilder::CharacterColumn(const ScannedToken &tok) const {
    return CharacterCount(tok.LineStart(), tok.offset);
}

Py_ssize_t LogicalBuilder::CharacterCount(Py_ssize_t from, Py_ssize_t to) const {
    if (fAsciiText)
        return to - from;
    Py_ssize_t count = 0;
    for (Py_ssize_t i = from; i < to; i++)
        if (((unsigned char) fText[(size_t) i] & 0xC0) != 0x80)
            count++;
    return count;
}

Py_ssize_t LogicalBuilder::EndColumn(Py_ssize_t start, Py_ssize_t start_column,
                                     Py_ssize_t end) const {
    // Only the text from `start` is looked at, so that each statement of a
    // long line costs its own length.
    const char *text = fText.data();
    Py_ssize_t line_start = start;
    for (char line_end : {'\n', '\r'})
        if (const void *found = memrchr(text + line_start, line_end, (size_t) (end - line_start)))
            line_start = static_cast<const char *>(found) - text + 1;
    return (line_start == start ? start_column : 0) + CharacterCount(line_start, end);
}

void LogicalBuilder::IndentChars(const ScannedToken &tok, bool *spaces, bool *tabs) const {
    *spaces = *tabs = false;
    for (Py_ssize_t i = tok.LineStart(); i < tok.offset; i++) {
        char c = fText[(size_t) i];
        if (c == ' ')
            *spaces = true;
        else if (c == '\t')
            *tabs = true;
        else if (c != '\f')
            break;
    }
}

void LogicalBuilder::Push(const ScannedToken &tok) {
    fPending.push_back(tok);
    fSpanToks.push_back(Token{(std::uint32_t) tok.offset, (std::uint32_t) tok.length, tok.type});
}

void LogicalBuilder::PlaceInScope(CLogicalLine &l) {
    if (l.fKind == LogicalKind::kComment) {
        size_t i = fScopes.size() - 1;
        while (i > 0 && fScopes[i].indent >= l.fIndentLevel)
            i--;
        l.fScopeName = fScopes[i].name;
        return;
    }
    while (fScopes.size() > 1 && fScopes.back().indent >= l.fIndentLevel)
        fScopes.pop_back();
    Scope &parent = fScopes.back();
    l.fScopeName = parent.name;
    if (l.fKind != LogicalKind::kClassDef && l.fKind != LogicalKind::kFunctionDef)
        return;
    std::string leaf(l.TokenText(DefinedNameIndex(l.Span())));
    Py_ssize_t index = parent.counts[leaf]++;
    l.fLocalScopeName = LeafWithScopeIndex(leaf, index);
    nb::object component = index == 0 ? nb::object(MakeStr(leaf)) : l.fLocalScopeName;
    nb::object full = component;
    if (PyUnicode_GET_LENGTH(parent.name.ptr()) > 0) {
        PyObject *joined = PyUnicode_FromFormat("%U.%U", parent.name.ptr(), component.ptr());
        if (!joined)
            throw nb::python_error();
        full = nb::steal(joined);
    }
    fScopes.push_back(Scope{l.fIndentLevel, full, {}});
}

void LogicalBuilder::Emit(size_t b, size_t e, int indent, LogicalKind kind) {
    if (b >= e)
        return;
    const ScannedToken &first = fPending[b];
    const ScannedToken &last = fPending[e - 1];
    Py_ssize_t start = first.LineStart();
    Py_ssize_t end = last.offset + last.length;
    Py_ssize_t column = 0;
    if (fLastEmitEnd > start && fLastEmitEnd <= first.offset) {
        // Another statement of this physical line came first: begin at this
        // one's first token rather than repeating the line up to it.
        column = fLastEmitEndColumn + CharacterCount(fLastEmitEnd, first.offset);
        start = first.offset;
    }
    nb::ref<CLogicalLine> logical = new CLogicalLine();
    CLogicalLine &l = *logical;
    fLastEmitEnd = end;
    fLastEmitEndColumn = EndColumn(start, column, end);
    l.fTextColumn = column;
    l.fText.assign(fText.data() + start, (size_t) (end - start));
    l.fTokens.reserve(e - b);
    for (size_t i = b; i < e; i++)
        l.fTokens.push_back(Token{(std::uint32_t) (fPending[i].offset - start),
                                  (std::uint32_t) fPending[i].length, fPending[i].type});
    l.SetKind(kind);
    l.fIndentLevel = indent;
    l.fFirstLine = first.line;
    l.fLineCount = last.last_line - first.line + 1;
    l.fSpacesInIndent = fLineSpaces;
    l.fTabsInIndent = fLineTabs;
    if (fMayFoldNames)
        FoldNameTokens(l);  // after fFirstLine: the kept positions count from it
    PlaceInScope(l);
    fOut.push_back(std::move(logical));
}

void LogicalBuilder::EmitComment(const ScannedToken &tok) {
    bool spaces = false, tabs = false;
    IndentChars(tok, &spaces, &tabs);
    fPending.clear();
    fSpanToks.clear();
    Push(tok);
    fLineSpaces = spaces;
    fLineTabs = tabs;
    Emit(0, 1, ExpandedColumn(tok), LogicalKind::kComment);
    fPending.clear();
    fSpanToks.clear();
}

void LogicalBuilder::FlushStatement(bool incomplete) {
    size_t n = fPending.size();
    if (n == 0)
        return;
    size_t emitted_before = fOut.size();
    IndentChars(fPending[0], &fLineSpaces, &fLineTabs);
    int indent = ExpandedColumn(fPending[0]);
    size_t b = 0;
    while (b < n) {
        if (fSpanToks[b].type == kTokSemi) {
            b++;
            continue;
        }
        Py_ssize_t found =
            FindAtTopLevel(Span(0, n), b, [](size_t, int type) { return type == kTokSemi; });
        size_t semi = found < 0 ? n : (size_t) found;
        TokenSpan part = Span(b, semi);
        LogicalKind kind = ClassifyTokens(part);
        if (IsCompoundHeaderKind(kind)) {
            Py_ssize_t colon = FindHeaderColon(part);
            size_t body = b + (size_t) colon + 1;
            if (colon > 0 && body < n) {
                Emit(b, body, indent, kind);
                indent = std::max(ExpandedColumn(fPending[body]), indent + 1);
                b = body;
                continue;
            }
        }
        Emit(b, semi, indent, kind);
        b = semi + 1;
    }
    if (fOut.size() > emitted_before) {
        if (fHaveTypeComment && fTypeComment.line == fPending.back().last_line)
            AttachTypeComment();
        if (incomplete)
            fOut.back()->fIncomplete = true;
    }
    fHaveTypeComment = false;
    fPending.clear();
    fSpanToks.clear();
}

void LogicalBuilder::AttachTypeComment() {
    CLogicalLine &l = *fOut.back();
    if (!TakesTypeComment(l.fKind))
        return;
    size_t text_end = (size_t) fLastEmitEnd;
    size_t comment_end = (size_t) (fTypeComment.offset + fTypeComment.length);
    size_t comment_offset = l.fText.size() + (size_t) fTypeComment.offset - text_end;
    l.fText.append(fText.data() + text_end, comment_end - text_end);
    l.fTokens.push_back(Token{(std::uint32_t) comment_offset, (std::uint32_t) fTypeComment.length,
                              kTokComment});
    if (!l.fPositionsGiven.is_none())
        nb::borrow<nb::list>(l.fPositionsGiven).append(
            nb::make_tuple(fTypeComment.line, CharacterColumn(fTypeComment)));
}

bool LogicalBuilder::Step(double end_time) {
    ScannedToken tok;
    int until_reading = kTokensPerClockReading;
    while (!fDone) {
        if (!fScanner.Next(tok)) {
            FlushStatement(true);
            fDone = true;
            break;
        }
        HandleToken(tok);
        if (--until_reading == 0) {
            until_reading = kTokensPerClockReading;
            if (end_time != kNoDeadline && OutOfTime(end_time))
                return false;
        }
    }
    return true;
}

void LogicalBuilder::HandleToken(const ScannedToken &tok) {
    switch (tok.type) {
    case kTokNewline: {
        bool cut_off = false;
        if (tok.length == 0 && !fPending.empty()) {
            const ScannedToken &last = fPending.back();
            cut_off = fScanner.Depth() > 0 || fScanner.EndedInContinuation() ||
                      (last.type == kTokError && last.offset + last.length == (Py_ssize_t) fText.size());
        }
        FlushStatement(cut_off);
        break;
    }
    case kTokNL:
        break;
    case kTokComment:
        if (fPending.empty()) {
            EmitComment(tok);
        } else if (IsTypeComment(fText.substr((size_t) tok.offset, (size_t) tok.length))) {
            fTypeComment = tok;
            fHaveTypeComment = true;
        }
        break;
    default:
        // A def or class at the start of a line can't be inside brackets:
        // a bracket was left open, and the statement ends here.
        if (!fPending.empty() && fScanner.Depth() > 0 && tok.type == kTokName &&
            tok.line > fPending.back().last_line) {
            std::string_view word = fText.substr((size_t) tok.offset, (size_t) tok.length);
            if (word == "def" || word == "class") {
                FlushStatement(true);
                fScanner.ResetDepth();
            }
        }
        Push(tok);
    }
}

void CheckTextSize(std::string_view utf8) {
    if (utf8.size() >= (size_t) UINT32_MAX)
        throw nb::value_error("source text too large");
}

}  // namespace

// ---- public ---------------------------------------------------------------------

DecodedSource DecodeSource(std::string_view data) {
    DecodedSource out;
    out.encoding = "utf-8";
    bool bom = data.substr(0, kUtf8Bom.size()) == kUtf8Bom;
    std::string_view body = bom ? data.substr(kUtf8Bom.size()) : data;
    Py_ssize_t base = bom ? (Py_ssize_t) kUtf8Bom.size() : 0;
    std::string cookie = FindCodingCookie(body);
    std::string encoding = "utf-8";
    if (!cookie.empty()) {
        encoding = CanonicalEncoding(cookie);
        if (encoding.empty()) {
            AddError(out, 1, 0, "unknown encoding: " + cookie);
            encoding = "utf-8";
        } else if (bom && encoding != "utf-8") {
            AddError(out, 1, 0, "encoding problem: utf-8 byte order mark with coding: " + cookie);
            encoding = "utf-8";
        }
    }
    if (encoding != "utf-8") {
        if (DecodeWithCodec(body, encoding, base, out))
            return out;
        AddError(out, 1, 0, "cannot decode with " + encoding + ", read as utf-8");
    }
    DecodeUtf8Lenient(body, base, out);
    return out;
}

std::vector<nb::ref<CLogicalLine>> BuildLogicalLines(std::string_view utf8) {
    CheckTextSize(utf8);
    return LogicalBuilder(utf8, {}).Run();
}

struct StepwiseLogicalBuild::State {
    explicit State(std::string_view utf8) : builder(utf8, {}) {}
    LogicalBuilder builder;
    bool built = false;
    std::vector<nb::ref<CLogicalLine>> logicals;  // once built
    std::vector<nb::object> objects;              // their Python objects made so far
};

StepwiseLogicalBuild::StepwiseLogicalBuild(std::string_view utf8) {
    CheckTextSize(utf8);
    fState = std::make_unique<State>(utf8);
}

StepwiseLogicalBuild::~StepwiseLogicalBuild() = default;

bool StepwiseLogicalBuild::Step(double end_time) {
    State &state = *fState;
    if (!state.built) {
        if (!state.builder.Step(end_time))
            return false;
        state.logicals = state.builder.TakeLogicals();
        state.built = true;
    }
    // Their Python objects are made in steps too (the list that takes them
    // finds them made): a large file has thousands, and each is an
    // allocation that the garbage collector counts.
    constexpr std::size_t kObjectsPerClockReading = 64;
    while (state.objects.size() < state.logicals.size()) {
        state.objects.push_back(nb::cast(state.logicals[state.objects.size()]));
        if (state.objects.size() % kObjectsPerClockReading == 0 && GetNowTime() >= end_time)
            return false;
    }
    return true;
}

std::vector<nb::ref<CLogicalLine>> StepwiseLogicalBuild::Take() { return std::move(fState->logicals); }

std::vector<nb::ref<CLogicalLine>> BuildLogicalLines(std::string_view utf8,
                                                     const std::vector<OpenScope> &open_scopes,
                                                     Py_ssize_t first_line) {
    CheckTextSize(utf8);
    std::vector<nb::ref<CLogicalLine>> out = LogicalBuilder(utf8, open_scopes).Run();
    for (nb::ref<CLogicalLine> &logical : out)
        ShiftLogicalLines(*logical, first_line - 1);
    return out;
}

std::string EOLBlindChecksum(std::string_view data) {
    // Line ends are made "\n" first (only a text with a "\r" needs a copy);
    // then the text is mixed in eight bytes at a time.
    std::string unified;
    if (std::memchr(data.data(), '\r', data.size())) {
        unified.reserve(data.size());
        for (size_t i = 0; i < data.size(); i++) {
            char c = data[i];
            if (c == '\r') {
                if (i + 1 < data.size() && data[i + 1] == '\n')
                    i++;
                c = '\n';
            }
            unified += c;
        }
        data = unified;
    }
    std::uint64_t hash = 1469598103934665603ULL ^ (std::uint64_t) data.size();
    auto mix = [&hash](std::uint64_t word) {
        hash ^= word;
        hash *= 0x9E3779B97F4A7C15ULL;
        hash ^= hash >> 29;
    };
    size_t i = 0;
    for (; i + 8 <= data.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, data.data() + i, 8);
        mix(word);
    }
    std::uint64_t last = 0;
    std::memcpy(&last, data.data() + i, data.size() - i);
    mix(last);
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", (unsigned long long) hash);
    return buf;
}

bool SameLogical(const CLogicalLine &a, const CLogicalLine &b, Py_ssize_t line_shift,
                 bool same_scope) {
    if (a.fKind != b.fKind || a.fFirstLine + line_shift != b.fFirstLine ||
        a.fLineCount != b.fLineCount || a.fIndentLevel != b.fIndentLevel ||
        a.fIncomplete != b.fIncomplete || a.fSpacesInIndent != b.fSpacesInIndent ||
        a.fTabsInIndent != b.fTabsInIndent || a.fTextColumn != b.fTextColumn ||
        a.fText != b.fText || a.fTokens.size() != b.fTokens.size())
        return false;
    auto equal = [](const nb::object &x, const nb::object &y) {
        int r = PyObject_RichCompareBool(x.ptr(), y.ptr(), Py_EQ);
        if (r < 0)
            throw nb::python_error();
        return r == 1;
    };
    return !same_scope ||
           (equal(a.fScopeName, b.fScopeName) && equal(a.fLocalScopeName, b.fLocalScopeName));
}

void ShiftLogicalLines(CLogicalLine &logical, Py_ssize_t line_shift) {
    if (line_shift == 0)
        return;
    logical.fFirstLine += line_shift;
    if (logical.fPositionsGiven.is_none())
        return;
    nb::list shifted;
    for (nb::handle pos : logical.fPositionsGiven)
        shifted.append(nb::make_tuple(nb::cast<Py_ssize_t>(pos[0]) + line_shift, pos[1]));
    logical.fPositionsGiven = shifted;
}

void MergeLogicalRange(nb::handle current, size_t lo, size_t hi,
                       const std::vector<nb::ref<CLogicalLine>> &fresh, Py_ssize_t line_shift,
                       nb::list &result, nb::list &added, nb::list &removed) {
    nb::list old = nb::borrow<nb::list>(current);
    auto old_at = [&old](size_t i) { return AsLogical(old[i], "a CLogicalLine in the held list"); };
    size_t n = hi - lo;
    size_t same = 0;
    while (same < n && same < fresh.size() && SameLogical(*old_at(lo + same), *fresh[same]))
        same++;
    size_t tail = 0;
    while (same + tail < n && same + tail < fresh.size() &&
           SameLogical(*old_at(hi - 1 - tail), *fresh[fresh.size() - 1 - tail], line_shift))
        tail++;
    for (size_t i = lo; i < lo + same; i++)
        result.append(old[i]);
    for (size_t i = lo + same; i + tail < hi; i++)
        removed.append(old[i]);
    for (size_t i = same; i + tail < fresh.size(); i++) {
        nb::object o = nb::cast(fresh[i]);
        result.append(o);
        added.append(o);
    }
    for (size_t i = hi - tail; i < hi; i++) {
        ShiftLogicalLines(*old_at(i), line_shift);
        result.append(old[i]);
    }
}

nb::list MergeLogicalLists(nb::handle current, const std::vector<nb::ref<CLogicalLine>> &fresh,
                           nb::list &added, nb::list &removed) {
    size_t old_n = nb::len(current);
    // The logicals behind the change are the same statements, moved by as
    // many lines as the change added or took away.
    Py_ssize_t shift = 0;
    if (old_n > 0 && !fresh.empty())
        shift = fresh.back()->fFirstLine -
                AsLogical(nb::borrow<nb::list>(current)[old_n - 1], "a CLogicalLine")->fFirstLine;
    nb::list result;
    MergeLogicalRange(current, 0, old_n, fresh, shift, result, added, removed);
    return result;
}

nb::list LogicalsToList(const std::vector<nb::ref<CLogicalLine>> &logicals) {
    PyObject *list = PyList_New((Py_ssize_t) logicals.size());
    if (!list)
        throw nb::python_error();
    nb::list result = nb::steal<nb::list>(list);
    for (size_t i = 0; i < logicals.size(); i++)
        PyList_SET_ITEM(list, (Py_ssize_t) i, nb::cast(logicals[i]).release().ptr());
    return result;
}

nb::list DecodeErrorsToList(const std::vector<DecodeError> &errors) {
    nb::list out;
    for (const DecodeError &e : errors)
        out.append(nb::make_tuple(e.line, e.offset, MakeStr(e.message)));
    return out;
}

nb::list BuildLogicalLinesFromPython(nb::handle source) {
    if (PyBytes_Check(source.ptr())) {
        DecodedSource decoded = DecodeSource(Utf8OfText(source, "source"));
        return LogicalsToList(BuildLogicalLines(decoded.utf8));
    }
    return LogicalsToList(BuildLogicalLines(Utf8OfText(source, "source")));
}

nb::tuple DecodeSourceFromPython(nb::bytes data) {
    DecodedSource decoded = DecodeSource(std::string_view(data.c_str(), data.size()));
    return nb::make_tuple(MakeStr(decoded.utf8), MakeStr(decoded.encoding),
                          DecodeErrorsToList(decoded.errors));
}

}  // namespace pysource

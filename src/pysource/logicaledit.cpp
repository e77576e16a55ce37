#include "pysource/logicaledit.h"

#include "pysource/scopename.h"
#include "pysource/srctokenizer.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace pysource {

namespace {

// A line end is "\n", "\r\n" or a "\r" alone, as the tokenizer counts them.
bool EndsLineAt(std::string_view text, size_t i) {
    return text[i] == '\n' || (text[i] == '\r' && (i + 1 >= text.size() || text[i + 1] != '\n'));
}

Py_ssize_t CountLineEnds(std::string_view text, size_t from, size_t to) {
    Py_ssize_t count = std::count(text.begin() + from, text.begin() + to, '\n');
    if (std::memchr(text.data() + from, '\r', to - from))
        for (size_t i = from; i < to; i++)
            count += text[i] == '\r' && EndsLineAt(text, i);
    return count;
}

// The length of the common start of `a` and `b`, compared a block at a time.
size_t CommonPrefix(std::string_view a, std::string_view b) {
    constexpr size_t kBlock = 64;
    size_t limit = std::min(a.size(), b.size());
    size_t n = 0;
    while (n + kBlock <= limit && std::memcmp(a.data() + n, b.data() + n, kBlock) == 0)
        n += kBlock;
    while (n < limit && a[n] == b[n])
        n++;
    return n;
}

// The length of the common end of `a` and `b`, at most `limit`.
size_t CommonSuffix(std::string_view a, std::string_view b, size_t limit) {
    constexpr size_t kBlock = 64;
    size_t n = 0;
    while (n + kBlock <= limit &&
           std::memcmp(a.data() + a.size() - n - kBlock, b.data() + b.size() - n - kBlock, kBlock) == 0)
        n += kBlock;
    while (n < limit && a[a.size() - 1 - n] == b[b.size() - 1 - n])
        n++;
    return n;
}

// The start of the line `lines_back` lines above the one that holds `pos`.
size_t LineStartAbove(std::string_view text, size_t pos, Py_ssize_t lines_back) {
    while (pos > 0) {
        if (EndsLineAt(text, pos - 1) && lines_back-- == 0)
            break;
        pos--;
    }
    return pos;
}

// The start of the line `lines_down` lines below the one that holds `pos`;
// the end of the text when there is none.
size_t LineStartBelow(std::string_view text, size_t pos, Py_ssize_t lines_down) {
    for (; pos < text.size() && lines_down > 0; pos++)
        if (EndsLineAt(text, pos))
            lines_down--;
    return lines_down > 0 ? text.size() : pos;
}

Py_ssize_t LastLine(const CLogicalLine &l) { return l.fFirstLine + l.fLineCount - 1; }

bool IsDefOrClass(const CLogicalLine &l) {
    return l.fKind == LogicalKind::kClassDef || l.fKind == LogicalKind::kFunctionDef;
}

// The normalised full name of the scope that `def` opens.
nb::object OpenedScopeName(const CLogicalLine &def) {
    std::string full(Utf8OfText(def.fScopeName, "fScopeName"));
    if (!full.empty())
        full += '.';
    full += Utf8OfText(def.fLocalScopeName, "fLocalScopeName");
    std::string normalized = symbolinfo::NormalizeScopeName(full);
    return nb::str(normalized.data(), normalized.size());
}

class EditRegion {
public:
    EditRegion(std::string_view old_text, std::string_view new_text, nb::handle old_list)
        : fOld(old_text), fNew(new_text), fList(nb::borrow<nb::list>(old_list)),
          fCount((size_t) PyList_GET_SIZE(fList.ptr())) {}

    bool Update(nb::list &result, nb::list &added, nb::list &removed);

private:
    CLogicalLine &At(size_t i) const { return *AsLogical(fList[i], "a CLogicalLine in the held list"); }
    void FindChange();
    bool FindScope();
    bool FindEnd();
    // Gives a comment of the part built again the scope of the same comment
    // in the old logicals; false when it is new.
    bool TakeOldCommentScope(CLogicalLine &comment) const;

    std::string_view fOld, fNew;
    nb::list fList;
    size_t fCount;
    size_t fPrefix = 0, fOldEnd = 0, fNewEnd = 0;  // the edit: old[prefix:old_end] -> new[prefix:new_end]
    Py_ssize_t fFirstLine = 0, fLastLine = 0;      // old lines the edit touches
    Py_ssize_t fLineShift = 0;
    size_t fTouched = 0;  // first logical that reaches the edit's first line
    size_t fScope = 0;    // the def or class whose body holds the edit
    size_t fStart = 0;    // first logical built again
    size_t fEnd = 0;      // first logical behind the part built again
};

void EditRegion::FindChange() {
    size_t prefix = CommonPrefix(fOld, fNew);
    size_t suffix = CommonSuffix(fOld, fNew, std::min(fOld.size(), fNew.size()) - prefix);
    // Never between the two bytes of a "\r\n".
    if (prefix > 0 && fOld[prefix - 1] == '\r')
        prefix--;
    if (suffix > 0 && fOld[fOld.size() - suffix] == '\n')
        suffix--;
    fPrefix = prefix;
    fOldEnd = fOld.size() - suffix;
    fNewEnd = fNew.size() - suffix;
    fFirstLine = 1 + CountLineEnds(fOld, 0, fPrefix);
    fLastLine = fFirstLine + (fOldEnd > fPrefix ? CountLineEnds(fOld, fPrefix, fOldEnd - 1) : 0);
    fLineShift = CountLineEnds(fNew, fPrefix, fNewEnd) - CountLineEnds(fOld, fPrefix, fOldEnd);
}

bool EditRegion::FindScope() {
    size_t lo = 0, hi = fCount;
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        if (LastLine(At(mid)) < fFirstLine)
            lo = mid + 1;
        else
            hi = mid;
    }
    fTouched = lo;
    // The innermost def or class above the edit that every statement
    // between them (and the first one the edit touches) lies inside.
    int inner_indent = fTouched < fCount && At(fTouched).fKind != LogicalKind::kComment
                           ? At(fTouched).fIndentLevel
                           : INT_MAX;
    for (size_t k = fTouched; k-- > 0;) {
        const CLogicalLine &l = At(k);
        if (l.fKind == LogicalKind::kComment)
            continue;
        if (IsDefOrClass(l) && l.fIndentLevel < inner_indent) {
            fScope = k;
            break;
        }
        inner_indent = std::min(inner_indent, l.fIndentLevel);
        if (k == 0)
            return false;
    }
    if (fTouched == 0 || !IsDefOrClass(At(fScope)) || fScope >= fTouched)
        return false;
    // The part begins on the line behind the header; statements behind the
    // header on its own line must end there.
    Py_ssize_t header_end = LastLine(At(fScope));
    fStart = fScope + 1;
    while (fStart < fCount && At(fStart).fFirstLine <= header_end) {
        if (LastLine(At(fStart)) > header_end)
            return false;
        fStart++;
    }
    return true;
}

bool EditRegion::FindEnd() {
    int indent = At(fScope).fIndentLevel;
    for (fEnd = fTouched; fEnd < fCount; fEnd++) {
        const CLogicalLine &l = At(fEnd);
        if (l.fKind == LogicalKind::kComment || l.fIndentLevel > indent)
            continue;
        // A statement that leaves the body: behind the edit, at the start
        // of its line, it ends the part; inside the edit, the edit isn't
        // inside the body.
        return l.fFirstLine > fLastLine && l.fTextColumn == 0;
    }
    return true;
}

bool EditRegion::TakeOldCommentScope(CLogicalLine &comment) const {
    Py_ssize_t old_line;
    if (comment.fFirstLine < fFirstLine)
        old_line = comment.fFirstLine;
    else if (comment.fFirstLine > fLastLine + fLineShift)
        old_line = comment.fFirstLine - fLineShift;
    else
        return false;
    for (size_t i = fStart; i < fEnd; i++) {
        const CLogicalLine &old = At(i);
        if (old.fFirstLine == old_line && old.fKind == LogicalKind::kComment &&
            SameLogical(old, comment, comment.fFirstLine - old_line, false)) {
            comment.fScopeName = old.fScopeName;
            return true;
        }
    }
    return false;
}

bool EditRegion::Update(nb::list &result, nb::list &added, nb::list &removed) {
    FindChange();
    if (!FindScope() || !FindEnd())
        return false;
    const CLogicalLine &scope = At(fScope);
    Py_ssize_t start_line = LastLine(scope) + 1;
    size_t start = LineStartAbove(fOld, fPrefix, fFirstLine - start_line);
    size_t old_end = fEnd < fCount ? LineStartBelow(fOld, fPrefix, At(fEnd).fFirstLine - fFirstLine)
                                   : fOld.size();
    size_t new_end = old_end + fNew.size() - fOld.size();
    if (old_end < fOldEnd)
        return false;
    // The scopes around the edit's scope aren't looked for (that would walk
    // back over their bodies): a comment that lies in one of them keeps the
    // scope it had, which only an unchanged comment has.
    std::vector<OpenScope> open{OpenScope{scope.fIndentLevel, OpenedScopeName(scope)}};
    bool at_module_level = Utf8OfText(scope.fScopeName, "fScopeName").empty();
    std::vector<nb::ref<CLogicalLine>> fresh =
        BuildLogicalLines(fNew.substr(start, new_end - start), open, start_line);
    // The part must stay inside the body and end where a statement ends.
    for (nb::ref<CLogicalLine> &l : fresh) {
        if (l->fIncomplete && fEnd < fCount)
            return false;
        if (l->fIndentLevel > scope.fIndentLevel)
            continue;
        if (l->fKind != LogicalKind::kComment)
            return false;
        if (!at_module_level && !TakeOldCommentScope(*l))
            return false;
    }
    nb::object head = nb::steal(PyList_GetSlice(fList.ptr(), 0, (Py_ssize_t) fStart));
    if (!head.is_valid())
        throw nb::python_error();
    result = nb::borrow<nb::list>(head);
    MergeLogicalRange(fList, fStart, fEnd, fresh, fLineShift, result, added, removed);
    if (fLineShift != 0)
        for (size_t i = fEnd; i < fCount; i++)
            ShiftLogicalLines(*AsLogical(PyList_GET_ITEM(fList.ptr(), (Py_ssize_t) i)), fLineShift);
    nb::object tail = nb::steal(PyList_GetSlice(fList.ptr(), (Py_ssize_t) fEnd, (Py_ssize_t) fCount));
    if (!tail.is_valid())
        throw nb::python_error();
    Py_ssize_t size = PyList_GET_SIZE(result.ptr());
    if (PyList_SetSlice(result.ptr(), size, size, tail.ptr()) < 0)
        throw nb::python_error();
    return true;
}

}  // namespace

bool UpdateLogicalsForEdit(std::string_view old_text, std::string_view new_text,
                           nb::handle old_list, nb::list &result, nb::list &added,
                           nb::list &removed) {
    if (!PyList_Check(old_list.ptr()))
        return false;
    return EditRegion(old_text, new_text, old_list).Update(result, added, removed);
}

}  // namespace pysource

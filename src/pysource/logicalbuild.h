// From the bytes of a Python file to its logical lines: decoding, joining
// physical lines into statements, statement kinds, indents and scope names.
// The logical line caches (file-backed and buffer-backed) share this pipeline.
//
// Rules of the logicals:
// - A logical is a statement: physical lines joined by backslash
//   continuation and by open brackets.  Comments inside or behind a statement
//   aren't tokens of it, but for a type comment (`# type: ...`) behind the
//   last line of an assignment, annotated assignment, for, with or def
//   header: that one is kept as the statement's last token, for the analyzer.
//   A comment on a line of its own is a kComment logical of its own, with the
//   comment's column as its indent.  Blank lines make nothing.
// - Statements separated by `;` are logicals of their own, with the indent of
//   the line they stand on.
// - A compound statement with its body on the same line (`def f(): return 1`,
//   `if x: y; z`, `class C: pass`) is split behind the colon of its header:
//   the header is one logical and each statement of the body another, whose
//   indent is the column of the body's first token, and at least one more than
//   the header's.  Indentation-based scope finding thus puts the body inside
//   the header's scope.
// - fIndentLevel is the column of the first token with tabs expanded to the
//   next multiple of 8 (a form feed resets the column); fSpacesInIndent and
//   fTabsInIndent tell what the indentation of that line is made of.
// - fFirstLine is 1-based; fLineCount counts the physical lines from the first
//   token to the last (a string spanning lines counts all of them).
// - fIncomplete marks a statement cut off by the end of the text (open
//   bracket, unterminated triple-quoted string, trailing backslash) or by a
//   `def`/`class` at the start of a line while brackets were still open (the
//   missing bracket then doesn't swallow the rest of the file).
// - Scope names.  fLocalScopeName of every def and class is its name, "|" and
//   its scope index N: the number of earlier definitions of the same name in
//   the same enclosing scope (the first `f` is "f|0", the second "f|1").
//   fScopeName is the dotted name of the enclosing scope in normalised form,
//   in which a component's "|0" is dropped and other indexes are kept: inside
//   the second `f` of class C it is "C.f|1", inside the first "C.f".  The
//   full name of a scope is fScopeName and fLocalScopeName joined by "." (no
//   dot at module level); normalising strips "|0" from every component.  A
//   statement belongs to the innermost def/class whose indent is less than
//   its own; a comment is placed the same way but never ends a scope.
#pragma once

#include "pysource/logicalline.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace pysource {

struct DecodeError {
    Py_ssize_t line;    // 1-based line of the offending byte
    Py_ssize_t offset;  // byte offset in the file
    std::string message;
};

struct DecodedSource {
    std::string utf8;      // the text, undecodable bytes replaced by U+FFFD
    std::string encoding;  // the encoding used ("utf-8" unless declared)
    std::vector<DecodeError> errors;
};

// Decodes the bytes of a Python file: a UTF-8 byte order mark, or a coding
// declaration on line 1 or 2 (decoded with Python's codecs), else UTF-8.
// Never fails: undecodable bytes are replaced and recorded, an unknown or
// conflicting declaration is recorded and UTF-8 is used.
DecodedSource DecodeSource(std::string_view data);

// The logical lines of a UTF-8 text, in source order.
std::vector<nb::ref<CLogicalLine>> BuildLogicalLines(std::string_view utf8);

// The same built in steps, for a caller with a deadline: Step(end_time) goes
// on until the text is done (true) or the clock reaches end_time (false),
// reading the clock every few hundred tokens, and makes their Python objects;
// Take() gives the logicals once done.  `utf8` must stay in place until then.
class StepwiseLogicalBuild {
public:
    explicit StepwiseLogicalBuild(std::string_view utf8);
    ~StepwiseLogicalBuild();
    StepwiseLogicalBuild(const StepwiseLogicalBuild &) = delete;
    StepwiseLogicalBuild &operator=(const StepwiseLogicalBuild &) = delete;
    bool Step(double end_time);
    std::vector<nb::ref<CLogicalLine>> Take();

private:
    struct State;
    std::unique_ptr<State> fState;
};

// A def or class whose body a part of a text lies in: its indent and its
// normalised full name.
struct OpenScope {
    int indent;
    nb::object name;
};
// The logicals of `utf8`, a part of a text that begins at the start of line
// `first_line`, outside brackets and strings, inside the bodies of
// `open_scopes` (outermost first).
std::vector<nb::ref<CLogicalLine>> BuildLogicalLines(std::string_view utf8,
                                                     const std::vector<OpenScope> &open_scopes,
                                                     Py_ssize_t first_line);

// Checksum of a text that is the same whatever its line ends (LF, CR LF, CR).
std::string EOLBlindChecksum(std::string_view data);

// True when two logicals stand for the same statement in the same scope (in
// any scope when `same_scope` is false), `b` `line_shift` lines below `a`.
bool SameLogical(const CLogicalLine &a, const CLogicalLine &b, Py_ssize_t line_shift = 0,
                 bool same_scope = true);

// Moves a logical by `line_shift` lines (its first line and kept positions).
void ShiftLogicalLines(CLogicalLine &logical, Py_ssize_t line_shift);

// The list that replaces `current` (a list of logicals) by `fresh`: the
// logicals ahead of the change and those behind it that are the same in both
// keep their old objects, so that what was learnt about them stays (those
// behind are moved to their new lines).  The others go to `removed` (old) and
// `added` (new).
// The same for the logicals current[lo:hi] replaced by `fresh`, appended to
// `result`; those behind the change are `line_shift` lines below their old
// place.
void MergeLogicalRange(nb::handle current, size_t lo, size_t hi,
                       const std::vector<nb::ref<CLogicalLine>> &fresh, Py_ssize_t line_shift,
                       nb::list &result, nb::list &added, nb::list &removed);
nb::list MergeLogicalLists(nb::handle current, const std::vector<nb::ref<CLogicalLine>> &fresh,
                           nb::list &added, nb::list &removed);

// Python views.
nb::list LogicalsToList(const std::vector<nb::ref<CLogicalLine>> &logicals);
nb::list DecodeErrorsToList(const std::vector<DecodeError> &errors);
// The logicals of a source given as str (used as it is) or bytes (decoded).
nb::list BuildLogicalLinesFromPython(nb::handle source);
// (text, encoding, errors) of a file's bytes.
nb::tuple DecodeSourceFromPython(nb::bytes data);

}  // namespace pysource

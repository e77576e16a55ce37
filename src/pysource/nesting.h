// Searching text at bracket nesting level zero, with string literals skipped
// whole.  Used on source expressions and on info strings, whose payloads keep
// every separator they hold inside brackets or strings.
//
// All positions are UTF-8 byte offsets.  The bytes the search reacts to are
// ASCII, and never occur inside a multi-byte sequence, so nothing is decoded.
#pragma once

#include "pysource/fastaccess.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace pysource::symbolinfo {

using pysource::IsClosingBracket;
using pysource::IsOpeningBracket;
inline bool IsQuote(char c) { return c == '"' || c == '\''; }

// The offset just past the string literal whose opening quote is at
// `quote_pos`, by the tokenizer's own string scanner (prefix letters before
// the quote, triple quotes, escapes).  An unterminated string ends at the end
// of its line (or at `end` for triple quotes), and `*terminated` (when given)
// says which case it was.
std::ptrdiff_t StringLiteralEnd(const char *text, std::ptrdiff_t quote_pos, std::ptrdiff_t end,
                                bool *terminated = nullptr);

// The offset past the bracket group or string that starts at `pos`: the
// bracket's balance back at zero, or the string closed; `end_pos` if the text
// ends first.
std::ptrdiff_t NonInlineNextNonNestedUtf8PtrIndex_(const char *utf8_ptr, std::ptrdiff_t pos,
                                                   std::ptrdiff_t end_pos);

// Steps through text at nesting level zero: the next index after `pos`, a
// whole bracket group or string taken as one step; -1 at or past `end_pos`.
// A closing bracket is an ordinary byte here.
inline std::ptrdiff_t NextNonNestedUtf8PtrIndex(const char *utf8_ptr, std::ptrdiff_t pos,
                                                std::ptrdiff_t end_pos) {
    if (pos >= end_pos)
        return -1;
    char c = utf8_ptr[pos];
    if (IsOpeningBracket(c) || IsQuote(c))
        return NonInlineNextNonNestedUtf8PtrIndex_(utf8_ptr, pos, end_pos);
    return pos + 1;
}

// A resumable search for `sub` at nesting level zero: the shared non-nested
// search over a view.  Brackets of the three kinds count alike; the balance
// carries over from one match to the next.  The texts are borrowed.
class CNestLevelSearch {
public:
    CNestLevelSearch(std::string_view text, std::string_view sub, std::ptrdiff_t start = 0,
                     std::ptrdiff_t end = -1);
    // The offset of the next match, or -1 when there is none.
    std::ptrdiff_t FindNext() { return FindNextNonNestedStruct(fState); }

private:
    tNonNestedStruct fState;
};

// The first match of `sub` at nesting level zero from `start`, or -1.
std::ptrdiff_t NonNestedFind(std::string_view text, std::string_view sub, std::ptrdiff_t start = 0,
                             std::ptrdiff_t end = -1);

// `text` split at every level-zero `sep`; `max_split` >= 0 limits the number
// of splits.  An empty separator gives the whole text as one part.
std::vector<std::string_view> NonNestedSplit(std::string_view text, std::string_view sep,
                                             std::ptrdiff_t max_split = -1);

// The offset of the bracket that closes the one opening at `open_pos`, or -1.
std::ptrdiff_t MatchingBracket(std::string_view text, std::ptrdiff_t open_pos);

// Whether the text scans from level zero back to level zero without a
// closing bracket below zero and without an unterminated string: such text
// can stand inside an info string payload as it is.
bool IsBalancedText(std::string_view text);
// The same, and no byte of `stops` at level zero.  In balanced text the
// level-zero bytes are those the non-nested search finds.
bool IsBalancedTextWithout(std::string_view text, std::string_view stops);

// `text` made fit to stand as one payload of an info string whatever it holds
// (it may come from a string annotation or a comment): itself when balanced
// and free of a level-zero `;`, else a quoted string literal of it.
std::string PayloadSafeText(std::string_view text);

}  // namespace pysource::symbolinfo

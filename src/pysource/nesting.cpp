#include "pysource/nesting.h"

#include "pysource/srctokenizer.h"

namespace pysource::symbolinfo {

std::ptrdiff_t StringLiteralEnd(const char *text, std::ptrdiff_t quote_pos, std::ptrdiff_t end,
                                bool *terminated) {
    bool error = false;
    std::ptrdiff_t after = FindStringLiteralEnd(text, quote_pos, end, &error);
    if (terminated)
        *terminated = !error;
    return after > quote_pos ? after : quote_pos + 1;
}

namespace {

struct GroupWalk {
    std::ptrdiff_t end;       // the offset past the group, or the end of the text
    bool closed;              // the group came back to level zero
    bool strings_terminated;  // every string in it was closed
};

// Walks the bracket group or string that starts at `pos`.
GroupWalk WalkGroup(const char *text, std::ptrdiff_t pos, std::ptrdiff_t end_pos) {
    std::ptrdiff_t nesting = 0;
    bool strings_terminated = true;
    while (pos < end_pos) {
        char c = text[pos];
        if (IsQuote(c)) {
            bool terminated = false;
            pos = StringLiteralEnd(text, pos, end_pos, &terminated);
            strings_terminated = strings_terminated && terminated;
        } else {
            ++pos;
            if (IsOpeningBracket(c))
                ++nesting;
            else if (IsClosingBracket(c))
                --nesting;
        }
        if (nesting <= 0)
            return GroupWalk{pos, nesting == 0, strings_terminated};
    }
    return GroupWalk{end_pos, false, strings_terminated};
}

}  // namespace

std::ptrdiff_t NonInlineNextNonNestedUtf8PtrIndex_(const char *utf8_ptr, std::ptrdiff_t pos,
                                                   std::ptrdiff_t end_pos) {
    return WalkGroup(utf8_ptr, pos, end_pos).end;
}

CNestLevelSearch::CNestLevelSearch(std::string_view text, std::string_view sub,
                                   std::ptrdiff_t start, std::ptrdiff_t end) {
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    if (end < 0 || end > size)
        end = size;
    if (start < 0)
        start = 0;
    InitNonNestedStruct(fState, text.data(), sub.data(), static_cast<std::ptrdiff_t>(sub.size()),
                        start > end ? end : start, end);
}

std::ptrdiff_t NonNestedFind(std::string_view text, std::string_view sub, std::ptrdiff_t start,
                             std::ptrdiff_t end) {
    return CNestLevelSearch(text, sub, start, end).FindNext();
}

std::vector<std::string_view> NonNestedSplit(std::string_view text, std::string_view sep,
                                             std::ptrdiff_t max_split) {
    std::vector<std::string_view> parts;
    CNestLevelSearch search(text, sep);
    std::size_t part_start = 0;
    std::ptrdiff_t splits = 0;
    while (max_split < 0 || splits < max_split) {
        std::ptrdiff_t at = search.FindNext();
        if (at < 0)
            break;
        parts.push_back(text.substr(part_start, static_cast<std::size_t>(at) - part_start));
        part_start = static_cast<std::size_t>(at) + sep.size();
        ++splits;
    }
    parts.push_back(text.substr(part_start));
    return parts;
}

std::ptrdiff_t MatchingBracket(std::string_view text, std::ptrdiff_t open_pos) {
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    if (open_pos < 0 || open_pos >= size || !IsOpeningBracket(text[open_pos]))
        return -1;
    GroupWalk walk = WalkGroup(text.data(), open_pos, size);
    return walk.closed ? walk.end - 1 : -1;
}

bool IsBalancedText(std::string_view text) { return IsBalancedTextWithout(text, {}); }

bool IsBalancedTextWithout(std::string_view text, std::string_view stops) {
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    for (std::ptrdiff_t pos = 0; pos < size;) {
        char c = text[pos];
        if (IsClosingBracket(c))
            return false;
        if (!IsOpeningBracket(c) && !IsQuote(c)) {
            if (stops.find(c) != std::string_view::npos)
                return false;
            ++pos;
            continue;
        }
        GroupWalk walk = WalkGroup(text.data(), pos, size);
        if (!walk.closed || !walk.strings_terminated)
            return false;
        pos = walk.end;
    }
    return true;
}

std::string PayloadSafeText(std::string_view text) {
    if (IsBalancedTextWithout(text, ";"))
        return std::string(text);
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\\' || c == '\'')
            quoted += '\\';
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        if (c == '\r') {
            quoted += "\\r";
            continue;
        }
        quoted += c;
    }
    quoted += '\'';
    return quoted;
}

}  // namespace pysource::symbolinfo

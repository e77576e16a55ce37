#include "pysource/nesting.h"

namespace pysource::symbolinfo {

std::ptrdiff_t StringLiteralEnd(const char *text, std::ptrdiff_t quote_pos, std::ptrdiff_t end,
                                bool *terminated) {
    const char quote = text[quote_pos];
    const bool triple =
        quote_pos + 2 < end && text[quote_pos + 1] == quote && text[quote_pos + 2] == quote;
    std::ptrdiff_t pos = quote_pos + (triple ? 3 : 1);
    while (pos < end) {
        char c = text[pos];
        if (c == '\\') {
            pos += 2;
            continue;
        }
        if (c == quote) {
            if (!triple) {
                if (terminated)
                    *terminated = true;
                return pos + 1;
            }
            if (pos + 2 < end && text[pos + 1] == quote && text[pos + 2] == quote) {
                if (terminated)
                    *terminated = true;
                return pos + 3;
            }
        } else if (c == '\n' && !triple) {
            break;
        }
        ++pos;
    }
    if (terminated)
        *terminated = false;
    return pos < end ? pos : end;
}

std::ptrdiff_t NonInlineNextNonNestedUtf8PtrIndex_(const char *utf8_ptr, std::ptrdiff_t pos,
                                                   std::ptrdiff_t end_pos) {
    std::ptrdiff_t nesting = 0;
    while (pos < end_pos) {
        char c = utf8_ptr[pos];
        if (IsQuote(c)) {
            std::ptrdiff_t after = StringLiteralEnd(utf8_ptr, pos, end_pos);
            pos = after > pos ? after : pos + 1;
        } else {
            ++pos;
            if (IsOpeningBracket(c))
                ++nesting;
            else if (IsClosingBracket(c))
                --nesting;
        }
        if (nesting <= 0)
            return pos;
    }
    return end_pos;
}

CNestLevelSearch::CNestLevelSearch(std::string_view text, std::string_view sub,
                                   std::ptrdiff_t start, std::ptrdiff_t end)
    : fText(text), fSub(sub) {
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    fEnd = (end < 0 || end > size) ? size : end;
    fPos = start < 0 ? 0 : start;
    if (sub.empty())
        fEnd = 0;  // an empty sequence finds nothing
}

std::ptrdiff_t CNestLevelSearch::FindNext() {
    const char *data = fText.data();
    const auto sub_len = static_cast<std::ptrdiff_t>(fSub.size());
    while (fPos < fEnd) {
        const std::ptrdiff_t at = fPos;
        const char c = data[fPos++];
        if (fNesting == 0 && c == fSub[0]) {
            if (sub_len == 1) {
                if (IsOpeningBracket(c))
                    fNesting = 1;
                else if (IsClosingBracket(c))
                    fNesting = -1;
                return at;
            }
            if (at + sub_len <= fEnd && fText.compare(at, fSub.size(), fSub) == 0) {
                for (char m : fSub) {
                    if (IsOpeningBracket(m))
                        ++fNesting;
                    else if (IsClosingBracket(m))
                        --fNesting;
                }
                fPos = at + sub_len;
                return at;
            }
        }
        if (IsQuote(c)) {
            std::ptrdiff_t after = StringLiteralEnd(data, at, fEnd);
            if (after > fPos)
                fPos = after;
        } else if (IsOpeningBracket(c)) {
            ++fNesting;
        } else if (IsClosingBracket(c)) {
            --fNesting;
        }
    }
    return -1;
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
    std::ptrdiff_t nesting = 0;
    for (std::ptrdiff_t pos = open_pos; pos < size;) {
        char c = text[pos];
        if (IsQuote(c)) {
            pos = StringLiteralEnd(text.data(), pos, size);
            continue;
        }
        if (IsOpeningBracket(c)) {
            ++nesting;
        } else if (IsClosingBracket(c) && --nesting == 0) {
            return pos;
        }
        ++pos;
    }
    return -1;
}

bool IsBalancedText(std::string_view text) {
    const char *data = text.data();
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    std::ptrdiff_t nesting = 0;
    for (std::ptrdiff_t pos = 0; pos < size;) {
        char c = data[pos];
        if (IsQuote(c)) {
            bool terminated = false;
            pos = StringLiteralEnd(data, pos, size, &terminated);
            if (!terminated)
                return false;
            continue;
        }
        if (IsOpeningBracket(c)) {
            ++nesting;
        } else if (IsClosingBracket(c)) {
            if (--nesting < 0)
                return false;
        }
        ++pos;
    }
    return nesting == 0;
}

}  // namespace pysource::symbolinfo

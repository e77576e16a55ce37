// Identifier folding: Python reads every identifier in its NFKC form, so
// `ｗｉｄｔｈ` (fullwidth letters) is the name `width` and `µ` (micro sign) is
// `μ` (Greek mu).  Logical lines give name tokens their folded spelling, so
// that every consumer sees one name for all its spellings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace pysource {

// Where the run of ASCII bytes that starts at `i` ends: eight bytes at a
// time while none has its high bit set.
inline size_t AsciiRunEnd(std::string_view text, size_t i) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080ull;
    while (i + sizeof(std::uint64_t) <= text.size()) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, sizeof word);
        if (word & kHighBits)
            break;
        i += sizeof word;
    }
    while (i < text.size() && (unsigned char) text[i] < 0x80)
        i++;
    return i;
}

// True when some byte of `text` lies outside ASCII.  ASCII names are
// already in NFKC form; only the others need a look.
inline bool HasNonAsciiByte(std::string_view text) {
    return AsciiRunEnd(text, 0) != text.size();
}

// The NFKC form of a UTF-8 name, or nothing when the name is already in
// that form.
std::optional<std::string> FoldedIdentifier(std::string_view name);

}  // namespace pysource

// Identifier folding: Python reads every identifier in its NFKC form, so
// `ｗｉｄｔｈ` (fullwidth letters) is the name `width` and `µ` (micro sign) is
// `μ` (Greek mu).  Logical lines give name tokens their folded spelling, so
// that every consumer sees one name for all its spellings.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pysource {

// True when some byte of `text` lies outside ASCII.  ASCII names are
// already in NFKC form; only the others need a look.
inline bool HasNonAsciiByte(std::string_view text) {
    for (char c : text)
        if ((unsigned char) c >= 0x80)
            return true;
    return false;
}

// The NFKC form of a UTF-8 name, or nothing when the name is already in
// that form.
std::optional<std::string> FoldedIdentifier(std::string_view name);

}  // namespace pysource

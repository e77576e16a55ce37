// Helpers on Python source text.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pysource {

// The kinds of a def's arguments, in the order Python allows them.
enum ArgTextKind : int {
    kArgPositionalOnly = 0,
    kArgNormal = 1,
    kArgStar = 2,         // *args
    kArgKeywordOnly = 3,
    kArgStarStar = 4,     // **kwargs
};

// One argument of a def as written; a string annotation's hint is the text
// inside its quotes.
struct CArgTextInfo {
    std::string name;
    int kind = kArgNormal;
    std::optional<std::string> type_hint;
    std::optional<std::string> default_text;
};

// The arguments of a def's argument text, without its parentheses
// ("self, a: int = 1, *args, **kw"; surrounding parentheses are taken off
// too).  Text that isn't an argument list gives an empty list.
std::vector<CArgTextInfo> ParseDefArgs(std::string_view text);

}  // namespace pysource

// Source expression text: trailers, arguments, atoms, names, float literals,
// token lists and def signatures.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pysource::symbolinfo {

// The base of an expression and its trailers: "a.b(c)[d]" gives "a", ".b",
// "(c)", "[d]".  No value when the text is no atom with trailers.
std::optional<std::vector<std::string>> SplitTrailers(std::string_view text);
// Arguments of a call's argument text ("a, b=1"), split at level-zero
// commas and stripped; a trailing comma adds no argument.
std::vector<std::string_view> SplitArguments(std::string_view arg_text);
bool IsAtomExpr(std::string_view text);
bool IsSingleNameToken(std::string_view text);
bool IsFloat(std::string_view text);

// Source text of a token list, with a space only where tokens would
// otherwise run together (and after commas, for readability).
std::string JoinTokens(const std::vector<std::string_view> &toks);
std::ptrdiff_t FindNestingEnd(const std::vector<std::string_view> &toks, std::ptrdiff_t i);
std::ptrdiff_t FindNonNestedTokenInList(const std::vector<std::string_view> &toks,
                                        std::ptrdiff_t start, std::string_view token);

// "(a, b) -> int" gives ("a, b", "int"); either part may have no value.
std::pair<std::optional<std::string_view>, std::optional<std::string_view>> SplitDefSignature(
    std::string_view signature);

std::string_view StripSpaces(std::string_view text);

}  // namespace pysource::symbolinfo

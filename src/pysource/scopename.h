// Dotted scope names: the empty name is the module; components are split at
// level-zero dots, so a subscript such as "Dict[a.b, c]" stays in one
// component.  A leaf may carry suffixes: a scope index ("f|1"), subscripts
// ("List[int]"), the instance mark ("C()") and the def-line mark ("f<def>").
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace pysource::symbolinfo {

inline constexpr std::string_view kModuleScopeName{};
inline constexpr std::string_view kWildcardScope{"*"};
inline constexpr std::string_view kScopeIndexSep{"|"};
inline constexpr std::string_view kClassInstanceSuffix{"()"};
inline constexpr std::string_view kDefLineScopeSuffix{"<def>"};
inline constexpr std::string_view kIterationSubscript{"[*]"};
inline constexpr std::string_view kSelfTypeVarName{"__Self__"};

std::string JoinTwoScopeNames(std::string_view parent, std::string_view child);
std::string_view LeafScopeName(std::string_view name);
std::string_view ParentScopeName(std::string_view name);
std::pair<std::string_view, std::string_view> ParentAndLeafScopeNames(std::string_view name);

// (name without the suffixes of its leaf, the suffixes as one text); the two
// joined give the name back.
std::pair<std::string_view, std::string_view> SplitScopeNameFromSuffixes(std::string_view name);

std::string RemoveAllScopeNameSubscripts(std::string_view name);

// The leaf's scope index; a leaf without one counts as index 0.
long LeafScopeIndex(std::string_view name);
// `name` with scope index `index` on its leaf, replacing one it has.
std::string AppendScopeIndex(std::string_view name, long index);
// `name` with every scope index 0 dropped ("C.f|0" -> "C.f"): one definition
// has one spelling.
std::string NormalizeScopeName(std::string_view name);

// The scope in which the text of the def line of scope `name` is read.
std::string DefLineScope(std::string_view name);
bool IsDefLineScope(std::string_view name);
std::string GetInstanceNameForClass(std::string_view name);
bool IsInstanceScope(std::string_view name);

}  // namespace pysource::symbolinfo

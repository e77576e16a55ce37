#include "pysource/scopename.h"

#include "pysource/nesting.h"

#include <charconv>

namespace pysource::symbolinfo {

namespace {

// Offset of the last level-zero "." of `name`, or -1.
std::ptrdiff_t LastComponentDot(std::string_view name) {
    CNestLevelSearch search(name, ".");
    std::ptrdiff_t last = -1;
    for (std::ptrdiff_t at = search.FindNext(); at >= 0; at = search.FindNext())
        last = at;
    return last;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsSuffixStart(char c) {
    return c == kScopeIndexSep[0] || c == '[' || c == '(' || c == kDefLineScopeSuffix[0];
}

// Offset in `leaf` of its scope index separator, or -1.
std::ptrdiff_t IndexSepInLeaf(std::string_view leaf) { return NonNestedFind(leaf, kScopeIndexSep); }

// `name` copied one level-zero step at a time (a bracket group or a string
// is one step), without the steps that `drop(data, pos, next)` refuses; it
// may move `next` on to drop more than the step.
template <typename Drop>
std::string CopyKeptSteps(std::string_view name, Drop drop) {
    std::string out;
    out.reserve(name.size());
    const char *data = name.data();
    const auto end = static_cast<std::ptrdiff_t>(name.size());
    for (std::ptrdiff_t pos = 0; pos < end;) {
        std::ptrdiff_t next = NextNonNestedUtf8PtrIndex(data, pos, end);
        if (!drop(data, pos, next))
            out.append(data + pos, static_cast<std::size_t>(next - pos));
        pos = next;
    }
    return out;
}

}  // namespace

std::string JoinTwoScopeNames(std::string_view parent, std::string_view child) {
    if (parent.empty())
        return std::string(child);
    if (child.empty())
        return std::string(parent);
    std::string joined;
    joined.reserve(parent.size() + 1 + child.size());
    joined.append(parent).append(1, '.').append(child);
    return joined;
}

std::string_view LeafScopeName(std::string_view name) {
    return ParentAndLeafScopeNames(name).second;
}

std::string_view ParentScopeName(std::string_view name) {
    return ParentAndLeafScopeNames(name).first;
}

std::pair<std::string_view, std::string_view> ParentAndLeafScopeNames(std::string_view name) {
    std::ptrdiff_t dot = LastComponentDot(name);
    if (dot < 0)
        return {name.substr(0, 0), name};
    auto at = static_cast<std::size_t>(dot);
    return {name.substr(0, at), name.substr(at + 1)};
}

std::pair<std::string_view, std::string_view> SplitScopeNameFromSuffixes(std::string_view name) {
    const std::size_t leaf_start = name.size() - LeafScopeName(name).size();
    const char *data = name.data();
    const auto end = static_cast<std::ptrdiff_t>(name.size());
    for (std::ptrdiff_t pos = static_cast<std::ptrdiff_t>(leaf_start); pos >= 0 && pos < end;
         pos = NextNonNestedUtf8PtrIndex(data, pos, end)) {
        if (IsSuffixStart(data[pos])) {
            auto at = static_cast<std::size_t>(pos);
            return {name.substr(0, at), name.substr(at)};
        }
    }
    return {name, name.substr(name.size())};
}

std::string RemoveAllScopeNameSubscripts(std::string_view name) {
    return CopyKeptSteps(name, [](const char *data, std::ptrdiff_t pos, std::ptrdiff_t &) {
        return data[pos] == '[';
    });
}

long LeafScopeIndex(std::string_view name) {
    std::string_view leaf = LeafScopeName(name);
    std::ptrdiff_t sep = IndexSepInLeaf(leaf);
    if (sep < 0)
        return 0;
    long index = 0;
    const char *first = leaf.data() + sep + 1;
    auto result = std::from_chars(first, leaf.data() + leaf.size(), index);
    return result.ec == std::errc() ? index : 0;
}

std::string AppendScopeIndex(std::string_view name, long index) {
    std::string_view leaf = LeafScopeName(name);
    const std::size_t leaf_start = name.size() - leaf.size();
    std::string out(name);
    std::ptrdiff_t sep = IndexSepInLeaf(leaf);
    std::string digits = std::to_string(index);
    if (sep < 0) {
        out.append(kScopeIndexSep).append(digits);
        return out;
    }
    std::size_t digits_start = leaf_start + static_cast<std::size_t>(sep) + 1;
    std::size_t digits_end = digits_start;
    while (digits_end < out.size() && (IsDigit(out[digits_end]) || out[digits_end] == '-'))
        ++digits_end;
    out.replace(digits_start, digits_end - digits_start, digits);
    return out;
}

std::string NormalizeScopeName(std::string_view name) {
    const auto end = static_cast<std::ptrdiff_t>(name.size());
    return CopyKeptSteps(name, [end](const char *data, std::ptrdiff_t pos, std::ptrdiff_t &next) {
        if (data[pos] != kScopeIndexSep[0] || pos + 1 >= end || data[pos + 1] != '0' ||
            (pos + 2 < end && IsDigit(data[pos + 2])))
            return false;
        next = pos + 2;
        return true;
    });
}

std::string DefLineScope(std::string_view name) {
    if (name.empty() || IsDefLineScope(name))
        return std::string(name);
    std::string out(name);
    out.append(kDefLineScopeSuffix);
    return out;
}

bool IsDefLineScope(std::string_view name) { return name.ends_with(kDefLineScopeSuffix); }

std::string GetInstanceNameForClass(std::string_view name) {
    if (IsInstanceScope(name))
        return std::string(name);
    std::string out(name);
    out.append(kClassInstanceSuffix);
    return out;
}

bool IsInstanceScope(std::string_view name) { return name.ends_with(kClassInstanceSuffix); }

}  // namespace pysource::symbolinfo

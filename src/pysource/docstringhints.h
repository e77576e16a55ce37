// Types that a function's docstring gives its parameters and its return
// value, in the widespread conventions: reST fields (`:type x: T`,
// `:param T x:`, `:rtype: T`), Epydoc fields (`@type x: T`, `@rtype: T`),
// numpydoc sections (`Parameters` / `Returns` over a dashed rule) and Google
// sections (`Args:` with `x (T): ...`, `Returns:` with `T: ...`).  Each type
// comes back as annotation text (`(str, int)` -> `tuple[str, int]`,
// `list of str` -> `list[str]`, `str or None` -> `str | None`); a type that
// isn't a plain type expression is left out.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pysource::docstringhints {

// (parameter name, annotation text) pairs in docstring order; the return
// type is under the name "return".  `literal` is the source text of the
// docstring's string token, prefix and quotes included; a bytes or
// formatted literal is no docstring and gives nothing.
std::vector<std::pair<std::string, std::string>> HintsFromDocstring(std::string_view literal);

// Annotation text for one type written in a docstring, or no value.
std::optional<std::string> AnnotationOfDocType(std::string_view text);

}  // namespace pysource::docstringhints

// How the records and caches see a scope and a location: the parts of a
// scope (its location object and its dotted name), a scope made back from
// those parts, and the URL form of a location, which is what the database
// stores.  Kept in one place so that the store does not care how scopes and
// locations are implemented.
#pragma once

#include <nanobind/nanobind.h>

#include <string>
#include <string_view>

namespace nb = nanobind;

namespace pysource {

// A scope seen as its two parts.  `loc` is compared by identity; `name` is
// the dotted scope name ("" for the module).
struct ScopeView {
    nb::object loc;
    nb::object name;             // the str object itself
    std::string_view name_view;  // UTF-8 view of `name`, valid while `name` lives
};

// The parts of `scope`; a TypeError if it has no location or no text name.
ScopeView ViewScope(nb::handle scope);

// The scope of `name` at `loc`, made the way the symbol vocabulary makes
// plain scopes.
nb::object MakeScope(nb::handle loc, std::string_view name);

// The URL text of a location (its `fUrl`).
std::string LocationUrl(nb::handle loc);

// The location object for a URL stored earlier; file URLs give the interned
// local file location of that path.
nb::object LocationFromUrl(std::string_view url);

// The local file path of a location, or "" when it is not a local file.
std::string LocationPath(nb::handle loc);

// The (interned) location of a local file.
nb::object LocalFileLocation(const std::string &path);

}  // namespace pysource

// The stored form of the Python data inside a record: maps of names to info
// bytes, sets of scopes and lists of words become compact byte strings
// (length-prefixed UTF-8 and bytes), and back.  Decoding checks every length
// against the blob, so a damaged blob gives InfoDatabaseError, never a read
// past its end.
#pragma once

#include <nanobind/nanobind.h>

#include <functional>
#include <string>
#include <string_view>

namespace nb = nanobind;

namespace pysource {

// dict str -> bytes.
nb::bytes EncodeNameMap(nb::handle map);
nb::dict DecodeNameMap(nb::handle blob, const std::string &db_path);

// An iterable of scopes; `url_of` gives the URL of a scope's location.
nb::bytes EncodeScopes(nb::handle scopes, const std::function<std::string(nb::handle loc)> &url_of);
// A frozenset of scopes, made by `make_scope(url, name)`.
nb::object DecodeScopes(nb::handle blob, const std::string &db_path,
                        const std::function<nb::object(std::string_view url, std::string_view name)>
                            &make_scope);

// An iterable of str.
nb::bytes EncodeStrings(nb::handle strings);
nb::object DecodeStrings(nb::handle blob, const std::string &db_path);  // a frozenset of str

}  // namespace pysource

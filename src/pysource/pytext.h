// Conversions between Python text and byte strings and UTF-8 views, for the
// Python face of the symbol vocabulary.
#pragma once

#include <nanobind/nanobind.h>

#include <cstddef>
#include <string_view>

namespace nb = nanobind;

namespace pysource::symbolinfo {

// The UTF-8 bytes of a str or bytes object, borrowed from it; a type error
// names `what` for anything else.
std::string_view TextView(nb::handle obj, const char *what);
bool IsText(nb::handle obj);  // str or bytes

nb::str ToStr(std::string_view utf8);
nb::bytes ToBytes(std::string_view data);
// The same value as `like`: str when `like` is str, bytes otherwise.
nb::object ToSameType(std::string_view utf8, nb::handle like);
// A str or bytes object as text (bytes decoded as UTF-8).
nb::str AsStr(nb::handle obj, const char *what);

// Offsets in a str: characters on the Python side, UTF-8 bytes in C++.
std::ptrdiff_t CharToByteOffset(std::string_view utf8, std::ptrdiff_t char_offset);
std::ptrdiff_t ByteToCharOffset(std::string_view utf8, std::ptrdiff_t byte_offset);

}  // namespace pysource::symbolinfo

// pysource.strutils: walking UTF-8 text by byte offsets.
//
// Source text is handled as UTF-8 bytes through a raw pointer and an explicit
// end offset; nothing here looks for a terminating zero, and no read happens
// at or past `end_pos` (nor before 0).  ASCII bytes are decided inline without
// a decode; only a non-ASCII byte leads to NonInlineUcs4CharAtUtf8Pos_.
//
// The pointer-level operations trust their caller to pass an `end_pos` inside
// the buffer.  The Python-facing forms in namespace pysource::strutils_py take
// the text object itself and check positions before they read.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <cstring>

namespace nb = nanobind;

namespace pysource {

using utf8_ptr = const char *;

// A UTF-8 buffer borrowed from a Python object: its bytes and their number.
struct Utf8Buffer {
    utf8_ptr ptr;
    Py_ssize_t len;
};

// True for an ASCII byte or the first byte of a multi-byte sequence.
inline bool IsUtf8LeadByte(unsigned char c) { return (c & 0xC0) != 0x80; }

// The UTF-8 bytes of a bytes, bytearray or str object, borrowed from it (for a
// str, its cached UTF-8 form, which lives as long as the string).  None or any
// other type is a TypeError; a str that can't be encoded passes its error on.
Utf8Buffer GetUtf8Buffer(nb::handle u);
inline utf8_ptr GetUtf8Ptr(nb::handle u) { return GetUtf8Buffer(u).ptr; }

// Decodes the multi-byte character that starts at `pos`; a malformed or
// truncated sequence is a ValueError.
std::uint32_t NonInlineUcs4CharAtUtf8Pos_(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos);

// `pos` lies in [0, end_pos): one unsigned comparison tests both bounds.
inline bool InText(Py_ssize_t pos, Py_ssize_t end_pos) {
    return (std::size_t) pos < (std::size_t) end_pos;
}

// The lead byte `diff` characters after (before, for a negative `diff`) the
// character that `pos` lies in; -1 or `end_pos` when that is outside the text.
inline Py_ssize_t AdjustUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t diff, Py_ssize_t end_pos) {
    auto lead_at = [&](Py_ssize_t at) {
        // Positions at or past the end are never read: they count as lead bytes.
        return at >= end_pos || IsUtf8LeadByte((unsigned char) p[at]);
    };
    while (pos < end_pos && pos >= 0) {
        if (IsUtf8LeadByte((unsigned char) p[pos]))
            break;
        --pos;
    }
    if (diff == 0)
        return pos;
    if (diff < 0) {
        for (Py_ssize_t n = -diff; n > 0; --n) {
            --pos;
            if (pos < 0)
                return -1;
            while (!lead_at(pos)) {
                --pos;
                if (pos < 0)
                    return -1;
            }
        }
        return pos;
    }
    Py_ssize_t count = 0;
    if (pos < -1)
        pos = -1;  // from before the text: its first character is the first step
    while (true) {
        ++pos;
        if (pos >= end_pos)
            return end_pos;
        if (IsUtf8LeadByte((unsigned char) p[pos]) && ++count == diff)
            return pos;
    }
}

// The code point at `pos`; 0 at or past `end_pos`.
inline std::uint32_t Ucs4CharAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    if (!InText(pos, end_pos))
        return 0;
    unsigned char c = (unsigned char) p[pos];
    if (c < 0x80)
        return c;
    return NonInlineUcs4CharAtUtf8Pos_(p, pos, end_pos);
}

// The C library's classes for ASCII, written out so that no locale applies.
inline bool AsciiIsSpace(std::uint32_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool AsciiIsDigit(std::uint32_t c) { return c >= '0' && c <= '9'; }
inline bool AsciiIsAlpha(std::uint32_t c) { return ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }
inline bool AsciiIsAlnum(std::uint32_t c) { return AsciiIsDigit(c) || AsciiIsAlpha(c); }

// A character class at a position: `ascii` decides an ASCII byte without a
// decode, `wide` the decoded non-ASCII character.
template <bool (*ascii)(std::uint32_t), bool (*wide)(std::uint32_t)>
inline bool ClassAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    if (!InText(pos, end_pos))
        return false;
    unsigned char c = (unsigned char) p[pos];
    if (c < 0x80)
        return ascii(c);
    return wide(NonInlineUcs4CharAtUtf8Pos_(p, pos, end_pos));
}

inline bool WideIsSpace(std::uint32_t u) { return u > 127 ? Py_UNICODE_ISSPACE(u) : AsciiIsSpace(u); }
inline bool WideIsDigit(std::uint32_t u) { return Py_UNICODE_ISDIGIT(u); }
// Alpha, decimal, digit or numeric.
inline bool WideIsAlnum(std::uint32_t u) { return Py_UNICODE_ISALNUM(u); }

inline bool IsSpaceAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    return ClassAtUtf8Pos<AsciiIsSpace, WideIsSpace>(p, pos, end_pos);
}
inline bool IsDigitAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    return ClassAtUtf8Pos<AsciiIsDigit, WideIsDigit>(p, pos, end_pos);
}
inline bool IsAlnumAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos) {
    return ClassAtUtf8Pos<AsciiIsAlnum, WideIsAlnum>(p, pos, end_pos);
}

// The test for code points above 127: the one-character string's own
// identifier test, and for a later character also the digits of other scripts.
bool NonAsciiIsIdentifierChar(std::uint32_t u, bool initial);

// Whether `u` can be part of a name: as its first character when `initial`.
inline bool IsIdentifierChar(std::uint32_t u, bool initial) {
    if (u <= 127)
        return AsciiIsAlpha(u) || u == '_' || (!initial && AsciiIsDigit(u));
    return NonAsciiIsIdentifierChar(u, initial);
}

inline bool IsIdentifierCharAtUtf8Pos(utf8_ptr p, Py_ssize_t pos, Py_ssize_t end_pos, bool initial) {
    if (!InText(pos, end_pos))
        return false;
    unsigned char c = (unsigned char) p[pos];
    if (c < 0x80)
        return IsIdentifierChar(c, initial);
    return IsIdentifierChar(NonInlineUcs4CharAtUtf8Pos_(p, pos, end_pos), initial);
}

// ValueError "Invalid start".
[[noreturn]] void RaiseInvalidStart();

// Offset of the first byte `c` at or after `start`, or -1.  `start` must lie
// in [0, length): even a search of an empty buffer is refused.
inline Py_ssize_t PtrFindByte(utf8_ptr p, Py_ssize_t length, signed char c, Py_ssize_t start) {
    if (start < 0 || start >= length)
        RaiseInvalidStart();
    const void *hit = std::memchr(p + start, (unsigned char) c, (std::size_t) (length - start));
    return hit ? (const char *) hit - p : -1;
}

// PtrFindByte on a bytes object; anything else is a TypeError.
Py_ssize_t BytesFindByte(nb::handle b, signed char c, Py_ssize_t start);

// A slice-style index made a position in [0, length].
inline Py_ssize_t AdjustPosArg(Py_ssize_t pos, Py_ssize_t length) {
    if (pos >= 0)
        return pos < length ? pos : length;
    pos += length;
    return pos < 0 ? 0 : pos;
}

// IndexError "string index out of range"; TypeError for a non-string.
[[noreturn]] void RaiseStringIndex();
[[noreturn]] void RaiseOrdAtType();

// The ordinal of the i-th character of a bytes (the byte) or str (the code
// point, counting code points); a negative `i` counts from the end.
inline std::uint32_t OrdAt(nb::handle s, Py_ssize_t i) {
    PyObject *o = s.ptr();
    if (PyBytes_Check(o)) {
        Py_ssize_t n = PyBytes_GET_SIZE(o);
        if (i < 0)
            i += n;
        if (!InText(i, n))
            RaiseStringIndex();
        return (unsigned char) PyBytes_AS_STRING(o)[i];
    }
    if (PyUnicode_Check(o)) {
        Py_ssize_t n = PyUnicode_GET_LENGTH(o);
        if (i < 0)
            i += n;
        if (!InText(i, n))
            RaiseStringIndex();
        return PyUnicode_READ_CHAR(o, i);
    }
    RaiseOrdAtType();
}

// Text conversions.  AsStr: str or bytes (decoded as UTF-8) to str.  AsUtf8:
// str, bytes or int (its decimal form) to UTF-8 bytes.  Other types raise.
nb::object AsStr(nb::handle x);
nb::object AsUtf8(nb::handle x);
// The decimal form of a signed size as bytes: the form info bytes use.
nb::bytes BytesForInteger(Py_ssize_t n);
// Length of `x` as UTF-8: bytes length, or the UTF-8 length of a str.
Py_ssize_t Utf8Len(nb::handle x);

// The UTF-8 bytes of the arguments one after the other; a None argument adds
// nothing (callers leave the trailing ones as None).  Each argument is taken
// as by AsUtf8.
nb::bytes Utf8Concat5(nb::handle s0, nb::handle s1, nb::handle s2, nb::handle s3, nb::handle s4);
inline nb::bytes Utf8Concat2(nb::handle s0, nb::handle s1) {
    return Utf8Concat5(s0, s1, nb::none(), nb::none(), nb::none());
}
inline nb::bytes Utf8Concat3(nb::handle s0, nb::handle s1, nb::handle s2) {
    return Utf8Concat5(s0, s1, s2, nb::none(), nb::none());
}
inline nb::bytes Utf8Concat4(nb::handle s0, nb::handle s1, nb::handle s2, nb::handle s3) {
    return Utf8Concat5(s0, s1, s2, s3, nb::none());
}

// The forms Python calls: the text object in place of the pointer, positions
// checked against it, so that no call from Python reads outside a buffer.
namespace strutils_py {

nb::bytes GetUtf8Ptr(nb::handle u);
Py_ssize_t AdjustUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t diff, Py_ssize_t end_pos);
std::uint32_t Ucs4CharAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos);
std::uint32_t NonInlineUcs4CharAtUtf8Pos_(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos);
bool IsSpaceAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos);
bool IsDigitAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos);
bool IsAlnumAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos);
bool IsIdentifierCharAtUtf8Pos(nb::handle text, Py_ssize_t pos, Py_ssize_t end_pos, bool initial);
// `c`: a byte as fastaccess's CharArg reads it.
Py_ssize_t PtrFindByte(nb::handle text, Py_ssize_t length, nb::handle c, Py_ssize_t start);
Py_ssize_t BytesFindByte(nb::handle b, nb::handle c, Py_ssize_t start);
bool IsUtf8LeadByte(nb::handle c);

}  // namespace strutils_py

}  // namespace pysource

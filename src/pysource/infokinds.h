// Info strings: the kinds and prefixes of singles, and the inline tests that
// the scanners run on every name.
//
// A single is ":" + one kind byte + payload, or a plain expression with no
// prefix at all.  Every prefix is exactly kPrefixLen bytes, so the payload of
// any single is single[kPrefixLen:].  Kind bytes are printable ASCII.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pysource::symbolinfo {

using Kind = char;

inline constexpr std::ptrdiff_t kPrefixLen = 2;
inline constexpr char kPrefixLead = ':';

// The logical index stored where none is known (-1 already means "before the
// body", so it can't serve).
inline constexpr std::ptrdiff_t kUnknownLogicalIndex = -2;

// One row per kind: the enum-like constant, its byte, its prefix.  The
// X-macro keeps the three in step and feeds the kind table (infokinds.cpp).
#define PYSOURCE_INFO_KINDS(X)                                         \
    X(Arg, 'a')                                                        \
    X(BuiltinClass, 'B')                                               \
    X(BuiltinModule, 'b')                                              \
    X(Called, 'c')                                                     \
    X(Class, 'C')                                                      \
    X(Conditional, '?')                                                \
    X(Decorator, '@')                                                  \
    X(DefLineScope, 'd')                                               \
    X(DiscardCallResultStatement, 'x')                                 \
    X(ExpressionEquiv, 'e')                                            \
    X(FromImport, 'F')                                                 \
    X(Function, 'f')                                                   \
    X(GenericTypeAlias, 'A')                                           \
    X(Get, 'g')                                                        \
    X(Global, 'G')                                                     \
    X(ImportAsName, 'n')                                               \
    X(Import, 'I')                                                     \
    X(InferredTypeHint, 'h')                                           \
    X(Instance, 'i')                                                   \
    X(LogicalIndex, '#')                                               \
    X(Method, 'm')                                                     \
    X(Module, 'M')                                                     \
    X(Nonlocal, 'N')                                                   \
    X(Self, 's')                                                       \
    X(Set, 'S')                                                        \
    X(SetTrailers, 'T')                                                \
    X(SetTypeHint, 'H')                                                \
    X(SpecificScope, '<')                                              \
    X(SpecificUrl, '^')                                                \
    X(TypeHint, 't')                                                   \
    X(TypeParameter, 'p')                                              \
    X(TypedLiteral, 'l')                                               \
    X(TypingModule, 'y')                                               \
    X(UnboundMethod, 'u')                                              \
    X(WithinExpr, 'w')

#define PYSOURCE_DECLARE_KIND(name, byte)                              \
    inline constexpr Kind k##name##Kind = byte;                        \
    inline constexpr char k##name##PrefixChars[] = {kPrefixLead, byte, 0}; \
    inline constexpr std::string_view k##name##Prefix{k##name##PrefixChars, 2};
PYSOURCE_INFO_KINDS(PYSOURCE_DECLARE_KIND)
#undef PYSOURCE_DECLARE_KIND

// The kind of a single without prefix: a source expression as text.
inline constexpr Kind kPlainEquivKind = '=';

// Prepended to a name to make it a plain equivalent: plain equivalents carry
// no prefix, so this is empty; it names the intent at the places that build one.
inline constexpr std::string_view kPlainEquivSpec{};

// The kind of info bytes.  `ibytes_ptr` points at a zero-terminated buffer
// (Python byte strings are), so reading the second byte of a lone ":" reads
// its terminator.
inline Kind GetInfoBytesKind(const char *ibytes_ptr) {
    if (ibytes_ptr[0] != kPrefixLead || ibytes_ptr[1] == '\0')
        return kPlainEquivKind;
    return ibytes_ptr[1];
}

// The same for a view that need not be zero-terminated.
inline Kind GetInfoBytesKind(std::string_view ibytes) {
    if (ibytes.size() < 2 || ibytes[0] != kPrefixLead || ibytes[1] == '\0')
        return kPlainEquivKind;
    return ibytes[1];
}

inline bool IsDefKind(Kind kind) {
    return kind == kFunctionKind || kind == kMethodKind || kind == kUnboundMethodKind;
}

inline bool IsDefOrClassKind(Kind kind) { return IsDefKind(kind) || kind == kClassKind; }

// Kinds that only say where the single behind them is to be read.
inline bool IsScopeMarkKind(Kind kind) {
    return kind == kSpecificUrlKind || kind == kSpecificScopeKind || kind == kDefLineScopeKind ||
           kind == kBuiltinModuleKind || kind == kTypingModuleKind;
}

inline bool IsTopLevelModuleScope(std::string_view scope_name) { return scope_name.empty(); }

// A real file's modification stamp is above 1; 0.0 stands for "doesn't
// exist" and is accepted only when asked.  NaN fails both comparisons.
inline bool ValidOnDiskMtime(double disk_mtime, bool not_exist_ok) {
    if (disk_mtime > 1.0)
        return true;
    return not_exist_ok && disk_mtime == 0.0;
}

// A table of 256 values indexed by kind byte.
class CKindFilter {
public:
    CKindFilter() = default;
    template <typename Kinds>
    explicit CKindFilter(const Kinds &kinds) {
        for (Kind kind : kinds)
            Set(kind, 1);
    }
    void Set(Kind kind, std::uint32_t value) { fTable[Index(kind)] = value; }
    std::uint32_t Value(Kind kind) const { return fTable[Index(kind)]; }
    bool KindMatches(Kind kind) const { return fTable[Index(kind)] != 0; }

private:
    // Kinds are ASCII; the byte is read as signed, so a byte at or above 0x80
    // lands in the upper half of the table instead of past its end.
    static std::size_t Index(Kind kind) {
        return static_cast<std::size_t>(static_cast<int>(static_cast<signed char>(kind)) + 128);
    }
    std::uint32_t fTable[256] = {};
};

// The table of every kind: its constant name (without "k" and "Kind"), its
// byte and a short description, for documentation and the decoder.
struct KindRow {
    const char *name;
    Kind kind;
    const char *meaning;
};
const KindRow *KindTable(std::size_t *count);
// The row of a kind byte, or nullptr for a byte that is no kind.
const KindRow *FindKindRow(Kind kind);

}  // namespace pysource::symbolinfo

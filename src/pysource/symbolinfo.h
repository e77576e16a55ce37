// The symbol vocabulary as Python sees it: every operation on Python text,
// byte strings and objects, over the C++ layers below.  C++ callers that
// hold UTF-8 views use those layers directly:
//   infokinds.h    kinds, prefixes, GetInfoBytesKind, IsDefKind, CKindFilter, ...
//   nesting.h      level-zero search and split, NextNonNestedUtf8PtrIndex
//   exprtext.h     SplitTrailers, SplitArguments, JoinTokens, IsFloat, ...
//   scopename.h    dotted scope-name operations and their constants
//   packedops.h    builders and unpackers of every payload
//   scope.h        CScope, CFullyScopedName
//   resolvedinfo.h CSingleResolvedInfo
//   infodescribe.h DescribeInfo
#pragma once

#include "pysource/exprtext.h"
#include "pysource/infodescribe.h"
#include "pysource/infokinds.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scope.h"
#include "pysource/scopename.h"

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace pysource::symbolinfo {

// The typing module is reachable in hints under this symbol.
inline constexpr std::string_view kTypingModuleSymbolStr{"__typing__"};
inline constexpr std::string_view kTypingModuleSymbolDotStr{"__typing__."};
inline constexpr std::string_view kTypingModuleSymbolDotAnyStr{"__typing__.Any"};

// Kinds: a kind is one byte; Python sees it as a bytes object of length 1.
nb::bytes KindBytes(Kind kind);
Kind KindFromPy(nb::handle kind);  // a byte as fastaccess_py::CharArg reads it
nb::bytes PyGetInfoBytesKind(nb::handle ibytes);
bool PyIsDefKind(nb::handle kind);
bool PyIsDefOrClassKind(nb::handle kind);
bool PyIsTopLevelModuleScope(nb::handle scope_name);
void InitKindFilter(CKindFilter *self, nb::handle kinds);
bool PyKindMatches(const CKindFilter &filter, nb::handle kind);
nb::list KindTableRows();  // (constant name, kind bytes, meaning) per kind

// Text at nesting level zero.  Offsets are characters for str and bytes for
// bytes; the result has the type of `s`.
std::ptrdiff_t PyNextNonNestedUtf8PtrIndex(nb::handle text, std::ptrdiff_t pos, std::ptrdiff_t end_pos);
std::ptrdiff_t PyNonInlineNextNonNestedUtf8PtrIndex(nb::handle text, std::ptrdiff_t pos,
                                                    std::ptrdiff_t end_pos);
nb::list PyNonNestedSplit(nb::handle s, nb::handle sep, std::ptrdiff_t max_split = -1);
std::ptrdiff_t PyNonNestedFind(nb::handle s, nb::handle sub, std::ptrdiff_t start = 0,
                               std::ptrdiff_t end = -1);
std::ptrdiff_t PyNonNestedFindBytes(nb::handle s, nb::handle sub, std::ptrdiff_t start = 0,
                                    std::ptrdiff_t end = -1);

// Expressions and tokens.
nb::object PySplitTrailers(nb::handle s);
nb::list PySplitArguments(nb::handle s);
bool PyIsAtomExpr(nb::handle s);
bool PyIsSingleNameToken(nb::handle s);
bool PyIsFloat(nb::handle s);
nb::bytes PyJoinTokens(nb::handle toks);
std::ptrdiff_t PyFindNestingEnd(nb::handle toks, std::ptrdiff_t i);
std::ptrdiff_t PyFindNonNestedTokenInList(nb::handle toks, std::ptrdiff_t start, nb::handle token);
nb::tuple PySplitDefSignature(nb::handle signature);

// Scope names (text in, text out).
nb::str PyJoinTwoScopeNames(nb::handle parent, nb::handle child);
nb::str PyLeafScopeName(nb::handle name);
nb::str PyParentScopeName(nb::handle name);
nb::tuple PyParentAndLeafScopeNames(nb::handle name);
nb::tuple PySplitScopeNameFromSuffixes(nb::handle name);
nb::str PyRemoveAllScopeNameSubscripts(nb::handle name);
nb::str PyAppendScopeIndex(nb::handle name, long index);
long PyLeafScopeIndex(nb::handle name);
nb::str PyNormalizeScopeName(nb::handle name);
nb::str PyDefLineScope(nb::handle name);
nb::str PyGetInstanceNameForClass(nb::handle name);
bool PyIsInstanceScope(nb::handle name);

// Records unpacked from singles.
struct CDefInfo : DefInfo {
    CDefInfo() = default;
    explicit CDefInfo(DefInfo info) : DefInfo(std::move(info)) {}
    nb::bytes KindBytes_() const { return KindBytes(kind); }
    bool IsMethod() const { return kind != kFunctionKind; }
    nb::tuple SplitSignature() const;
};
struct CUnpackedClassInfo : ClassInfo {
    CUnpackedClassInfo() = default;
    explicit CUnpackedClassInfo(ClassInfo info) : ClassInfo(std::move(info)) {}
    std::vector<std::string> Bases() const { return SplitDeclArguments(arg_decl); }
    std::vector<DeclTypeParam> TypeParams() const;
};
using CUnpackedDeclTypeParam = DeclTypeParam;

// Singles.
nb::bytes PyBuildArgInfo(long long arg_i, nb::handle name);
nb::tuple PyUnpackArgInfo(nb::handle name);
bool PyIsIndexedArgName(nb::handle name);
nb::bytes PyBuildDecoratorInfo(long long i, nb::handle dotted_name);
nb::tuple PyUnpackDecoratorInfo(nb::handle ibytes);
nb::bytes PyBuildLiteralInfo(nb::handle class_name, nb::handle value);
nb::tuple PyUnpackLiteralInfo(nb::handle ibytes);
nb::bytes PyEncodeStringLiteral(nb::handle text);
nb::bytes PyBuildConditionalInfo(nb::handle condition, nb::handle info);
nb::tuple PyUnpackConditionalInfo(nb::handle ibytes);
nb::bytes PyBuildDefInfoStr(nb::handle prefix, nb::handle full_name, nb::handle type_params,
                            nb::handle arg_decl, nb::handle return_text, nb::handle decorators);
CDefInfo PyUnpackDefInfoStr(nb::handle ibytes);
nb::bytes PyPackClassInfo(nb::handle full_name, nb::handle type_params, nb::handle arg_decl,
                          nb::handle decorators);
CUnpackedClassInfo PyUnpackClassInfo(nb::handle ibytes);
nb::bytes PyPackCalled(nb::handle suffix, nb::handle arg_text);
nb::tuple PyUnpackCalled(nb::handle ibytes);
nb::bytes PyAppendLogicalIndexBytesSuffix(nb::handle istr, nb::handle logical_i_bytes);
nb::tuple PySplitLogicalIndexSuffix(nb::handle istr);
nb::object PyUnpackLogicalIndex(nb::handle ibytes);
nb::str PyUnpackTypeHint(nb::handle ibytes);
nb::bytes PyBuildTypeParameterInfo(nb::handle name, nb::handle param_kind, nb::handle bound,
                                   nb::handle default_text);
CUnpackedDeclTypeParam PyUnpackTypeParameterInfo(nb::handle ibytes);
nb::bytes PyBuildFieldsInfo(nb::handle kind, nb::handle fields);
nb::list PyUnpackFieldsInfo(nb::handle ibytes);

// Scope and location marks, compounds.
nb::bytes PyPrefixWithLocationAndScope(nb::handle info, nb::handle loc, nb::handle scope_name);
// The location of a URL through basekit.location, imported when first
// needed; None when that module isn't there.
nb::object LocationForUrl(nb::handle url);
// (location, scope name, rest) of the leading URL and scope marks; with
// `as_location` false, or no location module, the URL stays text.
nb::tuple PyUnpackLocationAndScope(nb::handle ibytes, bool as_location = true);
nb::tuple PyPopLeadingPrefixes(nb::handle ibytes);
nb::bytes PyJoinInfoBytes(nb::handle a, nb::handle b);
nb::object PyScopeNameDefinedByInfo(nb::handle ibytes);
bool PyInfoDefinesScope(nb::handle ibytes);
nb::str PyDescribeInfo(nb::handle ibytes);

// The operation groups reached through the module's singletons.
class CPackedOps_ {
public:
    virtual ~CPackedOps_() = default;
    virtual nb::bytes PackClassInfo(nb::handle full_name, nb::handle type_params,
                                    nb::handle arg_decl, nb::handle decorators);
    virtual CUnpackedClassInfo UnpackClassInfo(nb::handle ibytes);
    virtual nb::bytes PackDefInfo(nb::handle prefix, nb::handle full_name, nb::handle type_params,
                                  nb::handle arg_decl, nb::handle return_text, nb::handle decorators);
    virtual CDefInfo UnpackDefInfo(nb::handle ibytes);
    virtual nb::bytes PackCalled(nb::handle suffix, nb::handle arg_text);
    virtual nb::tuple UnpackCalled(nb::handle called_ibytes);
    virtual nb::bytes AppendLogicalIndexBytesSuffix(nb::handle istr, nb::handle logical_i_bytes);
    virtual nb::tuple SplitLogicalIndexSuffix(nb::handle istr);
    virtual nb::object UnpackLogicalIndex(nb::handle ibytes);
    virtual nb::str UnpackTypeHint(nb::handle ibytes);
    virtual nb::tuple UnpackArgInfo(nb::handle ibytes);
    virtual nb::tuple UnpackDecoratorInfo(nb::handle ibytes);
    virtual nb::tuple UnpackLiteralInfo(nb::handle ibytes);
    virtual nb::tuple UnpackConditionalInfo(nb::handle ibytes);
    virtual nb::tuple UnpackLocationAndScope(nb::handle ibytes, bool as_location = true);
    virtual CUnpackedDeclTypeParam UnpackTypeParameterInfo(nb::handle ibytes);
    virtual nb::list UnpackFieldsInfo(nb::handle ibytes);
};

class CExprOps_ {
public:
    nb::object SplitTrailers(nb::handle s) { return PySplitTrailers(s); }
    nb::list SplitArguments(nb::handle s) { return PySplitArguments(s); }
    bool IsAtomExpr(nb::handle s) { return PyIsAtomExpr(s); }
    bool IsSingleNameToken(nb::handle s) { return PyIsSingleNameToken(s); }
    bool IsFloat(nb::handle s) { return PyIsFloat(s); }
    nb::bytes JoinTokens(nb::handle toks) { return PyJoinTokens(toks); }
    nb::tuple SplitDefSignature(nb::handle s) { return PySplitDefSignature(s); }
    nb::bytes EncodeStringLiteral(nb::handle s) { return PyEncodeStringLiteral(s); }
};

class CScopeNameOps_ {
public:
    nb::str Join(nb::handle parent, nb::handle child) { return PyJoinTwoScopeNames(parent, child); }
    nb::str Leaf(nb::handle name) { return PyLeafScopeName(name); }
    nb::str Parent(nb::handle name) { return PyParentScopeName(name); }
    nb::tuple ParentAndLeaf(nb::handle name) { return PyParentAndLeafScopeNames(name); }
    nb::tuple SplitFromSuffixes(nb::handle name) { return PySplitScopeNameFromSuffixes(name); }
    nb::str RemoveAllSubscripts(nb::handle name) { return PyRemoveAllScopeNameSubscripts(name); }
    nb::str AppendScopeIndex(nb::handle name, long i) { return PyAppendScopeIndex(name, i); }
    long LeafScopeIndex(nb::handle name) { return PyLeafScopeIndex(name); }
    nb::str Normalize(nb::handle name) { return PyNormalizeScopeName(name); }
    nb::str DefLineScope(nb::handle name) { return PyDefLineScope(name); }
    nb::str InstanceName(nb::handle name) { return PyGetInstanceNameForClass(name); }
    bool IsInstanceScope(nb::handle name) { return PyIsInstanceScope(name); }
};

// The names of the built-in types that literals and hints use.
class CBuiltinTypeNames_ {
public:
    static const std::vector<std::string_view> &Names();
    nb::frozenset AllNames() const;
    bool IsBuiltinTypeName(nb::handle name) const;
};

// The one shared empty frozenset of the process (kEmptyFrozenSet), made on
// first use and held for the life of the process.
nb::handle EmptyFrozenset();

}  // namespace pysource::symbolinfo

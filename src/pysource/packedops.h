// Builders and unpackers of info-string payloads.
//
// Most payloads are a list of fields joined by "," at nesting level zero; a
// wrapping single (conditional, scope and location marks) ends with the
// single it wraps.  A field holds text in one of three forms:
//   - empty: no value;
//   - the text itself, when it is balanced (brackets and strings close, see
//     IsBalancedText), holds no level-zero "," or ";" and doesn't start with
//     "%" (nor, in the first field, with a quote): source text such as
//     "List[int]" or "(a, b=';')" stays readable;
//   - "%" + the text with "%,;()[]{}\"'" and control bytes escaped as %XX:
//     any other text, the empty text ("%") included.
// So ";" and "," never occur at level zero inside a field, and a compound
// splits with NonNestedSplit at its singles' borders whatever the texts hold.
#pragma once

#include "pysource/infokinds.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pysource::symbolinfo {

using OptText = std::optional<std::string>;
using OptView = std::optional<std::string_view>;

inline constexpr char kFieldSep = ',';
inline constexpr char kFieldEscape = '%';

// Raises std::invalid_argument on a malformed escape.
OptText DecodeField(std::string_view field);

// prefix + fields joined by kFieldSep.
std::string PackFields(std::string_view prefix, const std::vector<OptView> &fields);
// prefix + fields + kFieldSep + the wrapped single (prefix + wrapped when
// there are no fields).
std::string PackWrapping(std::string_view prefix, const std::vector<OptView> &fields,
                         std::string_view wrapped);

struct UnpackedFields {
    std::vector<OptText> fields;
    std::string_view rest;  // the wrapped single, for wrapping kinds
};
// The payload's fields; with `wrapped_after` >= 0, the first `wrapped_after`
// fields and the rest as the wrapped single.
UnpackedFields UnpackFields(std::string_view single, std::ptrdiff_t wrapped_after = -1);

// The logical-index suffix: kLogicalIndexPrefix + decimal, at the very end.
std::string AppendLogicalIndexBytesSuffix(std::string_view istr, std::string_view logical_i_bytes);
struct SuffixSplit {
    std::string_view single;                 // without the suffix
    std::optional<long long> logical_index;  // no value without a suffix
};
SuffixSplit SplitLogicalIndexSuffix(std::string_view istr);

// A decimal logical index payload ("" gives no value).
std::optional<long long> ParseLogicalIndex(std::string_view digits);

// Singles.
std::string BuildDefInfoStr(std::string_view prefix, std::string_view full_name,
                            OptView type_params, OptView arg_decl, OptView return_text,
                            const std::vector<std::string_view> &decorators);
std::string PackClassInfo(std::string_view full_name, OptView type_params, OptView arg_decl,
                          const std::vector<std::string_view> &decorators);
std::string PackCalled(std::string_view suffix, std::string_view arg_text);
std::string BuildArgInfo(long long arg_i, OptView name);
std::string BuildDecoratorInfo(long long i, std::string_view dotted_name);
std::string BuildLiteralInfo(std::string_view class_name, OptView value);
std::string BuildConditionalInfo(std::string_view condition, std::string_view info);
std::string BuildTypeParameterInfo(std::string_view name, std::string_view param_kind,
                                   OptView bound, OptView default_text);
// A quoted literal of `text` that reads back as the same text.
std::string EncodeStringLiteral(std::string_view text);

// A single of a kind whose payload is a list of fields (imports, modules,
// built-in classes, ...): the generic builder behind the named ones.
std::string BuildFieldsInfo(Kind kind, const std::vector<OptView> &fields);

struct DefInfo {
    Kind kind = kFunctionKind;
    std::string scope_name;
    OptText type_params;
    OptText arg_decl;
    OptText return_hint;
    std::vector<std::string> decorators;
    std::string Signature() const;
};
struct ClassInfo {
    std::string full_name;
    OptText type_params;
    OptText arg_decl;
    std::vector<std::string> decorators;
};
// One declared type parameter of "[T: int = str, *Ts, **P]".
struct DeclTypeParam {
    std::string name;
    std::string param_kind;  // "TypeVar", "TypeVarTuple" or "ParamSpec"
    OptText bound;
    OptText default_text;
};
std::vector<DeclTypeParam> ParseDeclTypeParams(std::string_view type_params);
// The arguments of a declaration "(a, b)" without its parentheses.
std::vector<std::string> SplitDeclArguments(OptView arg_decl);

// One parameter of a def's declaration.
struct DeclParam {
    std::string name;
    int stars = 0;                 // 1 for `*args`, 2 for `**kwargs`
    bool hinted = false;
    bool positional_only = false;  // before a `/`
    bool keyword_only = false;     // after a `*` or `*args`
};
// The parameters of a declaration in the order of their positions, the
// positions that argument entries number (a bare `*` or `/` holds none).
std::vector<DeclParam> DeclParameters(OptView arg_decl);

struct ArgInfo {
    long long index = 0;
    OptText name;
};
struct LiteralInfo {
    std::string class_name;
    OptText value;
};

// The bare single under scope marks, conditionals and the logical-index
// suffix, which the unpackers below look through.
std::string_view BareSingle(std::string_view single);

// Each raises std::invalid_argument when the single isn't of its kind.
DefInfo UnpackDefInfo(std::string_view single);
// Class singles, and instance singles that carry a class payload.
ClassInfo UnpackClassInfo(std::string_view single);
std::pair<std::string, std::string> UnpackCalled(std::string_view single);
std::optional<ArgInfo> UnpackArgInfo(std::string_view single);  // no value: not an arg single
std::pair<long long, std::string> UnpackDecoratorInfo(std::string_view single);
LiteralInfo UnpackLiteralInfo(std::string_view single);
std::pair<std::string, std::string_view> UnpackConditionalInfo(std::string_view single);
std::string UnpackTypeHint(std::string_view single);
DeclTypeParam UnpackTypeParameterInfo(std::string_view single);

// Scope and location marks.
struct ScopeMark {
    Kind kind;             // one of the IsScopeMarkKind kinds
    OptText text;          // the URL or scope name; no value for the module marks
    std::string_view rest; // what the mark applies to
};
std::optional<ScopeMark> UnpackScopeMark(std::string_view single);
// (the leading marks, the bare single behind them).
std::pair<std::string_view, std::string_view> PopLeadingPrefixes(std::string_view ibytes);
// `info` marked as read in file `url` (no value: the file it's read in) and
// scope `scope_name` (no value: no scope mark).  A mark already on `info`
// is closer to it and wins over the one given.
std::string PrefixWithUrlAndScope(std::string_view info, OptView url, OptView scope_name);

std::string JoinInfoBytes(std::string_view a, std::string_view b);

// The scope that a def or class single defines, looking through conditionals.
std::optional<std::string> ScopeNameDefinedByInfo(std::string_view ibytes);
// Whether any single of the compound defines a scope.
bool InfoDefinesScope(std::string_view ibytes);

bool IsIndexedArgName(std::string_view name);

}  // namespace pysource::symbolinfo

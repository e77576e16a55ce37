#include "pysource/symbolinfo.h"

#include "pysource/fastaccess.h"
#include "pysource/pytext.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <string>

namespace pysource::symbolinfo {

namespace {

OptView OptTextArg(nb::handle obj, const char *what) {
    if (obj.is_none())
        return std::nullopt;
    return TextView(obj, what);
}

nb::object TextOrNone(const OptText &text) { return text ? nb::object(ToStr(*text)) : nb::none(); }
nb::object TextOrNone(const std::optional<std::string_view> &text) {
    return text ? nb::object(ToStr(*text)) : nb::none();
}

// A list of str/bytes items, held so that the views stay valid.
struct TextList {
    nb::list items;
    std::vector<std::string_view> views;
    TextList(nb::handle iterable, const char *what) {
        if (!iterable.is_none()) {
            items = nb::list(iterable);
            for (nb::handle item : items)
                views.push_back(TextView(item, what));
        }
    }
};

// Offsets on the Python side: characters for str, bytes for bytes.
std::ptrdiff_t ToByteOffset(nb::handle s, std::string_view text, std::ptrdiff_t offset) {
    if (offset <= 0)
        return offset < 0 ? -1 : 0;
    if (PyUnicode_Check(s.ptr()) && !PyUnicode_IS_ASCII(s.ptr()))
        return CharToByteOffset(text, offset);
    return offset;
}

std::ptrdiff_t FromByteOffset(nb::handle s, std::string_view text, std::ptrdiff_t offset) {
    if (offset < 0 || !PyUnicode_Check(s.ptr()) || PyUnicode_IS_ASCII(s.ptr()))
        return offset;
    return ByteToCharOffset(text, offset);
}

std::string IntegerText(nb::handle value) {
    if (PyLong_Check(value.ptr()))
        return nb::cast<std::string>(nb::str(value));
    return std::string(TextView(value, "logical index"));
}

}  // namespace

nb::bytes KindBytes(Kind kind) { return ToBytes(std::string_view(&kind, 1)); }

Kind KindFromPy(nb::handle kind) { return static_cast<Kind>(fastaccess_py::CharArg(kind)); }

nb::bytes PyGetInfoBytesKind(nb::handle ibytes) {
    return KindBytes(GetInfoBytesKind(TextView(ibytes, "ibytes")));
}

bool PyIsDefKind(nb::handle kind) { return IsDefKind(KindFromPy(kind)); }
bool PyIsDefOrClassKind(nb::handle kind) { return IsDefOrClassKind(KindFromPy(kind)); }

bool PyIsTopLevelModuleScope(nb::handle scope_name) {
    if (!PyUnicode_Check(scope_name.ptr()))
        throw nb::type_error("a scope name must be str");
    return IsTopLevelModuleScope(TextView(scope_name, "scope name"));
}

void InitKindFilter(CKindFilter *self, nb::handle kinds) {
    new (self) CKindFilter();
    if (kinds.is_none())
        return;
    for (nb::handle kind : nb::iter(kinds))
        self->Set(KindFromPy(kind), 1);
}

bool PyKindMatches(const CKindFilter &filter, nb::handle kind) {
    return filter.KindMatches(KindFromPy(kind));
}

nb::list KindTableRows() {
    std::size_t count = 0;
    const KindRow *rows = KindTable(&count);
    nb::list out;
    for (std::size_t i = 0; i < count; ++i)
        out.append(nb::make_tuple(nb::str(rows[i].name), KindBytes(rows[i].kind),
                                  nb::str(rows[i].meaning)));
    return out;
}

std::ptrdiff_t PyNextNonNestedUtf8PtrIndex(nb::handle text, std::ptrdiff_t pos,
                                           std::ptrdiff_t end_pos) {
    std::string_view view = TextView(text, "text");
    if (end_pos > static_cast<std::ptrdiff_t>(view.size()))
        end_pos = static_cast<std::ptrdiff_t>(view.size());
    if (pos < 0)
        throw nb::value_error("pos must not be negative");
    return NextNonNestedUtf8PtrIndex(view.data(), pos, end_pos);
}

std::ptrdiff_t PyNonInlineNextNonNestedUtf8PtrIndex(nb::handle text, std::ptrdiff_t pos,
                                                    std::ptrdiff_t end_pos) {
    std::string_view view = TextView(text, "text");
    if (end_pos > static_cast<std::ptrdiff_t>(view.size()))
        end_pos = static_cast<std::ptrdiff_t>(view.size());
    if (pos < 0 || pos >= end_pos)
        return -1;
    return NonInlineNextNonNestedUtf8PtrIndex_(view.data(), pos, end_pos);
}

nb::list PyNonNestedSplit(nb::handle s, nb::handle sep, std::ptrdiff_t max_split) {
    std::string_view text = TextView(s, "s");
    nb::list out;
    for (std::string_view part : NonNestedSplit(text, TextView(sep, "sep"), max_split))
        out.append(ToSameType(part, s));
    return out;
}

std::ptrdiff_t PyNonNestedFind(nb::handle s, nb::handle sub, std::ptrdiff_t start,
                               std::ptrdiff_t end) {
    std::string_view text = TextView(s, "s");
    std::ptrdiff_t byte_end = end < 0 ? -1 : ToByteOffset(s, text, end);
    std::ptrdiff_t found =
        NonNestedFind(text, TextView(sub, "sub"), ToByteOffset(s, text, start), byte_end);
    return FromByteOffset(s, text, found);
}

std::ptrdiff_t PyNonNestedFindBytes(nb::handle s, nb::handle sub, std::ptrdiff_t start,
                                    std::ptrdiff_t end) {
    if (!PyBytes_Check(s.ptr()) || !PyBytes_Check(sub.ptr()))
        throw nb::type_error("NonNestedFindBytes needs byte strings");
    return NonNestedFind(TextView(s, "s"), TextView(sub, "sub"), start, end);
}

nb::object PySplitTrailers(nb::handle s) {
    auto parts = SplitTrailers(TextView(s, "expression"));
    if (!parts)
        return nb::none();
    nb::list out;
    for (const std::string &part : *parts)
        out.append(ToSameType(part, s));
    return out;
}

nb::list PySplitArguments(nb::handle s) {
    nb::list out;
    for (std::string_view arg : SplitArguments(TextView(s, "argument text")))
        out.append(ToSameType(arg, s));
    return out;
}

bool PyIsAtomExpr(nb::handle s) { return IsAtomExpr(TextView(s, "expression")); }
bool PyIsSingleNameToken(nb::handle s) { return IsSingleNameToken(TextView(s, "name")); }
bool PyIsFloat(nb::handle s) { return IsFloat(TextView(s, "number")); }

nb::bytes PyJoinTokens(nb::handle toks) {
    TextList list(toks, "token");
    return ToBytes(JoinTokens(list.views));
}

std::ptrdiff_t PyFindNestingEnd(nb::handle toks, std::ptrdiff_t i) {
    TextList list(toks, "token");
    return FindNestingEnd(list.views, i);
}

std::ptrdiff_t PyFindNonNestedTokenInList(nb::handle toks, std::ptrdiff_t start, nb::handle token) {
    TextList list(toks, "token");
    return FindNonNestedTokenInList(list.views, start, TextView(token, "token"));
}

nb::tuple PySplitDefSignature(nb::handle signature) {
    auto [args, return_text] = SplitDefSignature(TextView(signature, "signature"));
    return nb::make_tuple(TextOrNone(args), TextOrNone(return_text));
}

nb::str PyJoinTwoScopeNames(nb::handle parent, nb::handle child) {
    return ToStr(JoinTwoScopeNames(TextView(parent, "scope name"), TextView(child, "scope name")));
}
nb::str PyLeafScopeName(nb::handle name) { return ToStr(LeafScopeName(TextView(name, "scope name"))); }
nb::str PyParentScopeName(nb::handle name) {
    return ToStr(ParentScopeName(TextView(name, "scope name")));
}
nb::tuple PyParentAndLeafScopeNames(nb::handle name) {
    auto [parent, leaf] = ParentAndLeafScopeNames(TextView(name, "scope name"));
    return nb::make_tuple(ToStr(parent), ToStr(leaf));
}
nb::tuple PySplitScopeNameFromSuffixes(nb::handle name) {
    auto [base, suffixes] = SplitScopeNameFromSuffixes(TextView(name, "scope name"));
    return nb::make_tuple(ToStr(base), ToStr(suffixes));
}
nb::str PyRemoveAllScopeNameSubscripts(nb::handle name) {
    return ToStr(RemoveAllScopeNameSubscripts(TextView(name, "scope name")));
}
nb::str PyAppendScopeIndex(nb::handle name, long index) {
    return ToStr(AppendScopeIndex(TextView(name, "scope name"), index));
}
long PyLeafScopeIndex(nb::handle name) { return LeafScopeIndex(TextView(name, "scope name")); }
nb::str PyNormalizeScopeName(nb::handle name) {
    return ToStr(NormalizeScopeName(TextView(name, "scope name")));
}
nb::str PyDefLineScope(nb::handle name) { return ToStr(DefLineScope(TextView(name, "scope name"))); }
nb::str PyGetInstanceNameForClass(nb::handle name) {
    return ToStr(GetInstanceNameForClass(TextView(name, "scope name")));
}
bool PyIsInstanceScope(nb::handle name) { return IsInstanceScope(TextView(name, "scope name")); }

nb::tuple CDefInfo::SplitSignature() const {
    std::string signature = Signature();
    auto [args, return_text] = SplitDefSignature(signature);
    return nb::make_tuple(TextOrNone(args), TextOrNone(return_text));
}

std::vector<DeclTypeParam> CUnpackedClassInfo::TypeParams() const {
    if (!type_params)
        return {};
    return ParseDeclTypeParams(*type_params);
}

nb::bytes PyBuildArgInfo(long long arg_i, nb::handle name) {
    return ToBytes(BuildArgInfo(arg_i, OptTextArg(name, "argument name")));
}

nb::tuple PyUnpackArgInfo(nb::handle name) {
    auto arg = UnpackArgInfo(TextView(name, "name"));
    if (!arg)
        throw nb::value_error("not an indexed argument name");
    return nb::make_tuple(arg->index, TextOrNone(arg->name));
}

bool PyIsIndexedArgName(nb::handle name) { return IsIndexedArgName(TextView(name, "name")); }

nb::bytes PyBuildDecoratorInfo(long long i, nb::handle dotted_name) {
    return ToBytes(BuildDecoratorInfo(i, TextView(dotted_name, "decorator name")));
}

nb::tuple PyUnpackDecoratorInfo(nb::handle ibytes) {
    auto [index, name] = UnpackDecoratorInfo(TextView(ibytes, "ibytes"));
    return nb::make_tuple(index, ToStr(name));
}

nb::bytes PyBuildLiteralInfo(nb::handle class_name, nb::handle value) {
    std::string value_text;
    OptView value_view;
    if (PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr())) {
        value_text = nb::cast<std::string>(nb::repr(value));
        value_view = value_text;
    } else {
        value_view = OptTextArg(value, "literal value");
    }
    return ToBytes(BuildLiteralInfo(TextView(class_name, "class name"), value_view));
}

nb::tuple PyUnpackLiteralInfo(nb::handle ibytes) {
    LiteralInfo literal = UnpackLiteralInfo(TextView(ibytes, "ibytes"));
    return nb::make_tuple(ToStr(literal.class_name), TextOrNone(literal.value));
}

nb::bytes PyEncodeStringLiteral(nb::handle text) {
    return ToBytes(EncodeStringLiteral(TextView(text, "text")));
}

nb::bytes PyBuildConditionalInfo(nb::handle condition, nb::handle info) {
    return ToBytes(BuildConditionalInfo(TextView(condition, "condition"), TextView(info, "info")));
}

nb::tuple PyUnpackConditionalInfo(nb::handle ibytes) {
    auto [condition, rest] = UnpackConditionalInfo(TextView(ibytes, "ibytes"));
    return nb::make_tuple(ToStr(condition), ToBytes(rest));
}

nb::bytes PyBuildDefInfoStr(nb::handle prefix, nb::handle full_name, nb::handle type_params,
                            nb::handle arg_decl, nb::handle return_text, nb::handle decorators) {
    TextList decorator_list(decorators, "decorator");
    return ToBytes(BuildDefInfoStr(TextView(prefix, "prefix"), TextView(full_name, "full name"),
                                   OptTextArg(type_params, "type parameters"),
                                   OptTextArg(arg_decl, "argument declaration"),
                                   OptTextArg(return_text, "return text"), decorator_list.views));
}

CDefInfo PyUnpackDefInfoStr(nb::handle ibytes) {
    return CDefInfo(UnpackDefInfo(TextView(ibytes, "ibytes")));
}

nb::bytes PyPackClassInfo(nb::handle full_name, nb::handle type_params, nb::handle arg_decl,
                          nb::handle decorators) {
    TextList decorator_list(decorators, "decorator");
    return ToBytes(PackClassInfo(TextView(full_name, "full name"),
                                 OptTextArg(type_params, "type parameters"),
                                 OptTextArg(arg_decl, "argument declaration"), decorator_list.views));
}

CUnpackedClassInfo PyUnpackClassInfo(nb::handle ibytes) {
    return CUnpackedClassInfo(UnpackClassInfo(TextView(ibytes, "ibytes")));
}

nb::bytes PyPackCalled(nb::handle suffix, nb::handle arg_text) {
    return ToBytes(PackCalled(TextView(suffix, "suffix"), TextView(arg_text, "argument text")));
}

nb::tuple PyUnpackCalled(nb::handle ibytes) {
    auto [suffix, args] = UnpackCalled(TextView(ibytes, "called ibytes"));
    return nb::make_tuple(ToStr(suffix), ToStr(args));
}

nb::bytes PyAppendLogicalIndexBytesSuffix(nb::handle istr, nb::handle logical_i_bytes) {
    std::string index = IntegerText(logical_i_bytes);
    if (!index.empty() && !ParseLogicalIndex(index))
        throw nb::value_error("a logical index is a decimal integer");
    return ToBytes(AppendLogicalIndexBytesSuffix(TextView(istr, "istr"), index));
}

nb::tuple PySplitLogicalIndexSuffix(nb::handle istr) {
    SuffixSplit split = SplitLogicalIndexSuffix(TextView(istr, "istr"));
    nb::object index = split.logical_index ? nb::object(nb::int_(*split.logical_index)) : nb::none();
    return nb::make_tuple(ToBytes(split.single), index);
}

nb::object PyUnpackLogicalIndex(nb::handle ibytes) {
    std::string_view single = SplitLogicalIndexSuffix(TextView(ibytes, "ibytes")).single;
    Kind kind = GetInfoBytesKind(single);
    if (kind != kSetKind && kind != kGetKind && kind != kSetTypeHintKind && kind != kLogicalIndexKind)
        throw nb::value_error("not a single that holds a logical index");
    auto index = ParseLogicalIndex(single.substr(kPrefixLen));
    return index ? nb::object(nb::int_(*index)) : nb::none();
}

nb::str PyUnpackTypeHint(nb::handle ibytes) {
    return ToStr(UnpackTypeHint(TextView(ibytes, "ibytes")));
}

nb::bytes PyBuildTypeParameterInfo(nb::handle name, nb::handle param_kind, nb::handle bound,
                                   nb::handle default_text) {
    return ToBytes(BuildTypeParameterInfo(TextView(name, "name"), TextView(param_kind, "kind"),
                                          OptTextArg(bound, "bound"),
                                          OptTextArg(default_text, "default")));
}

CUnpackedDeclTypeParam PyUnpackTypeParameterInfo(nb::handle ibytes) {
    return UnpackTypeParameterInfo(TextView(ibytes, "ibytes"));
}

nb::bytes PyBuildFieldsInfo(nb::handle kind, nb::handle fields) {
    nb::list items(fields);
    std::vector<OptView> views;
    for (nb::handle item : items)
        views.push_back(OptTextArg(item, "field"));
    return ToBytes(BuildFieldsInfo(KindFromPy(kind), views));
}

nb::list PyUnpackFieldsInfo(nb::handle ibytes) {
    nb::list out;
    for (const OptText &field : UnpackFields(TextView(ibytes, "ibytes")).fields)
        out.append(TextOrNone(field));
    return out;
}

nb::bytes PyPrefixWithLocationAndScope(nb::handle info, nb::handle loc, nb::handle scope_name) {
    nb::object url = nb::none();
    if (!loc.is_none()) {
        if (!nb::hasattr(loc, "fUrl"))
            throw nb::type_error("a location must have an fUrl");
        url = loc.attr("fUrl");
    }
    return ToBytes(PrefixWithUrlAndScope(TextView(info, "info"), OptTextArg(url, "location URL"),
                                         OptTextArg(scope_name, "scope name")));
}

nb::object LocationForUrl(nb::handle url) {
    nb::object location_module;
    try {
        location_module = nb::module_::import_("basekit.location");
    } catch (const nb::python_error &) {
        return nb::none();
    }
    if (!nb::hasattr(location_module, "LocationForUrl"))
        return nb::none();
    return location_module.attr("LocationForUrl")(url);
}

nb::tuple PyUnpackLocationAndScope(nb::handle ibytes, bool as_location) {
    std::string_view rest = TextView(ibytes, "ibytes");
    nb::object loc = nb::none();
    nb::object scope_name = nb::none();
    for (auto mark = UnpackScopeMark(rest); mark; mark = UnpackScopeMark(rest)) {
        if (mark->kind == kSpecificUrlKind && loc.is_none() && scope_name.is_none()) {
            // A URL names a file only as valid UTF-8: anything else is a
            // UnicodeDecodeError here, not a failed conversion further on.
            std::string text = mark->text.value_or(std::string());
            PyObject *decoded = PyUnicode_DecodeUTF8(text.data(), (Py_ssize_t) text.size(), nullptr);
            if (!decoded)
                throw nb::python_error();
            nb::str url = nb::steal<nb::str>(decoded);
            nb::object found = as_location ? LocationForUrl(url) : nb::none();
            loc = found.is_none() ? nb::object(url) : found;
        } else if (mark->kind == kSpecificScopeKind && scope_name.is_none()) {
            scope_name = TextOrNone(mark->text);
        } else {
            break;
        }
        rest = mark->rest;
    }
    return nb::make_tuple(loc, scope_name, ToBytes(rest));
}

nb::tuple PyPopLeadingPrefixes(nb::handle ibytes) {
    auto [prefixes, rest] = PopLeadingPrefixes(TextView(ibytes, "ibytes"));
    return nb::make_tuple(ToBytes(prefixes), ToBytes(rest));
}

nb::bytes PyJoinInfoBytes(nb::handle a, nb::handle b) {
    return ToBytes(JoinInfoBytes(TextView(a, "ibytes"), TextView(b, "ibytes")));
}

nb::object PyScopeNameDefinedByInfo(nb::handle ibytes) {
    return TextOrNone(ScopeNameDefinedByInfo(TextView(ibytes, "ibytes")));
}

bool PyInfoDefinesScope(nb::handle ibytes) { return InfoDefinesScope(TextView(ibytes, "ibytes")); }

nb::str PyDescribeInfo(nb::handle ibytes) { return ToStr(DescribeInfo(TextView(ibytes, "ibytes"))); }

nb::bytes CPackedOps_::PackClassInfo(nb::handle full_name, nb::handle type_params,
                                     nb::handle arg_decl, nb::handle decorators) {
    return PyPackClassInfo(full_name, type_params, arg_decl, decorators);
}
CUnpackedClassInfo CPackedOps_::UnpackClassInfo(nb::handle ibytes) { return PyUnpackClassInfo(ibytes); }
nb::bytes CPackedOps_::PackDefInfo(nb::handle prefix, nb::handle full_name, nb::handle type_params,
                                   nb::handle arg_decl, nb::handle return_text,
                                   nb::handle decorators) {
    return PyBuildDefInfoStr(prefix, full_name, type_params, arg_decl, return_text, decorators);
}
CDefInfo CPackedOps_::UnpackDefInfo(nb::handle ibytes) { return PyUnpackDefInfoStr(ibytes); }
nb::bytes CPackedOps_::PackCalled(nb::handle suffix, nb::handle arg_text) {
    return PyPackCalled(suffix, arg_text);
}
nb::tuple CPackedOps_::UnpackCalled(nb::handle called_ibytes) { return PyUnpackCalled(called_ibytes); }
nb::bytes CPackedOps_::AppendLogicalIndexBytesSuffix(nb::handle istr, nb::handle logical_i_bytes) {
    return PyAppendLogicalIndexBytesSuffix(istr, logical_i_bytes);
}
nb::tuple CPackedOps_::SplitLogicalIndexSuffix(nb::handle istr) { return PySplitLogicalIndexSuffix(istr); }
nb::object CPackedOps_::UnpackLogicalIndex(nb::handle ibytes) { return PyUnpackLogicalIndex(ibytes); }
nb::str CPackedOps_::UnpackTypeHint(nb::handle ibytes) { return PyUnpackTypeHint(ibytes); }
nb::tuple CPackedOps_::UnpackArgInfo(nb::handle ibytes) { return PyUnpackArgInfo(ibytes); }
nb::tuple CPackedOps_::UnpackDecoratorInfo(nb::handle ibytes) { return PyUnpackDecoratorInfo(ibytes); }
nb::tuple CPackedOps_::UnpackLiteralInfo(nb::handle ibytes) { return PyUnpackLiteralInfo(ibytes); }
nb::tuple CPackedOps_::UnpackConditionalInfo(nb::handle ibytes) {
    return PyUnpackConditionalInfo(ibytes);
}
nb::tuple CPackedOps_::UnpackLocationAndScope(nb::handle ibytes, bool as_location) {
    return PyUnpackLocationAndScope(ibytes, as_location);
}
CUnpackedDeclTypeParam CPackedOps_::UnpackTypeParameterInfo(nb::handle ibytes) {
    return PyUnpackTypeParameterInfo(ibytes);
}
nb::list CPackedOps_::UnpackFieldsInfo(nb::handle ibytes) { return PyUnpackFieldsInfo(ibytes); }

const std::vector<std::string_view> &CBuiltinTypeNames_::Names() {
    static const std::vector<std::string_view> kNames = {
        "None", "bool", "bytes", "bytearray", "complex", "dict", "float", "frozenset",
        "function", "int", "list", "module", "object", "set", "str", "tuple", "type", "unicode"};
    return kNames;
}

nb::frozenset CBuiltinTypeNames_::AllNames() const {
    nb::list names;
    for (std::string_view name : Names())
        names.append(ToStr(name));
    return nb::frozenset(names);
}

bool CBuiltinTypeNames_::IsBuiltinTypeName(nb::handle name) const {
    std::string_view text = TextView(name, "type name");
    for (std::string_view known : Names())
        if (known == text)
            return true;
    return false;
}

nb::handle EmptyFrozenset() {
    static PyObject *empty = nullptr;
    if (!empty) {
        empty = PyFrozenSet_New(nullptr);
        if (!empty)
            throw nb::python_error();
    }
    return empty;
}

}  // namespace pysource::symbolinfo

// Definition info: a def or class logical as its packed single (name, type
// parameters, declaration, return text, decorators), with the hints of
// signature type comments merged into the declaration, and the rewriting of
// comment-derived info that needs the method and def-line context.
#include <string>
#include <typeinfo>

#include "pysource/scopescanner/primaryscanner.h"
#include "pysource/scopescanner/primaryutil.h"
#include "pysource/srctokenizer.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace primaryutil;

namespace {

nb::list Slice(nb::handle toks, Py_ssize_t start, Py_ssize_t stop) {
    nb::list out;
    for (Py_ssize_t i = start; i < stop; ++i)
        out.append(toks[i]);
    return out;
}

bool TokenIs(nb::handle toks, Py_ssize_t i, std::string_view text) {
    Py_ssize_t count = PyList_GET_SIZE(toks.ptr());
    return i >= 0 && i < count && TextOf(toks[i]) == text;
}

si::Kind KindOfBytes(nb::handle ibytes) {
    if (!PyBytes_Check(ibytes.ptr()))
        throw nb::type_error("info strings must be bytes");
    return si::GetInfoBytesKind(PyBytes_AS_STRING(ibytes.ptr()));
}

// What the parts of the definition info of `logical` (DefInfoParts) are
// worked out from besides its tokens: the analyzer's results on it and on
// the first logical of its body (a new analysis makes new ones), the class
// around it, that first logical, its decorators.  A class's parts don't
// depend on the scope around it or on its body.  None when it can't be told
// (no decorator list).
nb::object DefInfoInputs(const CLogicalLine &logical, bool in_cls, nb::handle decorator_logicals,
                         nb::handle body0) {
    if (!PyList_Check(decorator_logicals.ptr()) || !logical.fArgTypeEquivs.is_valid())
        return nb::none();
    bool is_def = logical.fKind == LogicalKind::kFunctionDef;
    CLogicalLine *first = is_def ? OptionalLogical(body0) : nullptr;
    if (first && !first->fTypeEquivs.is_valid())
        return nb::none();
    return nb::make_tuple(logical.fArgTypeEquivs, first ? first->fTypeEquivs : nb::none(),
                          nb::bool_(is_def && in_cls), is_def ? nb::borrow(body0) : nb::none(),
                          nb::tuple(decorator_logicals));
}

// Whether two DefInfoInputs hold the same objects.
bool SameDefInfoInputs(nb::handle a, nb::handle b) {
    auto items = [](nb::handle t) { return &PyTuple_GET_ITEM(t.ptr(), 0); };
    PyObject **x = items(a);
    PyObject **y = items(b);
    for (int i = 0; i < 4; ++i)
        if (x[i] != y[i])
            return false;
    Py_ssize_t count = PyTuple_GET_SIZE(x[4]);
    if (PyTuple_GET_SIZE(y[4]) != count)
        return false;
    for (Py_ssize_t i = 0; i < count; ++i)
        if (PyTuple_GET_ITEM(x[4], i) != PyTuple_GET_ITEM(y[4], i))
            return false;
    return true;
}

}  // namespace

bool CSingleScopePrimaryScanner::SharesDefInfo() const {
    // Only the scanners of a whole-file scan (made in C++, never subclassed)
    // hand definition info to each other.
    return _fStackItem && typeid(*this) == typeid(CSingleScopePrimaryScanner);
}

nb::bytes CSingleScopePrimaryScanner::DefInfoBytesInBody(nb::handle logical_obj,
                                                         nb::handle full_name, bool in_cls,
                                                         nb::handle decorator_logicals,
                                                         nb::handle body0) {
    if (SharesDefInfo()) {
        nb::dict known = fPerFileInfo->fScopeDefInfoParts;
        PyObject *noted = PyDict_GetItemWithError(known.ptr(), logical_obj.ptr());
        if (!noted && PyErr_Occurred())
            throw nb::python_error();
        if (noted) {
            nb::tuple entry = nb::borrow<nb::tuple>(noted);
            if (PyDict_DelItem(known.ptr(), logical_obj.ptr()) < 0)
                throw nb::python_error();
            nb::object inputs =
                DefInfoInputs(*AsLogical(logical_obj), in_cls, decorator_logicals, body0);
            if (!inputs.is_none() && SameDefInfoInputs(inputs, entry[0]))
                return PackDefInfo(full_name, entry[1]);
        }
    }
    return GetInfoBytesForScopeDef_(logical_obj, full_name, in_cls, decorator_logicals, body0);
}

nb::bytes CSingleScopePrimaryScanner::GetScopeDefInfoBytes_() {
    nb::handle name = ScopeName();
    if (name.is_none() || TextOf(name).empty())
        return nb::bytes("", 0);  // the module has no definition
    CLogicalLine *def = ScopeDefLogical();
    if (!def || def->fLocalScopeName.is_none() || TextOf(def->fLocalScopeName).empty())
        return nb::bytes("", 0);
    bool in_cls = !fContainingClassDef.is_none();
    nb::object body0 = nb::none();
    if (!fBody.is_none() && PyObject_Length(fBody.ptr()) > 0) {
        body0 = fBody[0];
        (void) AsLogical(body0, "the first logical of a body");
    }
    if (!SharesDefInfo())
        return GetInfoBytesForScopeDef_(fScopeDef, name, in_cls, fDecoratorLogicals, body0);
    nb::tuple parts = DefInfoParts(fScopeDef, in_cls, fDecoratorLogicals, body0);
    nb::object inputs = DefInfoInputs(*def, in_cls, fDecoratorLogicals, body0);
    if (!inputs.is_none())
        fPerFileInfo->fScopeDefInfoParts[fScopeDef] = nb::make_tuple(inputs, parts);
    return PackDefInfo(name, parts);
}

nb::bytes CSingleScopePrimaryScanner::GetInfoBytesForScopeDef_(nb::handle logical_obj,
                                                               nb::handle full_name, bool in_cls,
                                                               nb::handle decorator_logicals,
                                                               nb::handle body0) {
    return PackDefInfo(full_name, DefInfoParts(logical_obj, in_cls, decorator_logicals, body0));
}

nb::bytes CSingleScopePrimaryScanner::PackDefInfo(nb::handle full_name, nb::handle parts) {
    nb::tuple fields = nb::borrow<nb::tuple>(parts);
    if (fields[0].is_none())
        return si::PyPackClassInfo(full_name, fields[1], fields[2], fields[4]);
    return si::PyBuildDefInfoStr(fields[0], full_name, fields[1], fields[2], fields[3], fields[4]);
}

nb::tuple CSingleScopePrimaryScanner::DefInfoParts(nb::handle logical_obj, bool in_cls,
                                                   nb::handle decorator_logicals,
                                                   nb::handle body0) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    nb::list toks = nb::list(logical.GetToks());
    Py_ssize_t count = PyList_GET_SIZE(toks.ptr());
    nb::object arg_decl = nb::str("()");
    nb::object type_params = nb::none();
    nb::object hint_dict = nb::none();
    // The token after the name: `def f(`, `async def f(`.
    Py_ssize_t after_name = TokenIs(toks, 0, "async") ? 3 : 2;
    Py_ssize_t lpar_i = after_name;
    Py_ssize_t rpar_i = -1;

    if (count >= after_name + 2) {
        bool has_decl = false;
        if (TokenIs(toks, after_name, "(")) {
            has_decl = true;
        } else if (TokenIs(toks, after_name, "[")) {
            Py_ssize_t rbracket_i = si::PyFindNestingEnd(toks, after_name);
            if (TokenIs(toks, rbracket_i, "]")) {
                type_params = AsStr(si::PyJoinTokens(Slice(toks, after_name, rbracket_i + 1)));
                if (TokenIs(toks, rbracket_i + 1, "(")) {
                    lpar_i = rbracket_i + 1;
                    has_decl = true;
                }
            }
        }
        if (has_decl) {
            rpar_i = si::PyFindNestingEnd(toks, lpar_i);
            if (!TokenIs(toks, rpar_i, ")")) {
                rpar_i = -1;
                has_decl = false;
            }
        }
        if (has_decl) {
            if (logical.fKind == LogicalKind::kFunctionDef) {
                // A signature comment of a method leaves out self.
                bool skips_self = in_cls && !AnyStaticMethodDecorator(decorator_logicals);
                hint_dict = HintsFromFunctionDef(logical_obj, body0, skips_self ? 1 : 0);
            }
            if (!hint_dict.is_none() && PyDict_GET_SIZE(hint_dict.ptr()) != 0)
                arg_decl = GetFunctionDefArgsDeclWithHints_(toks, lpar_i, rpar_i, hint_dict);
            else
                arg_decl = AsStr(si::PyJoinTokens(Slice(toks, lpar_i, rpar_i + 1)));
        }
    }

    // Decorators come out last to first.
    auto decorators = [&]() {
        nb::list names;
        nb::list logicals = nb::list(decorator_logicals);
        for (Py_ssize_t i = PyList_GET_SIZE(logicals.ptr()) - 1; i >= 0; --i) {
            nb::object name = FindDecoratorDottedName_(logicals[i]);
            if (!name.is_none())
                names.append(name);
        }
        return names;
    };

    if (logical.fKind == LogicalKind::kFunctionDef) {
        // A function in a class is stored unbound; binding is decided where
        // it is used.
        nb::bytes prefix = si::ToBytes(in_cls ? si::kUnboundMethodPrefix : si::kFunctionPrefix);
        nb::object return_text = nb::none();
        if (rpar_i != -1 && TokenIs(toks, rpar_i + 1, "->")) {
            Py_ssize_t colon_i = si::PyFindNonNestedTokenInList(toks, rpar_i + 2, nb::str(":"));
            if (colon_i != -1)
                return_text = AsStr(si::PyJoinTokens(Slice(toks, rpar_i + 2, colon_i)));
        }
        if (return_text.is_none() && !hint_dict.is_none())
            return_text = hint_dict.attr("get")("return");
        return nb::make_tuple(prefix, type_params, arg_decl, return_text, decorators());
    }
    if (logical.fKind == LogicalKind::kClassDef)
        return nb::make_tuple(nb::none(), type_params, arg_decl, nb::none(), decorators());
    throw nb::value_error("definition info is made only for def and class logicals");
}

nb::object CSingleScopePrimaryScanner::FindDecoratorDottedName_(nb::handle logical_obj) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    // Names of any spelling (`_cache`, `__x`, letters of any script) and
    // dots, after the `@`.
    std::string dotted;
    for (Py_ssize_t i = 0; i < logical.TokenCount(); i++) {
        std::string_view text = logical.TokenText(i);
        if (logical.TokenType(i) == kTokName || text == ".")
            dotted += text;
        else if (text != "@")
            return nb::none();  // not a plain dotted name
    }
    return nb::str(dotted.data(), dotted.size());
}

nb::dict CSingleScopePrimaryScanner::GetHintsFromFunctionDef_(nb::handle logical_obj,
                                                              nb::handle body0) {
    return HintsFromFunctionDef(logical_obj, body0, 0);
}

nb::dict CSingleScopePrimaryScanner::HintsFromFunctionDef(nb::handle logical_obj, nb::handle body0,
                                                          Py_ssize_t comment_arg_shift) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    nb::dict hint_dict;
    if (logical.fKind != LogicalKind::kFunctionDef || logical.fArgTypeEquivs.is_none())
        return hint_dict;
    for (nb::handle pair : ArgPairs(logical.fArgTypeEquivs)) {
        nb::handle ibytes = pair[1];
        if (KindOfBytes(ibytes) == si::kTypeHintKind)
            hint_dict[AsStr(pair[0])] = si::PyUnpackTypeHint(ibytes);
    }
    if (body0.is_none())
        return hint_dict;
    CLogicalLine &first = *AsLogical(body0);
    // A docstring's types stand only where the source gives no hint.
    for (const auto &[name, type] : DocstringHintsOf(body0)) {
        nb::str key(name.data(), name.size());
        if (!hint_dict.contains(key))
            hint_dict[key] = nb::str(type.data(), type.size());
    }
    if (first.fKind != LogicalKind::kComment || first.fTypeEquivs.is_none())
        return hint_dict;

    // A signature comment numbers the arguments; a later hint for the same
    // argument replaces the one at the definition.
    nb::list arg_names;
    for (nb::handle pair : ArgPairs(logical.fArgTypeEquivs))
        if (KindOfBytes(pair[1]) == si::kSetKind)
            arg_names.append(AsStr(pair[0]));
    for (nb::handle pair : PairsOrEmpty(first.fTypeEquivs)) {
        nb::handle name = pair[0];
        nb::handle ibytes = pair[1];
        if (KindOfBytes(ibytes) != si::kTypeHintKind)
            continue;
        if (si::PyIsIndexedArgName(name)) {
            nb::tuple arg = si::PyUnpackArgInfo(name);
            Py_ssize_t arg_i = nb::cast<Py_ssize_t>(arg[0]) + comment_arg_shift;
            if (arg[1].is_none() && arg_i < (Py_ssize_t) PyList_GET_SIZE(arg_names.ptr()))
                hint_dict[arg_names[arg_i]] = si::PyUnpackTypeHint(ibytes);
        } else if (PyBytes_Check(name.ptr()) && TextOf(name) == "return") {
            hint_dict["return"] = si::PyUnpackTypeHint(ibytes);
        }
    }
    return hint_dict;
}

nb::str CSingleScopePrimaryScanner::GetFunctionDefArgsDeclWithHints_(nb::handle tok_seq,
                                                                     Py_ssize_t lpar_i,
                                                                     Py_ssize_t rpar_i,
                                                                     nb::handle hint_dict) {
    nb::list out;
    out.append("(");
    nb::object prior = tok_seq[lpar_i];
    Py_ssize_t nesting = 0;
    for (Py_ssize_t i = lpar_i + 1; i < rpar_i; ++i) {
        nb::object tok = tok_seq[i];
        out.append(tok);
        std::string_view prior_text = TextOf(prior);
        if ((prior_text == "(" || prior_text == ",") && nesting == 0) {
            nb::object hint = hint_dict.attr("get")(tok);
            // An annotation in the source stays, and the hint isn't added.
            if (!hint.is_none() && TextOf(tok_seq[i + 1]) != ":") {
                out.append(":");
                out.append(hint);
            }
        }
        nesting = UpdateNestingLevel(nesting, tok);
        prior = tok;
    }
    out.append(")");
    return nb::borrow<nb::str>(AsStr(si::PyJoinTokens(out)));
}

nb::tuple CSingleScopePrimaryScanner::RewriteCommentInfo_(nb::handle logical_obj, nb::handle name,
                                                          nb::handle istr) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    nb::object out_name = nb::borrow(name);
    nb::object out_istr = nb::borrow(istr);
    if (logical.fKind != LogicalKind::kComment)
        return nb::make_tuple(out_name, out_istr);
    if (!fContainingClassDef.is_none() && !AnyStaticMethodDecorator(fDecoratorLogicals)) {
        // A static method has no self: its argument indexes are right.
        nb::tuple rewritten = RewriteCommentInfoForMethod_(logical_obj, out_name, out_istr);
        out_name = rewritten[0];
        out_istr = rewritten[1];
    }
    std::string_view comment = logical.TokenCount() > 0 ? logical.TokenText(0) : "";
    if (TextOf(ScopeName()).empty() || comment.substr(0, 1) != "#")
        return nb::make_tuple(out_name, out_istr);
    // "# type: (...)": a signature comment, read at the def line.
    auto strip = [](std::string_view text) {
        size_t start = text.find_first_not_of(" \t\f\v\r\n");
        return start == std::string_view::npos ? std::string_view() : text.substr(start);
    };
    std::string_view text = strip(comment.substr(1));
    if (text.substr(0, 5) != "type:")
        return nb::make_tuple(out_name, out_istr);
    text = strip(text.substr(5));
    if (text.substr(0, 1) != "(")
        return nb::make_tuple(out_name, out_istr);
    nb::str scope = si::PyDefLineScope(ScopeName());
    out_istr = si::PyPrefixWithLocationAndScope(out_istr, nb::none(), scope);
    return nb::make_tuple(out_name, out_istr);
}

nb::tuple CSingleScopePrimaryScanner::RewriteCommentInfoForMethod_(nb::handle, nb::handle name,
                                                                   nb::handle istr) {
    // A signature comment's argument numbers leave out self.
    if (!si::PyIsIndexedArgName(name))
        return nb::make_tuple(name, istr);
    nb::tuple split = si::PyPopLeadingPrefixes(istr);
    std::string_view rest = TextOf(split[1]);
    if (rest.substr(0, si::kTypeHintPrefix.size()) != si::kTypeHintPrefix)
        return nb::make_tuple(name, istr);
    nb::tuple arg = si::PyUnpackArgInfo(name);
    long long arg_i = nb::cast<long long>(arg[0]);
    return nb::make_tuple(AsStr(si::PyBuildArgInfo(arg_i + 1, nb::none())), istr);
}

bool CSingleScopePrimaryScanner::AnyStaticMethodDecorator(nb::handle decorator_logicals) {
    if (decorator_logicals.is_none())
        return false;
    for (nb::handle decorator : decorator_logicals) {
        nb::object name = FindDecoratorDottedName_(decorator);
        if (!name.is_none() && TextOf(name) == "staticmethod")
            return true;
    }
    return false;
}

}  // namespace pysource

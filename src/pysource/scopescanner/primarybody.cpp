// The per-logical steps of the single-scope primary scan: the defining
// logical, the body logicals folded into per-name maps, and the simple
// conditionals of stub files.
#include <string>

#include "pysource/fastaccess.h"
#include "pysource/nesting.h"
#include "pysource/pgeninspect.h"
#include "pysource/scopescanner/primaryscanner.h"
#include "pysource/scopescanner/primaryutil.h"
#include "pysource/srctokenizer.h"
#include "pysource/strutils.h"
#include "pysource/symbolinfo.h"

namespace pysource {

namespace si = symbolinfo;
using namespace primaryutil;

namespace {

// The two elements of a (name, info) pair of an analyzer's list.
std::pair<nb::handle, nb::handle> PairOf(nb::handle pair) {
    if (PyTuple_CheckExact(pair.ptr()) && PyTuple_GET_SIZE(pair.ptr()) == 2)
        return {PyTuple_GET_ITEM(pair.ptr(), 0), PyTuple_GET_ITEM(pair.ptr(), 1)};
    if (!PyTuple_Check(pair.ptr()) && !PyList_Check(pair.ptr()))
        throw nb::type_error("a name pair must be a tuple of two");
    if (PySequence_Size(pair.ptr()) != 2)
        throw nb::value_error("a name pair must have two elements");
    return {pair[0], pair[1]};
}

// Calls `each(name, info)` for every pair of an analyzer's pairs (None for
// none).  A tuple, as our analyzer makes, is read without an iterator; it is
// held meanwhile, as `each` may replace the logical's pairs.
template <typename Each>
void ForEachPair(nb::handle pairs, Each each) {
    nb::object held = nb::borrow(PairsOrEmpty(pairs));
    if (PyTuple_CheckExact(held.ptr())) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(held.ptr()); ++i) {
            auto [name, istr] = PairOf(PyTuple_GET_ITEM(held.ptr(), i));
            each(name, istr);
        }
        return;
    }
    for (nb::handle pair : held) {
        auto [name, istr] = PairOf(pair);
        each(name, istr);
    }
}

si::Kind KindOf(nb::handle istr) {
    if (!PyBytes_Check(istr.ptr()))
        throw nb::type_error("info strings must be bytes");
    return si::GetInfoBytesKind(PyBytes_AS_STRING(istr.ptr()));
}

// The analyzer behind `analyzer` when it is exactly our own (a Python
// subclass may override how it analyses), else null: ours is called
// directly, without a method lookup per logical.
CPGenAnalyzer *ExactPGenAnalyzer(nb::handle analyzer) {
    if (Py_TYPE(analyzer.ptr()) != (PyTypeObject *) nb::type<CPGenAnalyzer>().ptr())
        return nullptr;
    return nb::inst_ptr<CPGenAnalyzer>(analyzer);
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

// ---------------------------------------------------------------------------
// The defining logical

bool CSingleScopePrimaryScanner::ScanDefiningScopeDef_(double) {
    if (fScopeDefScanned_)
        return false;
    fScopeDefScanned_ = true;  // set first: an error part-way isn't retried
    CLogicalLine *def = ScopeDefLogical();
    if (!def)
        return false;
    TryAnalyzeSingleLogical_(fScopeDef);

    // Decorators; `i` counts every decorator, so it is its position.
    bool is_static = false;
    bool is_cls = false;
    Py_ssize_t i = 0;
    for (nb::handle decorator : fDecoratorLogicals) {
        nb::object name = FindDecoratorDottedName_(decorator);
        if (!name.is_none()) {
            AddPerName_(fTypeEquivs_, nb::str(""), si::PyBuildDecoratorInfo(i, name));
            std::string_view dotted = TextOf(name);
            is_static = is_static || dotted == "staticmethod";
            is_cls = is_cls || dotted == "classmethod";
        }
        ++i;
    }

    if (def->fKind == LogicalKind::kClassDef) {
        // Calling a class gives an instance.
        AddPerName_(fTypeEquivs_, nb::str("return"), si::ToBytes(si::kInstancePrefix));
        ForEachPair(ArgPairs(def->fArgTypeEquivs), [&](nb::handle name, nb::handle istr) {
            AddPerName_(fTypeEquivs_, AsStr(name), istr);
        });
        return false;
    }
    if (def->fKind != LogicalKind::kFunctionDef)
        return false;

    // Defaults are read in the scope around the def, hints at the def line.
    nb::handle scope_name = ScopeName();
    nb::str parent = si::PyParentScopeName(scope_name);
    nb::str def_scope = si::PyDefLineScope(scope_name);
    CLogicalLine *cls_def = ContainingClassLogical();
    // __new__ is a class method whatever its decorators say.
    if (cls_def && !def->fLocalScopeName.is_none() &&
        StartsWith(TextOf(def->fLocalScopeName), "__new__|"))
        is_cls = true;

    nb::object first_arg = nb::none();
    Py_ssize_t arg_i = 0;
    ForEachPair(ArgPairs(def->fArgTypeEquivs), [&](nb::handle raw_name, nb::handle istr) {
        nb::object name = AsStr(raw_name);
        si::Kind kind = KindOf(istr);
        if (kind == si::kSetKind) {
            // The argument itself: set before body logical 0.
            if (first_arg.is_none())
                first_arg = name;
            AddPerName_(fDomains_, name, nb::bytes("argument"));
            AddPerName_(fTypeEquivs_, name, si::PyBuildArgInfo(arg_i, nb::none()));
            fFirstNameSet_[name] = nb::str("-1");
            ++arg_i;
        } else if (kind == si::kTypeHintKind) {
            AddPerName_(fTypeEquivs_, name,
                        si::PyPrefixWithLocationAndScope(istr, nb::none(), def_scope));
        } else if (kind == si::kPlainEquivKind) {
            AddPerName_(fTypeEquivs_, name,
                        si::PyPrefixWithLocationAndScope(istr, nb::none(), parent));
        } else {
            AddPerName_(fTypeEquivs_, name, istr);
        }
    });

    // The self name of a method.
    if (!cls_def || first_arg.is_none() || is_static)
        return false;
    if (is_cls) {
        // The class's dotted name as an expression: index 0 isn't spelled.
        std::string class_name = si::NormalizeScopeName(
            si::JoinTwoScopeNames(TextOf(cls_def->fScopeName), TextOf(cls_def->fLocalScopeName)));
        AddPerName_(fTypeEquivs_, first_arg, si::ToBytes(class_name));
        return false;
    }
    fSelfDotName_ = nb::str((std::string(TextOf(first_arg)) + ".").c_str());
    AddPerName_(fTypeEquivs_, first_arg, si::ToBytes(si::kSelfPrefix));
    return false;
}

void CSingleScopePrimaryScanner::AddDocstringHints(nb::handle body0) {
    CLogicalLine *def = ScopeDefLogical();
    if (!def || def->fKind != LogicalKind::kFunctionDef)
        return;
    std::vector<std::pair<std::string, std::string>> hints = DocstringHintsOf(body0);
    if (hints.empty())
        return;
    nb::set unhinted;
    ForEachPair(ArgPairs(def->fArgTypeEquivs), [&](nb::handle raw_name, nb::handle istr) {
        nb::object name = AsStr(raw_name);
        si::Kind kind = KindOf(istr);
        if (kind == si::kSetKind)
            unhinted.add(name);
        else if (kind == si::kTypeHintKind)
            unhinted.discard(name);
    });
    // (Not a star parameter: the docstring types its items, not its tuple.)
    for (Py_ssize_t i = 0; i + 1 < def->TokenCount(); ++i)
        if (def->TokenText(i) == "*" || def->TokenText(i) == "**")
            unhinted.discard(nb::str(def->TokenText(i + 1).data(), def->TokenText(i + 1).size()));
    nb::str def_scope = si::PyDefLineScope(ScopeName());
    for (const auto &[param, type] : hints) {
        nb::str name(param.data(), param.size());
        if (!unhinted.contains(name))
            continue;
        unhinted.discard(name);
        std::string hint(si::kTypeHintPrefix);
        hint += si::PayloadSafeText(type);
        AddPerName_(fTypeEquivs_, name,
                    si::PyPrefixWithLocationAndScope(si::ToBytes(hint), nb::none(), def_scope));
    }
}

// ---------------------------------------------------------------------------
// Body logicals

bool CSingleScopePrimaryScanner::ScanBodyLogicals_(double end_time) {
    if (!PyList_Check(fBody.ptr()))
        return false;  // no body was had: nothing to scan, and not done
    nb::list body = nb::borrow<nb::list>(fBody);
    while (fLogicalIndex_ < (Py_ssize_t) PyList_GET_SIZE(body.ptr())) {
        nb::object logical_obj = body[fLogicalIndex_];
        CLogicalLine &logical = *AsLogical(logical_obj);
        nb::object logical_i_bytes = nb::borrow(LogicalIndexBytes_());
        TryAnalyzeSingleLogical_(logical_obj);
        UpdateSimpleConditional_(logical_obj);
        if (fLogicalIndex_ == 0 && logical.fKind == LogicalKind::kStringExpression)
            AddDocstringHints(logical_obj);
        switch (logical.fKind) {
        case LogicalKind::kFunctionDef:
        case LogicalKind::kClassDef:
            ScanSingleScopeDefInBody_(logical_obj, fLogicalIndex_);
            break;
        case LogicalKind::kImport:
        case LogicalKind::kFromImport:
            ForEachPair(logical.fTypeEquivs, [&](nb::handle raw_name, nb::handle istr) {
                nb::object name = fPerFileInfo->NameText(raw_name);
                if (PyBytes_Check(istr.ptr()) && TextOf(istr) == si::kSetPrefix &&
                    TextOf(name) != "*")
                    AddPerName_(fDomains_, name, nb::bytes("imported"));
            });
            break;
        default:
            break;
        }
        FoldNameInfo(logical, logical_i_bytes);
        ++fLogicalIndex_;
        if (OutOfTime(end_time))
            return true;  // the next call goes on at the next logical
    }
    fBodyLogicalsScanned_ = true;
    return false;
}

// Gets and sets are recorded by their first position only; every other
// kind goes to the per-name maps.
void CSingleScopePrimaryScanner::FoldNameInfo(CLogicalLine &logical, nb::handle logical_i_bytes) {
    nb::handle self_dot = fSelfDotName_;
    ForEachPair(logical.fTypeEquivs, [&](nb::handle raw_name, nb::handle raw_istr) {
        nb::object name = fPerFileInfo->NameText(raw_name);
        si::Kind kind = KindOf(raw_istr);
        if (kind == si::kGetKind) {
            AddToFirstDict_(name, fFirstNameGet_);
        } else if (kind == si::kSetKind) {
            std::string_view name_view = TextOf(name);
            if (!self_dot.is_none() && StartsWith(name_view, TextOf(self_dot))) {
                std::string_view attrib = name_view.substr(TextOf(self_dot).size());
                // A longer dotted name through self is dropped.
                if (attrib.find('.') == std::string_view::npos)
                    AddToFirstDict_(nb::str(attrib.data(), attrib.size()), fFirstAttribSet_);
            } else {
                AddToFirstDict_(name, fFirstNameSet_);
            }
        } else {
            nb::object istr = nb::borrow(raw_istr);
            if (logical.fKind == LogicalKind::kComment) {
                nb::tuple rewritten = RewriteCommentInfo_(nb::cast(nb::ref(&logical)), name, istr);
                name = rewritten[0];
                istr = rewritten[1];
            }
            ProcessSingleInfoStr_(name, istr, logical_i_bytes);
        }
    });
}

void CSingleScopePrimaryScanner::TryAnalyzeSingleLogical_(nb::handle logical_obj) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    if (IsTrue(logical.fParsed))
        return;
    if (!fAnalysis_.is_none()) {
        // The line being edited is most likely broken right now: its result
        // must not be kept.
        Py_ssize_t active = fPerFileInfo->GetActiveEditLineno();
        if (active >= 0 && LogicalContainsLineno(logical, active))
            return;
    }
    CLogicalLine *def = ScopeDefLogical();
    bool first_in_def = fLogicalIndex_ == 0 && def && def->fKind == LogicalKind::kFunctionDef;
    nb::object analyzer = Analyzer();
    nb::object errs;
    if (CPGenAnalyzer *own = ExactPGenAnalyzer(analyzer))
        errs = own->AnalyzeSingleLogical(logical, fPerFileInfo->fPy3Grammar, first_in_def);
    else
        errs = analyzer.attr("AnalyzeSingleLogical")(logical_obj, fPerFileInfo->fPy3Grammar,
                                                     first_in_def);
    if (!errs.is_none() && !fAnalysis_.is_none()) {
        nb::list errors;
        errors.append(nb::make_tuple(logical_obj, errs));
        fAnalysis_.attr("SaveParseErrors")(errors);
    }
    if (!IsTrue(logical.fParsed))
        ++fNotParsedCount_;
}

void CSingleScopePrimaryScanner::ProcessSingleInfoStr_(nb::handle name, nb::handle istr,
                                                       nb::handle logical_i_bytes) {
    si::Kind kind = KindOf(istr);
    nb::bytes suffixed = si::PyAppendLogicalIndexBytesSuffix(istr, logical_i_bytes);
    if (kind == si::kTypeHintKind)
        AddToFirstDict_(name, fFirstTypeHintSet_);
    AddPerName_(fTypeEquivs_, name, suffixed);
    nb::object attrib = GetInstAttribName_(name);
    if (attrib.is_none())
        return;
    // The instance map is read from other scopes: its values carry this one.
    nb::bytes inst_istr = si::PyPrefixWithLocationAndScope(suffixed, nb::none(), ScopeName());
    if (kind == si::kTypeHintKind)
        AddToFirstDict_(attrib, fInstFirstTypeHintSet_);
    AddPerName_(fInstTypeEquivs_, attrib, inst_istr);
}

nb::object CSingleScopePrimaryScanner::GetInstAttribName_(nb::handle name) {
    if (fSelfDotName_.is_none())
        return nb::none();
    std::string_view name_view = TextOf(name);
    std::string_view self_dot = TextOf(fSelfDotName_);
    if (!StartsWith(name_view, self_dot))
        return nb::none();
    std::string_view attrib = name_view.substr(self_dot.size());
    if (attrib.find('.') != std::string_view::npos)
        return nb::none();
    return nb::str(attrib.data(), attrib.size());
}

void CSingleScopePrimaryScanner::AddPerName_(nb::handle name_dict, nb::handle name,
                                             nb::handle info) {
    if (name.is_none()) {
        nb::str message = nb::str("name is None for {} in {}: {}")
                              .format(info, nb::repr(ScopeOf(fScope).loc), ScopeName());
        PyErr_SetObject(PyExc_AssertionError, message.ptr());
        throw nb::python_error();
    }
    RequireDict(name_dict, "a per-name map");
    // A subscript target is kept under its base with "[]" as well.
    std::string_view name_view = TextOf(name);
    size_t open = name_view.find('[');
    if (open != std::string_view::npos) {
        nb::object text = AsStr(name);
        Py_ssize_t length = PyUnicode_GET_LENGTH(text.ptr());
        Py_ssize_t i = (Py_ssize_t) si::ByteToCharOffset(name_view, (std::ptrdiff_t) open);
        Py_ssize_t j = si::PyNonNestedFind(text, nb::str("]"), i + 1);
        if (j == length - 1 && i + 1 < length - 1) {
            std::string base(name_view.substr(0, open));
            base += "[]";
            AddPerName_(name_dict, nb::str(base.data(), base.size()), info);
        }
    }
    nb::object value = nb::borrow(info);
    if (!_fInSimpleConditional.is_none())
        value = si::PyBuildConditionalInfo(_fInSimpleConditional[0], info);

    // One lookup: the map grows when the name is new.
    Py_ssize_t size_before = PyDict_GET_SIZE(name_dict.ptr());
    PyObject *existing = PyDict_SetDefault(name_dict.ptr(), name.ptr(), value.ptr());
    if (!existing)
        throw nb::python_error();
    if (PyDict_GET_SIZE(name_dict.ptr()) != size_before)
        return;
    if (PyBytes_CheckExact(existing)) {
        nb::set both;
        both.add(nb::handle(existing));
        both.add(value);
        if (PyDict_SetItem(name_dict.ptr(), name.ptr(), both.ptr()) < 0)
            throw nb::python_error();
    } else if (PySet_Add(existing, value.ptr()) < 0) {
        throw nb::python_error();
    }
}

void CSingleScopePrimaryScanner::AddToFirstDict_(nb::handle name, nb::handle first_dict) {
    RequireDict(first_dict, "first_dict");
    nb::object key = AsStr(name);
    // The first entry wins.
    if (!PyDict_SetDefault(first_dict.ptr(), key.ptr(), LogicalIndexBytes_().ptr()))
        throw nb::python_error();
}

nb::handle CSingleScopePrimaryScanner::LogicalIndexBytes_() {
    if (fIndexBytesFor_ != fLogicalIndex_) {
        fIndexBytes_ = BytesForInteger(fLogicalIndex_);
        fIndexBytesFor_ = fLogicalIndex_;
    }
    return fIndexBytes_;
}

void CSingleScopePrimaryScanner::ScanSingleScopeDefInBody_(nb::handle logical_obj,
                                                           Py_ssize_t logical_i) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    nb::handle local_name = logical.fLocalScopeName;
    if (local_name.is_none())
        return;
    nb::object leaf = si::PySplitScopeNameFromSuffixes(local_name)[0];
    nb::handle scope_name = ScopeName();
    nb::object full_name = TextOf(scope_name).empty()
                               ? nb::borrow(local_name)
                               : nb::object(si::PyJoinTwoScopeNames(scope_name, local_name));
    AddToFirstDict_(leaf, fFirstNameSet_);
    nb::object seen = _fScopeNameSeenCount.attr("get")(local_name, 0);
    _fScopeNameSeenCount[local_name] = seen + nb::int_(1);
    nb::list decorator_logicals = FindDecoratorLogicals(logical_i, fBody);
    CLogicalLine *def = ScopeDefLogical();
    bool in_cls = def && def->fKind == LogicalKind::kClassDef;
    nb::object body0 = logical.fKind == LogicalKind::kFunctionDef
                           ? GetFirstLogicalFromBodyOfLogical_(logical_obj)
                           : nb::object(nb::none());
    nb::bytes ibytes =
        DefInfoBytesInBody(logical_obj, full_name, in_cls, decorator_logicals, body0);
    AddPerName_(fTypeEquivs_, leaf, ibytes);
}

nb::object CSingleScopePrimaryScanner::GetFirstLogicalFromBodyOfLogical_(nb::handle logical_obj) {
    CLogicalLine &logical = *AsLogical(logical_obj);
    if (logical.fKind != LogicalKind::kFunctionDef && logical.fKind != LogicalKind::kClassDef)
        return nb::none();
    // The whole-file path knows the first logical of every body already.
    PyObject *known = PyDict_GetItemWithError(fPerFileInfo->fSubScopeBody0.ptr(), logical_obj.ptr());
    if (known)
        return nb::borrow(known);
    if (PyErr_Occurred())
        throw nb::python_error();
    nb::ref<si::CScope> scope = ScopeOf(fScope).ChildScope(logical.fLocalScopeName);
    nb::object body = GetBodyOfNamedScope_(nb::cast(scope));
    if (body.is_none() || PyObject_Length(body.ptr()) == 0)
        return nb::none();
    return body[0];
}

// ---------------------------------------------------------------------------
// Simple conditionals of stub files

bool CSingleScopePrimaryScanner::HasBodyOnItsLine(const CLogicalLine &header) const {
    // The builder splits `if c: x: int` into the header and a body logical
    // that starts on the header's last line.
    if (!PyList_Check(fBody.ptr()) || fLogicalIndex_ + 1 >= PyList_GET_SIZE(fBody.ptr()))
        return false;
    CLogicalLine *next = AsLogical(PyList_GET_ITEM(fBody.ptr(), fLogicalIndex_ + 1));
    return next->fFirstLine == header.fFirstLine + header.fLineCount - 1 &&
           next->fIndentLevel > header.fIndentLevel;
}

void CSingleScopePrimaryScanner::UpdateSimpleConditional_(nb::handle logical_obj) {
    if (!fPerFileInfo->fPyiFile)
        return;
    CLogicalLine &logical = *AsLogical(logical_obj);
    LogicalKind kind = logical.fKind;
    if (kind == LogicalKind::kComment)
        return;
    auto tracked_indent = [this]() { return nb::cast<int>(_fInSimpleConditional[1]); };
    bool is_branch = kind == LogicalKind::kIfBeginning || kind == LogicalKind::kElifBeginning ||
                     kind == LogicalKind::kElseBeginning;
    if (!is_branch) {
        if (!_fInSimpleConditional.is_none() && logical.fIndentLevel <= tracked_indent())
            _fInSimpleConditional = nb::none();  // the block has ended
        return;
    }
    if (!_fInSimpleConditional.is_none()) {
        int indent = tracked_indent();
        if (logical.fIndentLevel > indent)
            return;  // nested: the outer condition holds
        if (logical.fIndentLevel < indent ||
            (logical.fIndentLevel == indent && kind == LogicalKind::kIfBeginning))
            _fInSimpleConditional = nb::none();
    }
    Py_ssize_t count = logical.TokenCount();
    if (count == 0 || logical.TokenText(count - 1) != ":" || HasBodyOnItsLine(logical))
        return;  // a one-line block isn't tracked
    nb::object condition;
    if (kind == LogicalKind::kElseBeginning) {
        if (_fInSimpleConditional.is_none())
            return;
        std::string negated("not ");
        negated += TextOf(_fInSimpleConditional[0]);
        condition = si::ToBytes(negated);
    } else if (kind == LogicalKind::kIfBeginning) {
        nb::list cond_toks;
        nb::object toks = logical.GetToks();
        for (Py_ssize_t i = 1; i < count - 1; ++i)
            cond_toks.append(toks[i]);
        if (!IsSimpleCondition_(cond_toks)) {
            _fInSimpleConditional = nb::none();
            return;
        }
        condition = si::PyJoinTokens(cond_toks);
    } else {
        // An elif isn't supported, and it ends the tracking of the chain.
        _fInSimpleConditional = nb::none();
        return;
    }
    _fInSimpleConditional = nb::make_tuple(condition, logical.fIndentLevel, nb::tuple());
}

bool CSingleScopePrimaryScanner::IsSimpleCondition_(nb::handle tok_list) {
    Py_ssize_t count = PyObject_Length(tok_list.ptr());
    if (count < 0)
        throw nb::python_error();
    if (count == 0)
        return false;
    auto tok = [&](Py_ssize_t i) { return TextOf(tok_list[i]); };
    bool is_version_info =
        count >= 3 && tok(0) == "sys" && tok(1) == "." && tok(2) == "version_info";
    if (!is_version_info) {
        if (tok(0) != "hasattr" || count < 5 || tok(1) != "(" || tok(count - 1) != ")")
            return false;
        if (GetTokenType(tok_list[2], 0) != kTokName || GetTokenType(tok_list[4], 0) != kTokString)
            return false;
        return IsSimpleConditionParsable_(tok_list);
    }
    Py_ssize_t op_i = 3;
    if (count >= 4 && tok(3) == "[") {
        Py_ssize_t close = -1;
        for (Py_ssize_t i = 0; i < count && close < 0; ++i)
            if (tok(i) == "]")
                close = i;
        if (close < 0)
            return false;
        op_i = close + 1;
    }
    if (op_i >= count)
        return false;
    std::string_view op = tok(op_i);
    if (op != ">" && op != ">=" && op != "<" && op != "<=" && op != "==" && op != "!=")
        return false;
    // The value starts at 4 in both forms, kept as it is: with a slice it
    // starts inside the slice.
    if (count <= 4)
        return false;
    std::string_view first = tok(4);
    std::string_view last = tok(count - 1);
    if ((first != "(" && first != "[") || (last != ")" && last != "]"))
        return false;
    return IsSimpleConditionParsable_(tok_list);
}

bool CSingleScopePrimaryScanner::IsSimpleConditionParsable_(nb::handle tok_list) {
    for (nb::handle tok : tok_list)
        if (TextOf(tok) == ";")
            return false;
    // The parse proves only that the text is an expression; any error of
    // the parser means it isn't.
    try {
        return IsTrue(Analyzer().attr("ParseTokenListToNode")(tok_list, false));
    } catch (...) {
        return false;
    }
}

}  // namespace pysource

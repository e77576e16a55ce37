#include "pysource/pgeninspect.h"

#include "pysource/infokinds.h"
#include "pysource/pgeninspect/parser.h"

#include <nanobind/stl/string.h>

namespace pysource {

namespace {

using pgen::NamePair;
using pgen::TokClass;

nb::object BytesOf(const std::string &s) {
    return nb::steal(PyBytes_FromStringAndSize(s.data(), (Py_ssize_t) s.size()));
}

// Info bytes that most pairs carry, made once.
nb::object InfoBytesOf(const std::string &info) {
    // Kept for the life of the process (never released at exit, when the
    // interpreter may already be gone).
    static nb::handle get_info = BytesOf(std::string(symbolinfo::kGetPrefix)).release();
    static nb::handle set_info = BytesOf(std::string(symbolinfo::kSetPrefix)).release();
    if (info == symbolinfo::kGetPrefix)
        return nb::borrow(get_info);
    if (info == symbolinfo::kSetPrefix)
        return nb::borrow(set_info);
    return BytesOf(info);
}

nb::object PairTuple(const NamePair &pair) {
    nb::object name = BytesOf(pair.name);
    nb::object info = InfoBytesOf(pair.info);
    nb::object tuple = nb::steal(PyTuple_New(2));
    PyTuple_SET_ITEM(tuple.ptr(), 0, name.release().ptr());
    PyTuple_SET_ITEM(tuple.ptr(), 1, info.release().ptr());
    // A tuple of two byte strings can hold no cycle: the collector needn't
    // visit it (CPython untracks such tuples itself, but only later).
    PyObject_GC_UnTrack(tuple.ptr());
    return tuple;
}

// The pairs as a tuple, which the collector needn't visit either: a file's
// logicals keep theirs while the file is scanned, and lists would be walked
// by every young collection and fill the oldest generation.
nb::object PairsTuple(const std::vector<NamePair> &pairs) {
    nb::object tuple = nb::steal(PyTuple_New((Py_ssize_t) pairs.size()));
    for (size_t i = 0; i < pairs.size(); ++i)
        PyTuple_SET_ITEM(tuple.ptr(), (Py_ssize_t) i, PairTuple(pairs[i]).release().ptr());
    if (PyObject_GC_IsTracked(tuple.ptr()))
        PyObject_GC_UnTrack(tuple.ptr());
    return tuple;
}

nb::object PairTupleOrNone(const pgen::LogicalNames &names) {
    if (!names.has_arg_type_equivs)
        return nb::none();
    return PairsTuple(names.arg_type_equivs);
}

// The text behind "type:" of a type comment, or an empty view for any other
// comment and for "type: ignore".
std::string_view TypeCommentText(std::string_view comment) {
    comment.remove_prefix(1);  // '#'
    while (!comment.empty() && (comment.front() == ' ' || comment.front() == '\t'))
        comment.remove_prefix(1);
    if (comment.substr(0, 5) != "type:")
        return {};
    comment.remove_prefix(5);
    while (!comment.empty() && (comment.front() == ' ' || comment.front() == '\t'))
        comment.remove_prefix(1);
    while (!comment.empty() &&
           (comment.back() == ' ' || comment.back() == '\t' || comment.back() == '\r' ||
            comment.back() == '\n'))
        comment.remove_suffix(1);
    if (comment.substr(0, 6) == "ignore" &&
        (comment.size() == 6 || comment[6] == '[' || comment[6] == ' ' || comment[6] == '#'))
        return {};
    return comment;
}

const char *const kNodeKindNames[] = {
    "Name", "Constant", "String", "Attribute", "Subscript", "Call", "Keyword", "Starred",
    "DoubleStarred", "Tuple", "List", "Set", "Dict", "BinOp", "UnaryOp", "BoolOp", "Compare",
    "IfExp", "Lambda", "NamedExpr", "Slice", "ListComp", "SetComp", "DictComp", "GenExp",
    "Comprehension", "Await", "Yield", "YieldFrom", "Repr"};
// One name for each expression kind, which come first in NodeKind.
static_assert(std::size(kNodeKindNames) == (size_t) pgen::NodeKind::kParams);

}  // namespace

std::string CParseNode::Kind() const {
    if (fRoot < 0)
        return std::string();
    size_t kind = (size_t) fTree.nodes[(size_t) fRoot].kind;
    return kind < std::size(kNodeKindNames) ? kNodeKindNames[kind] : "Node";
}

std::string CParseNode::Text() const {
    return fRoot < 0 ? std::string() : fTree.NodeText(fRoot);
}

void FinishedWithNode(CParseNode *node) {
    if (!node)
        return;  // a logical that was never parsed
    node->fTree.Clear();
    node->fRoot = -1;
}

void CPGenAnalyzer::AddToken(pgen::Tree &tree, std::string_view text, std::int32_t index) {
    TokClass cls = pgen::ClassifyToken(text);
    if (cls == TokClass::kEnd)
        return;  // line ends, continuations, indents
    if (cls == TokClass::kComment) {
        std::string_view hint = TypeCommentText(text);
        if (!hint.empty()) {
            tree.type_comment = hint;
            tree.type_comment_source = index;
        }
        return;
    }
    tree.toks.push_back(pgen::Tok{text, cls, index});
}

nb::object CPGenAnalyzer::Analyze(bool py3_grammar, bool first_in_def) {
    fTree.main_tok_count = (std::int32_t) fTree.toks.size();
    pgen::ParseLogical(fTree, py3_grammar);
    pgen::CollectLogicalNames(fTree, py3_grammar, first_in_def, fNames);
    if (fTree.errors.empty())
        return nb::none();
    nb::list errors;
    for (const pgen::ParseError &e : fTree.errors)
        errors.append(nb::make_tuple(nb::str(e.message.c_str()), e.tok));
    return errors;
}

nb::object CPGenAnalyzer::AnalyzeSingleLogical(CLogicalLine &logical, bool py3_grammar,
                                              bool first_in_def) {
    if (logical.fParsed.is_valid() && nb::bool_(logical.fParsed))
        return nb::none();
    fTree.Clear();
    for (Py_ssize_t i = 0; i < logical.TokenCount(); ++i)
        AddToken(fTree, logical.TokenText(i), (std::int32_t) i);
    nb::object errors = Analyze(py3_grammar, first_in_def);
    logical.fTypeEquivs = PairsTuple(fNames.type_equivs);
    logical.fArgTypeEquivs = PairTupleOrNone(fNames);
    logical.fParsed = nb::bool_(errors.is_none());
    fTree.Clear();
    return errors;
}

void CPGenAnalyzer::LoadTokenList(pgen::Tree &tree, nb::handle tok_list) {
    // Token texts are copied: the views must outlive the Python list.
    nb::sequence seq = nb::borrow<nb::sequence>(tok_list);
    Py_ssize_t count = (Py_ssize_t) nb::len(seq);
    for (Py_ssize_t i = 0; i < count; ++i) {
        nb::object item = seq[i];
        if (!nb::isinstance<nb::str>(item))
            throw nb::type_error("token list items must be str");
        std::string_view kept = tree.Keep(nb::cast<std::string>(item));
        AddToken(tree, kept, (std::int32_t) i);
    }
}

nb::object CPGenAnalyzer::AnalyzeTokenList(nb::handle tok_list, bool py3_grammar,
                                          bool first_in_def) {
    fTree.Clear();
    LoadTokenList(fTree, tok_list);
    nb::object errors = Analyze(py3_grammar, first_in_def);
    nb::object result = nb::make_tuple(PairsTuple(fNames.type_equivs), PairTupleOrNone(fNames), errors);
    fTree.Clear();
    return result;
}

nb::ref<CParseNode> CPGenAnalyzer::ParseTokenListToNode(nb::handle tok_list, bool py3_grammar) {
    nb::ref<CParseNode> node = new CParseNode();
    pgen::Tree &tree = node->fTree;
    LoadTokenList(tree, tok_list);
    tree.main_tok_count = (std::int32_t) tree.toks.size();
    node->fRoot = pgen::ParseExpressionRange(tree, 0, tree.main_tok_count, py3_grammar);
    if (node->fRoot < 0) {
        const pgen::ParseError &e = tree.errors.front();
        std::string message = e.message + " at token " + std::to_string(e.tok);
        PyErr_SetString(PyExc_SyntaxError, message.c_str());
        throw nb::python_error();
    }
    return node;
}

}  // namespace pysource

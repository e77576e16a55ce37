// The syntax tree of one logical line: tokens and nodes in flat arrays.
//
// A tree owns the token views it parses (those of the logical, and any that
// were lexed from inside strings and comments), the nodes, and the child
// index array.  Nothing in it is a Python object, and a tree is reused from
// logical to logical, so parsing a logical allocates nothing once the arrays
// have grown to size.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace pysource::pgen {

enum class TokClass : std::uint8_t { kName, kNumber, kString, kOp, kComment, kEnd };

struct Tok {
    std::string_view text;
    TokClass cls;
    std::int32_t source_index;  // the logical's token this one is, or was lexed from
};

enum class NodeKind : std::uint8_t {
    // expressions
    kName, kConstant, kString, kAttribute, kSubscript, kCall, kKeyword, kStarred,
    kDoubleStarred, kTuple, kList, kSet, kDict, kBinOp, kUnaryOp, kBoolOp, kCompare,
    kIfExp, kLambda, kNamedExpr, kSlice, kListComp, kSetComp, kDictComp, kGenExp,
    kComprehension, kAwait, kYield, kYieldFrom, kRepr,
    // parameters and type parameters
    kParams, kParam, kTypeParams, kTypeParam,
    // match patterns: a capture binds a name; a group walks its children as patterns
    kPatCapture, kPatGroup, kPatKeyword,
    // statements
    kAssign, kAugAssign, kAnnAssign, kExprStmt, kReturn, kDelete, kGlobal, kNonlocal,
    kImport, kImportAlias, kFromImport, kRaise, kAssert, kSimpleKeyword, kIf, kWhile, kFor,
    kWith, kWithItem, kExcept, kDef, kClass, kDecorator, kMatch, kCase, kTypeAlias, kPrint,
    kExec, kCompoundKeyword,
    // a statement that didn't parse: its tokens are read one by one
    kBroken,
};

// Parameter kinds, in the order Python allows them.
enum ParamKind : std::uint8_t {
    kPositionalOnly, kNormal, kVarArgs, kKeywordOnly, kVarKeywords,
};

// Flags on nodes.
enum : std::uint8_t {
    kFlagAsync = 1,        // async for / with / def / comprehension
    kFlagParenthesized = 2,  // an expression written inside its own parentheses
};

struct Node {
    NodeKind kind;
    std::uint8_t flags;
    std::uint8_t param_kind;  // kParam: a ParamKind
    std::int32_t tok_begin;   // first token of the node's text
    std::int32_t tok_end;     // one past its last token
    std::int32_t kids_begin;  // index into Tree::kids
    std::int32_t kids_count;
    std::int32_t aux;         // a token index or a count, by kind (see parser.cpp)
};

struct ParseError {
    std::string message;
    std::int32_t tok;  // index in the logical's tokens
};

class Tree {
public:
    std::vector<Tok> toks;
    std::vector<Node> nodes;
    std::vector<std::int32_t> kids;   // child node indexes; -1 marks an absent child
    std::vector<std::int32_t> statements;
    std::vector<ParseError> errors;
    std::int32_t main_tok_count = 0;  // tokens of the logical; lexed ones follow
    // The text behind "type:" of the logical's type comment, if it has one,
    // and that comment's token index.
    std::string_view type_comment;
    std::int32_t type_comment_source = -1;

    void Clear();
    // Keeps `text` alive for the life of the tree's current contents and
    // gives a view of the kept copy.
    std::string_view Keep(std::string text);

    std::int32_t Kid(const Node &n, std::int32_t i) const {
        return i < n.kids_count ? kids[(size_t) (n.kids_begin + i)] : -1;
    }
    // Source text of a token range: tokens joined with a space only where
    // two words would otherwise run together, or after a comma.
    void AppendText(std::string &out, std::int32_t begin, std::int32_t end) const;
    std::string Text(std::int32_t begin, std::int32_t end) const {
        std::string out;
        AppendText(out, begin, end);
        return out;
    }
    std::string NodeText(std::int32_t node) const {
        const Node &n = nodes[(size_t) node];
        return Text(n.tok_begin, n.tok_end);
    }
    // The logical's token that token `tok` is or came from, for error
    // positions; one past the last token for the end.
    std::int32_t SourcePosition(std::int32_t tok) const;

private:
    std::deque<std::string> kept_;
};

// The text inside a string annotation: `node` is one plain string token
// (no bytes or f prefix); its quotes and surrounding blanks are taken off.
bool StringAnnotationText(const Tree &tree, std::int32_t node, std::string_view &text);

// Classifies a token by its text alone.
TokClass ClassifyToken(std::string_view text);
// True for the reserved words of Python 3 (and print/exec when `py2` is set).
bool IsKeyword(std::string_view word, bool py2);

}  // namespace pysource::pgen

// A recursive-descent parser of Python's statement and expression grammar
// (3.8 to 3.13, and the Python 2 print and exec statements, backticks and
// "<>"), over the tokens of one logical line held in a Tree.
//
// Node layouts (children in order; -1 for an absent child; `aux` by kind).
// A parenthesized expression's range takes in its parentheses.
//   kName                     no children; aux = the name token
//   kConstant                 no children
//   kString                   the expressions of f-string fields
//   kAttribute                [value]; aux = attribute name token
//   kSubscript                [value, slice]
//   kCall                     [callee, arguments...]; aux = token of "("
//   kKeyword                  [value]; aux = name token (-1 for **)
//   kStarred, kDoubleStarred, kAwait, kYield, kYieldFrom, kRepr   [value] or []
//   kTuple, kList, kSet       elements
//   kDict                     key, value, key, value... (a ** entry: kDoubleStarred, -1)
//   kBinOp, kBoolOp, kCompare, kUnaryOp, kIfExp    operands
//   kLambda                   [params, body]; aux = the first node of its subtree
//                             (children are made before their parents)
//   kNamedExpr                [target name, value]
//   kSlice                    [lower, upper, step]
//   kListComp, kSetComp, kGenExp   [element, comprehensions...]
//   kDictComp                 [key, value, comprehensions...]
//   kComprehension            [target, iterable, conditions...]
//   kParams                   kParam nodes
//   kParam                    [annotation, default]; aux = name token; param_kind
//   kTypeParams               kTypeParam nodes
//   kTypeParam                [bound, default]; aux = name token; param_kind 0, 1 (*), 2 (**)
//   kPatCapture               aux = the captured name's token
//   kPatGroup                 patterns or value expressions
//   kPatKeyword               [pattern]; aux = keyword token
// Statements:
//   kAssign                   [targets..., value]
//   kAugAssign                [target, value]; aux = operator token
//   kAnnAssign                [target, annotation, value]
//   kExprStmt, kReturn        [value] ([-1] for a bare return)
//   kDelete                   targets
//   kGlobal, kNonlocal        no children: the names are the tokens
//   kImport                   kImportAlias nodes
//   kImportAlias              tokens: the dotted name; aux = "as" name token or -1
//   kFromImport               [module alias or -1, kImportAlias...]; aux = level
//                             (a "*" import is an alias whose token is "*")
//   kRaise, kAssert, kPrint, kExec   expressions
//   kSimpleKeyword, kCompoundKeyword  (pass, break...; else:, try:, finally:)
//   kIf, kWhile               [condition]
//   kFor                      [target, iterable]
//   kWith                     kWithItem nodes
//   kWithItem                 [context expression, target]
//   kExcept                   [type]; aux = "as" name token or -1
//   kDef                      [type params, params, returns]; aux = name token
//   kClass                    [type params, arguments...]; aux = name token
//   kDecorator                [expression]
//   kMatch                    [subject]
//   kCase                     [pattern, guard]
//   kTypeAlias                [type params, value]; aux = name token
//   kBroken                   tokens only
#pragma once

#include "pysource/pgeninspect/tree.h"

namespace pysource::pgen {

// Parses tree.toks[0, main_tok_count) as one logical line.  Statements go to
// tree.statements, in order; errors to tree.errors.  A statement that fails
// becomes a kBroken node over its tokens, and parsing goes on after the next
// ";" at bracket level zero.
void ParseLogical(Tree &tree, bool py3);

// Parses tree.toks[begin, end) as one expression, a tuple if there are
// commas.  Gives its node, or -1 with an error added to tree.errors.
std::int32_t ParseExpressionRange(Tree &tree, std::int32_t begin, std::int32_t end, bool py3);

// Parses tree.toks[begin, end) as the parameter list of a def, without its
// parentheses.  Gives the kParams node, or -1 with an error added.
std::int32_t ParseParameterRange(Tree &tree, std::int32_t begin, std::int32_t end, bool py3);

// Lexes `text` (kept by the tree) and parses it as an expression; tokens
// report `origin` as their position.  Gives the node or -1; errors are not
// recorded, since such text (a string, a comment) need not be code.
std::int32_t ParseEmbeddedExpression(Tree &tree, std::string_view text, std::int32_t origin,
                                     bool py3);

}  // namespace pysource::pgen

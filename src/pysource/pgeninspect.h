// The statement analyzer: parses one logical line with a parser of the
// Python grammar and fills in what it says about names (`fTypeEquivs`, and
// `fArgTypeEquivs` on a def or class line) as (name, info bytes) pairs.
#pragma once

#include "pysource/logicalline.h"
#include "pysource/pgeninspect/names.h"
#include "pysource/pgeninspect/tree.h"

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

#include <string>
#include <string_view>
#include <vector>

namespace nb = nanobind;

namespace pysource {

// The result of ParseTokenListToNode: the parsed expression, kept until
// FinishedWithNode.
class CParseNode : public nb::intrusive_base {
public:
    pgen::Tree fTree;
    std::int32_t fRoot = -1;

    // The node kind's name, "" once finished with.
    std::string Kind() const;
    // The expression's source text, tokens joined.
    std::string Text() const;
    bool IsFinished() const { return fRoot < 0; }
};

class CPGenAnalyzer : public nb::intrusive_base {
public:
    // Analyses `logical` in place unless its `fParsed` is already true: sets
    // `fParsed` (true when it parsed without error), `fTypeEquivs` (a tuple of
    // (name bytes, info bytes)) and `fArgTypeEquivs` (a tuple of pairs on a
    // def or class line, else None).  Gives a list of (message, token index)
    // errors, or None.
    nb::object AnalyzeSingleLogical(CLogicalLine &logical, bool py3_grammar,
                                    bool first_in_def = false);

    // The same analysis of a list of token texts with no logical around
    // them: gives (type_equivs, arg_type_equivs, errors) as above.
    nb::object AnalyzeTokenList(nb::handle tok_list, bool py3_grammar, bool first_in_def = false);

    // Parses a list of token texts as one expression; raises SyntaxError
    // with the message and token index when it isn't one.  `py3_grammar`
    // false admits backticks and "<>".
    nb::ref<CParseNode> ParseTokenListToNode(nb::handle tok_list, bool py3_grammar);

private:
    pgen::Tree fTree;  // reused from logical to logical
    pgen::LogicalNames fNames;

    void AddToken(pgen::Tree &tree, std::string_view text, std::int32_t index);
    // Parses and walks fTree; gives the errors object.
    nb::object Analyze(bool py3_grammar, bool first_in_def);
    void LoadTokenList(pgen::Tree &tree, nb::handle tok_list);
};

// Releases what a parse node holds; the node is unusable afterwards.  A null
// node (None: a logical never parsed) is accepted.
void FinishedWithNode(CParseNode *node);

}  // namespace pysource

// A small tokenizer for Python expression text found inside a logical's
// tokens: the replacement fields of f-strings, string annotations and type
// comments.  Tokens are appended to a tree's token array as views of `text`,
// which must live as long as the tree's contents (see Tree::Keep).
#pragma once

#include "pysource/pgeninspect/tree.h"

namespace pysource::pgen {

// Appends the tokens of `text` to `tree.toks`; comments and white space are
// dropped; every token records `origin`, the logical's token it came
// from.  Gives false for text that doesn't tokenize (an unterminated
// string, a stray character); the tokens read up to there stay.
bool LexExpressionText(Tree &tree, std::string_view text, std::int32_t origin);

// Length of the string prefix letters (r, b, u, f, and their pairs) before
// the quote of a string token, or -1 when `text` isn't a string token.
int StringPrefixLength(std::string_view text);

}  // namespace pysource::pgen

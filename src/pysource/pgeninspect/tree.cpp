#include "pysource/pgeninspect/tree.h"

#include "pysource/pgeninspect/lexer.h"

#include <algorithm>
#include <array>

namespace pysource::pgen {

void Tree::Clear() {
    toks.clear();
    nodes.clear();
    kids.clear();
    statements.clear();
    errors.clear();
    main_tok_count = 0;
    type_comment = std::string_view();
    type_comment_source = -1;
    kept_.clear();
}

std::string_view Tree::Keep(std::string text) {
    kept_.push_back(std::move(text));
    return kept_.back();
}

namespace {

bool IsWordLike(const Tok &t) {
    return t.cls == TokClass::kName || t.cls == TokClass::kNumber || t.cls == TokClass::kString;
}

}  // namespace

void Tree::AppendText(std::string &out, std::int32_t begin, std::int32_t end) const {
    const Tok *prev = nullptr;
    for (std::int32_t i = begin; i < end; ++i) {
        const Tok &t = toks[(size_t) i];
        if (prev != nullptr) {
            bool space = (IsWordLike(*prev) && IsWordLike(t)) || prev->text == "," ||
                         (prev->cls == TokClass::kNumber && t.text == ".");
            if (space)
                out.push_back(' ');
        }
        out.append(t.text);
        prev = &t;
    }
}

std::int32_t Tree::SourcePosition(std::int32_t tok) const {
    if (toks.empty() || tok < 0)
        return 0;
    if ((size_t) tok >= toks.size())
        return toks.back().source_index + 1;
    return toks[(size_t) tok].source_index;
}

bool StringAnnotationText(const Tree &tree, std::int32_t node, std::string_view &text) {
    const Node &n = tree.nodes[(size_t) node];
    if (n.kind != NodeKind::kString || n.tok_end != n.tok_begin + 1)
        return false;
    std::string_view tok = tree.toks[(size_t) n.tok_begin].text;
    int prefix = StringPrefixLength(tok);
    if (prefix < 0)
        return false;
    for (int i = 0; i < prefix; ++i) {
        char c = tok[(size_t) i];
        if (c != 'r' && c != 'R' && c != 'u' && c != 'U')
            return false;
    }
    std::string_view body = tok.substr((size_t) prefix);
    size_t quote = body.size() >= 6 && body[1] == body[0] && body[2] == body[0] ? 3 : 1;
    if (body.size() < 2 * quote)
        return false;
    body = body.substr(quote, body.size() - 2 * quote);
    while (!body.empty() && (body.front() == ' ' || body.front() == '\t'))
        body.remove_prefix(1);
    while (!body.empty() && (body.back() == ' ' || body.back() == '\t'))
        body.remove_suffix(1);
    text = body;
    return true;
}

TokClass ClassifyToken(std::string_view text) {
    if (text.empty())
        return TokClass::kEnd;
    unsigned char c = (unsigned char) text[0];
    if (c == '#')
        return TokClass::kComment;
    if (c == '\'' || c == '"')
        return TokClass::kString;
    if ((c >= '0' && c <= '9') || (c == '.' && text.size() > 1 && text[1] >= '0' && text[1] <= '9'))
        return TokClass::kNumber;
    if (c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80) {
        if (text.back() == '\'' || text.back() == '"')
            return StringPrefixLength(text) >= 0 ? TokClass::kString : TokClass::kName;
        return TokClass::kName;
    }
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\\' || c == '\f')
        return TokClass::kEnd;
    return TokClass::kOp;
}

bool IsKeyword(std::string_view word, bool py2) {
    static constexpr std::array<std::string_view, 35> kWords = {
        "False", "None", "True", "and", "as", "assert", "async", "await", "break", "class",
        "continue", "def", "del", "elif", "else", "except", "exec", "finally", "for", "from",
        "global", "if", "import", "in", "is", "lambda", "nonlocal", "not", "or", "pass", "print",
        "raise", "return", "try", "while"};
    // Every keyword is two to eight letters and starts with one of a few:
    // most names are turned away here, before the search.
    if (word.size() < 2 || word.size() > 8)
        return false;
    switch (word[0]) {
    case 'F': case 'N': case 'T': case 'a': case 'b': case 'c': case 'd': case 'e': case 'f':
    case 'g': case 'i': case 'l': case 'n': case 'o': case 'p': case 'r': case 't': case 'w':
    case 'y':
        break;
    default:
        return false;
    }
    if (word == "with" || word == "yield")
        return true;
    if (!std::binary_search(kWords.begin(), kWords.end(), word))
        return false;
    if (word == "print" || word == "exec")
        return py2;
    if (py2 && (word == "nonlocal" || word == "async" || word == "await" || word == "None" ||
                word == "True" || word == "False"))
        return false;
    return true;
}

}  // namespace pysource::pgen

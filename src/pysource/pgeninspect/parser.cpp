#include "pysource/pgeninspect/parser.h"

#include "pysource/pgeninspect/lexer.h"

#include <array>

namespace pysource::pgen {

namespace {

// Thrown inside the parser only; caught at statement level or at a point
// that tries one form and falls back to another.
struct SyntaxError {
    const char *message;
    std::int32_t tok;
};

constexpr int kMaxDepth = 200;

const Tok kEndTok{std::string_view(), TokClass::kEnd, -1};

constexpr std::array<std::string_view, 13> kAugAssignOps = {
    "+=", "-=", "*=", "/=", "//=", "%=", "@=", "&=", "|=", "^=", ">>=", "<<=", "**="};

// Binary operators by level, loosest first: | ^ & (<< >>) (+ -) (* / // % @).
constexpr int kLoosestBinaryLevel = 0;
constexpr int kAdditiveLevel = 4;

// The level of a binary operator token, or -1 for any other token: one look
// at the token decides, however many levels there are.
int BinaryLevelOf(const Tok &tok) {
    if (tok.cls != TokClass::kOp)
        return -1;
    std::string_view s = tok.text;
    if (s.size() == 1) {
        switch (s[0]) {
        case '|': return 0;
        case '^': return 1;
        case '&': return 2;
        case '+': case '-': return 4;
        case '*': case '/': case '%': case '@': return 5;
        default: return -1;
        }
    }
    if (s == "<<" || s == ">>")
        return 3;
    return s == "//" ? 5 : -1;
}

// Token text against a keyword or operator, without a library call: most
// tokens differ from it in length, and the rest are a few bytes long.
bool SameText(std::string_view text, std::string_view expected) {
    if (text.size() != expected.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] != expected[i])
            return false;
    return true;
}

class Parser {
public:
    Parser(Tree &tree, std::int32_t begin, std::int32_t end, bool py3)
        : t_(tree), pos_(begin), end_(end), py3_(py3) {}

    void ParseLogicalLine();
    std::int32_t ParseWholeExpression();
    std::int32_t ParseWholeParams();

private:
    Tree &t_;
    std::int32_t pos_;
    std::int32_t end_;
    bool py3_;
    int depth_ = 0;
    std::vector<std::int32_t> scratch_;

    struct DepthGuard {
        Parser &p;
        explicit DepthGuard(Parser &parser) : p(parser) {
            if (p.depth_ >= kMaxDepth)
                p.Fail("expression nested too deeply");
            ++p.depth_;
        }
        ~DepthGuard() { --p.depth_; }
    };

    // Saved state for trying one form and falling back to another.
    struct Mark {
        std::int32_t pos, end;
        size_t nodes, kids, toks, scratch;
    };
    Mark Save() const {
        return Mark{pos_, end_, t_.nodes.size(), t_.kids.size(), t_.toks.size(), scratch_.size()};
    }
    void Restore(const Mark &m) {
        pos_ = m.pos;
        end_ = m.end;
        t_.nodes.resize(m.nodes);
        t_.kids.resize(m.kids);
        t_.toks.resize(m.toks);
        scratch_.resize(m.scratch);
    }
    // Runs `form`; when it fails, everything is as it was before, and the
    // result is false.
    template <typename Form>
    bool Attempt(Form form) {
        Mark m = Save();
        try {
            form();
            return true;
        } catch (const SyntaxError &) {
            Restore(m);
            return false;
        }
    }

    const Tok &Peek(std::int32_t k = 0) const {
        std::int32_t i = pos_ + k;
        return i < end_ ? t_.toks[(size_t) i] : kEndTok;
    }
    bool At(std::string_view s, std::int32_t k = 0) const {
        const Tok &tok = Peek(k);
        return tok.cls != TokClass::kString && SameText(tok.text, s);
    }
    bool AtEnd() const { return pos_ >= end_; }
    bool Accept(std::string_view s) {
        if (!At(s))
            return false;
        ++pos_;
        return true;
    }
    void Expect(std::string_view s, const char *message) {
        if (!Accept(s))
            Fail(message);
    }
    [[noreturn]] void Fail(const char *message) const { throw SyntaxError{message, pos_}; }

    bool AtIdentifier(std::int32_t k = 0) const {
        const Tok &tok = Peek(k);
        return tok.cls == TokClass::kName && !IsKeyword(tok.text, !py3_);
    }
    std::int32_t ExpectIdentifier(const char *message) {
        if (!AtIdentifier())
            Fail(message);
        return pos_++;
    }

    std::int32_t NewNode(NodeKind kind, std::int32_t begin, size_t mark, std::int32_t aux = -1,
                         std::uint8_t flags = 0) {
        Node n{kind, flags, 0, begin, pos_, (std::int32_t) t_.kids.size(),
               (std::int32_t) (scratch_.size() - mark), aux};
        t_.kids.insert(t_.kids.end(), scratch_.begin() + (std::ptrdiff_t) mark, scratch_.end());
        scratch_.resize(mark);
        t_.nodes.push_back(n);
        return (std::int32_t) t_.nodes.size() - 1;
    }
    std::int32_t Leaf(NodeKind kind, std::int32_t begin, std::int32_t aux = -1) {
        return NewNode(kind, begin, scratch_.size(), aux);
    }
    std::int32_t Begin(std::int32_t node) const { return t_.nodes[(size_t) node].tok_begin; }
    void Push(std::int32_t node) { scratch_.push_back(node); }

    // Statements
    void ParseStatement();
    void ParseSimpleStatements();
    void ParseSimpleStatement();
    void ParseAfterColon();
    std::int32_t SoftKeywordStatement();
    bool TryParseMatch();
    bool TryParseCase();
    void ParseDef(std::int32_t begin, std::uint8_t flags);
    void ParseClass(std::int32_t begin);
    void ParseWith(std::int32_t begin, std::uint8_t flags);
    bool TryParseParenthesizedWithItems();
    void ParseWithItem();
    void ParseImport(std::int32_t begin);
    void ParseFromImport(std::int32_t begin);
    std::int32_t ParseImportAlias(bool dotted);
    std::int32_t ParseParams(std::string_view closer, bool annotations);
    std::int32_t ParseTypeParams();
    void ParseExpressionStatement(std::int32_t begin);
    std::int32_t ParseRightHandSide();

    // Expressions
    std::int32_t ParseStarExpressions();
    std::int32_t ParseStarNamedExpressions(std::int32_t begin);
    std::int32_t ParseStarNamedExpression();
    std::int32_t ParseNamedExpression();
    std::int32_t ParseExpression();
    std::int32_t ParseLambda();
    std::int32_t ParseDisjunction() { return ParseBoolChain("or", &Parser::ParseConjunction); }
    std::int32_t ParseConjunction() { return ParseBoolChain("and", &Parser::ParseInversion); }
    std::int32_t ParseBoolChain(std::string_view op, std::int32_t (Parser::*operand)());
    std::int32_t ParseInversion();
    std::int32_t ParseComparison();
    std::int32_t ParseBinary(int min_level);
    std::int32_t ParseFactor();
    std::int32_t ParsePower();
    std::int32_t ParsePrimary();
    std::int32_t ParseTrailers(std::int32_t node);
    std::int32_t ParseAtom();
    std::int32_t ParseStrings();
    void ParseFStringFields(std::int32_t tok_index);
    void ParseFStringFieldsOf(std::string_view body, std::int32_t origin, bool raw);
    void ParseFieldExpression(std::string_view text, std::int32_t origin);
    std::int32_t ParseParenthesized();
    std::int32_t ParseBracketed();
    std::int32_t ParseBraced();
    void PushDictEntry();
    void ParseComprehensions();
    bool AtComprehension() const { return At("for") || (At("async") && At("for", 1)); }
    void ParseArguments(std::string_view closer);
    std::int32_t ParseSlices();
    std::int32_t ParseSlice();
    std::int32_t ParseYield();
    std::int32_t ParseTargetList(bool allow_star);
    bool AtItemListEnd() const;
    template <typename ParseItem, typename AtListEnd>
    std::int32_t ParseItemsUntil(std::int32_t begin, std::int32_t first, NodeKind kind,
                                 ParseItem parse_item, AtListEnd at_list_end);
    template <typename ParseItem>
    std::int32_t ParseItemsAfter(std::int32_t begin, std::int32_t first, NodeKind kind,
                                 ParseItem parse_item) {
        return ParseItemsUntil(begin, first, kind, parse_item,
                               [this] { return AtItemListEnd(); });
    }
    std::int32_t ParseTarget(bool allow_star);

    // Patterns
    std::int32_t ParsePatterns();
    std::int32_t ParseAsPattern();
    std::int32_t ParseOrPattern();
    std::int32_t ParseClosedPattern();
    std::int32_t ParseDottedValue();
    std::int32_t ParsePatternSequence(std::int32_t begin, std::string_view closer);
    std::int32_t ParseLiteralPattern();
};

// ---------------------------------------------------------------- statements

void Parser::ParseLogicalLine() {
    bool first = true;
    const std::int32_t end = end_;
    while (!AtEnd()) {
        std::int32_t begin = pos_;
        size_t nodes = t_.nodes.size();
        size_t kids = t_.kids.size();
        size_t toks = t_.toks.size();
        try {
            if (first)
                ParseStatement();
            else
                ParseSimpleStatements();
            return;
        } catch (const SyntaxError &e) {
            t_.errors.push_back(ParseError{e.message, t_.SourcePosition(e.tok)});
            end_ = end;
            // Drop what the failed statement made, keep its tokens readable,
            // and go on after the next ";" at bracket level zero.
            t_.nodes.resize(nodes);
            t_.kids.resize(kids);
            t_.toks.resize(toks);
            scratch_.clear();
            depth_ = 0;
            while (!t_.statements.empty() && t_.statements.back() >= (std::int32_t) nodes)
                t_.statements.pop_back();
            pos_ = begin;
            int level = 0;
            while (!AtEnd()) {
                std::string_view s = Peek().cls == TokClass::kOp ? Peek().text : std::string_view();
                if (s == "(" || s == "[" || s == "{")
                    ++level;
                else if ((s == ")" || s == "]" || s == "}") && level > 0)
                    --level;
                else if (s == ";" && level == 0)
                    break;
                ++pos_;
            }
            t_.statements.push_back(Leaf(NodeKind::kBroken, begin));
            Accept(";");
            first = false;
        }
    }
}

void Parser::ParseStatement() {
    std::int32_t begin = pos_;
    std::uint8_t flags = 0;
    if (At("@")) {
        ++pos_;
        size_t mark = scratch_.size();
        Push(ParseNamedExpression());
        t_.statements.push_back(NewNode(NodeKind::kDecorator, begin, mark));
        if (!AtEnd())
            Fail("expected end of decorator");
        return;
    }
    if (py3_ && At("async") && (At("def", 1) || At("for", 1) || At("with", 1))) {
        flags = kFlagAsync;
        ++pos_;
    }
    std::string_view word = Peek().cls == TokClass::kName ? Peek().text : std::string_view();
    if (word == "def") {
        ParseDef(begin, flags);
    } else if (word == "class") {
        ParseClass(begin);
    } else if (word == "if" || word == "elif" || word == "while") {
        ++pos_;
        size_t mark = scratch_.size();
        Push(ParseNamedExpression());
        Expect(":", "expected ':'");
        t_.statements.push_back(
            NewNode(word == "while" ? NodeKind::kWhile : NodeKind::kIf, begin, mark));
        ParseAfterColon();
    } else if (word == "else" || word == "try" || word == "finally") {
        ++pos_;
        Expect(":", "expected ':'");
        t_.statements.push_back(Leaf(NodeKind::kCompoundKeyword, begin));
        ParseAfterColon();
    } else if (word == "for") {
        ++pos_;
        size_t mark = scratch_.size();
        Push(ParseTargetList(true));
        Expect("in", "expected 'in'");
        Push(ParseStarExpressions());
        Expect(":", "expected ':'");
        t_.statements.push_back(NewNode(NodeKind::kFor, begin, mark, -1, flags));
        ParseAfterColon();
    } else if (word == "with") {
        ParseWith(begin, flags);
    } else if (word == "except") {
        ++pos_;
        Accept("*");
        size_t mark = scratch_.size();
        std::int32_t as_name = -1;
        if (At(":")) {
            Push(-1);
        } else {
            Push(ParseExpression());
            if (Accept("as") || (!py3_ && Accept(",")))
                as_name = ExpectIdentifier("expected a name after 'as'");
        }
        Expect(":", "expected ':'");
        t_.statements.push_back(NewNode(NodeKind::kExcept, begin, mark, as_name));
        ParseAfterColon();
    } else if (flags != 0) {
        Fail("invalid syntax");
    } else if (word == "match" && TryParseMatch()) {
        return;
    } else if (word == "case" && TryParseCase()) {
        ParseAfterColon();
    } else {
        ParseSimpleStatements();
    }
}

void Parser::ParseAfterColon() {
    if (!AtEnd())
        ParseSimpleStatements();
}

void Parser::ParseSimpleStatements() {
    while (!AtEnd()) {
        ParseSimpleStatement();
        if (AtEnd())
            return;
        Expect(";", "expected ';' or end of statement");
    }
}

void Parser::ParseSimpleStatement() {
    std::int32_t begin = pos_;
    const Tok &tok = Peek();
    std::string_view word = tok.cls == TokClass::kName ? tok.text : std::string_view();
    size_t mark = scratch_.size();
    if (word == "pass" || word == "break" || word == "continue") {
        ++pos_;
        t_.statements.push_back(Leaf(NodeKind::kSimpleKeyword, begin));
    } else if (word == "return") {
        ++pos_;
        Push(AtEnd() || At(";") ? -1 : ParseStarExpressions());
        t_.statements.push_back(NewNode(NodeKind::kReturn, begin, mark));
    } else if (word == "raise") {
        ++pos_;
        if (!AtEnd() && !At(";")) {
            Push(ParseExpression());
            if (Accept("from")) {
                Push(ParseExpression());
            } else if (!py3_) {
                while (Accept(","))
                    Push(ParseExpression());
            }
        }
        t_.statements.push_back(NewNode(NodeKind::kRaise, begin, mark));
    } else if (word == "global" || word == "nonlocal") {
        ++pos_;
        ExpectIdentifier("expected a name");
        while (Accept(","))
            ExpectIdentifier("expected a name");
        t_.statements.push_back(
            Leaf(word == "global" ? NodeKind::kGlobal : NodeKind::kNonlocal, begin));
    } else if (word == "del") {
        ++pos_;
        Push(ParseTargetList(false));
        t_.statements.push_back(NewNode(NodeKind::kDelete, begin, mark));
    } else if (word == "assert") {
        ++pos_;
        Push(ParseExpression());
        if (Accept(","))
            Push(ParseExpression());
        t_.statements.push_back(NewNode(NodeKind::kAssert, begin, mark));
    } else if (word == "import") {
        ParseImport(begin);
    } else if (word == "from") {
        ParseFromImport(begin);
    } else if (word == "type" && AtIdentifier(1) && (At("=", 2) || At("[", 2))) {
        ++pos_;
        std::int32_t name = pos_++;
        Push(At("[") ? ParseTypeParams() : -1);
        Expect("=", "expected '='");
        Push(ParseExpression());
        t_.statements.push_back(NewNode(NodeKind::kTypeAlias, begin, mark, name));
    } else if (!py3_ && word == "print") {
        ++pos_;
        if (Accept(">>"))
            Push(ParseExpression());
        if (!AtEnd() && !At(";") && !(At(",") && Peek(1).cls == TokClass::kEnd)) {
            if (scratch_.size() > mark)
                Expect(",", "expected ','");
            while (!AtEnd() && !At(";")) {
                Push(ParseExpression());
                if (!Accept(","))
                    break;
            }
        }
        t_.statements.push_back(NewNode(NodeKind::kPrint, begin, mark));
    } else if (!py3_ && word == "exec") {
        ++pos_;
        Push(ParseBinary(kLoosestBinaryLevel));
        if (Accept("in")) {
            Push(ParseExpression());
            if (Accept(","))
                Push(ParseExpression());
        }
        t_.statements.push_back(NewNode(NodeKind::kExec, begin, mark));
    } else {
        ParseExpressionStatement(begin);
    }
}

std::int32_t Parser::ParseRightHandSide() {
    return At("yield") ? ParseYield() : ParseStarExpressions();
}

void Parser::ParseExpressionStatement(std::int32_t begin) {
    size_t mark = scratch_.size();
    std::int32_t first = ParseRightHandSide();
    Push(first);
    if (At(":")) {
        ++pos_;
        Push(ParseExpression());
        Push(Accept("=") ? ParseRightHandSide() : -1);
        t_.statements.push_back(NewNode(NodeKind::kAnnAssign, begin, mark));
        return;
    }
    if (Peek().cls == TokClass::kOp) {
        for (std::string_view op : kAugAssignOps) {
            if (Peek().text == op) {
                std::int32_t op_tok = pos_++;
                Push(ParseRightHandSide());
                t_.statements.push_back(NewNode(NodeKind::kAugAssign, begin, mark, op_tok));
                return;
            }
        }
    }
    if (At("=")) {
        while (Accept("="))
            Push(ParseRightHandSide());
        t_.statements.push_back(NewNode(NodeKind::kAssign, begin, mark));
        return;
    }
    t_.statements.push_back(NewNode(NodeKind::kExprStmt, begin, mark));
}

void Parser::ParseDef(std::int32_t begin, std::uint8_t flags) {
    ++pos_;
    std::int32_t name = ExpectIdentifier("expected a function name");
    size_t mark = scratch_.size();
    Push(At("[") ? ParseTypeParams() : -1);
    Expect("(", "expected '('");
    Push(ParseParams(")", true));
    Expect(")", "expected ')'");
    Push(Accept("->") ? ParseExpression() : -1);
    Expect(":", "expected ':'");
    t_.statements.push_back(NewNode(NodeKind::kDef, begin, mark, name, flags));
    ParseAfterColon();
}

void Parser::ParseClass(std::int32_t begin) {
    ++pos_;
    std::int32_t name = ExpectIdentifier("expected a class name");
    size_t mark = scratch_.size();
    Push(At("[") ? ParseTypeParams() : -1);
    if (Accept("(")) {
        ParseArguments(")");
        Expect(")", "expected ')'");
    }
    Expect(":", "expected ':'");
    t_.statements.push_back(NewNode(NodeKind::kClass, begin, mark, name));
    ParseAfterColon();
}

std::int32_t Parser::ParseParams(std::string_view closer, bool annotations) {
    std::int32_t begin = pos_;
    size_t mark = scratch_.size();
    std::uint8_t kind = kNormal;
    bool seen_default = false;
    while (!At(closer)) {
        std::int32_t pbegin = pos_;
        size_t pmark = scratch_.size();
        if (Accept("/")) {
            for (size_t i = mark; i < scratch_.size(); ++i)
                t_.nodes[(size_t) scratch_[i]].param_kind = kPositionalOnly;
        } else if (Accept("**")) {
            std::int32_t name = ExpectIdentifier("expected a parameter name");
            Push(annotations && Accept(":") ? ParseExpression() : -1);
            Push(-1);
            std::int32_t node = NewNode(NodeKind::kParam, pbegin, pmark, name);
            t_.nodes[(size_t) node].param_kind = kVarKeywords;
            Push(node);
        } else if (Accept("*")) {
            kind = kKeywordOnly;
            if (AtIdentifier()) {
                std::int32_t name = pos_++;
                if (annotations && Accept(":"))
                    Push(At("*") ? ParseStarExpressions() : ParseExpression());
                else
                    Push(-1);
                Push(-1);
                std::int32_t node = NewNode(NodeKind::kParam, pbegin, pmark, name);
                t_.nodes[(size_t) node].param_kind = kVarArgs;
                Push(node);
            }
        } else {
            std::int32_t name = ExpectIdentifier("expected a parameter name");
            Push(annotations && Accept(":") ? ParseExpression() : -1);
            if (Accept("=")) {
                Push(ParseExpression());
                seen_default = true;
            } else {
                if (seen_default && kind == kNormal)
                    Fail("parameter without a default follows parameter with a default");
                Push(-1);
            }
            std::int32_t node = NewNode(NodeKind::kParam, pbegin, pmark, name);
            t_.nodes[(size_t) node].param_kind = kind;
            Push(node);
        }
        if (!Accept(","))
            break;
    }
    return NewNode(NodeKind::kParams, begin, mark);
}

std::int32_t Parser::ParseTypeParams() {
    std::int32_t begin = pos_;
    Expect("[", "expected '['");
    size_t mark = scratch_.size();
    do {
        if (At("]"))
            break;
        std::int32_t pbegin = pos_;
        size_t pmark = scratch_.size();
        std::uint8_t kind = Accept("**") ? 2 : Accept("*") ? 1 : 0;
        std::int32_t name = ExpectIdentifier("expected a type parameter name");
        Push(kind == 0 && Accept(":") ? ParseExpression() : -1);
        Push(Accept("=") ? (At("*") ? ParseStarExpressions() : ParseExpression()) : -1);
        std::int32_t node = NewNode(NodeKind::kTypeParam, pbegin, pmark, name);
        t_.nodes[(size_t) node].param_kind = kind;
        Push(node);
    } while (Accept(","));
    Expect("]", "expected ']'");
    return NewNode(NodeKind::kTypeParams, begin, mark);
}

void Parser::ParseWith(std::int32_t begin, std::uint8_t flags) {
    ++pos_;
    size_t mark = scratch_.size();
    if (!(At("(") && TryParseParenthesizedWithItems())) {
        do {
            ParseWithItem();
        } while (Accept(","));
    }
    Expect(":", "expected ':'");
    t_.statements.push_back(NewNode(NodeKind::kWith, begin, mark, -1, flags));
    ParseAfterColon();
}

bool Parser::TryParseParenthesizedWithItems() {
    return Attempt([this] {
        ++pos_;
        do {
            if (At(")"))
                break;
            ParseWithItem();
        } while (Accept(","));
        Expect(")", "expected ')'");
        if (!At(":"))
            Fail("expected ':'");
    });
}

void Parser::ParseWithItem() {
    std::int32_t begin = pos_;
    size_t mark = scratch_.size();
    Push(ParseExpression());
    Push(Accept("as") ? ParseTarget(false) : -1);
    Push(NewNode(NodeKind::kWithItem, begin, mark));
}

std::int32_t Parser::ParseImportAlias(bool dotted) {
    std::int32_t begin = pos_;
    ExpectIdentifier("expected a module name");
    while (dotted && At(".")) {
        ++pos_;
        ExpectIdentifier("expected a name after '.'");
    }
    std::int32_t end = pos_;
    std::int32_t as_name = Accept("as") ? ExpectIdentifier("expected a name after 'as'") : -1;
    std::int32_t node = Leaf(NodeKind::kImportAlias, begin, as_name);
    t_.nodes[(size_t) node].tok_end = end;
    return node;
}

void Parser::ParseImport(std::int32_t begin) {
    ++pos_;
    size_t mark = scratch_.size();
    do {
        Push(ParseImportAlias(true));
    } while (Accept(","));
    t_.statements.push_back(NewNode(NodeKind::kImport, begin, mark));
}

void Parser::ParseFromImport(std::int32_t begin) {
    ++pos_;
    std::int32_t level = 0;
    while (At(".") || At("...")) {
        level += (std::int32_t) Peek().text.size();
        ++pos_;
    }
    size_t mark = scratch_.size();
    if (AtIdentifier() && !At("import")) {
        std::int32_t module = ParseImportAlias(true);
        if (t_.nodes[(size_t) module].aux >= 0)
            Fail("expected 'import'");
        Push(module);
    } else if (level == 0) {
        Fail("expected a module name");
    } else {
        Push(-1);
    }
    Expect("import", "expected 'import'");
    if (At("*")) {
        std::int32_t star = Leaf(NodeKind::kImportAlias, pos_);
        ++pos_;
        t_.nodes[(size_t) star].tok_end = pos_;
        Push(star);
    } else {
        bool paren = Accept("(");
        do {
            if (paren && At(")"))
                break;
            Push(ParseImportAlias(false));
        } while (Accept(","));
        if (paren)
            Expect(")", "expected ')'");
    }
    t_.statements.push_back(NewNode(NodeKind::kFromImport, begin, mark, level));
}

// Takes the soft keyword (match, case) that starts a statement; a name
// used as a name (followed by ":", "=", "." or nothing) fails.
std::int32_t Parser::SoftKeywordStatement() {
    std::int32_t begin = pos_++;
    if (At(":") || At("=") || At(".") || AtEnd())
        Fail("not a soft keyword statement");
    return begin;
}

bool Parser::TryParseMatch() {
    return Attempt([this] {
        std::int32_t begin = SoftKeywordStatement();
        size_t mark = scratch_.size();
        Push(ParseStarNamedExpressions(pos_));
        Expect(":", "expected ':'");
        if (!AtEnd())
            Fail("expected end of match statement");
        t_.statements.push_back(NewNode(NodeKind::kMatch, begin, mark));
    });
}

bool Parser::TryParseCase() {
    return Attempt([this] {
        std::int32_t begin = SoftKeywordStatement();
        size_t mark = scratch_.size();
        Push(ParsePatterns());
        Push(Accept("if") ? ParseNamedExpression() : -1);
        Expect(":", "expected ':'");
        t_.statements.push_back(NewNode(NodeKind::kCase, begin, mark));
    });
}

// ---------------------------------------------------------------- patterns

std::int32_t Parser::ParsePatterns() {
    std::int32_t begin = pos_;
    return ParseItemsUntil(begin, ParseAsPattern(), NodeKind::kPatGroup,
                           [this] { return ParseAsPattern(); },
                           [this] { return At(":") || At("if") || AtEnd(); });
}

std::int32_t Parser::ParseAsPattern() {
    DepthGuard guard(*this);
    std::int32_t begin = pos_;
    if (Accept("*")) {
        std::int32_t name = ExpectIdentifier("expected a name after '*'");
        if (t_.toks[(size_t) name].text == "_")
            return Leaf(NodeKind::kPatGroup, begin);
        return Leaf(NodeKind::kPatCapture, begin, name);
    }
    size_t mark = scratch_.size();
    Push(ParseOrPattern());
    if (Accept("as")) {
        std::int32_t name = ExpectIdentifier("expected a name after 'as'");
        Push(Leaf(NodeKind::kPatCapture, name, name));
    }
    return NewNode(NodeKind::kPatGroup, begin, mark);
}

std::int32_t Parser::ParseOrPattern() {
    std::int32_t begin = pos_;
    size_t mark = scratch_.size();
    Push(ParseClosedPattern());
    while (Accept("|"))
        Push(ParseClosedPattern());
    return NewNode(NodeKind::kPatGroup, begin, mark);
}

std::int32_t Parser::ParseDottedValue() {
    std::int32_t begin = pos_;
    std::int32_t node = Leaf(NodeKind::kName, begin, begin);
    ++pos_;
    t_.nodes[(size_t) node].tok_end = pos_;
    while (At(".")) {
        ++pos_;
        std::int32_t attr = ExpectIdentifier("expected a name after '.'");
        size_t mark = scratch_.size();
        Push(node);
        node = NewNode(NodeKind::kAttribute, begin, mark, attr);
    }
    return node;
}

std::int32_t Parser::ParseLiteralPattern() {
    if (Peek().cls == TokClass::kString)
        return ParseStrings();
    return ParseBinary(kAdditiveLevel);  // numbers with sign and complex parts, None, True, False
}

std::int32_t Parser::ParsePatternSequence(std::int32_t begin, std::string_view closer) {
    size_t mark = scratch_.size();
    while (!At(closer)) {
        Push(ParseAsPattern());
        if (!Accept(","))
            break;
    }
    Expect(closer, "expected the end of the pattern");
    return NewNode(NodeKind::kPatGroup, begin, mark);
}

std::int32_t Parser::ParseClosedPattern() {
    DepthGuard guard(*this);
    std::int32_t begin = pos_;
    if (AtIdentifier()) {
        if (!At(".", 1) && !At("(", 1)) {
            std::int32_t name = pos_++;
            if (t_.toks[(size_t) name].text == "_")
                return Leaf(NodeKind::kPatGroup, begin);
            return Leaf(NodeKind::kPatCapture, begin, name);
        }
        std::int32_t value = ParseDottedValue();
        if (!Accept("("))
            return value;
        size_t mark = scratch_.size();
        Push(value);
        while (!At(")")) {
            if (AtIdentifier() && At("=", 1)) {
                std::int32_t kbegin = pos_;
                std::int32_t keyword = pos_;
                pos_ += 2;
                size_t kmark = scratch_.size();
                Push(ParseAsPattern());
                Push(NewNode(NodeKind::kPatKeyword, kbegin, kmark, keyword));
            } else {
                Push(ParseAsPattern());
            }
            if (!Accept(","))
                break;
        }
        Expect(")", "expected ')'");
        return NewNode(NodeKind::kPatGroup, begin, mark);
    }
    if (Accept("("))
        return ParsePatternSequence(begin, ")");
    if (Accept("["))
        return ParsePatternSequence(begin, "]");
    if (Accept("{")) {
        size_t mark = scratch_.size();
        while (!At("}")) {
            if (Accept("**")) {
                std::int32_t name = ExpectIdentifier("expected a name after '**'");
                Push(Leaf(NodeKind::kPatCapture, name, name));
            } else {
                Push(AtIdentifier() ? ParseDottedValue() : ParseLiteralPattern());
                Expect(":", "expected ':'");
                Push(ParseAsPattern());
            }
            if (!Accept(","))
                break;
        }
        Expect("}", "expected '}'");
        return NewNode(NodeKind::kPatGroup, begin, mark);
    }
    const Tok &tok = Peek();
    if (tok.cls == TokClass::kNumber || tok.cls == TokClass::kString || At("-") || At("None") ||
        At("True") || At("False"))
        return ParseLiteralPattern();
    Fail("invalid pattern");
}

// ---------------------------------------------------------------- expressions

// No expression starts at a closing bracket, "=", ":", ";", "in", an
// augmented assignment or the end: a comma before one of them is trailing.
bool Parser::AtItemListEnd() const {
    const Tok &tok = Peek();
    if (tok.cls == TokClass::kEnd || At("in"))
        return true;
    if (tok.cls != TokClass::kOp)
        return false;
    std::string_view s = tok.text;
    if (s == ")" || s == "]" || s == "}" || s == ":" || s == ";" || s == "=")
        return true;
    return s.size() >= 2 && s.back() == '=' && s != "==" && s != "<=" && s != ">=" && s != "!=";
}

// `first` (begun at `begin`) alone, or with the items behind its commas as
// a `kind` node; a comma before what `at_list_end` recognizes is trailing.
template <typename ParseItem, typename AtListEnd>
std::int32_t Parser::ParseItemsUntil(std::int32_t begin, std::int32_t first, NodeKind kind,
                                     ParseItem parse_item, AtListEnd at_list_end) {
    if (!At(","))
        return first;
    size_t mark = scratch_.size();
    Push(first);
    while (Accept(",") && !at_list_end())
        Push(parse_item());
    return NewNode(kind, begin, mark);
}

std::int32_t Parser::ParseStarExpressions() {
    std::int32_t begin = pos_;
    auto item = [this] { return At("*") ? ParseStarNamedExpression() : ParseExpression(); };
    return ParseItemsAfter(begin, item(), NodeKind::kTuple, item);
}

std::int32_t Parser::ParseStarNamedExpressions(std::int32_t begin) {
    return ParseItemsAfter(begin, ParseStarNamedExpression(), NodeKind::kTuple,
                           [this] { return ParseStarNamedExpression(); });
}

std::int32_t Parser::ParseStarNamedExpression() {
    std::int32_t begin = pos_;
    if (Accept("*")) {
        size_t mark = scratch_.size();
        Push(ParseBinary(kLoosestBinaryLevel));
        return NewNode(NodeKind::kStarred, begin, mark);
    }
    return ParseNamedExpression();
}

std::int32_t Parser::ParseNamedExpression() {
    if (AtIdentifier() && At(":=", 1)) {
        std::int32_t begin = pos_;
        size_t mark = scratch_.size();
        Push(Leaf(NodeKind::kName, begin, begin));
        ++pos_;
        t_.nodes[(size_t) scratch_.back()].tok_end = pos_;
        ++pos_;
        Push(ParseExpression());
        return NewNode(NodeKind::kNamedExpr, begin, mark);
    }
    return ParseExpression();
}

std::int32_t Parser::ParseExpression() {
    DepthGuard guard(*this);
    if (At("lambda"))
        return ParseLambda();
    std::int32_t begin = pos_;
    std::int32_t body = ParseDisjunction();
    if (!At("if"))
        return body;
    ++pos_;
    size_t mark = scratch_.size();
    Push(body);
    Push(ParseDisjunction());
    Expect("else", "expected 'else'");
    Push(ParseExpression());
    return NewNode(NodeKind::kIfExp, begin, mark);
}

std::int32_t Parser::ParseLambda() {
    std::int32_t begin = pos_++;
    std::int32_t first_node = (std::int32_t) t_.nodes.size();
    size_t mark = scratch_.size();
    Push(ParseParams(":", false));
    Expect(":", "expected ':'");
    Push(ParseExpression());
    return NewNode(NodeKind::kLambda, begin, mark, first_node);
}

std::int32_t Parser::ParseBoolChain(std::string_view op, std::int32_t (Parser::*operand)()) {
    std::int32_t begin = pos_;
    std::int32_t first = (this->*operand)();
    if (!At(op))
        return first;
    size_t mark = scratch_.size();
    Push(first);
    while (Accept(op))
        Push((this->*operand)());
    return NewNode(NodeKind::kBoolOp, begin, mark);
}

std::int32_t Parser::ParseInversion() {
    if (!At("not"))
        return ParseComparison();
    DepthGuard guard(*this);
    std::int32_t begin = pos_++;
    size_t mark = scratch_.size();
    Push(ParseInversion());
    return NewNode(NodeKind::kUnaryOp, begin, mark);
}

std::int32_t Parser::ParseComparison() {
    std::int32_t begin = pos_;
    std::int32_t first = ParseBinary(kLoosestBinaryLevel);
    size_t mark = scratch_.size();
    Push(first);
    for (;;) {
        const Tok &tok = Peek();
        if (tok.cls == TokClass::kOp) {
            std::string_view s = tok.text;
            if (s == "<>" && py3_)
                Fail("'<>' is not an operator in Python 3");
            if (!(s == "<" || s == ">" || s == "==" || s == ">=" || s == "<=" || s == "!=" ||
                  s == "<>"))
                break;
            ++pos_;
        } else if (At("in")) {
            ++pos_;
        } else if (At("not") && At("in", 1)) {
            pos_ += 2;
        } else if (At("is")) {
            ++pos_;
            Accept("not");
        } else {
            break;
        }
        Push(ParseBinary(kLoosestBinaryLevel));
    }
    if (scratch_.size() == mark + 1) {
        scratch_.pop_back();
        return first;
    }
    return NewNode(NodeKind::kCompare, begin, mark);
}

// Precedence climbing: operators of `min_level` or tighter are taken here,
// each right operand only with tighter ones, so that every level is left
// associative.  The nodes come out as a descent through one function per
// level would make them, in the same order.
std::int32_t Parser::ParseBinary(int min_level) {
    std::int32_t begin = pos_;
    std::int32_t left = ParseFactor();
    for (;;) {
        int level = BinaryLevelOf(Peek());
        if (level < min_level)
            return left;
        ++pos_;
        size_t mark = scratch_.size();
        Push(left);
        Push(ParseBinary(level + 1));
        left = NewNode(NodeKind::kBinOp, begin, mark);
    }
}

std::int32_t Parser::ParseFactor() {
    if (At("+") || At("-") || At("~")) {
        DepthGuard guard(*this);
        std::int32_t begin = pos_++;
        size_t mark = scratch_.size();
        Push(ParseFactor());
        return NewNode(NodeKind::kUnaryOp, begin, mark);
    }
    return ParsePower();
}

std::int32_t Parser::ParsePower() {
    std::int32_t begin = pos_;
    std::int32_t base;
    if (py3_ && At("await")) {
        ++pos_;
        size_t mark = scratch_.size();
        Push(ParsePrimary());
        base = NewNode(NodeKind::kAwait, begin, mark);
    } else {
        base = ParsePrimary();
    }
    if (!At("**"))
        return base;
    DepthGuard guard(*this);  // "**" nests to the right
    ++pos_;
    size_t mark = scratch_.size();
    Push(base);
    Push(ParseFactor());
    return NewNode(NodeKind::kBinOp, begin, mark);
}

std::int32_t Parser::ParsePrimary() {
    DepthGuard guard(*this);
    return ParseTrailers(ParseAtom());
}

std::int32_t Parser::ParseTrailers(std::int32_t node) {
    std::int32_t begin = Begin(node);
    for (;;) {
        if (At(".")) {
            ++pos_;
            std::int32_t attr = pos_;
            if (Peek().cls != TokClass::kName)
                Fail("expected a name after '.'");
            ++pos_;
            size_t mark = scratch_.size();
            Push(node);
            node = NewNode(NodeKind::kAttribute, begin, mark, attr);
        } else if (At("(")) {
            std::int32_t paren = pos_++;
            size_t mark = scratch_.size();
            Push(node);
            ParseArguments(")");
            Expect(")", "expected ')'");
            node = NewNode(NodeKind::kCall, begin, mark, paren);
        } else if (At("[")) {
            ++pos_;
            size_t mark = scratch_.size();
            Push(node);
            Push(ParseSlices());
            Expect("]", "expected ']'");
            node = NewNode(NodeKind::kSubscript, begin, mark);
        } else {
            return node;
        }
    }
}

void Parser::ParseArguments(std::string_view closer) {
    while (!At(closer)) {
        std::int32_t begin = pos_;
        size_t mark = scratch_.size();
        if (Accept("**")) {
            Push(ParseExpression());
            Push(NewNode(NodeKind::kDoubleStarred, begin, mark));
        } else if (Accept("*")) {
            Push(ParseExpression());
            Push(NewNode(NodeKind::kStarred, begin, mark));
        } else if (Peek().cls == TokClass::kName && At("=", 1)) {
            std::int32_t name = pos_;
            pos_ += 2;
            Push(ParseExpression());
            Push(NewNode(NodeKind::kKeyword, begin, mark, name));
        } else {
            std::int32_t value = ParseNamedExpression();
            if (AtComprehension()) {
                Push(value);
                ParseComprehensions();
                value = NewNode(NodeKind::kGenExp, begin, mark);
            }
            Push(value);
        }
        if (!Accept(","))
            break;
    }
}

std::int32_t Parser::ParseSlices() {
    // Unlike other item lists, a slice may begin with ":".
    std::int32_t begin = pos_;
    return ParseItemsUntil(begin, ParseSlice(), NodeKind::kTuple, [this] { return ParseSlice(); },
                           [this] { return At("]") || AtEnd(); });
}

std::int32_t Parser::ParseSlice() {
    std::int32_t begin = pos_;
    if (At("*"))
        return ParseStarNamedExpression();
    std::int32_t lower = (At(":")) ? -1 : ParseNamedExpression();
    if (!At(":"))
        return lower;
    size_t mark = scratch_.size();
    Push(lower);
    ++pos_;
    Push(At(":") || At(",") || At("]") ? -1 : ParseExpression());
    if (Accept(":"))
        Push(At(",") || At("]") ? -1 : ParseExpression());
    else
        Push(-1);
    return NewNode(NodeKind::kSlice, begin, mark);
}

std::int32_t Parser::ParseYield() {
    std::int32_t begin = pos_++;
    size_t mark = scratch_.size();
    if (Accept("from")) {
        Push(ParseExpression());
        return NewNode(NodeKind::kYieldFrom, begin, mark);
    }
    if (!(AtEnd() || At(")") || At(";") || At("=") || At("]") || At("}")))
        Push(ParseStarExpressions());
    return NewNode(NodeKind::kYield, begin, mark);
}

std::int32_t Parser::ParseAtom() {
    const Tok &tok = Peek();
    std::int32_t begin = pos_;
    switch (tok.cls) {
    case TokClass::kName:
        if (tok.text == "None" || tok.text == "True" || tok.text == "False" ||
            !IsKeyword(tok.text, !py3_)) {
            ++pos_;
            bool constant = py3_ && (tok.text == "None" || tok.text == "True" || tok.text == "False");
            return Leaf(constant ? NodeKind::kConstant : NodeKind::kName, begin, begin);
        }
        if (tok.text == "lambda")
            return ParseLambda();
        Fail("invalid syntax");
    case TokClass::kNumber:
        ++pos_;
        return Leaf(NodeKind::kConstant, begin);
    case TokClass::kString:
        return ParseStrings();
    case TokClass::kOp:
        if (tok.text == "(")
            return ParseParenthesized();
        if (tok.text == "[")
            return ParseBracketed();
        if (tok.text == "{")
            return ParseBraced();
        if (tok.text == "...") {
            ++pos_;
            return Leaf(NodeKind::kConstant, begin);
        }
        if (tok.text == "`" && !py3_) {
            ++pos_;
            size_t mark = scratch_.size();
            Push(ParseStarExpressions());
            Expect("`", "expected '`'");
            return NewNode(NodeKind::kRepr, begin, mark);
        }
        Fail("invalid syntax");
    default:
        Fail(AtEnd() ? "unexpected end of statement" : "invalid syntax");
    }
}

std::int32_t Parser::ParseStrings() {
    std::int32_t begin = pos_;
    size_t mark = scratch_.size();
    while (Peek().cls == TokClass::kString) {
        std::string_view text = Peek().text;
        int prefix = StringPrefixLength(text);
        bool fstring = false;
        for (int i = 0; i < prefix; ++i)
            fstring = fstring || text[(size_t) i] == 'f' || text[(size_t) i] == 'F';
        if (fstring)
            ParseFStringFields(pos_);
        ++pos_;
    }
    return NewNode(NodeKind::kString, begin, mark);
}

void Parser::ParseFStringFields(std::int32_t tok_index) {
    std::string_view text = t_.toks[(size_t) tok_index].text;
    int prefix = StringPrefixLength(text);
    size_t quote_len = 1;
    if (text.size() >= (size_t) prefix + 6 && text[(size_t) prefix + 1] == text[(size_t) prefix] &&
        text[(size_t) prefix + 2] == text[(size_t) prefix])
        quote_len = 3;
    if (text.size() < (size_t) prefix + 2 * quote_len)
        Fail("malformed string");
    std::string_view body = text.substr((size_t) prefix + quote_len,
                                        text.size() - (size_t) prefix - 2 * quote_len);
    bool raw = false;
    for (int i = 0; i < prefix; ++i)
        raw = raw || text[(size_t) i] == 'r' || text[(size_t) i] == 'R';
    ParseFStringFieldsOf(body, t_.toks[(size_t) tok_index].source_index, raw);
}

// Finds the replacement fields of an f-string body (or of a format specifier)
// and parses their expressions.
namespace {

// The index behind the string literal that opens at body[i] (a quote),
// triple-quoted or not; body.size() when it doesn't end.
size_t SkipQuoted(std::string_view body, size_t i) {
    char quote = body[i];
    size_t quote_len =
        i + 2 < body.size() && body[i + 1] == quote && body[i + 2] == quote ? 3 : 1;
    std::string_view closing = body.substr(i, quote_len);
    for (i += quote_len; i < body.size(); ++i) {
        if (body[i] == '\\')
            ++i;
        else if (body.substr(i, quote_len) == closing)
            return i + quote_len;
    }
    return body.size();
}

}  // namespace

void Parser::ParseFStringFieldsOf(std::string_view body, std::int32_t origin, bool raw) {
    DepthGuard guard(*this);  // format specs nest fields in fields
    size_t i = 0;
    while (i < body.size()) {
        char c = body[i];
        if (!raw && c == '\\' && body.substr(i + 1, 2) == "N{") {
            // a named character: its braces are no field
            i = body.find('}', i);
            i = i == std::string_view::npos ? body.size() : i + 1;
            continue;
        }
        if (c == '{' && i + 1 < body.size() && body[i + 1] == '{') {
            i += 2;
            continue;
        }
        if (c != '{') {
            ++i;
            continue;
        }
        // An expression runs to "!", ":" or "}" at its own bracket level 0,
        // passing over strings; "!=" and ":=" inside brackets don't end it.
        size_t start = ++i;
        int level = 0;
        size_t expr_end = std::string_view::npos;
        while (i < body.size()) {
            char d = body[i];
            if (d == '\'' || d == '"') {
                i = SkipQuoted(body, i);
                continue;
            }
            if (d == '(' || d == '[' || d == '{') {
                ++level;
            } else if ((d == ')' || d == ']' || d == '}') && level > 0) {
                --level;
            } else if (level == 0 && (d == '}' || d == ':' ||
                                      (d == '!' && !(i + 1 < body.size() && body[i + 1] == '=')))) {
                expr_end = i;
                break;
            }
            ++i;
        }
        if (expr_end == std::string_view::npos)
            Fail("unterminated f-string field");
        std::string_view expr = body.substr(start, expr_end - start);
        // A trailing "=" asks for the text to be shown too.
        size_t e = expr.size();
        while (e > 0 && (expr[e - 1] == ' ' || expr[e - 1] == '\t'))
            --e;
        if (e > 0 && expr[e - 1] == '=' &&
            !(e > 1 && std::string_view("=!<>").find(expr[e - 2]) != std::string_view::npos))
            expr = expr.substr(0, e - 1);
        ParseFieldExpression(expr, origin);
        if (body[i] == '!') {
            while (i < body.size() && body[i] != ':' && body[i] != '}')
                ++i;
        }
        if (i < body.size() && body[i] == ':') {
            // The format specifier may hold fields of its own, whose strings may
            // hold braces.
            size_t spec_start = ++i;
            int spec_level = 0;
            while (i < body.size()) {
                char d = body[i];
                if (spec_level > 0 && (d == '\'' || d == '"')) {
                    i = SkipQuoted(body, i);
                    continue;
                }
                if (d == '{') {
                    ++spec_level;
                } else if (d == '}') {
                    if (spec_level == 0)
                        break;
                    --spec_level;
                }
                ++i;
            }
            ParseFStringFieldsOf(body.substr(spec_start, i - spec_start), origin, raw);
        }
        ++i;  // the closing brace
    }
}

void Parser::ParseFieldExpression(std::string_view text, std::int32_t origin) {
    // The field's tokens are parsed as a range of their own; the range of
    // the enclosing tokens comes back however this ends.
    struct RangeGuard {
        Parser &p;
        std::int32_t pos, end;
        ~RangeGuard() {
            p.pos_ = pos;
            p.end_ = end;
        }
    } range_guard{*this, pos_, end_};
    std::int32_t first = (std::int32_t) t_.toks.size();
    if (!LexExpressionText(t_, text, origin))
        Fail("malformed f-string expression");
    pos_ = first;
    end_ = (std::int32_t) t_.toks.size();
    if (AtEnd())
        Fail("empty f-string expression");
    Push(At("yield") ? ParseYield() : ParseStarExpressions());
    if (!AtEnd())
        Fail("malformed f-string expression");
}

std::int32_t Parser::ParseParenthesized() {
    std::int32_t begin = pos_++;
    if (Accept(")")) {
        return Leaf(NodeKind::kTuple, begin);
    }
    std::int32_t node;
    if (At("yield")) {
        // A yield in parentheses, like any parenthesized expression, keeps
        // them in its text: `(yield).send` must stay balanced.
        node = ParseYield();
    } else {
        std::int32_t first = ParseStarNamedExpression();
        if (AtComprehension()) {
            size_t mark = scratch_.size();
            Push(first);
            ParseComprehensions();
            Expect(")", "expected ')'");
            return NewNode(NodeKind::kGenExp, begin, mark);
        }
        if (At(",")) {
            node = ParseItemsAfter(begin, first, NodeKind::kTuple,
                                   [this] { return ParseStarNamedExpression(); });
            Expect(")", "expected ')'");
            t_.nodes[(size_t) node].tok_end = pos_;
            return node;
        }
        node = first;
    }
    Expect(")", "expected ')'");
    Node &n = t_.nodes[(size_t) node];
    n.flags |= kFlagParenthesized;
    n.tok_begin = begin;
    n.tok_end = pos_;
    return node;
}

std::int32_t Parser::ParseBracketed() {
    std::int32_t begin = pos_++;
    size_t mark = scratch_.size();
    if (Accept("]"))
        return NewNode(NodeKind::kList, begin, mark);
    Push(ParseStarNamedExpression());
    if (AtComprehension()) {
        ParseComprehensions();
        Expect("]", "expected ']'");
        return NewNode(NodeKind::kListComp, begin, mark);
    }
    while (Accept(",") && !AtItemListEnd())
        Push(ParseStarNamedExpression());
    Expect("]", "expected ']'");
    return NewNode(NodeKind::kList, begin, mark);
}

// One entry of a dict display: "**mapping" (with an absent value) or
// "key: value".
void Parser::PushDictEntry() {
    if (At("**")) {
        std::int32_t begin = pos_++;
        size_t mark = scratch_.size();
        Push(ParseBinary(kLoosestBinaryLevel));
        Push(NewNode(NodeKind::kDoubleStarred, begin, mark));
        Push(-1);
        return;
    }
    Push(ParseExpression());
    Expect(":", "expected ':'");
    Push(ParseExpression());
}

std::int32_t Parser::ParseBraced() {
    std::int32_t begin = pos_++;
    size_t mark = scratch_.size();
    if (Accept("}"))
        return NewNode(NodeKind::kDict, begin, mark);
    bool is_dict;
    if (At("**")) {
        PushDictEntry();
        is_dict = true;
    } else {
        Push(ParseStarNamedExpression());
        is_dict = Accept(":");
        if (is_dict)
            Push(ParseExpression());
    }
    if (AtComprehension()) {
        ParseComprehensions();
        Expect("}", "expected '}'");
        return NewNode(is_dict ? NodeKind::kDictComp : NodeKind::kSetComp, begin, mark);
    }
    while (Accept(",")) {
        if (At("}"))
            break;
        if (is_dict) {
            PushDictEntry();
        } else {
            Push(ParseStarNamedExpression());
        }
    }
    Expect("}", "expected '}'");
    return NewNode(is_dict ? NodeKind::kDict : NodeKind::kSet, begin, mark);
}

void Parser::ParseComprehensions() {
    while (AtComprehension()) {
        std::int32_t begin = pos_;
        std::uint8_t flags = 0;
        if (Accept("async"))
            flags = kFlagAsync;
        ++pos_;  // for
        size_t mark = scratch_.size();
        Push(ParseTargetList(true));
        Expect("in", "expected 'in'");
        Push(ParseDisjunction());
        while (Accept("if"))
            Push(ParseDisjunction());
        Push(NewNode(NodeKind::kComprehension, begin, mark, -1, flags));
    }
}

std::int32_t Parser::ParseTargetList(bool allow_star) {
    std::int32_t begin = pos_;
    auto item = [this, allow_star] { return ParseTarget(allow_star); };
    return ParseItemsAfter(begin, item(), NodeKind::kTuple, item);
}

std::int32_t Parser::ParseTarget(bool allow_star) {
    std::int32_t begin = pos_;
    if (allow_star && Accept("*")) {
        size_t mark = scratch_.size();
        Push(ParsePrimary());
        return NewNode(NodeKind::kStarred, begin, mark);
    }
    return ParsePrimary();
}

// ---------------------------------------------------------------- entry points

std::int32_t Parser::ParseWholeExpression() {
    std::int32_t node = At("yield") ? ParseYield() : ParseStarExpressions();
    if (!AtEnd())
        Fail("expected end of expression");
    return node;
}

std::int32_t Parser::ParseWholeParams() {
    std::int32_t node = ParseParams(std::string_view(), true);
    if (!AtEnd())
        Fail("expected end of arguments");
    return node;
}

}  // namespace

std::int32_t ParseParameterRange(Tree &tree, std::int32_t begin, std::int32_t end, bool py3) {
    Parser parser(tree, begin, end, py3);
    try {
        return parser.ParseWholeParams();
    } catch (const SyntaxError &e) {
        tree.errors.push_back(ParseError{e.message, tree.SourcePosition(e.tok)});
        return -1;
    }
}

void ParseLogical(Tree &tree, bool py3) {
    Parser parser(tree, 0, tree.main_tok_count, py3);
    parser.ParseLogicalLine();
}

std::int32_t ParseExpressionRange(Tree &tree, std::int32_t begin, std::int32_t end, bool py3) {
    Parser parser(tree, begin, end, py3);
    try {
        if (begin >= end)
            throw SyntaxError{"empty expression", begin};
        return parser.ParseWholeExpression();
    } catch (const SyntaxError &e) {
        tree.errors.push_back(ParseError{e.message, tree.SourcePosition(e.tok)});
        return -1;
    }
}

std::int32_t ParseEmbeddedExpression(Tree &tree, std::string_view text, std::int32_t origin,
                                     bool py3) {
    size_t nodes = tree.nodes.size();
    size_t kids = tree.kids.size();
    size_t first = tree.toks.size();
    if (!LexExpressionText(tree, text, origin) || tree.toks.size() == first) {
        tree.toks.resize(first);
        return -1;
    }
    Parser parser(tree, (std::int32_t) first, (std::int32_t) tree.toks.size(), py3);
    try {
        return parser.ParseWholeExpression();
    } catch (const SyntaxError &) {
        tree.nodes.resize(nodes);
        tree.kids.resize(kids);
        tree.toks.resize(first);
        return -1;
    }
}

}  // namespace pysource::pgen

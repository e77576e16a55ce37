#include "pysource/pycodeutils.h"

#include "pysource/pgeninspect/lexer.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/pgeninspect/tree.h"

namespace pysource {

namespace {

// True when toks[begin] is "(" and its match is toks[end - 1].
bool WrappedInParentheses(const pgen::Tree &tree, std::int32_t begin, std::int32_t end) {
    if (end - begin < 2 || tree.toks[(size_t) begin].text != "(" ||
        tree.toks[(size_t) end - 1].text != ")")
        return false;
    int level = 0;
    for (std::int32_t i = begin; i < end; ++i) {
        std::string_view s = tree.toks[(size_t) i].text;
        if (tree.toks[(size_t) i].cls != pgen::TokClass::kOp)
            continue;
        if (s == "(" || s == "[" || s == "{")
            ++level;
        else if (s == ")" || s == "]" || s == "}")
            if (--level == 0 && i != end - 1)
                return false;
    }
    return true;
}

}  // namespace

std::vector<CArgTextInfo> ParseDefArgs(std::string_view text) {
    std::vector<CArgTextInfo> out;
    pgen::Tree tree;
    if (!pgen::LexExpressionText(tree, text, 0))
        return out;
    std::int32_t begin = 0;
    std::int32_t end = (std::int32_t) tree.toks.size();
    if (WrappedInParentheses(tree, begin, end)) {
        ++begin;
        --end;
    }
    tree.main_tok_count = end;
    std::int32_t params = pgen::ParseParameterRange(tree, begin, end, true);
    if (params < 0)
        return out;
    const pgen::Node &p = tree.nodes[(size_t) params];
    for (std::int32_t i = 0; i < p.kids_count; ++i) {
        const pgen::Node &param = tree.nodes[(size_t) tree.Kid(p, i)];
        CArgTextInfo info;
        info.name = std::string(tree.toks[(size_t) param.aux].text);
        info.kind = param.param_kind;
        std::int32_t annotation = tree.Kid(param, 0);
        std::int32_t deflt = tree.Kid(param, 1);
        std::string_view quoted_hint;
        if (annotation >= 0 && pgen::StringAnnotationText(tree, annotation, quoted_hint))
            info.type_hint = std::string(quoted_hint);
        else if (annotation >= 0)
            info.type_hint = tree.NodeText(annotation);
        if (deflt >= 0)
            info.default_text = tree.NodeText(deflt);
        out.push_back(std::move(info));
    }
    return out;
}

}  // namespace pysource

// CSimpleConditionEvaluator: the conditions under which stubs declare names.
#include "pysource/infer/inferenceengine.h"

#include <nanobind/stl/string.h>

#include <cctype>
#include <vector>

#include "pysource/nesting.h"
#include "pysource/pytext.h"

namespace pysource::infer {

namespace {

std::string_view Strip(std::string_view s) {
    while (!s.empty() && std::isspace((unsigned char) s.front()))
        s.remove_prefix(1);
    while (!s.empty() && std::isspace((unsigned char) s.back()))
        s.remove_suffix(1);
    return s;
}

bool StartsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }


// The integers of "(3, 8)" or "[3]"; false for anything else.
bool ParseIntTuple(std::string_view text, std::vector<long> &out) {
    text = Strip(text);
    if (text.size() < 2 || !(text.front() == '(' || text.front() == '[') ||
        !(text.back() == ')' || text.back() == ']'))
        return false;
    text = text.substr(1, text.size() - 2);
    for (std::string_view item : symbolinfo::NonNestedSplit(text, ",")) {
        item = Strip(item);
        if (item.empty())
            continue;
        long value = 0;
        for (char c : item) {
            if (!std::isdigit((unsigned char) c))
                return false;
            value = value * 10 + (c - '0');
        }
        out.push_back(value);
    }
    return !out.empty();
}

// -1, 0, 1 as `a` compares with `b`, tuples compared as Python does.
int CompareTuples(const std::vector<long> &a, const std::vector<long> &b) {
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
    if (a.size() == b.size())
        return 0;
    return a.size() < b.size() ? -1 : 1;
}

int ApplyOp(std::string_view op, int cmp) {
    if (op == "<")
        return cmp < 0;
    if (op == "<=")
        return cmp <= 0;
    if (op == ">")
        return cmp > 0;
    if (op == ">=")
        return cmp >= 0;
    if (op == "==")
        return cmp == 0;
    if (op == "!=")
        return cmp != 0;
    return -1;
}

// The comparison operator at the top level of `s`: its position and text.
bool FindOp(std::string_view s, std::size_t &pos, std::string_view &op) {
    const auto end = static_cast<std::ptrdiff_t>(s.size());
    for (std::ptrdiff_t i = 0; i >= 0 && i < end;
         i = symbolinfo::NextNonNestedUtf8PtrIndex(s.data(), i, end)) {
        char c = s[static_cast<std::size_t>(i)];
        if (c != '<' && c != '>' && c != '=' && c != '!')
            continue;
        bool two = i + 1 < end && s[static_cast<std::size_t>(i) + 1] == '=';
        if ((c == '=' || c == '!') && !two)
            continue;
        pos = static_cast<std::size_t>(i);
        op = s.substr(pos, two ? 2 : 1);
        return true;
    }
    return false;
}

std::string_view Unquote(std::string_view s) {
    s = Strip(s);
    if (s.size() >= 2 && (s.front() == '"' || s.front() == '\'') && s.back() == s.front())
        return s.substr(1, s.size() - 2);
    return {};
}

}  // namespace

CSimpleConditionEvaluator::CSimpleConditionEvaluator(nb::handle version, nb::handle platform) {
    nb::object sys = nb::module_::import_("sys");
    if (version.is_none())
        fVersion = nb::tuple(sys.attr("version_info")[nb::slice(0, 2)]);
    else
        fVersion = nb::tuple(version);
    fPlatform = platform.is_none() ? nb::cast<std::string>(sys.attr("platform"))
                                   : nb::cast<std::string>(platform);
}

nb::object CSimpleConditionEvaluator::Evaluate(nb::handle condition) {
    int value = EvaluateText(symbolinfo::TextView(condition, "condition"));
    if (value < 0)
        return nb::none();
    return nb::bool_(value == 1);
}

int CSimpleConditionEvaluator::EvaluateText(std::string_view text) {
    text = Strip(text);
    while (text.size() >= 2 && text.front() == '(' && text.back() == ')' &&
           symbolinfo::NonNestedSplit(text.substr(1, text.size() - 2), ",").size() == 1 &&
           symbolinfo::NonNestedSplit(text, " or ").size() == 1 && symbolinfo::NonNestedSplit(text, " and ").size() == 1 &&
           text.find('(', 1) == std::string_view::npos)
        text = Strip(text.substr(1, text.size() - 2));
    if (auto ors = symbolinfo::NonNestedSplit(text, " or "); ors.size() > 1) {
        int result = 0;
        for (std::string_view part : ors) {
            int v = EvaluateText(part);
            if (v == 1)
                return 1;
            if (v < 0)
                result = -1;
        }
        return result;
    }
    if (auto ands = symbolinfo::NonNestedSplit(text, " and "); ands.size() > 1) {
        int result = 1;
        for (std::string_view part : ands) {
            int v = EvaluateText(part);
            if (v == 0)
                return 0;
            if (v < 0)
                result = -1;
        }
        return result;
    }
    if (StartsWith(text, "not ")) {
        int v = EvaluateText(text.substr(4));
        return v < 0 ? -1 : 1 - v;
    }
    if (StartsWith(text, "sys.platform.startswith(") && text.back() == ')') {
        std::string_view arg = Unquote(text.substr(24, text.size() - 25));
        return StartsWith(fPlatform, arg) ? 1 : 0;
    }
    std::size_t pos;
    std::string_view op;
    if (!FindOp(text, pos, op))
        return -1;
    std::string_view left = Strip(text.substr(0, pos));
    std::string_view right = Strip(text.substr(pos + op.size()));
    if (left == "sys.platform") {
        std::string_view want = Unquote(right);
        if (op == "==")
            return fPlatform == want ? 1 : 0;
        if (op == "!=")
            return fPlatform != want ? 1 : 0;
        return -1;
    }
    if (StartsWith(left, "sys.version_info")) {
        std::vector<long> have;
        for (nb::handle item : fVersion)
            have.push_back(nb::cast<long>(item));
        std::string_view rest = Strip(left.substr(16));
        if (!rest.empty()) {
            // A slice or an index: [:2], [0].
            if (rest == "[:2]" || rest == "[0:2]")
                have.resize(std::min<std::size_t>(have.size(), 2));
            else if (rest == "[:1]" || rest == "[0:1]")
                have.resize(std::min<std::size_t>(have.size(), 1));
            else if (rest == "[0]" || rest == ".major") {
                have.resize(1);
                std::vector<long> want;
                std::string wrapped;
                wrapped.reserve(right.size() + 2);
                wrapped.push_back('(');
                wrapped.append(right);
                wrapped.push_back(')');
                if (!ParseIntTuple(wrapped, want))
                    return -1;
                return ApplyOp(op, CompareTuples(have, want));
            } else
                return -1;
        }
        std::vector<long> want;
        if (!ParseIntTuple(right, want))
            return -1;
        return ApplyOp(op, CompareTuples(have, want));
    }
    return -1;
}

}  // namespace pysource::infer

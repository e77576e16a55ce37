#include "pysource/infodescribe.h"

#include "pysource/infokinds.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"

#include <stdexcept>

namespace pysource::symbolinfo {

namespace {

std::string DescribeSingle(std::string_view single);

// Concatenation through one buffer.
template <typename... Parts>
std::string Cat(const Parts &...parts) {
    std::string out;
    (out.append(std::string_view(parts)), ...);
    return out;
}

std::string Quoted(std::string_view text) { return Cat("'", text, "'"); }

std::string Decorated(const std::vector<std::string> &decorators) {
    std::string out;
    for (const std::string &decorator : decorators)
        out.append(out.empty() ? " decorated by @" : ", @").append(decorator);
    return out;
}

std::string FirstSeen(const char *what, std::string_view payload) {
    if (payload.empty())
        return what;
    return Cat("first ", what, " at logical ", payload);
}

std::string DescribeFields(const KindRow &row, std::string_view single) {
    std::string out = row.meaning;
    const char *sep = " ";
    for (const OptText &field : UnpackFields(single).fields) {
        out.append(sep).append(field ? Quoted(*field) : "-");
        sep = ", ";
    }
    return out;
}

std::string DescribeBare(std::string_view single) {
    const Kind kind = GetInfoBytesKind(single);
    const std::string_view payload =
        kind == kPlainEquivKind ? single : single.substr(kPrefixLen);
    switch (kind) {
    case kPlainEquivKind:
        return single.empty() ? std::string("nothing") : Cat("expression ", single);
    case kSetKind:
        return FirstSeen("set", payload);
    case kGetKind:
        return FirstSeen("read", payload);
    case kSetTypeHintKind:
        return FirstSeen("hinted", payload);
    case kTypeHintKind:
        return Cat("type hint ", UnpackTypeHint(single));
    case kInferredTypeHintKind:
        return Cat("inferred type hint ", UnpackTypeHint(single));
    case kFunctionKind:
    case kMethodKind:
    case kUnboundMethodKind: {
        DefInfo info = UnpackDefInfo(single);
        return Cat(FindKindRow(kind)->meaning, " ", info.scope_name, info.type_params.value_or(""),
                   info.Signature(), Decorated(info.decorators));
    }
    case kClassKind: {
        ClassInfo info = UnpackClassInfo(single);
        return Cat("class ", info.full_name, info.type_params.value_or(""),
                   info.arg_decl.value_or(""), Decorated(info.decorators));
    }
    case kInstanceKind:
        if (payload.empty())
            return "instance";
        return Cat("instance of ", UnpackClassInfo(single).full_name);
    case kArgKind: {
        auto arg = UnpackArgInfo(single);
        if (!arg)
            throw std::invalid_argument("argument");
        return Cat("argument ", std::to_string(arg->index),
                   arg->name ? Cat(" ", Quoted(*arg->name)) : std::string());
    }
    case kDecoratorKind: {
        auto [index, name] = UnpackDecoratorInfo(single);
        return Cat("decorator ", std::to_string(index), " @", name);
    }
    case kTypedLiteralKind: {
        LiteralInfo literal = UnpackLiteralInfo(single);
        return Cat("literal ", literal.class_name,
                   literal.value ? Cat(" ", *literal.value) : std::string());
    }
    case kCalledKind: {
        auto [suffix, args] = UnpackCalled(single);
        return Cat("called", suffix.empty() ? std::string() : Cat(" as ", Quoted(suffix)),
                   " with (", args, ")");
    }
    case kConditionalKind: {
        auto [condition, rest] = UnpackConditionalInfo(single);
        return Cat("if ", condition, ": ", DescribeSingle(rest));
    }
    case kTypeParameterKind: {
        DeclTypeParam param = UnpackTypeParameterInfo(single);
        return Cat(param.param_kind, " ", param.name,
                   param.bound ? Cat(": ", *param.bound) : std::string(),
                   param.default_text ? Cat(" = ", *param.default_text) : std::string());
    }
    case kSpecificUrlKind:
    case kSpecificScopeKind:
    case kDefLineScopeKind:
    case kBuiltinModuleKind:
    case kTypingModuleKind: {
        ScopeMark mark = *UnpackScopeMark(single);
        std::string where = FindKindRow(kind)->meaning;
        if (mark.text)
            where.append(" ").append(kind == kSpecificScopeKind && mark.text->empty()
                                         ? std::string("<module>")
                                         : Quoted(*mark.text));
        return Cat(where, ": ", DescribeSingle(mark.rest));
    }
    default:
        break;
    }
    if (const KindRow *row = FindKindRow(kind))
        return payload.empty() ? std::string(row->meaning) : DescribeFields(*row, single);
    return Cat("unknown kind '", std::string(1, kind), "' ", payload);
}

std::string DescribeSingle(std::string_view single) {
    // Wrapping kinds keep the suffix with the single they wrap.
    const Kind kind = GetInfoBytesKind(single);
    SuffixSplit split = kind == kConditionalKind || IsScopeMarkKind(kind)
                            ? SuffixSplit{single, std::nullopt}
                            : SplitLogicalIndexSuffix(single);
    std::string text;
    try {
        text = DescribeBare(split.single);
    } catch (const std::exception &) {
        const KindRow *row = FindKindRow(kind);
        text = Cat("malformed ", row ? row->meaning : "single", " ", single);
    }
    if (split.logical_index)
        text.append(" (logical ").append(std::to_string(*split.logical_index)).append(")");
    return text;
}

}  // namespace

std::string DescribeInfo(std::string_view ibytes) {
    std::string out;
    for (std::string_view single : NonNestedSplit(ibytes, ";")) {
        if (!out.empty())
            out.append("; ");
        out.append(DescribeSingle(single));
    }
    return out;
}

}  // namespace pysource::symbolinfo

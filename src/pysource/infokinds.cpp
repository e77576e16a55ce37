#include "pysource/infokinds.h"

namespace pysource::symbolinfo {

namespace {

const KindRow kKindRows[] = {
    {"Arg", kArgKind, "argument"},
    {"BuiltinClass", kBuiltinClassKind, "built-in class"},
    {"BuiltinModule", kBuiltinModuleKind, "read in the built-in module"},
    {"Called", kCalledKind, "called"},
    {"Class", kClassKind, "class"},
    {"Conditional", kConditionalKind, "conditional"},
    {"Decorator", kDecoratorKind, "decorator"},
    {"DefLineScope", kDefLineScopeKind, "read at the def line of"},
    {"DiscardCallResultStatement", kDiscardCallResultStatementKind, "call result discarded"},
    {"ExpressionEquiv", kExpressionEquivKind, "expression"},
    {"FromImport", kFromImportKind, "from-import"},
    {"Function", kFunctionKind, "function"},
    {"GenericTypeAlias", kGenericTypeAliasKind, "generic type alias"},
    {"Get", kGetKind, "read"},
    {"Global", kGlobalKind, "global"},
    {"ImportAsName", kImportAsNameKind, "import as"},
    {"Import", kImportKind, "import"},
    {"InferredTypeHint", kInferredTypeHintKind, "inferred type hint"},
    {"Instance", kInstanceKind, "instance"},
    {"LogicalIndex", kLogicalIndexKind, "from logical"},
    {"Method", kMethodKind, "bound method"},
    {"Module", kModuleKind, "module"},
    {"Nonlocal", kNonlocalKind, "nonlocal"},
    {"PlainEquiv", kPlainEquivKind, "expression"},
    {"Self", kSelfKind, "self"},
    {"Set", kSetKind, "set"},
    {"SetTrailers", kSetTrailersKind, "set through trailers"},
    {"SetTypeHint", kSetTypeHintKind, "hinted"},
    {"SpecificScope", kSpecificScopeKind, "read in scope"},
    {"SpecificUrl", kSpecificUrlKind, "read in file"},
    {"TypeHint", kTypeHintKind, "type hint"},
    {"TypeParameter", kTypeParameterKind, "type parameter"},
    {"TypedLiteral", kTypedLiteralKind, "literal"},
    {"TypingModule", kTypingModuleKind, "read in the typing module"},
    {"UnboundMethod", kUnboundMethodKind, "unbound method"},
    {"WithinExpr", kWithinExprKind, "within expression"},
};

}  // namespace

const KindRow *KindTable(std::size_t *count) {
    *count = sizeof(kKindRows) / sizeof(kKindRows[0]);
    return kKindRows;
}

const KindRow *FindKindRow(Kind kind) {
    for (const KindRow &row : kKindRows)
        if (row.kind == kind)
            return &row;
    return nullptr;
}

}  // namespace pysource::symbolinfo

#include "bindutil.h"

#include "pysource/pytext.h"
#include "pysource/symbolinfo.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

namespace si = pysource::symbolinfo;
using si::CFullyScopedName;
using si::CScope;
using si::CSingleResolvedInfo;

struct PyCSingleResolvedInfo : CSingleResolvedInfo {
    NB_TRAMPOLINE(CSingleResolvedInfo, 14);
    bool IsDef() override { NB_OVERRIDE(IsDef); }
    bool IsClass(bool include_builtin) override { NB_OVERRIDE(IsClass, include_builtin); }
    bool IsMethod() override { NB_OVERRIDE(IsMethod); }
    bool IsBound() override { NB_OVERRIDE(IsBound); }
    bool IsInstance(bool include_literals) override { NB_OVERRIDE(IsInstance, include_literals); }
    bool IsModule() override { NB_OVERRIDE(IsModule); }
    bool IsLiteral(bool with_value) override { NB_OVERRIDE(IsLiteral, with_value); }
    bool HasInstanceName() override { NB_OVERRIDE(HasInstanceName); }
    bool IsClassRef() override { NB_OVERRIDE(IsClassRef); }
    nb::object GetTypeName() override { NB_OVERRIDE(GetTypeName); }
    nb::object GetClassName() override { NB_OVERRIDE(GetClassName); }
    nb::object GetDefinedScope() override { NB_OVERRIDE(GetDefinedScope); }
    nb::object GetInstanceClassName() override { NB_OVERRIDE(GetInstanceClassName); }
    nb::object GetClassRefBytes() override { NB_OVERRIDE(GetClassRefBytes); }
};

NB_MODULE(symbolinfo, m) {
    bindutil::ImportDependencies({});
    m.doc() = "The symbol vocabulary: info strings, prefixes and kinds, builders and unpackers, "
              "scopes and resolved singles";

#define PYSOURCE_BIND_KIND(name, byte)                                   \
    m.attr("k" #name "Kind") = si::KindBytes(si::k##name##Kind);         \
    m.attr("k" #name "Prefix") = si::ToBytes(si::k##name##Prefix);
    PYSOURCE_INFO_KINDS(PYSOURCE_BIND_KIND)
#undef PYSOURCE_BIND_KIND
    m.attr("kPlainEquivKind") = si::KindBytes(si::kPlainEquivKind);
    m.attr("kPrefixLen") = si::kPrefixLen;
    m.attr("kUnknownLogicalIndex") = si::kUnknownLogicalIndex;
    m.attr("kPlainEquivSpec") = si::ToBytes(si::kPlainEquivSpec);
    m.attr("kModuleScopeName") = si::ToStr(si::kModuleScopeName);
    m.attr("kWildcardScope") = si::ToStr(si::kWildcardScope);
    m.attr("kScopeIndexSep") = si::ToStr(si::kScopeIndexSep);
    m.attr("kClassInstanceSuffix") = si::ToStr(si::kClassInstanceSuffix);
    m.attr("kDefLineScopeSuffix") = si::ToStr(si::kDefLineScopeSuffix);
    m.attr("kIterationSubscript") = si::ToStr(si::kIterationSubscript);
    m.attr("kSelfTypeVarName") = si::ToStr(si::kSelfTypeVarName);
    m.attr("kEmptyFrozenSet") = si::EmptyFrozenset();
    m.attr("kTypingModuleSymbol") = si::ToBytes(si::kTypingModuleSymbolStr);
    m.attr("kTypingModuleSymbolDot") = si::ToBytes(si::kTypingModuleSymbolDotStr);
    m.attr("kTypingModuleSymbolDotAny") = si::ToBytes(si::kTypingModuleSymbolDotAnyStr);
    m.attr("kTypingModuleSymbolStr") = si::ToStr(si::kTypingModuleSymbolStr);
    m.attr("kTypingModuleSymbolDotStr") = si::ToStr(si::kTypingModuleSymbolDotStr);
    m.attr("kTypingModuleSymbolDotAnyStr") = si::ToStr(si::kTypingModuleSymbolDotAnyStr);
    m.attr("kSpecificScopePrefixStr") = si::ToStr(si::kSpecificScopePrefix);
    m.attr("kSpecificUrlPrefixStr") = si::ToStr(si::kSpecificUrlPrefix);

    // Kinds and the inline tests.
    m.def("GetInfoBytesKind", &si::PyGetInfoBytesKind, nb::arg("ibytes"));
    m.def("IsDefKind", &si::PyIsDefKind, nb::arg("kind"));
    m.def("IsDefOrClassKind", &si::PyIsDefOrClassKind, nb::arg("kind"));
    m.def("IsTopLevelModuleScope", &si::PyIsTopLevelModuleScope, nb::arg("scope").none());
    m.def("ValidOnDiskMtime", &si::ValidOnDiskMtime, nb::arg("disk_mtime"), nb::arg("not_exist_ok"));
    m.def("NextNonNestedUtf8PtrIndex", &si::PyNextNonNestedUtf8PtrIndex, nb::arg("utf8"),
          nb::arg("pos"), nb::arg("end_pos"));
    m.def("_NonInlineNextNonNestedUtf8PtrIndex", &si::PyNonInlineNextNonNestedUtf8PtrIndex,
          nb::arg("utf8"), nb::arg("pos"), nb::arg("end_pos"));
    m.def("KindTable", &si::KindTableRows);
    nb::class_<si::CKindFilter>(m, "CKindFilter")
        .def("__init__", &si::InitKindFilter, nb::arg("kinds") = nb::none())
        .def("KindMatches", &si::PyKindMatches, nb::arg("kind"));

    // Text at nesting level zero, expressions, tokens.
    m.def("NonNestedSplit", &si::PyNonNestedSplit, nb::arg("s"), nb::arg("sep"),
          nb::arg("max_split") = -1);
    m.def("NonNestedFind", &si::PyNonNestedFind, nb::arg("s"), nb::arg("sub"),
          nb::arg("start") = 0, nb::arg("end") = -1);
    m.def("NonNestedFindBytes", &si::PyNonNestedFindBytes, nb::arg("s"), nb::arg("sub"),
          nb::arg("start") = 0, nb::arg("end") = -1);
    m.def("SplitTrailers", &si::PySplitTrailers, nb::arg("s"));
    m.def("SplitArguments", &si::PySplitArguments, nb::arg("s"));
    m.def("IsAtomExpr", &si::PyIsAtomExpr, nb::arg("s"));
    m.def("IsSingleNameToken", &si::PyIsSingleNameToken, nb::arg("s"));
    m.def("IsFloat", &si::PyIsFloat, nb::arg("s"));
    m.def("JoinTokens", &si::PyJoinTokens, nb::arg("toks"));
    m.def("FindNestingEnd", &si::PyFindNestingEnd, nb::arg("toks"), nb::arg("i"));
    m.def("FindNonNestedTokenInList", &si::PyFindNonNestedTokenInList, nb::arg("toks"),
          nb::arg("start"), nb::arg("token"));
    m.def("SplitDefSignature", &si::PySplitDefSignature, nb::arg("signature"));

    // Scope names.
    m.def("JoinTwoScopeNames", &si::PyJoinTwoScopeNames, nb::arg("parent"), nb::arg("child"));
    m.def("LeafScopeName", &si::PyLeafScopeName, nb::arg("name"));
    m.def("ParentScopeName", &si::PyParentScopeName, nb::arg("name"));
    m.def("ParentAndLeafScopeNames", &si::PyParentAndLeafScopeNames, nb::arg("name"));
    m.def("SplitScopeNameFromSuffixes", &si::PySplitScopeNameFromSuffixes, nb::arg("name"));
    m.def("RemoveAllScopeNameSubscripts", &si::PyRemoveAllScopeNameSubscripts, nb::arg("name"));
    m.def("AppendScopeIndex", &si::PyAppendScopeIndex, nb::arg("name"), nb::arg("i"));
    m.def("LeafScopeIndex", &si::PyLeafScopeIndex, nb::arg("name"));
    m.def("NormalizeScopeName", &si::PyNormalizeScopeName, nb::arg("name"));
    m.def("DefLineScope", &si::PyDefLineScope, nb::arg("name"));
    m.def("GetInstanceNameForClass", &si::PyGetInstanceNameForClass, nb::arg("name"));
    m.def("IsInstanceScope", &si::PyIsInstanceScope, nb::arg("name"));

    // Singles.
    m.def("BuildArgInfo", &si::PyBuildArgInfo, nb::arg("arg_i"), nb::arg("name").none());
    m.def("UnpackArgInfo", &si::PyUnpackArgInfo, nb::arg("name"));
    m.def("IsIndexedArgName", &si::PyIsIndexedArgName, nb::arg("name"));
    m.def("BuildDecoratorInfo", &si::PyBuildDecoratorInfo, nb::arg("i"), nb::arg("dotted_name"));
    m.def("UnpackDecoratorInfo", &si::PyUnpackDecoratorInfo, nb::arg("ibytes"));
    m.def("BuildLiteralInfo", &si::PyBuildLiteralInfo, nb::arg("class_name"),
          nb::arg("value").none() = nb::none());
    m.def("UnpackLiteralInfo", &si::PyUnpackLiteralInfo, nb::arg("ibytes"));
    m.def("EncodeStringLiteral", &si::PyEncodeStringLiteral, nb::arg("text"));
    m.def("BuildConditionalInfo", &si::PyBuildConditionalInfo, nb::arg("condition"), nb::arg("info"));
    m.def("UnpackConditionalInfo", &si::PyUnpackConditionalInfo, nb::arg("ibytes"));
    m.def("BuildDefInfoStr", &si::PyBuildDefInfoStr, nb::arg("prefix"), nb::arg("full_name"),
          nb::arg("type_params").none(), nb::arg("arg_decl").none(), nb::arg("return_text").none(),
          nb::arg("decorators").none());
    m.def("UnpackDefInfoStr", &si::PyUnpackDefInfoStr, nb::arg("ibytes"));
    m.def("PackClassInfo", &si::PyPackClassInfo, nb::arg("full_name"), nb::arg("type_params").none(),
          nb::arg("arg_decl").none(), nb::arg("decorators").none() = nb::none());
    m.def("UnpackClassInfo", &si::PyUnpackClassInfo, nb::arg("ibytes"));
    m.def("PackCalled", &si::PyPackCalled, nb::arg("suffix"), nb::arg("arg_text"));
    m.def("UnpackCalled", &si::PyUnpackCalled, nb::arg("called_ibytes"));
    m.def("AppendLogicalIndexBytesSuffix", &si::PyAppendLogicalIndexBytesSuffix, nb::arg("istr"),
          nb::arg("logical_i_bytes"));
    m.def("SplitLogicalIndexSuffix", &si::PySplitLogicalIndexSuffix, nb::arg("istr"));
    m.def("UnpackLogicalIndex", &si::PyUnpackLogicalIndex, nb::arg("ibytes"));
    m.def("UnpackTypeHint", &si::PyUnpackTypeHint, nb::arg("ibytes"));
    m.def("BuildTypeParameterInfo", &si::PyBuildTypeParameterInfo, nb::arg("name"),
          nb::arg("param_kind"), nb::arg("bound").none() = nb::none(),
          nb::arg("default").none() = nb::none());
    m.def("UnpackTypeParameterInfo", &si::PyUnpackTypeParameterInfo, nb::arg("ibytes"));
    m.def("BuildFieldsInfo", &si::PyBuildFieldsInfo, nb::arg("kind"), nb::arg("fields"));
    m.def("UnpackFieldsInfo", &si::PyUnpackFieldsInfo, nb::arg("ibytes"));

    // Marks and compounds.
    m.def("PrefixWithLocationAndScope", &si::PyPrefixWithLocationAndScope, nb::arg("info"),
          nb::arg("loc").none(), nb::arg("scope_name").none());
    m.def("LocationForUrl", &si::LocationForUrl, nb::arg("url"));
    m.def("UnpackLocationAndScope", &si::PyUnpackLocationAndScope, nb::arg("ibytes"),
          nb::arg("as_location") = true);
    m.def("PopLeadingPrefixes", &si::PyPopLeadingPrefixes, nb::arg("ibytes"));
    m.def("JoinInfoBytes", &si::PyJoinInfoBytes, nb::arg("a"), nb::arg("b"));
    m.def("ScopeNameDefinedByInfo", &si::PyScopeNameDefinedByInfo, nb::arg("ibytes"));
    m.def("InfoDefinesScope", &si::PyInfoDefinesScope, nb::arg("ibytes"));
    m.def("DescribeInfo", &si::PyDescribeInfo, nb::arg("ibytes"));

    // Records.
    nb::class_<si::CDefInfo>(m, "CDefInfo")
        .def_rw("scope_name", &si::CDefInfo::scope_name)
        .def_rw("type_params", &si::CDefInfo::type_params)
        .def_rw("arg_decl", &si::CDefInfo::arg_decl)
        .def_rw("fReturnHint", &si::CDefInfo::return_hint)
        .def_rw("decorators", &si::CDefInfo::decorators)
        .def_prop_ro("signature", &si::CDefInfo::Signature)
        .def_prop_ro("kind", &si::CDefInfo::KindBytes_)
        .def("IsMethod", &si::CDefInfo::IsMethod)
        .def("SplitSignature", &si::CDefInfo::SplitSignature);
    nb::class_<si::CUnpackedDeclTypeParam>(m, "CUnpackedDeclTypeParam")
        .def_rw("name", &si::CUnpackedDeclTypeParam::name)
        .def_rw("kind", &si::CUnpackedDeclTypeParam::param_kind)
        .def_rw("bound", &si::CUnpackedDeclTypeParam::bound)
        .def_rw("default", &si::CUnpackedDeclTypeParam::default_text);
    nb::class_<si::CUnpackedClassInfo>(m, "CUnpackedClassInfo")
        .def_rw("full_name", &si::CUnpackedClassInfo::full_name)
        .def_rw("type_params", &si::CUnpackedClassInfo::type_params)
        .def_rw("arg_decl", &si::CUnpackedClassInfo::arg_decl)
        .def_rw("decorators", &si::CUnpackedClassInfo::decorators)
        .def_prop_ro("bases", &si::CUnpackedClassInfo::Bases)
        .def_prop_ro("decl_type_params", &si::CUnpackedClassInfo::TypeParams);

    // Scopes.
    nb::class_<CScope>(m, "CScope", bindutil::IntrusiveHolder<CScope>())
        .def(nb::init<nb::object, nb::handle, nb::object>(), nb::arg("loc").none(), nb::arg("name"),
             nb::arg("unspecialized_name").none() = nb::none())
        .def_ro("loc", &CScope::loc)
        .def_ro("name", &CScope::name)
        .def_ro("unspecialized_name", &CScope::unspecialized_name)
        .def_rw("fStableLoc", &CScope::fStableLoc)
        .def_rw("fPrimaryScanned", &CScope::fPrimaryScanned)
        .def("UnspecializedName", &CScope::UnspecializedName)
        .def("Unspecialized", &CScope::Unspecialized)
        .def("ParentName", &CScope::ParentName)
        .def("ParentAndLeaf", &CScope::ParentAndLeaf)
        .def("IsTopLevelModule", &CScope::IsTopLevelModule)
        .def("ExprIn", &CScope::ExprIn, nb::arg("expr"), nb::arg("type_hint") = false)
        .def("ReplaceLoc", &CScope::ReplaceLoc, nb::arg("loc").none())
        .def("ReplaceName", &CScope::ReplaceName, nb::arg("scope_name"),
             nb::arg("normalized") = false)
        .def("Parent", &CScope::Parent)
        .def("ChildScope", &CScope::ChildScope, nb::arg("name"))
        .def("InstanceForClass", &CScope::InstanceForClass)
        .def("ModuleScope", &CScope::ModuleScope)
        .def("GetDefLineScope", &CScope::GetDefLineScope)
        .def("AsExpr", &CScope::AsExpr)
        .def("__eq__", &CScope::Equals, nb::is_operator())
        .def("__ne__", [](const CScope &a, const CScope &b) { return !a.Equals(b); },
             nb::is_operator())
        .def("__lt__", &CScope::Less, nb::is_operator())
        .def("__hash__", &CScope::Hash)
        .def("__repr__", &CScope::Repr);
    nb::class_<CFullyScopedName>(m, "CFullyScopedName", bindutil::IntrusiveHolder<CFullyScopedName>())
        .def(nb::init<nb::ref<CScope>, nb::handle, bool>(), nb::arg("scope"), nb::arg("name"),
             nb::arg("type_hint") = false)
        .def_ro("scope", &CFullyScopedName::scope)
        .def_ro("name", &CFullyScopedName::name)
        .def_ro("type_hint", &CFullyScopedName::type_hint)
        .def("__eq__", &CFullyScopedName::Equals, nb::is_operator())
        .def("__ne__", [](const CFullyScopedName &a, const CFullyScopedName &b) { return !a.Equals(b); },
             nb::is_operator())
        .def("__hash__", &CFullyScopedName::Hash)
        .def("__repr__", &CFullyScopedName::Repr);
    m.def("Scope", &si::Scope, nb::arg("loc").none(), nb::arg("name"),
          nb::arg("unspecialized_name").none() = nb::none());
    m.def("NormalizedScope", &si::NormalizedScope, nb::arg("loc").none(), nb::arg("name"),
          nb::arg("unspecialized_name").none() = nb::none());
    m.def("WildcardScope", &si::WildcardScope, nb::arg("loc").none());
    m.def("FullyScopedNameWithScope", &si::FullyScopedNameWithScope, nb::arg("scope"),
          nb::arg("text"), nb::arg("type_hint") = false);

    // Resolved singles.
    nb::class_<CSingleResolvedInfo, PyCSingleResolvedInfo>(
        m, "CSingleResolvedInfo", bindutil::IntrusiveHolder<CSingleResolvedInfo>())
        .def(nb::init<nb::handle, nb::ref<CScope>, nb::object, nb::object>(), nb::arg("ibytes"),
             nb::arg("scope"), nb::arg("loc").none() = nb::none(),
             nb::arg("class_ref").none() = nb::none())
        .def_ro("ibytes", &CSingleResolvedInfo::ibytes)
        .def_ro("scope", &CSingleResolvedInfo::scope)
        .def_ro("loc", &CSingleResolvedInfo::loc)
        .def_rw("fClassRef", &CSingleResolvedInfo::fClassRef, nb::arg("value").none())
        .def_rw("fTypeArgs", &CSingleResolvedInfo::fTypeArgs, nb::arg("value").none())
        .def_rw("fDisplayItems", &CSingleResolvedInfo::fDisplayItems, nb::arg("value").none())
        .def_rw("fMadeWith", &CSingleResolvedInfo::fMadeWith, nb::arg("value").none())
        .def_rw("fBoundTo", &CSingleResolvedInfo::fBoundTo, nb::arg("value").none())
        .def("IsDef", &CSingleResolvedInfo::IsDef)
        .def("IsClass", &CSingleResolvedInfo::IsClass, nb::arg("include_builtin") = true)
        .def("IsMethod", &CSingleResolvedInfo::IsMethod)
        .def("IsBound", &CSingleResolvedInfo::IsBound)
        .def("IsInstance", &CSingleResolvedInfo::IsInstance, nb::arg("include_literals") = true)
        .def("IsModule", &CSingleResolvedInfo::IsModule)
        .def("IsLiteral", &CSingleResolvedInfo::IsLiteral, nb::arg("with_value") = false)
        .def("HasInstanceName", &CSingleResolvedInfo::HasInstanceName)
        .def("IsClassRef", &CSingleResolvedInfo::IsClassRef)
        .def("GetTypeName", &CSingleResolvedInfo::GetTypeName)
        .def("GetClassName", &CSingleResolvedInfo::GetClassName)
        .def("GetDefinedScope", &CSingleResolvedInfo::GetDefinedScope)
        .def("GetInstanceClassName", &CSingleResolvedInfo::GetInstanceClassName)
        .def("GetClassRefBytes", &CSingleResolvedInfo::GetClassRefBytes)
        .def("__eq__", &CSingleResolvedInfo::Equals, nb::is_operator())
        .def("__hash__", &CSingleResolvedInfo::Hash)
        .def("__repr__", &CSingleResolvedInfo::Repr);
    m.def("CreateSingleResolvedForClass", &si::CreateSingleResolvedForClass,
          nb::arg("scope_or_loc").none(), nb::arg("name").none() = nb::none());

    // The operation groups and their singletons.
    nb::class_<si::CPackedOps_>(m, "_CPackedOps")
        .def(nb::init<>())
        .def("PackClassInfo", &si::CPackedOps_::PackClassInfo, nb::arg("full_name"),
             nb::arg("type_params").none(), nb::arg("arg_decl").none(),
             nb::arg("decorators").none() = nb::none())
        .def("UnpackClassInfo", &si::CPackedOps_::UnpackClassInfo, nb::arg("ibytes"))
        .def("PackDefInfo", &si::CPackedOps_::PackDefInfo, nb::arg("prefix"), nb::arg("full_name"),
             nb::arg("type_params").none(), nb::arg("arg_decl").none(),
             nb::arg("return_text").none(), nb::arg("decorators").none())
        .def("UnpackDefInfo", &si::CPackedOps_::UnpackDefInfo, nb::arg("ibytes"))
        .def("PackCalled", &si::CPackedOps_::PackCalled, nb::arg("suffix"), nb::arg("arg_text"))
        .def("UnpackCalled", &si::CPackedOps_::UnpackCalled, nb::arg("called_ibytes"))
        .def("AppendLogicalIndexBytesSuffix", &si::CPackedOps_::AppendLogicalIndexBytesSuffix,
             nb::arg("istr"), nb::arg("logical_i_bytes"))
        .def("SplitLogicalIndexSuffix", &si::CPackedOps_::SplitLogicalIndexSuffix, nb::arg("istr"))
        .def("UnpackLogicalIndex", &si::CPackedOps_::UnpackLogicalIndex, nb::arg("ibytes"))
        .def("UnpackTypeHint", &si::CPackedOps_::UnpackTypeHint, nb::arg("ibytes"))
        .def("UnpackArgInfo", &si::CPackedOps_::UnpackArgInfo, nb::arg("ibytes"))
        .def("UnpackDecoratorInfo", &si::CPackedOps_::UnpackDecoratorInfo, nb::arg("ibytes"))
        .def("UnpackLiteralInfo", &si::CPackedOps_::UnpackLiteralInfo, nb::arg("ibytes"))
        .def("UnpackConditionalInfo", &si::CPackedOps_::UnpackConditionalInfo, nb::arg("ibytes"))
        .def("UnpackLocationAndScope", &si::CPackedOps_::UnpackLocationAndScope, nb::arg("ibytes"),
             nb::arg("as_location") = true)
        .def("UnpackTypeParameterInfo", &si::CPackedOps_::UnpackTypeParameterInfo, nb::arg("ibytes"))
        .def("UnpackFieldsInfo", &si::CPackedOps_::UnpackFieldsInfo, nb::arg("ibytes"));
    nb::class_<si::CExprOps_>(m, "_CExprOps")
        .def(nb::init<>())
        .def("SplitTrailers", &si::CExprOps_::SplitTrailers, nb::arg("s"))
        .def("SplitArguments", &si::CExprOps_::SplitArguments, nb::arg("s"))
        .def("IsAtomExpr", &si::CExprOps_::IsAtomExpr, nb::arg("s"))
        .def("IsSingleNameToken", &si::CExprOps_::IsSingleNameToken, nb::arg("s"))
        .def("IsFloat", &si::CExprOps_::IsFloat, nb::arg("s"))
        .def("JoinTokens", &si::CExprOps_::JoinTokens, nb::arg("toks"))
        .def("SplitDefSignature", &si::CExprOps_::SplitDefSignature, nb::arg("signature"))
        .def("EncodeStringLiteral", &si::CExprOps_::EncodeStringLiteral, nb::arg("text"));
    nb::class_<si::CScopeNameOps_>(m, "_CScopeNameOps")
        .def(nb::init<>())
        .def("Join", &si::CScopeNameOps_::Join, nb::arg("parent"), nb::arg("child"))
        .def("Leaf", &si::CScopeNameOps_::Leaf, nb::arg("name"))
        .def("Parent", &si::CScopeNameOps_::Parent, nb::arg("name"))
        .def("ParentAndLeaf", &si::CScopeNameOps_::ParentAndLeaf, nb::arg("name"))
        .def("SplitFromSuffixes", &si::CScopeNameOps_::SplitFromSuffixes, nb::arg("name"))
        .def("RemoveAllSubscripts", &si::CScopeNameOps_::RemoveAllSubscripts, nb::arg("name"))
        .def("AppendScopeIndex", &si::CScopeNameOps_::AppendScopeIndex, nb::arg("name"), nb::arg("i"))
        .def("LeafScopeIndex", &si::CScopeNameOps_::LeafScopeIndex, nb::arg("name"))
        .def("Normalize", &si::CScopeNameOps_::Normalize, nb::arg("name"))
        .def("DefLineScope", &si::CScopeNameOps_::DefLineScope, nb::arg("name"))
        .def("InstanceName", &si::CScopeNameOps_::InstanceName, nb::arg("name"))
        .def("IsInstanceScope", &si::CScopeNameOps_::IsInstanceScope, nb::arg("name"));
    nb::class_<si::CBuiltinTypeNames_>(m, "_CBuiltinTypeNames")
        .def(nb::init<>())
        .def_prop_ro("names", &si::CBuiltinTypeNames_::AllNames)
        .def("IsBuiltinTypeName", &si::CBuiltinTypeNames_::IsBuiltinTypeName, nb::arg("name"));
    m.attr("packedops") = si::CPackedOps_();
    m.attr("exprops") = si::CExprOps_();
    m.attr("scopenameops") = si::CScopeNameOps_();
    m.attr("builtintypenames") = si::CBuiltinTypeNames_();
}

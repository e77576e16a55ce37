// The primary scan: from the text of one scope to its CScopeInfo record, and
// the whole-file driver that splits a file into scopes and scans each scope
// the moment it is complete.
//
// A primary scan reads only the logicals of its own scope; it resolves
// nothing and reads no other file, so its record can be cached per scope.
// Both scanners are cooperative: Scan(end_time) does what fits before
// end_time and resumes where it stopped on the next call.
//
// Services (analysis manager, analyses, logical caches, the logical
// analyzer, the info cache) are called through their Python interface, so
// that an embedder or a test can stand in its own objects.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include "pysource/logicalline.h"
#include "pysource/scopeinfo.h"
#include "pysource/scopescanner/perfileinfo.h"
#include "pysource/scopescanner/protocol.h"
#include "pysource/scopescanner/scopebodyfinder.h"

namespace nb = nanobind;

namespace pysource {

// Scans one scope (module, class or function body) into one CScopeInfo.
//
// Built by the whole-file scanner with the analysis, the shared per-file
// context and a stack item whose definition and body are ready; or alone,
// with the scope only, for an editor's on-demand scan, in which case it
// finds the analysis, the defining logical and the body itself.
class CSingleScopePrimaryScanner : public CScannerBase_ {
public:
    // `ana`: the analysis, None for none, or _kNoValue to look it up.
    // `per_file_info`: a _CPerFileInfo or None (then one is made, and owned).
    // `stack_item`: a _CScopeStackItem or None.
    CSingleScopePrimaryScanner(nb::handle scope, nb::handle ana, nb::handle per_file_info,
                               nb::handle stack_item, nb::handle incomplete_scope_set,
                               nb::handle log);

    nb::ref<CNamedConstant> Scan(double end_time) override;
    void _destroy_impl() override;

    // Lookups of the standalone path; each returns a timed-out flag.
    virtual bool GetAnalysis_(double end_time);
    virtual void CB_LogicalCacheModified_(nb::handle logical_cache, nb::handle delta);
    virtual bool GetScopeDef_(double end_time);
    virtual nb::list FindDecoratorLogicals_();
    virtual bool GetBody_(double end_time);
    virtual nb::object GetBodyOfNamedScope_(nb::handle scope);

    // The defining logical (never times out).
    virtual bool ScanDefiningScopeDef_(double end_time);

    // Body logicals.
    virtual void ProcessSingleInfoStr_(nb::handle name, nb::handle istr,
                                       nb::handle logical_i_bytes);
    virtual nb::object GetInstAttribName_(nb::handle name);
    virtual void AddPerName_(nb::handle name_dict, nb::handle name, nb::handle info);
    virtual void FinalizeNameDict_(nb::handle name_dict, nb::handle set_dict, nb::handle get_dict,
                                   nb::handle hint_dict);
    virtual void TryAnalyzeSingleLogical_(nb::handle logical);
    virtual bool ScanBodyLogicals_(double end_time);

    // Simple conditionals of stub files.
    virtual void UpdateSimpleConditional_(nb::handle logical);
    virtual bool IsSimpleConditionParsable_(nb::handle tok_list);
    virtual bool IsSimpleCondition_(nb::handle tok_list);

    virtual void ScanSingleScopeDefInBody_(nb::handle logical, Py_ssize_t logical_i);
    virtual nb::object GetFirstLogicalFromBodyOfLogical_(nb::handle logical);

    // Definition info of def and class logicals.
    virtual nb::bytes GetInfoBytesForScopeDef_(nb::handle logical, nb::handle full_name,
                                               bool in_cls, nb::handle decorator_logicals,
                                               nb::handle body0);
    virtual nb::str GetFunctionDefArgsDeclWithHints_(nb::handle tok_seq, Py_ssize_t lpar_i,
                                                     Py_ssize_t rpar_i, nb::handle hint_dict);
    virtual nb::dict GetHintsFromFunctionDef_(nb::handle logical, nb::handle body0);
    virtual nb::bytes GetScopeDefInfoBytes_();
    virtual nb::tuple RewriteCommentInfo_(nb::handle logical, nb::handle name, nb::handle istr);
    virtual nb::tuple RewriteCommentInfoForMethod_(nb::handle logical, nb::handle name,
                                                   nb::handle istr);

    // Finishing.
    virtual void AddStandardModuleNames_();
    virtual void AddToFirstDict_(nb::handle name, nb::handle first_dict);
    virtual nb::object FindDecoratorDottedName_(nb::handle logical);
    virtual nb::object SaveToInfoCache(bool can_write);

    nb::object fScopeDef;            // CLogicalLine, _kNoValueLogical or None
    nb::object fContainingClassDef;  // the same
    bool fFileDoesntExist = false;
    nb::ref<CScopeInfo> fInfo;       // null until the scan has finished
    nb::object _fInSimpleConditional;
    nb::ref<CPerFileInfo_> fPerFileInfo;
    nb::object fInfoCache;           // published; saving goes through fPerFileInfo
    nb::object fAnalysis_;           // analysis, None, or _kNoValue
    nb::object fBody;                // list of logicals or None
    nb::object fDecoratorLogicals;   // list or None
    bool fIsAsyncDef = false;
    Py_ssize_t fNotParsedCount_ = 0;
    bool fEntireScopeScanned = false;
    nb::object fSelfDotName_;        // str or None
    Py_ssize_t fLogicalIndex_ = 0;
    // fLogicalIndex_ as the bytes of its decimal digits, made once per index
    // (bytes lead back to nothing: the collector needn't see them).
    nb::object fIndexBytes_;
    Py_ssize_t fIndexBytesFor_ = -1;
    nb::handle LogicalIndexBytes_();
    nb::object fTypeEquivs_;         // dict, None once moved into fInfo
    nb::object fInstTypeEquivs_;
    nb::object fDomains_;
    bool fBodyLogicalsScanned_ = false;
    bool fScopeDefScanned_ = false;
    nb::dict fFirstNameSet_;
    nb::dict fFirstNameGet_;
    nb::dict fFirstAttribSet_;
    nb::dict fFirstTypeHintSet_;
    nb::dict fInstFirstTypeHintSet_;
    nb::ref<CScopeStackItem_> _fStackItem;
    nb::dict _fScopeNameSeenCount;
    bool _fNotFound = false;
    bool fOwnsPerFileInfo_ = false;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

private:
    CSingleScopePrimaryScanner(nb::handle scope, nb::handle ana,
                               nb::ref<CPerFileInfo_> per_file_info, bool owns_per_file_info,
                               nb::handle stack_item, nb::handle log);
    nb::handle ScopeName() const;
    // The logical in fScopeDef / fContainingClassDef, or nullptr for None
    // and the not-looked-up marker.
    CLogicalLine *ScopeDefLogical() const;
    CLogicalLine *ContainingClassLogical() const;
    bool AnyStaticMethodDecorator(nb::handle decorator_logicals);
    // The hints of a def; a signature comment's argument numbers are moved
    // up by `comment_arg_shift` (1 for a method with self).
    nb::dict HintsFromFunctionDef(nb::handle logical, nb::handle body0,
                                  Py_ssize_t comment_arg_shift);
    void FoldNameInfo(CLogicalLine &logical, nb::handle logical_i_bytes);
    // Hints for the parameters of this def that the source leaves unhinted,
    // from its docstring `body0` (the first body logical), read at the def
    // line as annotations are.
    void AddDocstringHints(nb::handle body0);
    // The definition info of a def or class logical is its full name packed
    // with parts worked out from the logical: (def prefix or None for a
    // class, type parameters, declaration, return text, decorator names).
    nb::tuple DefInfoParts(nb::handle logical, bool in_cls, nb::handle decorator_logicals,
                           nb::handle body0);
    static nb::bytes PackDefInfo(nb::handle full_name, nb::handle parts);
    // Whether this scanner and the others of its file hand each other the
    // parts of definition info (fScopeDefInfoParts).
    bool SharesDefInfo() const;
    // The definition info of a def or class in this scope's body, from the
    // parts its own scope's scan left when they were worked out from the
    // same, else worked out now.
    nb::bytes DefInfoBytesInBody(nb::handle logical, nb::handle full_name, bool in_cls,
                                 nb::handle decorator_logicals, nb::handle body0);
    // Whether the body logical after `header` (at fLogicalIndex_ of fBody)
    // shares its line: a one-line block.
    bool HasBodyOnItsLine(const CLogicalLine &header) const;
    nb::object Analyzer() const;
};

// Scans a whole file that doesn't change: one pass over its logicals, each
// scope scanned and saved as soon as it is complete; abandoned when the
// file's content changes under it.
class CWholeFilePrimaryScanner : public CScannerBase_ {
public:
    CWholeFilePrimaryScanner(nb::handle loc, nb::handle scan_name,
                             nb::handle incomplete_scope_set, nb::handle log);

    nb::ref<CNamedConstant> Scan(double end_time) override;
    void _destroy_impl() override;

    // Returns the scan state, or kTimedOut.
    virtual nb::ref<CNamedConstant> PrepareLogicalList_(double end_time);
    virtual nb::object GetLogicalCache_();
    virtual void CB_LogicalCacheModified_(nb::handle lline_cache, nb::handle delta);
    virtual void AbandonScan();
    // "etherealized" of the analysis: the scan is abandoned.
    void CB_AnalysisEtherealized_(nb::args);
    virtual nb::object GetMatchedDiskMTime();
    virtual CScopeStackItem_ *GetClsItemOfLeafMethod_(CLogicalLine *method_def);
    virtual bool IsScopeDefForClsName_(CLogicalLine *scope_def, nb::handle maybe_cls_name);
    virtual bool ScanCompletedScopes_(double end_time);
    virtual bool ScanSingleStackItem_(CScopeStackItem_ &item, double end_time);

    nb::ref<CPerFileInfo_> fPerFileInfo;
    bool fScanAbandoned = false;
    bool fReady = true;
    nb::object fLogicalCache_;
    bool fDestroyLogicalCache_ = false;
    nb::object fAnalysis_;
    nb::ref<CScopeBodyFinder_> _fBodyFinder;
    bool fUpdateFromCacheCalled_ = false;
    nb::set _fAllScopeNames;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

private:
    nb::ref<CNamedConstant> ScanUnderDeferredNotifications(double end_time);
    void FinishFile();
    void TakeContentFacts(nb::handle cache);
};

// The record of the instance pseudo-scope of a class: the class single as an
// instance single, `__class__`, and the instance attributes of the class and
// of its methods (`method_info_list`, sorted in place by scope name).
// The result is a CScopeInfo (or None when the merge gives none).
nb::object CreateClassInstInfo(nb::handle cls_info, nb::handle method_info_list,
                               nb::handle scan_name);
// The order of methods in CreateClassInstInfo: the method's scope name.
nb::object MethodInfoSortKey_(nb::handle method_info);

// The C++ object behind a scanner, or a TypeError.
CSingleScopePrimaryScanner &AsSingleScopePrimaryScanner(nb::handle obj);

}  // namespace pysource

// What opens a scope, and how a list of logical lines is divided into scope
// bodies in one pass, one logical at a time.
//
// Indentation alone decides where a scope ends.  Comments are held back until
// the next statement shows which scope they belong to.  Scopes are recorded in
// _CScopeStackItem records that are recycled through a module free list.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include "basekit/destroyable.h"
#include "pysource/logicalline.h"
#include "pysource/scopename.h"
#include "pysource/srctokenizer.h"
#include "pysource/scopescanner/protocol.h"

namespace nb = nanobind;

namespace pysource {

// The name of a file's root scope.
using symbolinfo::kModuleScopeName;

// Token types that matter to scope structure: the decorator operator and a
// comment (pysource.srctokenizer's numbers 50 and 202).
inline constexpr int kDecoratorTokenType = kTokAt;
inline constexpr int kCommentTokenType = kTokComment;

// The same, but None raises AttributeError for `attr`, as reading that
// attribute of None would.
CLogicalLine *RequireLogical(nb::handle obj, const char *attr);

bool IsScopeDef(const CLogicalLine &logical);
bool IsAsyncDef(const CLogicalLine *scope_def);  // nullptr: not async
// The decorators of the scope def at `scope_i` of `logical_list`, appended to
// `out` in source order.
void AppendDecoratorLogicals(Py_ssize_t scope_i, nb::handle logical_list, nb::list out);
nb::list FindDecoratorLogicals(Py_ssize_t scope_i, nb::handle logical_list);
bool LogicalContainsLineno(const CLogicalLine &logical, Py_ssize_t lineno);
nb::str ParentScope(nb::str name);

// One scope during a walk of a file.
class CScopeStackItem_ : public nb::intrusive_base {
public:
    CScopeStackItem_();
    ~CScopeStackItem_() override = default;

    // Back to the state of a fresh item, keeping the list objects.
    virtual void Clear();

    nb::object scope_name;
    nb::ref<CLogicalLine> scope_def;  // null for the root of a file
    nb::list decorator_logicals;
    nb::list body;
    nb::object scanner;  // any destroyable, owned by the item; None if there is none
    nb::list child_method_list;
    bool is_async_def = false;
    Py_ssize_t not_parsed_count = 0;
    nb::ref<CLogicalLine> containing_class_def;
    Py_ssize_t scope_index = -1;

    // Garbage-collector support for the Python objects held.
    int Traverse(visitproc visit, void *arg);
    void DropReferences();
};

// The free list of cleared items (a module list, used as a stack).
nb::list StackItemFreeList();
void InitStackItemFreeList();
void ReleaseStackItemFreeList();  // module teardown
nb::ref<CScopeStackItem_> NewStackItem_();
void DelStackItem_(CScopeStackItem_ &item);
// Item `i` of a stack list (negative counts from the end); IndexError outside.
CScopeStackItem_ &GetStackItem_(nb::handle stack, Py_ssize_t i);
// The indent of that item's scope def, -1 for a root item.
int GetStackItemIndentLevel_(nb::handle stack, Py_ssize_t i);
// The stack item behind `obj`, or a TypeError.
CScopeStackItem_ &AsStackItem(nb::handle obj);

// Splits a list of logicals into scope bodies.  Either all scopes of the list
// (whole file), or one scope with its sub scopes ignored (top_scope_only).
class CScopeBodyFinder_ : public basekit::CDestroyable {
public:
    // `scope_def_i`: index of the wanted scope's defining logical, or -1 (or
    // any index outside the list) for the root scope of the file.
    CScopeBodyFinder_(nb::list logical_list, Py_ssize_t scope_def_i, bool top_scope_only);

    void _destroy_impl() override;
    // The body of the last completed scope (a copy), or None.
    virtual nb::object PopCompletedScopeBody();
    // Processes one logical and returns it; None when nothing is left.
    virtual nb::object ProcessNextLogical();
    virtual void ProcessUntilEnd();
    virtual CScopeStackItem_ *MaybeEndNestedScope_(CScopeStackItem_ *current,
                                                   const CLogicalLine &logical);
    virtual void MaybeStartNestedScope_(CScopeStackItem_ *current, nb::handle logical);
    virtual void DiscardIgnoredComments_();
    virtual Py_ssize_t FindLastPendingCommentForIndent_(int split_level);
    virtual CScopeStackItem_ *CompleteScope_();
    virtual Py_ssize_t FindPriorScopeDefIndex_(Py_ssize_t pos);
    virtual nb::ref<CScopeStackItem_> NewStackItemForScopeDef_(CScopeStackItem_ *parent,
                                                               nb::handle logical,
                                                               Py_ssize_t logical_i);

    nb::list fCompletedScopeList;
    nb::list _fLogicalList;
    Py_ssize_t _fScanPos = 0;
    nb::list _fScopeStack;
    bool _fIgnoreSubScopes = false;
    int _fIgnoredIndent = -1;
    nb::list _fPendingCommentLogicals;

    int TraverseFields(visitproc visit, void *arg);
    void DropReferences();

private:
    CScopeStackItem_ *TopOfStack();
    void MovePendingComments(nb::list target, Py_ssize_t count);
};

}  // namespace pysource

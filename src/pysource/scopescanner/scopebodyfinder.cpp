#include "pysource/scopescanner/scopebodyfinder.h"

#include <string>

#include "pysource/instptr.h"
#include "pysource/scopescanner/scopebodycache.h"

namespace pysource {

namespace {

CProcessRef gStackItemFreeList;
CProcessRef gModuleScopeNameText;

// Item `i` of a sequence; lists are read without a call.
nb::object SequenceItem(nb::handle seq, Py_ssize_t i) {
    if (PyList_Check(seq.ptr())) {
        if (i < 0 || i >= PyList_GET_SIZE(seq.ptr()))
            throw nb::index_error("logical index out of range");
        return nb::borrow(PyList_GET_ITEM(seq.ptr(), i));
    }
    PyObject *item = PySequence_GetItem(seq.ptr(), i);
    if (!item)
        throw nb::python_error();
    return nb::steal(item);
}

void EmptyList(nb::handle list) {
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    if (size && PyList_SetSlice(list.ptr(), 0, size, nullptr) < 0)
        throw nb::python_error();
}

void Append(nb::handle list, nb::handle value) {
    if (PyList_Append(list.ptr(), value.ptr()) < 0)
        throw nb::python_error();
}

void DeleteLast(nb::handle list) {
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    if (PyList_SetSlice(list.ptr(), size - 1, size, nullptr) < 0)
        throw nb::python_error();
}

nb::handle ModuleScopeNameText() {
    if (!gModuleScopeNameText.ptr())
        gModuleScopeNameText.Set(nb::str(kModuleScopeName.data(), kModuleScopeName.size()));
    return gModuleScopeNameText.get();
}

nb::object StackItemObject(CScopeStackItem_ &item) {
    return nb::cast(nb::ref<CScopeStackItem_>(&item));
}

// Fresh lists for a GC clear: the old ones may still be shared with live
// holders, so they are released rather than emptied.
void ReleaseList(nb::list &list) {
    try {
        list = nb::list();
    } catch (...) {
        PyErr_Clear();
    }
}

}  // namespace

CLogicalLine *RequireLogical(nb::handle obj, const char *attr) {
    if (obj.is_none()) {
        std::string message = std::string("'NoneType' object has no attribute '") + attr + "'";
        PyErr_SetString(PyExc_AttributeError, message.c_str());
        throw nb::python_error();
    }
    return AsLogical(obj, "a CLogicalLine");
}

bool IsScopeDef(const CLogicalLine &logical) {
    return logical.fKind == LogicalKind::kClassDef || logical.fKind == LogicalKind::kFunctionDef;
}

bool IsAsyncDef(const CLogicalLine *scope_def) {
    if (!scope_def || scope_def->fKind != LogicalKind::kFunctionDef)
        return false;
    for (Py_ssize_t i = 0; i < scope_def->TokenCount(); ++i) {
        std::string_view text = scope_def->TokenText(i);
        if (text == "async")
            return true;
        if (text == "def")
            return false;
    }
    return false;
}

void AppendDecoratorLogicals(Py_ssize_t scope_i, nb::handle logical_list, nb::list out) {
    if (scope_i < 1)
        return;
    // Walk back over decorators, comments and empty logicals to where the run
    // starts, then append the decorators forward: source order, no temporary.
    Py_ssize_t first = scope_i;
    for (Py_ssize_t i = scope_i - 1; i >= 0; --i) {
        const CLogicalLine &logical = *AsLogical(SequenceItem(logical_list, i));
        if (logical.TokenCount() != 0) {
            int type = logical.TokenType(0);
            if (type != kDecoratorTokenType && type != kCommentTokenType)
                break;
        }
        first = i;
    }
    for (Py_ssize_t i = first; i < scope_i; ++i) {
        nb::object item = SequenceItem(logical_list, i);
        const CLogicalLine &logical = *AsLogical(item);
        if (logical.TokenCount() != 0 && logical.TokenType(0) == kDecoratorTokenType)
            Append(out, item);
    }
}

nb::list FindDecoratorLogicals(Py_ssize_t scope_i, nb::handle logical_list) {
    nb::list result;
    AppendDecoratorLogicals(scope_i, logical_list, result);
    return result;
}

bool LogicalContainsLineno(const CLogicalLine &logical, Py_ssize_t lineno) {
    return logical.fFirstLine <= lineno && lineno < logical.fFirstLine + logical.fLineCount;
}

nb::str ParentScope(nb::str name) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(name.ptr());
    Py_ssize_t dot = length ? PyUnicode_FindChar(name.ptr(), '.', 0, length, -1) : -1;
    if (dot == -2)
        throw nb::python_error();
    if (dot < 0)
        return nb::borrow<nb::str>(ModuleScopeNameText());
    PyObject *parent = PyUnicode_Substring(name.ptr(), 0, dot);
    if (!parent)
        throw nb::python_error();
    return nb::steal<nb::str>(parent);
}

// ---------------------------------------------------------------- stack items

CScopeStackItem_::CScopeStackItem_() : scanner(nb::none()) { CScopeStackItem_::Clear(); }

void CScopeStackItem_::Clear() {
    scope_name = nb::borrow(ModuleScopeNameText());
    scope_def.reset();
    scope_index = -1;
    is_async_def = false;
    containing_class_def.reset();
    EmptyList(body);
    EmptyList(decorator_logicals);
    if (!scanner.is_none()) {
        nb::object owned = scanner;  // alive while it is destroyed
        if (basekit::CDestroyable *destroyable = basekit::AsDestroyable(owned))
            destroyable->destroy();
        else
            owned.attr("destroy")();
    }
    scanner = nb::none();
    EmptyList(child_method_list);
    not_parsed_count = 0;
}

int CScopeStackItem_::Traverse(visitproc visit, void *arg) {
    Py_VISIT(decorator_logicals.ptr());
    Py_VISIT(body.ptr());
    Py_VISIT(scanner.ptr());
    Py_VISIT(child_method_list.ptr());
    return 0;
}

void CScopeStackItem_::DropReferences() {
    scanner = nb::none();
    ReleaseList(decorator_logicals);
    ReleaseList(body);
    ReleaseList(child_method_list);
}

void InitStackItemFreeList() {
    if (!gStackItemFreeList.ptr())
        gStackItemFreeList.Set(nb::list());
}

void ReleaseStackItemFreeList() {
    gStackItemFreeList.Release();
    gModuleScopeNameText.Release();
}

nb::list StackItemFreeList() { return nb::borrow<nb::list>(gStackItemFreeList.get()); }

CScopeStackItem_ &AsStackItem(nb::handle obj) {
    return InstRef<CScopeStackItem_>(obj, "a _CScopeStackItem");
}

nb::ref<CScopeStackItem_> NewStackItem_() {
    nb::handle free_list = gStackItemFreeList.get();
    Py_ssize_t size = free_list.is_valid() ? PyList_GET_SIZE(free_list.ptr()) : 0;
    if (size == 0)
        return new CScopeStackItem_();
    nb::ref<CScopeStackItem_> item = &AsStackItem(PyList_GET_ITEM(free_list.ptr(), size - 1));
    DeleteLast(free_list);
    return item;
}

void DelStackItem_(CScopeStackItem_ &item) {
    nb::ref<CScopeStackItem_> keep = &item;
    item.Clear();
    if (gStackItemFreeList.ptr())  // not after module teardown
        Append(gStackItemFreeList.get(), StackItemObject(item));
}

CScopeStackItem_ &GetStackItem_(nb::handle stack, Py_ssize_t i) {
    if (!PyList_Check(stack.ptr()))
        RaiseNotA("a list of _CScopeStackItem", stack);
    Py_ssize_t size = PyList_GET_SIZE(stack.ptr());
    if (i < 0)
        i += size;
    if (i < 0 || i >= size)
        throw nb::index_error("stack index out of range");
    return AsStackItem(PyList_GET_ITEM(stack.ptr(), i));
}

int GetStackItemIndentLevel_(nb::handle stack, Py_ssize_t i) {
    CScopeStackItem_ &item = GetStackItem_(stack, i);
    return item.scope_def ? item.scope_def->fIndentLevel : -1;
}

// ---------------------------------------------------------------- the finder

CScopeBodyFinder_::CScopeBodyFinder_(nb::list logical_list, Py_ssize_t scope_def_i,
                                     bool top_scope_only)
    : CDestroyable(nb::none()), _fLogicalList(std::move(logical_list)) {
    Py_ssize_t size = PyList_GET_SIZE(_fLogicalList.ptr());
    if (scope_def_i >= 0 && scope_def_i < size) {
        nb::handle candidate = PyList_GET_ITEM(_fLogicalList.ptr(), scope_def_i);
        if (!IsScopeDef(*AsLogical(candidate))) {
            std::string message = "Logical at [" + std::to_string(scope_def_i) +
                                  "] does not start scope: " +
                                  nb::cast<std::string>(nb::repr(candidate));
            throw nb::value_error(message.c_str());
        }
    }
    if (scope_def_i < 0 || scope_def_i >= size)
        scope_def_i = -1;
    _fIgnoreSubScopes = top_scope_only;
    _fScanPos = scope_def_i + 1;
    _fIgnoredIndent = -1;
    nb::object scope_def = scope_def_i >= 0
                               ? nb::borrow(PyList_GET_ITEM(_fLogicalList.ptr(), scope_def_i))
                               : nb::none();
    nb::ref<CScopeStackItem_> first = NewStackItemForScopeDef_(nullptr, scope_def, scope_def_i);
    Append(_fScopeStack, nb::cast(first));
}

void CScopeBodyFinder_::_destroy_impl() {
    // The items go back to the free list; the stack forgets them so that a
    // later call on this finder can't touch an item that is in use elsewhere.
    nb::list open_items = nb::steal<nb::list>(PySequence_List(_fScopeStack.ptr()));
    EmptyList(_fScopeStack);
    for (nb::handle item : open_items)
        DelStackItem_(AsStackItem(item));
}

CScopeStackItem_ *CScopeBodyFinder_::TopOfStack() {
    Py_ssize_t size = PyList_GET_SIZE(_fScopeStack.ptr());
    return size ? &AsStackItem(PyList_GET_ITEM(_fScopeStack.ptr(), size - 1)) : nullptr;
}

void CScopeBodyFinder_::MovePendingComments(nb::list target, Py_ssize_t count) {
    for (Py_ssize_t i = 0; i < count; ++i)
        Append(target, PyList_GET_ITEM(_fPendingCommentLogicals.ptr(), i));
    if (PyList_SetSlice(_fPendingCommentLogicals.ptr(), 0, count, nullptr) < 0)
        throw nb::python_error();
}

nb::object CScopeBodyFinder_::PopCompletedScopeBody() {
    Py_ssize_t size = PyList_GET_SIZE(fCompletedScopeList.ptr());
    if (size == 0)
        return nb::none();
    nb::object item_obj = nb::borrow(PyList_GET_ITEM(fCompletedScopeList.ptr(), size - 1));
    CScopeStackItem_ &item = AsStackItem(item_obj);
    DeleteLast(fCompletedScopeList);
    nb::object body = nb::steal(PySequence_List(item.body.ptr()));
    if (!body.is_valid())
        throw nb::python_error();
    DelStackItem_(item);
    return body;
}

nb::object CScopeBodyFinder_::ProcessNextLogical() {
    if (_fScanPos >= PyList_GET_SIZE(_fLogicalList.ptr())) {
        DiscardIgnoredComments_();
        while (PyList_GET_SIZE(_fScopeStack.ptr()) != 0)
            CompleteScope_();
    }
    CScopeStackItem_ *current = TopOfStack();
    if (!current)
        return nb::none();
    nb::object logical_obj = nb::borrow(PyList_GET_ITEM(_fLogicalList.ptr(), _fScanPos));
    const CLogicalLine &logical = *AsLogical(logical_obj, "a CLogicalLine in the logical list");
    _fScanPos += 1;

    if (logical.fKind == LogicalKind::kComment) {
        Append(_fPendingCommentLogicals, logical_obj);
        return logical_obj;
    }

    current = MaybeEndNestedScope_(current, logical);
    if (!current)
        return nb::none();

    Py_ssize_t pending = PyList_GET_SIZE(_fPendingCommentLogicals.ptr());
    if (_fIgnoreSubScopes && _fIgnoredIndent != -1) {
        if (pending)
            EmptyList(_fPendingCommentLogicals);
    } else {
        if (pending)
            MovePendingComments(current->body, pending);
        Append(current->body, logical_obj);
    }
    MaybeStartNestedScope_(current, logical_obj);
    return logical_obj;
}

void CScopeBodyFinder_::ProcessUntilEnd() {
    while (!ProcessNextLogical().is_none()) {
    }
}

CScopeStackItem_ *CScopeBodyFinder_::MaybeEndNestedScope_(CScopeStackItem_ *current,
                                                          const CLogicalLine &logical) {
    while (current) {
        bool in_ignored = _fIgnoreSubScopes && _fIgnoredIndent != -1;
        int scope_indent;
        if (in_ignored) {
            scope_indent = _fIgnoredIndent;
        } else {
            if (!current->scope_def)
                break;  // the root never ends through indentation
            scope_indent = current->scope_def->fIndentLevel;
            if (scope_indent == -1)
                break;
        }
        if (logical.fIndentLevel > scope_indent)
            break;
        if (in_ignored) {
            // Compare again against the real scope.
            DiscardIgnoredComments_();
            _fIgnoredIndent = -1;
        } else {
            current = CompleteScope_();
        }
    }
    return current;
}

void CScopeBodyFinder_::MaybeStartNestedScope_(CScopeStackItem_ *current, nb::handle logical) {
    const CLogicalLine &line = *AsLogical(logical);
    if (!IsScopeDef(line))
        return;
    if (_fIgnoreSubScopes) {
        if (_fIgnoredIndent == -1)
            _fIgnoredIndent = line.fIndentLevel;
        return;
    }
    nb::ref<CScopeStackItem_> item = NewStackItemForScopeDef_(current, logical, _fScanPos - 1);
    Append(_fScopeStack, nb::cast(item));
}

void CScopeBodyFinder_::DiscardIgnoredComments_() {
    if (_fIgnoredIndent == -1 || PyList_GET_SIZE(_fPendingCommentLogicals.ptr()) == 0)
        return;
    Py_ssize_t split_i = FindLastPendingCommentForIndent_(_fIgnoredIndent);
    if (split_i >= 0 &&
        PyList_SetSlice(_fPendingCommentLogicals.ptr(), 0, split_i + 1, nullptr) < 0)
        throw nb::python_error();
}

Py_ssize_t CScopeBodyFinder_::FindLastPendingCommentForIndent_(int split_level) {
    for (Py_ssize_t i = PyList_GET_SIZE(_fPendingCommentLogicals.ptr()) - 1; i >= 0; --i) {
        const CLogicalLine &comment = *AsLogical(PyList_GET_ITEM(_fPendingCommentLogicals.ptr(), i));
        if (comment.fIndentLevel > split_level)
            return i;
    }
    return -1;
}

CScopeStackItem_ *CScopeBodyFinder_::CompleteScope_() {
    Py_ssize_t size = PyList_GET_SIZE(_fScopeStack.ptr());
    if (size == 0)
        throw nb::index_error("no open scope to complete");
    nb::object item_obj = nb::borrow(PyList_GET_ITEM(_fScopeStack.ptr(), size - 1));
    CScopeStackItem_ &item = AsStackItem(item_obj);
    DeleteLast(_fScopeStack);

    Py_ssize_t pending = PyList_GET_SIZE(_fPendingCommentLogicals.ptr());
    if (pending) {
        if (!item.scope_def) {
            MovePendingComments(item.body, pending);
        } else {
            Py_ssize_t split_i = FindLastPendingCommentForIndent_(item.scope_def->fIndentLevel);
            if (split_i >= 0)
                MovePendingComments(item.body, split_i + 1);
        }
    }
    Append(fCompletedScopeList, item_obj);
    return TopOfStack();
}

Py_ssize_t CScopeBodyFinder_::FindPriorScopeDefIndex_(Py_ssize_t pos) {
    Py_ssize_t size = PyList_GET_SIZE(_fLogicalList.ptr());
    if (pos < 0 || pos >= size)
        return -1;
    if (AsLogical(PyList_GET_ITEM(_fLogicalList.ptr(), pos))->fIndentLevel == 0)
        return -1;
    while (pos > 0) {
        --pos;
        if (IsScopeDef(*AsLogical(PyList_GET_ITEM(_fLogicalList.ptr(), pos))))
            return pos;
    }
    return -1;
}

nb::ref<CScopeStackItem_> CScopeBodyFinder_::NewStackItemForScopeDef_(CScopeStackItem_ *,
                                                                      nb::handle logical,
                                                                      Py_ssize_t logical_i) {
    nb::ref<CScopeStackItem_> item = NewStackItem_();
    if (logical.is_none())
        return item;
    CLogicalLine *scope_def = AsLogical(logical);
    item->scope_def = scope_def;
    item->scope_name = GetFullNameForScopeDef(*scope_def);
    item->is_async_def = IsAsyncDef(scope_def);
    // Refilled in place: a recycled item keeps its list.
    EmptyList(item->decorator_logicals);
    AppendDecoratorLogicals(logical_i, _fLogicalList, item->decorator_logicals);
    return item;
}

int CScopeBodyFinder_::TraverseFields(visitproc visit, void *arg) {
    Py_VISIT(fCompletedScopeList.ptr());
    Py_VISIT(_fLogicalList.ptr());
    Py_VISIT(_fScopeStack.ptr());
    Py_VISIT(_fPendingCommentLogicals.ptr());
    return 0;
}

void CScopeBodyFinder_::DropReferences() {
    ReleaseList(fCompletedScopeList);
    ReleaseList(_fLogicalList);
    ReleaseList(_fScopeStack);
    ReleaseList(_fPendingCommentLogicals);
}

}  // namespace pysource

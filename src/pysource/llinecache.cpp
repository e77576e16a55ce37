#include "pysource/llinecache.h"

#include "pysource/fastaccess.h"
#include "pysource/strutils.h"

namespace pysource {

bool IsRemoteLocation(nb::handle loc) {
    return nb::hasattr(loc, "GetContent") && nb::hasattr(loc, "connect_while_alive");
}

CLogicalLineCache::CLogicalLineCache(nb::handle cache_mgr, nb::handle loc,
                                     nb::handle idle_priority)
    : CFileLogicalLineCache(loc),
      fCacheMgr(nb::borrow(cache_mgr)),
      fIdlePriority(nb::borrow(idle_priority)),
      fRemote(IsRemoteLocation(loc)) {}

void CLogicalLineCache::ListenToLocation() {
    if (fListening)
        return;
    // The location holds only a weak reference to this cache, so that the
    // connection keeps neither alive; it ends when the cache is destroyed.
    nb::object self = SelfObject();
    nb::object weak_self = nb::steal(PyWeakref_NewRef(self.ptr(), nullptr));
    if (!weak_self.is_valid())
        throw nb::python_error();
    nb::object handler = nb::cpp_function([weak_self](nb::args) {
        PyObject *target = PyWeakref_GetObject(weak_self.ptr());  // borrowed
        if (target && target != Py_None)
            nb::inst_ptr<CLogicalLineCache>(target)->CB_ContentChanged_();
    });
    fLoc.attr("connect_while_alive")("content-changed", handler, self);
    fListening = true;
}

nb::object CLogicalLineCache::RemoteContent() {
    nb::object content = fLoc.attr("GetContent")();
    if (!content.is_none() && !PyUnicode_Check(content.ptr()) && !PyBytes_Check(content.ptr()))
        throw nb::type_error("the content of a location must be bytes, str or None");
    return content;
}

bool CLogicalLineCache::PeekContent(std::string &content, bool *is_text) {
    if (fBuffer)
        return false;
    if (!fRemote)
        return CFileLogicalLineCache::PeekContent(content, is_text);
    nb::object given = RemoteContent();
    if (given.is_none())
        return false;
    *is_text = PyUnicode_Check(given.ptr());
    Utf8Buffer buf = GetUtf8Buffer(given);
    content.assign(buf.ptr, (size_t) buf.len);
    return true;
}

bool CLogicalLineCache::TakeRemoteContent(nb::list &added, nb::list &removed, bool *rebuilt) {
    nb::object content = RemoteContent();
    if (content.is_none())
        return false;
    bool is_text = PyUnicode_Check(content.ptr());
    Utf8Buffer buf = GetUtf8Buffer(content);
    nb::object mtime = nb::getattr(fLoc, "fModTime", nb::none());
    double when = mtime.is_none() ? GetNowTime() : nb::cast<double>(mtime);
    *rebuilt = ReplaceContent(std::string_view(buf.ptr, (size_t) buf.len), when, is_text, added,
                              removed);
    return true;
}

bool CLogicalLineCache::Update() {
    if (fBuffer)
        return true;
    if (!fRemote)
        return CFileLogicalLineCache::Update();
    ListenToLocation();
    bool had_content = HaveContent();
    nb::list added, removed;
    bool rebuilt = false;
    if (!TakeRemoteContent(added, removed, &rebuilt)) {
        if (!fWaiting) {
            fWaiting = true;
            if (!fCacheMgr.is_none() && nb::hasattr(fCacheMgr, "RequestContent"))
                fCacheMgr.attr("RequestContent")(fLoc, fIdlePriority);
        }
        return false;
    }
    fWaiting = false;
    if (rebuilt && had_content)
        EmitModified(added, removed);
    return true;
}

void CLogicalLineCache::CB_ContentChanged_() {
    if (IsDestroyed() || fBuffer)
        return;
    nb::list added, removed;
    bool rebuilt = false;
    if (!TakeRemoteContent(added, removed, &rebuilt))
        return;
    fWaiting = false;
    EmitModified(added, removed);
}

void CLogicalLineCache::SetText(nb::handle text, nb::handle mtime) {
    bool is_text = PyUnicode_Check(text.ptr());
    if (!is_text && !PyBytes_Check(text.ptr()))
        throw nb::type_error("SetText: the text must be str or bytes");
    Utf8Buffer buf = GetUtf8Buffer(text);
    nb::object held_mtime = fMatchedDiskMTime;
    double when = mtime.is_none() ? GetNowTime() : nb::cast<double>(mtime);
    nb::list added, removed;
    bool rebuilt = ReplaceContent(std::string_view(buf.ptr, (size_t) buf.len), when, is_text, added,
                                  removed);
    if (!rebuilt && mtime.is_none() && !held_mtime.is_none())
        fMatchedDiskMTime = held_mtime;
    fBuffer = true;
    fWaiting = false;
    EmitModified(added, removed);
}

}  // namespace pysource

// pysource.llinecache: the logical lines of a location whose content may
// arrive later (an editor buffer, a remote file).
//
// CLogicalLineCache is the file cache with another source of content.  For a
// remote location (one with GetContent() and a "content-changed" signal, such
// as basekit.location.CRemoteLocation) Update() takes the content that is
// there, or, when none has arrived, starts waiting and returns false.  From the
// first Update() on, every delivery rebuilds the logicals and emits
// "modified" (cache, delta) -- also a delivery of unchanged content, which
// gives an empty delta and leaves fMatchedDiskMTime as it was, so that a
// waiting scanner resumes.  fMatchedDiskMTime is the location's fModTime (the
// clock's time when the location has none).  For a local location the cache
// reads the file exactly as CFileLogicalLineCache does.
#pragma once

#include "pysource/filellinecache.h"

namespace pysource {

class CLogicalLineCache : public CFileLogicalLineCache {
public:
    // `cache_mgr`: None, or an object whose optional RequestContent(loc,
    // idle_priority) is asked for the content of a remote location that has
    // none yet.  `idle_priority` is passed on to it.
    CLogicalLineCache(nb::handle cache_mgr, nb::handle loc, nb::handle idle_priority);

    bool Update() override;

    // Handler of the location's "content-changed": takes the new content and
    // emits "modified".
    void CB_ContentChanged_();

    // Makes this the cache of an editor buffer whose text the embedder sets:
    // takes `text` (str, or bytes decoded as a file's) as the content,
    // modified at `mtime` (when None: the clock's time if the text changed,
    // else the time held), and emits "modified" with what changed, also for
    // the same text.  From then on Update() keeps the buffer's text and
    // neither reads the file nor takes the location's deliveries.
    void SetText(nb::handle text, nb::handle mtime);
    bool IsBuffer() const { return fBuffer; }

    bool IsRemote() const { return fRemote; }
    bool IsWaiting() const { return fWaiting; }

    nb::object fCacheMgr;
    nb::object fIdlePriority;

protected:
    bool PeekContent(std::string &content, bool *is_text) override;

private:
    void ListenToLocation();
    // The location's current content (bytes or str), or None.
    nb::object RemoteContent();
    // Takes the location's current content; false when there is none.
    bool TakeRemoteContent(nb::list &added, nb::list &removed, bool *rebuilt);

    bool fRemote = false;
    bool fListening = false;
    bool fWaiting = false;
    bool fBuffer = false;
};

// True for a location whose content is delivered rather than read from disk.
bool IsRemoteLocation(nb::handle loc);

}  // namespace pysource

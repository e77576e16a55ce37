// The logical lines of a file on the local disk, read synchronously.
//
// Update() reads the file, decodes it, builds its logicals and, when the
// content changed since an earlier successful read, emits "modified" with
// (cache, delta).  A missing or unreadable file makes Update() return false
// (never raise); fMatchedDiskMTime is then 0.0, and logicals read before are
// dropped and reported as removed.
#pragma once

#include "basekit/destroyable.h"
#include "pysource/logicalbuild.h"

#include <memory>
#include <string>

namespace pysource {

// What an update changed: logicals that went away and logicals that came.
class CLogicalLineDelta {
public:
    nb::list added;
    nb::list removed;
};

class CFileLogicalLineCache : public basekit::CDestroyable {
public:
    // `loc`: an object with an `fUrl` ("file://..."), a str path or a path-like.
    explicit CFileLogicalLineCache(nb::handle loc);
    ~CFileLogicalLineCache() override;

    virtual bool Update();
    // Update() in steps, for a scan with a deadline: the first read of the
    // content, which builds every logical, goes on over calls that each end
    // once the clock reaches `end_time` (a few hundred tokens past it at
    // most).  None while under way, then what Update() gives.  A later update
    // (an edit is read again in part) is one step.
    nb::object UpdateUntil(double end_time);
    nb::object GetEOLBlindChecksum() const;    // str, or None before content was read
    Py_ssize_t IndexForLineno_(Py_ssize_t lineno) const;  // -1 when no logical holds the line
    void SaveWordsToDb();

    nb::list _fLogicalList;
    nb::object fMatchedDiskMTime;  // float, 0.0 for a missing file, None before any Update
    nb::list fDecodeErrors;        // (line, byte offset, message) of the last read
    nb::object fLoc;
    std::string fPath;             // empty when the location isn't a local file
    std::string fEncoding;

protected:
    // The content Update() would take, for a build ahead of it: false when
    // there is none (Update() then tells why).
    virtual bool PeekContent(std::string &content, bool *is_text);

    // Takes `content` as the cache's content, modified at `mtime`: the bytes
    // of a file (decoded as such) or, with `is_utf8_text`, text already
    // decoded.  Builds the logicals unless the content is the one held.
    // Returns true when the logicals were rebuilt, with what changed in
    // `added` and `removed`.  Emits nothing.
    bool ReplaceContent(std::string_view content, double mtime, bool is_utf8_text, nb::list &added,
                        nb::list &removed);
    void EmitModified(nb::list added, nb::list removed);
    bool HaveContent() const { return fHaveContent; }

private:
    void DropContent();

    struct StepBuild;                       // a first build under way in steps
    std::unique_ptr<StepBuild> fStepBuild;  // null for none

    // The text of the logicals held: fContent itself when it was given as
    // text, else its decoding.
    std::string_view HeldText() const { return fContentIsText ? fContent : fDecoded; }

    std::string fContent;  // bytes of the last successful read
    std::string fSpare;    // the buffer the next content is copied into
    std::string fDecoded;  // empty when fContentIsText
    bool fContentIsText = false;
    bool fHaveContent = false;
    mutable std::string fChecksum;  // made when first asked for
};

// The local path of a location, or "" when it has none.
std::string PathForLocation(nb::handle loc);

// The identifiers of a list of logicals (keywords left out), as a set of str.
nb::set CollectWords(nb::handle logicals);

// The hook that receives the words of a file: called as store(loc, words).
void SetWordStore(nb::handle store);
nb::handle GetWordStore();

}  // namespace pysource

// basekit.location: where a file's text comes from.
//
// A location is compared by identity and used as a dict key, so there is one
// object per place: constructing a location for a place that already has a
// live one gives that same object back (an interning registry, keyed by the
// normalised absolute path of a local file or by the URL of a remote one).
//
// CLocalFileLocation is a file on the local disk.  CRemoteLocation is text
// that the embedder delivers later (an editor buffer, a file of another
// machine): it is a CDestroyable whose "content-changed" signal fires on every
// delivery, and whose content is None until the first one.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string>

#include "basekit/destroyable.h"

namespace nb = nanobind;

namespace basekit {

class CLocalFileLocation : public nb::intrusive_base {
public:
    // The live location of a path (str, bytes or os.PathLike), made if needed.
    static nb::ref<CLocalFileLocation> Get(nb::handle path);
    ~CLocalFileLocation() override;

    const nb::object &Path() const { return fPath; }  // normalised absolute path (str)
    const nb::object &Url() const { return fUrl; }    // "file://" + percent-encoded path
    nb::str Repr() const;

private:
    CLocalFileLocation(std::string key, nb::object path, nb::object url);

    std::string fKey;  // registry key: the file system bytes of the path
    nb::object fPath;
    nb::object fUrl;
};

class CRemoteLocation : public CDestroyable {
public:
    static constexpr const char *kContentChangedSignal = "content-changed";

    // The live location of a URL (str), made if needed.
    static nb::ref<CRemoteLocation> Get(nb::handle url);
    ~CRemoteLocation() override;

    const nb::object &Url() const { return fUrl; }
    // The delivered text (bytes or str), or None before the first delivery.
    const nb::object &Content() const { return fContent; }
    // When the content last changed (seconds, as the embedder or the clock
    // said), or None before the first delivery.
    const nb::object &ModTime() const { return fModTime; }
    nb::str Repr() const;

    // A delivery: stores `content` (bytes or str) and emits "content-changed"
    // with this location, also when the content is the same as before.  The
    // modification time is `mtime` when given; otherwise it moves to the
    // current time only if the content differs from what was there.
    void SetContent(nb::handle content, nb::handle mtime = nb::none());

    void _destroy_impl() override;

private:
    explicit CRemoteLocation(nb::object url);
    void Unregister();

    nb::object fUrl;
    nb::object fContent;
    nb::object fModTime;
    bool fRegistered = false;
};

// The location for a URL or a path: "file:" URLs and plain paths give a
// CLocalFileLocation, any other URL (a scheme of two or more letters before
// ':') a CRemoteLocation.
nb::object LocationForUrl(nb::handle url_or_path);

// The percent-encoding of file URLs: every byte but the unreserved ones and
// '/' is written as %XX; decoding accepts any %XX.  Bad escapes are kept as
// they stand.
std::string PercentEncodePath(const std::string &path_bytes);
std::string PercentDecode(const std::string &text);

}  // namespace basekit

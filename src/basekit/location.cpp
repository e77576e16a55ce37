#include "basekit/location.h"

#include <nanobind/stl/string.h>

#include <unordered_map>

namespace basekit {

namespace {

// The live locations, by key.  An entry leaves when its object dies (or, for
// a remote location, is destroyed), so the registry never keeps one alive.
std::unordered_map<std::string, CLocalFileLocation *> &LocalRegistry() {
    static auto *registry = new std::unordered_map<std::string, CLocalFileLocation *>();
    return *registry;
}

std::unordered_map<std::string, CRemoteLocation *> &RemoteRegistry() {
    static auto *registry = new std::unordered_map<std::string, CRemoteLocation *>();
    return *registry;
}

nb::module_ OsModule() { return nb::module_::import_("os"); }

std::string BytesValue(nb::handle b) {
    return std::string(PyBytes_AS_STRING(b.ptr()), (size_t) PyBytes_GET_SIZE(b.ptr()));
}

bool IsUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '.' || c == '_' || c == '~';
}

int HexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A URL scheme: a letter, then letters, digits, '+', '-' or '.', then ':'.
// Single letters are left out: "C:" is a drive, not a scheme.
bool HasScheme(const std::string &s) {
    size_t i = 0;
    while (i < s.size() && s[i] != ':') {
        unsigned char c = (unsigned char) s[i];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                  (i > 0 && ((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'));
        if (!ok)
            return false;
        ++i;
    }
    return i >= 2 && i < s.size();
}

bool StartsWithNoCase(const std::string &s, const char *prefix) {
    for (size_t i = 0; prefix[i]; ++i) {
        if (i >= s.size() || (s[i] | 0x20) != (prefix[i] | 0x20))
            return false;
    }
    return true;
}

}  // namespace

std::string PercentEncodePath(const std::string &path_bytes) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(path_bytes.size());
    for (unsigned char c : path_bytes) {
        if (IsUnreserved(c) || c == '/') {
            out += (char) c;
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    return out;
}

std::string PercentDecode(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
            HexValue(text[i + 2]) >= 0) {
            out += (char) (HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// ---------------------------------------------------------------------------
// Local files

CLocalFileLocation::CLocalFileLocation(std::string key, nb::object path, nb::object url)
    : fKey(std::move(key)), fPath(std::move(path)), fUrl(std::move(url)) {
    LocalRegistry()[fKey] = this;
}

CLocalFileLocation::~CLocalFileLocation() {
    auto &registry = LocalRegistry();
    auto it = registry.find(fKey);
    if (it != registry.end() && it->second == this)
        registry.erase(it);
}

nb::ref<CLocalFileLocation> CLocalFileLocation::Get(nb::handle path) {
    nb::module_ os = OsModule();
    nb::object text = os.attr("fspath")(path);  // TypeError for what isn't a path
    if (PyBytes_Check(text.ptr()))
        text = os.attr("fsdecode")(text);
    if (nb::len(text) == 0)
        throw nb::value_error("CLocalFileLocation: the path is empty");
    if (PyUnicode_FindChar(text.ptr(), 0, 0, PyUnicode_GET_LENGTH(text.ptr()), 1) >= 0)
        throw nb::value_error("CLocalFileLocation: the path holds a zero character");
    nb::object absolute = os.attr("path").attr("abspath")(text);
    std::string key = BytesValue(os.attr("fsencode")(absolute));

    auto &registry = LocalRegistry();
    auto it = registry.find(key);
    if (it != registry.end())
        return nb::ref<CLocalFileLocation>(it->second);
    std::string url = "file://" + PercentEncodePath(key);
    return nb::ref<CLocalFileLocation>(
        new CLocalFileLocation(key, absolute, nb::str(url.data(), url.size())));
}

nb::str CLocalFileLocation::Repr() const {
    return nb::str("CLocalFileLocation({!r})").format(fPath);
}

// ---------------------------------------------------------------------------
// Remote locations

CRemoteLocation::CRemoteLocation(nb::object url)
    : CDestroyable(nb::make_tuple(kContentChangedSignal)),
      fUrl(std::move(url)),
      fContent(nb::none()),
      fModTime(nb::none()) {
    RemoteRegistry()[nb::cast<std::string>(fUrl)] = this;
    fRegistered = true;
}

CRemoteLocation::~CRemoteLocation() { Unregister(); }

void CRemoteLocation::Unregister() {
    if (!fRegistered)
        return;
    fRegistered = false;
    auto &registry = RemoteRegistry();
    auto it = registry.find(nb::cast<std::string>(fUrl));
    if (it != registry.end() && it->second == this)
        registry.erase(it);
}

void CRemoteLocation::_destroy_impl() {
    // A destroyed location is no longer the live one for its URL.
    Unregister();
}

nb::ref<CRemoteLocation> CRemoteLocation::Get(nb::handle url) {
    if (!PyUnicode_Check(url.ptr()))
        throw nb::type_error("CRemoteLocation: the URL must be a str");
    std::string key = nb::cast<std::string>(url);
    if (key.empty())
        throw nb::value_error("CRemoteLocation: the URL is empty");
    auto &registry = RemoteRegistry();
    auto it = registry.find(key);
    if (it != registry.end())
        return nb::ref<CRemoteLocation>(it->second);
    return nb::ref<CRemoteLocation>(new CRemoteLocation(nb::borrow(url)));
}

void CRemoteLocation::SetContent(nb::handle content, nb::handle mtime) {
    if (!PyBytes_Check(content.ptr()) && !PyUnicode_Check(content.ptr()))
        throw nb::type_error("CRemoteLocation.SetContent: the content must be bytes or str");
    // Text must be encodable, so that whoever reads the content can have its UTF-8.
    if (PyUnicode_Check(content.ptr()) && !PyUnicode_AsUTF8AndSize(content.ptr(), nullptr))
        throw nb::python_error();
    nb::object new_mtime;
    if (mtime.is_valid() && !mtime.is_none()) {
        new_mtime = nb::float_(mtime);
    } else {
        int same = fContent.is_none()
                       ? 0
                       : PyObject_RichCompareBool(fContent.ptr(), content.ptr(), Py_EQ);
        if (same < 0)
            throw nb::python_error();
        new_mtime = same ? fModTime : nb::module_::import_("time").attr("time")();
    }
    fContent = nb::borrow(content);
    fModTime = std::move(new_mtime);
    emit(kContentChangedSignal, nb::make_tuple(SelfObject()));
}

nb::str CRemoteLocation::Repr() const {
    return nb::str("CRemoteLocation({!r})").format(fUrl);
}

// ---------------------------------------------------------------------------

nb::object LocationForUrl(nb::handle url_or_path) {
    if (!PyUnicode_Check(url_or_path.ptr()))
        return nb::cast(CLocalFileLocation::Get(url_or_path));
    std::string text = nb::cast<std::string>(url_or_path);
    if (StartsWithNoCase(text, "file://")) {
        std::string rest = text.substr(7);
        if (StartsWithNoCase(rest, "localhost/"))
            rest = rest.substr(9);
        if (!rest.empty() && rest[0] == '/') {
            std::string raw = PercentDecode(rest);
            nb::object path = OsModule().attr("fsdecode")(nb::bytes(raw.data(), raw.size()));
            return nb::cast(CLocalFileLocation::Get(path));
        }
        // A file URL of another host is not on this disk.
        return nb::cast(CRemoteLocation::Get(url_or_path));
    }
    if (HasScheme(text))
        return nb::cast(CRemoteLocation::Get(url_or_path));
    return nb::cast(CLocalFileLocation::Get(url_or_path));
}

}  // namespace basekit

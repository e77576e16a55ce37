#include "pysource/recordcodec.h"

#include <algorithm>
#include <optional>

#include "pysource/infodatabase.h"
#include "pysource/scoperef.h"
#include "pysource/untracked.h"

#include <cstdint>
#include <cstring>

namespace pysource {

namespace {

class BlobWriter {
public:
    explicit BlobWriter(std::string &out) : fOut(out) {}
    void Double(double value) {
        char raw[sizeof(double)];
        std::memcpy(raw, &value, sizeof raw);
        fOut.append(raw, sizeof raw);
    }
    void OptionalBlob(nb::handle blob) {
        Count(blob.is_none() ? 0 : 1);
        if (!blob.is_none())
            Bytes(std::string_view(PyBytes_AS_STRING(blob.ptr()), (size_t) PyBytes_GET_SIZE(blob.ptr())));
    }
    void Count(std::uint64_t n) {
        while (n >= 0x80) {
            fOut.push_back((char) (n | 0x80));
            n >>= 7;
        }
        fOut.push_back((char) n);
    }
    void Bytes(std::string_view data) {
        Count(data.size());
        fOut.append(data);
    }
    void Text(nb::handle str) {
        Py_ssize_t size = 0;
        const char *data = PyUnicode_AsUTF8AndSize(str.ptr(), &size);
        if (!data)
            throw nb::python_error();
        Bytes(std::string_view(data, (size_t) size));
    }

private:
    std::string &fOut;
};

// The bytes an encoder appends to a string of its own.
template <typename F>
nb::bytes EncodedBytes(F &&encode) {
    std::string out;
    encode(out);
    return nb::bytes(out.data(), out.size());
}

// Stored UTF-8 as an interned str: the same names come back again and again.
nb::object InternedText(std::string_view data, const std::string &origin) {
    PyObject *text = PyUnicode_DecodeUTF8(data.data(), (Py_ssize_t) data.size(), "strict");
    if (!text) {
        PyErr_Clear();
        throw InfoDatabaseError(origin + " is damaged: a stored name is not UTF-8");
    }
    PyUnicode_InternInPlace(&text);
    return nb::steal(text);
}

class BlobReader {
public:
    BlobReader(nb::handle blob, const std::string &origin) : fOrigin(origin) {
        if (!PyBytes_Check(blob.ptr()))
            Damaged("a stored value is not a blob");
        fPos = PyBytes_AS_STRING(blob.ptr());
        fEnd = fPos + PyBytes_GET_SIZE(blob.ptr());
    }
    BlobReader(std::string_view blob, const std::string &origin)
        : fPos(blob.data()), fEnd(blob.data() + blob.size()), fOrigin(origin) {}
    bool AtEnd() const { return fPos == fEnd; }
    double Double() {
        if ((size_t) (fEnd - fPos) < sizeof(double))
            Damaged("a stored value is cut short");
        double value;
        std::memcpy(&value, fPos, sizeof value);
        fPos += sizeof value;
        return value;
    }
    // A nested blob, or nothing when absent.
    std::optional<std::string_view> OptionalBlob() {
        if (Count() == 0)
            return std::nullopt;
        return Bytes();
    }
    std::uint64_t Count() {
        std::uint64_t n = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (fPos == fEnd)
                Damaged("a stored value is cut short");
            unsigned char byte = (unsigned char) *fPos++;
            n |= (std::uint64_t) (byte & 0x7f) << shift;
            if (!(byte & 0x80))
                return n;
        }
        Damaged("a stored length is malformed");
    }
    std::string_view Bytes() {
        std::uint64_t n = Count();
        if (n > (std::uint64_t) (fEnd - fPos))
            Damaged("a stored value is cut short");
        std::string_view out(fPos, (size_t) n);
        fPos += n;
        return out;
    }
    nb::object Text() { return InternedText(Bytes(), fOrigin); }
    [[noreturn]] void Damaged(const char *what) const {
        throw InfoDatabaseError(fOrigin + " is damaged: " + what);
    }

private:
    const char *fPos = nullptr;
    const char *fEnd = nullptr;
    const std::string &fOrigin;
};

}  // namespace

nb::bytes EncodeNameMap(nb::handle map) {
    return EncodedBytes([&](std::string &out) { EncodeNameMapTo(out, map); });
}

void EncodeNameMapTo(std::string &buffer, nb::handle map) {
    if (!PyDict_Check(map.ptr()))
        throw nb::type_error("a name map must be a dict");
    BlobWriter out(buffer);
    out.Count((std::uint64_t) PyDict_GET_SIZE(map.ptr()));
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(map.ptr(), &pos, &name, &value)) {
        if (!PyUnicode_Check(name) || !PyBytes_Check(value))
            throw nb::type_error("a name map must map str to bytes");
        out.Text(name);
        out.Bytes(std::string_view(PyBytes_AS_STRING(value), (size_t) PyBytes_GET_SIZE(value)));
    }
}

namespace {

nb::dict ReadNameMap(BlobReader in) {
    std::uint64_t count = in.Count();
    nb::dict map;
    for (std::uint64_t i = 0; i < count; ++i) {
        nb::object name = in.Text();
        std::string_view value = in.Bytes();
        nb::object bytes = nb::steal(PyBytes_FromStringAndSize(value.data(), (Py_ssize_t) value.size()));
        if (!bytes.is_valid() || PyDict_SetItem(map.ptr(), name.ptr(), bytes.ptr()) < 0)
            throw nb::python_error();
    }
    if (!in.AtEnd())
        in.Damaged("a name map has trailing bytes");
    return map;
}

}  // namespace

nb::dict DecodeNameMap(nb::handle blob, const std::string &origin) {
    return ReadNameMap(BlobReader(blob, origin));
}

nb::bytes EncodeScopes(nb::handle scopes, const std::function<std::string(nb::handle loc)> &url_of) {
    return EncodedBytes([&](std::string &out) { EncodeScopesTo(out, scopes, url_of); });
}

void EncodeScopesTo(std::string &buffer, nb::handle scopes,
                    const std::function<std::string(nb::handle loc)> &url_of) {
    BlobWriter out(buffer);
    Py_ssize_t n = PyObject_Length(scopes.ptr());
    if (n < 0)
        throw nb::python_error();
    out.Count((std::uint64_t) n);
    // In order of (url, name): a set's order follows its members' hashes,
    // which differ from process to process, and the same record must give
    // the same bytes.
    std::vector<std::pair<std::string, std::string>> parts;
    parts.reserve((std::size_t) n);
    for (nb::handle scope : scopes) {
        ScopeView view = ViewScope(scope);
        parts.emplace_back(url_of(view.loc), std::string(view.name_view));
    }
    std::sort(parts.begin(), parts.end());
    for (const auto &[url, name] : parts) {
        out.Bytes(url);
        out.Bytes(name);
    }
}

namespace {

nb::object ReadScopes(BlobReader in, const ScopeMaker &make_scope) {
    std::uint64_t count = in.Count();
    nb::object items = nb::steal(PySet_New(nullptr));
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string_view url = in.Bytes();
        std::string_view name = in.Bytes();
        nb::object scope = make_scope(url, name);
        if (PySet_Add(items.ptr(), scope.ptr()) < 0)
            throw nb::python_error();
    }
    if (!in.AtEnd())
        in.Damaged("a scope set has trailing bytes");
    return AtomicFrozenSet(items);
}

}  // namespace

nb::object DecodeScopes(nb::handle blob, const std::string &origin, const ScopeMaker &make_scope) {
    return ReadScopes(BlobReader(blob, origin), make_scope);
}

nb::bytes EncodeStrings(nb::handle strings) {
    std::string buffer;
    BlobWriter out(buffer);
    Py_ssize_t n = PyObject_Length(strings.ptr());
    if (n < 0)
        throw nb::python_error();
    out.Count((std::uint64_t) n);
    for (nb::handle s : strings) {
        if (!PyUnicode_Check(s.ptr()))
            throw nb::type_error("words must be str");
        out.Text(s);
    }
    return nb::bytes(buffer.data(), buffer.size());
}

nb::object DecodeStrings(nb::handle blob, const std::string &origin) {
    BlobReader in(blob, origin);
    std::uint64_t count = in.Count();
    nb::object items = nb::steal(PySet_New(nullptr));
    for (std::uint64_t i = 0; i < count; ++i)
        if (PySet_Add(items.ptr(), in.Text().ptr()) < 0)
            throw nb::python_error();
    if (!in.AtEnd())
        in.Damaged("a word list has trailing bytes");
    return AtomicFrozenSet(items);
}

namespace {

constexpr std::uint64_t kRecordBlobVersion = 1;

}  // namespace

nb::bytes EncodeRecord(const CScopeInfo &info, const std::function<std::string(nb::handle loc)> &url_of) {
    const CScopeInfoKey &key = *info.key;
    std::string buffer;
    BlobWriter out(buffer);
    out.Count(kRecordBlobVersion);
    out.Bytes(url_of(key.fForView.loc));
    out.Bytes(key.fForView.name_view);
    out.Bytes(key.fScanName);
    out.Bytes(url_of(key.fScannedView.loc));
    out.Bytes(key.fScannedView.name_view);
    out.Bytes(std::string_view(PyBytes_AS_STRING(info.ibytes.ptr()), (size_t) PyBytes_GET_SIZE(info.ibytes.ptr())));
    out.Double(info.disk_mtime);
    out.Count((info.incomplete ? 1u : 0u) | (info.not_found ? 2u : 0u));
    out.OptionalBlob(EncodeNameMap(info.type_equivs));
    auto optional_map = [](nb::handle map) -> nb::object {
        return map.is_none() ? nb::object(nb::none()) : nb::object(EncodeNameMap(map));
    };
    auto optional_scopes = [&](nb::handle scopes) -> nb::object {
        return scopes.is_none() ? nb::object(nb::none()) : nb::object(EncodeScopes(scopes, url_of));
    };
    out.OptionalBlob(optional_map(info.inst_type_equivs));
    out.OptionalBlob(optional_map(info.domains));
    out.OptionalBlob(optional_scopes(info.scopes_seen));
    out.OptionalBlob(optional_scopes(info.resolved_imports));
    return nb::bytes(buffer.data(), buffer.size());
}

RecordBlobView ViewRecordBlob(std::string_view blob, const std::string &origin) {
    BlobReader in(blob, origin);
    if (in.Count() != kRecordBlobVersion)
        in.Damaged("a record of an unknown version");
    RecordBlobView view;
    view.for_url = in.Bytes();
    view.for_name = in.Bytes();
    view.scan_name = in.Bytes();
    view.scanned_url = in.Bytes();
    view.scanned_name = in.Bytes();
    view.ibytes = in.Bytes();
    view.disk_mtime = in.Double();
    std::uint64_t flags = in.Count();
    view.incomplete = (flags & 1) != 0;
    view.not_found = (flags & 2) != 0;
    for (std::optional<std::string_view> &part : view.parts)
        part = in.OptionalBlob();
    if (!in.AtEnd())
        in.Damaged("a record has trailing bytes");
    if (!view.parts[0])
        in.Damaged("a record has no name map");
    return view;
}

void DecodeRecordParts(CScopeInfo &info, const StoredRecordParts &parts, const std::string &origin,
                       const ScopeMaker &make_scope) {
    if (!parts[0])
        throw InfoDatabaseError(origin + " is damaged: a record has no name map");
    info.type_equivs = ReadNameMap(BlobReader(*parts[0], origin));
    if (parts[1])
        info.inst_type_equivs = ReadNameMap(BlobReader(*parts[1], origin));
    if (parts[2])
        info.domains = ReadNameMap(BlobReader(*parts[2], origin));
    if (parts[3])
        info.scopes_seen = ReadScopes(BlobReader(*parts[3], origin), make_scope);
    if (parts[4])
        info.resolved_imports = ReadScopes(BlobReader(*parts[4], origin), make_scope);
    info.finished = true;
}

nb::ref<CScopeInfo> DecodeRecord(std::string_view blob, const std::string &origin,
                                 const ScopeMaker &make_scope) {
    RecordBlobView view = ViewRecordBlob(blob, origin);
    nb::object scan_name = InternedText(view.scan_name, origin);
    nb::object for_scope = make_scope(view.for_url, view.for_name);
    nb::object scanned = (view.scanned_url == view.for_url && view.scanned_name == view.for_name)
                             ? for_scope
                             : make_scope(view.scanned_url, view.scanned_name);
    nb::ref<CScopeInfoKey> key(new CScopeInfoKey(for_scope, scan_name, scanned));
    nb::ref<CScopeInfo> info(new CScopeInfo(key, nb::bytes(view.ibytes.data(), view.ibytes.size()),
                                            nb::float_(view.disk_mtime), view.incomplete,
                                            view.not_found));
    DecodeRecordParts(*info, view.parts, origin, make_scope);
    return info;
}


nb::bytes CScopeInfoSerializer::Dumps(nb::handle info) {
    return EncodeRecord(AsScopeInfo(info), [](nb::handle loc) { return LocationUrl(loc); });
}

nb::object CScopeInfoSerializer::Loads(nb::handle data) {
    if (!PyBytes_Check(data.ptr()))
        throw nb::type_error("CScopeInfoSerializer.Loads: the data must be bytes");
    try {
        std::string_view blob(PyBytes_AS_STRING(data.ptr()), (size_t) PyBytes_GET_SIZE(data.ptr()));
        return nb::cast(DecodeRecord(blob, "serialized record", [](std::string_view url, std::string_view name) {
            return MakeScope(LocationFromUrl(url), name);
        }));
    } catch (const InfoDatabaseError &e) {
        throw nb::value_error(e.what());
    }
}

}  // namespace pysource

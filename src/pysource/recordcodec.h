// The stored form of the Python data inside a record: maps of names to info
// bytes, sets of scopes and lists of words become compact byte strings
// (length-prefixed UTF-8 and bytes), and back; CScopeInfoSerializer does the
// same for a whole record.  Decoding checks every length against the blob,
// so a damaged blob gives InfoDatabaseError naming `origin` (the file it came
// from), never a read past its end.
#pragma once

#include <nanobind/nanobind.h>

#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "pysource/infodatabase.h"
#include "pysource/scopeinfo.h"

namespace nb = nanobind;

namespace pysource {

// dict str -> bytes.  The To forms append the encoding to `out`.
nb::bytes EncodeNameMap(nb::handle map);
void EncodeNameMapTo(std::string &out, nb::handle map);
nb::dict DecodeNameMap(nb::handle blob, const std::string &origin);

using ScopeMaker = std::function<nb::object(std::string_view url, std::string_view name)>;

// An iterable of scopes; `url_of` gives the URL of a scope's location.
nb::bytes EncodeScopes(nb::handle scopes, const std::function<std::string(nb::handle loc)> &url_of);
void EncodeScopesTo(std::string &out, nb::handle scopes,
                    const std::function<std::string(nb::handle loc)> &url_of);
// A frozenset of scopes, made by `make_scope(url, name)`.
nb::object DecodeScopes(nb::handle blob, const std::string &origin, const ScopeMaker &make_scope);

// An iterable of str.
nb::bytes EncodeStrings(nb::handle strings);
nb::object DecodeStrings(nb::handle blob, const std::string &origin);  // a frozenset of str

// Fills a record's maps and dependency sets from their blobs (type_equivs,
// inst_type_equivs, domains, scopes_seen, resolved_imports; absent ones
// left as they are) and marks it finished.
void DecodeRecordParts(CScopeInfo &info, const StoredRecordParts &parts, const std::string &origin,
                       const ScopeMaker &make_scope);

// A whole record, key included, as one blob and back.
nb::bytes EncodeRecord(const CScopeInfo &info, const std::function<std::string(nb::handle loc)> &url_of);
nb::ref<CScopeInfo> DecodeRecord(std::string_view blob, const std::string &origin,
                                 const ScopeMaker &make_scope);

// A record blob read in place, nothing made: each part views the blob, the
// name maps and scope sets (type_equivs, inst_type_equivs, domains,
// scopes_seen, resolved_imports; absent ones empty) in the form the database
// stores them.
struct RecordBlobView {
    std::string_view for_url, for_name, scan_name, scanned_url, scanned_name, ibytes;
    double disk_mtime = -1.0;
    bool incomplete = false;
    bool not_found = false;
    StoredRecordParts parts;
};
RecordBlobView ViewRecordBlob(std::string_view blob, const std::string &origin);

// Records as self-contained byte strings, for handing them to another
// process or keeping them outside the cache; locations travel as URLs.
class CScopeInfoSerializer : public nb::intrusive_base {
public:
    nb::bytes Dumps(nb::handle info);
    // A TypeError for anything but bytes, a ValueError for damaged data.
    nb::object Loads(nb::handle data);
};

}  // namespace pysource

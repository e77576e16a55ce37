#include "pysource/scopekind.h"

#include <array>
#include <cstdio>
#include <utility>

#include "pysource/infokinds.h"
#include "pysource/pytext.h"
#include "pysource/scopename.h"

namespace pysource {

namespace {

namespace si = symbolinfo;

// Info-bytes kinds that name a kind of scope; the rest are "other".
const std::array<std::pair<si::Kind, std::string_view>, 4> kKindsByInfo{{
    {si::kClassKind, "class"},
    {si::kFunctionKind, "function"},
    {si::kMethodKind, "method"},
    {si::kUnboundMethodKind, "method"},
}};

std::string SqlText(std::string_view text) {
    std::string out = "'";
    for (char c : text) {
        out += c;
        if (c == '\'')
            out += '\'';
    }
    return out + "'";
}

}  // namespace

std::string_view ScopeKindName(std::string_view scope_name, std::string_view ibytes) {
    if (scope_name.empty())
        return "module";
    if (si::IsInstanceScope(scope_name))
        return "instance";
    si::Kind kind = si::GetInfoBytesKind(ibytes);
    for (const auto &[info_kind, name] : kKindsByInfo)
        if (kind == info_kind)
            return name;
    return "other";
}

std::string ScopeKindSql(std::string_view row) {
    std::string col = std::string(row) + ".";
    std::string suffix(si::kClassInstanceSuffix);
    std::string sql = "CASE WHEN " + col + "scope = '' THEN 'module' WHEN substr(" + col +
                      "scope, -" + std::to_string(suffix.size()) + ") = " + SqlText(suffix) +
                      " THEN 'instance'";
    for (const auto &[info_kind, name] : kKindsByInfo) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "%02X%02X", static_cast<unsigned char>(si::kPrefixLead),
                      static_cast<unsigned char>(info_kind));
        sql += " WHEN substr(" + col + "ibytes, 1, 2) = X'" + hex + "' THEN " + SqlText(name);
    }
    return sql + " ELSE 'other' END";
}

nanobind::str PyScopeKind(nanobind::handle scope_name, nanobind::handle ibytes) {
    if (!PyUnicode_Check(scope_name.ptr()))
        throw nanobind::type_error("ScopeKind: the scope name must be str");
    if (!PyBytes_Check(ibytes.ptr()))
        throw nanobind::type_error("ScopeKind: the info bytes must be bytes");
    std::string_view kind = ScopeKindName(si::TextView(scope_name, "scope name"),
                                          si::TextView(ibytes, "ibytes"));
    return nanobind::str(kind.data(), kind.size());
}

}  // namespace pysource

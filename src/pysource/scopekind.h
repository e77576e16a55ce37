// The kind of scope a primary record stands for, as summaries of an index
// count them: "module", "class", "instance", "function", "method" or "other".
// The database keeps its per-file counts with triggers, so the same rule is
// also given as an SQL expression.
#pragma once

#include <nanobind/nanobind.h>

#include <string>
#include <string_view>

namespace pysource {

// `ibytes`: the info bytes of the scope's own primary record.
std::string_view ScopeKindName(std::string_view scope_name, std::string_view ibytes);

// ScopeKindName as an SQL expression over the columns `scope` and `ibytes`
// of `row` (a table name, or new/old in a trigger).
std::string ScopeKindSql(std::string_view row);

// ScopeKindName for Python: a str scope name and bytes; TypeError otherwise.
nanobind::str PyScopeKind(nanobind::handle scope_name, nanobind::handle ibytes);

}  // namespace pysource

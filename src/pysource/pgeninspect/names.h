// What a parsed logical line says about names, as (name, info) pairs in the
// symbol vocabulary: reads, bindings with their values, calls, hints,
// imports, global and nonlocal declarations, and for a def or class line
// the argument (or base) equivalents.  docs/analyzer.md lists the pairs of
// every statement form.
#pragma once

#include "pysource/pgeninspect/tree.h"

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace pysource::pgen {

struct NamePair {
    std::string name;
    std::string info;
};

struct LogicalNames {
    std::vector<NamePair> type_equivs;
    std::vector<NamePair> arg_type_equivs;
    bool has_arg_type_equivs = false;  // a def or class line

    void Clear() {
        type_equivs.clear();
        arg_type_equivs.clear();
        has_arg_type_equivs = false;
    }
};

// Walks the statements of `tree` (parsed with ParseLogical) into `out`.
// `first_in_def` marks the first logical of a function body, whose type
// comment may be a signature.  Targets that can't be assigned to add errors
// to tree.errors.
void CollectLogicalNames(Tree &tree, bool py3, bool first_in_def, LogicalNames &out);

}  // namespace pysource::pgen

// Named tuples made by a call: `collections.namedtuple("P", "x y")` and
// `typing.NamedTuple("P", [("x", int)])` make a class at run time that no
// class statement writes.  The engine makes the class's record itself: a
// class deriving from typing.NamedTuple whose body annotates each field
// (with its type, or `Any`), so that its instances read their fields by name
// and by position like those of a `class P(NamedTuple)` statement.
#include "pysource/infer/evaluator.h"
#include "pysource/infer/infertyping.h"

#include <nanobind/stl/string.h>

#include "pysource/exprtext.h"
#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/pytext.h"
#include "pysource/scopeinfo.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"

namespace pysource::infer {

namespace si = symbolinfo;

namespace {

using pgen::NodeKind;

// Scope indexes from here on name the classes made by calls: a class
// statement's indexes count the statements of one name in one scope.
constexpr long kMadeClassIndex = 900000;
constexpr long kMadeClassIndexSpan = 90000;

struct Field {
    std::string name;
    std::string hint;
};

std::optional<std::string> StringArg(const pgen::Tree &tree, std::int32_t node) {
    std::string_view text;
    if (node < 0 || tree.nodes[(std::size_t) node].kind != NodeKind::kString ||
        !pgen::StringAnnotationText(tree, node, text))
        return std::nullopt;
    return std::string(text);
}

// The fields a call names: "x y" or "x, y", or a list or tuple of names
// (collections); a list or tuple of (name, type) pairs (typing).
std::optional<std::vector<Field>> FieldsOf(const pgen::Tree &tree, std::int32_t node, bool typed) {
    std::vector<Field> fields;
    if (node < 0)
        return std::nullopt;
    const pgen::Node &n = tree.nodes[(std::size_t) node];
    if (!typed && n.kind == NodeKind::kString) {
        std::optional<std::string> text = StringArg(tree, node);
        if (!text)
            return std::nullopt;
        std::replace(text->begin(), text->end(), ',', ' ');
        std::size_t at = 0;
        while (at < text->size()) {
            std::size_t end = text->find(' ', at);
            end = end == std::string::npos ? text->size() : end;
            if (end > at)
                fields.push_back({text->substr(at, end - at), "Any"});
            at = end + 1;
        }
        return fields;
    }
    if (n.kind != NodeKind::kList && n.kind != NodeKind::kTuple)
        return std::nullopt;
    for (std::int32_t i = 0; i < n.kids_count; ++i) {
        std::int32_t item = tree.Kid(n, i);
        if (!typed) {
            std::optional<std::string> name = StringArg(tree, item);
            if (!name)
                return std::nullopt;
            fields.push_back({*name, "Any"});
            continue;
        }
        if (item < 0 || tree.nodes[(std::size_t) item].kind != NodeKind::kTuple ||
            tree.nodes[(std::size_t) item].kids_count != 2)
            return std::nullopt;
        const pgen::Node &pair = tree.nodes[(std::size_t) item];
        std::optional<std::string> name = StringArg(tree, tree.Kid(pair, 0));
        if (!name || tree.Kid(pair, 1) < 0)
            return std::nullopt;
        fields.push_back({*name, tree.NodeText(tree.Kid(pair, 1))});
    }
    return fields;
}

// A number for the fields' text, the same in every run: different fields
// make different classes even where a call's text is edited in place.
long SpecNumber(std::string_view spec) {
    std::uint64_t hash = 1469598103934665603ull;
    for (unsigned char ch : spec)
        hash = (hash ^ ch) * 1099511628211ull;
    return kMadeClassIndex + (long) (hash % (std::uint64_t) kMadeClassIndexSpan);
}

}  // namespace

bool IsMadeClassScopeName(std::string_view name) { return si::LeafScopeIndex(name) >= kMadeClassIndex; }

ValueSet CEvaluator::NamedTupleClass(const Tree &tree, const pgen::Node &n, const Frame &frame, nb::handle callee) {
    ValueSet out;
    si::CSingleResolvedInfo *c = Single(callee);
    std::string_view name = NameOf(c);
    bool typed = c->IsClass() && name == "NamedTuple" && IsTypingModuleName(ModuleNameOfLoc(c->loc));
    bool plain = c->IsDef() && name == "namedtuple" && ModuleNameOfLoc(c->loc) == "collections";
    if ((!typed && !plain) || n.kids_count < 3)
        return out;
    std::optional<std::string> type_name = StringArg(tree, tree.Kid(n, 1));
    std::optional<std::vector<Field>> fields = FieldsOf(tree, tree.Kid(n, 2), typed);
    std::string_view where = ScopeName(frame.scope);
    if (!type_name || !si::IsSingleNameToken(*type_name) || !fields ||
        where != si::SplitScopeNameFromSuffixes(where).first)
        return out;
    std::string spec = *type_name;
    for (const Field &field : *fields) {
        if (!si::IsSingleNameToken(field.name))
            return out;
        spec += ";" + field.name + ":" + field.hint;
    }
    std::string scope_name = si::JoinTwoScopeNames(where, si::AppendScopeIndex(*type_name, SpecNumber(spec)));
    nb::object loc = ScopeLoc(frame.scope);
    nb::object typing_named_tuple = TypingClass("NamedTuple");
    if (typing_named_tuple.is_none())
        return out;
    std::string own = si::PackClassInfo(scope_name, si::OptView(), si::OptView("(NamedTuple)"), {});
    std::string key = UrlOf(loc) + "|" + scope_name;
    if (!fMemo.made_classes.count(key)) {
        nb::object scope = MakeScope(loc, scope_name);
        auto record_key = nb::ref<CScopeInfoKey>(new CScopeInfoKey(scope, nb::str(fPrimaryScanName.c_str()), scope));
        auto *record = new CScopeInfo(record_key, si::ToBytes(own), nb::none(), false);
        for (const Field &field : *fields)
            record->type_equivs[nb::str(field.name.c_str())] =
                si::ToBytes(std::string(si::kTypeHintPrefix) + field.hint);
        fMemo.made_classes.emplace(key, nb::cast(nb::ref<CScopeInfo>(record)));
    }
    out.Add(ClassSingle(loc, own));
    return out;
}

nb::object CEvaluator::MadeClassRecord(nb::handle loc, std::string_view scope_name) {
    if (!IsMadeClassScopeName(scope_name))
        return nb::object();
    auto made = fMemo.made_classes.find(UrlOf(loc) + "|" + std::string(scope_name));
    return made == fMemo.made_classes.end() ? nb::none() : made->second;
}

}  // namespace pysource::infer

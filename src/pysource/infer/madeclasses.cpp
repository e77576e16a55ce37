// Classes made by a call: `collections.namedtuple("P", "x y")`,
// `typing.NamedTuple("P", [("x", int)])` and `Enum("Color", "RED GREEN")`
// make a class at run time that no class statement writes.  The engine
// writes the class's record itself, as the class statement that would make
// the same class: a NamedTuple whose body annotates each field (with its
// type, or `Any`), an enumeration whose body sets each member to its value.
// Its instances and members then read like those of the class statement.
#include "pysource/infer/evaluator.h"
#include "pysource/infer/infertyping.h"

#include <nanobind/stl/string.h>

#include <cctype>

#include "pysource/exprtext.h"
#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
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

// A name of the made class's body and what it is: a field's hint (":t..."
// bytes) or a member's value (expression text, a plain equivalent).
struct BodyName {
    std::string name;
    std::string info;
};

std::optional<std::string> StringArg(const pgen::Tree &tree, std::int32_t node) {
    std::string_view text;
    if (node < 0 || tree.nodes[(std::size_t) node].kind != NodeKind::kString ||
        !pgen::StringAnnotationText(tree, node, text))
        return std::nullopt;
    return std::string(text);
}

// "x y" or "x, y".
std::vector<std::string> SplitNames(std::string text) {
    std::vector<std::string> names;
    std::replace(text.begin(), text.end(), ',', ' ');
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find(' ', at);
        end = end == std::string::npos ? text.size() : end;
        if (end > at)
            names.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

// The names a call writes as its second argument, each with `valued`'s
// text for a (name, value) pair or a dict item, or "" when only named:
// "x y", "x, y", a list or tuple of names or of pairs, a dict display.
std::optional<std::vector<std::pair<std::string, std::string>>> NamesWritten(const pgen::Tree &tree,
                                                                             std::int32_t node) {
    std::vector<std::pair<std::string, std::string>> names;
    if (node < 0)
        return std::nullopt;
    const pgen::Node &n = tree.nodes[(std::size_t) node];
    if (n.kind == NodeKind::kString) {
        std::optional<std::string> text = StringArg(tree, node);
        if (!text)
            return std::nullopt;
        for (std::string &name : SplitNames(*text))
            names.emplace_back(std::move(name), std::string());
        return names;
    }
    if (n.kind == NodeKind::kDict) {
        for (std::int32_t i = 0; i + 1 < n.kids_count; i += 2) {
            std::optional<std::string> name = StringArg(tree, tree.Kid(n, i));
            if (!name || tree.Kid(n, i + 1) < 0)
                return std::nullopt;
            names.emplace_back(*name, tree.NodeText(tree.Kid(n, i + 1)));
        }
        return names;
    }
    if (n.kind != NodeKind::kList && n.kind != NodeKind::kTuple)
        return std::nullopt;
    for (std::int32_t i = 0; i < n.kids_count; ++i) {
        std::int32_t item = tree.Kid(n, i);
        if (std::optional<std::string> name = StringArg(tree, item)) {
            names.emplace_back(*name, std::string());
            continue;
        }
        if (item < 0 || tree.nodes[(std::size_t) item].kind != NodeKind::kTuple ||
            tree.nodes[(std::size_t) item].kids_count != 2)
            return std::nullopt;
        const pgen::Node &pair = tree.nodes[(std::size_t) item];
        std::optional<std::string> name = StringArg(tree, tree.Kid(pair, 0));
        if (!name || tree.Kid(pair, 1) < 0)
            return std::nullopt;
        names.emplace_back(*name, tree.NodeText(tree.Kid(pair, 1)));
    }
    return names;
}

// A number for the body's text: different bodies make different classes
// even where a call's text is edited in place.
long BodyNumber(std::string_view body) {
    return kMadeClassIndex + (long) (HashText(body) % (std::size_t) kMadeClassIndexSpan);
}

std::string Lowered(std::string text) {
    for (char &ch : text)
        ch = (char) std::tolower((unsigned char) ch);
    return text;
}

}  // namespace

bool IsMadeClassScopeName(std::string_view name) { return si::LeafScopeIndex(name) >= kMadeClassIndex; }

ValueSet CEvaluator::MadeClass(const Tree &tree, const pgen::Node &n, const Frame &frame, nb::handle callee) {
    ValueSet out;
    si::CSingleResolvedInfo *c = Single(callee);
    if (n.kids_count < 3 || !(c->IsClass() || c->IsDef()))
        return out;
    std::string_view name = NameOf(c);
    bool typed_tuple = c->IsClass() && name == "NamedTuple" && IsTypingModuleName(ModuleNameOfLoc(c->loc));
    bool plain_tuple = c->IsDef() && name == "namedtuple" && ModuleNameOfLoc(c->loc) == "collections";
    bool enumeration = !typed_tuple && !plain_tuple && c->IsClass() && SpecialFormOf(callee).empty() &&
                       IsEnumClass(callee);
    if (!typed_tuple && !plain_tuple && !enumeration)
        return out;
    std::optional<std::string> class_name = StringArg(tree, tree.Kid(n, 1));
    auto written = NamesWritten(tree, tree.Kid(n, 2));
    std::string_view where = ScopeName(frame.scope);
    if (!class_name || !si::IsSingleNameToken(*class_name) || !written ||
        where != si::SplitScopeNameFromSuffixes(where).first)
        return out;
    nb::object base = enumeration ? nb::borrow(callee) : TypingClass("NamedTuple");
    if (base.is_none())
        return out;
    // The body: fields annotated, or members set to their values (1, 2, ...
    // when only named; powers of two for flags, the lowered name for a
    // StrEnum).
    bool flags = enumeration && MroHolds(Mro(callee, {}), "enum", "Flag");
    bool strings = enumeration && MroHolds(Mro(callee, {}), "enum", "StrEnum");
    std::vector<BodyName> body;
    long long auto_value = 1;
    for (const auto &[written_name, value] : *written) {
        if (!si::IsSingleNameToken(written_name))
            return out;
        std::string info;
        if (!enumeration)
            info = std::string(si::kTypeHintPrefix) + (value.empty() || plain_tuple ? "Any" : value);
        else if (!value.empty())
            info = value;
        else if (strings)
            info.append("'").append(Lowered(written_name)).append("'");
        else
            info = std::to_string(auto_value);
        if (enumeration)
            info.append(";").append(si::kSetPrefix).append("-1");  // set from the body's start
        auto_value = flags ? auto_value * 2 : auto_value + 1;
        body.push_back({written_name, std::move(info)});
    }
    std::string text = std::string(NameOf(Single(base))) + ":" + *class_name;
    for (const BodyName &item : body)
        text += ";" + item.name + "=" + item.info;
    std::string scope_name = si::JoinTwoScopeNames(where, si::AppendScopeIndex(*class_name, BodyNumber(text)));
    nb::object loc = ScopeLoc(frame.scope);
    std::string own = si::PackClassInfo(scope_name, si::OptView(), si::OptView("(" + std::string(NameOf(Single(base))) + ")"), {});
    std::string key = MadeClassKey(loc, scope_name);
    if (!fMemo.made_classes.count(key)) {
        nb::object scope = MakeScope(loc, scope_name);
        auto record_key = nb::ref<CScopeInfoKey>(new CScopeInfoKey(scope, nb::str(fPrimaryScanName.c_str()), scope));
        auto *record = new CScopeInfo(record_key, si::ToBytes(own), nb::none(), false);
        for (const BodyName &item : body)
            record->type_equivs[nb::str(item.name.c_str())] = si::ToBytes(item.info);
        fMemo.made_classes.emplace(key, std::pair{nb::cast(nb::ref<CScopeInfo>(record)), base});
    }
    out.Add(ClassSingle(loc, own));
    return out;
}

std::string CEvaluator::MadeClassKey(nb::handle loc, std::string_view scope_name) {
    std::string key = UrlOf(loc);
    key.append("|").append(scope_name);
    return key;
}

const std::pair<nb::object, nb::object> *CEvaluator::MadeClassOf(nb::handle loc, std::string_view scope_name) {
    auto made = fMemo.made_classes.find(MadeClassKey(loc, scope_name));
    return made == fMemo.made_classes.end() ? nullptr : &made->second;
}

nb::object CEvaluator::MadeClassRecord(nb::handle loc, std::string_view scope_name) {
    if (!IsMadeClassScopeName(scope_name))
        return nb::object();
    const auto *made = MadeClassOf(loc, scope_name);
    return made ? made->first : nb::none();
}

nb::object CEvaluator::MadeClassBase(nb::handle loc, std::string_view scope_name) {
    const auto *made = MadeClassOf(loc, scope_name);
    return made ? made->second : nb::none();
}

}  // namespace pysource::infer

// CEvaluator: the work of one request to the inference engine.  It reads
// records through the info cache, evaluates expression text over the
// analyzer's parse tree, follows names by Python's scoping rules, imports
// through the module finder, attributes through classes and their bases,
// calls through return hints and return statements, and type hints through
// typing's forms and type variables.  It lives for one request: its memos
// never outlast a change of the records.
#pragma once

#include <nanobind/nanobind.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "pysource/infer/inferencectx.h"
#include "pysource/infer/inferenceengine.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/tree.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scope.h"

namespace nb = nanobind;

namespace pysource {
class CInfoCache;
}

namespace pysource::infer {

// The single behind a Python handle, and the dotted name of its scope.
inline symbolinfo::CSingleResolvedInfo *Single(nb::handle obj) {
    return nb::cast<symbolinfo::CSingleResolvedInfo *>(obj);
}
inline std::string_view NameOf(symbolinfo::CSingleResolvedInfo *s) {
    return symbolinfo::TextView(s->scope->name, "name");
}
inline bool SameClass(symbolinfo::CSingleResolvedInfo *a, symbolinfo::CSingleResolvedInfo *b) {
    return a->loc.is(b->loc) && NameOf(a) == NameOf(b);
}
// Whether the dotted scope name `inner` names a scope inside `outer`.
inline bool IsNestedScopeName(std::string_view inner, std::string_view outer) {
    return inner.size() > outer.size() && inner.starts_with(outer) && inner[outer.size()] == '.';
}

// The name and location of a scope: straight from our own CScope, through
// its Python attributes for any other object.
std::string_view ForeignScopeName(nb::handle scope);
inline std::string_view ScopeName(nb::handle scope) {
    if (IsExactly<symbolinfo::CScope>(scope))
        return nb::inst_ptr<symbolinfo::CScope>(scope)->NameView();
    return ForeignScopeName(scope);
}
inline nb::object ScopeLoc(nb::handle scope) {
    if (IsExactly<symbolinfo::CScope>(scope))
        return nb::inst_ptr<symbolinfo::CScope>(scope)->loc;
    return scope.attr("loc");
}

// Whether a single is the None literal.
bool IsNoneLiteral(nb::handle single);

// An expression kept as written: a lambda (`lambda` true), or one that
// wasn't evaluated, of which a test of its value says nothing.
bool IsExpressionText(nb::handle single, bool lambda);

// The truth of a test written as a constant (a number, a string, True,
// False, None, a comparison of two of them), or made of such tests by
// `not`, `and`, `or` and parentheses, where the constants decide it
// (`x or 1` is true); none for any other test.
std::optional<bool> ConstantTruth(std::string_view text);

// A set of singles (CSingleResolvedInfo objects), in the order found,
// without duplicates, bounded in size.
class ValueSet {
public:
    void Add(nb::handle single);
    void Merge(const ValueSet &other);
    bool Empty() const { return fItems.empty(); }
    std::size_t Size() const { return fItems.size(); }
    const std::vector<nb::object> &Items() const & { return fItems; }
    // On a temporary, the items themselves: a range-for over
    // `Evaluate(...).Items()` then holds them for the loop's life.
    std::vector<nb::object> Items() && {
        fMoreKeys.clear();
        return std::move(fItems);
    }
    nb::object AsFrozenSet() const;
    static ValueSet FromIterable(nb::handle items);
    static std::size_t gMaxValues;

private:
    void AddKeyed(nb::handle single, std::size_t key);
    std::size_t KeyAt(std::size_t i) const { return i < kFirstRoom ? fFirstKeys[i] : fMoreKeys[i - kFirstRoom]; }

    static constexpr std::size_t kForeign = 0;
    static constexpr std::size_t kFirstRoom = 4;
    std::vector<nb::object> fItems;
    // Per item, a cheap key of our own singles (kForeign for any other
    // object): items whose keys differ are not compared further.  Most sets
    // hold a few values: their keys are kept beside the set, without an
    // allocation of their own.
    std::array<std::size_t, kFirstRoom> fFirstKeys{};
    std::vector<std::size_t> fMoreKeys;
};

// A set of object addresses (their low bits free for a tag), emptied and
// filled again many times: open addressing in one reused array, without an
// allocation per member.
class PointerSet {
public:
    // Empties the set, with room for `expected` members.
    void Clear(std::size_t expected = 0);
    // Adds `key` (not 0); true when it wasn't there.
    bool Insert(std::uintptr_t key);

private:
    void Resize(std::size_t slots);
    std::vector<std::uintptr_t> fSlots;  // 0: free; a power of two of them
    std::size_t fSize = 0;
};

// The URL of each location met, and a short key that stands for that URL
// where reads are keyed (a URL is long, and would be copied, hashed and
// compared at every read).  By the location's address, the location held
// so that the address names it alone; the keys go by URL, so that two
// location objects of one file share one.  Kept while the engine lives:
// kept values hold the keys.
class LocationNames {
public:
    struct Names {
        nb::object loc;
        std::string url;
        std::string key;
    };
    const Names &Of(nb::handle loc);

private:
    std::unordered_map<PyObject *, Names> fByLoc;
    std::unordered_map<std::string, std::string> fKeyByUrl;
};

// The parameters of a def: name, hint text, whether it has a default, and
// its star kind (0 plain, 1 *args, 2 **kwargs); bare "*" and "/" left out.
struct Param {
    std::string name;
    std::string hint;
    bool has_default = false;
    int star = 0;
    bool keyword_only = false;
};
std::vector<Param> ParamsOf(const symbolinfo::DefInfo &def);
// Whether decorators name `name` (by the last dotted part, called or not).
bool NamesDecorator(const std::vector<std::string> &decorators, std::string_view name);
// Whether a def carries the decorator `name` (NamesDecorator).
inline bool HasDecorator(const symbolinfo::DefInfo &def, std::string_view name) {
    return NamesDecorator(def.decorators, name);
}
// Whether a value's display items are a dict display's (key, value) pairs.
bool HoldsDictDisplay(nb::handle single);
// Whether a scope name names a class that a call made (MadeClass).
bool IsMadeClassScopeName(std::string_view name);

// Type variable name -> what it stands for (instances, or classes for
// type[T]).
using TypeMap = std::map<std::string, ValueSet>;

// A class in a method resolution order, with the type arguments its
// subclass gave it.
struct MroEntry {
    nb::object cls;  // the class single
    TypeMap map;
};

// What a piece of work told the request's context, or read: a scope seen
// (a record read), a module imported, or a scope read that had no record
// (not told: it is what the work depends on all the same).
enum class Effect : unsigned char { kSeen, kImport, kNoRecord };
using Effects = std::vector<std::pair<Effect, nb::object>>;

// The hash of a text key.  A long text (a module-level table of hundreds of
// kilobytes is one expression) is hashed by its length and by samples of its
// bytes, its ends among them, so that finding it costs the same as a short
// one's; texts that share the samples tell apart by comparison.
std::size_t HashText(std::string_view text);

// Hashes text keys so that a view finds them without a copy.
struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return HashText(text); }
};
template <class T>
using TextMap = std::unordered_map<std::string, T, TextHash, std::equal_to<>>;

// A scope of our own CScope class as a key: its location's address and its
// name.  The map holding it holds the location too, so that the address
// names that location alone.
using ScopeKey = std::pair<PyObject *, std::string>;
// Also finds a key by (address, name view), without a copy.
struct ScopeKeyHash {
    using is_transparent = void;
    std::size_t operator()(const std::pair<PyObject *, std::string_view> &key) const {
        return std::hash<std::string_view>{}(key.second) ^ (std::hash<const void *>{}(key.first) << 1);
    }
    std::size_t operator()(const ScopeKey &key) const {
        return (*this)(std::pair<PyObject *, std::string_view>{key.first, key.second});
    }
};
// Compares ScopeKeys and (address, name view) pairs alike.
struct ScopeLookupEqual {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A &a, const B &b) const {
        return a.first == b.first && std::string_view(a.second) == std::string_view(b.second);
    }
};

// A value read: (url, scope, text, logical index), and with the signature
// of the bindings it read (CEvaluator::DepsSignature) or, for hints, of all
// those in force (CEvaluator::BindingSignature).
using ReadKey = std::tuple<std::string, std::string, std::string, long long>;
using BoundReadKey = std::pair<ReadKey, std::string>;
// A BoundReadKey to look for, without a copy of its texts, with the hash of
// its read.
struct BoundReadView {
    const ReadKey &read;
    std::string_view signature;
    std::size_t read_hash;
};
struct ReadKeyHash {
    using is_transparent = void;
    std::size_t operator()(const ReadKey &key) const {
        const auto &[url, scope, text, index] = key;
        TextHash text_hash;
        std::size_t hash = text_hash(url);
        for (std::size_t part : {text_hash(scope), text_hash(text), std::hash<long long>{}(index)})
            hash = hash * 1000003 ^ part;
        return hash;
    }
    std::size_t operator()(const BoundReadKey &key) const {
        return (*this)(BoundReadView{key.first, key.second, (*this)(key.first)});
    }
    std::size_t operator()(const BoundReadView &key) const {
        return key.read_hash * 1000003 ^ std::hash<std::string_view>{}(key.signature);
    }
};
struct ReadKeyEqual {
    using is_transparent = void;
    static bool Same(const ReadKey &read, std::string_view signature, const BoundReadKey &key) {
        return read == key.first && signature == key.second;
    }
    bool operator()(const BoundReadKey &a, const BoundReadKey &b) const { return a == b; }
    bool operator()(const BoundReadView &a, const BoundReadKey &b) const { return Same(a.read, a.signature, b); }
    bool operator()(const BoundReadKey &a, const BoundReadView &b) const { return Same(b.read, b.signature, a); }
};

// A record entry split into its singles, each with its logical index (when
// numbered) and its kinds: the same entries are read again and again.
// Whether a single of this kind is a value of its name (not a use, a call,
// the mark of where the name is set, ...).
bool SaysValue(symbolinfo::Kind kind);

struct EntryPiece {
    std::string_view single;         // as written, wrappers and index included
    std::string_view unnumbered;     // the same without its index
    std::optional<long long> index;  // its logical index, when numbered
    symbolinfo::Kind kind;           // of the single without its index
    symbolinfo::Kind bare_kind;      // of the single without wrappers either
    bool malformed = false;          // its wrappers don't unpack (bare_kind unknown)
    std::string_view bare;           // the single without wrappers and index (unless malformed)
};
// An expression text parsed once.
struct ParsedText {
    pgen::Tree tree;
    std::int32_t root = -1;  // -1 when it isn't an expression
};

// Whether an annotation's text names no type: a constant other than None,
// a string that holds no expression, an operation other than `|` (a note
// written as an annotation).  `parse` gives the tree of a text.
bool AnnotationNamesNoType(std::string_view text,
                           const std::function<std::shared_ptr<const ParsedText>(std::string_view)> &parse);

struct ParsedEntry {
    std::string text;  // the pieces view it
    std::vector<EntryPiece> pieces;
    std::bitset<256> kinds;  // the pieces' `kind`s
    // A nested scope that declares the name global (nonlocal) sets it: a
    // derived `in SCOPE: first set` piece.
    bool set_in_nested_scope = false;
};

// A condition known at a body logical: (header index, condition text, a
// number), see CEvaluator::ConditionsOf.
using FlowGuard = std::tuple<long long, std::string, long long>;
// The conditions of each body logical of a scope as the flow provider gave
// them (a sequence of sequences of guards), each logical's read into
// FlowGuards when first asked for: a request asks of a few logicals of a
// scope, and a module's body has thousands.
class FlowGuardRows {
public:
    explicit FlowGuardRows(nb::handle rows);
    std::size_t size() const { return fRead.size(); }
    const std::vector<FlowGuard> &operator[](std::size_t at) const;
    // Whether a guard of the logical at `at` is a constant test (see
    // ConstantTruth) whose truth isn't the one its branch needs; worked out
    // once per logical.
    bool ConstantGuardFails(std::size_t at) const;

private:
    nb::tuple fRows;
    mutable std::vector<std::optional<std::vector<FlowGuard>>> fRead;
    mutable std::vector<std::optional<bool>> fConstantFails;
};

// A binding a piece of work read: (url, dotted scope name, name), or all of
// that scope's with an empty name, or kClassMapsDep for the type arguments of
// the classes whose instance attributes are being read.  A value stands
// wherever those bindings (or their absence) are as they were when it was
// worked out.
// Each binding is named by a number (BindingIds): sets of them are
// compared, sorted and written into signatures at every read.
using BindingDep = std::uint32_t;
using BindingDeps = std::vector<BindingDep>;  // sorted, each once
inline constexpr BindingDep kClassMapsDep = 0;

// The numbers of bindings, given out once for each (url, scope, name) and
// never taken back while the engine lives: kept values and their dependency
// sets hold them.
class BindingIds {
public:
    using Binding = std::tuple<std::string, std::string, std::string>;
    BindingIds();
    BindingDep Id(std::string_view url, std::string_view scope_name, std::string_view name);
    const Binding &Of(BindingDep id) const { return *fBindings[id]; }

private:
    using View = std::tuple<std::string_view, std::string_view, std::string_view>;
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const View &v) const;
        std::size_t operator()(const Binding &b) const { return (*this)(View(std::get<0>(b), std::get<1>(b), std::get<2>(b))); }
    };
    struct Equal {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A &a, const B &b) const {
            return std::string_view(std::get<0>(a)) == std::string_view(std::get<0>(b)) &&
                   std::string_view(std::get<1>(a)) == std::string_view(std::get<1>(b)) &&
                   std::string_view(std::get<2>(a)) == std::string_view(std::get<2>(b));
        }
    };
    std::unordered_map<Binding, BindingDep, Hash, Equal> fIds;
    std::vector<const Binding *> fBindings;  // by number: the map's keys, whose nodes stay put
};

// Erases up to `budget` entries of `table`, counting them off the budget;
// true when the table is empty.
template <class Table>
bool EraseSomeOf(Table &table, std::size_t &budget) {
    for (; budget > 0 && !table.empty(); --budget)
        table.erase(table.begin());
    return table.empty();
}

// Parsed forms of long texts (a module-level table of hundreds of kilobytes
// is one expression), kept apart from the memo: they follow the text alone,
// and reading one again inside a request takes milliseconds.  Bounded by
// their texts' bytes, the oldest out first.
template <class T>
class LargeTexts {
public:
    static constexpr std::size_t kMinBytes = 16 * 1024;
    static constexpr std::size_t kMaxBytes = 4 * 1024 * 1024;

    static bool IsLarge(std::string_view text) { return text.size() >= kMinBytes; }
    const T *Find(std::string_view text) const {
        auto it = fKept.find(text);
        return it == fKept.end() ? nullptr : &it->second;
    }
    const T &Keep(std::string_view text, T value) {
        while (!fOrder.empty() && fBytes + text.size() > kMaxBytes) {
            fBytes -= fOrder.front()->size();
            fKept.erase(*fOrder.front());
            fOrder.pop_front();
        }
        auto [it, added] = fKept.emplace(std::string(text), std::move(value));
        if (added) {
            fOrder.push_back(&it->first);  // a node's key stays where it is
            fBytes += text.size();
        }
        return it->second;
    }

private:
    TextMap<T> fKept;
    std::deque<const std::string *> fOrder;
    std::size_t fBytes = 0;
};

// The tables of what the engine keeps from one request to the next.
struct MemoTables {
    // A fact kept between requests, with what working it out told the
    // request's context: the scopes it read and the modules it imported (a
    // dependency is a dependency however the fact was found).
    template <class T>
    struct KeptFact {
        T values;
        Effects effects;
        std::uint64_t record_generation = 0;  // of the info cache when worked out
    };
    using KeptAnswer = KeptFact<ValueSet>;
    std::map<std::string, KeptFact<std::vector<MroEntry>>> mros;  // url|name|class single
    // Orders of specialised classes, by the key CEvaluator::Mro reads them
    // under within a request (class, arguments, map and the bindings read),
    // while the records they read stand.
    std::unordered_map<std::string, KeptFact<std::vector<MroEntry>>, TextHash, std::equal_to<>> specialised_mros;
    std::map<std::string, KeptFact<std::vector<std::string>>> type_vars;
    std::map<std::string, KeptFact<std::vector<std::string>>> return_type_params;  // url|def single
    // Values read, each under the signature of the bindings it read (see
    // CEvaluator::ResolveText).
    using KeptValues = std::unordered_map<BoundReadKey, KeptAnswer, ReadKeyHash, ReadKeyEqual>;
    KeptValues library_values;
    // The scopes whose bindings reads of each text have read, as met: where
    // to look for a value under the bindings in force.
    std::unordered_map<ReadKey, std::vector<BindingDeps>, ReadKeyHash> value_deps;
    // Values read in the project's own files also depend on derived records
    // (what callers pass): they stand while the records of the scopes they
    // read (their effects) stay as they were.
    KeptValues project_values;
    // The branch structure of scope bodies as the flow provider told it: it
    // follows the files' text, as the primary records do.  By ScopeKey (the
    // conditions' name followed by "|" and the provider's method), each with
    // the location it holds.
    template <class T>
    using ByScope = std::unordered_map<ScopeKey, std::pair<nb::object, std::optional<T>>, ScopeKeyHash, ScopeLookupEqual>;
    ByScope<std::vector<std::vector<long long>>> block_paths;
    ByScope<std::vector<long long>> loop_headers;
    // The (parameter or "return", annotation text) pairs a def's docstring writes.
    ByScope<std::vector<std::pair<std::string, std::string>>> docstring_hints;
    ByScope<FlowGuardRows> conditions_at;
    // (url, def name) -> what the flow provider says of its body (kYields, kAlwaysRaises).
    std::map<std::pair<std::string, std::string>, int> body_traits;
    ByScope<TextMap<long long>> def_statements;  // local scope name -> body logical index
    // The fields of def and class singles, by their text: the same few are
    // unpacked again and again.
    TextMap<std::shared_ptr<const symbolinfo::DefInfo>> def_infos;
    TextMap<std::shared_ptr<const symbolinfo::ClassInfo>> class_infos;
    TextMap<std::shared_ptr<const ParsedEntry>> entries;
    TextMap<std::shared_ptr<const std::vector<Param>>> params;  // by a def's declared arguments
    TextMap<std::shared_ptr<const ParsedText>> parsed_texts;
    // The canonical form of class and def singles (their normalised scope
    // name, and their text as bytes), by their text (a def's led by its kind).
    TextMap<std::pair<std::string, nb::object>> canonical_singles;
    // The records of the classes that calls make (namedtuples, enumerations),
    // each with its base class, by "url|scope name": each is a function of
    // its name alone, and a class single may stand for it in any later request.
    std::unordered_map<std::string, std::pair<nb::object, nb::object>> made_classes;
    // The module scope of each location met, by the location (held, so
    // that its address names it alone).
    std::unordered_map<PyObject *, std::pair<nb::object, nb::object>> module_scopes;
    // The scopes made, by location and name: the same few are asked for
    // again and again (each holds its location).
    std::unordered_map<ScopeKey, nb::object, ScopeKeyHash, ScopeLookupEqual> scopes;

    // Calls `visit(name, member)` with a pointer to member of each table
    // that follows the text of records alone: their entries are bounded by
    // the texts the records hold.
    template <class Visit>
    static void ForEachTextTable(Visit visit) {
        visit("def_infos", &MemoTables::def_infos);
        visit("class_infos", &MemoTables::class_infos);
        visit("entries", &MemoTables::entries);
        visit("params", &MemoTables::params);
        visit("parsed_texts", &MemoTables::parsed_texts);
        visit("canonical_singles", &MemoTables::canonical_singles);
    }
    // The same for the other tables: what requests worked out.
    template <class Visit>
    static void ForEachAnswerTable(Visit visit) {
        visit("block_paths", &MemoTables::block_paths);
        visit("loop_headers", &MemoTables::loop_headers);
        visit("docstring_hints", &MemoTables::docstring_hints);
        visit("conditions_at", &MemoTables::conditions_at);
        visit("body_traits", &MemoTables::body_traits);
        visit("def_statements", &MemoTables::def_statements);
        visit("module_scopes", &MemoTables::module_scopes);
        visit("scopes", &MemoTables::scopes);
        visit("mros", &MemoTables::mros);
        visit("specialised_mros", &MemoTables::specialised_mros);
        visit("type_vars", &MemoTables::type_vars);
        visit("return_type_params", &MemoTables::return_type_params);
        visit("library_values", &MemoTables::library_values);
        visit("project_values", &MemoTables::project_values);
        visit("value_deps", &MemoTables::value_deps);
    }
    template <class Visit>
    static void ForEachTable(Visit visit) {
        ForEachTextTable(visit);
        ForEachAnswerTable(visit);
    }
    std::size_t Entries() const { return EntriesOf(false); }
    std::size_t TextEntries() const { return EntriesOf(true); }
    std::size_t EntriesOf(bool text_tables_only) const {
        std::size_t entries = 0;
        auto add = [&](const char *, auto table) { entries += (this->*table).size(); };
        ForEachTextTable(add);
        if (!text_tables_only)
            ForEachAnswerTable(add);
        return entries;
    }
    // Frees up to `budget` entries; true when every table is empty.
    bool EraseSome(std::size_t &budget) {
        bool emptied = true;  // every table so far
        ForEachTable([&](const char *, auto table) { emptied = emptied && EraseSomeOf(this->*table, budget); });
        return emptied;
    }
};

// What the engine keeps from one request to the next: facts derived from
// primary records alone (method orders, type variables of classes, values
// read in library files).  They stand while the info cache's primary records
// do (its primary generation) and go as a whole when any of them changes, or
// when the memo grows past kMaxEntries (memory stays bounded).  The tables
// that follow the records' text have a bound of their own, and go alone past
// it: they would otherwise fill most of the memo and take the answers with
// them long before the answers fill it.
//
// A memo that goes is retired, not freed at once: freeing a large one takes
// tens of milliseconds, more than a request may run past its deadline.  Each
// new request frees a little of what was retired (FreeRetiredSome).
struct EngineMemo : MemoTables {
    static constexpr std::size_t kMaxEntries = 60000;  // the text tables' not counted
    static constexpr std::size_t kMaxTextEntries = 60000;
    std::uint64_t generation = ~std::uint64_t(0);
    PyObject *conditions = nullptr;  // the condition evaluator the facts were read under
    std::uint64_t record_generation = ~std::uint64_t(0);
    std::tuple<int, int, std::size_t> limits{-1, -1, 0};  // depth, argument hops, values
    // The module finder the answers were found with, and its generation.
    std::pair<PyObject *, std::uint64_t> finder{nullptr, 0};
    std::map<std::string, bool> library_urls;  // url -> a file without derived info
    PyObject *flow = nullptr;                  // the flow provider the structures came from
    LargeTexts<std::shared_ptr<const ParsedEntry>> large_entries;
    LargeTexts<std::shared_ptr<const ParsedText>> large_parsed_texts;
    std::size_t parse_put_off = 0;  // the hash of the long text whose parse was put off last
    // Kept project values found again, and found outdated (and dropped).
    std::size_t project_values_found = 0;
    std::size_t project_values_outdated = 0;
    BindingIds binding_ids;
    LocationNames location_names;
    std::vector<std::unique_ptr<MemoTables>> retired;  // oldest first
    std::size_t retired_entries = 0;                   // left to free in `retired`

    void Forget() {
        Clear(~std::uint64_t(0));
        record_generation = ~std::uint64_t(0);
    }
    void Clear(std::uint64_t new_generation) {
        generation = new_generation;
        Retire(std::make_unique<MemoTables>(std::move(static_cast<MemoTables &>(*this))));
        static_cast<MemoTables &>(*this) = MemoTables();
    }
    std::size_t AnswerEntries() const { return Entries() - TextEntries(); }
    // Project values go alone when a record changes and the info cache
    // can't tell which scopes it changed.
    void ForgetProjectValues() { RetireTable(&MemoTables::project_values); }
    void ForgetTexts() {
        ForEachTextTable([&](const char *, auto table) { RetireTable(table); });
    }
    template <class Table>
    void RetireTable(Table MemoTables::*table) {
        if ((this->*table).empty())
            return;
        auto tables = std::make_unique<MemoTables>();
        (*tables).*table = std::move(this->*table);
        this->*table = {};
        Retire(std::move(tables));
    }
    // Frees retired entries for about `seconds`, longer while much is left,
    // but not past the deadline of `ctx` (when given).
    void FreeRetiredSome(double seconds, CInferContext *ctx);
    void FreeRetired() {
        retired.clear();
        retired_entries = 0;
    }
    // Forgets the numbers of bindings and the keys of locations (and lets
    // the locations go): only once nothing kept holds them, after Forget
    // and FreeRetired.
    void ForgetNames() {
        binding_ids = BindingIds();
        location_names = LocationNames();
    }
    // The entries of each table, and those retired and not yet freed.
    std::vector<std::pair<std::string, std::size_t>> Counts() const;

private:
    void Retire(std::unique_ptr<MemoTables> tables) {
        retired_entries += tables->Entries();
        retired.push_back(std::move(tables));
    }
};

class CEvaluator {
public:
    CEvaluator(CInferenceEngine &engine, nb::handle ctx);

    // An expression's text read in `scope` (a CScope) at logical `use_index`
    // of that scope's body (-2 when not known).
    ValueSet ResolveText(nb::handle scope, std::string_view text, long long use_index);
    // A type hint's text read in `scope`: the instances it describes.
    ValueSet ResolveHintText(nb::handle scope, std::string_view text, const TypeMap *map);
    // Whether an annotation can name no type whatever its names hold: a
    // number, a string that holds no expression, arithmetic.  Such an
    // annotation declares nothing of what the name holds.
    bool NamesNoType(std::string_view text);
    // The values that info bytes (a single or a compound) stand for, read
    // in `scope`.
    ValueSet ValuesOfInfo(nb::handle scope, std::string_view ibytes, long long use_index);

    // Public pieces the engine's other services use.
    std::vector<MroEntry> Mro(nb::handle cls, const TypeMap &map);
    std::vector<MroEntry> ComputeMro(nb::handle cls, const TypeMap &map);
    std::vector<std::string> OrderedTypeVars(nb::handle cls);
    std::vector<std::string> ComputeOrderedTypeVars(nb::handle cls);
    std::string SpecialFormOf(nb::handle single);  // canonical name, or ""
    // The dotted module name of a file, as the module finder names it ("" when
    // it can't), asked once per file.
    const std::string &ModuleNameOfLoc(nb::handle loc);
    nb::object RecordOf(nb::handle scope);         // merged CScopeInfo or None
    // The scope `name` at `loc`, made once while the primary records stand.
    nb::object ScopeAt(nb::handle loc, std::string_view name);

private:
    using Tree = pgen::Tree;
    // Names bound inside an expression (comprehension targets, lambda
    // parameters), innermost last.
    using Locals = std::vector<std::pair<std::string, ValueSet>>;

    struct Frame {
        nb::object scope;
        long long use_index;
        const TypeMap *map;
        Locals *locals;
    };

    // Expressions.
    ValueSet Eval(const Tree &tree, std::int32_t node, const Frame &frame);
    ValueSet EvalName(std::string_view name, const Frame &frame);
    ValueSet ScopeObject(nb::handle scope);
    ValueSet EvalConstant(const Tree &tree, const pgen::Node &n);
    // The value of an int literal known exactly, if that is all `values` is.
    std::optional<long long> ConstantInt(const ValueSet &values);
    // What awaiting each value gives: a future's or task's result, what its
    // __await__ generator returns; a call of an async def already reads as
    // that, and stays.
    ValueSet Awaited(const ValueSet &values);
    // The attribute names a `getattr` argument stands for: a string written
    // there, or str values known in full (a parameter bound to one); none when
    // any value is not such a name.
    std::vector<std::string> AttributeNamesOf(const Tree &tree, std::int32_t arg, const Frame &frame);
    // `left op right` of two known ints, as Python computes it, for the
    // operators + - * // %; none for any other, on overflow, or on a
    // division by zero.
    static std::optional<long long> FoldedInt(std::optional<long long> left, std::string_view op,
                                              std::optional<long long> right);
    // Every tuple of `left` added to every one of `right`, when all of them
    // have known positions; nothing otherwise.
    ValueSet JoinedTuples(const ValueSet &left, const ValueSet &right);
    // `-x`, `+x`, `~x` of literal ints and bools: ints, a known value negated by `-`.
    ValueSet EvalSignedLiteral(std::string_view op, const ValueSet &operand);
    ValueSet EvalString(const Tree &tree, const pgen::Node &n);
    ValueSet EvalCall(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalSubscript(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalBinOp(const Tree &tree, const pgen::Node &n, const Frame &frame);
    bool IsTypeOperand(const ValueSet &values);
    // The class single `cls` specialised with `args` (list[int] from list).
    nb::object WithTypeArgs(nb::handle cls, const std::vector<ValueSet> &args);
    // Homogeneous tuples carry this set after their item type
    // (tuple[int, ...]); positional ones carry one set per item.
    nb::object EllipsisArg();
    static bool IsEllipsisArg(nb::handle arg);
    // The type arguments of a tuple by position (none for `()`), or false
    // when it is homogeneous or its arguments are unknown.
    // A named tuple's instance has the positions of its annotated fields.
    bool TuplePositions(nb::handle single, std::vector<nb::object> &positions);
    // The item of a display instance (fDisplayItems) that a constant index
    // picks; none when the index isn't one constant or the display doesn't
    // tell that item apart.
    std::optional<ValueSet> DisplayItem(nb::handle single, const ValueSet &index);
    // `value[index]` with the index evaluated: a display's or a tuple's item
    // told apart, a TypedDict's key, else what __getitem__ gives.
    ValueSet ItemOf(nb::handle value, const ValueSet &index);
    // The bytes of a literal single whose value is known, as a display's key.
    std::optional<std::string> ConstantKey(const ValueSet &values);
    bool NamedTupleFields(nb::handle cls, std::vector<nb::object> &positions);
    // The class a call makes (`collections.namedtuple("P", "x y")`,
    // `typing.NamedTuple("P", [("x", int)])`, `Enum("Color", "RED GREEN")`),
    // its record kept in the memo; nothing for other calls.
    ValueSet MadeClass(const Tree &tree, const pgen::Node &n, const Frame &frame, nb::handle callee);
    // The record of a class a call made, None when the memo no longer holds
    // it; an invalid object for the scopes of the source.
    nb::object MadeClassRecord(nb::handle loc, std::string_view scope_name);
    // The base class of a class a call made (None when not held).
    nb::object MadeClassBase(nb::handle loc, std::string_view scope_name);
    // The memo's (record, base) of a made class, by "url|scope name".
    const std::pair<nb::object, nb::object> *MadeClassOf(nb::handle loc, std::string_view scope_name);
    std::string MadeClassKey(nb::handle loc, std::string_view scope_name);
    // The fields a class makes of the names its bodies annotate (a
    // NamedTuple's, a dataclass's; not ClassVars), bases first, each with
    // what its annotation says; false for other classes.
    bool AnnotatedFields(nb::handle cls, std::vector<std::pair<std::string, nb::object>> &fields);
    // `__match_args__` of a class that generates it (a NamedTuple, a
    // dataclass): a tuple of its field names; nothing for other classes.
    ValueSet GeneratedMatchArgs(nb::handle cls);
    // Whether `mro` holds the class `name` of `module` ("typing": any of
    // typing's modules).
    bool MroHolds(const std::vector<MroEntry> &mro, std::string_view module, std::string_view name);
    // The values of the key `key` of an instance of a TypedDict class (none
    // when it isn't one or has no such key).
    ValueSet TypedDictItem(nb::handle single, std::string_view key);
    ValueSet EvalDisplay(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalComprehension(const Tree &tree, const pgen::Node &n, const Frame &frame);
    // The items by key of what `dict(mapping, k=v, ...)` makes, as a dict
    // display's (fDisplayItems): the keys of a display passed, then the
    // keywords; none when a mapping passed has no keys told apart.
    nb::object DictCallItems(const std::vector<ValueSet> &args,
                             const std::vector<std::pair<std::string, ValueSet>> &kwargs);
    // The items of `single` one by one when its positions are known (a list
    // display's, a tuple's); false otherwise.
    bool ItemsByPosition(nb::handle single, std::vector<ValueSet> &items);
    // A list comprehension's or generator's items one by one, when each
    // `for` runs over positions known (`[f(x) for x in (1, '')]`) and no
    // `if` drops any; none otherwise.  `first_iterable` is what the first
    // `for` runs over.
    using ItemAt = std::function<ValueSet(const ValueSet &, std::size_t, std::size_t)>;
    std::optional<std::vector<ValueSet>> ComprehensionPositions(const Tree &tree, const pgen::Node &n,
                                                                const Frame &frame,
                                                                const ValueSet &first_iterable,
                                                                const ItemAt &item_at);

    // Type hints.
    ValueSet EvalType(const Tree &tree, std::int32_t node, const Frame &frame);
    // Whether the type expression at `node` is Any itself (through aliases too).
    bool NamesAny(const Tree &tree, std::int32_t node, const Frame &frame);
    static ValueSet UnionOf(const std::vector<ValueSet> &members);
    ValueSet EvalTypeSubscript(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet TypeOfSingle(nb::handle single, const Frame &frame);
    void TypeArgsOf(const Tree &tree, std::int32_t slice, const Frame &frame, std::vector<ValueSet> &args);
    // Binds the type variables of `hint` (read in `scope`) from what a
    // parameter received.
    void BindTypeVars(nb::handle scope, std::string_view hint, const ValueSet &received, TypeMap &map);
    // `known`: what some of the protocol's variables already are (its
    // methods are called with those).
    TypeMap ProtocolTypeArgs(nb::handle protocol, const std::vector<std::string> &vars, nb::handle value,
                             const TypeMap &known = {});
    void BindNode(const Tree &tree, std::int32_t node, const Frame &frame, const ValueSet &received,
                  TypeMap &map);
    // The type variables (the def's own or its class's) that the return
    // hint of a def names: what a call passes may bind them.  None when that
    // isn't known (the request ran out of time).  Kept between requests.
    std::optional<std::vector<std::string>> ReturnHintTypeParams(nb::handle def_single);
    // Adds the type variables `node` names to `names`; false when cut short.
    bool HintTypeParams(const Tree &tree, std::int32_t node, const Frame &frame, std::set<std::string> &names);

    // Names and records.
    ValueSet LookupName(nb::handle scope, std::string_view name, long long use_index);
    // A name that no scope around the use sets: what the tests around the
    // use tell of it where they hold (`if isinstance(x, C):`).
    ValueSet UnsetNameNarrowed(nb::handle scope, std::string_view name, long long use_index);
    ValueSet LookupInScopeChain(nb::handle scope, std::string_view name);
    long long DefStatementIndex(nb::handle up, std::string_view child);
    long long ClosureReadIndex(nb::handle up, std::string_view child, std::string_view name);
    int StarOfParameter(nb::handle record, long long index);
    static constexpr long long kMaxStarPositions = 16;
    // The most items a display, a comprehension or a generator keeps apart.
    static constexpr std::size_t kMaxDisplayItems = 16;
    bool ScopeDeclaresTypeParam(nb::handle scope, nb::handle record, std::string_view name, ValueSet &out);
    bool FindLocal(nb::handle scope, std::string_view name, long long use_index, ValueSet &out,
                   int &redirect);
    // The values of `dotted` (`self.x`, `a.b.c`) at `use_index` of `scope`
    // when the scope itself sets that attribute at a logical that surely ran
    // before the use: false (and nothing) when no such setting is known, and
    // the attribute's values everywhere count.
    bool AttributeSetBefore(nb::handle scope, std::string_view dotted, long long use_index, ValueSet &out);
    // The values of a record's entry (of `name`, when given: a parameter
    // that a call binds stands for what that call passes, not for what all
    // callers pass or its default).
    // CallValue for a call whose arguments are all written out (`whole`: no
    // `*args` or `**kwargs`), so that a def's parameters it leaves out take
    // their defaults.
    ValueSet CallWithArguments(nb::handle callee, const std::vector<ValueSet> &args,
                               const std::vector<std::pair<std::string, ValueSet>> &kwargs, const Frame &frame,
                               bool whole);
    // Set by CallWithArguments for the def call it makes; taken by CallDef.
    bool fArgumentsWhole = false;
    // While a body logical's reachability is read: no reachability inside.
    bool fInReachCheck = false;
    // Narrowing for reachability: a test that none of the values meets
    // leaves nothing (elsewhere it leaves what the test says, the values
    // being possibly incomplete).
    bool fStrictNarrowing = false;
    // Whether a body logical of `scope` can run under the names a call binds
    // (and the closure of the def it calls): not when the tests around it
    // leave one of them nothing it may be there.
    bool LogicalReachable(nb::handle scope, nb::handle record, long long at);
    // Bound names of `scope` and of the scopes around it, with their values.
    std::vector<std::pair<std::string, const ValueSet *>> BindingsAround(nb::handle scope);
    // Whether a value is true whatever it holds: a def, a module, a
    // true literal, an instance whose class defines no __bool__ or __len__.
    bool IsSurelyTrue(nb::handle value);
    // Whether `value` is an instance whose class (or a base) has `attribute`.
    bool ClassHasAttribute(nb::handle value, std::string_view attribute);
    // Whether a test (`x`, `not x`, `x is None`, `isinstance(x, C)`, ...)
    // can come out `holds` for what the name it tests may be at the frame.
    bool TestCanBe(const Tree &tree, std::int32_t test, const Frame &frame, bool holds);
    ValueSet EntryValues(nb::handle scope, nb::handle record, std::string_view entry,
                         long long use_index, std::string_view name = {});
    // What the call whose body is being read binds to `name` of `scope`.
    const ValueSet *BoundValuesOf(nb::handle scope, std::string_view name);
    // `entry` without its numbered singles at body logicals that can't run
    // under what a call binds (`if isinstance(s, str): return s`
    // `else: return b''` of a str).
    // `values` with each nested def of a scope whose names a call binds
    // carrying those bindings, read when it is called.
    ValueSet WithClosures(const ValueSet &values);
    // What a call of a def binds to its parameters that have no hint (the
    // first of a bound method left out), defaults of those it leaves out
    // when the call's arguments are all known.
    std::vector<std::pair<std::string, ValueSet>> ArgumentBindings(
        nb::handle def, const std::vector<ValueSet> &args, const std::vector<std::pair<std::string, ValueSet>> &kwargs,
        bool arguments_whole);
    // The instance a class call made, carrying (as fClosure) what the call
    // passed the parameters of the class's own __init__: its attributes set
    // from them are read under that binding.
    ValueSet WithConstructorBindings(const ValueSet &made, nb::handle cls, const std::vector<ValueSet> &args,
                                     const std::vector<std::pair<std::string, ValueSet>> &kwargs, bool arguments_whole);
    std::string ReachableEntry(nb::handle scope, nb::handle record, std::string_view entry);
    // An unnumbered single of a parameter's binding in its def's body.
    static bool IsParameterBinding(std::string_view single);
    ValueSet ValuesOfSingle(nb::handle scope, std::string_view single, long long use_index);
    // The branch headers around each body logical of a scope, from the
    // engine's flow provider; null when it can't tell.
    const std::vector<std::vector<long long>> *BlockPathsOf(nb::handle scope);
    // The type that the docstring of the def `scope` writes for `name` (a
    // parameter, or "return") where the source has no annotation, as
    // annotation text read at the def line.
    std::optional<std::string> DocstringHint(nb::handle scope, std::string_view name);
    // The `for` and `while` headers of a scope's body; null when unknown.
    const std::vector<long long> *LoopHeadersOf(nb::handle scope);
    // The body logical index of the statement of `scope` that makes the def
    // or class single `bare`; -2 when unknown (or not a def or class).
    long long DefStatementAt(nb::handle scope, std::string_view bare);
    // Whether body logical `at` of `scope` never runs: a test around it is
    // a constant that can't take its branch (`if 0:`, the `else` of `if 1:`).
    bool NeverRuns(nb::handle scope, long long at);
    // The pieces of the `return` entry of the generator def `scope`: those
    // its yields give, and those its `return` statements give (what it
    // finishes with).
    std::pair<std::string, std::string> GeneratorEntries(nb::handle scope, std::string_view returns);
    // What a generator yields one by one, when every yield of `yields` (its
    // entry of yielded values) stands in its body itself, outside any block,
    // each once and none a `yield from`: they come in that order.  None
    // otherwise.
    std::optional<std::vector<ValueSet>> YieldsInOrder(nb::handle scope, nb::handle record, std::string_view yields);
    static bool BlockHolds(const std::vector<std::vector<long long>> &paths, long long setting, long long use);
    // Whether the setting at body logical `setting` surely ran before the use
    // at `use`: every test of the blocks around it and not around the use is
    // a constant that holds as the block needs (`if 1 == 1:`, the `elif` of
    // an `if 0:`).
    bool RunsSurely(nb::handle scope, const std::vector<std::vector<long long>> &paths, long long setting,
                    long long use);
    // Whether a setting directly in a block of an if/elif/else chain around
    // the use's block completes the chain's blocks in `covered` (those that
    // set the name): then the name was surely set again.
    bool CompletesIfChain(nb::handle scope, const std::vector<std::vector<long long>> &paths, long long setting,
                          long long use, std::set<long long> &covered);
    // Whether the use's guards rule out the branch that holds body logical
    // `setting` (`if c: x = 1` ... `else: use`).  Unless `within_turn`, a
    // loop around both lets the setting reach the use on a later turn.
    bool BranchRuledOut(nb::handle scope, long long setting, long long use, bool within_turn);
    // Whether a loop holds both body logicals (true when it can't tell).
    bool InOneLoop(nb::handle scope, long long a, long long b);
    // What the flow provider's `method` says of the body of `scope`, read by
    // `convert` once and kept in `cache`; null when it can't tell.
    template <class T, class Convert>
    const T *FlowOf(nb::handle scope, const char *method, EngineMemo::ByScope<T> &cache, Convert convert);
    std::string fFlowKey;  // FlowOf's lookup key, its buffer kept
    // Whether the flow provider can tell of the body of `scope_name` at
    // `loc` (it worked it out before, or has read the file), asking it to
    // go on with the file's read until the request's deadline: false, and
    // the request given up as out of time, when the deadline came first.
    bool FlowFileRead(nb::handle provider, nb::handle loc, nb::handle scope_name);
    // Marks the request out of time and stops it.
    void GiveUpOutOfTime();
    // Conditions at each body logical of a scope, from the flow provider's
    // `method` (header index, condition text, a number): "Guards", those
    // known there (the number: whether it holds); "SkippedIfs", the earlier
    // `if` blocks (the number: the block's last logical); "BlockExits", at
    // an `if` header, the guards holding at the end of its block.  Null
    // when it can't tell.
    using Guard = FlowGuard;
    const FlowGuardRows *ConditionsOf(nb::handle scope, const char *method);
    // `values` of the local `name` (set by `entry` of `record`) at
    // `use_index`, narrowed by the conditions known there that no setting
    // after them undoes; what was set before an `if` block that sets the
    // name again reaches past it narrowed by its condition being false.
    ValueSet Narrowed(nb::handle scope, nb::handle record, std::string_view name, std::string_view entry,
                      long long use_index, ValueSet values);
    // Names set together (`a, b = None, None`): where the logicals that set
    // `name` are those that set another name the test `root` reads, and no
    // others, the value each holds at a use came from one of those logicals;
    // a logical whose setting of the other name can't pass the test (`holds`)
    // gives `values` nothing.
    void NarrowByPartners(const Tree &tree, std::int32_t root, const Frame &frame, nb::handle record,
                          std::string_view name, std::string_view entry, long long use_index, bool holds,
                          ValueSet &values);
    // Whether Narrowed may narrow a name at body logical `at` of `scope`:
    // tests are known there (its guards, earlier `if` blocks).
    bool NarrowableAt(nb::handle scope, long long at);
    void NarrowBy(const Tree &tree, std::int32_t node, const Frame &frame, std::string_view name, bool holds,
                  ValueSet &values);
    void NarrowBySavedTest(const Frame &frame, std::string_view flag, std::string_view name, ValueSet &values);
    bool fInSavedTest = false;  // a saved test is not followed through another
    void NarrowByComparison(const Tree &tree, std::int32_t left, std::int32_t right, const Frame &frame,
                            std::string_view name, bool holds, ValueSet &values);
    ValueSet TestedClasses(const Tree &tree, std::int32_t node, const Frame &frame);
    void NarrowByLength(const Tree &tree, std::int32_t left, std::int32_t right, const std::string &op,
                        const Frame &frame, std::string_view name, bool holds, ValueSet &values);
    ValueSet GuardedType(nb::handle def_single, std::string &form);
    void NarrowByTypeGuard(const Tree &tree, std::int32_t callee, const Frame &frame, bool holds, ValueSet &values);
    ValueSet NarrowToClasses(const ValueSet &values, const ValueSet &classes, bool holds);
    ValueSet NarrowToSubclasses(const ValueSet &values, const ValueSet &classes, bool holds);
    ValueSet NarrowToObjects(const ValueSet &values, const ValueSet &objects, bool holds);
    ValueSet NarrowToClassObjects(const ValueSet &values, const ValueSet &objects, bool holds);
    // A class that isinstance can test (not a special form of typing).
    bool IsPlainClass(nb::handle single);
    bool TestableClasses(const ValueSet &classes, std::vector<nb::object> &wanted);
    // Whether the class `cls` has one of `classes` in its order.
    bool IsSubclassOfAny(nb::handle cls, const std::vector<nb::object> &classes);
    bool IsAnyClassObject(nb::handle value);
    int EqualityKind(nb::handle value);
    ValueSet NarrowToEqual(const ValueSet &values, const ValueSet &others);
    nb::object IdentityComparedClass(nb::handle value);
    ValueSet WithoutExactClasses(const ValueSet &values, const ValueSet &classes);
    bool IsInstanceOfExactly(nb::handle value, const std::vector<nb::object> &classes, bool literals);
    // What `callable(value)` gives: true for functions, lambdas, classes and
    // instances of classes with a __call__.
    bool IsCallableValue(nb::handle value);
    ValueSet ValuesOfWellFormedSingle(nb::handle scope, std::string_view single, long long use_index);
    // A single already split from its logical index (`use_index` when
    // `numbered`): a long one isn't walked again to find it.
    ValueSet ValuesOfUnnumberedSingle(nb::handle scope, std::string_view single, long long use_index, bool numbered);
    // A piece of a parsed entry, read at its own logical, or at
    // `unnumbered_use` when it has none (a malformed one says nothing).
    ValueSet ValuesOfPiece(nb::handle scope, const EntryPiece &piece, long long unnumbered_use);
    // `name` of a module; `through_getattr` lets a module-level __getattr__
    // answer for a name the module doesn't bind (a star import never asks it).
    ValueSet ModuleAttribute(nb::handle module_single, std::string_view name, bool through_getattr = true);
    ValueSet ModuleNamed(nb::handle loc, std::string_view dotted);
    // An instance of the class whose scope is `scope`; nothing when the
    // scope's record isn't a class.
    ValueSet InstanceOfClassScope(nb::handle scope);
    // The submodule `name` of the package whose __init__ file is at
    // `package_loc` (named `package_dotted`), or None.
    nb::object SubmoduleOf(nb::handle package_loc, std::string_view package_dotted, std::string_view name);
    nb::object ImportModule(std::string_view dotted, nb::handle from_loc);
    nb::object ImportRelative(long long level, std::string_view dotted, nb::handle from_loc);
    ValueSet FromImport(nb::handle scope, std::string_view module, std::string_view name, bool star = false);
    ValueSet BuiltinNamed(std::string_view name);
    nb::object ModuleScopeOf(nb::handle loc);
    // The entry `name` of a record (GetInfoBytes), straight from our own
    // records; None when it has none.
    nb::object InfoBytesOf(nb::handle record, std::string_view name);
    // The location of the builtins' stub, asked once per request.
    nb::object BuiltinLoc();
    std::string ScopeKindOf(nb::handle scope);  // "class", "def", "module", "" unknown
    // The record of the module at `loc`; marks the request incomplete and
    // names the needed scan when the file has none yet.
    nb::object ModuleRecord(nb::handle loc);

    // Classes and attributes.
    ValueSet Attribute(nb::handle single, std::string_view name);
    ValueSet ClassAttribute(nb::handle cls, std::string_view name, nb::handle receiver,
                            const TypeMap &map, bool via_instance);
    ValueSet BindFound(const ValueSet &found, nb::handle owner, nb::handle receiver, const TypeMap &map,
                       bool via_instance);
    ValueSet InstanceOf(nb::handle cls, nb::handle type_args);
    nb::object ClassOfInstance(nb::handle single);
    TypeMap MapOfInstance(nb::handle single);
    ValueSet CallValue(nb::handle callee, const std::vector<ValueSet> &args,
                       const std::vector<std::pair<std::string, ValueSet>> &kwargs,
                       const Frame &frame);
    ValueSet CallLambda(nb::handle lambda, const std::vector<ValueSet> &args,
                        const std::vector<std::pair<std::string, ValueSet>> &kwargs);
    ValueSet CallDef(nb::handle def, const std::vector<ValueSet> &args,
                     const std::vector<std::pair<std::string, ValueSet>> &kwargs);
    // Whether what calling `callee` gives can depend on the arguments: false
    // only for a def of one overload whose return hint names no type
    // variable but those its receiver binds (its answer is that hint
    // whatever the call passes).
    bool CallNeedsArguments(nb::handle callee);
    // `arguments`: what the call passed to parameters without a hint, read
    // as those names while the body's returns are.
    ValueSet ReturnsOfDef(nb::handle def, const TypeMap &map,
                          const std::vector<std::pair<std::string, ValueSet>> &arguments = {});
    bool IsGeneratorDef(nb::handle loc, std::string_view def_name);
    // Whether a def's body ends in a `raise` directly in it (never falls off its end).
    bool AlwaysRaisesDef(nb::handle loc, std::string_view def_name);
    static constexpr int kYields = 1, kAlwaysRaises = 2;
    int BodyTraits(nb::handle loc, std::string_view def_name);
    // `kwargs`: the keyword arguments of a call of an instance (__call__).
    ValueSet CallDunder(const ValueSet &receivers, std::string_view method, const std::vector<ValueSet> &args,
                        const std::vector<std::pair<std::string, ValueSet>> &kwargs = {});
    ValueSet IterItems(const ValueSet &values);
    // Keyword arguments of a call; a null pointer where they aren't known.
    using Keywords = std::vector<std::pair<std::string, ValueSet>>;
    // The arguments of call node `n` (read in `scope`, when given), each
    // valued by `value_of` (`*t` of a tuple of known positions passes them);
    // false when a `*args` or `**mapping` leaves some unknown (positions
    // after it aren't read).
    bool CallArguments(const Tree &tree, const pgen::Node &n, const std::function<ValueSet(std::int32_t)> &value_of,
                       std::vector<ValueSet> &args, Keywords &kwargs, nb::handle scope = nb::handle());
    // `**kwargs` passed on: a def's `**` parameter, bound by the call whose
    // body is read, gives that call's other keywords by name.  Each is bound
    // under a name no source can write (KeywordsBindingName); false when
    // `node` is no such parameter, or the body changes it before passing it.
    bool KeywordsPassedOn(const Tree &tree, std::int32_t node, nb::handle scope, Keywords &kwargs);
    // `**{'a': 1, k: v}` of a dict display whose keys are all strings told
    // apart: its items as keywords, added to `kwargs`; false otherwise.
    bool KeywordsOfDisplay(const ValueSet &mapping, Keywords &kwargs);
    // The binding name of the keywords a call gives the `**` parameter
    // `param`: "**param" says they are all known, "**param.kw" holds `kw`.
    static std::string KeywordsBindingName(std::string_view param, std::string_view keyword = {});
    // `dict[str, V]` of the keyword values `values` (what `**kwargs` holds).
    ValueSet KeywordsDict(const ValueSet &values);
    // The dict that `**kwargs` receives from keywords by name: its values
    // told apart by their names as keys.
    ValueSet KeywordsDictByName(const Keywords &by_name);
    // Containers grown by later use (containers.cpp).  Where a container
    // is used: `name` in the body of `scope` (whose record is `record`),
    // between body logicals `after` and `until` (-1: from the start, to the end).
    struct UseSite {
        nb::object scope, record;
        std::string name;
        long long after, until;
    };
    // `values` with each instance of a generic class whose type arguments
    // are unknown given those that the uses at `sites_of()` pass its methods
    // (`x.append(1)`, `x[k] = v`).
    ValueSet WithItemsFromUses(const ValueSet &values, const std::function<std::vector<UseSite>()> &sites_of);

    // Instances that act on the arguments of their call (keptcalls.cpp).
    // Which kind of call-keeping class `cls` is (0 for none).
    int KeptCallKind(nb::handle cls);
    // The instances of a call-keeping class that a call of it made, holding
    // the call's arguments (fMadeWith); other values as they are.
    ValueSet WithCallArguments(const ValueSet &made, nb::handle cls, const std::vector<ValueSet> &args,
                               const Keywords &kwargs);
    // The kind of call-keeping class of an instance that keeps its call's
    // arguments, and those arguments (fMadeWith); none for any other value.
    std::optional<std::pair<int, nb::tuple>> MadeWithOf(nb::handle value);
    // What calling such an instance gives; none for any other value.
    std::optional<ValueSet> CallKept(nb::handle instance, const std::vector<ValueSet> &args, const Keywords &kwargs,
                                     const Frame &frame);
    // Such an instance read from a class body as a descriptor: a
    // partialmethod's partial (with the instance first when read on one), a
    // property's getter's value, a staticmethod's function, a classmethod's
    // function bound to the class; none for any other value, or where the
    // instance itself is what is read.
    std::optional<ValueSet> ReadKeptDescriptor(nb::handle found, nb::handle receiver, bool via_instance);
    // The entries of `record` that use `name` through one attribute or
    // subscript (`x.append`, `x["a"]`); a record's are found once per request.
    const std::vector<std::string> &UsesOf(nb::handle record, std::string_view name);
    std::unordered_map<PyObject *, std::pair<nb::object, std::map<std::string, std::vector<std::string>, std::less<>>>>
        fUsesOfNames;
    // Merges into `bound` the type variables that a call of `method` of
    // `receiver` binds from its arguments (the first overload that takes them).
    void BindMethodTypeVars(nb::handle receiver, std::string_view method, const std::vector<ValueSet> &args,
                            const Keywords &kwargs, TypeMap &bound);
    // Binds the type variables of the hinted parameters of a def (from
    // `first` on) from what a call passes them (keywords by name, else to `**kwargs`).
    void BindArgumentTypeVars(nb::handle def_scope, const std::vector<Param> &params, std::size_t first,
                              const std::vector<ValueSet> &args, const Keywords &kwargs, TypeMap &bound);
    bool OverloadAccepts(nb::handle def, const std::vector<ValueSet> &args, const Keywords *kwargs = nullptr);
    // Whether an argument fits when one of its values does (rather than
    // every one): the second try of a call nothing fits strictly, as the
    // values known of a name are often wider than what reaches the call.
    bool fLenientFit = false;
    // The defs among `callees` that take the arguments strictly, or else
    // leniently.
    ValueSet AcceptingDefs(const ValueSet &callees, const std::vector<ValueSet> &args, const Keywords &kwargs);
    struct LenientFit {
        CEvaluator &ev;
        bool before;
        explicit LenientFit(CEvaluator &e) : ev(e), before(e.fLenientFit) { ev.fLenientFit = true; }
        ~LenientFit() { ev.fLenientFit = before; }
    };
    bool ValueFitsHint(nb::handle def_scope, const std::string &hint, const ValueSet &given, const TypeMap &bound);
    bool ValuesFit(const ValueSet &wanted, const ValueSet &given, bool check_args = true);
    bool TypeArgsFit(nb::handle wanted, nb::handle value);
    std::optional<bool> LiteralsFit(const ValueSet &wanted, const ValueSet &given);
    // `fitted`, when given, is cleared when some overloaded def has no
    // overload that takes the arguments.
    ValueSet SelectOverloads(const ValueSet &callees, const std::vector<ValueSet> &args,
                             const Keywords *kwargs = nullptr, bool *fitted = nullptr);
    bool IsProtocolClass(nb::handle cls);
    // A decorator that names property or a subclass of it (an alias of
    // property in a stub), or a def of the project that makes one of
    // `def_single`, read where the def stands.
    bool DecoratorMakesProperty(nb::handle loc, const std::string &def_scope_name, const std::string &decorator,
                                nb::handle def_single);
    // A def as its decorators leave it: a library's hinted decorator is
    // called with it (functools.cache, contextlib.contextmanager).
    bool ImplementsOverloads(nb::handle parent, symbolinfo::CSingleResolvedInfo *d);
    ValueSet DecoratedDef(nb::handle loc, nb::handle def_single);
    // Enumerations: a class with enum.Enum in its order; its members are the
    // plain values its body sets; `value` is what they were set to.
    bool IsEnumClass(nb::handle cls);
    bool IsEnumMember(nb::handle owner, std::string_view name, const ValueSet &found);
    ValueSet EnumMemberValues(nb::handle cls);
    // The value of a member of enumeration `cls` that its body set to `found`.
    ValueSet EnumValueOf(nb::handle cls, const ValueSet &found);
    // The member of enumeration `cls` set to `found`: an instance of it that
    // keeps (as fMadeWith) the value it was made with.
    ValueSet EnumMember(nb::handle cls, const ValueSet &found);
    // The metaclass a class declares or inherits (None when only `type`).
    nb::object MetaclassOf(nb::handle cls);
    // A dunder method of the metaclass called on the class objects of
    // `receivers` (iteration and subscripts of an enumeration's class).
    ValueSet CallMetaclassDunder(const ValueSet &receivers, std::string_view method, const std::vector<ValueSet> &args);
    bool ProtocolAccepts(nb::handle protocol, nb::handle cls);

    // The fields of a def or class single (the unpacking's error when it is
    // not one), unpacked once per text.
    std::shared_ptr<const symbolinfo::DefInfo> DefInfoOf(std::string_view single);
    // ParamsOf(def), worked out once per text of its declared arguments.
    std::shared_ptr<const std::vector<Param>> KeptParamsOf(const symbolinfo::DefInfo &def);
    std::shared_ptr<const symbolinfo::ClassInfo> ClassInfoOf(std::string_view single);
    // A record entry split into its singles, once per text.
    std::shared_ptr<const ParsedEntry> EntryOf(std::string_view entry);
    // An expression text's parse tree, once per text.
    std::shared_ptr<const ParsedText> ParseText(std::string_view text);
    bool PutOffParse(std::string_view text);

    // Singles.
    nb::object ClassSingle(nb::handle loc, std::string_view bare_class_info);
    nb::object DefSingle(nb::handle loc, std::string_view bare_def_info, char kind);
    nb::object ModuleSingle(nb::handle loc, std::string_view dotted);
    nb::object LiteralSingle(std::string_view class_name, const std::optional<std::string> &value);
    // `bound`: what the variable is bound to, or its constraints written
    // "(A, B)", as its declaration says; `default_text`: the type it stands
    // for when nothing binds it.
    nb::object TypeParamSingle(nb::handle scope, std::string_view name, std::string_view kind,
                               const std::optional<std::string> &bound = std::nullopt,
                               const std::optional<std::string> &default_text = std::nullopt);
    // What a type variable bound to nothing may be when an argument is
    // checked against a hint naming it: its bound (unless a protocol), its
    // constraints, or any object.
    ValueSet UpperBoundOf(symbolinfo::CSingleResolvedInfo *param);
    nb::object BuiltinClass(std::string_view name);
    nb::object TypingClass(std::string_view name);

    // Stub conditions: 1 holds, 0 doesn't, -1 can't be told (counts as
    // holding).
    int EvaluateCondition(std::string_view condition);
    bool ConditionsHold(std::string_view single);

    bool Stop();  // out of time or too deep: give up this branch
    bool IsLibraryScope(nb::handle scope);
    // A key for memos of a class single.
    std::string ClassKey(nb::handle cls);
    void Seen(nb::handle scope);
    // The URL of a location, and the key that stands for it in reads.
    const std::string &UrlOf(nb::handle loc) { return fMemo.location_names.Of(loc).url; }
    const std::string &ReadKeyOf(nb::handle loc) { return fMemo.location_names.Of(loc).key; }

    CInferenceEngine &fEngine;
    nb::object fCtxObject;
    CInferContext *fCtx;  // null when the context is not ours
    nb::object fInfoCache;
    nb::object fLocCache;
    nb::object fFinder;
    nb::object fBuiltinLoc;  // None until asked for
    int fDepth = 0;
    std::uint64_t fSteps = 0;  // calls of Stop
    static constexpr std::uint64_t kStepsPerClockReading = 8;
    // How long each request spends freeing retired memos before it starts.
    static constexpr double kRetiredFreeingSeconds = 0.0002;
    int fArgHops = 0;  // arguments followed into their callers, nested
    // The callers (by SourceOfArgument) of the def of `scope` that can't get
    // to body logical `at`: under the arguments one caller passes, the tests
    // there can't be met (`if seq is EMPTY: return f('', seq)` calling itself
    // passes a str, never EMPTY, so its '' isn't what `seq` is there).
    // A name's values while one call's arguments are bound, by (url, scope, name).
    using Bindings = std::vector<std::pair<std::tuple<std::string, std::string, std::string>, ValueSet>>;
    struct CallerReach {
        std::set<std::string> unreached;
        // Callers that get there only from some of their own callers: the
        // bindings of the def around the call under which they do (what
        // they pass is read under those).
        std::map<std::string, std::vector<Bindings>> reached_under;
    };
    CallerReach CallersNotReaching(nb::handle scope, nb::handle record, long long at);
    // The bindings, one per caller (in one order), of the parameters named
    // in `names` (all of them with `all_parameters`) of the def around
    // `caller`'s calls (the innermost def with one of them) by what its
    // callers pass; none when there is no such def or too many callers to
    // split.
    std::vector<Bindings> CallerBindingsOfCaller(std::string_view caller, const std::set<std::string_view> &names,
                                                 bool all_parameters);
    // What a parameter the caller leaves out holds: its default.
    ValueSet DefaultOfParameter(nb::handle body, nb::handle record, std::string_view name);
    // One caller's arguments to a def: the singles by parameter.  It is one
    // call when it passes one argument to each, all read at one logical
    // (literals say none); otherwise a parameter one of its calls leaves out
    // may hold its default, whatever the others pass.
    struct CallerArguments {
        std::map<std::string, std::vector<std::string_view>> singles;
        std::set<long long> logicals;
        bool one_argument_each = true;
        std::string caller;  // as SourceOfArgument gives it
        bool OneCall() const { return one_argument_each && logicals.size() <= 1; }
    };
    // Whether a call in the scope of `caller` (as SourceOfArgument gives it)
    // unpacks arguments (`f(*a)`, `f(**k)`): what those pass isn't recorded.
    bool CallerUnpacksArguments(const std::string &caller);
    std::map<std::string, bool> fUnpackingCallers;
    // The arguments the def's callers pass (its record's, `itself` as
    // SourceOfArgument takes it), by caller; the views are into `held`.
    std::map<std::string, CallerArguments> ArgumentsByCaller(nb::handle record, const std::vector<Param> &params,
                                                             const std::string &itself, std::vector<nb::object> &held);
    // The bindings of the parameters `wanted` picks under one caller's
    // arguments (each single read by `value_of`), defaults where it may
    // leave them out.
    Bindings BindingsOfCaller(nb::handle body, nb::handle record, const std::vector<Param> &params,
                              const CallerArguments &arguments, const std::function<bool(const Param &)> &wanted,
                              const std::function<ValueSet(std::string_view)> &value_of);
    // One change of the bindings, from its start to its undoing.
    class BindingChange {
    public:
        explicit BindingChange(CEvaluator &ev)
            : ev_(ev), before_(ev.fBindingVersion), after_(ev.fBindingVersion = ++ev.fLastBindingVersion) {}
        // Puts back the version before the change, when every change made
        // since has been undone too (else the bindings are new ones).
        void Undone() {
            ev_.fBindingVersion = ev_.fBindingVersion == after_ ? before_ : ++ev_.fLastBindingVersion;
        }

    private:
        CEvaluator &ev_;
        std::uint64_t before_;
        std::uint64_t after_;
    };
    // Binds what isn't bound yet; the destructor unbinds it.
    class CBindingsScope {
    public:
        CBindingsScope(CEvaluator &evaluator, const Bindings &bindings);
        ~CBindingsScope();
        CBindingsScope(const CBindingsScope &) = delete;
        CBindingsScope &operator=(const CBindingsScope &) = delete;

    private:
        CEvaluator &fEvaluator;
        std::vector<std::tuple<std::string, std::string, std::string>> fAdded;
        std::optional<BindingChange> fChange;
    };
    // The bindings a closure tuple (CSingleResolvedInfo::fClosure) holds.
    static Bindings ClosureBindings(nb::handle closure);
    // Where a derived argument single was recorded: the calling scope as
    // "url|scope|" (what groups one caller's arguments; `itself`, the def's
    // own, for a single without one) and the plain name passed, if one.
    struct ArgumentSource {
        std::string caller;
        std::string_view name;
    };
    static ArgumentSource SourceOfArgument(std::string_view single, const std::string &itself);
    bool fGaveUp = false;
    // Answers that depend on this request's path (a cut cycle, a stop) are
    // not kept: these count them.
    std::uint64_t fCuts = 0;
    EngineMemo &fMemo;
    std::string fPrimaryScanName;
    nb::dict fRecords;  // scope -> merged record, or None
    // The same for our own scopes, by ScopeKey: (the scope, its record).
    std::unordered_map<ScopeKey, std::pair<nb::object, nb::object>, ScopeKeyHash, ScopeLookupEqual> fScopeRecords;
    // The scopes whose bodies the flow provider was ready to tell of, by
    // ScopeKey, each with the location it holds.
    std::unordered_map<ScopeKey, nb::object, ScopeKeyHash> fFlowScopesRead;
    // The values being read, each with its place on the stack of reads.
    using ActiveKey = ReadKey;
    std::map<ActiveKey, std::size_t> fActive;
    std::vector<const ActiveKey *> fActiveStack;
    // The lowest place a cut cycle led back to, in the reads under way.
    std::size_t fCycleLow = SIZE_MAX;
    // Whether `key` is being read: a cycle, noted against its place.
    bool CycleAt(const ActiveKey &key);
    // Watches a piece of work for what makes its answer partial: a stop, a
    // scan it needs, or a cycle back to a read begun before it.  A cycle
    // back to the piece's own read (a recursive def, `x = x + 1` in a loop)
    // leaves its answer whole: that is the answer the read gives.
    class CutWatch {
    public:
        explicit CutWatch(CEvaluator &ev)
            : ev_(ev), cuts_(ev.fCuts), saved_low_(ev.fCycleLow), boundary_(ev.fActive.size()) {
            ev.fCycleLow = SIZE_MAX;
            ev.fDepFrames.emplace_back();
        }
        ~CutWatch() {
            // Cycles back into the finished piece end with it; what it read
            // of the bindings, the work around it read too.
            ev_.fCycleLow = ev_.fCycleLow < boundary_ ? std::min(ev_.fCycleLow, saved_low_) : saved_low_;
            BindingDeps deps = std::move(ev_.fDepFrames.back());
            ev_.fDepFrames.pop_back();
            ev_.DependOnAll(deps);
        }
        bool Whole() const { return !Stopped() && !CycledOut(); }
        bool Stopped() const { return ev_.fCuts != cuts_; }
        bool CycledOut() const { return ev_.fCycleLow < boundary_; }
        // The bindings the piece read so far (good while it is watched).
        const BindingDeps &Deps() const {
            BindingDeps &deps = ev_.fDepFrames.back();
            std::sort(deps.begin(), deps.end());
            return deps;
        }
        std::size_t CycleLow() const { return ev_.fCycleLow; }
        CutWatch(const CutWatch &) = delete;
        CutWatch &operator=(const CutWatch &) = delete;

    private:
        CEvaluator &ev_;
        std::uint64_t cuts_;
        std::size_t saved_low_;
        std::size_t boundary_;
    };
    // Marks `key` as being read for the life of the object.
    class ActiveRead {
    public:
        ActiveRead(CEvaluator &ev, const ActiveKey &key)
            : ev_(ev), it_(ev.fActive.emplace(key, ev.fActiveStack.size()).first) {
            ev.fActiveStack.push_back(&it_->first);
        }
        ~ActiveRead() {
            ev_.fActiveStack.pop_back();
            ev_.fActive.erase(it_);
        }
        ActiveRead(const ActiveRead &) = delete;
        ActiveRead &operator=(const ActiveRead &) = delete;

    private:
        CEvaluator &ev_;
        std::map<ActiveKey, std::size_t>::iterator it_;
    };
    // What each text read in a scope gave in this request, under the names
    // bound at the time that it read (see ReadKey); partial when a cut
    // cycle, the depth bound or the clock shortened it.
    using RequestKey = BoundReadKey;
    // A result kept for the rest of the request.
    template <class T>
    struct Kept {
        T value;
        bool partial = false;            // a stop shortened it
        std::optional<ActiveKey> cycle;  // it read this read's value while unfinished
        BindingDeps deps;                // the scopes whose bindings decided it
        // What working it out told the context or read (when collected):
        // a collection under way that finds it depends on the same.
        Effects effects;
    };
    std::unordered_map<RequestKey, Kept<ValueSet>, ReadKeyHash, ReadKeyEqual> fRequestValues;
    // Hints are kept apart from values read at a logical index.
    static constexpr long long kHintUseIndex = -9;
    // Hints read to check an argument, whose unbound variables stand for
    // their upper bounds, and the type map such a read binds with.
    static constexpr long long kFitHintUseIndex = -10;
    // Method orders of specialised classes note the bindings they read
    // under this index.
    static constexpr long long kMroUseIndex = -11;
    const TypeMap *fFitMap = nullptr;
    // The kept result of `key`: one that read an unfinished value is good
    // while that read is under way (the same cycle), and worked out again
    // after it.
    template <class Map, class Key>
    auto *KeptOf(Map &kept, const Key &key) {
        using Value = decltype(kept.begin()->second.value);
        const Value *none = nullptr;
        auto hit = kept.find(key);
        if (hit == kept.end())
            return none;
        if (hit->second.cycle && !CycleAt(*hit->second.cycle)) {
            kept.erase(hit);
            return none;
        }
        if (hit->second.partial)
            ++fCuts;  // as partial here as where it was found
        DependOnAll(hit->second.deps);  // as bound here as where it was found
        if (fCollecting)
            for (const auto &[effect, scope] : hit->second.effects)
                NoteEffect(effect, scope);  // the context was told already
        return static_cast<const Value *>(&hit->second.value);
    }
    template <class Key>
    const ValueSet *RequestValueOf(const Key &key) {
        return KeptOf(fRequestValues, key);
    }
    template <class T>
    Kept<T> Keep(T value, const CutWatch &watch) const {
        Kept<T> kept{std::move(value), watch.Stopped(), std::nullopt, watch.Deps(), {}};
        if (watch.CycledOut())
            kept.cycle = *fActiveStack[watch.CycleLow()];
        return kept;
    }
    // Where reads of a scope are kept from one request to the next: values
    // read in library files (for any argument hops: their files have no
    // callers' records), in the project's own while the records they read
    // stand, or nowhere.
    struct BetweenRequests {
        EngineMemo::KeptValues *table = nullptr;
        bool library = false;
    };
    BetweenRequests BetweenRequestsOf(nb::handle scope);
    // The value kept between requests for `key` under `signature` (that of
    // the bindings `deps`), told to this request as where it was worked
    // out; null when none stands.
    const ValueSet *KeptBetweenRequests(const BetweenRequests &where, const ReadKey &key, std::string_view signature,
                                        std::size_t read_hash, const BindingDeps &deps);
    // The names a call fixes and the type variables in force (plus `map`'s),
    // as text: values read under equal signatures are equal.
    std::string BindingSignature(const TypeMap *map);
    // The part of it fBoundNames and fClassMaps make, kept while
    // fBindingVersion stays.
    std::string BindingsSignature();
    static void AppendMapSignature(std::string &signature, const TypeMap &vars);
    void AppendClassMapsSignature(std::string &signature) const;
    // fBindingVersion names the bindings in force (fBoundNames, fClassMaps):
    // each change moves it to a number not used before, and undoing the
    // change puts back the one before it, so that what is kept per version
    // stands again once a call's bindings are gone.
    std::uint64_t fBindingVersion = 0;
    std::uint64_t fLastBindingVersion = 0;
    std::uint64_t fSignatureVersion = ~std::uint64_t(0);
    std::string fBindingsSignature;
    bool fKeepProjectValues = false;
    // The info cache, when it tells the generation of each scope's records
    // (project values then go one by one, as the records they read change).
    CInfoCache *fScopeGenerations = nullptr;
    // The scopes whose bindings each piece of work under way read (a
    // bound name, a parameter of a def, a type variable outside an explicit
    // map), innermost last: its value stands where they are the same.
    std::vector<BindingDeps> fDepFrames;
    void DependOn(std::string_view url, std::string_view scope_name, std::string_view name = {});
    void DependOn(BindingDep dep);
    // `name` of `scope` (all of its names when empty).
    void DependOnScope(nb::handle scope, std::string_view name = {});
    void DependOnAll(const BindingDeps &deps);
    // The bindings of `deps` now in force, as text (good until the next call).
    const std::string &DepsSignature(const BindingDeps &deps);
    std::string ComputeDepsSignature(const BindingDeps &deps);
    // DepsSignature's answers by binding version: a request asks for those
    // of the same few sets again and again, in the same few versions (a
    // call's body reads on after each call within it).
    struct DepsHash {
        std::size_t operator()(const BindingDeps &deps) const {
            std::size_t hash = deps.size();
            for (BindingDep dep : deps)
                hash = hash * 1000003 ^ dep;
            return hash;
        }
    };
    std::unordered_map<std::uint64_t, std::unordered_map<BindingDeps, std::string, DepsHash>> fDepsSignatures;
    std::size_t fDepsSignaturesKept = 0;
    // Calls `look(deps, signature)` with the empty set and with each set of
    // bindings that reads of `key` have read (MemoTables::value_deps), each
    // with the signature of those bindings now, until it finds a result.
    template <class Look>
    auto ForEachDepSet(const ReadKey &key, Look look) -> decltype(look(BindingDeps(), std::string())) {
        static const BindingDeps kNone;
        if (auto found = look(kNone, std::string()))
            return found;
        auto read = fMemo.value_deps.find(key);
        if (read == fMemo.value_deps.end())
            return nullptr;
        for (const BindingDeps &deps : read->second)
            if (auto found = look(deps, DepsSignature(deps)))
                return found;
        return nullptr;
    }
    // Notes the scopes whose bindings the work `watch` watched read, for
    // reads of `key`; the signature of their bindings.
    std::string NoteDeps(const ReadKey &key, const CutWatch &watch);
    // What the request told its context while a kept value was being read.
    int fCollecting = 0;
    Effects fEffects;
    // Where each collection under way started in fEffects, innermost last,
    // and where each effect (its scope's address, with its kind in the low
    // bits) was last noted: one noted since the innermost start is in every
    // collection under way already, and is not noted again.
    std::vector<std::size_t> fEffectStarts;
    std::unordered_map<std::uintptr_t, std::size_t> fEffectLast;
    // For each entry of fEffects, where the same effect was noted before it
    // (kNoPriorEffect: nowhere), so that a collection's own effects are
    // found without sorting.
    static constexpr std::size_t kNoPriorEffect = ~std::size_t(0);
    std::vector<std::size_t> fEffectPrior;
    void NoteEffect(Effect effect, nb::handle scope);
    // Tells what reading the record of `scope` found (None: nothing).
    void RecordRead(nb::handle scope, nb::handle record);
    // Whether no scope a kept value read has had its records changed since
    // the value was worked out.
    template <class T>
    bool RecordsStand(const EngineMemo::KeptFact<T> &kept);
    // Tells the context again what a kept answer told it.
    void Replay(const Effects &effects);
    Effects EffectsFrom(std::size_t start) const;
    // Collects the effects of the work done in its lifetime (Taken()), for
    // a fact kept between requests.
    class EffectsCollector {
    public:
        explicit EffectsCollector(CEvaluator &ev) : ev_(ev), from_(ev.fEffects.size()) {
            ++ev.fCollecting;
            ev.fEffectStarts.push_back(from_);
        }
        ~EffectsCollector() {
            ev_.fEffectStarts.pop_back();
            if (--ev_.fCollecting == 0) {
                ev_.fEffects.clear();
                ev_.fEffectPrior.clear();
                ev_.fEffectLast.clear();
            }
        }
        Effects Taken() const { return ev_.EffectsFrom(from_); }
        EffectsCollector(const EffectsCollector &) = delete;
        EffectsCollector &operator=(const EffectsCollector &) = delete;

    private:
        CEvaluator &ev_;
        std::size_t from_;
    };
    void ImportSeen(nb::handle module_scope);
    // The scopes and imports told to our own context in this request (it
    // holds them): telling one again changes nothing, and costs a hash.
    PointerSet fToldSeen;
    PointerSet fToldImports;
    std::map<std::string, std::string> fModuleNames;  // url -> dotted name
    std::map<std::string, bool> fProtocolFits;        // protocol|class -> fits
    // The type arguments a value gives a protocol's variables, by protocol,
    // value, variables and bindings; partial while being matched or when cut.
    std::map<std::string, Kept<TypeMap>> fProtocolArgs;
    // Method orders of specialised classes, by class, arguments, map and the
    // bindings read.
    std::map<std::string, Kept<std::vector<MroEntry>>> fRequestMros;
    // Names whose value a call fixes while its body is read: the first
    // parameter of a bound method is what it is bound to.
    std::map<std::tuple<std::string, std::string, std::string>, ValueSet, std::less<>> fBoundNames;
    // LogicalReachable's answers by (url, scope, logical, bindings signature).
    std::map<std::tuple<std::string, std::string, long long, std::string>, bool> fReachable;
    // CallersNotReaching by (url, scope, logical, bindings signature).
    std::map<std::tuple<std::string, std::string, long long, std::string>, CallerReach> fCallersNotReaching;
    // The type arguments of the classes whose instance attributes are being
    // read: (url, class name, map), innermost last.
    std::vector<std::tuple<std::string, std::string, TypeMap>> fClassMaps;
};

}  // namespace pysource::infer

// CEvaluator: the work of one request to the inference engine.  It reads
// records through the info cache, evaluates expression text over the
// analyzer's parse tree, follows names by Python's scoping rules, imports
// through the module finder, attributes through classes and their bases,
// calls through return hints and return statements, and type hints through
// typing's forms and type variables.  It lives for one request: its memos
// never outlast a change of the records.
#pragma once

#include <nanobind/nanobind.h>

#include <map>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "pysource/infer/inferencectx.h"
#include "pysource/infer/inferenceengine.h"
#include "pysource/pgeninspect/tree.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"

namespace nb = nanobind;

namespace pysource::infer {

// The single behind a Python handle, and the dotted name of its scope.
inline symbolinfo::CSingleResolvedInfo *Single(nb::handle obj) {
    return nb::cast<symbolinfo::CSingleResolvedInfo *>(obj);
}
inline std::string_view NameOf(symbolinfo::CSingleResolvedInfo *s) {
    return symbolinfo::TextView(s->scope->name, "name");
}

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
    std::vector<nb::object> Items() && { return std::move(fItems); }
    nb::object AsFrozenSet() const;
    static ValueSet FromIterable(nb::handle items);
    static std::size_t gMaxValues;

private:
    std::vector<nb::object> fItems;
};

// Type variable name -> what it stands for (instances, or classes for
// type[T]).
using TypeMap = std::map<std::string, ValueSet>;

// A class in a method resolution order, with the type arguments its
// subclass gave it.
struct MroEntry {
    nb::object cls;  // the class single
    TypeMap map;
};

// What the engine keeps from one request to the next: facts derived from
// primary records alone (method orders, type variables of classes, values
// read in library files).  They stand while the info cache's primary records
// do (its primary generation) and go as a whole when any of them changes.
struct EngineMemo {
    std::uint64_t generation = ~std::uint64_t(0);
    PyObject *conditions = nullptr;  // the condition evaluator the facts were read under
    std::map<std::string, std::vector<MroEntry>> mros;  // url|name|class single
    std::map<std::string, std::vector<std::string>> type_vars;
    std::map<std::tuple<std::string, std::string, std::string, long long>, ValueSet> library_values;
    std::map<std::string, bool> library_urls;  // url -> a file without derived info

    void Clear(std::uint64_t new_generation) {
        generation = new_generation;
        mros.clear();
        type_vars.clear();
        library_values.clear();
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
    ValueSet EvalString(const Tree &tree, const pgen::Node &n);
    ValueSet EvalCall(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalSubscript(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalBinOp(const Tree &tree, const pgen::Node &n, const Frame &frame);
    bool IsTypeOperand(const ValueSet &values);
    static bool IsNoneLiteral(nb::handle single);
    static ValueSet WithoutNone(const ValueSet &values);
    // The class single `cls` specialised with `args` (list[int] from list).
    nb::object WithTypeArgs(nb::handle cls, const std::vector<ValueSet> &args);
    // Homogeneous tuples carry this set after their item type
    // (tuple[int, ...]); positional ones carry one set per item.
    nb::object EllipsisArg();
    static bool IsEllipsisArg(nb::handle arg);
    // The type arguments of a tuple by position, or false when it is
    // homogeneous or has none.
    static bool TuplePositions(nb::handle single, std::vector<nb::object> &positions);
    ValueSet EvalDisplay(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet EvalComprehension(const Tree &tree, const pgen::Node &n, const Frame &frame);

    // Type hints.
    ValueSet EvalType(const Tree &tree, std::int32_t node, const Frame &frame);
    ValueSet EvalTypeSubscript(const Tree &tree, const pgen::Node &n, const Frame &frame);
    ValueSet TypeOfSingle(nb::handle single, const Frame &frame);
    void TypeArgsOf(const Tree &tree, std::int32_t slice, const Frame &frame, std::vector<ValueSet> &args);
    // Binds the type variables of `hint` (read in `scope`) from what a
    // parameter received.
    void BindTypeVars(nb::handle scope, std::string_view hint, const ValueSet &received, TypeMap &map);
    TypeMap ProtocolTypeArgs(nb::handle protocol, const std::vector<std::string> &vars, nb::handle value);
    void BindNode(const Tree &tree, std::int32_t node, const Frame &frame, const ValueSet &received,
                  TypeMap &map);

    // Names and records.
    ValueSet LookupName(nb::handle scope, std::string_view name, long long use_index);
    ValueSet LookupInScopeChain(nb::handle scope, std::string_view name);
    int StarOfParameter(nb::handle record, long long index);
    static constexpr long long kMaxStarPositions = 16;
    bool ScopeDeclaresTypeParam(nb::handle scope, nb::handle record, std::string_view name, ValueSet &out);
    bool FindLocal(nb::handle scope, std::string_view name, long long use_index, ValueSet &out,
                   int &redirect);
    // With `name`, the values of that name at `use_index` in its own scope,
    // narrowed by the tests around the use.
    ValueSet EntryValues(nb::handle scope, nb::handle record, std::string_view entry,
                         long long use_index, std::string_view name = {});
    ValueSet ValuesOfSingle(nb::handle scope, std::string_view single, long long use_index);
    // The branch headers around each body logical of a scope, from the
    // engine's flow provider; null when it can't tell.
    const std::vector<std::vector<long long>> *BlockPathsOf(nb::handle scope);
    static bool BlockHolds(const std::vector<std::vector<long long>> &paths, long long setting, long long use);
    // An `if`/`elif` header's tests of None: the names not None in its block,
    // and those not None once its statement is done.
    struct NoneTest {
        long long header;
        std::set<std::string, std::less<>> inside, after;
    };
    const std::vector<NoneTest> *NoneTestsOf(nb::handle scope);
    static bool IsParameterBinding(std::string_view single);
    // Whether a value of `name` set at body logical `setting` is surely not
    // None when it reaches the use at `use`.
    bool NoneExcluded(nb::handle scope, std::string_view name, long long setting, long long use);
    ValueSet ValuesOfWellFormedSingle(nb::handle scope, std::string_view single, long long use_index);
    ValueSet ModuleAttribute(nb::handle module_single, std::string_view name);
    ValueSet ModuleNamed(nb::handle loc, std::string_view dotted);
    nb::object ImportModule(std::string_view dotted, nb::handle from_loc);
    nb::object ImportRelative(long long level, std::string_view dotted, nb::handle from_loc);
    ValueSet FromImport(nb::handle scope, std::string_view module, std::string_view name);
    ValueSet BuiltinNamed(std::string_view name);
    nb::object ModuleScopeOf(nb::handle loc);
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
    ValueSet ReturnsOfDef(nb::handle def, const TypeMap &map);
    bool IsGeneratorDef(nb::handle loc, std::string_view def_name);
    ValueSet CallDunder(const ValueSet &receivers, std::string_view method, const std::vector<ValueSet> &args);
    ValueSet IterItems(const ValueSet &values);
    // Keyword arguments of a call; a null pointer where they aren't known.
    using Keywords = std::vector<std::pair<std::string, ValueSet>>;
    bool OverloadAccepts(nb::handle def, const std::vector<ValueSet> &args, const Keywords *kwargs = nullptr);
    bool ValueFitsHint(nb::handle def_scope, const std::string &hint, const ValueSet &given);
    std::optional<bool> LiteralsFit(const ValueSet &wanted, const ValueSet &given);
    ValueSet SelectOverloads(const ValueSet &callees, const std::vector<ValueSet> &args,
                             const Keywords *kwargs = nullptr);
    bool IsProtocolClass(nb::handle cls);
    bool ProtocolAccepts(nb::handle protocol, nb::handle cls);

    // Singles.
    nb::object ClassSingle(nb::handle loc, std::string_view bare_class_info);
    nb::object DefSingle(nb::handle loc, std::string_view bare_def_info, char kind);
    nb::object ModuleSingle(nb::handle loc, std::string_view dotted);
    nb::object LiteralSingle(std::string_view class_name, const std::optional<std::string> &value);
    nb::object TypeParamSingle(nb::handle scope, std::string_view name, std::string_view kind);
    nb::object BuiltinClass(std::string_view name);
    nb::object TypingClass(std::string_view name);

    // Stub conditions: 1 holds, 0 doesn't, -1 can't be told (counts as
    // holding).
    int EvaluateCondition(std::string_view condition);
    bool ConditionsHold(std::string_view single);

    bool Stop();  // out of time or too deep: give up this branch
    bool IsLibraryScope(nb::handle scope);
    // A key for memos of a class single.
    static std::string ClassKey(nb::handle cls);
    void Seen(nb::handle scope);

    CInferenceEngine &fEngine;
    nb::object fCtxObject;
    CInferContext *fCtx;  // null when the context is not ours
    nb::object fInfoCache;
    nb::object fLocCache;
    nb::object fFinder;
    int fDepth = 0;
    std::uint64_t fSteps = 0;  // calls of Stop
    static constexpr std::uint64_t kStepsPerClockReading = 8;
    int fArgHops = 0;  // arguments followed into their callers, nested
    bool fGaveUp = false;
    // Answers that depend on this request's path (a cut cycle, a stop) are
    // not kept: these count them.
    std::uint64_t fCuts = 0;
    EngineMemo &fMemo;
    std::string fPrimaryScanName;
    nb::dict fRecords;  // scope -> merged record, or None
    std::set<std::tuple<std::string, std::string, std::string, long long>> fActive;
    std::map<std::string, std::string> fModuleNames;  // url -> dotted name
    std::map<std::string, bool> fProtocolFits;        // protocol|class -> fits
    // Names whose value a call fixes while its body is read: the first
    // parameter of a bound method is what it is bound to.
    std::map<std::tuple<std::string, std::string, std::string>, ValueSet> fBoundNames;
    // The type arguments of the classes whose instance attributes are being
    // read: (url, class name, map), innermost last.
    std::vector<std::tuple<std::string, std::string, TypeMap>> fClassMaps;
    std::map<std::pair<std::string, std::string>, std::optional<std::vector<std::vector<long long>>>> fBlockPaths;
    std::map<std::pair<std::string, std::string>, std::optional<std::vector<NoneTest>>> fNoneTests;
};

}  // namespace pysource::infer

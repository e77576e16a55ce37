#include "pysource/infer/infertyping.h"

#include <array>
#include <utility>

#include "pysource/infer/inferencectx.h"

namespace pysource::infer {

namespace {

// typing's special forms and aliases, by the name they have there, with the
// canonical name the engine works with: the builtin or collections class
// for an alias of one, else the form's own name.
constexpr std::array<std::pair<std::string_view, std::string_view>, 63> kSpecialForms{{
    {"Any", "Any"}, {"Optional", "Optional"}, {"Union", "Union"}, {"Literal", "Literal"},
    {"Final", "Final"}, {"ClassVar", "ClassVar"}, {"Annotated", "Annotated"},
    {"TypeGuard", "TypeGuard"}, {"TypeIs", "TypeIs"}, {"Self", "Self"}, {"Never", "Never"},
    {"NoReturn", "NoReturn"}, {"Generic", "Generic"}, {"Protocol", "Protocol"},
    // The stubs spell these two as variables of the classes below.
    {"_Generic", "Generic"}, {"_Protocol", "Protocol"},
    {"Callable", "Callable"}, {"Concatenate", "Concatenate"}, {"Unpack", "Unpack"},
    {"Required", "Required"}, {"NotRequired", "NotRequired"}, {"ReadOnly", "ReadOnly"},
    {"TypeAlias", "TypeAlias"}, {"LiteralString", "LiteralString"}, {"TypeVar", "TypeVar"},
    {"ParamSpec", "ParamSpec"}, {"TypeVarTuple", "TypeVarTuple"}, {"NewType", "NewType"},
    {"NamedTuple", "NamedTuple"}, {"TypedDict", "TypedDict"},
    {"List", "list"}, {"Dict", "dict"}, {"Set", "set"}, {"FrozenSet", "frozenset"},
    {"Tuple", "tuple"}, {"Type", "type"}, {"Text", "str"},
    {"DefaultDict", "collections.defaultdict"}, {"OrderedDict", "collections.OrderedDict"},
    {"Counter", "collections.Counter"}, {"Deque", "collections.deque"},
    {"ChainMap", "collections.ChainMap"},
    {"Iterable", "Iterable"}, {"Iterator", "Iterator"}, {"Sequence", "Sequence"},
    {"MutableSequence", "MutableSequence"}, {"Mapping", "Mapping"},
    {"MutableMapping", "MutableMapping"}, {"AbstractSet", "AbstractSet"},
    {"MutableSet", "MutableSet"}, {"Collection", "Collection"}, {"Container", "Container"},
    {"Generator", "Generator"}, {"AsyncGenerator", "AsyncGenerator"},
    {"AsyncIterator", "AsyncIterator"}, {"AsyncIterable", "AsyncIterable"},
    {"Awaitable", "Awaitable"}, {"Coroutine", "Coroutine"}, {"Reversible", "Reversible"},
    {"ItemsView", "ItemsView"}, {"KeysView", "KeysView"}, {"ValuesView", "ValuesView"},
    {"MappingView", "MappingView"},
}};

}  // namespace

std::string_view CanonicalSpecialForm(std::string_view name) {
    for (const auto &[form, canonical] : kSpecialForms)
        if (form == name)
            return canonical;
    return {};
}

bool IsTypingModuleName(std::string_view module) {
    return module == "typing" || module == "typing_extensions" || module == "collections.abc" ||
           module == "_collections_abc" || module == "__typing__";
}

CTypeVarInfo::CTypeVarInfo(nb::handle name, nb::handle kind, nb::handle bound, nb::handle constraints,
                           nb::handle default_text, nb::handle scope)
    : fName(nb::str(name)), fKind(nb::str(kind)), fBound(nb::borrow(bound)),
      fConstraints(constraints.is_none() ? nb::object(nb::tuple()) : nb::object(nb::tuple(constraints))),
      fDefault(nb::borrow(default_text)), fScope(nb::borrow(scope)) {}

CTypingGenericSupport::CTypingGenericSupport(nb::object engine) : fEngine(std::move(engine)) {}

}  // namespace pysource::infer

// Small helpers shared by the files of the secondary scan.
#pragma once

#include <nanobind/nanobind.h>

#include <string_view>
#include <utility>
#include <vector>

#include "pysource/infokinds.h"
#include "pysource/scope.h"
#include "pysource/scopescanner/primaryutil.h"

namespace nb = nanobind;

namespace pysource::secondaryutil {

using primaryutil::RaiseAssertion;
using primaryutil::ScopeOf;
using primaryutil::TextOf;

// A sub-context of a resolution whose Done is called exactly once: by
// Finish, or on the way out when Finish wasn't reached.
class CSubContext {
public:
    explicit CSubContext(nb::handle parent_ctx);
    ~CSubContext();
    CSubContext(const CSubContext &) = delete;
    CSubContext &operator=(const CSubContext &) = delete;

    nb::handle get() const { return fCtx; }
    void Finish();

private:
    nb::object fCtx;
    bool fFinished = false;
};

// A sub-context made on first need (one serves several steps).
class CLazySubContext {
public:
    explicit CLazySubContext(nb::handle parent_ctx) : fParent(parent_ctx) {}
    ~CLazySubContext();
    CLazySubContext(const CLazySubContext &) = delete;
    CLazySubContext &operator=(const CLazySubContext &) = delete;

    nb::handle get();
    void Finish();

private:
    nb::handle fParent;
    nb::object fCtx;
    bool fFinished = false;
};

// Whether `obj` is a str, a TypeError naming `what` otherwise.
void RequireStr(nb::handle obj, const char *what);
void RequireBytes(nb::handle obj, const char *what);

bool EndsWith(std::string_view text, std::string_view tail);
bool StartsWith(std::string_view text, std::string_view head);

// The scope's location, as stored.
nb::object LocOf(nb::handle scope);

// Python truth, equality and membership.
bool Truth(nb::handle value);
bool Equal(nb::handle a, nb::handle b);
bool Contains(nb::handle container, nb::handle item);
bool HasItems(nb::handle sized);  // None counts as empty

// The resolved set of a resolve result (its `resolved` field).
nb::object ResolvedOf(nb::handle result);
// Whether the context says the last resolve was incomplete.
bool CtxIncomplete(nb::handle ctx);

// All items but the last of `parts` joined with `sep`.
nb::str JoinAllButLast(nb::handle parts, std::string_view sep);

// The singles of a record entry (`compound`) that say a value (not a read,
// a call or a `global` declaration), each with its kind, wrappers aside.
std::vector<std::pair<std::string_view, symbolinfo::Kind>> ValueSingles(std::string_view compound);

// Whether the debug statistics are on.
bool DbgStatsOn();

}  // namespace pysource::secondaryutil

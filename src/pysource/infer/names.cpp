// Names, records, imports and the singles made from record entries.
#include "pysource/infer/evaluator.h"

#include <nanobind/stl/string.h>

#include <sys/stat.h>

#include <algorithm>
#include <bitset>
#include <cctype>
#include <charconv>
#include <cmath>

#include "pysource/docstringhints.h"
#include "pysource/exprtext.h"
#include "pysource/fastaccess.h"
#include "basekit/stackguard.h"
#include "pysource/infer/infertyping.h"
#include "pysource/infocache.h"
#include "pysource/infer/modulefinder.h"
#include "pysource/infokinds.h"
#include "pysource/nesting.h"
#include "pysource/packedops.h"
#include "pysource/pgeninspect/parser.h"
#include "pysource/pytext.h"
#include "pysource/resolvedinfo.h"
#include "pysource/scope.h"
#include "pysource/scopeinfo.h"
#include "pysource/scopename.h"
#include "pysource/scoperef.h"
#include "pysource/untracked.h"

namespace pysource::infer {

namespace si = symbolinfo;

namespace {

bool FileExists(const std::string &path) {
    struct stat st;
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}


// The kinds of the singles of an entry.
using EntryKinds = std::bitset<256>;

bool Has(const EntryKinds &kinds, si::Kind kind) { return kinds.test((unsigned char) kind); }

// Whether the singles of an entry say the name is bound in the scope.
bool BindsName(const EntryKinds &kinds) {
    for (si::Kind kind : {si::kSetKind, si::kArgKind, si::kGlobalKind, si::kNonlocalKind, si::kTypeHintKind,
                          si::kFunctionKind, si::kMethodKind, si::kUnboundMethodKind, si::kClassKind,
                          si::kImportKind, si::kImportAsNameKind, si::kFromImportKind, si::kConditionalKind,
                          si::kTypeParameterKind})
        if (Has(kinds, kind))
            return true;
    return false;
}

// Whether a single gives the name a value, rather than marking how the
// scope uses it.
// The logical index of a `:S` piece (where its name is first set).
// The kind of a piece's single without wrappers and index.
si::Kind BareKindOf(const EntryPiece &piece) {
    return piece.malformed ? si::GetInfoBytesKind(si::BareSingle(piece.single)) : piece.bare_kind;
}

std::optional<long long> FirstSetIndex(const EntryPiece &piece) {
    std::string_view first = piece.bare;
    long long at = -1;
    if (piece.malformed || piece.bare_kind != si::kSetKind ||
        std::from_chars(first.data() + si::kPrefixLen, first.data() + first.size(), at).ec != std::errc())
        return std::nullopt;
    return at;
}

}  // namespace

std::size_t HashText(std::string_view text) {
    constexpr std::size_t kWholeBytes = 4096;  // up to this long, every byte
    constexpr std::size_t kEndBytes = 1024;    // of a longer text: each end
    constexpr std::size_t kSamples = 32;       // and this many windows between
    constexpr std::size_t kSampleBytes = 32;
    std::hash<std::string_view> hash_bytes;
    if (text.size() <= kWholeBytes)
        return hash_bytes(text);
    std::size_t hash = std::hash<std::size_t>{}(text.size());
    auto mix = [&](std::string_view part) { hash = hash * 1000003 ^ hash_bytes(part); };
    mix(text.substr(0, kEndBytes));
    mix(text.substr(text.size() - kEndBytes));
    std::size_t stride = (text.size() - kSampleBytes) / kSamples;
    for (std::size_t i = 1; i < kSamples; ++i)
        mix(text.substr(i * stride, kSampleBytes));
    return hash;
}

bool SaysValue(si::Kind kind) {
    switch (kind) {
    case si::kCalledKind:
    case si::kGetKind:
    case si::kSetKind:
    case si::kSetTypeHintKind:
    case si::kDecoratorKind:
    case si::kDiscardCallResultStatementKind:
    case si::kWithinExprKind:
    case si::kSetTrailersKind:
    case si::kGlobalKind:
    case si::kNonlocalKind:
    case si::kLogicalIndexKind:
        return false;
    default:
        return true;
    }
}

std::size_t ValueSet::gMaxValues = 64;

namespace {

// A key equal singles share: their location's address and their bytes'
// cached hash, never the foreign marker.
std::size_t SingleKey(const si::CSingleResolvedInfo &single) {
    Py_hash_t bytes_hash = PyObject_Hash(single.ibytes.ptr());
    if (bytes_hash == -1)
        throw nb::python_error();
    std::size_t key = std::hash<const void *>{}(single.loc.ptr()) * 31 + static_cast<std::size_t>(bytes_hash);
    return key == 0 ? 1 : key;
}

// A copy of a single that closes over the names both it and `other` (a
// closure tuple, or None) bind, each bound to what either binds it to.
nb::object WithMergedClosure(const si::CSingleResolvedInfo &single, nb::handle other) {
    nb::ref<si::CSingleResolvedInfo> copy(
        new si::CSingleResolvedInfo(single.ibytes, single.scope, single.loc, single.fClassRef));
    copy->fTypeArgs = single.fTypeArgs;
    copy->fDisplayItems = single.fDisplayItems;
    copy->fMadeWith = single.fMadeWith;
    copy->fBoundTo = single.fBoundTo;
    nb::list merged;
    if (!other.is_none())
        for (nb::handle mine : single.fClosure)
            for (nb::handle theirs : other) {
                nb::tuple a = nb::borrow<nb::tuple>(mine), b = nb::borrow<nb::tuple>(theirs);
                if (!a[0].equal(b[0]) || !a[1].equal(b[1]) || !a[2].equal(b[2]))
                    continue;
                ValueSet values = ValueSet::FromIterable(a[3]);
                values.Merge(ValueSet::FromIterable(b[3]));
                merged.append(nb::make_tuple(a[0], a[1], a[2], values.AsFrozenSet()));
            }
    if (merged.size())
        copy->fClosure = nb::tuple(merged);
    return nb::cast(copy);
}

}  // namespace

namespace {

// Whether two methods are bound to the same receiver (or neither is): the
// method of one class reached through receivers of two subclasses is two
// values, each binding `self`/`cls` to its own.
bool SameReceiver(const si::CSingleResolvedInfo &a, const si::CSingleResolvedInfo &b) {
    if (a.fBoundTo.is(b.fBoundTo))
        return true;
    if (a.fBoundTo.is_none() || b.fBoundTo.is_none())
        return false;
    if (!IsExactly<si::CSingleResolvedInfo>(a.fBoundTo) || !IsExactly<si::CSingleResolvedInfo>(b.fBoundTo))
        return a.fBoundTo.equal(b.fBoundTo);
    return nb::inst_ptr<si::CSingleResolvedInfo>(a.fBoundTo)->Equals(*nb::inst_ptr<si::CSingleResolvedInfo>(b.fBoundTo));
}

}  // namespace

void ValueSet::Add(nb::handle single) {
    if (fItems.size() >= gMaxValues)
        return;
    AddKeyed(single, IsExactly<si::CSingleResolvedInfo>(single)
                         ? SingleKey(*nb::inst_ptr<si::CSingleResolvedInfo>(single))
                         : kForeign);
}

void ValueSet::AddKeyed(nb::handle single, std::size_t key) {
    if (fItems.size() >= gMaxValues)
        return;
    // Our own singles compare in C++, after their keys; anything else as
    // Python compares it.
    const bool own = key != kForeign;
    const si::CSingleResolvedInfo *own_single = own ? nb::inst_ptr<si::CSingleResolvedInfo>(single) : nullptr;
    for (std::size_t i = 0; i < fItems.size(); ++i) {
        const nb::object &item = fItems[i];
        if (item.is(single))
            return;
        const std::size_t item_key = KeyAt(i);
        if (own && item_key != kForeign) {
            if (item_key == key && nb::inst_ptr<si::CSingleResolvedInfo>(item)->Equals(*own_single) &&
                SameReceiver(*nb::inst_ptr<si::CSingleResolvedInfo>(item), *own_single)) {
                // One value made by calls that bound different things: each
                // name is then what any of them bound.
                const si::CSingleResolvedInfo *had = nb::inst_ptr<si::CSingleResolvedInfo>(item);
                if (!had->fClosure.is_none() && !had->fClosure.equal(own_single->fClosure))
                    fItems[i] = WithMergedClosure(*had, own_single->fClosure);
                return;
            }
        } else if (item.equal(single)) {
            return;
        }
    }
    if (fItems.empty()) {
        // Most sets hold a few values: room for them at once, not by doubling.
        fItems.reserve(kFirstRoom);
    }
    if (fItems.size() < kFirstRoom)
        fFirstKeys[fItems.size()] = key;
    else
        fMoreKeys.push_back(key);
    fItems.push_back(nb::borrow(single));
}

void ValueSet::Merge(const ValueSet &other) {
    if (fItems.empty() && other.fItems.size() <= gMaxValues) {
        // The other's values are distinct already.
        fItems = other.fItems;
        fFirstKeys = other.fFirstKeys;
        fMoreKeys = other.fMoreKeys;
        return;
    }
    for (std::size_t i = 0; i < other.fItems.size(); ++i)
        AddKeyed(other.fItems[i], other.KeyAt(i));
}

nb::object ValueSet::AsFrozenSet() const {
    nb::list items;
    for (const nb::object &item : fItems)
        items.append(item);
    return AtomicFrozenSet(items);
}

ValueSet ValueSet::FromIterable(nb::handle items) {
    ValueSet out;
    if (!items.is_none())
        for (nb::handle item : items)
            out.Add(item);
    return out;
}

void EngineMemo::FreeRetiredSome(double seconds, CInferContext *ctx) {
    constexpr std::size_t kEntriesPerClockReading = 16;
    // Freeing stops this long before the request's deadline: an entry is
    // freed whole, and the allocator pays for frees again at its next large
    // allocation, so the cost lands after the clock was read.
    constexpr double kDeadlineMargin = 0.002;
    // A backlog beyond a memo's size gets ten times the time, so that freeing
    // keeps up with retiring; beyond a few memos' size, whatever the deadline.
    if (retired_entries > kMaxEntries)
        seconds *= 10;
    if (retired_entries > 4 * kMaxEntries)
        ctx = nullptr;
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    auto stop = [&] {
        return std::chrono::steady_clock::now() >= until ||
               (ctx && std::isfinite(ctx->fEndTime) && GetNowTime() >= ctx->fEndTime - kDeadlineMargin);
    };
    while (!retired.empty() && !stop()) {
        std::size_t budget = kEntriesPerClockReading;
        bool emptied = retired.front()->EraseSome(budget);
        retired_entries -= std::min(retired_entries, kEntriesPerClockReading - budget);
        if (emptied)
            retired.erase(retired.begin());
    }
    if (retired.empty())
        retired_entries = 0;
}

std::vector<std::pair<std::string, std::size_t>> EngineMemo::Counts() const {
    std::vector<std::pair<std::string, std::size_t>> counts;
    ForEachTable([&](const char *name, auto table) { counts.emplace_back(name, (this->*table).size()); });
    counts.emplace_back("retired", retired_entries);
    counts.emplace_back("project_values_found", project_values_found);
    counts.emplace_back("project_values_outdated", project_values_outdated);
    return counts;
}

void PointerSet::Clear(std::size_t expected) {
    std::size_t slots = 16;
    while (slots < 2 * expected)
        slots *= 2;
    fSlots.assign(slots, 0);
    fSize = 0;
}

void PointerSet::Resize(std::size_t slots) {
    std::vector<std::uintptr_t> old(slots, 0);
    old.swap(fSlots);
    fSize = 0;
    for (std::uintptr_t key : old)
        if (key)
            Insert(key);
}

bool PointerSet::Insert(std::uintptr_t key) {
    if (2 * (fSize + 1) > fSlots.size())
        Resize(fSlots.empty() ? 16 : 2 * fSlots.size());
    const std::size_t mask = fSlots.size() - 1;
    // Addresses differ mostly in their middle bits: mixed, then probed in turn.
    std::size_t at = static_cast<std::size_t>((key ^ (key >> 17)) * 0x9E3779B97F4A7C15ull >> 20) & mask;
    for (;; at = (at + 1) & mask) {
        if (fSlots[at] == key)
            return false;
        if (fSlots[at] == 0) {
            fSlots[at] = key;
            ++fSize;
            return true;
        }
    }
}

const LocationNames::Names &LocationNames::Of(nb::handle loc) {
    auto it = fByLoc.find(loc.ptr());
    if (it != fByLoc.end())
        return it->second;
    std::string url = LocationUrl(loc);
    auto key = fKeyByUrl.try_emplace(url, "\x01" + std::to_string(fKeyByUrl.size())).first;
    return fByLoc.emplace(loc.ptr(), Names{nb::borrow(loc), std::move(url), key->second}).first->second;
}

CEvaluator::CEvaluator(CInferenceEngine &engine, nb::handle ctx)
    : fEngine(engine), fCtxObject(nb::borrow(ctx)), fCtx(AsContext(ctx)), fMemo(*engine.fMemo) {
    fInfoCache = engine.fInfoCache;
    constexpr std::uint64_t kUnknown = ~std::uint64_t(0) - 1;
    auto generation_of = [&](const char *field, std::uint64_t CInfoCache::*member) {
        if (IsExactly<CInfoCache>(fInfoCache))
            return nb::cast<CInfoCache *>(fInfoCache)->*member;
        return nb::hasattr(fInfoCache, field) ? nb::cast<std::uint64_t>(fInfoCache.attr(field)) : kUnknown;
    };
    std::pair<PyObject *, std::uint64_t> finder{engine.fModuleFinder.ptr(), kUnknown};
    if (CModuleFinder *f = nb::isinstance<CModuleFinder>(engine.fModuleFinder)
                               ? nb::cast<CModuleFinder *>(engine.fModuleFinder)
                               : nullptr)
        finder.second = f->fGeneration;
    if (finder != fMemo.finder || finder.second == kUnknown) {
        fMemo.Forget();
        fMemo.finder = finder;
    }
    std::uint64_t generation = generation_of("fPrimaryGeneration", &CInfoCache::fPrimaryGeneration);
    std::tuple<int, int, std::size_t> limits{engine.fMaxDepth, engine.fMaxArgHops, engine.fMaxValues};
    if (fMemo.TextEntries() > EngineMemo::kMaxTextEntries)
        fMemo.ForgetTexts();
    if (generation != fMemo.generation || generation == kUnknown || fMemo.AnswerEntries() > EngineMemo::kMaxEntries ||
        fMemo.conditions != engine.fConditionEvaluator.ptr() || fMemo.flow != engine.fFlowProvider.ptr() ||
        limits != fMemo.limits) {
        fMemo.Clear(generation);
        fMemo.conditions = engine.fConditionEvaluator.ptr();
        fMemo.flow = engine.fFlowProvider.ptr();
        fMemo.limits = limits;
    }
    std::uint64_t records = generation_of("fRecordGeneration", &CInfoCache::fRecordGeneration);
    if (IsExactly<CInfoCache>(fInfoCache))
        fScopeGenerations = nb::cast<CInfoCache *>(fInfoCache);
    if ((records != fMemo.record_generation && !fScopeGenerations) || records == kUnknown)
        fMemo.ForgetProjectValues();
    fMemo.record_generation = records;
    fKeepProjectValues = records != kUnknown;
    fLocCache = engine._fLocCache;
    fFinder = engine.fModuleFinder;
    fPrimaryScanName = engine.fPrimaryScanName;
    ValueSet::gMaxValues = engine.fMaxValues;
    fMemo.FreeRetiredSome(kRetiredFreeingSeconds, fCtx);
}

void CEvaluator::GiveUpOutOfTime() {
    fGaveUp = true;
    ++fCuts;
    if (fCtx)
        fCtx->SetIncomplete(kOutOfTimeReason);
    else {
        fCtxObject.attr("fIncomplete") = true;
        fCtxObject.attr("fIncompleteReason") = nb::str(kOutOfTimeReason);
    }
}

bool CEvaluator::Stop() {
    if (fGaveUp)
        return true;
    // Every step of a request passes here: the clock is read every few
    // steps, the depth and the native stack every time.
    bool late = false;
    if (++fSteps % kStepsPerClockReading == 1)
        late = fCtx ? fCtx->PastDeadline() : nb::cast<bool>(fCtxObject.attr("OutOfTime")());
    if (late) {
        GiveUpOutOfTime();
        return true;
    }
    if (fDepth > fEngine.fMaxDepth || basekit::NativeStackLow()) {
        ++fCuts;
        if (fCtx)
            fCtx->SetIncomplete(kDepthReason);
        else if (!nb::cast<bool>(fCtxObject.attr("fIncomplete"))) {
            fCtxObject.attr("fIncomplete") = true;
            fCtxObject.attr("fIncompleteReason") = nb::str(kDepthReason);
        }
        return true;
    }
    return false;
}

void CEvaluator::NoteEffect(Effect effect, nb::handle scope) {
    if (!fCollecting)
        return;
    // (fEffects holds each scope noted: its address names it alone, and
    // leaves the low bits free for the kind.)
    static_assert(alignof(PyObject) >= 4);
    auto key = reinterpret_cast<std::uintptr_t>(scope.ptr()) | std::uintptr_t(effect);
    auto [last, added] = fEffectLast.try_emplace(key, fEffects.size());
    std::size_t prior = kNoPriorEffect;
    if (!added) {
        if (last->second >= fEffectStarts.back())
            return;
        prior = last->second;
        last->second = fEffects.size();
    }
    fEffects.emplace_back(effect, nb::borrow(scope));
    fEffectPrior.push_back(prior);
}

Effects CEvaluator::EffectsFrom(std::size_t start) const {
    // Each effect once, in the order first told: an entry is the first of
    // its effect from `start` on when the same effect was last noted before
    // `start` (or never).  One pass, however deep the collections nest.
    Effects unique_effects;
    for (std::size_t i = start; i < fEffects.size(); ++i)
        if (fEffectPrior[i] == kNoPriorEffect || fEffectPrior[i] < start)
            unique_effects.push_back(fEffects[i]);
    return unique_effects;
}

void CEvaluator::Replay(const Effects &effects) {
    for (const auto &[effect, scope] : effects)
        switch (effect) {
        case Effect::kSeen:
            Seen(scope);
            break;
        case Effect::kImport:
            ImportSeen(scope);
            break;
        case Effect::kNoRecord:
            NoteEffect(effect, scope);
            break;
        }
}

template <class T>
bool CEvaluator::RecordsStand(const EngineMemo::KeptFact<T> &kept) {
    if (kept.record_generation == fMemo.record_generation)
        return true;
    if (!fScopeGenerations)
        return false;
    for (const auto &[effect, scope] : kept.effects)
        if (fScopeGenerations->ScopeChangedAt(scope) > kept.record_generation)
            return false;
    return true;
}
template bool CEvaluator::RecordsStand(const EngineMemo::KeptFact<ValueSet> &);
template bool CEvaluator::RecordsStand(const EngineMemo::KeptFact<std::vector<MroEntry>> &);

void CEvaluator::ImportSeen(nb::handle module_scope) {
    NoteEffect(Effect::kImport, module_scope);
    if (fCtx) {
        if (fToldImports.Insert(reinterpret_cast<std::uintptr_t>(module_scope.ptr())))
            fCtx->AddResolvedImport(module_scope);
    }
    else
        fCtxObject.attr("MergeResolvedImports")(nb::make_tuple(module_scope));
}

void CEvaluator::Seen(nb::handle scope) {
    NoteEffect(Effect::kSeen, scope);
    if (fCtx) {
        if (fToldSeen.Insert(reinterpret_cast<std::uintptr_t>(scope.ptr())))
            fCtx->AddScopeToScopesSeen(scope);
    }
    else
        fCtxObject.attr("AddScopeToScopesSeen")(scope);
}

void CEvaluator::RecordRead(nb::handle scope, nb::handle record) {
    if (record.is_none())
        NoteEffect(Effect::kNoRecord, scope);
    else
        Seen(scope);
}

nb::object CEvaluator::RecordOf(nb::handle scope) {
    if (IsExactly<si::CScope>(scope)) {
        auto *own = nb::inst_ptr<si::CScope>(scope);
        auto hit = fScopeRecords.find(std::pair<PyObject *, std::string_view>{own->loc.ptr(), own->NameView()});
        if (hit != fScopeRecords.end()) {
            NoteEffect(hit->second.second.is_none() ? Effect::kNoRecord : Effect::kSeen, scope);
            return hit->second.second;
        }
        nb::object record = MadeClassRecord(own->loc, own->NameView());
        if (!record.is_valid())
            record = fInfoCache.attr("GetScopeInfo")(scope);
        fScopeRecords.emplace(ScopeKey{own->loc.ptr(), std::string(own->NameView())},
                              std::pair{nb::borrow(scope), record});
        RecordRead(scope, record);
        return record;
    }
    if (PyObject *hit = PyDict_GetItemWithError(fRecords.ptr(), scope.ptr())) {
        NoteEffect(hit == Py_None ? Effect::kNoRecord : Effect::kSeen, scope);
        return nb::borrow(hit);
    }
    if (PyErr_Occurred())
        throw nb::python_error();
    nb::object record = fInfoCache.attr("GetScopeInfo")(scope);
    fRecords[scope] = record;
    RecordRead(scope, record);
    return record;
}

nb::object CEvaluator::InfoBytesOf(nb::handle record, std::string_view name) {
    nb::str key(name.data(), name.size());
    if (IsExactly<CScopeInfo>(record))
        return nb::inst_ptr<CScopeInfo>(record)->GetInfoBytes(key, nb::none(), false);
    return record.attr("GetInfoBytes")(key);
}

nb::object CEvaluator::ModuleScopeOf(nb::handle loc) {
    auto it = fMemo.module_scopes.find(loc.ptr());
    if (it == fMemo.module_scopes.end())
        it = fMemo.module_scopes.emplace(loc.ptr(), std::pair{nb::borrow(loc), MakeScope(loc, "")}).first;
    return it->second.second;
}

nb::object CEvaluator::BuiltinLoc() {
    if (!fBuiltinLoc.is_valid())
        fBuiltinLoc = fLocCache.attr("GetBuiltinLoc")();
    return fBuiltinLoc;
}

nb::object CEvaluator::ModuleRecord(nb::handle loc) {
    nb::object scope = ModuleScopeOf(loc);
    nb::object record = RecordOf(scope);
    if (!record.is_none())
        return record;
    // No record: a file not scanned yet is a scan to ask for; a file that
    // doesn't exist is simply nothing.  Neither answer is kept: the file's
    // first records, when they come, don't make kept answers go.
    ++fCuts;
    std::string path = LocationPath(loc);
    bool scannable = path.empty() ? !nb::hasattr(loc, "fPath") : FileExists(path);
    if (scannable) {
        if (fCtx) {
            fCtx->AddNeedsScan(scope, nb::str(fPrimaryScanName.c_str()));
            fCtx->SetIncomplete(kCannotScanReason);
        } else {
            nb::object needs = fCtxObject.attr("fNeedsScan");
            if (needs.is_none()) {
                fCtxObject.attr("fNeedsScan") = nb::steal(PySet_New(nullptr));
                needs = fCtxObject.attr("fNeedsScan");
            }
            needs.attr("add")(nb::make_tuple(scope, nb::str(fPrimaryScanName.c_str())));
            fCtxObject.attr("fIncomplete") = true;
            fCtxObject.attr("fIncompleteReason") = nb::str(kCannotScanReason);
        }
    }
    return record;
}

std::string CEvaluator::ScopeKindOf(nb::handle scope) {
    std::string_view name = ScopeName(scope);
    if (name.empty())
        return "module";
    nb::object record = RecordOf(scope);
    if (record.is_none())
        return "";
    std::string_view own = si::TextView(record.attr("ibytes"), "ibytes");
    si::Kind kind = si::GetInfoBytesKind(si::BareSingle(own));
    if (kind == si::kClassKind)
        return "class";
    if (si::IsDefKind(kind))
        return "def";
    if (kind == si::kInstanceKind)
        return "instance";
    return "";
}

int CEvaluator::EvaluateCondition(std::string_view condition) {
    nb::object evaluator = fEngine.fConditionEvaluator;
    if (IsExactly<CSimpleConditionEvaluator>(evaluator))
        return nb::cast<CSimpleConditionEvaluator *>(evaluator)->EvaluateText(condition);
    nb::object v = evaluator.attr("Evaluate")(nb::str(condition.data(), condition.size()));
    return v.is_none() ? -1 : (nb::cast<bool>(v) ? 1 : 0);
}

bool CEvaluator::ConditionsHold(std::string_view single) {
    // Conditionals may wrap one another, under scope marks.
    for (;;) {
        si::Kind kind = si::GetInfoBytesKind(single);
        if (kind == si::kConditionalKind) {
            auto [condition, wrapped] = si::UnpackConditionalInfo(single);
            if (EvaluateCondition(condition) == 0)
                return false;
            single = wrapped;
        } else if (si::IsScopeMarkKind(kind)) {
            si::UnpackedFields f = si::UnpackFields(single, kind == si::kBuiltinModuleKind || kind == si::kTypingModuleKind ? 0 : 1);
            if (f.rest.empty())
                return true;
            single = f.rest;
        } else {
            return true;
        }
    }
}

// ---------------------------------------------------------------- singles

namespace {

template <class Info, class Unpack>
std::shared_ptr<const Info> KeptInfo(TextMap<std::shared_ptr<const Info>> &kept, std::string_view single,
                                     Unpack unpack) {
    auto it = kept.find(single);
    if (it == kept.end())
        it = kept.emplace(std::string(single), std::make_shared<const Info>(unpack(single))).first;
    return it->second;
}

}  // namespace

std::shared_ptr<const si::DefInfo> CEvaluator::DefInfoOf(std::string_view single) {
    return KeptInfo(fMemo.def_infos, single, si::UnpackDefInfo);
}

std::shared_ptr<const std::vector<Param>> CEvaluator::KeptParamsOf(const si::DefInfo &def) {
    // (A def without declared arguments keys on the empty text: it has none either way.)
    std::string_view declared = def.arg_decl ? std::string_view(*def.arg_decl) : std::string_view();
    auto it = fMemo.params.find(declared);
    if (it == fMemo.params.end())
        it = fMemo.params.emplace(std::string(declared), std::make_shared<const std::vector<Param>>(ParamsOf(def))).first;
    return it->second;
}

std::shared_ptr<const si::ClassInfo> CEvaluator::ClassInfoOf(std::string_view single) {
    return KeptInfo(fMemo.class_infos, single, si::UnpackClassInfo);
}

std::shared_ptr<const ParsedText> CEvaluator::ParseText(std::string_view text) {
    bool large = fMemo.large_parsed_texts.IsLarge(text);
    if (large) {
        if (const auto *kept = fMemo.large_parsed_texts.Find(text))
            return *kept;
    } else if (auto it = fMemo.parsed_texts.find(text); it != fMemo.parsed_texts.end()) {
        return it->second;
    }
    if (large && PutOffParse(text)) {
        static const auto kNotParsed = std::make_shared<const ParsedText>();
        return kNotParsed;
    }
    // A bounded number of trees: past it they are read afresh (and the old
    // ones freed a little at a time).
    constexpr std::size_t kMaxParsedTexts = 1 << 15;
    if (fMemo.parsed_texts.size() >= kMaxParsedTexts)
        fMemo.RetireTable(&MemoTables::parsed_texts);
    auto parsed = std::make_shared<ParsedText>();
    parsed->root = pgen::ParseEmbeddedExpression(parsed->tree, parsed->tree.Keep(std::string(text)), 0, true);
    if (large)
        return fMemo.large_parsed_texts.Keep(text, std::move(parsed));
    return fMemo.parsed_texts.emplace(std::string(text), std::move(parsed)).first->second;
}

// The parse of a long text is one step, of milliseconds for hundreds of
// kilobytes: when the request hasn't the time left for it, it stops out of
// time, and the next request (a scan's next slice) parses it.  A text put
// off once is parsed the next time however little time is left, so that
// short slices get there too.
bool CEvaluator::PutOffParse(std::string_view text) {
    constexpr double kParseSecondsPerByte = 10e-9;
    if (!fCtx || !std::isfinite(fCtx->fEndTime))
        return false;
    std::size_t key = HashText(text);
    if (fMemo.parse_put_off == key ||
        fCtx->fEndTime - GetNowTime() >= kParseSecondsPerByte * static_cast<double>(text.size()))
        return false;
    fMemo.parse_put_off = key;
    GiveUpOutOfTime();
    return true;
}

std::shared_ptr<const ParsedEntry> CEvaluator::EntryOf(std::string_view entry) {
    bool large = fMemo.large_entries.IsLarge(entry);
    if (large) {
        if (const auto *kept = fMemo.large_entries.Find(entry))
            return *kept;
    } else if (auto it = fMemo.entries.find(entry); it != fMemo.entries.end()) {
        return it->second;
    }
    auto parsed = std::make_shared<ParsedEntry>();
    parsed->text.assign(entry);
    for (std::string_view single : si::NonNestedSplit(parsed->text, ";")) {
        si::SuffixSplit split = si::SplitLogicalIndexSuffix(single);
        EntryPiece piece{single, split.single, split.logical_index, si::GetInfoBytesKind(split.single), si::Kind{},
                         false, {}};
        try {
            piece.bare = si::BareSingle(single);
            piece.bare_kind = si::GetInfoBytesKind(piece.bare);
        } catch (const std::invalid_argument &) {
            piece.malformed = true;
        }
        parsed->kinds.set((unsigned char) piece.kind);
        parsed->set_in_nested_scope |= piece.kind == si::kSpecificScopeKind && FirstSetIndex(piece).has_value();
        parsed->pieces.push_back(piece);
    }
    if (large)
        return fMemo.large_entries.Keep(entry, std::move(parsed));
    return fMemo.entries.emplace(std::string(entry), std::move(parsed)).first->second;
}

namespace {

auto OptViewOf(const si::OptText &t) { return t ? si::OptView(*t) : si::OptView(); }

// A single of `loc` in canonical form, whose scope name and text `make`
// gives once per `key`.
template <class Make>
nb::object KeptCanonicalSingle(CEvaluator &ev, TextMap<std::pair<std::string, nb::object>> &kept, nb::handle loc,
                               std::string_view key, Make make) {
    auto it = kept.find(key);
    if (it == kept.end()) {
        auto [name, canonical] = make();
        it = kept.emplace(std::string(key), std::pair{std::move(name), si::ToBytes(canonical)}).first;
    }
    nb::object scope = ev.ScopeAt(loc, it->second.first);
    return nb::cast(nb::ref<si::CSingleResolvedInfo>(
        new si::CSingleResolvedInfo(it->second.second, nb::cast<si::CScope *>(scope), nb::borrow(loc))));
}

}  // namespace

nb::object CEvaluator::ClassSingle(nb::handle loc, std::string_view bare) {
    return KeptCanonicalSingle(*this, fMemo.canonical_singles, loc, bare, [&] {
        const auto info_held = ClassInfoOf(bare);
        const si::ClassInfo &info = *info_held;
        std::string name = si::NormalizeScopeName(info.full_name);
        std::vector<std::string_view> decorators(info.decorators.begin(), info.decorators.end());
        std::string canonical =
            si::PackClassInfo(name, OptViewOf(info.type_params), OptViewOf(info.arg_decl), decorators);
        return std::pair{name, canonical};
    });
}

nb::object CEvaluator::DefSingle(nb::handle loc, std::string_view bare, char kind) {
    std::string key(1, kind);
    key.append(bare);
    return KeptCanonicalSingle(*this, fMemo.canonical_singles, loc, key, [&] {
        const auto info_held = DefInfoOf(bare);
        const si::DefInfo &info = *info_held;
        std::string name = si::NormalizeScopeName(info.scope_name);
        std::vector<std::string_view> decorators(info.decorators.begin(), info.decorators.end());
        const char prefix[] = {si::kPrefixLead, kind, 0};
        std::string canonical =
            si::BuildDefInfoStr(std::string_view(prefix, 2), name, OptViewOf(info.type_params),
                                OptViewOf(info.arg_decl), OptViewOf(info.return_hint), decorators);
        return std::pair{name, canonical};
    });
}

nb::object CEvaluator::ModuleSingle(nb::handle loc, std::string_view dotted) {
    // Named as the search path names it, whatever the import said.
    const std::string &known = ModuleNameOfLoc(loc);
    if (!known.empty())
        dotted = known;
    std::string ibytes = si::BuildFieldsInfo(si::kModuleKind, {si::OptView(dotted)});
    nb::object scope = ModuleScopeOf(loc);
    ImportSeen(scope);
    return nb::cast(nb::ref<si::CSingleResolvedInfo>(new si::CSingleResolvedInfo(
        si::ToBytes(ibytes), nb::cast<si::CScope *>(scope), nb::borrow(loc))));
}

nb::object CEvaluator::LiteralSingle(std::string_view class_name, const std::optional<std::string> &value) {
    nb::object loc = BuiltinLoc();
    std::string ibytes = si::BuildLiteralInfo(class_name, value ? si::OptView(*value) : si::OptView());
    nb::object scope = ScopeAt(loc, class_name);
    return nb::cast(nb::ref<si::CSingleResolvedInfo>(new si::CSingleResolvedInfo(
        si::ToBytes(ibytes), nb::cast<si::CScope *>(scope), loc)));
}

nb::object CEvaluator::TypeParamSingle(nb::handle scope, std::string_view name, std::string_view kind,
                                       const std::optional<std::string> &bound,
                                       const std::optional<std::string> &default_text) {
    std::string ibytes = si::BuildTypeParameterInfo(name, kind, bound ? si::OptView(*bound) : si::OptView(),
                                                    default_text ? si::OptView(*default_text) : si::OptView());
    auto *s = nb::cast<si::CScope *>(scope);
    return nb::cast(nb::ref<si::CSingleResolvedInfo>(
        new si::CSingleResolvedInfo(si::ToBytes(ibytes), s, s->loc)));
}

nb::object CEvaluator::BuiltinClass(std::string_view name) {
    for (const nb::object &single : BuiltinNamed(name).Items())
        if (nb::cast<si::CSingleResolvedInfo *>(single)->IsClass())
            return single;
    return nb::none();
}

nb::object CEvaluator::TypingClass(std::string_view name) {
    nb::object typing_loc = ImportModule("typing", nb::none());
    if (typing_loc.is_none())
        return nb::none();
    for (const nb::object &single : ModuleAttribute(ModuleSingle(typing_loc, "typing"), name).Items())
        if (nb::cast<si::CSingleResolvedInfo *>(single)->IsClass())
            return single;
    return nb::none();
}

ValueSet CEvaluator::InstanceOf(nb::handle cls, nb::handle type_args) {
    ValueSet out;
    auto *c = nb::cast<si::CSingleResolvedInfo *>(cls);
    std::string_view bare = c->Bare();
    std::string canonical(si::kInstancePrefix);
    canonical.append(bare.substr(si::kPrefixLen));
    auto *single = new si::CSingleResolvedInfo(si::ToBytes(canonical), c->scope, c->loc);
    single->fTypeArgs = type_args.is_none() ? nb::none() : nb::borrow(type_args);
    out.Add(nb::cast(nb::ref<si::CSingleResolvedInfo>(single)));
    return out;
}

// ------------------------------------------------------------------ names

ValueSet CEvaluator::LookupName(nb::handle scope, std::string_view name, long long use_index) {
    ValueSet out;
    if (Stop())
        return out;
    std::string_view scope_name = ScopeName(scope);
    // typing's own module body reads its special forms as the forms too
    // (`class Coroutine(Awaitable[R], Protocol[Y, S, R])`).
    if (scope_name.empty() && !CanonicalSpecialForm(name).empty() &&
        IsTypingModuleName(ModuleNameOfLoc(ScopeLoc(scope))))
        return LookupInScopeChain(scope, name);
    int redirect = 0;  // 1: global, 2: nonlocal
    if (FindLocal(scope, name, use_index, out, redirect) && redirect == 0)
        return out;
    nb::object loc = ScopeLoc(scope);
    if (redirect == 2 && use_index >= 0 && !out.Empty()) {
        // A nonlocal name set here before the use: that setting is its value.
        nb::object record = RecordOf(scope);
        nb::object entry = record.is_none() ? nb::none() : InfoBytesOf(record, name);
        if (!entry.is_none())
            for (std::string_view single : si::NonNestedSplit(si::TextView(entry, "ibytes"), ";")) {
                si::SuffixSplit split = si::SplitLogicalIndexSuffix(single);
                if (split.logical_index && *split.logical_index < use_index &&
                    SaysValue(si::GetInfoBytesKind(si::BareSingle(single))))
                    return out;
            }
    }
    if (redirect == 1) {
        out.Merge(LookupInScopeChain(ModuleScopeOf(loc), name));
        return out;
    }
    // Outward: enclosing functions, never class bodies (a def line reads its
    // class's body), then the module and the builtins.
    std::string kind = ScopeKindOf(scope);
    std::string parent(si::ParentScopeName(scope_name));
    if (si::IsDefLineScope(scope_name) || kind == "instance") {
        if (si::IsDefLineScope(scope_name)) {
            std::string def_name(scope_name.substr(0, scope_name.size() - si::kDefLineScopeSuffix.size()));
            nb::object def_scope = ScopeAt(loc, def_name);
            nb::object def_record = RecordOf(def_scope);
            if (!def_record.is_none() && ScopeDeclaresTypeParam(def_scope, def_record, name, out))
                return out;
        }
        // A def line is read when the def statement runs (its defaults
        // there); an instance's names in the class body, all of it.
        nb::object owner = ScopeAt(loc, parent);
        long long at = si::IsDefLineScope(scope_name)
                           ? DefStatementIndex(owner, scope_name.substr(0, scope_name.size() -
                                                                               si::kDefLineScopeSuffix.size()))
                           : -2;
        ValueSet found = LookupName(owner, name, at);
        out.Merge(found);
        return out;
    }
    if (scope_name.empty()) {
        out.Merge(BuiltinNamed(name));
        return out.Empty() ? UnsetNameNarrowed(scope, name, use_index) : out;
    }
    std::string child(scope_name);
    while (!parent.empty()) {
        nb::object up = ScopeAt(loc, parent);
        if (ScopeKindOf(up) != "class") {
            ValueSet found;
            int up_redirect = 0;
            if (FindLocal(up, name, ClosureReadIndex(up, child, name), found, up_redirect) && up_redirect != 1) {
                out.Merge(found);
                if (up_redirect == 0)
                    return out;
            }
        }
        child = parent;
        parent = std::string(si::ParentScopeName(parent));
    }
    out.Merge(LookupInScopeChain(ModuleScopeOf(loc), name));
    return out.Empty() ? UnsetNameNarrowed(scope, name, use_index) : out;
}

ValueSet CEvaluator::UnsetNameNarrowed(nb::handle scope, std::string_view name, long long use_index) {
    nb::object record = use_index < 0 ? nb::none() : ScopeName(scope).empty() ? ModuleRecord(ScopeLoc(scope)) : RecordOf(scope);
    if (record.is_none())
        return ValueSet();
    return Narrowed(scope, record, name, "", use_index, ValueSet());
}

// The logical index of the statement in `up` that makes its nested def or
// class `child`, when one statement alone makes a scope of that name; -2
// otherwise.
long long CEvaluator::DefStatementIndex(nb::handle up, std::string_view child) {
    nb::object record = RecordOf(up);
    if (record.is_none() || si::LeafScopeIndex(si::LeafScopeName(child)) != 0)
        return -2;
    std::string_view leaf = si::LeafScopeName(child);
    leaf = leaf.substr(0, leaf.find(si::kScopeIndexSep));
    nb::object defined = record.attr("GetInfoBytes")(nb::str(leaf.data(), leaf.size()));
    if (defined.is_none())
        return -2;
    std::optional<long long> at;
    int statements = 0;
    for (const EntryPiece &piece : EntryOf(si::TextView(defined, "ibytes"))->pieces) {
        statements += si::IsDefOrClassKind(piece.bare_kind);
        if (std::optional<long long> first = FirstSetIndex(piece))
            at = first;
    }
    return statements == 1 && at && *at >= 0 ? *at : -2;
}

// Where the nested def or class `child` of `up` reads `name` of `up`: at the
// statement that makes `child` when `up` sets the name nowhere after it, so
// that what the tests around that statement tell of the name holds when the
// child runs (`if x is None: raise` ahead of `def inner(): use(x)`); every
// setting (-2) otherwise.
long long CEvaluator::ClosureReadIndex(nb::handle up, std::string_view child, std::string_view name) {
    long long at = DefStatementIndex(up, child);
    nb::object entry = at < 0 ? nb::object() : RecordOf(up).attr("GetInfoBytes")(nb::str(name.data(), name.size()));
    if (at < 0 || entry.is_none())
        return -2;
    for (const EntryPiece &piece : EntryOf(si::TextView(entry, "ibytes"))->pieces) {
        if (piece.malformed || si::IsDefOrClassKind(piece.bare_kind))
            return -2;
        if (piece.index && *piece.index >= at && SaysValue(piece.bare_kind))
            return -2;
    }
    return at;
}

// The type parameters a def or class declares (`def f[T](...)`, `class
// C[T]`) are names of its own scope, and of its def line.
bool CEvaluator::ScopeDeclaresTypeParam(nb::handle scope, nb::handle record, std::string_view name,
                                        ValueSet &out) {
    std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
    si::Kind kind = si::GetInfoBytesKind(own);
    si::OptText params;
    if (si::IsDefKind(kind))
        params = DefInfoOf(own)->type_params;
    else if (kind == si::kClassKind)
        params = ClassInfoOf(own)->type_params;
    if (!params)
        return false;
    for (const si::DeclTypeParam &param : si::ParseDeclTypeParams(*params))
        if (param.name == name) {
            out.Add(TypeParamSingle(scope, param.name, param.param_kind, param.bound, param.default_text));
            return true;
        }
    return false;
}

ValueSet CEvaluator::LookupInScopeChain(nb::handle module_scope, std::string_view name) {
    ValueSet out;
    // typing's own stubs name its special forms as the forms, as importers see them.
    nb::object loc = ScopeLoc(module_scope);
    const std::string &module_name = ModuleNameOfLoc(loc);
    if (IsTypingModuleName(module_name) && !CanonicalSpecialForm(name).empty())
        return ModuleAttribute(ModuleSingle(loc, module_name), name);
    int redirect = 0;
    if (FindLocal(module_scope, name, -2, out, redirect))
        return out;
    out.Merge(BuiltinNamed(name));
    return out;
}

ValueSet CEvaluator::BuiltinNamed(std::string_view name) {
    ValueSet out;
    nb::object loc = BuiltinLoc();
    nb::object record = ModuleRecord(loc);
    if (record.is_none())
        return out;
    int redirect = 0;
    FindLocal(ModuleScopeOf(loc), name, -2, out, redirect);
    return out;
}

bool CEvaluator::FindLocal(nb::handle scope, std::string_view name, long long use_index, ValueSet &out,
                           int &redirect) {
    redirect = 0;
    if (Stop())
        return false;
    nb::object record = ScopeName(scope).empty() ? ModuleRecord(ScopeLoc(scope)) : RecordOf(scope);
    if (record.is_none())
        return false;
    if (ScopeDeclaresTypeParam(scope, record, name, out))
        return true;
    nb::object entry = InfoBytesOf(record, name);
    std::shared_ptr<const ParsedEntry> parsed = entry.is_none() ? nullptr : EntryOf(si::TextView(entry, "ibytes"));
    EntryKinds kinds = parsed ? parsed->kinds : EntryKinds();
    bool binds = parsed && (BindsName(kinds) || parsed->set_in_nested_scope);
    if (const ValueSet *bound = BoundValuesOf(scope, name)) {
        DependOnScope(scope, name);
        if (!binds) {
            out.Merge(*bound);
            return true;
        }
    }
    if (!binds) {
        // A module's star imports bring names it doesn't set itself.
        if (ScopeName(scope).empty() && name != "*") {
            nb::object stars = InfoBytesOf(record, "*");
            if (!stars.is_none()) {
                for (std::string_view single : si::NonNestedSplit(si::TextView(stars, "ibytes"), ";")) {
                    if (!ConditionsHold(single))
                        continue;
                    std::string_view bare = si::BareSingle(single);
                    if (si::GetInfoBytesKind(bare) != si::kFromImportKind)
                        continue;
                    si::UnpackedFields f = si::UnpackFields(bare);
                    if (f.fields.empty() || !f.fields[0])
                        continue;
                    out.Merge(FromImport(scope, *f.fields[0], name, true));
                }
                return !out.Empty();
            }
        }
        return false;
    }
    std::string_view text = si::TextView(entry, "ibytes");
    if (Has(kinds, si::kArgKind) || Has(kinds, si::kSelfKind))
        DependOnScope(scope, name);  // a parameter: what a call binds to it decides
    if (Has(kinds, si::kGlobalKind))
        redirect = 1;
    else if (Has(kinds, si::kNonlocalKind))
        redirect = 2;
    out.Merge(Narrowed(scope, record, name, text, use_index, EntryValues(scope, record, text, use_index, name)));
    return true;
}

bool CEvaluator::AttributeSetBefore(nb::handle scope, std::string_view dotted, long long use_index,
                                    ValueSet &out) {
    if (Stop() || !scope.is_valid() || scope.is_none())
        return false;
    nb::object record = ScopeName(scope).empty() ? ModuleRecord(ScopeLoc(scope)) : RecordOf(scope);
    if (record.is_none())
        return false;
    nb::object entry = InfoBytesOf(record, dotted);
    if (entry.is_none())
        return false;
    std::string_view text = si::TextView(entry, "ibytes");
    std::set<long long> before;  // the body's settings ahead of the use
    for (const EntryPiece &piece : EntryOf(text)->pieces)
        if (piece.index && *piece.index >= 0 && *piece.index < use_index && SaysValue(BareKindOf(piece)) &&
            !BranchRuledOut(scope, *piece.index, use_index, false))
            before.insert(*piece.index);
    if (before.empty())
        return false;
    const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
    if (!paths)
        return false;
    bool surely = false;
    for (long long at : before)
        surely = surely || BlockHolds(*paths, at, use_index) || RunsSurely(scope, *paths, at, use_index);
    if (!surely)
        return false;
    ValueSet values = EntryValues(scope, record, text, use_index, dotted);
    if (values.Empty())
        return false;
    out.Merge(Narrowed(scope, record, dotted, text, use_index, std::move(values)));
    return true;
}

bool CEvaluator::NarrowableAt(nb::handle scope, long long at) {
    for (const char *method : {"Guards", "SkippedIfs"}) {
        const FlowGuardRows *conditions = ConditionsOf(scope, method);
        if (conditions && (std::size_t) at < conditions->size() && !(*conditions)[(std::size_t) at].empty())
            return true;
    }
    return false;
}

bool CEvaluator::LogicalReachable(nb::handle scope, nb::handle record, long long at) {
    // Without tests around the logical, no binding can rule it out.
    if (fInReachCheck || at < 0 || fBoundNames.empty() || !NarrowableAt(scope, at))
        return true;
    std::vector<std::pair<std::string, const ValueSet *>> names = BindingsAround(scope);
    if (names.empty())
        return true;
    // A call made again with the same arguments binds the same: the answer
    // is worked out once per bindings.
    std::tuple<std::string, std::string, long long, std::string> key{UrlOf(ScopeLoc(scope)),
                                                                      std::string(ScopeName(scope)), at,
                                                                      BindingSignature(nullptr)};
    if (auto known = fReachable.find(key); known != fReachable.end())
        return known->second;
    fInReachCheck = true;
    bool reached = true;
    for (const auto &[name, bound] : names) {
        if (!reached || Stop())
            break;
        nb::object entry = InfoBytesOf(record, name);
        bool own = !entry.is_none() && BindsName(EntryOf(si::TextView(entry, "ibytes"))->kinds);
        std::string_view text = own ? si::TextView(entry, "ibytes") : std::string_view();
        // A name set again before the logical: what the settings give may be
        // partly unknown, so the tests say nothing sure.
        bool set_before = false;
        if (own)
            for (const EntryPiece &piece : EntryOf(text)->pieces)
                set_before = set_before || (piece.index && *piece.index < at && SaysValue(piece.bare_kind));
        if (set_before)
            continue;
        ValueSet values = own ? EntryValues(scope, record, text, at, name) : *bound;
        // Only values all known tell that no test around can be met.
        bool known = !values.Empty();
        for (const nb::object &v : values.Items())
            known = known && si::GetInfoBytesKind(si::TextView(Single(v)->ibytes, "ibytes")) != si::kExpressionEquivKind;
        fStrictNarrowing = known;
        reached = !known || !Narrowed(scope, record, name, text, at, values).Empty();
        fStrictNarrowing = false;
    }
    fInReachCheck = false;
    fReachable.emplace(std::move(key), reached);
    return reached;
}

const ValueSet *CEvaluator::BoundValuesOf(nb::handle scope, std::string_view name) {
    if (fBoundNames.empty() || name.empty())
        return nullptr;
    auto bound = fBoundNames.find(std::tuple<std::string_view, std::string_view, std::string_view>(
        UrlOf(ScopeLoc(scope)), ScopeName(scope), name));
    return bound == fBoundNames.end() ? nullptr : &bound->second;
}

// The values of a record's entry.  With a use position, only the settings
// that reach it count: those at the latest logical before it (a name set
// again later, or in a loop, falls back to all of them).
ValueSet CEvaluator::EntryValues(nb::handle scope, nb::handle record, std::string_view entry,
                                 long long use_index, std::string_view name) {
    ValueSet out;
    const ValueSet *bound = BoundValuesOf(scope, name);
    bool bound_read = false;
    const std::shared_ptr<const ParsedEntry> parsed = EntryOf(entry);
    std::vector<std::pair<const EntryPiece *, long long>> singles;
    std::set<long long> before;  // logicals before the use that set the name
    long long best = -3;
    // A name a `case` pattern binds first (its first setting there says no
    // value) is the part of the subject the flow provider says it matched:
    // an expression read at the case's first logical, where the case's test
    // holds.  (Only the first setting of a name is marked: a later case that
    // binds it again is not seen.)
    const EntryPiece *capture_piece = nullptr;
    const FlowGuard *capture = nullptr;
    for (const EntryPiece &piece : parsed->pieces) {
        std::optional<long long> first_set = name.empty() ? std::nullopt : FirstSetIndex(piece);
        if (!first_set)
            continue;
        // (A value set there, or where the entry doesn't say (a def, a
        // class, an import), tells it isn't one.)
        bool valued = *first_set < 0 || std::any_of(parsed->pieces.begin(), parsed->pieces.end(), [&](const EntryPiece &p) {
                          return (!p.index || *p.index == *first_set) && SaysValue(BareKindOf(p));
                      });
        const FlowGuardRows *captures = valued ? nullptr : ConditionsOf(scope, "Captures");
        if (captures && (std::size_t) *first_set < captures->size())
            for (const FlowGuard &bound : (*captures)[(std::size_t) *first_set]) {
                std::string_view text = std::get<1>(bound);
                if (text.starts_with(name) && text.substr(name.size()).starts_with(" := ")) {
                    capture_piece = &piece;
                    capture = &bound;
                }
            }
        break;
    }
    auto capture_of = [&](const EntryPiece &piece) { return &piece == capture_piece ? capture : nullptr; };
    auto says_value = [&](const EntryPiece &piece) { return SaysValue(BareKindOf(piece)) || capture_of(piece); };
    // A def or class statement sets its name where it stands, like an
    // assignment: a use before it doesn't see it.  (Where it stands, and
    // whether a constant test rules a setting out, matter only to a name set
    // more than once; telling them reads the file's flow.)
    bool set_again = std::count_if(parsed->pieces.begin(), parsed->pieces.end(), says_value) > 1;
    for (const EntryPiece &piece : parsed->pieces) {
        if (!says_value(piece))
            continue;
        long long at = piece.index                                      ? *piece.index
                       : capture_of(piece)                               ? *FirstSetIndex(piece)
                       : set_again && use_index >= 0 && !piece.malformed ? DefStatementAt(scope, piece.bare)
                                                                         : -2;
        // (A use that never runs itself reads what its dead block sets.)
        if (set_again && NeverRuns(scope, at) && !NeverRuns(scope, use_index))
            continue;
        singles.emplace_back(&piece, at);
        if (use_index >= -1 && at >= 0 && at < use_index) {
            // A setting in a branch the use can't follow doesn't reach it
            // (though the use's settings are then known: -2 for none).
            if (BranchRuledOut(scope, at, use_index, false)) {
                best = std::max(best, -2LL);
                continue;
            }
            before.insert(at);
            best = std::max(best, at);
        }
    }
    // The settings that reach the use: back from the latest, until one that
    // surely ran (its block holds the use).
    std::set<long long> reaching;
    bool rebound = false;  // a setting that surely ran hides the parameter's binding
    if (best > -3) {
        const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
        std::set<long long> covered;
        for (auto it = before.rbegin(); it != before.rend(); ++it) {
            reaching.insert(*it);
            if (!paths || BlockHolds(*paths, *it, use_index)) {
                rebound = *it >= 0;
                break;
            }
            if (CompletesIfChain(scope, *paths, *it, use_index, covered) || RunsSurely(scope, *paths, *it, use_index)) {
                rebound = true;
                break;
            }
        }
    }
    // A declared type (a hint) governs every setting of the name.
    // (`X: TypeAlias = ...` declares an alias: its value is what counts.)
    // (The piece's bare single and kind are read as the entry was split: a
    // long single, a large display, isn't walked again.)
    auto declares = [&](const EntryPiece &piece) {
        if (BareKindOf(piece) != si::kTypeHintKind)
            return false;
        std::string_view bare = piece.malformed ? si::BareSingle(piece.single) : piece.bare;
        std::string hint = si::UnpackTypeHint(bare);
        // A bare `Final` or `ClassVar` names no type: the value does.
        std::string_view text = si::StripSpaces(hint);
        std::size_t dot = text.rfind('.');
        std::string_view leaf = dot == std::string_view::npos ? text : text.substr(dot + 1);
        return !hint.ends_with("TypeAlias") && leaf != "Final" && leaf != "ClassVar" && !NamesNoType(hint);
    };
    // (Declared at the use: a declaration after it doesn't count.)
    bool declared = false;
    for (const EntryPiece &piece : parsed->pieces)
        declared = declared || (declares(piece) &&
                                (use_index < 0 || !piece.index || *piece.index < use_index));
    // A parameter that the source leaves unhinted and the body never sets
    // again takes the type its def's docstring writes for it, as from an
    // annotation.  (Callers' arguments are still recorded for it.)
    if (!declared && !name.empty() && !ScopeName(scope).empty()) {
        bool parameter = false, set_in_body = false;
        for (const EntryPiece &piece : parsed->pieces) {
            parameter = parameter || BareKindOf(piece) == si::kArgKind;
            set_in_body = set_in_body || (piece.index && SaysValue(BareKindOf(piece)));
        }
        if (parameter && !set_in_body)
            if (std::optional<std::string> hint = DocstringHint(scope, name)) {
                out.Merge(ResolveHintText(ScopeAt(ScopeLoc(scope), si::DefLineScope(ScopeName(scope))), *hint,
                                          nullptr));
                if (!out.Empty())
                    return out;
            }
    }
    long long latest_declaration = -2;  // the latest declaration before the use
    for (const auto &[piece, at] : singles)
        if (declared && at >= 0 && at < use_index && declares(*piece))
            latest_declaration = std::max(latest_declaration, at);
    // A def or class binds its name no earlier than the name's first
    // setting: a use up to there (a decorator or default of the def itself)
    // doesn't see it, unless a loop around both brings it round again.
    bool defs_unbound = false;
    for (const EntryPiece &piece : parsed->pieces) {
        std::optional<long long> first_set = FirstSetIndex(piece);
        if (use_index >= 0 && first_set)
            defs_unbound = *first_set >= use_index && !InOneLoop(scope, *first_set, use_index);
    }
    for (const auto &[piece, at] : singles) {
        std::string_view single = piece->single;
        // A setting that can't run under what a call binds doesn't count.
        if (at >= 0 && !LogicalReachable(scope, record, at))
            continue;
        if (bound && at < -1 && !si::IsDefOrClassKind(BareKindOf(*piece))) {
            // The unnumbered singles bind the parameter (what callers pass, its
            // default, the instance or class of a method's first): the call's
            // binding stands for them all.
            if (!bound_read && !rebound)
                out.Merge(*bound);
            bound_read = true;
            continue;
        }
        if (declared && !declares(*piece))
            continue;
        // Unnumbered singles (arguments, hints of the def line, defs) always
        // count; numbered ones only from the reaching logicals when known.
        // A declaration holds on until the next one, whichever settings
        // reach the use.
        if (best > -3 && at >= -1 && !reaching.count(at) &&
            !(declared && (at == latest_declaration || latest_declaration < -1)))
            continue;
        // (A parameter's hint still declares what the name holds.)
        if (rebound && at < -1 && IsParameterBinding(single) && !declared)
            continue;
        bool def_or_class = si::IsDefOrClassKind(BareKindOf(*piece));
        if (defs_unbound && def_or_class)
            continue;
        // What callers pass is read for the use: tests there may rule callers out.
        bool passed = at < -1 && piece->kind == si::kArgKind;
        const FlowGuard *captured = capture_of(*piece);
        ValueSet values =
            captured ? ResolveText(scope, std::string_view(std::get<1>(*captured)).substr(name.size() + 4),
                                   std::get<0>(*captured))
                     : ValuesOfPiece(scope, *piece, passed ? use_index : -2);
        if (at >= 0 && !name.empty())
            values = WithItemsFromUses(values, [&]() {
                long long until = -1;  // the next setting of the name
                for (const auto &other : singles)
                    if (other.second > at && (until < 0 || other.second < until))
                        until = other.second;
                return std::vector<UseSite>{{nb::borrow(scope), nb::borrow(record), std::string(name), at, until}};
            });
        out.Merge(values);
        if (fGaveUp)
            break;
    }
    return out;
}

namespace {

std::vector<long long> IndexList(nb::handle indexes) {
    std::vector<long long> out;
    for (nb::handle index : indexes)
        out.push_back(nb::cast<long long>(index));
    return out;
}

std::vector<std::vector<long long>> IndexLists(nb::handle lists) {
    std::vector<std::vector<long long>> out;
    for (nb::handle indexes : lists)
        out.push_back(IndexList(indexes));
    return out;
}

// Item `i` of a guard the flow provider gave: straight from a tuple (what
// ours gives), through Python's indexing for any other sequence.
nb::object GuardItem(nb::handle guard, Py_ssize_t i) {
    if (PyTuple_Check(guard.ptr()) && i < PyTuple_GET_SIZE(guard.ptr()))
        return nb::borrow(PyTuple_GET_ITEM(guard.ptr(), i));
    return guard[i];
}

}  // namespace

template <class T, class Convert>
const T *CEvaluator::FlowOf(nb::handle scope, const char *method, EngineMemo::ByScope<T> &cache, Convert convert) {
    nb::object provider = fEngine.fFlowProvider;
    if (provider.is_none())
        return nullptr;
    nb::object loc = ScopeLoc(scope);
    std::string_view name = ScopeName(scope);
    fFlowKey.assign(name).append("|").append(method);
    auto it = cache.find(std::pair<PyObject *, std::string_view>{loc.ptr(), fFlowKey});
    if (it == cache.end()) {
        ScopeKey key{loc.ptr(), fFlowKey};
        nb::str scope_name(name.data(), name.size());
        if (!FlowFileRead(provider, loc, scope_name))
            return nullptr;
        std::optional<T> value;
        nb::object found = nb::hasattr(provider, method) ? provider.attr(method)(loc, scope_name) : nb::none();
        if (!found.is_none())
            value.emplace(convert(found));
        it = cache.emplace(std::move(key), std::pair{loc, std::move(value)}).first;
    }
    return it->second.second ? &*it->second.second : nullptr;
}

bool CEvaluator::FlowFileRead(nb::handle provider, nb::handle loc, nb::handle scope_name) {
    if (fGaveUp)
        return false;
    ScopeKey key{loc.ptr(), nb::cast<std::string>(scope_name)};
    if (fFlowScopesRead.count(key) || !nb::hasattr(provider, "ReadFileUntil"))
        return true;
    nb::object end_time = nb::none();
    if (fCtx && std::isfinite(fCtx->fEndTime))
        end_time = nb::float_(fCtx->fEndTime);
    if (!nb::cast<bool>(provider.attr("ReadFileUntil")(loc, end_time, scope_name))) {
        GiveUpOutOfTime();
        return false;
    }
    fFlowScopesRead.emplace(std::move(key), nb::borrow(loc));
    return true;
}

const std::vector<std::vector<long long>> *CEvaluator::BlockPathsOf(nb::handle scope) {
    return FlowOf(scope, "BlockPaths", fMemo.block_paths, IndexLists);
}

std::optional<std::string> CEvaluator::DocstringHint(nb::handle scope, std::string_view name) {
    const auto *hints = FlowOf(scope, "Docstring", fMemo.docstring_hints, [](nb::handle literal) {
        return docstringhints::HintsFromDocstring(nb::cast<std::string>(literal));
    });
    if (hints)
        for (const auto &[hinted, text] : *hints)
            if (hinted == name)
                return text;
    return std::nullopt;
}

FlowGuardRows::FlowGuardRows(nb::handle rows) : fRows(nb::steal<nb::tuple>(PySequence_Tuple(rows.ptr()))) {
    if (!fRows.is_valid())
        throw nb::python_error();
    fRead.resize(fRows.size());
    fConstantFails.resize(fRows.size());
}

const std::vector<FlowGuard> &FlowGuardRows::operator[](std::size_t at) const {
    std::optional<std::vector<FlowGuard>> &read = fRead[at];
    if (!read) {
        std::vector<FlowGuard> here;
        for (nb::handle g : fRows[at]) {
            nb::object text = GuardItem(g, 1);
            if (!text.is_none())
                here.emplace_back(nb::cast<long long>(GuardItem(g, 0)), nb::cast<std::string>(text),
                                  nb::cast<long long>(GuardItem(g, 2)));
        }
        read = std::move(here);
    }
    return *read;
}

bool FlowGuardRows::ConstantGuardFails(std::size_t at) const {
    std::optional<bool> &fails = fConstantFails[at];
    if (!fails) {
        fails = false;
        for (const auto &[header, condition, held] : (*this)[at]) {
            std::optional<bool> truth = ConstantTruth(condition);
            if (truth && *truth != (held != 0)) {
                fails = true;
                break;
            }
        }
    }
    return *fails;
}

const FlowGuardRows *CEvaluator::ConditionsOf(nb::handle scope, const char *method) {
    return FlowOf(scope, method, fMemo.conditions_at, [](nb::handle listed) { return FlowGuardRows(listed); });
}

const std::vector<long long> *CEvaluator::LoopHeadersOf(nb::handle scope) {
    return FlowOf(scope, "LoopHeaders", fMemo.loop_headers, IndexList);
}

namespace {

// A constant operand of a comparison: an int (True and False are 1 and 0),
// None, or a plain string literal (its text between the quotes).
struct ConstantOperand {
    enum Kind { kNumber, kNone, kString } kind;
    long long number = 0;
    std::string_view text;
};

std::optional<ConstantOperand> ConstantOperandOf(std::string_view text) {
    text = si::StripSpaces(text);
    if (text == "True" || text == "False")
        return ConstantOperand{ConstantOperand::kNumber, text == "True" ? 1 : 0, {}};
    if (text == "None")
        return ConstantOperand{ConstantOperand::kNone, 0, {}};
    if (text.size() >= 2 && (text[0] == '"' || text[0] == '\'') && text.find(text[0], 1) == text.size() - 1 &&
        text.find('\\') == std::string_view::npos)
        return ConstantOperand{ConstantOperand::kString, 0, text.substr(1, text.size() - 2)};
    bool negative = text.starts_with("-");
    std::string_view digits = si::StripSpaces(negative ? text.substr(1) : text);
    if (digits.empty() || digits.size() > 18 || digits.find_first_not_of("0123456789") != std::string_view::npos ||
        (digits.size() > 1 && digits[0] == '0'))
        return std::nullopt;
    long long value = std::stoll(std::string(digits));
    return ConstantOperand{ConstantOperand::kNumber, negative ? -value : value, {}};
}

// The truth of a comparison of two constants (`2 == True`, `'a' != 'b'`);
// none for any other text, and for an ordering Python refuses (None < 1).
std::optional<bool> ConstantComparison(std::string_view text) {
    static const std::string_view kOps[] = {" == ", " != ", " <= ", " >= ", " < ", " > "};
    for (std::string_view op : kOps) {
        std::size_t at = text.find(op);
        if (at == std::string_view::npos)
            continue;
        std::optional<ConstantOperand> left = ConstantOperandOf(text.substr(0, at));
        std::optional<ConstantOperand> right = ConstantOperandOf(text.substr(at + op.size()));
        if (!left || !right)
            return std::nullopt;
        std::string_view name = si::StripSpaces(op);
        bool equality = name == "==" || name == "!=";
        int order = 0;  // left against right
        if (left->kind != right->kind) {
            if (!equality)
                return std::nullopt;
            order = 1;  // unequal
        } else if (left->kind == ConstantOperand::kNumber) {
            order = left->number < right->number ? -1 : left->number > right->number ? 1 : 0;
        } else if (left->kind == ConstantOperand::kString) {
            int compared = left->text.compare(right->text);
            order = compared < 0 ? -1 : compared > 0 ? 1 : 0;
        } else if (!equality) {
            return std::nullopt;
        }
        if (name == "==")
            return order == 0;
        if (name == "!=")
            return order != 0;
        if (name == "<=")
            return order <= 0;
        if (name == ">=")
            return order >= 0;
        return name == "<" ? order < 0 : order > 0;
    }
    return std::nullopt;
}

}  // namespace

std::optional<bool> ConstantTruth(std::string_view text) {
    text = si::StripSpaces(text);
    for (std::string_view op : {" or ", " and "}) {
        std::vector<std::string_view> parts = si::NonNestedSplit(text, op);
        if (parts.size() < 2)
            continue;
        const bool is_or = op == " or ";
        bool all_known = true;
        for (std::string_view part : parts) {
            std::optional<bool> truth = ConstantTruth(part);
            if (truth && *truth == is_or)
                return is_or;
            all_known = all_known && truth.has_value();
        }
        return all_known ? std::optional<bool>(!is_or) : std::nullopt;
    }
    if (text.starts_with("not ")) {
        std::optional<bool> truth = ConstantTruth(text.substr(4));
        return truth ? std::optional<bool>(!*truth) : std::nullopt;
    }
    if (text.starts_with("(") && si::MatchingBracket(text, 0) == (std::ptrdiff_t) text.size() - 1)
        return ConstantTruth(text.substr(1, text.size() - 2));
    if (std::optional<bool> compared = ConstantComparison(text))
        return compared;
    if (text == "True")
        return true;
    if (text == "False" || text == "None")
        return false;
    if (!text.empty() && (std::isdigit((unsigned char) text[0]) || text[0] == '.') &&
        text.find_first_not_of("0123456789._") == std::string_view::npos)
        return text.find_first_not_of("0._") != std::string_view::npos;
    if (text.size() >= 2 && (text[0] == '"' || text[0] == '\'') && text.find(text[0], 1) == text.size() - 1)
        return text.size() > 2;  // one plain string literal
    return std::nullopt;
}


bool CEvaluator::NeverRuns(nb::handle scope, long long at) {
    const FlowGuardRows *guards = ConditionsOf(scope, "Guards");
    return guards && at >= 0 && (std::size_t) at < guards->size() && guards->ConstantGuardFails((std::size_t) at);
}

std::pair<std::string, std::string> CEvaluator::GeneratorEntries(nb::handle scope, std::string_view returns) {
    const std::vector<long long> *statements = FlowOf(scope, "ReturnStatements", fMemo.loop_headers, IndexList);
    if (!statements || statements->empty())
        return {std::string(returns), std::string()};
    std::pair<std::string, std::string> out;
    for (const EntryPiece &piece : EntryOf(returns)->pieces) {
        bool returned =
            piece.index && std::find(statements->begin(), statements->end(), *piece.index) != statements->end();
        std::string &part = returned ? out.second : out.first;
        if (!part.empty())
            part.push_back(';');
        part.append(piece.single);
    }
    return out;
}

std::optional<std::vector<ValueSet>> CEvaluator::YieldsInOrder(nb::handle scope, nb::handle record,
                                                                std::string_view yields) {
    const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
    if (!paths || yields.empty())
        return std::nullopt;
    std::vector<std::pair<long long, std::string_view>> ordered;
    for (const EntryPiece &piece : EntryOf(yields)->pieces) {
        // (`yield from x` is kept as the items of x, `x[*]`: how many is unknown.)
        if (!piece.index || *piece.index < 0 || (std::size_t) *piece.index >= paths->size() ||
            !(*paths)[(std::size_t) *piece.index].empty() || piece.single.find("[*]") != std::string_view::npos)
            return std::nullopt;
        ordered.emplace_back(*piece.index, piece.single);
    }
    std::sort(ordered.begin(), ordered.end());
    if (ordered.size() > kMaxDisplayItems)
        return std::nullopt;
    std::vector<ValueSet> out;
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        if (i > 0 && ordered[i].first == ordered[i - 1].first)
            return std::nullopt;  // two yields in one statement
        out.push_back(EntryValues(scope, record, ordered[i].second, -2));
    }
    return out;
}

long long CEvaluator::DefStatementAt(nb::handle scope, std::string_view bare) {
    si::Kind kind = si::GetInfoBytesKind(bare);
    if (!si::IsDefOrClassKind(kind))
        return -2;
    const TextMap<long long> *defs = FlowOf(scope, "DefStatements", fMemo.def_statements, [](nb::handle listed) {
        TextMap<long long> found;
        for (nb::handle pair : listed)
            found.emplace(nb::cast<std::string>(GuardItem(pair, 0)), nb::cast<long long>(GuardItem(pair, 1)));
        return found;
    });
    if (!defs)
        return -2;
    if (kind != si::kClassKind && HasDecorator(*DefInfoOf(bare), "overload"))
        return -2;  // the overloads and their implementation make one function
    std::string name = kind == si::kClassKind ? ClassInfoOf(bare)->full_name : DefInfoOf(bare)->scope_name;
    auto it = defs->find(si::LeafScopeName(name));
    return it == defs->end() ? -2 : it->second;
}

bool CEvaluator::BranchRuledOut(nb::handle scope, long long setting, long long use, bool within_turn) {
    const FlowGuardRows *guards = ConditionsOf(scope, "Guards");
    const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
    if (!guards || !paths || use < 0 || setting < 0 || (std::size_t) use >= guards->size() ||
        (std::size_t) use >= paths->size() || (std::size_t) setting >= paths->size())
        return false;
    const std::vector<long long> &use_path = (*paths)[(std::size_t) use];
    const std::vector<long long> &path = (*paths)[(std::size_t) setting];
    auto holds = [](const std::vector<long long> &p, long long header) {
        return std::find(p.begin(), p.end(), header) != p.end();
    };
    bool ruled_out = false;
    for (const auto &[header, condition, held] : (*guards)[(std::size_t) use])
        ruled_out = ruled_out || (!held && holds(path, header) && !holds(use_path, header));
    if (!ruled_out || within_turn)
        return ruled_out;
    return !InOneLoop(scope, setting, use);
}

bool CEvaluator::InOneLoop(nb::handle scope, long long a, long long b) {
    const std::vector<std::vector<long long>> *paths = BlockPathsOf(scope);
    const std::vector<long long> *loops = LoopHeadersOf(scope);
    if (!paths || !loops || a < 0 || b < 0 || (std::size_t) a >= paths->size() || (std::size_t) b >= paths->size())
        return true;
    const std::vector<long long> &a_path = (*paths)[(std::size_t) a], &b_path = (*paths)[(std::size_t) b];
    for (long long loop : *loops)
        if (std::find(a_path.begin(), a_path.end(), loop) != a_path.end() &&
            std::find(b_path.begin(), b_path.end(), loop) != b_path.end())
            return true;
    return false;
}

// An unnumbered single of a parameter's binding in its def's body: what
// callers pass, or its default (read in the scope the def stands in).
bool CEvaluator::IsParameterBinding(std::string_view single) {
    si::Kind kind = si::GetInfoBytesKind(si::SplitLogicalIndexSuffix(single).single);
    return kind == si::kArgKind || kind == si::kDefLineScopeKind || kind == si::kSpecificScopeKind;
}

// Whether the block of body logical `setting` holds body logical `use`: the
// branch headers around the setting are all around the use too.
bool CEvaluator::BlockHolds(const std::vector<std::vector<long long>> &paths, long long setting, long long use) {
    if (setting < 0 || (std::size_t) setting >= paths.size())
        return true;
    const std::vector<long long> &outer = paths[(std::size_t) setting];
    if (use < 0 || (std::size_t) use >= paths.size())
        return outer.empty();
    const std::vector<long long> &inner = paths[(std::size_t) use];
    return outer.size() <= inner.size() && std::equal(outer.begin(), outer.end(), inner.begin());
}

bool CEvaluator::RunsSurely(nb::handle scope, const std::vector<std::vector<long long>> &paths, long long setting,
                            long long use) {
    const FlowGuardRows *guards = ConditionsOf(scope, "Guards");
    if (!guards || setting < 0 || use < 0 || (std::size_t) setting >= paths.size() ||
        (std::size_t) use >= paths.size() || (std::size_t) setting >= guards->size())
        return false;
    const std::vector<long long> &use_path = paths[(std::size_t) use];
    auto around_use = [&](long long header) {
        return std::find(use_path.begin(), use_path.end(), header) != use_path.end();
    };
    std::set<long long> tested;
    for (const auto &[header, condition, held] : (*guards)[(std::size_t) setting]) {
        if (around_use(header))
            continue;
        std::optional<bool> truth = ConstantTruth(condition);
        if (!truth || *truth != (held != 0))
            return false;
        tested.insert(header);
    }
    // Every block around the setting alone is entered by a test that holds
    // (a loop's, a try's or an else's body has none).
    for (long long header : paths[(std::size_t) setting])
        if (!around_use(header) && !tested.count(header))
            return false;
    return true;
}

bool CEvaluator::CompletesIfChain(nb::handle scope, const std::vector<std::vector<long long>> &paths,
                                  long long setting, long long use, std::set<long long> &covered) {
    if (setting < 0 || use < 0 || (std::size_t) setting >= paths.size() || (std::size_t) use >= paths.size() ||
        paths[(std::size_t) setting].empty())
        return false;
    const std::vector<std::vector<long long>> *chains = FlowOf(scope, "IfChains", fMemo.block_paths, IndexLists);
    long long branch = paths[(std::size_t) setting].back();
    const std::vector<long long> &use_path = paths[(std::size_t) use];
    if (!chains || (std::size_t) branch >= chains->size() || (*chains)[(std::size_t) branch].empty() ||
        !BlockHolds(paths, branch, use) || std::find(use_path.begin(), use_path.end(), branch) != use_path.end())
        return false;
    covered.insert(branch);
    // A block whose test is a constant that can't take it (`if 0:`, the
    // `else` of `if 1:`) needs no setting.
    auto never_runs = [&](long long header) {
        std::size_t first = (std::size_t) header + 1;
        return first < paths.size() && !paths[first].empty() && paths[first].back() == header &&
               NeverRuns(scope, header + 1);
    };
    for (long long header : (*chains)[(std::size_t) branch])
        if (!covered.count(header) && !never_runs(header))
            return false;
    return true;
}

ValueSet CEvaluator::ValuesOfInfo(nb::handle scope, std::string_view ibytes, long long use_index) {
    ValueSet out;
    for (std::string_view single : si::NonNestedSplit(ibytes, ";"))
        out.Merge(ValuesOfSingle(scope, single, use_index));
    return out;
}

ValueSet CEvaluator::ValuesOfSingle(nb::handle scope, std::string_view single, long long use_index) {
    // A malformed single (a damaged record) says nothing; it must not stop
    // the request.
    try {
        return ValuesOfWellFormedSingle(scope, single, use_index);
    } catch (const std::invalid_argument &) {
        return ValueSet();
    }
}

ValueSet CEvaluator::ValuesOfPiece(nb::handle scope, const EntryPiece &piece, long long unnumbered_use) {
    try {
        return ValuesOfUnnumberedSingle(scope, piece.unnumbered, piece.index.value_or(unnumbered_use),
                                        piece.index.has_value());
    } catch (const std::invalid_argument &) {
        return ValueSet();
    }
}

ValueSet CEvaluator::ValuesOfWellFormedSingle(nb::handle scope, std::string_view single, long long use_index) {
    if (Stop())
        return ValueSet();
    si::SuffixSplit split = si::SplitLogicalIndexSuffix(single);
    return ValuesOfUnnumberedSingle(scope, split.single, split.logical_index.value_or(use_index),
                                    split.logical_index.has_value());
}

ValueSet CEvaluator::ValuesOfUnnumberedSingle(nb::handle scope, std::string_view s, long long use_index,
                                              bool numbered) {
    ValueSet out;
    if (Stop())
        return out;
    nb::object loc = ScopeLoc(scope);
    si::Kind kind = si::GetInfoBytesKind(s);
    struct DepthGuard {
        int &d;
        explicit DepthGuard(int &depth) : d(depth) { ++d; }
        ~DepthGuard() { --d; }
    } guard(fDepth);
    switch (kind) {
    case si::kSpecificScopeKind: {
        si::UnpackedFields f = si::UnpackFields(s, 1);
        std::string name = si::NormalizeScopeName(f.fields.empty() || !f.fields[0] ? std::string() : *f.fields[0]);
        nb::object there = ScopeAt(loc, name);
        // A parameter's default, read in the scope the def stands in, has
        // the value it had when the def statement ran.
        std::string_view own = ScopeName(scope);
        if (!numbered && !own.empty() && si::ParentScopeName(own) == name)
            use_index = DefStatementIndex(there, own);
        return ValuesOfSingle(there, f.rest, use_index);
    }
    case si::kSpecificUrlKind: {
        si::UnpackedFields f = si::UnpackFields(s, 1);
        if (f.fields.empty() || !f.fields[0])
            return out;
        nb::object other = LocationFromUrl(*f.fields[0]);
        return ValuesOfSingle(ModuleScopeOf(other), f.rest, use_index);
    }
    case si::kBuiltinModuleKind:
        return ValuesOfSingle(ModuleScopeOf(BuiltinLoc()), s.substr(si::kPrefixLen), -2);
    case si::kTypingModuleKind:
        return ValuesOfSingle(ModuleScopeOf(fLocCache.attr("GetTypingLoc")()), s.substr(si::kPrefixLen), -2);
    case si::kDefLineScopeKind: {
        si::UnpackedFields f = si::UnpackFields(s, 1);
        std::string name = f.fields.empty() || !f.fields[0] ? std::string() : *f.fields[0];
        return ValuesOfSingle(ScopeAt(loc, si::DefLineScope(si::NormalizeScopeName(name))), f.rest, -2);
    }
    case si::kConditionalKind: {
        auto [condition, wrapped] = si::UnpackConditionalInfo(s);
        if (EvaluateCondition(condition) == 0)
            return out;
        return ValuesOfSingle(scope, wrapped, use_index);
    }
    case si::kPlainEquivKind:
        if (s.empty())
            return out;
        return ResolveText(scope, s, use_index);
    case si::kExpressionEquivKind: {
        si::UnpackedFields f = si::UnpackFields(s);
        if (!f.fields.empty() && f.fields[0])
            return ResolveText(scope, *f.fields[0], use_index);
        return out;
    }
    case si::kClassKind:
        out.Add(ClassSingle(loc, s));
        return out;
    case si::kFunctionKind:
        return DecoratedDef(loc, DefSingle(loc, s, kind));
    case si::kUnboundMethodKind:
    case si::kMethodKind:
        out.Add(DefSingle(loc, s, kind));
        return out;
    case si::kTypeHintKind:
    case si::kInferredTypeHintKind: {
        std::string hint = si::UnpackTypeHint(s);
        return ResolveHintText(scope, hint, nullptr);
    }
    case si::kTypedLiteralKind: {
        si::LiteralInfo lit = si::UnpackLiteralInfo(s);
        out.Add(LiteralSingle(lit.class_name, lit.value));
        return out;
    }
    case si::kInstanceKind: {
        // The instance of the class whose record this is (the "return" of a
        // class), or of the class in the payload.
        if (s.size() == (std::size_t) si::kPrefixLen)
            return InstanceOfClassScope(scope);
        std::string cls(si::kClassPrefix);
        cls.append(s.substr(si::kPrefixLen));
        return InstanceOf(ClassSingle(loc, cls), nb::none());
    }
    case si::kSelfKind: {
        // The first parameter of a method: an instance of its class.
        DependOnScope(scope);
        return InstanceOfClassScope(ScopeAt(loc, si::ParentScopeName(ScopeName(scope))));
    }
    case si::kArgKind: {
        // What callers passed, as the derived records of this def hold it
        // under the argument's own single.
        std::optional<si::ArgInfo> arg = si::UnpackArgInfo(s);
        if (arg)
            DependOnScope(scope);  // a call binds its def's parameters
        if (!arg || fArgHops >= fEngine.fMaxArgHops)
            return out;  // callers of callers of ...: far enough
        struct Hop {
            int &hops;
            explicit Hop(int &h) : hops(h) { ++hops; }
            ~Hop() { --hops; }
        } hop(fArgHops);
        nb::object record = RecordOf(scope);
        if (record.is_none())
            return out;
        // `*args` and `**kwargs` are a tuple and a dict of what is passed: the
        // call's positions from the star parameter's on, keyword values
        // (which calls don't record).
        int star = StarOfParameter(record, arg->index);
        long long last = star == 1 ? arg->index + kMaxStarPositions : arg->index;
        // Read where the body tests parameters: callers whose arguments can't
        // meet those tests don't get there.
        CallerReach reach;
        if (use_index >= 0 && star == 0)
            reach = CallersNotReaching(scope, record, use_index);
        const bool sorted_out = !reach.unreached.empty() || !reach.reached_under.empty();
        const std::string itself =
            sorted_out ? UrlOf(ScopeLoc(scope)) + "|" + std::string(ScopeName(scope)) + "|" : std::string();
        ValueSet items;
        for (long long position = arg->index; star != 2 && position <= last; ++position) {
            std::string key = si::BuildArgInfo(position, std::nullopt);
            nb::object passed = InfoBytesOf(record, key);
            if (passed.is_none())
                continue;
            for (std::string_view one : si::NonNestedSplit(si::TextView(passed, "ibytes"), ";")) {
                const std::string caller = sorted_out ? SourceOfArgument(one, itself).caller : std::string();
                if (reach.unreached.count(caller))
                    continue;
                auto under = reach.reached_under.find(caller);
                if (under == reach.reached_under.end()) {
                    items.Merge(ValuesOfSingle(scope, one, -2));
                    continue;
                }
                // Read as each of the caller's own callers that get there binds it.
                for (const Bindings &context : under->second) {
                    CBindingsScope bound(*this, context);
                    items.Merge(ValuesOfSingle(scope, one, -2));
                }
            }
        }
        if (star == 0)
            return items;
        if (star == 2)
            return KeywordsDict(items);
        nb::object cls = BuiltinClass("tuple");
        if (cls.is_none())
            return out;
        return InstanceOf(cls, items.Empty() ? nb::object(nb::none())
                                             : nb::object(nb::make_tuple(items.AsFrozenSet(), EllipsisArg())));
    }
    case si::kModuleKind:
    case si::kImportKind:
    case si::kImportAsNameKind: {
        si::UnpackedFields f = si::UnpackFields(s);
        std::string dotted = f.fields.empty() || !f.fields[0] ? std::string() : *f.fields[0];
        if (dotted.empty()) {
            if (kind == si::kModuleKind)
                out.Add(ModuleSingle(loc, ""));  // the module itself
            return out;
        }
        if (kind == si::kImportKind)
            dotted.resize(dotted.find('.') == std::string::npos ? dotted.size() : dotted.find('.'));  // `import a.b.c` binds `a`
        return ModuleNamed(loc, dotted);
    }
    case si::kFromImportKind: {
        si::UnpackedFields f = si::UnpackFields(s);
        if (f.fields.size() < 2 || !f.fields[0] || !f.fields[1])
            return out;
        return FromImport(ModuleScopeOf(loc), *f.fields[0], *f.fields[1]);
    }
    case si::kTypeParameterKind: {
        si::DeclTypeParam param = si::UnpackTypeParameterInfo(s);
        out.Add(TypeParamSingle(scope, param.name, param.param_kind, param.bound, param.default_text));
        return out;
    }
    case si::kGenericTypeAliasKind: {
        si::UnpackedFields f = si::UnpackFields(s);
        if (f.fields.size() >= 3 && f.fields[2])
            return ResolveText(scope, *f.fields[2], use_index);
        return out;
    }
    default:
        return out;  // marks: set, get, called, decorators, ...
    }
}

// --------------------------------------------------------------- imports

nb::object CEvaluator::ImportModule(std::string_view dotted, nb::handle from_loc) {
    if (dotted.empty())
        return nb::none();
    if (dotted.front() == '.') {
        std::size_t level = 0;
        while (level < dotted.size() && dotted[level] == '.')
            ++level;
        return ImportRelative((long long) level, dotted.substr(level), from_loc);
    }
    nb::object mod;
    if (IsExactly<CModuleFinder>(fFinder))
        mod = nb::cast<CModuleFinder *>(fFinder)->FindModule(nb::str(dotted.data(), dotted.size()), from_loc);
    else
        mod = fFinder.attr("FindModule")(nb::str(dotted.data(), dotted.size()), from_loc);
    return mod;
}

nb::object CEvaluator::ImportRelative(long long level, std::string_view dotted, nb::handle from_loc) {
    if (from_loc.is_none())
        return nb::none();
    return fFinder.attr("FindRelativeModule")(level, nb::str(dotted.data(), dotted.size()), from_loc);
}

ValueSet CEvaluator::FromImport(nb::handle scope, std::string_view module, std::string_view name, bool star) {
    ValueSet out;
    nb::object loc = ScopeLoc(scope);
    nb::object mod = ImportModule(module, loc);
    std::string dotted(module);
    if (mod.is_none()) {
        // A folder without an __init__ file is a namespace package: what
        // it holds are its submodules only.
        if (name == "*" || dotted.empty() || dotted.back() == '.')
            return out;
        return ModuleNamed(loc, dotted + "." + std::string(name));
    }
    if (name == "*")
        return out;
    // `from package import name` finds a submodule before the package's
    // own attribute of that name (what the import system does for a name
    // the package hasn't set yet, and the usual intent).
    nb::object sub = SubmoduleOf(mod, dotted, name);
    if (!sub.is_none()) {
        out.Add(sub);
        return out;
    }
    return ModuleAttribute(ModuleSingle(mod, dotted), name, !star);
}

ValueSet CEvaluator::KeywordsDictByName(const Keywords &by_name) {
    ValueSet values;
    nb::list items;
    for (const auto &[name, given] : by_name) {
        values.Merge(given);
        ValueSet literal;
        literal.Add(LiteralSingle("str", name));
        std::optional<std::string> key = ConstantKey(literal);
        if (key)
            items.append(nb::make_tuple(nb::bytes(key->data(), key->size()), given.AsFrozenSet()));
    }
    ValueSet dict = KeywordsDict(values);
    if (dict.Size() == 1)
        Single(dict.Items()[0])->fDisplayItems = nb::tuple(items);
    return dict;
}

ValueSet CEvaluator::KeywordsDict(const ValueSet &values) {
    nb::object cls = BuiltinClass("dict");
    if (cls.is_none())
        return ValueSet();
    ValueSet keys;
    keys.Add(LiteralSingle("str", std::nullopt));
    return InstanceOf(cls, nb::make_tuple(keys.AsFrozenSet(), values.AsFrozenSet()));
}

nb::object CEvaluator::SubmoduleOf(nb::handle package_loc, std::string_view package_dotted, std::string_view name) {
    std::string path = LocationPath(package_loc);
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return nb::none();
    std::string_view base = std::string_view(path).substr(slash + 1);
    if (base != "__init__.py" && base != "__init__.pyi")
        return nb::none();
    std::string found = CModuleFinder::FindBelow(path.substr(0, slash), {name}, base == "__init__.py");
    if (found.empty())
        return nb::none();
    std::string dotted(package_dotted);
    if (!dotted.empty() && dotted.back() != '.')
        dotted.push_back('.');
    dotted.append(name);
    return ModuleSingle(LocalFileLocation(found), dotted);
}

ValueSet CEvaluator::InstanceOfClassScope(nb::handle scope) {
    nb::object record = RecordOf(scope);
    if (record.is_none())
        return ValueSet();
    std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
    if (si::GetInfoBytesKind(own) != si::kClassKind)
        return ValueSet();
    return InstanceOf(ClassSingle(ScopeLoc(scope), own), nb::none());
}

ValueSet CEvaluator::ModuleNamed(nb::handle loc, std::string_view dotted) {
    ValueSet out;
    nb::object mod = ImportModule(dotted, loc);
    if (!mod.is_none())
        out.Add(ModuleSingle(mod, dotted));
    return out;
}

ValueSet CEvaluator::ModuleAttribute(nb::handle module_single, std::string_view name, bool through_getattr) {
    ValueSet out;
    if (Stop())
        return out;
    auto *m = nb::cast<si::CSingleResolvedInfo *>(module_single);
    nb::object loc = m->loc;
    ActiveKey key{ReadKeyOf(loc), "", std::string(name), -7};
    if (CycleAt(key))
        return out;
    ActiveRead active(*this, key);
    // typing's special forms stand for themselves.
    std::string module_name = ModuleNameOfLoc(loc);
    if (IsTypingModuleName(module_name)) {
        std::string_view canonical = CanonicalSpecialForm(name);
        if (!canonical.empty() && canonical.find('.') == std::string_view::npos &&
            !(canonical.front() >= 'a' && canonical.front() <= 'z')) {
            // A form of typing (Optional, Union, ...) or an abstract class
            // that typing declares (Iterable, ...): the class of that name in
            // the module, or a class single that names the form.
            ValueSet found;
            nb::object scope = ModuleScopeOf(loc);
            int redirect = 0;
            FindLocal(scope, name, -2, found, redirect);
            for (const nb::object &s : found.Items())
                if (nb::cast<si::CSingleResolvedInfo *>(s)->IsClass())
                    out.Add(s);
            if (out.Empty()) {
                std::string ibytes = si::PackClassInfo(name, std::nullopt, std::nullopt, {});
                nb::object form_scope = ScopeAt(loc, name);
                out.Add(nb::cast(nb::ref<si::CSingleResolvedInfo>(new si::CSingleResolvedInfo(
                    si::ToBytes(ibytes), nb::cast<si::CScope *>(form_scope), loc))));
            }
            return out;
        }
        if (!canonical.empty() && (module_name == "typing" || module_name == "typing_extensions")) {
            // An alias of a builtin or collections class (typing's own: Set
            // of collections.abc is the abstract class).
            std::size_t dot = canonical.rfind('.');
            if (dot == std::string_view::npos) {
                nb::object cls = BuiltinClass(canonical);
                if (!cls.is_none())
                    out.Add(cls);
            } else {
                ValueSet mod = ModuleNamed(loc, canonical.substr(0, dot));
                for (const nb::object &ms : mod.Items())
                    out.Merge(ModuleAttribute(ms, canonical.substr(dot + 1)));
            }
            if (!out.Empty())
                return out;
        }
    }
    nb::object scope = ModuleScopeOf(loc);
    nb::object record = ModuleRecord(loc);
    if (record.is_none())
        return out;
    int redirect = 0;
    if (FindLocal(scope, name, -2, out, redirect))
        return out;
    // A submodule of a package.
    nb::object sub = SubmoduleOf(loc, module_name, name);
    if (!sub.is_none()) {
        out.Add(sub);
        return out;
    }
    // A module-level __getattr__ answers for any other name.
    ValueSet getattr;
    if (through_getattr && FindLocal(scope, "__getattr__", -2, getattr, redirect))
        for (const nb::object &def : getattr.Items())
            if (nb::cast<si::CSingleResolvedInfo *>(def)->IsDef())
                out.Merge(CallDef(def, {}, {}));
    return out;
}

}  // namespace pysource::infer

namespace pysource::infer {

bool CEvaluator::IsLibraryScope(nb::handle scope) {
    nb::object loc = ScopeLoc(scope);
    const std::string &url = UrlOf(loc);
    auto it = fMemo.library_urls.find(url);
    if (it == fMemo.library_urls.end())
        it = fMemo.library_urls.emplace(url, !nb::cast<bool>(fLocCache.attr("WantDerivedInfo")(loc))).first;
    return it->second;
}

nb::object CEvaluator::ScopeAt(nb::handle loc, std::string_view name) {
    auto hit = fMemo.scopes.find(std::pair<PyObject *, std::string_view>{loc.ptr(), name});
    if (hit != fMemo.scopes.end())
        return hit->second;
    nb::object scope = MakeScope(loc, name);
    fMemo.scopes.emplace(ScopeKey{loc.ptr(), std::string(name)}, scope);
    return scope;
}

std::string CEvaluator::ClassKey(nb::handle cls) {
    si::CSingleResolvedInfo *c = nb::cast<si::CSingleResolvedInfo *>(cls);
    std::string key = UrlOf(c->loc);
    key.push_back('|');
    key.append(si::TextView(c->ibytes, "ibytes"));
    return key;
}

}  // namespace pysource::infer

namespace pysource::infer {

// 1 for a `*args` parameter at def-side position `index` of the def whose
// record this is, 2 for `**kwargs`, else 0.
namespace {

// Whether `text` reads the identifier `name`.
bool MentionsName(std::string_view text, std::string_view name) {
    auto is_word = [](char c) { return std::isalnum((unsigned char) c) || c == '_'; };
    for (std::size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
        std::size_t end = at + name.size();
        if ((at == 0 || !is_word(text[at - 1])) && (end == text.size() || !is_word(text[end])))
            return true;
    }
    return false;
}

}  // namespace

CEvaluator::ArgumentSource CEvaluator::SourceOfArgument(std::string_view single, const std::string &itself) {
    ArgumentSource out;
    std::string_view s = si::SplitLogicalIndexSuffix(single).single;
    std::optional<std::string> url;
    std::string scopes;
    for (si::Kind kind = si::GetInfoBytesKind(s); kind == si::kSpecificUrlKind || kind == si::kSpecificScopeKind;
         kind = si::GetInfoBytesKind(s)) {
        si::UnpackedFields f = si::UnpackFields(s, 1);
        if (f.fields.empty() || !f.fields[0])
            break;
        if (kind == si::kSpecificUrlKind)
            url = *f.fields[0];
        else
            scopes.append(si::NormalizeScopeName(*f.fields[0])).push_back('|');
        s = si::SplitLogicalIndexSuffix(f.rest).single;
    }
    // Without a file, the caller is in the def's own (which starts `itself`):
    // the arguments of one call group alike whether they name it or not.
    if (url || !scopes.empty())
        out.caller.append(url ? std::string_view(*url) : std::string_view(itself).substr(0, itself.find('|')))
            .append("|")
            .append(scopes);
    else
        out.caller = itself;  // recorded in the def's own scope: a call of itself
    if (si::GetInfoBytesKind(s) == si::kPlainEquivKind)
        out.name = si::StripSpaces(s);
    return out;
}

CEvaluator::CBindingsScope::CBindingsScope(CEvaluator &evaluator, const Bindings &bindings) : fEvaluator(evaluator) {
    for (const auto &[key, values] : bindings)
        if (fEvaluator.fBoundNames.emplace(key, values).second)
            fAdded.push_back(key);
    if (!fAdded.empty())
        fChange.emplace(fEvaluator);
}

CEvaluator::CBindingsScope::~CBindingsScope() {
    for (const auto &key : fAdded)
        fEvaluator.fBoundNames.erase(key);
    if (fChange)
        fChange->Undone();
}

ValueSet CEvaluator::DefaultOfParameter(nb::handle body, nb::handle record, std::string_view name) {
    ValueSet defaults;
    nb::object entry = InfoBytesOf(record, name);
    if (entry.is_none())
        return defaults;
    for (std::string_view single : si::NonNestedSplit(si::TextView(entry, "ibytes"), ";"))
        if (IsParameterBinding(single) && !si::SplitLogicalIndexSuffix(single).logical_index &&
            si::GetInfoBytesKind(si::BareSingle(single)) != si::kArgKind)
            defaults.Merge(ValuesOfSingle(body, single, -2));
    return defaults;
}

std::vector<CEvaluator::Bindings> CEvaluator::CallerBindingsOfCaller(std::string_view caller,
                                                                     const std::set<std::string_view> &names,
                                                                     bool all_parameters) {
    // More callers than this are read as one: splitting them costs a read of
    // the arguments per caller.
    constexpr std::size_t kMaxCallersSplit = 32;
    std::vector<Bindings> out;
    std::size_t bar = caller.find('|');
    if (bar == std::string_view::npos || !caller.ends_with('|') || caller.find('|', bar + 1) != caller.size() - 1)
        return out;
    const std::string url(caller.substr(0, bar));
    nb::object loc = LocationFromUrl(url);
    // The innermost def around the call whose parameters are passed on.
    for (std::string_view name = caller.substr(bar + 1, caller.size() - bar - 2); !name.empty();
         name = si::ParentScopeName(name)) {
        nb::object scope = ScopeAt(loc, name);
        nb::object record = RecordOf(scope);
        if (record.is_none())
            continue;
        std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
        if (!si::IsDefKind(si::GetInfoBytesKind(own)))
            continue;
        const auto params_held = KeptParamsOf(*DefInfoOf(own));
        const std::vector<Param> &params = *params_held;
        if (std::none_of(params.begin(), params.end(), [&](const Param &p) { return names.count(p.name); }))
            continue;
        const std::string itself = url + "|" + std::string(name) + "|";
        std::vector<nb::object> held;
        std::map<std::string, CallerArguments> callers = ArgumentsByCaller(record, params, itself, held);
        if (callers.count(itself) || callers.size() > kMaxCallersSplit)
            return {};  // (a def calling itself passes on what its callers pass)
        for (const auto &[from, arguments] : callers) {
            out.push_back(BindingsOfCaller(
                scope, record, params, arguments,
                [&](const Param &param) { return all_parameters || names.count(param.name) > 0; },
                [&](std::string_view one) { return ValuesOfSingle(scope, one, -2); }));
            if (Stop())
                return {};
        }
        return out;
    }
    return out;
}

std::map<std::string, CEvaluator::CallerArguments> CEvaluator::ArgumentsByCaller(nb::handle record,
                                                                                const std::vector<Param> &params,
                                                                                const std::string &itself,
                                                                                std::vector<nb::object> &held) {
    std::map<std::string, CallerArguments> out;
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (params[i].star != 0)
            continue;
        nb::object args = InfoBytesOf(record, si::BuildArgInfo((long long) i, std::nullopt));
        if (args.is_none())
            continue;
        held.push_back(args);
        for (std::string_view one : si::NonNestedSplit(si::TextView(args, "ibytes"), ";")) {
            std::string caller = SourceOfArgument(one, itself).caller;
            CallerArguments &arguments = out[caller];
            arguments.caller = std::move(caller);
            std::vector<std::string_view> &singles = arguments.singles[params[i].name];
            arguments.one_argument_each = arguments.one_argument_each && singles.empty();
            singles.push_back(one);
            if (std::optional<long long> logical = si::SplitLogicalIndexSuffix(one).logical_index)
                arguments.logicals.insert(*logical);
        }
    }
    return out;
}

bool CEvaluator::CallerUnpacksArguments(const std::string &caller) {
    auto known = fUnpackingCallers.find(caller);
    if (known != fUnpackingCallers.end())
        return known->second;
    bool unpacks = true;  // (a caller not found may do anything)
    std::size_t bar = caller.find('|');
    if (bar != std::string::npos && caller.ends_with('|') && bar + 1 <= caller.size() - 1) {
        nb::object loc = LocationFromUrl(std::string_view(caller).substr(0, bar));
        std::string_view name = std::string_view(caller).substr(bar + 1, caller.size() - bar - 2);
        nb::object record = name.empty() ? ModuleRecord(loc) : RecordOf(ScopeAt(loc, name));
        if (!record.is_none()) {
            unpacks = false;
            for (auto [entry_name, entry] : nb::borrow<nb::dict>(record.attr("type_equivs"))) {
                for (std::string_view single : si::NonNestedSplit(si::TextView(entry, "ibytes"), ";")) {
                    std::string_view bare = si::BareSingle(single);
                    if (si::GetInfoBytesKind(bare) != si::kCalledKind)
                        continue;
                    std::string args = si::UnpackCalled(bare).second;
                    std::string_view inner = si::StripSpaces(args);
                    if (inner.size() >= 2 && inner.front() == '(' && inner.back() == ')')
                        inner = inner.substr(1, inner.size() - 2);
                    for (std::string_view arg : si::SplitArguments(inner))
                        unpacks = unpacks || arg.starts_with('*');
                }
                if (unpacks)
                    break;
            }
        }
    }
    fUnpackingCallers.emplace(caller, unpacks);
    return unpacks;
}

CEvaluator::Bindings CEvaluator::BindingsOfCaller(nb::handle body, nb::handle record, const std::vector<Param> &params,
                                                  const CallerArguments &arguments,
                                                  const std::function<bool(const Param &)> &wanted,
                                                  const std::function<ValueSet(std::string_view)> &value_of) {
    Bindings out;
    const std::string &url = UrlOf(ScopeLoc(body));
    const std::string name(ScopeName(body));
    for (const Param &param : params) {
        if (param.star != 0 || !wanted(param))
            continue;
        ValueSet values;
        auto passed = arguments.singles.find(param.name);
        if (passed != arguments.singles.end())
            for (std::string_view one : passed->second)
                values.Merge(value_of(one));
        // (A call that unpacks arguments may pass what seems left out.)  A
        // parameter whose value isn't known is bound all the same: what
        // other callers pass isn't what this one does.
        bool left_out = passed == arguments.singles.end();
        if (param.has_default && param.hint.empty() && (left_out || !arguments.OneCall()) &&
            !(left_out && CallerUnpacksArguments(arguments.caller)))
            values.Merge(DefaultOfParameter(body, record, param.name));
        out.emplace_back(std::tuple{url, name, param.name}, std::move(values));
    }
    return out;
}

CEvaluator::CallerReach CEvaluator::CallersNotReaching(nb::handle scope, nb::handle record, long long at) {
    CallerReach out;
    const FlowGuardRows *guards = ConditionsOf(scope, "Guards");
    if (!guards || (std::size_t) at >= guards->size() || (*guards)[(std::size_t) at].empty())
        return out;
    std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
    if (!si::IsDefKind(si::GetInfoBytesKind(own)))
        return out;
    const auto params_held = KeptParamsOf(*DefInfoOf(own));
    const std::vector<Param> &params = *params_held;
    const std::string &url = UrlOf(ScopeLoc(scope));
    const std::string name(ScopeName(scope));
    // The arguments at one call are read one by one at the same use, under
    // the same bindings: the answer is worked out once.
    std::tuple<std::string, std::string, long long, std::string> memo_key{url, name, at, BindingSignature(nullptr)};
    if (auto known = fCallersNotReaching.find(memo_key); known != fCallersNotReaching.end())
        return known->second;
    const std::string itself = url + "|" + name + "|";  // (as SourceOfArgument writes it)
    auto passed_to = [&](std::size_t i) -> std::vector<std::string_view> {
        nb::object passed = InfoBytesOf(record, si::BuildArgInfo((long long) i, std::nullopt));
        if (passed.is_none())
            return {};
        return si::NonNestedSplit(si::TextView(passed, "ibytes"), ";");
    };
    // A parameter the def passes on to itself holds what its callers pass it
    // (read here apart from the read under way, which would be a cycle);
    // nothing is known when some caller leaves it out or passes a
    // parameter on again.
    auto own_parameter = [&](const ArgumentSource &source) {
        return source.caller != itself ? params.end()
                                       : std::find_if(params.begin(), params.end(),
                                                      [&](const Param &p) { return p.name == source.name; });
    };
    auto passed_on = [&](std::vector<Param>::const_iterator param) {
        ValueSet values;
        if (param->has_default || param->star != 0)
            return values;
        for (std::string_view one : passed_to((std::size_t) (param - params.begin()))) {
            if (own_parameter(SourceOfArgument(one, itself)) != params.end())
                return ValueSet();
            values.Merge(ValuesOfSingle(scope, one, -2));
        }
        return values;
    };
    // Each caller's arguments to the parameters the tests read.
    std::set<std::string> tested;
    for (const Param &param : params)
        for (const auto &[header, condition, holds] : (*guards)[(std::size_t) at])
            if (param.star == 0 && MentionsName(condition, param.name))
                tested.insert(param.name);
    std::vector<nb::object> held;
    const std::map<std::string, CallerArguments> callers = ArgumentsByCaller(record, params, itself, held);
    // Whether `at` can be got to with what the caller passes (under the
    // bindings in force); callers that bind alike are answered once.
    std::map<std::string, bool> reached_under_bindings;
    auto reaches = [&](const std::string &caller, const CallerArguments &arguments) {
        auto value_of = [&](std::string_view one) {
            auto own_param = caller == itself ? own_parameter(SourceOfArgument(one, itself)) : params.end();
            return own_param != params.end() ? passed_on(own_param) : ValuesOfSingle(scope, one, -2);
        };
        CBindingsScope bound(*this, BindingsOfCaller(
                                        scope, record, params, arguments,
                                        [&](const Param &param) { return tested.count(param.name) > 0; }, value_of));
        auto [known, added] = reached_under_bindings.emplace(BindingSignature(nullptr), true);
        if (added)
            known->second = LogicalReachable(scope, record, at);
        return known->second;
    };
    for (const auto &[caller, passed] : callers) {
        if (Stop())
            break;
        if (!reaches(caller, passed)) {
            out.unreached.insert(caller);
            continue;
        }
        // What the caller passes may hang on what its own callers pass it:
        // read apart for each of those, some may not get there.
        if (caller == itself)
            continue;
        std::set<std::string_view> names;  // the plain names passed to tested parameters
        for (const auto &[param, singles] : passed.singles)
            for (std::string_view one : singles)
                if (tested.count(param))
                    if (std::string_view plain = SourceOfArgument(one, itself).name; !plain.empty())
                        names.insert(plain);
        std::vector<Bindings> contexts = CallerBindingsOfCaller(caller, names, false);
        std::vector<std::size_t> reaching;
        for (std::size_t i = 0; i < contexts.size(); ++i) {
            CBindingsScope bound(*this, contexts[i]);
            if (reaches(caller, passed))
                reaching.push_back(i);
        }
        if (Stop())
            break;
        if (reaching.empty() && !contexts.empty()) {
            out.unreached.insert(caller);
        } else if (reaching.size() < contexts.size()) {
            // What the caller passes is read with all it is passed bound.
            std::vector<Bindings> whole = CallerBindingsOfCaller(caller, names, true);
            std::vector<Bindings> &under = out.reached_under[caller];
            for (std::size_t i : reaching)
                if (i < whole.size())
                    under.push_back(std::move(whole[i]));
        }
    }
    if (!Stop())
        fCallersNotReaching.emplace(std::move(memo_key), out);
    return out;
}

int CEvaluator::StarOfParameter(nb::handle record, long long index) {
    std::string_view own = si::BareSingle(si::TextView(record.attr("ibytes"), "ibytes"));
    if (!si::IsDefKind(si::GetInfoBytesKind(own)))
        return 0;
    long long position = 0;
    for (const std::string &raw : si::SplitDeclArguments(DefInfoOf(own)->arg_decl)) {
        std::string_view text = si::StripSpaces(raw);
        if (text.empty() || text == "*" || text == "/")
            continue;
        if (position++ == index)
            return text.substr(0, 2) == "**" ? 2 : (text.front() == '*' ? 1 : 0);
    }
    return 0;
}

}  // namespace pysource::infer

namespace pysource::infer {

const std::string &CEvaluator::ModuleNameOfLoc(nb::handle loc) {
    const std::string &url = UrlOf(loc);
    auto it = fModuleNames.find(url);
    if (it == fModuleNames.end()) {
        nb::object dotted = fFinder.attr("ModuleNameOf")(loc);
        it = fModuleNames.emplace(url, dotted.is_none() ? std::string() : nb::cast<std::string>(dotted)).first;
    }
    return it->second;
}

}  // namespace pysource::infer

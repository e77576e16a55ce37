#include "pysource/resolvedinfo.h"

#include "pysource/infokinds.h"
#include "pysource/packedops.h"
#include "pysource/pytext.h"
#include "pysource/scopename.h"

namespace pysource::symbolinfo {

namespace {

// The class name an instance or literal single carries, if any.
OptText InstanceClassName(std::string_view bare) {
    Kind kind = GetInfoBytesKind(bare);
    if (kind == kTypedLiteralKind)
        return UnpackLiteralInfo(bare).class_name;
    if (kind == kInstanceKind && bare.size() > static_cast<std::size_t>(kPrefixLen))
        return UnpackClassInfo(bare).full_name;
    return std::nullopt;
}

nb::object TextOrNone(const OptText &text) { return text ? nb::object(ToStr(*text)) : nb::none(); }

}  // namespace

CSingleResolvedInfo::CSingleResolvedInfo(nb::handle ibytes_, nb::ref<CScope> scope_,
                                         nb::object loc_, nb::object class_ref)
    : ibytes(ToBytes(TextView(ibytes_, "ibytes"))), scope(std::move(scope_)),
      fClassRef(std::move(class_ref)), fTypeArgs(nb::none()), fDisplayItems(nb::none()), fMadeWith(nb::none()), fBoundTo(nb::none()), fClosure(nb::none()) {
    if (!scope)
        throw nb::type_error("a resolved single needs a scope");
    loc = loc_.is_none() ? scope->loc : std::move(loc_);
}

std::string_view CSingleResolvedInfo::Bare() const {
    std::string_view text = TextView(ibytes, "ibytes");
    if (fBareKnown)
        return text.substr(fBareBegin, fBareSize);
    std::string_view bare = BareSingle(text);
    if (bare.data() >= text.data() && bare.data() + bare.size() <= text.data() + text.size()) {
        fBareBegin = static_cast<std::size_t>(bare.data() - text.data());
        fBareSize = bare.size();
        fBareKnown = true;
    }
    return bare;
}

char CSingleResolvedInfo::BareKind() const { return GetInfoBytesKind(Bare()); }

bool CSingleResolvedInfo::IsDef() { return IsDefKind(BareKind()); }

bool CSingleResolvedInfo::IsClass(bool include_builtin) {
    Kind kind = BareKind();
    return kind == kClassKind || (include_builtin && kind == kBuiltinClassKind);
}

bool CSingleResolvedInfo::IsMethod() {
    Kind kind = BareKind();
    return kind == kMethodKind || kind == kUnboundMethodKind;
}

bool CSingleResolvedInfo::IsBound() { return BareKind() == kMethodKind; }

bool CSingleResolvedInfo::IsInstance(bool include_literals) {
    Kind kind = BareKind();
    return kind == kInstanceKind || (include_literals && kind == kTypedLiteralKind);
}

bool CSingleResolvedInfo::IsModule() {
    Kind kind = BareKind();
    return kind == kModuleKind || kind == kImportKind || kind == kImportAsNameKind;
}

bool CSingleResolvedInfo::IsLiteral(bool with_value) {
    std::string_view bare = Bare();
    if (GetInfoBytesKind(bare) != kTypedLiteralKind)
        return false;
    return !with_value || UnpackLiteralInfo(bare).value.has_value();
}

bool CSingleResolvedInfo::HasInstanceName() { return InstanceClassName(Bare()).has_value(); }

bool CSingleResolvedInfo::IsClassRef() { return !fClassRef.is_none(); }

nb::object CSingleResolvedInfo::GetTypeName() {
    std::string_view bare = Bare();
    Kind kind = GetInfoBytesKind(bare);
    if (OptText class_name = InstanceClassName(bare))
        return ToStr(*class_name);
    if (kind == kClassKind || kind == kBuiltinClassKind)
        return nb::str("type");
    if (kind == kMethodKind)
        return nb::str("method");
    if (kind == kFunctionKind || kind == kUnboundMethodKind)
        return nb::str("function");
    if (IsModule())
        return nb::str("module");
    return nb::none();
}

nb::object CSingleResolvedInfo::GetClassName() {
    std::string_view bare = Bare();
    Kind kind = GetInfoBytesKind(bare);
    if (kind == kClassKind)
        return ToStr(UnpackClassInfo(bare).full_name);
    if (kind == kBuiltinClassKind) {
        UnpackedFields unpacked = UnpackFields(bare);
        return TextOrNone(unpacked.fields.empty() ? OptText() : unpacked.fields[0]);
    }
    return TextOrNone(InstanceClassName(bare));
}

nb::object CSingleResolvedInfo::GetDefinedScope() {
    std::string_view bare = Bare();
    Kind kind = GetInfoBytesKind(bare);
    OptText defined;
    if (IsDefKind(kind))
        defined = UnpackDefInfo(bare).scope_name;
    else if (kind == kClassKind)
        defined = UnpackClassInfo(bare).full_name;
    else
        defined = InstanceClassName(bare);
    if (!defined)
        return nb::none();
    nb::ref<CScope> at_loc = scope->ReplaceLoc(loc);
    return nb::cast(at_loc->ReplaceName(ToStr(*defined)));
}

nb::object CSingleResolvedInfo::GetInstanceClassName() { return TextOrNone(InstanceClassName(Bare())); }

nb::object CSingleResolvedInfo::GetClassRefBytes() {
    if (fClassRef.is_none())
        return nb::none();
    return ToBytes(TextView(fClassRef, "class reference"));
}

bool CSingleResolvedInfo::Equals(const CSingleResolvedInfo &other) const {
    return loc.is(other.loc) && scope->Equals(*other.scope) &&
           TextView(ibytes, "ibytes") == TextView(other.ibytes, "ibytes") &&
           fClassRef.equal(other.fClassRef) && fTypeArgs.equal(other.fTypeArgs) &&
           fDisplayItems.equal(other.fDisplayItems) && fMadeWith.equal(other.fMadeWith);
}

Py_hash_t CSingleResolvedInfo::Hash() const {
    Py_hash_t bytes_hash = PyObject_Hash(ibytes.ptr());
    if (bytes_hash == -1)
        throw nb::python_error();
    Py_hash_t hash = CombineHashes(bytes_hash, scope->Hash());
    if (!fTypeArgs.is_none()) {
        Py_hash_t args_hash = PyObject_Hash(fTypeArgs.ptr());
        if (args_hash == -1)
            throw nb::python_error();
        hash = CombineHashes(hash, args_hash);
    }
    for (const nb::object *part : {&fDisplayItems, &fMadeWith}) {
        if (part->is_none())
            continue;
        Py_hash_t part_hash = PyObject_Hash(part->ptr());
        if (part_hash == -1)
            throw nb::python_error();
        hash = CombineHashes(hash, part_hash);
    }
    return hash;
}

nb::str CSingleResolvedInfo::Repr() const {
    if (!fTypeArgs.is_none())
        return nb::str("CSingleResolvedInfo({!r}, {!r}, type_args={!r})").format(ibytes, nb::cast(scope), fTypeArgs);
    return nb::str("CSingleResolvedInfo({!r}, {!r})").format(ibytes, nb::cast(scope));
}

nb::ref<CSingleResolvedInfo> CreateSingleResolvedForClass(nb::handle scope_or_loc,
                                                          nb::handle name) {
    nb::ref<CScope> class_scope;
    if (name.is_none()) {
        if (!nb::isinstance<CScope>(scope_or_loc))
            throw nb::type_error("CreateSingleResolvedForClass needs a CScope, or a location and a name");
        class_scope = nb::cast<CScope *>(scope_or_loc);
    } else {
        class_scope = NormalizedScope(nb::borrow(scope_or_loc), name);
    }
    std::string ibytes = PackClassInfo(class_scope->NameView(), std::nullopt, std::nullopt, {});
    return new CSingleResolvedInfo(ToBytes(ibytes), class_scope, class_scope->loc);
}

}  // namespace pysource::symbolinfo

#include "pysource/scoperef.h"

#include <nanobind/stl/string.h>

#include "basekit/location.h"
#include "pysource/scope.h"

namespace pysource {

ScopeView ViewScope(nb::handle scope) {
    symbolinfo::CScope *cscope = nullptr;
    if (!scope.is_valid() || !nb::try_cast<symbolinfo::CScope *>(scope, cscope) || !cscope)
        throw nb::type_error("expected a CScope");
    ScopeView view;
    view.loc = cscope->loc;
    view.name = cscope->name;
    view.name_view = cscope->NameView();
    return view;
}

nb::object MakeScope(nb::handle loc, std::string_view name) {
    return nb::cast(symbolinfo::Scope(nb::borrow(loc), nb::str(name.data(), name.size())));
}

std::string LocationUrl(nb::handle loc) {
    if (!loc.is_valid() || loc.is_none())
        throw nb::type_error("expected a location, got None");
    basekit::CLocalFileLocation *local = nullptr;
    if (nb::try_cast<basekit::CLocalFileLocation *>(loc, local) && local)
        return nb::cast<std::string>(local->Url());
    basekit::CRemoteLocation *remote = nullptr;
    if (nb::try_cast<basekit::CRemoteLocation *>(loc, remote) && remote)
        return nb::cast<std::string>(remote->Url());
    // An embedder's own kind of location: its URL form by name.
    nb::object url = nb::getattr(loc, "fUrl", nb::none());
    if (!PyUnicode_Check(url.ptr()))
        throw nb::type_error("a location must have a str fUrl");
    return nb::cast<std::string>(url);
}

nb::object LocationFromUrl(std::string_view url) {
    return basekit::LocationForUrl(nb::str(url.data(), url.size()));
}

std::string LocationPath(nb::handle loc) {
    basekit::CLocalFileLocation *local = nullptr;
    if (loc.is_valid() && nb::try_cast<basekit::CLocalFileLocation *>(loc, local) && local)
        return nb::cast<std::string>(local->Path());
    return std::string();
}

nb::object LocalFileLocation(const std::string &path) {
    return nb::cast(basekit::CLocalFileLocation::Get(nb::str(path.data(), path.size())));
}

}  // namespace pysource

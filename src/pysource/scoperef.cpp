#include "pysource/scoperef.h"

#include <nanobind/stl/string.h>

#include "basekit/location.h"

namespace pysource {

ScopeView ViewScope(nb::handle scope) {
    if (!scope.is_valid() || scope.is_none())
        throw nb::type_error("expected a scope, got None");
    ScopeView view;
    if (!nb::hasattr(scope, "loc") || !nb::hasattr(scope, "name"))
        throw nb::type_error("expected a scope (an object with loc and name)");
    view.loc = scope.attr("loc");
    view.name = scope.attr("name");
    if (!PyUnicode_Check(view.name.ptr()))
        throw nb::type_error("a scope name must be str");
    Py_ssize_t size = 0;
    const char *data = PyUnicode_AsUTF8AndSize(view.name.ptr(), &size);
    if (!data)
        throw nb::python_error();
    view.name_view = std::string_view(data, (size_t) size);
    return view;
}

nb::object MakeScope(nb::handle loc, std::string_view name) {
    nb::object make = nb::module_::import_("pysource.symbolinfo").attr("Scope");
    return make(loc, nb::str(name.data(), name.size()));
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

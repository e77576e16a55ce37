#include "pysource/scoperef.h"

#include <nanobind/stl/string.h>

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
    nb::object url = nb::getattr(loc, "fUrl", nb::none());
    if (!PyUnicode_Check(url.ptr()))
        throw nb::type_error("a location must have a str fUrl");
    return nb::cast<std::string>(url);
}

nb::object LocationFromUrl(std::string_view url) {
    nb::object location = nb::module_::import_("basekit.location");
    return location.attr("LocationFromUrl")(nb::str(url.data(), url.size()));
}

std::string LocationPath(nb::handle loc) {
    std::string url = LocationUrl(loc);
    static constexpr std::string_view kFilePrefix = "file://";
    if (url.compare(0, kFilePrefix.size(), kFilePrefix) != 0)
        return std::string();
    return url.substr(kFilePrefix.size());
}

}  // namespace pysource

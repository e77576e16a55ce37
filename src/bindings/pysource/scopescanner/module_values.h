// Module variables of pysource.scopescanner that change at run time (switches
// with setters, statistics) are read through the module's __getattr__, so
// Python always sees the value the C++ code reads.  Each part of the module
// registers a lookup; the first that knows a name answers.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/stl/string_view.h>

#include <string>
#include <string_view>
#include <vector>

namespace nb = nanobind;

namespace scopescanner_bind {

// Returns the current value, or an invalid object for a name it doesn't know.
using ModuleValueLookup = nb::object (*)(std::string_view name);

class CModuleValues {
public:
    void Add(ModuleValueLookup lookup) { fLookups.push_back(lookup); }

    void InstallGetattr(nb::module_ &m) {
        // The lookups live as long as the module: they are plain function
        // pointers copied into the closure.
        std::vector<ModuleValueLookup> lookups = fLookups;
        std::string module_name = nb::cast<std::string>(m.attr("__name__"));
        m.def("__getattr__", [lookups, module_name](std::string_view name) -> nb::object {
            for (ModuleValueLookup lookup : lookups) {
                nb::object value = lookup(name);
                if (value.is_valid())
                    return value;
            }
            std::string message =
                "module '" + module_name + "' has no attribute '" + std::string(name) + "'";
            PyErr_SetString(PyExc_AttributeError, message.c_str());
            throw nb::python_error();
        });
    }

private:
    std::vector<ModuleValueLookup> fLookups;
};

}  // namespace scopescanner_bind

// Module variables of pysource.scopescanner that change at run time (switches
// with setters, statistics): Python always sees the value the C++ code reads.
// Each part of the module registers a lookup with the names it knows; they
// become read-only attributes of the module (present in dir(), refused on
// assignment, so that nobody shadows the value the C++ code reads; their
// setter functions are the way to change them).  A lookup registered without
// names is still asked through the module's __getattr__.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/stl/string_view.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace nb = nanobind;

namespace scopescanner_bind {

// Returns the current value, or an invalid object for a name it doesn't know.
using ModuleValueLookup = nb::object (*)(std::string_view name);

class CModuleValues {
public:
    void Add(ModuleValueLookup lookup, std::initializer_list<const char *> names = {}) {
        fLookups.push_back(lookup);
        for (const char *name : names)
            fNamed.push_back(Named{name, lookup});
    }

    void InstallGetattr(nb::module_ &m) {
        InstallReadOnlyAttributes(m);
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
    struct Named {
        const char *name;
        ModuleValueLookup lookup;
    };

    // The module gets a class of its own (a subclass of the module type)
    // that holds one read-only property per named value.
    void InstallReadOnlyAttributes(nb::module_ &m) {
        if (fNamed.empty())
            return;
        std::vector<Named> named_values = fNamed;
        std::string module_name = nb::cast<std::string>(m.attr("__name__"));
        m.def("_ReadModuleValue",
              [named_values](std::string_view name, nb::handle) -> nb::object {
                  for (const Named &named : named_values)
                      if (name == named.name)
                          return named.lookup(name);
                  throw nb::attribute_error(std::string(name).c_str());
              },
              nb::arg("name"), nb::arg("module"));
        nb::list names;
        for (const Named &named : fNamed)
            names.append(named.name);
        nb::frozenset read_only(names);
        m.def("_SetModuleAttribute",
              [read_only, module_name](nb::handle module, nb::handle name, nb::handle value) {
                  if (read_only.contains(name)) {
                      std::string message =
                          module_name + "." + nb::cast<std::string>(nb::str(name)) +
                          " is read-only: change it through its setter function";
                      throw nb::attribute_error(message.c_str());
                  }
                  if (PyObject_GenericSetAttr(module.ptr(), name.ptr(), value.ptr()) < 0)
                      throw nb::python_error();
              },
              nb::arg("module"), nb::arg("name"), nb::arg("value").none());
        m.def("_DeleteModuleAttribute",
              [read_only, module_name](nb::handle module, nb::handle name) {
                  if (read_only.contains(name)) {
                      std::string message = module_name + "." +
                                            nb::cast<std::string>(nb::str(name)) +
                                            " can't be deleted";
                      throw nb::attribute_error(message.c_str());
                  }
                  if (PyObject_GenericSetAttr(module.ptr(), name.ptr(), nullptr) < 0)
                      throw nb::python_error();
              },
              nb::arg("module"), nb::arg("name"));
        m.def("_ModuleDir",
              [read_only](nb::handle module) {
                  nb::list out = nb::list(module.attr("__dict__").attr("keys")());
                  for (nb::handle name : read_only)
                      out.append(name);
                  out.sort();
                  return out;
              },
              nb::arg("module"));

        nb::module_ builtins = nb::module_::import_("builtins");
        nb::module_ functools = nb::module_::import_("functools");
        nb::dict ns;
        for (const Named &named : fNamed)
            ns[named.name] = builtins.attr("property")(
                functools.attr("partial")(m.attr("_ReadModuleValue"), named.name));
        // partialmethod binds the module as the first argument.
        ns["__setattr__"] = functools.attr("partialmethod")(m.attr("_SetModuleAttribute"));
        ns["__delattr__"] = functools.attr("partialmethod")(m.attr("_DeleteModuleAttribute"));
        ns["__dir__"] = functools.attr("partialmethod")(m.attr("_ModuleDir"));
        ns["__module__"] = m.attr("__name__");
        nb::handle module_type = (PyObject *) &PyModule_Type;
        nb::object cls = builtins.attr("type")(nb::str("ScanningModule"),
                                               nb::make_tuple(module_type), ns);
        m.attr("__class__") = cls;
    }

    std::vector<ModuleValueLookup> fLookups;
    std::vector<Named> fNamed;
};

}  // namespace scopescanner_bind

// CModuleFinder: which file an import names.  Modules are searched, in
// order, in the package root of the importing file, the configured project
// roots, the stub folders (the standard library's stubs), the standard
// library and the package folders.  A stub (.pyi) wins over source beside
// it, except in the project's roots and in the own package of an importing
// source, where the source is what runs; a package's __init__ stands for
// the package.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nb = nanobind;

namespace pysource::infer {

class CModuleFinder : public nb::intrusive_base {
public:
    // Each argument is a list of folders, or None.  `stub_dirs` None: the
    // standard library stubs shipped by typeshed_client, when installed.
    // `library_dirs` None: the interpreter's standard library and package
    // folders.
    CModuleFinder(nb::handle roots, nb::handle stub_dirs, nb::handle library_dirs);
    ~CModuleFinder() override = default;

    // The location of module `dotted_name` ("a.b.c"), imported from the file
    // `from_loc` (or None); None when no file holds it.
    virtual nb::object FindModule(nb::handle dotted_name, nb::handle from_loc);
    // The location of a relative import: `level` leading dots, then
    // `dotted_name` (may be empty), from the file `from_loc`.
    virtual nb::object FindRelativeModule(std::ptrdiff_t level, nb::handle dotted_name,
                                          nb::handle from_loc);
    // The dotted module name of a location, as far as the search path can
    // tell; None when it lies outside it.
    virtual nb::object ModuleNameOf(nb::handle loc);

    void AddRoot(nb::handle dir);
    // A file the caller is about to scan.  When the finder never found it,
    // it may be new: what the file system said about missing modules is
    // dropped (and fGeneration counts a change, if anything was missing).
    void NoteFile(nb::handle loc);
    // Counts the changes of the search path: what was found under an older
    // one may be found elsewhere now.
    std::uint64_t fGeneration = 0;
    nb::list Roots() const;
    nb::list StubDirs() const;
    nb::list LibraryDirs() const;

    // The file of module `parts` below `dir`, or "": a stub before a source
    // beside it, unless `source_first`.
    static std::string FindBelow(const std::string &dir, const std::vector<std::string_view> &parts,
                                 bool source_first = false);
    // True for the path of a source file (.py), not a stub.
    static bool IsSourcePath(std::string_view path);
    // The folder at the top of the package that holds `path`: the first
    // folder upward without an __init__ file.
    static std::string PackageRootOf(const std::string &path);

    // The same, asked of the file system once per folder.
    const std::string &KnownPackageRootOf(const std::string &path);

private:
    std::vector<std::string> fRoots;
    std::vector<std::string> fStubDirs;
    std::vector<std::string> fLibraryDirs;
    // Imports are asked again and again: what the file system said is kept
    // (a change of the search path drops it).
    std::unordered_map<std::string, std::string> fFound;  // "root|name" -> path or ""
    std::unordered_map<std::string, std::string> fPackageRoots;  // folder -> its package root
    std::unordered_map<std::string, nb::object> fLocations;      // path -> its location
    nb::object KnownLocation(const std::string &path);
};

}  // namespace pysource::infer

// CLocationCache: facts about locations that the scanners and the inference
// engine ask for on every name: where the built-in names and the typing
// module live, which files are stubs, which Python major version the code
// is read as, and whether derived info is recorded for a file (project
// files: yes; the standard library, installed packages and stubs: no).
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nb = nanobind;

namespace pysource {

// The folders of a list of paths (str or path-like), without trailing
// slashes; a TypeError names `what` for a string given instead of a list.
std::vector<std::string> FolderList(nb::handle items, const char *what);

// The folder of the standard library's stubs that typeshed_client ships,
// or "" when it isn't installed.
std::string StandardStubDir();
// The stub folders given (a list of folders), or with None the standard
// library's stubs when they are installed.
std::vector<std::string> StubDirsOrStandard(nb::handle stub_dirs);

class CLocationCache : public nb::intrusive_base {
public:
    // `python_major_version`: None for the running interpreter's.
    // `stub_dirs`: folders searched first for builtins.pyi and typing.pyi;
    // None: the standard library's stubs (StandardStubDir).
    // `library_dirs`: None for the interpreter's standard library and
    // package folders; files below them get no derived info.
    CLocationCache(nb::handle python_major_version, nb::handle stub_dirs, nb::handle library_dirs);
    ~CLocationCache() override;

    // The built-in location and scope, filled together on first use by
    // _InitBuiltinLoc.
    nb::object GetBuiltinLoc() {
        if (fBuiltinLoc.is_none())
            _InitBuiltinLoc();
        return fBuiltinLoc;
    }
    nb::object GetBuiltinScope() {
        if (fBuiltinScope.is_none())
            _InitBuiltinLoc();
        return fBuiltinScope;
    }

    // Virtual operations in slot order.
    virtual void _InitBuiltinLoc();
    virtual nb::object GetTypingLoc();
    virtual bool IsTypingLoc(nb::handle loc);
    virtual bool IsPyiLocation(nb::handle loc);
    virtual nb::object GetPrimaryLocation(nb::handle loc);
    virtual int GetPythonMajorVersion();
    virtual bool WantDerivedInfo(nb::handle loc);

    // Configuration.
    void SetPythonMajorVersion(int version);
    void SetPrimaryLocation(nb::handle loc, nb::handle primary);  // primary None: forget
    void SetWantDerivedInfo(nb::handle loc, nb::handle want);     // want None: back to the rule
    nb::list StubDirs() const;
    nb::list LibraryDirs() const;

    nb::object fBuiltinLoc;
    nb::object fBuiltinScope;

private:
    // The first of `dirs` holding `file_name`, as a location; else none.
    nb::object FindInDirs(const std::vector<std::string> &dirs, const char *file_name);
    bool IsBelowLibraryDir(const std::string &path) const;

    int fPythonMajorVersion;
    std::vector<std::string> fStubDirs;
    std::vector<std::string> fLibraryDirs;
    std::string fStdlibDir;
    nb::object fTypingLoc;
    // By location identity, holding the location.
    std::unordered_map<PyObject *, std::pair<nb::object, nb::object>> fPrimaryOf;
    std::unordered_map<PyObject *, std::pair<nb::object, bool>> fWantDerived;
    std::unordered_map<PyObject *, std::pair<nb::object, bool>> fWantDerivedOverride;
};

}  // namespace pysource

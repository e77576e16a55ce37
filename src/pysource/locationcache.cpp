#include "pysource/locationcache.h"

#include <nanobind/stl/string.h>

#include <algorithm>

#include "pysource/scoperef.h"

namespace pysource {

namespace {

std::string BaseName(const std::string &path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string DirName(const std::string &path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

std::vector<std::string> FolderList(nb::handle items, const char *what) {
    std::vector<std::string> out;
    if (items.is_none())
        return out;
    if (PyUnicode_Check(items.ptr()))
        throw nb::type_error((std::string(what) + " must be a list of folders, not a string").c_str());
    nb::object fspath = nb::module_::import_("os").attr("fspath");
    for (nb::handle item : items) {
        std::string dir = nb::cast<std::string>(fspath(item));
        while (dir.size() > 1 && dir.back() == '/')
            dir.pop_back();
        out.push_back(dir);
    }
    return out;
}

// The stubs that typeshed_client ships, found without importing it (which
// costs a command that only reads the index a good part of its time).
std::string StandardStubDir() {
    try {
        nb::object found = nb::module_::import_("importlib.util").attr("find_spec")("typeshed_client");
        nb::object package_dirs = found.is_none() ? nb::none() : found.attr("submodule_search_locations");
        if (package_dirs.is_none())
            return std::string();
        nb::object path = nb::module_::import_("os.path");
        for (nb::handle package_dir : package_dirs) {
            nb::object dir = path.attr("join")(package_dir, "typeshed");
            if (nb::cast<bool>(path.attr("isdir")(dir)))
                return nb::cast<std::string>(dir);
        }
    } catch (nb::python_error &e) {
        e.discard_as_unraisable("typeshed_client");
    }
    return std::string();
}

std::vector<std::string> StubDirsOrStandard(nb::handle stub_dirs) {
    if (!stub_dirs.is_none())
        return FolderList(stub_dirs, "stub_dirs");
    std::vector<std::string> dirs;
    std::string standard = StandardStubDir();
    if (!standard.empty())
        dirs.push_back(standard);
    return dirs;
}

CLocationCache::CLocationCache(nb::handle python_major_version, nb::handle stub_dirs,
                               nb::handle library_dirs) {
    fBuiltinLoc = nb::none();
    fBuiltinScope = nb::none();
    fTypingLoc = nb::none();
    if (python_major_version.is_none())
        fPythonMajorVersion = PY_MAJOR_VERSION;
    else
        SetPythonMajorVersion(nb::cast<int>(python_major_version));
    fStubDirs = StubDirsOrStandard(stub_dirs);
    nb::dict paths = nb::borrow<nb::dict>(nb::module_::import_("sysconfig").attr("get_paths")());
    fStdlibDir = nb::cast<std::string>(paths["stdlib"]);
    if (library_dirs.is_none()) {
        for (const char *kind : {"stdlib", "platstdlib", "purelib", "platlib"})
            if (paths.contains(kind))
                fLibraryDirs.push_back(nb::cast<std::string>(paths[kind]));
        nb::object site = nb::module_::import_("site");
        if (nb::hasattr(site, "getsitepackages"))
            for (nb::handle dir : site.attr("getsitepackages")())
                fLibraryDirs.push_back(nb::cast<std::string>(dir));
    } else {
        fLibraryDirs = FolderList(library_dirs, "library_dirs");
    }
    std::vector<std::string> unique;
    for (const std::string &dir : fLibraryDirs)
        if (std::find(unique.begin(), unique.end(), dir) == unique.end())
            unique.push_back(dir);
    fLibraryDirs.swap(unique);
}

CLocationCache::~CLocationCache() = default;

nb::object CLocationCache::FindInDirs(const std::vector<std::string> &dirs, const char *file_name) {
    nb::object exists = nb::module_::import_("os.path").attr("isfile");
    for (const std::string &dir : dirs) {
        std::string path = dir + "/" + file_name;
        if (nb::cast<bool>(exists(path)))
            return LocalFileLocation(path);
    }
    return nb::none();
}

void CLocationCache::_InitBuiltinLoc() {
    nb::object loc = FindInDirs(fStubDirs, "builtins.pyi");
    // The built-in names have no source file of their own: without a stub
    // they are recorded under a stub path in the standard library folder.
    if (loc.is_none())
        loc = LocalFileLocation(fStdlibDir + "/builtins.pyi");
    nb::object scope = MakeScope(loc, "");
    fBuiltinLoc = loc;
    fBuiltinScope = scope;
}

nb::object CLocationCache::GetTypingLoc() {
    if (fTypingLoc.is_none()) {
        nb::object loc = FindInDirs(fStubDirs, "typing.pyi");
        fTypingLoc = loc.is_none() ? LocalFileLocation(fStdlibDir + "/typing.py") : loc;
    }
    return fTypingLoc;
}

bool CLocationCache::IsTypingLoc(nb::handle loc) {
    if (loc.is_none())
        return false;
    if (loc.ptr() == GetTypingLoc().ptr())
        return true;
    std::string path = LocationPath(loc);
    std::string base = BaseName(path);
    if (base != "typing.py" && base != "typing.pyi")
        return false;
    // Only the module itself, at the top of a stub or library folder.
    std::string dir = DirName(path);
    for (const auto *dirs : {&fStubDirs, &fLibraryDirs})
        for (const std::string &known : *dirs)
            if (dir == known)
                return true;
    return dir == fStdlibDir;
}

bool CLocationCache::IsPyiLocation(nb::handle loc) {
    std::string url = LocationUrl(loc);
    return url.size() >= 4 && url.compare(url.size() - 4, 4, ".pyi") == 0;
}

nb::object CLocationCache::GetPrimaryLocation(nb::handle loc) {
    auto it = fPrimaryOf.find(loc.ptr());
    if (it != fPrimaryOf.end())
        return it->second.second;
    return nb::borrow(loc);
}

void CLocationCache::SetPrimaryLocation(nb::handle loc, nb::handle primary) {
    if (primary.is_none()) {
        fPrimaryOf.erase(loc.ptr());
        return;
    }
    fPrimaryOf[loc.ptr()] = std::make_pair(nb::borrow(loc), nb::borrow(primary));
}

int CLocationCache::GetPythonMajorVersion() { return fPythonMajorVersion; }

void CLocationCache::SetPythonMajorVersion(int version) {
    if (version != 2 && version != 3)
        throw nb::value_error("the Python major version must be 2 or 3");
    fPythonMajorVersion = version;
}

bool CLocationCache::IsBelowLibraryDir(const std::string &path) const {
    for (const auto *dirs : {&fStubDirs, &fLibraryDirs})
        for (const std::string &dir : *dirs)
            if (path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
                path[dir.size()] == '/')
                return true;
    return false;
}

bool CLocationCache::WantDerivedInfo(nb::handle loc) {
    auto forced = fWantDerivedOverride.find(loc.ptr());
    if (forced != fWantDerivedOverride.end())
        return forced->second.second;
    auto known = fWantDerived.find(loc.ptr());
    if (known != fWantDerived.end())
        return known->second.second;
    bool want = !IsPyiLocation(loc);
    if (want) {
        std::string path = LocationPath(loc);
        want = path.empty() || !IsBelowLibraryDir(path);  // remote files are project files
    }
    fWantDerived.emplace(loc.ptr(), std::make_pair(nb::borrow(loc), want));
    return want;
}

void CLocationCache::SetWantDerivedInfo(nb::handle loc, nb::handle want) {
    if (want.is_none()) {
        fWantDerivedOverride.erase(loc.ptr());
        return;
    }
    fWantDerivedOverride[loc.ptr()] = std::make_pair(nb::borrow(loc), nb::cast<bool>(want));
}

nb::list CLocationCache::StubDirs() const {
    nb::list out;
    for (const std::string &dir : fStubDirs)
        out.append(dir);
    return out;
}

nb::list CLocationCache::LibraryDirs() const {
    nb::list out;
    for (const std::string &dir : fLibraryDirs)
        out.append(dir);
    return out;
}

}  // namespace pysource

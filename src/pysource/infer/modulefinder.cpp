#include "pysource/infer/modulefinder.h"

#include <nanobind/stl/string.h>

#include <sys/stat.h>

#include "pysource/locationcache.h"
#include "pysource/pytext.h"
#include "pysource/scoperef.h"

namespace pysource::infer {

namespace {

bool IsFile(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool IsDir(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string DirName(const std::string &path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::vector<std::string_view> SplitDots(std::string_view name) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t dot = name.find('.', start);
        if (dot == std::string_view::npos)
            dot = name.size();
        parts.push_back(name.substr(start, dot - start));
        start = dot + 1;
    }
    return parts;
}

bool ValidParts(const std::vector<std::string_view> &parts) {
    for (std::string_view part : parts)
        if (part.empty() || part.find('/') != std::string_view::npos || part == "..")
            return false;
    return !parts.empty();
}

nb::object LocOrNone(const std::string &path) {
    return path.empty() ? nb::none() : LocalFileLocation(path);
}

}  // namespace

CModuleFinder::CModuleFinder(nb::handle roots, nb::handle stub_dirs, nb::handle library_dirs) {
    fRoots = FolderList(roots, "roots");
    fStubDirs = StubDirsOrStandard(stub_dirs);
    if (library_dirs.is_none()) {
        nb::dict paths = nb::borrow<nb::dict>(nb::module_::import_("sysconfig").attr("get_paths")());
        for (const char *kind : {"stdlib", "platstdlib", "purelib", "platlib"})
            if (paths.contains(kind)) {
                std::string dir = nb::cast<std::string>(paths[kind]);
                bool seen = false;
                for (const std::string &known : fLibraryDirs)
                    seen = seen || known == dir;
                if (!seen)
                    fLibraryDirs.push_back(dir);
            }
        std::string dynload = fLibraryDirs.empty() ? std::string() : fLibraryDirs[0] + "/lib-dynload";
        if (!dynload.empty() && IsDir(dynload))
            fLibraryDirs.push_back(dynload);
    } else {
        fLibraryDirs = FolderList(library_dirs, "library_dirs");
    }
}

std::string CModuleFinder::FindBelow(const std::string &dir, const std::vector<std::string_view> &parts) {
    std::string base = dir;
    for (std::string_view part : parts) {
        base += '/';
        base.append(part);
    }
    for (const char *suffix : {".pyi", ".py", "/__init__.pyi", "/__init__.py"}) {
        std::string path = base + suffix;
        if (IsFile(path))
            return path;
    }
    return std::string();
}

std::string CModuleFinder::PackageRootOf(const std::string &path) {
    std::string dir = DirName(path);
    while (!dir.empty() && (IsFile(dir + "/__init__.py") || IsFile(dir + "/__init__.pyi")))
        dir = DirName(dir);
    return dir;
}

const std::string &CModuleFinder::KnownPackageRootOf(const std::string &path) {
    std::string dir = DirName(path);
    auto it = fPackageRoots.find(dir);
    if (it == fPackageRoots.end())
        it = fPackageRoots.emplace(dir, PackageRootOf(path)).first;
    return it->second;
}

nb::object CModuleFinder::KnownLocation(const std::string &path) {
    auto it = fLocations.find(path);
    if (it == fLocations.end())
        it = fLocations.emplace(path, LocalFileLocation(path)).first;
    return it->second;
}

nb::object CModuleFinder::FindModule(nb::handle dotted_name, nb::handle from_loc) {
    std::string name(symbolinfo::TextView(dotted_name, "module name"));
    std::vector<std::string_view> parts = SplitDots(name);
    if (!ValidParts(parts))
        return nb::none();
    std::vector<const std::string *> dirs;
    std::string own_root;
    if (!from_loc.is_none()) {
        std::string path = LocationPath(from_loc);
        if (!path.empty())
            own_root = KnownPackageRootOf(path);
    }
    if (!own_root.empty())
        dirs.push_back(&own_root);
    for (const auto *group : {&fRoots, &fStubDirs, &fLibraryDirs})
        for (const std::string &dir : *group)
            dirs.push_back(&dir);
    for (const std::string *dir : dirs) {
        std::string key = *dir + "|" + name;
        auto it = fFound.find(key);
        if (it == fFound.end())
            it = fFound.emplace(key, FindBelow(*dir, parts)).first;
        if (!it->second.empty())
            return KnownLocation(it->second);
    }
    return nb::none();
}

nb::object CModuleFinder::FindRelativeModule(std::ptrdiff_t level, nb::handle dotted_name,
                                             nb::handle from_loc) {
    std::string path = LocationPath(from_loc);
    if (path.empty() || level < 1)
        return nb::none();
    std::string dir = DirName(path);
    for (std::ptrdiff_t i = 1; i < level && !dir.empty(); ++i)
        dir = DirName(dir);
    if (dir.empty())
        return nb::none();
    std::string_view name = dotted_name.is_none() ? std::string_view() : symbolinfo::TextView(dotted_name, "module name");
    if (name.empty()) {
        for (const char *init : {"/__init__.pyi", "/__init__.py"})
            if (IsFile(dir + init))
                return LocalFileLocation(dir + init);
        return nb::none();
    }
    std::vector<std::string_view> parts = SplitDots(name);
    if (!ValidParts(parts))
        return nb::none();
    return LocOrNone(FindBelow(dir, parts));
}

nb::object CModuleFinder::ModuleNameOf(nb::handle loc) {
    std::string path = LocationPath(loc);
    if (path.empty())
        return nb::none();
    std::vector<const std::string *> dirs;
    for (const auto *group : {&fRoots, &fStubDirs, &fLibraryDirs})
        for (const std::string &dir : *group)
            dirs.push_back(&dir);
    std::string own_root = KnownPackageRootOf(path);
    dirs.push_back(&own_root);
    for (const std::string *dir : dirs) {
        if (dir->empty() || path.size() <= dir->size() + 1 || path.compare(0, dir->size(), *dir) != 0 ||
            path[dir->size()] != '/')
            continue;
        std::string rel = path.substr(dir->size() + 1);
        for (const char *suffix : {"/__init__.pyi", "/__init__.py", ".pyi", ".py"}) {
            std::string s(suffix);
            if (rel.size() > s.size() && rel.compare(rel.size() - s.size(), s.size(), s) == 0) {
                rel.resize(rel.size() - s.size());
                break;
            }
        }
        for (char &c : rel)
            if (c == '/')
                c = '.';
        return nb::str(rel.c_str());
    }
    return nb::none();
}

void CModuleFinder::AddRoot(nb::handle dir) {
    for (const std::string &d : FolderList(nb::make_tuple(dir), "dir"))
        fRoots.push_back(d);
    fFound.clear();
    fPackageRoots.clear();
    fLocations.clear();
    ++fGeneration;
}

static nb::list ToList(const std::vector<std::string> &dirs) {
    nb::list out;
    for (const std::string &d : dirs)
        out.append(nb::str(d.c_str()));
    return out;
}

nb::list CModuleFinder::Roots() const { return ToList(fRoots); }
nb::list CModuleFinder::StubDirs() const { return ToList(fStubDirs); }
nb::list CModuleFinder::LibraryDirs() const { return ToList(fLibraryDirs); }

}  // namespace pysource::infer

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

std::string CModuleFinder::FindBelow(const std::string &dir, const std::vector<std::string_view> &parts,
                                     bool source_first) {
    std::string base = dir;
    for (std::string_view part : parts) {
        base += '/';
        base.append(part);
    }
    static const char *const kStubFirst[] = {".pyi", ".py", "/__init__.pyi", "/__init__.py"};
    static const char *const kSourceFirst[] = {".py", ".pyi", "/__init__.py", "/__init__.pyi"};
    for (const char *suffix : source_first ? kSourceFirst : kStubFirst) {
        std::string path = base + suffix;
        if (IsFile(path))
            return path;
    }
    return std::string();
}

bool CModuleFinder::IsSourcePath(std::string_view path) {
    return path.size() > 3 && path.substr(path.size() - 3) == ".py";
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
    // (folder, whether a source beats a stub beside it there): in the
    // project's roots it does, and in the importing file's own package when
    // that file is a source; stub and library folders keep stubs first.
    std::vector<std::pair<const std::string *, bool>> dirs;
    std::string own_root;
    bool own_source_first = false;
    if (!from_loc.is_none()) {
        std::string path = LocationPath(from_loc);
        if (!path.empty()) {
            own_root = KnownPackageRootOf(path);
            own_source_first = IsSourcePath(path);
        }
    }
    if (!own_root.empty())
        dirs.emplace_back(&own_root, own_source_first);
    for (const std::string &dir : fRoots)
        dirs.emplace_back(&dir, true);
    for (const auto *group : {&fStubDirs, &fLibraryDirs})
        for (const std::string &dir : *group)
            dirs.emplace_back(&dir, false);
    for (const auto &[dir, source_first] : dirs) {
        std::string key = *dir + (source_first ? "|s|" : "|") + name;
        auto it = fFound.find(key);
        if (it == fFound.end())
            it = fFound.emplace(key, FindBelow(*dir, parts, source_first)).first;
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
    // A source importing from its own package finds sources, a stub stubs.
    bool source_first = IsSourcePath(path);
    if (name.empty())
        return LocOrNone(FindBelow(dir, {"__init__"}, source_first));
    std::vector<std::string_view> parts = SplitDots(name);
    if (!ValidParts(parts))
        return nb::none();
    return LocOrNone(FindBelow(dir, parts, source_first));
}

// True when `path` lies below the folder `dir`.
static bool Holds(const std::string &dir, const std::string &path) {
    return !dir.empty() && path.size() > dir.size() + 1 && path.compare(0, dir.size(), dir) == 0 &&
           path[dir.size()] == '/';
}

nb::object CModuleFinder::ModuleNameOf(nb::handle loc) {
    std::string path = LocationPath(loc);
    if (path.empty())
        return nb::none();
    std::vector<const std::string *> dirs;
    for (const auto *group : {&fRoots, &fStubDirs, &fLibraryDirs})
        for (const std::string &dir : *group)
            dirs.push_back(&dir);
    // The deepest folder of the search path that holds the file names it (a
    // project's `src` folder, not the project folder above it); else the top
    // of the file's own package.
    std::string own_root = KnownPackageRootOf(path);
    const std::string *holder = nullptr;
    for (const std::string *dir : dirs) {
        if (Holds(*dir, path) && (holder == nullptr || dir->size() > holder->size()))
            holder = dir;
    }
    if (holder == nullptr && Holds(own_root, path))
        holder = &own_root;
    if (holder != nullptr) {
        std::string rel = path.substr(holder->size() + 1);
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

void CModuleFinder::NoteFile(nb::handle loc) {
    std::string path = LocationPath(loc);
    if (path.empty() || fLocations.count(path))
        return;
    bool dropped = false;
    for (auto it = fFound.begin(); it != fFound.end();) {
        if (it->second.empty()) {
            it = fFound.erase(it);
            dropped = true;
        } else {
            ++it;
        }
    }
    if (dropped) {
        fPackageRoots.clear();
        ++fGeneration;
    }
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

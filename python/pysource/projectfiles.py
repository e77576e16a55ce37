"""The Python source files of a project and where its index lives."""

import errno
import os

kSourceSuffixes = (".py", ".pyi")
kIndexDirName = ".pysource"
kIndexFileName = "index.db"
# Directories that hold no project source of their own.
kSkippedDirNames = frozenset({"__pycache__", "node_modules", "site-packages"})


def _IsSkippedDir(entry):
    name = entry.name
    if name.startswith(".") or name in kSkippedDirNames:
        return True
    # A virtual environment, whatever its name.
    return os.path.isfile(os.path.join(entry.path, "pyvenv.cfg"))


class CSourceWalk:
    """What a walk of a project's paths met: `fFiles`, the absolute paths of
    the files to index (sorted), and `fSkipped`, (path, reason) of each file
    or directory that could not be taken."""

    def __init__(self, files, skipped):
        self.fFiles = files
        self.fSkipped = skipped


def _NameProblem(path):
    """Why a source file at `path` can't be indexed by its name, or None."""
    try:
        os.fsencode(path).decode("utf-8")
    except UnicodeDecodeError:
        return "its name is not valid UTF-8"
    return None


def _LinkProblem(entry):
    """Why the link `entry` leads to no file, or None when it does (a dangling
    link counts as a file: its scan fails and is reported)."""
    try:
        os.stat(entry.path)
    except OSError as err:
        if err.errno == errno.ELOOP:
            return "a loop of symbolic links"
        return None
    return None if os.path.isfile(entry.path) else "a link to something that is not a file"


def WalkSourceFiles(paths):
    """The `.py` and `.pyi` files under `paths` as a `CSourceWalk`, without
    duplicates.  A file named directly is taken whatever its suffix.  Hidden
    directories, caches and virtual environments are left out without a word;
    links to directories aren't followed (no cycles)."""
    found = set()
    skipped = {}

    def take(path):
        problem = _NameProblem(path)
        if problem is None:
            found.add(path)
        else:
            skipped[path] = problem

    for path in paths:
        path = os.path.abspath(path)
        if not os.path.isdir(path):
            take(path)
            continue
        pending = [path]
        while pending:
            directory = pending.pop()
            try:
                entries = list(os.scandir(directory))
            except OSError as err:
                skipped[directory] = f"the directory can't be read ({err.strerror})"
                continue
            for entry in entries:
                try:
                    if entry.is_dir(follow_symlinks=False):
                        if not _IsSkippedDir(entry):
                            pending.append(entry.path)
                    elif entry.name.endswith(kSourceSuffixes):
                        problem = _LinkProblem(entry) if entry.is_symlink() else None
                        if problem is not None:
                            skipped[entry.path] = problem
                        elif entry.is_symlink() or entry.is_file():
                            take(entry.path)
                        else:
                            skipped[entry.path] = "not a regular file"
                except OSError as err:
                    skipped[entry.path] = err.strerror or str(err)
    return CSourceWalk(sorted(found), sorted(skipped.items()))


def FindSourceFiles(paths):
    """The files `WalkSourceFiles` takes, sorted."""
    return WalkSourceFiles(paths).fFiles


def ImportRoots(paths):
    """The folders above the top packages that hold the files at `paths`
    (sorted): where the project's imports of its own packages are found, the
    `src` folder of a package kept there, say.  A file outside any package
    names none, so that a loose script can't hide a library module."""
    from pysource.inferenceengine import CModuleFinder
    roots = set()
    folders = set()
    for path in paths:
        folder = os.path.dirname(path)
        if folder in folders:
            continue
        folders.add(folder)
        root = CModuleFinder.PackageRootOf(path)
        if root and root != folder:
            roots.add(root)
    return sorted(roots)


def IsUnder(path, roots):
    """True when the absolute `path` is one of `roots` or lies below one."""
    return any(path == root or path.startswith(root.rstrip(os.sep) + os.sep) for root in roots)


def DefaultIndexPath(first_path):
    """The index of a project whose first path is `first_path`."""
    first_path = os.path.abspath(first_path)
    root = first_path if os.path.isdir(first_path) else os.path.dirname(first_path)
    return os.path.join(root, kIndexDirName, kIndexFileName)


def FindIndexFor(start):
    """The nearest existing index at `start` or above it, or None."""
    directory = os.path.abspath(start)
    if not os.path.isdir(directory):
        directory = os.path.dirname(directory)
    while True:
        candidate = os.path.join(directory, kIndexDirName, kIndexFileName)
        if os.path.isfile(candidate):
            return candidate
        parent = os.path.dirname(directory)
        if parent == directory:
            return None
        directory = parent

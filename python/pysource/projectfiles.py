"""The Python source files of a project and where its index lives."""

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


def FindSourceFiles(paths):
    """Absolute paths of the `.py` and `.pyi` files under `paths`, sorted and
    without duplicates.  A file named directly is taken whatever its suffix.
    Hidden directories, caches and virtual environments are left out, and
    links to directories aren't followed (no cycles)."""
    found = set()
    for path in paths:
        path = os.path.abspath(path)
        if not os.path.isdir(path):
            found.add(path)
            continue
        pending = [path]
        while pending:
            directory = pending.pop()
            try:
                entries = list(os.scandir(directory))
            except OSError:
                continue    # an unreadable directory holds nothing we can index
            for entry in entries:
                try:
                    if entry.is_dir(follow_symlinks=False):
                        if not _IsSkippedDir(entry):
                            pending.append(entry.path)
                    elif entry.name.endswith(kSourceSuffixes) and \
                            (entry.is_file() or entry.is_symlink()):
                        # A dangling link is kept: its scan fails and is reported.
                        found.add(entry.path)
                except OSError:
                    continue
    return sorted(found)


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

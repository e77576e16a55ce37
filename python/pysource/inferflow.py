"""The block structure of scope bodies, for the inference engine's choice of
the settings of a name that reach a use.

A setting at body logical A surely runs before a use at U when A's block
(the chain of compound statements around it, within the scope) encloses U's;
a setting inside an `if`, a loop, a `try` or a `case` that doesn't hold U may
not have run, and the settings before it can reach U too.  `with` blocks run
their bodies and count as no block.
"""

from pysource import logicalline, symbolinfo
from pysource.inferquery import BodyPositions, FileLogicals

# Logical kinds that open a block whose body may not run.
_kBranchKinds = frozenset({
    logicalline.kIfBeginning, logicalline.kElifBeginning, logicalline.kElseBeginning,
    logicalline.kForBeginning, logicalline.kWhileBeginning, logicalline.kTry,
    logicalline.kExcept, logicalline.kFinally, logicalline.kMatch, logicalline.kCase,
})
_kTransparentKinds = frozenset({logicalline.kWith})
_kExitKinds = frozenset({logicalline.kReturn, logicalline.kRaise, logicalline.kContinue,
                         logicalline.kBreak})


def _BlockPaths(body):
    """One tuple per logical of a scope body: the indexes of the branch
    headers around it, outermost first."""
    paths = []
    open_blocks = []  # (header index, indent, counts as a branch)
    for i, logical in enumerate(body):
        if logical.fType == logicalline.kComment:
            paths.append(tuple(h for h, _indent, branch in open_blocks if branch))
            continue
        indent = logical.fIndentLevel
        while open_blocks and open_blocks[-1][1] >= indent:
            open_blocks.pop()
        paths.append(tuple(h for h, _indent, branch in open_blocks if branch))
        if logical.fType in _kBranchKinds or logical.fType in _kTransparentKinds:
            toks = logical.fToks
            if toks and toks[-1] == ":":   # a one-line block holds nothing after it
                open_blocks.append((i, indent, logical.fType in _kBranchKinds))
    return paths


def _TopLevelParts(toks, word):
    """`toks` split at `word` outside brackets."""
    parts, depth = [[]], 0
    for tok in toks:
        depth += (tok in "([{") - (tok in ")]}") if len(tok) == 1 else 0
        if tok == word and depth == 0:
            parts.append([])
        else:
            parts[-1].append(tok)
    return parts


def _IsName(tok):
    return tok.isidentifier() and tok not in ("None", "True", "False", "not", "is")


def _NotNoneIfTrue(toks):
    """The names a condition's truth shows not None: `x`, `x is not None`,
    `isinstance(x, ...)`, joined by `and`."""
    names = set()
    for part in _TopLevelParts(toks, "and"):
        if len(part) == 1 and _IsName(part[0]):
            names.add(part[0])
        elif len(part) == 4 and _IsName(part[0]) and part[1:] == ["is", "not", "None"]:
            names.add(part[0])
        elif len(part) > 4 and part[:2] == ["isinstance", "("] and _IsName(part[2]) \
                and part[3] == ",":
            names.add(part[2])
    return names


def _NotNoneIfFalse(toks):
    """The names a condition's falsity shows not None: `x is None`, `not x`,
    joined by `or`."""
    names = set()
    for part in _TopLevelParts(toks, "or"):
        if len(part) == 3 and _IsName(part[0]) and part[1:] == ["is", "None"]:
            names.add(part[0])
        elif len(part) == 2 and part[0] == "not" and _IsName(part[1]):
            names.add(part[1])
    return names


def _NoneTests(body, paths):
    """{logical index of an `if`/`elif`/`else` header: (names not None in its
    block, names not None once the statement is done)}.  In an `elif` or
    `else` block the tests before it failed.  The latter holds for an `if`
    whose false branch is the only way past it for the name: its block leaves
    (return, raise, continue, break) or sets the name, at its top level."""
    tests = {}
    failed = {}  # indent -> names not None once the tests of its if chain so far failed
    for i, logical in enumerate(body):
        kind = logical.fType
        if kind == logicalline.kComment:
            continue
        toks = logical.fToks
        indent = logical.fIndentLevel
        for deeper in [k for k in failed if k > indent]:
            del failed[deeper]
        chain = failed.pop(indent, None) if kind in (logicalline.kElifBeginning,
                                                     logicalline.kElseBeginning) else None
        failed.pop(indent, None)
        if kind not in (logicalline.kIfBeginning, logicalline.kElifBeginning,
                        logicalline.kElseBeginning) or len(toks) < 2 or toks[-1] != ":":
            continue
        if kind == logicalline.kElseBeginning:
            if chain:
                tests[i] = (frozenset(chain), frozenset())
            continue
        if kind == logicalline.kElifBeginning and chain is None:
            continue
        condition = toks[1:-1]
        candidates = _NotNoneIfFalse(condition)
        failed[indent] = candidates | (chain or set())
        inside = _NotNoneIfTrue(condition) | (chain or set())
        after = set()
        if kind == logicalline.kIfBeginning:
            block = []
            for j in range(i + 1, len(body)):
                if i not in paths[j]:
                    break
                if len(paths[j]) == len(paths[i]) + 1 and body[j].fType != logicalline.kComment:
                    block.append(body[j])
            if any(b.fType in _kExitKinds for b in block):
                after = candidates
            else:
                after = {b.fToks[0] for b in block if len(b.fToks) > 1
                         and b.fToks[0] in candidates and b.fToks[1] in ("=", ":")}
        if inside or after:
            tests[i] = (frozenset(inside), frozenset(after))
    return tests


class _CBody:
    """What the engine asks of one scope body."""

    __slots__ = ("paths", "generator", "none_tests")

    def __init__(self, logicals):
        self.paths = _BlockPaths(logicals)
        self.none_tests = _NoneTests(logicals, self.paths)
        self.generator = any("yield" in logical.fToks for logical in logicals
                             if logical.fType != logicalline.kComment)


class CBlockStructure:
    """Block paths of the bodies of every scope of a file, read once per
    version of the file (by disk time) and kept."""

    def __init__(self, info_cache):
        self._fInfoCache = info_cache
        self._fFiles = {}  # url -> (disk time, {scope name: paths})

    def BlockPaths(self, loc, scope_name):
        """The block paths of the body of `scope_name` in `loc`, as a list
        indexed by body logical index, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body.paths

    def NoneTests(self, loc, scope_name):
        """{logical index of an `if`/`elif` header of the body of `scope_name`:
        (names that are not None in its block, names that are not None once
        the statement is done)}, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body.none_tests

    def IsGenerator(self, loc, scope_name):
        """Whether the body of the def `scope_name` yields (its calls make a
        generator), or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body.generator

    def _Body(self, loc, scope_name):
        url = loc.fUrl
        mtime = self._fInfoCache.GetLocDiskMTime(loc)
        known = self._fFiles.get(url)
        if known is None or known[0] != mtime:
            known = (mtime, self._Read(loc))
            self._fFiles[url] = known
        return known[1].get(symbolinfo.NormalizedScope(None, scope_name).name)

    def Forget(self, loc=None):
        if loc is None:
            self._fFiles.clear()
        else:
            self._fFiles.pop(loc.fUrl, None)

    @staticmethod
    def _Read(loc):
        logicals = FileLogicals(loc)
        if logicals is None:
            return {}
        bodies = {}
        for logical, position in zip(logicals, BodyPositions(logicals)):
            if position is not None:
                bodies.setdefault(position[0], []).append((position[1], logical))
        return {name: _CBody([logical for _index, logical in sorted(items, key=lambda x: x[0])])
                for name, items in bodies.items()}

"""The block structure of scope bodies, for the inference engine's choice of
the settings of a name that reach a use.

A setting at body logical A surely runs before a use at U when A's block
(the chain of compound statements around it, within the scope) encloses U's;
a setting inside an `if`, a loop, a `try` or a `case` that doesn't hold U may
not have run, and the settings before it can reach U too.  `with` blocks run
their bodies and count as no block.
"""

from pysource import _fastaccess, logicalline, scopescanner, symbolinfo
from pysource.filellinecache import CFileLogicalLineCache
from pysource.inferquery import NotePositions

# Logical kinds that open a block whose body may not run.
_kBranchKinds = frozenset({
    logicalline.kIfBeginning, logicalline.kElifBeginning, logicalline.kElseBeginning,
    logicalline.kForBeginning, logicalline.kWhileBeginning, logicalline.kTry,
    logicalline.kExcept, logicalline.kFinally, logicalline.kMatch, logicalline.kCase,
})
_kTransparentKinds = frozenset({logicalline.kWith})


# Tokens are read one at a time: a logical that hands out its token list
# may come to hold anything, and the collector walks it from then on.
def _LastToken(logical):
    return logical.GetTokenString(-1) if logical.fTokenCount else None


def _InnerTokens(logical):
    """The tokens between a header's keyword and its colon."""
    return [logical.GetTokenString(i) for i in range(1, logical.fTokenCount - 1)]


def _AssertedCondition(logical):
    """The condition of an `assert` (its message left out), which holds
    after it; None when there is none."""
    tokens = []
    depth = 0
    for i in range(1, logical.fTokenCount):
        token = logical.GetTokenString(i)
        depth += token in ("(", "[", "{")
        depth -= token in (")", "]", "}")
        if token == "," and depth == 0:
            break
        tokens.append(token)
    return " ".join(tokens) or None


# Classes whose class pattern's one positional sub-pattern matches the subject
# itself (`case int(n):`).
_kSelfMatchingClasses = frozenset({"bool", "bytearray", "bytes", "dict", "float", "frozenset", "int",
                                   "list", "set", "str", "tuple"})


def _SplitTopLevel(tokens, separator):
    """`tokens` split at the `separator` tokens outside brackets."""
    parts, depth = [[]], 0
    for token in tokens:
        depth += token in ("(", "[", "{")
        depth -= token in (")", "]", "}")
        if depth == 0 and token == separator:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts


def _IsDottedName(tokens):
    return bool(tokens) and len(tokens) % 2 == 1 and all(
        t.isidentifier() if k % 2 == 0 else t == "." for k, t in enumerate(tokens))


def _IsLiteral(tokens):
    body = tokens[1:] if tokens[:1] == ["-"] else tokens
    return bool(body) and all(t[:1] in ("'", '"') or t[:2].lower() in ("b'", 'b"') or
                              t[:1].isdigit() for t in body)


def _CaseTest(subject, tokens):
    """The test a `case` with the pattern `tokens` makes of the subject, a
    name, as a condition (class patterns as isinstance, literals as `==`,
    None, True and False as `is`, and its guard), or None; and whether the
    case fails only when that test does (no sub-patterns, no guard)."""
    if not subject or not subject.isidentifier():
        return None, False
    pattern, *guard = _SplitTopLevel(tokens, "if")
    alternatives = _SplitTopLevel(pattern, "|")
    last = alternatives[-1]
    if len(last) > 2 and last[-2] == "as":
        alternatives[-1] = last[:-2]
    classes, values, whole = [], [], not guard
    for alt in alternatives:
        if len(alt) > 2 and alt[-1] == ")" and _IsDottedName(alt[:alt.index("(")]):
            cls = "".join(alt[:alt.index("(")])
            inner = alt[alt.index("(") + 1:-1]
            classes.append(cls)
            # (`int(n)` captures the subject itself: it fails only by the test)
            whole = whole and (not inner or (cls in _kSelfMatchingClasses and len(inner) == 1 and
                                             inner[0].isidentifier()))
        elif alt in (["None"], ["True"], ["False"]):
            values.append(f"{subject} is {alt[0]}")
        elif _IsLiteral(alt) or (_IsDottedName(alt) and len(alt) > 1):
            values.append(f"{subject} == {' '.join(alt)}")
        else:
            return None, False   # a capture, a sequence, a mapping: no test written here
    if classes and values or len(values) > 1:
        return None, False       # (a true `or` of tests says nothing)
    test = f"isinstance ( {subject} , ( {' , '.join(classes)} , ) )" if classes else values[0]
    if guard:
        test = f"{test} and ( {' '.join(guard[0])} )"
    return test, whole


def _PatternCaptures(tokens, path, out):
    """Appends to `out` (name, expression) for each name the pattern
    `tokens` binds to a part of the value `path` it matches that an
    expression reads: the value itself (a capture, `P as name`), an
    attribute (`C(attr=name)`, or `C(name)` through `C.__match_args__`), an
    item by position or key (`[a, b]`, `{"k": v}`).  Parts no expression
    reads are left out."""
    last = tokens[-2:]
    if len(tokens) > 2 and last[0] == "as" and last[1].isidentifier():
        out.append((last[1], path))
        _PatternCaptures(tokens[:-2], path, out)
        return
    alternatives = _SplitTopLevel(tokens, "|")
    if len(alternatives) > 1:
        # An or-pattern binds the same names in each alternative.
        _PatternCaptures(alternatives[0], path, out)
        return
    if len(tokens) == 1:
        if tokens[0].isidentifier() and tokens[0] not in ("_", "None", "True", "False"):
            out.append((tokens[0], path))
        return
    if not tokens or tokens[-1] not in (")", "]", "}"):
        return
    open_i = next((k for k, t in enumerate(tokens) if t in ("(", "[", "{")), None)
    items = [item for item in _SplitTopLevel(tokens[open_i + 1:-1], ",") if item]
    head = tokens[:open_i]
    if head and _IsDottedName(head):
        positional = [item for item in items if item[1:2] != ["="]]
        cls = "".join(head)
        if cls in _kSelfMatchingClasses and len(positional) == 1:
            _PatternCaptures(positional[0], path, out)
        else:
            # The k-th positional pattern matches the attribute that the
            # class's __match_args__ names at k.
            for k, item in enumerate(positional):
                _PatternCaptures(item, f"getattr ( {path} , {cls} . __match_args__ [ {k} ] )", out)
        for item in items:
            if item[1:2] == ["="] and item[0].isidentifier():
                _PatternCaptures(item[2:], f"{path}.{item[0]}", out)
        return
    if head:
        return
    if tokens[0] == "{":
        for item in items:
            key, *value = _SplitTopLevel(item, ":")
            if value and (_IsLiteral(key) or _IsDottedName(key)):
                _PatternCaptures(value[0], f"{path}[{' '.join(key)}]", out)
        return
    if tokens[0] == "(" and len(items) == 1 and "," not in tokens:
        _PatternCaptures(items[0], path, out)    # a pattern in parentheses
        return
    for position, item in enumerate(items):
        if item[:1] == ["*"]:
            break                                 # (what follows a star has no fixed position)
        _PatternCaptures(item, f"{path}[{position}]", out)


def _Captures(body):
    """One tuple per logical of a scope body: at a `case` of a `match`,
    (index, "name := expression", 0) for each name its pattern binds to a
    part an expression reads, to be read at `index` (the case's first
    logical: where its test holds of a subject that is a name)."""
    captures = [()] * len(body)
    subjects = []   # (indent, subject) of the match statements open
    for i, logical in enumerate(body):
        if logical.fType == logicalline.kComment:
            continue
        indent = logical.fIndentLevel
        while subjects and subjects[-1][0] >= indent:
            subjects.pop()
        if logical.fType == logicalline.kMatch and _LastToken(logical) == ":":
            subject = " ".join(_InnerTokens(logical))
            subjects.append((indent, subject if subject.isidentifier() else f"( {subject} )"))
        elif logical.fType == logicalline.kCase and subjects and _LastToken(logical) == ":":
            pattern = _SplitTopLevel(_InnerTokens(logical), "if")[0]
            found = []
            _PatternCaptures(pattern, subjects[-1][1], found)
            captures[i] = tuple((i + 1, f"{name} := {expression}", 0) for name, expression in found)
    return captures


def _Yields(logical):
    return "yield" in logical.fText and any(logical.GetTokenString(i) == "yield"
                                            for i in range(logical.fTokenCount))


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
            if _LastToken(logical) == ":":   # a one-line block holds nothing after it
                open_blocks.append((i, indent, logical.fType in _kBranchKinds))
    return paths


def _IfChains(body):
    """One tuple per logical of a scope body: at each header of an
    if/elif/else chain that ends with an `else`, the headers of the chain;
    empty elsewhere.  One of its blocks surely runs."""
    chains = [()] * len(body)
    open_chains = {}  # indent -> headers of the if/elif chain open there
    for i, logical in enumerate(body):
        if logical.fType == logicalline.kComment:
            continue
        indent = logical.fIndentLevel
        for deeper in [level for level in open_chains if level > indent]:
            del open_chains[deeper]
        chain = open_chains.pop(indent, None)
        if _LastToken(logical) != ":":
            continue
        if logical.fType == logicalline.kIfBeginning:
            open_chains[indent] = (i,)
        elif logical.fType == logicalline.kElifBeginning and chain:
            open_chains[indent] = chain + (i,)
        elif logical.fType == logicalline.kElseBeginning and chain:
            for header in chain + (i,):
                chains[header] = chain + (i,)
    return chains


_kLoopKinds = frozenset({logicalline.kForBeginning, logicalline.kWhileBeginning})
_kExitKinds = frozenset({logicalline.kReturn, logicalline.kRaise, logicalline.kContinue,
                         logicalline.kBreak})


class _CGuardBlock:
    __slots__ = ("header", "indent", "kind", "condition", "inside", "exits", "skips", "chain",
                 "chain_exits", "last", "breaks", "misses")

    def __init__(self, header, indent, kind, condition, inside):
        self.header, self.indent, self.kind, self.condition = header, indent, kind, condition
        self.inside = inside      # guards that hold in the whole block
        self.exits = []           # guards from earlier `if` blocks here that always leave
        self.skips = []           # (header, condition, last logical) of earlier `if` blocks here
        self.chain = []           # (header, condition) of the if/elif chain just closed here
        self.chain_exits = False  # whether every block of that chain always leaves
        self.last = None          # kind of the latest logical directly in the block
        self.breaks = False       # for a loop: whether a `break` leaves it
        self.misses = []          # for a `match`: (header, test) of its cases that fail only by their test


def _Conditions(body):
    """Three lists with one tuple per logical of a scope body.  The guards: the
    conditions known there, as (header index, condition text, holds): those
    of the `if`, `elif` and `while` headers around it, the earlier branches
    of an `elif` or `else` (not holding; at an `elif` header too), an earlier `if` of its block
    whose body always leaves (return, raise, continue, break) without an
    `elif` or `else`, an earlier `assert` of its block (holding), the
    condition of an earlier `while` of its block that no `break` leaves
    (not holding, after the loop's last logical: its `else` and what
    follows run once the condition was found false), and a false guard
    past a return, raise, continue or break directly in its block.  The
    skips: the other earlier `if` blocks (the first of a chain too), and
    if/elif chains without an `else` (their conditions joined by `or`), as
    (header index, condition text, last logical of the block): what was set
    before one reaches past it only when its condition was false.  The block exits, at the header of an `if` block that doesn't
    always leave: the guards of the earlier `if` blocks in it that always
    leave, which hold at its end."""
    guards = []
    skips = []
    block_exits = [()] * len(body)
    stack = [_CGuardBlock(-1, -1, None, None, [])]
    for i, logical in enumerate(body):
        if logical.fType == logicalline.kComment:
            guards.append(tuple(g for b in stack for g in b.inside + b.exits))
            skips.append(tuple(k for b in stack for k in b.skips))
            continue
        indent = logical.fIndentLevel
        continues_chain = logical.fType in (logicalline.kElifBeginning, logicalline.kElseBeginning)
        while len(stack) > 1 and stack[-1].indent >= indent:
            block = stack.pop()
            parent = stack[-1]
            same_level = block.indent == indent
            exits = block.last in _kExitKinds
            if block.kind in (logicalline.kIfBeginning, logicalline.kElifBeginning) and \
                    continues_chain and same_level:
                first = block.kind == logicalline.kIfBeginning
                parent.chain = ([] if first else parent.chain) + [(block.header, block.condition)]
                parent.chain_exits = (first or parent.chain_exits) and exits
            else:
                chain = parent.chain + [(block.header, block.condition)]
                if block.kind == logicalline.kElifBeginning and parent.chain_exits and exits:
                    # An if/elif chain whose every block leaves: none of its
                    # conditions held past it.
                    parent.exits.extend((h, c, False) for h, c in chain)
                elif block.kind == logicalline.kElifBeginning and all(c for _h, c in chain):
                    # Without an `else`, what was set before the chain reaches
                    # past it only when none of its conditions held.
                    parent.skips.append((chain[0][0], " or ".join(f"( {c} )" for _h, c in chain), i - 1))
                parent.chain = []
            if block.kind == logicalline.kWhileBeginning and not block.breaks and block.condition:
                parent.exits.append((i - 1, block.condition, False))
            if block.kind == logicalline.kIfBeginning and exits:
                if not (continues_chain and same_level):
                    parent.exits.append((block.header, block.condition, False))
            elif block.kind == logicalline.kIfBeginning:
                # Also the first block of a chain: the later blocks run only
                # when its condition was false.
                parent.skips.append((block.header, block.condition, i - 1))
                block_exits[block.header] = tuple(block.exits)
        parent = stack[-1]
        if parent.last in _kExitKinds:
            # Past a return, raise, continue or break directly in its block:
            # never runs (a false guard), and the block still leaves there.
            if not any(c == "False" and holds for _h, c, holds in parent.exits):
                parent.exits.append((i, "False", True))
        else:
            parent.last = logical.fType
        # An `elif` tests its condition only when the earlier ones of its chain were false.
        tested_after = [(h, c, False) for h, c in parent.chain] \
            if logical.fType == logicalline.kElifBeginning else []
        guards.append(tuple(g for b in stack for g in b.inside + b.exits) + tuple(tested_after))
        skips.append(tuple(k for b in stack for k in b.skips))
        if logical.fType == logicalline.kBreak:
            loop = next((b for b in reversed(stack) if b.kind in _kLoopKinds), None)
            if loop is not None:
                loop.breaks = True
        if logical.fType == logicalline.kAssert:
            asserted = _AssertedCondition(logical)
            if asserted:
                parent.exits.append((i, asserted, True))
            continue
        if logical.fType not in _kBranchKinds | _kTransparentKinds or _LastToken(logical) != ":":
            continue
        condition = " ".join(_InnerTokens(logical)) or None
        if logical.fType in (logicalline.kIfBeginning, logicalline.kWhileBeginning):
            inside = [(i, condition, True)]
        elif logical.fType == logicalline.kCase and parent.kind == logicalline.kMatch:
            # A case runs when the earlier ones failed and its pattern matches.
            test, whole = _CaseTest(parent.condition, _InnerTokens(logical))
            inside = [(h, c, False) for h, c in parent.misses] + ([(i, test, True)] if test else [])
            if whole:
                parent.misses.append((i, test))
        elif logical.fType == logicalline.kElifBeginning:
            inside = [(h, c, False) for h, c in parent.chain] + [(i, condition, True)]
        elif logical.fType == logicalline.kElseBeginning:
            inside = [(h, c, False) for h, c in parent.chain]
        else:
            inside = []
        stack.append(_CGuardBlock(i, indent, logical.fType, condition, inside))
    return guards, skips, block_exits

# What the engine asks of one scope body, as a plain tuple of tuples of
# atomic values, which the garbage collector stops walking after its first
# pass over it: (block paths, loop headers, guards, skipped ifs, whether it
# yields, block exits, if chains, whether it always raises, def statements,
# return statements, what case patterns bind).
(_kPaths, _kLoops, _kGuards, _kSkips, _kGenerator, _kBlockExits, _kIfChains, _kRaises,
 _kDefStatements, _kReturns, _kCaptures, _kDocstring) = range(12)
_kDefKinds = frozenset({logicalline.kFunctionDef, logicalline.kClassDef})


def _AlwaysRaises(logicals):
    """Whether the last statement directly in the body is a `raise` (an
    abstract method's `raise NotImplementedError`): its end is never reached."""
    statements = [logical for logical in logicals if logical.fType != logicalline.kComment]
    if not statements:
        return False
    outer = min(logical.fIndentLevel for logical in statements)
    last = [logical for logical in statements if logical.fIndentLevel == outer][-1]
    return last.fType == logicalline.kRaise


def _BodyStructure(logicals):
    guards, skips, block_exits = _Conditions(logicals)
    loops = tuple(i for i, logical in enumerate(logicals) if logical.fType in _kLoopKinds)
    generator = any(_Yields(logical) for logical in logicals
                    if logical.fType != logicalline.kComment)
    defs = tuple((logical.fLocalScopeName, i) for i, logical in enumerate(logicals)
                 if logical.fType in _kDefKinds and logical.fLocalScopeName is not None)
    returns = tuple(i for i, logical in enumerate(logicals) if logical.fType == logicalline.kReturn)
    return (tuple(_BlockPaths(logicals)), loops, tuple(guards), tuple(skips), generator,
            tuple(block_exits), tuple(_IfChains(logicals)), _AlwaysRaises(logicals), defs, returns,
            tuple(_Captures(logicals)), _Docstring(logicals))


def _Docstring(logicals):
    """The source text of the string literal that is the body's first
    logical (its docstring), or None."""
    first = logicals[0] if logicals else None
    if first is None or first.fType != logicalline.kStringExpression or not first.fTokenCount:
        return None
    return first.GetTokenString(0)


# Files whose bodies are kept at once: the engine reads the bodies of the
# file a scan is in and of the few it reaches; every file ever read would
# keep its logical lines in memory.  Stubs are kept apart, and more of them:
# the same few (the builtins, typing, io) are read by the requests of every
# file, and read again each time they fell out, in one step inside a request.
kFilesKept = 8
kStubFilesKept = 32
kPendingReadsKept = 4
# Files whose worked-out structures outlast their logicals: plain tuples,
# which the collector stops walking, and asked for again by every engine
# that starts without its kept answers (a derived pass starts each file so).
# A file's structures take tens of kilobytes: the files a scan reaches again
# soon, not every file of a large project, or memory grows with the project.
kStructuresKept = 256


_kNotKept = object()


def _BodyName(scope_name):
    """The name a scope's body structure is kept under."""
    return symbolinfo.NormalizedScope(None, scope_name).name


class CBlockStructure:
    """Block paths of the bodies of the scopes of a file, read once per
    version of the file (by disk time) and kept for the latest few files."""

    def __init__(self, info_cache):
        self._fInfoCache = info_cache
        # url -> (disk time, the file's logicals, {scope name: the indexes of
        # its body's logicals until first asked for}, {scope name: its
        # _BodyStructure}), the latest read last; stubs in _fStubFiles
        self._fFiles = {}
        self._fStubFiles = {}
        # url -> (disk time, {scope name: its _BodyStructure}), the same
        # dict as in _fFiles or _fStubFiles while the file is there, the
        # latest read last
        self._fStructures = {}
        # url -> _CFileRead under way (ReadFileUntil), the latest last
        self._fPendingReads = {}

    def BlockPaths(self, loc, scope_name):
        """The block paths of the body of `scope_name` in `loc`, as a tuple
        indexed by body logical index, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kPaths]

    def LoopHeaders(self, loc, scope_name):
        """The body logical indexes of the `for` and `while` headers of the
        body of `scope_name` in `loc`, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kLoops]

    def Guards(self, loc, scope_name):
        """The conditions known at each logical of the body of `scope_name`
        in `loc` (see _Conditions), as a tuple indexed by body logical index, or
        None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kGuards]

    def SkippedIfs(self, loc, scope_name):
        """The earlier `if` blocks at each logical of the body of
        `scope_name` in `loc` (see _Conditions), as a tuple indexed by body
        logical index, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kSkips]

    def BlockExits(self, loc, scope_name):
        """The guards that hold at the end of each `if` block of the body of
        `scope_name` in `loc` (see _Conditions), as a tuple indexed by body
        logical index, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kBlockExits]

    def IfChains(self, loc, scope_name):
        """The if/elif/else chains of the body of `scope_name` in `loc` (see
        _IfChains), as a tuple indexed by body logical index, or None when
        the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kIfChains]

    def DefStatements(self, loc, scope_name):
        """(local scope name, body logical index) of each def and class
        statement of the body of `scope_name` in `loc` (`f|0`: the first
        def of `f`), or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kDefStatements]

    def Captures(self, loc, scope_name):
        """What the `case` patterns at each logical of the body of
        `scope_name` in `loc` bind (see _Captures), as a tuple indexed by body
        logical index, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kCaptures]

    def ReturnStatements(self, loc, scope_name):
        """The body logical indexes of the `return` statements of the body
        of `scope_name` in `loc`, or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kReturns]

    def IsGenerator(self, loc, scope_name):
        """Whether the body of the def `scope_name` yields (its calls make a
        generator), or None when the file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kGenerator]

    def AlwaysRaises(self, loc, scope_name):
        """Whether the body of the def `scope_name` ends in a `raise` directly
        in it, so that it never falls off its end, or None when the file
        can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kRaises]

    def Docstring(self, loc, scope_name):
        """The source text of the docstring of the body of `scope_name` in
        `loc` (prefix and quotes included), or None when it has none or the
        file can't be read."""
        body = self._Body(loc, scope_name)
        return None if body is None else body[_kDocstring]

    def ReadFile(self, loc):
        """Reads the file at `loc` unless it is kept already: a caller with
        time to spare (a scan starting on the file) takes that step apart
        from the questions that would need it."""
        self._File(loc)

    def ReadFileUntil(self, loc, end_time, scope_name=None):
        """Reads the file at `loc` unless it is kept already, in steps that
        end once the scan clock reaches `end_time` (None: in one go).  True
        once the file is kept; False when time ran out first, and the next
        call goes on where this one stopped.  With `scope_name`, the read is
        for that scope's body alone: True at once when its structure was
        worked out before (the file itself may have been let go since)."""
        mtime = self._fInfoCache.GetLocDiskMTime(loc)
        if scope_name is not None and self._KeptBody(loc.fUrl, mtime, _BodyName(scope_name)) is not _kNotKept:
            return True
        return self._ReadUntil(loc, end_time, mtime)

    def _ReadUntil(self, loc, end_time, mtime):
        url = loc.fUrl
        known = self._Files(url)[0].get(url)
        if known is not None and known[0] == mtime:
            return True
        pending = self._fPendingReads.pop(url, None)
        if pending is None or pending.fMTime != mtime:
            if pending is not None:
                pending.destroy()
            pending = _CFileRead(loc, mtime)
        if not pending.StepUntil(end_time):
            if len(self._fPendingReads) >= kPendingReadsKept:
                self._fPendingReads.pop(next(iter(self._fPendingReads))).destroy()
            self._fPendingReads[url] = pending
            return False
        self._Keep(url, (mtime, *pending.fResult, self._WorkedOut(url, mtime)))
        return True

    def _Files(self, url):
        """(the kept files of the kind of `url`, how many of them are kept)."""
        if url.endswith(".pyi"):
            return self._fStubFiles, kStubFilesKept
        return self._fFiles, kFilesKept

    def _Keep(self, url, known):
        files, kept = self._Files(url)
        if url not in files and len(files) >= kept:
            del files[next(iter(files))]
        files[url] = known

    def _File(self, loc, mtime=None):
        """What is kept of the file at `loc` (read in one go if need be, a
        read under way finished), made the latest read."""
        if mtime is None:
            mtime = self._fInfoCache.GetLocDiskMTime(loc)
        self._ReadUntil(loc, None, mtime)
        files = self._Files(loc.fUrl)[0]
        known = files[loc.fUrl] = files.pop(loc.fUrl)
        return known

    def _WorkedOut(self, url, mtime):
        """The structures worked out of the file at `url` as it was at `mtime`."""
        kept = self._fStructures.pop(url, None)
        if kept is None or kept[0] != mtime:
            kept = (mtime, {})
            if len(self._fStructures) >= kStructuresKept:
                del self._fStructures[next(iter(self._fStructures))]
        self._fStructures[url] = kept
        return kept[1]

    def _KeptBody(self, url, mtime, name):
        """The structure of the body `name` (see _BodyName) in the file at
        `url` as it was at `mtime` (None: the file has no such body), when it
        was worked out before; else _kNotKept."""
        kept = self._fStructures.get(url)
        if kept is None or kept[0] != mtime:
            return _kNotKept
        return kept[1].get(name, _kNotKept)

    def _Body(self, loc, scope_name):
        name = _BodyName(scope_name)
        mtime = self._fInfoCache.GetLocDiskMTime(loc)
        body = self._KeptBody(loc.fUrl, mtime, name)
        if body is not _kNotKept:
            return body
        _mtime, logicals, waiting, worked_out = self._File(loc, mtime)
        # A scope's structure is worked out when first asked for: a request
        # reads a few scopes of a file, and a large file's every scope at
        # once would hold up the caller's time slice.  A name without a body
        # in the file (an instance scope) is noted too: asked again, it
        # needs no read of the file.
        body = worked_out.get(name)
        if body is None and logicals:
            indexes = waiting.pop(name, None)
            body = worked_out[name] = None if indexes is None else _BodyStructure([logicals[i] for i in indexes])
        return body

    def Forget(self, loc=None):
        for files in (self._fFiles, self._fStubFiles, self._fStructures, self._fPendingReads):
            if loc is None:
                dropped = list(files.values())
                files.clear()
            else:
                dropped = [files.pop(loc.fUrl, None)]
            for value in dropped:
                if isinstance(value, _CFileRead):
                    value.destroy()


class _CFileRead:
    """The read of a file's logicals and of the scope bodies they fall in,
    in steps: `fResult` is (the logicals, {scope name: the indexes of its
    body's logicals}) once done, no logicals when the file can't be read."""

    kLogicalsPerClockReading = 64

    def __init__(self, loc, mtime):
        self.fMTime = mtime
        self.fResult = None
        self._fCache = CFileLogicalLineCache(loc)
        self._fLogicals = None
        self._fFinder = None
        self._fScopesFound = None  # the finder's completed scopes, once it is through
        self._fScopesNoted = 0
        self._fWhere = {}          # as NotePositions notes it

    def StepUntil(self, end_time):
        """Goes on with the read until the scan clock reaches `end_time`
        (None: to the end); True once it is done."""
        if self.fResult is not None:
            return True
        if self._fLogicals is None:
            read = self._fCache.Update() if end_time is None else self._fCache.UpdateUntil(end_time)
            if read is None:
                return False
            if not read:
                self._Done([], {})
                return True
            self._fLogicals = list(self._fCache._fLogicalList)
            self._fFinder = scopescanner._CScopeBodyFinder(list(self._fLogicals), -1, False)
        now = _fastaccess.GetNowTime
        count = 0
        if self._fScopesFound is None:
            while self._fFinder.ProcessNextLogical() is not None:
                count += 1
                if end_time is not None and count % self.kLogicalsPerClockReading == 0 and now() >= end_time:
                    return False
            self._fScopesFound = self._fFinder.fCompletedScopeList
        # Where each logical stands, a few scopes at a time too: a large file
        # has thousands.
        while self._fScopesNoted < len(self._fScopesFound):
            count += NotePositions(self._fScopesFound[self._fScopesNoted], self._fWhere)
            self._fScopesNoted += 1
            if end_time is not None and count >= self.kLogicalsPerClockReading:
                count = 0
                if now() >= end_time:
                    return False
        # A body's logicals stand in the file in body order.  Only the file's
        # list holds them (they are left out of the collector's walks); the
        # bodies are tuples of numbers, which the collector lets go of.
        bodies = {}
        for index, logical in enumerate(self._fLogicals):
            position = self._fWhere.get(id(logical))
            if position is not None:
                bodies.setdefault(position[0], []).append(index)
        self._Done(self._fLogicals, {name: tuple(indexes) for name, indexes in bodies.items()})
        return True

    def _Done(self, logicals, bodies):
        self.fResult = (logicals, bodies)
        self._fScopesFound = None
        self._fWhere = {}
        self.destroy()

    def destroy(self):
        for part in (self._fFinder, self._fCache):
            if part is not None:
                part.destroy()
        self._fFinder = self._fCache = None

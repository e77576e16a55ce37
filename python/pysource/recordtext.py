"""Records of scopes as a person reads them: every name with what is known
of it, with source line numbers in place of logical indexes.

A record gives positions as indexes into its scope's body (the logicals of
the scope, nested bodies left out), and -1 for the scope's own def line.  To
turn them into line numbers the file is read again and divided into bodies
the way the whole-file scan divides it.
"""

import ast
import re

from pysource import pycodeutils, scopeinfo, scopescanner, symbolinfo
from pysource.filellinecache import CFileLogicalLineCache

# How the vocabulary's describer writes a logical index.
_kLogicalIndexText = re.compile(r"\blogical (-?\d+)")

kScopeKindModule = "module"
kScopeKindClass = "class"
kScopeKindInstance = "instance"
kScopeKindFunction = "function"
kScopeKindMethod = "method"
kScopeKindOther = "other"


# The kind of scope a primary record stands for: ScopeKind(scope_name, ibytes).
ScopeKind = scopeinfo.ScopeKind


class CFileBodies:
    """The body of every scope of one file, by normalised scope name, as
    lists of first lines; `fReadable` is false when the file can't be read."""

    def __init__(self, path):
        self.fPath = path
        self.fBodyLines = {}
        self.fDefLines = {}
        self.fLineCounts = {}       # first line of a logical -> its number of lines
        self.fSourceLines = []
        self.fDiskMTime = None
        cache = CFileLogicalLineCache(path)
        try:
            self.fReadable = bool(cache.Update())
            if self.fReadable:
                self.fDiskMTime = float(cache.fMatchedDiskMTime)
                self._Divide(cache._fLogicalList)
                self.fLineCounts = {logical.fFirstLine: logical.fLineCount
                                    for logical in cache._fLogicalList}
                self.fSourceLines = self._ReadLines()
        finally:
            cache.destroy()

    def _ReadLines(self):
        try:
            with open(self.fPath, "rb") as f:
                return f.read().decode("utf-8", "replace").splitlines()
        except OSError:
            return []

    def AsWritten(self, text, line):
        """`text` (joined from tokens) as the source writes it in the logical
        that starts at `line`, or None when it isn't found there."""
        count = self.fLineCounts.get(line)
        if count is None or not text.strip():
            return None
        source = "\n".join(self.fSourceLines[line - 1:line - 1 + count])
        # Compare without white space; remember where each kept character was.
        kept = [i for i, c in enumerate(source) if not c.isspace()]
        compact = "".join(source[i] for i in kept)
        wanted = "".join(text.split())
        start = compact.find(wanted)
        if start < 0:
            return None
        return source[kept[start]:kept[start + len(wanted) - 1] + 1]

    def _Divide(self, logical_list):
        finder = scopescanner._CScopeBodyFinder(logical_list, -1, False)
        try:
            finder.ProcessUntilEnd()
            for item in finder.fCompletedScopeList:
                name = symbolinfo.NormalizedScope(None, item.scope_name).name
                self.fBodyLines[name] = [logical.fFirstLine for logical in item.body]
                if item.scope_def is not None:
                    self.fDefLines[name] = item.scope_def.fFirstLine
        finally:
            finder.destroy()

    def LineOf(self, scope_name, index):
        """The first line of logical `index` of the body of `scope_name` (-1:
        the scope's def line), or None when there is no such logical."""
        if index == -1:
            return self.fDefLines.get(scope_name)
        lines = self.fBodyLines.get(scope_name)
        if lines is None or not 0 <= index < len(lines):
            return None
        return lines[index]

    def DefLine(self, scope_name):
        return self.fDefLines.get(scope_name)


def _IndexScopeOf(scope_name, singles):
    """The scope whose body the plain indexes of a name's singles count in:
    the record's own scope, except for a class instance, whose attributes are
    set in its methods (the first method named by a scope mark)."""
    if not symbolinfo.IsInstanceScope(scope_name):
        return scope_name
    for single in singles:
        _, mark_scope, _ = symbolinfo.UnpackLocationAndScope(single, as_location=False)
        if mark_scope:
            return mark_scope
    return None


def DescribeSingle(single, scope_name, bodies):
    """(text, line) for one single: the vocabulary's description with every
    logical index written as a line number, and that line (or None)."""
    url, mark_scope, _ = symbolinfo.UnpackLocationAndScope(single, as_location=False)
    text = symbolinfo.DescribeInfo(single)
    if url is not None or scope_name is None or bodies is None:
        return text, None
    index_scope = mark_scope if mark_scope is not None else scope_name
    found = []

    def to_line(match):
        index = int(match.group(1))
        line = bodies.LineOf(index_scope, index)
        if line is None:
            # Before the module's first line: names every module has.
            return "the module start" if index == -1 else match.group(0)
        found.append(line)
        return f"line {line}"

    text = _kLogicalIndexText.sub(to_line, text)
    return text, (found[0] if found else None)


# The vocabulary's notation and how a person reads it.
_kReadableRewrites = [
    (re.compile(r"\|0(?![0-9])"), ""),
    (re.compile(r"read in scope <module>: "), "in the module: "),
    (re.compile(r"read in scope '([^']*)<def>': "), r"in the signature of \1: "),
    (re.compile(r"read in scope '([^']*)': "), r"in \1: "),
    (re.compile(r"\binferred type hint "), "inferred hint: "),
    (re.compile(r"\btype hint "), "hint: "),
    (re.compile(r"\bdecorator \d+ @"), "decorator @"),
    (re.compile(r"\bargument (\d+)"), r"parameter \1"),
    (re.compile(r"\bexpression "), "value: "),
]

# What a fact is, by the kind of its bare single.
_kFactKinds = {
    symbolinfo.kSetKind: "set", symbolinfo.kGetKind: "read", symbolinfo.kTypeHintKind: "hint",
    symbolinfo.kArgKind: "parameter", symbolinfo.kCalledKind: "call",
    symbolinfo.kPlainEquivKind: "value", symbolinfo.kDecoratorKind: "decorator",
    symbolinfo.kImportKind: "import", symbolinfo.kFromImportKind: "import",
    symbolinfo.kFunctionKind: "definition", symbolinfo.kUnboundMethodKind: "definition",
    symbolinfo.kMethodKind: "definition", symbolinfo.kClassKind: "definition",
}
_kDefKinds = (symbolinfo.kFunctionKind, symbolinfo.kUnboundMethodKind, symbolinfo.kMethodKind)
_kStars = {2: "*", 4: "**"}
_kParameterKinds = {0: "positional-only", 1: "normal", 2: "star", 3: "keyword-only",
                    4: "star-star"}


def ReadableName(scope_name):
    """A scope name without the index every first definition carries."""
    return _kReadableRewrites[0][0].sub("", scope_name)


def ReadableText(text):
    """A description in the vocabulary's words, as a person reads it."""
    for pattern, replacement in _kReadableRewrites:
        text = pattern.sub(replacement, text)
    return text


def Parameters(def_info):
    """[{name, kind, hint, default}] of a def's argument declaration."""
    arg_text, _ = symbolinfo.SplitDefSignature(def_info.signature)
    return [{"name": _kStars.get(arg.kind, "") + arg.name, "kind": _kParameterKinds[arg.kind],
             "hint": arg.type_hint, "default": arg.default}
            for arg in pycodeutils.ParseDefArgs(arg_text)]


def _ParameterList(params):
    """The parameters as a def writes them, with the `/` and `*` markers."""
    parts = []
    for i, param in enumerate(params):
        before = params[i - 1]["kind"] if i else None
        if before == "positional-only" and param["kind"] != "positional-only":
            parts.append("/")
        if param["kind"] == "keyword-only" and before not in ("keyword-only", "star"):
            parts.append("*")
        parts.append(_ParameterText(param))
    if params and params[-1]["kind"] == "positional-only":
        parts.append("/")
    return ", ".join(parts)


def _ParameterText(param):
    text = param["name"]
    if param["hint"] is not None:
        text += f": {param['hint']}"
    if param["default"] is not None:
        text += f" = {param['default']}" if param["hint"] is not None else f"={param['default']}"
    return text


def DefinitionOf(ibytes, bodies=None, line=None):
    """The definition a def or class single states, as data, or None; hints
    and defaults as the source writes them when the def at `line` of
    `bodies` is given."""
    bare = symbolinfo.PopLeadingPrefixes(ibytes)[1]
    kind = symbolinfo.GetInfoBytesKind(bare)
    if kind in _kDefKinds:
        info = symbolinfo.UnpackDefInfoStr(bare)
        params = Parameters(info)
        for param in params:
            for what in ("hint", "default"):
                if param[what] is not None:
                    param[what] = _AsWritten(param[what], line, bodies)
        _, returns = symbolinfo.SplitDefSignature(info.signature)
        returns = _AsWritten(returns, line, bodies) if returns else None
        text = f"{ReadableName(info.scope_name)}({_ParameterList(params)})"
        if returns:
            text += f" -> {returns}"
        return {"name": ReadableName(info.scope_name), "parameters": params,
                "returns": returns, "decorators": list(info.decorators),
                "text": text}
    if kind == symbolinfo.kClassKind:
        info = symbolinfo.UnpackClassInfo(bare)
        return {"name": ReadableName(info.full_name), "parameters": None, "returns": None,
                "decorators": list(info.decorators),
                "text": ReadableName(info.full_name) + (info.arg_decl or "").replace("()", "")}
    return None


def _Fact(single, index_scope, bodies):
    text, line = DescribeSingle(single, index_scope, bodies)
    bare = symbolinfo.PopLeadingPrefixes(single)[1]
    condition = ""
    if symbolinfo.GetInfoBytesKind(bare) == symbolinfo.kConditionalKind:
        test, bare = symbolinfo.UnpackConditionalInfo(bare)
        condition = f"if {test}: "
    bare = symbolinfo.SplitLogicalIndexSuffix(bare)[0]
    kind = symbolinfo.GetInfoBytesKind(bare)
    fact = {"kind": _kFactKinds.get(kind, "other"), "text": ReadableText(text), "line": line}
    if kind == symbolinfo.kPlainEquivKind and bare:
        raw = bare.decode("utf-8", "replace")
        fact["value"] = _AsWritten(raw, line, bodies)
        fact["text"] = fact["text"].replace(raw, fact["value"], 1)
    elif kind == symbolinfo.kCalledKind:
        raw = symbolinfo.UnpackCalled(bare)[1]
        fact["arguments"] = _AsWritten(raw, line, bodies)
        fact["text"] = fact["text"].replace(f"({raw})", f"({fact['arguments']})", 1)
    elif kind == symbolinfo.kTypeHintKind:
        fact["hint"] = symbolinfo.UnpackTypeHint(bare)
    elif kind in _kDefKinds or kind == symbolinfo.kClassKind:
        definition = DefinitionOf(bare)
        fact["definition"] = definition
        word = "class" if kind == symbolinfo.kClassKind else "def"
        fact["text"] = f"{condition}{word} {definition['text']}" + "".join(
            f" @{d}" for d in definition["decorators"])
    return fact


def _AsWritten(text, line, bodies):
    """Expression text as the source at `line` writes it, or tidied."""
    if bodies is not None and line is not None:
        written = bodies.AsWritten(text, line)
        if written is not None:
            return written
    return TidyExpression(text)


def TidyExpression(text):
    """Expression text joined from tokens, spaced as Python code is written
    (`a or{}` -> `a or {}`); text that doesn't parse is left as it is."""
    try:
        return ast.unparse(ast.parse(text, mode="eval"))
    except (SyntaxError, ValueError, AttributeError, RecursionError):
        return text


def _IsParameterDetail(single, scope_name):
    """True for the singles a parameter line stands for: its index, its hint
    (read at the def line) and its default (read in the enclosing scope)."""
    _, mark_scope, bare = symbolinfo.UnpackLocationAndScope(single, as_location=False)
    if symbolinfo.GetInfoBytesKind(bare) == symbolinfo.kArgKind:
        return True
    if mark_scope is None:
        return False
    return mark_scope.endswith("<def>") or mark_scope == scope_name.rpartition(".")[0]


def DescribeRecord(loc, scope_name, info, bodies):
    """The record `info` of `scope_name` as data: its kind, def line, what it
    defines (parameters with hints and defaults, decorators) and, per name,
    the facts known of it with line numbers."""
    own = bytes(info.ibytes)
    line = bodies.DefLine(scope_name) if bodies is not None else None
    definition = DefinitionOf(own, bodies, line) if own else None
    params = {}
    if definition is not None and definition["parameters"] is not None:
        params = {p["name"].lstrip("*"): (i, p) for i, p in enumerate(definition["parameters"])}
    names = []
    for name in sorted(info.type_equivs):
        singles = symbolinfo.NonNestedSplit(bytes(info.type_equivs[name]), b";")
        if name == "" and all(symbolinfo.GetInfoBytesKind(s) == symbolinfo.kDecoratorKind
                              for s in singles):
            continue    # the decorators, shown with the definition
        index_scope = _IndexScopeOf(scope_name, singles)
        facts = []
        if name in params:
            index, param = params[name]
            details = [f"parameter {index}"] + \
                [f"{what}: {param[what]}" for what in ("hint", "default") if param[what]]
            facts.append(dict(param, kind="parameter", index=index, text=", ".join(details),
                              line=bodies.DefLine(scope_name) if bodies else None))
            singles = [s for s in singles if not _IsParameterDetail(s, scope_name)]
        facts.extend(_Fact(single, index_scope, bodies) for single in singles)
        names.append({"name": name, "facts": facts})
    return {
        "file": getattr(loc, "fPath", None) or loc.fUrl,
        "scope": ReadableName(scope_name),
        "kind": ScopeKind(scope_name, own),
        "line": bodies.DefLine(scope_name) if bodies is not None else None,
        "definition": definition,
        "description": ReadableText(symbolinfo.DescribeInfo(own)) if own and not definition
        else None,
        "incomplete": bool(info.incomplete),
        "names": names,
    }


kNameColumnWidth = 24


def FormatRecord(record, display_path=str):
    """The text form of a record made by `DescribeRecord`."""
    definition = record["definition"]
    title = definition["text"] if definition else (record["scope"] or "<module>")
    where = display_path(record["file"])
    if record["line"] is not None:
        where += f":{record['line']}"
    out = [f"{record['kind']} {title}  ({where})"]
    if definition and definition["decorators"]:
        out.append("  decorated by " + ", ".join("@" + d for d in definition["decorators"]))
    if record["incomplete"]:
        out.append("  [incomplete: a statement could not be parsed]")
    if record["description"]:
        out.append(f"  {record['description']}")
    width = min(max((len(entry["name"]) for entry in record["names"]), default=0),
                kNameColumnWidth)
    for entry in record["names"]:
        texts = [fact["text"] for fact in entry["facts"]] or ["(nothing known)"]
        out.append(f"  {entry['name']:<{width}}  {texts[0]}")
        out.extend(f"  {'':<{width}}  {text}" for text in texts[1:])
    if record.get("callers_pass") is not None:
        out.append("  callers pass:")
        out.extend("  " + line for line in FormatParamLines(record["callers_pass"], display_path))
    return "\n".join(out)


def FormatParamLines(def_params, show_path=lambda path: path):
    """Text lines of what callers pass, per parameter (the data form of
    `paramquery.CDefParams`): the parameter as declared, then each type with
    its call sites."""
    out = []
    for i, param in enumerate(def_params["params"]):
        out.append(f"  {param['declared']}" + ("  [hinted]" if param["hinted"] else ""))
        if param["types"] or (i == 0 and def_params["bound_first"]):
            pass
        elif param["hinted"]:
            out.append("    (what callers pass is not recorded for a hinted parameter)")
        else:
            out.append("    (no caller's argument recorded)")
        for entry in param["types"]:
            out.append(f"    {entry['type']}  <- {_CallSitesText(entry['sites'], show_path)}")
    return out


# Files of call sites named per type before the rest are counted (the data
# form lists them all).
kMaxCallSiteFiles = 4


def _CallSitesText(sites, show_path):
    """'a.py:3, 9; b.py:12 (+5 more in 3 files)': each file once, its lines after it."""
    lines_by_file = {}
    for site in sites:
        lines = lines_by_file.setdefault(site["file"], [])
        if site["line"] is not None:
            lines.append(str(site["line"]))
    shown = list(lines_by_file.items())[:kMaxCallSiteFiles]
    text = "; ".join(show_path(path) + (":" + ", ".join(lines) if lines else "")
                     for path, lines in shown)
    hidden = len(sites) - sum(max(len(lines), 1) for _, lines in shown)
    if hidden > 0:
        more_files = len(lines_by_file) - len(shown)
        text += f" (+{hidden} more" + (f" in {more_files} files" if more_files > 1 else
                                        " in 1 file" if more_files else "") + ")"
    return text

"""Records of scopes as a person reads them: every name with what is known
of it, with source line numbers in place of logical indexes.

A record gives positions as indexes into its scope's body (the logicals of
the scope, nested bodies left out), and -1 for the scope's own def line.  To
turn them into line numbers the file is read again and divided into bodies
the way the whole-file scan divides it.
"""

import re

from pysource import scopescanner, symbolinfo
from pysource.filellinecache import CFileLogicalLineCache

# How the vocabulary's describer writes a logical index.
_kLogicalIndexText = re.compile(r"\blogical (-?\d+)")

kScopeKindModule = "module"
kScopeKindClass = "class"
kScopeKindInstance = "instance"
kScopeKindFunction = "function"
kScopeKindMethod = "method"
kScopeKindOther = "other"


def ScopeKind(scope_name, ibytes):
    """The kind of scope a primary record stands for."""
    if scope_name == "":
        return kScopeKindModule
    if symbolinfo.IsInstanceScope(scope_name):
        return kScopeKindInstance
    kind = symbolinfo.GetInfoBytesKind(ibytes)
    if kind == symbolinfo.kClassKind:
        return kScopeKindClass
    if kind == symbolinfo.kFunctionKind:
        return kScopeKindFunction
    if kind in (symbolinfo.kUnboundMethodKind, symbolinfo.kMethodKind):
        return kScopeKindMethod
    return kScopeKindOther


class CFileBodies:
    """The body of every scope of one file, by normalised scope name, as
    lists of first lines; `fReadable` is false when the file can't be read."""

    def __init__(self, path):
        self.fPath = path
        self.fBodyLines = {}
        self.fDefLines = {}
        self.fDiskMTime = None
        cache = CFileLogicalLineCache(path)
        try:
            self.fReadable = bool(cache.Update())
            if self.fReadable:
                self.fDiskMTime = float(cache.fMatchedDiskMTime)
                self._Divide(cache._fLogicalList)
        finally:
            cache.destroy()

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


def DescribeRecord(loc, scope_name, info, bodies):
    """The record `info` of `scope_name` as data: its kind, def line, own
    description and, per name, the readable singles."""
    own = bytes(info.ibytes)
    names = []
    for name in sorted(info.type_equivs):
        singles = symbolinfo.NonNestedSplit(bytes(info.type_equivs[name]), b";")
        index_scope = _IndexScopeOf(scope_name, singles)
        facts = []
        for single in singles:
            text, line = DescribeSingle(single, index_scope, bodies)
            facts.append({"text": text, "line": line, "info": single.decode("utf-8", "replace")})
        names.append({"name": name, "facts": facts})
    record = {
        "file": getattr(loc, "fPath", None) or loc.fUrl,
        "scope": scope_name,
        "kind": ScopeKind(scope_name, own),
        "line": bodies.DefLine(scope_name) if bodies is not None else None,
        "definition": symbolinfo.DescribeInfo(own) if own else None,
        "incomplete": bool(info.incomplete),
        "names": names,
    }
    return record


def FormatRecord(record):
    """The text form of a record made by `DescribeRecord`."""
    title = record["scope"] or "<module>"
    where = record["file"]
    if record["line"] is not None:
        where += f":{record['line']}"
    head = f"{record['kind']} {title}  ({where})"
    if record["incomplete"]:
        head += "  [incomplete: a statement could not be parsed]"
    out = [head]
    if record["definition"]:
        out.append(f"  defined as: {record['definition']}")
    for entry in record["names"]:
        out.append(f"  {entry['name']}:")
        for fact in entry["facts"]:
            out.append(f"    {fact['text']}")
    if record.get("callers_pass") is not None:
        out.append("  callers pass:")
        out.extend("  " + line for line in FormatParamLines(record["callers_pass"]))
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
            places = ", ".join(show_path(site["file"]) +
                               (f":{site['line']}" if site["line"] is not None else "")
                               for site in entry["sites"])
            out.append(f"    {entry['type']}  <- {places}")
    return out

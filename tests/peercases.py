"""Expectations written as `#? [COLUMN] T1 T2 ...` comment lines above the
line they test (the test files another analyser publishes), scored against
the engine by bench/infer_eval.py --peer-cases.

A case asks what the expression at COLUMN of the next line can be (the end
of the line when no column is given): the name, literal or bracket under the
cursor with the attribute, call and subscript chain it ends.  Each `T` is an
instance (`int()`, `mod.Cls()`), a class, function or module (`str`,
`Cls.meth`, `os.path`), or `None`; no `T` at all means nothing.  Lines of
completions (`#? ['a', 'b']`) and other forms are not type expectations and
are not read.  Classes are compared without type arguments.
"""

import builtins
import dataclasses
import io
import keyword
import re
import tokenize

from basekit.location import CLocalFileLocation
from pysource import inferquery, projectfiles

import inferevalset

_kMark = re.compile(r"^\s*#\?[ \t]*(?:(\d+)(?:[ \t]+|$))?(.*?)\s*$")
_kToken = re.compile(r"""
    (?P<string>[rRbBuUfF]{0,2}(?:'''.*?'''|\"\"\".*?\"\"\"|'(?:\\.|[^'\\])*'|"(?:\\.|[^"\\])*"))
  | (?P<number>\d[\w.]*|\.\d\w*)
  | (?P<name>[^\W\d]\w*)
  | (?P<comment>\#.*)
  | (?P<op>\*\*=?|//=?|->|:=|[-+*/%@&|^<>!=]=|\S)
""", re.VERBOSE)
_kOpening = {")": "(", "]": "[", "}": "{"}
_kValueKeywords = ("None", "True", "False")
_kExpectedName = re.compile(r"^[^\W\d]\w*(?:\.[^\W\d]\w*)*$")


@dataclasses.dataclass
class CToken:
    kind: str
    text: str
    start: int
    end: int

    @property
    def is_word(self):
        return self.kind in ("string", "number") or \
            (self.kind == "name" and not _IsStatementKeyword(self.text))


def _IsStatementKeyword(text):
    return keyword.iskeyword(text) and text not in _kValueKeywords


def Tokens(line):
    """The tokens of one line of code, up to a comment."""
    found = []
    for match in _kToken.finditer(line):
        if match.lastgroup == "comment":
            break
        found.append(CToken(match.lastgroup, match.group(), match.start(), match.end()))
    return found


def _MatchingOpen(tokens, close_i):
    depth = 0
    for i in range(close_i, -1, -1):
        text = tokens[i].text
        if text in _kOpening:
            depth += 1
        elif text in _kOpening.values():
            depth -= 1
            if depth == 0:
                return i if text == _kOpening[tokens[close_i].text] else None
    return None


def _PrimaryStart(tokens, last_i):
    """Index of the first token of the primary (an atom and its trailers)
    that ends with token `last_i`, or None."""
    i = last_i
    while True:
        if tokens[i].text in _kOpening:
            open_i = _MatchingOpen(tokens, i)
            if open_i is None:
                return None
            before = tokens[open_i - 1] if open_i else None
            if before is not None and (before.is_word or before.text in _kOpening):
                i = open_i - 1          # a call or subscript of what comes before
                continue
            start = open_i
        else:
            start = i
        if start >= 2 and tokens[start - 1].text == "." and \
                (tokens[start - 2].is_word or tokens[start - 2].text in _kOpening):
            i = start - 2
            continue
        return start


def _CursorToken(tokens, column):
    """Index of the token the cursor at `column` touches, a word before a
    bracket; None when it touches none."""
    touching = [i for i, t in enumerate(tokens) if t.start <= column <= t.end]
    words = [i for i in touching if tokens[i].is_word]
    closing = [i for i in touching if tokens[i].text in _kOpening and tokens[i].end == column]
    if words:
        return words[-1]
    return closing[0] if closing else None


def _IsBindingTarget(tokens, first_i, last_i):
    """Whether the expression of tokens first_i..last_i is bound by its own
    line (assigned, a loop or `as` target, a parameter of the function the
    line defines): its value is the one it has after the line."""
    depth = sum(1 if t.text in _kOpening.values() else -1 if t.text in _kOpening else 0
                for t in tokens[:first_i])
    before = tokens[first_i - 1].text if first_i else ""
    after = tokens[last_i + 1].text if last_i + 1 < len(tokens) else ""
    head = [t.text for t in tokens[:2]]
    if head[:1] == ["def"] or head == ["async", "def"]:
        return depth == 1 and first_i == last_i and before in ("(", ",", "*", "**") and \
            after in (",", ")", ":", "=")
    if depth:
        return False
    return before in ("as", "for") or after == "=" or \
        (after.endswith("=") and after not in ("==", "<=", ">=", "!=")) or \
        (after in ("in", ",") and "for" in head)


def ExpressionAt(line, column):
    """(expression text, is a binding target) at `column` of `line`, or None
    when the cursor is on no expression."""
    tokens = Tokens(line)
    last_i = _CursorToken(tokens, column)
    if last_i is None:
        return None
    first_i = _PrimaryStart(tokens, last_i)
    if first_i is None:
        return None
    return line[tokens[first_i].start:tokens[last_i].end], _IsBindingTarget(tokens, first_i, last_i)


@dataclasses.dataclass
class CPeerCase:
    path: str
    line: int          # the line tested
    column: int
    expr: str          # "" when the cursor is on no expression
    target: bool       # the expression is bound by its line
    expected: tuple    # the `T`s as written


def _StringLines(source):
    """Lines inside multi-line strings of `source` (none when it doesn't
    tokenize)."""
    inside = set()
    try:
        for tok in tokenize.generate_tokens(io.StringIO(source).readline):
            if tok.type == tokenize.STRING and tok.end[0] > tok.start[0]:
                inside.update(range(tok.start[0] + 1, tok.end[0] + 1))
    except (tokenize.TokenError, SyntaxError):
        pass
    return inside


def ReadPeerCases(folder):
    """Every `#?` type expectation of the `.py` files under `folder`, in file
    order; those on a line inside a string are left out."""
    found = []
    for path in projectfiles.FindSourceFiles([folder]):
        try:
            with open(path, encoding="utf-8") as f:
                source = f.read()
        except UnicodeDecodeError:
            continue
        lines = source.splitlines()
        in_strings = _StringLines(source)
        for index, text in enumerate(lines[:-1]):
            match = _kMark.match(text)
            if match is None or match.group(2).startswith(("[", "#")) or (index + 2) in in_strings:
                continue
            tested = lines[index + 1]
            column = int(match.group(1)) if match.group(1) else len(tested)
            at = ExpressionAt(tested, column)
            expr, target = at if at else ("", False)
            found.append(CPeerCase(path, index + 2, column, expr, target,
                                   tuple(inferevalset.SplitTopLevel(match.group(2), " "))
                                   if match.group(2) else ()))
    return sorted(found, key=lambda c: (c.path, c.line))


# Scoring

class CUnscored(Exception):
    """An expected `T` or a tested line the engine's answers can't be
    compared with (the message says why)."""


def _EngineTexts(mgr, loc, line, name, seconds):
    singles, _complete = inferquery.ResolveAt(mgr, loc, line, name, seconds)
    return inferquery.DescribeResolved(singles, mgr, loc)


def ExpectedText(written, texts_of):
    """The canonical text, without type arguments, of one written `T`;
    `texts_of(dotted)` gives what a name stands for (canonical texts)."""
    if written == "None":
        return "None"
    instance = written.endswith("()")
    name = written[:-2] if instance else written
    if not _kExpectedName.match(name):
        raise CUnscored("expected value of another form")
    builtin = getattr(builtins, name, None) if "." not in name else None
    if isinstance(builtin, type):
        return name if instance else f"type[{name}]"
    texts = [inferevalset.Loose(t) for t in texts_of(name)] if builtin is None else \
        [f"def {name}"]
    if len(texts) != 1 or texts[0].startswith("? "):
        raise CUnscored("expected name not found")
    if not instance:
        return texts[0]
    if texts[0].startswith("type["):
        return texts[0][5:-1]
    raise CUnscored("expected call of a function")


@dataclasses.dataclass
class CPeerScore:
    case: CPeerCase
    expected: tuple      # canonical texts without type arguments
    got: tuple           # the engine's canonical texts
    complete: bool
    left_out: str = ""   # why the case isn't scored

    @property
    def verdict(self):
        """exact / superset / subset / wrong / empty, by classes."""
        want, have = set(self.expected), {inferevalset.Loose(t) for t in self.got}
        if have == want:
            return "exact"
        if not have:
            return "empty"
        if have > want:
            return "superset"
        return "subset" if have < want else "wrong"


def _NextCodeLine(path, line):
    """The line after `line` that holds code, or None."""
    with open(path, encoding="utf-8") as f:
        lines = f.read().splitlines()
    for number in range(line + 1, len(lines) + 1):
        stripped = lines[number - 1].strip()
        if stripped and not stripped.startswith("#"):
            return number
    return None


def ScorePeerCases(mgr, cases, seconds=inferquery.kDefaultSeconds):
    scores = []
    for case in cases:
        loc = CLocalFileLocation(case.path)
        # A target's value is the one after its line: asked at the next.
        asked_line = _NextCodeLine(case.path, case.line) if case.target else case.line
        try:
            if not case.expr:
                raise CUnscored("no expression at the cursor")
            if asked_line is None:
                raise CUnscored("target on the last line")
            expected = tuple(sorted({ExpectedText(
                t, lambda name: _EngineTexts(mgr, loc, case.line, name, seconds))
                for t in case.expected}))
            singles, complete = inferquery.ResolveAt(mgr, loc, asked_line, case.expr, seconds)
        except CUnscored as why:
            scores.append(CPeerScore(case, (), (), True, str(why)))
            continue
        except inferquery.CLineOutsideFile:
            scores.append(CPeerScore(case, (), (), True, "line not read"))
            continue
        got = tuple(sorted({inferevalset.Normalise(t)
                            for t in inferquery.DescribeResolved(singles, mgr, loc)}))
        scores.append(CPeerScore(case, expected, got, complete))
    return scores

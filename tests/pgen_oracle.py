"""Compares the statement analyzer with Python's own `ast`, statement by statement.

For each statement, `ast` tells which names it binds, reads, imports and
declares, and a def's arguments in order; the analyzer's pairs for the
logical line that starts on the statement's line must say the same, and name the same
leading dotted names of the calls in it.  The
rules by which the analyzer differs from a plain walk of `ast` are applied
to the `ast` side here, each with its reason (see docs/analyzer.md):

- names bound inside a lambda or comprehension belong to that inner scope;
  reads of them there aren't reads of the statement's scope;
- an augmented assignment target is read as well as bound;
- the text of a string annotation is parsed, and its names are reads;
- a call whose callee's base name is bound in a lambda or comprehension has
  no call pair.
"""
import ast
from dataclasses import dataclass, field

SET, GET = b":S", b":g"
IMPORT_KINDS = (b":I", b":n", b":F")


@dataclass
class Names:
    stores: set = field(default_factory=set)
    loads: set = field(default_factory=set)
    imports: set = field(default_factory=set)
    decls: set = field(default_factory=set)
    calls: set = field(default_factory=set)
    args: list = None

    def merge(self, other):
        self.stores |= other.stores
        self.loads |= other.loads
        self.imports |= other.imports
        self.decls |= other.decls
        self.calls |= other.calls
        if other.args is not None:
            self.args = other.args


def _annotation(node, out, bound):
    if node is None:
        return
    if isinstance(node, ast.Constant) and isinstance(node.value, str):
        try:
            parsed = ast.parse(node.value.strip(), mode="eval")
        except SyntaxError:
            return
        _expr(parsed.body, out, bound, False)
    else:
        _expr(node, out, bound, False)


def _comp_targets(node, names):
    for sub in ast.walk(node):
        if isinstance(sub, ast.Name):
            names.add(sub.id)


def _leading_name(call):
    """The dotted name a call's callee starts with ("a.b" of a.b[0].c()), or None."""
    chain = []
    node = call.func
    while isinstance(node, (ast.Attribute, ast.Call, ast.Subscript)):
        chain.append(node)
        node = node.func if isinstance(node, ast.Call) else node.value
    if not isinstance(node, ast.Name):
        return None
    parts = [node.id]
    for above in reversed(chain):
        if not isinstance(above, ast.Attribute):
            break
        parts.append(above.attr)
    return node.id, ".".join(parts)


def _expr(node, out, bound, in_lambda):
    """Reads and binds of an expression or target, by the scope rules."""
    if node is None:
        return
    if isinstance(node, ast.Call):
        leading = _leading_name(node)
        if leading is not None and leading[0] not in bound:
            out.calls.add(leading[1])
    if isinstance(node, ast.Name):
        if isinstance(node.ctx, ast.Load):
            if node.id not in bound:
                out.loads.add(node.id)
        elif not bound or node.id not in bound:
            out.stores.add(node.id)
        return
    if isinstance(node, ast.Lambda):
        a = node.args
        for d in a.defaults + [d for d in a.kw_defaults if d is not None]:
            _expr(d, out, bound, in_lambda)
        params = {x.arg for x in a.posonlyargs + a.args + a.kwonlyargs}
        params |= {x.arg for x in (a.vararg, a.kwarg) if x is not None}
        # names a walrus binds in the lambda are the lambda's
        for sub in ast.walk(node.body):
            if isinstance(sub, ast.NamedExpr):
                params.add(sub.target.id)
        inner = Names()
        _expr(node.body, inner, bound | params, True)
        out.loads |= inner.loads
        out.calls |= inner.calls
        return
    if isinstance(node, (ast.ListComp, ast.SetComp, ast.GeneratorExp, ast.DictComp)):
        gens = node.generators
        _expr(gens[0].iter, out, bound, in_lambda)
        names = set()
        for g in gens:
            _comp_targets(g.target, names)
        inner_bound = bound | names
        for i, g in enumerate(gens):
            if i:
                _expr(g.iter, out, inner_bound, in_lambda)
            for cond in g.ifs:
                _expr(cond, out, inner_bound, in_lambda)
        elts = [node.key, node.value] if isinstance(node, ast.DictComp) else [node.elt]
        for e in elts:
            _expr(e, out, inner_bound, in_lambda)
        return
    if isinstance(node, ast.NamedExpr):
        _expr(node.value, out, bound, in_lambda)
        if not in_lambda:
            out.stores.add(node.target.id)
        return
    for child in ast.iter_child_nodes(node):
        _expr(child, out, bound, in_lambda)


def _pattern(node, out):
    if isinstance(node, (ast.MatchAs, ast.MatchStar)) and node.name:
        out.stores.add(node.name)
    if isinstance(node, ast.MatchMapping) and node.rest:
        out.stores.add(node.rest)
    for child in ast.iter_child_nodes(node):
        if isinstance(child, ast.pattern):
            _pattern(child, out)
        elif isinstance(child, ast.expr):
            _expr(child, out, frozenset(), False)


def statement_names(tree):
    """{first line: Names} for every statement header and decorator of a module."""
    by_line = {}

    def at(line):
        return by_line.setdefault(line, Names())

    def visit(stmts):
        for s in stmts:
            own(s)

    def own(s):
        empty = frozenset()
        if isinstance(s, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
            for d in s.decorator_list:
                _expr(d, at(d.lineno), empty, False)
            out = at(s.lineno)
            if isinstance(s, ast.ClassDef):
                for b in s.bases:
                    _expr(b, out, empty, False)
                for k in s.keywords:
                    _expr(k.value, out, empty, False)
            else:
                a = s.args
                for d in a.defaults + [d for d in a.kw_defaults if d is not None]:
                    _expr(d, out, empty, False)
                every = a.posonlyargs + a.args + ([a.vararg] if a.vararg else []) + \
                    a.kwonlyargs + ([a.kwarg] if a.kwarg else [])
                for arg in every:
                    _annotation(arg.annotation, out, empty)
                _annotation(s.returns, out, empty)
                out.args = [arg.arg for arg in every]
            visit(s.body)
        elif isinstance(s, (ast.If, ast.While)):
            _expr(s.test, at(s.lineno), empty, False)
            visit(s.body)
            visit(s.orelse)
        elif isinstance(s, (ast.For, ast.AsyncFor)):
            out = at(s.lineno)
            _expr(s.iter, out, empty, False)
            _expr(s.target, out, empty, False)
            visit(s.body)
            visit(s.orelse)
        elif isinstance(s, (ast.With, ast.AsyncWith)):
            out = at(s.lineno)
            for item in s.items:
                _expr(item.context_expr, out, empty, False)
                _expr(item.optional_vars, out, empty, False)
            visit(s.body)
        elif isinstance(s, (ast.Try, getattr(ast, "TryStar", ast.Try))):
            visit(s.body)
            for h in s.handlers:
                out = at(h.lineno)
                _expr(h.type, out, empty, False)
                if h.name:
                    out.stores.add(h.name)
                visit(h.body)
            visit(s.orelse)
            visit(s.finalbody)
        elif isinstance(s, ast.Match):
            _expr(s.subject, at(s.lineno), empty, False)
            for case in s.cases:
                out = at(case.pattern.lineno)
                _pattern(case.pattern, out)
                _expr(case.guard, out, empty, False)
                visit(case.body)
        elif isinstance(s, (ast.Import, ast.ImportFrom)):
            out = at(s.lineno)
            for alias in s.names:
                name = alias.asname or alias.name.split(".")[0]
                out.imports.add(name)
                out.stores.add(name)
        elif isinstance(s, (ast.Global, ast.Nonlocal)):
            at(s.lineno).decls |= set(s.names)
        elif isinstance(s, ast.AugAssign):
            out = at(s.lineno)
            _expr(s.value, out, empty, False)
            _expr(s.target, out, empty, False)
            if isinstance(s.target, ast.Name):
                out.loads.add(s.target.id)
        elif isinstance(s, ast.AnnAssign):
            out = at(s.lineno)
            _annotation(s.annotation, out, empty)
            _expr(s.value, out, empty, False)
            _expr(s.target, out, empty, False)
        else:
            _expr(s, at(s.lineno), empty, False)

    visit(tree.body)
    return by_line


def analyzer_names(type_equivs, arg_type_equivs):
    out = Names()
    for name, info in type_equivs:
        name = name.decode()
        kind = info[:2]
        if kind == SET and (name.isidentifier() or name == "*"):
            out.stores.add(name)
        elif kind == GET:
            out.loads.add(name)
        elif kind in IMPORT_KINDS:
            out.imports.add(name)
        elif kind in (b":G", b":N"):
            out.decls.add(name)
        elif kind == b":c":
            out.calls.add(name)
    if arg_type_equivs is not None:
        out.args = [n.decode() for n, info in arg_type_equivs if info == SET]
    return out


def compare_source(analyzer, source):
    """(statements compared, list of (line, texts, ours, theirs, errors) that differ).

    The logicals come from the logical line builder; those that start on one
    line (a header and the body behind its colon, statements split at ";")
    are compared together with the statements that start there.
    """
    from pysource.filellinecache import BuildLogicalLines

    expected = statement_names(ast.parse(source))
    ours_by_line = {}
    for logical in BuildLogicalLines(source):
        if logical.fType == "comment":
            continue
        errs = analyzer.AnalyzeSingleLogical(logical, True)
        entry = ours_by_line.setdefault(logical.fFirstLine, [Names(), [], []])
        entry[0].merge(analyzer_names(logical.fTypeEquivs, logical.fArgTypeEquivs))
        entry[1].append(" ".join(logical.fToks))
        entry[2] += errs or []
    compared, differing = 0, []
    for line, (ours, texts, errs) in sorted(ours_by_line.items()):
        theirs = expected.get(line)
        if theirs is None:
            continue
        compared += 1
        same = (ours.stores == theirs.stores and ours.loads == theirs.loads and
                ours.imports == theirs.imports and ours.decls == theirs.decls and
                ours.calls == theirs.calls and
                (theirs.args is None or ours.args == theirs.args) and not errs)
        if not same:
            differing.append((line, texts, ours, theirs, errs))
    return compared, differing

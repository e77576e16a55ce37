"""Real files to test against: the shared corpus, and the scopes Python's own
`ast` finds in a file."""

import ast
import os
import subprocess
import sys

CORPUS_SCRIPT = "/work/shared/corpus.py"


def corpus_paths(full=False, step=1):
    """Every `step`-th file of the core (or full) corpus; none when it isn't there."""
    if not os.path.exists(CORPUS_SCRIPT):
        return []
    out = subprocess.run([sys.executable, CORPUS_SCRIPT] + (["--full"] if full else []),
                         capture_output=True, text=True, check=True).stdout
    return out.split()[::step]


def ast_scope_names(tree):
    """(line, full name) of every def and class of a syntax tree, sorted; each
    component carries its scope index (a second definition of a name in a
    scope has index 1), which the names of the enclosing scopes drop at 0."""
    names = []

    def walk(node, prefix, seen):
        # Statements nest without opening a scope; a def or class opens one.
        for child in ast.iter_child_nodes(node):
            if isinstance(child, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
                index = seen.get(child.name, 0)
                seen[child.name] = index + 1
                leaf = f"{child.name}|{index}"
                names.append((child.lineno, f"{prefix}.{leaf}" if prefix else leaf))
                component = child.name if index == 0 else leaf
                walk(child, f"{prefix}.{component}" if prefix else component, {})
            elif not isinstance(child, ast.expr):
                walk(child, prefix, seen)

    walk(tree, "", {})
    return sorted(names)

"""Random edits inside the functions of an open buffer, for the edit tests
and the edit benchmark."""

from pysource import logicalline, scopescanner, symbolinfo

# Edits that keep the text valid, and those that may break it.
kValidEdits = ("insert", "replace")
kAnyEdits = ("insert", "replace", "delete", "char")


def function_names(logical_list):
    """The normalised full names of the functions of a logical list."""
    return {symbolinfo.NormalizeScopeName(scopescanner.GetFullNameForScopeDef(logical))
            for logical in logical_list if logical.fType == logicalline.kFunctionDef}


def statements_in_functions(logical_list):
    """The statements that begin a line of their own inside a function."""
    functions = function_names(logical_list)
    return [logical for logical in logical_list
            if logical.fScopeName in functions and logical.fTextColumn == 0
            and logical.fType != logicalline.kComment]


def random_edit(rng, text, statements, kinds=kValidEdits):
    """Edits `text` at one of `statements` (logicals of it) chosen by `rng`:
    a new assignment ahead of it, or in its place, its line deleted, or one
    character of its line deleted or doubled.  Gives (new text, the name of
    the function edited)."""
    logical = rng.choice(statements)
    kind = rng.choice(kinds)
    if logical.fLineCount > 1 and kind in ("replace", "delete"):
        kind = "insert"
    lines = text.split("\n")
    at = logical.fFirstLine - 1
    line = lines[at]
    indent = line[:len(line) - len(line.lstrip())]
    new_statement = f"{indent}edited_{rng.randrange(1000)} = {rng.randrange(10**6)}"
    if kind == "insert":
        lines.insert(at, new_statement)
    elif kind == "replace":
        lines[at] = new_statement
    elif kind == "delete":
        del lines[at]
    else:
        col = rng.randrange(len(line)) if line else 0
        lines[at] = line[:col] + line[col:col + 1] * rng.choice((0, 2)) + line[col + 1:]
    return "\n".join(lines), logical.fScopeName

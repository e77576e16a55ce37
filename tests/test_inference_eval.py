"""The inference engine against the evaluation set of tests/inference_eval/:
the agreement must not fall below the floor, and the set itself must hold
when its files are run."""

import ast

import pytest

import inferevalset
import peercases
from pysource import manager

# Exact agreement (share of expectations whose set of canonical texts the
# engine gives exactly) reached by the engine today: raise it as the engine
# improves, so that the test only catches regressions.
kAgreementFloor = 0.975


@pytest.fixture(scope="module")
def expectations():
    return inferevalset.ReadExpectations()


@pytest.fixture(scope="module")
def scores(expectations):
    mgr = manager.CAnalysisMgr(db_path=None)
    try:
        inferevalset.IndexFolder(mgr)
        yield inferevalset.ScoreAll(mgr, expectations)
    finally:
        mgr.destroy()


def test_agreement_stays_at_or_above_the_floor(scores):
    table = inferevalset.Table(scores)
    print("\n" + inferevalset.FormatTable(table))
    _feature, count, exact, _loose, _incomplete = table[-1]
    assert count == len(scores)
    assert exact / count >= kAgreementFloor


def test_every_expectation_is_an_expression_statement_of_its_line(expectations):
    assert len(expectations) >= 400
    assert len({e.feature for e in expectations}) >= 9
    for exp in expectations:
        assert exp.expected, f"{exp.path}:{exp.line}: no expected value"
        statement = ast.parse(exp.expr).body
        assert len(statement) == 1 and isinstance(statement[0], ast.Expr), \
            f"{exp.path}:{exp.line}: not an expression statement"


def test_running_the_files_confirms_every_expectation(expectations):
    result = inferevalset.VerifyByRunning(expectations)
    contradicted = [f"{e.feature}:{e.line} {e.expr}: expected {e.expected}, ran as {seen}"
                    for e, seen in result["refuted"]]
    assert contradicted == []
    assert result["unreached"] == []


# The assert_type(EXPR, T) cases of any folder (bench/infer_eval.py --cases)

_kClasses = {"Counter": "collections.Counter", "Color": "Color", "Foo": "Foo"}


@pytest.mark.parametrize("declared, canonical", [
    ("Dict[str, int]", "dict[str, int]"),
    ("Union[int, None]", "int | None"),
    ("Optional[str]", "str | None"),
    ("'Counter[str]'", "collections.Counter[str]"),
    ("Literal[1, 'a'] | bytes", "bytes | int | str"),
    ("Literal[Color.RED]", "Color"),
    ("Type[Foo]", "type[Foo]"),
    ("tuple[int, ...]", "tuple[int, ...]"),
    ("Tuple[()]", "tuple[()]"),
    ("Any", "Any"),
    ("Union[str, Any]", "Any"),
    ("Iterator[Never]", "Never"),
    ("Callable[[], int]", "Callable"),
    ("TypeIs[int]", "TypeIs/TypeGuard"),
])
def test_declared_types_read_as_canonical_texts_or_left_out(declared, canonical):
    node = ast.parse(declared, mode="eval").body
    try:
        got = inferevalset.DeclaredTypeText(node, lambda name: _kClasses.get(name, name))
    except inferevalset.CUnscored as why:
        got = str(why)
    assert got == canonical


def test_assert_type_calls_are_found_with_their_lines(tmp_path):
    (tmp_path / "cases.py").write_text(
        "from typing import assert_type\n"
        "assert_type(len('a'), int)\n"
        "def f(x: str) -> None:\n"
        "    typing_extensions.assert_type(\n"
        "        x.upper(),\n"
        "        str)\n")
    (tmp_path / "broken.py").write_text("assert_type(1, int\n")
    cases = inferevalset.ReadAssertTypes(str(tmp_path))
    assert [(c.line, c.expr, ast.unparse(c.type_node)) for c in cases] == \
        [(2, "len('a')", "int"), (4, "x.upper()", "str")]


# The `#? [COLUMN] T1 T2` cases of another analyser (bench/infer_eval.py --peer-cases)

@pytest.mark.parametrize("line, column, found", [
    ("int()", None, ("int()", False)),
    ("int()", 3, ("int", False)),
    ("int(str)", 4, ("str", False)),
    ("x = foo.bar[0]", None, ("foo.bar[0]", False)),
    ("    return [a][0].b(1)  # why", 22, ("[a][0].b(1)", False)),
    ("assert {}", None, ("{}", False)),
    ("for k, v in pairs:", 8, ("v", True)),
    ("with Foo() as f3:", 16, ("f3", True)),
    ("def foo1(my_param, b=2):", 9, ("my_param", True)),
    ("A().addition = None", 8, ("A().addition", True)),
    ("a == b", 1, ("a", False)),
    ("return", None, None),
    ("x = (", None, None),
])
def test_the_expression_at_the_cursor_is_the_primary_it_ends(line, column, found):
    assert peercases.ExpressionAt(line, len(line) if column is None else column) == found


def test_peer_cases_are_read_with_their_line_column_and_types(tmp_path):
    (tmp_path / "cases.py").write_text(
        "#? int() str()\n"
        "a\n"
        "#? 4 list\n"
        "x = list()\n"
        "#? ['append']\n"
        "a.app\n"
        "#?\n"
        "b\n"
        "'''\n"
        "#? int()\n"
        "in_a_string\n"
        "'''\n")
    cases = peercases.ReadPeerCases(str(tmp_path))
    assert [(c.line, c.column, c.expr, c.expected) for c in cases] == \
        [(2, 1, "a", ("int()", "str()")), (4, 4, "list", ("list",)), (8, 1, "b", ())]


@pytest.mark.parametrize("written, text", [
    ("int()", "int"),
    ("str", "type[str]"),
    ("len", "def len"),
    ("None", "None"),
    ("Foo()", "mod.Foo"),
    ("Foo", "type[mod.Foo]"),
    ("helper", "def helper"),
    ("helper()", "expected call of a function"),
    ("nowhere", "expected name not found"),
    ("type(x)", "expected value of another form"),
])
def test_expected_types_read_as_canonical_texts_or_left_out(written, text):
    known = {"Foo": ["type[mod.Foo[T]]"], "helper": ["def helper"]}
    try:
        got = peercases.ExpectedText(written, lambda name: known.get(name, []))
    except peercases.CUnscored as why:
        got = str(why)
    assert got == text

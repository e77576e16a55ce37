"""The analyzer against Python's own `ast` over the core corpus, and a fuzz test."""
import ast
import os
import random
import sys

import pytest
from hypothesis import given, settings, strategies as st

sys.path.insert(0, os.path.dirname(__file__))
import pgen_oracle  # noqa: E402
from corpusutil import corpus_paths  # noqa: E402

from pysource.filellinecache import BuildLogicalLines  # noqa: E402
from pysource.logicalline import CreateLogical  # noqa: E402
from pysource.pgeninspect import CPGenAnalyzer  # noqa: E402

def corpus_files():
    """The core corpus; every tenth file of it in a sanitizer build, which is slow."""
    return corpus_paths(step=10 if os.environ.get("PYSOURCE_SANITIZED") else 1)


class TestOracle:
    def test_small_sources_agree_with_ast(self):
        src = ("import os.path as p, sys\nfrom .m import *\n"
               "@deco(k=v)\nclass C(B, metaclass=M):\n"
               "    def f(self, a, /, b=1, *c, d: 'T', **e) -> R:\n"
               "        global g\n        x, *y = [z for z in a if (w := z)]\n"
               "        with open(b) as fh: del fh\n"
               "        match a:\n            case [1, *rest] if rest: pass\n"
               "        return lambda q, r=s: q + t\n")
        compared, differing = pgen_oracle.compare_source(CPGenAnalyzer(), src)
        assert compared == 11 and differing == []

    def test_oracle_catches_a_missing_binding(self):
        # the comparison itself must see a difference when there is one
        ours = pgen_oracle.analyzer_names([(b"x", b":S")], None)
        theirs = pgen_oracle.statement_names(ast.parse("x = y\n"))[1]
        assert ours.stores == theirs.stores and ours.loads != theirs.loads

    @pytest.mark.skipif(not corpus_files(), reason="the shared corpus isn't there")
    def test_core_corpus_agrees_with_ast(self):
        analyzer = CPGenAnalyzer()
        compared, differing = 0, []
        for path in corpus_files():
            with open(path, encoding="utf-8") as f:
                source = f.read()
            c, d = pgen_oracle.compare_source(analyzer, source)
            compared += c
            differing += [(path,) + entry[:2] for entry in d]
        rate = 1 - len(differing) / compared
        print(f"\nanalyzer vs ast: {compared} statements, {len(differing)} differ, "
              f"agreement {rate:.4%}")
        assert compared > (10000 if os.environ.get("PYSOURCE_SANITIZED") else 100000)
        assert differing == []


TOKENS = ["x", "y", "f", "(", ")", "[", "]", "{", "}", ",", ":", "=", ".", "*", "**", "+",
          "lambda", "for", "in", "if", "else", "not", "is", "yield", "await", "async", "def",
          "class", "import", "from", "as", "match", "case", "type", "with", "return", "del",
          "global", ":=", "->", "@", ";", "1", "'s'", "f'{x}'", "f'{'", "f'{x!r:{y}}'", "...",
          "# type: (int) -> x", "# type: int", "print", "exec", "`", "<>", "rb'\\''", "_"]


def check_result(analyzer, toks, py3, first_in_def):
    logical = CreateLogical(toks=toks)
    errs = analyzer.AnalyzeSingleLogical(logical, py3, first_in_def)
    assert isinstance(logical.fTypeEquivs, tuple)
    for name, info in logical.fTypeEquivs:
        assert type(name) is bytes and type(info) is bytes
    if errs is None:
        assert logical.fParsed is True
    else:
        assert logical.fParsed is False
        for message, position in errs:
            assert message and 0 <= position <= len(toks)


class TestFuzz:
    @settings(max_examples=400, deadline=None)
    @given(st.lists(st.sampled_from(TOKENS), max_size=30), st.booleans(), st.booleans())
    def test_random_token_sequences(self, toks, py3, first_in_def):
        check_result(CPGenAnalyzer(), toks, py3, first_in_def)

    @settings(max_examples=300, deadline=None)
    @given(st.randoms(use_true_random=False))
    def test_mutations_of_real_statements(self, rnd):
        src = open(ast.__file__, encoding="utf-8").read()
        logicals = [l for l in BuildLogicalLines(src) if l.fToks]
        toks = list(rnd.choice(logicals).fToks)
        for _ in range(rnd.randint(1, 4)):
            op = rnd.randrange(3)
            i = rnd.randrange(len(toks) + 1)
            if op == 0 and toks:
                del toks[min(i, len(toks) - 1)]
            elif op == 1:
                toks.insert(i, rnd.choice(TOKENS))
            elif toks:
                j = rnd.randrange(len(toks))
                toks[min(i, len(toks) - 1)], toks[j] = toks[j], toks[min(i, len(toks) - 1)]
        check_result(CPGenAnalyzer(), toks, rnd.random() < 0.8, False)

    @pytest.mark.parametrize("value", [
        ["("] * 5000 + ["1"] + [")"] * 5000,
        ["-"] * 5000 + ["1"],
        ["lambda", ":"] * 3000 + ["1"],
        ["f'" + "{x:" * 5000 + "}" * 5000 + "'"],
        ["2", "**"] * 5000 + ["1"],
    ], ids=["parens", "unary", "lambdas", "fstring", "power"])
    def test_deep_nesting_is_an_error_not_a_crash(self, value):
        check_result(CPGenAnalyzer(), ["x", "="] + value, True, False)

    def test_long_chains_are_read_without_deep_recursion(self):
        analyzer = CPGenAnalyzer()
        for chain in (["a", "+"] * 200000 + ["b"], ["a"] + [".", "b"] * 200000,
                      ["f"] + ["(", ")"] * 200000, ["a"] + ["[", "i", "]"] * 100000):
            logical = CreateLogical(toks=["x", "="] + chain)
            assert analyzer.AnalyzeSingleLogical(logical, True) is None
            assert (b"x", b":S") in logical.fTypeEquivs

    def test_random_bytes_as_one_token(self):
        rnd = random.Random(7)
        analyzer = CPGenAnalyzer()
        for _ in range(200):
            text = "".join(chr(rnd.randrange(32, 0x3000)) for _ in range(rnd.randrange(1, 12)))
            check_result(analyzer, [text, "=", text], True, False)


def full_corpus_sample():
    """A sample of the full corpus (tests and deliberately broken files included)."""
    return corpus_paths(full=True, step=50 if os.environ.get("PYSOURCE_SANITIZED") else 5)


class TestFullCorpus:
    @pytest.mark.skipif(not full_corpus_sample(), reason="the shared corpus isn't there")
    def test_every_logical_parses_when_ast_parses_the_file(self):
        analyzer = CPGenAnalyzer()
        failures = []
        for path in full_corpus_sample():
            with open(path, "rb") as f:
                data = f.read()
            try:
                ast.parse(data)
                parses = True
            except (SyntaxError, ValueError):
                parses = False
            for py3 in (True, False):
                for logical in BuildLogicalLines(data):
                    errs = analyzer.AnalyzeSingleLogical(logical, py3)
                    if py3 and parses and errs:
                        failures.append((path, logical.fFirstLine, errs))
        assert failures == []

import io
import token
import tokenize

import pytest
from hypothesis import given, settings, strategies as st

from pysource import srctokenizer as stok
from pysource.srctokenizer import (CStringTokenizer, FindStringLiteralEnd, GetTokenEnd,
                                   GetTokenType, Tokenize, UpdateNestingLevel)

LINE_ENDS = (stok.NEWLINE, stok.NL)


def toks(src):
    """(type name, text) of every token but line ends."""
    data = src.encode() if isinstance(src, str) else src
    return [(stok.tok_name[t], data[o:o + n].decode("utf-8", "replace"))
            for t, o, n, _line, _col in Tokenize(src) if t not in LINE_ENDS]


def stdlib_toks(src):
    out = []
    for tk in tokenize.generate_tokens(io.StringIO(src).readline):
        if tk.type in (token.NEWLINE, token.NL, token.INDENT, token.DEDENT, token.ENDMARKER):
            continue
        out.append((token.tok_name[tk.exact_type], tk.string))
    return out


class TestAgainstStdlib:
    # Sources the running interpreter's tokenizer reads: the same texts and types.
    @pytest.mark.parametrize("src", [
        "x = 0x_FF + 0o17 + 0b1010 + 1_000.5e-3j + .5 + 5. + 1e5 + 1E+5J\n",
        "a **= b; c //= d; e >>= f; g <<= h; i @= j; k -> l; m := n; o != p; q ... r\n",
        "s = rb'\\'' + Rb\"a\" + BR'''x''' + u'x' + R'\\n' + F'{x}' + fR'{y}'\n",
        "def f(a, *, b=1, **kw) -> 'T':\n    return a if b else ~kw % 2 ^ 3 | 4 & 5\n",
        "x = [1,\n     2]  # comment\n\n# own line\ny = 'a' \\\n    'b'\n",
        "é = ñ + 名前 + _x9\n",
        "if x:\n\tpass\n\fy = 1\n",
        "x = '''a\nb''' + \"\"\"c\"\"\"\n",
    ])
    def test_same_tokens(self, src):
        assert toks(src) == stdlib_toks(src)


class TestStrings:
    @pytest.mark.parametrize("src", [
        'f"{x["a"]}"',                     # same quote nested
        'f"{f"{f"{1}"}"}"',                # f-strings in fields
        'f"{x:{w}.{p}f}"',                 # fields in the format specifier
        "f'{a!r:>{width}} {b=}'",
        "f\"{'}'} {{literal}} {d['k']:%Y}\"",
        'rf"\\{x}"',
        'f"\\N{EM DASH} {x}"',
        "f'''{x\n+ 1  # a comment in the field\n}'''",
        'f"{lambda: 1}"',
        'f"{(lambda: 1)()!s:^10}"',
        "f'{x:{\"}\"}}'",
    ])
    def test_fstring_is_one_token(self, src):
        assert toks(src) == [("STRING", src)]

    @pytest.mark.parametrize("prefix", ["r", "u", "R", "U", "b", "B", "f", "F", "br", "rB", "Rb",
                                        "BR", "fr", "Rf", "FR", "ur", "UR"])
    def test_valid_prefixes(self, prefix):
        src = prefix + "'x'"
        assert toks(src) == [("STRING", src)]

    @pytest.mark.parametrize("prefix", ["bf", "ub", "rr", "fu", "bu", "abc"])
    def test_other_letters_are_a_name(self, prefix):
        assert toks(prefix + "'x'") == [("NAME", prefix), ("STRING", "'x'")]

    @pytest.mark.parametrize("src, expected", [
        (r"r'\'' x", [("STRING", r"r'\''"), ("NAME", "x")]),
        ("'abc\nx", [("ERRORTOKEN", "'abc"), ("NAME", "x")]),     # ends at its line's end
        ('x = """abc\ndef', [("NAME", "x"), ("EQUAL", "="), ("ERRORTOKEN", '"""abc\ndef')]),
        ("f'{x\ny", [("ERRORTOKEN", "f'{x"), ("NAME", "y")]),
        ("1if x", [("NUMBER", "1"), ("NAME", "if"), ("NAME", "x")]),
    ])
    def test_edge_forms(self, src, expected):
        assert toks(src) == expected

    def test_deep_nesting_is_an_error_not_a_crash(self):
        src = 'f"{' * 5000 + "x" + '}"' * 5000
        kinds = {k for k, _ in toks(src)}
        assert "ERRORTOKEN" in kinds

    def test_find_string_literal_end_looks_at_the_prefix(self):
        text = "x = rb'a\\'b' + f'{y[\"k\"]}' + 'c"
        quote = text.index("'")
        assert FindStringLiteralEnd(text, quote) == (text.index(" +"), False)
        fquote = text.index("f'") + 1
        end, error = FindStringLiteralEnd(text, fquote)
        assert text[fquote - 1:end] == "f'{y[\"k\"]}'" and not error
        assert FindStringLiteralEnd(text, text.rindex("'")) == (len(text), True)
        # letters that end a longer name are no prefix: `xf'{'` is a plain string
        assert FindStringLiteralEnd("xf'{'", 2) == (5, False)


class TestOperatorsAndErrors:
    def test_python2_forms(self):
        assert toks("a <> b `c`") == [("NAME", "a"), ("NOTEQUAL", "<>"), ("NAME", "b"),
                                      ("BACKQUOTE", "`"), ("NAME", "c"), ("BACKQUOTE", "`")]
        assert toks("0777L 0x1fL") == [("NUMBER", "0777L"), ("NUMBER", "0x1fL")]

    @pytest.mark.parametrize("stray", ["$", "?", "!", "\u00a0", "\u20ac", "\\"])
    def test_stray_character_is_an_error_token(self, stray):
        assert toks(f"a {stray} b") == [("NAME", "a"), ("ERRORTOKEN", stray), ("NAME", "b")]


class TestLines:
    def test_line_ends_of_every_style(self):
        src = "a = (1,\r\n 2)\rb = 3\nc"
        got = [(stok.tok_name[t], line, col) for t, _o, _n, line, col in Tokenize(src)]
        assert got == [("NAME", 1, 0), ("EQUAL", 1, 2), ("LPAR", 1, 4), ("NUMBER", 1, 5),
                       ("COMMA", 1, 6), ("NL", 1, 7), ("NUMBER", 2, 1), ("RPAR", 2, 2),
                       ("NEWLINE", 2, 3), ("NAME", 3, 0), ("EQUAL", 3, 2), ("NUMBER", 3, 4),
                       ("NEWLINE", 3, 5), ("NAME", 4, 0), ("NEWLINE", 4, 1)]

    def test_continuation_and_multiline_string_move_the_line(self):
        src = "x = 1 + \\\n  2\ny = '''a\nb'''; z\n"
        lines = {src.encode()[o:o + n].decode(): line for t, o, n, line, _ in Tokenize(src)
                 if t not in LINE_ENDS}
        assert lines["2"] == 2 and lines["y"] == 3 and lines["z"] == 4

    def test_newline_only_after_a_statement(self):
        types = [t for t, *_ in Tokenize("\n# c\nx\n\n")]
        assert types == [stok.NL, stok.COMMENT, stok.NL, stok.NAME, stok.NEWLINE, stok.NL]


class TestPythonFunctions:
    def test_get_token_type_by_start(self):
        assert GetTokenType("abc") == 1
        assert GetTokenType("12.5") == 2 and GetTokenType(".5") == 2
        assert GetTokenType("'x'") == 3 and GetTokenType("Rb'x'") == 3 and GetTokenType('f"{x}"') == 3
        assert GetTokenType("# c") == 202 and GetTokenType("@") == 50
        assert GetTokenType("(") == 7 and GetTokenType("{") == 26 and GetTokenType(":") == 11
        assert GetTokenType("-1") == 15 and GetTokenType("-1", 1) == 2
        assert GetTokenType(b"+") == 14
        assert GetTokenType(stok.kErrorTokenPrefix + "'abc") == stok.ERRORTOKEN

    def test_get_token_end_in_bytes(self):
        assert GetTokenEnd("1.5e3 + x", 0) == 5
        assert GetTokenEnd("é+1", 0) == 2
        assert GetTokenEnd("é+1", 2) == 3
        assert GetTokenEnd(b"  'a' x", 0, True) == 5
        assert GetTokenEnd("  x", 0, True) == 3
        assert GetTokenEnd("", 0) == 0

    def test_bad_arguments_are_clear_errors(self):
        with pytest.raises(TypeError):
            GetTokenType(5)
        with pytest.raises(IndexError):
            GetTokenEnd("abc", 7)
        with pytest.raises(TypeError):
            CStringTokenizer(None)

    def test_update_nesting_level(self):
        level = 0
        for tok in ["f", "(", "[", "x", "]", "{", "}", ")", ")"]:
            level = UpdateNestingLevel(level, tok)
        assert level == -1
        assert UpdateNestingLevel(3, "'('") == 3
        assert UpdateNestingLevel(0, "(", None) == 1

    def test_string_tokenizer_display_walk(self):
        def walk(text):
            t = CStringTokenizer(text)
            out = []
            while not t.fDone:
                out.append((t.fTokenID, t.fToken, t.fPriorNestingCount))
                t.Next()
            return out
        assert walk("{1: [2]} + x") == [(26, "{", 0), (2, "1", 1), (11, ":", 1), (9, "[", 1),
                                        (2, "2", 2), (10, "]", 2), (27, "}", 1), (14, "+", 0),
                                        (1, "x", 0)]
        assert walk("") == []
        t = CStringTokenizer("()")
        t.Next(), t.Next(), t.Next()
        assert t.fDone and t.fTokenID == 0


class TestNeverCrashes:
    @settings(max_examples=300, deadline=None)
    @given(st.binary(max_size=300))
    def test_random_bytes_are_covered_by_tokens(self, data):
        pos = 0
        for _t, offset, length, line, _col in Tokenize(data):
            assert offset >= pos and line >= 1
            # what lies between tokens is white space or a continuation
            assert set(data[pos:offset]) <= set(b" \t\f\\\r\n")
            pos = offset + length
        assert pos <= len(data)
        assert set(data[pos:]) <= set(b" \t\f\\\r\n")

    SOUP = ["f'", '"', "'''", "{", "}", "(", ")", "[", "]", "\\", "\n", "\r\n", "#", "x", "1",
            ":", ";", "=", "def", "class", "@", "rb", "f", "!r", "\t", " ", "é", "\x00", ".5"]

    @settings(max_examples=300, deadline=None)
    @given(st.lists(st.sampled_from(SOUP), max_size=60))
    def test_token_soup(self, parts):
        text = "".join(parts)
        tokens = Tokenize(text)
        assert all(n >= 0 for _t, _o, n, _l, _c in tokens)
        for i in range(len(text.encode()) + 1):
            GetTokenEnd(text, i, True)

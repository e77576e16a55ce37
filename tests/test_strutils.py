import pytest
from hypothesis import given, strategies as st

from pysource import strutils as su

MIXED = "aé€😀b"          # 1-, 2-, 3- and 4-byte characters
MIXED_UTF8 = MIXED.encode()
LEADS = [0, 1, 3, 6, 10]  # lead byte offsets of MIXED_UTF8
END = len(MIXED_UTF8)     # 11


def lead_of(pos):
    return max(p for p in LEADS if p <= pos)


class TestGetUtf8Ptr:
    def test_text_bytes_and_bytearray(self):
        assert su.GetUtf8Ptr(MIXED) == MIXED_UTF8
        assert su.GetUtf8Ptr(b"a\0b") == b"a\0b" and su.GetUtf8Ptr(bytearray(b"xy")) == b"xy"

    @pytest.mark.parametrize("bad, error", [(None, TypeError), (12, TypeError),
                                            ("a\ud800", UnicodeEncodeError)])
    def test_bad_values(self, bad, error):
        with pytest.raises(error):
            su.GetUtf8Ptr(bad)


class TestAdjustUtf8Pos:
    @pytest.mark.parametrize("pos", range(END))
    def test_diff_zero_gives_lead_byte_of_the_character(self, pos):
        assert su.AdjustUtf8Pos(MIXED_UTF8, pos, 0, END) == lead_of(pos)

    @pytest.mark.parametrize("pos", range(END))
    def test_steps_by_whole_characters(self, pos):
        i = LEADS.index(lead_of(pos))
        after = LEADS[i + 1] if i + 1 < len(LEADS) else END
        before = LEADS[i - 1] if i > 0 else -1
        assert su.AdjustUtf8Pos(MIXED_UTF8, pos, 1, END) == after
        assert su.AdjustUtf8Pos(MIXED_UTF8, pos, -1, END) == before

    def test_position_at_or_past_end_is_taken_as_it_stands(self):
        assert su.AdjustUtf8Pos(MIXED_UTF8, END, 0, END) == END
        assert su.AdjustUtf8Pos(MIXED_UTF8, END, -1, END) == 10
        # end_pos alone bounds the text: a shorter end cuts the last character
        assert su.AdjustUtf8Pos(MIXED_UTF8, 3, 1, 5) == 5
        # bytes at or past end_pos are never read: each counts as one step
        assert su.AdjustUtf8Pos(MIXED_UTF8, 6, -1, 5) == 5
        assert su.AdjustUtf8Pos(MIXED_UTF8, 6, -2, 5) == 3
        # from before the text, the first step lands on its first character
        assert su.AdjustUtf8Pos(b"abc", -5, 1, 3) == 0

    def test_end_outside_the_text_is_refused(self):
        with pytest.raises(ValueError):
            su.AdjustUtf8Pos(b"abc", 0, 1, 4)
        with pytest.raises(ValueError):
            su.AdjustUtf8Pos(b"abc", 0, 1, -1)

    @given(st.text(max_size=12), st.data())
    def test_matches_character_indexes(self, text, data):
        raw = text.encode("utf-8", "surrogatepass")
        try:
            raw.decode()
        except UnicodeDecodeError:
            return
        starts = [len(text[:i].encode()) for i in range(len(text))]
        if not starts:
            assert su.AdjustUtf8Pos(raw, 0, 1, 0) == 0
            return
        i = data.draw(st.integers(0, len(starts) - 1))
        diff = data.draw(st.integers(-len(starts) - 1, len(starts) + 1))
        j = i + diff
        expected = starts[j] if 0 <= j < len(starts) else (-1 if j < 0 else len(raw))
        assert su.AdjustUtf8Pos(raw, starts[i], diff, len(raw)) == expected


class TestCharacterAtPosition:
    def test_code_points(self):
        got = [su.Ucs4CharAtUtf8Pos(MIXED_UTF8, p, END) for p in LEADS]
        assert got == [ord(c) for c in MIXED]
        assert su._NonInlineUcs4CharAtUtf8Pos(MIXED_UTF8, 6, END) == 0x1F600

    def test_at_or_past_end_gives_zero(self):
        assert su.Ucs4CharAtUtf8Pos(b"ab", 2, 2) == 0
        assert su.Ucs4CharAtUtf8Pos(b"ab", 1, 1) == 0
        assert su.Ucs4CharAtUtf8Pos(b"ab", -1, 2) == 0

    def test_zero_byte_is_an_ordinary_character(self):
        text = b"a\0 "
        assert su.Ucs4CharAtUtf8Pos(text, 1, 3) == 0
        assert su.AdjustUtf8Pos(text, 0, 1, 3) == 1
        assert su.AdjustUtf8Pos(text, 1, 1, 3) == 2
        assert not su.IsSpaceAtUtf8Pos(text, 1, 3)
        assert su.IsSpaceAtUtf8Pos(text, 2, 3)

    @pytest.mark.parametrize("bad", [b"\x80", b"\xc3", b"\xc3(", b"\xe2\x82", b"\xc0\xaf",
                                     b"\xed\xa0\x80", b"\xf5\x80\x80\x80", b"\xff"])
    def test_malformed_sequences_raise_through_the_class_tests(self, bad):
        for op in (su.Ucs4CharAtUtf8Pos, su.IsSpaceAtUtf8Pos, su.IsDigitAtUtf8Pos,
                   su.IsAlnumAtUtf8Pos):
            with pytest.raises(ValueError, match="invalid UTF-8"):
                op(bad, 0, len(bad))

    def test_sequence_cut_by_end_pos_is_malformed(self):
        with pytest.raises(ValueError):
            su.Ucs4CharAtUtf8Pos("€".encode(), 0, 2)


class TestCharacterClasses:
    @pytest.mark.parametrize("ch, space", [(ch, True) for ch in " \t\n\v\f\r\u00a0\u2003\u3000\u2028"]
                             + [(ch, False) for ch in ["a", "_", "\0", "é", "\u200b", "٣"]])
    def test_space(self, ch, space):
        raw = ch.encode()
        assert su.IsSpaceAtUtf8Pos(raw, 0, len(raw)) is space

    @pytest.mark.parametrize("ch,digit,alnum", [
        ("7", True, True), ("a", False, True), ("_", False, False), (" ", False, False),
        ("٣", True, True),   # Arabic-Indic digit
        ("²", True, True),   # superscript: a digit, not decimal
        ("½", False, True),  # numeric only
        ("é", False, True), ("Ω", False, True), ("€", False, False), ("😀", False, False),
    ])
    def test_digit_and_alnum(self, ch, digit, alnum):
        raw = ch.encode()
        assert su.IsDigitAtUtf8Pos(raw, 0, len(raw)) is digit
        assert su.IsAlnumAtUtf8Pos(raw, 0, len(raw)) is alnum
        assert digit == ch.isdigit()
        assert alnum == ch.isalnum()

    def test_all_false_at_or_past_end(self):
        for op in (su.IsSpaceAtUtf8Pos, su.IsDigitAtUtf8Pos, su.IsAlnumAtUtf8Pos):
            assert not op(b"7 a", 3, 3)
            assert not op(b"7 a", 0, 0)
        assert not su.IsIdentifierCharAtUtf8Pos(b"a", 1, 1, False)

    def test_identifier_char(self):
        assert not su.IsIdentifierChar(ord("7"), True)
        assert su.IsIdentifierChar(ord("7"), False)
        assert su.IsIdentifierChar(ord("_"), True) and su.IsIdentifierChar(ord("_"), False)
        assert not su.IsIdentifierChar(ord("-"), False)
        assert su.IsIdentifierChar(ord("é"), True)
        # other scripts' digits: only as a later character
        assert not su.IsIdentifierChar(ord("٣"), True)
        assert su.IsIdentifierChar(ord("٣"), False)
        assert not su.IsIdentifierChar(ord("€"), False)

    def test_identifier_char_at_position(self):
        raw = "x٣é-".encode()
        assert su.IsIdentifierCharAtUtf8Pos(raw, 0, len(raw), True)
        assert not su.IsIdentifierCharAtUtf8Pos(raw, 1, len(raw), True)
        assert su.IsIdentifierCharAtUtf8Pos(raw, 1, len(raw), False)
        with pytest.raises(ValueError):  # the byte at 2 continues ٣: no character starts there
            su.IsIdentifierCharAtUtf8Pos(raw, 2, len(raw), False)
        assert su.IsIdentifierCharAtUtf8Pos(raw, 3, len(raw), True)
        assert not su.IsIdentifierCharAtUtf8Pos(raw, 5, len(raw), False)

    @given(st.characters(exclude_categories=("Cs",)))
    def test_identifier_char_against_python_names(self, ch):
        assert su.IsIdentifierChar(ord(ch), True) == ch.isidentifier()
        if ord(ch) <= 127:
            later = ("a" + ch).isidentifier()
        else:  # the one-character test, widened by the digits of other scripts
            later = ch.isidentifier() or ch.isdigit()
        assert su.IsIdentifierChar(ord(ch), False) == later


class TestFindByte:
    def test_finds_first_at_or_after_start(self):
        assert su.BytesFindByte(b"a,b,c", ord(","), 0) == 1
        assert su.BytesFindByte(b"a,b,c", ord(","), 2) == 3
        assert su.BytesFindByte(b"a,b,c", ord(","), 4) == -1
        assert su.BytesFindByte(b"ab\0c", 0, 0) == 2
        # a byte is read as everywhere else: an int, or one character
        assert su.BytesFindByte(b"a,b", b",", 0) == su.BytesFindByte(b"a,b", ",", 0) == 1
        raw = "aé".encode()  # a high byte counts as a signed char too
        assert su.BytesFindByte(raw, 0xA9, 0) == 2 and su.BytesFindByte(raw, 0xA9 - 256, 0) == 2
        assert su.PtrFindByte(b"a,b,c", 3, ord(","), 2) == -1  # length bounds the search
        assert su.PtrFindByte("é,", 3, ord(","), 0) == 2
        with pytest.raises(TypeError):
            su.BytesFindByte("a,b", ord(","), 0)

    @pytest.mark.parametrize("call, error", [
        (lambda: su.BytesFindByte(b"a,b,c", ord(","), 5), "Invalid start"),
        (lambda: su.BytesFindByte(b"a,b,c", ord(","), 6), "Invalid start"),
        (lambda: su.BytesFindByte(b"a,b,c", ord(","), -1), "Invalid start"),
        (lambda: su.BytesFindByte(b"", ord(","), 0), "Invalid start"),
        (lambda: su.PtrFindByte(b"abc", 2, ord("c"), 2), "Invalid start"),
        (lambda: su.PtrFindByte(b"abc", 4, ord("c"), 0), None),  # length past the buffer
        (lambda: su.BytesFindByte(b"abc", 256, 0), None),
    ])
    def test_bad_ranges_and_bytes(self, call, error):
        with pytest.raises(ValueError, match=error):
            call()


class TestPositionsAndOrdinals:
    @pytest.mark.parametrize("pos,length,expected", [
        (-1, 10, 9), (-20, 10, 0), (20, 10, 10), (0, 10, 0), (10, 10, 10), (-10, 10, 0),
        (3, 0, 0), (-3, 0, 0)])
    def test_adjust_pos_arg(self, pos, length, expected):
        assert su.AdjustPosArg(pos, length) == expected
        assert su.AdjustPosArg(pos, length) == len(range(length)[:pos])

    def test_ord_at(self):
        assert su.OrdAt(b"abc", -1) == ord("c")
        assert su.OrdAt(b"\xff", 0) == 255
        assert su.OrdAt("aé€", 2) == ord("€")  # code points, not bytes
        assert su.OrdAt("aé€", -2) == ord("é")

    @pytest.mark.parametrize("s", [b"abc", "abc", "a€c"])
    @pytest.mark.parametrize("i", [3, 4, -4, -100])
    def test_ord_at_out_of_range(self, s, i):
        with pytest.raises(IndexError, match="string index out of range"):
            su.OrdAt(s, i)

    def test_ord_at_wrong_type(self):
        for bad in (bytearray(b"a"), None, 5, ["a"]):
            with pytest.raises(TypeError):
                su.OrdAt(bad, 0)


class TestConversions:
    def test_as_str(self):
        assert su.AsStr("é") == "é"
        assert su.AsStr("é".encode()) == "é"
        with pytest.raises(UnicodeDecodeError):
            su.AsStr(b"\xff")
        with pytest.raises(TypeError):
            su.AsStr(None)

    def test_as_utf8(self):
        assert su.AsUtf8("é€") == "é€".encode()
        b = b"\xffraw"
        assert su.AsUtf8(b) is b
        assert su.AsUtf8(-1) == b"-1"
        assert su.AsUtf8(10**20) == b"100000000000000000000"
        with pytest.raises(TypeError):
            su.AsUtf8(1.5)
        assert su.Utf8Len("aé€😀") == 10 and su.Utf8Len(b"abc") == 3

    def test_concat(self):
        assert su.Utf8Concat2("a", b"b") == b"ab"
        assert su.Utf8Concat3("é", None, b"!") == "é!".encode()
        assert su.Utf8Concat4(b"x", "y", -1, "z") == b"xy-1z"
        assert su.Utf8Concat5("1", "2", "3", "4", "5") == b"12345"
        assert su.Utf8Concat5(b"", None, None, None, None) == b""
        with pytest.raises(TypeError):
            su.Utf8Concat2("a", 1.0)

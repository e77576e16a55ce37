#include "bindutil.h"

#include "pysource/srctokenizer.h"

#include <nanobind/stl/string.h>
#include <nanobind/stl/string_view.h>

using namespace pysource;

static const char *kModuleDoc = R"doc(The Python tokenizer.

Token type numbers (module constants of the same names; tok_name maps back):

    0 ENDMARKER   1 NAME        2 NUMBER      3 STRING      4 NEWLINE
    5 INDENT      6 DEDENT      7 LPAR (      8 RPAR )      9 LSQB [
   10 RSQB ]     11 COLON :    12 COMMA ,    13 SEMI ;     14 PLUS +
   15 MINUS -    16 STAR *     17 SLASH /    18 VBAR |     19 AMPER &
   20 LESS <     21 GREATER >  22 EQUAL =    23 DOT .      24 PERCENT %
   25 BACKQUOTE `             26 LBRACE {   27 RBRACE }   28 EQEQUAL ==
   29 NOTEQUAL != and <>      30 LESSEQUAL <=             31 GREATEREQUAL >=
   32 TILDE ~    33 CIRCUMFLEX ^          34 LEFTSHIFT <<  35 RIGHTSHIFT >>
   36 DOUBLESTAR **           37 PLUSEQUAL += 38 MINEQUAL -= 39 STAREQUAL *=
   40 SLASHEQUAL /=           41 PERCENTEQUAL %=          42 AMPEREQUAL &=
   43 VBAREQUAL |=            44 CIRCUMFLEXEQUAL ^=       45 LEFTSHIFTEQUAL <<=
   46 RIGHTSHIFTEQUAL >>=     47 DOUBLESTAREQUAL **=      48 DOUBLESLASH //
   49 DOUBLESLASHEQUAL //=    50 AT @       51 OP (reserved)
   52 ERRORTOKEN (unterminated string, stray character)
   53 ATEQUAL @=  54 RARROW ->  55 ELLIPSIS ...  56 COLONEQUAL :=
  201 NL (line end that doesn't end a statement)    202 COMMENT

An f-string, however nested, is one STRING token.  Error token texts handed
out by logical lines start with kErrorTokenPrefix.
)doc";

NB_MODULE(srctokenizer, m) {
    bindutil::ImportDependencies({});
    m.doc() = kModuleDoc;

    nb::dict names;
    for (int id = 0; id <= kTokComment; id++) {
        if (const char *name = TokenIdName(id)) {
            m.attr(name) = id;
            names[nb::int_(id)] = nb::str(name);
        }
    }
    m.attr("tok_name") = names;
    m.attr("kErrorTokenPrefix") = nb::str(kErrorTokenPrefix.data(), kErrorTokenPrefix.size());

    m.def("GetTokenType", &GetTokenType, nb::arg("tok"), nb::arg("pos") = 0,
          "Type number of the token that starts at byte `pos` of `tok` (str or bytes).");
    m.def("GetTokenEnd", &GetTokenEnd, nb::arg("text"), nb::arg("pos"),
          nb::arg("flag") = false,
          "Byte index behind the token starting at byte `pos` of `text`; with a true "
          "`flag`, white space ahead of the token is skipped first.");
    m.def("UpdateNestingLevel",
          [](Py_ssize_t level, nb::handle tok, nb::args) { return UpdateNestingLevel(level, tok); },
          nb::arg("level"), nb::arg("tok"), nb::arg("args"),
          "Bracket nesting level after `tok`, starting from `level`.");
    m.def("FindStringLiteralEnd", &FindStringLiteralEndOfText, nb::arg("text"),
          nb::arg("quote_pos"),
          "(end, error): byte index behind the string literal whose opening quote is at "
          "byte `quote_pos`; prefix letters ahead of the quote are taken into account.");
    m.def("Tokenize", &TokenizeToList, nb::arg("text"),
          "Every token of `text` as (type, byte offset, byte length, line, byte column), "
          "line ends (NEWLINE, NL) included.");

    nb::class_<CStringTokenizer>(m, "CStringTokenizer")
        .def("__init__",
             [](CStringTokenizer *self, nb::handle text) {
                 new (self) CStringTokenizer(std::string(Utf8OfText(text, "text")));
             },
             nb::arg("text"))
        .def("Next", &CStringTokenizer::Next)
        .def_ro("fDone", &CStringTokenizer::fDone)
        .def_ro("fTokenID", &CStringTokenizer::fTokenID)
        .def_ro("fPriorNestingCount", &CStringTokenizer::fPriorNestingCount)
        .def_ro("fNestingCount", &CStringTokenizer::fNestingCount)
        .def_ro("fTokenStart", &CStringTokenizer::fTokenStart)
        .def_ro("fTokenEnd", &CStringTokenizer::fTokenEnd)
        .def_ro("fLine", &CStringTokenizer::fLine)
        .def_prop_ro("fToken", [](const CStringTokenizer &self) {
            std::string_view text = self.TokenText();
            return nb::str(text.data(), text.size());
        });
}

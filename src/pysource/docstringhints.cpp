// Parameter and return types read from docstrings (see docstringhints.h).
#include "pysource/docstringhints.h"

#include <algorithm>

#include "pysource/logicalline.h"

namespace pysource::docstringhints {

namespace {

using Hints = std::vector<std::pair<std::string, std::string>>;

bool IsNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool IsNameChar(char c) { return IsNameStart(c) || (c >= '0' && c <= '9'); }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view Strip(std::string_view text) {
    while (!text.empty() && (IsSpace(text.front()) || text.front() == '\n'))
        text.remove_prefix(1);
    while (!text.empty() && (IsSpace(text.back()) || text.back() == '\n'))
        text.remove_suffix(1);
    return text;
}

bool IsIdentifier(std::string_view text) {
    if (text.empty() || !IsNameStart(text[0]))
        return false;
    return std::all_of(text.begin(), text.end(), IsNameChar) && !IsPythonKeyword(text);
}

// Recursive descent over one docstring type, writing annotation text.
class CTypeReader {
  public:
    explicit CTypeReader(std::string_view text) : fText(text) {}

    std::optional<std::string> ReadAll() {
        std::optional<std::string> type = Union();
        SkipSpaces();
        if (fPos < fText.size() && fText[fPos] == '.')
            fPos++;  // a sentence's full stop
        SkipSpaces();
        if (!type || fPos != fText.size())
            return std::nullopt;
        return type;
    }

  private:
    static constexpr int kMaxDepth = 8;

    void SkipSpaces() {
        while (fPos < fText.size() && IsSpace(fText[fPos]))
            fPos++;
    }

    bool Accept(std::string_view token) {
        SkipSpaces();
        if (fText.substr(fPos, token.size()) != token)
            return false;
        fPos += token.size();
        return true;
    }

    bool AcceptWord(std::string_view word) {
        SkipSpaces();
        size_t end = fPos + word.size();
        if (fText.substr(fPos, word.size()) != word ||
            (end < fText.size() && IsNameChar(fText[end])))
            return false;
        fPos = end;
        return true;
    }

    std::string_view Dotted() {
        SkipSpaces();
        size_t start = fPos;
        while (fPos < fText.size() && IsNameStart(fText[fPos])) {
            size_t part = fPos;
            while (fPos < fText.size() && IsNameChar(fText[fPos]))
                fPos++;
            if (!IsIdentifier(fText.substr(part, fPos - part)) &&
                fText.substr(part, fPos - part) != "None")
                return {};
            if (fPos + 1 < fText.size() && fText[fPos] == '.' && IsNameStart(fText[fPos + 1]))
                fPos++;
            else
                break;
        }
        return fText.substr(start, fPos - start);
    }

    // Items separated by commas up to `close`; "..." items are dropped.
    std::optional<std::vector<std::string>> Items(char close, bool *had_comma) {
        std::vector<std::string> items;
        *had_comma = false;
        for (;;) {
            SkipSpaces();
            if (fPos < fText.size() && fText[fPos] == close) {
                fPos++;
                return items;
            }
            if (!items.empty() || *had_comma) {
                if (!Accept(","))
                    return std::nullopt;
                *had_comma = true;
                SkipSpaces();
                if (fPos < fText.size() && fText[fPos] == close)
                    continue;
            }
            if (Accept("...")) {
                *had_comma = true;
                continue;
            }
            std::optional<std::string> item = Union();
            if (!item)
                return std::nullopt;
            items.push_back(std::move(*item));
        }
    }

    std::optional<std::string> Union() {
        if (++fDepth > kMaxDepth)
            return std::nullopt;
        std::vector<std::string> members;
        do {
            std::optional<std::string> item = Item();
            if (!item)
                return std::nullopt;
            if (std::find(members.begin(), members.end(), *item) == members.end())
                members.push_back(std::move(*item));
        } while (AcceptWord("or") || Accept("|"));
        fDepth--;
        std::string out;
        for (const std::string &member : members)
            out += (out.empty() ? "" : " | ") + member;
        return out;
    }

    static std::string Joined(const std::vector<std::string> &items, std::string_view sep) {
        std::string out;
        for (const std::string &item : items)
            out += (out.empty() ? "" : std::string(sep)) + item;
        return out;
    }

    std::optional<std::string> Item() {
        SkipSpaces();
        if (fPos >= fText.size())
            return std::nullopt;
        char c = fText[fPos];
        bool had_comma = false;
        if (c == '(') {
            fPos++;
            auto items = Items(')', &had_comma);
            if (!items || items->empty())
                return std::nullopt;
            if (items->size() == 1 && !had_comma)
                return (*items)[0];
            return "tuple[" + Joined(*items, ", ") + "]";
        }
        if (c == '[') {
            fPos++;
            auto items = Items(']', &had_comma);
            if (!items)
                return std::nullopt;
            return items->empty() ? std::string("list") : "list[" + Joined(*items, " | ") + "]";
        }
        if (c == ':')
            return Role();
        if (c == '`')
            return Quoted();
        return Named();
    }

    // :class:`x.Y`, :py:class:`~x.Y` and the like.
    std::optional<std::string> Role() {
        size_t tick = fText.find('`', fPos);
        if (tick == std::string_view::npos)
            return std::nullopt;
        std::string_view role = fText.substr(fPos, tick - fPos);
        if (role.size() < 3 || role.back() != ':' ||
            !std::all_of(role.begin(), role.end(),
                         [](char ch) { return ch == ':' || (ch >= 'a' && ch <= 'z'); }))
            return std::nullopt;
        fPos = tick;
        return Quoted();
    }

    std::optional<std::string> Quoted() {
        size_t ticks = 0;
        while (fPos < fText.size() && fText[fPos] == '`') {
            ticks++;
            fPos++;
        }
        if (fPos < fText.size() && (fText[fPos] == '~' || fText[fPos] == '!'))
            fPos++;
        std::string_view name = Dotted();
        if (name.empty())
            return std::nullopt;
        for (size_t i = 0; i < ticks; i++)
            if (!Accept("`"))
                return std::nullopt;
        return std::string(name);
    }

    std::optional<std::string> Named() {
        std::string_view name = Dotted();
        if (name.empty())
            return std::nullopt;
        // Words that prose uses for types: the builtins they mean, or none
        // where no class of that name is meant (`callable`, `iterable`).
        static constexpr std::pair<std::string_view, std::string_view> kWords[] = {
            {"string", "str"},      {"integer", "int"},   {"boolean", "bool"},  {"function", ""},
            {"callable", ""},       {"iterable", ""},     {"sequence", ""},     {"mapping", ""},
            {"iterator", ""},       {"generator", ""},    {"number", ""},       {"any", ""},
        };
        for (const auto &[word, meant] : kWords)
            if (name == word) {
                if (meant.empty())
                    return std::nullopt;
                name = meant;
            }
        std::string out(name);
        bool had_comma = false;
        SkipSpaces();
        if (fPos < fText.size() && fText[fPos] == '[') {
            fPos++;
            auto args = Items(']', &had_comma);
            if (!args || args->empty())
                return std::nullopt;
            if (out == "tuple" && had_comma && args->size() == 1)
                return out + "[" + (*args)[0] + ", ...]";
            return out + "[" + Joined(*args, ", ") + "]";
        }
        if (AcceptWord("of")) {
            std::optional<std::string> item = Item();
            if (!item)
                return std::nullopt;
            return out == "tuple" ? out + "[" + *item + ", ...]" : out + "[" + *item + "]";
        }
        return out;
    }

    std::string_view fText;
    size_t fPos = 0;
    int fDepth = 0;
};

// The text of a string literal's token without prefix and quotes.
std::optional<std::string_view> LiteralBody(std::string_view literal) {
    size_t i = 0;
    while (i < literal.size() && IsNameStart(literal[i])) {
        char c = literal[i] | 0x20;
        if (c == 'b' || c == 'f' || c == 't')
            return std::nullopt;  // bytes, formatted and template strings are no docstrings
        i++;
    }
    if (i >= literal.size() || (literal[i] != '"' && literal[i] != '\''))
        return std::nullopt;
    std::string_view rest = literal.substr(i);
    size_t quote = rest.size() >= 6 && rest[1] == rest[0] && rest[2] == rest[0] ? 3 : 1;
    if (rest.size() < 2 * quote)
        return std::nullopt;
    return rest.substr(quote, rest.size() - 2 * quote);
}

struct Line {
    std::string_view text;  // stripped
    size_t indent;
};

std::vector<Line> SplitLines(std::string_view body) {
    std::vector<Line> lines;
    size_t start = 0;
    while (start <= body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string_view::npos)
            end = body.size();
        std::string_view raw = body.substr(start, end - start);
        size_t indent = 0;
        while (indent < raw.size() && IsSpace(raw[indent]))
            indent++;
        lines.push_back({Strip(raw), indent});
        start = end + 1;
    }
    // The first line follows the quotes: it stands as indented as the
    // least indented line after it.
    size_t least = std::string_view::npos;
    for (size_t i = 1; i < lines.size(); i++)
        if (!lines[i].text.empty())
            least = std::min(least, lines[i].indent);
    if (!lines.empty() && least != std::string_view::npos)
        lines[0].indent = least;
    return lines;
}

// A type in a section entry, with "optional" and "default ..." parts cut off.
std::optional<std::string> EntryType(std::string_view text) {
    int nesting = 0;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == '(' || c == '[' || c == '{')
            nesting++;
        else if (c == ')' || c == ']' || c == '}')
            nesting--;
        else if (c == ',' && nesting == 0) {
            std::string_view rest = Strip(text.substr(i + 1));
            if (rest.substr(0, 8) == "optional" || rest.substr(0, 7) == "default")
                return AnnotationOfDocType(text.substr(0, i));
        }
    }
    return AnnotationOfDocType(text);
}

void Add(Hints &hints, std::string_view name, std::optional<std::string> type) {
    if (!type || (name != "return" && !IsIdentifier(name)))
        return;
    for (const auto &hint : hints)
        if (hint.first == name)
            return;  // the first statement of a type stands
    hints.emplace_back(std::string(name), std::move(*type));
}

// ":type x: T", ":param T x: ...", ":rtype: T", "@type x: T", "@rtype: T".
void ReadField(const Line &line, Hints &hints) {
    std::string_view text = line.text;
    if (text.size() < 2 || (text[0] != ':' && text[0] != '@'))
        return;
    bool rest_field = text[0] == ':';
    size_t colon = text.find(':', 1);
    if (colon == std::string_view::npos)
        return;
    std::vector<std::string_view> words;
    std::string_view head = text.substr(1, colon - 1);  // between the colons
    size_t i = 0;
    while (i < head.size()) {
        while (i < head.size() && IsSpace(head[i]))
            i++;
        size_t start = i;
        while (i < head.size() && !IsSpace(head[i]))
            i++;
        if (i > start)
            words.push_back(head.substr(start, i - start));
    }
    std::string_view value = Strip(text.substr(colon + 1));
    if (words.empty())
        return;
    std::string_view field = words[0];
    if ((field == "type" || field == "kwtype") && words.size() == 2) {
        Add(hints, words[1], AnnotationOfDocType(value));
    } else if ((field == "rtype" || field == "returntype") && words.size() == 1) {
        Add(hints, "return", AnnotationOfDocType(value));
    } else if (rest_field && words.size() >= 3 &&
               (field == "param" || field == "parameter" || field == "arg" ||
                field == "argument" || field == "key" || field == "keyword")) {
        std::string_view type = head.substr(words[1].data() - head.data(),
                                            words.back().data() - words[1].data());
        Add(hints, words.back(), AnnotationOfDocType(type));
    }
}

bool IsRule(std::string_view text) {
    return text.size() >= 3 && std::all_of(text.begin(), text.end(), [](char c) { return c == '-'; });
}

// numpydoc: "Parameters" over a dashed rule, entries "x, y : T" at the
// header's indent, descriptions indented further.
size_t ReadNumpySection(const std::vector<Line> &lines, size_t header, Hints &hints) {
    bool returns = lines[header].text == "Returns";
    size_t indent = lines[header].indent;
    std::vector<std::optional<std::string>> returned;
    size_t i = header + 2;
    for (; i < lines.size(); i++) {
        const Line &line = lines[i];
        if (line.text.empty())
            continue;
        if (line.indent < indent || (i + 1 < lines.size() && IsRule(lines[i + 1].text)))
            break;
        if (line.indent > indent)
            continue;  // a description
        size_t colon = line.text.find(" : ");
        if (returns) {
            returned.push_back(EntryType(colon == std::string_view::npos
                                             ? line.text
                                             : line.text.substr(colon + 3)));
            continue;
        }
        if (colon == std::string_view::npos)
            continue;
        std::optional<std::string> type = EntryType(line.text.substr(colon + 3));
        std::string_view names = line.text.substr(0, colon);
        while (!names.empty()) {
            size_t comma = names.find(',');
            Add(hints, Strip(names.substr(0, comma)), type);
            names = comma == std::string_view::npos ? std::string_view() : names.substr(comma + 1);
        }
    }
    if (returned.size() == 1)
        Add(hints, "return", returned[0]);
    return i;
}

// Google: "Args:" then indented entries "x (T): ...", or "Returns:" then
// an indented "T: ...".
size_t ReadGoogleSection(const std::vector<Line> &lines, size_t header, Hints &hints) {
    bool returns = lines[header].text == "Returns:";
    size_t indent = lines[header].indent;
    size_t entry_indent = 0;
    size_t i = header + 1;
    for (; i < lines.size(); i++) {
        const Line &line = lines[i];
        if (line.text.empty())
            continue;
        if (line.indent <= indent)
            break;
        if (entry_indent == 0)
            entry_indent = line.indent;
        if (line.indent != entry_indent)
            continue;
        size_t colon = line.text.find(':');
        if (colon == std::string_view::npos)
            continue;
        std::string_view head = Strip(line.text.substr(0, colon));
        if (returns) {
            Add(hints, "return", EntryType(head));
            continue;
        }
        size_t open = head.find('(');
        if (open == std::string_view::npos || head.back() != ')')
            continue;
        Add(hints, Strip(head.substr(0, open)),
            EntryType(head.substr(open + 1, head.size() - open - 2)));
    }
    return i;
}

}  // namespace

std::optional<std::string> AnnotationOfDocType(std::string_view text) {
    text = Strip(text);
    if (text.empty())
        return std::nullopt;
    return CTypeReader(text).ReadAll();
}

Hints HintsFromDocstring(std::string_view literal) {
    Hints hints;
    std::optional<std::string_view> body = LiteralBody(literal);
    if (!body || (body->find(':') == std::string_view::npos &&
                  body->find('@') == std::string_view::npos &&
                  body->find("---") == std::string_view::npos))
        return hints;
    std::vector<Line> lines = SplitLines(*body);
    for (size_t i = 0; i < lines.size();) {
        std::string_view text = lines[i].text;
        if ((text == "Parameters" || text == "Other Parameters" || text == "Returns") &&
            i + 1 < lines.size() && IsRule(lines[i + 1].text)) {
            i = ReadNumpySection(lines, i, hints);
        } else if (text == "Args:" || text == "Arguments:" || text == "Parameters:" ||
                   text == "Returns:") {
            i = ReadGoogleSection(lines, i, hints);
        } else {
            ReadField(lines[i], hints);
            i++;
        }
    }
    return hints;
}

}  // namespace pysource::docstringhints

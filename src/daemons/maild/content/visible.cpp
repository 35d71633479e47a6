#include "daemons/maild/content/visible.h"

#include <algorithm>
#include <cstdint>

#include "text/ascii.h"

namespace maild {

namespace {

constexpr std::size_t kLongestWord = 40;

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

// Elements that stand by themselves: what is on both sides of one is not one word.
constexpr std::string_view kBlocks[] = {
    "address", "article", "blockquote", "body",     "br",     "caption", "center", "dd",
    "div",     "dl",      "dt",         "fieldset", "form",   "h1",      "h2",     "h3",
    "h4",      "h5",      "h6",         "head",     "header", "hr",      "html",   "li",
    "main",    "option",  "ol",         "p",        "pre",    "section", "table",  "tbody",
    "td",      "tfoot",   "th",         "thead",    "title",  "tr",      "ul"};
constexpr std::string_view kHiding[] = {"script", "style", "noembed", "template"};

struct Entity {
    std::string_view name;
    std::uint32_t character;
};
// Those that mail is written with; all others stay as they are.
constexpr Entity kEntities[] = {{"amp", '&'},
                                {"AMP", '&'},
                                {"lt", '<'},
                                {"LT", '<'},
                                {"gt", '>'},
                                {"GT", '>'},
                                {"quot", '"'},
                                {"QUOT", '"'},
                                {"apos", '\''},
                                {"nbsp", 0xA0},
                                {"iexcl", 0xA1},
                                {"cent", 0xA2},
                                {"pound", 0xA3},
                                {"yen", 0xA5},
                                {"sect", 0xA7},
                                {"copy", 0xA9},
                                {"laquo", 0xAB},
                                {"shy", 0xAD},
                                {"reg", 0xAE},
                                {"deg", 0xB0},
                                {"middot", 0xB7},
                                {"raquo", 0xBB},
                                {"iquest", 0xBF},
                                {"Agrave", 0xC0},
                                {"Aacute", 0xC1},
                                {"Acirc", 0xC2},
                                {"Atilde", 0xC3},
                                {"Auml", 0xC4},
                                {"Aring", 0xC5},
                                {"AElig", 0xC6},
                                {"Ccedil", 0xC7},
                                {"Egrave", 0xC8},
                                {"Eacute", 0xC9},
                                {"Ecirc", 0xCA},
                                {"Euml", 0xCB},
                                {"Iacute", 0xCD},
                                {"Ntilde", 0xD1},
                                {"Oacute", 0xD3},
                                {"Ocirc", 0xD4},
                                {"Ouml", 0xD6},
                                {"Oslash", 0xD8},
                                {"Uacute", 0xDA},
                                {"Uuml", 0xDC},
                                {"szlig", 0xDF},
                                {"agrave", 0xE0},
                                {"aacute", 0xE1},
                                {"acirc", 0xE2},
                                {"atilde", 0xE3},
                                {"auml", 0xE4},
                                {"aring", 0xE5},
                                {"aelig", 0xE6},
                                {"ccedil", 0xE7},
                                {"egrave", 0xE8},
                                {"eacute", 0xE9},
                                {"ecirc", 0xEA},
                                {"euml", 0xEB},
                                {"igrave", 0xEC},
                                {"iacute", 0xED},
                                {"icirc", 0xEE},
                                {"iuml", 0xEF},
                                {"ntilde", 0xF1},
                                {"ograve", 0xF2},
                                {"oacute", 0xF3},
                                {"ocirc", 0xF4},
                                {"otilde", 0xF5},
                                {"ouml", 0xF6},
                                {"oslash", 0xF8},
                                {"ugrave", 0xF9},
                                {"uacute", 0xFA},
                                {"ucirc", 0xFB},
                                {"uuml", 0xFC},
                                {"yacute", 0xFD},
                                {"yuml", 0xFF},
                                {"ensp", 0x2002},
                                {"emsp", 0x2003},
                                {"thinsp", 0x2009},
                                {"zwnj", 0x200C},
                                {"zwj", 0x200D},
                                {"ZeroWidthSpace", 0x200B},
                                {"ndash", 0x2013},
                                {"mdash", 0x2014},
                                {"lsquo", 0x2018},
                                {"rsquo", 0x2019},
                                {"ldquo", 0x201C},
                                {"rdquo", 0x201D},
                                {"bull", 0x2022},
                                {"hellip", 0x2026},
                                {"euro", 0x20AC},
                                {"trade", 0x2122},
                                {"Tab", '\t'},
                                {"NewLine", '\n'},
                                {"colon", ':'},
                                {"period", '.'},
                                {"comma", ','},
                                {"sol", '/'},
                                {"commat", '@'},
                                {"num", '#'},
                                {"excl", '!'},
                                {"dollar", '$'}};

std::string Utf8(std::uint32_t c) {
    if (c == 0 || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) c = 0xFFFD;
    const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
    if (c < 0x80) return {byte(c)};
    if (c < 0x800) return {byte(0xC0 | c >> 6), byte(0x80 | (c & 0x3F))};
    if (c < 0x10000)
        return {byte(0xE0 | c >> 12), byte(0x80 | (c >> 6 & 0x3F)), byte(0x80 | (c & 0x3F))};
    return {byte(0xF0 | c >> 18), byte(0x80 | (c >> 12 & 0x3F)), byte(0x80 | (c >> 6 & 0x3F)),
            byte(0x80 | (c & 0x3F))};
}

// Of one character: blanks of any kind, and what has no width.
enum class Look { kSeen, kBlank, kUnseen };
Look LookOf(std::string_view c) {
    if (c.size() == 1)
        return IsSpace(c[0]) ? Look::kBlank : IsControl(c[0]) ? Look::kUnseen : Look::kSeen;
    if (c == "\xC2\xA0" || c == "\xE3\x80\x80" || c == "\xE2\x80\xAF" || c == "\xE2\x81\x9F")
        return Look::kBlank;
    if (c == "\xC2\xAD" || c == "\xEF\xBB\xBF" || c == "\xCD\x8F") return Look::kUnseen;
    if (c.size() == 3 && c.starts_with("\xE2\x80")) {
        const auto last = static_cast<unsigned char>(c[2]);
        if (last <= 0x8A || last == 0xA8 || last == 0xA9) return Look::kBlank;
        if (last <= 0x8F || (last >= 0xAA && last <= 0xAE)) return Look::kUnseen;
    }
    if (c.size() == 3 && c.starts_with("\xE2\x81") && static_cast<unsigned char>(c[2]) >= 0xA0 &&
        static_cast<unsigned char>(c[2]) <= 0xAF)
        return Look::kUnseen;
    return Look::kSeen;
}

std::size_t LengthOf(char first) {
    const auto byte = static_cast<unsigned char>(first);
    return byte < 0xC0 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

template <typename List>
bool Among(const List& list, std::string_view word) {
    return std::find(std::begin(list), std::end(list), word) != std::end(list);
}

}  // namespace

void VisibleText::Write(std::string_view html, std::string& out) {
    for (const char c : html) Take(c, out);
}

void VisibleText::Finish(std::string& out) {
    if (state_ == State::kEntity) EndEntity(out);
    if (state_ == State::kTagOpen) PutText('<', out);
}

void VisibleText::Put(std::string_view character, std::string& out) {
    switch (LookOf(character)) {
        case Look::kBlank:
            blank_ = true;
            return;
        case Look::kUnseen:
            return;
        case Look::kSeen:
            break;
    }
    if (blank_ && any_) out += ' ';
    blank_ = false;
    any_ = true;
    out += character;
}

void VisibleText::PutText(char c, std::string& out) {
    held_ += c;
    if (held_.size() < LengthOf(held_[0])) return;
    Put(held_, out);
    held_.clear();
}

void VisibleText::Take(char c, std::string& out) {
    switch (state_) {
        case State::kText:
            if (c == '<' || c == '&') {
                state_ = c == '<' ? State::kTagOpen : State::kEntity;
                word_.clear();
            } else {
                PutText(c, out);
            }
            break;
        case State::kEntity:
            if (IsLetter(c) || IsDigit(c) || (c == '#' && word_.empty())) {
                word_ += c;
                if (word_.size() > kLongestWord) EndEntity(out);
            } else {
                const bool known = EndEntity(out);
                if (c != ';' || !known) Take(c, out);
            }
            break;
        case State::kHidden:
            // Up to its end tag.
            word_ += FoldCase(c);
            if (word_.size() > kLongestWord) word_.erase(0, word_.size() - kLongestWord / 2);
            if (word_.ends_with("</" + hidden_)) {
                state_ = State::kTag;
                word_.clear();
                nameEnded_ = true;
            }
            break;
        case State::kComment:
            word_ += c;
            if (word_.size() > 3) word_.erase(0, word_.size() - 3);
            if (word_ == "-->" || (c == '>' && word_ == "--!>")) state_ = State::kText;
            break;
        default:
            TakeTag(c, out);
    }
}

void VisibleText::TakeTag(char c, std::string& out) {
    switch (state_) {
        case State::kTagOpen:
            if (c == '!' || c == '?') {
                state_ = State::kMarkup;
            } else if (IsLetter(c) || c == '/') {
                state_ = State::kTag;
                nameEnded_ = false;
                word_ += FoldCase(c);
            } else {
                state_ = State::kText;
                PutText('<', out);
                Take(c, out);
            }
            break;
        case State::kMarkup:
            if (word_.size() < 2) word_ += c;
            if (word_ == "--") {
                state_ = State::kComment;
                // `<!-->` is a whole one.
            } else if (c == '>') {
                state_ = State::kText;
            }
            break;
        case State::kQuoted:
            if (c == quote_) state_ = State::kTag;
            break;
        default:
            if (c == '>') {
                EndTag();
            } else if ((c == '"' || c == '\'') && nameEnded_) {
                state_ = State::kQuoted;
                quote_ = c;
            } else if (IsSpace(c) || (c == '/' && word_ != "/")) {
                nameEnded_ = true;
            } else if (!nameEnded_ && word_.size() < kLongestWord) {
                word_ += FoldCase(c);
            }
    }
}

void VisibleText::EndTag() {
    state_ = State::kText;
    const bool end = word_.starts_with('/');
    const std::string_view name = std::string_view(word_).substr(end ? 1 : 0);
    if (Among(kBlocks, name)) Separate();
    if (!end && Among(kHiding, name)) {
        state_ = State::kHidden;
        hidden_ = name;
    }
    word_.clear();
}

bool VisibleText::EndEntity(std::string& out) {
    state_ = State::kText;
    std::uint32_t character = 0;
    if (word_.size() > 1 && word_[0] == '#') {
        const bool hex = FoldCase(word_[1]) == 'x';
        for (std::size_t i = hex ? 2 : 1; i < word_.size(); ++i) {
            const int digit = HexDigit(word_[i]);
            if (digit < 0 || (!hex && digit > 9)) break;
            character = std::min<std::uint32_t>(
                character * (hex ? 16 : 10) + static_cast<std::uint32_t>(digit), 0x110000);
        }
        // What browsers take these for.
        if (character == 0x96 || character == 0x97) character = 0x2013;
        Put(Utf8(character), out);
        return true;
    }
    for (const Entity& each : kEntities) {
        if (each.name != word_) continue;
        Put(Utf8(each.character), out);
        return true;
    }
    const std::string word = std::move(word_);
    word_.clear();
    PutText('&', out);
    for (const char c : word) PutText(c, out);
    return false;
}

}  // namespace maild

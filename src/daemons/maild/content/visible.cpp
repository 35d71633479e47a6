#include "daemons/maild/content/visible.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "daemons/maild/content/entities.h"
#include "daemons/maild/content/seen.h"
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
constexpr std::string_view kHiding[] = {"script", "style"};
constexpr std::string_view kRawText[] = {"title",   "textarea", "xmp",
                                         "noembed", "noframes", "iframe"};

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
            TakeEntity(c, out);
            break;
        case State::kHidden:
            // Up to its end tag.
            word_ += FoldCase(c);
            if (word_.size() > kLongestWord) word_.erase(0, word_.size() - kLongestWord / 2);
            if (word_.ends_with("</" + element_)) BeginTag("/");
            break;
        case State::kRaw:
            TakeRaw(c, out);
            break;
        case State::kComment:
            word_ += c;
            if (word_.size() > 4) word_.erase(0, word_.size() - 4);
            if (word_.ends_with("-->") || word_ == "--!>") state_ = State::kText;
            break;
        default:
            TakeTag(c, out);
    }
}

void VisibleText::TakeEntity(char c, std::string& out) {
    const bool number = word_.starts_with('#');
    const bool hex = word_.starts_with("#x") || word_.starts_with("#X");
    const bool goesOn = !number ? IsLetter(c) || IsDigit(c) || (c == '#' && word_.empty())
                        : hex   ? HexDigit(c) >= 0
                                : IsDigit(c) || (word_.size() == 1 && FoldCase(c) == 'x');
    if (goesOn) {
        // Zeros in front change nothing, however many there are.
        if (number && c == '0' && word_.size() == (hex ? 2U : 1U)) {
            zeros_ = true;
            return;
        }
        word_ += c;
        if (word_.size() > kLongestWord) EndEntity(out);
        return;
    }
    const bool known = EndEntity(out);
    if (c != ';' || !known) Take(c, out);
}

// What may be its end tag is held back.
void VisibleText::TakeRaw(char c, std::string& out) {
    const std::string end = "</" + element_;
    word_ += c;
    const std::string small = LowerCase(word_);
    if (small == end) {
        BeginTag("/" + element_);
    } else if (!end.starts_with(small)) {
        std::string text;
        text.swap(word_);
        for (const char each : text.substr(0, text.size() - 1)) PutText(each, out);
        if (c == '<') {
            word_ = c;
        } else {
            PutText(c, out);
        }
    }
}

void VisibleText::BeginTag(std::string name) {
    state_ = State::kTag;
    word_ = std::move(name);
    nameEnded_ = attribute_ = valueBegins_ = inValue_ = closed_ = false;
}

void VisibleText::TakeTag(char c, std::string& out) {
    switch (state_) {
        case State::kTagOpen:
            if (c == '!') {
                state_ = State::kMarkup;
            } else if (IsLetter(c) || (c == '/' && word_.empty())) {
                // Behind "</" a letter makes a tag, anything else a comment.
                if (c == '/') {
                    word_ = c;
                } else {
                    BeginTag(word_ + FoldCase(c));
                }
            } else if (word_ == "/" || c == '?') {
                state_ = c == '>' ? State::kText : State::kBogus;
                word_.clear();
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
        case State::kBogus:
            if (c == '>') state_ = State::kText;
            break;
        case State::kQuoted:
            if (c == quote_) state_ = State::kTag;
            break;
        default:
            TakeInTag(c);
    }
}

// Quotes count behind an attribute's '=' alone.
void VisibleText::TakeInTag(char c) {
    if (c == '>') return EndTag();
    if (valueBegins_ && IsSpace(c)) return;
    if (valueBegins_ && (c == '"' || c == '\'')) {
        state_ = State::kQuoted;
        quote_ = c;
        valueBegins_ = false;
        return;
    }
    inValue_ = (inValue_ || valueBegins_) && !IsSpace(c);
    if (nameEnded_ && c == '=' && !inValue_ && attribute_) {
        valueBegins_ = true;
        attribute_ = false;
        return;
    }
    valueBegins_ = false;
    if (inValue_) return;
    closed_ = c == '/';
    if (IsSpace(c) || c == '/') {
        nameEnded_ = true;
        attribute_ = attribute_ && c != '/';
    } else if (nameEnded_) {
        attribute_ = true;
    } else if (word_.size() < kLongestWord) {
        word_ += FoldCase(c);
    }
}

void VisibleText::EndTag() {
    state_ = State::kText;
    const bool end = word_.starts_with('/');
    const std::string name = word_.substr(end ? 1 : 0);
    word_.clear();
    if (Among(kBlocks, name)) Separate();
    // Closed by itself it hides nothing to some.
    if (end || closed_) return;
    if (Among(kHiding, name)) state_ = State::kHidden;
    if (Among(kRawText, name)) state_ = State::kRaw;
    element_ = name;
}

void VisibleText::EndNumber(std::string_view word, std::string& out) {
    const bool hex = word.size() > 1 && FoldCase(word[1]) == 'x';
    std::uint32_t character = 0;
    for (std::size_t i = hex ? 2 : 1; i < word.size(); ++i)
        character = std::min<std::uint32_t>(
            character * (hex ? 16 : 10) + static_cast<std::uint32_t>(HexDigit(word[i])), 0x110000);
    // What browsers take these for.
    if (character == 0x96 || character == 0x97) character = 0x2013;
    Put(Utf8(character), out);
}

bool VisibleText::EndEntity(std::string& out) {
    state_ = State::kText;
    std::string word;
    word.swap(word_);
    const bool zeros = std::exchange(zeros_, false);
    if (word.starts_with('#') && (zeros || HexDigit(word.back()) >= 0)) {
        EndNumber(word, out);
        return true;
    }
    if (const std::uint32_t character = CharacterOf(word)) {
        Put(Utf8(character), out);
        return true;
    }
    const std::string_view open = OpenNameIn(word);
    if (open.empty()) {
        PutText('&', out);
    } else {
        Put(Utf8(CharacterOf(open)), out);
    }
    for (const char c : word.substr(open.size())) PutText(c, out);
    return false;
}

}  // namespace maild

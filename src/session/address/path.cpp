#include "session/address/path.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <unordered_set>
#include <utility>

#include "session/address/normalize.h"
#include "text/ascii.h"
#include "text/trim.h"

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kBlanks = kAllBlanks;
// Where a mailbox or a domain that stands among other text must end.
constexpr std::string_view kBounds = "@:,;<>()[]";
// In place of a byte that quotes or a backslash have robbed of its meaning.
constexpr char kQuoted = '"';

bool IsIn(char c, std::string_view set) { return set.find(c) != kNone; }

// A byte that needs no quotes in a local part.
bool IsPlain(char c) { return !IsControl(c) && !IsIn(c, " \"\\@:,;<>()[]"); }

std::string_view Trim(std::string_view text) { return Trimmed(text, kBlanks); }

// Behind the quoted string, the comment, the escaped byte or the plain byte that begins at `at`.
// One that isn't closed goes to the end.
std::size_t BehindUnit(std::string_view text, std::size_t at) {
    const char first = text[at];
    if (first == '\\') return std::min(at + 2, text.size());
    if (first != '"' && first != '(') return at + 1;
    int depth = 0;
    for (std::size_t i = at; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\') {
            ++i;
        } else if (first == '"') {
            if (c == '"' && i > at) return i + 1;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')' && --depth == 0) {
            return i + 1;
        }
    }
    return text.size();
}

// The first byte of the set, outside of quotes and comments.
std::size_t FindOutside(std::string_view text, std::string_view set, std::size_t at) {
    for (; at < text.size(); at = BehindUnit(text, at)) {
        if (IsIn(text[at], set)) return at;
    }
    return kNone;
}

struct Place {
    std::string_view path;  // without brackets
    bool bracketed = false;
    std::string_view behind;
};

// The path in brackets that opens at `open`.
Place InBrackets(std::string_view text, std::size_t open) {
    std::size_t close = FindOutside(text, ">", open + 1);
    if (close == kNone) close = text.find('>', open);
    if (close == kNone) close = std::min(text.find_first_of(kBlanks, open), text.size());
    const std::size_t behind = std::min(close + 1, text.size());
    return {text.substr(open + 1, close - open - 1), true, text.substr(behind)};
}

// What the brackets that open at `open` hold for a server that counts those within them.
std::string_view InNestedBrackets(std::string_view text, std::size_t open) {
    int depth = 0;
    std::size_t at = open;
    for (; at < text.size(); at = BehindUnit(text, at)) {
        if (text[at] == '<') ++depth;
        if (text[at] == '>' && --depth == 0) break;
    }
    return text.substr(open + 1, at - open - 1);
}

// Where a server that knows the grammar finds the path. A '<' behind the first word opens it only
// if it isn't the value of a parameter.
Place FindPath(std::string_view text) {
    const std::size_t wordEnd = std::min(FindOutside(text, kBlanks, 0), text.size());
    const std::size_t open = FindOutside(text, "<", 0);
    if (open != kNone) {
        const std::size_t word = text.find_last_of(kBlanks, open) + 1;  // kNone + 1 is 0
        const bool parameter = open > wordEnd && IsIn('=', text.substr(word, open - word));
        if (!parameter) return InBrackets(text, open);
    }
    return {text.substr(0, wordEnd), false, text.substr(wordEnd)};
}

// Where the first word ends for a server that takes brackets, others within them, and all of their
// blanks for parts of it.
std::size_t BracketedWordEnd(std::string_view text) {
    int depth = 0;
    for (std::size_t at = 0; at < text.size(); at = BehindUnit(text, at)) {
        if (text[at] == '<') ++depth;
        if (text[at] == '>' && depth > 0) --depth;
        if (depth == 0 && IsIn(text[at], kBlanks)) return at;
    }
    return text.size();
}

std::string WithoutComments(std::string_view text) {
    std::string rest;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end) {
        end = BehindUnit(text, at);
        if (text[at] != '(') rest.append(text.substr(at, end - at));
    }
    return rest;
}

// What is left of a path when comments, blanks and quotes are gone. Both texts have one length;
// marks holds kQuoted where the byte is without special meaning.
struct Bare {
    std::string bytes;
    std::string marks;

    void Add(char c, char mark) {
        bytes.push_back(c);
        marks.push_back(mark);
    }
    void Cut(std::size_t at, std::size_t length) {
        bytes.erase(at, length);
        marks.erase(at, length);
    }
};

void AddQuoted(std::string_view unit, Bare& out) {
    for (std::size_t i = 0; i < unit.size(); ++i) {
        if (unit[i] == '\\' && i + 1 < unit.size()) ++i;
        out.Add(unit[i], kQuoted);
    }
}

Bare Strip(std::string_view path) {
    Bare bare;
    for (std::size_t at = 0, end = 0; at < path.size(); at = end) {
        end = BehindUnit(path, at);
        const char c = path[at];
        if (c == '(' || IsIn(c, kBlanks)) continue;
        if (c == '"') {
            const bool closed = end - at > 1 && path[end - 1] == '"';
            AddQuoted(path.substr(at + 1, end - at - (closed ? 2 : 1)), bare);
        } else if (c == '\\') {
            AddQuoted(path.substr(at + 1, end - at - 1), bare);
        } else {
            bare.Add(c, c);
        }
    }
    while (!bare.marks.empty() && bare.marks.front() == '<') bare.Cut(0, 1);
    while (!bare.marks.empty() && bare.marks.back() == '>') bare.Cut(bare.marks.size() - 1, 1);
    const std::size_t at = bare.marks.rfind('@');
    if (at == kNone) return bare;
    const std::size_t colon = bare.marks.rfind(':', at);
    const bool dot = bare.marks.back() == '.' && bare.marks.size() > at + 2;
    if (dot) bare.Cut(bare.marks.size() - 1, 1);
    if (colon != kNone) bare.Cut(0, colon + 1);  // the route
    return bare;
}

// The local part with quotes around it if something in it needs them.
std::string Quoted(std::string_view bytes, std::string_view marks) {
    bool needed = false;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        needed = needed || (marks[i] == kQuoted && !IsPlain(bytes[i]));
    if (!needed) return std::string(bytes);
    std::string out = "\"";
    for (const char c : bytes) {
        if (c == '"' || c == '\\') out.push_back('\\');
        out.push_back(c);
    }
    return out + "\"";
}

// The mailbox that a server makes of it. Without a domain: what a bang, a percent sign or quotes
// around a whole address name, else the bare name.
std::string Mailbox(const Bare& bare) {
    const std::string& bytes = bare.bytes;
    const std::string_view marks = bare.marks;
    if (const std::size_t at = marks.rfind('@'); at != kNone)
        return Quoted(std::string_view(bytes).substr(0, at), marks.substr(0, at)) +
               bytes.substr(at);
    if (const std::size_t bang = marks.find('!'); bang != kNone)
        return bytes.substr(bang + 1) + "@" + bytes.substr(0, bang);
    if (const std::size_t percent = marks.rfind('%'); percent != kNone)
        return bytes.substr(0, percent) + "@" + bytes.substr(percent + 1);
    return bytes.find('@') != kNone ? bytes : Quoted(bytes, marks);
}

// What the tolerant cutter makes of the path alone: empty if it finds none.
std::string Cut(std::string_view path, bool bracketed, std::string_view lineEnd) {
    std::string source;
    if (bracketed) source = "<";
    source.append(path).append(bracketed ? ">" : "").append(lineEnd);
    std::string target(source.size() + 1, '\0');
    NormalizeAddress(source.c_str(), target.data(), static_cast<int>(source.size()));
    return target.c_str();
}

class Readings {
  public:
    // The first one stays so, also if it is empty.
    explicit Readings(const std::string& first) : all_{first}, known_{first} {}
    void Add(std::string_view reading) {
        if (!reading.empty() && known_.emplace(reading).second) all_.emplace_back(reading);
    }

    // Both readings of each separator: a mailbox in front of '@' and '%', behind '!'. The mailbox
    // may be empty, as two quotes are; but then an '@' of a route is none.
    void AddEach(std::string_view text) {
        for (std::size_t at = 0; at < text.size(); ++at) {
            if (!IsIn(text[at], "@%!")) continue;
            const bool bang = text[at] == '!';
            const std::string_view left = LeftOf(text, at, text[at] != '@');
            std::string_view right = RightOf(text, at);
            std::string_view host = bang ? left : right;
            const bool hop = text[at] == '@' && left.empty() && text.find(':', at) != kNone;
            if (host.empty() || hop) continue;
            if (host.size() > 1 && host.back() == '.') host.remove_suffix(1);
            Add(std::string(bang ? right : left).append("@").append(host));
        }
    }

    // Servers read a path from one of its ends, so of too many the ones in the middle go.
    std::vector<std::string> Take() {
        if (all_.size() > kMaxReadings)
            all_.erase(all_.begin() + kMaxReadings / 2, all_.end() - kMaxReadings / 2);
        return std::move(all_);
    }

  private:
    static bool IsBound(char c, bool hack) {
        return IsIn(c, kBounds) || (hack && (c == '%' || c == '!'));
    }
    // A host in front of a bang or a mailbox in front of a percent sign ends at the next of these;
    // in front of an '@' they belong to the mailbox.
    static std::string_view LeftOf(std::string_view text, std::size_t at, bool hack) {
        std::size_t first = at;
        while (first > 0 && !IsBound(text[first - 1], hack)) --first;
        return Trim(text.substr(first, at - first));
    }
    static std::string_view RightOf(std::string_view text, std::size_t at) {
        std::size_t end = at + 1;
        while (end < text.size() && !IsBound(text[end], true)) ++end;
        return Trim(text.substr(at + 1, end - at - 1));
    }

    std::vector<std::string> all_;           // in their order
    std::unordered_set<std::string> known_;  // the same: a path may have hundreds
};

void AddPath(std::string_view path, Readings& readings) {
    const Bare bare = Strip(path);
    const std::string mailbox = Mailbox(bare);
    readings.Add(mailbox);
    readings.AddEach(bare.bytes);
    std::string raw;  // for those who know no comments, and drop quotes and what isn't printable
    std::copy_if(path.begin(), path.end(), std::back_inserter(raw),
                 [](char c) { return !IsControl(c) && !IsIn(c, "\"\\"); });
    readings.AddEach(raw);
}

// The first word with those behind it that are no parameters: an address with blanks in it.
void AddWords(std::string_view text, Readings& readings) {
    std::string word(TakeWord(text));
    for (std::string_view rest = text, next = TakeWord(rest); !next.empty();
         next = TakeWord(rest)) {
        const bool open = !word.empty() && IsIn(word.back(), "@%!.");
        if (IsIn('=', next) || (!open && next.find_first_of("@%!.") == kNone)) break;
        word.append(next);
    }
    AddPath(word, readings);
}

// The other places in which a server may look.
void AddOtherPlaces(std::string_view text, const Place& place, Readings& readings) {
    if (const std::size_t open = text.find('<'); open != kNone) {
        const std::size_t close = std::min(text.find('>', open), text.size());
        AddPath(text.substr(open + 1, close - open - 1), readings);
    }
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    if (word.find_first_of("@%!") != kNone) AddPath(word, readings);
    // The same for those who know quotes and comments, and take no '<' within a word for a bracket.
    const std::string_view unbroken = text.substr(0, FindOutside(text, kBlanks, 0));
    if (unbroken.find_first_of("@%!") != kNone) AddPath(unbroken, readings);
    if (place.bracketed) {
        // What is glued to brackets is another address to some, also where a blank is in those.
        const std::string_view glued = text.substr(0, BracketedWordEnd(text));
        if (glued.size() > unbroken.size()) AddPath(glued, readings);
        AddPath(InNestedBrackets(text, FindOutside(text, "<", 0)), readings);
        return;
    }
    AddWords(text, readings);
    if (text.find('(') != kNone) AddWords(WithoutComments(text), readings);
}

// Letters, digits and what is as harmless: nobody reads these in two ways.
bool IsTame(char c) { return IsLetter(c) || IsDigit(c) || c == '.' || c == '-' || c == '_'; }

// The mailbox of a path that has only one reading: tame words around an '@' in brackets, with
// nothing behind but parameters, which no reader of the first bracket takes for a part of it. Else
// empty. Nearly all that comes is so, and costs nothing of what the others need.
std::string_view OnlyReading(std::string_view text) {
    if (!text.starts_with('<')) return {};
    std::size_t at = 1;
    while (at < text.size() && IsTame(text[at])) ++at;
    if (at == 1 || at >= text.size() || text[at] != '@') return {};
    const std::size_t domain = ++at;
    while (at < text.size() && IsTame(text[at])) ++at;
    if (at == domain || at >= text.size() || text[at] != '>' || text[at - 1] == '.') return {};
    if (at + 1 < text.size() && text[at + 1] != ' ') return {};
    return text.substr(1, at - 1);
}

}  // namespace

MailPath ReadPath(std::string_view text) {
    const std::size_t lineEnd = text.find_last_not_of("\r\n") + 1;
    const std::string_view end = text.substr(lineEnd);
    text = text.substr(0, lineEnd);
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));

    MailPath result;
    if (const std::string_view only = OnlyReading(text); !only.empty()) {
        result.address = only;
        result.readings.emplace_back(only);
        result.parameters = Trim(text.substr(only.size() + 2));
        return result;
    }
    const Place place = FindPath(text);
    result.parameters = Trim(place.behind);
    const std::string mailbox = Mailbox(Strip(place.path));
    const bool named = mailbox.find('@') == kNone;
    result.address = named ? Cut(mailbox, place.bracketed, end) : mailbox;

    Readings readings(result.address);
    AddPath(place.path, readings);
    readings.Add(Cut(place.path, place.bracketed, end));
    AddOtherPlaces(text, place, readings);
    result.readings = readings.Take();
    return result;
}

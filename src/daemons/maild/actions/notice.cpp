#include "daemons/maild/actions/notice.h"

#include <unistd.h>

#include <algorithm>

#include "daemons/maild/coding/lines.h"
#include "text/ascii.h"
#include "text/printable.h"

namespace maild {

namespace {

// Of a name, or of a reason, in the text.
constexpr std::size_t kMostShown = 200;
constexpr std::size_t kLongestLine = 76;
constexpr char kHex[] = "0123456789ABCDEF";

std::string Clean(const std::string& text) { return CleanText(text, kMostShown); }

// As quoted-printable has it: lines of printable ASCII, and never a dot or "From " at a line's
// start, which some relays would touch.
std::string QuotedPrintable(std::string_view text) {
    std::string out;
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            out += "\r\n";
            width = 0;
            continue;
        }
        const bool blankAtEnd = c == ' ' && (i + 1 == text.size() || text[i + 1] == '\n');
        const bool touched = width == 0 && (c == '.' || text.substr(i).starts_with("From "));
        const bool plain = c >= ' ' && c <= '~' && c != '=' && !blankAtEnd && !touched;
        const auto byte = static_cast<unsigned char>(c);
        const std::string piece =
            plain ? std::string(1, c) : std::string("=") + kHex[byte >> 4U] + kHex[byte & 0xFU];
        if (width + piece.size() > kLongestLine - 1) {
            out += "=\r\n";
            width = 0;
        }
        out += piece;
        width += piece.size();
    }
    return out;
}

std::string TextOf(const Removal& removal, const std::string& id) {
    const PlacedPart& part = *removal.part;
    std::string text =
        "A part of this message was removed by the mail security of its receiver.\n\n";
    text += "Removed: " + (part.name.empty() ? "a part without a name" : Clean(part.name)) + " (" +
            Clean(part.type) + ")\n";
    for (const Finding* each : removal.why)
        text += "Reason: " + Clean(each->reason) + " (" + Word(each->section) + ", " +
                Clean(each->rule) + ")\n";
    text +=
        "\nThe message as it came is in the quarantine. To get it, give your administrator\n"
        "this number: " +
        id + "\n";
    return text;
}

constexpr char kHeaders[] =
    "Content-Type: text/plain; charset=utf-8\r\n"
    "Content-Transfer-Encoding: quoted-printable\r\n"
    "Content-Disposition: inline\r\n";

// Whether a line end, or nothing, stands at this place of the file.
bool LineEndsAt(int file, long long at, long long size) {
    if (at >= size) return false;
    char found[2] = {};
    const ssize_t count = pread(file, found, sizeof found, at);
    return count > 0 && (found[0] == '\n' || (count > 1 && found[0] == '\r' && found[1] == '\n'));
}

// The headers of a message that stay where they are, and those that go.
class HeadersOfMessage {
  public:
    HeadersOfMessage(int file, Dots dots, const PlacedPart& part) : place_(part.whole.begin) {
        LineReader reader(file, dots, {part.whole.begin, part.body.begin});
        for (Line line; reader.Next(line);) Take(line);
        failed_ = reader.Failed();
    }
    bool Failed() const { return failed_; }
    // Adds the edits; `own` are headers that come first.
    void Edit(const std::string& own, Edits& edits) const {
        for (const Range& each : gone_) edits.Add({each, ""});
        edits.Add({{place_, place_}, (versioned_ ? "" : "MIME-Version: 1.0\r\n") + own});
    }
    // What is missing in front of a body.
    std::string Separator() const { return over_ ? "" : ended_ ? "\r\n" : "\r\n\r\n"; }

  private:
    void Take(const Line& line) {
        const std::string_view content = line.Content();
        if (line.begins) {
            over_ = content.empty();
            const bool goesOn = !content.empty() && (content[0] == ' ' || content[0] == '\t');
            if (!goesOn) going_ = IsOfBody(content);
            // What a mailbox puts in front stays there.
            if (first_ && (content.starts_with("From ") || content.starts_with(">From ")))
                place_ = line.range.end;
            first_ = false;
        }
        ended_ = line.ends;
        if (going_) gone_.push_back(line.range);
    }
    bool IsOfBody(std::string_view content) {
        const std::size_t colon = content.find(':');
        if (colon == std::string_view::npos) return false;
        std::string name = LowerCase(content.substr(0, colon));
        while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
        versioned_ = versioned_ || name == "mime-version";
        return name.starts_with("content-");
    }

    long long place_;
    std::vector<Range> gone_;
    bool going_ = false;
    bool first_ = true;
    bool over_ = false;
    bool ended_ = true;
    bool versioned_ = false;
    bool failed_ = false;
};

}  // namespace

bool AddRemoval(const Removal& removal, const std::string& id, int file, long long size, Dots dots,
                Edits& edits) {
    const PlacedPart& part = *removal.part;
    std::string text = QuotedPrintable(TextOf(removal, id));
    // The line end in front of a boundary is the boundary's.
    if (LineEndsAt(file, part.whole.end, size)) text.erase(text.size() - 2);
    if (!part.ofMessage) {
        edits.Add({part.whole, Stuffed(std::string(kHeaders) + "\r\n" + text, dots)});
        return true;
    }
    const HeadersOfMessage headers(file, dots, part);
    headers.Edit(kHeaders, edits);
    edits.Add({part.body, headers.Separator() + Stuffed(text, dots)});
    return !headers.Failed();
}

}  // namespace maild

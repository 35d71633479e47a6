#include "daemons/maild/actions/tags.h"

#include <algorithm>

#include "daemons/maild/coding/lines.h"
#include "text/ascii.h"
#include "text/base64.h"
#include "text/printable.h"

namespace maild {

namespace {

constexpr std::size_t kMostValue = 200;
constexpr std::size_t kMostOfFilter =
    900;  // of a value that a spam filter wants: a line has less than 998
constexpr std::size_t kMostPrefix = 60;
constexpr std::size_t kWordBytes = 42;  // of one coded word, which may have 75 characters

bool IsName(std::string_view text) {
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return IsLetter(c) || IsDigit(c) || c == '-' || c == '_';
    });
}

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    return text;
}

// As it may stand in a header: coded words where it isn't ASCII.
std::string Coded(std::string_view text) {
    if (IsAscii(text)) return std::string(text);
    std::string coded;
    while (!text.empty()) {
        const std::string word = CleanText(text, kWordBytes);
        const std::size_t length = std::min(std::max<std::size_t>(word.size(), 1), text.size());
        coded += (coded.empty() ? "=?utf-8?B?" : "\r\n =?utf-8?B?") +
                 Base64Encode(text.substr(0, length)) + "?=";
        text.remove_prefix(length);
    }
    return coded;
}

void AddOnce(std::vector<std::string>& list, std::string text) {
    if (std::find(list.begin(), list.end(), text) == list.end()) list.push_back(std::move(text));
}

void AddPrefix(Tag& tag, const std::string& text) {
    if (text.empty() || tag.prefix.find(text) != std::string::npos) return;
    tag.prefix += (tag.prefix.empty() ? "" : " ") + text;
}

void TakeTarget(std::string_view target, Tag& tag) {
    while (!target.empty()) {
        const std::size_t end = std::min(target.find('\n'), target.size());
        const std::string_view line = Trim(target.substr(0, end));
        target.remove_prefix(std::min(end + 1, target.size()));
        const std::size_t colon = line.find(':');
        const std::string_view name = line.substr(0, std::min(colon, line.size()));
        if (colon == std::string_view::npos || !IsName(name)) {
            AddPrefix(tag, CleanText(line, kMostPrefix));
            continue;
        }
        const std::string value = CleanText(Trim(line.substr(colon + 1)), kMostValue);
        if (EqualIgnoringCase(name, "Subject")) {
            AddPrefix(tag, value.substr(0, kMostPrefix));
        } else {
            AddOnce(tag.headers, std::string(name) + ": " + Coded(value));
        }
    }
}

// The places behind `Subject:` and its blanks, in the message's own headers.
struct Subjects {
    std::vector<long long> places;
    long long top = 0;  // where headers may be put in front: what a mailbox has there stays first
    bool prefixed = false;  // they have it already
    bool failed = false;
};
Subjects FindSubjects(const PlacedPart& message, const std::string& prefix, int file, Dots dots) {
    Subjects found;
    LineReader reader(file, dots, {message.whole.begin, message.body.begin});
    bool first = true;
    for (Line line; reader.Next(line);) {
        const std::string_view content = line.Content();
        if (first && line.ends && (content.starts_with("From ") || content.starts_with(">From ")))
            found.top = line.range.end;
        first = false;
        const std::size_t colon = content.find(':');
        if (!line.begins || colon == std::string_view::npos ||
            !EqualIgnoringCase(Trim(content.substr(0, colon)), "Subject") || content[0] == ' ' ||
            content[0] == '\t')
            continue;
        const std::string_view value = content.substr(colon + 1);
        const std::size_t blanks = std::min(value.find_first_not_of(" \t"), value.size());
        if (value.substr(blanks).starts_with(prefix)) {
            found.prefixed = true;
            continue;
        }
        const long long unstuffed =
            line.range.end - line.range.begin - static_cast<long long>(line.text.size());
        found.places.push_back(line.range.begin + unstuffed +
                               static_cast<long long>(colon + 1 + blanks));
    }
    found.failed = reader.Failed();
    return found;
}

}  // namespace

Tag TagOf(std::span<const Finding> findings) {
    Tag tag;
    for (const Finding& each : findings) {
        if (each.action != Action::kTag) continue;
        AddOnce(tag.headers,
                "X-Vantrel-Finding: " + Coded(CleanText(std::string(Word(each.section)) + "; " +
                                                            each.rule + "; " + each.reason,
                                                        kMostValue)));
        TakeTarget(each.target, tag);
        for (const auto& [name, value] : each.headers) {
            if (IsName(name))
                AddOnce(tag.headers, name + ": " + Coded(CleanText(value, kMostOfFilter)));
        }
        AddPrefix(tag, CleanText(each.subjectPrefix, kMostPrefix));
    }
    return tag;
}

bool AddTag(const Tag& tag, const PlacedPart* message, int file, Dots dots, Edits& edits) {
    std::string top;
    for (const std::string& header : tag.headers) top += header + "\r\n";
    Subjects found;
    const std::string prefix = Coded(tag.prefix);
    if (message != nullptr) found = FindSubjects(*message, prefix, file, dots);
    if (!tag.prefix.empty()) {
        for (const long long place : found.places) edits.Add({{place, place}, prefix + " "});
        if (found.places.empty() && !found.prefixed) top += "Subject: " + prefix + "\r\n";
    }
    if (!top.empty()) edits.Add({{found.top, found.top}, top});
    return !found.failed;
}

}  // namespace maild

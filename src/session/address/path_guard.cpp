// The relay guard: the grammar of paths that every server reads alike.
//
//   text    = blanks [name] "<" path ">" [blank anything without "<" and ">"]
//             / blanks path *(blanks parameter)
//   path    = [route] local "@" ours / bare name / nothing
//   route   = "@" ours *("," "@" ours) ":"
//   local   = 1*word / DQUOTE 1*word DQUOTE
//
// A local part holds no byte that gives it a second meaning anywhere, not even within quotes, since
// some servers take quotes away before they look.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "session/address/normalize.h"
#include "session/address/path.h"
#include "text/ascii.h"

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kBlanks = " \t";

bool IsIn(char c, std::string_view set) { return set.find(c) != kNone; }

// Characters that a server which normalises such texts may turn into ASCII with a meaning
// ("fullwidth" forms and their like), or that can't be seen.
struct Range {
    std::uint32_t first;
    std::uint32_t last;
};
constexpr std::array<Range, 9> kTreacherous = {{{0x80, 0xA0},
                                                {0x2000, 0x206F},
                                                {0x2A74, 0x2A76},
                                                {0x3000, 0x3000},
                                                {0xD800, 0xDFFF},
                                                {0xFDD0, 0xFDEF},
                                                {0xFE00, 0xFE6F},
                                                {0xFEFF, 0xFFFF},
                                                {0xE0000, 0x1FFFFF}}};

// The length of the UTF-8 character at the start of the text; 0 if it is none, or not harmless.
std::size_t HarmlessCharacter(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::size_t length = byte(0) < 0xC2   ? 0
                               : byte(0) < 0xE0 ? 2
                               : byte(0) < 0xF0 ? 3
                               : byte(0) < 0xF5 ? 4
                                                : 0;
    if (length == 0 || length > text.size()) return 0;
    std::uint32_t code = byte(0) & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) return 0;
        code = (code << 6U) | (byte(i) & 0x3FU);
    }
    if ((length == 3 && code < 0x800) || (length == 4 && code < 0x10000)) return 0;
    const auto holds = [code](Range range) { return code >= range.first && code <= range.last; };
    return std::any_of(kTreacherous.begin(), kTreacherous.end(), holds) ? 0 : length;
}

bool IsLocalPart(std::string_view local) {
    if (local.size() > 2 && local.front() == '"' && local.back() == '"')
        local = local.substr(1, local.size() - 2);
    if (local.empty()) return false;
    for (std::size_t at = 0; at < local.size();) {
        if (IsLetter(local[at]) || IsDigit(local[at]) || IsIn(local[at], ".-_+=#$&'*/?^`{|}~")) {
            ++at;
        } else if (const std::size_t length = HarmlessCharacter(local.substr(at)); length > 0) {
            at += length;
        } else {
            return false;
        }
    }
    return true;
}

// A name that the server completes with a domain of its own. Less may stand in it than in a local
// part: no domain of ours holds it.
bool IsBareName(std::string_view name) {
    return std::all_of(name.begin(), name.end(),
                       [](char c) { return IsLetter(c) || IsDigit(c) || IsIn(c, ".-_+"); });
}

bool IsMailDomain(std::string_view domain, const std::vector<std::string>& mailDomains) {
    return std::any_of(mailDomains.begin(), mailDomains.end(), [domain](const std::string& ours) {
        return !ours.empty() && EqualIgnoringCase(ours, domain);
    });
}

// "@ours,@ours": every hop, whole.
bool RouteStays(std::string_view route, const std::vector<std::string>& mailDomains) {
    for (;;) {
        const std::size_t end = std::min(route.find(','), route.size());
        if (end == 0 || route.front() != '@') return false;
        if (!IsMailDomain(route.substr(1, end - 1), mailDomains)) return false;
        if (end == route.size()) return true;
        route.remove_prefix(end + 1);
    }
}

bool PathStays(std::string_view path, const std::vector<std::string>& mailDomains) {
    const bool routed = !path.empty() && path.front() == '@';
    if (routed) {
        const std::size_t colon = path.find(':');
        if (colon == kNone || !RouteStays(path.substr(0, colon), mailDomains)) return false;
        path.remove_prefix(colon + 1);
    }
    const std::size_t at = path.rfind('@');
    if (at == kNone) return !routed && IsBareName(path);
    return IsLocalPart(path.substr(0, at)) && IsMailDomain(path.substr(at + 1), mailDomains);
}

// In front of the '<': nothing that could be taken for an address itself.
bool IsDisplayName(std::string_view name) {
    return std::all_of(name.begin(), name.end(),
                       [](char c) { return IsLetter(c) || IsDigit(c) || IsIn(c, " \t.-_'"); });
}

// Behind a path without brackets: KEYWORD or KEYWORD=value. A server that looks for more of the
// address, or for a '<', finds none.
bool AreParameters(std::string_view text) {
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
        if (text.empty()) return true;
        const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
        const std::string_view word = text.substr(0, end);
        const std::string_view keyword = word.substr(0, word.find('='));
        const bool sound =
            !keyword.empty() &&
            std::all_of(keyword.begin(), keyword.end(),
                        [](char c) { return IsLetter(c) || IsDigit(c) || c == '-'; }) &&
            std::none_of(word.begin(), word.end(), [](char c) {
                return static_cast<unsigned char>(c) < ' ' || IsIn(c, "<>()\"\\\x7F");
            });
        if (!sound) return false;
        text.remove_prefix(end);
    }
}

std::string_view WithoutLineEnd(std::string_view text) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    return text;
}

}  // namespace

bool StaysInside(std::string_view text, const std::vector<std::string>& mailDomains) {
    text = WithoutLineEnd(text);
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    const std::size_t open = text.find('<');
    if (open == kNone) {
        const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
        return PathStays(text.substr(0, end), mailDomains) && AreParameters(text.substr(end));
    }
    const std::size_t close = text.find('>', open);
    if (close == kNone || !IsDisplayName(text.substr(0, open))) return false;
    const bool glued = close + 1 < text.size() && !IsIn(text[close + 1], kBlanks);
    // A server may take the path to go to the last '>', or the last '<' to open it.
    if (text.find_first_of("<>", close + 1) != kNone) return false;
    return !glued && PathStays(text.substr(open + 1, close - open - 1), mailDomains);
}

bool UnreadStaysInside(std::string_view command, const std::vector<std::string>& mailDomains) {
    constexpr std::string_view space = " \t\v\f";
    const auto skip = [](std::string_view text, std::string_view set) {
        return text.substr(std::min(text.find_first_not_of(set), text.size()));
    };
    command = skip(WithoutLineEnd(command), space);
    command.remove_prefix(std::min(command.find_first_of(space), command.size()));  // the verb
    command = skip(command, space);
    if (command.find_first_of("@%!") == kNone) return true;
    // A keyword of any kind may stand in front, with or without its ':'.
    std::string_view path = command;
    while (!path.empty() && (IsLetter(path.front()) || IsDigit(path.front())))
        path.remove_prefix(1);
    const bool parted = !path.empty() && IsIn(path.front(), space);
    path = skip(path, space);
    if (!path.empty() && path.front() == ':') {
        path.remove_prefix(1);
    } else if (!parted) {
        path = command;
    }
    const std::size_t behind = std::min(path.find('>'), path.size());
    return StaysInside(path, mailDomains) && path.find_first_of("<:@%!", behind) == kNone;
}

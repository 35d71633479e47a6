#include "session/address/normalize.h"

#include <algorithm>
#include <cstring>

#include "text/ascii.h"

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsOneOf(char c, const char* set) { return c != '\0' && std::strchr(set, c) != nullptr; }

}  // namespace

void NormalizeCommand(char* text) {
    if (text == nullptr || *text == '\0') return;
    const char* from = text;
    while (IsBlank(*from)) ++from;
    std::memmove(text, from, std::strlen(from) + 1);
    if (std::strlen(text) < 2) return;
    char* to = text;
    for (from = text; *from != '\0' && *from != ':'; ++from) {
        const char c = *from == '\t' ? ' ' : *from;
        if (c == ' ' && to > text && to[-1] == ' ') continue;
        *to++ = c;
    }
    std::memmove(to, from, std::strlen(from) + 1);
}

void StripBlanks(char* text) {
    if (text == nullptr) return;
    const std::size_t length = std::strlen(text);
    if (length < 2) return;
    char* end = std::remove_if(text, text + length - 1, IsBlank);
    *end++ = text[length - 1];
    *end = '\0';
}

int NormalizeAddress(const char* source, char* target, int size) {
    if (source == nullptr) return -1;
    const char* const begin = source;
    const char* const last = source + std::strlen(source);  // the terminating zero
    const char* start = begin;
    const char* end = last;
    if (const char* open = std::strchr(begin, '<')) {
        start = open;
        if (const char* close = std::strchr(open, '>')) end = close;
    }
    if (const char* first = std::strchr(start, '@')) {
        if (const char* blank = std::strchr(first, ' ')) end = blank;
    }
    const char* at = end;
    while (at > start && *at != '@') --at;
    const auto room = static_cast<std::size_t>(size);
    if (*at == '@') {
        const char* from = at;
        while (from > begin && !IsOneOf(from[-1], "\" <([:")) --from;
        const char* to = at;
        while (to + 1 < last && !IsOneOf(to[1], " >)]\r\n")) ++to;
        const auto length = static_cast<std::size_t>(to - from) + 1;
        if (length < 4) return -1;
        std::memcpy(target, from, std::min(length, room));
        target[std::min(length, room)] = '\0';
        return 0;
    }
    const char* from = begin;
    while (IsOneOf(*from, " <:")) ++from;
    const char* to = last;
    if (to > begin) --to;
    while (to > begin && IsOneOf(*to, "\r\n ")) --to;
    std::memset(target, 0, room);
    std::size_t length = 0;
    if (to - from < 1) {
        from = begin;
        length = static_cast<std::size_t>(last - begin);
    } else {
        length = static_cast<std::size_t>(to - from) + 1;
    }
    std::memcpy(target, from, std::min(length, room));
    target[std::min(length, room)] = '\0';
    return 0;
}

namespace {

int IsLocalAddress(const std::string& text, const std::vector<std::string>& mailDomains) {
    std::string address(text.size() + 1, '\0');
    NormalizeAddress(text.c_str(), address.data(), static_cast<int>(text.size()));
    const char* at = std::strchr(address.c_str(), '@');
    if (at == nullptr) return 1;
    if (mailDomains.empty()) return 0;
    const char* domain = at + 1;
    std::size_t length = std::strlen(domain);
    if (std::strstr(domain, "\r\n") != nullptr) {
        length -= 2;
    } else if (std::strchr(domain, '\n') != nullptr) {
        length -= 1;
    }
    const auto matches = [&](const std::string& node) {
        return EqualIgnoringCase(node, {domain, length});
    };
    return std::any_of(mailDomains.begin(), mailDomains.end(), matches) ? 1 : 0;
}

// A source route: every domain behind an '@' has to begin with a mail domain. A ':' in a parameter
// brings a plain address here too; the rule is the same for it and no looser for a domain that is
// not ours.
int IsLocalRoute(const std::string& text, const std::vector<std::string>& mailDomains) {
    if (text.size() <= 2) return 1;
    const char* place = text.c_str();
    const char* const end = place + text.size();
    while (end - place > 2) {
        const char* at = std::strchr(place, '@');
        if (at == nullptr) return 1;
        if (mailDomains.empty()) return 0;
        const char* domain = at + 1;
        std::ptrdiff_t step = 0;
        for (const std::string& node : mailDomains) {
            // An empty text, as of a key without value, names no domain: every one begins with it.
            if (!node.empty() && std::strncmp(domain, node.c_str(), node.size()) == 0)
                step = (domain - place) + static_cast<std::ptrdiff_t>(node.size()) + 1;
        }
        if (step == 0) return 0;
        if (step > end - place) return 1;
        place += step;
    }
    return 1;
}

}  // namespace

int IsLocalRecipientOf(const char* text, const std::vector<std::string>& mailDomains) {
    const std::string copy(text);
    if (copy.find('%') != std::string::npos) return 0;
    return copy.find(':') == std::string::npos ? IsLocalAddress(copy, mailDomains)
                                               : IsLocalRoute(copy, mailDomains);
}

#include "trelis/keys/forms.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "net/address.h"
#include "net/service_address.h"
#include "text/ascii.h"
#include "text/mailbox.h"
#include "text/trim.h"

namespace trelis {
namespace {

// Whether there is something between the separators, and all of it fits.
template <typename Fits>
bool AllFit(std::string_view list, Fits fits, std::string_view separators = ";") {
    bool any = false;
    for (;;) {
        const std::size_t end = list.find_first_of(separators);
        const std::string_view each = Trimmed(list.substr(0, end));
        if (!each.empty()) {
            if (!fits(each)) return false;
            any = true;
        }
        if (end == std::string_view::npos) return any;
        list.remove_prefix(end + 1);
    }
}

bool InBrackets(std::string_view text) {
    return text.size() > 2 && text.front() == '[' && text.back() == ']';
}

bool IsOfName(char c) { return IsLetter(c) || IsDigit(c) || c == '-' || c == '_'; }

// With or without a zone: fe80::1%eth0.
bool IsV6(std::string_view host) {
    const std::size_t zone = std::min(host.find('%'), host.size());
    return host.find(':') < zone && IpAddress::Parse(host.substr(0, zone)) &&
           std::all_of(host.begin() + zone, host.end(),
                       [](char c) { return IsOfName(c) || c == '.' || c == '%'; });
}

// A resolver takes more names than are domains of mail.
bool IsServerName(std::string_view host) {
    return !host.empty() &&
           std::all_of(host.begin(), host.end(), [](char c) { return IsOfName(c) || c == '.'; });
}

}  // namespace

std::optional<double> ParseScore(std::string_view text) {
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end || std::isnan(value)) return std::nullopt;
    return value;
}

bool IsServiceAddress(std::string_view text) { return ServiceAddress::Parse(text).has_value(); }

bool IsSpamAddress(std::string_view text) {
    constexpr std::string_view kSpamd = "spamd:";
    if (text.starts_with(kSpamd)) text.remove_prefix(kSpamd.size());
    return IsServiceAddress(text);
}

bool IsScore(std::string_view text) { return ParseScore(text).has_value(); }

bool IsPlaceList(std::string_view text) {
    return AllFit(text, [](std::string_view word) {
        constexpr std::string_view kHeader = "header:";
        if (EqualIgnoringCase(word.substr(0, kHeader.size()), kHeader))
            return !Trimmed(word.substr(kHeader.size())).empty();
        constexpr const char* kWords[] = {"sender", "recipient", "subject", "text", "html"};
        return std::any_of(std::begin(kWords), std::end(kWords),
                           [word](const char* each) { return EqualIgnoringCase(word, each); });
    });
}

bool IsTypeList(std::string_view text) {
    return AllFit(text, [](std::string_view type) {
        return type.find_first_of("/*?[") != std::string_view::npos;
    });
}

bool IsDomainName(std::string_view text) {
    for (;;) {
        const std::size_t end = text.find('.');
        const std::string_view label = text.substr(0, end);
        if (label.empty() || !std::all_of(label.begin(), label.end(), IsOfName)) return false;
        if (end == std::string_view::npos) return true;
        text.remove_prefix(end + 1);
    }
}

bool IsMailDomain(std::string_view text) {
    constexpr std::string_view kSix = "IPv6:";
    if (!InBrackets(text)) return IsDomainName(text);
    text = text.substr(1, text.size() - 2);
    if (text.starts_with(kSix)) text.remove_prefix(kSix.size());
    return IsAddress(text);
}

bool IsHostName(std::string_view text) { return IsMailDomain(text) || IsAddress(text); }

bool IsMailServer(std::string_view text) {
    if (IsV6(text) || (InBrackets(text) && IsV6(text.substr(1, text.size() - 2)))) return true;
    if (text.find(':') == std::string_view::npos) return IsServerName(text);
    const std::optional<ServiceAddress> place = ServiceAddress::Parse(text);
    return place && (IsServerName(place->host) || IsV6(place->host));
}

bool IsAddress(std::string_view text) { return IpAddress::Parse(text).has_value(); }

bool IsListenAddress(std::string_view text) { return ListenAddress(std::string(text)).has_value(); }

bool IsNetwork(std::string_view text) { return IpNetwork::Parse(text).has_value(); }

bool IsV4Address(std::string_view text) {
    return text.find(':') == std::string_view::npos && IsAddress(text);
}

bool IsRefusal(std::string_view text) {
    return text.size() > 4 && (text[0] == '4' || text[0] == '5') && IsDigit(text[1]) &&
           IsDigit(text[2]) && text[3] == ' ' && std::none_of(text.begin(), text.end(), IsControl);
}

bool IsListedSender(std::string_view text) {
    const std::size_t at = text.rfind('@');
    return at != std::string_view::npos && at > 0 && at + 1 < text.size() &&
           Trimmed(text, kAllBlanks).size() == text.size() &&
           text.find_first_of("*<>") == std::string_view::npos;
}

bool IsSenderPattern(std::string_view text) {
    return text.find_first_of("@*?") != std::string_view::npos &&
           Trimmed(text, kAllBlanks).size() == text.size() &&
           (text.find_first_of("<>") == std::string_view::npos || text.starts_with("<>"));
}

bool IsMailboxList(std::string_view text) {
    const auto fits = [](std::string_view each) {
        if (each.starts_with('<') && each.ends_with('>') && each.size() > 2)
            each = each.substr(1, each.size() - 2);
        return !MailboxPath(std::string(each)).empty();
    };
    return AllFit(text, fits, ";,");
}

}  // namespace trelis

#include "net/service_address.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view kUnix = "unix:";
constexpr std::size_t kLongestHost = 255;

bool IsHost(std::string_view host) {
    return !host.empty() && host.size() <= kLongestHost &&
           std::all_of(host.begin(), host.end(),
                       [](char c) { return c > ' ' && c < 0x7F && c != '[' && c != ']'; });
}

}  // namespace

std::optional<ServiceAddress> ServiceAddress::Parse(std::string_view text) {
    if (text.starts_with(kUnix)) {
        text.remove_prefix(kUnix.size());
        if (text.empty() || text[0] != '/' || text.find('\0') != std::string_view::npos) return {};
        return OfPath(std::string(text));
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return {};
    std::string_view host = text.substr(0, colon);
    const std::string_view digits = text.substr(colon + 1);
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port == 0) return {};
    const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (brackets) host = host.substr(1, host.size() - 2);
    // An IPv6 address without them could end anywhere.
    const bool colons = host.find(':') != std::string_view::npos;
    if (brackets != colons || !IsHost(host)) return {};
    return ServiceAddress{"", std::string(host), port};
}

std::string ServiceAddress::Text() const {
    if (!path.empty()) return std::string(kUnix) + path;
    const bool six = host.find(':') != std::string::npos;
    return (six ? '[' + host + ']' : host) + ':' + std::to_string(port);
}

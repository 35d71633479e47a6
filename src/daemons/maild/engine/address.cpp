#include "daemons/maild/engine/address.h"

#include <netdb.h>
#include <sys/un.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>

namespace {

constexpr std::string_view kUnix = "unix:";
constexpr std::size_t kLongestHost = 255;
constexpr std::size_t kMostTargets = 8;  // of one name

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

std::vector<SocketTarget> FindTargets(const ServiceAddress& address) {
    if (!address.path.empty()) {
        SocketTarget target;
        auto* const local = reinterpret_cast<sockaddr_un*>(&target.address);
        if (address.path.size() >= sizeof local->sun_path) return {};
        local->sun_family = AF_UNIX;
        std::memcpy(local->sun_path, address.path.c_str(), address.path.size());
        target.length = sizeof *local;
        return {target};
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* answer = nullptr;
    if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &answer) !=
        0)
        return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(answer, freeaddrinfo);
    std::vector<SocketTarget> found;
    for (const addrinfo* each = answer; each != nullptr && found.size() < kMostTargets;
         each = each->ai_next) {
        SocketTarget target;
        if (each->ai_addrlen > sizeof target.address) continue;
        std::memcpy(&target.address, each->ai_addr, each->ai_addrlen);
        target.length = each->ai_addrlen;
        found.push_back(target);
    }
    return found;
}

#include <algorithm>
#include <cstring>
#include <memory>

#include "net/address.h"
#include "net/aside.h"
#include "net/socket.h"
#include "text/ascii.h"

namespace {

std::vector<SocketAddress> Resolve(const char* name, int family, int flags, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* answer = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &answer) != 0) return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(answer, freeaddrinfo);
    std::vector<SocketAddress> found;
    for (const addrinfo* each = answer; each != nullptr; each = each->ai_next) {
        if (each->ai_addrlen > SocketAddress::kRoom) continue;
        SocketAddress address;
        std::memcpy(address.Room(), each->ai_addr, each->ai_addrlen);
        if (!address.Known()) continue;
        address.SetPort(port);
        found.push_back(address);
    }
    return found;
}

}  // namespace

SocketAddress ResolveHost(const char* name, std::uint16_t port) {
    if (name == nullptr) return {};
    const std::vector<SocketAddress> found = Resolve(name, AF_INET, 0, port);
    return found.empty() ? SocketAddress() : found.front();
}

std::vector<SocketAddress> ResolveAll(const std::string& host, std::uint16_t port) {
    // With a colon, or without a letter, it is no name: nobody is asked for it.
    if (host.find(':') != std::string::npos)
        return Resolve(host.c_str(), AF_UNSPEC, AI_NUMERICHOST, port);
    if (std::none_of(host.begin(), host.end(), IsLetter)) {
        const SocketAddress address = NumericAddress(host.c_str(), port);
        if (address.V4().sin_addr.s_addr == INADDR_NONE) return {};
        return {address};
    }
    std::vector<SocketAddress> found;
    // The name service may take its time.
    if (!RunAside([&] { found = Resolve(host.c_str(), AF_UNSPEC, 0, port); })) return {};
    return found;
}

SocketAddress NumericAddress(const char* text, std::uint16_t port) {
    return IpAddress::OfV4(text == nullptr ? INADDR_NONE : inet_addr(text)).WithPort(port);
}

std::string AddressText(const SocketAddress& address) { return IpAddress::Of(address).Text(); }

std::string AddressAndPort(const SocketAddress& address) {
    const std::string text = AddressText(address);
    const std::string port = std::to_string(address.Port());
    return text.find(':') == std::string::npos ? text + ":" + port : "[" + text + "]:" + port;
}

int StartThread(HANDLE* out, LPTHREAD_START_ROUTINE procedure, LPVOID argument) {
    UniqueHandle thread(CreateThread(nullptr, 0, procedure, argument, 0, nullptr));
    if (!thread) return -1;
    if (out != nullptr) *out = thread.Release();
    return 0;
}

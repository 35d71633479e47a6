// Inside maild/: where a service listens that the daemon asks, as the configuration writes it.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// "unix:PATH", "HOST:PORT" or "[IPv6]:PORT".
struct ServiceAddress {
    std::string path;  // of a Unix socket; empty: a host
    std::string host;  // a name, or an address without brackets
    std::uint16_t port = 0;

    // Nothing for any other text.
    static std::optional<ServiceAddress> Parse(std::string_view text);
    static ServiceAddress OfPath(std::string path) { return {std::move(path), "", 0}; }
    // As Parse takes it.
    std::string Text() const;
};

// An address as the system connects to it.
struct SocketTarget {
    sockaddr_storage address{};
    socklen_t length = 0;

    bool IsLocal() const { return address.ss_family == AF_UNIX; }
};

// All that the address stands for; none if the path is too long or the name is unknown. A name is
// looked up here and now, which takes as long as the system's resolver does.
std::vector<SocketTarget> FindTargets(const ServiceAddress& address);

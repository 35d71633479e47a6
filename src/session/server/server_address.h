// server/: the way to the real mail server, before the first word of the dialogue. This header: a
// server as the configuration names it.
#pragma once

#include <cstdint>
#include <string>

// The port of a server that is configured without one.
inline constexpr std::uint16_t kDefaultServerPort = 10025;

struct ServerAddress {
    std::string host;        // a name, or an address without brackets
    std::uint16_t port = 0;  // host order

    // "host", "host:port", "[v6]", "[v6]:port", or a bare IPv6 address, which has no port. Line
    // ends behind it are cut. A text that can't be read has a host that nobody finds.
    static ServerAddress Parse(std::string text);
    // As people write it: host:port, [v6]:port.
    std::string Text() const;

    bool operator==(const ServerAddress&) const = default;
};

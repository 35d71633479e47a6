// Where a service listens that is asked, as the configuration writes it. Nothing is looked up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

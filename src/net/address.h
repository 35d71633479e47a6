// Addresses of hosts as numbers, of both families. Values; any thread; nothing but a failed
// allocation throws.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/socket.h"

// An IPv4 or IPv6 address. An IPv4 address in IPv6 form (::ffff:192.0.2.1), as a listener of both
// families sees its clients, is that IPv4 address.
class IpAddress {
  public:
    // "::", nobody's address.
    IpAddress() = default;
    // In network byte order.
    static IpAddress OfV4(std::uint32_t address);
    static IpAddress OfV6(const std::array<std::uint8_t, 16>& bytes);
    // Dotted with four numbers, or an IPv6 address without brackets and zone. Nothing else.
    static std::optional<IpAddress> Parse(std::string_view text);
    // Of an address that is known.
    static IpAddress Of(const SocketAddress& address);

    // With a port (host order), as the system takes it.
    SocketAddress WithPort(std::uint16_t port) const;

    bool IsV4() const;
    // Where a host listens on all of its addresses: "::" or "0.0.0.0".
    bool IsEvery() const { return *this == IpAddress() || *this == OfV4(INADDR_ANY); }
    bool IsLoopback() const;
    // In network byte order, of an IPv4 address.
    std::uint32_t V4() const;
    // In network byte order; of an IPv4 address its IPv6 form.
    const std::array<std::uint8_t, 16>& Bytes() const { return bytes_; }
    std::string Text() const;

    bool operator==(const IpAddress&) const = default;

  private:
    std::array<std::uint8_t, 16> bytes_{};
};

// The address to listen on that a text means; empty: all of IPv4. Nothing for one where no client
// can come.
std::optional<IpAddress> ListenAddress(const std::string& text);

// A network as "192.0.2.0/24" or "2001:db8::/32" names it, or a single address. Bits behind the
// prefix say nothing.
class IpNetwork {
  public:
    static std::optional<IpNetwork> Parse(std::string_view text);

    // An address of the other family is in no network.
    bool Contains(const IpAddress& address) const;
    // Whether all addresses of its family are in it.
    bool IsEverybody() const { return Bits() == 0; }
    bool IsV4() const { return address_.IsV4(); }
    // Of its prefix, as an address of its family counts them.
    int Bits() const;

  private:
    IpAddress address_;
    int prefix_ = 0;  // bits, of 128
};

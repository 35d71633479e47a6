// A client network that may relay.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "net/address.h"

class RelayNetwork {
  public:
    // As configured: an IPv4 address with a mask, or an address or network in the notations of
    // IpNetwork without one. What can't be read lets nobody relay, but for the two things that
    // always held of the first form: a mask that is missing or can't be read means the one address,
    // and an address that can't be read is 255.255.255.255.
    RelayNetwork(const std::string& address, const std::string& mask);

    // An address of the other family is in no network. With a mask the configured address is
    // compared as it stands: bits of it behind the mask make it match nobody.
    bool Contains(const IpAddress& client) const;
    // Whether all clients of a family are in it.
    bool IsEverybody() const;

  private:
    bool masked_;                // the first form
    std::uint32_t address_ = 0;  // of that form; network byte order, as the next
    std::uint32_t mask_ = 0;
    std::optional<IpNetwork> network_;  // of the other form; none: nobody
};

// Inside asfilters/: the IP allow/deny list, which judges a peer before it gets the greeting.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "net/address.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/rows.h"

// An IPv4 address with or without a mask, or, in the notations of IpNetwork that the first form has
// not (an IPv6 address, a network with its prefix), a Network.
struct IPEntry {
    std::uint32_t IP = 0;    // network byte order
    std::uint32_t Mask = 0;  // network byte order; 0 if there is none
    int Action = 0;          // kAllow or kDeny
    int HasMask = 0;         // 0: the whole address is compared
    std::optional<IpNetwork> Network;

    static constexpr int kAllow = 1;
    static constexpr int kDeny = 2;
};

class CAllowDenyIPList {
  public:
    // Always 0.
    int Load();
    // As CASFilters::CheckIP. An allow entry that matches wins over any deny entry, wherever it
    // stands.
    int CheckIP(const char* peer);

  private:
    struct Set {
        std::vector<IPEntry> entries;              // in the store's order
        static std::shared_ptr<const Set> Read();  // null: the filter is off
    };

    trelis::Followed<Set> configuration_{trelis::kAddressListKey, &Set::Read,
                                         trelis::Followed<Set>::Begin::kNow};
};

// One listening address with all that a session needs to know of it. The table of these belongs to
// the host; a session copies what it needs when it is admitted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "session/options.h"
#include "session/relay_network.h"

struct NetworkInterface {
    std::string name;                         // below the interfaces' key
    std::size_t place = 0;                    // where it is counted: metrics::InterfacePlace
    std::string GreetingDomainName;           // the name in the proxy's own reply lines
    std::string IPAddress;                    // "::": all of both families; empty: all of IPv4
    int Port = 0;                             // host order
    std::string ServerToForward;              // as ServerAddress reads it
    std::vector<RelayNetwork> RelayNetworks;  // in the store's order
    std::vector<std::string> MailDomains;     // in the store's order
    int MaxThreads = 0;                       // 0: no limit
    std::optional<long long> MaxMessageSize;  // bytes; 0: no limit; none: what the scan takes
    int TimeoutBetweenNOOPs = 180;            // seconds, 1 to 3600
    int ConnectionTimeout = 600;              // seconds, 1 to 3600
    ConnectionOptions options;
};

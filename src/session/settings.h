// What a session took from its interface when it was admitted; it keeps it, however the
// configuration changes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "session/interface.h"
#include "session/server/server_address.h"

struct SessionSettings {
    std::string interfaceName;
    std::size_t interfacePlace = 0;  // where it is counted
    std::string greetingName;
    // In the order in which they are tried: the real server, then those that stand in for it.
    std::vector<ServerAddress> servers;
    std::string forwardHost;              // the one that has the connection, at first the first
    std::uint16_t forwardPort = 0;        // host order
    std::uint32_t noopInterval = 0;       // seconds
    std::uint32_t connectionTimeout = 0;  // seconds
    long long maxMessageSize = 0;         // bytes, as a client sends them; 0: no limit
    // After a dot between bare line feeds: how long nothing may come for it to end the message.
    std::chrono::milliseconds silence{1000};
    std::vector<RelayNetwork> relayNetworks;
    std::vector<std::string> mailDomains;
    ConnectionOptions options;

    // defaultMaxSize: for an interface that has no limit of its own.
    static SessionSettings Of(const NetworkInterface& interface, long long defaultMaxSize);
    // Whether a client of this address may send anywhere.
    bool MayRelay(const IpAddress& client) const;
};

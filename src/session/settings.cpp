#include "session/settings.h"

#include <algorithm>

SessionSettings SessionSettings::Of(const NetworkInterface& interface, long long defaultMaxSize) {
    SessionSettings settings;
    settings.interfaceName = interface.name;
    settings.interfacePlace = interface.place;
    settings.greetingName = interface.GreetingDomainName;
    settings.servers.push_back(ServerAddress::Parse(interface.ServerToForward));
    for (const std::string& text : interface.options.fallbackServers) {
        if (!text.empty()) settings.servers.push_back(ServerAddress::Parse(text));
    }
    settings.forwardHost = settings.servers.front().host;
    settings.forwardPort = settings.servers.front().port;
    settings.noopInterval = static_cast<std::uint32_t>(interface.TimeoutBetweenNOOPs);
    settings.connectionTimeout = static_cast<std::uint32_t>(interface.ConnectionTimeout);
    settings.maxMessageSize = interface.MaxMessageSize.value_or(defaultMaxSize);
    settings.relayNetworks = interface.RelayNetworks;
    settings.mailDomains = interface.MailDomains;
    settings.options = interface.options;
    return settings;
}

bool SessionSettings::MayRelay(const IpAddress& client) const {
    return std::any_of(relayNetworks.begin(), relayNetworks.end(),
                       [&client](const RelayNetwork& network) { return network.Contains(client); });
}

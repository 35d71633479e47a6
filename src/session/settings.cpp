#include "session/settings.h"

#include <algorithm>
#include <cstdlib>

namespace {

// The port of a forward server that is configured without one.
constexpr std::uint16_t kDefaultForwardPort = 10025;

}  // namespace

SessionSettings SessionSettings::Of(const NetworkInterface& interface, long long defaultMaxSize) {
    SessionSettings settings;
    settings.greetingName = interface.GreetingDomainName;
    std::string& host = settings.forwardHost = interface.ServerToForward;
    while (!host.empty() && (host.back() == '\r' || host.back() == '\n')) host.pop_back();
    settings.forwardPort = kDefaultForwardPort;
    if (const std::size_t colon = host.find(':'); colon != std::string::npos) {
        settings.forwardPort = static_cast<std::uint16_t>(std::atoi(host.c_str() + colon + 1));
        host.resize(colon);
    }
    settings.noopInterval = static_cast<std::uint32_t>(interface.TimeoutBetweenNOOPs);
    settings.connectionTimeout = static_cast<std::uint32_t>(interface.ConnectionTimeout);
    settings.maxMessageSize = interface.MaxMessageSize.value_or(defaultMaxSize);
    settings.relayNetworks = interface.RelayNetworks;
    settings.mailDomains = interface.MailDomains;
    settings.options = interface.options;
    return settings;
}

bool SessionSettings::MayRelay(std::uint32_t address) const {
    return std::any_of(relayNetworks.begin(), relayNetworks.end(),
                       [address](const RelayNetwork& network) {
                           return network.address == (network.mask & address);
                       });
}

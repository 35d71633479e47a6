#include <string>

#include "host/interface_options.h"
#include "host/smtp.h"
#include "session/session.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kInterfaceKey, name}; }
constexpr trelis::Key kSpoolGroup{trelis::kProxyKey, "SpoolGroup"};
constexpr char kEveryAddress[] = "0.0.0.0";

// The system would listen on a broadcast address and on one of "this network", where no client ever
// comes, and would keep the port from a good entry.
bool CanListenOn(std::uint32_t address) {
    return address == INADDR_ANY || (address != INADDR_NONE && ntohl(address) >> 24 != 0);
}

in_addr_t ReadAddress(const trelis::Key& key, trelis::Names names) {
    return inet_addr(trelis::ReadText(key, names).c_str());
}

}  // namespace

void CSMTP::ReleaseInterfaces() {
    for (NetworkInterface& entry : interfaces_) {
        entry.RelayNetworks.clear();
        entry.MailDomains.clear();
        entry.listener.Shutdown();
        entry.listener.Close();
    }
}

int CSMTP::LoadInterfaces() {
    ReleaseInterfaces();
    SetSpoolGroup(platform::GroupNumber(trelis::ReadText(kSpoolGroup).c_str()));
    trelis::NameWalk names(Key("Port"));
    std::string name;
    for (int position = 0; position < kInterfaceCount && names.Next(name); ++position)
        LoadInterface(position, name);
    return 0;
}

void CSMTP::LoadInterface(int position, const std::string& name) {
    NetworkInterface& entry = interfaces_[static_cast<std::size_t>(position)];

    entry.GreetingDomainName = trelis::ReadText(Key("GreetingDomainName"), {name});
    entry.IPAddress = trelis::ReadText(Key("IPAddress"), {name});
    entry.Port = trelis::ReadInt(Key("Port"), {name});
    const SocketAddress address =
        NumericAddress(entry.IPAddress.empty() ? kEveryAddress : entry.IPAddress.c_str(),
                       static_cast<std::uint16_t>(entry.Port));
    entry.ServerToForward = trelis::ReadText(Key("ServerToForward"), {name});

    if (entry.listener.Create(SOCK_STREAM)) SocketAllowReuse(entry.listener.Handle());
    if (CanListenOn(address.sin_addr.s_addr) && entry.listener.Bind(address)) {
        entry.listener.Listen();
        WSAAsyncSelect(entry.listener.Handle(), SocketWindow, AcceptMessage, FD_ACCEPT);
    }

    std::string item;
    trelis::NameWalk networks(Key("RelayNetworks/*/IPAddress"), {name});
    while (networks.Next(item))
        entry.RelayNetworks.push_back({ReadAddress(Key("RelayNetworks/*/IPAddress"), {name, item}),
                                       ReadAddress(Key("RelayNetworks/*/Mask"), {name, item})});
    trelis::NameWalk domains(Key("MailDomains/*"), {name});
    while (domains.Next(item))
        entry.MailDomains.push_back(trelis::ReadText(Key("MailDomains/*"), {name, item}));

    entry.MaxThreads = trelis::ReadInt(Key("MaxThreads"), {name});
    entry.MaxMessageSize = trelis::ReadSize(Key("MaxMessageSize"), {name});
    entry.TimeoutBetweenNOOPs = trelis::ReadInt(Key("TimeoutBetweenNOOPs"), {name});
    entry.ConnectionTimeout = trelis::ReadInt(Key("ConnectionTimeout"), {name});
    entry.options = ReadConnectionOptions(name);
}

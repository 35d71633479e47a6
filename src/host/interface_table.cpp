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
bool CanListenOn(const IpAddress& where) {
    if (!where.IsV4()) return true;
    const std::uint32_t address = where.V4();
    return address == INADDR_ANY || (address != INADDR_NONE && ntohl(address) >> 24 != 0);
}

// A text that is no address gives one that can't be listened on.
IpAddress ReadAddress(const std::string& text) {
    if (text.find(':') != std::string::npos)
        return IpAddress::Parse(text).value_or(IpAddress::OfV4(INADDR_NONE));
    return IpAddress::OfV4(inet_addr(text.empty() ? kEveryAddress : text.c_str()));
}

void Open(CSocket& listener, const IpAddress& where, std::uint16_t port) {
    const SocketAddress address = where.WithPort(port);
    if (!listener.Create(SOCK_STREAM, address)) return;
    SocketAllowReuse(listener.Handle());
    if (!where.IsV4()) SocketTakeBothFamilies(listener.Handle(), where == IpAddress());
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
    identities_.ForgetOthers();
    return 0;
}

void CSMTP::LoadInterface(int position, const std::string& name) {
    NetworkInterface& entry = interfaces_[static_cast<std::size_t>(position)];

    entry.GreetingDomainName = trelis::ReadText(Key("GreetingDomainName"), {name});
    entry.IPAddress = trelis::ReadText(Key("IPAddress"), {name});
    entry.Port = trelis::ReadInt(Key("Port"), {name});
    entry.ServerToForward = trelis::ReadText(Key("ServerToForward"), {name});

    const IpAddress where = ReadAddress(entry.IPAddress);
    const auto port = static_cast<std::uint16_t>(entry.Port);
    Open(entry.listener, where, port);
    if (CanListenOn(where) && entry.listener.Bind(where.WithPort(port))) {
        entry.listener.Listen();
        WSAAsyncSelect(entry.listener.Handle(), SocketWindow, AcceptMessage, FD_ACCEPT);
    }

    std::string item;
    trelis::NameWalk networks(Key("RelayNetworks/*/IPAddress"), {name});
    while (networks.Next(item))
        entry.RelayNetworks.emplace_back(
            trelis::ReadText(Key("RelayNetworks/*/IPAddress"), {name, item}),
            trelis::ReadText(Key("RelayNetworks/*/Mask"), {name, item}));
    trelis::NameWalk domains(Key("MailDomains/*"), {name});
    while (domains.Next(item))
        entry.MailDomains.push_back(trelis::ReadText(Key("MailDomains/*"), {name, item}));

    entry.MaxThreads = trelis::ReadInt(Key("MaxThreads"), {name});
    entry.MaxMessageSize = trelis::ReadSize(Key("MaxMessageSize"), {name});
    entry.TimeoutBetweenNOOPs = trelis::ReadInt(Key("TimeoutBetweenNOOPs"), {name});
    entry.ConnectionTimeout = trelis::ReadInt(Key("ConnectionTimeout"), {name});
    entry.options = ReadConnectionOptions(name, identities_);
}

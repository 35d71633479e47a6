#include <string>
#include <vector>

#include "host/interface_options.h"
#include "host/smtp.h"
#include "metrics/count.h"
#include "net/aside.h"
#include "session/session.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kInterfaceKey, name}; }
constexpr trelis::Key kSpoolGroup{trelis::kProxyKey, "SpoolGroup"};

}  // namespace

// Files are read for it, and directory services may be asked.
int CSMTP::LoadInterfaces() {
    std::vector<ListenerWish> wishes;
    const auto read = [this, &wishes] { ReadTable(wishes); };
    // Not behind sessions that wait for a name service.
    if (!RunAside(read, Turn::kAtOnce)) read();
    // While it drains nothing is wanted, whatever the table says.
    if (draining_.Now()) wishes.clear();
    listeners_.Follow(wishes);
    draining_.SetListeners(listeners_.Open().size());
    return 0;
}

void CSMTP::ReadTable(std::vector<ListenerWish>& wishes) {
    SetSpoolGroup(platform::GroupNumber(trelis::ReadText(kSpoolGroup).c_str()));
    trelis::NameWalk names(Key("Port"));
    for (std::string name; wishes.size() < interfaces_.size() && names.Next(name);) {
        NetworkInterface& entry = interfaces_[wishes.size()];
        LoadInterface(entry, name);
        wishes.push_back({name, entry.IPAddress, entry.Port});
    }
    identities_.ForgetOthers();
}

void CSMTP::LoadInterface(NetworkInterface& entry, const std::string& name) {
    entry.name = name;
    entry.place = metrics::NamePlace(name);
    entry.GreetingDomainName = trelis::ReadLine(Key("GreetingDomainName"), {name});
    entry.IPAddress = trelis::ReadText(Key("IPAddress"), {name});
    entry.Port = trelis::ReadInt(Key("Port"), {name});
    entry.ServerToForward = trelis::ReadText(Key("ServerToForward"), {name});

    std::string item;
    entry.RelayNetworks.clear();
    trelis::NameWalk networks(Key("RelayNetworks/*/IPAddress"), {name});
    while (networks.Next(item))
        entry.RelayNetworks.emplace_back(
            trelis::ReadText(Key("RelayNetworks/*/IPAddress"), {name, item}),
            trelis::ReadText(Key("RelayNetworks/*/Mask"), {name, item}));
    entry.MailDomains.clear();
    trelis::NameWalk domains(Key("MailDomains/*"), {name});
    while (domains.Next(item))
        entry.MailDomains.push_back(trelis::ReadText(Key("MailDomains/*"), {name, item}));

    entry.MaxThreads = trelis::ReadInt(Key("MaxThreads"), {name});
    entry.MaxMessageSize = trelis::ReadSize(Key("MaxMessageSize"), {name});
    entry.TimeoutBetweenNOOPs = trelis::ReadInt(Key("TimeoutBetweenNOOPs"), {name});
    entry.ConnectionTimeout = trelis::ReadInt(Key("ConnectionTimeout"), {name});
    entry.options = ReadConnectionOptions(name, identities_);
}

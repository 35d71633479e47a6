#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/smtp.h"
#include "session/session.h"
#include "trelis/buffered.h"
#include "trelis/size.h"

namespace {

constexpr char kInterfacesKey[] = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces";
// Names a group that may read the spool, for a scan daemon that runs as another user.
constexpr char kSpoolGroupKey[] = "/VTWIN/Agents/VTSMTPProxy/SpoolGroup";
constexpr int kNameSize = 512;
constexpr std::size_t kPathSize = 512;
constexpr char kEveryAddress[] = "0.0.0.0";
constexpr char kDefaultGreetingName[] = "127.0.0.1";
constexpr char kDefaultServer[] = "127.0.0.1:10025";
constexpr int kDefaultPort = 25;
constexpr int kMaxSessions = 50;
constexpr int kMaxSeconds = 3600;
constexpr int kDefaultNoopSeconds = 180;
constexpr int kDefaultConnectionSeconds = 600;

// A walk over a key's children, in the store's order. Names whose path would be too long are passed
// over.
template <typename Use>
void ForEachChild(const std::string& key, Use use) {
    const TrelisEnum walk = TrelisEnumOpen(kLocalStore, key.c_str());
    char name[kNameSize];
    while (walk != nullptr && BufferedEnumRead(kLocalStore, walk, name, sizeof name) == 0) {
        if (key.size() + 1 + std::char_traits<char>::length(name) < kPathSize && !use(name)) break;
    }
    TrelisEnumClose(kLocalStore, walk);
}

// The system would listen on a broadcast address and on one of "this network", where no client ever
// comes, and would keep the port from a good entry.
bool CanListenOn(std::uint32_t address) {
    return address == INADDR_ANY || (address != INADDR_NONE && ntohl(address) >> 24 != 0);
}

struct Value {
    bool found;
    std::string text;
};

Value Read(const std::string& key, int size) {
    char buffer[kNameSize];
    const int result = BufferedGetValue(kLocalStore, key.c_str(), buffer, size);
    return {result == 0, buffer};
}

int ReadNumber(const std::string& key) {
    const long number = std::strtol(Read(key, kNameSize).text.c_str(), nullptr, 10);
    return static_cast<int>(std::clamp(number, -0x7FFFFFFFL, 0x7FFFFFFFL));
}

int ReadSeconds(const std::string& key, int fallback) {
    const int seconds = ReadNumber(key);
    return seconds < 1 ? fallback : std::min(seconds, kMaxSeconds);
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
    SetSpoolGroup(platform::GroupNumber(Read(kSpoolGroupKey, 64).text.c_str()));
    int position = 0;
    ForEachChild(kInterfacesKey, [&](const char* name) {
        if (position == kInterfaceCount) return false;
        LoadInterface(position++, name);
        return true;
    });
    return 0;
}

void CSMTP::LoadInterface(int position, const char* name) {
    NetworkInterface& entry = interfaces_[static_cast<std::size_t>(position)];
    const std::string key = std::string(kInterfacesKey) + "/" + name;

    const Value greeting = Read(key + "/GreetingDomainName", kGreetingNameSize);
    entry.GreetingDomainName = greeting.found ? greeting.text : kDefaultGreetingName;
    entry.IPAddress = Read(key + "/IPAddress", kIPAddressSize).text;
    entry.Port =
        Read(key + "/Port", kNameSize).text.empty() ? kDefaultPort : ReadNumber(key + "/Port");
    const SocketAddress address =
        NumericAddress(entry.IPAddress.empty() ? kEveryAddress : entry.IPAddress.c_str(),
                       static_cast<std::uint16_t>(entry.Port));
    const Value server = Read(key + "/ServerToForward", kServerToForwardSize);
    entry.ServerToForward = server.text.empty() ? kDefaultServer : server.text;

    if (entry.listener.Create(SOCK_STREAM)) SocketAllowReuse(entry.listener.Handle());
    if (CanListenOn(address.sin_addr.s_addr) && entry.listener.Bind(address)) {
        entry.listener.Listen();
        WSAAsyncSelect(entry.listener.Handle(), SocketWindow, AcceptMessage, FD_ACCEPT);
    }

    ForEachChild(key + "/RelayNetworks", [&](const char* child) {
        const std::string network = key + "/RelayNetworks/" + child;
        entry.RelayNetworks.push_back(
            {inet_addr(Read(network + "/IPAddress", kIPAddressSize).text.c_str()),
             inet_addr(Read(network + "/Mask", kIPAddressSize).text.c_str())});
        return true;
    });
    ForEachChild(key + "/MailDomains", [&](const char* child) {
        entry.MailDomains.push_back(Read(key + "/MailDomains/" + child, kNameSize).text);
        return true;
    });

    entry.MaxThreads = ReadNumber(key + "/MaxThreads");
    if (entry.MaxThreads < 0 || entry.MaxThreads > kMaxSessions) entry.MaxThreads = kMaxSessions;
    entry.MaxMessageSize = ParseSize(Read(key + "/MaxMessageSize", kNameSize).text);
    entry.TimeoutBetweenNOOPs = ReadSeconds(key + "/TimeoutBetweenNOOPs", kDefaultNoopSeconds);
    entry.ConnectionTimeout = ReadSeconds(key + "/ConnectionTimeout", kDefaultConnectionSeconds);
}

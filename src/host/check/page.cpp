// The page of statistics: who could listen in, its port, and the accounts of the quarantine.
#include <algorithm>
#include <optional>

#include "host/check/parts.h"
#include "net/address.h"

namespace {

consteval trelis::Key Page(const char* name) { return {trelis::kStatsKey, name}; }

void CheckPort(const std::vector<std::string>& interfaces, const IpAddress& page,
               Findings& findings) {
    const int port = trelis::ReadInt(Page("HTTPPort"));
    for (const std::string& each : interfaces) {
        const auto proxy = ListenAddress(trelis::ReadText(InterfaceKey("IPAddress"), {each}));
        if (!proxy || trelis::ReadInt(InterfaceKey("Port"), {each}) != port) continue;
        if (page.IsEvery() || proxy->IsEvery() || page == *proxy)
            findings.Warn(Page("HTTPPort").Path(), "the interface " + each + " has this port",
                          "set another port");
    }
}

void CheckAccounts(Findings& findings) {
    constexpr trelis::Key kNames = Page("QuarantineAccounts/*");
    trelis::NameWalk names(kNames);
    for (std::string name; names.Next(name);) {
        const std::string account = trelis::ReadText(kNames, {name});
        if (!account.empty() && trelis::ReadText(Page("Accounts/*"), {account}).empty())
            findings.Warn(kNames.Path({name}), "there is no account of this name",
                          "make it with vtstatd passwd NAME, or delete this");
    }
}

}  // namespace

void CheckPage(const std::vector<std::string>& interfaces, Findings& findings) {
    CheckAccounts(findings);
    const auto address = IpAddress::Parse(trelis::ReadText(Page("HTTPAddress")));
    if (!address) return;  // has been told with its key
    if (!address->IsLoopback())
        findings.Warn(Page("HTTPAddress").Path(),
                      "passwords go to the page in plain, and others can read them on their way",
                      "set 127.0.0.1, and a server with TLS in front of it");
    CheckPort(interfaces, *address, findings);
}

// Entries of the filters' lists: what isn't whole is passed over there, and what is for everybody
// refuses all mail.
#include <string_view>

#include "host/check/parts.h"
#include "net/address.h"

namespace {

consteval trelis::Key ListKey(const char* name) { return {trelis::kAddressListKey, name}; }

void CheckEntry(const std::string& name, Findings& findings) {
    const std::string address = trelis::ReadText(ListKey("Addresses/*/IP"), {name});
    const std::string mask = trelis::ReadText(ListKey("Addresses/*/Mask"), {name});
    const std::string path = ListKey("Addresses/*/IP").Path({name});
    const std::string action =
        trelis::ReadIfGiven(ListKey("Addresses/*/Action"), {name}).value_or("");
    // A name that is left, no more.
    if (address.empty() && mask.empty() && action.empty()) return;
    const bool network = address.find_first_of("/:") != std::string::npos;
    if (address.empty())
        findings.Error(path, "no address or network, so the entry counts for nobody",
                       "set an address (192.0.2.1) or a network (192.0.2.0/24)");
    else if (network && !mask.empty())
        findings.Error(ListKey("Addresses/*/Mask").Path({name}),
                       "a mask besides a prefix, so the entry counts for nobody",
                       "delete the mask");
    if (action.empty())
        findings.Error(ListKey("Addresses/*/Action").Path({name}),
                       "neither allowed nor denied, so the entry counts for nobody",
                       "set 1 to allow or 2 to deny");
}

bool DeniesEverybody(const std::string& name) {
    const std::string mask = trelis::ReadText(ListKey("Addresses/*/Mask"), {name});
    if (!mask.empty()) return IpAddress::Parse(mask) == IpAddress::OfV4(INADDR_ANY);
    const auto network = IpNetwork::Parse(trelis::ReadText(ListKey("Addresses/*/IP"), {name}));
    return network && network->IsEverybody();
}

// To deny everybody makes sense where somebody is allowed.
void CheckDenials(Findings& findings) {
    constexpr int kAllow = 1;
    constexpr int kDeny = 2;
    if (!trelis::ReadFlag(ListKey("Enabled"))) return;
    std::vector<std::string> all;
    trelis::NameWalk names(ListKey("Addresses/*/IP"));
    for (std::string name; names.Next(name);) {
        const int action = trelis::ReadInt(ListKey("Addresses/*/Action"), {name});
        if (action == kAllow) return;
        if (action == kDeny && DeniesEverybody(name)) all.push_back(name);
    }
    for (const std::string& name : all)
        findings.Warn(ListKey("Addresses/*/IP").Path({name}),
                      "every client is denied, and nobody is allowed",
                      "allow somebody, or delete the entry");
}

// One that any address fits.
bool FitsEverybody(std::string_view pattern) {
    return pattern.starts_with('*') && pattern.ends_with('*') &&
           pattern.find_first_not_of("*@.") == std::string_view::npos;
}

void CheckSenders(Findings& findings) {
    constexpr trelis::Key kPattern{trelis::kBlackListKey, "WildcardsList/*"};
    if (!trelis::ReadFlag({trelis::kBlackListKey, "Enabled"})) return;
    trelis::NameWalk names(kPattern);
    for (std::string name; names.Next(name);) {
        if (FitsEverybody(trelis::ReadText(kPattern, {name})))
            findings.Warn(kPattern.Path({name}), "every sender is refused",
                          "set a pattern such as *@example.org, or delete it");
    }
}

}  // namespace

void CheckLists(Findings& findings) {
    trelis::NameWalk names(ListKey("Addresses/*/IP"));
    for (std::string name; names.Next(name);) CheckEntry(name, findings);
    CheckDenials(findings);
    CheckSenders(findings);
}

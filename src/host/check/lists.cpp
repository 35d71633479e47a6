// Values that are addresses, of the filters and the daemons: what can't be read is passed over
// there.
#include "host/check/parts.h"
#include "net/address.h"

namespace {

consteval trelis::Key ListKey(const char* name) { return {trelis::kAddressListKey, name}; }
constexpr trelis::Key kPageAddress{trelis::kStatsKey, "HTTPAddress"};
constexpr trelis::Key kStoreAddress{trelis::kStoreKey, "Address"};

void CheckEntry(const std::string& name, Findings& findings) {
    const std::string address = trelis::ReadText(ListKey("Addresses/*/IP"), {name});
    const std::string mask = trelis::ReadText(ListKey("Addresses/*/Mask"), {name});
    const std::string path = ListKey("Addresses/*/IP").Path({name});
    const std::string action =
        trelis::ReadIfGiven(ListKey("Addresses/*/Action"), {name}).value_or("");
    // A name that is left, no more.
    if (address.empty() && mask.empty() && action.empty()) return;
    const bool network = address.find_first_of("/:") != std::string::npos;
    if (!IpNetwork::Parse(address))
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

void CheckAddress(const trelis::Key& key, Findings& findings) {
    const std::string text = trelis::ReadText(key);
    if (!text.empty() && !IpAddress::Parse(text))
        findings.Error(key.Path(), "\"" + text + "\" is no address to listen on",
                       "set an address in numbers, such as 127.0.0.1");
}

}  // namespace

void CheckLists(Findings& findings) {
    trelis::NameWalk names(ListKey("Addresses/*/IP"));
    for (std::string name; names.Next(name);) CheckEntry(name, findings);
    CheckAddress(kPageAddress, findings);
    CheckAddress(kStoreAddress, findings);
}

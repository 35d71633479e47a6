// Entries of the filters' lists: what isn't whole is passed over there.
#include "host/check/parts.h"

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

}  // namespace

void CheckLists(Findings& findings) {
    trelis::NameWalk names(ListKey("Addresses/*/IP"));
    for (std::string name; names.Next(name);) CheckEntry(name, findings);
}

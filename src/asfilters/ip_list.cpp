#include "asfilters/ip_list.h"

#include <optional>
#include <string>

#include "platform/socket.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kAddressListKey, name}; }

// Nothing for an entry that is not complete. An IPv4 address that can't be read is all ones, and so
// can match 255.255.255.255 or through its mask: an entry is never taken for another address. A
// network that can't be read, or has a mask besides its prefix, is no entry.
std::optional<IPEntry> ReadEntry(const std::string& name) {
    IPEntry entry;
    const auto address = trelis::ReadIfGiven(Key("Addresses/*/IP"), {name});
    if (!address) return std::nullopt;
    const std::string mask = trelis::ReadText(Key("Addresses/*/Mask"), {name});
    if (address->find_first_of("/:") != std::string::npos) {
        entry.Network = IpNetwork::Parse(*address);
        if (!entry.Network || !mask.empty()) return std::nullopt;
    }
    entry.IP = inet_addr(address->c_str());
    if (!mask.empty()) {
        entry.Mask = inet_addr(mask.c_str());
        entry.HasMask = 1;
    }
    entry.Action = trelis::ReadInt(Key("Addresses/*/Action"), {name});
    if (entry.Action != IPEntry::kAllow && entry.Action != IPEntry::kDeny) return std::nullopt;
    return entry;
}

// Every IPv4 address.
bool IsEverybody(const IPEntry& entry) {
    if (!entry.Network) return entry.HasMask != 0 && entry.Mask == 0;
    // Only /0 has both.
    return entry.Network->Contains(IpAddress::OfV4(INADDR_ANY)) &&
           entry.Network->Contains(IpAddress::OfV4(INADDR_NONE));
}

bool Matches(const IPEntry& entry, const IpAddress& peer) {
    // Who denies everybody, to allow some, means the clients of the other family too, which came
    // later. To allow them is said for them: it would lift denials.
    if (!peer.IsV4() && entry.Action == IPEntry::kDeny && IsEverybody(entry)) return true;
    if (entry.Network) return entry.Network->Contains(peer);
    if (!peer.IsV4()) return false;
    const std::uint32_t address = peer.V4();
    return entry.HasMask != 0 ? ((entry.IP ^ address) & entry.Mask) == 0 : entry.IP == address;
}

}  // namespace

std::shared_ptr<const CAllowDenyIPList::Set> CAllowDenyIPList::Set::Read() {
    if (!trelis::ReadFlag(Key("Enabled"))) return nullptr;
    auto set = std::make_shared<Set>();
    trelis::NameWalk names(Key("Addresses/*/IP"));
    for (std::string name; names.Next(name);) {
        if (const std::optional<IPEntry> entry = ReadEntry(name)) set->entries.push_back(*entry);
    }
    return set;
}

int CAllowDenyIPList::Load() {
    configuration_.Load();
    return 0;
}

int CAllowDenyIPList::CheckIP(const char* peer) {
    const auto set = configuration_.Current();
    if (set == nullptr) return 3;
    const IpAddress address = IpAddress::Parse(peer).value_or(IpAddress::OfV4(inet_addr(peer)));
    int result = 0;
    for (const IPEntry& entry : set->entries) {
        if (!Matches(entry, address)) continue;
        if (entry.Action == IPEntry::kAllow) return 0;
        result = 2;
    }
    return result;
}

#include "asfilters/ip_list.h"

#include <optional>

#include "platform/socket.h"
#include "trelis/buffered.h"

using asfilters::kValueSize;

namespace {

constexpr char kAddresses[] = "/VTWIN/Filters/AS/AllowDenyIPList/Addresses";

int Read(const std::string& key, char (&value)[kValueSize]) {
    return BufferedGetValue(kLocalStore, key.c_str(), value, kValueSize);
}

// Nothing for an entry that is not complete. An address that can't be read is all ones, and so can
// match 255.255.255.255 or through its mask: an entry is never taken for another address.
std::optional<IPEntry> ReadEntry(const std::string& key) {
    char value[kValueSize];
    IPEntry entry;
    if (Read(key + "/IP", value) < 0) return std::nullopt;
    entry.IP = inet_addr(value);
    if (Read(key + "/Mask", value) >= 0 && value[0] != '\0') {
        entry.Mask = inet_addr(value);
        entry.HasMask = 1;
    }
    if (Read(key + "/Action", value) < 0) return std::nullopt;
    entry.Action = asfilters::DecimalNumber(value);
    if (entry.Action != IPEntry::kAllow && entry.Action != IPEntry::kDeny) return std::nullopt;
    return entry;
}

bool Matches(const IPEntry& entry, std::uint32_t peer) {
    return entry.HasMask != 0 ? ((entry.IP ^ peer) & entry.Mask) == 0 : entry.IP == peer;
}

}  // namespace

CAllowDenyIPList::Set CAllowDenyIPList::Set::Read() {
    Set set;
    asfilters::ChildWalk children(kAddresses);
    for (std::string key; children.Next(key);) {
        if (const std::optional<IPEntry> entry = ReadEntry(key)) set.entries.push_back(*entry);
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
    const std::uint32_t address = inet_addr(peer);
    int result = 0;
    for (const IPEntry& entry : set->entries) {
        if (!Matches(entry, address)) continue;
        if (entry.Action == IPEntry::kAllow) return 0;
        result = 2;
    }
    return result;
}

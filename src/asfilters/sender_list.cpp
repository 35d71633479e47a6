#include "asfilters/sender_list.h"

#include <algorithm>

#include "asfilters/text.h"
#include "asfilters/wildcard.h"
#include "trelis/buffered.h"

namespace {

constexpr char kRoot[] = "/VTWIN/Filters/AS/SenderBlackList";

// The names of the children mean nothing, their values are the list. An empty value is an entry
// like any other.
template <typename Use>
void ForEachValue(const std::string& parent, Use use) {
    asfilters::ChildWalk children(parent);
    char value[asfilters::kValueSize];
    for (std::string key; children.Next(key);) {
        if (BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value) == 0) use(value);
    }
}

}  // namespace

CSenderBlackList::Set CSenderBlackList::Set::Read() {
    Set set;
    const std::string root(kRoot);
    set.sendDenyMessage = asfilters::ReadFlag(root + "/EnabledSendDenyMessage");
    set.dropConnection = asfilters::ReadFlag(root + "/EnabledDropConnection");
    set.denyText = asfilters::ReadDenyText(root);
    ForEachValue(root + "/WildcardsList",
                 [&set](const char* value) { set.wildcards.emplace_back(value); });
    ForEachValue(root + "/UsersList", [&set](char* value) {
        asfilters::MakeLowerCase(value);
        set.users.Add(value);
    });
    set.users.Seal();
    return set;
}

bool CSenderBlackList::Set::Lists(const char* lowerCaseSender) const {
    return std::any_of(wildcards.begin(), wildcards.end(),
                       [lowerCaseSender](const std::string& pattern) {
                           return MatchWildcard(lowerCaseSender, pattern.c_str()) != 0;
                       }) ||
           users.Contains(lowerCaseSender);
}

int CSenderBlackList::Load() {
    configuration_.Load();
    return 0;
}

int CSenderBlackList::CheckSender(char* sender, char* denyText, unsigned denySize) {
    const auto set = configuration_.Current();
    if (set == nullptr) return 3;
    if (sender == nullptr) return -1;
    asfilters::MakeLowerCase(sender);
    const bool listed = set->Lists(sender);
    asfilters::WriteDenyReply(listed && set->sendDenyMessage, set->denyText, denyText, denySize);
    if (!listed) return 0;
    return set->dropConnection ? 2 : 1;
}

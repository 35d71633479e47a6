#include "asfilters/sender_list.h"

#include <algorithm>
#include <optional>

#include "asfilters/text.h"
#include "asfilters/wildcard.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kBlackListKey, name}; }

// The names mean nothing, their values are the list. An empty value is an entry like any other.
template <typename Use>
void ForEachValue(const trelis::Key& key, Use use) {
    trelis::NameWalk names(key);
    for (std::string name; names.Next(name);) {
        if (std::optional<std::string> value = trelis::ReadIfGiven(key, {name})) use(*value);
    }
}

}  // namespace

std::shared_ptr<const CSenderBlackList::Set> CSenderBlackList::Set::Read() {
    if (!trelis::ReadFlag(Key("Enabled"))) return nullptr;
    auto set = std::make_shared<Set>();
    set->sendDenyMessage = trelis::ReadFlag(Key("EnabledSendDenyMessage"));
    set->dropConnection = trelis::ReadFlag(Key("EnabledDropConnection"));
    set->denyText = asfilters::DenyText(trelis::ReadLine(Key("DenyMessage")), trelis::kDenyText);
    ForEachValue(Key("WildcardsList/*"),
                 [&set](const std::string& value) { set->wildcards.push_back(value); });
    ForEachValue(Key("UsersList/*"), [&set](std::string& value) {
        asfilters::MakeLowerCase(value.data());
        set->users.Add(value.c_str());
    });
    set->users.Seal();
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

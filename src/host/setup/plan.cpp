#include "host/setup/plan.h"

#include <algorithm>

#include "trelis/keys/check.h"
#include "trelis/keys/names.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kInterfaceKey, name}; }

std::string GreetingName(const SetupWishes& wishes, const std::string& hostName) {
    const bool full =
        hostName.find('.') != std::string::npos && !hostName.starts_with("localhost.");
    return full || wishes.domains.empty() ? hostName : wishes.domains.front();
}

class Plan {
  public:
    void Set(const trelis::Key& key, const std::string& value) {
        values_.emplace_back(key.Path({kSetupInterface}), value);
    }
    void SetEntry(const trelis::Key& key, std::size_t number, const std::string& value) {
        values_.emplace_back(key.Path({kSetupInterface, std::to_string(number)}), value);
    }
    trelis::Values Take() { return std::move(values_); }

  private:
    trelis::Values values_;
};

}  // namespace

trelis::Values PlanInterface(const SetupWishes& wishes, const std::string& hostName,
                             const std::string& allAddresses) {
    Plan plan;
    plan.Set(Key("GreetingDomainName"), GreetingName(wishes, hostName));
    plan.Set(Key("IPAddress"), wishes.listenAddress.value_or(allAddresses));
    plan.Set(Key("Port"), std::to_string(wishes.port));
    plan.Set(Key("ServerToForward"), wishes.server);
    std::size_t number = 0;
    for (const std::string& each : wishes.domains)
        plan.SetEntry(Key("MailDomains/*"), ++number, each);
    number = 0;
    for (const RelayWish& each : wishes.relays) {
        plan.SetEntry(Key("RelayNetworks/*/IPAddress"), ++number, each.address);
        if (!each.mask.empty()) plan.SetEntry(Key("RelayNetworks/*/Mask"), number, each.mask);
    }
    if (!wishes.certificate.empty()) {
        plan.Set(Key("TLS/Mode"), "offer");
        plan.Set(Key("TLS/Certificate"), wishes.certificate);
        if (!wishes.key.empty()) plan.Set(Key("TLS/Key"), wishes.key);
        plan.Set(Key("AuthOnlyOverTLS"), "Y");
    }
    plan.Set(Key("ServerTLS/Mode"), "try");
    plan.Set(Key("Pipelining"), "Y");
    plan.Set(Key("BareNewline"), "normalize");
    plan.Set(Key("EarlyTalker"), "refuse");
    plan.Set(Key("IdInReplies"), "Y");
    // Each session has a connection to the server of its own, and servers have limits of theirs.
    plan.Set(Key("MaxThreads"), "50");
    // A client is to be borne with for five minutes, and hears soon of a server that is down.
    plan.Set(Key("ConnectionTimeout"), "300");
    plan.Set(Key("ConnectTimeout"), "10");
    return plan.Take();
}

std::string FindFaultInPlan(const trelis::Values& plan) {
    for (const auto& [path, value] : plan) {
        const auto key = trelis::FindByPath(path);
        if (!key) return path + ": no such key";
        if (const auto wanted = trelis::WantedInstead(*key->section, *key->row, value))
            return value + ": it should be " + *wanted;
    }
    return {};
}

bool IsUntouched(const trelis::Values& interface) {
    const std::string name = Key("Name").Path({kSetupInterface});
    return std::all_of(interface.begin(), interface.end(), [&](const auto& each) {
        const auto& [path, value] = each;
        const auto key = trelis::FindByPath(path);
        if (path == name || (!key && value.empty())) return true;
        if (!key) return false;
        const trelis::KeyRow& row = *key->row;
        return value == (row.registered != nullptr ? row.registered : row.fallback);
    });
}

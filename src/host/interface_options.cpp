// The keys of an interface that say how it speaks with the rest of the world.
#include "host/interface_options.h"

#include "logclient/logclient.h"
#include "text/printable.h"
#include "tls/identity.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kInterfaceKey, name}; }

template <typename Word>
Word Choice(const trelis::Key& key, const std::string& interface) {
    return static_cast<Word>(trelis::ReadChoice(key, {interface}));
}

std::vector<std::string> ReadList(const trelis::Key& key, const std::string& interface) {
    std::vector<std::string> values;
    trelis::NameWalk names(key, {interface});
    for (std::string name; names.Next(name);)
        values.push_back(trelis::ReadText(key, {interface, name}));
    return values;
}

TlsIdentitySettings ReadIdentity(const std::string& interface) {
    TlsIdentitySettings settings;
    settings.certificate = trelis::ReadText(Key("TLS/Certificate"), {interface});
    settings.key = trelis::ReadText(Key("TLS/Key"), {interface});
    constexpr const char* kVersions[] = {"1.2", "1.3"};
    settings.minVersion = kVersions[trelis::ReadChoice(Key("TLS/MinVersion"), {interface})];
    settings.ciphers = trelis::ReadText(Key("TLS/Ciphers"), {interface});
    return settings;
}

void Warn(const std::string& interface, const std::string& complaint) {
    const std::string text = "interface " + interface + ": " + complaint;
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

}  // namespace

std::shared_ptr<TlsIdentity> InterfaceIdentities::Find(const std::string& interface) {
    const TlsIdentitySettings settings = ReadIdentity(interface);
    if (settings.certificate.empty()) {
        Warn(interface, "TLS: no certificate is set");
        return nullptr;
    }
    wanted_.insert(interface);
    std::shared_ptr<TlsIdentity>& identity = kept_[interface];
    if (identity == nullptr) identity = std::make_shared<TlsIdentity>();
    identity->Configure(settings);
    // Told at once, not only when the first client comes.
    std::string complaint;
    identity->Context(complaint);
    if (!complaint.empty()) Warn(interface, "TLS: " + complaint);
    return identity;
}

void InterfaceIdentities::ForgetOthers() {
    std::erase_if(kept_, [this](const auto& each) { return !wanted_.contains(each.first); });
    wanted_.clear();
}

ConnectionOptions ReadConnectionOptions(const std::string& interface,
                                        InterfaceIdentities& identities) {
    ConnectionOptions options;
    options.clientTls = Choice<ClientTls>(Key("TLS/Mode"), interface);
    if (options.clientTls != ClientTls::kOff) options.identity = identities.Find(interface);
    options.authOnlyOverTls = trelis::ReadFlag(Key("AuthOnlyOverTLS"), {interface});
    options.serverTls = Choice<ServerTls>(Key("ServerTLS/Mode"), interface);
    options.serverCaFile = trelis::ReadText(Key("ServerTLS/CAFile"), {interface});
    options.serverCertName = trelis::ReadText(Key("ServerTLS/Name"), {interface});
    options.connectTimeout =
        static_cast<std::uint32_t>(trelis::ReadInt(Key("ConnectTimeout"), {interface}));
    options.fallbackServers = ReadList(Key("FallbackServers/*"), interface);
    for (const std::string& text : ReadList(Key("Trust/*"), interface)) {
        if (const auto network = IpNetwork::Parse(text)) {
            options.trusted.push_back(*network);
        } else {
            Warn(interface, "Trust: no address or network: " + CleanText(text));
        }
    }
    options.proxyProtocol = trelis::ReadFlag(Key("ProxyProtocol"), {interface});
    options.tellServer = Choice<TellServer>(Key("TellServer"), interface);
    options.tellServerRequired = trelis::ReadFlag(Key("TellServerRequired"), {interface});
    options.idInReplies = trelis::ReadFlag(Key("IdInReplies"), {interface});
    options.pipelining = trelis::ReadFlag(Key("Pipelining"), {interface});
    options.earlyTalker = Choice<EarlyTalker>(Key("EarlyTalker"), interface);
    options.bareNewline = Choice<BareNewline>(Key("BareNewline"), interface);
    return options;
}

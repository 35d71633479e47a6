// The keys of an interface that say how it speaks with the rest of the world.
#include "host/interface_options.h"

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

}  // namespace

ConnectionOptions ReadConnectionOptions(const std::string& interface) {
    ConnectionOptions options;
    options.clientTls = Choice<ClientTls>(Key("TLS/Mode"), interface);
    options.authOnlyOverTls = trelis::ReadFlag(Key("AuthOnlyOverTLS"), {interface});
    options.serverTls = Choice<ServerTls>(Key("ServerTLS/Mode"), interface);
    options.serverCaFile = trelis::ReadText(Key("ServerTLS/CAFile"), {interface});
    options.serverCertName = trelis::ReadText(Key("ServerTLS/Name"), {interface});
    options.connectTimeout =
        static_cast<std::uint32_t>(trelis::ReadInt(Key("ConnectTimeout"), {interface}));
    options.fallbackServers = ReadList(Key("FallbackServers/*"), interface);
    for (const std::string& text : ReadList(Key("Trust/*"), interface)) {
        // What is no network can't be trusted by mistake.
        if (const auto network = IpNetwork::Parse(text)) options.trusted.push_back(*network);
    }
    options.proxyProtocol = trelis::ReadFlag(Key("ProxyProtocol"), {interface});
    options.tellServer = Choice<TellServer>(Key("TellServer"), interface);
    options.tellServerRequired = trelis::ReadFlag(Key("TellServerRequired"), {interface});
    options.pipelining = trelis::ReadFlag(Key("Pipelining"), {interface});
    options.earlyTalker = Choice<EarlyTalker>(Key("EarlyTalker"), interface);
    options.bareNewline = Choice<BareNewline>(Key("BareNewline"), interface);
    return options;
}

// Settings of one interface that open it to everybody, or contradict each other.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/check/parts.h"
#include "net/address.h"
#include "session/options.h"
#include "session/relay_network.h"
#include "trelis/keys/forms.h"

namespace {

constexpr trelis::Key kScanLimit{trelis::kMailDaemonKey, "MaxFileSize"};
constexpr trelis::Key kPassTooBig{trelis::kMailDaemonKey, "PassWhenTooBig"};

template <typename Word>
Word Choice(const trelis::Key& key, const std::string& interface) {
    return static_cast<Word>(trelis::ReadChoice(key, {interface}));
}

std::string Path(const trelis::Key& key, const std::string& interface) {
    return key.Path({interface});
}

// A network whose clients may relay, by its key.
struct Relays {
    std::string path;
    IpNetwork network;
};

// Wider ones have more people in them than anybody's own clients are.
bool IsWide(const IpNetwork& network) { return network.Bits() < (network.IsV4() ? 8 : 16); }

// With a mask in the place of a prefix. Nothing for one with gaps, which is no network of a router.
std::optional<IpNetwork> AsNetwork(const std::string& address, const std::string& mask) {
    if (mask.empty()) return IpNetwork::Parse(address);
    const std::uint32_t bits = ntohl(IpAddress::Parse(mask)->V4());
    if (std::countl_one(bits) != std::popcount(bits)) return std::nullopt;
    return IpNetwork::Parse(address + '/' + std::to_string(std::popcount(bits)));
}

// Whether each IPv4 address is in one of them: from the end of one to the next.
bool CoverEverybody(const std::vector<Relays>& all) {
    constexpr std::uint64_t kLast = 0xFFFFFFFF;
    for (std::uint64_t at = 0; at <= kLast;) {
        const IpAddress address = IpAddress::OfV4(htonl(static_cast<std::uint32_t>(at)));
        const auto holder = std::find_if(all.begin(), all.end(), [&address](const Relays& each) {
            return each.network.Contains(address);
        });
        if (holder == all.end()) return false;
        at = (at | (kLast >> holder->network.Bits())) + 1;
    }
    return true;
}

// Adds the network, if it is one that lets clients relay and not everybody.
void CheckRelayNetwork(const std::string& interface, const std::string& name,
                       std::vector<Relays>& all, Findings& findings) {
    constexpr trelis::Key kAddress = InterfaceKey("RelayNetworks/*/IPAddress");
    constexpr trelis::Key kMask = InterfaceKey("RelayNetworks/*/Mask");
    const std::string address = trelis::ReadText(kAddress, {interface, name});
    const std::string mask = trelis::ReadText(kMask, {interface, name});
    // What has no form, has been told with its key.
    if (!trelis::IsNetwork(address) || !(mask.empty() || trelis::IsV4Address(mask))) return;
    const std::string path = kAddress.Path({interface, name});
    const std::string maskPath = kMask.Path({interface, name});
    const std::optional<IpAddress> maskBits = IpAddress::Parse(mask);
    const bool noBits = maskBits && maskBits->V4() == 0;
    if (noBits || RelayNetwork(address, mask).IsEverybody()) {
        findings.Error(noBits ? maskPath : path, "everybody may relay: this is an open relay",
                       "name the networks of your own clients only");
    } else if (maskBits && address.find_first_of("/:") != std::string::npos) {
        findings.Error(maskPath, "a mask besides a prefix, so nobody of it may relay",
                       "delete the mask");
    } else if (maskBits && (IpAddress::Parse(address)->V4() & ~maskBits->V4()) != 0) {
        findings.Error(path, "it has bits behind its mask, so nobody of it may relay",
                       "set the network's first address");
    } else if (const auto network = AsNetwork(address, mask)) {
        all.push_back({path, *network});
    }
}

// False if there are none.
bool CheckRelayNetworks(const std::string& interface, Findings& findings) {
    constexpr trelis::Key kList = InterfaceKey("RelayNetworks/*/IPAddress");
    std::vector<Relays> all;
    bool any = false;
    trelis::NameWalk networks(kList, {interface});
    for (std::string name; networks.Next(name); any = true)
        CheckRelayNetwork(interface, name, all, findings);
    if (CoverEverybody(all)) {
        findings.Error(kList.ListPath({interface}),
                       "together they let everybody relay: this is an open relay",
                       "name the networks of your own clients only");
        return any;
    }
    for (const Relays& each : all) {
        if (IsWide(each.network))
            findings.Warn(each.path, "a large part of the Internet may relay",
                          "name the networks of your own clients only");
    }
    return any;
}

void CheckTrust(const std::string& interface, Findings& findings) {
    bool any = false;
    EachEntry(InterfaceKey("Trust/*"), interface,
              [&](const std::string& path, const std::string& text) {
                  any = true;
                  const std::optional<IpNetwork> network = IpNetwork::Parse(text);
                  if (network && network->IsEverybody())
                      findings.Error(path, "everybody is trusted to say which address a client has",
                                     "name your own balancers and mail servers only");
              });
    if (!any && trelis::ReadFlag(InterfaceKey("ProxyProtocol"), {interface}))
        findings.Warn(Path(InterfaceKey("ProxyProtocol"), interface),
                      "nobody's header is taken, for nobody is trusted",
                      "name the balancer in " + InterfaceKey("Trust/*").ListPath({interface}));
}

}  // namespace

void CheckRelaying(const std::string& interface, Findings& findings) {
    const bool relays = CheckRelayNetworks(interface, findings);
    bool domains = false;
    EachEntry(InterfaceKey("MailDomains/*"), interface,
              [&](const std::string&, const std::string&) { domains = true; });
    if (!domains)
        findings.Warn(InterfaceKey("MailDomains/*").ListPath({interface}),
                      relays ? "mail of strangers is refused: there is no domain that it may go to"
                             : "no mail is taken: there is neither a domain nor a network that may "
                               "relay",
                      "set the domains that you receive mail for");
    CheckTrust(interface, findings);
}

void CheckModes(const std::string& interface, Findings& findings) {
    const auto clientTls = Choice<ClientTls>(InterfaceKey("TLS/Mode"), interface);
    if (clientTls == ClientTls::kOff &&
        trelis::ReadFlag(InterfaceKey("AuthOnlyOverTLS"), {interface}))
        findings.Warn(
            Path(InterfaceKey("AuthOnlyOverTLS"), interface),
            "nobody can use AUTH, for there is no TLS",
            "set " + Path(InterfaceKey("TLS/Mode"), interface) + " to offer, or this to N");
    if (Choice<TellServer>(InterfaceKey("TellServer"), interface) == TellServer::kOff &&
        trelis::ReadFlag(InterfaceKey("TellServerRequired"), {interface}))
        findings.Warn(Path(InterfaceKey("TellServerRequired"), interface),
                      "the server isn't told of clients, so this requires nothing",
                      "set " + Path(InterfaceKey("TellServer"), interface) + ", or this to N");
    const auto serverTls = Choice<ServerTls>(InterfaceKey("ServerTLS/Mode"), interface);
    if (serverTls != ServerTls::kVerify && serverTls != ServerTls::kWrapped) {
        constexpr trelis::Key kOfVerified[] = {InterfaceKey("ServerTLS/CAFile"),
                                               InterfaceKey("ServerTLS/Name")};
        for (const trelis::Key& key : kOfVerified) {
            if (!trelis::ReadText(key, {interface}).empty())
                findings.Warn(Path(key, interface), "the server's certificate is not judged by it",
                              "set " + Path(InterfaceKey("ServerTLS/Mode"), interface) +
                                  " to verify, or delete this");
        }
    }
    const auto most = trelis::ReadSize(InterfaceKey("MaxMessageSize"), {interface});
    const auto scanned = trelis::ReadSize(kScanLimit);
    if (most && scanned && (*most == 0 || *most > *scanned) && !trelis::ReadFlag(kPassTooBig))
        findings.Warn(
            Path(InterfaceKey("MaxMessageSize"), interface),
            "larger messages are taken than the scanner looks into; they are put off, and "
            "come again and again",
            "set no more than " + kScanLimit.Path() + " says");
}

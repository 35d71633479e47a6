// Settings of one interface that open it to everybody, or contradict each other.
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

void CheckRelayNetwork(const std::string& interface, const std::string& name, Findings& findings) {
    constexpr trelis::Key kAddress = InterfaceKey("RelayNetworks/*/IPAddress");
    constexpr trelis::Key kMask = InterfaceKey("RelayNetworks/*/Mask");
    const std::string address = trelis::ReadText(kAddress, {interface, name});
    const std::string mask = trelis::ReadText(kMask, {interface, name});
    // What has no form, has been told with its key.
    if (!trelis::IsNetwork(address) || !(mask.empty() || trelis::IsMask(mask))) return;
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
    }
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
    bool relays = false;
    bool domains = false;
    trelis::NameWalk networks(InterfaceKey("RelayNetworks/*/IPAddress"), {interface});
    for (std::string name; networks.Next(name); relays = true)
        CheckRelayNetwork(interface, name, findings);
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

// How an interface speaks with the rest of the world: TLS on both legs, who may tell a client's
// address and whom we tell, the servers to turn to, and what of a client's manners is borne with.
// Nothing here is on unless a key says so. A session keeps what it began with.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/address.h"

class TlsIdentity;

enum class ClientTls {
    kOff,
    kOffer,    // STARTTLS is offered
    kRequire,  // and nothing but a greeting goes before it
    kWrapped   // from the first byte
};
enum class ServerTls {
    kOff,
    kTry,      // where the server offers it and the handshake succeeds
    kRequire,  // or no mail
    kVerify,   // with a certificate that is good and bears the server's name
    kWrapped   // from the first byte
};
enum class TellServer { kOff, kXclient, kXforward, kProxy1, kProxy2 };
enum class EarlyTalker { kIgnore, kRefuse };
enum class BareNewline {
    kAccept,     // as it came, with dots doubled that somebody could take for the end
    kNormalize,  // becomes CR LF
    kReject
};

struct ConnectionOptions {
    ClientTls clientTls = ClientTls::kOff;
    std::shared_ptr<TlsIdentity> identity;  // the certificate that clients see; null: none
    bool authOnlyOverTls = false;

    ServerTls serverTls = ServerTls::kOff;
    std::string serverCaFile;                  // empty: the system's store
    std::string serverCertName;                // empty: the server's host
    std::uint32_t connectTimeout = 30;         // seconds, for each address
    std::vector<std::string> fallbackServers;  // host, or host:port, in the store's order

    std::vector<IpNetwork> trusted;  // who may tell the address of a client
    bool proxyProtocol = false;      // and does so in front of everything else
    TellServer tellServer = TellServer::kOff;
    bool tellServerRequired = false;

    bool idInReplies = false;  // also in those whose text others may rely on

    bool pipelining = false;
    EarlyTalker earlyTalker = EarlyTalker::kIgnore;
    BareNewline bareNewline = BareNewline::kAccept;

    bool Trusts(const IpAddress& address) const {
        return std::any_of(trusted.begin(), trusted.end(),
                           [&](const IpNetwork& network) { return network.Contains(address); });
    }
};

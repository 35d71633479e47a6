// Both ends of a connection, and handshakes between them.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <string>

#include "net/stream.h"
#include "tls/certificates.h"
#include "tls/handshake.h"
#include "tls/identity.h"
#include "tls/trust.h"

// A TCP connection over the loopback.
class Wire {
  public:
    enum class Mode { kNonBlocking, kBlocking };
    // buffer: of the sockets, in bytes; 0: the system's.
    explicit Wire(Mode mode = Mode::kNonBlocking, int buffer = 0);
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;
    ~Wire();

    CSocket Server() const { return CSocket(ends_[0]); }
    CSocket Client() const { return CSocket(ends_[1]); }
    CSocket End(bool server) const { return server ? Server() : Client(); }
    void Close(bool server, bool reset = false);

  private:
    std::array<int, 2> ends_{-1, -1};
};

struct Outcomes {
    TlsOutcome server;
    TlsOutcome client;
};
// What a client wants.
struct Call {
    std::string host{};
    std::string judgeBy{};
    std::chrono::milliseconds limit{10000};
};
Outcomes Shake(const Wire& wire, const TlsContext& server, const TlsContext& client,
               const Call& call = {});

// Server's context of a certificate, without a complaint.
std::shared_ptr<const TlsContext> Serve(TlsIdentity& identity, TlsIdentitySettings settings);
// A server with a certificate for mail.test of an authority of its own.
struct AnyServer {
    explicit AnyServer(const Wish& wish = {});

    Files files;
    Party authority = Party::Authority("authority");
    TlsIdentity identity;
    std::shared_ptr<const TlsContext> context;
};
// A client that judges nobody and speaks this version at most: TLS1_2_VERSION, ...
std::shared_ptr<const TlsContext> ClientOf(int version, const char* ciphers = nullptr);

// A connection with TLS on both sides, as streams.
class Secured {
  public:
    explicit Secured(int version, Wire::Mode mode = Wire::Mode::kNonBlocking, int buffer = 0);

    Wire wire;
    Stream server;
    Stream client;

  private:
    AnyServer server_;
};

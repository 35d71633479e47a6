// The mail servers behind an interface, by the way that a session takes to them: connection, TLS,
// and how they are told of clients; then the greeting and EHLO.
#include "host/check/parts.h"
#include "host/interface_options.h"
#include "net/address.h"
#include "net/socket.h"
#include "session/peers.h"
#include "session/server/connector.h"
#include "session/server/prepare.h"
#include "text/printable.h"
#include "trelis/keys/forms.h"

namespace {

constexpr std::uint32_t kSeconds = 5;  // for each step
constexpr std::size_t kMostShown = 100;

class NobodyWatches final : public ConnectWatch {
  public:
    bool Trying(SOCKET) override { return true; }
    void Failed() override {}
    bool Wanted() override { return true; }
};

class OwnedSocket {
  public:
    OwnedSocket() = default;
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;
    ~OwnedSocket() {
        socket.Shutdown();
        socket.Close();
    }
    CSocket socket;
};

std::string Shown(const ServerReply& reply) {
    std::string_view line = reply.Last();
    return CleanText(line.substr(0, line.find_last_not_of("\r\n") + 1), kMostShown);
}

class ServerCheck {
  public:
    ServerCheck(const std::string& interface, Findings& findings)
        : interface_(interface), findings_(findings) {
        InterfaceIdentities identities;
        settings_.options = ReadConnectionOptions(interface, identities);
        settings_.greetingName = trelis::ReadLine(InterfaceKey("GreetingDomainName"), {interface});
        settings_.connectionTimeout = kSeconds;
    }

    void Check(const std::string& key, const std::string& text);

  private:
    // What an attempt has come to; the plain one is made where TLS is tried and fails.
    enum class Attempt { kDone, kAgainPlain };
    Attempt Try(const ServerAddress& server, bool plain);
    void Greet(ServerLink& link);
    bool IsOurself(const ServerAddress& server) const;
    std::string KeyOf(const trelis::Key& key) const { return key.Path({interface_}); }

    const std::string& interface_;
    Findings& findings_;
    SessionSettings settings_;
    std::string key_;    // of the server that is looked at
    std::string shown_;  // the server
};

void ServerCheck::Check(const std::string& key, const std::string& text) {
    key_ = key;
    const ServerAddress server = ServerAddress::Parse(text);
    shown_ = server.Text();
    if (!trelis::IsMailServer(text)) return;  // has been told with its key
    if (IsOurself(server)) {
        findings_.Error(key_, "the server is this proxy itself, mail would go round",
                        "set the address and port of the mail server behind it");
        return;
    }
    if (Try(server, false) == Attempt::kAgainPlain) Try(server, true);
}

// A proxy that is its own server would open session after session.
bool ServerCheck::IsOurself(const ServerAddress& server) const {
    if (trelis::ReadInt(InterfaceKey("Port"), {interface_}) != server.port) return false;
    const std::string own = trelis::ReadText(InterfaceKey("IPAddress"), {interface_});
    const std::optional<IpAddress> address = ListenAddress(own);
    const std::optional<IpAddress> named = IpAddress::Parse(server.host);
    const bool loopback =
        server.host == "localhost" || server.host == "::1" || server.host.starts_with("127.");
    return address && (address->IsEvery() ? loopback : named == address);
}

ServerCheck::Attempt ServerCheck::Try(const ServerAddress& server, bool plain) {
    OwnedSocket connection;
    NobodyWatches watch;
    const ServerConnection made =
        ConnectToServers({server}, std::chrono::seconds(kSeconds), watch, connection.socket);
    if (made.failure != ConnectFailure::kNone) {
        const bool unknown = made.failure == ConnectFailure::kUnknownHost;
        findings_.Error(key_, "no connection to the mail server, " + made.reason,
                        unknown ? "see whether the name is right, and the resolver works"
                                : "start the server, or set the address and port where it listens");
        return Attempt::kDone;
    }
    Stream nobody;
    ServerLink link(settings_);
    link.Attach(connection.socket);
    Peers peers{settings_, nobody, link};
    peers.identity.address = peers.identity.destination = IpAddress::OfV4(htonl(INADDR_LOOPBACK));
    peers.identity.port = peers.identity.destinationPort = server.port;
    const Preparation done = PrepareServer(peers, server.host, plain);
    const std::string problem = shown_ + ": " + CleanText(done.text, kMostShown);
    switch (done.outcome) {
        case Prepared::kReady:
            Greet(link);
            break;
        case Prepared::kRetryPlain:
            findings_.Warn(KeyOf(InterfaceKey("ServerTLS/Mode")),
                           "TLS with the server fails, mail goes on without; " + problem,
                           "see to the server's certificate and its TLS, or set this to off");
            break;
        case Prepared::kNoTls:
            findings_.Error(KeyOf(InterfaceKey("ServerTLS/Mode")),
                            "no TLS with the server, its mail is put off; " + problem,
                            "see to the server's certificate and its TLS, or set this to try");
            break;
        case Prepared::kNotTold:
            findings_.Error(KeyOf(InterfaceKey("TellServerRequired")),
                            "the server can't be told of clients, mail is put off; " + problem,
                            "let the server take it from this host, or set this to N");
            break;
        case Prepared::kRefused:
        case Prepared::kFailed:
            findings_.Error(key_, "the mail server doesn't serve us, " + problem,
                            "see the server's log, and whether it lets this host in");
            break;
    }
    const bool again = done.outcome == Prepared::kRetryPlain;
    link.Detach();
    return again ? Attempt::kAgainPlain : Attempt::kDone;
}

void ServerCheck::Greet(ServerLink& link) {
    ServerReply reply;
    const char* const remedy = "see the server's log, and whether it lets this host in";
    if (!link.ReadReply(reply)) {
        findings_.Error(key_, shown_ + " doesn't greet within " + std::to_string(kSeconds) + " s",
                        "see whether a mail server listens there, and why it waits");
        return;
    }
    if (!reply.Is("220")) {
        findings_.Error(key_, shown_ + " greets with \"" + Shown(reply) + "\"", remedy);
        return;
    }
    if (!link.Ask("EHLO localhost\r\n", reply))
        findings_.Error(key_, shown_ + " doesn't answer EHLO", remedy);
    else if (!reply.Is("250"))
        findings_.Error(key_, shown_ + " answers EHLO with \"" + Shown(reply) + "\"", remedy);
    link.Ask("QUIT\r\n", reply);
}

}  // namespace

void CheckServers(const std::string& interface, Findings& findings) {
    ServerCheck check(interface, findings);
    constexpr trelis::Key kServer = InterfaceKey("ServerToForward");
    check.Check(kServer.Path({interface}), trelis::ReadText(kServer, {interface}));
    EachEntry(InterfaceKey("FallbackServers/*"), interface,
              [&](const std::string& key, const std::string& text) { check.Check(key, text); });
}

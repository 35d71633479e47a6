#include "session/server/prepare.h"

#include <algorithm>
#include <optional>

#include "session/client/proxy_header.h"
#include "session/secure.h"
#include "text/ascii.h"
#include "tls/trust.h"

namespace {

// What a reply to EHLO offers of what the proxy uses itself.
struct Offers {
    bool startTls = false;
    std::optional<std::string> xclient;  // the words behind it
    std::optional<std::string> xforward;
};

Offers ReadOffers(std::string_view reply) {
    Offers offers;
    while (!reply.empty()) {
        const std::size_t end = std::min(reply.find('\n'), reply.size() - 1) + 1;
        std::string_view line = reply.substr(0, end);
        reply.remove_prefix(end);
        line = line.substr(std::min<std::size_t>(4, line.size()));
        line = line.substr(0, line.find_last_not_of("\r\n ") + 1);
        const std::size_t blank = std::min(line.find(' '), line.size());
        const std::string_view keyword = line.substr(0, blank);
        const std::string words(line.substr(std::min(blank + 1, line.size())));
        if (EqualIgnoringCase(keyword, "STARTTLS")) offers.startTls = true;
        if (EqualIgnoringCase(keyword, "XCLIENT")) offers.xclient = words;
        if (EqualIgnoringCase(keyword, "XFORWARD")) offers.xforward = words;
    }
    return offers;
}

class Preparing {
  public:
    Preparing(Peers& peers, const std::string& host, bool plain)
        : peers_(peers), options_(peers.settings.options), host_(host), plain_(plain) {}

    Preparation Run();

  private:
    Preparation StartTls();
    Preparation Handshake(Prepared otherwise);
    Preparation PlanToTell();
    bool Greet();

    Peers& peers_;
    const ConnectionOptions& options_;
    const std::string& host_;
    const bool plain_;
    ServerReply greeting_;
    Offers offers_;
};

Preparation Preparing::Run() {
    const TellServer tell = options_.tellServer;
    if (tell == TellServer::kProxy1 || tell == TellServer::kProxy2) {
        const std::string header = tell == TellServer::kProxy1 ? ProxyHeaderV1(peers_.identity)
                                                               : ProxyHeaderV2(peers_.identity);
        if (!peers_.server.Send(header)) return {Prepared::kFailed, "closed"};
    }
    if (options_.serverTls == ServerTls::kWrapped) {
        if (Preparation done = Handshake(Prepared::kNoTls); done.outcome != Prepared::kReady)
            return done;
    }
    const bool startTls =
        options_.serverTls != ServerTls::kOff && options_.serverTls != ServerTls::kWrapped;
    const bool command = tell == TellServer::kXclient || tell == TellServer::kXforward;
    if (!startTls && !command) return {};

    if (!peers_.server.ReadReply(greeting_)) return {Prepared::kFailed, "no greeting"};
    if (!greeting_.Is("220")) return {Prepared::kRefused, greeting_.text};
    if (!Greet()) return {Prepared::kFailed, "no reply to EHLO"};
    if (startTls) {
        if (Preparation done = StartTls(); done.outcome != Prepared::kReady) return done;
    }
    Preparation done = PlanToTell();
    if (done.outcome == Prepared::kReady) peers_.server.HoldReply(std::move(greeting_));
    return done;
}

// Learns what the server offers. False: the connection is of no use.
bool Preparing::Greet() {
    ServerReply reply;
    if (!peers_.server.Ask("EHLO " + EhloName(peers_.settings.greetingName) + "\r\n", reply) ||
        reply.Is("421"))
        return false;
    // A server that knows no EHLO offers nothing.
    offers_ = reply.Is("250") ? ReadOffers(reply.text) : Offers{};
    return true;
}

Preparation Preparing::StartTls() {
    const bool optional = options_.serverTls == ServerTls::kTry;
    if (optional && plain_) return {};
    if (!offers_.startTls) {
        return optional ? Preparation{}
                        : Preparation{Prepared::kNoTls, "the server offers no STARTTLS"};
    }
    const Prepared otherwise = optional ? Prepared::kRetryPlain : Prepared::kNoTls;
    ServerReply reply;
    if (!peers_.server.Ask("STARTTLS\r\n", reply)) return {otherwise, "no reply to STARTTLS"};
    if (!reply.Is("220")) {
        return optional ? Preparation{} : Preparation{Prepared::kNoTls, "STARTTLS is refused"};
    }
    // What came with the reply, somebody on the way has put there.
    if (peers_.server.HasReadAhead()) return {otherwise, "text behind STARTTLS"};
    Preparation done = Handshake(otherwise);
    // What it offered before, somebody on the way may have written. A server that dislikes our side
    // of a handshake of TLS 1.3 closes only now.
    if (done.outcome == Prepared::kReady && !Greet())
        return {otherwise, "no reply to EHLO behind TLS"};
    return done;
}

Preparation Preparing::Handshake(Prepared otherwise) {
    const bool named = !options_.serverCaFile.empty() || !options_.serverCertName.empty();
    const bool judge = options_.serverTls == ServerTls::kVerify ||
                       (options_.serverTls == ServerTls::kWrapped && named);
    std::string complaint;
    const std::shared_ptr<const TlsContext> context =
        judge ? TlsClientContext(options_.serverCaFile, complaint) : TlsClientContext();
    if (context == nullptr) return {otherwise, complaint.empty() ? "no memory" : complaint};
    const std::string& name = options_.serverCertName.empty() ? host_ : options_.serverCertName;
    // It is also the name that the server is asked for: one at an address may have several.
    TlsOutcome outcome = TlsConnect(peers_.server.Socket(), *context, name, judge ? name : "",
                                    HandshakeLimit(peers_.settings));
    if (outcome.transport == nullptr) return {otherwise, outcome.failure};
    peers_.server.Secure(std::move(outcome.transport));
    return {};
}

// The client's own name belongs to what is told, so it is told in front of the client's first
// command (XCLIENT), or in front of each message (XFORWARD).
Preparation Preparing::PlanToTell() {
    const TellServer tell = options_.tellServer;
    if (tell != TellServer::kXclient && tell != TellServer::kXforward) return {};
    const std::optional<std::string>& offer =
        tell == TellServer::kXclient ? offers_.xclient : offers_.xforward;
    if (offer && !offer->empty()) {  // one without attributes takes none
        peers_.server.tellOffer = *offer;
        peers_.server.xclientDue = tell == TellServer::kXclient;
    } else if (options_.tellServerRequired) {
        return {Prepared::kNotTold, tell == TellServer::kXclient ? "the server offers no XCLIENT"
                                                                 : "the server offers no XFORWARD"};
    }
    return {};
}

}  // namespace

Preparation PrepareServer(Peers& peers, const std::string& host, bool plain) {
    return Preparing(peers, host, plain).Run();
}

std::string EhloName(const std::string& text) {
    std::string name = text.substr(0, text.find_first_of(" \t"));
    if (name.starts_with('[') || std::any_of(name.begin(), name.end(), IsLetter)) return name;
    return "[" + (name.empty() ? "127.0.0.1" : name) + "]";
}

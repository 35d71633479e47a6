// What stands in front of a session's dialogue: who the client is, and a server for it.
#include <algorithm>
#include <chrono>

#include "asfilters/asfilters.h"
#include "logclient/logclient.h"
#include "metrics/count.h"
#include "session/client/proxy_header.h"
#include "session/dialogue/unserved.h"
#include "session/secure.h"
#include "session/server/outage.h"
#include "session/server/prepare.h"
#include "session/session.h"

namespace {

constexpr std::uint32_t kLongestHeader = 30;  // seconds
constexpr std::string_view kNobodyTold = "451 4.3.2 No client has been named, no mail is taken\r\n";
constexpr std::string_view kNoConnection = "No connection to the mail server";
constexpr std::string_view kNoTls =
    "454 4.7.0 TLS not available to the mail server, try again later\r\n";

}  // namespace

// A stop of the service ends what goes on while one of these lives.
class CSMTPProxy::Interruptible {
  public:
    explicit Interruptible(CSMTPProxy& session) : session_(session) {
        session_.waitingForCommand_ = true;
    }
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;
    ~Interruptible() { session_.waitingForCommand_ = false; }

  private:
    CSMTPProxy& session_;
};

bool CSMTPProxy::LearnClient() {
    SocketAddress peer;
    SocketAddress own;
    clientSocket_.GetPeerAddress(peer);
    // A connection that has broken already has no peer to be judged, and sends nothing any more.
    // Where balancers look whether we are there, it has been such a look.
    if (!peer.Known()) return !settings_.options.proxyProtocol;
    // Nobody else wants to know it.
    const ConnectionOptions& options = settings_.options;
    if (options.proxyProtocol || options.tellServer != TellServer::kOff)
        clientSocket_.GetOwnAddress(own);
    peers_.ownAddress = IpAddress::Of(peer);
    peers_.journal.session.peer = peers_.ownAddress.Text();
    ClientIdentity& identity = peers_.identity;
    identity.address = peers_.ownAddress;
    identity.port = peer.Port();
    identity.destination = IpAddress::Of(own);
    identity.destinationPort = own.Port();
    if (!options.proxyProtocol || !options.Trusts(identity.address)) return true;
    const Interruptible scope(*this);
    if (stopRequested_) return false;
    const Deadline deadline(std::min(kLongestHeader, settings_.connectionTimeout));
    const ProxyHeader header = ReadProxyHeader(clientSocket_, deadline, identity);
    nobodyTold_ = header == ProxyHeader::kLocal;
    if (header == ProxyHeader::kTold) identity.toldBy = peers_.ownAddress.Text();
    return header != ProxyHeader::kBroken;
}

bool CSMTPProxy::IsClientDenied() {
    const bool known = peers_.identity.address != IpAddress();
    peers_.state.SetPeer(peers_.identity.address);
    peers_.address = known ? peers_.identity.address.Text() : "Unknown";
    // Whoever has been told of speaks for nobody, though somebody trusted may have put him through.
    peers_.trusted = known && settings_.options.Trusts(peers_.identity.address);
    SessionRecord& record = peers_.journal.session;
    record.peer = peers_.address;
    record.toldBy = peers_.identity.toldBy;
    record.helo = peers_.identity.helo;
    peers_.relayAllowed = known && settings_.MayRelay(peers_.identity.address);
    const std::shared_ptr<asfilters::CASFilters> filters = ShareASFilters();
    if (!known || filters == nullptr || filters->CheckIP(peers_.address.c_str()) != 2) return false;
    metrics::Add<metrics::Metric::kFilterHits>(metrics::Filter::kIpList);
    peers_.SendStatEvent(80, nullptr, nullptr);
    record.ended = kEndedDenied;
    return true;
}

void CSMTPProxy::Serve() {
    peers_.state.SetPhase(SessionPhase::kConnecting);
    if (!configured_ || !SecureWrapped()) return;
    peers_.pipelining = peers_.authenticated = peers_.untold = false;
    peers_.helo.clear();  // who speaks now has not said it
    peers_.proto.clear();
    if (nobodyTold_) return AnswerWithoutServer(peers_, *this, kNobodyTold);
    if (!OpenServer()) return;
    Conversation(peers_, spool_).Run(*this);
    if (!server_.HasSpoken()) AnswerLoss("no greeting");
}

bool CSMTPProxy::SecureWrapped() {
    if (settings_.options.clientTls != ClientTls::kWrapped || client_.Secured()) return true;
    const std::shared_ptr<const TlsContext> context = ClientContext(settings_.options);
    return context != nullptr && Handshake(*context);
}

bool CSMTPProxy::Handshake(const TlsContext& context) {
    const Interruptible scope(*this);
    return !stopRequested_ && SecureClient(peers_, context);
}

bool CSMTPProxy::OpenServer() {
    for (bool plain = false; ConnectToServer(); plain = true) {
        server_.Attach(serverSocket_);
        const Preparation done = PrepareServer(peers_, settings_.forwardHost, plain);
        SetConnecting(false);
        if (stopRequested_) {  // which may have cut the preparation
            AnswerOutage(ConnectFailure::kGivenUp);
            return false;
        }
        const ServerAddress server{settings_.forwardHost, settings_.forwardPort};
        switch (done.outcome) {
            case Prepared::kReady:
                return true;
            case Prepared::kRetryPlain:
                LogOutage(server, "TLS with the mail server failed, mail goes on without",
                          done.text);
                DropServer();
                continue;
            case Prepared::kRefused:
                peers_.SendReply(done.text);
                client_.EndSending();
                return false;
            case Prepared::kFailed:
                AnswerLoss(done.text);
                return false;
            case Prepared::kNoTls:
                LogOutage(server, "No TLS with the mail server, its mail waits", done.text);
                break;
            case Prepared::kNotTold:
                LogOutage(server, "The mail server can't be told of clients, mail waits",
                          done.text);
                break;
        }
        DropServer();
        AnswerWithoutServer(peers_, *this,
                            done.outcome == Prepared::kNoTls ? kNoTls : kClientUntold);
        return false;
    }
    return false;
}

bool CSMTPProxy::ConnectToServer() {
    SetConnecting(true);
    const ServerConnection made =
        ConnectToServers(settings_.servers, std::chrono::seconds(settings_.options.connectTimeout),
                         *this, serverSocket_);
    if (!made.reason.empty() && !stopRequested_)  // also where another stands in
        LogOutage(settings_.servers.front(), kNoConnection, made.reason);
    if (made.failure != ConnectFailure::kNone) {
        SetConnecting(false);
        AnswerOutage(made.failure);
        return false;
    }
    settings_.forwardHost = made.server.host;
    settings_.forwardPort = made.server.port;
    return true;
}

// Until the server is prepared a stop ends the wait for it.
void CSMTPProxy::SetConnecting(bool connecting) {
    const std::lock_guard lock(handleMutex_);
    connecting_ = connecting;
}

void CSMTPProxy::DropServer() {
    server_.Detach();
    {
        const std::lock_guard lock(handleMutex_);
        serverHandle_ = 0;
    }
    serverSocket_.Shutdown();
    serverSocket_.Close();
}

bool CSMTPProxy::Trying(SOCKET socket) {
    const std::lock_guard lock(handleMutex_);
    serverHandle_ = socket;
    return !stopRequested_;
}

void CSMTPProxy::Failed() {
    const std::lock_guard lock(handleMutex_);
    serverHandle_ = 0;
}

bool CSMTPProxy::Wanted() { return !stopRequested_ && !client_.PeerGone(); }

void CSMTPProxy::AnswerOutage(ConnectFailure failure) {
    if (stopRequested_) failure = ConnectFailure::kGivenUp;
    peers_.journal.session.ended = kEndedOutage;
    peers_.SendReply(peers_.Own(OutageReply(settings_.greetingName, failure)));
    client_.EndSending();
}

void CSMTPProxy::AnswerLoss(const std::string& reason) {
    const ServerAddress server{settings_.forwardHost, settings_.forwardPort};
    // Of a client that has gone the server is not to blame.
    if (!stopRequested_ && !client_.HasException())
        LogOutage(server, kNoConnection, server.Text() + ": " + reason);
    AnswerOutage(ConnectFailure::kNone);
}

#include "session/peers.h"

#include "libstats/libstats.h"
#include "session/client/xclient.h"

namespace {

constexpr int kAgentId = 4;
constexpr int kServiceId = 22;
constexpr int kObjectStatus = 30;
constexpr int kActionMask = 62;
constexpr int kAllIsWell = 0;
constexpr int kPeerLost = 255;

}  // namespace

int KeepAlive(void* context) {
    auto* peers = static_cast<Peers*>(context);
    if (peers == nullptr) return kPeerLost;
    // A client that has closed gets no answer any more: it will send the message again, so this one
    // is not worth the scan.
    const bool alive = peers->server.Noop() && !peers->client.PeerGone();
    peers->lost = peers->lost || !alive;
    return alive ? kAllIsWell : kPeerLost;
}

bool Peers::AnswerInsteadOfServer(std::string_view answer) {
    ServerReply reply;
    const bool inStep = server.Ask("RSET\r\n", reply) && !reply.Is("421");
    const bool sent = client.Send(answer);
    if (sent) journal.Replied(answer);
    return sent && inStep;
}

bool Peers::TellOfClient() {
    // It may offer neither, which is borne with unless it is required.
    if (server.tellOffer.empty()) return true;
    ClientIdentity told = identity;
    if (told.helo.empty()) told.helo = helo;
    if (told.proto.empty()) told.proto = proto;
    const bool xclient = settings.options.tellServer == TellServer::kXclient;
    const std::vector<std::string> commands = xclient ? XclientCommands(told, server.tellOffer)
                                                      : XforwardCommands(told, server.tellOffer);
    bool all = !commands.empty();
    for (const std::string& command : commands) {
        ServerReply reply;
        if (!server.Ask(command, reply) || reply.Is("421")) return false;
        all = all && reply.Is("2");
    }
    untold = !all && settings.options.tellServerRequired;
    return true;
}

void Peers::SendStatEvent(int eventCode, const char* sender, const char* recipient) const {
    libstats::CLibStats* statistics = GetLibStats();
    libstats::CStatsRequest* record = statistics == nullptr ? nullptr : CreateStatsRequest();
    if (record == nullptr) return;
    record->SetTargetHost(address.c_str());
    record->SetSourceHost(address.c_str());
    record->SetAgentId(kAgentId);
    record->SetServiceId(kServiceId);
    record->SetEventCode(eventCode);
    record->SetObjectStatus(kObjectStatus);
    record->SetActionMask(kActionMask);
    if (sender != nullptr) record->SetSender(sender);
    if (recipient != nullptr) record->AddRecipient(recipient);
    statistics->PostRequest(record);
    FreeStatsRequest(record);
}

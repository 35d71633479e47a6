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
    return client.Send(answer) && inStep;
}

Peers::Told Peers::TellOfClient() {
    if (settings.options.tellServer != TellServer::kXforward) return Told::kYes;
    ClientIdentity told = identity;
    if (told.helo.empty()) told.helo = helo;
    if (told.proto.empty()) told.proto = proto;
    const std::vector<std::string> commands = XforwardCommands(told, server.xforwardOffer);
    Told outcome = commands.empty() ? Told::kNo : Told::kYes;
    for (const std::string& command : commands) {
        ServerReply reply;
        if (!server.Ask(command, reply) || reply.Is("421")) return Told::kFailed;
        if (!reply.Is("2")) outcome = Told::kNo;
    }
    return outcome;
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

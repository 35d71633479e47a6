#include "session/peers.h"

#include <algorithm>
#include <iterator>

#include "libstats/libstats.h"
#include "metrics/count.h"
#include "session/client/xclient.h"

namespace {

constexpr int kAgentId = 4;
constexpr int kServiceId = 22;
constexpr int kObjectStatus = 30;
constexpr int kActionMask = 62;
constexpr int kAllIsWell = 0;

// Refusals that have always had these words.
constexpr std::string_view kKnownRefusals[] = {
    "452 Requested action not taken: insufficient system storage",
    "501 Unknown command",
    "503 Bad sequence of commands",
    "550 5.7.1 Message Rejected",
    "550 Rejected by Vantrel.",
    "550 Unable to relay",
};
constexpr int kPeerLost = 255;

// A piece that ends within a reply, or in the middle of a line, is none.
void CountReply(std::string_view text) {
    if (text.size() < 4 || text.back() != '\n') return;
    std::string_view last = text;
    // Nearly all have one line, and to look for its end from the front is quicker.
    if (text.find('\n') + 1 != text.size())
        last.remove_prefix(text.rfind('\n', text.size() - 2) + 1);
    if (last.size() < 4 || last[3] == '-' || last[0] < '2' || last[0] > '5') return;
    metrics::Add<metrics::Metric::kReplies>(static_cast<std::size_t>(last[0] - '2'));
}

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

std::string Peers::Own(std::string_view refusal, Wording wording) const {
    const std::string_view words = refusal.substr(0, refusal.find_last_not_of("\r\n") + 1);
    const bool known = wording == Wording::kKnown ||
                       std::find(std::begin(kKnownRefusals), std::end(kKnownRefusals), words) !=
                           std::end(kKnownRefusals);
    return known && !settings.options.idInReplies ? std::string(refusal) : journal.WithId(refusal);
}

bool Peers::SendReply(std::string_view text) {
    CountReply(text);
    return client.Send(text);
}

bool Peers::QueueReply(std::string_view text) {
    CountReply(text);
    return client.Queue(text);
}

bool Peers::AnswerInsteadOfServer(std::string_view answer) {
    ServerReply reply;
    const bool inStep = server.Ask("RSET\r\n", reply) && !reply.Is("421");
    const bool sent = SendReply(answer);
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

#include "session/message/relay.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "logclient/logclient.h"
#include "platform/library.h"
#include "text/ascii.h"

namespace {

constexpr long long kBlockSize = 32768;
constexpr std::string_view kRejected = "550 Rejected by Vantrel.\r\n";
constexpr std::string_view kNotChecked =
    "451 4.3.0 Message could not be checked, try again later\r\n";
constexpr std::string_view kDropped = "250 2.0.0 Ok\r\n";
constexpr std::string_view kEndOfData = "\r\n.\r\n";
// What of a large message goes out between two looks at its client.
constexpr long long kPiece = 1 << 20;
// Room in front of a block for its bdat command.
constexpr std::size_t kCommandRoom = 32;
constexpr UINT kRedirectRefusedString = 5602;

TextList SplitAddresses(const std::string& text) {
    TextList pieces;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(";,", at), text.size());
        if (end > at) pieces.emplace_back(text, at, end - at);
        at = end + 1;
    }
    return pieces;
}

std::string_view WordOf(Verdict verdict) {
    switch (verdict) {
        case VERDICT_FORWARD:
            return kVerdictForward;
        case VERDICT_REJECT:
            return kVerdictReject;
        case VERDICT_DROP:
            return kVerdictDrop;
        case VERDICT_FAILED:
            break;
    }
    return kVerdictFailed;
}

}  // namespace

int MessageRelay::Run(int* expectReply) {
    std::string redirectAddresses;
    peers_.state.SetPhase(SessionPhase::kScanning);
    verdict_ = ScanMessage(peers_, envelope_, spool_, redirectAddresses);
    redirects_ = SplitAddresses(redirectAddresses);
    peers_.state.SetPhase(SessionPhase::kRelaying);
    peers_.journal.Scanned(WordOf(verdict_));
    bool goOn = false;
    if (verdict_ == VERDICT_FAILED) {
        spool_.KeepName();
        goOn = AnswerFailedScan(expectReply);
    } else {
        switch (spool_.LookAgain()) {
            case SpoolFile::Found::kWhole:
                goOn = Deliver(expectReply);
                break;
            case SpoolFile::Found::kGone:
                // The daemon has taken the message away: the reply to the RSET is the client's.
                peers_.journal.message.verdict = kVerdictDrop;
                goOn = peers_.server.Send("RSET\r\n") && AnswerDropped(expectReply);
                break;
            case SpoolFile::Found::kUnreadable:
                peers_.journal.message.verdict = kVerdictFailed;
                goOn = AnswerFailedScan(expectReply);  // it must not be called accepted
                break;
        }
    }
    spool_.Remove();
    return goOn ? 1 : 0;
}

// Nothing may be delivered unscanned, and nothing may be lost: the client keeps the message and is
// told to come back.
bool MessageRelay::AnswerFailedScan(int* expectReply) {
    *expectReply = 0;
    // A server that didn't answer a NOOP in time may do so yet: its replies would be one behind
    // from now on, and one recipient's pass for another's.
    return !peers_.lost && peers_.AnswerInsteadOfServer(peers_.Own(kNotChecked));
}

bool MessageRelay::Deliver(int* expectReply) {
    const bool refused = verdict_ == VERDICT_REJECT || verdict_ == VERDICT_DROP;
    if (refused) {
        FreeTextList(envelope_.recipients);
        if (!peers_.server.Send("RSET\r\n")) return false;
    }
    if (refused && !redirects_.empty() && !OpenFreshEnvelope()) return false;
    if (!refusal_.empty()) return AnswerRefusal(expectReply);
    if (!AddRedirects() || peers_.client.HasException()) return false;
    if ((!refused || !redirects_.empty()) && !SendMessage()) return false;
    if (!refusal_.empty()) return AnswerRefusal(expectReply);
    if (verdict_ == VERDICT_DROP && redirects_.empty()) return AnswerDropped(expectReply);
    if (verdict_ != VERDICT_REJECT) return true;
    *expectReply = 0;
    if (!peers_.server.ReadReply(reply_)) return false;
    peers_.journal.TakeQueueId(reply_.Last());
    return Answer(peers_.Own(kRejected));
}

// The answer is the server's to the RSET. But a sender doesn't hear of a message that is dropped: a
// server that has had enough of this session ends it with the client's next command.
bool MessageRelay::AnswerDropped(int* expectReply) {
    *expectReply = 0;
    if (!peers_.server.ReadReply(reply_)) return false;
    if (!reply_.Refuses()) return Answer(reply_.text);
    Answer(kDropped);
    return false;
}

// The client's answer, if it isn't the server's next reply.
bool MessageRelay::Answer(std::string_view text) {
    if (!peers_.SendReply(text)) return false;
    peers_.journal.Replied(text);
    return true;
}

// The server takes no message from this client, or not this one: that is the client's answer, and
// the session goes on, unless the server has said that it closes.
bool MessageRelay::AnswerRefusal(int* expectReply) {
    *expectReply = 0;
    if (!refusal_.starts_with("421")) return peers_.AnswerInsteadOfServer(refusal_);
    Answer(refusal_);  // the session ends either way
    return false;
}

// A message that was rejected anyway keeps the reason that its client has to hear: for a passing
// fault of the copy to the redirects it would come again and again.
void MessageRelay::NoteRefusal() {
    refusal_ = verdict_ == VERDICT_REJECT ? peers_.Own(kRejected) : reply_.text;
}

// False ends the session; refusal_ says if the server wants the sender no more, or keeps what it
// has.
bool MessageRelay::OpenFreshEnvelope() {
    if (!peers_.server.ReadReply(reply_) || !envelope_.savedMailLine.has_value()) return false;
    // A server that keeps the old envelope could give the message to its recipients.
    if (!reply_.Refuses()) {
        if (peers_.settings.options.tellServer == TellServer::kXforward && !peers_.TellOfClient())
            return false;
        if (peers_.untold) {
            reply_.text = peers_.Own(kClientUntold);
        } else if (!peers_.server.Ask(*envelope_.savedMailLine, reply_)) {
            return false;
        }
    }
    if (reply_.Refuses()) NoteRefusal();
    return true;
}

bool MessageRelay::AddRedirects() {
    for (const std::string& address : redirects_) {
        // One with a line end would be a command more, and all replies one behind.
        if (std::any_of(address.begin(), address.end(), IsControl)) {
            TellRefusedRedirect(address);
            continue;
        }
        if (!peers_.server.Ask("RCPT TO: " + address + "\r\n", reply_)) return false;
        if (reply_.Refuses()) TellRefusedRedirect(address);
    }
    return true;
}

void MessageRelay::TellRefusedRedirect(const std::string& address) const {
    char format[128];
    LoadStringA(nullptr, kRedirectRefusedString, format, sizeof format);
    // The text is our own format with one %s; the address only fills it.
    std::string message(format);
    if (const std::size_t at = message.find("%s"); at != std::string::npos)
        message.replace(at, 2, address);
    // Lost if the logger is down: the message is not held up for it.
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, peers_.settings.forwardHost.c_str(),
                  nullptr, message.c_str());
}

bool MessageRelay::SendMessage() {
    if (envelope_.messagePhase == PHASE_BDAT) return SendAsChunks();
    if (!peers_.server.AskForData(reply_)) return false;
    if (reply_.Is("354")) return SendAsData();
    if (reply_.Refuses()) NoteRefusal();
    return !refusal_.empty();
}

bool MessageRelay::SendAsData() {
    // In one piece: one segment less for each small message.
    if (const auto kept = spool_.Kept())
        return peers_.server.Queue(*kept) && peers_.server.Send(kEndOfData);
    const long long size = spool_.Size();
    for (long long at = 0; at < size; at += kPiece) {
        if (!peers_.server.SendFile(spool_.File(), at, std::min(kPiece, size - at)) ||
            peers_.client.HasException())
            return false;
    }
    return peers_.server.Send(kEndOfData);
}

// Each chunk's command goes out with its block in one piece.
bool MessageRelay::SendAsChunks() {
    // A server that knows no BDAT would take the message's lines for commands, and could be given
    // another message among them. Where it hasn't said that it knows it, an empty chunk asks.
    if (!peers_.server.takesChunks) {
        if (!peers_.server.Ask("bdat 0  \r\n", reply_)) return false;
        if (reply_.Refuses()) {
            NoteRefusal();
            return true;
        }
    }
    const std::optional<std::string_view> kept = spool_.Kept();
    const auto buffer = std::make_unique_for_overwrite<char[]>(kCommandRoom + kBlockSize);
    char* const block = buffer.get() + kCommandRoom;
    const long long size = spool_.Size();
    for (long long at = 0;;) {
        const auto count = static_cast<std::size_t>(std::min(kBlockSize, size - at));
        if (kept) {
            kept->copy(block, count, static_cast<std::size_t>(at));
        } else if (spool_.File().ReadAt(at, block, count) != static_cast<long long>(count)) {
            return false;
        }
        if (peers_.client.HasException()) return false;
        at += static_cast<long long>(count);
        const bool last = at >= size;
        char line[kCommandRoom];
        const int length = std::snprintf(line, sizeof line, "bdat %d %s \r\n",
                                         static_cast<int>(count), last ? "last" : "");
        std::memcpy(block - length, line, static_cast<std::size_t>(length));
        if (!peers_.server.Send({block - length, static_cast<std::size_t>(length) + count}))
            return false;
        if (last) return true;  // its reply is the answer to the message
        // Each chunk has a reply of its own; left unread, all later replies would be out of step.
        if (!peers_.server.ReadReply(reply_)) return false;
        if (!reply_.Refuses()) continue;
        NoteRefusal();
        return true;
    }
}

// The message phase: reception, scan, and what the verdict asks for. What is left in expectReply
// says who answers the client: 1, a reply of the server is on its way; 0, the client has its
// answer.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "logclient/logclient.h"
#include "platform/resource.h"
#include "scanclient/scanclient.h"
#include "session/normalize.h"
#include "session/session.h"

namespace {

constexpr int kReplySize = 300;
constexpr char kRejected[] = "550 Rejected by Vantrel.\r\n";
constexpr char kNotChecked[] = "451 4.3.0 Message could not be checked, try again later\r\n";
constexpr char kEndOfData[] = "\r\n.\r\n";
constexpr int kEndOfDataSize = sizeof kEndOfData - 1;
// Room in front of a block for its bdat command.
constexpr int kCommandRoom = 32;
constexpr int kRelayBuffer = kCommandRoom + kBlockSize + kEndOfDataSize;

constexpr std::int32_t kMaskForward = 1;
constexpr std::int32_t kMaskDrop = 2;
constexpr std::int32_t kMaskReject = 4;
constexpr std::int32_t kMaskRejectToo = 8;

bool IsRefusal(const char* reply) { return reply[0] == '5' || reply[0] == '4'; }

// The texts of a record are the session's; what MailScan puts into it is freed here.
struct ScanRecord {
    MailScanRecord record{};
    ScanRecord() = default;
    ScanRecord(const ScanRecord&) = delete;
    ScanRecord& operator=(const ScanRecord&) = delete;
    ~ScanRecord() { MailScanFree(&record); }
};

void AppendRedirect(std::string& redirects, std::int32_t mask, std::int32_t bit,
                    const char* addresses) {
    if ((mask & bit) == 0 || addresses == nullptr) return;
    const std::size_t length = std::strlen(addresses);
    if (redirects.size() + length + 1 >= kSessionTextSize) return;
    redirects.append(addresses, length).push_back(';');
}

Verdict ReduceMask(std::int32_t mask) {
    Verdict verdict = VERDICT_REJECT;
    if ((mask & kMaskForward) != 0) verdict = VERDICT_FORWARD;
    if ((mask & kMaskDrop) != 0) verdict = VERDICT_DROP;
    if ((mask & (kMaskReject | kMaskRejectToo)) != 0) verdict = VERDICT_REJECT;
    return verdict;
}

TextList SplitAddresses(const std::string& text) {
    TextList pieces;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(";,", at), text.size());
        if (end > at) pieces.emplace_back(text, at, end - at);
        at = end + 1;
    }
    return pieces;
}

}  // namespace

Verdict CSMTPProxy::ScanMessage(const std::string& path) {
    redirectAddresses.clear();
    char sender[kSessionTextSize] = "";
    if (savedMailLine.has_value()) {
        const std::size_t colon = savedMailLine->find(':');
        NormalizeAddress(savedMailLine->c_str() + (colon == std::string::npos ? 0 : colon + 1),
                         sender, kSessionTextSize - 1);
    }
    ScanRecord scan;
    MailScanRecord& record = scan.record;
    record.path = path.c_str();
    record.sender = sender;
    record.peerAddress = peerAddress.c_str();
    record.agentId = 4;
    record.timeoutSeconds = noopInterval;
    record.cancelCallback = KeepAlive;
    record.cancelContext = this;
    record.scanSections = 15;
    record.transferForm = messagePhase == PHASE_BDAT ? 2 : 1;
    // An action list that could not be built is left out; the daemon then takes its own. A
    // recipient that could not be added would hide from the scan, so that fails it.
    MailScanSetObjectActions(&record, 11, nullptr);
    MailScanSetMessageActions(&record, 4, nullptr);
    for (const std::string& recipient : recipients) {
        if (MailScanAddRecipient(&record, recipient.c_str()) != 0) return VERDICT_FAILED;
    }
    if (MailScan(&record) != 0) return VERDICT_FAILED;
    if (const MailScanVerdict* verdict = record.verdict) {
        AppendRedirect(redirectAddresses, verdict->antivirus.actionMask, 1,
                       verdict->antivirus.recipients);
        AppendRedirect(redirectAddresses, verdict->antispam.actionMask, 2,
                       verdict->antispam.recipients);
        AppendRedirect(redirectAddresses, verdict->attachFilter.actionMask, 2,
                       verdict->attachFilter.recipients);
        AppendRedirect(redirectAddresses, verdict->contentFilter.actionMask, 2,
                       verdict->contentFilter.recipients);
    }
    return ReduceMask(record.actionMask);
}

// One run of RelayMessage behind the reception. Every step gives false for the failure exit.
class MessageRelay {
  public:
    MessageRelay(CSMTPProxy& session, char* buffer) : session_(session), buffer_(buffer) {}

    // 1 or 0, as RelayMessage.
    int Run(int* expectReply);

  private:
    bool SendServer(const char* text) { return session_.serverSocket.SendAll(text) != 0; }
    bool Reply() {
        return ReadReply(session_.serverSocket, buffer_, kReplySize, session_.connectionTimeout) !=
               0;
    }
    bool ClientFailed() const { return session_.clientSocket.HasException(); }

    bool Deliver(int* expectReply);
    bool OpenFreshEnvelope();
    bool AddRedirects();
    bool SendMessage();
    bool SendAsData();
    bool SendAsChunks();
    bool AnswerFailedScan(int* expectReply);
    bool AnswerRefusedChunk(int* expectReply);

    CSMTPProxy& session_;
    char* const buffer_;  // kRelayBuffer bytes: replies and blocks, in turn
    Verdict verdict_ = VERDICT_FAILED;
    platform::File file_;
    long long remaining_ = 0;
    TextList redirects_;
    // The server's refusal of a chunk before the last: the client's answer to the whole message.
    std::string refusal_;
};

int CSMTPProxy::RelayMessage(int* expectReply) {
    *expectReply = 1;
    if (messagePhase == PHASE_DATA && ReceiveData() == 0) return 0;
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kRelayBuffer]);
    if (buffer == nullptr) return 0;
    return MessageRelay(*this, buffer.get()).Run(expectReply);
}

int MessageRelay::Run(int* expectReply) {
    const std::string path = session_.SpoolPath();
    verdict_ = session_.ScanMessage(path);
    bool done = false;
    if (verdict_ == VERDICT_FAILED) {
        done = AnswerFailedScan(expectReply);
    } else {
        file_ = platform::File::OpenRead(path.c_str());
        const bool gone = !file_ && errno == ENOENT;
        remaining_ = file_ ? file_.Size() : -1;
        // Gone after the scan: the daemon has taken the message away, and the reply to the RSET is
        // the client's. A file that is there and can't be read must not be called accepted.
        if (gone) {
            done = SendServer("RSET\r\n");
        } else {
            done = remaining_ < 0 ? AnswerFailedScan(expectReply) : Deliver(expectReply);
        }
    }
    file_.Close();
    session_.RemoveSpoolFile();
    return done ? 1 : 0;
}

// Nothing may be delivered unscanned, and nothing may be lost: the client keeps the message and is
// told to come back.
bool MessageRelay::AnswerFailedScan(int* expectReply) {
    *expectReply = 0;
    // A server that didn't answer a NOOP in time may do so yet: its replies would be one behind
    // from now on, and one recipient's pass for another's.
    if (session_.peersLost) return false;
    return SendServer("RSET\r\n") && Reply() && session_.clientSocket.SendAll(kNotChecked) != 0;
}

bool MessageRelay::Deliver(int* expectReply) {
    const bool refused = verdict_ == VERDICT_REJECT || verdict_ == VERDICT_DROP;
    if (refused) {
        FreeTextList(session_.recipients);
        if (!SendServer("RSET\r\n")) return false;
    }
    redirects_ = SplitAddresses(session_.redirectAddresses);
    if (refused && !redirects_.empty() && !OpenFreshEnvelope()) return false;
    if (!AddRedirects() || ClientFailed()) return false;
    if ((!refused || !redirects_.empty()) && !SendMessage()) return false;
    if (!refusal_.empty()) return AnswerRefusedChunk(expectReply);
    if (verdict_ != VERDICT_REJECT) return true;
    *expectReply = 0;
    return Reply() && session_.clientSocket.SendAll(kRejected) != 0;
}

// The server forgets what it has of the message. A server that has gone ends the session, but not
// before the client knows what became of its message.
bool MessageRelay::AnswerRefusedChunk(int* expectReply) {
    *expectReply = 0;
    const bool inStep = SendServer("RSET\r\n") && Reply();
    const char* answer = verdict_ == VERDICT_REJECT ? kRejected : refusal_.c_str();
    return session_.clientSocket.SendAll(answer) != 0 && inStep;
}

bool MessageRelay::OpenFreshEnvelope() {
    if (!Reply() || !session_.savedMailLine.has_value()) return false;
    const std::string& line = *session_.savedMailLine;
    if (session_.serverSocket.SendAll(line.data(), static_cast<int>(line.size())) == 0)
        return false;
    return Reply() && !IsRefusal(buffer_);
}

bool MessageRelay::AddRedirects() {
    for (const std::string& address : redirects_) {
        const std::string line = "RCPT TO: " + address + "\r\n";
        if (!SendServer(line.c_str()) || !Reply()) return false;
        if (!IsRefusal(buffer_)) continue;
        char format[128];
        LoadStringA(nullptr, 5602, format, sizeof format);
        // The text is our own format with one %s; the address only fills it.
        std::string message(format);
        if (const std::size_t at = message.find("%s"); at != std::string::npos)
            message.replace(at, 2, address);
        // Lost if the logger is down: the message is not held up for it.
        LogClientEvent(kEventWarning, nullptr, nullptr, nullptr, session_.forwardHost.c_str(),
                       nullptr, message.c_str());
    }
    return true;
}

bool MessageRelay::SendMessage() {
    if (session_.messagePhase == PHASE_BDAT) return SendAsChunks();
    if (!SendServer("DATA\r\n") || !Reply() || std::strncmp(buffer_, "354", 3) != 0) return false;
    return SendAsData();
}

bool MessageRelay::SendAsData() {
    for (;;) {
        const long long count = remaining_ > 0 ? file_.Read(buffer_, kBlockSize) : 0;
        if (count < 0 || ClientFailed()) return false;
        remaining_ -= count;
        int length = static_cast<int>(count);
        // The end goes out with the last block: one segment less for each small message.
        const bool last = remaining_ <= 0 || count == 0;
        if (last) {
            std::memcpy(buffer_ + length, kEndOfData, kEndOfDataSize);
            length += kEndOfDataSize;
        }
        if (session_.serverSocket.SendAll(buffer_, length) == 0) return false;
        if (last) return true;
    }
}

// Each chunk's command goes out with its block in one piece: sent alone, the block would wait for
// the command to be acknowledged, which a server may put off for tens of milliseconds.
bool MessageRelay::SendAsChunks() {
    char* const block = buffer_ + kCommandRoom;
    // A server that knows no BDAT would take the message's lines for commands, and could be given
    // another message among them. Where it hasn't said that it knows it, an empty chunk asks.
    if (!session_.serverTakesChunks) {
        if (!SendServer("bdat 0  \r\n") || !Reply()) return false;
        if (IsRefusal(buffer_)) {
            refusal_ = buffer_;
            return true;
        }
    }
    for (;;) {
        const long long count = remaining_ > 0 ? file_.Read(block, kBlockSize) : 0;
        if (count < 0 || ClientFailed()) return false;
        remaining_ -= count;
        const bool last = remaining_ <= 0 || count == 0;
        const auto size = static_cast<int>(count);
        char line[kCommandRoom];
        const int length =
            std::snprintf(line, sizeof line, "bdat %d %s \r\n", size, last ? "last" : "");
        std::memcpy(block - length, line, static_cast<std::size_t>(length));
        if (session_.serverSocket.SendAll(block - length, length + size) == 0) return false;
        if (last) return true;  // its reply is the answer to the message
        // Each chunk has a reply of its own; left unread, all later replies would be out of step.
        if (!Reply()) return false;
        if (!IsRefusal(buffer_)) continue;
        refusal_ = buffer_;
        return true;
    }
}

// The question to the scan daemon, and its answer reduced to a verdict.
#include <cstring>

#include "scanclient/scanclient.h"
#include "session/address/path.h"
#include "session/message/relay.h"

namespace {

constexpr std::size_t kRedirectSize = 512;  // with its zero byte
constexpr std::size_t kLongestReason = 256;
constexpr std::int32_t kAgentId = 4;
constexpr std::int32_t kAllSections = 15;
// How the message came, and so which forms of it a receiver can make.
constexpr std::int32_t kTransferAsData = 1;
constexpr std::int32_t kTransferAsChunks = 2;
constexpr std::uint32_t kObjectActions = 11;
constexpr std::uint32_t kMessageActions = 4;

constexpr std::int32_t kMaskForward = 1;
constexpr std::int32_t kMaskDrop = 2;
constexpr std::int32_t kMaskReject = 4;
constexpr std::int32_t kMaskRejectToo = 8;

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
    if (redirects.size() + length + 1 >= kRedirectSize) return;
    redirects.append(addresses, length).push_back(';');
}

Verdict ReduceMask(std::int32_t mask) {
    Verdict verdict = VERDICT_REJECT;
    if ((mask & kMaskForward) != 0) verdict = VERDICT_FORWARD;
    if ((mask & kMaskDrop) != 0) verdict = VERDICT_DROP;
    if ((mask & (kMaskReject | kMaskRejectToo)) != 0) verdict = VERDICT_REJECT;
    return verdict;
}

std::string SenderOf(const Envelope& envelope) {
    if (!envelope.savedMailLine.has_value()) return {};
    const std::string& line = *envelope.savedMailLine;
    const std::size_t colon = line.find(':');
    return ReadPath(std::string_view(line).substr(colon == std::string::npos ? 0 : colon + 1))
        .address;
}

// As one text: added one by one, each would have all before it looked through and moved.
std::string Join(const TextList& texts) {
    std::string all;
    for (const std::string& text : texts) {
        if (&text != &texts.front()) all.push_back(';');
        all.append(text);
    }
    return all;
}

// The first section with a finding, or the first entry. A section of which the daemon only says
// that it has looked has no finding.
void NoteFinding(const MailScanRecord& record, MessageRecord& message) {
    if (const MailScanVerdict* verdict = record.verdict) {
        const MailScanVerdict::Antivirus& antivirus = verdict->antivirus;
        const struct {
            std::string_view name;
            bool found;
        } sections[] = {
            {"antivirus", antivirus.result != 0 || antivirus.objects != nullptr},
            {"attachfilter", verdict->attachFilter.result != 0},
            {"contentfilter", verdict->contentFilter.result != 0},
            {"antispam", verdict->antispam.result != 0},
        };
        for (const auto& each : sections) {
            if (message.section.empty() && each.found) message.section = each.name;
        }
        const MailScanObject* object =
            antivirus.objects != nullptr ? antivirus.objects[0] : nullptr;
        if (message.section == "antivirus" && object != nullptr && object->textA != nullptr)
            message.reason = object->textA;
    }
    if (message.reason.empty() && record.entries != nullptr && record.entries->message != nullptr)
        message.reason = record.entries->message;
    if (message.reason.size() > kLongestReason) message.reason.resize(kLongestReason);
}

}  // namespace

Verdict ScanMessage(Peers& peers, const Envelope& envelope, const SpoolFile& spool,
                    std::string& redirectAddresses) {
    redirectAddresses.clear();
    const std::string& path = spool.Path();
    const std::string sender = SenderOf(envelope);
    ScanRecord scan;
    MailScanRecord& record = scan.record;
    record.path = path.c_str();
    record.sender = sender.c_str();
    record.peerAddress = peers.address.c_str();
    record.helo = (peers.identity.helo.empty() ? peers.helo : peers.identity.helo).c_str();
    record.logId = peers.journal.message.id.c_str();
    record.agentId = kAgentId;
    record.timeoutSeconds = peers.settings.noopInterval;
    record.cancelCallback = KeepAlive;
    record.cancelContext = &peers;
    record.scanSections = kAllSections;
    record.transferForm = envelope.messagePhase == PHASE_BDAT ? kTransferAsChunks : kTransferAsData;
    // An action list that could not be built is left out; the daemon then takes its own. A
    // recipient that could not be added would hide from the scan, so that fails it.
    MailScanSetObjectActions(&record, kObjectActions, nullptr);
    MailScanSetMessageActions(&record, kMessageActions, nullptr);
    if (!envelope.recipients.empty() &&
        MailScanAddRecipient(&record, Join(envelope.recipients).c_str()) != 0)
        return VERDICT_FAILED;
    if (MailScan(&record) != 0) return VERDICT_FAILED;
    NoteFinding(record, peers.journal.message);
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

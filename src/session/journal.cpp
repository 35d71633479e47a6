#include "session/journal.h"

#include <algorithm>
#include <utility>

#include "logclient/line.h"
#include "logclient/logclient.h"
#include "metrics/count.h"
#include "platform/clock.h"

namespace {

// Bytes that the log has of a text.
constexpr std::size_t kMostRecipientBytes = 4096;
constexpr std::size_t kLongestHelo = 255;
constexpr std::size_t kLongestReply = 512;
constexpr std::string_view kMore = "...";
constexpr std::size_t kAroundId = 5;  // blank, brackets, line end

std::int64_t Milliseconds(std::chrono::steady_clock::duration time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

std::uint64_t Microseconds(std::chrono::steady_clock::duration time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

metrics::Verdict PlaceOf(std::string_view verdict) {
    constexpr std::string_view kWords[] = {kVerdictForward, kVerdictReject, kVerdictDrop,
                                           kVerdictFailed, kVerdictNone};
    return static_cast<metrics::Verdict>(std::find(std::begin(kWords), std::end(kWords), verdict) -
                                         std::begin(kWords));
}

std::string_view Bounded(const std::string& helo) {
    return std::string_view(helo).substr(0, kLongestHelo);
}

// Some addresses are kept with what stood behind them: "<>" with the line end, "postmaster>".
std::string Tidy(std::string address) {
    address.resize(address.find_last_not_of(" \t\r\n") + 1);
    if (address.ends_with('>') && !address.starts_with('<')) address.pop_back();
    return address;
}

void JoinBounded(const TextList& texts, std::string& all) {
    for (const std::string& text : texts) {
        if (!all.empty()) all += ';';
        if (all.size() + text.size() > kMostRecipientBytes) {
            all += kMore;
            return;
        }
        all += Tidy(text);
    }
}

}  // namespace

Journal::Clock::duration Journal::Lap() {
    const Clock::time_point now = Clock::now();
    return now - std::exchange(lap_, now);
}

void Journal::BeginMessage(const Envelope& envelope, std::string_view via) {
    EndMessage();
    message.Clear();
    message.id.append(session.id).append("-").append(std::to_string(++session.messages));
    message.from = Tidy(envelope.sender);
    message.via = via;
    JoinBounded(envelope.recipients, message.to);
    finder_.Begin();
    state_ = State::kOpen;
    lap_ = Clock::now();
}

void Journal::Received(long long size) {
    if (!InMessage()) return;
    message.size = size;
    message.receptionMs += Milliseconds(Lap());
}

void Journal::Scanned(std::string_view verdict) {
    message.verdict = verdict;
    scanTime_ = Lap();
    message.scanMs = Milliseconds(scanTime_);
}

void Journal::Replied(std::string_view reply) {
    if (!InMessage()) return;
    message.reply.clear();
    for (const char each : reply.substr(0, reply.find_last_not_of("\r\n") + 1)) {
        if (message.reply.size() >= kLongestReply) break;
        if (each != '\r') message.reply += each == '\n' ? ' ' : each;
    }
}

void Journal::TakeQueueId(std::string_view reply) { message.queueId = QueueIdIn(reply); }

void Journal::Relayed(bool replyIsDue) {
    if (replyIsDue && InMessage()) {
        state_ = State::kReplyDue;
    } else {
        EndMessage();
    }
}

void Journal::ServerReplied(std::string_view reply, bool envelopeGone) {
    if (state_ == State::kReplyDue) {
        Replied(reply);
        TakeQueueId(reply);
        EndMessage();
    } else if (envelopeGone) {
        EndMessage();
    }
}

void Journal::EndMessage() {
    if (!InMessage()) return;
    state_ = State::kNone;
    if (message.verdict != kVerdictNone) {
        relayTime_ = Lap();
        message.relayMs = Milliseconds(relayTime_);
    }
    Count();
    WriteMessage();
}

void Journal::Count() const {
    using metrics::Metric;
    const auto size = static_cast<std::uint64_t>(message.size);
    const metrics::Verdict verdict = PlaceOf(message.verdict);
    metrics::Add<Metric::kMessages>(verdict);
    metrics::Add<Metric::kMessageBytes>(verdict, size);
    metrics::Observe<Metric::kMessageSize>(size);
    if (verdict == metrics::Verdict::kNone) return;
    metrics::Observe<Metric::kScanTime>(Microseconds(scanTime_));
    if (verdict == metrics::Verdict::kForward)
        metrics::Observe<Metric::kRelayTime>(Microseconds(relayTime_));
}

void Journal::WriteMessage() {
    if (!LogClientTakesLines()) return;
    line_.clear();
    LogLineWriter line(line_, LogLineKind::kMessage, platform::UtcMilliseconds());
    for (const std::string* text : {&session.id, &message.id, &session.peer, &session.toldBy})
        line.Text(*text);
    line.Text(Bounded(session.helo));
    line.Text(session.tls);
    line.Text(message.from);
    line.Text(message.to);
    line.Number(message.size);
    line.Text(message.via);
    line.Text(message.messageId);
    line.Text(message.verdict);
    line.Text(message.section);
    line.Text(message.reason);
    line.Text(message.reply);
    line.Text(message.queueId);
    line.Number(message.receptionMs);
    line.Number(message.scanMs);
    line.Number(message.relayMs);
    line.End();
    LogClientLine(line_);
}

void Journal::WriteSession() {
    if (!LogClientTakesLines()) return;
    line_.clear();
    LogLineWriter line(line_, LogLineKind::kSession, platform::UtcMilliseconds());
    for (const std::string* text : {&session.id, &session.peer, &session.toldBy}) line.Text(*text);
    line.Text(Bounded(session.helo));
    line.Text(session.tls);
    line.Number(session.messages);
    line.Text(session.ended);
    line.Number(session.durationMs);
    line.End();
    LogClientLine(line_);
}

void Journal::EndSession() noexcept {
    try {
        EndMessage();
        session.durationMs = Milliseconds(Clock::now() - begun_);
        WriteSession();
    } catch (...) {  // no memory for the line
    }
}

std::string Journal::WithId(std::string_view reply) const {
    std::string text(reply);
    const std::string& id = InMessage() ? message.id : session.id;
    const std::size_t end = text.find_last_not_of("\r\n") + 1;
    const bool refusal = text.starts_with('4') || text.starts_with('5');
    if (!refusal) return text;
    const std::size_t line = text.rfind('\n', end - 1) + 1;  // npos + 1: there is one line
    if (end - line + id.size() + kAroundId <= kLongestReply) text.insert(end, " [" + id + "]");
    return text;
}

#include "session/journal.h"

#include <algorithm>

namespace {

// Bytes that the log has of a text.
constexpr std::size_t kMostRecipientBytes = 4096;
constexpr std::size_t kLongestReply = 512;
constexpr std::string_view kMore = "...";
constexpr std::size_t kAroundId = 5;  // blank, brackets, line end

std::int64_t Milliseconds(std::chrono::steady_clock::duration time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

void JoinBounded(const TextList& texts, std::string& all) {
    for (const std::string& text : texts) {
        if (!all.empty()) all += ';';
        if (all.size() + text.size() > kMostRecipientBytes) {
            all += kMore;
            return;
        }
        all += text;
    }
}

}  // namespace

std::int64_t Journal::Lap() {
    const Clock::time_point now = Clock::now();
    const std::int64_t time = Milliseconds(now - lap_);
    lap_ = now;
    return time;
}

void Journal::BeginMessage(const Envelope& envelope, std::string_view via) {
    EndMessage();
    message.Clear();
    message.id.append(session.id).append("-").append(std::to_string(++session.messages));
    message.from = SenderOf(envelope);
    message.via = via;
    JoinBounded(envelope.recipients, message.to);
    finder_.Begin();
    state_ = State::kOpen;
    lap_ = Clock::now();
}

void Journal::Received(long long size) {
    if (!InMessage()) return;
    message.size = size;
    message.receptionMs += Lap();
}

void Journal::Scanned(std::string_view verdict) {
    message.verdict = verdict;
    message.scanMs = Lap();
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
    if (message.verdict != kVerdictNone) message.relayMs = Lap();
}

void Journal::EndSession() {
    EndMessage();
    session.durationMs = Milliseconds(Clock::now() - begun_);
}

std::string Journal::WithId(std::string_view reply) const {
    std::string text(reply);
    const std::string& id = InMessage() ? message.id : session.id;
    const std::size_t end = text.find_last_not_of("\r\n") + 1;
    const std::size_t line = text.rfind('\n', end) + 1;  // npos + 1: there is one line
    const bool refusal = text.starts_with('4') || text.starts_with('5');
    if (refusal && end - line + id.size() + kAroundId <= kLongestReply)
        text.insert(end, " [" + id + "]");
    return text;
}

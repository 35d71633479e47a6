#include "session/dialogue/dialogue.h"

#include <chrono>
#include <utility>

#include "asfilters/asfilters.h"
#include "text/ascii.h"

namespace {

constexpr std::string_view kCancelAuth = "*\r\n";
constexpr std::size_t kMostDue = 100;
constexpr std::size_t kMostDueBytes = 16384;
// What answers wait for others at most, before the next is waited for.
constexpr std::chrono::milliseconds kLongestHeld{1000};

}  // namespace

bool Dialogue::HidesText(std::string_view line) {
    if (line.find('\0') != std::string_view::npos) return true;
    const std::size_t cr = line.find('\r');
    return cr != std::string_view::npos && cr + 2 != line.size();
}

Dialogue::Dialogue(Peers& peers, Envelope& envelope, Reception& reception, CommandSource& commands)
    : peers_(peers),
      envelope_(envelope),
      reception_(reception),
      commands_(commands),
      filters_(ShareASFilters()) {
    envelope_.BeginRun();
    for (auto& token : tokens_) token[0] = '\0';
}

int Dialogue::Run(bool readReply) {
    if (readReply && !RelayReply()) return 0;
    while (!closing_) {
        // What is due is fetched before this task waits for its client.
        if (!peers_.client.HasLineAhead() && !AnswerDue()) return 0;
        if (closing_) break;
        switch (TakeCommand()) {
            case Outcome::kForward:
                if (!Forward()) return 0;
                break;
            case Outcome::kAnswered:
                break;
            case Outcome::kEndSession:
                peers_.client.Flush();
                return 0;
            case Outcome::kMessage:
                // A 354 goes out with what is queued; a scan may take its time.
                return envelope_.messagePhase == PHASE_DATA || peers_.client.Flush() ? 1 : 0;
        }
    }
    peers_.client.Flush();
    return 0;
}

// Most that go to the server without a look at its replies: as many as surely fit into what both
// systems hold for a connection, or each would wait for the other to read.
bool Dialogue::Forward() {
    if (!peers_.server.Queue(line_)) return false;
    const bool inBatch = verb_ != nullptr && (verb_->traits & kInBatch) != 0;
    const bool more = inBatch && peers_.pipelining && peers_.server.takesBatches &&
                      due_.size() < kMostDue && dueBytes_ < kMostDueBytes &&
                      peers_.client.HasLineAhead();
    if (due_.empty() && !more) return peers_.server.Flush() && RelayReply();
    dueBytes_ += line_.size();
    due_.push_back({inFlight_, line_, recipientText_, senderText_});
    return more || AnswerDue();
}

// Gives the client the replies that are still to come. False ends the session.
bool Dialogue::AnswerDue() {
    if (due_.empty()) return true;
    dueBytes_ = 0;
    if (!peers_.server.Flush()) return false;
    Due inHand{inFlight_, std::move(line_), std::move(recipientText_), std::move(senderText_)};
    bool inStep = true;
    inBatch_ = true;
    for (Due& each : std::exchange(due_, {})) {
        inFlight_ = each.code;
        line_ = std::move(each.line);
        recipientText_ = std::move(each.recipient);
        senderText_ = std::move(each.sender);
        inStep = RelayReply();
        if (!inStep || closing_) break;
    }
    inBatch_ = false;
    inFlight_ = inHand.code;
    line_ = std::move(inHand.line);
    recipientText_ = std::move(inHand.recipient);
    senderText_ = std::move(inHand.sender);
    return inStep;
}

// In one piece with what follows, where that is there already and the server is quick: a client's
// patience with each answer begins with the one before.
bool Dialogue::Reply(std::string_view text) {
    if ((hold_ || peers_.client.HasLineAhead()) && !heldUntil_.Over())
        return peers_.QueueReply(text);
    heldUntil_ = Deadline(kLongestHeld);
    return peers_.SendReply(text);
}

// Whether the client has sent more before it could know what it is answered.
bool Dialogue::TalksEarly(bool mayTalkOn) const {
    if (peers_.settings.options.earlyTalker != EarlyTalker::kRefuse || mayTalkOn) return false;
    return peers_.client.HasReadAhead() ||
           (peers_.client.WaitReadable(std::chrono::milliseconds(0)) == Stream::Wait::kReady &&
            !peers_.client.PeerGone());
}

Dialogue::Outcome Dialogue::TakeCommand() {
    std::string_view line;
    const bool ahead = peers_.client.HasLineAhead();
    const Stream::Line outcome = commands_.ReadCommand(line, kLongestAuthLine);
    if (outcome == Stream::Line::kFailed) return Outcome::kEndSession;
    if (!ahead) heldUntil_ = Deadline(kLongestHeld);
    line_ = line;
    const bool whole = outcome == Stream::Line::kWhole;
    if (authAnswer_) return TakeAuthAnswer(whole);
    inFlight_ = CMD_OTHER;
    if (line_ == "\r\n" || line_ == "\n") return Outcome::kAnswered;
    // A server that waits for a handshake would take what follows for one, and everything behind it
    // would pass unseen. Its client sends one; a command begins with a letter.
    if (startedTls_ && !IsLetter(line_[0])) return Outcome::kEndSession;
    return Dispatch(whole);
}

// What answers a challenge goes to the server whatever it looks like; it is nobody's business here.
// An answer that can't be sent on, or that a server could take for two lines, gives the exchange up
// instead; the reply to that is the client's.
Dialogue::Outcome Dialogue::TakeAuthAnswer(bool whole) {
    verb_ = nullptr;  // it is no command, whatever the challenge was a reply to
    if (TalksEarly(false)) return AnswerAndEnd(kTooEarly);
    if (!whole || HidesText(line_)) line_ = kCancelAuth;
    return Outcome::kForward;
}

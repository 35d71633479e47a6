#include "session/dialogue/dialogue.h"

#include "asfilters/asfilters.h"
#include "text/ascii.h"

namespace {

constexpr std::string_view kCancelAuth = "*\r\n";

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
    for (;;) {
        if (readReply && !RelayReply()) return 0;
        if (closing_) return 0;
        switch (TakeCommand()) {
            case Outcome::kForward:
                if (!peers_.server.Send(line_)) return 0;
                readReply = true;
                break;
            case Outcome::kAnswered:
                readReply = false;
                break;
            case Outcome::kEndSession:
                return 0;
            case Outcome::kMessage:
                return 1;
        }
    }
}

Dialogue::Outcome Dialogue::TakeCommand() {
    std::string_view line;
    const Stream::Line outcome = commands_.ReadCommand(line, kLongestAuthLine);
    if (outcome == Stream::Line::kFailed) return Outcome::kEndSession;
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
    if (!whole || HidesText(line_)) line_ = kCancelAuth;
    return Outcome::kForward;
}

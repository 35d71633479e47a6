// Commands behind which the session begins anew: STARTTLS and XCLIENT.
#include <algorithm>

#include "session/client/xclient.h"
#include "session/dialogue/dialogue.h"
#include "session/secure.h"

namespace {

constexpr std::string_view kReadyForTls = "220 2.0.0 Ready to start TLS\r\n";
constexpr std::string_view kNoTlsNow = "454 4.7.0 TLS not available, try again later\r\n";
constexpr std::string_view kTextBehind =
    "501 5.5.2 Nothing may follow STARTTLS, closing transmission channel\r\n";
constexpr std::string_view kNoParameters = "501 5.5.4 STARTTLS takes no parameters\r\n";
constexpr std::string_view kOutOfTurn = "503 5.5.1 Not now\r\n";
constexpr std::string_view kBadAttributes = "501 5.5.4 Attributes can't be read\r\n";

}  // namespace

Dialogue::Outcome Dialogue::StartTlsRule() {
    const ConnectionOptions& options = peers_.settings.options;
    if (options.clientTls == ClientTls::kOff) return Outcome::kForward;
    // Who it has proved to be without TLS would pass for proved with it.
    if (peers_.client.Secured() || peers_.authenticated) return Answer(kOutOfTurn);
    if (tokenCount_ > 1) return Answer(kNoParameters);
    // Whoever can write into the bare connection could put commands in front of the client's own.
    Stream& client = peers_.client;
    if (client.HasReadAhead() ||
        (client.WaitReadable(std::chrono::milliseconds(0)) == Stream::Wait::kReady &&
         !client.PeerGone()))
        return AnswerAndEnd(kTextBehind);
    const std::shared_ptr<const TlsContext> context = ClientContext(options);
    if (context == nullptr) return Answer(kNoTlsNow);
    if (!peers_.SendReply(kReadyForTls) || !commands_.Handshake(*context))
        return Outcome::kEndSession;
    // Nothing counts any more that was said before.
    if (envelope_.haveMail || envelope_.haveRecipient) {
        ServerReply reply;
        if (!peers_.server.Ask("RSET\r\n", reply)) return Outcome::kEndSession;
    }
    envelope_.Clear();
    chunkingState_ = CHUNKING_UNKNOWN;
    peers_.pipelining = false;
    peers_.needsGreeting = true;
    return Outcome::kAnswered;
}

Dialogue::Outcome Dialogue::XclientRule() {
    if (!peers_.trusted) return Answer(kUnknownCommand);
    if (envelope_.haveMail) return Answer(kOutOfTurn);
    const std::string_view line(line_);
    const std::size_t begin = std::min(line.find_first_of(" \t"), line.size());
    const std::size_t end = line.find_last_not_of("\r\n") + 1;
    ClientIdentity told = peers_.identity;
    if (begin >= end || !ReadXclient(line.substr(begin, end - begin), told))
        // What follows would be taken for the trusted peer's own.
        return AnswerAndEnd(kBadAttributes);
    told.toldBy = peers_.ownAddress.Text();
    peers_.identity = std::move(told);
    // The session begins anew, for that client; the greeting is the answer.
    peers_.restart = true;
    return Outcome::kEndSession;
}

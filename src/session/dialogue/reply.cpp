// The server's side of the dialogue: what its replies mean for the envelope, and what the client
// sees of them.
#include <charconv>
#include <cstdio>
#include <utility>

#include "asfilters/asfilters.h"
#include "metrics/count.h"
#include "session/address/normalize.h"
#include "session/address/path.h"
#include "session/client/xclient.h"
#include "session/dialogue/dialogue.h"
#include "session/registry.h"
#include "session/secure.h"
#include "text/ascii.h"
#include "text/trim.h"

namespace {

constexpr std::size_t kMostPending = 32768;
constexpr std::string_view kLastEhloLine = "250 EHLO\r\n";
constexpr std::string_view kOutOfStep =
    "421 4.3.0 Server out of step, closing transmission channel\r\n";

bool Continues(std::string_view line) { return line.size() > 3 && line[3] == '-'; }

constexpr std::string_view kBeforeGreeting =
    "554 5.5.1 Not your turn before the greeting, closing transmission channel\r\n";

// The server waits for something that is no command: what follows would pass unseen, or put the
// dialogue out of step.
bool WantsMore(std::string_view reply) {
    return reply.starts_with('3') && !reply.starts_with("334");
}

// Offers of the server's that are not the client's: the proxy does its own TLS and batches, sees
// every message itself, and tells the server itself whom it speaks for.
constexpr std::string_view kNotOffered[] = {
    "pipelining", "starttls", "xclient", "xforward", "pipeconnect", "x_pipe_connect", "burl",
    // TLS and AUTH among some servers themselves
    "x-anonymoustls", "x-exps",
    // more that the proxy could not follow: command.cpp
    "compress", "xexch50", "x-link2state", "xshadow", "xshadowrequest", "xmessagecontext", "xproxy",
    "xproxyfrom", "xproxyto", "turn", "atrn", "verb", "prdr"};

// By a parameter: an address may hold the same text, and a stranger chooses his.
bool SaysBinaryBody(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    std::string_view text = ReadPath(line.substr(colon + 1)).parameters;
    for (std::string_view word = TakeWord(text); !word.empty(); word = TakeWord(text)) {
        if (EqualIgnoringCase(word, "body=binarymime")) return true;
    }
    return false;
}

}  // namespace

// Reads one reply of the server and gives it to the client, in one piece. False ends the session.
bool Dialogue::RelayReply() {
    firstLine_ = true;
    harvestAsked_ = authAnswer_ = false;
    bool swallow = false;  // the client has its one line: the rest is only read
    std::string pending;
    ServerLink::ReplyReader reader(peers_.server);
    for (std::string_view line; reader.Next(line);) {
        reply_ = line;
        NoteLine();
        if (swallow) continue;
        if (GuardAgainstHarvesting()) return peers_.SendReply(pending + reply_);
        const Line outcome = RewriteLine();
        if (outcome != Line::kDrop) pending += reply_;
        swallow = outcome == Line::kWholeReply;
        if (pending.size() < kMostPending) continue;
        if (!peers_.SendReply(pending)) return false;
        pending.clear();
    }
    const bool first = !std::exchange(peers_.greeted, true);
    if (first) peers_.state.SetPhase(SessionPhase::kDialogue);
    if (first && TalksEarly(false)) {
        closing_ = true;
        return peers_.SendReply(peers_.Own(kBeforeGreeting));
    }
    // Also what came of a reply that never ended.
    const bool sent = Reply(pending);
    peers_.journal.ServerReplied(sent ? std::string_view(pending) : std::string_view(),
                                 envelope_.messagePhase == PHASE_NONE);
    return sent && !reader.Failed();
}

// What the reply means for what comes next, whatever the client sees of it.
void Dialogue::NoteLine() {
    authAnswer_ = reply_.starts_with("334");
    // Whatever it says, the client has said its last word; and a server that answers 421 closes.
    if (inFlight_ == CMD_QUIT || reply_.starts_with("421")) closing_ = true;
    if (inFlight_ == CMD_QUIT) peers_.journal.session.ended = kEndedQuit;
    if (inFlight_ == CMD_AUTH && reply_.starts_with("235")) peers_.authenticated = true;
    // But for the greeting, to no command, it stands for a handshake.
    if (verb_ != nullptr && reply_.starts_with("220")) startedTls_ = true;
    // It takes what follows for a message, which would pass unscanned; or, in a batch, the next
    // command for an answer, and then the client's answer for a command.
    if (Continues(reply_) || (!WantsMore(reply_) && !(inBatch_ && authAnswer_))) return;
    authAnswer_ = false;
    closing_ = true;
    reply_ = peers_.Own(kOutOfStep);
}

// True if the client is a harvester: the reply in hand is the last one that it gets.
bool Dialogue::GuardAgainstHarvesting() {
    if (!reply_.starts_with("550") || filters_ == nullptr || inFlight_ != CMD_RCPT) return false;
    // One refusal counts once, however many lines it has.
    if (std::exchange(harvestAsked_, true)) return false;
    const SessionRegistry::Delay delay;
    for (const std::string& domain : peers_.settings.mailDomains) {
        const int result = filters_->CheckRecipient(recipientText_.c_str(), domain.c_str(),
                                                    denyText_.data(), kTextSize);
        if (result == 3) return false;
        if (result != 2) continue;
        metrics::Add<metrics::Metric::kFilterHits>(metrics::Filter::kGuard);
        peers_.SendStatEvent(82, senderText_.c_str(), recipientText_.c_str());
        reply_ = peers_.Own(denyText_.data(), Peers::Wording::kKnown);
        closing_ = true;
        return true;
    }
    return false;
}

void Dialogue::SetReply(std::string_view format) {
    // The formats are our own, with one %s for the name.
    reply_ = format;
    reply_.replace(reply_.find("%s"), 2, peers_.settings.greetingName);
}

Dialogue::Line Dialogue::RewriteLine() {
    if (!reply_.starts_with('2')) return Line::kPass;
    if (reply_.starts_with("220")) {
        SetReply("220 %s ESMTP Vantrel Proxy\r\n");
        return Line::kWholeReply;
    }
    if (reply_.starts_with("221")) {
        closing_ = true;
        SetReply("221 %s ESMTP Vantrel Proxy closing connection\r\n");
        return Line::kWholeReply;
    }
    if (!reply_.starts_with("250")) return Line::kPass;
    if (inFlight_ == CMD_EHLO) return FilterEhloLine();
    if (inFlight_ == CMD_HELO) {
        SetReply("250 %s ESMTP Vantrel Proxy, pleased to meet you\r\n");
        peers_.server.takesChunks = peers_.server.takesBatches = false;
        peers_.pipelining = peers_.needsGreeting = false;
        envelope_.Clear();
        return Line::kWholeReply;
    }
    // A reply of several lines confirms once.
    if (!Continues(reply_)) Confirm();
    return Line::kPass;
}

// The server has accepted the command.
void Dialogue::Confirm() {
    switch (inFlight_) {
        case CMD_MAIL:
        case CMD_SOML:
        case CMD_SAML:
            AcceptSender();
            break;
        case CMD_RCPT:
            envelope_.AcceptRecipient(recipientText_);
            break;
        case CMD_RSET:
            envelope_.Clear();
            break;
        default:
            break;
    }
}

void Dialogue::AcceptSender() {
    std::string words = LowerCase(line_);
    StripBlanks(words.data());
    const bool binary =
        std::string_view(words.c_str()).find("body=binarymime") != std::string::npos;
    envelope_.AcceptSender(line_, senderText_, binary, binary && SaysBinaryBody(line_));
}

Dialogue::Line Dialogue::FilterEhloLine() {
    if (firstLine_) {  // each reply offers anew
        peers_.server.takesChunks = peers_.server.takesBatches = false;
        peers_.needsGreeting = false;
    }
    if (firstLine_ && Continues(reply_)) {
        firstLine_ = false;
        SetReply("250-%s\r\n");
        envelope_.Clear();
        AddOwnOffers();
        return Line::kPass;
    }
    const bool only = firstLine_;  // of a reply of one line
    if (chunkingState_ == CHUNKING_UNKNOWN) chunkingState_ = CHUNKING_ABSENT;
    int number = 0;
    char separator = '\0';
    char keyword[32] = "";
    std::sscanf(reply_.c_str(), "%d%c%31s", &number, &separator, keyword);
    if (EqualIgnoringCase(keyword, "chunking")) {
        chunkingState_ = CHUNKING_OFFERED;
        peers_.server.takesChunks = true;
    }
    if (EqualIgnoringCase(keyword, "pipelining")) peers_.server.takesBatches = true;
    if (EqualIgnoringCase(keyword, "size")) OfferSize();
    if (!IsOffered(keyword)) {
        // Whatever stands behind the code of the last line: it ends the reply, so the client gets
        // one.
        if (Continues(reply_)) return Line::kDrop;
        reply_ = kLastEhloLine;
    }
    if (only) AddOwnOffers();
    return Line::kPass;
}

bool Dialogue::IsOffered(std::string_view keyword) const {
    for (const std::string_view each : kNotOffered) {
        if (EqualIgnoringCase(keyword, each)) return false;
    }
    // It promises that all of the message's way is encrypted.
    if (EqualIgnoringCase(keyword, "requiretls") && !peers_.client.Secured()) return false;
    constexpr std::string_view kAuth = "auth";  // some servers write "AUTH=" for old clients
    const bool auth = EqualIgnoringCase(keyword.substr(0, kAuth.size()), kAuth) &&
                      (keyword.size() == kAuth.size() || keyword[kAuth.size()] == '=');
    return !auth || !peers_.settings.options.authOnlyOverTls || peers_.client.Secured();
}

// Behind the head of the reply, which may be all of it.
void Dialogue::AddOwnOffers() {
    const ConnectionOptions& options = peers_.settings.options;
    peers_.pipelining = options.pipelining;
    std::string offers;
    const auto offer = [&offers](std::string_view text) {
        offers.append("250-").append(text).append("\r\n");
    };
    // Where mail also goes without it, a client had better not try what can't succeed.
    const bool starts =
        options.clientTls == ClientTls::kRequire ||
        (options.clientTls == ClientTls::kOffer && ClientContext(options) != nullptr);
    if (starts && !peers_.client.Secured()) offer("STARTTLS");
    if (options.pipelining) offer("PIPELINING");
    if (peers_.trusted) offer("XCLIENT " + std::string(kXclientAttributes));
    if (offers.empty()) return;
    if (!Continues(reply_)) {
        reply_[3] = '-';
        offers[offers.rfind("250-") + 3] = ' ';
    }
    reply_ += offers;
}

// The server's limit, or ours where that is lower: a message that would be refused at its end need
// not be sent.
void Dialogue::OfferSize() {
    const auto ours = static_cast<unsigned long long>(peers_.settings.maxMessageSize);
    if (ours == 0) return;
    const std::size_t digits = reply_.find_first_of("0123456789", 4);
    unsigned long long theirs = 0;  // none, or no fixed one
    if (digits != std::string::npos)
        std::from_chars(reply_.data() + digits, reply_.data() + reply_.size(), theirs);
    if (theirs != 0 && theirs <= ours) return;
    reply_ = reply_.substr(0, 4) + "SIZE " + std::to_string(ours) + "\r\n";
}

// The client's side of the dialogue: what its commands come to. The table of verbs is at the end.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "asfilters/asfilters.h"
#include "metrics/count.h"
#include "session/address/normalize.h"
#include "session/address/path.h"
#include "session/address/sender_check.h"
#include "session/dialogue/dialogue.h"
#include "text/ascii.h"
#include "text/trim.h"

namespace {

constexpr std::string_view kBadSequence = "503 Bad sequence of commands\r\n";
constexpr std::string_view kUnableToRelay = "550 Unable to relay\r\n";
constexpr std::string_view kChunkReceived = "250 chunk received ok\r\n";
constexpr std::string_view kTooLong = "500 5.5.2 Line too long\r\n";
constexpr std::string_view kNeedsTls = "530 5.7.0 Must issue a STARTTLS command first\r\n";
constexpr std::string_view kAuthNeedsTls =
    "538 5.7.11 Encryption required for requested authentication mechanism\r\n";
constexpr std::string_view kNeedsGreeting = "503 5.5.1 Send EHLO or HELO first\r\n";
constexpr std::string_view kTellingFailed =
    "421 4.3.2 Lost the mail server, closing transmission channel\r\n";
constexpr std::string_view kUnknownParameter = "555 5.5.4 PRDR is not known here\r\n";
constexpr std::string_view kTooManyRecipients = "452 4.5.3 Too many recipients\r\n";
// Of one message, whatever the server takes: each is kept until the message is over.
constexpr std::size_t kMostRecipients = 10000;
// For a refused sender without a deny text: a client always gets exactly one reply to a command.
constexpr std::string_view kDefaultDeny = "550 5.7.1 Message Rejected\r\n";

std::string_view BehindColon(std::string_view text) {
    const std::size_t colon = text.find(':');
    return colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
}

// A message sent with it has a reply for each recipient, and one in front of them.
bool AsksForMoreReplies(std::string_view text) {
    constexpr std::string_view kKey = "PRDR";
    for (std::string_view word = TakeWord(text); !word.empty(); word = TakeWord(text)) {
        if (EqualIgnoringCase(word.substr(0, word.find('=')), kKey)) return true;
    }
    return false;
}

// The number of the parameter SIZE=number, or 0.
unsigned long long DeclaredSize(std::string_view parameters) {
    constexpr std::string_view kKey = "SIZE=";
    for (std::string_view word = TakeWord(parameters); !word.empty(); word = TakeWord(parameters)) {
        if (word.size() <= kKey.size() || !EqualIgnoringCase(word.substr(0, kKey.size()), kKey))
            continue;
        const std::string_view digits = word.substr(kKey.size());
        unsigned long long size = 0;
        const auto [rest, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), size);
        // More than fits is more than any limit; what is no number is the server's to refuse.
        if (error == std::errc::result_out_of_range) return ~0ULL;
        if (error == std::errc() && rest == digits.data() + digits.size()) return size;
    }
    return 0;
}

}  // namespace

Dialogue::Outcome Dialogue::Answer(std::string_view text, Peers::Wording wording) {
    if (!AnswerDue() || closing_) return Outcome::kEndSession;
    if (!Reply(peers_.Own(text, wording))) return Outcome::kEndSession;
    const bool alive = peers_.server.KeepAliveAfterAnswer() && !peers_.client.PeerGone();
    return alive ? Outcome::kAnswered : Outcome::kEndSession;
}

Dialogue::Outcome Dialogue::AnswerAndEnd(std::string_view text) {
    if (AnswerDue() && !closing_ && peers_.SendReply(peers_.Own(text))) peers_.client.EndSending();
    return Outcome::kEndSession;
}

// The first words of the command; what is longer than a token goes on in the next.
void Dialogue::TakeTokens() {
    std::string_view rest = copy_;
    tokenCount_ = 0;
    for (auto& token : tokens_) {
        rest.remove_prefix(std::min(rest.find_first_not_of(kAllBlanks), rest.size()));
        std::string_view word = rest.substr(0, kLongestToken);
        word = word.substr(0, word.find_first_of(kAllBlanks));
        word.copy(token, word.size());
        token[word.size()] = '\0';
        rest.remove_prefix(word.size());
        if (!word.empty()) ++tokenCount_;
    }
}

Dialogue::Outcome Dialogue::Dispatch(bool whole) {
    copy_ = line_;
    NormalizeCommand(copy_.data());
    copy_.resize(std::strlen(copy_.c_str()));
    TakeTokens();
    verb_ = kVerbs;
    while (verb_->word != nullptr && !EqualIgnoringCase(tokens_[0], verb_->word)) ++verb_;
    const bool tooLong = verb_->code != CMD_AUTH && line_.size() > kLongestCommand;
    if (!whole || tooLong) return Answer(kTooLong);
    if (HidesText(line_)) return Answer(kUnknownCommand);
    const bool mayTalkOn = peers_.pipelining && (verb_->traits & kAlone) == 0;
    if (TalksEarly(mayTalkOn || (verb_->traits & kBytesBehind) != 0))
        return AnswerAndEnd(kTooEarly);
    // A chunk is read first, or its bytes would be taken for commands.
    if (const std::string_view refusal = NotBefore();
        !refusal.empty() && verb_->rule != &Dialogue::ChunkRule)
        return Answer(refusal);
    if ((verb_->traits & kInBatch) == 0) {
        // It hangs on the answers to what came before it.
        hold_ = true;
        const bool inStep = AnswerDue();
        hold_ = false;
        if (!inStep || closing_) return Outcome::kEndSession;
    }
    inFlight_ = verb_->code;
    const Outcome outcome = (this->*verb_->rule)();
    // In front of the first command that goes on.
    if (outcome != Outcome::kForward || !std::exchange(peers_.server.xclientDue, false))
        return outcome;
    if (!peers_.TellOfClient()) return AnswerAndEnd(kTellingFailed);
    return peers_.untold && (verb_->traits & kBeforeTls) == 0 ? Answer(kClientUntold) : outcome;
}

// The answer to a command whose turn comes behind TLS or a greeting only; else empty.
std::string_view Dialogue::NotBefore() const {
    if ((verb_->traits & kBeforeTls) != 0) return {};
    if (peers_.settings.options.clientTls == ClientTls::kRequire && !peers_.client.Secured())
        return kNeedsTls;
    return peers_.needsGreeting ? kNeedsGreeting : std::string_view();
}

// Whether the second token begins with "KEYWORD:", or is KEYWORD and the third begins with ':'.
bool Dialogue::NamesPath(std::string_view keyword) const {
    const std::string_view second = tokens_[1];
    if (!EqualIgnoringCase(second.substr(0, keyword.size()), keyword)) return false;
    const std::string_view rest = second.substr(keyword.size());
    return rest.starts_with(':') || (rest.empty() && tokens_[2][0] == ':');
}

Dialogue::Outcome Dialogue::RefuseToRelay() {
    metrics::Add<metrics::Metric::kFilterHits>(metrics::Filter::kRelay);
    return Answer(kUnableToRelay);
}

Dialogue::Outcome Dialogue::RecipientRule() {
    const bool stranger = !peers_.relayAllowed;
    if (!NamesPath("to")) {  // the server judges the syntax, and may judge mildly
        return stranger && !UnreadStaysInside(copy_, peers_.settings.mailDomains)
                   ? RefuseToRelay()
                   : Outcome::kForward;
    }
    if (peers_.untold) return Answer(kBadSequence);  // there is no sender
    const std::string_view text = BehindColon(copy_);
    if (stranger && (IsLocalRecipientOf(text.data(), peers_.settings.mailDomains) == 0 ||
                     !StaysInside(text, peers_.settings.mailDomains)))
        return RefuseToRelay();
    // What is due may begin another envelope.
    if (envelope_.recipients.size() + due_.size() >= kMostRecipients && (!AnswerDue() || closing_))
        return Outcome::kEndSession;
    if (envelope_.recipients.size() >= kMostRecipients) return Answer(kTooManyRecipients);
    recipientText_ = ReadPath(text).address.substr(0, kLongestAddress);
    inFlight_ = CMD_RCPT;
    return Outcome::kForward;
}

// A sender that is none by the grammar, and one to lenient servers all the same: nothing is known
// of it, but who is listed doesn't pass by that.
Dialogue::Outcome Dialogue::UnreadSender() {
    std::string_view rest = copy_;
    TakeWord(rest);
    if (filters_ == nullptr || rest.find_first_of("@%!") == std::string_view::npos)
        return Outcome::kForward;
    MailPath path = ReadPath(rest);
    const int judgement = CheckSenderReadings(*filters_, path, denyText_.data(), kTextSize);
    if (judgement != 1 && judgement != 2) return Outcome::kForward;
    metrics::Add<metrics::Metric::kFilterHits>(metrics::Filter::kSenders);
    return Answer(kDefaultDeny, Peers::Wording::kKnown);
}

Dialogue::Outcome Dialogue::SenderRule() {
    if (!NamesPath("from")) return UnreadSender();
    if (AsksForMoreReplies(BehindColon(copy_))) return Answer(kUnknownParameter);
    MailPath path = ReadPath(BehindColon(copy_));
    const int judgement =
        filters_ == nullptr ? 0 : CheckSenderReadings(*filters_, path, denyText_.data(), kTextSize);
    senderText_ = path.address.substr(0, kLongestAddress);
    if (judgement == 1 || judgement == 2)
        metrics::Add<metrics::Metric::kFilterHits>(metrics::Filter::kSenders);
    if (judgement == 1)
        return Answer(denyText_[0] != '\0' ? denyText_.data() : kDefaultDeny,
                      Peers::Wording::kKnown);
    if (judgement == 2) {
        if (!AnswerDue() || closing_) return Outcome::kEndSession;
        peers_.SendStatEvent(81, senderText_.c_str(), nullptr);
        // The session ends either way.
        peers_.SendReply(peers_.Own(denyText_.data(), Peers::Wording::kKnown));
        return Outcome::kEndSession;
    }
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && DeclaredSize(path.parameters) > static_cast<unsigned long long>(limit))
        return Answer(kMessageTooLarge);
    if (peers_.settings.options.tellServer == TellServer::kXforward) {
        if (!AnswerDue() || closing_) return Outcome::kEndSession;
        if (!peers_.TellOfClient()) return AnswerAndEnd(kTellingFailed);
    }
    if (peers_.untold) return Answer(kClientUntold);
    inFlight_ = EqualIgnoringCase(tokens_[0], "soml")   ? CMD_SOML
                : EqualIgnoringCase(tokens_[0], "saml") ? CMD_SAML
                                                        : CMD_MAIL;
    return Outcome::kForward;
}

Dialogue::Outcome Dialogue::RefusedRule() { return Answer(kUnknownCommand); }

Dialogue::Outcome Dialogue::DataRule() {
    if (tokenCount_ >= 2) return Answer(kUnknownCommand);
    if (!envelope_.haveRecipient || !envelope_.haveMail || envelope_.messagePhase == PHASE_BDAT ||
        envelope_.binaryMime)
        return Answer(kBadSequence);
    envelope_.messagePhase = PHASE_DATA;
    return Outcome::kMessage;
}

Dialogue::Outcome Dialogue::ChunkRule() {
    const std::string_view refusal = NotBefore();
    const std::string_view unknown = refusal.empty() ? kUnknownCommand : refusal;
    // Read wide: ten digits can name more than an int holds, which is no chunk size.
    long long size = -1;
    if (std::sscanf(tokens_[1], "%lld", &size) != 1 || size > 0x7FFFFFFF) size = -1;
    if (chunkingState_ == CHUNKING_ABSENT || (tokenCount_ != 2 && tokenCount_ != 3) || size < 0)
        return Answer(unknown);
    if (tokenCount_ == 3 && !EqualIgnoringCase(tokens_[2], "last")) return Answer(unknown);
    const bool last = tokenCount_ == 3;
    // The chunk is read before the envelope is looked at, or its bytes would be taken for commands.
    // Bytes that nobody has announced a message for are none: nothing is wrong with their line
    // ends.
    const bool announced = refusal.empty() && envelope_.haveRecipient && envelope_.haveMail;
    const Chunk chunk{envelope_.messagePhase != PHASE_BDAT, last,
                      envelope_.binaryBody || !announced, size};
    if (chunk.first && announced) peers_.journal.BeginMessage(envelope_, "bdat");
    switch (reception_.ReceiveChunk(chunk)) {
        case Received::kWhole:
            break;
        case Received::kTooLarge:
            return RefuseLargeMessage();
        case Received::kFailed:
            return Outcome::kEndSession;
    }
    if (TalksEarly(peers_.pipelining)) return AnswerAndEnd(kTooEarly);
    if (!refusal.empty()) return Answer(refusal);
    if (!envelope_.haveRecipient || !envelope_.haveMail) return Answer(kBadSequence);
    envelope_.messagePhase = PHASE_BDAT;
    inFlight_ = CMD_BDAT;
    return last ? Outcome::kMessage : Answer(kChunkReceived);
}

Dialogue::Outcome Dialogue::RefuseLargeMessage() {
    envelope_.Clear();
    const bool inStep = peers_.AnswerInsteadOfServer(peers_.Own(kMessageTooLarge));
    peers_.journal.EndMessage();
    return inStep ? Outcome::kAnswered : Outcome::kEndSession;
}

// What the client calls itself goes to the server as it came, and is told it where that is asked.
Dialogue::Outcome Dialogue::GreetingRule() {
    // By the same blanks as the verb.
    std::string_view rest = line_;
    TakeWord(rest);
    peers_.helo = TakeWord(rest);
    peers_.proto = inFlight_ == CMD_EHLO ? "ESMTP" : "SMTP";
    if (peers_.identity.helo.empty()) peers_.journal.session.helo = peers_.helo;
    return Outcome::kForward;
}

Dialogue::Outcome Dialogue::AuthRule() {
    const bool bare = peers_.settings.options.authOnlyOverTls && !peers_.client.Secured();
    return bare ? Answer(kAuthNeedsTls) : Outcome::kForward;
}

// A verb without a rule of its own goes to the server; its code says what its reply means.
const Dialogue::Verb Dialogue::kVerbs[] = {
    {"EHLO", CMD_EHLO, &Dialogue::GreetingRule, kBeforeTls | kAlone},
    {"HELO", CMD_HELO, &Dialogue::GreetingRule, kBeforeTls | kAlone},
    {"QUIT", CMD_QUIT, &Dialogue::ForwardRule, kBeforeTls},
    {"RSET", CMD_RSET, &Dialogue::ForwardRule, kBeforeTls | kInBatch},
    {"NOOP", CMD_OTHER, &Dialogue::ForwardRule, kBeforeTls},
    {"RCPT", CMD_OTHER, &Dialogue::RecipientRule, kInBatch},
    {"MAIL", CMD_OTHER, &Dialogue::SenderRule, kInBatch},
    {"SEND", CMD_OTHER, &Dialogue::SenderRule, kInBatch},
    {"SOML", CMD_OTHER, &Dialogue::SenderRule, kInBatch},
    {"SAML", CMD_OTHER, &Dialogue::SenderRule, kInBatch},
    {"DATA", CMD_OTHER, &Dialogue::DataRule, kAlone},
    {"BDAT", CMD_OTHER, &Dialogue::ChunkRule, kBytesBehind},
    {"AUTH", CMD_AUTH, &Dialogue::AuthRule, kAlone},
    {"STARTTLS", CMD_STARTTLS, &Dialogue::StartTlsRule, kBeforeTls | kBytesBehind},
    {"BURL", CMD_OTHER, &Dialogue::RefusedRule},
    {"XCLIENT", CMD_OTHER, &Dialogue::XclientRule, kAlone},
    {"XFORWARD", CMD_OTHER, &Dialogue::RefusedRule},
    {"PROXY", CMD_OTHER, &Dialogue::RefusedRule},
    {"PIPECONNEC", CMD_OTHER, &Dialogue::RefusedRule},  // tokens end after ten bytes
    {"X-ANONYMOU", CMD_OTHER, &Dialogue::RefusedRule},  // TLS that we couldn't look into
    {"X-EXPS", CMD_OTHER, &Dialogue::RefusedRule},
    {"COMPRESS", CMD_OTHER, &Dialogue::RefusedRule},    // nor into this
    {"XEXCH50", CMD_OTHER, &Dialogue::RefusedRule},     // bytes follow
    {"X-LINK2STA", CMD_OTHER, &Dialogue::RefusedRule},  // what servers of one house tell each other
    {"XSHADOW", CMD_OTHER, &Dialogue::RefusedRule},
    {"XSHADOWREQ", CMD_OTHER, &Dialogue::RefusedRule},
    {"XPROXY", CMD_OTHER, &Dialogue::RefusedRule},  // as XFORWARD, or on to yet another server
    {"XPROXYFROM", CMD_OTHER, &Dialogue::RefusedRule},
    {"XPROXYTO", CMD_OTHER, &Dialogue::RefusedRule},
    {"TURN", CMD_OTHER, &Dialogue::RefusedRule},  // the server would become the client
    {"ATRN", CMD_OTHER, &Dialogue::RefusedRule},
    {"LHLO", CMD_OTHER, &Dialogue::RefusedRule},  // a reply for each recipient of a message
    {"VERB", CMD_OTHER, &Dialogue::RefusedRule},  // lines in front of replies, of their own code
    {nullptr, CMD_OTHER, &Dialogue::ForwardRule},
};

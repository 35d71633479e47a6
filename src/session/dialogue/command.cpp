// The client's side of the dialogue: what its commands come to. The table of verbs is at the end.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "asfilters/asfilters.h"
#include "session/address/normalize.h"
#include "session/address/path.h"
#include "session/address/sender_check.h"
#include "session/dialogue/dialogue.h"
#include "text/ascii.h"

namespace {

constexpr std::string_view kUnknownCommand = "501 Unknown command\r\n";
constexpr std::string_view kBadSequence = "503 Bad sequence of commands\r\n";
constexpr std::string_view kUnableToRelay = "550 Unable to relay\r\n";
constexpr std::string_view kChunkReceived = "250 chunk received ok\r\n";
constexpr std::string_view kTooLong = "500 5.5.2 Line too long\r\n";
constexpr std::string_view kTooManyRecipients = "452 4.5.3 Too many recipients\r\n";
// Of one message, whatever the server takes: each is kept until the message is over.
constexpr std::size_t kMostRecipients = 10000;
// For a refused sender without a deny text: a client always gets exactly one reply to a command.
constexpr std::string_view kDefaultDeny = "550 5.7.1 Message Rejected\r\n";

std::string_view BehindColon(std::string_view text) {
    const std::size_t colon = text.find(':');
    return colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
}

// The number of the parameter SIZE=number, or 0.
unsigned long long DeclaredSize(std::string_view parameters) {
    constexpr std::string_view kBlanks = " \t\r\n";
    constexpr std::string_view kKey = "SIZE=";
    while (!parameters.empty()) {
        const std::size_t end = std::min(parameters.find_first_of(kBlanks), parameters.size());
        const std::string_view word = parameters.substr(0, end);
        parameters.remove_prefix(std::min(end + 1, parameters.size()));
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

Dialogue::Outcome Dialogue::Answer(std::string_view text) {
    if (!peers_.client.Send(text)) return Outcome::kEndSession;
    const bool alive = peers_.server.KeepAliveAfterAnswer() && !peers_.client.PeerGone();
    return alive ? Outcome::kAnswered : Outcome::kEndSession;
}

Dialogue::Outcome Dialogue::Dispatch(bool whole) {
    copy_ = line_;
    NormalizeCommand(copy_.data());
    copy_.resize(std::strlen(copy_.c_str()));
    for (auto& token : tokens_) token[0] = '\0';
    tokenCount_ = std::max(0, std::sscanf(copy_.c_str(), "%10s %10s %10s %10s", tokens_[0],
                                          tokens_[1], tokens_[2], tokens_[3]));
    const Verb* verb = kVerbs;
    while (verb->word != nullptr && !EqualIgnoringCase(tokens_[0], verb->word)) ++verb;
    const bool tooLong = verb->code != CMD_AUTH && line_.size() > kLongestCommand;
    if (!whole || tooLong) return Answer(kTooLong);
    if (HidesText(line_)) return Answer(kUnknownCommand);
    inFlight_ = verb->code;
    return (this->*verb->rule)();
}

// Whether the second token begins with "KEYWORD:", or is KEYWORD and the third begins with ':'.
bool Dialogue::NamesPath(std::string_view keyword) const {
    const std::string_view second = tokens_[1];
    if (!EqualIgnoringCase(second.substr(0, keyword.size()), keyword)) return false;
    const std::string_view rest = second.substr(keyword.size());
    return rest.starts_with(':') || (rest.empty() && tokens_[2][0] == ':');
}

Dialogue::Outcome Dialogue::RecipientRule() {
    const bool stranger = !peers_.relayAllowed;
    if (!NamesPath("to")) {  // the server judges the syntax, and may judge mildly
        return stranger && !UnreadStaysInside(copy_, peers_.settings.mailDomains)
                   ? Answer(kUnableToRelay)
                   : Outcome::kForward;
    }
    const std::string_view text = BehindColon(copy_);
    if (stranger && (IsLocalRecipientOf(text.data(), peers_.settings.mailDomains) == 0 ||
                     !StaysInside(text, peers_.settings.mailDomains)))
        return Answer(kUnableToRelay);
    if (envelope_.recipients.size() >= kMostRecipients) return Answer(kTooManyRecipients);
    recipientText_ = ReadPath(text).address.substr(0, kLongestAddress);
    inFlight_ = CMD_RCPT;
    return Outcome::kForward;
}

Dialogue::Outcome Dialogue::SenderRule() {
    if (!NamesPath("from")) return Outcome::kForward;
    MailPath path = ReadPath(BehindColon(copy_));
    const int judgement =
        filters_ == nullptr ? 0 : CheckSenderReadings(*filters_, path, denyText_.data(), kTextSize);
    senderText_ = path.address.substr(0, kLongestAddress);
    if (judgement == 1) return Answer(denyText_[0] != '\0' ? denyText_.data() : kDefaultDeny);
    if (judgement == 2) {
        peers_.SendStatEvent(81, senderText_.c_str(), nullptr);
        peers_.client.Send(denyText_.data());  // the session ends either way
        return Outcome::kEndSession;
    }
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && DeclaredSize(path.parameters) > static_cast<unsigned long long>(limit))
        return Answer(kMessageTooLarge);
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
    // Read wide: ten digits can name more than an int holds, which is no chunk size.
    long long size = -1;
    if (std::sscanf(tokens_[1], "%lld", &size) != 1 || size > 0x7FFFFFFF) size = -1;
    if (chunkingState_ == CHUNKING_ABSENT || (tokenCount_ != 2 && tokenCount_ != 3) || size < 0)
        return Answer(kUnknownCommand);
    if (tokenCount_ == 3 && !EqualIgnoringCase(tokens_[2], "last")) return Answer(kUnknownCommand);
    const bool last = tokenCount_ == 3;
    // The chunk is read before the envelope is looked at, or its bytes would be taken for commands.
    const bool first = envelope_.messagePhase != PHASE_BDAT;
    switch (reception_.ReceiveChunk(first, size)) {
        case Received::kWhole:
            break;
        case Received::kTooLarge:
            envelope_.Clear();
            return peers_.AnswerInsteadOfServer(kMessageTooLarge) ? Outcome::kAnswered
                                                                  : Outcome::kEndSession;
        case Received::kFailed:
            return Outcome::kEndSession;
    }
    if (!envelope_.haveRecipient || !envelope_.haveMail) return Answer(kBadSequence);
    envelope_.messagePhase = PHASE_BDAT;
    inFlight_ = CMD_BDAT;
    return last ? Outcome::kMessage : Answer(kChunkReceived);
}

// A verb without a rule of its own goes to the server; its code says what its reply means.
const Dialogue::Verb Dialogue::kVerbs[] = {
    {"EHLO", CMD_EHLO, &Dialogue::ForwardRule},
    {"HELO", CMD_HELO, &Dialogue::ForwardRule},
    {"QUIT", CMD_QUIT, &Dialogue::ForwardRule},
    {"RSET", CMD_RSET, &Dialogue::ForwardRule},
    {"RCPT", CMD_OTHER, &Dialogue::RecipientRule},
    {"MAIL", CMD_OTHER, &Dialogue::SenderRule},
    {"SEND", CMD_OTHER, &Dialogue::SenderRule},
    {"SOML", CMD_OTHER, &Dialogue::SenderRule},
    {"SAML", CMD_OTHER, &Dialogue::SenderRule},
    {"DATA", CMD_OTHER, &Dialogue::DataRule},
    {"BDAT", CMD_OTHER, &Dialogue::ChunkRule},
    {"AUTH", CMD_AUTH, &Dialogue::ForwardRule},
    {"STARTTLS", CMD_STARTTLS, &Dialogue::ForwardRule},
    {"BURL", CMD_OTHER, &Dialogue::RefusedRule},
    {"XCLIENT", CMD_OTHER, &Dialogue::RefusedRule},
    {"XFORWARD", CMD_OTHER, &Dialogue::RefusedRule},
    {"PIPECONNEC", CMD_OTHER, &Dialogue::RefusedRule},  // tokens end after ten bytes
    {nullptr, CMD_OTHER, &Dialogue::ForwardRule},
};

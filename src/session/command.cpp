// The client's side of the dialogue: what its commands come to. The table of verbs is at the end.
#include <cstdio>
#include <cstring>

#include "asfilters/asfilters.h"
#include "session/dialogue.h"
#include "session/normalize.h"
#include "session/path.h"
#include "session/sender_check.h"

namespace {

constexpr char kUnknownCommand[] = "501 Unknown command\r\n";
constexpr char kBadSequence[] = "503 Bad sequence of commands\r\n";
constexpr char kUnableToRelay[] = "550 Unable to relay\r\n";
constexpr char kChunkReceived[] = "250 chunk received ok\r\n";
// For a refused sender without a deny text: a client always gets exactly one reply to a command.
constexpr char kDefaultDeny[] = "550 5.7.1 Message Rejected\r\n";

bool IsWord(const char* token, const char* word) {
    return std::strlen(token) == std::strlen(word) &&
           EqualIgnoringCase(token, word, std::strlen(word));
}

// A zero byte, or a CR that isn't the line's end: a server might read a command behind it that the
// checks here don't see.
bool HidesText(const char* line, int length) {
    const auto size = static_cast<std::size_t>(length);
    if (std::memchr(line, '\0', size) != nullptr) return true;
    const void* cr = std::memchr(line, '\r', size);
    return cr != nullptr && static_cast<const char*>(cr) + 2 != line + size;
}

const char* BehindColon(const char* text) {
    const char* colon = std::strchr(text, ':');
    return colon == nullptr ? "" : colon + 1;
}

void Store(const std::string& address, char (&target)[kSessionTextSize]) {
    std::snprintf(target, sizeof target, "%s", address.c_str());
}

}  // namespace

Dialogue::Outcome Dialogue::Answer(const char* text) {
    if (session_.clientSocket.SendAll(text) == 0) return Outcome::kEndSession;
    return KeepAlive(&session_) == 0 ? Outcome::kAnswered : Outcome::kEndSession;
}

Dialogue::Outcome Dialogue::Dispatch() {
    if (HidesText(line_, lineLength_)) return Answer(kUnknownCommand);
    std::memcpy(copy_, line_, static_cast<std::size_t>(lineLength_) + 1);
    NormalizeCommand(copy_);
    for (auto& token : tokens_) token[0] = '\0';
    tokenCount_ =
        std::sscanf(copy_, "%10s %10s %10s %10s", tokens_[0], tokens_[1], tokens_[2], tokens_[3]);
    if (tokenCount_ < 0) tokenCount_ = 0;
    for (const Verb* verb = kVerbs; verb->word != nullptr; ++verb) {
        if (!IsWord(tokens_[0], verb->word)) continue;
        inFlight_ = verb->code;
        return (this->*verb->rule)();
    }
    return Outcome::kForward;
}

// Whether the second token begins with "KEYWORD:", or is KEYWORD and the third begins with ':'.
bool Dialogue::NamesPath(const char* keyword) const {
    const std::size_t length = std::strlen(keyword);
    const char* second = tokens_[1];
    if (std::strlen(second) < length || !EqualIgnoringCase(second, keyword, length)) return false;
    return second[length] == ':' || (second[length] == '\0' && tokens_[2][0] == ':');
}

Dialogue::Outcome Dialogue::RecipientRule() {
    const bool stranger = session_.relayAllowed == 0;
    if (!NamesPath("to")) {  // the server judges the syntax, and may judge mildly
        return stranger && !UnreadStaysInside(copy_, session_.mailDomains) ? Answer(kUnableToRelay)
                                                                           : Outcome::kForward;
    }
    const char* path = BehindColon(copy_);
    if (stranger &&
        (session_.IsLocalRecipient(path) == 0 || !StaysInside(path, session_.mailDomains)))
        return Answer(kUnableToRelay);
    Store(ReadPath(path).address, recipientText_);
    inFlight_ = CMD_RCPT;
    return Outcome::kForward;
}

Dialogue::Outcome Dialogue::SenderRule() {
    if (!NamesPath("from")) return Outcome::kForward;
    MailPath sender = ReadPath(BehindColon(copy_));
    Store(sender.address, senderText_);
    if (filters_ != nullptr) {
        const int result = CheckSenderReadings(*filters_, sender, denyText_, kSessionTextSize);
        Store(sender.address, senderText_);
        if (result == 1) return Answer(denyText_[0] != '\0' ? denyText_ : kDefaultDeny);
        if (result == 2) {
            session_.SendStatEvent(81, senderText_, nullptr);
            session_.clientSocket.SendAll(denyText_);  // the session ends either way
            return Outcome::kEndSession;
        }
    }
    inFlight_ = IsWord(tokens_[0], "soml")   ? CMD_SOML
                : IsWord(tokens_[0], "saml") ? CMD_SAML
                                             : CMD_MAIL;
    return Outcome::kForward;
}

Dialogue::Outcome Dialogue::UnscannableRule() { return Answer(kUnknownCommand); }

Dialogue::Outcome Dialogue::DataRule() {
    if (tokenCount_ >= 2) return Answer(kUnknownCommand);
    if (!haveRecipient_ || !haveMail_ || session_.messagePhase == PHASE_BDAT || binaryMime_)
        return Answer(kBadSequence);
    session_.messagePhase = PHASE_DATA;
    return Outcome::kMessage;
}

Dialogue::Outcome Dialogue::ChunkRule() {
    // Read wide: ten digits can name more than an int holds, which is no chunk size.
    long long size = -1;
    if (std::sscanf(tokens_[1], "%lld", &size) != 1 || size > 0x7FFFFFFF) size = -1;
    if (chunkingState_ == CHUNKING_ABSENT || (tokenCount_ != 2 && tokenCount_ != 3) || size < 0)
        return Answer(kUnknownCommand);
    session_.lastChunkSeen = 0;
    if (tokenCount_ == 3) {
        if (!IsWord(tokens_[2], "last")) return Answer(kUnknownCommand);
        session_.lastChunkSeen = 1;
    }
    // The chunk is read before the envelope is looked at, or its bytes would be taken for commands.
    if (session_.ReceiveChunk(session_.messagePhase != PHASE_BDAT ? 1 : 0,
                              static_cast<int>(size)) == 0)
        return Outcome::kEndSession;
    if (!haveRecipient_ || !haveMail_) return Answer(kBadSequence);
    session_.messagePhase = PHASE_BDAT;
    inFlight_ = CMD_BDAT;
    return session_.lastChunkSeen != 0 ? Outcome::kMessage : Answer(kChunkReceived);
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
    {"BURL", CMD_OTHER, &Dialogue::UnscannableRule},
    {nullptr, CMD_OTHER, nullptr},
};

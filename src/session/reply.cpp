// The server's side of the dialogue: what its replies mean for the envelope, and what the client
// sees of them.
#include <cstdio>
#include <cstring>

#include "asfilters/asfilters.h"
#include "session/dialogue.h"
#include "session/normalize.h"
#include "session/registry.h"

namespace {

bool Begins(const char* line, const char* code) { return std::strncmp(line, code, 3) == 0; }
bool Continues(const char* line, int length) { return length > 3 && line[3] == '-'; }

bool SameWord(const char* a, const char* b) {
    return std::strlen(a) == std::strlen(b) && EqualIgnoringCase(a, b, std::strlen(b));
}

}  // namespace

// Reads one reply of the server and gives it to the client. False ends the session.
bool Dialogue::RelayReply() {
    firstLine_ = true;
    confirmed_ = false;
    bool swallow = false;  // the client has its one line: the rest is only read
    for (;;) {
        if (session_.serverSocket.ReadLine(reply_, replyLength_, kLineSize,
                                           session_.connectionTimeout) == 0)
            return false;
        const bool continued = Continues(reply_, replyLength_);
        if (swallow) {
            if (!continued) return true;
            continue;
        }
        GuardAgainstHarvesting();
        const Line outcome = RewriteLine();
        if (outcome != Line::kDrop && replyLength_ > 0 &&
            session_.clientSocket.SendAll(reply_, replyLength_) == 0)
            return false;
        if (closing_) return true;
        if (outcome == Line::kWholeReply) {
            if (!continued) return true;
            swallow = true;
        } else if (!Continues(reply_, replyLength_)) {
            return true;
        }
    }
}

void Dialogue::GuardAgainstHarvesting() {
    if (!Begins(reply_, "550") || filters_ == nullptr || inFlight_ != CMD_RCPT) return;
    const SessionRegistry::Delay delay;
    for (const std::string& domain : session_.mailDomains) {
        const int result =
            filters_->CheckRecipient(recipientText_, domain.c_str(), denyText_, kSessionTextSize);
        if (result == 3) return;
        if (result != 2) continue;
        session_.SendStatEvent(82, senderText_, recipientText_);
        replyLength_ = std::snprintf(reply_, sizeof reply_, "%s", denyText_);
        closing_ = true;
        return;
    }
}

void Dialogue::SetReply(const char* format) {
    // The formats are our own, with one %s for the name; name and text always fit.
    char name[kLineSize / 2];
    std::snprintf(name, sizeof name, "%s", session_.greetingName.c_str());
    std::string text(format);
    text.replace(text.find("%s"), 2, name);
    replyLength_ = std::snprintf(reply_, sizeof reply_, "%s", text.c_str());
}

void Dialogue::ClearEnvelope() {
    session_.ClearEnvelope();
    haveMail_ = false;
    haveRecipient_ = false;
}

Dialogue::Line Dialogue::RewriteLine() {
    if (reply_[0] != '2') return Line::kPass;
    if (Begins(reply_, "220")) {
        SetReply("220 %s ESMTP Vantrel Proxy\r\n");
        return Line::kWholeReply;
    }
    if (Begins(reply_, "221")) {
        closing_ = true;
        SetReply("221 %s ESMTP Vantrel Proxy closing connection\r\n");
        return Line::kWholeReply;
    }
    if (!Begins(reply_, "250")) return Line::kPass;
    if (inFlight_ == CMD_EHLO) return FilterEhloLine();
    if (inFlight_ == CMD_HELO) {
        SetReply("250 %s ESMTP Vantrel Proxy, pleased to meet you\r\n");
        ClearEnvelope();
        return Line::kWholeReply;
    }
    // A reply of several lines confirms once.
    if (confirmed_) return Line::kPass;
    confirmed_ = true;
    switch (inFlight_) {
        case CMD_MAIL:
        case CMD_SOML:
        case CMD_SAML:
            AcceptSender();
            break;
        case CMD_RCPT:
            session_.recipients.emplace_back(recipientText_);
            haveRecipient_ = true;
            break;
        case CMD_RSET:
            ClearEnvelope();
            binaryMime_ = false;
            break;
        default:
            break;
    }
    return Line::kPass;
}

void Dialogue::AcceptSender() {
    session_.savedMailLine.emplace(line_, static_cast<std::size_t>(lineLength_));
    haveMail_ = true;
    FreeTextList(session_.recipients);
    haveRecipient_ = false;
    session_.messagePhase = PHASE_NONE;
    for (char* at = line_; *at != '\0'; ++at) {
        if (*at >= 'A' && *at <= 'Z') *at = static_cast<char>(*at - 'A' + 'a');
    }
    StripBlanks(line_);
    binaryMime_ = std::strstr(line_, "body=binarymime") != nullptr;
}

Dialogue::Line Dialogue::FilterEhloLine() {
    if (firstLine_ && reply_[3] == '-') {
        firstLine_ = false;
        SetReply("250-%s\r\n");
        ClearEnvelope();
    }
    if (chunkingState_ == CHUNKING_UNKNOWN) chunkingState_ = CHUNKING_ABSENT;
    int number = 0;
    char separator = '\0';
    char keyword[32] = "";
    std::sscanf(reply_, "%d%c%31s", &number, &separator, keyword);
    if (SameWord(keyword, "chunking")) {
        chunkingState_ = CHUNKING_OFFERED;
        session_.serverTakesChunks = true;
        return Line::kPass;
    }
    if (!SameWord(keyword, "pipelining") && !SameWord(keyword, "starttls")) return Line::kPass;
    if (separator != ' ') return Line::kDrop;
    replyLength_ = std::snprintf(reply_, sizeof reply_, "250 EHLO\r\n");
    return Line::kPass;
}

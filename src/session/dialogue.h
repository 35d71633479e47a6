// One run of the command dialogue: from a reply that is due, or the client's next command, to a
// complete message or the end of the session. A strict ping-pong: one reply from the server, one
// command from the client.
#pragma once

#include <array>
#include <memory>

#include "session/session.h"

namespace asfilters {
class CASFilters;
}

enum InFlight {
    CMD_OTHER = 9,
    CMD_HELO = 10,
    CMD_EHLO = 11,
    CMD_MAIL = 12,
    CMD_SOML = 14,
    CMD_SAML = 15,
    CMD_RCPT = 16,
    CMD_BDAT = 18,
    CMD_RSET = 19,
    CMD_QUIT = 20
};
enum ChunkingState { CHUNKING_UNKNOWN = 0, CHUNKING_ABSENT = 1, CHUNKING_OFFERED = 2 };

class Dialogue {
  public:
    explicit Dialogue(CSMTPProxy& session);

    // 1: a message is complete; 0: end the session.
    int Run(bool readReply);

  private:
    // What a command comes to.
    enum class Outcome { kForward, kAnswered, kEndSession, kMessage };
    // What becomes of a line of a reply.
    enum class Line { kPass, kDrop, kWholeReply };
    using Rule = Outcome (Dialogue::*)();
    struct Verb {
        const char* word;
        InFlight code;
        Rule rule;
    };
    static const Verb kVerbs[];

    bool RelayReply();
    void GuardAgainstHarvesting();
    Line RewriteLine();
    Line FilterEhloLine();
    void SetReply(const char* format);
    void ClearEnvelope();
    void AcceptSender();

    Outcome Dispatch();
    Outcome Answer(const char* text);
    Outcome ForwardRule() { return Outcome::kForward; }
    // A message that the server would fetch itself never passes here.
    Outcome UnscannableRule();
    Outcome RecipientRule();
    Outcome SenderRule();
    Outcome DataRule();
    Outcome ChunkRule();
    bool NamesPath(const char* keyword) const;

    static constexpr int kLineSize = 1024;
    static constexpr int kClientLineSize = 1023;
    static constexpr int kTokenSize = 12;

    CSMTPProxy& session_;
    const std::shared_ptr<asfilters::CASFilters> filters_;  // may be null
    int inFlight_ = CMD_OTHER;
    bool haveMail_ = false;
    bool haveRecipient_ = false;
    int chunkingState_ = CHUNKING_UNKNOWN;
    bool binaryMime_ = false;
    bool closing_ = false;
    bool firstLine_ = false;  // no line of this reply has been made the head of an EHLO reply
    bool confirmed_ = false;  // this reply has confirmed its command already
    int replyLength_ = 0;
    int lineLength_ = 0;
    int tokenCount_ = 0;
    char reply_[kLineSize];
    char line_[kLineSize];  // the client's line as it came
    char copy_[kLineSize];  // the same, normalised
    char senderText_[kSessionTextSize];
    char recipientText_[kSessionTextSize];
    char denyText_[kSessionTextSize];
    std::array<char[kTokenSize], 4> tokens_;
};

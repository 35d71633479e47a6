// dialogue/: commands (command.cpp) and replies (reply.cpp).
//
// One run of the command dialogue: from a reply that is due, or the client's next command, to a
// complete message or the end of the session. A ping-pong: one command from the client, one reply
// from the server. Commands that a client sends together are answered in their order; those that
// don't hang on the answers to others go on together to a server that takes batches.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "session/envelope.h"
#include "session/message/reception.h"
#include "session/peers.h"

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
    CMD_AUTH = 17,
    CMD_BDAT = 18,
    CMD_RSET = 19,
    CMD_QUIT = 20,
    CMD_STARTTLS = 21
};
enum ChunkingState { CHUNKING_UNKNOWN = 0, CHUNKING_ABSENT = 1, CHUNKING_OFFERED = 2 };

class TlsContext;

// How a session waits for its client: a stop of the service ends the wait.
class CommandSource {
  public:
    virtual Stream::Line ReadCommand(std::string_view& line, std::size_t limit) = 0;
    // The client's handshake, as SecureClient has it.
    virtual bool Handshake(const TlsContext& context) = 0;

  protected:
    ~CommandSource() = default;
};

class Dialogue {
  public:
    Dialogue(Peers& peers, Envelope& envelope, Reception& reception, CommandSource& commands);

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
        unsigned traits = 0;
    };
    // Of a verb:
    static constexpr unsigned kInBatch = 1;      // it may go on together with others
    static constexpr unsigned kBeforeTls = 2;    // it is answered also where mail needs TLS
    static constexpr unsigned kAlone = 4;        // a client has to wait for the answer in any case
    static constexpr unsigned kBytesBehind = 8;  // what follows it is none of the dialogue's
    static const Verb kVerbs[];
    // A command that has gone to the server, with what its reply will be about.
    struct Due {
        int code;
        std::string line;
        std::string recipient;
        std::string sender;
    };

    bool Forward();
    bool AnswerDue();
    bool Reply(std::string_view text);
    bool TalksEarly(bool mayTalkOn) const;

    bool RelayReply();
    void NoteLine();
    bool GuardAgainstHarvesting();
    Line RewriteLine();
    Line FilterEhloLine();
    bool IsOffered(std::string_view keyword) const;
    void AddOwnOffers();
    void OfferSize();
    void SetReply(std::string_view format);
    void Confirm();
    void AcceptSender();

    Outcome TakeCommand();
    Outcome TakeAuthAnswer(bool whole);
    void TakeTokens();
    Outcome Dispatch(bool whole);
    // A refusal gets the id of the session or message behind it.
    Outcome Answer(std::string_view text, Peers::Wording wording = Peers::Wording::kOurs);
    Outcome AnswerAndEnd(std::string_view text);
    Outcome ForwardRule() { return Outcome::kForward; }
    // A message that the server would fetch itself never passes here, and nobody tells the server
    // who its client is but the proxy.
    Outcome RefusedRule();
    Outcome RecipientRule();
    Outcome RefuseToRelay();
    Outcome SenderRule();
    Outcome UnreadSender();
    Outcome DataRule();
    std::string_view NotBefore() const;
    Outcome ChunkRule();
    Outcome RefuseLargeMessage();
    Outcome GreetingRule();
    Outcome AuthRule();
    Outcome StartTlsRule();
    Outcome XclientRule();
    bool NamesPath(std::string_view keyword) const;
    // A zero byte, or a CR that isn't the line's end: a server might read a command behind it that
    // the checks here don't see.
    static bool HidesText(std::string_view line);

    static constexpr std::string_view kUnknownCommand = "501 Unknown command\r\n";
    static constexpr std::string_view kTooEarly =
        "554 5.5.1 Commands came before their turn, closing transmission channel\r\n";
    // With their line ends. Only an authentication exchange has long ones.
    static constexpr std::size_t kLongestCommand = 2048;
    static constexpr std::size_t kLongestAuthLine = 12288;
    static constexpr std::size_t kLongestToken = 10;
    static constexpr int kTextSize = 512;  // of a filter's answer
    static constexpr std::size_t kLongestAddress = 511;

    Peers& peers_;
    Envelope& envelope_;
    Reception& reception_;
    CommandSource& commands_;
    const std::shared_ptr<asfilters::CASFilters> filters_;  // may be null
    std::vector<Due> due_;  // commands whose replies are still to come, in their order
    std::size_t dueBytes_ = 0;
    bool inBatch_ = false;  // the reply in hand is to one of these
    bool hold_ = false;     // replies wait for the one that follows them
    Deadline heldUntil_{0U};
    int inFlight_ = CMD_OTHER;
    const Verb* verb_ = nullptr;
    int chunkingState_ = CHUNKING_UNKNOWN;
    bool authAnswer_ = false;    // the client's next line is its answer to a challenge
    bool startedTls_ = false;    // the server waits for a handshake
    bool closing_ = false;       // once the reply in hand is out
    bool firstLine_ = false;     // no line of this reply has been made the head of an EHLO reply
    bool harvestAsked_ = false;  // the guard has been asked about this reply
    int tokenCount_ = 0;
    std::string reply_;  // the line in hand, as it goes to the client
    std::string line_;   // the client's line as it came
    std::string copy_;   // the same, normalised
    std::string senderText_;
    std::string recipientText_;
    std::array<char, kTextSize> denyText_{};
    std::array<char[kLongestToken + 1], 4> tokens_;
};

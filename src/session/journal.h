// A session's records as they are filled in, and the moments at which they are whole and go to the
// log: a message's when its client has had its last reply, or never will; the session's at its end.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "session/envelope.h"
#include "session/message/message_id.h"
#include "session/record.h"

class Journal {
  public:
    Journal() { session.id = NewSessionId(); }

    SessionRecord session;
    MessageRecord message;  // the one in hand, or the last one

    // The first byte of a message is due. One that is still in hand has been given up.
    void BeginMessage(const Envelope& envelope, std::string_view via);
    bool InMessage() const { return state_ != State::kNone; }
    // The next bytes of it.
    void Feed(std::string_view bytes) {
        if (InMessage()) finder_.Feed(bytes, message.messageId);
    }
    // All of it has come, or all that is stored of it; of one in chunks, as far as it has come.
    void Received(long long size);
    // The scan is over.
    void Scanned(std::string_view verdict);
    // The client has had this reply to the message, of one line or more.
    void Replied(std::string_view reply);
    // The server has said this last, which may name the message.
    void TakeQueueId(std::string_view reply);
    // The relay is over: the client's answer is the server's next reply, or has been given.
    void Relayed(bool replyIsDue);
    // A reply of the server's has gone on to the client; empty if it couldn't. The message in hand
    // ends if it was waiting for that, or if the envelope is gone.
    void ServerReplied(std::string_view reply, bool envelopeGone);
    // Nothing more becomes of the message in hand; without one nothing is done.
    void EndMessage();
    void EndSession() noexcept;

    // A reply of the proxy's own with the message's id behind it, or the session's where there is
    // none: "451 4.3.0 Not now [id]". Of several lines the last one gets it; what would be longer
    // than a client has to take stays as it is, and so does what is no refusal.
    std::string WithId(std::string_view reply) const;

  private:
    using Clock = std::chrono::steady_clock;
    enum class State { kNone, kOpen, kReplyDue };
    // The time since the last call.
    Clock::duration Lap();
    void Count() const;
    void WriteMessage();
    void WriteSession();

    const Clock::time_point begun_ = Clock::now();
    Clock::time_point lap_;        // the end of the message's phase before
    Clock::duration scanTime_{};   // of the message in hand, as the next
    Clock::duration relayTime_{};  // from the verdict on
    State state_ = State::kNone;
    MessageIdFinder finder_;
    std::string line_;
};

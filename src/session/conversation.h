// A session from the server's greeting to its end: the dialogue and the message phase in turn.
#pragma once

#include "session/dialogue/dialogue.h"
#include "session/envelope.h"
#include "session/message/reception.h"
#include "session/message/spool_file.h"
#include "session/peers.h"

class Conversation {
  public:
    // The spool file has its name.
    Conversation(Peers& peers, SpoolFile& spool) : peers_(peers), spool_(spool) {}

    // Both connections stand. Returns when the session is over; nothing is closed.
    void Run(CommandSource& commands);

  private:
    // 1: back to the dialogue, 0: end the session. expectReply: whether the client's answer is a
    // reply of the server's that is still to come.
    int RelayMessage(int* expectReply);
    // The same, and the journal knows what becomes of the message.
    int RelayOne(int* expectReply);

    Peers& peers_;
    SpoolFile& spool_;
    Envelope envelope_;
    Reception reception_{peers_, spool_};
};

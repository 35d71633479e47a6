// The message phase behind the reception: the scan, and what its verdict asks for.
#pragma once

#include <string>
#include <string_view>

#include "platform/file.h"
#include "session/envelope.h"
#include "session/message/spool_file.h"
#include "session/peers.h"

enum Verdict { VERDICT_FAILED = -1, VERDICT_FORWARD = 0, VERDICT_REJECT = 1, VERDICT_DROP = 2 };

// Has the spooled message examined. redirectAddresses gets the addresses that the scan names, ';'
// behind each, 511 bytes at most.
Verdict ScanMessage(Peers& peers, const Envelope& envelope, const SpoolFile& spool,
                    std::string& redirectAddresses);

// Relays one message.
class MessageRelay {
  public:
    MessageRelay(Peers& peers, Envelope& envelope, SpoolFile& spool)
        : peers_(peers), envelope_(envelope), spool_(spool) {}

    // 1: back to the dialogue; expectReply then says who answers the client: 1, a reply of the
    // server is on its way and is the answer; 0, the client has its answer. 0: end the session. The
    // file is gone in every case.
    int Run(int* expectReply);

  private:
    bool Deliver(int* expectReply);
    bool AnswerFailedScan(int* expectReply);
    bool AnswerDropped(int* expectReply);
    bool AnswerRefusal(int* expectReply);
    bool Answer(std::string_view text);
    void NoteRefusal();
    bool OpenFreshEnvelope();
    bool AddRedirects();
    bool SendMessage();
    bool SendAsData();
    bool SendAsChunks();
    void TellRefusedRedirect(const std::string& address) const;

    Peers& peers_;
    Envelope& envelope_;
    SpoolFile& spool_;
    Verdict verdict_ = VERDICT_FAILED;
    TextList redirects_;
    ServerReply reply_;
    // The server's refusal of the sender, of DATA or of a chunk before the last: the client's
    // answer to the whole message.
    std::string refusal_;
};

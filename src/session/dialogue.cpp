#include "session/dialogue.h"

#include <cstring>

#include "asfilters/asfilters.h"

Dialogue::Dialogue(CSMTPProxy& session) : session_(session), filters_(ShareASFilters()) {
    // The texts start empty; of the lines only what was read is looked at.
    reply_[0] = line_[0] = copy_[0] = senderText_[0] = recipientText_[0] = denyText_[0] = '\0';
}

int CSMTPProxy::CommandDialogue(const int* expectReply) {
    messagePhase = PHASE_NONE;
    lastChunkSeen = 0;
    FreeTextList(recipients);
    return Dialogue(*this).Run(*expectReply != 0);
}

int Dialogue::Run(bool readReply) {
    for (;;) {
        if (readReply && !RelayReply()) return 0;
        if (closing_) return 0;
        inFlight_ = CMD_OTHER;
        if (session_.ReadCommand(line_, lineLength_, kClientLineSize) == 0) return 0;
        readReply = false;
        if (std::strcmp(line_, "\r\n") == 0 || std::strcmp(line_, "\n") == 0) continue;
        switch (Dispatch()) {
            case Outcome::kForward:
                if (session_.serverSocket.SendAll(line_, lineLength_) == 0) return 0;
                readReply = true;
                break;
            case Outcome::kAnswered:
                break;
            case Outcome::kEndSession:
                return 0;
            case Outcome::kMessage:
                return 1;
        }
    }
}

#include "session/conversation.h"

#include "session/message/relay.h"

void Conversation::Run(CommandSource& commands) {
    int expectReply = 1;
    do {
        if (peers_.greeted) peers_.state.SetPhase(SessionPhase::kDialogue);
        Dialogue dialogue(peers_, envelope_, reception_, commands);
        if (dialogue.Run(expectReply != 0) == 0) return;
    } while (RelayOne(&expectReply) != 0);
}

int Conversation::RelayOne(int* expectReply) {
    const int result = RelayMessage(expectReply);
    peers_.journal.Relayed(result != 0 && *expectReply != 0);
    return result;
}

int Conversation::RelayMessage(int* expectReply) {
    *expectReply = 1;
    if (envelope_.messagePhase == PHASE_DATA) {
        peers_.journal.BeginMessage(envelope_, "data");
        switch (reception_.ReceiveData()) {
            case Received::kWhole:
                break;
            case Received::kTooLarge:
                *expectReply = 0;
                return peers_.AnswerInsteadOfServer(peers_.Own(kMessageTooLarge)) ? 1 : 0;
            case Received::kFailed:
                return 0;
        }
    }
    return MessageRelay(peers_, envelope_, spool_).Run(expectReply);
}

// The envelope of the message in hand, as the server has confirmed it: nothing that a client only
// asked for stands here.
#pragma once

#include <optional>
#include <string>
#include <vector>

enum MessagePhase { PHASE_NONE = 0, PHASE_DATA = 1, PHASE_BDAT = 2 };

using TextList = std::vector<std::string>;
inline void FreeTextList(TextList& list) { TextList().swap(list); }

struct Envelope {
    std::optional<std::string> savedMailLine;  // the sender command as it came, line end included
    std::string sender;                        // of it, normalised, for the log
    TextList recipients;                       // in the order of acceptance
    bool haveMail = false;
    bool haveRecipient = false;
    bool binaryMime = false;  // the sender command has "body=binarymime" somewhere
    bool binaryBody = false;  // and it is a parameter: the body's line ends are nobody's business
    int messagePhase = PHASE_NONE;

    // A new sender takes the place of all that was.
    void AcceptSender(const std::string& line, const std::string& address, bool binary,
                      bool binaryParameter = false) {
        Clear();
        savedMailLine = line;
        sender = address;
        haveMail = true;
        binaryMime = binary;
        binaryBody = binaryParameter;
    }
    void AcceptRecipient(const std::string& address) {
        recipients.push_back(address);
        haveRecipient = true;
    }
    void Clear() {
        savedMailLine.reset();
        BeginRun();
    }
    // A run of the dialogue begins with a clean envelope; only the sender's line stays until the
    // next one takes its place.
    void BeginRun() {
        FreeTextList(recipients);
        haveMail = haveRecipient = binaryMime = binaryBody = false;
        messagePhase = PHASE_NONE;
    }
};

// Both connections of a session, and what every phase of it asks of them together.
#pragma once

#include <string>
#include <string_view>

#include "net/stream.h"
#include "session/server_link.h"
#include "session/settings.h"

// What the phases of a session share. All of it belongs to the session, for its whole life.
struct Peers {
    const SessionSettings& settings;
    Stream& client;
    ServerLink& server;
    std::string address = "Unknown";  // the client's, dotted
    bool relayAllowed = false;        // it may send anywhere
    // A keep-alive has failed: a peer has gone, or the server is out of step. The session ends.
    bool lost = false;

    // Gives the client the answer to a message that goes no further, once the server has forgotten
    // what it had of it. False: the session ends, for the server is out of step or a peer has gone;
    // the client has its answer all the same.
    bool AnswerInsteadOfServer(std::string_view answer);
    // Tells the statistics daemon of a filter's verdict; null texts are left out.
    void SendStatEvent(int eventCode, const char* sender, const char* recipient) const;
};

// Sends NOOP to the server and reads its reply; looks whether the client is still there. 0 if all
// is well, else 255. The context is the Peers: the scan calls this while it waits.
int KeepAlive(void* peers);

// Both connections of a session, and what every phase of it asks of them together.
#pragma once

#include <string>
#include <string_view>

#include "net/stream.h"
#include "session/client/identity.h"
#include "session/journal.h"
#include "session/server_link.h"
#include "session/settings.h"
#include "session/state.h"

// To mail, where the server has to know who the client is and can't be told.
inline constexpr std::string_view kClientUntold =
    "451 4.3.2 The mail server can't be told who you are, try again later\r\n";

// What the phases of a session share. All of it belongs to the session, for its whole life.
struct Peers {
    const SessionSettings& settings;
    Stream& client;
    ServerLink& server;
    std::string address = "Unknown";  // the client's, as text
    ClientIdentity identity{};        // the client's, as its connection or somebody trusted tells
    IpAddress ownAddress{};           // whatever is told
    bool trusted = false;             // it may speak for others
    bool relayAllowed = false;        // it may send anywhere
    // What it has called itself, and by which command.
    std::string helo{};
    std::string proto{};
    bool greeted = false;        // it has had a first reply
    bool pipelining = false;     // it has been offered PIPELINING
    bool needsGreeting = false;  // what it said before TLS is forgotten
    bool authenticated = false;
    bool untold = false;  // the server doesn't know who it is, and gets no mail before it does
    // The session ends only to begin again, for the client that a trusted one has named.
    bool restart = false;
    // A keep-alive has failed: a peer has gone, or the server is out of step. The session ends.
    bool lost = false;
    SessionState state{};  // for those who look on
    // What the log will tell of the session and of the message in hand.
    Journal journal{};

    // A reply to the client, whole or in pieces, which is counted with its last line. False as
    // Stream has it.
    bool SendReply(std::string_view text);
    bool QueueReply(std::string_view text);
    // Tells the server with XCLIENT or XFORWARD who the client is; sets `untold`. False: the server
    // has gone.
    bool TellOfClient();
    // A refusal of the proxy's own, as the client gets it: with the id in the log behind it. A text
    // that programs may know stays as it is, unless the interface wants the id in all: one of the
    // configuration's (kKnown), or one that has always been the proxy's.
    enum class Wording { kOurs, kKnown };
    std::string Own(std::string_view refusal, Wording wording = Wording::kOurs) const;
    // Gives the client the answer to a message that goes no further, once the server has forgotten
    // what it had of it. False: the session ends, for the server is out of step or a peer has gone;
    // the client has its answer all the same, which is noted as the message's.
    bool AnswerInsteadOfServer(std::string_view answer);
    // Tells the statistics daemon of a filter's verdict; null texts are left out.
    void SendStatEvent(int eventCode, const char* sender, const char* recipient) const;
};

// Sends NOOP to the server and reads its reply; looks whether the client is still there. 0 if all
// is well, else 255. The context is the Peers: the scan calls this while it waits.
int KeepAlive(void* peers);

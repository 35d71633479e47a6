// The connection to the real mail server: which of its addresses, and of the servers that stand in
// for it, takes it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "net/socket.h"
#include "session/server/server_address.h"

// Who may end an attempt. Called in the connecting task.
class ConnectWatch {
  public:
    // An attempt with this socket is under way: from now on its shutdown by another thread ends
    // it. False: give up.
    virtual bool Trying(SOCKET socket) = 0;
    // The attempt has failed; its socket is about to be closed, and its number may soon be
    // another's.
    virtual void Failed() = 0;
    // Whether there is still somebody who wants the connection; asked after a failed attempt.
    virtual bool Wanted() = 0;

  protected:
    ~ConnectWatch() = default;
};

enum class ConnectFailure {
    kNone,
    kUnknownHost,
    kUnreachable,  // refused, for example
    kTimeOver,
    kGivenUp  // by the watch
};

struct ServerConnection {
    ServerAddress server;  // which it is
    ConnectFailure failure = ConnectFailure::kNone;
    // The first server's last failure, for the log: addresses are in it, no controls. Empty if it
    // has taken the connection.
    std::string reason;
};

// Tries the addresses of the first server in the resolver's order, then those of the next server;
// each has the limit for itself. The resolver's own waits are the system's. The socket is the
// caller's, who closes it, and empty on failure; a connected one is the last that the watch was
// told of.
ServerConnection ConnectToServers(const std::vector<ServerAddress>& servers,
                                  std::chrono::milliseconds limit, ConnectWatch& watch,
                                  CSocket& socket);

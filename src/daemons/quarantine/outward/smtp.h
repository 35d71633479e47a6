// outward/: how a message gets out of the quarantine, and what of it is shown.
//
// This header: one message to one server by SMTP, as a mail program would send it.
#pragma once

#include <string>
#include <vector>

#include "platform/file.h"
#include "session/options.h"
#include "session/server/connector.h"
#include "session/server/server_address.h"

struct Destination {
    std::vector<ServerAddress> servers;  // the first that takes the connection
    std::string helo;                    // ours
    ServerTls tls = ServerTls::kOff;
    std::string caFile;    // of `verify`; empty: the system's store
    std::string certName;  // empty: the server's host
    // Who may end it, by a shutdown of the socket; hears of its end by Failed. Null: nobody.
    ConnectWatch* watch = nullptr;
};

struct Letter {
    std::string sender;  // empty: none
    std::vector<std::string> recipients;
    std::string header;                       // one line in front of all others, without its end
    const platform::File* message = nullptr;  // as its reader has it; read from its start
};

enum class Sent {
    kTaken,
    kRefused,  // the server, or the way to it, has not taken it
    kUnknown   // it had all of it, and has not answered
};

// To all the recipients or to none. `said` is the server's last word, or what has failed: one line,
// printable. A line feed alone, and a CR alone, go out as CR LF: this way knows no other line ends.
Sent SendLetter(const Destination& destination, const Letter& letter, std::string& said);

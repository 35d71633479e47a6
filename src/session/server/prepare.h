// From a connection to a server that is ready for the client's dialogue: TLS, and who the client
// is.
#pragma once

#include <string>

#include "session/peers.h"

enum class Prepared {
    kReady,       // the greeting is the next reply
    kRefused,     // the server wants none of it: text has its greeting
    kRetryPlain,  // TLS was tried and has failed; a new connection can do without
    kNoTls,       // and it is required
    kNotTold,     // who the client is, and that is required
    kFailed       // the connection is of no use
};

struct Preparation {
    Prepared outcome = Prepared::kReady;
    std::string text;  // why, for the log
};

// The connection is fresh and attached. host: whose it is. plain: TLS that may fail is not tried.
// Says nothing to the client.
Preparation PrepareServer(Peers& peers, const std::string& host, bool plain);

// What EHLO says of a host that calls itself so: the first word; an address, and nothing, stand in
// brackets.
std::string EhloName(const std::string& text);

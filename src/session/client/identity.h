// client/: who the client is: by its connection, or as somebody trusted tells it (proxy_header.h,
// xclient.h), and how the server is told.
#pragma once

#include <cstdint>
#include <string>

#include "net/address.h"

struct ClientIdentity {
    IpAddress address;
    std::uint16_t port = 0;  // host order; 0: not known
    // Where the client's connection goes; port 0: not known.
    IpAddress destination;
    std::uint16_t destinationPort = 0;
    // As told, without control characters or blanks; empty: not known.
    std::string name;   // the name of the address
    std::string helo;   // what it called itself
    std::string login;  // who it has proved to be
    std::string proto;  // SMTP or ESMTP
    // The trusted peer that told all this; empty: nobody, it is the connection's own.
    std::string toldBy;
};

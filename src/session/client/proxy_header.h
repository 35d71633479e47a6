// The PROXY header, versions 1 and 2, with which a load balancer tells whom it speaks for, in front
// of everything else.
#pragma once

#include <string>

#include "net/socket.h"
#include "net/stream.h"
#include "session/client/identity.h"

enum class ProxyHeader {
    kTold,   // the identity has what it says
    kLocal,  // the balancer speaks for itself, or doesn't say for whom: a health check
    kBroken  // none, one that can't be read, or not in time
};

// Reads exactly the header from the socket; what follows stays there. identity comes with the ends
// of the connection itself, and keeps them unless others are told.
ProxyHeader ReadProxyHeader(CSocket& socket, const Deadline& deadline, ClientIdentity& identity);

// The header that tells a server of the client, with its line end in version 1.
std::string ProxyHeaderV1(const ClientIdentity& identity);
std::string ProxyHeaderV2(const ClientIdentity& identity);

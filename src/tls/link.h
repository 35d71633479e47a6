// Inside tls/: the bare connection as OpenSSL reads and writes it: never waits, whatever the
// socket's mode, and raises no signal.
#pragma once

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include "platform/socket.h"

// The library is at it as long as something comes that is nothing for us. A peer that sends such
// things without a pause would keep it there, past all limits of time: after so many receives it
// hears that nothing has come, and the caller has a look at the time. So a call that would have
// blocked has not always seen an empty socket.
inline constexpr int kMostReceives = 4;

struct TlsLink {
    SOCKET socket = INVALID_SOCKET;
    int receives = kMostReceives;  // left to the present call
    bool closed = false;           // the peer has, or
    bool broken = false;
    int firstByte = -1;  // of the peer; -1: nothing has come
};

// Reads and writes there from now on; the link outlives it. False without memory.
bool ConnectLink(SSL* ssl, TlsLink& link);

// What a Stream reads and writes through instead of its bare socket, once the connection is more
// than that: TLS, for example.
#pragma once

#include "platform/socket.h"

class Transport {
  public:
    Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;
    virtual ~Transport() = default;

    // Like SocketReceiveNow without a look ahead, and SocketSendNow: never wait. The count, 0 once
    // the peer has said that nothing more comes (a connection that ends without that word is
    // broken), SOCKET_WOULD_BLOCK, or SOCKET_BROKEN. A send that would block has to be repeated
    // with the same bytes.
    virtual int ReceiveNow(void* buffer, int length) = 0;
    virtual int SendNow(const void* buffer, int length) = 0;
    // What the socket has to become before the call that would have blocked can go on; it may be
    // that already.
    virtual SocketWant Wanted() const = 0;
    // Tells the peer that nothing more comes, as far as that goes at once.
    virtual void SayGoodbye() = 0;
};

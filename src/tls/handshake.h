// The handshake: from a bare connection to one that TLS protects.
#pragma once

#include <memory>
#include <string>

#include "net/stream.h"
#include "net/transport.h"

class TlsContext;

// How a handshake ended.
struct TlsOutcome {
    std::unique_ptr<Transport> transport;  // null: it failed, and the connection is of no use
    std::string failure;                   // why, for the log; printable, one line
    bool heard = false;                    // the peer has sent something
    std::string protocol;                  // "TLSv1.3"
    std::string cipher;
    bool resumed = false;
};

// As the server. All of it has to be over by the deadline. The socket is non-blocking or not, stays
// its owner's, and outlives the transport.
TlsOutcome TlsAccept(const CSocket& socket, const TlsContext& context, const Deadline& deadline);
// As the client. host goes into the server name indication if it is a name; judgeBy: the name or
// the address in numbers that the certificate must bear, which has to be good then; empty: any
// certificate will do.
TlsOutcome TlsConnect(const CSocket& socket, const TlsContext& context, const std::string& host,
                      const std::string& judgeBy, const Deadline& deadline);

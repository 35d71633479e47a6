// TLS on a session's legs.
#pragma once

#include <memory>
#include <string>

#include "session/options.h"
#include "session/peers.h"
#include "tls/handshake.h"
#include "tls/identity.h"

// How long a handshake may take: a stranger's session isn't held for longer.
Deadline HandshakeLimit(const SessionSettings& settings);

// What the next handshake with a client shows; null: there is no certificate that can be used. What
// is wrong is told in the log.
std::shared_ptr<const TlsContext> ClientContext(const ConnectionOptions& options);

// The handshake with the client. False: it failed, and the connection is of no use any more.
bool SecureClient(Peers& peers, const TlsContext& context);

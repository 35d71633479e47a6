// Stream sockets in a folder of the instance, for what another user of this host must not hear: the
// instance's directory lets nobody else in, while any user may listen on a port of the loopback.
#pragma once

#include "platform/socket.h"

// A listener `name` in the folder below the instance's directory. What a dead process left there
// goes; INVALID_SOCKET if somebody serves it, or on failure. Whoever closes it leaves the file.
SOCKET SocketListenLocal(const char* folder, const char* name);
// A connection to it, or INVALID_SOCKET. Never waits: a full backlog is a failure.
SOCKET SocketConnectLocal(const char* folder, const char* name);

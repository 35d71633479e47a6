// Who listens on a port, for tools that look at an instance from outside of its programs.
#pragma once

#include "platform/socket.h"

namespace platform {

enum class PortHolder {
    kNobody,
    kService,  // the process that serves the name in this instance, and it alone
    kOther
};
// Of an address and port, or of all addresses that meet it: "0.0.0.0", "::". `service`: as
// InstanceLock takes it, of the program that asks. Where a process of this program and user can't
// be looked into, it passes for the service's.
PortHolder WhoListens(const SocketAddress& address, const char* service);

}  // namespace platform

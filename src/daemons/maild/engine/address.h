// Inside maild/: where a service listens that the daemon asks, as the system connects to it.
#pragma once

#include <sys/socket.h>

#include <vector>

#include "net/service_address.h"

struct SocketTarget {
    sockaddr_storage address{};
    socklen_t length = 0;

    bool IsLocal() const { return address.ss_family == AF_UNIX; }
};

// All that the address stands for; none if the path is too long or the name is unknown. A name is
// looked up here and now, which takes as long as the system's resolver does.
std::vector<SocketTarget> FindTargets(const ServiceAddress& address);

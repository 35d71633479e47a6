// Inside platform/: what a service handle points to, and the way to a service's supervisor.
#pragma once

#include <string>

#include "platform/descriptor.h"
#include "platform/service.h"

struct ServiceHandleRecord {
    std::string service;  // empty: the manager itself
};

namespace platform {

// Sets the last error if it is no service's handle.
bool IsService(SC_HANDLE handle);

// A connection to the supervisor of a service; empty if none runs.
UniqueDescriptor ConnectSupervisor(const std::string& service);

}  // namespace platform

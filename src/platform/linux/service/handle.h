// Inside platform/: what a service handle points to, and the way to a service's supervisor.
#pragma once

#include <string>

#include "platform/service.h"

struct ServiceHandleRecord {
    std::string service;  // empty: the manager itself
};

namespace platform {

// Sets the last error if it is no service's handle.
bool IsService(SC_HANDLE handle);

// Owner of a descriptor.
class UniqueDescriptor {
  public:
    explicit UniqueDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
    UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(other.Release()) {}
    UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueDescriptor(const UniqueDescriptor&) = delete;
    UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;
    ~UniqueDescriptor() { Reset(-1); }

    int Get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    int Release() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }
    void Reset(int descriptor);

  private:
    int descriptor_;
};

// A connection to the supervisor of a service; empty if none runs.
UniqueDescriptor ConnectSupervisor(const std::string& service);

}  // namespace platform

// Inside platform/: the address of a Unix socket in one of the instance's folders.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "platform/descriptor.h"

namespace platform {

// A path too long for an address goes by way of the open folder, which stays open as long as this.
class LocalAddress {
  public:
    LocalAddress(const char* folder, const std::string& name);

    // False for a name that fits in no way.
    bool Valid() const { return valid_; }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static socklen_t Size() { return sizeof(sockaddr_un); }

  private:
    sockaddr_un address_{};
    UniqueDescriptor folder_;
    bool valid_ = false;
};

}  // namespace platform

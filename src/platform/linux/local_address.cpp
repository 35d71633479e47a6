#include "platform/linux/local_address.h"

#include <fcntl.h>

#include <cstring>

#include "platform/home.h"

namespace platform {

LocalAddress::LocalAddress(const char* folder, const std::string& name) {
    std::string path = HomePath(folder) + '/' + name;
    if (path.size() >= sizeof address_.sun_path) {
        folder_.Reset(open(HomePath(folder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        path = "/proc/self/fd/" + std::to_string(folder_.Get()) + '/' + name;
    }
    if (path.size() >= sizeof address_.sun_path) return;
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, path.c_str(), path.size() + 1);
    valid_ = true;
}

}  // namespace platform

#include "platform/local_socket.h"

#include <unistd.h>

#include <string>

#include "platform/home.h"
#include "platform/linux/local_address.h"

namespace {

SOCKET Create() {
    return SocketAvoidZero(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

SOCKET SocketConnectLocal(const char* folder, const char* name) {
    const platform::LocalAddress address(folder, name);
    const SOCKET made = Create();
    if (made == INVALID_SOCKET) return INVALID_SOCKET;
    if (address.Valid() && connect(made, address.Get(), platform::LocalAddress::Size()) == 0)
        return made;
    close(made);
    return INVALID_SOCKET;
}

SOCKET SocketListenLocal(const char* folder, const char* name) {
    const SOCKET served = SocketConnectLocal(folder, name);
    if (served != INVALID_SOCKET) {
        close(served);
        return INVALID_SOCKET;
    }
    const platform::LocalAddress address(folder, name);
    const SOCKET made = Create();
    if (made == INVALID_SOCKET) return INVALID_SOCKET;
    unlink((platform::HomePath(folder) + '/' + name).c_str());
    if (address.Valid() && bind(made, address.Get(), platform::LocalAddress::Size()) == 0 &&
        listen(made, SOMAXCONN) == 0)
        return made;
    close(made);
    return INVALID_SOCKET;
}

#include "platform/local_socket.h"

#include <unistd.h>

#include "platform/home.h"
#include "platform/linux/local_address.h"

using platform::LocalAddress;
using platform::UniqueDescriptor;

namespace {

UniqueDescriptor Create() {
    return UniqueDescriptor(
        SocketAvoidZero(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
}

}  // namespace

SOCKET SocketConnectLocal(const char* folder, const char* name) {
    const LocalAddress address(folder, name);
    UniqueDescriptor made = Create();
    const bool connected =
        made && address.Valid() && connect(made.Get(), address.Get(), LocalAddress::Size()) == 0;
    return connected ? made.Release() : INVALID_SOCKET;
}

SOCKET SocketListenLocal(const char* folder, const char* name) {
    if (UniqueDescriptor(SocketConnectLocal(folder, name))) return INVALID_SOCKET;
    const LocalAddress address(folder, name);
    UniqueDescriptor made = Create();
    if (!made) return INVALID_SOCKET;
    unlink((platform::HomePath(folder) + '/' + name).c_str());
    const bool listening = address.Valid() &&
                           bind(made.Get(), address.Get(), LocalAddress::Size()) == 0 &&
                           listen(made.Get(), SOMAXCONN) == 0;
    return listening ? made.Release() : INVALID_SOCKET;
}

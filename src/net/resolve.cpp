#include <cstring>

#include "net/socket.h"

SocketAddress ResolveHost(const char* name, std::uint16_t port) {
    SocketAddress address{};
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (name == nullptr || getaddrinfo(name, nullptr, &hints, &found) != 0 || found == nullptr)
        return address;
    std::memcpy(&address, found->ai_addr, sizeof address);
    address.sin_port = htons(port);
    freeaddrinfo(found);
    return address;
}

SocketAddress NumericAddress(const char* text, std::uint16_t port) {
    SocketAddress address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = text == nullptr ? INADDR_NONE : inet_addr(text);
    return address;
}

std::string AddressText(const SocketAddress& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

int StartThread(HANDLE* out, LPTHREAD_START_ROUTINE procedure, LPVOID argument) {
    UniqueHandle thread(CreateThread(nullptr, 0, procedure, argument, 0, nullptr));
    if (!thread) return -1;
    if (out != nullptr) *out = thread.Release();
    return 0;
}

#include "daemons/maild/engine/address.h"

#include <netdb.h>
#include <sys/un.h>

#include <cstring>
#include <memory>

namespace {

constexpr std::size_t kMostTargets = 8;  // of one name

}  // namespace

std::vector<SocketTarget> FindTargets(const ServiceAddress& address) {
    if (!address.path.empty()) {
        SocketTarget target;
        auto* const local = reinterpret_cast<sockaddr_un*>(&target.address);
        if (address.path.size() >= sizeof local->sun_path) return {};
        local->sun_family = AF_UNIX;
        std::memcpy(local->sun_path, address.path.c_str(), address.path.size());
        target.length = sizeof *local;
        return {target};
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* answer = nullptr;
    if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &answer) !=
        0)
        return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(answer, freeaddrinfo);
    std::vector<SocketTarget> found;
    for (const addrinfo* each = answer; each != nullptr && found.size() < kMostTargets;
         each = each->ai_next) {
        SocketTarget target;
        if (each->ai_addrlen > sizeof target.address) continue;
        std::memcpy(&target.address, each->ai_addr, each->ai_addrlen);
        target.length = each->ai_addrlen;
        found.push_back(target);
    }
    return found;
}

#include "libstats/servers.h"

#include <cstdio>

#include "libstats/core.h"
#include "net/socket.h"
#include "platform/home.h"
#include "text/base64.h"
#include "trelis/keys/settings.h"

namespace {

constexpr trelis::Key kPort{trelis::kStatsKey, "HTTPPort"};
constexpr std::size_t kCredentialsSize = 1024;

// The server's own store knows its port: the one of this host is asked only for this host.
int ReadPort(std::uint32_t address) {
    int port = kStatsPort;
    // Where there is no instance of its own, this host says nothing, and none is made for that.
    const bool here = ntohl(address) >> 24U == IN_LOOPBACKNET;
    const bool silent = here && !platform::MissingHome().empty();
    if (!silent && TrelisInit2() == 0) {
        port = trelis::ReadInt(kPort, {}, ntohl(address));
        TrelisUninit();
    }
    // One that is no port fails at the connecting: another place is not asked in its stead.
    return port;
}

}  // namespace

std::uint32_t ResolveAddress(const char* host) { return ResolveHost(host, 0).V4().sin_addr.s_addr; }

int CLibStatsCore::AddServer(const char* host, const char* user, const char* password) {
    if (host == nullptr || user == nullptr || password == nullptr) return -1;
    try {
        const std::uint32_t address = ResolveAddress(host);
        char credentials[kCredentialsSize];
        std::snprintf(credentials, sizeof credentials, "%s:%s", user, password);
        std::string token = Base64Encode(credentials);
        // A cut token would only be refused by the server, without a word on why.
        if (token.empty() || token.size() >= kTokenSize) return -1;
        port_ = ReadPort(address);
        servers_.insert_or_assign(address, std::move(token));
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

int CLibStatsCore::RemoveServer(const char* host) {
    servers_.erase(ResolveAddress(host));
    return 0;
}

#include "libstats/servers.h"

#include <cstdio>

#include "libstats/core.h"
#include "net/socket.h"
#include "trelis/settings.h"

namespace {

constexpr trelis::Key kPort{trelis::kStatsKey, "HTTPPort"};
constexpr std::size_t kCredentialsSize = 1024;
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The server's own store knows its port: the one of this host is asked only for this host.
int ReadPort(std::uint32_t address) {
    int port = kStatsPort;
    if (TrelisInit2() == 0) {
        port = trelis::ReadInt(kPort, {}, ntohl(address));
        TrelisUninit();
    }
    // One that is no port fails at the connecting: another place is not asked in its stead.
    return port;
}

}  // namespace

std::uint32_t ResolveAddress(const char* host) { return ResolveHost(host, 0).sin_addr.s_addr; }

std::string Base64Encode(const std::string& text) {
    std::string out;
    out.reserve((text.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < text.size(); at += 3) {
        const std::size_t have = std::min<std::size_t>(text.size() - at, 3);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < have ? static_cast<unsigned char>(text[at + i]) : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            out += i <= have ? kAlphabet[group >> (18 - 6 * i) & 0x3F] : '=';
    }
    return out;
}

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

#include "session/server/connector.h"

#include <cerrno>
#include <system_error>

#include "text/printable.h"

namespace {

constexpr int kStream = 1;

std::string ErrorText(int error) {
    return std::error_code(error, std::system_category()).message();
}

// What came of one server, or of one of its addresses.
struct Attempt {
    ConnectFailure failure = ConnectFailure::kNone;
    std::string reason;
};

Attempt TryAddress(const SocketAddress& address, std::chrono::milliseconds limit,
                   ConnectWatch& watch, CSocket& socket) {
    const std::string where = AddressAndPort(address) + ": ";
    if (!socket.Create(kStream, address)) {
        const int error = errno;
        socket.Close();
        return {ConnectFailure::kUnreachable, where + ErrorText(error)};
    }
    SocketSendAtOnce(socket.Handle());  // commands are put together in front of it
    bool wanted = true;
    const int error = socket.Connect(address, limit, [&] {
        wanted = watch.Trying(socket.Handle());
        return wanted;
    });
    if (error == 0) return {};
    watch.Failed();
    socket.Close();
    if (!wanted) return {ConnectFailure::kGivenUp, where + "given up"};
    if (error == ETIMEDOUT) return {ConnectFailure::kTimeOver, where + "time over"};
    return {ConnectFailure::kUnreachable, where + ErrorText(error)};
}

// Gives `wanted` back as false once nobody wants the connection any more.
Attempt TryServer(const ServerAddress& server, std::chrono::milliseconds limit, ConnectWatch& watch,
                  CSocket& socket, bool& wanted) {
    Attempt last{ConnectFailure::kUnknownHost, CleanText(server.host) + ": name not found"};
    for (const SocketAddress& address : ResolveAll(server.host, server.port)) {
        last = TryAddress(address, limit, watch, socket);
        if (last.failure == ConnectFailure::kNone) return last;
        wanted = last.failure != ConnectFailure::kGivenUp && watch.Wanted();
        if (!wanted) return last;
    }
    return last;
}

}  // namespace

ServerConnection ConnectToServers(const std::vector<ServerAddress>& servers,
                                  std::chrono::milliseconds limit, ConnectWatch& watch,
                                  CSocket& socket) {
    ServerConnection result;
    result.failure = ConnectFailure::kUnknownHost;
    bool wanted = true;
    for (const ServerAddress& server : servers) {
        const Attempt attempt = TryServer(server, limit, watch, socket, wanted);
        if (attempt.failure == ConnectFailure::kNone) {
            result.server = server;
            result.failure = ConnectFailure::kNone;
            return result;
        }
        // What the first one has is what has to be mended.
        if (result.reason.empty()) {
            result.failure = attempt.failure;
            result.reason = attempt.reason;
        }
        if (!wanted) break;
    }
    return result;
}

#include "session/server/outage.h"

#include <chrono>
#include <map>
#include <mutex>

#include "logclient/logclient.h"
#include "text/printable.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::minutes kQuiet{1};
// Servers that are remembered; there are hardly ever more than interfaces.
constexpr std::size_t kMostServers = 256;

// Whether nothing was said of it within the last minute; from now on something has been.
bool IsNews(const std::string& server) {
    static std::mutex lock;
    static std::map<std::string, Clock::time_point> told;  // guarded by lock
    const std::lock_guard guard(lock);
    const Clock::time_point now = Clock::now();
    const auto known = told.find(server);
    if (known != told.end() && now - known->second < kQuiet) return false;
    if (told.size() >= kMostServers) told.clear();
    told[server] = now;
    return true;
}

std::string_view Words(ConnectFailure failure) {
    switch (failure) {
        case ConnectFailure::kNone:
            return "Mail server closed the connection";
        case ConnectFailure::kUnknownHost:
            return "Mail server not found";
        case ConnectFailure::kTimeOver:
            return "Mail server does not answer";
        case ConnectFailure::kGivenUp:
            return "Service is stopping";
        case ConnectFailure::kUnreachable:
            break;
    }
    return "Mail server takes no connection";
}

}  // namespace

std::string OutageReply(std::string_view greetingName, ConnectFailure failure) {
    std::string reply("421 4.3.2 ");
    reply.append(greetingName).append(" ").append(Words(failure));
    return reply.append(", try again later\r\n");
}

void LogOutage(const ServerAddress& server, std::string_view what, std::string_view reason) {
    if (!IsNews(server.Text())) return;
    const std::string message = std::string(what) + ": " + CleanText(std::string(reason));
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, server.host.c_str(), nullptr,
                  message.c_str());
}

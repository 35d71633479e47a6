#include "host/control/words.h"
#include "lipc/lipc.h"
#include "platform/home.h"

namespace control {
namespace {

constexpr std::int32_t kAnswerMs = 10000;

}  // namespace

Asked Ask(std::string_view word, State& state) {
    if (!platform::MissingHome().empty() || platform::Home().empty()) return Asked::kNobody;
    LIPCEndpoint* endpoint = nullptr;
    if (LIPCOpenClient(&endpoint, kEndpoint) != LIPC_OK) return Asked::kSilent;
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    const int status =
        LIPCRequest(endpoint, &connection, word.data(), static_cast<std::uint32_t>(word.size()),
                    &reply, &length, kAnswerMs);
    const bool answered = status == LIPC_OK && reply != nullptr;
    if (answered) state = Parse({static_cast<const char*>(reply), length});
    if (connection != nullptr && (status == LIPC_OK || status == LIPC_TIMED_OUT))
        LIPCRelease(endpoint, connection);
    LIPCClose(endpoint);
    if (answered) return Asked::kAnswered;
    return status == LIPC_NOT_THERE ? Asked::kNobody : Asked::kSilent;
}

}  // namespace control

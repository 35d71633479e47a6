// The end of an endpoint.
#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "lipc/endpoint.h"
#include "lipc/pipe.h"
#include "platform/task.h"

namespace {

constexpr std::chrono::milliseconds kLongestPoll{250};

// Drops all connections. One that somebody still holds keeps its record and its message, a reply or
// a request that may be read at this moment; only its pipe goes.
void CloseConnections(LIPCEndpoint& endpoint) {
    std::vector<int> channels;
    {
        const std::lock_guard lock(endpoint.lock);
        for (LIPCConnections* list : {&endpoint.connections, &endpoint.idle}) {
            for (const auto& each : *list) channels.push_back(std::exchange(each->channel, -1));
        }
    }
    for (const int each : channels) {
        if (each >= 0) PipeClose(each);
    }
    const std::lock_guard lock(endpoint.lock);
    endpoint.connections.remove_if([](const auto& each) { return !each->inUse; });
    endpoint.idle.clear();
}

// Wakes those who wait for the daemon, or for a client. Asked again and again: one that connects
// meanwhile gets its pipe a moment later. A server's replies have their own limit.
void WakeUsers(LIPCEndpoint& endpoint) {
    if (endpoint.mode == kServerMode) {
        for (int i = endpoint.users; i > 0; --i) PipeWake(endpoint.completions.Get());
        return;
    }
    const std::lock_guard lock(endpoint.lock);
    for (const auto& each : endpoint.connections) {
        if (each->channel >= 0) PipeAbandon(each->channel);
    }
}

// A closed endpoint's record stays to the end of the process, without its pipes: a thread that was
// between two calls when it was closed comes to a record that says so.
void Bury(LIPCEndpoint* endpoint) {
    static std::mutex& mutex = *new std::mutex;
    static auto& graves = *new std::vector<std::unique_ptr<LIPCEndpoint>>;
    endpoint->served.Reset();
    endpoint->completions.Reset();
    const std::lock_guard lock(mutex);
    graves.emplace_back(endpoint);
}

}  // namespace

int LIPCClose(LIPCEndpoint* endpoint) {
    if (endpoint == nullptr) return LIPC_BAD_ARGUMENT;
    {
        const std::lock_guard lock(endpoint->lock);
        endpoint->closing = true;
        for (const auto& [turn, waiter] : endpoint->waiting) SetEvent(waiter->wake.Get());
    }
    for (auto pause = std::chrono::milliseconds(1); endpoint->users > 0;
         pause = std::min(pause * 2, kLongestPoll)) {
        WakeUsers(*endpoint);
        platform::SleepFor(pause);
    }
    CloseConnections(*endpoint);
    Bury(endpoint);
    return LIPC_OK;
}

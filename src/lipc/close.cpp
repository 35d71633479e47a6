// The end of an endpoint.
#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "lipc/endpoint.h"
#include "lipc/pipe.h"

namespace {

constexpr std::chrono::milliseconds kLongestPoll{250};

// Drops all connections. One that somebody still holds keeps its record and its message, a reply or
// a request that may be read at this moment; only its pipe goes.
void CloseConnections(LIPCEndpoint& endpoint) {
    for (;;) {
        LIPCConnection* next = nullptr;
        int channel = -1;
        bool held = false;
        {
            const std::lock_guard lock(endpoint.lock);
            for (const auto& each : endpoint.connections) {
                held = each->inUse;
                if (held && each->channel < 0) continue;
                next = each.get();
                channel = std::exchange(next->channel, held ? -1 : next->channel);
                break;
            }
        }
        if (next == nullptr) return;
        if (held) {
            PipeClose(channel);
        } else {
            LIPCDropConnection(endpoint, next);
        }
    }
}

// Wakes the callers whose daemon takes no bytes. Asked again and again: one that connects meanwhile
// gets its pipe a moment later. A server's replies have their own limit.
void AbandonSends(LIPCEndpoint& endpoint) {
    const std::lock_guard lock(endpoint.lock);
    if (endpoint.mode != kClientMode) return;
    for (const auto& each : endpoint.connections) {
        if (each->channel >= 0) PipeAbandonSend(each->channel);
    }
}

// A closed endpoint's record stays to the end of the process, without its pipes: a thread that was
// between two calls when it was closed comes to a record that says so.
void Bury(LIPCEndpoint* endpoint) {
    static std::mutex& mutex = *new std::mutex;
    static auto& graves = *new std::vector<std::unique_ptr<LIPCEndpoint>>;
    {
        // The last one to leave may still be inside the lock.
        const std::lock_guard lock(endpoint->lock);
        endpoint->queue.clear();
    }
    const std::lock_guard lock(mutex);
    graves.emplace_back(endpoint);
}

}  // namespace

int LIPCClose(LIPCEndpoint* endpoint) {
    if (endpoint == nullptr) return LIPC_BAD_ARGUMENT;
    {
        const std::lock_guard lock(endpoint->lock);
        endpoint->closing = true;
        for (const auto& [turn, waiter] : endpoint->waiting) waiter->wake.notify_one();
        endpoint->keep.notify_one();
    }
    SetEvent(endpoint->stopEvent.Get());
    const auto waitForUsers = [endpoint] {
        for (auto pause = std::chrono::milliseconds(1); endpoint->users > 0;
             pause = std::min(pause * 2, kLongestPoll)) {
            AbandonSends(*endpoint);
            std::this_thread::sleep_for(pause);
        }
    };
    if (endpoint->keeper.joinable()) endpoint->keeper.join();
    waitForUsers();
    CloseConnections(*endpoint);
    waitForUsers();
    Bury(endpoint);
    return LIPC_OK;
}

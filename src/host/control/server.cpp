#include "host/control/server.h"

#include <chrono>
#include <system_error>

#include "metrics/count.h"
#include "platform/clock.h"
#include "session/registry.h"
#include "session/state.h"
#include "text/usage.h"

namespace control {
namespace {

constexpr std::chrono::seconds kWishTime{5};

}  // namespace

bool Draining::Wish(bool draining) {
    std::unique_lock lock(mutex_);
    wish_ = draining;
    SetEvent(event_.Get());
    const auto so = [&] { return !wish_.has_value() && done_ && draining_ == draining; };
    changed_.wait_for(lock, kWishTime, [&] { return ended_ || so(); });
    return so();
}

std::optional<bool> Draining::Take() {
    const std::lock_guard lock(mutex_);
    ResetEvent(event_.Get());
    return wish_;
}

void Draining::Begin(bool draining) {
    const std::lock_guard lock(mutex_);
    // Another wish may have come meanwhile, and has its turn.
    if (wish_ == draining) wish_.reset();
    done_ = false;
    draining_ = draining;
    metrics::Set<metrics::Metric::kDraining>(0, draining ? 1 : 0);
}

void Draining::Done(std::size_t listeners) {
    {
        const std::lock_guard lock(mutex_);
        done_ = true;
    }
    SetListeners(listeners);
    changed_.notify_all();
}

void Draining::End() {
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    SetListeners(0);
    changed_.notify_all();
}

void Draining::SetListeners(std::size_t listeners) {
    listeners_ = listeners;
    metrics::Set<metrics::Metric::kListeners>(0, listeners);
}

bool Server::Start() {
    started_ = platform::UtcSeconds();
    if (LIPCOpenServer(&endpoint_, kEndpoint) != LIPC_OK) return false;
    try {
        for (std::thread& each : threads_)
            each = std::thread([this, endpoint = endpoint_] { Work(endpoint); });
    } catch (const std::system_error&) {
        Stop();
        return false;
    }
    return true;
}

void Server::Stop() {
    if (endpoint_ == nullptr) return;
    LIPCClose(std::exchange(endpoint_, nullptr));
    for (std::thread& each : threads_) {
        if (each.joinable()) each.join();
    }
}

void Server::Work(LIPCEndpoint* endpoint) {
    for (;;) {
        LIPCConnection* connection = nullptr;
        const void* data = nullptr;
        std::uint32_t length = 0;
        const int status = LIPCReceive(endpoint, &connection, &data, &length, -1);
        if (status == LIPC_CLOSING) return;
        if (status != LIPC_OK) continue;
        std::string reply;
        try {
            reply = Answer({static_cast<const char*>(data), length});
        } catch (const std::exception&) {  // memory ran out: a reply without data
            reply.clear();
        }
        LIPCReply(endpoint, connection, reply.empty() ? nullptr : reply.data(),
                  static_cast<std::uint32_t>(reply.size()));
    }
}

std::string Server::Answer(std::string_view word) {
    if (word == kDrain || word == kCancel) {
        if (!draining_.Wish(word == kDrain)) return {};
    } else if (word != kStatus && word != kCount) {
        return {};
    }
    State state;
    std::vector<SessionView> views;
    state.count = SessionRegistry::Instance().Look(word == kStatus ? kMostSessions : 0, views);
    for (const SessionView& each : views)
        state.sessions.push_back({each.id, each.peer, each.interface,
                                  kSessionPhases[static_cast<std::size_t>(each.phase)],
                                  each.age.count(), each.bytes});
    state.version = ProgramVersion();
    state.process = GetCurrentProcessId();
    state.started = started_;
    state.draining = draining_.Now();
    state.listeners = draining_.Listeners();
    return Write(state);
}

}  // namespace control

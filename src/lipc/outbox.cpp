#include "lipc/outbox.h"

#include <new>
#include <system_error>
#include <utility>

#include "lipc/deliver.h"
#include "metrics/count.h"

namespace {

// Where nobody answers, asking without a pause would only cost time.
constexpr std::chrono::milliseconds kPauseAfterFailure{1000};

// The daemon has not seen the request.
bool NeverTaken(int status) { return status == LIPC_NOT_THERE || status == LIPC_BUSY; }

}  // namespace

void LIPCOutbox::Open(LIPCEndpoint* endpoint, TellLost tellLost, metrics::Queue name) {
    const std::lock_guard lock(mutex_);
    endpoint_ = endpoint;
    tellLost_ = tellLost;
    name_ = name;
    lost_ = 0;
    open_ = true;
}

int LIPCOutbox::Lose(int status, std::uint32_t count) {
    Miss(count);
    return status;
}

void LIPCOutbox::Miss(std::uint64_t count) {
    lost_ += count;
    metrics::Add<metrics::Metric::kQueueDropped>(name_, count);
}

void LIPCOutbox::ShowWaiting() const {
    metrics::Set<metrics::Metric::kQueueLength>(name_, waiting_);
}

void LIPCOutbox::CountLost(std::uint64_t count) {
    const std::lock_guard lock(mutex_);
    if (open_) Miss(count);
}

int LIPCOutbox::Post(const void* data, std::uint32_t length, std::uint32_t count) {
    const std::lock_guard lock(mutex_);
    if (!open_) return LIPC_CLOSING;
    if (waiting_ + count > kMostRequests || length > kMostBytes - bytes_)
        return Lose(LIPC_BUSY, count);
    try {
        if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
        const char* from = static_cast<const char*>(data);
        queue_.push_back({Request(from, from + length), count});
    } catch (const std::bad_alloc&) {
        return Lose(LIPC_NO_MEMORY, count);
    } catch (const std::system_error&) {  // no thread to be had
        return Lose(LIPC_NO_MEMORY, count);
    }
    bytes_ += length;
    waiting_ += count;
    idle_ = false;
    ShowWaiting();
    if (queue_.size() == 1) changed_.notify_all();
    return LIPC_OK;
}

int LIPCOutbox::Send(const Request& request) {
    return LIPCDeliver(endpoint_, request.data(), static_cast<std::uint32_t>(request.size()));
}

// The request at the head and its reply. Whether the daemon has answered.
bool LIPCOutbox::SendHead(std::unique_lock<std::mutex>& lock) {
    const auto [request, count] = std::move(queue_.front());
    queue_.pop_front();
    bytes_ -= request.size();
    waiting_ -= count;
    ShowWaiting();
    int status = LIPC_OK;
    for (;;) {
        lock.unlock();
        status = Send(request);
        lock.lock();
        if (!NeverTaken(status) || !open_) break;
        Pause(lock, status == LIPC_BUSY ? kLIPCBusyPause : kPauseAfterFailure);
    }
    if (status == LIPC_OK) return true;
    Miss(count);
    if (open_) {
        Pause(lock, kPauseAfterFailure);
    } else {
        // Nobody to deliver to, and no time to wait for one.
        Miss(waiting_);
        queue_.clear();
        bytes_ = waiting_ = 0;
        ShowWaiting();
    }
    return false;
}

bool LIPCOutbox::SendLost(std::unique_lock<std::mutex>& lock) {
    const std::uint64_t lost = std::exchange(lost_, 0);
    lock.unlock();
    int status = LIPC_OK;
    try {
        Request request;
        if (tellLost_ != nullptr) request = tellLost_(lost);
        if (!request.empty()) status = Send(request);
    } catch (const std::bad_alloc&) {
        status = LIPC_NO_MEMORY;
    }
    lock.lock();
    if (status != LIPC_OK) lost_ += lost;
    return status == LIPC_OK;
}

void LIPCOutbox::Work() {
    bool answers = false;  // the daemon has answered the last request
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!queue_.empty()) {
            answers = SendHead(lock);
        } else if (lost_ > 0 && answers) {
            answers = SendLost(lock);
        } else {
            idle_ = true;
            changed_.notify_all();
            if (!open_) return;
            changed_.wait(lock, [this] { return !open_ || !queue_.empty(); });
        }
    }
}

void LIPCOutbox::Pause(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds pause) {
    changed_.wait_for(lock, pause, [this] { return !open_; });
}

void LIPCOutbox::Close(std::chrono::milliseconds limit) {
    {
        std::unique_lock lock(mutex_);
        if (!open_) return;
        open_ = false;
        changed_.notify_all();
        changed_.wait_for(lock, limit, [this] { return idle_; });
    }
    LIPCClose(endpoint_);
    if (thread_.joinable()) thread_.join();
}

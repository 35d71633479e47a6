#include "daemons/quarantine/keeper.h"

#include <chrono>

namespace quarantine {

namespace {

constexpr std::chrono::hours kPause{1};
// No message takes so long from its files to the index.
constexpr int kLeavingSeconds = 3600;

}  // namespace

void Keeper::Start(std::function<Limits()> limits, Tell tell) {
    limits_ = std::move(limits);
    tell_ = std::move(tell);
    TidyUp(0);
    thread_ = std::thread([this] { Run(); });
}

void Keeper::TidyUp(int leavingSeconds) {
    std::string complaint;
    if (!store_.TidyUp(limits_(), leavingSeconds, complaint))
        tell_("the quarantine can't be tidied up: " + complaint);
}

void Keeper::Run() {
    std::unique_lock lock(mutex_);
    while (!stop_.wait_for(lock, kPause, [this] { return stopping_; })) {
        lock.unlock();
        TidyUp(kLeavingSeconds);
        lock.lock();
    }
}

void Keeper::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stop_.notify_all();
    if (thread_.joinable()) thread_.join();
}

}  // namespace quarantine

#include "daemons/quarantine/keeper.h"

#include <chrono>
#include <ctime>

#include "platform/clock.h"

namespace quarantine {

namespace {

constexpr std::chrono::hours kPause{1};
// No message takes so long from its files to the index.
constexpr int kLeavingSeconds = 3600;

std::int64_t SecondsRunning() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

}  // namespace

void Keeper::Start(std::function<Limits()> limits, Tell tell) {
    limits_ = std::move(limits);
    tell_ = std::move(tell);
    thread_ = std::thread([this] { Run(); });
}

void Keeper::TidyUp(int leavingSeconds) {
    std::string complaint;
    Limits limits = limits_();
    if (limits.keepDays > 0 && !clock_.IsBelieved(platform::UtcSeconds(), SecondsRunning())) {
        limits.keepDays = 0;
        tell_(
            "the clock was set ahead: nothing in the quarantine is deleted for its age for a day");
    }
    const bool done = store_.TidyUp(limits, leavingSeconds, complaint).has_value();
    if (!done) complaint = "the quarantine can't be tidied up: " + complaint;
    if (!complaint.empty()) tell_(complaint);
}

void Keeper::Run() {
    TidyUp(0);
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
    store_.EndTidying();
    stop_.notify_all();
    if (thread_.joinable()) thread_.join();
}

}  // namespace quarantine

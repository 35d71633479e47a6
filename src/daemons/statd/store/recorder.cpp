#include "daemons/statd/store/recorder.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <utility>

#include "daemons/statd/store/keep.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/store/writer.h"
#include "platform/clock.h"
#include "text/day.h"

namespace stats {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kBatch = 1000;
constexpr milliseconds kGather{100};
constexpr seconds kPushLimit{5};
constexpr seconds kRetry{1};
constexpr seconds kKeepPause{60};
constexpr milliseconds kKeepStepPause{20};

}  // namespace

bool Recorder::Start(const std::string& path, std::string& note) {
    database_ = Database::Open(path, note);
    if (database_ == nullptr) return false;
    writer_ = std::make_unique<Writer>(*database_);
    if (!writer_->Good()) {
        note = path + ": " + database_->Error();
        return false;
    }
    thread_ = std::thread([this] { Work(); });
    return true;
}

void Recorder::Stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    filled_.notify_all();
    emptied_.notify_all();
    thread_.join();
    writer_.reset();
    database_.reset();
}

bool Recorder::Push(Record&& record) {
    record.received = platform::UtcSeconds();
    const std::size_t size = record.Size();
    std::unique_lock lock(mutex_);
    Tick(record.received);
    ++live_.received;
    ++perSecond_[static_cast<std::size_t>(second_) % kSeconds];
    live_.lastTime = record.received;
    emptied_.wait_for(lock, kPushLimit, [&] { return HasRoom(size) || failing_ || stopping_; });
    if (!HasRoom(size)) {
        ++live_.lost;
        return false;
    }
    bytes_ += size;
    queue_.push_back(std::move(record));
    // The thread gathers for a while after the first one: further ones need not wake it.
    if (queue_.size() == 1 || queue_.size() == kBatch) filled_.notify_one();
    return true;
}

void Recorder::SetKeepDays(int days) {
    {
        const std::lock_guard lock(mutex_);
        if (days == keepDays_) return;
        keepDays_ = days;
        keepNow_ = true;
    }
    filled_.notify_all();
}

void Recorder::CountUnreadable() {
    const std::lock_guard lock(mutex_);
    ++live_.lost;
}

// Seconds that have passed without records count none.
constexpr std::int64_t kComesLate = 5;
void Recorder::Tick(std::int64_t now) {
    // One who has read the clock before another and comes behind it.
    if (now < second_ && second_ - now <= kComesLate) return;
    // A clock that was set back starts anew.
    if (now < second_ || now - second_ >= static_cast<std::int64_t>(kSeconds)) perSecond_.fill(0);
    for (std::int64_t at = std::max(second_ + 1, now - static_cast<std::int64_t>(kSeconds) + 1);
         at <= now; ++at)
        perSecond_[static_cast<std::size_t>(at) % kSeconds] = 0;
    second_ = now;
}

LiveNumbers Recorder::Live() {
    const std::lock_guard lock(mutex_);
    Tick(platform::UtcSeconds());
    LiveNumbers live = live_;
    live.lastMinute = std::accumulate(perSecond_.begin(), perSecond_.end(), std::int64_t{0});
    live.waiting = static_cast<std::int64_t>(queue_.size() + batch_.size());
    return live;
}

std::string Recorder::TakeTrouble() {
    const std::lock_guard lock(mutex_);
    return std::exchange(trouble_, {});
}

void Recorder::Work() {
    auto keepAt = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (!stopping_ || !queue_.empty() || !batch_.empty()) {
        // Also under a steady stream of records the upkeep gets its turn between two batches.
        if (!stopping_ && !failing_ && (keepNow_ || std::chrono::steady_clock::now() >= keepAt)) {
            keepNow_ = false;
            const int days = keepDays_;
            lock.unlock();
            const bool more = Keep(days);
            keepAt = std::chrono::steady_clock::now() +
                     (more ? kKeepStepPause : std::chrono::duration_cast<milliseconds>(kKeepPause));
            lock.lock();
        }
        if (queue_.empty() && batch_.empty()) {
            filled_.wait_until(lock, keepAt,
                               [&] { return stopping_ || keepNow_ || !queue_.empty(); });
            continue;
        }
        if (batch_.empty())
            filled_.wait_for(lock, kGather, [&] { return stopping_ || queue_.size() >= kBatch; });
        WriteBatch(lock);
    }
}

void Recorder::WriteBatch(std::unique_lock<std::mutex>& lock) {
    if (batch_.empty()) {
        const std::size_t count = std::min(queue_.size(), kBatch);
        batch_.assign(std::make_move_iterator(queue_.begin()),
                      std::make_move_iterator(queue_.begin() + static_cast<std::ptrdiff_t>(count)));
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    lock.unlock();
    const bool good = writer_->Write(batch_);
    const std::string why = good ? "" : database_->Error();
    lock.lock();
    if (!good) return Failed(lock, why);
    failing_ = false;
    for (const Record& record : batch_) bytes_ -= record.Size();
    batch_.clear();
    emptied_.notify_all();
}

// The batch stays in hand: a full disk passes. Meanwhile the queue fills up, and what has no room
// in it is lost at once, so that no sender is held up.
void Recorder::Failed(std::unique_lock<std::mutex>& lock, const std::string& why) {
    if (!failing_) trouble_ = "can't write statistics: " + why;
    failing_ = true;
    emptied_.notify_all();
    if (stopping_) {
        const std::size_t lost = batch_.size() + queue_.size();
        live_.lost += static_cast<std::int64_t>(lost);
        trouble_ = std::to_string(lost) + " records are lost: " + why;
        batch_.clear();
        queue_.clear();
        return;
    }
    filled_.wait_for(lock, kRetry, [&] { return stopping_; });
}

bool Recorder::Keep(int days) {
    const std::int64_t today = DayOf(platform::UtcSeconds());
    const bool deleted = days > 0 && DeleteOldStep(*database_, today - days);
    return TrimNamesStep(*database_, today) || deleted;
}

}  // namespace stats

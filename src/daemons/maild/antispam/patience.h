// Inside antispam/: whether somebody who answers late is still asked about each message. Each one
// holds up a thread of the daemon for all its time, and with all threads the mail of everybody.
#pragma once

#include <chrono>
#include <mutex>

namespace maild {

// Any thread.
class Patience {
  public:
    using Clock = std::chrono::steady_clock;

    // False: not about this message. After some late answers in a row, about one now and then.
    bool MayAsk(Clock::time_point now) {
        const std::lock_guard lock(mutex_);
        if (late_ < kMostLate) return true;
        if (now < next_) return false;
        next_ = now + kPause;
        return true;
    }
    void WasLate(Clock::time_point now) {
        const std::lock_guard lock(mutex_);
        ++late_;
        next_ = now + kPause;
    }
    // Whatever came, or that nobody is there, came soon enough.
    void WasInTime() {
        const std::lock_guard lock(mutex_);
        late_ = 0;
    }

  private:
    static constexpr int kMostLate = 3;
    static constexpr std::chrono::seconds kPause{10};

    std::mutex mutex_;  // guards all below
    int late_ = 0;      // in a row
    Clock::time_point next_;
};

}  // namespace maild

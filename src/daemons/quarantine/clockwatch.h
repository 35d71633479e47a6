// Inside quarantine/: whether the system's clock can be believed about how old something is.
#pragma once

#include <cstdint>

namespace quarantine {

// A clock that has been set ahead would make all messages old at once. One thread at a time; all
// times in seconds.
class ClockWatch {
  public:
    // `wall`: since 1970; `running`: since the system's start, which nobody can set. False for a
    // day from when the clock has been set ahead by more than a day.
    bool IsBelieved(std::int64_t wall, std::int64_t running) {
        const bool first = offset_ == kNone;
        if (!first && wall - running - offset_ > kDay) doubtedUntil_ = running + kDay;
        offset_ = wall - running;
        return running >= doubtedUntil_;
    }

  private:
    static constexpr std::int64_t kDay = 86400;
    static constexpr std::int64_t kNone = INT64_MIN;
    std::int64_t offset_ = kNone;
    std::int64_t doubtedUntil_ = 0;
};

}  // namespace quarantine

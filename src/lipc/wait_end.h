// Inside lipc/: a point in time that is waited to.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

class WaitEnd {
  public:
    using Clock = std::chrono::steady_clock;

    // Milliseconds as the layer takes them; below 0: no limit.
    explicit WaitEnd(std::int32_t timeoutMs)
        : end_(timeoutMs < 0 ? Clock::time_point::max()
                             : Clock::now() + std::chrono::milliseconds(timeoutMs)) {}
    // Milliseconds, as the operations take them.
    std::int32_t Left() const {
        if (end_ == Clock::time_point::max()) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return static_cast<std::int32_t>(std::max<std::int64_t>(left, 0));
    }

  private:
    Clock::time_point end_;
};

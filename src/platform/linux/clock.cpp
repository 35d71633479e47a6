#include "platform/clock.h"

#include <ctime>
#include <string>

namespace platform {

std::int64_t UtcSeconds() { return std::time(nullptr); }

std::int64_t UtcMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::chrono::steady_clock::time_point LastTick() {
    timespec tick{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
    return std::chrono::steady_clock::time_point(std::chrono::seconds(tick.tv_sec) +
                                                 std::chrono::nanoseconds(tick.tv_nsec));
}

std::chrono::steady_clock::time_point TickBehind(std::chrono::milliseconds time) {
    static const std::chrono::nanoseconds tick = [] {
        timespec length{};
        clock_getres(CLOCK_MONOTONIC_COARSE, &length);
        return std::chrono::seconds(length.tv_sec) + std::chrono::nanoseconds(length.tv_nsec);
    }();
    return time.count() > 0 ? LastTick() + time + tick : LastTick();
}

std::string UtcTimeText() { return UtcTimeText(UtcSeconds()); }

std::string UtcTimeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) return {};
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string UtcTimeTextMs(std::int64_t milliseconds) {
    std::string text = UtcTimeText(milliseconds / 1000);
    if (text.empty() || milliseconds < 0) return text;
    const std::string fraction = std::to_string(1000 + milliseconds % 1000).substr(1);
    return text.insert(text.size() - 1, "." + fraction);
}

}  // namespace platform

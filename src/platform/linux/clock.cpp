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

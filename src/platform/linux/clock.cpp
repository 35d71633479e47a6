#include "platform/clock.h"

#include <ctime>

namespace platform {

std::int64_t UtcSeconds() { return std::time(nullptr); }

std::string UtcTimeText() { return UtcTimeText(UtcSeconds()); }

std::string UtcTimeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) return {};
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

}  // namespace platform

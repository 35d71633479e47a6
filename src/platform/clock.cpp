#include "platform/clock.h"

#include <ctime>

namespace platform {

std::string UtcTimeText() {
    const std::time_t seconds = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

}  // namespace platform

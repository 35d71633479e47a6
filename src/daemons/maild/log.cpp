#include "daemons/maild/log.h"

#include <cstdio>
#include <mutex>
#include <set>

#include "text/printable.h"

void Log(LogLine line) {
    const char* text = line.text.c_str();
    // The foreground's terminal: signature names and paths are somebody else's text.
    if (line.kind != kEventVirus)
        std::fprintf(stderr, "VTMAILD: %s\n", CleanText(line.text).c_str());
    switch (line.kind) {
        case kEventVirus:
            LogClientPost(kEventVirus, text, line.sender.data(), line.recipients.data(),
                          line.path.c_str(), "message", line.peer.c_str(), line.signature.c_str(),
                          line.status.c_str(), nullptr, nullptr, 0);
            break;
        case kEventFileNotScanned:
            LogClientPost(kEventFileNotScanned, line.path.c_str(), text);
            break;
        case kEventInfo:
            LogClientPost(kEventInfo, nullptr, text);
            break;
        default:
            LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text);
    }
}

void LogOnce(LogLine line) {
    constexpr std::size_t kMostRemembered = 1000;
    static std::mutex lock;
    static std::set<std::string> told;
    {
        const std::lock_guard guard(lock);
        if (told.size() >= kMostRemembered) told.clear();
        if (!told.insert(line.text).second) return;
    }
    Log(std::move(line));
}

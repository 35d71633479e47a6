#include "daemons/maild/log.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "text/printable.h"

namespace {

// The foreground's terminal: signature names and paths are somebody else's text.
void Print(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = PrintableLength(text);
        out += length == 0 ? "?" : text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    std::fprintf(stderr, "VTMAILD: %s\n", out.c_str());
}

}  // namespace

void Log(LogLine line) {
    const char* text = line.text.c_str();
    if (line.kind != kEventVirus) Print(line.text);
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

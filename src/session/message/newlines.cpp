#include "session/message/newlines.h"

#include <algorithm>

// A line end that came as one byte.
bool NewlineFilter::EndLine(std::string& out) {
    cr_ = false;
    out.append("\r\n");
    return mode_ != BareNewline::kReject;
}

bool NewlineFilter::Feed(std::string_view bytes, std::string& out) {
    while (!bytes.empty()) {
        if (cr_) {
            if (bytes.front() != '\n') {
                if (!EndLine(out)) return false;
                continue;
            }
            cr_ = false;
            out.append("\r\n");
            bytes.remove_prefix(1);
            continue;
        }
        const std::size_t end = std::min(bytes.find_first_of("\r\n"), bytes.size());
        out.append(bytes.substr(0, end));
        if (end == bytes.size()) break;
        cr_ = bytes[end] == '\r';
        bytes.remove_prefix(end + 1);
        if (!cr_ && !EndLine(out)) return false;
    }
    return true;
}

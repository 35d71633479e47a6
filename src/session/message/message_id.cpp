#include "session/message/message_id.h"

#include <algorithm>

#include "text/ascii.h"
#include "text/printable.h"
#include "text/trim.h"

namespace {

constexpr std::size_t kMostLooked = 65536;
constexpr std::size_t kLongestLine = 1000;
constexpr std::size_t kLongestId = 255;
constexpr std::string_view kName = "message-id";
constexpr std::string_view kBlanks = " \t\r\n";

}  // namespace

void MessageIdFinder::Begin() {
    done_ = inValue_ = false;
    looked_ = 0;
    line_.clear();
    value_.clear();
}

void MessageIdFinder::Look(std::string_view bytes, std::string& id) {
    bytes = bytes.substr(0, kMostLooked - looked_);
    looked_ += bytes.size();
    while (!done_) {
        const std::size_t end = bytes.find('\n');
        const std::string_view piece = bytes.substr(0, end);
        if (end != std::string_view::npos && line_.empty()) {
            TakeLine(piece, id);
        } else {
            line_.append(piece.substr(0, kLongestLine - std::min(line_.size(), kLongestLine)));
            if (end == std::string_view::npos) break;
            TakeLine(line_, id);
            line_.clear();
        }
        bytes.remove_prefix(end + 1);
    }
    done_ = done_ || looked_ >= kMostLooked;
}

// Without its line feed.
void MessageIdFinder::TakeLine(std::string_view line, std::string& id) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    const bool continues = line.starts_with(' ') || line.starts_with('\t');
    if (line.empty() || (inValue_ && !continues)) {
        done_ = true;
        return;
    }
    if (!inValue_) {
        if (continues || !EqualIgnoringCase(line.substr(0, kName.size()), kName)) return;
        line.remove_prefix(kName.size());
        const std::size_t colon = line.find_first_not_of(" \t");
        if (colon == std::string_view::npos || line[colon] != ':') return;
        line.remove_prefix(colon + 1);
        inValue_ = true;
    }
    const std::string_view more = Trimmed(line, kBlanks);
    if (value_.size() > kLongestId || more.empty()) return;
    if (!value_.empty()) value_ += ' ';
    value_ += more;
    id = CleanText(value_, kLongestId);
}

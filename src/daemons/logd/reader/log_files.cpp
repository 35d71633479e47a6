#include "daemons/logd/reader/log_files.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

constexpr int kOlderLogs = 4;
constexpr std::size_t kBlock = 65536;

}  // namespace

LogReader LogReader::Open(const std::string& path) {
    constexpr int kAttempts = 100;
    for (int i = 0; i < kAttempts; ++i) {
        LogReader reader;
        const std::optional<platform::FileState> before = platform::LookAtFile(path);
        if (!before || !before->plain) return reader;
        reader.file_ = platform::File::OpenRead(path.c_str());
        const std::optional<platform::FileState> behind = platform::LookAtFile(path);
        // Renamed between the looks it could be another than the one that was looked at.
        if (!behind || behind->number != before->number) continue;
        reader.number_ = before->number;
        return reader;
    }
    return {};
}

bool LogReader::Fill() {
    buffer_.erase(0, at_);
    looked_ -= at_;
    at_ = 0;
    if (buffer_.size() > kLongestLine) {
        buffer_.clear();
        looked_ = 0;
        skipping_ = true;
    }
    const std::size_t size = buffer_.size();
    buffer_.resize(size + kBlock);
    const long long count = file_.ReadAt(position_, buffer_.data() + size, kBlock);
    buffer_.resize(size + static_cast<std::size_t>(std::max(count, 0LL)));
    position_ += std::max(count, 0LL);
    return count > 0;
}

bool LogReader::Next(std::string_view& line) {
    for (;;) {
        const std::size_t end = buffer_.find('\n', looked_);
        if (end == std::string::npos) {
            looked_ = buffer_.size();
            if (!Fill()) return false;
            continue;
        }
        line = std::string_view(buffer_).substr(at_, end - at_);
        at_ = looked_ = end + 1;
        if (!std::exchange(skipping_, false)) return true;
    }
}

void LogReader::SkipToEnd() {
    position_ = std::max(file_.Size(), 0LL);
    // What is left of a line that is being written is none.
    char last = '\n';
    if (position_ > 0) file_.ReadAt(position_ - 1, &last, 1);
    skipping_ = last != '\n';
}

std::string LogFiles::Name(int number) const {
    return number == 0 ? path_ : path_ + '.' + std::to_string(number);
}

std::deque<LogReader> LogFiles::OpenAll() const {
    std::deque<LogReader> files;
    // The newest first: one that is renamed meanwhile is met twice, not missed.
    for (int number = 0; number <= kOlderLogs; ++number) {
        if (!platform::LookAtFile(Name(number))) continue;
        LogReader file = LogReader::Open(Name(number));
        if (!file) {
            if (!platform::LookAtFile(Name(number))) continue;
            return {};
        }
        const bool met = std::any_of(files.begin(), files.end(), [&file](const LogReader& each) {
            return each.Number() == file.Number();
        });
        if (!met) files.push_front(std::move(file));
    }
    return files;
}

LogReader LogFiles::OpenNext(const LogReader& last) const {
    for (int number = 0; number <= kOlderLogs; ++number) {
        const std::optional<platform::FileState> state = platform::LookAtFile(Name(number));
        if (!state || state->number != last.Number()) continue;
        return number == 0 ? LogReader() : LogReader::Open(Name(number - 1));
    }
    // Removed, or too old: what there is now.
    return LogReader::Open(Name(0));
}

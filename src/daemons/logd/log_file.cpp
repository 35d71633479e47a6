#include "daemons/logd/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

constexpr int kOlderLogs = 4;

}  // namespace

bool LogFile::Open(std::string path, off_t maxSize) {
    path_ = std::move(path);
    maxSize_ = maxSize;
    return Reopen();
}

bool LogFile::Reopen() {
    file_.Reset();
    file_.Reset(open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    return static_cast<bool>(file_);
}

void LogFile::Rotate() {
    for (int number = kOlderLogs; number > 0; --number) {
        const std::string older = path_ + '.' + std::to_string(number);
        const std::string newer = number > 1 ? path_ + '.' + std::to_string(number - 1) : path_;
        rename(newer.c_str(), older.c_str());
    }
    Reopen();
}

void LogFile::WriteAll(std::string_view bytes) {
    if (write(file_.Get(), bytes.data(), bytes.size()) < 0)
        std::fprintf(stderr, "VTLOGD: %.*s", static_cast<int>(bytes.size()), bytes.data());
}

void LogFile::Write(std::string_view lines) {
    // Moved away or removed: a new one is begun.
    struct stat there {};
    struct stat mine {};
    if (stat(path_.c_str(), &there) != 0 || fstat(file_.Get(), &mine) != 0 ||
        there.st_ino != mine.st_ino) {
        Reopen();
        if (fstat(file_.Get(), &mine) != 0) mine.st_size = 0;
    }
    off_t size = mine.st_size;
    while (!lines.empty()) {
        // As much as ends with the line that fills the file.
        std::size_t end = 0;
        while (end < lines.size() && (end == 0 || size + static_cast<off_t>(end) < maxSize_))
            end = std::min(lines.find('\n', end), lines.size() - 1) + 1;
        WriteAll(lines.substr(0, end));
        lines.remove_prefix(end);
        size += static_cast<off_t>(end);
        if (size < maxSize_) continue;
        Rotate();
        size = 0;
    }
}

#include "daemons/maild/coding/lines.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace maild {

namespace {

constexpr std::size_t kBlock = 65536;

}  // namespace

LineReader::LineReader(int file, Dots dots, Range range)
    : file_(file), dots_(dots), at_(range.begin), end_(range.end), buffer_(kBlock) {}

// Puts more behind what is left. False if there is none.
bool LineReader::Fill() {
    if (done_) return false;
    if (from_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + from_, to_ - from_);
        to_ -= from_;
        from_ = 0;
    }
    const auto wanted = static_cast<std::size_t>(
        std::min<long long>(static_cast<long long>(kBlock - to_), end_ - at_));
    const ssize_t count = wanted == 0 ? 0 : pread(file_, buffer_.data() + to_, wanted, at_);
    failed_ = failed_ || count < 0;
    if (count <= 0) {
        done_ = true;
        return false;
    }
    to_ += static_cast<std::size_t>(count);
    at_ += count;
    return true;
}

bool LineReader::Next(Line& line) {
    const char* found = nullptr;
    std::size_t looked = 0;
    for (;;) {
        const char* begin = buffer_.data() + from_;
        const std::size_t size = to_ - from_;
        found = static_cast<const char*>(std::memchr(begin + looked, '\n', size - looked));
        if (found != nullptr) break;
        looked = size;
        if (size == kBlock || !Fill()) break;
    }
    std::size_t size = to_ - from_;
    if (size == 0 || failed_) return false;
    if (found != nullptr) {
        size = static_cast<std::size_t>(found - (buffer_.data() + from_)) + 1;
    } else if (size > 1 && buffer_[to_ - 1] == '\r' && !done_) {
        --size;  // its line feed may follow
    }
    line.text = {buffer_.data() + from_, size};
    line.range.begin = at_ - static_cast<long long>(to_ - from_);
    line.range.end = line.range.begin + static_cast<long long>(size);
    line.begins = atStart_;
    line.ends = found != nullptr;
    if (dots_ == Dots::kStuffed && atStart_ && behindCrLf_ && line.text[0] == '.')
        line.text.remove_prefix(1);
    from_ += size;
    atStart_ = line.ends;
    behindCrLf_ = size > 1 && buffer_[from_ - 2] == '\r';
    return true;
}

}  // namespace maild

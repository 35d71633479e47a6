#include "logclient/gatherer.h"

#include <new>
#include <system_error>
#include <utility>

void LineGatherer::Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
}

void LineGatherer::Add(std::string_view line) {
    if (!Take(line)) lose_(1);
}

bool LineGatherer::Take(std::string_view line) {
    const std::lock_guard lock(mutex_);
    if (!open_) return true;
    if (lines_.size() + line.size() > kMostBytes) return false;
    try {
        if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
        lines_.append(line);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::system_error&) {  // no thread to be had
        return false;
    }
    const bool enough = lines_.size() >= kEnough && lines_.size() - line.size() < kEnough;
    if (++count_ == 1 || enough) changed_.notify_one();
    return true;
}

void LineGatherer::Work() {
    std::string lines;
    std::unique_lock lock(mutex_);
    while (open_ || count_ > 0) {
        changed_.wait(lock, [this] { return !open_ || count_ > 0; });
        changed_.wait_for(lock, kLongestWait,
                          [this] { return !open_ || lines_.size() >= kEnough; });
        const std::uint32_t count = std::exchange(count_, 0);
        lines.swap(lines_);
        lock.unlock();
        if (count > 0) send_(lines, count);
        lines.clear();
        lock.lock();
    }
}

void LineGatherer::Close() {
    {
        const std::lock_guard lock(mutex_);
        open_ = false;
        changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
}

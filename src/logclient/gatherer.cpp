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
    if (bytes_ + line.size() > kMostBytes) return false;
    try {
        if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
        if (gathered_.lines.size() >= kEnough) {
            full_.push_back(std::move(gathered_));
            gathered_ = {};
        }
        gathered_.lines.append(line);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::system_error&) {  // no thread to be had
        return false;
    }
    const bool enough = bytes_ < kEnough && bytes_ + line.size() >= kEnough;
    bytes_ += line.size();
    ++gathered_.count;
    if (bytes_ == line.size() || enough) changed_.notify_one();
    return true;
}

void LineGatherer::SendAll(std::vector<Batch>& batches) {
    for (const Batch& each : batches) {
        if (each.count > 0) send_(each.lines, each.count);
    }
    batches.clear();
}

void LineGatherer::Work() {
    std::vector<Batch> full;
    std::vector<Batch> last(1);
    std::unique_lock lock(mutex_);
    while (open_ || bytes_ > 0) {
        changed_.wait(lock, [this] { return !open_ || bytes_ > 0; });
        changed_.wait_for(lock, kLongestWait, [this] { return !open_ || bytes_ >= kEnough; });
        full.swap(full_);
        last.resize(1);
        std::swap(last.front(), gathered_);
        bytes_ = 0;
        lock.unlock();
        SendAll(full);
        SendAll(last);
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

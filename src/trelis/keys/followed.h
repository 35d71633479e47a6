// Following the store: a watch, and a set of settings that is read anew when something below its
// key has changed.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#include "trelis/trelis.h"

namespace trelis {

// A watch on a key and what is below it, with a reference on the store; both are held for the
// object's lifetime. Any thread.
class Watch {
  public:
    explicit Watch(const char* root)
        : root_(root),
          opened_(TrelisInit2() >= 0),
          watch_(TrelisPlaceNotify(kLocalStore, root, 1)) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        TrelisCancelNotify(kLocalStore, root_.c_str(), 1, watch_);
        if (opened_) TrelisUninit();
    }

    // True once a change, for whoever asks first. Costs one atomic load.
    bool Changed() const { return TrelisWaitNotify(kLocalStore, watch_, 0) == 1; }
    // The name of the event that each change sets; null if the watch couldn't be placed.
    const char* EventName() const { return watch_; }

  private:
    const std::string root_;
    const bool opened_;
    const TrelisNotify watch_;
};

// A set is built whole by `read` and never changed after; null stands for "off". Any thread.
//
// Polling, reading and taking the set are one step under the lock. That is what makes whoever looks
// after a change see the new set: the store tells of a change only once, to whoever asks first, so
// one that polled outside the lock could be told "nothing new" while another, which had been told,
// was still reading, and would go by the old set. Here it waits. Without a change the lock is held
// for one atomic load and one copy of a pointer, a small fraction of a microsecond. Whoever uses a
// set keeps the one that it began with.
template <typename Set>
class Followed {
  public:
    using Pointer = std::shared_ptr<const Set>;

    // The key must outlive the object. With kNow a change alone makes it read, without a Load; the
    // store can be opened then.
    enum class Begin { kWithLoad, kNow };
    Followed(const char* root, std::function<Pointer()> read, Begin begin = Begin::kWithLoad)
        : root_(root), read_(std::move(read)) {
        if (begin == Begin::kNow) watch_.emplace(root_);
    }

    // Places the watch, if there is none, and reads, whether anything has changed or not. The watch
    // comes first: a change during the reading is told of, not missed.
    void Load() {
        const std::lock_guard lock(mutex_);
        if (!watch_) watch_.emplace(root_);
        Refresh();
    }
    // The set to go by; null before the first reading. Follows a change first.
    Pointer Current() {
        const std::lock_guard lock(mutex_);
        if (watch_ && watch_->Changed()) stale_ = true;
        if (stale_) Refresh();
        return set_;
    }
    // Follows no more: late looks find the last set.
    void End() {
        const std::lock_guard lock(mutex_);
        watch_.reset();
    }

  private:
    // Where memory runs out the set stays as it was, and the next look tries again.
    void Refresh() {
        stale_ = true;
        try {
            set_ = read_();
            stale_ = false;
        } catch (const std::bad_alloc&) {
        }
    }

    const char* const root_;
    const std::function<Pointer()> read_;
    std::mutex mutex_;
    std::optional<Watch> watch_;  // guarded by mutex_, as all below
    bool stale_ = false;          // a change has been seen but not read
    Pointer set_;
};

}  // namespace trelis

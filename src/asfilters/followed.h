// Inside asfilters/: the configuration in force for one filter, and how it follows the store.
#pragma once

#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "asfilters/configuration.h"

namespace asfilters {

// Set is what a filter judges by: built whole by `static Set Set::Read()` and never changed after.
// Any thread.
//
// Polling, loading and taking the set are one step under the lock. That is what makes a check that
// begins after a change judge by the new configuration: the store tells of a change only once, to
// whoever asks first, so a check that polled outside the lock could be told "nothing new" while
// another, which had been told, was still loading, and would judge by the old set. Here it waits
// for that load. Without a load the lock is held for one atomic load and one copy of a pointer, a
// small fraction of a microsecond, and never while a check judges: at a thousand checks a second
// nobody meets it taken.
//
// A check keeps the set that it began with alive; a load puts a new one in its place.
template <typename Set>
class Followed {
  public:
    // The key must be a constant.
    explicit Followed(const char* root) : watch_(root) {}

    // Loads, whether anything has changed or not.
    void Load() {
        const std::lock_guard lock(mutex_);
        Refresh();
    }

    // The set to judge by; null if the filter is off. Follows a change first.
    std::shared_ptr<const Set> Current() {
        const std::lock_guard lock(mutex_);
        if (watch_.Changed()) stale_ = true;
        if (stale_) Refresh();
        return enabled_ ? set_ : nullptr;
    }

  private:
    // A filter that is turned off keeps its old set, not consulted, until the next load that finds
    // it on. Where memory runs out the filter stays as it was, and the next check tries again.
    void Refresh() {
        stale_ = true;
        try {
            const bool enabled = ReadFlag(std::string(watch_.Root()) + "/Enabled");
            if (enabled) set_ = std::make_shared<const Set>(Set::Read());
            enabled_ = enabled;
            stale_ = false;
        } catch (const std::bad_alloc&) {
        }
    }

    std::mutex mutex_;
    ConfigurationWatch watch_;        // guarded by mutex_
    bool enabled_ = false;            // guarded by mutex_
    bool stale_ = false;              // guarded by mutex_: a change has been seen but not loaded
    std::shared_ptr<const Set> set_;  // guarded by mutex_; what it points to is never changed
};

}  // namespace asfilters

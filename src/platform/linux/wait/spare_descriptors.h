// Inside platform/: eventfds of 0 that no object has at the moment. An object takes one when
// somebody begins to sleep on it, and gives it back behind the last sleeper.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>

namespace platform {

// Any thread. Keeps a few, so that a sleep costs no system calls for its descriptor.
class SpareDescriptors {
  public:
    static SpareDescriptors& Instance();
    // The caller's from here on. -1 on failure.
    int Take();
    // The value must be 0 and nobody may poll it any more.
    void Give(int descriptor);

  private:
    static constexpr std::size_t kMost = 16;

    std::mutex mutex_;
    std::array<int, kMost> spare_{};  // guarded by mutex_, as count_; filled up to count_
    std::size_t count_ = 0;
};

}  // namespace platform

// Inside trelis/: the number of changes so far, shared by all processes of the instance.
#pragma once

#include <atomic>
#include <cstdint>

namespace trelis {

// store.seq in the instance's directory, mapped into every process: one 32-bit counter that each
// writer raises when its change is visible, and that waiters sleep on. It only says that there is
// something to look for; what has changed stands in the store. Any thread.
class Sequence {
  public:
    // The one of the process; never unmapped. Where the file can't be mapped a counter of the
    // process's own stands in, and other processes' changes are found by looking now and then.
    static Sequence& Instance();

    std::uint32_t Now() const { return counter_->load(std::memory_order_acquire); }
    // Raises the counter and wakes all who wait, in every process.
    void Raise();
    // Sleeps until the counter is no longer `seen`, 1000 ms at most.
    void WaitForChange(std::uint32_t seen) const;

  private:
    Sequence();

    std::atomic<std::uint32_t> own_{0};
    std::atomic<std::uint32_t>* counter_ = &own_;
};

}  // namespace trelis

// A session's place in a count of sessions.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

// One owner, any thread; the count outlives it.
class CountPlace {
  public:
    CountPlace() = default;
    explicit CountPlace(std::atomic<std::int32_t>* count) : count_(count) { ++*count_; }
    CountPlace(const CountPlace&) = delete;
    CountPlace& operator=(const CountPlace&) = delete;
    CountPlace& operator=(CountPlace&& other) noexcept {
        GiveBack();
        count_ = std::exchange(other.count_, nullptr);
        return *this;
    }
    ~CountPlace() { GiveBack(); }

    void GiveBack() {
        if (count_ != nullptr) --*std::exchange(count_, nullptr);
    }
    bool Taken() const { return count_ != nullptr; }

  private:
    std::atomic<std::int32_t>* count_ = nullptr;
};

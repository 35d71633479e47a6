// Inside attachments/: how many archives of many bytes are looked into at once. What unpacks them
// may keep as much as they have told it to remember, up to all that it has unpacked.
#pragma once

#include <chrono>
#include <cstddef>
#include <semaphore>

namespace maild {

// A place among those, which goes back with it. One thread at a time.
class LargePlace {
  public:
    static constexpr std::ptrdiff_t kPlaces = 4;

    LargePlace() = default;
    LargePlace(const LargePlace&) = delete;
    LargePlace& operator=(const LargePlace&) = delete;
    ~LargePlace() { GiveBack(); }
    void GiveBack() {
        if (taken_) Places().release();
        taken_ = false;
    }
    // False: none has become free in time. Nothing is done by who has one.
    bool Take(std::chrono::steady_clock::time_point end) {
        taken_ = taken_ || Places().try_acquire_until(end);
        return taken_;
    }

  private:
    static std::counting_semaphore<kPlaces>& Places() {
        static std::counting_semaphore<kPlaces> places(kPlaces);
        return places;
    }
    bool taken_ = false;
};

}  // namespace maild

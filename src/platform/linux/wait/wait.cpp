// The wait for objects and other descriptors together.
#include <algorithm>
#include <array>

#include "platform/linux/wait/object.h"
#include "platform/sync.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

// One sleep on objects and other descriptors. The object that the process has no descriptor left
// for is looked at now and then instead: a wait doesn't end because somebody has used them up.
class Sleeper {
  public:
    Sleeper(std::span<Waitable* const> objects, std::span<pollfd> extra)
        : objects_(objects), extra_(extra) {
        for (std::size_t i = 0; i < objects.size(); ++i) descriptors_[i] = {-1, POLLIN, 0};
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    ~Sleeper() {
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            if (descriptors_[i].fd >= 0) objects_[i]->EndWait();
        }
    }
    // Until there is something to look at, or the end. False if that can't be waited for.
    bool Sleep(std::optional<Clock::time_point> end) {
        constexpr std::chrono::milliseconds kLook{50};
        bool whole = true;
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            if (descriptors_[i].fd < 0) descriptors_[i].fd = objects_[i]->BeginWait();
            whole = whole && descriptors_[i].fd >= 0;
        }
        const std::size_t count = objects_.size();
        for (std::size_t i = 0; i < extra_.size(); ++i) descriptors_[count + i] = extra_[i];
        if (!whole) {
            const auto look = Clock::now() + kLook;
            end = end ? std::min(*end, look) : look;
        }
        return PollUntil(std::span(descriptors_.data(), count + extra_.size()), end) >= 0;
    }
    // Whether one of the other descriptors shows something; what, is written to them.
    bool Shown() {
        bool shown = false;
        for (std::size_t i = 0; i < extra_.size(); ++i) {
            extra_[i].revents = descriptors_[objects_.size() + i].revents;
            shown = shown || extra_[i].revents != 0;
        }
        return shown;
    }

  private:
    const std::span<Waitable* const> objects_;
    const std::span<pollfd> extra_;
    std::array<pollfd, std::size_t{2} * MAXIMUM_WAIT_OBJECTS> descriptors_;  // as many as there are
};

}  // namespace

DWORD WaitAny(std::span<Waitable* const> objects, std::span<pollfd> extra, DWORD milliseconds) {
    if (objects.size() > MAXIMUM_WAIT_OBJECTS || extra.size() > MAXIMUM_WAIT_OBJECTS)
        return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
    const auto signalled = [objects]() -> std::optional<DWORD> {
        for (std::size_t i = 0; i < objects.size(); ++i) {
            if (objects[i]->TryConsume()) return static_cast<DWORD>(i);
        }
        return std::nullopt;
    };
    if (const auto which = signalled()) return *which;
    if (milliseconds == 0 && extra.empty()) return WAIT_TIMEOUT;

    std::optional<Clock::time_point> end;
    if (milliseconds != INFINITE) end = Clock::now() + std::chrono::milliseconds(milliseconds);
    Sleeper sleeper(objects, extra);
    for (;;) {
        if (!sleeper.Sleep(end)) return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
        // A signal may have been taken by another waiter since: then look at the others and sleep
        // again.
        if (const auto which = signalled()) return *which;
        if (sleeper.Shown()) return static_cast<DWORD>(objects.size());
        if (end && Clock::now() >= *end) return WAIT_TIMEOUT;
    }
}

}  // namespace platform

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
    std::array<platform::Waitable*, MAXIMUM_WAIT_OBJECTS> objects;
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr || waitAll != FALSE)
        return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = platform::ObjectOf<platform::Waitable>(handles[i]);
        if (objects[i] == nullptr) return WAIT_FAILED;
    }
    return platform::WaitAny(std::span(objects.data(), count), {}, milliseconds);
}

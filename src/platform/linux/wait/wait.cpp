// The wait for objects and other descriptors together.
#include <algorithm>
#include <array>

#include "platform/linux/task/task_thread.h"
#include "platform/linux/wait/object.h"
#include "platform/sync.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

WaitSet::WaitSet(std::span<Waitable* const> objects, bool stay) : objects_(objects), stay_(stay) {
    for (std::size_t i = 0; i < objects.size(); ++i) descriptors_[i] = {-1, POLLIN, 0};
}

WaitSet::~WaitSet() {
    TaskThread* const thread = stay_ ? TaskThread::Current() : nullptr;
    for (std::size_t i = 0; i < objects_.size(); ++i) {
        const int descriptor = descriptors_[i].fd;
        if (descriptor < 0) continue;
        if (thread != nullptr) thread->Drop(descriptor);  // the next who has it may be elsewhere
        objects_[i]->EndWait();
    }
}

std::optional<DWORD> WaitSet::Signalled() {
    for (std::size_t i = 0; i < objects_.size(); ++i) {
        if (objects_[i]->TryConsume()) return static_cast<DWORD>(i);
    }
    return std::nullopt;
}

// Until there is something to look at, or the end. The object that the process has no descriptor
// left for is looked at now and then instead: a wait doesn't end because somebody has used them up.
// False if that can't be waited for.
bool WaitSet::Sleep(std::span<const pollfd> extra, std::optional<Clock::time_point> end) {
    constexpr std::chrono::milliseconds kLook{50};
    bool whole = true;
    for (std::size_t i = 0; i < objects_.size(); ++i) {
        if (descriptors_[i].fd < 0) descriptors_[i].fd = objects_[i]->BeginWait();
        whole = whole && descriptors_[i].fd >= 0;
    }
    std::copy(extra.begin(), extra.end(), descriptors_.begin() + Place(0));
    if (!whole) {
        const auto look = Clock::now() + kLook;
        end = end ? std::min(*end, look) : look;
    }
    const std::span<pollfd> entries(descriptors_.data(), objects_.size() + extra.size());
    TaskThread* const thread = stay_ ? TaskThread::Current() : nullptr;
    return (thread != nullptr ? thread->Poll(entries, end, false, true)
                              : PollUntil(entries, end)) >= 0;
}

DWORD WaitSet::Wait(std::span<pollfd> extra, DWORD milliseconds) {
    if (const auto which = Signalled()) return *which;
    if (milliseconds == 0 && extra.empty()) return WAIT_TIMEOUT;
    std::optional<Clock::time_point> end;
    if (milliseconds != INFINITE) end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        if (!Sleep(extra, end)) return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
        // A signal may have been taken by another waiter since: then look at the others and sleep
        // again.
        if (const auto which = Signalled()) return *which;
        bool shown = false;
        for (std::size_t i = 0; i < extra.size(); ++i) {
            extra[i].revents = descriptors_[Place(i)].revents;
            shown = shown || extra[i].revents != 0;
        }
        if (shown) return static_cast<DWORD>(objects_.size());
        if (end && Clock::now() >= *end) return WAIT_TIMEOUT;
    }
}

DWORD WaitAny(std::span<Waitable* const> objects, std::span<pollfd> extra, DWORD milliseconds) {
    if (objects.size() > MAXIMUM_WAIT_OBJECTS || extra.size() > MAXIMUM_WAIT_OBJECTS)
        return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
    return WaitSet(objects, false).Wait(extra, milliseconds);
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

#include "platform/sync.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <new>
#include <optional>
#include <string>

#include "platform/linux/wait/object.h"
#include "platform/linux/wait/spare_descriptors.h"

using platform::FromHandle;
using platform::Object;
using platform::ToHandle;
using platform::Waitable;

namespace {

// Half of what the platform's own default is; small enough that the C library keeps the stacks of
// ended threads for the next ones instead of giving each back to the system.
constexpr ULONG_PTR kDefaultStack = ULONG_PTR{512} * 1024;

thread_local DWORD t_lastError = 0;
std::atomic<DWORD> g_nextThreadId{1};
thread_local DWORD t_threadId = 0;

// Named events of this process. An entry holds no reference: the event takes itself out when it
// goes.
struct NameTable {
    std::mutex mutex;
    std::map<std::string, Waitable*, std::less<>> events;  // guarded by mutex
};
NameTable& Names() {
    static NameTable& table = *new NameTable;  // never destroyed: threads may outlive the statics
    return table;
}

class NamedEvent final : public Waitable {
  public:
    NamedEvent(Kind kind, LONG initial, std::string name)
        : Waitable(kind, initial, 1), name_(std::move(name)) {}
    // The name goes with the last handle, under the table's lock, so that an open never meets a
    // dying event.
    void OnClose() override {
        const std::lock_guard lock(Names().mutex);
        if (--handles_ == 0) Names().events.erase(name_);
    }
    int handles_ = 1;  // guarded by the table's mutex

  private:
    const std::string name_;
};

Waitable* ToWaitable(HANDLE handle) {
    auto* waitable = dynamic_cast<Waitable*>(FromHandle(handle));
    if (waitable == nullptr) SetLastError(ERROR_INVALID_HANDLE);
    return waitable;
}

int PollUntil(pollfd* descriptors, nfds_t count, bool limited,
              std::chrono::steady_clock::time_point end) {
    using std::chrono::milliseconds;
    for (;;) {
        int wait = -1;
        if (limited) {
            const auto left =
                std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now()).count();
            wait = left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 1 << 30));
        }
        const int result = poll(descriptors, count, wait);
        if (result >= 0 || errno != EINTR) {
            if (result == 0 && limited && wait == (1 << 30)) continue;
            return result;
        }
    }
}

struct ThreadStart {
    LPTHREAD_START_ROUTINE procedure;
    LPVOID argument;
    Waitable* ended;
    DWORD id;
};

void* ThreadMain(void* argument) {
    const ThreadStart start = *static_cast<ThreadStart*>(argument);
    delete static_cast<ThreadStart*>(argument);
    t_threadId = start.id;
    start.procedure(start.argument);
    start.ended->Signal(1, nullptr);
    start.ended->Release();
    return nullptr;
}

}  // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

namespace platform {

Waitable::~Waitable() {
    if (descriptor_ >= 0) close(descriptor_);  // closed under a waiter, against the rules
}

void Waitable::SyncDescriptor() {
    if (descriptor_ < 0 || waiters_ == 0 || raised_ == (count_ > 0)) return;
    std::uint64_t value = 1;
    // An eventfd's write of 1 and read never fail here: its counter is only ever 0 or 1.
    [[maybe_unused]] const ssize_t done = raised_ ? read(descriptor_, &value, sizeof value)
                                                  : write(descriptor_, &value, sizeof value);
    raised_ = !raised_;
}

bool Waitable::Signal(LONG n, LONG* previous) {
    const std::lock_guard lock(mutex_);
    if (previous != nullptr) *previous = count_;
    if (kind_ == Kind::kSemaphore) {
        if (n > maximum_ - count_) return false;
        count_ += n;
    } else {
        count_ = 1;
    }
    SyncDescriptor();
    return true;
}

void Waitable::Reset() {
    const std::lock_guard lock(mutex_);
    count_ = 0;
    SyncDescriptor();
}

bool Waitable::TryConsume() {
    const std::lock_guard lock(mutex_);
    if (count_ <= 0) return false;
    if (kind_ != Kind::kManualEvent) --count_;
    SyncDescriptor();
    return true;
}

int Waitable::BeginWait() {
    const std::lock_guard lock(mutex_);
    if (descriptor_ < 0) {
        descriptor_ = SpareDescriptors::Instance().Take();
        if (descriptor_ < 0) return -1;
    }
    ++waiters_;
    SyncDescriptor();
    return descriptor_;
}

void Waitable::EndWait() {
    const std::lock_guard lock(mutex_);
    if (--waiters_ > 0) return;
    std::uint64_t value = 0;
    if (raised_) {
        [[maybe_unused]] const ssize_t done = read(descriptor_, &value, sizeof value);
    }
    raised_ = false;
    SpareDescriptors::Instance().Give(descriptor_);
    descriptor_ = -1;
}

namespace {

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
    bool Sleep(bool limited, std::chrono::steady_clock::time_point end) {
        constexpr std::chrono::milliseconds kLook{50};
        bool whole = true;
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            if (descriptors_[i].fd < 0) descriptors_[i].fd = objects_[i]->BeginWait();
            whole = whole && descriptors_[i].fd >= 0;
        }
        const std::size_t count = objects_.size();
        for (std::size_t i = 0; i < extra_.size(); ++i) descriptors_[count + i] = extra_[i];
        if (!whole) {
            const auto look = std::chrono::steady_clock::now() + kLook;
            end = limited ? std::min(end, look) : look;
        }
        return PollUntil(descriptors_.data(), count + extra_.size(), limited || !whole, end) >= 0;
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
    if (objects.size() > MAXIMUM_WAIT_OBJECTS || extra.size() > MAXIMUM_WAIT_OBJECTS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    const auto signalled = [objects]() -> std::optional<DWORD> {
        for (std::size_t i = 0; i < objects.size(); ++i) {
            if (objects[i]->TryConsume()) return static_cast<DWORD>(i);
        }
        return std::nullopt;
    };
    if (const auto which = signalled()) return *which;
    if (milliseconds == 0 && extra.empty()) return WAIT_TIMEOUT;

    const bool limited = milliseconds != INFINITE;
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(limited ? milliseconds : 0);
    Sleeper sleeper(objects, extra);
    for (;;) {
        if (!sleeper.Sleep(limited, end)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return WAIT_FAILED;
        }
        // A signal may have been taken by another waiter since: then look at the others and sleep
        // again.
        if (const auto which = signalled()) return *which;
        if (sleeper.Shown()) return static_cast<DWORD>(objects.size());
        if (limited && std::chrono::steady_clock::now() >= end) return WAIT_TIMEOUT;
    }
}

}  // namespace platform

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name) {
    const auto kind =
        manualReset != FALSE ? Waitable::Kind::kManualEvent : Waitable::Kind::kAutoEvent;
    const LONG initial = initialState != FALSE ? 1 : 0;
    if (name == nullptr) {
        auto* event = new (std::nothrow) Waitable(kind, initial, 1);
        if (event == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return event == nullptr ? nullptr : ToHandle(event);
    }
    if (HANDLE existing = OpenEventA(EVENT_ALL_ACCESS, FALSE, name)) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return existing;
    }
    const std::lock_guard lock(Names().mutex);
    auto* event = new (std::nothrow) NamedEvent(kind, initial, name);
    if (event == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    Names().events[name] = event;
    SetLastError(ERROR_SUCCESS);
    return ToHandle(event);
}

HANDLE OpenEventA(DWORD, BOOL, LPCSTR name) {
    const std::lock_guard lock(Names().mutex);
    const auto found = name == nullptr ? Names().events.end() : Names().events.find(name);
    if (found == Names().events.end()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    found->second->AddRef();
    ++static_cast<NamedEvent*>(found->second)->handles_;
    return ToHandle(found->second);
}

BOOL SetEvent(HANDLE event) {
    Waitable* waitable = ToWaitable(event);
    if (waitable == nullptr || waitable->kind() == Waitable::Kind::kSemaphore) return FALSE;
    return waitable->Signal(1, nullptr) ? TRUE : FALSE;
}

BOOL ResetEvent(HANDLE event) {
    Waitable* waitable = ToWaitable(event);
    if (waitable == nullptr || waitable->kind() == Waitable::Kind::kSemaphore) return FALSE;
    waitable->Reset();
    return TRUE;
}

HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCSTR name) {
    if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount || name != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* semaphore =
        new (std::nothrow) Waitable(Waitable::Kind::kSemaphore, initialCount, maximumCount);
    if (semaphore == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return semaphore == nullptr ? nullptr : ToHandle(semaphore);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount) {
    Waitable* waitable = ToWaitable(semaphore);
    if (waitable == nullptr) return FALSE;
    if (waitable->kind() != Waitable::Kind::kSemaphore || releaseCount <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (waitable->Signal(releaseCount, previousCount)) return TRUE;
    SetLastError(ERROR_TOO_MANY_POSTS);
    return FALSE;
}

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, ULONG_PTR stackSize, LPTHREAD_START_ROUTINE procedure,
                    LPVOID argument, DWORD flags, DWORD* threadId) {
    if (procedure == nullptr || flags != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* ended = new (std::nothrow) Waitable(Waitable::Kind::kManualEvent, 0, 1);
    auto* start =
        new (std::nothrow) ThreadStart{procedure, argument, ended, g_nextThreadId.fetch_add(1)};
    const DWORD id = start != nullptr ? start->id : 0;
    pthread_attr_t attributes;
    bool started = false;
    if (ended != nullptr && start != nullptr && pthread_attr_init(&attributes) == 0) {
        ended->AddRef();  // the thread's own
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_attr_setstacksize(&attributes, stackSize != 0 ? stackSize : kDefaultStack);
        pthread_t thread;
        started = pthread_create(&thread, &attributes, ThreadMain, start) == 0;
        pthread_attr_destroy(&attributes);
        if (!started) ended->Release();
    }
    if (!started) {
        delete start;
        if (ended != nullptr) ended->Release();
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (threadId != nullptr) *threadId = id;
    return ToHandle(ended);
}

DWORD GetCurrentThreadId() {
    if (t_threadId == 0) t_threadId = g_nextThreadId.fetch_add(1);
    return t_threadId;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
    std::array<Waitable*, MAXIMUM_WAIT_OBJECTS> objects;
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr || waitAll != FALSE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = ToWaitable(handles[i]);
        if (objects[i] == nullptr) return WAIT_FAILED;
    }
    return platform::WaitAny(std::span(objects.data(), count), {}, milliseconds);
}

BOOL CloseHandle(HANDLE handle) {
    Object* object = FromHandle(handle);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object->OnClose();
    object->Release();
    return TRUE;
}

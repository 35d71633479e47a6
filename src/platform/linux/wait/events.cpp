// Events and semaphores.
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "platform/linux/wait/object.h"
#include "platform/sync.h"

using platform::ToHandle;
using platform::ToWaitable;
using platform::Waitable;

namespace {

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

}  // namespace

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

// Inside platform/: the objects behind handles, and the waits for them and for descriptors.
#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <utility>

#include "platform/linux/fail.h"
#include "platform/sync.h"
#include "platform/types.h"

namespace platform {

// What a HANDLE points to. Counted: one reference a handle, further ones for the layer's own
// tables.
class Object {
  public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;

    void AddRef() { references_.fetch_add(1, std::memory_order_relaxed); }
    void Release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    // Called by CloseHandle before the handle's reference goes; a pipe ends its I/O here.
    virtual void OnClose() {}

  private:
    std::atomic<int> references_{1};
};

// Owner of a reference.
struct ReleaseReference {
    void operator()(Object* object) const { object->Release(); }
};
template <class Kind>
using Reference = std::unique_ptr<Kind, ReleaseReference>;
template <class Kind>
Reference<Kind> Share(Kind* object) {
    object->AddRef();
    return Reference<Kind>(object);
}

inline HANDLE ToHandle(Object* object) { return static_cast<HANDLE>(object); }
inline Object* FromHandle(HANDLE handle) {
    return handle == nullptr || handle == INVALID_HANDLE_VALUE ? nullptr
                                                               : static_cast<Object*>(handle);
}

// The handle's object of that kind; null, with the last error, if it is none.
template <class Kind>
Kind* ObjectOf(HANDLE handle) {
    auto* object = dynamic_cast<Kind*>(FromHandle(handle));
    return object != nullptr ? object : Fail(ERROR_INVALID_HANDLE);
}

// A new object, whose reference goes with its handle; null, with the last error, without memory.
template <class Kind, class... Arguments>
Kind* NewObject(Arguments&&... arguments) {
    auto* object = new (std::nothrow) Kind(std::forward<Arguments>(arguments)...);
    return object != nullptr ? object : Fail(ERROR_NOT_ENOUGH_MEMORY);
}

// An object that can be waited on: signalled or not and, while somebody sleeps on it, a descriptor
// that is readable while it is.
class Waitable : public Object {
  public:
    enum class Kind { kManualEvent, kAutoEvent };

    Waitable(Kind kind, bool signalled) : kind_(kind), signalled_(signalled) {}
    ~Waitable() override;

    void Set(bool signalled);
    // If signalled: takes what one wait takes and gives true.
    bool TryConsume();
    // Registers the calling thread as a waiter and gives the descriptor to poll for POLLIN; -1 on
    // failure. Each successful call is followed by one EndWait.
    int BeginWait();
    void EndWait();

  private:
    void SyncDescriptor();  // under mutex_

    const Kind kind_;
    std::mutex mutex_;
    bool signalled_;       // guarded by mutex_
    int waiters_ = 0;      // guarded by mutex_
    int descriptor_ = -1;  // guarded by mutex_; -1 while there are no waiters
    bool raised_ = false;  // guarded by mutex_: the descriptor is readable
};

// As poll, until the end (nothing: for ever). A signal restarts it with the time that is left; an
// end in the past is one look. What all waits come to. `blocked`: the caller has just seen that
// what it wants is not there; it saves a task a look.
int PollUntil(std::span<pollfd> entries, std::optional<std::chrono::steady_clock::time_point> end,
              bool blocked = false);

// Waits, one after the other, for the same objects, each with descriptors of its own. What the
// waits need of the system is kept from one to the next; with `stay` a task's thread keeps watching
// it too, and the descriptors are sockets, which closesocket closes. The objects outlive it. One
// thread or task, the same for all.
class WaitSet {
  public:
    WaitSet(std::span<Waitable* const> objects, bool stay);
    WaitSet(const WaitSet&) = delete;
    WaitSet& operator=(const WaitSet&) = delete;
    ~WaitSet();

    // As WaitAny.
    DWORD Wait(std::span<pollfd> extra, DWORD milliseconds);

  private:
    std::optional<DWORD> Signalled();
    bool Sleep(std::span<const pollfd> extra,
               std::optional<std::chrono::steady_clock::time_point> end);
    // Of one of the other descriptors.
    std::size_t Place(std::size_t extra) const { return objects_.size() + extra; }

    const std::span<Waitable* const> objects_;
    const bool stay_;
    std::array<pollfd, std::size_t{2} * MAXIMUM_WAIT_OBJECTS> descriptors_;  // as many as there are
};

// Waits until one of the objects is signalled (its index is given and it is consumed), one of the
// extra descriptors shows an event (objects.size() is given, revents are filled in), or the time is
// over (WAIT_TIMEOUT). WAIT_FAILED on failure. At most MAXIMUM_WAIT_OBJECTS of each.
DWORD WaitAny(std::span<Waitable* const> objects, std::span<pollfd> extra, DWORD milliseconds);

}  // namespace platform

#include "platform/linux/wait/object.h"

#include <unistd.h>

#include <cstdint>

#include "platform/linux/wait/spare_descriptors.h"
#include "platform/sync.h"

namespace platform {

Waitable::~Waitable() {
    if (descriptor_ >= 0) close(descriptor_);  // closed under a waiter, against the rules
}

void Waitable::SyncDescriptor() {
    if (descriptor_ < 0 || waiters_ == 0 || raised_ == signalled_) return;
    std::uint64_t value = 1;
    // An eventfd's write of 1 and read never fail here: its counter is only ever 0 or 1.
    [[maybe_unused]] const ssize_t done = raised_ ? read(descriptor_, &value, sizeof value)
                                                  : write(descriptor_, &value, sizeof value);
    raised_ = !raised_;
}

void Waitable::Set(bool signalled) {
    const std::lock_guard lock(mutex_);
    signalled_ = signalled;
    SyncDescriptor();
}

bool Waitable::TryConsume() {
    const std::lock_guard lock(mutex_);
    if (!signalled_) return false;
    signalled_ = kind_ == Kind::kManualEvent;
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

}  // namespace platform

BOOL CloseHandle(HANDLE handle) {
    platform::Object* object = platform::FromHandle(handle);
    if (object == nullptr) return platform::Fail(ERROR_INVALID_HANDLE);
    object->OnClose();
    object->Release();
    return TRUE;
}

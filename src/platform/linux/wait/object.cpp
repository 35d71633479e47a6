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

}  // namespace platform

BOOL CloseHandle(HANDLE handle) {
    platform::Object* object = platform::FromHandle(handle);
    if (object == nullptr) return platform::Fail(ERROR_INVALID_HANDLE);
    object->OnClose();
    object->Release();
    return TRUE;
}

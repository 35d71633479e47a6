#include "platform/linux/wait/spare_descriptors.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace platform {

SpareDescriptors& SpareDescriptors::Instance() {
    static SpareDescriptors& spares = *new SpareDescriptors;  // threads may outlive the statics
    return spares;
}

int SpareDescriptors::Take() {
    {
        const std::lock_guard lock(mutex_);
        if (count_ > 0) return spare_[--count_];
    }
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void SpareDescriptors::Give(int descriptor) {
    {
        const std::lock_guard lock(mutex_);
        if (count_ < spare_.size()) {
            spare_[count_++] = descriptor;
            return;
        }
    }
    close(descriptor);
}

}  // namespace platform

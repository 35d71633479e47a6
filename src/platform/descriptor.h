// Descriptors of the system: their owner, and the wait for one until a deadline. On Windows a
// socket is one.
#pragma once

#include <chrono>
#include <span>

#include "platform/unique.h"

namespace platform {

struct DescriptorKind {
    using Type = int;
    static constexpr int kNone = -1;
    static bool Owned(int descriptor) { return descriptor >= 0; }
    // Leaves errno alone.
    static void Close(int descriptor);
};
using UniqueDescriptor = Unique<DescriptorKind>;

enum class Want { kRead, kWrite };

// One of several descriptors to wait for; -1: none. Ready also when it has failed or was hung up:
// the call that follows tells.
struct DescriptorWatch {
    int descriptor = -1;
    Want want = Want::kRead;
    bool ready = false;
};

// Waits until the descriptor is ready: 1; 0 once the end is there, -1 with errno on failure. A
// signal restarts the wait. Behind its end it gives 0 without a look, so that a peer that always
// has something ready can't keep a reader for longer.
int WaitForDescriptor(int descriptor, Want want, std::chrono::steady_clock::time_point end);
// The same for one of several, with the look in any case. How many are ready.
int WaitForDescriptors(std::span<DescriptorWatch> watches,
                       std::chrono::steady_clock::time_point end);

}  // namespace platform

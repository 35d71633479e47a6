#include "platform/descriptor.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/linux/task/task_thread.h"
#include "platform/linux/wait/object.h"

namespace platform {
using Clock = std::chrono::steady_clock;

void DescriptorKind::Close(int descriptor) {
    const int error = errno;
    close(descriptor);
    errno = error;
}

int PollUntil(std::span<pollfd> entries, std::optional<Clock::time_point> end, bool blocked) {
    if (TaskThread* const thread = TaskThread::Current())
        return thread->Poll(entries, end, blocked);
    constexpr long long kLongest = 1 << 30;  // milliseconds
    for (;;) {
        long long wait = -1;
        if (end) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
            wait = std::clamp<long long>(left.count(), 0, kLongest);
        }
        const int result = poll(entries.data(), entries.size(), static_cast<int>(wait));
        if (result < 0 ? errno != EINTR : result > 0 || wait < kLongest) return result;
    }
}

int WaitForDescriptor(int descriptor, Want want, Clock::time_point end) {
    DescriptorWatch watch{descriptor, want};
    return Clock::now() >= end ? 0 : WaitForDescriptors({&watch, 1}, end);
}

int WaitForDescriptors(std::span<DescriptorWatch> watches, Clock::time_point end) {
    std::vector<pollfd> entries;
    for (const DescriptorWatch& each : watches) {
        const int events = each.want == Want::kRead ? POLLIN : POLLOUT;
        entries.push_back({each.descriptor, static_cast<short>(events), 0});
    }
    const int result = PollUntil(entries, end);
    for (std::size_t i = 0; i < entries.size(); ++i)
        watches[i].ready = result > 0 && entries[i].revents != 0;
    return result;
}

}  // namespace platform

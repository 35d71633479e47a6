// The task threads of the process: as many as it has processors, begun with the first task.
#include "platform/task.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/linux/task/task_thread.h"
#include "platform/linux/wait/object.h"

namespace platform {
namespace {

// With two, one that is held up doesn't hold up all.
constexpr unsigned kFewestThreads = 2;
constexpr unsigned kMostThreads = 32;

// Never destroyed: they run to the end of the process.
using TaskThreads = std::vector<std::unique_ptr<TaskThread>>;

const TaskThreads& Threads() {
    static const TaskThreads& threads = *[] {
        auto* const made = new TaskThreads;
        const unsigned count =
            std::clamp(std::thread::hardware_concurrency(), kFewestThreads, kMostThreads);
        for (unsigned i = 0; i < count; ++i) {
            auto thread = std::make_unique<TaskThread>();
            if (thread->Begin()) made->push_back(std::move(thread));
        }
        return made;
    }();
    return threads;
}

}  // namespace

bool StartTask(TaskProcedure procedure, void* argument) {
    static std::atomic<unsigned> turn{0};
    const TaskThreads& threads = Threads();
    return !threads.empty() && threads[turn++ % threads.size()]->Start(procedure, argument);
}

bool InTask() { return TaskThread::Current() != nullptr; }

void YieldTask() {
    if (TaskThread* const thread = TaskThread::Current()) thread->Yield();
}

void SleepFor(std::chrono::milliseconds time) {
    if (TaskThread* const thread = TaskThread::Current()) {
        thread->Poll({}, std::chrono::steady_clock::now() + time);
    } else {
        std::this_thread::sleep_for(time);
    }
}

}  // namespace platform

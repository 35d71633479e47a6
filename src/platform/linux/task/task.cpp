// The task threads of the process: as many as it has processors, begun with the first task.
#include "platform/task.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "platform/linux/task/task_thread.h"
#include "platform/linux/wait/object.h"

namespace platform {
namespace {

// With two, one that is held up doesn't hold up all.
constexpr unsigned kFewestThreads = 2;
constexpr unsigned kMostThreads = 32;

// The threads, which run to the end of the process; it is never destroyed. A thread that could not
// be had is tried again with the next task.
class TaskThreads {
  public:
    static TaskThreads& Instance() {
        static TaskThreads& threads = *new TaskThreads;
        return threads;
    }

    // Null: there is none.
    TaskThread* Next() {
        std::size_t begun = begun_;
        if (begun < wanted_) begun = BeginMissing();
        return begun == 0 ? nullptr : threads_[turn_++ % begun].get();
    }

  private:
    std::size_t BeginMissing() {
        const std::lock_guard lock(mutex_);
        while (begun_ < wanted_) {
            auto thread = std::make_unique<TaskThread>();
            if (!thread->Begin()) break;
            threads_[begun_] = std::move(thread);
            ++begun_;
        }
        return begun_;
    }

    const std::size_t wanted_ =
        std::clamp(std::thread::hardware_concurrency(), kFewestThreads, kMostThreads);
    std::array<std::unique_ptr<TaskThread>, kMostThreads> threads_;  // as many as have begun
    std::atomic<std::size_t> begun_{0};                              // raised under mutex_
    std::atomic<unsigned> turn_{0};
    std::mutex mutex_;
};

}  // namespace

bool StartTask(TaskProcedure procedure, void* argument) {
    try {
        TaskThread* const thread = TaskThreads::Instance().Next();
        return thread != nullptr && thread->Start(procedure, argument);
    } catch (const std::bad_alloc&) {
        return false;
    }
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

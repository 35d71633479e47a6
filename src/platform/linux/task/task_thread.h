// Inside platform/: a thread that runs tasks, and its epoll set, by which their waits end.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/descriptor.h"
#include "platform/linux/task/context.h"
#include "platform/task.h"
#include "platform/types.h"

namespace platform {

class TaskThread {
  public:
    using Clock = std::chrono::steady_clock;

    TaskThread();
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;
    ~TaskThread();  // of one that has not begun
    // Begins to run tasks. False if there is no thread for it.
    bool Begin();
    // The calling task's; null outside of a task.
    static TaskThread* Current();

    // A new task, by any thread. False without memory.
    bool Start(TaskProcedure procedure, void* argument);

    // As PollUntil, for the calling task, which the following are for too. `blocked`: the caller
    // has just seen that what it wants is not there, and bears with a wait that ends for nothing.
    // `stay`: they are sockets, which stay in the epoll set until Forget.
    int Poll(std::span<pollfd> entries, std::optional<Clock::time_point> end, bool blocked = false,
             bool stay = false);
    void Yield();
    // The socket is about to be closed.
    void Forget(int socket);
    // What has stayed is watched no more; nobody waits for it.
    void Drop(int descriptor);

  private:
    static constexpr int kAlways = POLLERR | POLLHUP;  // told of whether it is wanted or not
    struct Task;
    using Timers = std::multimap<Clock::time_point, Task*>;
    // One entry of a task's wait, on its stack.
    struct Entry {
        Task* task = nullptr;
        int wanted = 0;
        Entry* next = nullptr;
        std::uint32_t seen = 0;  // what has happened since, also where another has been told
    };
    // What is known of a descriptor.
    struct Watched {
        Entry* waiting = nullptr;
        std::uint32_t events = 0;  // what the epoll set tells
        std::uint32_t seen = 0;    // what has happened and nobody has been told of
        bool registered = false;
    };
    class Waiting;

    static DWORD Main(void* self);
    static void Enter();
    void Run();
    void TakePosted();
    void RunReady();
    void FireTimers();
    void WaitForEvents();
    void MakeReady(Task* task);
    void Retire(Task* task);
    // What is known of a descriptor has its place from here on.
    void MakeRoom(int descriptor);
    bool Register(int descriptor, std::uint32_t events);
    // Gives the thread to others until somebody makes the running task ready, or the end is over.
    void Pause(std::optional<Clock::time_point> end);
    int Wait(std::span<pollfd> entries, std::optional<Clock::time_point> end, bool stay);

    const UniqueDescriptor epoll_;
    const UniqueDescriptor wake_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Task>> posted_;        // guarded by mutex_: not begun
    std::vector<std::unique_ptr<Stack>> spareStacks_;  // guarded by mutex_
    bool sleeping_ = false;  // guarded by mutex_: in epoll_wait, or on its way there
    // The thread's alone, as all below.
    Context* own_ = nullptr;
    Task* running_ = nullptr;
    Task* firstReady_ = nullptr;  // in the order in which they became so
    Task* lastReady_ = nullptr;
    Timers timers_;
    std::vector<Watched> watched_;  // by descriptor
};

}  // namespace platform

#include "platform/linux/task/task_thread.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "platform/clock.h"
#include "platform/sync.h"

namespace platform {
namespace {

constexpr std::size_t kMostSpareStacks = 64;

thread_local TaskThread* t_current = nullptr;

}  // namespace

struct TaskThread::Task {
    TaskProcedure procedure = nullptr;
    void* argument = nullptr;
    std::unique_ptr<Stack> stack;
    Context context;
    Task* nextReady = nullptr;
    bool ready = false;
    bool waiting = false;
    bool ended = false;
    std::optional<Clock::time_point> end;  // of its wait
    // Its entry among the timers, never behind the end of its wait; one that is too early is put
    // right when its time comes, for most waits end long before.
    Timers::iterator timer;
    bool timed = false;
    Timers::node_type spareTimer;  // that entry while it is not among them: a wait needs no memory
};

TaskThread::TaskThread()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;  // each write is an edge: never read back
    event.data.fd = wake_.Get();
    spareStacks_.reserve(kMostSpareStacks);  // so that nothing throws later
    epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, wake_.Get(), &event);
}

TaskThread::~TaskThread() = default;

bool TaskThread::Begin() {
    if (!epoll_ || !wake_) return false;
    const UniqueHandle thread(CreateThread(nullptr, 0, Main, this, 0, nullptr));
    return static_cast<bool>(thread);
}

TaskThread* TaskThread::Current() { return t_current; }

bool TaskThread::Start(TaskProcedure procedure, void* argument) {
    try {
        auto task = std::make_unique<Task>();
        task->procedure = procedure;
        task->argument = argument;
        Timers fresh;
        fresh.emplace(Clock::time_point(), task.get());
        task->spareTimer = fresh.extract(fresh.begin());
        const std::lock_guard lock(mutex_);
        if (spareStacks_.empty()) {
            task->stack = std::make_unique<Stack>();
            if (!*task->stack) return false;
        } else {
            task->stack = std::move(spareStacks_.back());  // the last one is still warm
            spareStacks_.pop_back();
        }
        task->context.Begin(*task->stack, Enter);
        posted_.push_back(std::move(task));
        if (!sleeping_) return true;
        sleeping_ = false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_.Get(), &one, sizeof one);
    return true;
}

DWORD TaskThread::Main(void* self) {
    t_current = static_cast<TaskThread*>(self);
    pthread_setname_np(pthread_self(), "tasks");  // for those who look at the process
    t_current->Run();
    return 0;
}

void TaskThread::Enter() {
    TaskThread& self = *t_current;
    Task& task = *self.running_;
    task.context.Arrived(*self.own_);
    task.procedure(task.argument);
    task.ended = true;
    task.context.SwitchTo(*self.own_, true);
}

void TaskThread::Run() {
    Context own;
    own_ = &own;
    for (;;) {
        TakePosted();
        RunReady();
        FireTimers();
        WaitForEvents();
    }
}

void TaskThread::TakePosted() {
    std::vector<std::unique_ptr<Task>> begun;
    {
        const std::lock_guard lock(mutex_);
        begun.swap(posted_);
    }
    for (std::unique_ptr<Task>& task : begun) MakeReady(task.release());
}

// Those that become ready meanwhile have their turn behind the next look at the events.
void TaskThread::RunReady() {
    Task* next = std::exchange(firstReady_, nullptr);
    lastReady_ = nullptr;
    while (next != nullptr) {
        Task* const task = std::exchange(next, next->nextReady);
        task->ready = false;
        running_ = task;
        own_->SwitchTo(task->context, false);
        running_ = nullptr;
        if (task->ended) Retire(task);
    }
}

void TaskThread::FireTimers() {
    if (timers_.empty()) return;
    // The same clock as below: by a finer one it would look again and again until this one's tick.
    const Clock::time_point now = LastTick();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        auto node = timers_.extract(timers_.begin());
        Task* const task = node.mapped();
        task->timed = task->waiting && task->end.has_value() && *task->end > now;
        if (task->timed) {
            node.key() = *task->end;
            task->timer = timers_.insert(std::move(node));
            continue;
        }
        task->spareTimer = std::move(node);
        if (task->waiting && task->end.has_value()) MakeReady(task);
    }
}

void TaskThread::WaitForEvents() {
    int limit = -1;
    if (firstReady_ != nullptr) {
        limit = 0;
    } else if (!timers_.empty()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first - LastTick());
        limit = static_cast<int>(std::clamp<long long>(left.count(), 0, 1 << 30));
    }
    if (limit != 0) {
        const std::lock_guard lock(mutex_);
        if (!posted_.empty()) return;
        sleeping_ = true;
    }
    std::array<epoll_event, 64> events;
    const int count =
        epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), limit);
    if (limit != 0) {
        const std::lock_guard lock(mutex_);
        sleeping_ = false;
    }
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        const auto descriptor = static_cast<std::size_t>(event.data.fd);
        if (descriptor >= watched_.size()) continue;
        Watched& watched = watched_[descriptor];
        watched.seen |= event.events;
        for (Entry* entry = watched.waiting; entry != nullptr; entry = entry->next) {
            entry->seen |= event.events;
            if ((event.events & static_cast<std::uint32_t>(entry->wanted | kAlways)) != 0)
                MakeReady(entry->task);
        }
    }
}

void TaskThread::MakeReady(Task* task) {
    if (task->ready) return;
    task->ready = true;
    task->nextReady = nullptr;
    (lastReady_ != nullptr ? lastReady_->nextReady : firstReady_) = task;
    lastReady_ = task;
}

void TaskThread::Retire(Task* task) {
    const std::unique_ptr<Task> ended(task);
    if (ended->timed) timers_.erase(ended->timer);
    const std::lock_guard lock(mutex_);
    if (spareStacks_.size() < kMostSpareStacks) spareStacks_.push_back(std::move(ended->stack));
}

void TaskThread::Pause(std::optional<Clock::time_point> end) {
    Task& task = *running_;
    if (end && !task.timed) {
        task.spareTimer.key() = *end;
        task.timer = timers_.insert(std::move(task.spareTimer));
        task.timed = true;
    } else if (end && task.timer->first > *end) {
        auto node = timers_.extract(task.timer);
        node.key() = *end;
        task.timer = timers_.insert(std::move(node));
    }
    task.end = end;
    task.waiting = true;
    task.context.SwitchTo(*own_, false);
    task.waiting = false;
}

void TaskThread::Yield() {
    MakeReady(running_);
    running_->context.SwitchTo(*own_, false);
}

}  // namespace platform

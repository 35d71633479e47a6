#include "platform/linux/task/task_thread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "platform/sync.h"

namespace platform {
namespace {

constexpr std::size_t kMostSpareStacks = 64;
constexpr int kAlways = POLLERR | POLLHUP;
constexpr std::uint32_t kAllEvents = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP;
// How often a descriptor is looked at that there is no room for, in the epoll set or in memory.
constexpr std::chrono::milliseconds kLook{50};

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
    const Clock::time_point now = Clock::now();
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
            std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
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

void TaskThread::MakeRoom(int descriptor) {
    if (descriptor < 0) return;
    const std::size_t least = static_cast<std::size_t>(descriptor) + 1;
    if (least > watched_.size()) watched_.resize(std::max(least, watched_.size() * 2));
}

// False if the epoll set has no room for it.
bool TaskThread::Register(int descriptor, std::uint32_t events) {
    Watched& watched = watched_[static_cast<std::size_t>(descriptor)];
    const bool known = watched.registered;
    if (known && (watched.events & events) == events) return true;
    if (!known) watched.events = watched.seen = 0;
    watched.events |= events;
    epoll_event event{};
    event.events = watched.events | EPOLLET;
    event.data.fd = descriptor;
    const int operation = known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    watched.registered = epoll_ctl(epoll_.Get(), operation, descriptor, &event) == 0;
    return watched.registered;
}

void TaskThread::Forget(int socket) {
    const auto at = static_cast<std::size_t>(socket);
    // The system takes it out of the set when it is closed.
    if (at < watched_.size()) watched_[at].registered = false;
}

// The entries of one wait, in the lists of their descriptors.
class TaskThread::Waiting {
  public:
    Waiting(TaskThread& thread, std::span<pollfd> entries, bool stay)
        : thread_(thread), entries_(entries), stay_(stay) {
        // What may throw comes first.
        if (entries.size() > few_.size()) many_.resize(entries.size());
        for (const pollfd& entry : entries) thread.MakeRoom(entry.fd);
        Entry* const first = many_.empty() ? few_.data() : many_.data();
        for (std::size_t i = 0; i < entries.size(); ++i) {
            entries[i].revents = 0;
            if (entries[i].fd < 0) continue;
            // Else events that nobody wants would wake the thread.
            const auto wanted = static_cast<std::uint32_t>(entries[i].events);
            whole_ = thread.Register(entries[i].fd, stay ? kAllEvents : wanted) && whole_;
            Watched& watched = Of(entries[i]);
            first[i] = {thread.running_, entries[i].events, watched.waiting, 0};
            watched.waiting = &first[i];
        }
        first_ = first;
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting() {
        for (std::size_t i = 0; first_ != nullptr && i < entries_.size(); ++i) {
            if (entries_[i].fd < 0) continue;
            Watched& watched = Of(entries_[i]);
            for (Entry** at = &watched.waiting; *at != nullptr; at = &(*at)->next) {
                if (*at != &first_[i]) continue;
                *at = first_[i].next;
                break;
            }
            if (stay_ || watched.waiting != nullptr || !watched.registered) continue;
            watched.registered = false;
            epoll_ctl(thread_.epoll_.Get(), EPOLL_CTL_DEL, entries_[i].fd, nullptr);
        }
    }

    // Whether the epoll set has them all.
    bool Whole() const { return whole_; }
    // Tells the entries what has been seen. How many have something to be told.
    int Tell() {
        int told = 0;
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            pollfd& entry = entries_[i];
            if (entry.fd < 0) continue;
            Watched& watched = Of(entry);
            const std::uint32_t seen = watched.seen | std::exchange(first_[i].seen, 0);
            entry.revents = static_cast<short>(static_cast<int>(seen) & (entry.events | kAlways));
            watched.seen &= ~static_cast<std::uint32_t>(entry.revents & ~kAlways);
            // A broken connection stays so, and nobody will tell of a closed one again.
            if ((seen & EPOLLRDHUP) != 0)
                entry.revents = static_cast<short>(entry.revents | (entry.events & POLLIN));
            told += entry.revents != 0 ? 1 : 0;
        }
        return told;
    }

  private:
    Watched& Of(const pollfd& entry) const {
        return thread_.watched_[static_cast<std::size_t>(entry.fd)];
    }

    TaskThread& thread_;
    const std::span<pollfd> entries_;
    const bool stay_;
    bool whole_ = true;
    std::array<Entry, 4> few_;
    std::vector<Entry> many_;
    Entry* first_ = nullptr;
};

int TaskThread::Wait(std::span<pollfd> entries, std::optional<Clock::time_point> end, bool stay) {
    std::optional<Waiting> waiting;
    try {
        waiting.emplace(*this, entries, stay);
    } catch (const std::bad_alloc&) {
    }
    for (;;) {
        if (const int told = waiting ? waiting->Tell() : 0; told > 0) return told;
        if (end && Clock::now() >= *end) return 0;
        if (waiting && waiting->Whole()) {
            Pause(end);
            continue;
        }
        const Clock::time_point look = Clock::now() + kLook;
        Pause(end ? std::min(*end, look) : look);
        const int ready = poll(entries.data(), entries.size(), 0);
        if (ready > 0) return ready;
    }
}

int TaskThread::Poll(std::span<pollfd> entries, std::optional<Clock::time_point> end, bool blocked,
                     bool stay) {
    if (blocked) return Wait(entries, end, stay);
    for (;;) {
        const int ready = poll(entries.data(), entries.size(), 0);
        if (ready > 0 || (ready < 0 && errno != EINTR)) return ready;
        if (end && Clock::now() >= *end) return 0;
        Wait(entries, end, stay);
    }
}

}  // namespace platform

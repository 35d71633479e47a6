// The waits of a thread's tasks for descriptors.
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "platform/linux/task/task_thread.h"

namespace platform {
namespace {

// What the epoll set tells of a socket that stays in it, wanted or not. Of its room only from the
// first time on that somebody has waited for that: nearly all have room all the time.
constexpr std::uint32_t kStanding = EPOLLIN | EPOLLPRI | EPOLLRDHUP;
// How often a descriptor is looked at that there is no room for, in the epoll set or in memory.
constexpr std::chrono::milliseconds kLook{50};

}  // namespace

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

void TaskThread::Drop(int descriptor) {
    const auto at = static_cast<std::size_t>(descriptor);
    if (at >= watched_.size() || !std::exchange(watched_[at].registered, false)) return;
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
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
            whole_ = thread.Register(entries[i].fd, stay ? kStanding | wanted : wanted) && whole_;
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
    for (bool paused = false;; paused = true) {
        if (const int told = waiting ? waiting->Tell() : 0; told > 0) return told;
        // An end that is over already shows behind the first pause.
        if (paused && end && Clock::now() >= *end) return 0;
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

#include "daemons/statd/held/releaser.h"

#include <algorithm>

#include "daemons/quarantine/outward/release.h"

namespace stats {

namespace {

constexpr std::size_t kMostWaiting = 200;
constexpr std::size_t kMostOutcomes = 1000;

std::string ReleaseNow(quarantine::Quarantine& store, const std::string& id,
                       const std::string& account, ConnectWatch& watch) {
    std::string said;
    std::optional<Destination> destination = DestinationOf("", said);
    if (destination) destination->watch = &watch;
    const bool released = destination && Release(store, id, "", false, *destination,
                                                 {account, kThrough}, said) == Released::kYes;
    return (released ? "Released; the server said: " : "Not released: ") + said;
}

}  // namespace

Releaser::Releaser(quarantine::Quarantine& store) : store_(store), thread_([this] { Work(); }) {}

Releaser::~Releaser() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        if (!socket_.Empty()) socket_.Shutdown();
    }
    wake_.notify_all();
    thread_.join();
}

bool Releaser::Trying(SOCKET socket) {
    const std::lock_guard lock(mutex_);
    socket_ = CSocket(socket);
    return !ending_;
}

void Releaser::Failed() {
    const std::lock_guard lock(mutex_);
    socket_ = CSocket();
}

bool Releaser::Wanted() {
    const std::lock_guard lock(mutex_);
    return !ending_;
}

bool Releaser::Add(const std::string& id, const std::string& account) {
    const std::lock_guard lock(mutex_);
    if (waiting_.size() >= kMostWaiting) return false;
    if (id == underWay_ || std::any_of(waiting_.begin(), waiting_.end(),
                                       [&](const Wish& each) { return each.id == id; }))
        return true;
    waiting_.push_back({id, account});
    if (outcomes_.size() >= kMostOutcomes) outcomes_.clear();
    outcomes_[id] = "Being released.";
    wake_.notify_all();
    return true;
}

std::string Releaser::Outcome(const std::string& id) {
    const std::lock_guard lock(mutex_);
    const auto found = outcomes_.find(id);
    return found == outcomes_.end() ? std::string() : found->second;
}

void Releaser::Work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        if (ending_) return;
        const Wish wish = std::move(waiting_.front());
        waiting_.pop_front();
        underWay_ = wish.id;
        lock.unlock();
        std::string outcome = ReleaseNow(store_, wish.id, wish.account, *this);
        lock.lock();
        underWay_.clear();
        outcomes_[wish.id] = std::move(outcome);
    }
}

}  // namespace stats

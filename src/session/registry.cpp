#include "session/registry.h"

#include "session/session.h"

SessionRegistry& SessionRegistry::Instance() {
    static SessionRegistry& registry = *new SessionRegistry;
    return registry;
}

bool SessionRegistry::Enter(CSMTPProxy* session) {
    const std::lock_guard lock(mutex_);
    if (stopping_) return false;
    sessions_.insert(session);
    ++running_;
    return true;
}

void SessionRegistry::Leave(CSMTPProxy* session) {
    const std::lock_guard lock(mutex_);
    sessions_.erase(session);
}

void SessionRegistry::Done() {
    const std::lock_guard lock(mutex_);
    if (--running_ == delayed_) left_.notify_all();
}

void SessionRegistry::CountDelayed(int change) {
    const std::lock_guard lock(mutex_);
    delayed_ += change;
    if (running_ == delayed_) left_.notify_all();
}

void SessionRegistry::BeginStop() {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    for (CSMTPProxy* session : sessions_) session->RequestStop();
}

void SessionRegistry::CutAll() {
    const std::lock_guard lock(mutex_);
    for (CSMTPProxy* session : sessions_) session->Cut();
}

bool SessionRegistry::WaitIdle(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return left_.wait_for(lock, limit, [this] { return running_ == delayed_; });
}

bool SessionRegistry::Empty() {
    const std::lock_guard lock(mutex_);
    return running_ == 0;
}

std::size_t SessionRegistry::Look(std::size_t most, std::vector<SessionView>& views) {
    const std::lock_guard lock(mutex_);
    for (const CSMTPProxy* session : sessions_) {
        if (views.size() >= most) break;
        views.push_back(session->View());
    }
    return sessions_.size();
}

void SessionRegistry::Reopen() {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
}

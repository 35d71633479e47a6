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
    if (--running_ == 0) left_.notify_all();
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

bool SessionRegistry::WaitEmpty(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return left_.wait_for(lock, limit, [this] { return running_ == 0; });
}

void SessionRegistry::Reopen() {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
}

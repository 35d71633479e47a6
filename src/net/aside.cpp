#include "net/aside.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>

#include "net/socket.h"
#include "platform/task.h"

namespace {

constexpr int kMostThreads = 64;
constexpr std::chrono::seconds kKeptFor{60};
// Until a thread comes to it, in milliseconds.
constexpr DWORD kLongestLine = 30000;

// Whichever of the two threads is the last one to touch it.
struct Errand {
    const std::function<void()>* work = nullptr;
    UniqueHandle done;
    std::exception_ptr failure;
};

void Run(Errand& errand) {
    try {
        (*errand.work)();
    } catch (...) {
        errand.failure = std::current_exception();
    }
    SetEvent(errand.done.Get());
}

class Threads {
  public:
    // Never destroyed: its threads wait in it to the end of the process.
    static Threads& Instance() {
        static Threads& threads = *new Threads;
        return threads;
    }

    bool Give(const std::shared_ptr<Errand>& errand, Turn turn) {
        const bool atOnce = turn == Turn::kAtOnce;
        std::unique_lock lock(mutex_);
        errands_.insert(atOnce ? errands_.begin() : errands_.end(), errand);
        if (idle_ >= static_cast<int>(errands_.size()) || (threads_ >= kMostThreads && !atOnce)) {
            wake_.notify_one();
            return true;
        }
        ++threads_;
        lock.unlock();
        if (StartThread(nullptr, Serve, this) == 0) return true;
        lock.lock();
        if (--threads_ > 0) return true;  // one of them comes to it
        std::erase(errands_, errand);
        return false;
    }

    // Takes back what no thread has come to. False: one has.
    bool Withdraw(const std::shared_ptr<Errand>& errand) {
        const std::lock_guard lock(mutex_);
        return std::erase(errands_, errand) > 0;
    }

  private:
    static DWORD Serve(LPVOID self) {
        auto& threads = *static_cast<Threads*>(self);
        while (const std::shared_ptr<Errand> next = threads.Next()) Run(*next);
        return 0;
    }

    // Null: the thread shall end.
    std::shared_ptr<Errand> Next() {
        std::unique_lock lock(mutex_);
        ++idle_;
        const bool some = wake_.wait_for(lock, kKeptFor, [this] { return !errands_.empty(); });
        --idle_;
        if (!some) {
            --threads_;
            return nullptr;
        }
        std::shared_ptr<Errand> next = std::move(errands_.front());
        errands_.pop_front();
        return next;
    }

    std::mutex mutex_;  // guards all below
    std::condition_variable wake_;
    std::deque<std::shared_ptr<Errand>> errands_;
    int threads_ = 0;
    int idle_ = 0;
};

}  // namespace

bool RunAside(const std::function<void()>& work, Turn turn) {
    if (!platform::InTask()) {
        work();
        return true;
    }
    const auto errand = std::make_shared<Errand>();
    errand->work = &work;
    errand->done.Reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!errand->done || !Threads::Instance().Give(errand, turn)) return false;
    if (WaitForSingleObject(errand->done.Get(), kLongestLine) == WAIT_TIMEOUT) {
        if (Threads::Instance().Withdraw(errand)) return false;
        WaitForSingleObject(errand->done.Get(), INFINITE);
    }
    if (errand->failure) std::rethrow_exception(errand->failure);
    return true;
}

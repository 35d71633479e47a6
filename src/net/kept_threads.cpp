#include "net/kept_threads.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "net/socket.h"
#include "platform/task.h"

namespace {

// What may wait for work: enough for a burst, not what the largest one has left.
constexpr std::size_t kMostKept = 128;
constexpr std::chrono::seconds kKeptFor{60};

struct Work {
    LPTHREAD_START_ROUTINE procedure = nullptr;  // null: none
    LPVOID argument = nullptr;
};

// A thread that waits, on its own stack.
struct Waiting {
    Work work;
    std::condition_variable wake;
};

class KeptThreads {
  public:
    // Never destroyed: its threads wait in it to the end of the process.
    static KeptThreads& Instance() {
        static KeptThreads& threads = *new KeptThreads;
        return threads;
    }

    bool Give(const Work& work) {
        const std::lock_guard lock(mutex_);
        if (waiting_.empty()) return false;
        // The last one: its memory is still warm, and those that are not needed come to their end.
        Waiting* const next = waiting_.back();
        waiting_.pop_back();
        next->work = work;
        next->wake.notify_one();
        return true;
    }

    // None: the thread shall end.
    Work Take() {
        Waiting self;
        std::unique_lock lock(mutex_);
        if (waiting_.size() >= kMostKept) return {};
        waiting_.push_back(&self);
        const auto given = [&self] { return self.work.procedure != nullptr; };
        if (!self.wake.wait_for(lock, kKeptFor, given)) std::erase(waiting_, &self);
        return self.work;
    }

  private:
    KeptThreads() { waiting_.reserve(kMostKept); }  // so that nothing throws later

    std::mutex mutex_;
    std::vector<Waiting*> waiting_;  // guarded by mutex_, as what is in them
};

DWORD KeptThread(LPVOID first) {
    Work work = *std::unique_ptr<Work>(static_cast<Work*>(first));
    for (; work.procedure != nullptr; work = KeptThreads::Instance().Take())
        work.procedure(work.argument);
    return 0;
}

}  // namespace

void RunAside(const std::function<void()>& work) {
    // Whichever of the two threads is the last one to touch it.
    struct Errand {
        const std::function<void()>* work;
        UniqueHandle done;
        std::exception_ptr failure;
    };
    if (!platform::InTask()) return work();
    const auto errand = std::make_shared<Errand>();
    errand->work = &work;
    errand->done.Reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    auto given = std::make_unique<std::shared_ptr<Errand>>(errand);
    const auto run = [](LPVOID argument) -> DWORD {
        const std::unique_ptr<std::shared_ptr<Errand>> taken(
            static_cast<std::shared_ptr<Errand>*>(argument));
        Errand& mine = **taken;
        try {
            (*mine.work)();
        } catch (...) {
            mine.failure = std::current_exception();
        }
        SetEvent(mine.done.Get());
        return 0;
    };
    if (!errand->done || RunOnKeptThread(run, given.get()) != 0) return work();
    [[maybe_unused]] auto* const theThreads = given.release();
    WaitForSingleObject(errand->done.Get(), INFINITE);
    if (errand->failure) std::rethrow_exception(errand->failure);
}

int RunOnKeptThread(LPTHREAD_START_ROUTINE procedure, LPVOID argument) {
    const Work work{procedure, argument};
    if (KeptThreads::Instance().Give(work)) return 0;
    auto first = std::unique_ptr<Work>(new (std::nothrow) Work(work));
    if (first == nullptr || StartThread(nullptr, KeptThread, first.get()) != 0) return -1;
    [[maybe_unused]] Work* const theThreads = first.release();
    return 0;
}

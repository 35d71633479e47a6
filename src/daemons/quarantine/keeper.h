// Inside quarantine/: the thread that tidies up, at the start and every hour.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "daemons/quarantine/clockwatch.h"
#include "daemons/quarantine/quarantine.h"

namespace quarantine {

class Keeper {
  public:
    using Tell = std::function<void(const std::string&)>;
    explicit Keeper(Quarantine& store) : store_(store) {}
    Keeper(const Keeper&) = delete;
    Keeper& operator=(const Keeper&) = delete;
    ~Keeper() { Stop(); }

    // Takes in what a crash has left, and then tidies up; waits for none of it. The limits are
    // asked for each time; `tell` hears of what can't be done. Both on the keeper's thread.
    void Start(std::function<Limits()> limits, Tell tell);
    void Stop();

  private:
    void TidyUp(int leavingSeconds);
    void Run();

    Quarantine& store_;
    std::function<Limits()> limits_;
    Tell tell_;
    ClockWatch clock_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace quarantine

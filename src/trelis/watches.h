// Inside trelis/: the watches of this process and the thread that looks for other processes'
// changes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/sync.h"
#include "trelis/store.h"

namespace trelis {

// One watch. `name` stands first: a pointer to it is the handle that the callers hold.
struct Watch {
    char name[64] = "";
    std::atomic<bool> changed{false};
    std::string key;
    UniqueHandle event;
};

class Watches {
  public:
    static Watches& Instance();  // never destroyed

    // Null on failure.
    Watch* Place(const std::string& key, std::int64_t origin);
    void Cancel(const char* name);
    // Fires the watches that a change concerns.
    void Fire(const std::string& changed);
    // Called with each path that another process changed ("/": too many to tell). Before the first
    // Place.
    void SetListener(std::function<void(const std::string&)> listener) {
        listener_ = std::move(listener);
    }

  private:
    bool StartWatcher(std::int64_t origin);
    void StopWatcher();

    std::mutex mutex_;
    std::vector<std::unique_ptr<Watch>> watches_;  // guarded by mutex_
    int nextName_ = 0;                             // guarded by mutex_
    std::mutex threadMutex_;   // guards the thread's start and end; taken before mutex_
    std::thread thread_;       // guarded by threadMutex_
    int stopDescriptor_ = -1;  // guarded by threadMutex_
    std::function<void(const std::string&)> listener_;
};

}  // namespace trelis

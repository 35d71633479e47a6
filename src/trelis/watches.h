// Inside trelis/: the watches of this process, and how they hear of other processes' changes.
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

class ChangeReader;

// One watch. `name` stands first: a pointer to it is the handle that the callers hold.
struct PlacedWatch {
    char name[64] = "";
    // The count of changes up to which this watch has been looked at: as long as it stands, there
    // is nothing new.
    std::atomic<std::uint32_t> seen{0};
    std::atomic<bool> changed{false};
    std::string key;
    UniqueHandle event;
};

class Watches {
  public:
    static Watches& Instance();  // never destroyed

    // Null on failure.
    PlacedWatch* Place(const std::string& key, std::int64_t origin);
    void Cancel(const char* name);
    // Whether a change has come since the last look; true once per change. One atomic load of the
    // shared count as long as nothing changes anywhere in the store.
    bool Look(PlacedWatch& watch);
    // This process has changed something: fires the watches that are concerned, then tells the
    // other processes.
    void Announce(const std::vector<std::string>& paths);
    // Called with each path that another process changed ("/": too many to tell). Before the first
    // Place.
    void SetListener(std::function<void(const std::string&)> listener) {
        listener_ = std::move(listener);
    }

  private:
    Watches();
    bool StartWatcher(std::int64_t origin);
    void StopWatcher();
    void WatchStore();
    // Reads what other processes have changed and fires the watches. Whether there was anything.
    bool CatchUp();
    void Fire(const std::string& changed);

    std::mutex mutex_;
    std::vector<std::unique_ptr<PlacedWatch>> watches_;  // guarded by mutex_
    // Ended ones stay, silent: a thread may be about to look at one.
    std::vector<std::unique_ptr<PlacedWatch>> cancelled_;  // guarded by mutex_
    int nextName_ = 0;                                     // guarded by mutex_
    std::mutex readerMutex_;                               // taken before mutex_
    std::unique_ptr<ChangeReader> reader_;                 // guarded by readerMutex_
    std::mutex threadMutex_;  // guards the thread's start and end; taken before the other two
    std::thread thread_;      // guarded by threadMutex_
    std::uint32_t told_ = 0;  // the thread alone: the count at its last look
    std::atomic<bool> stop_{false};
    std::function<void(const std::string&)> listener_;
};

}  // namespace trelis

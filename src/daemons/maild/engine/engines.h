// Inside maild/: all engines that the configuration names. A scan goes to the one that has the
// fewest in hand among those that are up; one that fails, in whatever way, is passed over, and the
// next one is asked within the scan's time.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "daemons/maild/engine/engine.h"

class Engines {
  public:
    // Whether a "clean" of an engine that has shown this counts for the file at hand.
    using Believes = std::function<bool(const EngineProof&)>;

    Engines() = default;
    Engines(const Engines&) = delete;
    Engines& operator=(const Engines&) = delete;
    ~Engines() { Stop(); }

    // Starts a thread for each. Waits for nothing.
    void Start(const std::shared_ptr<const Settings>& settings);
    void Stop();
    // Others begin, and those that aren't named any more end, when these settings say so; what is
    // the same goes on. One thread at a time.
    void Follow(const std::shared_ptr<const Settings>& settings);

    // Scans an open file. What one engine finds counts. Where none comes to an end, the result is
    // of the one that could say most about the message. Any thread.
    ScanResult Scan(int file, Connection::Clock::time_point end, const Believes& believes);

    std::vector<EngineState> States() const;

  private:
    using List = std::vector<std::shared_ptr<Engine>>;

    List All() const;

    mutable std::mutex mutex_;
    List engines_;  // guarded by mutex_, as is:
    List ended_;    // whose threads may still run
};

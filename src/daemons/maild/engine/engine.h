// engine/: clamd, and how far it is believed.
//
// This header: the engine as something that has to prove itself. A thread of its own scans probes
// (probes.h) as soon as it is there, and again when it has been started anew, has loaded other
// signatures, or the settings have changed; what it came to, the proof, says how far a verdict of
// "clean" is worth something.
//
// Whether it is still the same process is told by a session that the thread keeps open for nothing
// else: a new process can't be reached before the old one's end has closed it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "daemons/maild/engine/clamd.h"
#include "daemons/maild/engine/signatures.h"
#include "daemons/maild/settings.h"

// What one process of the engine has shown.
struct EngineProof {
    EngineId id;
    bool findsPattern = false;
    // Bytes up to which a message is read to its end, or refused with a word.
    long long plainBytes = 0;
    // Says so when a message unpacks beyond a limit, whichever.
    bool tellsOfLimits = false;
    std::string silentAt;   // the probe that it called clean
    bool complete = false;  // false: a probe got no answer, it is tried again later
};

class Engine {
  public:
    Engine() = default;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    ~Engine() { Stop(); }

    // Starts the thread. Waits for nothing.
    void Start(std::shared_ptr<const Settings> settings);
    void Stop();
    // Probes anew if these settings name another engine or another size. Any thread.
    void Follow(std::shared_ptr<const Settings> settings);

    // Scans an open file. If the engine has not proven itself yet, waits for that, but not beyond
    // the end. The proof is the one of the process that has scanned; null if none has. Any thread.
    ScanResult Scan(int file, Connection::Clock::time_point end,
                    std::shared_ptr<const EngineProof>& proof);

  private:
    using Clock = Connection::Clock;

    void Work();
    void Look();
    void Attempt();
    void SetProof(std::shared_ptr<const EngineProof> proof);
    ScanResult Prove(EngineProof& proof, const Settings& settings);
    ScanOutcome ProveLimits(EngineProof& proof);
    ScanOutcome ProvePlain(EngineProof& proof, long long size);
    void Report(const EngineProof& proof, const Settings& settings);
    void Tell(const std::string& text, bool good);
    std::shared_ptr<const EngineProof> Await(Clock::time_point end, ScanResult& why);
    bool IsSame(std::uint64_t generation, const Connection& connection);

    std::thread thread_;
    std::atomic<bool> cancel_{false};  // ends a probe that waits for its answer
    std::mutex mutex_;
    std::condition_variable wake_;  // the thread
    std::condition_variable done_;  // those who wait for an attempt
    // All guarded by mutex_:
    std::shared_ptr<const Settings> settings_;
    std::shared_ptr<const EngineProof> proof_;
    std::unique_ptr<Connection> sentry_;  // open while proof_'s process lives
    SignatureWatch signatures_;           // of that process
    std::uint64_t generation_ = 0;        // of the newest attempt
    std::uint64_t attempts_ = 0;          // finished ones
    ScanResult failure_;                  // of the last one that gave no proof
    bool wanted_ = false;
    bool stopping_ = false;
    std::string told_;  // the thread's: what was logged last
};

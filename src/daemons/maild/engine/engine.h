// engine/: clamd, and how far it is believed.
//
// This header: one engine as something that has to prove itself (engines.h: all of them). A thread
// of its own scans probes (probes.h) as soon as it is there, and again when it has been started
// anew, has loaded other signatures, or the settings have changed; what it came to, the proof, says
// how far a verdict of "clean" is worth something.
//
// Whether it is still the same process is told by a session that the thread keeps open for nothing
// else: a new process can't be reached before the old one's end has closed it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "daemons/maild/engine/clamd.h"
#include "daemons/maild/engine/signatures.h"
#include "daemons/maild/settings.h"
#include "scanclient/engines.h"

// What one process of the engine has shown.
struct EngineProof {
    EngineId id;
    bool findsPattern = false;
    static constexpr long long kNoLimit = std::numeric_limits<long long>::max();
    // Bytes up to which a message is read to its end, or refused with a word.
    long long plainBytes = 0;
    // Says so when a message unpacks beyond a limit, whichever.
    bool tellsOfLimits = false;
    std::string silentAt;   // the probe that it called clean
    bool complete = false;  // false: a probe got no answer, it is tried again later

    bool IsBelieved() const { return tellsOfLimits && plainBytes == kNoLimit; }
};

class Engine {
  public:
    // Where it listens says the setting; an empty address is found at each connect. `place`: where
    // it is counted.
    explicit Engine(EngineSetting setting, std::size_t place = 0)
        : setting_(std::move(setting)), place_(place) {}
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    ~Engine() { Stop(); }

    // Starts the thread. Waits for nothing.
    void Start(std::shared_ptr<const Settings> settings);
    void Stop();
    // Begins with a stop: what waits for the engine is ended soon. Waits for nothing.
    void End();
    // Probes anew if these settings name another engine or another size. Any thread.
    void Follow(std::shared_ptr<const Settings> settings);

    // An attempt that will tell whether it is there.
    using Ticket = std::uint64_t;
    // Asks for one, if it isn't known to be there.
    Ticket Want();
    // Waits until it has proven itself, or the ticket's attempt has failed; false: not by the end.
    bool Await(Ticket ticket, Connection::Clock::time_point end);
    // Scans an open file. If the engine has not proven itself yet, waits for that, but not beyond
    // the end; kUnproven then, and the ticket may be used again. The proof is the one of the
    // process that has scanned; null if none has. Any thread.
    ScanResult Scan(int file, Connection::Clock::time_point end,
                    std::shared_ptr<const EngineProof>& proof, Ticket ticket);

    // Whether it has shown that it finds something.
    bool IsUp() const;
    // Scans that it has in hand.
    int Outstanding() const { return outstanding_; }
    // It has failed in a way that the next scan may meet too: others are asked first for a while.
    void Avoid();
    bool IsAvoided() const;
    const EngineSetting& Setting() const { return setting_; }
    std::size_t Place() const { return place_; }
    EngineState State() const;
    // Whether its thread has come to its end.
    bool Ended() const { return ended_; }

  private:
    using Clock = Connection::Clock;

    void Work();
    void Look();
    void Attempt();
    void SetProof(std::shared_ptr<const EngineProof> proof);
    ScanResult Prove(EngineProof& proof, const Settings& settings);
    ScanOutcome ProveLimits(EngineProof& proof);
    ScanOutcome ProvePlain(EngineProof& proof, long long size);
    void Report(const EngineProof& proof, const Settings& settings, const std::string& address);
    void Tell(const std::string& text, bool good);
    std::shared_ptr<const EngineProof> ProofBy(Ticket ticket, Clock::time_point end,
                                               ScanResult& why);
    std::string Where(const Settings& settings) const;
    bool IsSame(std::uint64_t generation, const Connection& connection);

    const EngineSetting setting_;
    const std::size_t place_;
    NameLookup names_{std::chrono::seconds(0)};
    std::atomic<int> outstanding_{0};
    std::atomic<Clock::rep> avoidUntil_{0};
    std::thread thread_;
    std::atomic<bool> ended_{false};
    std::atomic<bool> cancel_{false};  // ends what waits for its answer
    mutable std::mutex mutex_;
    std::condition_variable wake_;  // the thread
    std::condition_variable done_;  // those who wait for an attempt
    // All guarded by mutex_:
    std::shared_ptr<const Settings> settings_;
    std::shared_ptr<const EngineProof> proof_;
    std::unique_ptr<Connection> sentry_;  // open while proof_'s process lives
    SignatureWatch signatures_;           // of that process
    std::uint64_t generation_ = 0;        // of the newest attempt
    std::uint64_t begun_ = 0;             // attempts
    std::uint64_t attempts_ = 0;          // finished ones
    ScanResult failure_;                  // of the last one that gave no proof
    bool wanted_ = false;
    bool stopping_ = false;
    std::string told_;  // the thread's: what was logged last
};

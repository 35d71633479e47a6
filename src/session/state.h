// What a session is at, for those who look on: written by its task, read by any thread, with
// nothing but relaxed atomics. What is read may be of two moments.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

#include "net/address.h"

// Connecting until it has its first reply.
enum class SessionPhase : std::uint8_t { kConnecting, kDialogue, kReceiving, kScanning, kRelaying };
inline constexpr const char* kSessionPhases[] = {"connecting", "dialogue", "receiving", "scanning",
                                                 "relaying"};

class SessionState {
  public:
    SessionPhase Phase() const { return phase_.load(std::memory_order_relaxed); }
    void SetPhase(SessionPhase phase) { phase_.store(phase, std::memory_order_relaxed); }

    // Of messages, as they came from the client.
    std::uint64_t Bytes() const { return bytes_.load(std::memory_order_relaxed); }
    void AddBytes(std::uint64_t count) {
        bytes_.store(Bytes() + count, std::memory_order_relaxed);  // one thread writes
    }

    IpAddress Peer() const {
        std::array<std::uint8_t, 16> bytes{};
        for (std::size_t i = 0; i < peer_.size(); ++i) {
            const std::uint64_t word = peer_[i].load(std::memory_order_relaxed);
            std::memcpy(bytes.data() + i * sizeof word, &word, sizeof word);
        }
        return IpAddress::OfV6(bytes);
    }
    void SetPeer(const IpAddress& peer) {
        for (std::size_t i = 0; i < peer_.size(); ++i) {
            std::uint64_t word = 0;
            std::memcpy(&word, peer.Bytes().data() + i * sizeof word, sizeof word);
            peer_[i].store(word, std::memory_order_relaxed);
        }
    }

    std::chrono::steady_clock::time_point Begun() const { return begun_; }

  private:
    std::atomic<SessionPhase> phase_{SessionPhase::kConnecting};
    std::atomic<std::uint64_t> bytes_{0};
    std::array<std::atomic<std::uint64_t>, 2> peer_{};
    const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

// A phase within another one, which goes on behind it.
class PhaseScope {
  public:
    PhaseScope(SessionState& state, SessionPhase phase) : state_(state), before_(state.Phase()) {
        state.SetPhase(phase);
    }
    PhaseScope(const PhaseScope&) = delete;
    PhaseScope& operator=(const PhaseScope&) = delete;
    ~PhaseScope() { state_.SetPhase(before_); }

  private:
    SessionState& state_;
    const SessionPhase before_;
};

// One session as it is shown.
struct SessionView {
    std::string id;
    std::string peer;
    std::string interface;
    SessionPhase phase = SessionPhase::kConnecting;
    std::chrono::milliseconds age{};
    std::uint64_t bytes = 0;
};

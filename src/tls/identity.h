// tls/: TLS for a Stream, on OpenSSL: whose certificate a server shows (identity.h), by what a
// client judges it (trust.h), and the handshake that turns a bare connection into a Transport
// (handshake.h). Any thread, but one connection is one thread's at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/file.h"

// The library's settings for one side, ready for handshakes; shared by all that run.
class TlsContext;
class TlsTicketKeys;

// What a server shows to its clients, by the files that are there.
struct TlsIdentitySettings {
    std::string certificate;  // PEM file, the chain behind the certificate
    std::string key;          // PEM file; empty: the certificate's
    std::string minVersion;   // "1.2" or "1.3"
    // Names of TLS 1.3's and of older ones alike, as the library writes lists; a kind that none of
    // them is of has the library's.
    std::string ciphers;
    bool operator==(const TlsIdentitySettings&) const = default;
};

class TlsIdentity {
  public:
    // Session tickets are sealed with keys of this identity's, which live as long as it does and
    // change by the clock: each for an hour, and what it sealed can be opened an hour longer.
    explicit TlsIdentity(std::function<std::chrono::steady_clock::time_point()> ticketClock =
                             std::chrono::steady_clock::now);
    TlsIdentity(const TlsIdentity&) = delete;
    TlsIdentity& operator=(const TlsIdentity&) = delete;

    // The next Context goes by these settings, and keeps what it has until they have proved good.
    void Configure(const TlsIdentitySettings& settings);
    // For the next handshake. Files that have changed are read anew; those that can't be used are
    // refused, and what was there before stays. Null: there has been nothing usable yet. complaint:
    // why something was refused, once for each state of files and settings; else empty. A
    // certificate that has expired is shown all the same, for that is what its owner asked for, but
    // there is a complaint once.
    std::shared_ptr<const TlsContext> Context(std::string& complaint);

  private:
    // What was tried last.
    struct Attempt {
        TlsIdentitySettings settings;
        std::optional<platform::FileState> certificate;
        std::optional<platform::FileState> key;
        bool operator==(const Attempt&) const = default;
    };

    const std::shared_ptr<TlsTicketKeys> tickets_;
    std::mutex mutex_;  // of all below
    TlsIdentitySettings settings_;
    std::optional<Attempt> tried_;
    std::shared_ptr<const TlsContext> context_;
    std::string shown_;  // the certificate's file that context_ has been read from
    bool expiryTold_ = false;
};

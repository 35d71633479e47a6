// tls/: TLS for a Stream, on OpenSSL: whose certificate a server shows (identity.h), by what a
// client judges it (trust.h), and the handshake that turns a bare connection into a Transport
// (handshake.h). Any thread, but one connection is one thread's at a time.
#pragma once

#include <memory>
#include <mutex>
#include <string>

// The library's settings for one side, ready for handshakes; shared by all that run.
class TlsContext;

// What a server shows to its clients, by the files that are there.
struct TlsIdentitySettings {
    std::string certificate;  // PEM file, the chain behind the certificate
    std::string key;          // PEM file; empty: the certificate's
    std::string minVersion;   // "1.2" or "1.3"
    std::string ciphers;      // empty: the library's; names of TLS 1.3's and of older ones alike
    bool operator==(const TlsIdentitySettings&) const = default;
};

class TlsIdentity {
  public:
    // The next Context goes by these settings, and keeps what it has until they have proved good.
    void Configure(const TlsIdentitySettings& settings);
    // For the next handshake. Files that have changed are read anew; those that can't be used are
    // refused, and what was there before stays. Null: there has been nothing usable yet. complaint:
    // why something was refused, once for each state of files and settings; else empty.
    std::shared_ptr<const TlsContext> Context(std::string& complaint);
};

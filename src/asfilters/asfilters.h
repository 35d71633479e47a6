// asfilters/: the anti-spam pre-filters that judge peers, senders and recipients on the session's
// own thread, before any message is stored.
//
// Callers take the one instance with GetASFilters or ShareASFilters and go on unfiltered when it is
// null. A check only judges; what follows from its result is the session's business.
//
// Each filter follows its own part of the configuration by itself: a check that comes after a
// change already judges by the new one. Nothing that is configured can make a check fail.
#pragma once

#include <memory>

namespace asfilters {

// All checks may run on any thread at once.
class CASFilters {
  public:
    CASFilters() = default;
    CASFilters(const CASFilters&) = delete;
    CASFilters& operator=(const CASFilters&) = delete;
    virtual ~CASFilters() = default;

    // Loads the configuration. 0, or -1 if the store can't be opened: then nothing was loaded.
    virtual int Reload() = 0;
    // peer: the text of an address, IPv4 or IPv6. 0 pass, 2 denied, 3 filter off.
    virtual int CheckIP(const char* peer) = 0;
    // sender is lower-cased in place, unless the filter is off. -1 no sender, 0 pass, 1 refused, 2
    // drop the connection, 3 filter off. With 1 and 2 denyText (denySize bytes) holds the reply,
    // line end included; it is empty if none is to be sent or denySize is below 6.
    virtual int CheckSender(char* sender, char* denyText, unsigned denySize) = 0;
    // recipient: the address of a refused RCPT; domain: one mail domain. -1 not this domain, 2
    // guard applied, 3 filter off. With 2 the caller has been held for the configured
    // delay, and denyText is as above. The instance may be gone by the end of the delay.
    virtual int CheckRecipient(const char* recipient, const char* domain, char* denyText,
                               unsigned denySize) = 0;
};

}  // namespace asfilters

// Makes the one instance, all its filters off until Reload. 0 (also if it exists), or -1.
int CreateASFilters();
// The instance, or null: then nothing is filtered. For those who know that it stays, like the host.
asfilters::CASFilters* GetASFilters();
// The same for a session, which a stop of the service doesn't wait for: keeps the instance alive.
std::shared_ptr<asfilters::CASFilters> ShareASFilters();
// Deletes the instance, or leaves that to the last session that shares it. Always 0.
int DestroyASFilters();

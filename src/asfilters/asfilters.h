// asfilters/: the anti-spam pre-filters that judge peers, senders and recipients on the session's
// own thread.
//
// Callers take the one instance with GetASFilters and go on unfiltered when it is null.
#pragma once

namespace asfilters {

// All checks may run on any thread at once.
class CASFilters {
  public:
    CASFilters() = default;
    CASFilters(const CASFilters&) = delete;
    CASFilters& operator=(const CASFilters&) = delete;
    virtual ~CASFilters() = default;

    // Loads the configuration. 0, or -1 if the store can't be opened.
    virtual int Reload() = 0;
    // peer: dotted IPv4 text. 0 pass, 2 denied, 3 filter off.
    virtual int CheckIP(const char* peer) = 0;
    // sender is lower-cased in place. -1 no sender, 0 pass, 1 refused, 2 drop the connection, 3
    // filter off. With 1 and 2 denyText (denySize bytes) holds the reply, which may be empty.
    virtual int CheckSender(char* sender, char* denyText, unsigned denySize) = 0;
    // -1 not this domain, 2 guard applied (the delay has been served), 3 filter off.
    virtual int CheckRecipient(const char* recipient, const char* domain, char* denyText,
                               unsigned denySize) = 0;
};

}  // namespace asfilters

// Makes the one instance. 0 (also if it exists), or -1.
int CreateASFilters();
// The instance, or null: then nothing is filtered.
asfilters::CASFilters* GetASFilters();
int DestroyASFilters();

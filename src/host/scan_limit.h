// How large a message the scan daemon takes: the limit of an interface that has none of its own. A
// larger one would be put off for ever.
#pragma once

#include "trelis/trelis.h"

class ScanLimit {
  public:
    ScanLimit() = default;
    ScanLimit(const ScanLimit&) = delete;
    ScanLimit& operator=(const ScanLimit&) = delete;
    ~ScanLimit() { Unwatch(); }

    // Once the store is open. Run's thread, as all here.
    void Watch();
    void Unwatch();
    // In bytes, as the daemon last told or is configured; 0: none is known. Follows changes.
    long long Current();

  private:
    TrelisNotify watch_ = nullptr;
    long long limit_ = 0;
};

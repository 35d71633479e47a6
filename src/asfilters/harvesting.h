// Inside asfilters/: the directory harvesting guard, which makes it slow to find out by trial which
// addresses exist. It counts nothing and remembers nobody: each unknown recipient costs the same
// delay.
#pragma once

#include <string>

#include "asfilters/followed.h"

class CDirectoryHarvesting {
  public:
    // Always 0.
    int Load();
    // As CASFilters::CheckRecipient. A recipient without '@' belongs to any domain.
    int CheckRecipient(const char* recipient, const char* domain, char* denyText,
                       unsigned denySize);

  private:
    struct Set {
        std::string denyText;  // without line end
        bool sendDenyMessage = false;
        int responseTimeout = 0;  // seconds, at least 1

        static Set Read();
    };

    asfilters::Followed<Set> configuration_{"/VTWIN/Filters/AS/DirectoryHarvesting"};
};

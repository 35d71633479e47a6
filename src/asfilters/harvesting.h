// Inside asfilters/: the directory harvesting guard, which makes it slow to find out by trial which
// addresses exist. It counts nothing and remembers nobody: each unknown recipient costs the same
// delay.
#pragma once

#include <memory>
#include <string>

#include "trelis/keys/followed.h"
#include "trelis/keys/rows.h"

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

        static std::shared_ptr<const Set> Read();  // null: the filter is off
    };

    trelis::Followed<Set> configuration_{trelis::kHarvestingKey, &Set::Read,
                                         trelis::Followed<Set>::Begin::kNow};
};

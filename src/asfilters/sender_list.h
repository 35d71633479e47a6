// Inside asfilters/: the sender blacklist: wildcard patterns, walked one by one, and plain
// addresses, found by hash.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "asfilters/users.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/rows.h"

class CSenderBlackList {
  public:
    // Always 0.
    int Load();
    // As CASFilters::CheckSender.
    int CheckSender(char* sender, char* denyText, unsigned denySize);

  private:
    struct Set {
        asfilters::UserTable users;
        std::vector<std::string> wildcards;  // in the store's order and case
        std::string denyText;                // without line end
        bool sendDenyMessage = false;
        bool dropConnection = false;

        static std::shared_ptr<const Set> Read();  // null: the filter is off
        bool Lists(const char* lowerCaseSender) const;
    };

    trelis::Followed<Set> configuration_{trelis::kBlackListKey, &Set::Read,
                                         trelis::Followed<Set>::Begin::kNow};
};

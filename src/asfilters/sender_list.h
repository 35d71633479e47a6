// Inside asfilters/: the sender blacklist: wildcard patterns, walked one by one, and plain
// addresses, found by hash.
#pragma once

#include <string>
#include <vector>

#include "asfilters/followed.h"
#include "asfilters/users.h"

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

        static Set Read();
        bool Lists(const char* lowerCaseSender) const;
    };

    asfilters::Followed<Set> configuration_{"/VTWIN/Filters/AS/SenderBlackList"};
};

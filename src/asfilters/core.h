// Inside asfilters/: the instance behind CASFilters. It adds nothing to a judgement.
#pragma once

#include "asfilters/asfilters.h"
#include "asfilters/harvesting.h"
#include "asfilters/ip_list.h"
#include "asfilters/sender_list.h"

class CASFiltersCore final : public asfilters::CASFilters {
  public:
    int Reload() override;
    int CheckIP(const char* peer) override { return ipList_.CheckIP(peer); }
    int CheckSender(char* sender, char* denyText, unsigned denySize) override {
        return senderList_.CheckSender(sender, denyText, denySize);
    }
    int CheckRecipient(const char* recipient, const char* domain, char* denyText,
                       unsigned denySize) override {
        return harvesting_.CheckRecipient(recipient, domain, denyText, denySize);
    }

  private:
    CAllowDenyIPList ipList_;
    CSenderBlackList senderList_;
    CDirectoryHarvesting harvesting_;
};

// Inside antispam/: the section of one message, and what is known of who is asked.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "daemons/maild/antispam/opinion.h"
#include "daemons/maild/antispam/patience.h"
#include "daemons/maild/antispam/settings.h"
#include "daemons/maild/engine/address.h"
#include "daemons/maild/forms/forms.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

// A message as the proxy tells of it.
struct SpamSubject {
    std::string path;  // of the file
    Transfer transfer = Transfer::kUnknown;
    std::optional<std::string> sender;
    std::string recipients;  // joined by ';'
    std::string peer;
    std::string helo;
    std::chrono::steady_clock::time_point end;  // of the scan's time
};

class Antispam {
  public:
    Antispam() = default;
    Antispam(const Antispam&) = delete;
    Antispam& operator=(const Antispam&) = delete;

    // Adds a finding, if anybody is to be asked: not of a message that these findings keep from its
    // recipients for good, or in which malware was found. Any thread.
    void Look(const SpamSettings& settings, const SpamSubject& subject,
              std::vector<Finding>& findings);

  private:
    SpamOpinion Ask(const SpamSettings& settings, const SpamSubject& subject);
    SpamOpinion AskAt(const ServiceAddress& address, bool spamd, const SpamQuestion& question,
                      std::chrono::steady_clock::time_point end);
    void Tell(const SpamSettings& settings, const SpamOpinion& opinion);

    Patience patience_;
    // As long as addresses behind a name usually stay.
    NameLookup names_{std::chrono::seconds(60)};
    std::mutex mutex_;
    std::string told_;  // what was logged last; guarded by mutex_
};

}  // namespace maild

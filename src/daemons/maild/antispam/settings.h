// Inside antispam/: what the configuration says of it.
#pragma once

#include <optional>
#include <string>

namespace maild {

struct SpamSettings {
    std::string address;  // empty: nobody is asked
    // Nothing: the engine's own word counts.
    std::optional<double> tagScore;
    std::optional<double> quarantineScore;
    std::optional<double> rejectScore;
    std::string unread;  // names of scores that are no numbers, and so count as not set
    std::string subjectPrefix;
    int seconds = 20;  // for one message, within what its scan has left
    bool putOffWhenDown = false;
};

// Of the store, as it is now. A score that is no number is none; an unknown word for WhenDown puts
// off. Any thread.
SpamSettings LoadSpamSettings();

}  // namespace maild

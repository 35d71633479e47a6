// The system's log: syslog for events; for the lines of sessions and messages systemd's journal
// instead, where there is one, which keeps their fields apart.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logclient/line.h"
#include "platform/descriptor.h"

inline constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// Begun once, before any thread; the rest any thread.
class SystemLog {
  public:
    void Open(const char* journalSocket = kJournalSocket);
    // What the level of a class asks for: low, a line in the file; medium, the system's log
    // besides, as information; high, there as something to look at. word: the event's.
    void Tell(std::uint32_t word, const std::string& text) const;
    // The reader stands in front of the line's fields. Never waits for the journal; what that
    // doesn't take goes to syslog.
    void TellLine(std::uint32_t word, const std::string& text, LogLineReader reader) const;

  private:
    bool TellJournal(int priority, const std::string& text, LogLineReader& reader) const;

    bool syslog_ = false;
    std::string journalPath_;
    platform::UniqueDescriptor journal_;
};

// The datagram that the journal takes for a line.
std::string JournalFields(int priority, std::string_view text, LogLineReader& reader);

// The quarantine of this instance, as programs use it.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "daemons/maild/coding/source.h"
#include "daemons/quarantine/index.h"
#include "daemons/quarantine/kept.h"
#include "platform/file.h"

namespace quarantine {

struct Limits {
    int keepDays = 30;            // 0: for ever
    long long maxSize = 1 << 30;  // bytes of all messages
};

// Any thread. Where something fails, `complaint` says why: one line for a person.
class Quarantine {
  public:
    // Below the instance's directory. Nothing is made before the first message is kept.
    Quarantine();

    // Keeps a stored message, which is copied as its reader has it. `message` says what is known;
    // id, time, subject and size are found here. The id, once all of it is on the disk; nothing: it
    // is not kept, and nothing is left of it. What has to make room for it goes; a message larger
    // than all the room is not kept.
    std::optional<std::string> Keep(int file, maild::Dots dots, KeptMessage message,
                                    const Limits& limits, std::string& complaint);

    // What of the index fits; nothing on a failure. There is no quarantine yet: none.
    std::optional<std::vector<KeptMessage>> List(const Filter& filter, std::string& complaint);
    // Nothing if there is no such message, too.
    std::optional<KeptMessage> Find(const std::string& id, std::string& complaint);
    platform::File Open(const std::string& id) const;
    // False if there was none, or it can't be done.
    bool Delete(const std::string& id, std::string& complaint);

    // A release, by whoever holds its claim: the file stays locked as long as that is there. The
    // state is `releasing` then. With `again`, also of one whose release was cut off, or is over.
    platform::File Claim(const std::string& id, bool again, std::string& complaint);
    // How it ended: the server has taken it, or has not.
    bool EndRelease(const std::string& id, bool released, std::string& complaint);

    // Takes in pairs that the index doesn't know, if they are as old as that in seconds: leavings
    // of a crash. Removes halves. Then removes what is older than the days, and what is beyond the
    // size. The count of messages removed; nothing on a failure.
    std::optional<int> TidyUp(const Limits& limits, int leavingSeconds, std::string& complaint);
    // As the last step alone; days 0: all of them.
    std::optional<int> Expire(int days, std::string& complaint);

  private:
    bool OpenIndex(bool make, std::string& complaint);
    bool MakeRoom(long long wanted, const Limits& limits, std::vector<std::string>& gone,
                  std::string& complaint);
    bool Store(const KeptMessage& message, const Limits& limits, std::string& complaint);
    bool RemoveEntry(const std::string& id, std::string& complaint);
    void RemoveFiles(const std::string& id) const;
    void TakeLeavings(int leavingSeconds);
    std::string PathOf(const std::string& id, const char* ending) const;
    std::string MetaPath(const std::string& id) const { return PathOf(id, ".meta"); }
    std::string MessagePath(const std::string& id) const { return PathOf(id, ".eml"); }

    const std::string directory_;
    std::mutex mutex_;
    Index index_;                    // guarded by mutex_, as the next one
    std::uint64_t indexNumber_ = 0;  // of its file
};

}  // namespace quarantine

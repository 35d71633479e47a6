// The quarantine of this instance, as programs use it.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
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

    // Small ones take more of a disk than their bytes.
    long long MostMessages() const { return std::max(kFewest, maxSize / kUsualBlock); }

  private:
    static constexpr long long kFewest = 10'000;
    static constexpr long long kUsualBlock = 4096;
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
    // False if there was none, or somebody releases it now, or it can't be done.
    bool Delete(const std::string& id, std::string& complaint);

    // A release, by whoever holds its claim: the file stays locked as long as that is there. The
    // state is `releasing` then. With `again`, also of one whose release was cut off, or is over;
    // `spent`: nothing but that stands in its way.
    platform::File Claim(const std::string& id, bool again, std::string& complaint,
                         bool* spent = nullptr);
    // How it ended: the server has taken it, or has not.
    bool EndRelease(const std::string& id, bool released, std::string& complaint);

    // Who hears of each message that made room for another one. Before any other call.
    using Gone = std::function<void(const KeptMessage&)>;
    void TellOfPushedOut(Gone tell) { tell_ = std::move(tell); }
    // Nothing on a failure.
    std::optional<Numbers> Count(std::string& complaint);

    // Takes in pairs that the index doesn't know, if they are as old as that in seconds: leavings
    // of a crash. Removes halves, but nothing that somebody may count on: the complaint is about
    // such ones. Then removes what is older than the days, and what is beyond the size. The count
    // of messages removed; nothing on a failure.
    std::optional<int> TidyUp(const Limits& limits, int leavingSeconds, std::string& complaint);
    // Whatever tidies up ends soon, with what it has done. For good; any thread.
    void EndTidying() { ending_ = true; }
    // As the last step but one alone; days 0: all of them, but for what somebody releases
    // now.
    std::optional<int> Expire(int days, std::string& complaint);

  private:
    bool OpenIndex(bool make, std::string& complaint);
    // What there is too much of.
    struct Excess {
        long long room = 0;
        long long messages = 0;
        bool Any() const { return room > 0 || messages > 0; }
    };
    // Inside a transaction: the oldest ones of a state go, as long as there is too much and `more`
    // says so.
    bool Push(const char* state, const std::string& source, Excess& excess,
              const std::function<bool(const KeptMessage&)>& more, std::vector<KeptMessage>& gone);
    bool PushShares(const Limits& limits, Excess& excess, std::size_t most,
                    std::vector<KeptMessage>& gone);
    bool MakeRoom(const KeptMessage* next, const Limits& limits, std::size_t most,
                  std::vector<KeptMessage>& gone);
    // Room for the next one, if there is one, and itself in the index. Up to `most` go for it.
    bool Admit(const KeptMessage* next, const Limits& limits, std::size_t most,
               std::vector<KeptMessage>& gone, std::string& complaint);
    void NoteState(const std::string& id);
    bool IsBeingReleased(const std::string& id) const;
    bool RemoveEntry(const std::string& id, std::string& complaint);
    void RemoveFiles(const std::string& id) const;
    void Tell(const std::vector<KeptMessage>& gone) const;
    std::vector<std::string> UnknownIds(std::string& complaint);
    bool TakeLeavings(std::span<const std::string> ids, int leavingSeconds, std::string& complaint);
    bool TakeLeaving(const std::string& id, int leavingSeconds, std::string& complaint);
    // Up to a number of them; nothing on a failure.
    std::optional<int> ExpireSome(std::int64_t before, std::string& complaint);
    std::string PathOf(const std::string& id, const char* ending) const;
    std::string MetaPath(const std::string& id) const { return PathOf(id, ".meta"); }
    std::string MessagePath(const std::string& id) const { return PathOf(id, ".eml"); }

    const std::string directory_;
    Gone tell_;
    std::atomic<bool> ending_{false};
    std::mutex mutex_;
    Index index_;                    // guarded by mutex_, as the next one
    std::uint64_t indexNumber_ = 0;  // of its file
};

}  // namespace quarantine

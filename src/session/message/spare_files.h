// Files of messages that are over, for the next ones. To make a file and to remove it costs some
// file systems more than all the rest of a small message, and so does to empty it and to fill it:
// one that is small keeps its size, with zeros in the place of the message.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/file.h"

struct SpareFile {
    platform::File file;
    std::string path;
    int group = -1;            // which may read it
    std::uint64_t number = 0;  // the file's own, by which it is known under another name
};

// Any thread.
class SpareFiles {
  public:
    static SpareFiles& Instance();
    // A file, open for reading and for writing at its end, with nothing of a message in it; the
    // caller gives it a second name, by which the message is known, and sees that this has become
    // its. Without a file: there is none, and none can be made.
    SpareFile Take(int group);
    // A file whose other name is gone. It is used again only if nobody else has it, neither by a
    // name nor open: whoever still reads the message before must not find another in its place.
    // `sent`: its bytes may have gone out from it, and the network still has to look at them there:
    // it is emptied then, not written over.
    void Give(SpareFile spare, bool sent);
    // Takes the name of a file away that is not to be used again.
    void Drop(const SpareFile& spare);
    // A message has a file of this number that is none of these, open as long as it does; and no
    // longer. False: another one has it.
    bool Enter(std::uint64_t number);
    // stays: somebody has it under a name of his own.
    void Leave(std::uint64_t number, bool stays);
    // Whether the file of this number holds another message than the one that asks, whose file it
    // isn't, or none: one in hand, one that waits here, or one of the last that somebody has kept.
    bool IsAnothers(std::uint64_t number);

  private:
    SpareFiles();
    SpareFile TakeKept(int group);
    SpareFile Make(int group);

    std::mutex mutex_;
    std::vector<SpareFile> open_;      // guarded by mutex_, as all below; these are used first
    std::vector<SpareFile> closed_;    // the rest
    unsigned long long lastName_ = 0;  // the files are numbered
    std::unordered_set<std::uint64_t> inHand_;  // numbers, as the next
    std::array<std::uint64_t, 256> dropped_{};  // the last that were in hand and not given
    std::size_t nextDropped_ = 0;
    bool useless_ = false;  // here it can't be known who has a file
};

// Removes what an earlier process left. Before any session.
void CleanSpareFiles();

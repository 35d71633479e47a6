// Empty files of messages that are over, for the next ones. To make a file and to remove it costs
// some file systems more than all the rest of a small message.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/file.h"

struct SpareFile {
    platform::File file;
    std::string path;
    int group = -1;  // which may read it
};

// Any thread.
class SpareFiles {
  public:
    static SpareFiles& Instance();
    // An empty file, open for reading and for writing at its end; the caller gives it a second
    // name, by which the message is known, and sees that this has become its. Without a file: there
    // is none, and none can be made.
    SpareFile Take(int group);
    // A file whose other name is gone. It is used again only if nobody else has it, neither by a
    // name nor open: whoever still reads the message before must not find another in its place.
    void Give(SpareFile spare);
    // Takes the name of a file away that is not to be used again.
    static void Drop(const SpareFile& spare);

  private:
    SpareFiles();
    SpareFile Make(int group);

    std::mutex mutex_;
    std::vector<SpareFile> open_;      // guarded by mutex_, as all below; these are used first
    std::vector<SpareFile> closed_;    // the rest
    unsigned long long lastName_ = 0;  // the files are numbered
    bool useless_ = false;             // here it can't be known who has a file
};

// Removes what an earlier process left. Before any session.
void CleanSpareFiles();

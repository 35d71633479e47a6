// Inside coding/: a temporary file without a name for decoded bytes. Small ones are in memory,
// larger ones in the instance's directory for temporary files.
#pragma once

#include <string>
#include <string_view>

#include "platform/file.h"

namespace maild {

class Scratch {
  public:
    // False if it can't be written; then it stays so.
    bool Write(std::string_view bytes);
    // Its descriptor, at the start; -1 if something failed. An empty one has a file, too.
    int Rewind();
    long long Size() const { return size_; }

  private:
    bool Flush();
    bool MoveToDisk(long long size);

    std::string buffer_;  // what comes behind the file's bytes
    platform::File file_;
    long long size_ = 0;
    bool onDisk_ = false;
    bool failed_ = false;
};

}  // namespace maild

// The log's file, which looks after its own size: vtlogd.log, then .1 the newest of the older ones,
// to .4.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/descriptor.h"

// One thread at a time.
class LogFile {
  public:
    // False: it can't be opened.
    bool Open(std::string path, off_t maxSize);
    // Lines with their ends. One that can't be written goes to standard error.
    void Write(std::string_view lines);

  private:
    bool Reopen();
    void Rotate();
    void WriteAll(std::string_view bytes);

    std::string path_;
    off_t maxSize_ = 0;
    platform::UniqueDescriptor file_;
};

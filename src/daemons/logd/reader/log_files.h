// The files of the log: vtlogd.log and the older ones beside it, .1 the newest of these, to .4.
// Read line by line in memory that doesn't follow their size.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "platform/file.h"

// One open file of them.
class LogReader {
  public:
    // A longer line is passed over.
    static constexpr std::size_t kLongestLine = 1 << 20;

    // Not open if it can't be read.
    static LogReader Open(const std::string& path);
    explicit operator bool() const { return static_cast<bool>(file_); }
    // Which file it is, whatever its name has become.
    std::uint64_t Number() const { return number_; }

    // The next whole line, without its end; the view holds until the next call. False: there is
    // none yet; what there is of it is kept for a later call.
    bool Next(std::string_view& line);
    void SkipToEnd();
    // Has become shorter than what has been read of it: it is another log now.
    bool Shrunk() const { return file_.Size() < position_; }

  private:
    bool Fill();

    platform::File file_;
    std::uint64_t number_ = 0;
    long long position_ = 0;
    std::string buffer_;
    std::size_t at_ = 0;      // everything in front of it has been given out
    std::size_t looked_ = 0;  // no line end between at_ and it
    bool skipping_ = false;   // the rest of a line that was too long
};

class LogFiles {
  public:
    // Of the instance, or of another directory.
    explicit LogFiles(std::string path) : path_(std::move(path)) {}

    // All that there are, the oldest first; each once, though they may be renamed meanwhile. Empty:
    // there are none, or one of them can't be read.
    std::deque<LogReader> OpenAll() const;
    LogReader OpenNewest() const { return LogReader::Open(Name(0)); }
    // The file behind this one, from its beginning. Not open if there is none yet.
    LogReader OpenNext(const LogReader& last) const;

  private:
    std::string Name(int number) const;

    const std::string path_;
};

// Inside coding/: a stored message line by line, as its receiver has it: without the dots that were
// put in front for the way.
#pragma once

#include <string_view>
#include <vector>

#include "daemons/maild/coding/source.h"

namespace maild {

// A line, or a piece of one that is longer than a block. A line feed ends it.
struct Line {
    std::string_view text;  // with its end, until the next call
    Range range;            // its octets in the file
    bool begins = false;    // it starts here
    bool ends = false;      // it ends here; false also of a last line without an end

    // Without the line end.
    std::string_view Content() const { return text.substr(0, text.size() - EndLength()); }
    std::size_t EndLength() const {
        if (!ends) return 0;
        return text.size() > 1 && text[text.size() - 2] == '\r' ? 2 : 1;
    }
};

class LineReader {
  public:
    // Reads the range of the file by position.
    LineReader(int file, Dots dots, Range range);

    // False at the end, or if the file can't be read.
    bool Next(Line& line);
    bool Failed() const { return failed_; }

  private:
    bool Fill();

    const int file_;
    const Dots dots_;
    long long at_;         // of the file, behind what the buffer holds
    const long long end_;  // of the range
    std::vector<char> buffer_;
    std::size_t from_ = 0;  // what of the buffer has not been given out
    std::size_t to_ = 0;
    bool atStart_ = true;     // a line begins here
    bool behindCrLf_ = true;  // and CR LF, or nothing, stands before it
    bool done_ = false;
    bool failed_ = false;
};

}  // namespace maild

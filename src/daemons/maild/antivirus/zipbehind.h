// Inside antivirus/: zips in a file that isn't one from its first byte to its last. Readers of zips
// begin at the end, some at the front, and find one behind other bytes or behind another zip; the
// engine goes by the file's first bytes, and reads one zip of those that are there.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/coding/scratch.h"

namespace maild {

class ZipBehind {
  public:
    // The file's bytes as they come. False if they can't be kept.
    bool Write(std::string_view bytes);
    // Behind the last byte: puts what a reader may take for the zip, but not the whole file.
    void Finish(Questions& questions, const std::string& place);

  private:
    // What the end of a directory says: the zip's first byte, and the one behind its last.
    struct Zip {
        long long begin = 0;  // in front of the first file's header there may be anything
        long long end = 0;
        bool toEnd = false;  // by its comment's length
    };

    // Whether there can't be the beginning of a zip in the next bytes, nor in those before them;
    // then that is all there is to do.
    bool HoldsNone(std::string_view bytes);
    void FindEnds(long long from);
    std::vector<Zip> Zips(int file) const;
    std::vector<Zip> Readable(std::vector<Zip> zips) const;
    void Put(int file, const Zip& zip, Questions& questions, const std::string& place) const;

    std::string joined_;          // the last bytes, in which a mark may have begun
    long long size_ = 0;          // of all that has come
    long long begin_ = 0;         // of what is kept
    std::deque<long long> ends_;  // of directories: where their marks are
    long long firstEnd_ = -1;
    std::unique_ptr<Scratch> zip_;  // from the first file's header on
};

}  // namespace maild

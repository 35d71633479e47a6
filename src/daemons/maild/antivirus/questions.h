// antivirus/: what the engine is asked about besides the message as a whole. The engine takes
// messages apart itself, and nearly always as all others do; where it could see something else, or
// looks at nothing, what a reader may make of the part is a file of its own for it.
//
// This header: the questions, and what they came to.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/engine/outcome.h"

namespace maild {

// Asks about one file after the other; equal ones once. One thread at a time.
class Questions {
  public:
    using Ask = std::function<ScanResult(int file, long long size)>;

    // `size`: of the message; what it may be taken apart to is measured by it.
    Questions(Ask ask, long long size) : ask_(std::move(ask)), size_(size) {}
    Questions(const Questions&) = delete;
    Questions& operator=(const Questions&) = delete;

    // Asks about the file. An empty one is clean.
    void Put(Scratch& file, const std::string& place) { PutFile(file, place, file.Size()); }
    // The same of what was unpacked: who did so has bounds for it.
    void PutUnpacked(Scratch& file, const std::string& place) { PutFile(file, place, 0); }
    // A file that could not be made.
    void Fail();
    // False once more questions lead nowhere: something was found, the engine is away, or there
    // were too many.
    bool Going() const { return going_; }
    // Infected if any file is; else why one could not be scanned; else clean.
    const ScanResult& Result() const { return result_; }
    // The part that is infected.
    const std::string& Place() const { return place_; }
    // Whether there were more than are asked.
    bool TooMany() const { return tooMany_; }
    int Count() const { return count_; }
    // There are more.
    void Stop();

  private:
    // `counts`: so many bytes of what the message may be taken apart to.
    void PutFile(Scratch& file, const std::string& place, long long counts);

    const Ask ask_;
    const long long size_;
    std::set<std::string> asked_;  // checksums
    ScanResult result_{ScanOutcome::kClean, ""};
    std::string place_;
    long long bytes_ = 0;
    int count_ = 0;
    int files_ = 0;
    bool going_ = true;
    bool tooMany_ = false;
};

// By which the engine knows a message; what begins with any other header it may take for bytes.
inline constexpr char kMessageStart[] = "Received: from spool\r\n";

}  // namespace maild

// message/: a message from its first byte to the server: reception, spool file, scan, relay.
//
// This header: the reception into its spool file, in the form in which it comes: with the dots that
// a client puts in front of dots after DATA, as plain bytes in chunks.
#pragma once

#include <chrono>
#include <string_view>

#include "session/message/data_scanner.h"
#include "session/message/newlines.h"
#include "session/message/spool_file.h"
#include "session/peers.h"

inline constexpr std::string_view kMessageTooLarge =
    "552 5.3.4 Message size exceeds fixed limit\r\n";

// What became of a message, or of a chunk.
enum class Received {
    kWhole,     // it is in the file, which is closed
    kTooLarge,  // all of it has been read; the file is gone, and the client waits for its answer
    kFailed     // the session ends; the file is gone, and the client has had what answer it gets
};

// One BDAT command.
struct Chunk {
    bool first = false;   // of its message
    bool last = false;    // of its message
    bool binary = false;  // the message is no text: its bytes stay what they are
    long long size = 0;   // bytes
};

class Reception {
  public:
    Reception(Peers& peers, SpoolFile& spool) : peers_(peers), spool_(spool) {}

    // From the 354 to the end of the message.
    Received ReceiveData();
    // The bytes behind the command.
    Received ReceiveChunk(const Chunk& chunk);

  private:
    // Why the message in hand can't be stored any more; the rest of it is only read.
    enum class Refusal { kNone, kDiskFull, kTooLarge, kBareNewline };

    void Begin();
    bool Ended(const DataScanner& scanner, bool moreMayBeThere);
    void Store(std::string_view bytes);
    void StoreLines(std::string_view bytes, bool atEnd);
    void Refuse(Refusal refusal);
    bool DrainedEnough() const;
    // The next bytes of the message: the count, or below 1.
    int Read(char* block, int size, std::chrono::milliseconds limit);
    bool IntervalOver() const;
    void NoteReceived();
    Received Finish();
    Received Abandon();
    Received AnswerAndEnd();

    Peers& peers_;
    SpoolFile& spool_;
    Refusal refusal_ = Refusal::kNone;
    NewlineFilter newlines_{BareNewline::kAccept};  // of the message in hand
    std::string lines_;                             // what has passed it
    std::chrono::steady_clock::time_point lastKeepAlive_;
    Deadline drainUntil_{0U};
    long long drained_ = 0;
};

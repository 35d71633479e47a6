// Where a message ends in what a client sends after DATA, and what of it could end it too soon for
// somebody else.
//
// Servers differ in what they take for the end of a line: CR LF, any run of CR before a LF, a bare
// LF, a bare CR; some drop zero bytes, and find a line end behind them. A line of one dot between
// any two of these ends the message for one of them, and what follows would be commands to it, a
// message among them that nobody has scanned. So each such dot that isn't the end here is doubled,
// as a client does with a dot at the start of a line.
//
// The result doesn't depend on where the reads cut the stream, but for one rule: without an offer
// of PIPELINING the end counts only with nothing behind it in the same read.
//
// Where bare line ends don't count (newlines.h makes CR LF of them, or ends the session), a dot
// between them never ends the message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class DataScanner {
  public:
    enum class End {
        kNone,
        kNow,       // CR LF, dot, CR LF, or a message of that last line alone
        kIfSilent,  // the dot stands between bare line feeds: the end only if nothing more comes
    };

    // pipelining: the end counts wherever it stands, and what is behind it isn't the message's.
    // strict: CR LF, dot, CR LF alone is the end.
    explicit DataScanner(bool pipelining, bool strict = false)
        : pipelining_(pipelining), strict_(strict) {}

    // Takes the bytes of one read and appends what is text for certain to `text`. Gives how many
    // bytes it has used: all, unless the end came before the last of them.
    std::size_t Feed(std::string_view bytes, std::string& text);
    // Whether what has come so far ends the message.
    End Ending() const;
    // Bytes that have come and are in no text yet: the end, or its beginning.
    std::size_t HeldBack() const;

  private:
    enum class State {
        // What stands in front of the next byte.
        kStart,  // nothing yet
        kText,   // no line end
        kCrLf,
        kLf,   // a bare LF
        kCr,   // a bare CR, or the first half of CR LF
        kNul,  // a zero byte
        // With a dot held back, the first byte of its line, and what has come behind it.
        kDot,
        kDotCr,
        kDotLf,
        kDotCrLf,
    };
    State StateAt(const char* first, const char* at) const;
    bool TakeBehindDot(char byte, std::string& text);

    const bool pipelining_;
    const bool strict_;
    State state_ = State::kStart;
    State inFront_ = State::kStart;  // what stands in front of the dot that is held back
};

// Line ends that are none in SMTP: a LF or a CR alone. Programs differ in what they take them for,
// so a text that holds one has more than one reading.
#pragma once

#include <string>
#include <string_view>

#include "session/options.h"

class NewlineFilter {
  public:
    explicit NewlineFilter(BareNewline mode) : mode_(mode) {}

    // Whether there is anything to do.
    bool Idle() const { return mode_ == BareNewline::kAccept; }
    // Appends the bytes to `out`, each line end as CR LF; a CR at their end waits for what follows.
    // False: one was alone, and none is to pass.
    bool Feed(std::string_view bytes, std::string& out);
    // Nothing follows any more.
    bool Finish(std::string& out) { return !cr_ || EndLine(out); }

  private:
    bool EndLine(std::string& out);

    BareNewline mode_;
    bool cr_ = false;  // a CR has come, and what it is shows next
};

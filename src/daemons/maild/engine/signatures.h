// Inside maild/: whether an engine that stays the same process still has the same signatures. It
// loads them anew on a command that anybody may give, as its updater does, and what it has shown
// before says nothing about those: they may have gone.
//
// Told from two of its answers in a session, which carry a number in front and end in a zero byte:
//   VERSION   "ClamAV 1.4.3/27650/Fri ..."; the numbers and times are those of the official files
//   STATS     "... pools_used 1300.125M ..."; what the loaded signatures take, whichever they are
// Others of the very same size are not noticed.
#pragma once

#include <string>
#include <string_view>

class SignatureWatch {
  public:
    // What is to be sent to a session, again and again; the answers may take their time.
    static constexpr char kQuestions[] = "zVERSION\0zSTATS";
    // Bytes of the answers, cut anywhere. True if they tell of other signatures than before.
    bool Take(std::string_view bytes);
    // "ClamAV 1.4.3/27650/Fri ...", empty until it is known.
    const std::string& Version() const { return version_; }

  private:
    bool TakeAnswer(std::string_view answer);

    std::string begun_;  // an answer that has not come whole
    std::string version_;
    std::string used_;
};

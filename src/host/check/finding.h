// check/: `vtsmtpproxy check` looks at a whole instance, its configuration and what that leads to,
// and tells what is wrong with it. It changes no key and starts no program. Each part (parts.h)
// looks at one subject and adds what it finds; all of it on one thread, one part after the other.
#pragma once

#include <string>
#include <vector>

enum class Severity {
    kError,   // mail is not taken, not delivered, or not guarded; or a value isn't what it says
    kWarning  // it works, but hardly as it was meant
};

struct Finding {
    Severity severity;
    std::string key;  // of the store; or a path of the instance, where no key leads to it
    std::string problem;
    std::string remedy;
};

class Findings {
  public:
    void Error(const std::string& key, const std::string& problem, const std::string& remedy) {
        all_.push_back({Severity::kError, key, problem, remedy});
    }
    void Warn(const std::string& key, const std::string& problem, const std::string& remedy) {
        all_.push_back({Severity::kWarning, key, problem, remedy});
    }

    // A line each, as "error: KEY: problem; remedy", and one with the counts. Printable, whatever
    // the texts hold.
    std::string Text() const;
    // One array of objects with severity, key, problem and remedy, and a line end.
    std::string Json() const;
    std::size_t Size() const { return all_.size(); }
    // 0, 1 with warnings only, 2.
    int ExitCode() const;

  private:
    std::vector<Finding> all_;
};

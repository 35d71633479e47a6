// content/: the rules on what a message says: its envelope, its headers, its text.
//
// This header: one pattern, in Perl's syntax by PCRE2, in bounded time whatever it is and is asked.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

struct pcre2_real_code_8;
struct pcre2_real_match_data_8;
struct pcre2_real_match_context_8;
struct pcre2_real_jit_stack_8;

namespace maild {

enum class Match { kNo, kYes, kBeyond };

// What a thread needs to ask patterns; one thread at a time.
class Matcher {
  public:
    Matcher();
    ~Matcher();
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;

  private:
    friend class Pattern;
    pcre2_real_match_data_8* data_;
    pcre2_real_match_context_8* context_;
    pcre2_real_jit_stack_8* stack_;
};

// Compiled; any number of threads may ask it at once.
class Pattern {
  public:
    // Texts are UTF-8; of one that isn't, the rest is still matched. Null with the reason in `why`
    // if it is none.
    static std::unique_ptr<const Pattern> Compile(const std::string& text, std::string& why);
    ~Pattern();
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // Whether it is found in the text. kBeyond: it takes more steps, memory or time than it may;
    // `budget` is what is left of its time, and is lessened. `first`: the text begins here, and
    // `last`: it ends here, for `^` and `$`.
    Match Find(std::string_view text, Matcher& matcher, std::chrono::nanoseconds& budget,
               bool first = true, bool last = true) const;

  private:
    explicit Pattern(pcre2_real_code_8* code) : code_(code) {}

    pcre2_real_code_8* code_;
};

}  // namespace maild

// pattern/: the regular expressions of the configuration, in Perl's syntax by PCRE2. Who matches
// them, the mail daemon, and who only looks whether they are any, judge by the same.
#pragma once

#include <memory>
#include <string>

struct pcre2_real_code_8;

struct PatternFreed {
    void operator()(pcre2_real_code_8* code) const;
};
using CompiledPattern = std::unique_ptr<pcre2_real_code_8, PatternFreed>;

// For texts in UTF-8. Null with the reason in `why` if it is none. Any thread.
CompiledPattern CompilePattern(const std::string& text, std::string& why);

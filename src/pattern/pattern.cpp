#include "pattern/pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <new>

namespace {

constexpr std::size_t kLongestPattern = 8192;
constexpr std::uint32_t kDeepestPattern = 100;

struct ContextFreed {
    void operator()(pcre2_compile_context_8* context) const { pcre2_compile_context_free(context); }
};

}  // namespace

void PatternFreed::operator()(pcre2_real_code_8* code) const { pcre2_code_free(code); }

CompiledPattern CompilePattern(const std::string& text, std::string& why) {
    const std::unique_ptr<pcre2_compile_context_8, ContextFreed> context(
        pcre2_compile_context_create(nullptr));
    if (context == nullptr) throw std::bad_alloc();
    pcre2_set_max_pattern_length(context.get(), kLongestPattern);
    pcre2_set_parens_nest_limit(context.get(), kDeepestPattern);
    int error = 0;
    PCRE2_SIZE at = 0;
    CompiledPattern code(pcre2_compile(
        reinterpret_cast<PCRE2_SPTR8>(text.data()), text.size(),
        PCRE2_UTF | PCRE2_MATCH_INVALID_UTF | PCRE2_NEVER_BACKSLASH_C | PCRE2_USE_OFFSET_LIMIT,
        &error, &at, context.get()));
    if (code == nullptr) {
        PCRE2_UCHAR8 words[160];
        pcre2_get_error_message(error, words, sizeof words);
        why = std::string(reinterpret_cast<const char*>(words)) + ", at character " +
              std::to_string(at + 1);
    }
    return code;
}

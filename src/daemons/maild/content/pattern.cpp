#include "daemons/maild/content/pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#include <time.h>

#include <algorithm>
#include <new>

#include "pattern/pattern.h"

namespace maild {

namespace {

// Of one place where a match may begin.
constexpr std::uint32_t kMatchLimit = 100000;
constexpr std::uint32_t kDepthLimit = 10000;
constexpr std::uint32_t kHeapKilobytes = 4096;
constexpr std::size_t kStackBegin = 32 << 10;
constexpr std::size_t kStackMost = 512 << 10;
// Limits count anew at each place, so the clock is looked at after so many of them: few at first,
// more as long as they are quick.
constexpr std::size_t kFewPlaces = 64;
constexpr std::size_t kMostPlaces = 256 << 10;
constexpr std::chrono::milliseconds kQuick{2};

// Time that this thread has computed: a busy machine doesn't make a pattern slow.
std::chrono::nanoseconds ThreadTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

Matcher::Matcher()
    : data_(pcre2_match_data_create(1, nullptr)),
      context_(pcre2_match_context_create(nullptr)),
      stack_(pcre2_jit_stack_create(kStackBegin, kStackMost, nullptr)) {
    if (data_ == nullptr || context_ == nullptr) throw std::bad_alloc();
    pcre2_set_match_limit(context_, kMatchLimit);
    pcre2_set_depth_limit(context_, kDepthLimit);
    pcre2_set_heap_limit(context_, kHeapKilobytes);
    if (stack_ != nullptr) pcre2_jit_stack_assign(context_, nullptr, stack_);
}

Matcher::~Matcher() {
    pcre2_match_data_free(data_);
    pcre2_match_context_free(context_);
    if (stack_ != nullptr) pcre2_jit_stack_free(stack_);
}

std::unique_ptr<const Pattern> Pattern::Compile(const std::string& text, std::string& why) {
    CompiledPattern compiled = CompilePattern(text, why);
    if (compiled == nullptr) return nullptr;
    pcre2_code_8* const code = compiled.release();
    // Where it can't be, it is matched without.
    pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
    return std::unique_ptr<const Pattern>(new Pattern(code));
}

Pattern::~Pattern() { pcre2_code_free(code_); }

Match Pattern::Find(std::string_view text, Matcher& matcher, std::chrono::nanoseconds& budget,
                    bool first, bool last) const {
    std::uint32_t options = 0;
    if (!first) options |= PCRE2_NOTBOL;
    if (!last) options |= PCRE2_NOTEOL;
    std::size_t places = kFewPlaces;
    std::chrono::nanoseconds before = ThreadTime();
    for (std::size_t from = 0; from <= text.size();) {
        if (budget <= budget.zero()) return Match::kBeyond;
        const std::size_t to = std::min(text.size(), from + places);
        pcre2_set_offset_limit(matcher.context_, to);
        const int result = pcre2_match(code_, reinterpret_cast<PCRE2_SPTR8>(text.data()),
                                       text.size(), from, options, matcher.data_, matcher.context_);
        const std::chrono::nanoseconds now = ThreadTime();
        const std::chrono::nanoseconds spent = now - before;
        before = now;
        budget -= spent;
        if (result >= 0) return Match::kYes;
        if (result != PCRE2_ERROR_NOMATCH) return Match::kBeyond;
        from = to + 1;
        // A character's first byte: the library begins nowhere else.
        while (from < text.size() && (static_cast<unsigned char>(text[from]) & 0xC0U) == 0x80)
            ++from;
        places =
            spent < kQuick ? std::min(places * 4, kMostPlaces) : std::max(places / 4, kFewPlaces);
    }
    return Match::kNo;
}

}  // namespace maild

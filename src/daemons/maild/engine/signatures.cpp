#include "daemons/maild/engine/signatures.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::size_t kLongestAnswer = 4096;
constexpr std::string_view kVersion = "ClamAV ";
constexpr std::string_view kUsed = " pools_used ";

// False if it was known and is another one now.
bool Same(std::string& known, std::string_view now) {
    const bool same = known.empty() || known == now;
    known = now;
    return same;
}

}  // namespace

bool SignatureWatch::Take(std::string_view bytes) {
    bool changed = false;
    for (const char c : bytes) {
        if (c == '\0') {
            changed = TakeAnswer(begun_) || changed;
            begun_.clear();
        } else if (begun_.size() < kLongestAnswer) {
            begun_ += c;
        }
    }
    return changed;
}

bool SignatureWatch::TakeAnswer(std::string_view answer) {
    answer.remove_prefix(std::min(answer.find(' ') + 1, answer.size()));  // its number
    if (answer.starts_with(kVersion)) return !Same(version_, answer);
    const std::size_t used = answer.find(kUsed);
    if (used == std::string_view::npos) return false;
    answer.remove_prefix(used + kUsed.size());
    return !Same(used_, answer.substr(0, answer.find(' ')));
}

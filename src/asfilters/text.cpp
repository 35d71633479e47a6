#include "asfilters/text.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "text/ascii.h"

namespace asfilters {
namespace {

constexpr std::uint32_t kHashMask = 0x7FFFFFFF;
constexpr unsigned kSmallestReply = 6;

}  // namespace

void MakeLowerCase(char* text) {
    for (; *text != '\0'; ++text) *text = FoldCase(*text);
}

std::uint32_t HashText(const char* text, std::size_t length) {
    auto hash = static_cast<std::uint32_t>(length);
    for (std::size_t i = 0; i < length; ++i)
        hash = std::rotl(hash, 5) ^ static_cast<std::uint32_t>(static_cast<std::int8_t>(text[i]));
    return hash & kHashMask;
}

std::string DenyText(const std::string& configured, const char* fallback) {
    const bool goesOn = configured.size() > 3 && configured[3] == '-' &&
                        std::all_of(configured.begin(), configured.begin() + 3, IsDigit);
    return goesOn ? fallback : configured;
}

void WriteDenyReply(bool wanted, const std::string& text, char* out, unsigned size) {
    if (size == 0) return;
    std::memset(out, 0, size);
    if (!wanted || size < kSmallestReply) return;
    const std::size_t length = std::min<std::size_t>(text.size(), size - 3);
    char* const end = std::copy_n(text.data(), length, out);
    end[0] = '\r';
    end[1] = '\n';
}

}  // namespace asfilters

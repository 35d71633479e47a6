#include "text/base64.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<signed char, 256> MakeDigits() {
    std::array<signed char, 256> digits{};
    digits.fill(-1);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i)
        digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    return digits;
}
constexpr std::array<signed char, 256> kDigits = MakeDigits();

}  // namespace

std::string Base64Encode(std::string_view text) {
    std::string out;
    out.reserve((text.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < text.size(); at += 3) {
        const std::size_t have = std::min<std::size_t>(text.size() - at, 3);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < have ? static_cast<unsigned char>(text[at + i]) : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            out += i <= have ? kAlphabet[group >> (18 - 6 * i) & 0x3F] : '=';
    }
    return out;
}

int Base64Digit(char c) { return kDigits[static_cast<unsigned char>(c)]; }

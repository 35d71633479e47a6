#include "text/base64.h"

#include <algorithm>

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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

int Base64Digit(char c) {
    const std::size_t at = kAlphabet.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

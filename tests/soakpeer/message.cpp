#include "message.h"

#include <array>
#include <charconv>

#include "text/base64.h"

namespace {

constexpr std::string_view kMark = "X-Soak: ";
// In two pieces so that this file is no finding itself.
constexpr std::string_view kPatternHead = R"(X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-)";
constexpr std::string_view kPatternTail = "ANTIVIRUS-TEST-FILE!$H+H*";
constexpr std::string_view kLetters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789  .";

// Empty lines at the end don't count: the proxy adds one to a message sent as text.
std::uint64_t Digest(std::string_view text) {
    while (text.ends_with("\r\n")) text.remove_suffix(2);
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    return hash;
}

// Mail's sizes, roughly: most are small, a few take several buffers, one in two thousand is large.
std::size_t BodySize(SoakRandom& random) {
    const std::uint64_t kind = random.Below(2000);
    if (kind == 0) return 1'000'000 + random.Below(1'000'000);
    if (kind < 100) return 10'000 + random.Below(50'000);
    if (kind < 500) return 2000 + random.Below(8000);
    return random.Below(2000);
}

void AddLine(std::string& text, SoakRandom& random) {
    std::size_t length = random.Below(76);
    if (random.Percent(2)) length = 500 + random.Below(490);
    if (random.Percent(5)) text.append(1 + random.Below(3), '.');
    if (random.Percent(5)) length = 0;
    const char eighth = random.Percent(3) ? '\x80' : '\0';
    for (std::size_t i = 0; i < length; ++i)
        text += static_cast<char>(kLetters[random.Below(kLetters.size())] | eighth);
    text += "\r\n";
}

}  // namespace

std::uint64_t SoakRandom::Next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_ * 0x2545F4914F6CDD1DU >> 11;
}

bool IsInfected(std::uint64_t number) { return number % 20 == 7; }

std::string MakeMessage(std::uint64_t number) {
    SoakRandom random(number);
    const bool infected = IsInfected(number);
    const bool attached = infected && random.Percent(50);
    std::string rest = "From: s@example.org\r\nTo: r@example.org\r\nSubject: number ";
    rest += std::to_string(number) + "\r\nMIME-Version: 1.0\r\n";
    if (attached) rest += "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n";
    rest += attached ? "Content-Type: text/plain\r\n\r\n" : "\r\n";
    const std::size_t size = rest.size() + BodySize(random);
    while (rest.size() < size / 2) AddLine(rest, random);
    const std::string pattern = std::string(kPatternHead) + std::string(kPatternTail);
    if (infected && !attached) rest += pattern + "\r\n";
    while (rest.size() < size) AddLine(rest, random);
    if (attached) {
        rest +=
            "--b\r\nContent-Type: application/octet-stream\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\n" +
            Base64Encode(pattern) + "\r\n--b--\r\n";
    }
    return std::string(kMark) + std::to_string(number) + " " + std::to_string(Digest(rest)) +
           "\r\n" + rest;
}

std::optional<SoakFound> ReadMessage(std::string_view stored) {
    const std::size_t at = stored.find(kMark);
    if (at == std::string_view::npos) return std::nullopt;
    const std::size_t end = stored.find("\r\n", at);
    if (end == std::string_view::npos) return std::nullopt;
    std::array<std::uint64_t, 2> numbers{};
    const char* from = stored.data() + at + kMark.size();
    for (std::uint64_t& number : numbers) {
        const auto [next, error] = std::from_chars(from, stored.data() + end, number);
        if (error != std::errc()) return std::nullopt;
        from = next + 1;
    }
    const std::string_view rest = stored.substr(end + 2);
    return SoakFound{numbers[0], IsInfected(numbers[0]), Digest(rest) != numbers[1] || at != 0};
}

#include "session/record.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <random>

#include "text/ascii.h"

namespace {

constexpr std::size_t kIdHalf = 7;
constexpr std::size_t kLongestQueueId = 64;
// What 7 digits of 36 hold and more: a number below it, times an odd one, stays one of its own.
constexpr std::uint64_t kNumbers = std::uint64_t{1} << 36U;
constexpr std::uint64_t kOdd = 0x5DEECE66DULL;

void AppendDigits(std::string& text, std::uint64_t number) {
    constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::array<char, kIdHalf> digits{};
    for (std::size_t i = kIdHalf; i > 0; number /= 36) digits[--i] = kDigits[number % 36];
    text.append(digits.data(), digits.size());
}

// Two processes that begin sessions in the same second begin at different numbers.
std::uint64_t FirstNumber() {
    try {
        std::random_device random;
        return (std::uint64_t{random()} << 16U) ^ random();
    } catch (const std::exception&) {  // no source of chance
        return static_cast<std::uint64_t>(
            std::chrono::steady_clock::now().time_since_epoch().count());
    }
}

bool IsIdCharacter(char c) { return IsDigit(c) || IsLetter(c) || c == '-' || c == '_' || c == '.'; }

std::string_view WordAt(std::string_view text) {
    const auto* end = std::find_if_not(text.begin(), text.end(), IsIdCharacter);
    std::string_view word(text.begin(), end);
    while (!word.empty() && word.back() == '.') word.remove_suffix(1);
    return word.size() <= kLongestQueueId ? word : std::string_view();
}

std::string_view WordBehind(std::string_view text, std::string_view mark) {
    const std::size_t at = text.find(mark);
    return at == std::string_view::npos ? std::string_view()
                                        : WordAt(text.substr(at + mark.size()));
}

// sendmail: "250 2.0.0 4AQ2d1Xk012345 Message accepted for delivery"
std::string_view WordInFront(std::string_view text, std::string_view mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos) return {};
    std::size_t begin = at;
    while (begin > 0 && IsIdCharacter(text[begin - 1])) --begin;
    const std::string_view word = text.substr(begin, at - begin);
    // The code, or an enhanced one: there is no id then.
    const bool code =
        std::all_of(word.begin(), word.end(), [](char c) { return IsDigit(c) || c == '.'; }) &&
        (word.size() == 3 || word.find('.') != std::string_view::npos);
    return code || word.size() > kLongestQueueId ? std::string_view() : word;
}

}  // namespace

void MessageRecord::Clear() {
    for (std::string* text : {&id, &from, &to, &messageId, &reason, &reply, &queueId})
        text->clear();
    size = 0;
    via = section = {};
    verdict = kVerdictNone;
    receptionMs = scanMs = relayMs = 0;
}

std::string NewSessionId() {
    static std::atomic<std::uint64_t> number{FirstNumber()};
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    std::string id;
    AppendDigits(id, static_cast<std::uint64_t>(
                         std::chrono::duration_cast<std::chrono::seconds>(now).count()));
    AppendDigits(id, number++ * kOdd % kNumbers);
    return id;
}

std::string_view QueueIdIn(std::string_view reply) {
    if (!reply.starts_with('2')) return {};
    // Exchange: "250 2.6.0 <a@b> [InternalId=1234, Hostname=c] Queued mail for delivery", beside
    // which nothing else is looked for: the message's own id could hold any of the marks.
    for (const std::string_view mark : {"[InternalId=", "queued as ", " id="}) {
        if (reply.find(mark) != std::string_view::npos) return WordBehind(reply, mark);
    }
    return WordInFront(reply, " Message accepted");
}

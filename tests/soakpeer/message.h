// What the soak's clients send and its server checks: a message is made from its number alone and
// carries its own digest.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A cheap generator, so that a message costs its clients little; seeded by the message's number.
class SoakRandom {
  public:
    explicit SoakRandom(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15U + 1) {}
    std::uint64_t Next();
    // From 0 to below limit.
    std::uint64_t Below(std::uint64_t limit) { return Next() % limit; }
    bool Percent(unsigned percent) { return Below(100) < percent; }

  private:
    std::uint64_t state_;
};

// One in twenty carries the test pattern for scanners, as text or as a base64 attachment.
bool IsInfected(std::uint64_t number);

// The whole message as it is to be stored: lines end with CR LF, dots stand as they are.
std::string MakeMessage(std::uint64_t number);

// What a server got.
struct SoakFound {
    std::uint64_t number = 0;
    bool infected = false;
    bool changed = false;  // a byte behind the first line is another, missing or too much,
                           // but for empty lines at the end
};
// None if the text holds no line of ours: then it is none of our messages, or its head is lost.
std::optional<SoakFound> ReadMessage(std::string_view stored);

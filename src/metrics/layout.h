// Inside metrics/: the file metrics/PROGRAM of the instance. All words have 64 bits and the host's
// byte order; the file is for processes of the same machine.
//
//   header    8 words   magic, version, shape, bytes of the file, process id, start in seconds
//                       since 1970, 2 words of 0
//             4 words   the program's version, text up to a zero byte
//   names     1 word    interfaces that have a name
//             64 names of 64 bytes each, text up to a zero byte
//   stripes   4 times the words of all rows in their order, each row's places one behind the
//             other; a stripe begins at a line of the cache
//
// The header never changes once the file has its name. A name never changes once it is counted. A
// value is the sum of its words in all stripes, modulo 2^64: threads spread over the stripes, so
// that two of them don't fight over a line.
#pragma once

#include <atomic>

#include "metrics/rows.h"

namespace metrics {

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 8);

inline constexpr std::uint64_t kMagic = 0x3143495254454D56;  // "VMETRIC1"
inline constexpr std::uint64_t kLayoutVersion = 1;
inline constexpr std::size_t kStripes = 4;
inline constexpr std::size_t kWordsOfLine = 8;
inline constexpr std::size_t kVersionBytes = 32;
inline constexpr std::size_t kNameBytes = 64;

struct Header {
    std::uint64_t magic;
    std::uint64_t version;
    std::uint64_t shape;
    std::uint64_t bytes;
    std::uint64_t process;
    std::uint64_t started;
    std::uint64_t reserved[2];
    char program[kVersionBytes];
};

constexpr std::array<std::size_t, kRowCount + 1> Offsets() {
    std::array<std::size_t, kRowCount + 1> offsets{};
    for (std::size_t i = 0; i < kRowCount; ++i)
        offsets[i + 1] = offsets[i] + PlacesOf(kRows[i]) * WordsOf(kRows[i]);
    return offsets;
}
// Of the rows in a stripe; the last is the count of all words.
inline constexpr std::array<std::size_t, kRowCount + 1> kOffsets = Offsets();
inline constexpr std::size_t kStripeWords =
    (kOffsets[kRowCount] + kWordsOfLine - 1) / kWordsOfLine * kWordsOfLine;

struct alignas(64) Page {
    Header header;
    alignas(64) Word interfaces;
    alignas(64) Word names[kInterfacePlaces][kNameBytes / sizeof(Word)];
    alignas(64) Word stripes[kStripes][kStripeWords];
};

// Of all that a reader has to know of the rows: one with another table takes no file of ours.
constexpr std::uint64_t Shape() {
    std::uint64_t shape = 14695981039346656037U;
    const auto mix = [&shape](std::uint64_t value) { shape = (shape ^ value) * 1099511628211U; };
    const auto text = [&mix](const char* each) {
        while (each != nullptr && *each != '\0') mix(static_cast<unsigned char>(*each++));
        mix(0);
    };
    for (const Row& row : kRows) {
        text(row.name);
        text(row.label);
        mix(static_cast<std::uint64_t>(row.kind));
        mix(PlacesOf(row));
        mix(row.perUnit);
        for (const char* each : row.values) text(each);
        for (const std::uint64_t each : row.bounds) mix(each);
    }
    mix(sizeof(Page));
    return shape;
}

}  // namespace metrics

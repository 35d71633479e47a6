// The flat form of a message. All numbers are 32-bit little-endian words; nothing is aligned, there
// is no filler.
//
//   total length (these 4 bytes included) | node | node | ...           pre-order
//   node:       child count | attribute count | has next sibling | attribute | ...
//   attribute:  tag | number                                            type 1
//               tag | length with zero byte | bytes | 0                 type 0
//               tag                                                     any other type, from a
//               parse only
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kFlatWord = 4;
inline constexpr std::uint32_t kFlatNodeHeader = 12;
inline constexpr std::uint32_t kFlatAttrHeader = 8;

inline std::uint32_t TagType(std::uint32_t tag) { return tag & 0xFF; }

inline std::uint32_t ReadWord(const std::uint8_t* at) {
    return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
           static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

inline std::uint8_t* WriteWord(std::uint8_t* at, std::uint32_t word) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<std::uint8_t>(word >> (8 * i));
    return at + kFlatWord;
}

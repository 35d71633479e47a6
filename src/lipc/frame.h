// The frame: one block of bytes on its way through a pipe. Numbers are little-endian.
//
//   0  magic      8 bytes   "VTIPC" and three zero bytes
//   8  length     4 bytes   payload bytes, never 0
//  12  remaining  4 bytes   equal to length; a receiver counts with this one
//  16  reserved   4 bytes   0 on sending, ignored on receiving
//  20  payload
#pragma once

#include <cstdint>

inline constexpr char kFrameMagic[8] = {'V', 'T', 'I', 'P', 'C', 0, 0, 0};
inline constexpr std::uint32_t kFrameMagicCompared = 6;
inline constexpr std::uint32_t kFrameLengthOffset = 8;
inline constexpr std::uint32_t kFrameRemainingOffset = 12;
inline constexpr std::uint32_t kFrameHeaderSize = 20;
// A peer that announces more than any message of the system holds is out of its mind: the channel
// fails.
inline constexpr std::uint32_t kFrameMaxPayload = 64U << 20;

inline constexpr std::uint32_t kPipeBufferSize = 4096;

// The payload that stands for a reply without data, its zero byte included.
inline constexpr char kNoReply[] = "2.0LIPCNOREPLY";
static_assert(sizeof kNoReply == 15);

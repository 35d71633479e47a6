// A queue of bytes, kept in pieces of up to 4096: taken from the head, added at the tail.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>

#include "lipc/frame.h"

struct PipeChunk {
    std::uint32_t length = 0;
    std::array<char, kPipeBufferSize> data;
};
using ChunkList = std::deque<std::unique_ptr<PipeChunk>>;

// Appends a block as new chunks. Throws std::bad_alloc.
void ChunkAppend(ChunkList& list, const void* data, std::uint32_t length);
// Takes up to size bytes. The count.
std::uint32_t ChunkTake(ChunkList& list, void* buffer, std::uint32_t size);
std::uint32_t ChunkTotal(const ChunkList& list);
// Moves all of source to the tail of list.
void ChunkSplice(ChunkList& list, ChunkList& source);

#include "lipc/chunks.h"

#include <algorithm>
#include <cstring>
#include <iterator>

void ChunkAppend(ChunkList& list, const void* data, std::uint32_t length) {
    const char* at = static_cast<const char*>(data);
    while (length > 0) {
        auto chunk = std::unique_ptr<PipeChunk>(new PipeChunk);
        chunk->length = std::min(length, kPipeBufferSize);
        std::memcpy(chunk->data.data(), at, chunk->length);
        at += chunk->length;
        length -= chunk->length;
        list.push_back(std::move(chunk));
    }
}

std::uint32_t ChunkTake(ChunkList& list, void* buffer, std::uint32_t size) {
    char* to = static_cast<char*>(buffer);
    std::uint32_t taken = 0;
    while (taken < size && !list.empty()) {
        PipeChunk& head = *list.front();
        const std::uint32_t count = std::min(size - taken, head.length);
        std::memcpy(to + taken, head.data.data(), count);
        taken += count;
        if (count == head.length) {
            list.pop_front();
        } else {
            head.length -= count;
            std::memmove(head.data.data(), head.data.data() + count, head.length);
        }
    }
    return taken;
}

std::uint32_t ChunkTotal(const ChunkList& list) {
    std::uint32_t total = 0;
    for (const auto& chunk : list) total += chunk->length;
    return total;
}

void ChunkSplice(ChunkList& list, ChunkList& source) {
    std::move(source.begin(), source.end(), std::back_inserter(list));
    source.clear();
}

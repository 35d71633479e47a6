// Inside forms/: reading a message's file.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <string_view>
#include <vector>

inline constexpr std::size_t kReadBlock = 65536;

// Hands the file from `at` to its end to `take`, block by block with the offset of each. False if
// it can't be read, or once `take` gives false.
template <typename Take>
bool ReadBlocks(int file, off_t at, Take take) {
    std::vector<char> block(kReadBlock);
    for (;;) {
        const ssize_t count = pread(file, block.data(), block.size(), at);
        if (count <= 0) return count == 0;
        if (!take(std::string_view(block.data(), static_cast<std::size_t>(count)), at))
            return false;
        at += count;
    }
}

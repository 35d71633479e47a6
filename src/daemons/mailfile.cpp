#include "daemons/mailfile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t kBlock = 65536;
// The engine looks into a message's parts only if it knows the file for a message, by its first
// header; a message that begins with any other one would be looked at as plain bytes, and a coded
// attachment would pass.
constexpr std::string_view kSafeStarts[] = {"Received: ", "Return-Path: "};
constexpr std::string_view kHeader = "Received: from spool\r\n";

}  // namespace

bool ScannableAsItIs(int spool) {
    std::vector<char> block(kBlock);
    bool lineStart = true;
    bool dot = false;  // the line so far is one dot
    for (off_t at = 0;;) {
        const ssize_t count = pread(spool, block.data(), block.size(), at);
        if (count < 0) return false;
        if (count == 0) return at > 0;
        const std::string_view text(block.data(), static_cast<std::size_t>(count));
        if (at == 0) {
            bool known = false;
            for (const std::string_view start : kSafeStarts)
                known = known || text.starts_with(start);
            if (!known) return false;
        }
        for (std::size_t i = 0; i < text.size();) {
            if (dot && text[i] == '.') return false;
            dot = lineStart && text[i] == '.';
            lineStart = text[i] == '\n';
            if (lineStart || dot) {
                ++i;
                continue;
            }
            const void* end = std::memchr(text.data() + i, '\n', text.size() - i);
            if (end == nullptr) break;
            i = static_cast<std::size_t>(static_cast<const char*>(end) - text.data());
        }
        at += count;
    }
}

platform::File MakeScanCopy(int spool, bool& unstuffed) {
    unstuffed = false;
    platform::File copy(memfd_create("scan", MFD_CLOEXEC));
    if (!copy || !copy.Write(kHeader.data(), kHeader.size())) return {};
    std::vector<char> block(kBlock);
    std::vector<char> out;
    out.reserve(kBlock);
    bool lineStart = true;
    for (off_t at = 0;;) {
        const ssize_t count = pread(spool, block.data(), block.size(), at);
        if (count < 0) return {};
        if (count == 0) break;
        out.clear();
        for (ssize_t i = 0; i < count;) {
            if (lineStart && block[static_cast<std::size_t>(i)] == '.') {
                ++i;  // the dot that a client put in front
                unstuffed = true;
            }
            lineStart = false;
            if (i == count) break;
            const char* from = block.data() + i;
            const auto left = static_cast<std::size_t>(count - i);
            const void* end = std::memchr(from, '\n', left);
            const std::size_t length =
                end == nullptr ? left
                               : static_cast<std::size_t>(static_cast<const char*>(end) - from) + 1;
            out.insert(out.end(), from, from + length);
            lineStart = end != nullptr;
            i += static_cast<ssize_t>(length);
        }
        if (!copy.Write(out.data(), out.size())) return {};
        at += count;
    }
    return lseek(copy.Descriptor(), 0, SEEK_SET) == 0 ? std::move(copy) : platform::File();
}

#include "daemons/maild/antispam/sending.h"

#include "daemons/maild/coding/lines.h"

namespace maild {

namespace {

constexpr std::size_t kBlock = 64 << 10;

}  // namespace

long long CountBytes(int file, Dots dots, long long size) {
    long long bytes = 0;
    LineReader reader(file, dots, {0, size});
    for (Line line; reader.Next(line);) bytes += static_cast<long long>(line.text.size());
    return reader.Failed() ? -1 : bytes;
}

bool SendMessage(Connection& connection, const std::string& front, const SpamQuestion& question) {
    std::string block = front;
    LineReader reader(question.file, question.dots, {0, question.size});
    for (Line line; reader.Next(line);) {
        block += line.text;
        if (block.size() < kBlock) continue;
        if (!connection.Send(block.data(), block.size())) return false;
        block.clear();
    }
    return !reader.Failed() && connection.Send(block.data(), block.size());
}

}  // namespace maild

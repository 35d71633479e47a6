#include "trelis/remote.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>

#include "platform/descriptor.h"
#include "text/ascii.h"

namespace trelis {
namespace {

using Clock = std::chrono::steady_clock;
using platform::UniqueDescriptor;
using platform::WaitForDescriptor;
using platform::Want;

constexpr std::chrono::seconds kLimit{2};  // for connecting, asking and reading together
constexpr std::string_view kAsk = "VTSTORE1 GET ";
constexpr std::string_view kAnswer = "VTSTORE1 ";
constexpr std::size_t kMostHead = kAnswer.size() + sizeof "0 65536\n" - 1;

bool ValidKey(std::string_view key) {
    return !key.empty() && key.size() < kRemoteKeySize && key.front() == '/' &&
           std::none_of(key.begin(), key.end(), IsControl);
}

UniqueDescriptor Connect(std::uint32_t address, std::uint16_t port, Clock::time_point end) {
    UniqueDescriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection) return {};
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(port);
    record.sin_addr.s_addr = htonl(address);
    const int descriptor = connection.Get();
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&record), sizeof record) == 0)
        return connection;
    if (errno != EINPROGRESS || WaitForDescriptor(descriptor, Want::kWrite, end) != 1) return {};
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) return {};
    return connection;
}

// The request is one small block: what a new connection doesn't take whole is a failure.
bool Send(int descriptor, const std::string& request) {
    return send(descriptor, request.data(), request.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(request.size());
}

// The bytes the whole reply has, once its first line has come; nothing if that line is none.
std::optional<std::size_t> ReplySize(std::string_view have, std::size_t lineEnd) {
    const std::string_view head = have.substr(0, lineEnd);
    if (head.size() < kAnswer.size() + 3 || head.substr(0, kAnswer.size()) != kAnswer ||
        head[kAnswer.size()] != static_cast<char>(RemoteStatus::kFound) ||
        head[kAnswer.size() + 1] != ' ')
        return std::nullopt;
    std::size_t length = 0;
    for (const char digit : head.substr(kAnswer.size() + 2)) {
        if (digit < '0' || digit > '9') return std::nullopt;
        length = length * 10 + static_cast<std::size_t>(digit - '0');
        if (length > kRemoteMostValue) return std::nullopt;
    }
    return lineEnd + 1 + length;
}

std::optional<std::string> ReadReply(int descriptor, Clock::time_point end) {
    std::string have;
    char block[4096];
    for (;;) {
        if (WaitForDescriptor(descriptor, Want::kRead, end) != 1) return std::nullopt;
        const ssize_t count = recv(descriptor, block, sizeof block, MSG_DONTWAIT);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count <= 0) return std::nullopt;
        have.append(block, static_cast<std::size_t>(count));
        const std::size_t lineEnd = have.find('\n');
        if (lineEnd == std::string::npos) {
            if (have.size() > kMostHead) return std::nullopt;
            continue;
        }
        const std::optional<std::size_t> size = ReplySize(have, lineEnd);
        if (!size) return std::nullopt;
        if (have.size() >= *size) return have.substr(lineEnd + 1, *size - lineEnd - 1);
    }
}

}  // namespace

std::string RemoteRequest(const std::string& key) {
    return ValidKey(key) ? std::string(kAsk) + key + '\n' : std::string();
}

std::optional<std::string> ParseRemoteRequest(const std::string& line) {
    if (line.size() <= kAsk.size() || line.compare(0, kAsk.size(), kAsk) != 0 ||
        line.back() != '\n')
        return std::nullopt;
    std::string key = line.substr(kAsk.size(), line.size() - kAsk.size() - 1);
    if (!ValidKey(key)) return std::nullopt;
    return key;
}

std::string RemoteReply(RemoteStatus status, const std::string& value) {
    const bool found = status == RemoteStatus::kFound;
    return std::string(kAnswer) + static_cast<char>(status) + ' ' +
           std::to_string(found ? value.size() : 0) + '\n' + (found ? value : std::string());
}

std::optional<std::string> RemoteGetValue(std::uint32_t address, std::uint16_t port,
                                          const std::string& key) {
    const std::string request = RemoteRequest(key);
    // An address of 0, as of a name that nobody knows, would reach this very machine.
    if (request.empty() || address == 0) return std::nullopt;
    const Clock::time_point end = Clock::now() + kLimit;
    const UniqueDescriptor connection = Connect(address, port, end);
    if (!connection || !Send(connection.Get(), request)) return std::nullopt;
    return ReadReply(connection.Get(), end);
}

}  // namespace trelis

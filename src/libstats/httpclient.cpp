#include "libstats/httpclient.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/local_socket.h"
#include "text/ascii.h"

namespace {

constexpr std::uint32_t kWaitSeconds = 300;
constexpr int kFormatSize = 10000;
constexpr std::size_t kLineSize = 10000;
// A server that sends headers without end must not fill the memory, nor hold the reader for ever.
constexpr std::size_t kMostHeaderBytes = std::size_t{256} * 1024;

std::string_view StripLineEnd(std::string_view line) {
    for (const char end : {'\n', '\r', '\n', '\r'}) {
        if (!line.empty() && line.back() == end) line.remove_suffix(1);
    }
    return line;
}

}  // namespace

CHTTPClient::~CHTTPClient() { CloseConnection(); }

int CHTTPClient::ConnectTo(const char* host, int port) {
    const bool connected = Connect(host, port);
    status_ = connected ? kNoAnswer : kNotReached;
    return connected ? 0 : -1;
}

bool CHTTPClient::Connect(const char* host, int port) {
    if (ownDaemon_) {
        connection_.Close();
        const SOCKET made = SocketConnectLocal(kReportFolder, kReportSocket);
        connection_ = CSocket(made == INVALID_SOCKET ? 0 : made);
        return !connection_.Empty();
    }
    const SocketAddress address = NumericAddress(host, static_cast<std::uint16_t>(port));
    if (address.V4().sin_addr.s_addr == INADDR_NONE || port < 1 || port > 0xFFFF) return false;
    // One exchange, one connection: an earlier one must not be lost open.
    connection_.Close();
    return connection_.Create(1) && connection_.Connect(address);
}

int CHTTPClient::CloseConnection() {
    connection_.Shutdown();
    connection_.Close();
    headers_.clear();
    return 0;
}

int CHTTPClient::SendFormat(const char* format, ...) {
    char text[kFormatSize + 1];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) return 0;
    return length > kFormatSize ? 1 : connection_.SendAll(text, length);
}

int CHTTPClient::SendText(const char* text) { return connection_.SendAll(text); }

int CHTTPClient::ReadResponseLine(char* buffer, unsigned size) {
    if (size > 0x7FFFFFFF) return -1;
    try {
        std::vector<char> line(size);
        int length = 0;
        if (connection_.ReadLine(line.data(), length, static_cast<int>(size), kWaitSeconds) != 1)
            return -1;
        std::memcpy(buffer, line.data(), static_cast<std::size_t>(length) + 1);
        return 1;
    } catch (const std::exception&) {
        return -1;
    }
}

int CHTTPClient::ReadBody(char* buffer, int length) {
    return connection_.ReadExact(buffer, length, kWaitSeconds) == 1 ? 0 : -1;
}

int CHTTPClient::ReadHeaders() {
    char buffer[kLineSize];
    std::size_t bytes = 0;
    try {
        while (ReadResponseLine(buffer, sizeof buffer) == 1) {
            const std::string_view received(buffer);
            const std::string_view line = StripLineEnd(received);
            if (line.find_first_not_of('\r') == std::string_view::npos) return 0;
            bytes += received.size();
            if (bytes > kMostHeaderBytes) break;
            const std::size_t colon = line.find(':');
            if (colon == std::string_view::npos) continue;
            const std::size_t start = line.find_first_not_of(" \t", colon + 1);
            headers_.emplace(LowerCase(line.substr(0, colon)),
                             start == std::string_view::npos ? "" : line.substr(start));
        }
    } catch (const std::exception&) {
        bytes = kMostHeaderBytes + 1;
    }
    // The exchange must not go on with half of the headers, as if these were all.
    if (bytes > kMostHeaderBytes) CloseConnection();
    return 0;
}

const char* CHTTPClient::GetHeader(const char* name) {
    if (name == nullptr) return nullptr;
    try {
        const auto found = headers_.find(LowerCase(name));
        return found == headers_.end() ? nullptr : found->second.c_str();
    } catch (const std::exception&) {
        return nullptr;
    }
}

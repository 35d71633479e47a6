#include "session/server_link.h"

#include <algorithm>

namespace {

// The longest line that goes on to a client, with its line end.
constexpr std::size_t kLongestLine = 1022;
constexpr int kMostLines = 1000;
// What of a reply is kept; the last line always is.
constexpr std::size_t kMostKept = 65536;
constexpr int kAnswersWithNoop = 3;
constexpr std::size_t kCodeSize = 3;

bool IsCode(std::string_view line) {
    std::size_t length = line.size();
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) --length;
    return length >= kCodeSize;
}

}  // namespace

std::string_view ServerReply::Last() const {
    const std::string_view all = text;
    const std::size_t end = all.empty() ? std::string_view::npos : all.rfind('\n', all.size() - 2);
    return end == std::string_view::npos ? all : all.substr(end + 1);
}

void ServerLink::Attach(const CSocket& socket) {
    socket_ = socket;
    stream_.Attach(socket);
    stream_.SetLimit(settings_.connectionTimeout);
    lastSent_ = platform::LastTick();
    spoken_ = false;
    takesChunks = takesBatches = false;
    tellOffer.clear();
    xclientDue = false;
    held_.clear();
}

bool ServerLink::Send(std::string_view bytes) {
    lastSent_ = platform::LastTick();
    return stream_.Send(bytes);
}

bool ServerLink::Queue(std::string_view bytes) {
    lastSent_ = platform::LastTick();
    return stream_.Queue(bytes);
}

Stream::Line ServerLink::ReadLine(std::string_view& line, const Deadline& whole) {
    if (held_.empty()) return stream_.ReadLine(line, kLongestLine, &whole, &client_);
    const std::size_t end = std::min(held_.find('\n'), held_.size() - 1) + 1;
    heldLine_ = held_.substr(0, end);
    held_.erase(0, end);
    line = heldLine_;
    return Stream::Line::kWhole;
}

ServerLink::ReplyReader::ReplyReader(ServerLink& link)
    : link_(link), deadline_(link.settings_.connectionTimeout) {}

bool ServerLink::ReplyReader::Next(std::string_view& line) {
    while (!done_ && !failed_) {
        const Stream::Line outcome = link_.ReadLine(line, deadline_);
        if (outcome == Stream::Line::kFailed || ++lines_ > kMostLines) {
            failed_ = true;
            break;
        }
        if (outcome == Stream::Line::kTooLong) {
            shortened_ = line.substr(0, kLongestLine - 1);
            shortened_ += "\r\n";
            line = shortened_;
        }
        if (!IsCode(line)) continue;
        link_.spoken_ = true;
        done_ = line[kCodeSize] != '-';
        return true;
    }
    return false;
}

bool ServerLink::ReadAnyReply(ServerReply& reply) {
    reply.text.clear();
    ReplyReader reader(*this);
    for (std::string_view line; reader.Next(line);) {
        if (reply.text.size() + line.size() > kMostKept) reply.text.clear();
        reply.text += line;
    }
    return !reader.Failed();
}

bool ServerLink::Noop() {
    ServerReply reply;
    return Ask("NOOP\r\n", reply) && !reply.Is("421");
}

bool ServerLink::KeepAliveAfterAnswer() {
    if (ownAnswers_ < kAnswersWithNoop) {
        ++ownAnswers_;
        return Noop();
    }
    return !SilentFor(std::chrono::seconds(settings_.noopInterval)) || Noop();
}

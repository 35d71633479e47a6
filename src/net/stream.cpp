#include "net/stream.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/task.h"

namespace {

// What one look for lines takes at most, beyond what is read ahead already.
constexpr std::size_t kLineRead = 2048;
// Beyond this an empty read-ahead gives its memory back before a wait.
constexpr std::size_t kKeptAhead = 4096;
// What may wait for more to be sent with it.
constexpr std::size_t kMostQueued = 32768;
// One call's share of a file.
constexpr int kFileBlock = 1 << 18;
// And of other things that are sent.
constexpr std::size_t kMostSent = std::size_t{1} << 30;
// What is read and written without a wait between before other tasks have their turn, in bytes;
// each call counts for so many more.
constexpr int kMostUnwaited = 1 << 18;
constexpr int kWeight = 1 << 14;
// What a peer may still send behind our last word.
constexpr int kMostLingering = 1 << 20;
constexpr std::chrono::milliseconds kLongestLingering{2000};

}  // namespace

std::chrono::milliseconds Deadline::Left() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - platform::LastTick());
    return std::max(left, std::chrono::milliseconds(0));
}

void Stream::Attach(const CSocket& socket) {
    socket_ = socket;
    transport_.reset();
    queued_.clear();
    ahead_.clear();
    at_ = looked_ = 0;
    drained_ = false;
}

void Stream::Secure(std::unique_ptr<Transport> transport) {
    transport_ = std::move(transport);
    ahead_.clear();
    at_ = looked_ = 0;
    drained_ = false;
}

void Stream::PutBack(std::string_view bytes) {
    ahead_.replace(0, at_, bytes);
    at_ = looked_ = 0;
}

int Stream::ReceiveNow(char* buffer, int size) {
    if (transport_ != nullptr) return transport_->ReceiveNow(buffer, size);
    const int count = SocketReceiveNow(socket_.Handle(), buffer, size, false);
    drained_ = count > 0 && count < size;
    return count;
}

// One receive behind what was read ahead; its result.
int Stream::FillAhead() {
    std::array<char, kLineRead> block;
    const int count = ReceiveNow(block.data(), static_cast<int>(block.size()));
    if (count > 0) ahead_.append(block.data(), static_cast<std::size_t>(count));
    return count;
}

bool Stream::FindLine(std::string_view& line) {
    const std::size_t end = ahead_.find('\n', looked_);
    looked_ = end == std::string::npos ? ahead_.size() : end + 1;
    line = std::string_view(ahead_).substr(at_, looked_ - at_);
    return end != std::string::npos;
}

int Stream::ReceiveWaiting(char* buffer, int size, std::chrono::milliseconds limit,
                           const CSocket* other) {
    if (socket_.Empty()) return -1;
    std::optional<Deadline> deadline;  // most reads end with their first wait, and need none
    for (;;) {
        const int count = drained_ ? SOCKET_WOULD_BLOCK : ReceiveNow(buffer, size);
        if (count != SOCKET_WOULD_BLOCK) {
            if (!deadline) LetOthersRun(count);
            return count;
        }
        // Bytes of the connection need not be bytes for us: by those no limit counts anew.
        if (deadline && deadline->Over()) return -1;
        if (deadline) platform::YieldTask();  // they may come without a pause
        // Who has to answer must have heard everything first.
        if (!Flush()) return -1;
        if (deadline)
            limit = deadline->Left();
        else
            deadline.emplace(limit);
        if (WaitForSocket(limit, other, Blocked()) != Wait::kReady) return -1;
    }
}

Stream::Line Stream::ReadLine(std::string_view& line, std::size_t limit, const Deadline* whole,
                              const CSocket* other) {
    bool tooLong = false;
    const std::chrono::milliseconds arrival = std::chrono::seconds(seconds_);
    std::optional<Deadline> own;  // where the line has to be waited for
    for (;;) {
        const bool found = FindLine(line);
        tooLong = tooLong || line.size() > limit;
        if (found) {
            line = line.substr(0, limit);
            at_ = looked_;
            return tooLong ? Line::kTooLong : Line::kWhole;
        }
        if (!own) own.emplace(arrival * kLongestLineTimes);
        ahead_.erase(0, at_);
        at_ = 0;
        // Of a line that is too long only the beginning is kept.
        if (tooLong) ahead_.resize(limit);
        looked_ = ahead_.size();
        if (ahead_.empty() && ahead_.capacity() > kKeptAhead) std::string().swap(ahead_);
        // Looked at here: from a peer that sends without a pause the read never has to wait.
        const std::chrono::milliseconds left = whole != nullptr ? whole->Left() : own->Left();
        if (left.count() == 0) return Line::kFailed;
        std::array<char, kLineRead> block;
        const int count = ReceiveWaiting(block.data(), static_cast<int>(block.size()),
                                         whole != nullptr ? left : std::min(left, arrival), other);
        if (count < 1) return Line::kFailed;
        ahead_.append(block.data(), static_cast<std::size_t>(count));
    }
}

Stream::Wait Stream::WaitReadable(std::chrono::milliseconds limit, const CSocket* other) {
    if (HasReadAhead()) return Wait::kReady;
    if (transport_ == nullptr) return WaitForSocket(limit, other, false);
    // Bytes of the connection need not be bytes for us.
    const Deadline deadline(limit);
    for (bool waited = false; FillAhead() == SOCKET_WOULD_BLOCK; waited = true) {
        if (waited && deadline.Over()) return Wait::kTimeOver;
        if (waited) platform::YieldTask();
        const Wait wait = WaitForSocket(deadline.Left(), other, Blocked());
        if (wait != Wait::kReady) return wait;
    }
    return Wait::kReady;
}

// A peer that sends without a pause must not keep the thread from its other tasks.
void Stream::LetOthersRun(int bytes) {
    unwaited_ += kWeight + bytes;
    if (unwaited_ < kMostUnwaited) return;
    unwaited_ = 0;
    platform::YieldTask();
}

Stream::Wait Stream::WaitForSocket(std::chrono::milliseconds limit, const CSocket* other,
                                   bool blocked) {
    unwaited_ = 0;
    if (socket_.Empty()) return Wait::kFailed;
    std::array<SocketWatch, kMostWatches> watches;
    watches[0] = {
        socket_.Handle(), transport_ != nullptr ? transport_->Wanted() : SocketWant::kRead, {}};
    const bool two = other != nullptr && !other->Empty();
    if (two) watches[1] = {other->Handle(), SocketWant::kNothing, {}};
    if (!SocketWaitAny(watches.data(), two ? 2 : 1, limit, blocked)) return Wait::kTimeOver;
    if (watches[0].found.exception || (two && watches[1].found.exception)) return Wait::kFailed;
    drained_ = false;
    return Wait::kReady;
}

int Stream::TakeAhead(char* buffer, int size) {
    const std::size_t count = std::min(ahead_.size() - at_, static_cast<std::size_t>(size));
    std::memcpy(buffer, ahead_.data() + at_, count);
    at_ += count;
    if (at_ == ahead_.size()) {
        ahead_.clear();
        at_ = 0;
    }
    looked_ = at_;
    return static_cast<int>(count);
}

int Stream::Read(char* buffer, int size, std::chrono::milliseconds limit, const CSocket* other) {
    return HasReadAhead() ? TakeAhead(buffer, size) : ReceiveWaiting(buffer, size, limit, other);
}

bool Stream::Send(std::string_view bytes) {
    return queued_.empty() ? SendNow(bytes) : Queue(bytes) && Flush();
}

bool Stream::Queue(std::string_view bytes) {
    queued_.append(bytes);
    return queued_.size() < kMostQueued || Flush();
}

bool Stream::Flush() {
    if (queued_.empty()) return true;
    const bool sent = SendNow(queued_);
    queued_.clear();
    return sent;
}

bool Stream::SendNow(std::string_view bytes) {
    std::optional<Deadline> deadline;  // from the first wait on
    while (!bytes.empty()) {
        if (socket_.Empty()) return false;
        const int length = static_cast<int>(std::min(bytes.size(), kMostSent));
        const int count = transport_ != nullptr
                              ? transport_->SendNow(bytes.data(), length)
                              : SocketSendNow(socket_.Handle(), bytes.data(), length);
        if (count == SOCKET_WOULD_BLOCK) {
            if (!deadline) deadline.emplace(seconds_);
            if (!WaitForRoom(*deadline)) return false;
            continue;
        }
        if (count < 1) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool Stream::WaitForRoom(const Deadline& deadline) {
    SocketWatch watch{
        socket_.Handle(), transport_ != nullptr ? transport_->Wanted() : SocketWant::kWrite, {}};
    return SocketWaitAny(&watch, 1, deadline.Left(), Blocked()) && !watch.found.exception;
}

bool Stream::SendFile(const platform::File& file, long long offset, long long length) {
    if (!Flush()) return false;
    const auto block =
        transport_ == nullptr ? nullptr : std::make_unique_for_overwrite<char[]>(kFileBlock);
    while (length > 0) {
        int left = static_cast<int>(std::min<long long>(length, kFileBlock));
        length -= left;
        if (block != nullptr) {
            const long long count =
                file.ReadAt(offset, block.get(), static_cast<std::size_t>(left));
            if (count != left || !SendNow({block.get(), static_cast<std::size_t>(left)}))
                return false;
            offset += left;
            LetOthersRun(left);
        }
        for (const Deadline deadline(seconds_); block == nullptr && left > 0;) {
            if (socket_.Empty()) return false;
            const int count = SocketSendFileNow(socket_.Handle(), file, offset, left);
            if (count == SOCKET_WOULD_BLOCK && WaitForRoom(deadline)) continue;
            if (count < 1) return false;
            offset += count;
            left -= count;
            LetOthersRun(count);
        }
    }
    return true;
}

bool Stream::PeerGone() {
    if (socket_.HasException()) return true;
    if (HasReadAhead()) return false;
    char byte;
    const int seen =
        transport_ != nullptr ? FillAhead() : SocketReceiveNow(socket_.Handle(), &byte, 1, true);
    return seen == 0 || seen == SOCKET_BROKEN;
}

void Stream::Detach() {
    if (transport_ != nullptr) transport_->SayGoodbye();
    transport_.reset();
    socket_ = CSocket();
}

void Stream::EndSending() {
    if (socket_.Empty()) return;
    Flush();
    if (transport_ != nullptr) transport_->SayGoodbye();
    SocketEndSending(socket_.Handle());
    // What still comes is nobody's: it needn't pass the transport.
    transport_.reset();
    const Deadline deadline(kLongestLingering);
    std::array<char, kLineRead> block;
    for (int taken = 0; taken < kMostLingering;) {
        const int count =
            ReceiveWaiting(block.data(), static_cast<int>(block.size()), deadline.Left(), nullptr);
        if (count < 1) return;
        taken += count;
    }
}

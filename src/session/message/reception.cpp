#include "session/message/reception.h"

#include <algorithm>
#include <memory>
#include <string>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kBlockSize = 32768;
constexpr int kReadSize = kBlockSize - 1;
// What is held back between two reads: longer than any end, so that one that has begun in one read
// is whole in the next.
constexpr std::size_t kTailSize = 10;
// What is read of a message that won't be stored, so that its client hears why, instead of finding
// the connection cut while it sends.
constexpr long long kMostDrained = 256LL << 20;
constexpr std::string_view kStartMail = "354 Enter mail, end with \".\" on a line by itself\r\n";
constexpr std::string_view kDiskFull =
    "452 Requested action not taken: insufficient system storage\r\n";

}  // namespace

void Reception::Begin() {
    refusal_ = Refusal::kNone;
    drained_ = 0;
    lastKeepAlive_ = std::chrono::steady_clock::now();
}

int Reception::Read(char* block, int size, milliseconds limit) {
    if (refusal_ != Refusal::kNone) limit = std::min(limit, drainUntil_.Left());
    return peers_.client.Read(block, size, limit, &peers_.server.Socket());
}

void Reception::Store(std::string_view bytes) {
    const auto length = static_cast<long long>(bytes.size());
    if (refusal_ != Refusal::kNone) {
        drained_ += length;
        return;
    }
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && spool_.Size() + length > limit) {
        Refuse(Refusal::kTooLarge);
    } else if (!spool_.Write(bytes.data(), bytes.size())) {
        Refuse(Refusal::kDiskFull);
    }
}

void Reception::Refuse(Refusal refusal) {
    refusal_ = refusal;
    spool_.Remove();
    drainUntil_ = Deadline(peers_.settings.connectionTimeout);
}

bool Reception::DrainedEnough() const {
    return refusal_ != Refusal::kNone && (drained_ > kMostDrained || drainUntil_.Over());
}

bool Reception::IntervalOver() const {
    return std::chrono::steady_clock::now() - lastKeepAlive_ >=
           seconds(peers_.settings.noopInterval);
}

Received Reception::Abandon() {
    spool_.Remove();
    return Received::kFailed;
}

Received Reception::AnswerAndEnd() {
    spool_.Remove();
    peers_.client.Send(refusal_ == Refusal::kTooLarge ? kMessageTooLarge : kDiskFull);
    peers_.client.EndSending();
    return Received::kFailed;
}

Received Reception::Finish() {
    if (refusal_ == Refusal::kTooLarge) return Received::kTooLarge;
    // A close that fails tells of a write that did: the message is not whole on the disk.
    if (refusal_ == Refusal::kNone && spool_.Close()) return Received::kWhole;
    return AnswerAndEnd();
}

bool Reception::Ended(const DataScanner& scanner, bool moreMayBeThere) {
    switch (scanner.Ending()) {
        case DataScanner::End::kNow:
            // With more behind it, it would be text.
            return !moreMayBeThere ||
                   peers_.client.WaitReadable(milliseconds(0)) != Stream::Wait::kReady ||
                   peers_.client.PeerGone();
        case DataScanner::End::kIfSilent:
            return peers_.client.WaitReadable(peers_.settings.silence, &peers_.server.Socket()) ==
                   Stream::Wait::kTimeOver;
        case DataScanner::End::kNone:
            break;
    }
    return false;
}

Received Reception::ReceiveData() {
    Begin();
    const auto block = std::make_unique_for_overwrite<char[]>(kBlockSize);
    if (!peers_.client.Send(kStartMail)) return Received::kFailed;
    if (!spool_.OpenNext()) Refuse(Refusal::kDiskFull);
    DataScanner scanner(false);
    std::string text;  // what is not in the file yet
    text.reserve(kBlockSize + kTailSize);
    for (;;) {
        const bool ahead = peers_.client.HasReadAhead();
        const int count = Read(block.get(), kReadSize, seconds(peers_.settings.connectionTimeout));
        if (DrainedEnough()) return AnswerAndEnd();
        if (count < 1) return Abandon();
        scanner.Feed({block.get(), static_cast<std::size_t>(count)}, text);
        const bool ended = Ended(scanner, ahead || count == kReadSize);
        const std::size_t held = scanner.HeldBack();
        if (ended || text.size() + held > kTailSize) {
            const std::size_t keep = ended ? 0 : std::min(kTailSize - held, text.size());
            const std::size_t ready = text.size() - keep;
            Store(std::string_view(text).substr(0, ready));
            text.erase(0, ready);
            if (IntervalOver()) {
                if (KeepAlive(&peers_) != 0) return Abandon();
                lastKeepAlive_ = std::chrono::steady_clock::now();  // a slow answer counts as well
            }
        }
        if (ended) return Finish();
    }
}

Received Reception::ReceiveChunk(bool first, long long size) {
    Begin();
    // The chunk goes to the file in blocks as it comes: the memory of a session doesn't follow the
    // chunk's size.
    const auto block = std::make_unique_for_overwrite<char[]>(kBlockSize);
    if (!(first ? spool_.OpenNext() : spool_.OpenAgain())) Refuse(Refusal::kDiskFull);
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && spool_.Size() + size > limit) Refuse(Refusal::kTooLarge);
    for (long long missing = size; missing > 0;) {
        const int most = static_cast<int>(std::min<long long>(missing, kBlockSize));
        const int count = Read(block.get(), most, seconds(peers_.settings.noopInterval));
        if (DrainedEnough()) return AnswerAndEnd();
        if (count < 1) return Abandon();  // also a client that has closed: nothing more will come
        missing -= count;
        Store({block.get(), static_cast<std::size_t>(count)});
    }
    if (refusal_ == Refusal::kNone && IntervalOver() && KeepAlive(&peers_) != 0) return Abandon();
    return Finish();
}

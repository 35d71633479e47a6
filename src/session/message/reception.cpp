#include "session/message/reception.h"

#include <algorithm>
#include <memory>
#include <string>

#include "platform/clock.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kSmallRead = 32768;
constexpr int kLargeRead = 262144;
// What is held back between two reads: longer than any end, so that one that has begun in one read
// is whole in the next.
constexpr std::size_t kTailSize = 10;
// What is read of a message that won't be stored, so that its client hears why, instead of finding
// the connection cut while it sends.
constexpr long long kMostDrained = 256LL << 20;
constexpr std::string_view kStartMail = "354 Enter mail, end with \".\" on a line by itself\r\n";
constexpr std::string_view kBareNewline =
    "521 5.5.2 A line feed or carriage return alone, closing transmission channel\r\n";
constexpr std::string_view kDiskFull =
    "452 Requested action not taken: insufficient system storage\r\n";

// Room for one read. It grows once a read has filled it, which no client has by words alone.
class ReadBlock {
  public:
    char* Data() const { return data_.get(); }
    int Size() const { return size_; }
    void GrowIfFilledBy(int count) {
        if (count < size_ || size_ == kLargeRead) return;
        size_ = kLargeRead;
        data_ = std::make_unique_for_overwrite<char[]>(kLargeRead);
    }

  private:
    int size_ = kSmallRead;
    std::unique_ptr<char[]> data_ = std::make_unique_for_overwrite<char[]>(kSmallRead);
};

}  // namespace

void Reception::Begin() {
    refusal_ = Refusal::kNone;
    drained_ = 0;
    lastKeepAlive_ = platform::LastTick();
}

int Reception::Read(char* block, int size, milliseconds limit) {
    if (refusal_ != Refusal::kNone) limit = std::min(limit, drainUntil_.Left());
    const int count = peers_.client.Read(block, size, limit, &peers_.server.Socket());
    if (count > 0) peers_.state.AddBytes(static_cast<std::uint64_t>(count));
    return count;
}

void Reception::Store(std::string_view bytes) {
    const auto length = static_cast<long long>(bytes.size());
    peers_.journal.Feed(bytes);
    if (refusal_ != Refusal::kNone) {
        drained_ += length;
        return;
    }
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && spool_.Size() + length > limit) {
        Refuse(Refusal::kTooLarge);
    } else if (!spool_.Write(bytes)) {
        Refuse(Refusal::kDiskFull);
    }
}

// Through the filter of line ends. atEnd: of the message.
void Reception::StoreLines(std::string_view bytes, bool atEnd) {
    if (newlines_.Idle()) return Store(bytes);
    lines_.clear();
    const bool good = newlines_.Feed(bytes, lines_) && (!atEnd || newlines_.Finish(lines_));
    // The first reason stands: a message that is only drained isn't looked at any more.
    if (!good && refusal_ == Refusal::kNone) Refuse(Refusal::kBareNewline);
    Store(lines_);
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
    return platform::LastTick() - lastKeepAlive_ >= seconds(peers_.settings.noopInterval);
}

void Reception::NoteReceived() { peers_.journal.Received(spool_.Size() + drained_); }

Received Reception::Abandon() {
    NoteReceived();
    spool_.Remove();
    return Received::kFailed;
}

Received Reception::AnswerAndEnd() {
    NoteReceived();
    spool_.Remove();
    const std::string answer = peers_.Own(refusal_ == Refusal::kTooLarge      ? kMessageTooLarge
                                          : refusal_ == Refusal::kBareNewline ? kBareNewline
                                                                              : kDiskFull);
    if (peers_.SendReply(answer)) peers_.journal.Replied(answer);
    peers_.client.EndSending();
    return Received::kFailed;
}

Received Reception::Finish() {
    if (refusal_ != Refusal::kTooLarge && (refusal_ != Refusal::kNone || !spool_.Close()))
        return AnswerAndEnd();
    NoteReceived();
    return refusal_ == Refusal::kTooLarge ? Received::kTooLarge : Received::kWhole;
}

bool Reception::Ended(const DataScanner& scanner, bool moreMayBeThere) {
    switch (scanner.Ending()) {
        case DataScanner::End::kNow:
            // With more behind it, it would be text, but for a client that may send more commands.
            return peers_.pipelining || !moreMayBeThere ||
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
    const PhaseScope scope(peers_.state, SessionPhase::kReceiving);
    Begin();
    ReadBlock block;
    if (!peers_.SendReply(kStartMail)) return Received::kFailed;
    if (!spool_.OpenNext()) Refuse(Refusal::kDiskFull);
    newlines_ = NewlineFilter(peers_.settings.options.bareNewline);
    DataScanner scanner(peers_.pipelining, !newlines_.Idle());
    std::string text;  // what is not in the file yet
    text.reserve(kSmallRead + kTailSize);
    for (;;) {
        const bool ahead = peers_.client.HasReadAhead();
        const int count =
            Read(block.Data(), block.Size(), seconds(peers_.settings.connectionTimeout));
        if (DrainedEnough()) return AnswerAndEnd();
        if (count < 1) return Abandon();
        const std::string_view bytes(block.Data(), static_cast<std::size_t>(count));
        const std::size_t used = scanner.Feed(bytes, text);
        const bool ended = Ended(scanner, ahead || count == block.Size());
        if (used < bytes.size()) peers_.client.PutBack(bytes.substr(used));
        const std::size_t held = scanner.HeldBack();
        // Where line ends are looked at, it is done at once: nothing waits for more to come.
        const bool all = ended || !newlines_.Idle();
        if (all || text.size() + held > kTailSize) {
            const std::size_t keep = all ? 0 : std::min(kTailSize - held, text.size());
            const std::size_t ready = text.size() - keep;
            StoreLines(std::string_view(text).substr(0, ready), ended);
            if (refusal_ == Refusal::kBareNewline) return AnswerAndEnd();
            text.erase(0, ready);
            if (IntervalOver()) {
                if (KeepAlive(&peers_) != 0) return Abandon();
                lastKeepAlive_ = platform::LastTick();  // a slow answer counts as well
            }
        }
        if (ended) return Finish();
        block.GrowIfFilledBy(count);
    }
}

Received Reception::ReceiveChunk(const Chunk& chunk) {
    const PhaseScope scope(peers_.state, SessionPhase::kReceiving);
    Begin();
    if (chunk.first)
        newlines_ = NewlineFilter(chunk.binary ? BareNewline::kAccept
                                               : peers_.settings.options.bareNewline);
    // The chunk goes to the file in blocks as it comes: the memory of a session doesn't follow the
    // chunk's size.
    ReadBlock block;
    if (!(chunk.first ? spool_.OpenNext() : spool_.OpenAgain())) Refuse(Refusal::kDiskFull);
    const long long limit = peers_.settings.maxMessageSize;
    if (limit > 0 && spool_.Size() + chunk.size > limit) Refuse(Refusal::kTooLarge);
    for (long long missing = chunk.size; missing > 0;) {
        const int most = static_cast<int>(std::min<long long>(missing, block.Size()));
        const int count = Read(block.Data(), most, seconds(peers_.settings.noopInterval));
        if (DrainedEnough()) return AnswerAndEnd();
        if (count < 1) return Abandon();  // also a client that has closed: nothing more will come
        missing -= count;
        StoreLines({block.Data(), static_cast<std::size_t>(count)}, false);
        if (refusal_ == Refusal::kBareNewline) return AnswerAndEnd();
        // A server has no more patience with a message in one chunk than with any other.
        if (missing > 0 && IntervalOver()) {
            if (KeepAlive(&peers_) != 0) return Abandon();
            lastKeepAlive_ = platform::LastTick();
        }
        block.GrowIfFilledBy(count);
    }
    if (chunk.last) StoreLines({}, true);
    if (refusal_ == Refusal::kBareNewline) return AnswerAndEnd();
    if (refusal_ == Refusal::kNone && IntervalOver() && KeepAlive(&peers_) != 0) return Abandon();
    return Finish();
}

#include "session/reception.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <new>

#include "session/session.h"

namespace {

// What is held back between two reads: longer than any marker, so that one that has begun in one
// read is whole in the next.
constexpr std::size_t kTailSize = 10;
// Room in front of a read for the tail and the dots that guarding added to it.
constexpr std::size_t kTailRoom = 64;
constexpr int kReadSize = kBlockSize - 1;
constexpr int kMaxIdleReads = 10;
constexpr char kStartMail[] = "354 Enter mail, end with \".\" on a line by itself\r\n";
constexpr char kDiskFull[] = "452 Requested action not taken: insufficient system storage\r\n";

using Clock = std::chrono::steady_clock;

// Whether a line that begins here is one dot.
bool IsLoneDot(const char* at, const char* end) {
    if (end - at < 2 || at[0] != '.') return false;
    return at[1] == '\n' || (end - at >= 3 && at[1] == '\r' && at[2] == '\n');
}

// Calls use(at) for each lone dot, from the first to the last, until it gives false.
template <typename Use>
void ForEachLoneDot(std::string_view text, bool fromStart, Use use) {
    // Line by line: the system's search for one byte is many times faster than one for a pattern.
    const char* const end = text.data() + text.size();
    const char* at = text.data();
    if (fromStart && IsLoneDot(at, end) && !use(at)) return;
    while (at < end) {
        at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        if (at == nullptr) return;
        ++at;
        if (IsLoneDot(at, end) && !use(at)) return;
    }
}

}  // namespace

EndMarker FindEndMarker(std::string_view text) {
    if (text.ends_with("\r\n.\r\n")) return EndMarker::kCrLf;
    if (text.ends_with("\n.\n")) return EndMarker::kLf;
    if (text == ".\r\n") return EndMarker::kAloneCrLf;
    if (text == ".\n") return EndMarker::kAloneLf;
    return EndMarker::kNone;
}

std::size_t EndMarkerLength(EndMarker marker) {
    // A message of the marker alone is an empty message: nothing of the marker is stored.
    switch (marker) {
        case EndMarker::kCrLf:
        case EndMarker::kAloneCrLf:
            return 3;
        case EndMarker::kLf:
        case EndMarker::kAloneLf:
            return 2;
        case EndMarker::kNone:
            break;
    }
    return 0;
}

bool HasLoneDot(std::string_view text, bool fromStart) {
    bool found = false;
    ForEachLoneDot(text, fromStart, [&found](const char*) {
        found = true;
        return false;
    });
    return found;
}

std::string GuardLoneDots(std::string_view text, bool fromStart) {
    std::string guarded;
    guarded.reserve(text.size() + 64);
    const char* copied = text.data();
    ForEachLoneDot(text, fromStart, [&guarded, &copied](const char* dot) {
        guarded.append(copied, dot).push_back('.');
        copied = dot;
        return true;
    });
    return guarded.append(copied, text.data() + text.size());
}

int CSMTPProxy::Abandon(platform::File& file) {
    file.Close();
    RemoveSpoolFile();
    return 0;
}

int CSMTPProxy::ReceiveData() {
    auto lastKeepAlive = Clock::now();
    // Not cleared: bytes are counted, never taken for a terminated text.
    const std::unique_ptr<char[]> block(new (std::nothrow) char[kTailRoom + kBlockSize]);
    if (block == nullptr) return 0;
    if (clientSocket.SendAll(kStartMail) == 0) return 0;
    platform::File file = OpenNextSpoolFile();
    if (!file) return 0;

    std::size_t tail = 0;  // bytes at the start of the block that are not written yet
    bool nothingWritten = true;
    int idleReads = 0;
    for (;;) {
        if (serverSocket.HasException()) return Abandon(file);
        const int count =
            clientSocket.ReceiveTimed(block.get() + tail, kReadSize, connectionTimeout);
        if (count < 0) return Abandon(file);
        if (count == 0) {
            if (idleReads > kMaxIdleReads) return Abandon(file);
            ++idleReads;
        } else {
            idleReads = 0;
        }
        const std::size_t have = tail + static_cast<std::size_t>(count);
        std::string_view text(block.get(), have);
        const EndMarker marker = FindEndMarker(text);
        text.remove_suffix(EndMarkerLength(marker));
        std::string guarded;
        if (HasLoneDot(text, nothingWritten)) {
            guarded = GuardLoneDots(text, nothingWritten);
            text = guarded;
        }
        std::string_view rest;
        if (marker == EndMarker::kNone) {
            const std::size_t keep = have > kTailSize ? kTailSize : text.size();
            rest = text.substr(text.size() - keep);
            text.remove_suffix(keep);
        }
        if (marker != EndMarker::kNone || have > kTailSize) {
            if (!file.Write(text.data(), text.size())) {
                Abandon(file);
                clientSocket.SendAll(kDiskFull);
                return 0;
            }
            nothingWritten = nothingWritten && text.empty();
            const auto now = Clock::now();
            if (now - lastKeepAlive >= std::chrono::seconds(noopInterval)) {
                if (KeepAlive(this) != 0) return Abandon(file);
                lastKeepAlive = Clock::now();  // a slow answer counts as well
            }
        }
        if (marker != EndMarker::kNone) {
            if (file.Close()) return 1;
            // The system held back a write error until now: the message is not whole on the disk.
            Abandon(file);
            clientSocket.SendAll(kDiskFull);
            return 0;
        }
        tail = rest.size();
        std::memmove(block.get(), rest.data(), tail);
    }
}

int CSMTPProxy::ReceiveChunk(int first, int size) {
    const auto start = Clock::now();
    // The chunk goes to the file in blocks as it comes: the memory of a session doesn't follow the
    // chunk's size.
    const std::unique_ptr<char[]> block(new (std::nothrow) char[kBlockSize]);
    if (block == nullptr) return 0;
    platform::File file =
        first != 0 ? OpenNextSpoolFile() : platform::File::OpenAppend(SpoolPath().c_str());
    if (!file) return 0;
    bool stored = true;
    for (int missing = size; missing > 0;) {
        if (serverSocket.HasException()) return Abandon(file);
        const int count = clientSocket.ReceiveTimed(
            block.get(), missing < kBlockSize ? missing : kBlockSize, noopInterval);
        if (count < 1)
            return Abandon(file);  // also a client that has closed: nothing more will come
        missing -= count;
        // After a failure the chunk is read to its end all the same, so that the client sees its
        // reply.
        stored = stored && file.Write(block.get(), static_cast<std::size_t>(count));
    }
    if (stored && Clock::now() - start >= std::chrono::seconds(noopInterval) &&
        KeepAlive(this) != 0)
        return Abandon(file);
    stored = file.Close() && stored;
    if (stored) return 1;
    Abandon(file);
    clientSocket.SendAll(kDiskFull);
    return 0;
}

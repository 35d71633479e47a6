// Receiving: from the bytes of reads to messages.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "lipc/channel.h"

namespace {

std::uint32_t ReadNumber(const unsigned char* at) {
    return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
           static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

// Takes header bytes; gives how many were used. A whole header starts the body, or is thrown away
// with the read.
std::uint32_t TakeHeader(PipeChannel& channel, const char* data, std::uint32_t count) {
    const std::uint32_t used = std::min(kFrameHeaderSize - channel.headerHave, count);
    std::memcpy(channel.headerIn.data() + channel.headerHave, data, used);
    channel.headerHave += used;
    if (channel.headerHave < kFrameHeaderSize) return used;
    channel.headerHave = 0;
    if (std::memcmp(channel.headerIn.data(), kFrameMagic, kFrameMagicCompared) != 0) return count;
    channel.bodyLeft = ReadNumber(channel.headerIn.data() + kFrameRemainingOffset);
    // A frame without payload could never end.
    if (channel.bodyLeft == 0) return count;
    channel.incoming.clear();
    channel.readState = kBusy;
    return used;
}

std::uint32_t TakeBody(PipeChannel& channel, const char* data, std::uint32_t count) {
    // Bytes behind the body belong to the next frame's header.
    const std::uint32_t used = std::min(channel.bodyLeft, count);
    channel.incoming.insert(channel.incoming.end(), data, data + used);
    channel.bodyLeft -= used;
    if (channel.bodyLeft > 0) return used;
    {
        const std::lock_guard lock(channel.lock);
        if (channel.ready.empty())
            channel.ready.swap(channel.incoming);
        else
            channel.ready.insert(channel.ready.end(), channel.incoming.begin(),
                                 channel.incoming.end());
    }
    channel.readState = kIdle;
    channel.Call(kPipeMessage);
    return used;
}

// False if the channel is no good any more.
bool Take(PipeChannel& channel, std::uint32_t count) {
    try {
        for (const char* at = channel.readBuffer.data(); count > 0;) {
            const std::uint32_t used = channel.readState == kIdle ? TakeHeader(channel, at, count)
                                                                  : TakeBody(channel, at, count);
            if (channel.readState == kBusy && channel.bodyLeft > kFrameMaxPayload) return false;
            at += used;
            count -= used;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace

void PipeFail(PipeChannel& channel, DWORD error) {
    if (channel.readState.exchange(kFailedState) == kFailedState) return;  // told already
    channel.writeState = kFailedState;
    channel.Call(error == ERROR_BROKEN_PIPE ? kPipePeerClosed : kPipeFailed);
}

void PipeReadOn(PipeChannel& channel, DWORD count) {
    for (;;) {
        if (!Take(channel, count)) return PipeFail(channel, 0);
        ++channel.pendingIo;
        std::unique_lock lock(channel.lock);
        if (channel.closing) {
            --channel.pendingIo;
            return;
        }
        const bool done = ReadFile(channel.pipe.Get(), channel.readBuffer.data(), kPipeBufferSize,
                                   &count, &channel.readIo.overlapped) != FALSE;
        lock.unlock();
        if (!done) {
            // Another thread may have its completion already.
            if (GetLastError() == ERROR_IO_PENDING) return;
            --channel.pendingIo;
            return PipeFail(channel, GetLastError());
        }
        // Between frames behind what waits in the queue: a peer that sends without end holds up no
        // other.
        if (channel.readState != kBusy) {
            PostQueuedCompletionStatus(channel.queue, count, kKeyIo, &channel.readIo.overlapped);
            return;
        }
        --channel.pendingIo;
    }
}

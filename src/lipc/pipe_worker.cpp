#include <algorithm>
#include <cstring>
#include <new>

#include "lipc/channel.h"
#include "lipc/lipc.h"

namespace {

std::uint32_t ReadNumber(const unsigned char* at) {
    return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
           static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

// A failed start goes the road of a completion.
int StartFailed(PipeChannel& channel, PipeIoRecord& record) {
    record.lastError = GetLastError();
    if (PostQueuedCompletionStatus(channel.port, 0, kKeyFailedStart, &record.overlapped) != FALSE)
        return LIPC_BROKEN;
    --channel.pendingIo;
    return LIPC_FAILED;
}

void Fail(PipeChannel& channel, DWORD error) {
    if (channel.readState == kFailedState) return;  // told already
    channel.readState = kFailedState;
    channel.writeState = kFailedState;
    SetEvent(channel.failedEvent.Get());
    channel.Call(error == ERROR_BROKEN_PIPE ? kPipePeerClosed : kPipeFailed);
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
    ChunkAppend(channel.incoming, data, used);
    channel.bodyLeft -= used;
    if (channel.bodyLeft > 0) return used;
    {
        const std::lock_guard lock(channel.lock);
        ChunkSplice(channel.readyBytes, channel.incoming);
    }
    channel.readState = kIdle;
    SetEvent(channel.messageEvent.Get());
    channel.Call(kPipeMessage);
    return used;
}

void OnRead(PipeChannel& channel, std::uint32_t count) {
    try {
        for (const char* at = channel.readBuffer.data(); count > 0;) {
            const std::uint32_t used = channel.readState == kIdle ? TakeHeader(channel, at, count)
                                                                  : TakeBody(channel, at, count);
            if (channel.readState == kBusy && channel.bodyLeft > kFrameMaxPayload)
                return Fail(channel, 0);
            at += used;
            count -= used;
        }
    } catch (const std::bad_alloc&) {
        return Fail(channel, 0);
    }
    PipeStartRead(channel);
}

// The next piece of the frame into the write buffer. False if there is none.
bool TakePiece(PipeChannel& channel) {
    if (channel.sendLeft == 0) return false;
    {
        const std::lock_guard lock(channel.lock);
        channel.writeCount =
            ChunkTake(channel.sendQueue, channel.writeBuffer.data(), kPipeBufferSize);
    }
    channel.sendLeft -= channel.writeCount;
    return true;
}

void OnWritten(PipeChannel& channel) {
    bool finished = true;
    if (TakePiece(channel) && PipeWriteOn(channel, &finished) != LIPC_OK) return;
    if (!finished) return;
    channel.writeState = kIdle;
    SetEvent(channel.writeDoneEvent.Get());
    channel.Call(kPipeWritten);
}

void OnCompletion(PipeIoRecord& record, DWORD error, DWORD bytes) {
    PipeChannel& channel = *record.owner;
    if (error != 0) {
        Fail(channel, error);
    } else if (&record == &channel.connectIo) {
        channel.readState = kIdle;
        channel.writeState = kIdle;
        SetEvent(channel.connectedEvent.Get());
        PipeStartRead(channel);
    } else if (channel.readState == kFailedState) {
        // Nothing new is started on a failed channel.
    } else if (&record == &channel.readIo) {
        OnRead(channel, bytes);
    } else {
        OnWritten(channel);
    }
}

}  // namespace

int PipeStartRead(PipeChannel& channel) {
    ++channel.pendingIo;
    DWORD count = 0;
    if (ReadFile(channel.pipe.Get(), channel.readBuffer.data(), kPipeBufferSize, &count,
                 &channel.readIo.overlapped) == FALSE)
        return GetLastError() == ERROR_IO_PENDING ? LIPC_OK : StartFailed(channel, channel.readIo);
    // Behind what waits in the queue already: a peer that sends without end holds up no other.
    if (PostQueuedCompletionStatus(channel.port, count, kKeyIo, &channel.readIo.overlapped) !=
        FALSE)
        return LIPC_OK;
    --channel.pendingIo;
    return LIPC_FAILED;
}

int PipeWriteOn(PipeChannel& channel, bool* finished) {
    *finished = false;
    do {
        ++channel.pendingIo;
        if (WriteFile(channel.pipe.Get(), channel.writeBuffer.data(), channel.writeCount, nullptr,
                      &channel.writeIo.overlapped) == FALSE)
            return GetLastError() == ERROR_IO_PENDING ? LIPC_OK
                                                      : StartFailed(channel, channel.writeIo);
        --channel.pendingIo;
    } while (TakePiece(channel));
    *finished = true;
    return LIPC_OK;
}

DWORD PipeWorker(LPVOID port) {
    for (;;) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        const bool good =
            GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE) != FALSE;
        if (good && key == kKeyEnd) return 0;
        if (overlapped == nullptr) continue;
        auto& record = *reinterpret_cast<PipeIoRecord*>(overlapped);
        if (key == kKeyCancel) {
            // What the worker has started only the worker can cancel. The channel waits in
            // PipeClose meanwhile.
            CancelIo(record.owner->pipe.Get());
            --record.owner->pendingIo;
            continue;
        }
        DWORD error = key == kKeyFailedStart ? record.lastError : good ? 0 : GetLastError();
        record.lastError = error;
        std::atomic<std::int32_t>& pending = record.owner->pendingIo;
        if (!record.cancelled && error != ERROR_OPERATION_ABORTED)
            OnCompletion(record, error, bytes);
        --pending;
    }
}

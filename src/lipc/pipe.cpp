#include "lipc/pipe.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>

#include "lipc/channel.h"
#include "lipc/lipc.h"

namespace {

constexpr std::chrono::milliseconds kLongestPoll{250};
constexpr DWORD kPipeInstances = 255;
constexpr DWORD kListenAccess = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;

// A slot is empty, reserved while its channel is being opened, or holds a channel. The table is
// there for the life of the process. A channel's number is used by one holder at a time, who closes
// it.
struct Slot {
    bool reserved = false;
    std::shared_ptr<PipeChannel> channel;
};
struct ChannelTable {
    std::mutex lock;  // guards all below; never taken by a worker
    std::array<Slot, kPipeTableSize> slots;
    PipeWorkerContext workers[2];  // connecting, listening
};
ChannelTable& Table() {
    static ChannelTable& table = *new ChannelTable;
    return table;
}

std::shared_ptr<PipeChannel> Find(int channel) {
    if (channel < 0 || channel >= kPipeTableSize) return nullptr;
    const std::lock_guard lock(Table().lock);
    return Table().slots[static_cast<std::size_t>(channel)].channel;
}

// Waits for the event or the channel's failure: 0, -5, or the status of a failure; which that is, a
// state may tell.
int WaitFor(PipeChannel& channel, HANDLE event, const std::atomic<int>* state = nullptr) {
    const HANDLE handles[] = {event, channel.failedEvent.Get()};
    switch (WaitForMultipleObjects(2, handles, FALSE, WaitLimit(channel.timeout))) {
        case WAIT_OBJECT_0:
            return LIPC_OK;
        case WAIT_TIMEOUT:
            return LIPC_TIMED_OUT;
        default:
            return state != nullptr && *state == kFailedState ? LIPC_BROKEN : LIPC_FAILED;
    }
}

bool StartWorker(PipeWorkerContext& worker, PipeChannel& channel) {
    const std::lock_guard lock(Table().lock);
    if (worker.channels == 0) {
        worker.port.Reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
        if (worker.port)
            worker.thread.Reset(
                CreateThread(nullptr, 0, PipeWorker, worker.port.Get(), 0, nullptr));
        if (!worker.thread) {
            worker.port.Reset();
            return false;
        }
    }
    ++worker.channels;
    channel.port = worker.port.Get();
    return true;
}

void StopWorker(PipeWorkerContext& worker) {
    const std::lock_guard lock(Table().lock);
    if (worker.channels > 0) --worker.channels;
    if (worker.channels > 0 || !worker.thread) return;
    PostQueuedCompletionStatus(worker.port.Get(), 0, kKeyEnd, nullptr);
    WaitForSingleObject(worker.thread.Get(), INFINITE);
    worker.thread.Reset();
    worker.port.Reset();
}

// Until every completion of the channel has been dealt with: at once as a rule, else with growing
// pauses.
void WaitForPendingIo(const PipeChannel& channel) {
    for (auto pause = std::chrono::milliseconds(1); channel.pendingIo > 0;
         pause = std::min(pause * 2, kLongestPoll))
        std::this_thread::sleep_for(pause);
}

void EndIo(PipeChannel& channel) {
    if (!channel.pipe) return;
    // A completion that the worker finds behind the cancel below must start no further operation:
    // nobody would end that one.
    for (PipeIoRecord* record : {&channel.connectIo, &channel.readIo, &channel.writeIo})
        record->cancelled = true;
    ++channel.pendingIo;
    if (PostQueuedCompletionStatus(channel.port, 0, kKeyCancel, &channel.connectIo.overlapped) ==
        FALSE)
        --channel.pendingIo;
    // Also a write that a sender had begun when its time ran out.
    CancelIoEx(channel.pipe.Get(), nullptr);
    WaitForPendingIo(channel);
    channel.pendingIo = 0;
}

int StatusOfOpen(DWORD error) {
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return LIPC_NOT_THERE;
    return error == ERROR_PIPE_BUSY ? LIPC_BUSY : LIPC_FAILED;
}

// What is done at once is dealt with by the thread that started it, without a turn of the worker.
bool BindToWorker(PipeChannel& channel) {
    const HANDLE pipe = channel.pipe.Get();
    return CreateIoCompletionPort(pipe, channel.port, kKeyIo, 0) != nullptr &&
           SetFileCompletionNotificationModes(pipe, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) != FALSE;
}

int Connect(PipeChannel& channel, const char* path) {
    channel.pipe.Reset(CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_OVERLAPPED, nullptr));
    if (!channel.pipe) return StatusOfOpen(GetLastError());
    if (!BindToWorker(channel)) return LIPC_FAILED;
    ++channel.pendingIo;
    if (PostQueuedCompletionStatus(channel.port, 0, kKeyIo, &channel.connectIo.overlapped) ==
        FALSE) {
        --channel.pendingIo;
        return LIPC_FAILED;
    }
    return WaitFor(channel, channel.connectedEvent.Get());
}

int Listen(PipeChannel& channel, const char* path) {
    channel.pipe.Reset(CreateNamedPipeA(path, kListenAccess, PIPE_TYPE_BYTE, kPipeInstances,
                                        kPipeBufferSize, kPipeBufferSize, INFINITE, nullptr));
    if (!channel.pipe || !BindToWorker(channel)) return LIPC_FAILED;
    channel.connectIo.cancelled = true;
    CancelIo(channel.pipe.Get());
    DisconnectNamedPipe(channel.pipe.Get());
    WaitForPendingIo(channel);
    channel.connectIo.cancelled = false;
    ++channel.pendingIo;
    if (ConnectNamedPipe(channel.pipe.Get(), &channel.connectIo.overlapped) == FALSE &&
        GetLastError() != ERROR_IO_PENDING) {
        --channel.pendingIo;
        return LIPC_FAILED;
    }
    const int status = WaitFor(channel, channel.connectedEvent.Get());
    return status == LIPC_TIMED_OUT && channel.timeout == 0 ? LIPC_OK : status;
}

std::shared_ptr<PipeChannel> MakeChannel(const char* name) {
    auto channel = std::make_shared<PipeChannel>();
    channel->name = name;
    for (UniqueHandle* event : {&channel->writeDoneEvent, &channel->messageEvent,
                                &channel->failedEvent, &channel->connectedEvent}) {
        event->Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        if (!*event) return nullptr;
    }
    for (PipeIoRecord* record : {&channel->connectIo, &channel->readIo, &channel->writeIo})
        record->owner = channel.get();
    return channel;
}

int Reserve() {
    const std::lock_guard lock(Table().lock);
    for (int number = 0; number < kPipeTableSize; ++number) {
        Slot& slot = Table().slots[static_cast<std::size_t>(number)];
        if (slot.reserved) continue;
        slot.reserved = true;
        return number;
    }
    return LIPC_TABLE_FULL;
}

void SetSlot(int number, std::shared_ptr<PipeChannel> channel) {
    const std::lock_guard lock(Table().lock);
    Slot& slot = Table().slots[static_cast<std::size_t>(number)];
    slot.reserved = channel != nullptr;
    slot.channel = std::move(channel);
}

int Open(PipeChannel& channel) {
    PipeWorkerContext& worker = Table().workers[channel.isClient ? 0 : 1];
    if (!StartWorker(worker, channel)) return LIPC_FAILED;
    char path[1024];
    std::snprintf(path, sizeof path, "\\\\.\\pipe\\%s", channel.name.c_str());
    const int status = channel.isClient ? Connect(channel, path) : Listen(channel, path);
    if (status == LIPC_OK) return LIPC_OK;
    EndIo(channel);
    channel.pipe.Reset();
    StopWorker(worker);
    return status;
}

}  // namespace

int PipeOpen(const char* name, unsigned flags, ...) {
    if (name == nullptr) return LIPC_BAD_ARGUMENT;
    const int number = Reserve();
    if (number < 0) return number;
    int status = LIPC_NO_MEMORY;
    std::shared_ptr<PipeChannel> channel;
    try {
        channel = MakeChannel(name);
        if (channel == nullptr) status = LIPC_FAILED;
    } catch (const std::bad_alloc&) {
    }
    if (channel != nullptr) {
        va_list list;
        va_start(list, flags);
        if ((flags & kPipeCallback) != 0) {
            channel->callback = va_arg(list, PipeCallback);
            channel->callbackContext = va_arg(list, void*);
        }
        if ((flags & kPipeTimeout) != 0) channel->timeout = va_arg(list, int);
        va_end(list);
        channel->isClient = (flags & kPipeListen) == 0;
        status = Open(*channel);
    }
    SetSlot(number, status == LIPC_OK ? channel : nullptr);
    return status == LIPC_OK ? number : status;
}

int PipeClose(int number) {
    std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    SetSlot(number, nullptr);
    EndIo(*channel);
    // Closed while its worker still runs, which has to let go of it.
    channel->pipe.Reset();
    StopWorker(Table().workers[channel->isClient ? 0 : 1]);
    return LIPC_OK;
}

int PipeSend(int number, const void* data, std::uint32_t length) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || data == nullptr || length == 0) return LIPC_BAD_ARGUMENT;
    if (channel->writeState == kFailedState) return LIPC_BROKEN;
    if (channel->writeState == kNotConnected) return LIPC_BUSY;
    bool queued = false;
    {
        const std::lock_guard lock(channel->lock);
        queued = !channel->sendQueue.empty();
    }
    if (queued) {
        const int status = WaitFor(*channel, channel->writeDoneEvent.Get(), &channel->writeState);
        if (status != LIPC_OK) return status;
    }
    int idle = kIdle;
    if (!channel->writeState.compare_exchange_strong(idle, kBusy) && idle == kFailedState)
        return LIPC_BROKEN;
    try {
        const std::lock_guard lock(channel->lock);
        ChunkAppend(channel->sendQueue, data, length);
        char* header = channel->writeBuffer.data();
        std::memset(header, 0, kFrameHeaderSize);
        std::memcpy(header, kFrameMagic, sizeof kFrameMagic);
        for (std::uint32_t i = 0; i < 4; ++i) {
            const char byte = static_cast<char>(length >> (8 * i));
            header[kFrameLengthOffset + i] = byte;
            header[kFrameRemainingOffset + i] = byte;
        }
        channel->sendLeft = length;
        channel->writeCount = kFrameHeaderSize;
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
    bool finished = false;
    int status = PipeWriteOn(*channel, &finished);
    if (status != LIPC_OK) return status;
    if (finished) {
        // All of it went out at once, as a rule: the worker has nothing to do with it. A channel
        // that has failed meanwhile stays so.
        int busy = kBusy;
        channel->writeState.compare_exchange_strong(busy, kIdle);
        channel->Call(kPipeWritten);
        return static_cast<int>(length);
    }
    status = WaitFor(*channel, channel->writeDoneEvent.Get(), &channel->writeState);
    return status == LIPC_OK ? static_cast<int>(length) : status;
}

int PipeBytesWaiting(int number, std::uint32_t* count) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || count == nullptr) return LIPC_BAD_ARGUMENT;
    const std::lock_guard lock(channel->lock);
    *count = ChunkTotal(channel->readyBytes);
    return LIPC_OK;
}

int PipeReceive(int number, void* buffer, std::uint32_t size) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || buffer == nullptr) return LIPC_BAD_ARGUMENT;
    if (channel->readState == kNotConnected) return LIPC_BUSY;
    // What came whole before the peer closed is still good: a close costs the connection only.
    const auto take = [&channel, buffer, size] {
        const std::lock_guard lock(channel->lock);
        return ChunkTake(channel->readyBytes, buffer, size);
    };
    if (channel->readState == kFailedState) {
        const std::uint32_t left = take();
        return left > 0 ? static_cast<int>(left) : LIPC_BROKEN;
    }
    const int status = WaitFor(*channel, channel->messageEvent.Get(), &channel->readState);
    const std::uint32_t count = status == LIPC_OK || status == LIPC_BROKEN ? take() : 0;
    if (count == 0) return status == LIPC_OK ? LIPC_FAILED : status;
    const std::lock_guard lock(channel->lock);
    if (!channel->readyBytes.empty()) SetEvent(channel->messageEvent.Get());
    return static_cast<int>(count);
}

int PipeSetTimeout(int number, std::int32_t timeoutMs) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    channel->timeout = timeoutMs;
    return LIPC_OK;
}

int PipeAbandonSend(int number) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    channel->writeState = kFailedState;
    SetEvent(channel->failedEvent.Get());
    return LIPC_OK;
}

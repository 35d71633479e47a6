#include "lipc/pipe.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "lipc/channel.h"
#include "lipc/lipc.h"
#include "lipc/wait_end.h"

namespace {

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
    std::mutex lock;  // guards the slots
    std::array<Slot, kPipeTableSize> slots;
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

void OnConnected(PipeChannel& channel) {
    channel.readState = kIdle;
    channel.writeState = kIdle;
    if (channel.Listens()) channel.Call(kPipeConnected);
    PipeReadOn(channel, 0);
}

// The frame is out. A channel that has failed meanwhile stays so.
void OnWritten(PipeChannel& channel) {
    if (channel.frame.size() > kPipeBufferSize) std::vector<char>().swap(channel.frame);
    int busy = kBusy;
    channel.writeState.compare_exchange_strong(busy, kIdle);
    channel.Call(kPipeWritten);
}

void OnCompletion(PipeChannel& channel, const PipeIoRecord& record, DWORD error, DWORD bytes) {
    if (error != 0) {
        PipeFail(channel, error);
    } else if (&record == &channel.connectIo) {
        OnConnected(channel);
    } else if (channel.readState == kFailedState) {
        // Nothing new is started on a failed channel.
    } else if (&record == &channel.readIo) {
        PipeReadOn(channel, bytes);
    } else {
        OnWritten(channel);
    }
}

// Steps the channel's queue until there is what is waited for, or the channel's time is over: 0,
// -5, or -13.
template <class Done>
int StepUntil(PipeChannel& channel, const Done& done) {
    const WaitEnd end(channel.timeout);
    int status = LIPC_OK;
    while (status == LIPC_OK && !done()) status = PipeStepQueue(channel.queue, end.Left());
    return status;
}

std::string PathOf(const char* name) { return std::string("\\\\.\\pipe\\") + name; }

int StatusOfOpen(DWORD error) {
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return LIPC_NOT_THERE;
    return error == ERROR_PIPE_BUSY ? LIPC_BUSY : LIPC_FAILED;
}

// What is done at once is dealt with by the thread that started it.
bool BindToQueue(const PipeChannel& channel) {
    const HANDLE pipe = channel.pipe.Get();
    return CreateIoCompletionPort(pipe, channel.queue, kKeyIo, 0) != nullptr &&
           SetFileCompletionNotificationModes(pipe, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) != FALSE;
}

int Connect(PipeChannel& channel, const char* path) {
    channel.pipe.Reset(CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_OVERLAPPED, nullptr));
    if (!channel.pipe) return StatusOfOpen(GetLastError());
    channel.ownQueue.Reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    channel.queue = channel.ownQueue.Get();
    if (!channel.ownQueue || !BindToQueue(channel)) return LIPC_FAILED;
    OnConnected(channel);
    return LIPC_OK;
}

HANDLE NewInstance(const char* path) {
    return CreateNamedPipeA(path, kListenAccess, PIPE_TYPE_BYTE, kPipeInstances, kPipeBufferSize,
                            kPipeBufferSize, INFINITE, nullptr);
}

int Listen(PipeChannel& channel, const char* path) {
    channel.pipe.Reset(NewInstance(path));
    if (!channel.pipe || !BindToQueue(channel)) return LIPC_FAILED;
    ++channel.pendingIo;
    if (ConnectNamedPipe(channel.pipe.Get(), &channel.connectIo.overlapped) != FALSE ||
        GetLastError() == ERROR_IO_PENDING)
        return LIPC_OK;
    --channel.pendingIo;
    return LIPC_FAILED;
}

void EndIo(PipeChannel& channel) {
    {
        const std::lock_guard lock(channel.lock);
        channel.closing = true;
    }
    channel.pipe.Reset();
    // What was outstanding has its completion in the queue; what another thread has in hand ends by
    // itself.
    while (channel.pendingIo > 0) PipeStepQueue(channel.queue, 1);
}

// The frame in one piece: header and payload leave with one write.
void BuildFrame(std::vector<char>& frame, const void* data, std::uint32_t length) {
    frame.resize(kFrameHeaderSize + std::size_t{length});
    char* header = frame.data();
    std::memset(header, 0, kFrameHeaderSize);
    std::memcpy(header, kFrameMagic, sizeof kFrameMagic);
    for (std::uint32_t i = 0; i < 4; ++i) {
        const char byte = static_cast<char>(length >> (8 * i));
        header[kFrameLengthOffset + i] = byte;
        header[kFrameRemainingOffset + i] = byte;
    }
    std::memcpy(header + kFrameHeaderSize, data, length);
}

// The serving threads that take completions may all have a frame that waits for its client: each
// sees to its own.
int SendHere(PipeChannel& channel) {
    if (WriteFileWithin(channel.pipe.Get(), channel.frame.data(),
                        static_cast<DWORD>(channel.frame.size()),
                        WaitLimit(channel.timeout)) != FALSE) {
        OnWritten(channel);
        return LIPC_OK;
    }
    const bool late = GetLastError() == WAIT_TIMEOUT;
    channel.writeState = kFailedState;
    return late ? LIPC_TIMED_OUT : LIPC_BROKEN;
}

int SendByQueue(PipeChannel& channel) {
    ++channel.pendingIo;
    if (WriteFile(channel.pipe.Get(), channel.frame.data(),
                  static_cast<DWORD>(channel.frame.size()), nullptr,
                  &channel.writeIo.overlapped) != FALSE) {
        --channel.pendingIo;
        OnWritten(channel);
        return LIPC_OK;
    }
    if (GetLastError() != ERROR_IO_PENDING) {
        --channel.pendingIo;
        PipeFail(channel, GetLastError());
        return LIPC_BROKEN;
    }
    const int status = StepUntil(channel, [&channel] { return channel.writeState != kBusy; });
    return status == LIPC_OK && channel.writeState == kFailedState ? LIPC_BROKEN : status;
}

}  // namespace

HANDLE PipeServeName(const char* name) {
    const HANDLE instance = NewInstance(PathOf(name).c_str());
    return instance == INVALID_HANDLE_VALUE ? nullptr : instance;
}

int PipeOpen(const char* name, unsigned flags, ...) {
    if (name == nullptr) return LIPC_BAD_ARGUMENT;
    const int number = Reserve();
    if (number < 0) return number;
    int status = LIPC_NO_MEMORY;
    std::shared_ptr<PipeChannel> channel;
    try {
        const std::string path = PathOf(name);
        channel = std::make_shared<PipeChannel>();
        for (PipeIoRecord* record : {&channel->connectIo, &channel->readIo, &channel->writeIo})
            record->owner = channel.get();
        va_list list;
        va_start(list, flags);
        if ((flags & kPipeCallback) != 0) {
            channel->callback = va_arg(list, PipeCallback);
            channel->callbackContext = va_arg(list, void*);
        }
        if ((flags & kPipeTimeout) != 0) channel->timeout = va_arg(list, int);
        if ((flags & kPipeListen) != 0) channel->queue = va_arg(list, HANDLE);
        va_end(list);
        status = channel->queue != nullptr ? Listen(*channel, path.c_str())
                                           : Connect(*channel, path.c_str());
    } catch (const std::bad_alloc&) {
    }
    if (status != LIPC_OK && channel != nullptr) EndIo(*channel);
    SetSlot(number, status == LIPC_OK ? channel : nullptr);
    return status == LIPC_OK ? number : status;
}

int PipeClose(int number) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    SetSlot(number, nullptr);
    EndIo(*channel);
    return LIPC_OK;
}

int PipeSend(int number, const void* data, std::uint32_t length) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || data == nullptr || length == 0) return LIPC_BAD_ARGUMENT;
    if (channel->writeState == kNotConnected) return LIPC_BUSY;
    // A frame that was late may still be on its way.
    const int status = StepUntil(*channel, [&channel] { return channel->writeState != kBusy; });
    if (status != LIPC_OK) return status;
    int idle = kIdle;
    if (!channel->writeState.compare_exchange_strong(idle, kBusy)) return LIPC_BROKEN;
    try {
        BuildFrame(channel->frame, data, length);
    } catch (const std::bad_alloc&) {
        int busy = kBusy;
        channel->writeState.compare_exchange_strong(busy, kIdle);
        return LIPC_NO_MEMORY;
    }
    const int sent = channel->Listens() ? SendHere(*channel) : SendByQueue(*channel);
    return sent == LIPC_OK ? static_cast<int>(length) : sent;
}

int PipeBytesWaiting(int number, std::uint32_t* count) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || count == nullptr) return LIPC_BAD_ARGUMENT;
    const std::lock_guard lock(channel->lock);
    *count = static_cast<std::uint32_t>(channel->ready.size());
    return LIPC_OK;
}

int PipeReceive(int number, void* buffer, std::uint32_t size) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr || buffer == nullptr) return LIPC_BAD_ARGUMENT;
    if (channel->readState == kNotConnected) return LIPC_BUSY;
    std::uint32_t taken = 0;
    // What came whole before the peer closed is still good: a close costs the connection only.
    const int status = StepUntil(*channel, [&] {
        const bool failed = channel->readState == kFailedState;
        const std::lock_guard lock(channel->lock);
        std::vector<char>& ready = channel->ready;
        taken = std::min(size, static_cast<std::uint32_t>(ready.size()));
        std::copy_n(ready.begin(), taken, static_cast<char*>(buffer));
        ready.erase(ready.begin(), ready.begin() + taken);
        return taken > 0 || failed;
    });
    if (taken > 0) return static_cast<int>(taken);
    return status == LIPC_OK ? LIPC_BROKEN : status;
}

int PipeSetTimeout(int number, std::int32_t timeoutMs) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    channel->timeout = timeoutMs;
    return LIPC_OK;
}

int PipeAbandon(int number) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    if (channel == nullptr) return LIPC_BAD_ARGUMENT;
    channel->writeState = kFailedState;
    DisconnectNamedPipe(channel->pipe.Get());
    return LIPC_OK;
}

int PipeStep(int number, std::int32_t timeoutMs) {
    const std::shared_ptr<PipeChannel> channel = Find(number);
    return channel == nullptr ? LIPC_BAD_ARGUMENT : PipeStepQueue(channel->queue, timeoutMs);
}

int PipeStepQueue(HANDLE queue, std::int32_t timeoutMs) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const bool good =
        GetQueuedCompletionStatus(queue, &bytes, &key, &overlapped, WaitLimit(timeoutMs)) != FALSE;
    const DWORD error = good ? 0 : GetLastError();
    if (overlapped == nullptr)
        return good ? LIPC_OK : error == WAIT_TIMEOUT ? LIPC_TIMED_OUT : LIPC_FAILED;
    const auto& record = *reinterpret_cast<PipeIoRecord*>(overlapped);
    PipeChannel& channel = *record.owner;
    if (!channel.closing) OnCompletion(channel, record, error, bytes);
    // Behind it a channel that is being closed may be gone.
    --channel.pendingIo;
    return LIPC_OK;
}

void PipeWake(HANDLE queue) { PostQueuedCompletionStatus(queue, 0, kKeyIo, nullptr); }

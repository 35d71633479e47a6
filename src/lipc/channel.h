// Inside lipc/: one end of one pipe, and the workers that serve the channels.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "lipc/chunks.h"
#include "lipc/pipe.h"
#include "platform/pipe.h"
#include "platform/sync.h"

struct PipeChannel;

// Keys that a completion can carry.
enum CompletionKey : std::uintptr_t {
    kKeyIo = 0,
    kKeyEnd = 1,
    kKeyFailedStart = 2,
    kKeyCancel = 3
};

enum ChannelState { kNotConnected = 0, kIdle = 1, kBusy = 2, kFailedState = 3 };

// One kind of operation. overlapped stands first: a completion names the record by it.
struct PipeIoRecord {
    OVERLAPPED overlapped{};
    PipeChannel* owner = nullptr;
    DWORD lastError = 0;
    std::atomic<bool> cancelled{false};
};

// The thread and the queue of all connecting, or all listening, channels. Guarded by the table's
// lock.
struct PipeWorkerContext {
    UniqueHandle thread;
    UniqueHandle port;
    int channels = 0;
};

struct PipeChannel {
    std::string name;
    bool isClient = true;
    std::atomic<std::int32_t> timeout{-1};
    UniqueHandle pipe;
    std::array<char, kPipeBufferSize> readBuffer;   // the worker alone
    std::array<char, kPipeBufferSize> writeBuffer;  // whoever has the write in hand
    std::uint32_t writeCount = 0;
    PipeIoRecord connectIo;
    PipeIoRecord readIo;
    PipeIoRecord writeIo;
    ChunkList readyBytes;  // guarded by lock
    ChunkList sendQueue;   // guarded by lock
    HANDLE port = nullptr;
    UniqueHandle writeDoneEvent;
    UniqueHandle messageEvent;
    UniqueHandle failedEvent;
    UniqueHandle connectedEvent;
    std::recursive_mutex lock;  // the innermost of the layer
    std::atomic<int> readState{kNotConnected};
    std::atomic<int> writeState{kNotConnected};
    std::uint32_t headerHave = 0;  // the worker alone, as all of the receiving below
    std::array<unsigned char, kFrameHeaderSize> headerIn;
    std::uint32_t bodyLeft = 0;
    ChunkList incoming;
    std::atomic<std::uint32_t> sendLeft{0};
    std::atomic<std::int32_t> pendingIo{0};
    PipeCallback callback = nullptr;
    void* callbackContext = nullptr;

    void Call(int event) const {
        if (callback != nullptr) callback(callbackContext, event);
    }
};

// 0, or a status: the failure then takes the road of a completion, unless even that can't be
// posted.
int PipeStartRead(PipeChannel& channel);
// Starts the write of writeCount bytes of writeBuffer and, as long as each one is done at once, of
// what is left of the frame. *finished: the whole frame is written; otherwise the worker goes on.
int PipeWriteOn(PipeChannel& channel, bool* finished);
// The worker's thread; the argument is its queue.
DWORD PipeWorker(LPVOID port);

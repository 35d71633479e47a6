// Inside lipc/: one end of one pipe.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "lipc/frame.h"
#include "lipc/pipe.h"
#include "platform/pipe.h"
#include "platform/sync.h"

struct PipeChannel;

// The key of all completions; the record says which they are.
inline constexpr ULONG_PTR kKeyIo = 0;

enum ChannelState { kNotConnected = 0, kIdle = 1, kBusy = 2, kFailedState = 3 };

// One kind of operation. overlapped stands first: a completion names the record by it.
struct PipeIoRecord {
    OVERLAPPED overlapped{};
    PipeChannel* owner = nullptr;
};

// Between its first read and its failure a channel has one read outstanding: what its completion
// leads to is one thread's affair at a time, whichever takes it.
struct PipeChannel {
    UniqueHandle ownQueue;   // of a connecting channel
    HANDLE queue = nullptr;  // where the completions come
    UniqueHandle pipe;
    std::atomic<std::int32_t> timeout{-1};
    PipeCallback callback = nullptr;
    void* callbackContext = nullptr;
    PipeIoRecord connectIo;
    PipeIoRecord readIo;
    PipeIoRecord writeIo;
    std::atomic<std::int32_t> pendingIo{0};  // completions to come, or in hand
    // They are only counted off. Written under the lock, under which reads are started: another
    // thread that deals with one may come to the next when the pipe is gone.
    std::atomic<bool> closing{false};
    std::atomic<int> readState{kNotConnected};
    std::atomic<int> writeState{kNotConnected};
    std::vector<char> frame;  // being sent: the sender's
    // The read's, as all of the receiving below.
    std::array<char, kPipeBufferSize> readBuffer;
    std::uint32_t headerHave = 0;
    std::array<unsigned char, kFrameHeaderSize> headerIn;
    std::uint32_t bodyLeft = 0;
    std::vector<char> incoming;
    std::mutex lock;          // the innermost of the layer
    std::vector<char> ready;  // guarded by lock: complete messages

    bool Listens() const { return !ownQueue; }
    void Call(int event) const {
        if (callback != nullptr) callback(callbackContext, event);
    }
};

// Ends the channel, once.
void PipeFail(PipeChannel& channel, DWORD error);
// Deals with the `count` bytes that a read has brought, and sees to it that a read is outstanding.
void PipeReadOn(PipeChannel& channel, DWORD count);

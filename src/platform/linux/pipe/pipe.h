// Inside platform/: one end of a named pipe, on a Unix stream socket, with its outstanding reads
// and writes.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/descriptor.h"
#include "platform/linux/pipe/completion_queue.h"

namespace platform {

class PipeServer;

class Pipe final : public PollTarget {
  public:
    // Without a server: a client's end. Without a descriptor: an instance that has no client yet.
    Pipe(UniqueDescriptor descriptor, std::shared_ptr<PipeServer> server)
        : descriptor_(std::move(descriptor)), server_(std::move(server)) {}
    void OnClose() override;
    void OnReady(std::uint32_t events) override;

    bool Bind(CompletionQueue* queue, ULONG_PTR key);
    BOOL Read(void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
    BOOL Write(const void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
    BOOL WriteWithin(const void* buffer, DWORD size, DWORD milliseconds);
    void SkipCompletionsOnSuccess();
    BOOL Connect(OVERLAPPED* overlapped);
    bool Disconnect();
    // A client for an instance that waits for one. Called by the server, under its lock.
    void Adopt(UniqueDescriptor descriptor);

  private:
    struct Operation {
        OVERLAPPED* overlapped = nullptr;  // null: none outstanding
        char* buffer = nullptr;
        DWORD size = 0;
        DWORD done = 0;
    };
    enum class Tried { kWouldBlock, kDone, kFailed };
    // Each leaves its count in the operation's `done`, and a failure in `error`.
    Tried TryRead(DWORD& error);
    Tried TryWrite(Operation& operation, DWORD& error);
    // False, with the last error, if such a one can't be started now.
    bool Begin(Operation& operation, void* buffer, DWORD size, OVERLAPPED* overlapped);
    // What a call that was tried at once gives: see ReadFile.
    BOOL Result(Operation& operation, Tried tried, DWORD error, DWORD* done);
    void Finish(Operation& operation, Tried tried, DWORD error);
    void Complete(Operation& operation, DWORD bytes, DWORD error);

    std::mutex mutex_;  // guards all below; inside the server's lock
    UniqueDescriptor descriptor_;
    Reference<CompletionQueue> queue_;
    std::uint64_t watch_ = 0;  // the queue's number for the descriptor
    ULONG_PTR key_ = 0;
    Operation read_;
    Operation write_;
    Operation connect_;
    // A short read has emptied the socket and nothing has arrived since: a further read would only
    // say so.
    bool drained_ = false;
    bool hungUp_ = false;  // the peer has closed, whatever is still to be read
    bool skipOnSuccess_ = false;
    const std::shared_ptr<PipeServer> server_;
};

}  // namespace platform

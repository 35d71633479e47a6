#include "platform/linux/pipe/pipe.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "platform/linux/pipe/server.h"
#include "platform/sync.h"

namespace platform {
namespace {

DWORD IoError() {
    return errno == EPIPE || errno == ECONNRESET ? ERROR_BROKEN_PIPE : ERROR_INVALID_HANDLE;
}

}  // namespace

void Pipe::Complete(Operation& operation, DWORD bytes, DWORD error) {
    OVERLAPPED* overlapped = operation.overlapped;
    operation.overlapped = nullptr;
    queue_->Post(bytes, key_, overlapped, error);
}

bool Pipe::Bind(CompletionQueue* queue, ULONG_PTR key) {
    // The server's lock comes before a pipe's.
    if (server_ != nullptr && !server_->Watch(queue)) return false;
    const std::lock_guard lock(mutex_);
    if (queue_ != nullptr) return false;
    queue_ = Share(queue);
    key_ = key;
    watch_ = descriptor_ ? queue->Watch(descriptor_.Get(), this) : 0;
    return !descriptor_ || watch_ != 0;
}

Pipe::Tried Pipe::TryRead(DWORD& error) {
    ssize_t count = 0;
    do {
        count = recv(descriptor_.Get(), read_.buffer, read_.size, MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        drained_ = true;
        return Tried::kWouldBlock;
    }
    // A hang-up is told once only: behind it the end is still to be read, whatever came before.
    drained_ = !hungUp_ && count > 0 && static_cast<DWORD>(count) < read_.size;
    if (count <= 0) {
        error = count == 0 ? ERROR_BROKEN_PIPE : IoError();
        return Tried::kFailed;
    }
    read_.done = static_cast<DWORD>(count);
    return Tried::kDone;
}

Pipe::Tried Pipe::TryWrite(Operation& operation, DWORD& error) {
    while (operation.done < operation.size) {
        const ssize_t count = send(descriptor_.Get(), operation.buffer + operation.done,
                                   operation.size - operation.done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Tried::kWouldBlock;
        if (count < 0) {
            error = IoError();
            return Tried::kFailed;
        }
        operation.done += static_cast<DWORD>(count);
    }
    return Tried::kDone;
}

void Pipe::Finish(Operation& operation, Tried tried, DWORD error) {
    if (tried != Tried::kWouldBlock)
        Complete(operation, operation.done, tried == Tried::kDone ? 0 : error);
}

BOOL Pipe::Result(Operation& operation, Tried tried, DWORD error, DWORD* done) {
    if (tried == Tried::kDone && skipOnSuccess_) {
        operation.overlapped = nullptr;
    } else {
        Finish(operation, tried, error);
    }
    if (tried == Tried::kDone) {
        if (done != nullptr) *done = operation.done;
        return TRUE;
    }
    // A failure comes as a completion too.
    return Fail(ERROR_IO_PENDING);
}

bool Pipe::Begin(Operation& operation, void* buffer, DWORD size, OVERLAPPED* overlapped) {
    if (!descriptor_ || queue_ == nullptr || overlapped == nullptr ||
        operation.overlapped != nullptr)
        return Fail(ERROR_INVALID_HANDLE);
    operation = {overlapped, static_cast<char*>(buffer), size, 0};
    return true;
}

BOOL Pipe::Read(void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    const std::lock_guard lock(mutex_);
    if (!Begin(read_, buffer, size, overlapped)) return FALSE;
    DWORD error = 0;
    const Tried tried = drained_ ? Tried::kWouldBlock : TryRead(error);
    return Result(read_, tried, error, done);
}

BOOL Pipe::Write(const void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    const std::lock_guard lock(mutex_);
    if (!Begin(write_, const_cast<void*>(buffer), size, overlapped)) return FALSE;
    DWORD error = 0;
    const Tried tried = TryWrite(write_, error);
    if (tried == Tried::kWouldBlock) queue_->WatchRoom(descriptor_.Get(), watch_, true);
    return Result(write_, tried, error, done);
}

BOOL Pipe::WriteWithin(const void* buffer, DWORD size, DWORD milliseconds) {
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> end;
    if (milliseconds != INFINITE) end = Clock::now() + std::chrono::milliseconds(milliseconds);
    Operation write{nullptr, const_cast<char*>(static_cast<const char*>(buffer)), size, 0};
    for (;;) {
        pollfd room{-1, POLLOUT, 0};
        {
            const std::lock_guard lock(mutex_);
            if (!descriptor_) return Fail(ERROR_INVALID_HANDLE);
            DWORD error = 0;
            const Tried tried = TryWrite(write, error);
            if (tried == Tried::kDone) return TRUE;
            if (tried == Tried::kFailed) return Fail(error);
            room.fd = descriptor_.Get();
        }
        if (PollUntil({&room, 1}, end) <= 0) return Fail(WAIT_TIMEOUT);
    }
}

void Pipe::SkipCompletionsOnSuccess() {
    const std::lock_guard lock(mutex_);
    skipOnSuccess_ = true;
}

BOOL Pipe::Connect(OVERLAPPED* overlapped) {
    {
        const std::lock_guard lock(mutex_);
        if (server_ == nullptr || queue_ == nullptr || overlapped == nullptr ||
            connect_.overlapped != nullptr)
            return Fail(ERROR_INVALID_HANDLE);
        if (descriptor_) return Fail(ERROR_PIPE_CONNECTED);
        connect_ = {overlapped, nullptr, 0, 0};
    }
    server_->Wait(this);
    return Fail(ERROR_IO_PENDING);
}

void Pipe::Adopt(UniqueDescriptor descriptor) {
    const std::lock_guard lock(mutex_);
    descriptor_ = std::move(descriptor);
    drained_ = false;
    hungUp_ = false;
    watch_ = queue_->Watch(descriptor_.Get(), this);
    Complete(connect_, 0, watch_ != 0 ? 0 : ERROR_NOT_ENOUGH_MEMORY);
}

void Pipe::OnReady(std::uint32_t events) {
    const std::lock_guard lock(mutex_);
    DWORD error = 0;
    if (!descriptor_) return;
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
        drained_ = false;
        hungUp_ = hungUp_ || (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
        if (read_.overlapped != nullptr) {
            const Tried tried = TryRead(error);
            Finish(read_, tried, error);
        }
    }
    if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0 && write_.overlapped != nullptr) {
        const Tried tried = TryWrite(write_, error);
        // Else each read of the peer's would wake somebody.
        if (tried != Tried::kWouldBlock) queue_->WatchRoom(descriptor_.Get(), watch_, false);
        Finish(write_, tried, error);
    }
}

bool Pipe::Disconnect() {
    const std::lock_guard lock(mutex_);
    return descriptor_ && shutdown(descriptor_.Get(), SHUT_RDWR) == 0;
}

void Pipe::OnClose() {
    if (server_ != nullptr) server_->StopWaiting(this);
    const std::lock_guard lock(mutex_);
    for (Operation* operation : {&read_, &write_, &connect_}) {
        if (operation->overlapped != nullptr)
            Complete(*operation, operation->done, ERROR_OPERATION_ABORTED);
    }
    if (watch_ != 0) queue_->Unwatch(descriptor_.Get(), watch_);
    descriptor_.Reset();
}

}  // namespace platform

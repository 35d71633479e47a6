#include "platform/linux/pipe/pipe.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
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
    return !descriptor_ || queue->Watch(descriptor_.Get(), this);
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

Pipe::Tried Pipe::TryWrite(DWORD& error) {
    while (write_.done < write_.size) {
        const ssize_t count = send(descriptor_.Get(), write_.buffer + write_.done,
                                   write_.size - write_.done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Tried::kWouldBlock;
        if (count < 0) {
            error = IoError();
            return Tried::kFailed;
        }
        write_.done += static_cast<DWORD>(count);
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
    operation = {overlapped, static_cast<char*>(buffer), size, 0, GetCurrentThreadId()};
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
    const Tried tried = TryWrite(error);
    return Result(write_, tried, error, done);
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
        connect_ = {overlapped, nullptr, 0, 0, GetCurrentThreadId()};
    }
    server_->Wait(this);
    return Fail(ERROR_IO_PENDING);
}

void Pipe::Adopt(UniqueDescriptor descriptor) {
    const std::lock_guard lock(mutex_);
    descriptor_ = std::move(descriptor);
    drained_ = false;
    hungUp_ = false;
    const bool watched = queue_->Watch(descriptor_.Get(), this);
    Complete(connect_, 0, watched ? 0 : ERROR_NOT_ENOUGH_MEMORY);
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
        const Tried tried = TryWrite(error);
        Finish(write_, tried, error);
    }
}

void Pipe::Cancel(bool ofAnyThread) {
    const bool waited = server_ != nullptr && server_->StopWaiting(this);
    const std::lock_guard lock(mutex_);
    const DWORD thread = GetCurrentThreadId();
    for (Operation* operation : {&read_, &write_}) {
        if (operation->overlapped != nullptr && (ofAnyThread || operation->thread == thread))
            Complete(*operation, operation->done, ERROR_OPERATION_ABORTED);
    }
    // Whoever cancels first ends the wait for a client: nothing else could.
    if (waited && connect_.overlapped != nullptr) Complete(connect_, 0, ERROR_OPERATION_ABORTED);
}

void Pipe::Drop() {
    if (!descriptor_) return;
    if (queue_ != nullptr) queue_->Unwatch(descriptor_.Get(), this);
    descriptor_.Reset();
}

bool Pipe::Disconnect() {
    const std::lock_guard lock(mutex_);
    if (server_ == nullptr) return false;
    Drop();
    return true;
}

void Pipe::OnClose() {
    if (server_ != nullptr) server_->StopWaiting(this);
    const std::lock_guard lock(mutex_);
    for (Operation* operation : {&read_, &write_, &connect_}) {
        if (operation->overlapped != nullptr)
            Complete(*operation, operation->done, ERROR_OPERATION_ABORTED);
    }
    Drop();
}

}  // namespace platform

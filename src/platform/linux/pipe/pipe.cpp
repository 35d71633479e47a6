#include "platform/pipe.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "platform/home.h"
#include "platform/linux/local_address.h"
#include "platform/linux/pipe/completion_queue.h"
#include "platform/linux/wait/object.h"
#include "platform/sync.h"

namespace {

using platform::CompletionQueue;
using platform::FromHandle;
using platform::LocalAddress;
using platform::PollTarget;
using platform::QueueReference;
using platform::ToHandle;

constexpr char kPipePrefix[] = "\\\\.\\pipe\\";
constexpr int kBacklog = 128;

class PipeServer;

class Pipe final : public PollTarget {
  public:
    explicit Pipe(int descriptor, std::shared_ptr<PipeServer> server)
        : descriptor_(descriptor), server_(std::move(server)) {}
    ~Pipe() override {
        if (descriptor_ >= 0) close(descriptor_);
    }
    void OnClose() override;
    void OnReady(std::uint32_t events) override;

    bool Bind(CompletionQueue* queue, ULONG_PTR key);
    BOOL Read(void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
    BOOL Write(const void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
    void SkipCompletionsOnSuccess();
    BOOL Connect(OVERLAPPED* overlapped);
    void Cancel(bool ofAnyThread);
    bool Disconnect();
    // A client for an instance that waits for one. Called by the server, under its lock.
    void Adopt(int descriptor);

  private:
    struct Operation {
        OVERLAPPED* overlapped = nullptr;  // null: none outstanding
        char* buffer = nullptr;
        DWORD size = 0;
        DWORD done = 0;
        DWORD thread = 0;
    };
    enum class Tried { kWouldBlock, kDone, kFailed };
    // Each leaves its count in the operation's `done`, and a failure in `error`.
    Tried TryRead(DWORD& error);
    Tried TryWrite(DWORD& error);
    // What a call that was tried at once gives: see ReadFile.
    BOOL Result(Operation& operation, Tried tried, DWORD error, DWORD* done);
    void Finish(Operation& operation, Tried tried, DWORD error);
    void Complete(Operation& operation, DWORD bytes, DWORD error);
    void Drop();

    std::mutex mutex_;  // guards all below; inside the server's lock
    int descriptor_;
    QueueReference queue_;
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

// One served name: the listening socket that all instances share.
class PipeServer : public std::enable_shared_from_this<PipeServer> {
  public:
    PipeServer() = default;
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;
    ~PipeServer();
    static std::shared_ptr<PipeServer> Get(const std::string& name);

    bool Watch(CompletionQueue* queue);
    // The next client for the instance, now or later.
    void Wait(Pipe* pipe);
    bool StopWaiting(Pipe* pipe);
    void AcceptWaiting();

  private:
    class Listener final : public PollTarget {
      public:
        explicit Listener(std::weak_ptr<PipeServer> server) : server_(std::move(server)) {}
        void OnReady(std::uint32_t) override {
            if (const auto server = server_.lock()) server->AcceptWaiting();
        }

      private:
        const std::weak_ptr<PipeServer> server_;
    };
    bool Open(const std::string& name);
    bool RefuseOne();

    std::string path_;
    int lock_ = -1;
    int listener_ = -1;
    std::mutex mutex_;  // guards all below
    int reserve_ =
        -1;  // given up for a moment to refuse a client where there is no descriptor left
    std::deque<Pipe*>
        waiting_;  // instances in the order of their waits; each leaves before it is closed
    QueueReference queue_;
    Listener* target_ = nullptr;
};

struct ServerTable {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<PipeServer>> servers;  // guarded by mutex
};
ServerTable& Servers() {
    static ServerTable& table = *new ServerTable;
    return table;
}

// The name behind the prefix; empty if it can't be one of a socket in one directory.
std::string NameOf(LPCSTR path) {
    const std::size_t prefix = sizeof kPipePrefix - 1;
    if (path == nullptr || std::strncmp(path, kPipePrefix, prefix) != 0) return {};
    const std::string name = path + prefix;
    return name == "." || name == ".." || name.find('/') != std::string::npos ? std::string()
                                                                              : name;
}

DWORD IoError() {
    return errno == EPIPE || errno == ECONNRESET ? ERROR_BROKEN_PIPE : ERROR_INVALID_HANDLE;
}

void Pipe::Complete(Operation& operation, DWORD bytes, DWORD error) {
    OVERLAPPED* overlapped = operation.overlapped;
    operation.overlapped = nullptr;
    queue_.queue->Post(bytes, key_, overlapped, error);
}

bool Pipe::Bind(CompletionQueue* queue, ULONG_PTR key) {
    // The server's lock comes before a pipe's.
    if (server_ != nullptr && !server_->Watch(queue)) return false;
    const std::lock_guard lock(mutex_);
    if (queue_.queue != nullptr) return false;
    queue_.Set(queue);
    key_ = key;
    return descriptor_ < 0 || queue->Watch(descriptor_, this);
}

Pipe::Tried Pipe::TryRead(DWORD& error) {
    ssize_t count = 0;
    do {
        count = recv(descriptor_, read_.buffer, read_.size, MSG_DONTWAIT);
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
        const ssize_t count = send(descriptor_, write_.buffer + write_.done,
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
    SetLastError(ERROR_IO_PENDING);
    return FALSE;
}

BOOL Pipe::Read(void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    const std::lock_guard lock(mutex_);
    if (descriptor_ < 0 || queue_.queue == nullptr || overlapped == nullptr ||
        read_.overlapped != nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    read_ = {overlapped, static_cast<char*>(buffer), size, 0, GetCurrentThreadId()};
    DWORD error = 0;
    const Tried tried = drained_ ? Tried::kWouldBlock : TryRead(error);
    return Result(read_, tried, error, done);
}

BOOL Pipe::Write(const void* buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    const std::lock_guard lock(mutex_);
    if (descriptor_ < 0 || queue_.queue == nullptr || overlapped == nullptr ||
        write_.overlapped != nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    write_ = {overlapped, static_cast<char*>(const_cast<void*>(buffer)), size, 0,
              GetCurrentThreadId()};
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
        if (server_ == nullptr || queue_.queue == nullptr || overlapped == nullptr ||
            connect_.overlapped != nullptr) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        if (descriptor_ >= 0) {
            SetLastError(ERROR_PIPE_CONNECTED);
            return FALSE;
        }
        connect_ = {overlapped, nullptr, 0, 0, GetCurrentThreadId()};
    }
    server_->Wait(this);
    SetLastError(ERROR_IO_PENDING);
    return FALSE;
}

void Pipe::Adopt(int descriptor) {
    const std::lock_guard lock(mutex_);
    descriptor_ = descriptor;
    drained_ = false;
    hungUp_ = false;
    const bool watched = queue_.queue->Watch(descriptor_, this);
    Complete(connect_, 0, watched ? 0 : ERROR_NOT_ENOUGH_MEMORY);
}

void Pipe::OnReady(std::uint32_t events) {
    const std::lock_guard lock(mutex_);
    DWORD error = 0;
    if (descriptor_ < 0) return;
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
    if (descriptor_ < 0) return;
    if (queue_.queue != nullptr) queue_.queue->Unwatch(descriptor_, this);
    close(descriptor_);
    descriptor_ = -1;
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

int OpenReserve() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

std::shared_ptr<PipeServer> PipeServer::Get(const std::string& name) {
    const std::lock_guard lock(Servers().mutex);
    std::weak_ptr<PipeServer>& known = Servers().servers[name];
    if (auto server = known.lock()) return server;
    auto server = std::make_shared<PipeServer>();
    if (!server->Open(name)) return nullptr;
    known = server;
    return server;
}

bool PipeServer::Open(const std::string& name) {
    const LocalAddress address("pipes", name);
    const std::string path = platform::HomePath("pipes/") + name;
    if (!address.Valid()) return false;
    // While the lock is held nobody else serves the name, and a socket that is there belongs to a
    // dead process.
    lock_ = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_ < 0 || flock(lock_, LOCK_EX | LOCK_NB) != 0) return false;
    path_ = path;
    unlink(path_.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    reserve_ = OpenReserve();
    return listener_ >= 0 && bind(listener_, address.Get(), LocalAddress::Size()) == 0 &&
           listen(listener_, kBacklog) == 0;
}

PipeServer::~PipeServer() {
    if (target_ != nullptr) {
        queue_.queue->Unwatch(listener_, target_);
        target_->Release();
    }
    if (listener_ >= 0) {
        unlink(path_.c_str());
        close(listener_);
    }
    if (reserve_ >= 0) close(reserve_);
    if (lock_ >= 0) close(lock_);
}

bool PipeServer::Watch(CompletionQueue* queue) {
    const std::lock_guard lock(mutex_);
    if (target_ != nullptr) return true;
    // All instances of a name use one queue: the first one's.
    auto* target = new (std::nothrow) Listener(weak_from_this());
    if (target == nullptr) return false;
    if (!queue->Watch(listener_, target)) {
        target->Release();
        return false;
    }
    queue_.Set(queue);
    target_ = target;
    return true;
}

void PipeServer::Wait(Pipe* pipe) {
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(pipe);
    }
    AcceptWaiting();
}

bool PipeServer::StopWaiting(Pipe* pipe) {
    const std::lock_guard lock(mutex_);
    const auto found = std::find(waiting_.begin(), waiting_.end(), pipe);
    if (found == waiting_.end()) return false;
    waiting_.erase(found);
    return true;
}

// Where the process has no descriptor left: a client that nothing will ever wake us for again is
// told so by a hang-up, instead of waiting in the backlog. False if there was none.
bool PipeServer::RefuseOne() {
    if (reserve_ >= 0) close(reserve_);
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client >= 0) close(client);
    reserve_ = OpenReserve();
    return client >= 0;
}

// Takes connections as long as there are instances for them. What is left in the backlog is taken
// by the next Wait.
void PipeServer::AcceptWaiting() {
    const std::lock_guard lock(mutex_);
    if (reserve_ < 0) reserve_ = OpenReserve();
    while (!waiting_.empty()) {
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
        if (client < 0 && (errno == EMFILE || errno == ENFILE) && RefuseOne()) continue;
        if (client < 0) return;
        Pipe* pipe = waiting_.front();
        waiting_.pop_front();
        pipe->Adopt(client);
    }
}

Pipe* ToPipe(HANDLE handle) {
    auto* pipe = dynamic_cast<Pipe*>(FromHandle(handle));
    if (pipe == nullptr) SetLastError(ERROR_INVALID_HANDLE);
    return pipe;
}

CompletionQueue* ToQueue(HANDLE handle) {
    auto* queue = dynamic_cast<CompletionQueue*>(FromHandle(handle));
    if (queue == nullptr) SetLastError(ERROR_INVALID_HANDLE);
    return queue;
}

}  // namespace

HANDLE CreateFileA(LPCSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    const std::string name = NameOf(path);
    if (name.empty() || platform::Home().empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const LocalAddress address("pipes", name);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0 || !address.Valid()) {
        if (descriptor >= 0) close(descriptor);
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return INVALID_HANDLE_VALUE;
    }
    if (connect(descriptor, address.Get(), LocalAddress::Size()) != 0) {
        const int error = errno;
        close(descriptor);
        SetLastError(error == ENOENT || error == ECONNREFUSED ? ERROR_FILE_NOT_FOUND
                     : error == EAGAIN                        ? ERROR_PIPE_BUSY
                                                              : ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    auto* pipe = new (std::nothrow) Pipe(descriptor, nullptr);
    if (pipe != nullptr) return ToHandle(pipe);
    close(descriptor);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_HANDLE_VALUE;
}

HANDLE CreateNamedPipeA(LPCSTR path, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD,
                        LPSECURITY_ATTRIBUTES) {
    const std::string name = NameOf(path);
    if (name.empty() || platform::Home().empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    std::shared_ptr<PipeServer> server = PipeServer::Get(name);
    if (server == nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    auto* pipe = new (std::nothrow) Pipe(-1, std::move(server));
    if (pipe == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return pipe == nullptr ? INVALID_HANDLE_VALUE : ToHandle(pipe);
}

BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED* overlapped) {
    Pipe* object = ToPipe(pipe);
    return object == nullptr ? FALSE : object->Connect(overlapped);
}

BOOL DisconnectNamedPipe(HANDLE pipe) {
    Pipe* object = ToPipe(pipe);
    return object != nullptr && object->Disconnect() ? TRUE : FALSE;
}

HANDLE CreateIoCompletionPort(HANDLE pipe, HANDLE existingPort, ULONG_PTR key, DWORD) {
    if (pipe == INVALID_HANDLE_VALUE && existingPort == nullptr) {
        auto* queue = new (std::nothrow) CompletionQueue;
        if (queue != nullptr && queue->Ready()) return ToHandle(queue);
        if (queue != nullptr) queue->Release();
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return nullptr;
    }
    Pipe* object = ToPipe(pipe);
    CompletionQueue* queue = ToQueue(existingPort);
    if (object == nullptr || queue == nullptr) return nullptr;
    if (object->Bind(queue, key)) return existingPort;
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
}

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD milliseconds) {
    *overlapped = nullptr;
    CompletionQueue* queue = ToQueue(port);
    return queue == nullptr ? FALSE : queue->Take(bytes, key, overlapped, milliseconds);
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
    CompletionQueue* queue = ToQueue(port);
    if (queue == nullptr) return FALSE;
    queue->Post(bytes, key, overlapped, 0);
    return TRUE;
}

BOOL ReadFile(HANDLE pipe, LPVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    Pipe* object = ToPipe(pipe);
    return object == nullptr ? FALSE : object->Read(buffer, size, done, overlapped);
}

BOOL WriteFile(HANDLE pipe, LPCVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    Pipe* object = ToPipe(pipe);
    return object == nullptr ? FALSE : object->Write(buffer, size, done, overlapped);
}

BOOL SetFileCompletionNotificationModes(HANDLE pipe, BYTE flags) {
    Pipe* object = ToPipe(pipe);
    if (object == nullptr || flags != FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) return FALSE;
    object->SkipCompletionsOnSuccess();
    return TRUE;
}

BOOL CancelIo(HANDLE pipe) {
    Pipe* object = ToPipe(pipe);
    if (object == nullptr) return FALSE;
    object->Cancel(false);
    return TRUE;
}

BOOL CancelIoEx(HANDLE pipe, OVERLAPPED* overlapped) {
    Pipe* object = ToPipe(pipe);
    if (object == nullptr || overlapped != nullptr) return FALSE;
    object->Cancel(true);
    return TRUE;
}

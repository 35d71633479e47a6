// The documented operations on pipes and completion queues: names and handles, nothing else.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "platform/home.h"
#include "platform/linux/local_address.h"
#include "platform/linux/pipe/pipe.h"
#include "platform/linux/pipe/server.h"
#include "platform/pipe.h"

namespace {

using platform::CompletionQueue;
using platform::LocalAddress;
using platform::NewObject;
using platform::ObjectOf;
using platform::Pipe;
using platform::PipeServer;
using platform::ToHandle;
using platform::UniqueDescriptor;

constexpr char kPipePrefix[] = "\\\\.\\pipe\\";

// The name behind the prefix; empty if it can't be one of a socket in one directory.
std::string NameOf(LPCSTR path) {
    const std::size_t prefix = sizeof kPipePrefix - 1;
    if (path == nullptr || std::strncmp(path, kPipePrefix, prefix) != 0) return {};
    const std::string name = path + prefix;
    return name == "." || name == ".." || name.find('/') != std::string::npos ? std::string()
                                                                              : name;
}

HANDLE NewPipe(UniqueDescriptor descriptor, std::shared_ptr<PipeServer> server) {
    auto* pipe = NewObject<Pipe>(std::move(descriptor), std::move(server));
    return pipe != nullptr ? ToHandle(pipe) : INVALID_HANDLE_VALUE;
}

}  // namespace

HANDLE CreateFileA(LPCSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    const std::string name = NameOf(path);
    if (name.empty() || platform::Home().empty())
        return platform::FailWith(INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
    const LocalAddress address("pipes", name);
    UniqueDescriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!descriptor || !address.Valid())
        return platform::FailWith(INVALID_HANDLE_VALUE, ERROR_TOO_MANY_OPEN_FILES);
    if (connect(descriptor.Get(), address.Get(), LocalAddress::Size()) != 0)
        return platform::FailWith(INVALID_HANDLE_VALUE, errno == ENOENT || errno == ECONNREFUSED
                                                            ? ERROR_FILE_NOT_FOUND
                                                        : errno == EAGAIN ? ERROR_PIPE_BUSY
                                                                          : ERROR_ACCESS_DENIED);
    return NewPipe(std::move(descriptor), nullptr);
}

HANDLE CreateNamedPipeA(LPCSTR path, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD,
                        LPSECURITY_ATTRIBUTES) {
    const std::string name = NameOf(path);
    if (name.empty() || platform::Home().empty())
        return platform::FailWith(INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
    std::shared_ptr<PipeServer> server = PipeServer::Get(name);
    if (server == nullptr) return platform::FailWith(INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    return NewPipe({}, std::move(server));
}

BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED* overlapped) {
    auto* object = ObjectOf<Pipe>(pipe);
    return object == nullptr ? FALSE : object->Connect(overlapped);
}

BOOL DisconnectNamedPipe(HANDLE pipe) {
    auto* object = ObjectOf<Pipe>(pipe);
    return object != nullptr && object->Disconnect() ? TRUE : FALSE;
}

HANDLE CreateIoCompletionPort(HANDLE pipe, HANDLE existingPort, ULONG_PTR key, DWORD threads) {
    if (pipe == INVALID_HANDLE_VALUE && existingPort == nullptr) {
        platform::Reference<CompletionQueue> queue(NewObject<CompletionQueue>(threads != 1));
        if (queue == nullptr || !queue->Ready()) return platform::Fail(ERROR_TOO_MANY_OPEN_FILES);
        return ToHandle(queue.release());
    }
    auto* object = ObjectOf<Pipe>(pipe);
    auto* queue = ObjectOf<CompletionQueue>(existingPort);
    if (object == nullptr || queue == nullptr) return nullptr;
    if (object->Bind(queue, key)) return existingPort;
    return platform::Fail(ERROR_INVALID_PARAMETER);
}

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD milliseconds) {
    *overlapped = nullptr;
    auto* queue = ObjectOf<CompletionQueue>(port);
    return queue == nullptr ? FALSE : queue->Take(bytes, key, overlapped, milliseconds);
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
    auto* queue = ObjectOf<CompletionQueue>(port);
    if (queue == nullptr) return FALSE;
    queue->Post(bytes, key, overlapped, 0);
    return TRUE;
}

BOOL ReadFile(HANDLE pipe, LPVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    auto* object = ObjectOf<Pipe>(pipe);
    return object == nullptr ? FALSE : object->Read(buffer, size, done, overlapped);
}

BOOL WriteFile(HANDLE pipe, LPCVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
    auto* object = ObjectOf<Pipe>(pipe);
    return object == nullptr ? FALSE : object->Write(buffer, size, done, overlapped);
}

BOOL WriteFileWithin(HANDLE pipe, LPCVOID buffer, DWORD size, DWORD milliseconds) {
    auto* object = ObjectOf<Pipe>(pipe);
    return object == nullptr ? FALSE : object->WriteWithin(buffer, size, milliseconds);
}

BOOL SetFileCompletionNotificationModes(HANDLE pipe, BYTE flags) {
    auto* object = ObjectOf<Pipe>(pipe);
    if (object == nullptr || flags != FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) return FALSE;
    object->SkipCompletionsOnSuccess();
    return TRUE;
}

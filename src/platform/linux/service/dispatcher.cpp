// A service's own side: the dispatcher, and the two managers that a status can go to.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/linux/fail.h"
#include "platform/linux/service/handle.h"
#include "platform/linux/service/record.h"
#include "platform/linux/wait/object.h"
#include "platform/sync.h"

using platform::ServiceMessage;
using platform::ServiceMessageKind;
using platform::UniqueDescriptor;

namespace {

// Whoever started this process as a service.
class Manager {
  public:
    Manager() = default;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    virtual ~Manager() = default;
    virtual bool Report(const SERVICE_STATUS& status) = 0;
    // The descriptor that controls come on, or -1.
    virtual int Descriptor() const { return -1; }
    // The next control; 0: none. After each one HandlerReturned is called.
    virtual DWORD TakeControl() { return 0; }
    virtual void HandlerReturned() {}
    // The control that a termination signal stands for.
    virtual DWORD ControlOfSignal() const = 0;
};

class Supervisor final : public Manager {
  public:
    explicit Supervisor(int socket) : socket_(socket) {}
    bool Enter() {
        return platform::SendServiceMessage(socket_.Get(), {ServiceMessageKind::kHello, 0, {}});
    }
    bool Report(const SERVICE_STATUS& status) override {
        return platform::SendServiceMessage(socket_.Get(),
                                            {ServiceMessageKind::kStatus, 0, status});
    }
    int Descriptor() const override { return gone_ ? -1 : socket_.Get(); }
    DWORD TakeControl() override {
        ServiceMessage message;
        if (platform::ReceiveServiceMessage(socket_.Get(), message))
            return message.kind == ServiceMessageKind::kControl ? message.value : 0;
        if (errno == EAGAIN) return 0;
        // Without its supervisor nobody could stop the service any more, or start it again: it
        // ends in good order.
        gone_ = true;
        return SERVICE_CONTROL_SHUTDOWN;
    }
    void HandlerReturned() override {
        platform::SendServiceMessage(socket_.Get(), {ServiceMessageKind::kDone, 0, {}});
    }
    DWORD ControlOfSignal() const override { return SERVICE_CONTROL_SHUTDOWN; }

  private:
    UniqueDescriptor socket_;
    bool gone_ = false;
};

// systemd: states go to its notification socket, each as one datagram.
class Systemd final : public Manager {
  public:
    explicit Systemd(const std::string& path)
        : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address_.sun_family = AF_UNIX;
        if (path.size() >= sizeof address_.sun_path) return;
        std::memcpy(address_.sun_path, path.data(), path.size());
        length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        // An abstract address begins with a zero byte and ends where it ends.
        if (address_.sun_path[0] == '@') {
            address_.sun_path[0] = '\0';
        } else {
            ++length_;
        }
    }
    bool Report(const SERVICE_STATUS& status) override {
        std::string text;
        switch (status.dwCurrentState) {
            case SERVICE_START_PENDING:
                text = "STATUS=Starting\n";
                break;
            case SERVICE_RUNNING:
                return Notify("READY=1\nSTATUS=Running\n");
            case SERVICE_STOP_PENDING:
                text = "STOPPING=1\nSTATUS=Stopping\n";
                break;
            case SERVICE_STOPPED:
                return Notify("STATUS=Stopped\n");
            default:
                text = "STATUS=Changing its state\n";
                break;
        }
        // The hint is what the service asks for; in microseconds here.
        return Notify(text + "EXTEND_TIMEOUT_USEC=" + std::to_string(status.dwWaitHint) + "000\n");
    }
    DWORD ControlOfSignal() const override { return SERVICE_CONTROL_STOP; }

  private:
    bool Notify(const std::string& text) {
        return length_ > 0 && sendto(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL,
                                     reinterpret_cast<const sockaddr*>(&address_),
                                     length_) == static_cast<ssize_t>(text.size());
    }

    UniqueDescriptor socket_;
    sockaddr_un address_{};
    socklen_t length_ = 0;
};

const char* Variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

std::unique_ptr<Manager> FindManager() {
    if (const char* socket = Variable(platform::kServiceSocketVariable)) {
        auto supervisor = std::make_unique<Supervisor>(std::atoi(socket));
        // Programs that this one starts are not the service.
        unsetenv(platform::kServiceSocketVariable);
        if (supervisor->Enter()) return supervisor;
        return nullptr;
    }
    if (const char* path = Variable("NOTIFY_SOCKET")) {
        auto systemd = std::make_unique<Systemd>(path);
        unsetenv("NOTIFY_SOCKET");
        return systemd;
    }
    return nullptr;
}

}  // namespace

// The one service of the process. Set up by the dispatcher before its procedure runs, and kept to
// the end of the process, so that a late report finds it.
struct ServiceStatusRecord {
    std::unique_ptr<Manager> manager;
    std::string name;
    LPSERVICE_MAIN_FUNCTIONA procedure = nullptr;
    std::atomic<LPHANDLER_FUNCTION> handler{nullptr};
    // A control that came before there was a handler.
    std::atomic<DWORD> early{0};
};

namespace {

std::atomic<ServiceStatusRecord*> g_service{nullptr};

DWORD ServiceThread(LPVOID argument) {
    auto& service = *static_cast<ServiceStatusRecord*>(argument);
    std::string name = service.name;
    char* arguments[] = {name.data(), nullptr};
    service.procedure(1, arguments);
    return 0;
}

// A control waits in `early` until there is a handler; whoever takes it from there calls it, this
// thread or the one that registers the handler.
void CallHandler(ServiceStatusRecord& service) {
    const LPHANDLER_FUNCTION handler = service.handler;
    if (handler == nullptr) return;
    if (const DWORD control = service.early.exchange(0)) handler(control);
}

void Deliver(ServiceStatusRecord& service, DWORD control) {
    if (control == 0) return;
    service.early = control;
    CallHandler(service);
    service.manager->HandlerReturned();
}

UniqueDescriptor TakeSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return UniqueDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Hands on controls until the service's thread has ended.
void Dispatch(ServiceStatusRecord& service, const UniqueDescriptor& signals, HANDLE thread) {
    platform::Waitable* const objects[] = {platform::ObjectOf<platform::Waitable>(thread)};
    for (;;) {
        std::array<pollfd, 2> extra{
            {{signals.Get(), POLLIN, 0}, {service.manager->Descriptor(), POLLIN, 0}}};
        if (platform::WaitAny(objects, extra, INFINITE) != WAIT_OBJECT_0 + 1) return;
        signalfd_siginfo info{};
        if (extra[0].revents != 0 && read(signals.Get(), &info, sizeof info) > 0)
            Deliver(service, service.manager->ControlOfSignal());
        if (extra[1].revents != 0) Deliver(service, service.manager->TakeControl());
    }
}

}  // namespace

bool platform::StartedByServiceManager() {
    return Variable(kServiceSocketVariable) != nullptr || Variable("NOTIFY_SOCKET") != nullptr;
}

BOOL StartServiceCtrlDispatcherA(const SERVICE_TABLE_ENTRYA* table) {
    std::unique_ptr<Manager> manager = FindManager();
    if (manager == nullptr || g_service != nullptr)
        return platform::Fail(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    auto* service = new ServiceStatusRecord;
    service->manager = std::move(manager);
    service->name = table[0].lpServiceName;
    service->procedure = table[0].lpServiceProc;
    g_service = service;
    const UniqueDescriptor signals = TakeSignals();
    const UniqueHandle thread(CreateThread(nullptr, 0, ServiceThread, service, 0, nullptr));
    if (!thread || !signals) return platform::Fail(ERROR_NOT_ENOUGH_MEMORY);
    Dispatch(*service, signals, thread.Get());
    return TRUE;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerA(LPCSTR name, LPHANDLER_FUNCTION handler) {
    ServiceStatusRecord* service = g_service;
    if (service == nullptr || name == nullptr || service->name != name || handler == nullptr)
        return platform::Fail(ERROR_SERVICE_DOES_NOT_EXIST);
    service->handler = handler;
    CallHandler(*service);
    return service;
}

BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status) {
    if (handle == nullptr || handle != g_service || status == nullptr)
        return platform::Fail(ERROR_INVALID_HANDLE);
    if (handle->manager->Report(*status)) return TRUE;
    return platform::Fail(ERROR_BROKEN_PIPE);
}

// The client's side of services: start, control, look.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/file.h"
#include "platform/home.h"
#include "platform/linux/fail.h"
#include "platform/linux/local_address.h"
#include "platform/linux/service/handle.h"
#include "platform/linux/service/record.h"

using platform::Fail;
using platform::ServiceMessage;
using platform::ServiceMessageKind;
using platform::UniqueDescriptor;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLook{50};
// A service that has stopped may take a moment to end its process.
constexpr milliseconds kLastProcess{5000};
constexpr int kLongestChain = 16;

// Until the other side has had its time: it keeps the limit; the second more is for its answer that
// the time is over.
bool WaitForAnswer(const UniqueDescriptor& from) {
    const auto end = Clock::now() + milliseconds(platform::kServiceRequestLimit + 1000);
    return platform::WaitForDescriptor(from.Get(), platform::Want::kRead, end) > 0;
}

// One question to the supervisor. 0, or an error.
DWORD Ask(const std::string& service, const ServiceMessage& question, SERVICE_STATUS& status) {
    const UniqueDescriptor connection = platform::ConnectSupervisor(service);
    if (!connection || !platform::SendServiceMessage(connection.Get(), question))
        return ERROR_SERVICE_NOT_ACTIVE;
    if (!WaitForAnswer(connection)) return ERROR_SERVICE_REQUEST_TIMEOUT;
    ServiceMessage reply;
    if (!platform::ReceiveServiceMessage(connection.Get(), reply)) return ERROR_SERVICE_NOT_ACTIVE;
    status = reply.status;
    return reply.value;
}

SERVICE_STATUS StatusOf(const std::string& service) {
    SERVICE_STATUS status{};
    if (Ask(service, {ServiceMessageKind::kQuery, 0, {}}, status) != 0)
        status = platform::ReadStoppedStatus(service);
    return status;
}

// The supervisor stands beside the program that starts services.
std::string SupervisorPath() {
    std::array<char, 4096> own;
    const DWORD length = GetModuleFileNameA(nullptr, own.data(), own.size());
    const std::string path(own.data(), length);
    const std::size_t end = path.find_last_of('/');
    return end == std::string::npos ? std::string()
                                    : path.substr(0, end + 1) + platform::kSupervisorProgram;
}

// Takes the lock that the supervisor holds for its life.
UniqueDescriptor LockForStart(const std::string& service) {
    const auto end = Clock::now() + kLastProcess;
    for (;;) {
        UniqueDescriptor lock(open(platform::ServiceFile(service, ".run").c_str(),
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (lock && flock(lock.Get(), LOCK_EX | LOCK_NB) == 0) return lock;
        // Held by another start, by a service that runs, or by one that is just ending.
        const bool ending = StatusOf(service).dwCurrentState == SERVICE_STOPPED;
        if (!lock || !ending || Clock::now() >= end) return UniqueDescriptor();
        std::this_thread::sleep_for(kLook);
    }
}

bool Spawn(const std::string& program, const std::string& service, int lock, int report) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&files) != 0) return false;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&files);
        return false;
    }
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&files, 0, 1);
    posix_spawn_file_actions_adddup2(&files, 0, 2);
    // Both are above 4, so neither overwrites the other.
    posix_spawn_file_actions_adddup2(&files, lock, platform::kSupervisorLock);
    posix_spawn_file_actions_adddup2(&files, report, platform::kSupervisorReport);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t defaults;
    sigfillset(&defaults);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    // The directory itself is handed on: the default of the new process could be another one.
    setenv("VANTREL_HOME", platform::Home().c_str(), 1);
    std::string words[] = {program, service};
    char* arguments[] = {words[0].data(), words[1].data(), nullptr};
    pid_t process = 0;
    const int error =
        posix_spawn(&process, program.c_str(), &files, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    errno = error;
    return error == 0;
}

UniqueDescriptor Above(UniqueDescriptor descriptor) {
    if (descriptor.Get() > platform::kSupervisorReport) return descriptor;
    return UniqueDescriptor(
        fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, platform::kSupervisorReport + 1));
}

DWORD StartAlone(const std::string& service) {
    UniqueDescriptor lock = Above(LockForStart(service));
    if (!lock) return ERROR_SERVICE_ALREADY_RUNNING;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return ERROR_TOO_MANY_OPEN_FILES;
    const UniqueDescriptor reader(ends[0]);
    UniqueDescriptor writer = Above(UniqueDescriptor(ends[1]));
    if (!Spawn(SupervisorPath(), service, lock.Get(), writer.Get()))
        return errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_GEN_FAILURE;
    // The supervisor has its own; without these the end of it shows here.
    lock.Reset();
    writer.Reset();
    DWORD error = ERROR_SERVICE_REQUEST_TIMEOUT;
    if (!WaitForAnswer(reader) ||
        read(reader.Get(), &error, sizeof error) != static_cast<ssize_t>(sizeof error))
        error = ERROR_SERVICE_REQUEST_TIMEOUT;
    return error;
}

// Waits while the service says that it is starting, for as long as it makes progress.
bool WaitUntilRunning(const std::string& service) {
    DWORD checkPoint = 0;
    auto end = Clock::now() + milliseconds(platform::kServiceRequestLimit);
    for (;;) {
        const SERVICE_STATUS status = StatusOf(service);
        if (status.dwCurrentState == SERVICE_RUNNING) return true;
        if (status.dwCurrentState != SERVICE_START_PENDING || Clock::now() >= end) return false;
        if (status.dwCheckPoint != checkPoint) {
            checkPoint = status.dwCheckPoint;
            end = Clock::now() + milliseconds(platform::kServiceRequestLimit);
        }
        std::this_thread::sleep_for(kLook);
    }
}

// `started` gets the names of those that this call has started, in their order.
DWORD Start(const std::string& service, int chain, std::vector<std::string>& started) {
    const auto record = platform::ReadServiceRecord(service);
    if (!record)
        return chain == 0 ? ERROR_SERVICE_DOES_NOT_EXIST : ERROR_SERVICE_DEPENDENCY_DELETED;
    if (chain > kLongestChain) return ERROR_CIRCULAR_DEPENDENCY;
    if (chain == 0 && StatusOf(service).dwCurrentState != SERVICE_STOPPED)
        return ERROR_SERVICE_ALREADY_RUNNING;
    for (const std::string& needed : record->dependencies) {
        if (StatusOf(needed).dwCurrentState == SERVICE_STOPPED) {
            const DWORD error = Start(needed, chain + 1, started);
            if (error == ERROR_CIRCULAR_DEPENDENCY || error == ERROR_SERVICE_DEPENDENCY_DELETED)
                return error;
            // Another start may have come first; whether it runs is what counts.
        }
        if (!WaitUntilRunning(needed)) return ERROR_SERVICE_DEPENDENCY_FAIL;
    }
    const DWORD error = StartAlone(service);
    if (error == 0) started.push_back(service);
    return error;
}

}  // namespace

UniqueDescriptor platform::ConnectSupervisor(const std::string& service) {
    const LocalAddress address("services", ServiceSocketName(service));
    UniqueDescriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connection && connect(connection.Get(), address.Get(), LocalAddress::Size()) != 0)
        connection.Reset();
    return connection;
}

BOOL StartServiceA(SC_HANDLE service, DWORD, LPCSTR*) {
    if (!platform::IsService(service)) return FALSE;
    std::vector<std::string> started;
    const DWORD error = Start(service->service, 0, started);
    if (error == 0) return TRUE;
    // What was started for its sake alone is not left behind.
    for (auto each = started.rbegin(); each != started.rend(); ++each) {
        SERVICE_STATUS status{};
        Ask(*each, {ServiceMessageKind::kControl, SERVICE_CONTROL_STOP, {}}, status);
    }
    return Fail(error);
}

BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) {
    if (!platform::IsService(service)) return FALSE;
    if (control < SERVICE_CONTROL_STOP || control > SERVICE_CONTROL_INTERROGATE)
        return Fail(ERROR_INVALID_PARAMETER);
    const DWORD error = Ask(service->service, {ServiceMessageKind::kControl, control, {}}, *status);
    if (error == 0) return TRUE;
    if (error == ERROR_SERVICE_NOT_ACTIVE) *status = platform::ReadStoppedStatus(service->service);
    return Fail(error);
}

BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) {
    if (!platform::IsService(service)) return FALSE;
    *status = StatusOf(service->service);
    return TRUE;
}

// vtservice NAME: supervises one service. Started by StartServiceA only, with the service's lock
// and the place to report the first start to as descriptors; ends when the service has stopped.
//
// One thread, one poll. The program that runs tells its status over a socket of its own and gets
// the controls there; clients ask over the control socket. A program that ends without having said
// that it stopped has died: the record's failure action starts it again after a delay, and so once
// more where that start comes to nothing. A full disk, or whatever else made it die, may last.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/account.h"
#include "platform/eventlog.h"
#include "platform/home.h"
#include "platform/linux/local_address.h"
#include "platform/linux/service/handle.h"
#include "platform/linux/service/record.h"

namespace {

using Clock = std::chrono::steady_clock;
using platform::ServiceMessage;
using platform::ServiceMessageKind;
using platform::ServiceRecord;
using platform::UniqueDescriptor;
using std::chrono::milliseconds;

// A program that has stopped, or was told that the host shuts down, has this long to end.
constexpr milliseconds kEndLimit{20000};
constexpr milliseconds kRequestLimit{platform::kServiceRequestLimit};
constexpr std::size_t kMostClients = 32;
// What a program prints is kept for a look at what went wrong, not as a log.
constexpr off_t kMostOutput = 1 << 20;
constexpr std::chrono::seconds kOutputLook{60};
constexpr DWORD kServiceDiedEvent = 0xC0001B77;

class Supervision {
  public:
    Supervision(ServiceRecord record, UniqueDescriptor report)
        : record_(std::move(record)), report_(std::move(report)) {}

    int Run();

  private:
    bool Prepare();
    // The output of the start before stays when the program is started again after it died: it may
    // say why.
    enum class Output { kNew, kGoOn };
    bool Launch(Output output);
    void ReportFirstStart(DWORD error);
    void SetState(DWORD state, DWORD exitCode);

    void Step();
    int NextWait() const;
    void OnSignals();
    void OnTimers();
    void OnProgram();
    void OnDeath();
    void OnStatus(const SERVICE_STATUS& status);
    void OnClient(UniqueDescriptor& client);
    DWORD Control(const UniqueDescriptor& client, DWORD control);
    void Answer(int client, DWORD error);
    void AnswerWaiting(DWORD error);
    void ShutDown();
    void Finish();
    void CutOutput();

    ServiceRecord record_;
    UniqueDescriptor report_;  // open until the first start is decided
    UniqueDescriptor signals_;
    UniqueDescriptor listener_;
    UniqueDescriptor program_;
    std::vector<UniqueDescriptor> clients_;
    int waiting_ = -1;  // the client whose control is with the program
    pid_t process_ = 0;
    bool greeted_ = false;  // the program has entered its dispatcher
    bool stopAsked_ = false;
    bool recovering_ = false;  // started again, and not running yet
    bool finished_ = false;
    SERVICE_STATUS status_{};
    std::optional<Clock::time_point> restartAt_;
    std::optional<Clock::time_point> requestEnd_;  // of a start or a control
    std::optional<Clock::time_point> killAt_;
    std::optional<Clock::time_point> outputLook_{Clock::now() + kOutputLook};
};

void LogDeath(const ServiceRecord& record, bool again) {
    const HANDLE source = RegisterEventSourceA(nullptr, record.name.c_str());
    if (source == nullptr) return;
    const std::string text =
        record.displayName + " terminated unexpectedly." +
        (again ? " It is started again in " + std::to_string(record.restartDelay) + " ms." : "");
    const char* texts[] = {text.c_str()};
    ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, kServiceDiedEvent, nullptr, 1, 0, texts, nullptr);
    DeregisterEventSource(source);
}

bool Supervision::Prepare() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_.Reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    // The lock makes this the only supervisor of the name: an old socket is a leaving.
    unlink(platform::ServiceFile(record_.name, ".sock").c_str());
    const platform::LocalAddress address("services", platform::ServiceSocketName(record_.name));
    listener_.Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return signals_ && listener_ &&
           bind(listener_.Get(), address.Get(), platform::LocalAddress::Size()) == 0 &&
           listen(listener_.Get(), SOMAXCONN) == 0;
}

bool Supervision::Launch(Output output) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return false;
    program_.Reset(ends[0]);
    // Above the descriptors that are set below, so that none of them overwrites it.
    const UniqueDescriptor theirs(fcntl(ends[1], F_DUPFD_CLOEXEC, platform::kServiceSocket + 1));
    close(ends[1]);
    const std::string path = platform::ServiceFile(record_.name, ".out");
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&files) != 0) return false;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    const int emptied = output == Output::kNew ? O_TRUNC : 0;
    posix_spawn_file_actions_addopen(&files, 1, path.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | emptied, 0600);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    posix_spawn_file_actions_adddup2(&files, theirs.Get(), platform::kServiceSocket);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes, &none);
    setenv(platform::kServiceSocketVariable, std::to_string(platform::kServiceSocket).c_str(), 1);
    std::string program = record_.path;
    char* arguments[] = {program.data(), nullptr};
    const int error =
        posix_spawn(&process_, program.c_str(), &files, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    greeted_ = false;
    if (error == 0) return true;
    process_ = 0;
    errno = error;
    return false;
}

void Supervision::ReportFirstStart(DWORD error) {
    if (!report_) return;
    // Whoever waited may have gone; the service's state tells the same.
    [[maybe_unused]] const ssize_t done = write(report_.Get(), &error, sizeof error);
    report_.Reset(-1);
}

void Supervision::SetState(DWORD state, DWORD exitCode) {
    status_.dwServiceType = record_.type;
    status_.dwCurrentState = state;
    status_.dwControlsAccepted = 0;
    status_.dwWin32ExitCode = exitCode;
    status_.dwCheckPoint = 0;
    status_.dwWaitHint = state == SERVICE_STOPPED ? 0 : 2000;
    platform::WriteStatusFile(record_.name, status_, process_);
}

int Supervision::Run() {
    signal(SIGPIPE, SIG_IGN);
    SetState(SERVICE_START_PENDING, 0);
    if (!Prepare() || !Launch(Output::kNew)) {
        const DWORD error = errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED;
        SetState(SERVICE_STOPPED, error);
        unlink(platform::ServiceFile(record_.name, ".sock").c_str());
        ReportFirstStart(error);
        return 1;
    }
    SetState(SERVICE_START_PENDING, 0);
    requestEnd_ = Clock::now() + kRequestLimit;
    while (!finished_) Step();
    return 0;
}

int Supervision::NextWait() const {
    auto first = Clock::time_point::max();
    for (const auto& each : {restartAt_, requestEnd_, killAt_, outputLook_}) {
        if (each) first = std::min(first, *each);
    }
    if (first == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<milliseconds>(first - Clock::now()).count();
    return static_cast<int>(std::max<long long>(left, 0));
}

void Supervision::Step() {
    std::vector<pollfd> entries{
        {signals_.Get(), POLLIN, 0}, {program_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}};
    for (const UniqueDescriptor& client : clients_) entries.push_back({client.Get(), POLLIN, 0});
    if (poll(entries.data(), entries.size(), NextWait()) < 0 && errno != EINTR) std::abort();
    if (entries[1].revents != 0) OnProgram();
    if (entries[0].revents != 0) OnSignals();
    for (std::size_t i = 3; i < entries.size(); ++i) {
        if (entries[i].revents != 0) OnClient(clients_[i - 3]);
    }
    std::erase_if(clients_, [](const UniqueDescriptor& client) { return !client; });
    if (entries[2].revents != 0) {
        UniqueDescriptor client(
            accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (client && clients_.size() < kMostClients) clients_.push_back(std::move(client));
    }
    OnTimers();
}

void Supervision::OnProgram() {
    ServiceMessage message;
    while (platform::ReceiveServiceMessage(program_.Get(), message)) {
        switch (message.kind) {
            case ServiceMessageKind::kHello:
                greeted_ = true;
                requestEnd_.reset();
                ReportFirstStart(0);
                break;
            case ServiceMessageKind::kStatus:
                OnStatus(message.status);
                break;
            case ServiceMessageKind::kDone:
                AnswerWaiting(0);
                break;
            default:
                break;
        }
    }
    if (errno == EAGAIN) return;
    // It has closed its end; its death is the signal's affair.
    program_.Reset(-1);
    AnswerWaiting(ERROR_SERVICE_REQUEST_TIMEOUT);
}

void Supervision::OnStatus(const SERVICE_STATUS& status) {
    status_ = status;
    platform::WriteStatusFile(record_.name, status_, process_);
    if (status.dwCurrentState == SERVICE_RUNNING) recovering_ = false;
    if (status.dwCurrentState == SERVICE_STOPPED) killAt_ = Clock::now() + kEndLimit;
}

void Supervision::OnSignals() {
    bool told = false;
    for (signalfd_siginfo info{}; read(signals_.Get(), &info, sizeof info) > 0;)
        told = told || info.ssi_signo == SIGTERM;
    int status = 0;
    if (process_ != 0 && waitpid(process_, &status, WNOHANG) == process_) OnDeath();
    if (told && !finished_) ShutDown();
}

void Supervision::OnDeath() {
    if (program_) OnProgram();  // what it has said last
    program_.Reset(-1);
    process_ = 0;
    killAt_.reset();
    requestEnd_.reset();
    AnswerWaiting(ERROR_SERVICE_REQUEST_TIMEOUT);
    if (status_.dwCurrentState == SERVICE_STOPPED && (!recovering_ || stopAsked_)) return Finish();
    const bool first = static_cast<bool>(report_);
    ReportFirstStart(ERROR_SERVICE_REQUEST_TIMEOUT);
    // As it is now: it may have been changed, or taken away.
    const auto record = platform::ReadServiceRecord(record_.name);
    if (record) record_ = *record;
    const bool again = record && record_.restart && !stopAsked_ && !first;
    if (!stopAsked_) LogDeath(record_, again);
    if (!again) {
        SetState(SERVICE_STOPPED, ERROR_PROCESS_ABORTED);
        return Finish();
    }
    SetState(SERVICE_START_PENDING, 0);
    restartAt_ = Clock::now() + milliseconds(record_.restartDelay);
}

void Supervision::OnTimers() {
    const auto now = Clock::now();
    if (restartAt_ && now >= *restartAt_) {
        restartAt_.reset();
        recovering_ = true;
        if (Launch(Output::kGoOn)) {
            requestEnd_ = now + kRequestLimit;
            SetState(SERVICE_START_PENDING, 0);
        } else {
            // The program may be about to be replaced: it is tried again.
            restartAt_ = now + std::max(milliseconds(record_.restartDelay), milliseconds(1000));
        }
    }
    if (requestEnd_ && now >= *requestEnd_) {
        requestEnd_.reset();
        AnswerWaiting(ERROR_SERVICE_REQUEST_TIMEOUT);
        if (!greeted_ && process_ != 0) kill(process_, SIGKILL);
    }
    if (outputLook_ && now >= *outputLook_) {
        outputLook_ = now + kOutputLook;
        CutOutput();
    }
    if (killAt_ && now >= *killAt_) {
        killAt_.reset();
        if (process_ != 0) kill(process_, SIGKILL);
    }
}

// The program appends: what it prints next stands at the start again.
void Supervision::CutOutput() {
    const std::string path = platform::ServiceFile(record_.name, ".out");
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && info.st_size > kMostOutput &&
        truncate(path.c_str(), 0) != 0)
        std::perror("vtservice");
}

void Supervision::Answer(int client, DWORD error) {
    platform::SendServiceMessage(client, {ServiceMessageKind::kReply, error, status_});
}

void Supervision::AnswerWaiting(DWORD error) {
    if (waiting_ >= 0) Answer(waiting_, error);
    waiting_ = -1;
    if (greeted_) requestEnd_.reset();
}

void Supervision::OnClient(UniqueDescriptor& client) {
    ServiceMessage message;
    if (!platform::ReceiveServiceMessage(client.Get(), message)) {
        if (errno == EAGAIN) return;
        if (client.Get() == waiting_) waiting_ = -1;
        client.Reset(-1);
        return;
    }
    if (message.kind == ServiceMessageKind::kQuery) return Answer(client.Get(), 0);
    if (message.kind != ServiceMessageKind::kControl) return;
    const DWORD error = Control(client, message.value);
    if (waiting_ != client.Get()) Answer(client.Get(), error);
}

// Hands a control on; the client then waits. Otherwise the error, or 0 if it is dealt with.
DWORD Supervision::Control(const UniqueDescriptor& client, DWORD control) {
    if (control < SERVICE_CONTROL_STOP || control > SERVICE_CONTROL_INTERROGATE)
        return ERROR_INVALID_PARAMETER;
    if (status_.dwCurrentState == SERVICE_STOPPED) return ERROR_SERVICE_NOT_ACTIVE;
    if (restartAt_ && control == SERVICE_CONTROL_STOP) {
        restartAt_.reset();
        SetState(SERVICE_STOPPED, 0);
        Finish();
        return 0;
    }
    static constexpr DWORD kNeeded[] = {0, SERVICE_ACCEPT_STOP, SERVICE_ACCEPT_PAUSE_CONTINUE,
                                        SERVICE_ACCEPT_PAUSE_CONTINUE, 0};
    const bool pending = status_.dwCurrentState == SERVICE_START_PENDING ||
                         status_.dwCurrentState == SERVICE_STOP_PENDING;
    if (!program_ || !greeted_ || waiting_ >= 0 ||
        (pending && control != SERVICE_CONTROL_INTERROGATE))
        return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    if ((status_.dwControlsAccepted & kNeeded[control]) != kNeeded[control])
        return ERROR_INVALID_SERVICE_CONTROL;
    if (!platform::SendServiceMessage(program_.Get(), {ServiceMessageKind::kControl, control, {}}))
        return ERROR_SERVICE_REQUEST_TIMEOUT;
    stopAsked_ = stopAsked_ || control == SERVICE_CONTROL_STOP;
    waiting_ = client.Get();
    requestEnd_ = Clock::now() + kRequestLimit;
    return 0;
}

// The host goes down, or somebody ends the supervisor: the service ends in good order.
void Supervision::ShutDown() {
    stopAsked_ = true;
    restartAt_.reset();
    if (process_ == 0) {
        SetState(SERVICE_STOPPED, 0);
        return Finish();
    }
    const bool takes = program_ && (status_.dwControlsAccepted & SERVICE_ACCEPT_SHUTDOWN) != 0;
    if (!takes || !platform::SendServiceMessage(
                      program_.Get(), {ServiceMessageKind::kControl, SERVICE_CONTROL_SHUTDOWN, {}}))
        kill(process_, SIGTERM);
    if (!killAt_) killAt_ = Clock::now() + kEndLimit;
}

void Supervision::Finish() {
    finished_ = true;
    unlink(platform::ServiceFile(record_.name, ".sock").c_str());
    if (platform::ReadServiceRecord(record_.name)) return;
    // Removed while it ran: nothing of it stays.
    for (const char* suffix : {".status", ".out", ".run"})
        unlink(platform::ServiceFile(record_.name, suffix).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const auto isOpen = [](int descriptor) { return fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0; };
    if (argc != 2 || !platform::ValidServiceName(argv[1]) || platform::Home().empty() ||
        !isOpen(platform::kSupervisorLock) || !isOpen(platform::kSupervisorReport)) {
        std::fprintf(stderr, "vtservice supervises one service; start it with PROGRAM start\n");
        return 2;
    }
    umask(077);
    if (chdir("/") != 0) return 1;
    const auto record = platform::ReadServiceRecord(argv[1]);
    if (!record) return 1;
    return Supervision(*record, UniqueDescriptor(platform::kSupervisorReport)).Run();
}

#include "daemons/supervisor/supervision.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/eventlog.h"
#include "platform/linux/local_address.h"
#include "platform/linux/wait/object.h"

namespace {

using platform::ServiceMessage;
using platform::ServiceMessageKind;
using platform::ServiceRecord;
using platform::UniqueDescriptor;
using std::chrono::milliseconds;

// A program that has stopped, or was told that the host shuts down, has this long to end.
constexpr milliseconds kEndLimit{20000};
constexpr std::size_t kMostClients = 32;
constexpr DWORD kServiceDiedEvent = 0xC0001B77;

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

}  // namespace

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

void Supervision::ReportFirstStart(DWORD error) {
    if (!report_) return;
    // Whoever waited may have gone; the service's state tells the same.
    [[maybe_unused]] const ssize_t done = write(report_.Get(), &error, sizeof error);
    report_.Reset();
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

std::optional<Supervision::Clock::time_point> Supervision::NextEnd() const {
    std::optional<Clock::time_point> first;
    for (const auto& each : {restartAt_, requestEnd_, killAt_, outputLook_}) {
        if (each && (!first || *each < *first)) first = each;
    }
    return first;
}

void Supervision::Step() {
    std::vector<pollfd> entries{
        {signals_.Get(), POLLIN, 0}, {program_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}};
    for (const UniqueDescriptor& client : clients_) entries.push_back({client.Get(), POLLIN, 0});
    if (platform::PollUntil(entries, NextEnd()) < 0) std::abort();
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
    program_.Reset();
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
    program_.Reset();
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

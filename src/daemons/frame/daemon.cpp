#include "daemons/frame/daemon.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "metrics/count.h"
#include "platform/account.h"
#include "platform/console.h"
#include "trelis/admin.h"
#include "trelis/trelis.h"

Daemon::Daemon(const char* name, const char* display, const char* descriptionText,
               const char* endpointName, metrics::Program program)
    : CNTService(name),
      program_(program),
      endpointName_(endpointName),
      stopEvent_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
    displayName = display;
    description = descriptionText;
    acceptedControls = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
}

int Daemon::RegisterDefaults() { return trelis::Register(Keys(), platform::PersonName()); }

int Daemon::UnregisterDefaults() { return trelis::Unregister(Keys(), platform::PersonName()); }

void Daemon::Stop() {
    ReportStatus(SERVICE_STOP_PENDING, static_cast<DWORD>(StopSeconds() + 5) * 1000, 0);
    SetEvent(stopEvent_.Get());
}

DWORD Daemon::Serve(LPVOID argument) {
    auto& daemon = *static_cast<Daemon*>(argument);
    for (;;) {
        LIPCConnection* connection = nullptr;
        const void* data = nullptr;
        std::uint32_t length = 0;
        const int status = LIPCReceive(daemon.endpoint_, &connection, &data, &length, -1);
        if (status == LIPC_CLOSING) return 0;
        if (status != LIPC_OK) continue;
        void* reply = nullptr;
        std::uint32_t replyLength = 0;
        // One that comes during a stop gets a reply without data at once: it counts as failed.
        const bool begun = daemon.Begin();
        try {
            if (begun) daemon.Answer(data, length, &reply, &replyLength);
        } catch (const std::exception&) {  // memory ran out: the client still gets its one reply
        }
        LIPCReply(daemon.endpoint_, connection, reply, replyLength);
        std::free(reply);
        if (begun) daemon.Finish();
    }
}

bool Daemon::Begin() {
    const std::lock_guard lock(mutex_);
    if (stopping_) return false;
    ++inHand_;
    return true;
}

void Daemon::Finish() {
    const std::lock_guard lock(mutex_);
    if (--inHand_ == 0) finished_.notify_all();
}

// The endpoint stays open until the requests in hand are answered, or their time is over.
void Daemon::Drain() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    finished_.wait_for(lock, std::chrono::seconds(StopSeconds()), [this] { return inHand_ == 0; });
}

void Daemon::Run(int argc, char** argv) {
    ReportStatus(SERVICE_START_PENDING, 3000, 0);
    if (!lock_.Take(serviceName.c_str())) {
        std::fprintf(stderr, "%s: %s\n", serviceName.c_str(), lock_.Error().c_str());
        return;
    }
    if (TrelisInit2() < 0) {
        std::fprintf(stderr, "%s: %s\n", serviceName.c_str(), trelis::WhyNotOpen().c_str());
        return;
    }
    if (!metrics::Open(program_))
        std::fprintf(stderr, "%s: can't make its file below metrics: nothing of it is shown\n",
                     serviceName.c_str());
    if (Start(argc, argv)) {
        if (LIPCOpenServer(&endpoint_, endpointName_) == LIPC_OK) {
            std::vector<UniqueHandle> threads;
            threads.reserve(static_cast<std::size_t>(Threads()));
            for (int i = 0; i < Threads(); ++i)
                threads.emplace_back(CreateThread(nullptr, 0, Serve, this, 0, nullptr));
            ReportStatus(SERVICE_RUNNING, 3000, 0);
            WaitForSingleObject(stopEvent_.Get(), INFINITE);
            Drain();
            // The threads leave with the endpoint.
            LIPCClose(endpoint_);
            for (const UniqueHandle& thread : threads) {
                if (thread) WaitForSingleObject(thread.Get(), INFINITE);
            }
        } else {
            std::fprintf(stderr, "%s: can't serve the pipe %s\n", serviceName.c_str(),
                         endpointName_);
        }
        End();
    }
    TrelisUninit();
}

int RunDaemon(CNTService& daemon, int argc, char** argv) {
    platform::HoldSignals();
    platform::RaiseDescriptorLimit();
    return daemon.ProcessCommandLine(argc, argv);
}

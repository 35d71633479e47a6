// The question to the scan daemon: scan_requests VTMAILD [REQUESTS]. Starts the daemon with the
// instant answer and asks it with 1 and with 10 threads, and tasks, the bare request and the whole
// scan. For each: requests a second, and of client and daemon the processor time and the voluntary
// context switches of one request.
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "lipc/deliver.h"
#include "platform/task.h"
#include "scanclient/scanclient.h"
#include "support/instance.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

struct Cost {
    double microseconds = 0;  // of the processors
    double switches = 0;      // voluntary
};

// What all threads of a process have cost by now.
Cost CostOf(pid_t process) {
    Cost cost;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        double nanoseconds = 0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        cost.microseconds += nanoseconds / 1e3;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:"))
                cost.switches += std::atof(line.c_str() + line.find(':') + 1);
        }
    }
    return cost;
}

LIPCEndpoint* g_endpoint = nullptr;

bool Request() {
    OwnedFlatForm flat;
    const TagMsgField fields[] = {{TagPath, "/var/spool/vantrel/message-1"}};
    TagMsgFlatten(fields, flat);
    return LIPCDeliver(g_endpoint, flat.data, flat.length) == LIPC_OK;
}

bool Scan() {
    MailScanRecord record{};
    record.path = "/var/spool/vantrel/message-1";
    record.sender = "sender@example.org";
    record.peerAddress = "192.0.2.1";
    record.cancelCallback = [](void*) { return 0; };
    MailScanAddRecipient(&record, "recipient@example.org");
    MailScanSetObjectActions(&record, 0x10, nullptr);
    MailScanSetMessageActions(&record, 0x10, nullptr);
    const bool good = MailScan(&record) == 0 && record.actionMask == 1;
    MailScanFree(&record);
    return good;
}

// What this process has cost by now, its ended threads included.
Cost MyCost() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec;
    const auto rest = usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
    return {static_cast<double>(seconds) * 1e6 + static_cast<double>(rest),
            static_cast<double>(usage.ru_nvcsw)};
}

// Runs `count` of them at once, on threads or as tasks, each `times` times.
void RunAll(bool tasks, int count, int times, bool (*request)()) {
    struct Run {
        int times;
        bool (*request)();
        std::atomic<int> running;
    } run{times, request, count};
    const auto work = [](void* argument) {
        auto& all = *static_cast<Run*>(argument);
        for (int n = 0; n < all.times; ++n) {
            if (!all.request()) std::abort();
        }
        --all.running;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        if (tasks)
            platform::StartTask(work, &run);
        else
            threads.emplace_back(work, &run);
    }
    for (std::thread& each : threads) each.join();
    while (run.running > 0) platform::SleepFor(std::chrono::milliseconds(1));
}

void Measure(const char* name, pid_t daemon, bool tasks, int count, int requests,
             bool (*request)()) {
    const Cost theirs = CostOf(daemon);
    const Cost mine = MyCost();
    const auto start = std::chrono::steady_clock::now();
    RunAll(tasks, count, requests / count, request);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const Cost now = MyCost();
    const Cost theirsNow = CostOf(daemon);
    std::printf("%-8s %2d %s %6.0f/s   client %5.1f us %5.2f switches   daemon %5.1f us %5.2f\n",
                name, count, tasks ? "tasks  " : "threads", requests / took.count(),
                (now.microseconds - mine.microseconds) / requests,
                (now.switches - mine.switches) / requests,
                (theirsNow.microseconds - theirs.microseconds) / requests,
                (theirsNow.switches - theirs.switches) / requests);
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 2 ? std::atoi(argv[2]) : 50000;
    char debug[] = "debug";
    char null[] = "--null";
    char* command[] = {argv[1], debug, null, nullptr};
    pid_t daemon = 0;
    if (argc < 2 || posix_spawn(&daemon, argv[1], nullptr, nullptr, command, environ) != 0)
        return 1;
    MailScanInit();
    for (int i = 0; i < 500 && !Scan(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    LIPCOpenClient(&g_endpoint, "vtmaild");
    for (const bool tasks : {false, true}) {
        for (const int count : {1, 10}) {
            Measure("request", daemon, tasks, count, requests, Request);
            Measure("scan", daemon, tasks, count, requests, Scan);
        }
    }
    LIPCClose(g_endpoint);
    MailScanUninit();
    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    return 0;
}

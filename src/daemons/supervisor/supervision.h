// One service's program from its first start to its end: kept running, told the controls, answered
// for. One thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <vector>

#include "platform/descriptor.h"
#include "platform/linux/service/record.h"

class Supervision {
  public:
    // report: takes how the first start went, and is closed then.
    Supervision(platform::ServiceRecord record, platform::UniqueDescriptor report)
        : record_(std::move(record)), report_(std::move(report)) {}

    // To the end of the service: the exit code.
    int Run();

  private:
    using Clock = std::chrono::steady_clock;

    // launch.cpp: the program. The output of the start before stays when the program is started
    // again after it died: it may say why.
    enum class Output { kNew, kGoOn };
    bool Launch(Output output);
    void CutOutput();

    // clients.cpp: those who ask.
    void OnClient(platform::UniqueDescriptor& client);
    DWORD Control(const platform::UniqueDescriptor& client, DWORD control);
    void Answer(int client, DWORD error);
    void AnswerWaiting(DWORD error);

    // supervision.cpp: what becomes of the service.
    bool Prepare();
    void ReportFirstStart(DWORD error);
    void SetState(DWORD state, DWORD exitCode);
    void Step();
    std::optional<Clock::time_point> NextEnd() const;
    void OnSignals();
    void OnTimers();
    void OnProgram();
    void OnDeath();
    void OnStatus(const SERVICE_STATUS& status);
    void ShutDown();
    void Finish();

    static constexpr std::chrono::milliseconds kRequestLimit{platform::kServiceRequestLimit};
    static constexpr std::chrono::seconds kOutputLook{60};

    platform::ServiceRecord record_;
    platform::UniqueDescriptor report_;  // open until the first start is decided
    platform::UniqueDescriptor signals_;
    platform::UniqueDescriptor listener_;
    platform::UniqueDescriptor program_;
    std::vector<platform::UniqueDescriptor> clients_;
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

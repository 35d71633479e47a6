// ntservice/: CNTService, the base of every program of the system that is a service: options,
// states, foreground mode. It knows nothing of mail.
//
// One object a process, built before the command line is looked at. The foreground mode is
// complete; the modes that need a service manager come with it.
#pragma once

#include <atomic>
#include <string>

#include "platform/types.h"

// Service states, as the service manager counts them.
inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;

class CNTService {
  public:
    explicit CNTService(const char* serviceName);
    CNTService(const CNTService&) = delete;
    CNTService& operator=(const CNTService&) = delete;
    virtual ~CNTService();

    // The service's work; returns when the service has ended.
    virtual void Run(int argc, char** argv) = 0;
    // Asks Run to end. Any thread.
    virtual void Stop() = 0;
    virtual void Pause() {}
    virtual void Continue() {}
    virtual void Shutdown() {}
    // Reads the options and does what they ask for. The process's exit code.
    virtual int ProcessCommandLine(int argc, char** argv);
    // Runs in the foreground until an interrupt. Always 1.
    virtual int RunInForeground(int argc, char** argv);

    // Tells the service manager a state; waitHint in milliseconds. Non-zero on success; in the
    // foreground nothing is told. Any thread.
    int ReportStatus(DWORD state, DWORD waitHint, DWORD specificCode);

    bool InForeground() const { return foreground_; }

  protected:
    std::string description;
    std::string serviceName;
    std::string displayName;  // all messages use it

  private:
    static BOOL ConsoleHandler(DWORD code);

    bool foreground_ = false;
};

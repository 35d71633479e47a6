// ntservice/: CNTService, the base of every program of the system that is a service: options,
// installation, start and stop, states, event log, foreground mode. It knows nothing of mail.
//
// One object a process, built before the command line is looked at and living to its end. The
// control handler runs on the dispatcher's thread (in the foreground: the interrupt's) while Run
// runs on its own; ReportStatus may be called from both.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/eventlog.h"
#include "platform/service.h"
#include "platform/types.h"

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
    // Reads the options and does what they ask for; the last one wins, but for "debug", which is
    // done at once. The process's exit code: 0 or -1, and 1 after "debug".
    virtual int ProcessCommandLine(int argc, char** argv);
    // Whether the word is one of the options.
    static bool IsOption(std::string_view word);
    // Hands the process to the service manager; returns when the service has stopped. 0 if none
    // has started this process.
    virtual int StartDispatcher();
    // What the options do. 1, or 0 after a line on standard output that says why not.
    virtual int InstallService();
    virtual int RemoveService();
    virtual int StopInstalledService();
    virtual int StartInstalledService();
    // Runs in the foreground until an interrupt; hidden is for a system without service manager.
    // Always 1.
    virtual int RunInForeground(int argc, char** argv, int hidden);
    // Write and delete the program's keys in the store. 1, or 0.
    virtual int RegisterDefaults() { return 1; }
    virtual int UnregisterDefaults() { return 1; }
    // Make the program known to the event log as a source of records, and forget it. types: the
    // sum of the record types it writes.
    virtual void InstallEventSource(const char* messageFile, unsigned types);
    virtual void RemoveEventSource();
    // Tells the manager the description, and to start the service again one second after it died.
    virtual void ConfigureRecovery(const char* path);
    // Writes one record; the event id -1 stands for the type's own.
    virtual void LogEvent(const char* text, int type, unsigned eventId);

    // Tells the service manager a state; waitHint in milliseconds; a specificCode other than 0 is
    // the exit code. Non-zero on success; in the foreground nothing is told. Any thread.
    int ReportStatus(DWORD state, DWORD waitHint, DWORD specificCode);
    // The platform's text for the calling thread's last error, without line end; empty if there is
    // none or it doesn't fit with 14 bytes to spare. Gives buffer.
    static char* GetLastErrorText(char* buffer, DWORD size);

  protected:
    std::string description;
    std::string serviceName;
    std::string displayName;  // all messages use it
    DWORD acceptedControls = SERVICE_ACCEPT_STOP;
    std::vector<std::string> dependencies;
    int hasServiceManager = 1;

  private:
    static void ServiceEntry(DWORD argc, char** argv);
    static void ControlHandler(DWORD code);
    static BOOL ConsoleHandler(DWORD code);

    void FindUserIdentity();
    void OpenConsole();
    void RunAsService(DWORD argc, char** argv);
    void SetState(DWORD state);
    // Changes the status under its lock, and tells the service manager.
    bool Report(const std::function<void(SERVICE_STATUS& status)>& change);
    void WriteEvent(const char* source, const char* text, int type, unsigned eventId);
    void SetFailureActions(SC_HANDLE service);
    DWORD CurrentState();

    DWORD desiredAccess_ = SERVICE_ALL_ACCESS;
    DWORD serviceType_ = SERVICE_WIN32_OWN_PROCESS;
    DWORD startType_ = SERVICE_AUTO_START;
    DWORD errorControl_ = SERVICE_ERROR_NORMAL;
    std::vector<BYTE> userIdentity_;   // empty: records go out without a user
    std::atomic<DWORD> lastError_{0};  // of the platform, at the last LogEvent
    bool foreground_ = false;
    bool consoleAttached_ = false;

    std::mutex mutex_;
    SERVICE_STATUS status_{};                       // guarded by mutex_
    DWORD checkPoint_ = 0;                          // guarded by mutex_: pending reports so far
    SERVICE_STATUS_HANDLE statusHandle_ = nullptr;  // written before Run starts
};

// daemons/: the companions of the proxy: vtregistry, the store's tool; vtmaild, which scans;
// vtlogd, which logs.
//
// This header: the frame that the daemons share, a service that answers requests on one LIPC
// endpoint with a number of threads, in the foreground (the word debug) until SIGINT or SIGTERM.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "lipc/lipc.h"
#include "ntservice/ntservice.h"
#include "platform/file.h"
#include "platform/sync.h"

class Daemon : public CNTService {
  public:
    // endpointName is the pipe's name; the service's name is its own.
    Daemon(const char* serviceName, const char* displayName, const char* endpointName);

    void Run(int argc, char** argv) override;
    void Stop() override;
    void Shutdown() override { Stop(); }

    // 0 after an ordinary end, 1 if it could not start.
    int ExitCode() const { return exitCode_; }

  protected:
    // Before the endpoint is opened. False (with a word on standard error) ends the start.
    virtual bool Start(int argc, char** argv) = 0;
    virtual int Threads() const = 0;
    // Builds the reply to one request: a malloc'd flat form (freed by the caller), or null for a
    // reply without data. Any of the threads.
    virtual void Answer(const void* data, std::uint32_t length, void** reply,
                        std::uint32_t* replyLength) = 0;
    virtual void End() {}

  private:
    static DWORD Serve(LPVOID daemon);

    const char* const endpointName_;
    LIPCEndpoint* endpoint_ = nullptr;
    UniqueHandle stopEvent_;
    platform::InstanceLock lock_;
    int exitCode_ = 1;
};

// What each daemon's main does: signals, limits, options. The exit code.
int RunDaemon(Daemon& daemon, int argc, char** argv);

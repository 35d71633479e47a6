// daemons/: the companions of the proxy, a folder each: registryd (vtregistry, the store's tool and
// service), maild (vtmaild, which scans), logd, statd, and the services' supervisor.
//
// frame/: what they share, a service that answers requests on one LIPC endpoint with a number of
// threads.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "lipc/lipc.h"
#include "metrics/table.h"
#include "ntservice/ntservice.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "trelis/keys/registration.h"

class Daemon : public CNTService {
  public:
    // program: as what it is counted. endpointName is the pipe's name; the service's name is its
    // own.
    Daemon(const char* serviceName, const char* displayName, const char* descriptionText,
           const char* endpointName, metrics::Program program);

    void Run(int argc, char** argv) override;
    void Stop() override;
    void Shutdown() override { Stop(); }
    int RegisterDefaults() override;
    int UnregisterDefaults() override;

  protected:
    // What the options register and unregister write and delete.
    virtual trelis::Registration Keys() const = 0;
    // Before the endpoint is opened. False (with a word on standard error) ends the start.
    virtual bool Start(int argc, char** argv) = 0;
    virtual int Threads() const = 0;
    // Builds the reply to one request: a malloc'd flat form (freed by the caller), or null for a
    // reply without data. Any of the threads.
    virtual void Answer(const void* data, std::uint32_t length, void** reply,
                        std::uint32_t* replyLength) = 0;
    virtual void End() {}
    // Seconds that a stop waits for the requests in hand, at most: below what the service manager
    // gives a program to end.
    virtual int StopSeconds() const { return 5; }

  private:
    static DWORD Serve(LPVOID daemon);
    bool Begin();
    void Finish();
    void Drain();

    const metrics::Program program_;
    const char* const endpointName_;
    LIPCEndpoint* endpoint_ = nullptr;
    UniqueHandle stopEvent_;
    platform::InstanceLock lock_;
    std::mutex mutex_;
    std::condition_variable finished_;
    int inHand_ = 0;         // guarded by mutex_: requests that are being answered
    bool stopping_ = false;  // guarded by mutex_
};

// What each daemon's main does: signals, limits, options. The exit code.
int RunDaemon(CNTService& daemon, int argc, char** argv);

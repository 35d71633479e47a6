// Inside platform/: a served pipe name: its listener, and the instances that wait for clients.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "platform/descriptor.h"
#include "platform/linux/pipe/completion_queue.h"

namespace platform {

class Pipe;

// One served name: the listening socket that all instances share.
class PipeServer : public std::enable_shared_from_this<PipeServer> {
  public:
    PipeServer() = default;
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;
    ~PipeServer();
    static std::shared_ptr<PipeServer> Get(const std::string& name);

    bool Watch(CompletionQueue* queue);
    // The next client for the instance, now or later.
    void Wait(Pipe* pipe);
    void StopWaiting(Pipe* pipe);
    void AcceptWaiting();

  private:
    class Listener final : public PollTarget {
      public:
        explicit Listener(std::weak_ptr<PipeServer> server) : server_(std::move(server)) {}
        void OnReady(std::uint32_t) override {
            if (const auto server = server_.lock()) server->AcceptWaiting();
        }

      private:
        const std::weak_ptr<PipeServer> server_;
    };
    bool Open(const std::string& name);
    UniqueDescriptor Accept();
    bool RefuseOne();

    std::string path_;
    UniqueDescriptor lock_;
    UniqueDescriptor listener_;
    std::mutex mutex_;  // guards all below
    // Given up for a moment to refuse a client where there is no descriptor left.
    UniqueDescriptor reserve_;
    // Instances in the order of their waits; each leaves before it is closed.
    std::deque<Pipe*> waiting_;
    Reference<CompletionQueue> queue_;
    Reference<Listener> target_;
    std::uint64_t watch_ = 0;  // the queue's number for the listener; 0: none
};

}  // namespace platform

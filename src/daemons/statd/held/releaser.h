// Inside held/: releases under way. A mail server may take its time, and none of the HTTP server's
// threads waits for it.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "daemons/quarantine/quarantine.h"
#include "net/socket.h"
#include "session/server/connector.h"

namespace stats {

// As the log says by what a person has done something here.
inline constexpr char kThrough[] = "page";

class Releaser final : private ConnectWatch {
  public:
    explicit Releaser(quarantine::Quarantine& store);
    Releaser(const Releaser&) = delete;
    Releaser& operator=(const Releaser&) = delete;
    // Cuts the one that is under way: its state says so.
    ~Releaser();

    // One after the other, for an account; one that waits already, or is under way, just once.
    // False: there are too many already.
    bool Add(const std::string& id, const std::string& account);
    // What came of it, or that it is under way; empty: nobody has asked for it lately.
    std::string Outcome(const std::string& id);

  private:
    struct Wish {
        std::string id;
        std::string account;
    };
    void Work();
    bool Trying(SOCKET socket) override;
    void Failed() override;
    bool Wanted() override;

    quarantine::Quarantine& store_;
    std::mutex mutex_;  // guards all below but the thread
    std::condition_variable wake_;
    bool ending_ = false;
    CSocket socket_;  // of the one under way
    std::deque<Wish> waiting_;
    std::string underWay_;  // its id; empty: none
    std::map<std::string, std::string> outcomes_;
    std::thread thread_;
};

}  // namespace stats

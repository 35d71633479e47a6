// Lets other hosts read this host's store, if it is told to: the serving side of the format in
// trelis/remote.h. What it does is set below /VTWIN/Daemons/StoreDaemon, and a change takes effect
// within a second:
//
//     RemoteReads   begins with Y or y: on. Off otherwise, and then nothing is listened on
//     Address       dotted address to listen on; all addresses if there is none
//     Port          8485 if there is none
//
// It only ever reads, and only keys below /VTWIN/Daemons without the accounts of the statistics
// daemon. Who may connect is the firewall's affair. A stranger has 2 s for the whole of a read, and
// at most 32 are served at a time; the others wait in the backlog.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <thread>

#include "platform/descriptor.h"
#include "trelis/keys/followed.h"

class StoreServer {
  public:
    StoreServer() = default;
    StoreServer(const StoreServer&) = delete;
    StoreServer& operator=(const StoreServer&) = delete;
    ~StoreServer() { Stop(); }

    // Begins to follow the settings, on one thread of its own. After TrelisInit2. False if the
    // thread can't be started; not to be able to listen is told on standard error, and tried again.
    bool Start();
    // Ends the thread and all connections; before TrelisUninit. Without a Start it does nothing.
    void Stop();

  private:
    using Clock = std::chrono::steady_clock;
    struct Settings {
        std::uint32_t address;  // network byte order
        std::uint16_t port;     // host byte order
        bool operator==(const Settings&) const = default;
    };
    struct Peer {
        platform::UniqueDescriptor socket;
        Clock::time_point end;
        std::string request;
        std::string reply;  // what is still to be sent
    };

    void Serve();
    bool Round();
    void Follow();
    void Listen();
    void Accept();
    bool Advance(Peer& peer);
    static std::optional<Settings> ReadSettings();

    platform::UniqueDescriptor wake_;  // readable: end
    std::thread thread_;
    // All below: the thread's alone, once it runs.
    std::optional<trelis::Watch> watch_;
    std::optional<Settings> settings_;  // nothing: off
    platform::UniqueDescriptor listener_;
    Clock::time_point nextTry_;  // to listen, after a failure
    bool held_ = false;          // no descriptors left: accept nothing until the next look
    std::list<Peer> peers_;
};

// Addresses of hosts, and connections that don't take for ever.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <list>
#include <thread>

#include "net/address.h"
#include "net/socket.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

bool Always() { return true; }

SocketAddress Loopback(const char* text) { return IpAddress::Parse(text).value().WithPort(0); }

// Listens, and takes connections until its queue is full; from then on attempts get no answer.
class Listener {
  public:
    explicit Listener(const char* text) : address(Loopback(text)) {
        socklen_t length = SocketAddress::kRoom;
        EXPECT_TRUE(socket.Create(1, address) && socket.Bind(address));
        EXPECT_EQ(listen(socket.Handle(), 0), 0);
        getsockname(socket.Handle(), address.Room(), &length);
    }
    ~Listener() {
        for (CSocket& each : waiting_) each.Close();
        socket.Close();
    }
    void Fill() {
        int error = 0;
        while (error == 0 && waiting_.size() < 100) {
            CSocket& each = waiting_.emplace_back();
            EXPECT_TRUE(each.Create(1, address));
            error = each.Connect(address, milliseconds(200), Always);
        }
        EXPECT_EQ(error, ETIMEDOUT);
    }

    CSocket socket;
    SocketAddress address;

  private:
    std::list<CSocket> waiting_;
};

TEST(Resolve, AllAddresses) {
    const struct {
        const char* host;
        const char* first;  // null: it has none
    } cases[] = {
        {"127.0.0.1", "127.0.0.1:25"},
        {"2130706433", "127.0.0.1:25"},
        {"127.0.0.1 ", "127.0.0.1:25"},
        {"::1", "[::1]:25"},
        {"::ffff:192.0.2.1", "192.0.2.1:25"},
        {"", nullptr},
        {"[::1]", nullptr},
        {"no.such.host.invalid", nullptr},
    };
    for (const auto& each : cases) {
        const std::vector<SocketAddress> found = ResolveAll(each.host, 25);
        ASSERT_EQ(found.size(), each.first == nullptr ? 0U : 1U) << each.host;
        if (each.first == nullptr) continue;
        EXPECT_EQ(AddressAndPort(found.front()), each.first);
    }
    bool v4 = false;
    for (const SocketAddress& each : ResolveAll("localhost", 25))
        v4 = v4 || AddressAndPort(each) == "127.0.0.1:25";
    EXPECT_TRUE(v4);
    // An address of the other family is no name that somebody would be asked for.
    EXPECT_FALSE(ResolveHost("2001:db8::1", 25).Known());
}

TEST(Connect, TimeOver) {
    Listener listener("::1");
    listener.Fill();
    CSocket client;
    ASSERT_TRUE(client.Create(1, listener.address));
    const auto begin = Clock::now();
    EXPECT_EQ(client.Connect(listener.address, milliseconds(300), Always), ETIMEDOUT);
    EXPECT_GE(Clock::now() - begin, milliseconds(300));
    EXPECT_LT(Clock::now() - begin, milliseconds(10000));
    client.Close();
}

TEST(Connect, AnotherThreadEndsTheWait) {
    Listener listener("127.0.0.1");
    listener.Fill();
    CSocket client;
    ASSERT_TRUE(client.Create(1, listener.address));
    const auto begin = Clock::now();
    std::thread other;
    const int error = client.Connect(listener.address, milliseconds(20000), [&] {
        other = std::thread([&] {
            std::this_thread::sleep_for(milliseconds(100));
            client.Shutdown();
        });
        return true;
    });
    other.join();
    EXPECT_NE(error, 0);
    EXPECT_LT(Clock::now() - begin, milliseconds(5000));
    EXPECT_EQ(client.Connect(listener.address, milliseconds(20000), [] { return false; }),
              ECONNABORTED)
        << "given up before the wait";
    client.Close();
}

}  // namespace

// One host's store read by another, over real sockets: the other host is 127.0.0.2.
#include "trelis/remote.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "daemons/registryd/store_server.h"
#include "support/instance.h"
#include "trelis/trelis.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kOther = 0x7F000002;
constexpr char kFolder[] = "/VTWIN/Daemons/StoreDaemon/";

sockaddr_in Address(int port, std::uint32_t host = kOther) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(host);
    return address;
}

// A listener; port 0 takes a free one.
int Listen(int* port, std::uint32_t host = kOther) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Address(*port, host);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(listen(listener, 8), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return listener;
}

int Dial(int port) {
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Address(port);
    if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return peer;
    close(peer);
    return -1;
}

// All that a stranger gets for his bytes until the server closes.
std::string Ask(int port, const std::string& bytes) {
    const int peer = Dial(port);
    if (peer < 0) return "(refused)";
    send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    std::string all;
    char block[4096];
    for (ssize_t count = 0; (count = recv(peer, block, sizeof block, 0)) > 0;)
        all.append(block, static_cast<std::size_t>(count));
    close(peer);
    return all;
}

void Set(const std::string& key, const std::string& value) {
    ASSERT_EQ(TrelisSetValue(kLocalStore, key.c_str(), value.c_str()), 0);
}

std::string Get(const std::string& key, int size = 64) {
    std::vector<char> buffer(static_cast<std::size_t>(size), 'x');
    buffer.back() = '\0';
    const std::string before = buffer.data();
    if (TrelisGetValue(kOther, key.c_str(), buffer.data(), size) == 0) return buffer.data();
    return buffer.data() == before ? "(failed)" : "(failed, and the buffer touched)";
}

template <typename Check>
bool Soon(Check check) {
    const auto end = Clock::now() + 20s;
    while (!check() && Clock::now() < end) std::this_thread::sleep_for(10ms);
    return check();
}

class Remote : public testing::Test {
  protected:
    Remote() {
        EXPECT_EQ(TrelisInit2(), 0);
        close(Listen(&port_, INADDR_ANY));  // on every address, as the server may want it
        Set(std::string(kFolder) + "Port", std::to_string(port_));
        Set(std::string(kFolder) + "Address", "127.0.0.2");
        Set("/VTWIN/Daemons/StatsDaemon/HTTPPort", "8181");
    }
    ~Remote() override {
        server_.Stop();
        TrelisDelKey(kLocalStore, "/VTWIN");
        TrelisUninit();
    }
    void SwitchOn() {
        Set(std::string(kFolder) + "RemoteReads", "yes");
        ASSERT_TRUE(server_.Start());
        ASSERT_TRUE(Soon([this] { return Ask(port_, "x\n").empty(); }));
    }

    int port_ = 0;
    StoreServer server_;
};

TEST_F(Remote, OnlyWhatIsMeantForOthersIsRead) {
    SwitchOn();
    const struct {
        const char* key;
        const char* value;
        const char* read;
    } cases[] = {
        {"/VTWIN/Daemons/StatsDaemon/HTTPPort", "8181", "8181"},
        {"/VTWIN/Daemons/A/Long", "0123456789", "01234567"},
        {"/VTWIN/Daemons/StatsDaemon/Accounts", "secret", "(failed)"},
        {"/VTWIN/Daemons/StatsDaemon/Accounts/joe", "secret", "(failed)"},
        {"/VTWIN/Daemons/StatsDaemon/AccountsOpen", "open", "open"},
        {"/VTWIN/DaemonsElse/Key", "secret", "(failed)"},
        {"/VTWIN/Agents/VTSMTPProxy/Path", "secret", "(failed)"},
        {"/VTWIN/Daemons/Control\x01", "x", "(failed)"},
    };
    for (const auto& each : cases) {
        Set(each.key, each.value);
        EXPECT_EQ(Get(each.key, 9), each.read) << each.key;
    }
    EXPECT_EQ(Get("/VTWIN/Daemons/Missing"), "(failed)");
    EXPECT_EQ(Get("/VTWIN/Daemons"), "(failed)");
    EXPECT_EQ(Get("/VTWIN/Daemons//StatsDaemon/Accounts"), "(failed)");
    EXPECT_EQ(Get(""), "(failed)");
    EXPECT_EQ(Get("/VTWIN/Daemons/" + std::string(600, 'k')), "(failed)");
}

TEST_F(Remote, ValuesUpToTheLimit) {
    SwitchOn();
    Set("/VTWIN/Daemons/Most", std::string(trelis::kRemoteMostValue, 'v'));
    EXPECT_EQ(Get("/VTWIN/Daemons/Most", 100000).size(), trelis::kRemoteMostValue);
    Set("/VTWIN/Daemons/More", std::string(trelis::kRemoteMostValue + 1, 'v'));
    EXPECT_EQ(Get("/VTWIN/Daemons/More", 100000), "(failed)") << "never a part of a value";
}

TEST_F(Remote, StrangersGetNothing) {
    SwitchOn();
    const std::string key = "/VTWIN/Daemons/StatsDaemon/HTTPPort";
    EXPECT_EQ(Ask(port_, "VTSTORE1 GET " + key + "\n"), "VTSTORE1 0 4\n8181");
    EXPECT_EQ(Ask(port_, "VTSTORE1 GET /x\n"), "VTSTORE1 1 0\n");
    const std::string refused[] = {"\n",
                                   "VTSTORE1 SET " + key + "\n",
                                   "VTSTORE1 GET " + key + "\r\n",
                                   "VTSTORE1 GET " + key + std::string(1, '\0') + "\n",
                                   "VTSTORE1 GET " + key + "\nVTSTORE1 GET " + key + "\n",
                                   std::string(2000, 'x')};
    for (const std::string& bytes : refused) EXPECT_EQ(Ask(port_, bytes), "") << bytes;
}

TEST_F(Remote, TheSilentAreCutAndDoNotKeepOthersOut) {
    SwitchOn();
    std::vector<int> silent;
    for (int i = 0; i < 32; ++i) silent.push_back(Dial(port_));
    const auto begin = Clock::now();
    EXPECT_EQ(Ask(port_, "VTSTORE1 GET /x\n"), "VTSTORE1 1 0\n") << "waits for a place";
    EXPECT_GT(Clock::now() - begin, 1s);
    EXPECT_LT(Clock::now() - begin, 12s);
    char byte = 0;
    for (const int each : silent) {
        EXPECT_EQ(recv(each, &byte, 1, 0), 0);
        close(each);
    }
}

TEST_F(Remote, SettingsAreFollowed) {
    ASSERT_TRUE(server_.Start());
    EXPECT_EQ(Get("/VTWIN/Daemons/StatsDaemon/HTTPPort"), "(failed)") << "off by default";
    const auto reads = [this] { return Get("/VTWIN/Daemons/StatsDaemon/HTTPPort") == "8181"; };
    Set(std::string(kFolder) + "RemoteReads", "Y");
    EXPECT_TRUE(Soon(reads));
    Set(std::string(kFolder) + "Address", "no address");
    EXPECT_TRUE(Soon([&] { return !reads(); })) << "never more open than meant";
    TrelisDelKey(kLocalStore, "/VTWIN/Daemons/StoreDaemon/Address");
    EXPECT_TRUE(Soon(reads));
    const int before = port_;
    port_ = 0;
    close(Listen(&port_, INADDR_ANY));  // on every address, as the server may want it
    Set(std::string(kFolder) + "Port", std::to_string(port_));
    EXPECT_TRUE(Soon([&] { return Ask(before, "\n") == "(refused)" && reads(); }));
    Set(std::string(kFolder) + "RemoteReads", "no");
    EXPECT_TRUE(Soon([&] { return Ask(port_, "\n") == "(refused)"; }));
    server_.Stop();
    server_.Stop();
    Set(std::string(kFolder) + "RemoteReads", "Y");
    ASSERT_TRUE(server_.Start());
    EXPECT_TRUE(Soon(reads)) << "a second start";
}

TEST_F(Remote, AnotherHostMaySayAnything) {
    const std::string most = "VTSTORE1 0 65536\n" + std::string(65536, 'v');
    const struct {
        std::string reply;
        std::string read;
    } cases[] = {
        {"VTSTORE1 0 2\nok", "ok"},
        {"VTSTORE1 0 0\n", ""},
        {"VTSTORE1 0 2\nok and more", "ok"},
        {most, std::string(63, 'v')},
        {"VTSTORE1 1 0\n", "(failed)"},
        {"VTSTORE1 0 3\nok", "(failed)"},
        {"VTSTORE1 0 -1\nok", "(failed)"},
        {"VTSTORE1 0 65537\nok", "(failed)"},
        {"VTSTORE1 0 99999999999999999999999\nok", "(failed)"},
        {"VTSTORE1 0 2x\nok", "(failed)"},
        {"VTSTORE1 02\nok", "(failed)"},
        {"VTSTORE2 0 2\nok", "(failed)"},
        {std::string(100000, 'x'), "(failed)"},
        {"", "(failed)"},
    };
    const int listener = Listen(&port_);
    std::string wanted;
    std::thread other([&] {
        for (const auto& each : cases) {
            const int peer = accept(listener, nullptr, nullptr);
            char block[1024];
            const ssize_t count = recv(peer, block, sizeof block, 0);
            wanted.assign(block, static_cast<std::size_t>(count));
            send(peer, each.reply.data(), each.reply.size(), MSG_NOSIGNAL);
            shutdown(peer, SHUT_WR);
            while (recv(peer, block, sizeof block, 0) > 0) {
            }
            close(peer);
        }
    });
    for (const auto& each : cases) EXPECT_EQ(Get("/a key"), each.read) << each.reply.substr(0, 40);
    other.join();
    close(listener);
    EXPECT_EQ(wanted, "VTSTORE1 GET /a key\n");
}

TEST_F(Remote, AHostThatSaysNothingCostsTwoSeconds) {
    const int listener = Listen(&port_);  // the backlog takes the connection
    const auto begin = Clock::now();
    EXPECT_EQ(Get("/key"), "(failed)");
    EXPECT_GT(Clock::now() - begin, 1900ms);
    EXPECT_LT(Clock::now() - begin, 8s);
    // One that drips its answer has no more time in all.
    std::thread other([listener] {
        const int waiting = accept(listener, nullptr, nullptr);
        const int peer = accept(listener, nullptr, nullptr);
        const std::string reply = "VTSTORE1 0 9\nvalue that";
        for (const char each : reply) {
            send(peer, &each, 1, MSG_NOSIGNAL);
            std::this_thread::sleep_for(150ms);
        }
        close(waiting);
        close(peer);
    });
    const auto again = Clock::now();
    EXPECT_EQ(Get("/key"), "(failed)");
    EXPECT_LT(Clock::now() - again, 8s);
    other.join();
    close(listener);
    EXPECT_EQ(Get("/key"), "(failed)") << "refused";
    char buffer[8];
    EXPECT_LT(TrelisGetValue(0, "/key", buffer, sizeof buffer), 0)
        << "the address of an unknown name";
    EXPECT_LT(TrelisSetValue(kOther, "/VTWIN/Daemons/X", "1"), 0) << "nothing but reads";
}

}  // namespace

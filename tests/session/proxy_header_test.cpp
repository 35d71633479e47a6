// What a load balancer says in front of everything: taken to its last byte and not one further,
// however it comes.
#include "session/client/proxy_header.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

constexpr auto kLong = 20s;

ClientIdentity Identity(const std::string& address, std::uint16_t port,
                        const std::string& destination, std::uint16_t destinationPort) {
    ClientIdentity identity;
    identity.address = IpAddress::Parse(address).value_or(IpAddress());
    identity.port = port;
    identity.destination = IpAddress::Parse(destination).value_or(IpAddress());
    identity.destinationPort = destinationPort;
    return identity;
}

std::string Described(const ClientIdentity& identity) {
    return identity.address.Text() + " " + std::to_string(identity.port) + " " +
           identity.destination.Text() + " " + std::to_string(identity.destinationPort);
}

const std::string kBefore = "127.0.0.9 9 127.0.0.8 8";

// A connection from a balancer, and what the reader made of it.
class Balancer {
  public:
    Balancer() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_.data()), 0); }
    Balancer(const Balancer&) = delete;
    Balancer& operator=(const Balancer&) = delete;
    ~Balancer() {
        for (const int each : ends_) close(each);
    }

    void Say(const std::string& bytes) const {
        EXPECT_EQ(write(ends_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Each byte only once the one before it has been taken.
    void SayOneByOne(const std::string& bytes) const {
        for (const char each : bytes) {
            Say(std::string(1, each));
            for (int left = 1; left != 0; std::this_thread::yield()) {
                ASSERT_EQ(ioctl(ends_[0], FIONREAD, &left), 0);
            }
        }
    }
    void Close() const { shutdown(ends_[1], SHUT_WR); }

    ProxyHeader Read(std::chrono::milliseconds limit = kLong) {
        CSocket socket(ends_[0]);
        identity_ = Identity("127.0.0.9", 9, "127.0.0.8", 8);
        return ReadProxyHeader(socket, Deadline(limit), identity_);
    }
    std::string Told() const { return Described(identity_); }
    // What the reader left.
    std::string Left() const {
        std::array<char, 8192> bytes;
        const ssize_t count = recv(ends_[0], bytes.data(), bytes.size(), MSG_DONTWAIT);
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

  private:
    std::array<int, 2> ends_{};
    ClientIdentity identity_;
};

const std::string kSignature = "\r\n\r\n\0\r\nQUIT\n"s;
std::string Binary(char command, char family, const std::string& rest) {
    return kSignature + command + family + static_cast<char>(rest.size() >> 8) +
           static_cast<char>(rest.size() & 0xFF) + rest;
}
const std::string kPorts = "\x9C\x40\x00\x19"s;  // 40000 and 25
const std::string kFour = "\xC0\x00\x02\x01\xC6\x33\x64\x02"s + kPorts;
const std::string kSix = "\x20\x01\x0D\xB8"s + std::string(11, '\0') + "\x01\x20\x01\x0D\xB8"s +
                         std::string(11, '\0') + "\x02"s + kPorts;
const std::string kMapped = std::string(10, '\0') + "\xFF\xFF\xC0\x00\x02\x01"s +
                            std::string(10, '\0') + "\xFF\xFF\xC6\x33\x64\x02"s + kPorts;
const std::string kFromV4 = "192.0.2.1 40000 198.51.100.2 25";
const std::string kFromV6 = "2001:db8::1 40000 2001:db8::2 25";

struct Header {
    std::string bytes;
    std::string told = kBefore;
    ProxyHeader Result() const {
        return told == kBefore ? ProxyHeader::kLocal : ProxyHeader::kTold;
    }
};

std::vector<Header> Good() {
    return {
        {"PROXY TCP4 192.0.2.1 198.51.100.2 40000 25\r\n", kFromV4},
        {"PROXY TCP6 2001:db8::1 2001:db8::2 40000 25\r\n", kFromV6},
        {"PROXY TCP6 ::ffff:192.0.2.1 ::ffff:198.51.100.2 40000 25\r\n", kFromV4},
        {"PROXY TCP4 255.255.255.255 0.0.0.0 65535 0\r\n", "255.255.255.255 65535 0.0.0.0 0"},
        {"PROXY UNKNOWN\r\n"},
        {"PROXY UNKNOWN \r\n"},
        {"PROXY UNKNOWN TCP4 \r whatever  it is\r\n"},
        // The longest line that there can be.
        {"PROXY UNKNOWN ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
         "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n"},
        // The ends of the connection itself, and what differs from them in one.
        {"PROXY TCP4 127.0.0.9 127.0.0.8 9 8\r\n"},
        {"PROXY TCP4 127.0.0.9 127.0.0.8 10 8\r\n", "127.0.0.9 10 127.0.0.8 8"},
        {"PROXY TCP4 127.0.0.9 127.0.0.7 9 8\r\n", "127.0.0.9 9 127.0.0.7 8"},
        {Binary(0x21, 0x11, kFour), kFromV4},
        {Binary(0x21, 0x21, kSix), kFromV6},
        {Binary(0x21, 0x21, kMapped), kFromV4},
        {Binary(0x21, 0x11, kFour + "\x04\x00\x00\xE0\x00\x03\nab"s), kFromV4},
        {Binary(0x21, 0x21, kSix + "\x05\x00\x02id"s), kFromV6},
        {Binary(0x21, 0x00, "")},
        {Binary(0x21, 0x00, "anything")},
        {Binary(0x20, 0x00, "")},
        {Binary(0x20, 0x00, std::string(300, '\n'))},
        // Who speaks for itself may name any family.
        {Binary(0x20, 0x31, "x")},
    };
}

TEST(ProxyHeader, IsTakenToItsEndAndNotFurther) {
    for (const Header& each : Good()) {
        SCOPED_TRACE(testing::PrintToString(each.bytes));
        for (const std::string& next : {""s, "EHLO early\r\n"s, "\x16\x03\x01\x02\x00\x01"s}) {
            Balancer balancer;
            balancer.Say(each.bytes + next);
            EXPECT_EQ(balancer.Read(), each.Result());
            EXPECT_EQ(balancer.Told(), each.told);
            EXPECT_EQ(balancer.Left(), next);
        }
    }
}

TEST(ProxyHeader, ComesInAnyPieces) {
    for (const Header& each : Good()) {
        SCOPED_TRACE(testing::PrintToString(each.bytes));
        Balancer balancer;
        std::thread writer([&] { balancer.SayOneByOne(each.bytes); });
        EXPECT_EQ(balancer.Read(), each.Result());
        writer.join();
        EXPECT_EQ(balancer.Told(), each.told);
        EXPECT_EQ(balancer.Left(), "");
    }
}

TEST(ProxyHeader, IsBrokenWhereverItBreaksOff) {
    for (const Header& each : Good()) {
        for (std::size_t size = 0; size < each.bytes.size(); ++size) {
            Balancer balancer;
            balancer.Say(each.bytes.substr(0, size));
            balancer.Close();
            EXPECT_EQ(balancer.Read(), ProxyHeader::kBroken)
                << size << testing::PrintToString(each.bytes);
            EXPECT_EQ(balancer.Told(), kBefore);
        }
    }
}

TEST(ProxyHeader, WhatCannotBecomeOneIsBrokenAtOnce) {
    const std::vector<std::string> cases = {
        "E", "\n", "\r\n\r\n\r"s, "PROXYTCP4", "PRO\n",
        "proxy TCP4 192.0.2.1 198.51.100.2 4 25\r\n", "EHLO me\r\n", std::string(1, '\0'),
        "\x16\x03\x01", "PROXY TCP4 192.0.2.1 192.0.2.2 4 25\n",
        // Blanks, families, addresses.
        "PROXY \r\n", "PROXY TCP4\r\n", "PROXY  TCP4 192.0.2.1 192.0.2.2 4 25\r\n",
        "PROXY TCP4 192.0.2.1  192.0.2.2 4 25\r\n", "PROXY TCP4 192.0.2.1 192.0.2.2 4 25 \r\n",
        "PROXY TCP4\t192.0.2.1 192.0.2.2 4 25\r\n", "PROXY TCP4 192.0.2.1 192.0.2.2 4 25 x\r\n",
        "PROXY TCP4 192.0.2.1 192.0.2.2 4\r\n", "PROXY TCP4 192.0.2.1 192.0.2.2\r\n",
        "PROXY TCP4 192.0.2.1 192.0.2.2 4 25\r\r\n", "PROXY tcp4 192.0.2.1 192.0.2.2 4 25\r\n",
        "PROXY UDP4 192.0.2.1 192.0.2.2 4 25\r\n", "PROXY UNKNOWNS\r\n", "PROXY unknown\r\n",
        "PROXY TCP4 ::1 ::1 4 25\r\n", "PROXY TCP6 192.0.2.1 192.0.2.2 4 25\r\n",
        "PROXY TCP6 ::1 192.0.2.2 4 25\r\n", "PROXY TCP6 [::1] [::2] 4 25\r\n",
        "PROXY TCP6 fe80::1%lo ::2 4 25\r\n", "PROXY TCP4 192.0.2.256 192.0.2.2 4 25\r\n",
        "PROXY TCP4 192.0.2.01 192.0.2.2 4 25\r\n", "PROXY TCP4 192.0.2 192.0.2.2 4 25\r\n",
        "PROXY TCP4 192.0.2.1\0 192.0.2.2 4 25\r\n"s, "PROXY TCP4 a.example 192.0.2.2 4 25\r\n",
        // Nobody's address.
        "PROXY TCP4 0.0.0.0 192.0.2.2 4 25\r\n", "PROXY TCP6 :: ::2 4 25\r\n",
        "PROXY TCP6 ::ffff:0.0.0.0 ::2 4 25\r\n", Binary(0x21, 0x21, std::string(36, '\0')),
        // Ports.
        "PROXY TCP4 192.0.2.1 192.0.2.2 65536 25\r\n", "PROXY TCP4 192.0.2.1 192.0.2.2 4 +25\r\n",
        "PROXY TCP4 192.0.2.1 192.0.2.2 -4 25\r\n", "PROXY TCP4 192.0.2.1 192.0.2.2 4 025\r\n",
        "PROXY TCP4 192.0.2.1 192.0.2.2 4 0x19\r\n",
        "PROXY TCP4 192.0.2.1 192.0.2.2 99999999999 1\r\n",
        // A line that does not end in time, whatever it ends in.
        "PROXY UNKNOWN " + std::string(93, 'x'), "PROXY UNKNOWN " + std::string(92, 'x') + "\r\n",
        // Version 2: signature, version, command, family, lengths.
        kSignature.substr(0, 11) + "\r", kSignature + '\x11', kSignature + '\x22',
        kSignature + '\x01', kSignature + "\x21\x12", kSignature + "\x21\x22",
        kSignature + "\x21\x31", kSignature + "\x21\x32", kSignature + "\x21\x01",
        kSignature + "\x21\x10", kSignature + "\x21\x41",
        // Too long to wait for, or too short for what it must hold.
        kSignature + "\x20\x00\x10\x01"s, kSignature + "\x21\x11\xFF\xFF"s,
        kSignature + "\x21\x11\x00\x0B"s, kSignature + "\x21\x21\x00\x23"s,
        kSignature + "\x21\x11\x00\x00"s,
        // Elements that say they are longer than they are.
        Binary(0x21, 0x11, kFour + "\x04"), Binary(0x21, 0x11, kFour + "\x04\x00"s),
        Binary(0x21, 0x11, kFour + "\x04\x00\x01"s), Binary(0x21, 0x21, kSix + "\x04\xFF\xFF ab"s)};
    for (const std::string& each : cases) {
        SCOPED_TRACE(testing::PrintToString(each));
        Balancer balancer;
        balancer.Say(each);
        const Deadline soon(kLong / 2);
        EXPECT_EQ(balancer.Read(), ProxyHeader::kBroken);
        EXPECT_FALSE(soon.Over());
        EXPECT_EQ(balancer.Told(), kBefore);
    }
}

TEST(ProxyHeader, LongestRestIsTaken) {
    const std::string filler = "\x04\x0F\xF1"s + std::string(4081, 'x');
    for (const std::string& bytes :
         {Binary(0x20, 0x00, std::string(4096, '\0')), Binary(0x21, 0x11, kFour + filler)}) {
        Balancer balancer;
        balancer.Say(bytes + "next");
        EXPECT_NE(balancer.Read(), ProxyHeader::kBroken);
        EXPECT_EQ(balancer.Left(), "next");
    }
}

// One time for all of it, however often something comes; and a wait that costs no work.
TEST(ProxyHeader, ASlowOneIsBrokenOnceTheTimeIsOver) {
    for (const std::string& bytes : {""s, "PROXY TCP4 192.0.2.1 198"s, Binary(0x21, 0x21, kSix)}) {
        Balancer balancer;
        std::atomic<bool> over = false;
        std::thread writer([&] {
            for (std::size_t i = 0; !over && i + 1 < bytes.size(); ++i) {
                balancer.Say(bytes.substr(i, 1));
                std::this_thread::sleep_for(30ms);
            }
        });
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t work = std::clock();
        EXPECT_EQ(balancer.Read(200ms), ProxyHeader::kBroken);
        EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
        EXPECT_LT(std::clock() - work, CLOCKS_PER_SEC / 10);
        over = true;
        writer.join();
        EXPECT_EQ(balancer.Told(), kBefore);
    }
}

TEST(ProxyHeader, IsWrittenAsItIsRead) {
    const struct {
        ClientIdentity identity;
        std::string line;
        std::string told;
    } cases[] = {
        {Identity("192.0.2.1", 40000, "198.51.100.2", 25),
         "PROXY TCP4 192.0.2.1 198.51.100.2 40000 25\r\n", kFromV4},
        {Identity("2001:db8::1", 40000, "2001:db8::2", 25),
         "PROXY TCP6 2001:db8::1 2001:db8::2 40000 25\r\n", kFromV6},
        {Identity("192.0.2.1", 1, "2001:db8::2", 25),
         "PROXY TCP6 ::ffff:192.0.2.1 2001:db8::2 1 25\r\n", "192.0.2.1 1 2001:db8::2 25"},
        {Identity("2001:db8::1", 1, "192.0.2.1", 65535),
         "PROXY TCP6 2001:db8::1 ::ffff:192.0.2.1 1 65535\r\n", "2001:db8::1 1 192.0.2.1 65535"},
        // Where it goes is not known.
        {Identity("192.0.2.1", 7, "", 0), "PROXY TCP4 192.0.2.1 0.0.0.0 7 0\r\n",
         "192.0.2.1 7 0.0.0.0 0"},
        {Identity("2001:db8::1", 0, "", 0), "PROXY TCP6 2001:db8::1 :: 0 0\r\n",
         "2001:db8::1 0 :: 0"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.line);
        EXPECT_EQ(ProxyHeaderV1(each.identity), each.line);
        for (const std::string& bytes :
             {ProxyHeaderV1(each.identity), ProxyHeaderV2(each.identity)}) {
            Balancer balancer;
            balancer.Say(bytes + "next");
            EXPECT_EQ(balancer.Read(), ProxyHeader::kTold);
            EXPECT_EQ(balancer.Told(), each.told);
            EXPECT_EQ(balancer.Left(), "next");
        }
    }
    EXPECT_EQ(ProxyHeaderV2(cases[0].identity), Binary(0x21, 0x11, kFour));
    EXPECT_EQ(ProxyHeaderV2(cases[1].identity), Binary(0x21, 0x21, kSix));
}

}  // namespace

#include "net/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "net/address.h"
#include "platform/file.h"

namespace {

// A connected pair over TCP, so that resets and urgent data are real.
struct Pair {
    CSocket ours;
    CSocket peer;
    Pair() {
        CSocket listener;
        SocketAddress address = IpAddress::OfV4(htonl(INADDR_LOOPBACK)).WithPort(0);
        socklen_t length = SocketAddress::kRoom;
        EXPECT_TRUE(listener.Create(1) && listener.Bind(address) && listener.Listen());
        getsockname(listener.Handle(), address.Room(), &length);
        EXPECT_TRUE(peer.Create(1) && peer.Connect(address));
        EXPECT_TRUE(listener.Accept(ours, nullptr));
        listener.Close();
    }
    ~Pair() {
        ours.Close();
        peer.Close();
    }
    void Send(const std::string& text) {
        ASSERT_EQ(peer.SendAll(text.data(), static_cast<int>(text.size())), 1);
        usleep(2000);
    }
    std::string Rest() {
        char buffer[8192];
        const int count = ours.ReceiveTimed(buffer, sizeof buffer, 0);
        return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : "";
    }
};

std::string Line(std::size_t size, const std::string& end) {
    return std::string(size - end.size(), 'x') + end;
}

TEST(Socket, TakesTheLineAndNothingBehindIt) {
    const struct {
        const char* name;
        std::string sent;
        int size;
        std::string line;
        std::string rest;
    } cases[] = {
        {"WithMoreBehind", "one\r\ntwo\r\n", 1024, "one\r\n", "two\r\n"},
        {"BareLineFeed", "one\ntwo", 1024, "one\n", "two"},
        {"ZeroByteInside", std::string("a\0b\n", 4), 1024, std::string("a\0b\n", 4), ""},
        {"LongestUnchanged", Line(1022, "\n") + "rest", 1024, Line(1022, "\n"), "rest"},
        {"OneMoreIsOverLong", Line(1023, "\r\n") + "rest", 1024, Line(1023, "\r\n"), ""},
        {"CutAndDrained", std::string(3000, 'y') + "\nrest", 1024,
         Line(1023, "\r\n").replace(0, 1021, 1021, 'y'), ""},
        {"SmallestSize", "abc\n", 3, "\r\n", ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        Pair pair;
        pair.Send(each.sent);
        char buffer[2048];
        int length = 0;
        ASSERT_EQ(pair.ours.ReadLine(buffer, length, each.size, 1), 1);
        EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), each.line);
        EXPECT_EQ(buffer[length], '\0');
        EXPECT_EQ(pair.Rest(), each.rest);
    }
}

TEST(Socket, RefusesSmallSizesAndReportsEnds) {
    Pair pair;
    char buffer[64];
    int length = 77;
    pair.Send("part");
    EXPECT_EQ(pair.ours.ReadLine(buffer, length, 2, 1), 0);
    EXPECT_EQ(length, 77);
    EXPECT_EQ(pair.ours.WaitReadable(0), 1);
    pair.peer.Shutdown();
    EXPECT_EQ(pair.ours.ReadLine(buffer, length, sizeof buffer, 1), 0)
        << "a line without its end is none";
    EXPECT_EQ(pair.ours.ReceiveTimed(buffer, sizeof buffer, 1), 0);
    EXPECT_EQ(pair.ours.ReadExact(buffer, 0, 1), 1);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(pair.ours.SendAll("", 0), 1);
}

TEST(Socket, TimesOut) {
    Pair pair;
    char buffer[64];
    int length = 0;
    EXPECT_EQ(pair.ours.WaitReadable(0), 0);
    EXPECT_EQ(pair.ours.ReceiveTimed(buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(pair.ours.ReadLine(buffer, length, sizeof buffer, 0), 0);
}

TEST(Socket, ExceptionIsResetAndUrgentDataButNotAHalfClose) {
    Pair half;
    shutdown(half.peer.Handle(), SHUT_WR);
    usleep(2000);
    EXPECT_FALSE(half.ours.HasException());
    Pair urgent;
    send(urgent.peer.Handle(), "!", 1, MSG_OOB);
    usleep(2000);
    EXPECT_TRUE(urgent.ours.HasException());
    EXPECT_EQ(urgent.ours.WaitReadable(0), -1);
    Pair reset;
    const linger hard{1, 0};
    setsockopt(reset.peer.Handle(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reset.peer.Close();
    usleep(2000);
    EXPECT_TRUE(reset.ours.HasException());
    EXPECT_EQ(reset.ours.SendAll("x"), 0);
    CSocket empty;
    EXPECT_TRUE(empty.HasException());
    empty.Shutdown();
    empty.Close();
    EXPECT_EQ(empty.SendAll("x"), 0);
}

TEST(Socket, WorksAboveDescriptor1023) {
    platform::RaiseDescriptorLimit();
    std::vector<int> low;
    while (low.empty() || low.back() < 1100) low.push_back(open("/dev/null", O_RDONLY));
    {
        Pair pair;
        EXPECT_GT(pair.ours.Handle(), 1023);
        pair.Send("high\r\n");
        char buffer[64];
        int length = 0;
        EXPECT_EQ(pair.ours.ReadLine(buffer, length, sizeof buffer, 1), 1);
    }
    for (const int descriptor : low) close(descriptor);
}

TEST(Socket, NeverHandsOutDescriptorZero) {
    const int kept = dup(0);
    close(0);
    CSocket socket;
    EXPECT_TRUE(socket.Create(1));
    EXPECT_GT(socket.Handle(), 0);
    socket.Close();
    if (kept >= 0) {
        dup2(kept, 0);
        close(kept);
    }
}

}  // namespace

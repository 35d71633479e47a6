// A message that the system still has to send, from the file's own memory, when its file is given
// back: what becomes of the file must not become of it.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/descriptor.h"
#include "platform/socket.h"
#include "session/message/spool_file.h"
#include "support/instance.h"

namespace {

using platform::UniqueDescriptor;

// A connection of this process with itself.
class Connection {
  public:
    Connection() {
        const UniqueDescriptor listener(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const record = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listener.Get(), record, size), 0);
        EXPECT_EQ(listen(listener.Get(), 1), 0);
        EXPECT_EQ(getsockname(listener.Get(), record, &size), 0);
        from_.Reset(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(from_.Get(), record, size), 0);
        to_.Reset(accept(listener.Get(), nullptr, nullptr));
    }
    int From() const { return from_.Get(); }
    std::string Take(std::size_t size) const {
        std::string taken(size, '\0');
        EXPECT_EQ(recv(to_.Get(), taken.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
        return taken;
    }

  private:
    UniqueDescriptor from_;
    UniqueDescriptor to_;
};

TEST(SpoolSent, WhatIsOnItsWayStaysAsItWas) {
    for (const char* each : {"/tmp", "/services", "/pipes"})
        std::filesystem::create_directories(g_instance.Path() + each);
    SpoolFile spool;
    ASSERT_TRUE(spool.Name(4712));
    for (const std::size_t size : {10, 5000, 40000, 65535, 65536, 65537}) {
        SCOPED_TRACE(size);
        const std::string text(size, 'm');
        ASSERT_TRUE(spool.OpenNext() && spool.Write(text) && spool.Close());
        // The scan daemon adds something, so that the message is no longer the one in memory.
        std::ofstream(spool.Path(), std::ios::app) << "scanned";
        ASSERT_EQ(spool.LookAgain(), SpoolFile::Found::kWhole);
        ASSERT_FALSE(spool.Kept());
        const auto whole = static_cast<int>(spool.Size());
        const Connection connection;
        ASSERT_EQ(SocketSendFileNow(connection.From(), spool.File(), 0, whole), whole);
        spool.Remove();
        ASSERT_TRUE(spool.OpenNext() && spool.Write(std::string(size, 'n')) && spool.Close());
        EXPECT_TRUE(connection.Take(size + 7) == text + "scanned");
    }
}

}  // namespace

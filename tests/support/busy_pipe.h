// A pipe of this instance on which nobody accepts, with a full backlog.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/home.h"

class BusyPipe {
  public:
    explicit BusyPipe(const std::string& name) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s",
                      platform::HomePath(("pipes/" + name).c_str()).c_str());
        const auto* generic = reinterpret_cast<const sockaddr*>(&address);
        unlink(address.sun_path);
        EXPECT_EQ(bind(listener_, generic, sizeof address), 0);
        EXPECT_EQ(listen(listener_, 0), 0);
        do waiting_.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        while (connect(waiting_.back(), generic, sizeof address) == 0);
    }
    BusyPipe(const BusyPipe&) = delete;
    BusyPipe& operator=(const BusyPipe&) = delete;
    ~BusyPipe() {
        for (const int each : waiting_) close(each);
        close(listener_);
    }

  private:
    const int listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    std::vector<int> waiting_;
};

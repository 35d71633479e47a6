// A test process without a descriptor to be had.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

// Takes all that the process may have.
class NoDescriptors {
  public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit few = before_;
        few.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &few);
        for (int each = 0; (each = open("/dev/null", O_RDONLY)) >= 0;) taken_.push_back(each);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() {
        GiveBack();
        setrlimit(RLIMIT_NOFILE, &before_);
    }
    void GiveBack() {
        for (const int each : taken_) close(each);
        taken_.clear();
    }

  private:
    rlimit before_{};
    std::vector<int> taken_;
};

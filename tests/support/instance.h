// An instance directory of its own for the test process, set before anything asks for it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class TestInstance {
  public:
    TestInstance() {
        char name[] = "/tmp/vantrel-test.XXXXXX";
        path_ = mkdtemp(name);
        setenv("VANTREL_HOME", path_.c_str(), 1);
    }
    TestInstance(const TestInstance&) = delete;
    TestInstance& operator=(const TestInstance&) = delete;
    ~TestInstance() { std::filesystem::remove_all(path_); }
    const std::string& Path() const { return path_; }

  private:
    std::string path_;
};

// One a process, made when the program starts.
inline const TestInstance g_instance;

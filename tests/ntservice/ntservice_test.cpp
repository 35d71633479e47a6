#include "ntservice/ntservice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "support/instance.h"

namespace {

constexpr char kLog[] = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

// Notes what is done instead of doing it, but for what a test asks for.
class Noted : public CNTService {
  public:
    explicit Noted(const char* name = "NOTED") : CNTService(name) { displayName = "Noted Service"; }
    void Run(int argc, char**) override { done += "run" + std::to_string(argc) + " "; }
    void Stop() override { done += "stop "; }
    int StartDispatcher() override { return Note("dispatch"); }
    int RegisterDefaults() override { return Note("register"); }
    int UnregisterDefaults() override { return Note("unregister") - 1; }
    void WithoutManager() { hasServiceManager = 0; }

    std::string done;

  protected:
    int Note(const char* what) {
        done += std::string(what) + " ";
        return 1;
    }
};

class Options : public Noted {
  public:
    int InstallService() override { return Note("install"); }
    int RemoveService() override { return Note("uninstall"); }
    int StartInstalledService() override { return Note("start"); }
    int StopInstalledService() override { return Note("stop"); }
};

int Process(CNTService& service, std::vector<std::string> words) {
    words.insert(words.begin(), "program");
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    return service.ProcessCommandLine(static_cast<int>(words.size()), arguments.data());
}

std::string ReadValue(const std::string& path, const char* name, DWORD& type) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_ALL_ACCESS, &key) != 0)
        return "no key";
    DWORD size = 0;
    std::string value = "no value";
    if (RegQueryValueExA(key, name, nullptr, &type, nullptr, &size) == 0) {
        value.resize(size);
        RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(value.data()), &size);
    }
    RegCloseKey(key);
    return value;
}

TEST(CommandLine, TheLastOptionWinsAndUnknownWordsAreSkipped) {
    const struct {
        std::vector<std::string> words;
        const char* done;
        int code;
    } cases[] = {
        {{}, "dispatch ", 0},
        {{"-install", "Install", "/stop"}, "dispatch ", 0},
        {{"install", "stop"}, "stop ", 0},
        {{"unregister"}, "unregister ", -1},
        {{"install", "debug"}, "run1 ", 1},
        {{"debug", "install", "x"}, "run3 ", 1},
    };
    for (const auto& each : cases) {
        Options service;
        testing::internal::CaptureStdout();
        const int code = Process(service, each.words);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(service.done, each.done);
        EXPECT_EQ(code, each.code) << each.done;
    }
}

TEST(CommandLine, WithoutAManagerTheProgramRunsHiddenAndInstallsItselfForTheNextStart) {
    Noted service;
    service.WithoutManager();
    EXPECT_EQ(Process(service, {}), 1);
    EXPECT_EQ(service.done, "run1 ");
    EXPECT_EQ(service.ReportStatus(SERVICE_RUNNING, 0, 0), 1)
        << "nothing is told in the foreground";
    EXPECT_EQ(Process(service, {"install"}), 0);
    DWORD type = 0;
    const char* key = "Software\\Microsoft\\Windows\\CurrentVersion\\RunServices";
    EXPECT_NE(ReadValue(key, "NOTED", type).find("test_ntservice"), std::string::npos);
    EXPECT_EQ(type, REG_EXPAND_SZ);
    EXPECT_EQ(Process(service, {"uninstall"}), 0);
    EXPECT_EQ(ReadValue(key, "NOTED", type), "no value");
}

TEST(EventSource, IsListedOnceAndTheOthersKeepTheirOrder) {
    Noted first("FIRST");
    first.InstallEventSource("/path", 7);
    first.InstallEventSource("/path", 7);
    {
        Noted second("SECOND");
        second.InstallEventSource("/other", 7);
    }
    using namespace std::string_literals;
    DWORD type = 0;
    EXPECT_EQ(ReadValue(kLog, "Sources", type), "Application\0FIRST\0SECOND\0\0"s);
    EXPECT_EQ(type, REG_MULTI_SZ);
    EXPECT_EQ(ReadValue(kLog + "FIRST"s, "EventMessageFile", type), "/path\0"s);
    EXPECT_EQ(type, REG_EXPAND_SZ);
    EXPECT_EQ(ReadValue(kLog + "FIRST"s, "TypesSupported", type), "\7\0\0\0"s);
    EXPECT_EQ(type, REG_DWORD);
    first.RemoveEventSource();
    EXPECT_EQ(ReadValue(kLog, "Sources", type), "Application\0SECOND\0\0"s);
    EXPECT_EQ(ReadValue(kLog + "FIRST"s, "TypesSupported", type), "no key");
}

TEST(EventLog, OneLineARecordWhateverItsText) {
    Noted service("LINES");
    service.LogEvent("two\nlines\r\x01", EVENTLOG_WARNING_TYPE, static_cast<unsigned>(-1));
    service.LogEvent("own id", EVENTLOG_INFORMATION_TYPE, 0x1234);
    std::ifstream log(g_instance.Path() + "/events.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_NE(lines[0].find(" LINES warning 0x80000001 S-1-22-1-"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("two lines"), std::string::npos);
    EXPECT_NE(lines[1].find(" LINES information 0x00001234 "), std::string::npos) << lines[1];
}

}  // namespace

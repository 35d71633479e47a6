#include "daemons/maild/settings.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/home.h"
#include "trelis/buffered.h"
#include "trelis/size.h"

namespace {

constexpr long long kLongest = 3600;  // seconds
// No engine takes more, and a probe of that size can still be made.
constexpr long long kLargestFileSize = 2LL << 30;
constexpr int kMostThreads = 200;
constexpr int kUsualThreads = 16;

std::string ReadText(const char* name, const std::string& fallback) {
    char value[512];
    const std::string key = std::string(kMailDaemonKey) + "/" + name;
    BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value);
    return value[0] == '\0' ? fallback : value;
}
long long ReadNumber(const char* name, long long fallback) {
    const long long number = std::strtoll(ReadText(name, "0").c_str(), nullptr, 10);
    return number > 0 ? number : fallback;
}
long long ReadSize(const char* name, long long fallback) {
    const long long size = ParseSize(ReadText(name, "0")).value_or(0);
    return size > 0 ? size : fallback;
}
int ReadSeconds(const char* name, int fallback) {
    return static_cast<int>(std::min(ReadNumber(name, fallback), kLongest));
}
bool ReadFlag(const char* name) {
    const std::string text = ReadText(name, "N");
    return text[0] == 'Y' || text[0] == 'y';
}
WhenEncrypted ReadWhenEncrypted() {
    const std::string text = ReadText("WhenEncrypted", "pass");
    if (text == "pass") return WhenEncrypted::kPass;
    return text == "refuse" ? WhenEncrypted::kRefuse : WhenEncrypted::kPutOff;
}
bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

std::shared_ptr<const Settings> LoadSettings() {
    auto settings = std::make_shared<Settings>();
    const std::string ownConf = platform::HomePath("clamd/clamd.conf");
    settings->clamdSocket = ReadText("ClamdSocket", "");
    settings->clamdConf =
        ReadText("ClamdConf", Exists(ownConf) ? ownConf : "/etc/clamav/clamd.conf");
    settings->connectSeconds = ReadSeconds("ConnectTimeout", 5);
    settings->scanSeconds = ReadSeconds("ScanTimeout", 120);
    settings->maxFileSize = std::min(ReadSize("MaxFileSize", kUsualMaxFileSize), kLargestFileSize);
    settings->virusAction = ReadText("VirusAction", "reject");
    settings->redirectAddress = ReadText("RedirectAddress", "");
    settings->whenEncrypted = ReadWhenEncrypted();
    settings->passWhenDown = ReadFlag("PassWhenDown");
    settings->passWhenBusy = ReadFlag("PassWhenBusy");
    settings->passWhenTimedOut = ReadFlag("PassWhenTimedOut");
    settings->passWhenTooBig = ReadFlag("PassWhenTooBig");
    return settings;
}

int LoadThreads() {
    return static_cast<int>(
        std::min<long long>(ReadNumber("Threads", kUsualThreads), kMostThreads));
}

std::string FindClamdSocket(const std::string& configured) {
    if (!configured.empty()) return configured;
    std::string own = platform::HomePath("clamd/clamd.sock");
    return Exists(own) ? own : "/run/clamav/clamd.ctl";
}

#include "platform/eventlog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <string>

#include "platform/account.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/home.h"
#include "platform/linux/fail.h"
#include "platform/linux/wait/object.h"
#include "platform/sync.h"
#include "text/ascii.h"

namespace {

// One older file is kept beside the log, so both together stay below twice this.
constexpr off_t kLargestLog = 1 << 20;

class EventSource final : public platform::Object {
  public:
    explicit EventSource(const char* name) : name_(name) {}
    const std::string& Name() const { return name_; }

  private:
    const std::string name_;
};

const char* TypeName(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return "error";
        case EVENTLOG_WARNING_TYPE:
            return "warning";
        default:
            return "information";
    }
}

int Priority(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return LOG_ERR;
        case EVENTLOG_WARNING_TYPE:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

// A record stays one line whatever its texts hold.
void AppendPrintable(std::string& line, const char* text) {
    for (; *text != '\0'; ++text) line += IsControl(*text) ? ' ' : *text;
}

bool AppendToLog(const std::string& line) {
    const std::string path = platform::HomePath("events.log");
    if (path.empty()) return false;
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && info.st_size >= kLargestLog)
        rename(path.c_str(), (path + ".1").c_str());
    platform::File file(
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file && file.Write(line.data(), line.size()) && file.Close();
}

}  // namespace

HANDLE RegisterEventSourceA(LPCSTR, LPCSTR source) {
    auto* made = source == nullptr || platform::Home().empty() ? nullptr
                                                               : new (std::nothrow)
                                                                     EventSource(source);
    if (made == nullptr) SetLastError(ERROR_ACCESS_DENIED);
    return made == nullptr ? nullptr : platform::ToHandle(made);
}

BOOL ReportEventA(HANDLE source, WORD type, WORD, DWORD eventId, PSID user, WORD count, DWORD,
                  LPCSTR* texts, LPVOID) {
    const auto* from = platform::ObjectOf<EventSource>(source);
    if (from == nullptr) return FALSE;
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", eventId);
    std::string text;
    for (WORD i = 0; i < count; ++i) {
        if (i > 0) text += ' ';
        AppendPrintable(text, texts[i]);
    }
    std::string line = platform::UtcTimeText() + ' ' + from->Name() + ' ' + TypeName(type) + ' ' +
                       id + ' ' + platform::SidText(user) + ' ' + text + '\n';
    if (access("/dev/log", W_OK) == 0)
        syslog(LOG_DAEMON | Priority(type), "%s: %s", from->Name().c_str(), text.c_str());
    if (AppendToLog(line)) return TRUE;
    return platform::Fail(ERROR_ACCESS_DENIED);
}

BOOL DeregisterEventSource(HANDLE source) { return CloseHandle(source); }

#include "platform/eventlog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
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

struct Kind {
    const char* name;
    int priority;  // syslog's
};

Kind KindOf(WORD type) {
    if (type == EVENTLOG_ERROR_TYPE) return {"error", LOG_ERR};
    if (type == EVENTLOG_WARNING_TYPE) return {"warning", LOG_WARNING};
    return {"information", LOG_INFO};
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
    if (source == nullptr || platform::Home().empty()) return platform::Fail(ERROR_ACCESS_DENIED);
    return platform::ToHandle(platform::NewObject<EventSource>(source));
}

BOOL ReportEventA(HANDLE source, WORD type, WORD, DWORD eventId, PSID user, WORD count, DWORD,
                  LPCSTR* texts, LPVOID) {
    const auto* from = platform::ObjectOf<EventSource>(source);
    if (from == nullptr) return FALSE;
    const Kind kind = KindOf(type);
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", eventId);
    std::string text;
    for (WORD i = 0; i < count; ++i) {
        if (i > 0) text += ' ';
        AppendPrintable(text, texts[i]);
    }
    std::string line = platform::UtcTimeText() + ' ' + from->Name() + ' ' + kind.name + ' ' + id +
                       ' ' + platform::SidText(user) + ' ' + text + '\n';
    if (access("/dev/log", W_OK) == 0)
        syslog(LOG_DAEMON | kind.priority, "%s: %s", from->Name().c_str(), text.c_str());
    if (AppendToLog(line)) return TRUE;
    return platform::Fail(ERROR_ACCESS_DENIED);
}

BOOL DeregisterEventSource(HANDLE source) { return CloseHandle(source); }

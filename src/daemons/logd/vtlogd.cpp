// The logger daemon: one line for each event, to log/vtlogd.log below the instance's directory and
// to syslog.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>

#include "daemons/frame/daemon.h"
#include "logclient/levels.h"
#include "ntservice/words.h"
#include "platform/clock.h"
#include "platform/descriptor.h"
#include "platform/home.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "text/printable.h"
#include "trelis/keys/settings.h"

namespace {

struct FieldName {
    std::uint32_t tag;
    const char* name;
};
constexpr FieldName kFields[] = {
    {TagSource, "source"},
    {TagMessage, "message"},
    {TagFrom, "from"},
    {TagSender, "sender"},
    {TagRecipients, "recipients"},
    {TagPath, "path"},
    {TagHost, "host"},
    {TagHostDetail, "host_detail"},
    {TagDetails, "details"},
    {TagStatusText, "status"},
    {TagLabel, "label"},
    {TagAlertLabel, "alert"},
    {TagNumberText, "number"},
    {TagInfoText, "info"},
    {TagEventTextA, "text_a"},
    {TagEventTextB, "text_b"},
    {TagEventTextC, "text_c"},
};

// Neither a line end nor a quote of a stranger's text may look like one of ours, and no control
// reaches who reads the log in a terminal.
void AppendQuoted(std::string& line, std::string_view text) {
    line += '"';
    while (!text.empty()) {
        const std::size_t length = PrintableLength(text);
        if (length == 0) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X",
                          static_cast<unsigned char>(text.front()));
            line += escaped;
        } else {
            if (text.front() == '"' || text.front() == '\\') line += '\\';
            line += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    line += '"';
}

const char* KindName(std::uint32_t word) {
    for (const LogClass& each : kLogClasses) {
        if (each.kind == (word & 0xFFFF0000)) return each.name;
    }
    return (word & 0xFFFF0000) == kEventUnclassed ? "Unclassed" : "Unknown";
}

const char* LevelName(std::uint32_t word) {
    for (const LogLevel& level : kLogLevels) {
        if ((word & level.bit) != 0) return level.word;
    }
    return "high";
}

// The line has the time at which it is written; an event that had to wait for that says when it
// was.
constexpr std::int64_t kLate = 2;  // seconds
void AppendStamp(std::string& line, TagMsgNode* event) {
    const void* text = nullptr;
    if (TagMsgPeekAttr(event, TagStamp, &text) != TAGMSG_OK || text == nullptr) return;
    const std::int64_t stamp = std::strtoll(static_cast<const char*>(text), nullptr, 10);
    if (stamp > 0 && platform::UtcSeconds() - stamp >= kLate)
        line += " posted=\"" + platform::UtcTimeText(stamp) + '"';
}

// What the level of a class asks for: low, a line in the file; medium, the system's log besides, as
// information; high, there as something to look at.
constexpr int kFileOnly = -1;
int SyslogPriority(std::uint32_t word) {
    if ((word & kLevelLow) != 0) return kFileOnly;
    if ((word & kLevelMedium) != 0) return LOG_INFO;
    switch (word & 0xFFFF0000) {
        case kEventError:
            return LOG_ERR;
        case kEventVirus:
        case kEventWarning:
        case kEventFileNotScanned:
        case kEventUpdateError:
            return LOG_WARNING;
        default:
            return LOG_NOTICE;
    }
}

std::string Describe(TagMsgNode* event, std::uint32_t word) {
    std::string line = std::string(LevelName(word)) + ' ' + KindName(word);
    for (const FieldName& field : kFields) {
        const void* text = nullptr;
        if (TagMsgPeekAttr(event, field.tag, &text) != TAGMSG_OK || text == nullptr) continue;
        line += ' ';
        line += field.name;
        line += '=';
        AppendQuoted(line, static_cast<const char*>(text));
    }
    AppendStamp(line, event);
    return line;
}

// Bytes of one log file; read at the start.
constexpr trelis::Key kMaxLogSize{trelis::kLoggerKey, "MaxLogSize"};
constexpr int kOlderLogs = 4;

class LogDaemon final : public Daemon {
  public:
    LogDaemon()
        : Daemon("VTLOGD", "Vantrel Logger", "Keeps the log of the Vantrel programs", "vtlogd") {}

  protected:
    trelis::Registration Keys() const override {
        trelis::Registration keys{trelis::Program::kLogger, "VTLOGD", displayName};
        for (const LogClass& each : kLogClasses) keys.names.emplace_back(each.name);
        return keys;
    }
    bool Start(int, char**) override {
        mkdir(platform::HomePath("log").c_str(), 0700);
        path_ = platform::HomePath("log/vtlogd.log");
        maxSize_ = trelis::ReadNumber(kMaxLogSize);
        toSyslog_ = access("/dev/log", W_OK) == 0;
        if (toSyslog_) openlog("vantrel", LOG_PID, LOG_MAIL);
        if (Reopen()) return true;
        std::fprintf(stderr, "VTLOGD: can't open %s\n", path_.c_str());
        return false;
    }
    int Threads() const override { return 2; }
    void Answer(const void* data, std::uint32_t length, void**, std::uint32_t*) override {
        OwnedMessage event;
        if (event.Parse(data, length) == TAGMSG_OK) {
            std::uint32_t word = 0;
            TagMsgCopyAttr(event.root, TagEventWord, &word, sizeof word);
            Write(Describe(event.root, word), SyslogPriority(word));
        } else {
            Write("high Warning message=\"an event that could not be read\"", LOG_WARNING);
        }
    }

  private:
    bool Reopen() {
        file_.Reset();
        file_.Reset(
            open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        return static_cast<bool>(file_);
    }
    // The log looks after its own size: vtlogd.log, then .1 the newest of the older ones, to .4.
    void Rotate() {
        for (int number = kOlderLogs; number > 0; --number) {
            const std::string older = path_ + '.' + std::to_string(number);
            const std::string newer = number > 1 ? path_ + '.' + std::to_string(number - 1) : path_;
            rename(newer.c_str(), older.c_str());
        }
        Reopen();
    }
    void Write(const std::string& text, int priority) {
        const std::string line = platform::UtcTimeText() + ' ' + text + '\n';
        const std::lock_guard lock(mutex_);
        // Moved away or removed: a new one is begun.
        struct stat there {};
        struct stat mine {};
        if (stat(path_.c_str(), &there) != 0 || fstat(file_.Get(), &mine) != 0 ||
            there.st_ino != mine.st_ino)
            Reopen();
        if (write(file_.Get(), line.data(), line.size()) < 0)
            std::fprintf(stderr, "VTLOGD: %s", line.c_str());
        if (mine.st_size + static_cast<off_t>(line.size()) >= maxSize_) Rotate();
        if (toSyslog_ && priority != kFileOnly) syslog(priority, "%s", text.c_str());
    }

    std::mutex mutex_;
    std::string path_;
    platform::UniqueDescriptor file_;  // guarded by mutex_
    off_t maxSize_ = 0;
    bool toSyslog_ = false;
};

constexpr ServiceWords kWords{"vtlogd",
                              "Keeps the log of the Vantrel programs.\n"
                              "Settings: `vtregistry show logd`; manual: vtlogd(8)\n"};

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    LogDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
